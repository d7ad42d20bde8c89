// Byte order conversion, bit maps and page allocation, entries of tree pages
// and long values, and the default comparison: randomized against simple
// references where they can be.
#include <algorithm>
#include <bit>
#include <cerrno>
#include <random>

#include "test_util.h"

namespace {

bool bit(const std::vector<uint32_t> &map, uint32_t b) { return map[b / 32] >> (b % 32) & 1; }

TEST(ByteOrder, SwapTouchesOnlyWholeAlignedWords) {
    // {offset, length, mask of the words of buf that end up swapped}
    for (auto [off, len, words] : {std::tuple{0, 3, 0}, {1, 3, 0}, {0, 0, 0}, {2, 10, 6}, {0, 7, 1}, {3, 13, 14}}) {
        alignas(4) uint8_t buf[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
        bdb_swap(buf + off, static_cast<uint32_t>(len));
        for (int i = 0; i < 16; ++i) EXPECT_EQ(buf[i], words >> i / 4 & 1 ? i ^ 3 : i) << off << '+' << len << '@' << i;
    }
}

TEST(ByteOrder, PageSwapCoversHeaderSlotsAndOneMoreSlotBothWays) {
    std::mt19937 rng(1000);
    for (uint32_t n : {0u, 1u, 7u, 200u, 339u}) {
        std::vector<uint8_t> machine(BDB_PGSIZE);
        for (auto &b : machine) b = static_cast<uint8_t>(rng());
        std::memcpy(&machine[16], &n, 4);
        std::vector<uint8_t> file = machine;
        bdb_pgswap(file.data(), 1);
        for (uint32_t off = 0; off < BDB_PGSIZE; ++off)
            ASSERT_EQ(file[off], machine[off < 44 + 24 * n ? off ^ 3 : off]) << "nslots " << n << " byte " << off;
        bdb_pgswap(file.data(), 0);  // nslots must be read after the swap
        EXPECT_EQ(file, machine) << "nslots " << n;
    }
}

TEST(BitMap, RunScanAgreesWithBitByBitCount) {
    std::mt19937 rng(20240611);
    const uint32_t kinds[] = {0u, 0xffffffffu, 0x0000fff0u, 0xfff0000fu, 0x80000001u, 0x7ffffffeu};
    for (int round = 0; round < 16000; ++round) {
        std::vector<uint32_t> map(1 + round / 40 % 6);
        for (auto &w : map) w = rng() % 3 ? kinds[rng() % 6] : static_cast<uint32_t>(rng());
        const int32_t nbits = static_cast<int32_t>(map.size()) * 32, pattern = rng() % 2 ? -1 : 0;
        const int32_t start = rng() % (nbits + 8), max = rng() % 3 ? rng() % 200 : rng() % 5;
        int32_t want = start < nbits ? 0 : -1;
        while (want >= 0 && want < max && start + want < nbits && bit(map, start + want) == (pattern & 1)) ++want;
        ASSERT_EQ(varlo::bits_tst(map.data(), static_cast<int32_t>(map.size()), pattern, start, max), want)
            << "round " << round << " start " << start << " max " << max << " pattern " << pattern;
    }
}

class Storage : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(h_ = vt::create_open(dir_.file("db"), 0, vt::recording_handler), nullptr); }
    // Destroyed: nothing of the hand-made maps reaches the file.
    void TearDown() override {
        varlo::sysio_reset();
        EXPECT_EQ(h_ ? bdb_destroy(h_) : 0, 0);
    }
    std::vector<uint32_t> map() const { return {h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS}; }
    vt::TempDir dir_;
    bdb_handle *h_ = nullptr;
};

TEST_F(Storage, AllocationIsFirstFitLikeAPageByPageSearch) {
    uint32_t first = 0, *m = h_->meta->pgmap;
    // The first page of the run, or the error code.
    auto alloc = [&](uint32_t n) { return bdb_alloc_dpages(h_, n, &first) == 0 ? first : bdb_error(h_); };
    EXPECT_EQ(alloc(1), 1u);
    EXPECT_EQ(std::filesystem::file_size(dir_.file("db")), 2u * 8192) << "the file grows to the map";
    std::mt19937 rng(31337);
    *h_->npages_ref = BDB_MAXPAGES;  // no more extension: the file would be huge
    for (int round = 0; round < 300; ++round) {
        std::fill(m, m + BDB_MAPWORDS, 0u);
        const uint32_t used_to = round % 10 == 0 ? BDB_MAXPAGES : 1 + rng() % 4000, density = rng() % 100;
        for (uint32_t p = 0; p < used_to; ++p)
            if (p == 0 || rng() % 100 < density) bits_setb(m, static_cast<int32_t>(p));
        const uint32_t n = 1 + (rng() % 4 ? rng() % 8 : rng() % 70);
        std::vector<uint32_t> want = map();
        uint32_t end = 0, run = 0;
        while (end < BDB_MAXPAGES && run < n) run = bit(want, end++) ? 0 : run + 1;
        for (uint32_t p = end - n; run == n && p < end; ++p) want[p / 32] |= 1u << (p % 32);
        ASSERT_EQ(alloc(n), run == n ? end - n : BDB_E_FULL) << "round " << round << " n " << n;
        ASSERT_EQ(map(), want) << "round " << round << " n " << n;
    }
    // A run that would end past the last page is never given.
    std::fill(m, m + BDB_MAPWORDS, 0xffffffffu);
    for (uint32_t p = BDB_MAXPAGES - 4; p < BDB_MAXPAGES; ++p) bits_clrb(m, static_cast<int32_t>(p));
    EXPECT_EQ(alloc(5), BDB_E_FULL);
    EXPECT_EQ(alloc(4), BDB_MAXPAGES - 4);
}

// Random places and removals of short and long values against a list; for
// every fourth long value the run first cannot be had (full map) or written,
// which must leave the page and the map as they were.
TEST_F(Storage, RandomEntriesMatchAList) {
    std::mt19937 rng(7);
    alignas(8) uint8_t bytes[BDB_PGSIZE] = {};
    auto *pg = reinterpret_cast<bdb_page *>(bytes);
    pg->datastart = BDB_PGSIZE;
    std::vector<std::pair<std::string, std::string>> list;
    for (int step = 0, longs = 0; step < 2000; ++step) {
        if (list.empty() || rng() % 3 != 0) {
            std::string k(1 + rng() % 40, static_cast<char>('a' + rng() % 26));
            std::string v(rng() % 4 ? rng() % 120 : rng() % 20000, 0);
            for (auto &c : v) c = static_cast<char>(rng());
            bdb_entry e{k.data(), static_cast<uint32_t>(k.size()), v.data(), static_cast<uint32_t>(v.size()), 0, 0};
            if (!bdb_data_fits(pg, &e)) continue;
            const int32_t pos = static_cast<int32_t>(rng() % (list.size() + 1)) - 1;
            if (v.size() >= BDB_LONGDATA && ++longs % 4 == 0) {
                const std::vector<uint8_t> before(bytes, bytes + BDB_PGSIZE);
                const std::vector<uint32_t> saved = map();
                const bool full = longs % 8 == 0;
                varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t { return errno = EIO, -1; };
                if (full) std::fill(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS, 0xffffffffu);
                bdb_entry copy = e;
                ASSERT_EQ(bdb_insdatum(h_, pg, pos, &copy) ? bdb_error(h_) : 0u, full ? BDB_E_FULL : BDB_E_WRITE);
                ASSERT_TRUE(std::equal(before.begin(), before.end(), bytes)) << "step " << step;
                // A failed write gives its run back.
                ASSERT_EQ(map(), full ? std::vector<uint32_t>(BDB_MAPWORDS, ~0u) : saved) << "step " << step;
                std::copy(saved.begin(), saved.end(), h_->meta->pgmap);
                varlo::sysio_reset();
            }
            ASSERT_EQ(bdb_insdatum(h_, pg, pos, &e), 0) << "step " << step << " " << vt::last_context();
            list.insert(list.begin() + (pos + 1), {k, v});
        } else {
            const uint32_t i = rng() % list.size();
            ASSERT_EQ(bdb_deldata(h_, pg, static_cast<int32_t>(i), 0), 0);
            list.erase(list.begin() + i);
        }
        // Entries packed downward from 8192 in slot order, inline values right
        // after their keys; long values own exactly their runs of pages.
        ASSERT_EQ(pg->nslots, list.size());
        uint32_t end = BDB_PGSIZE, pages = 1, used = 0;
        for (uint32_t i = 0; i < list.size(); ++i) {
            const bdb_slot &s = pg->slots[i];
            const bool dpages = s.flags & BDB_DPAGES;
            ASSERT_EQ(dpages, list[i].second.size() >= BDB_LONGDATA) << "step " << step << " slot " << i;
            ASSERT_EQ(s.keyoff + s.keylen + (dpages ? 0 : s.datalen), end) << "step " << step << " slot " << i;
            ASSERT_TRUE(dpages || s.dataref == s.keyoff + s.keylen) << "step " << step << " slot " << i;
            ASSERT_EQ(std::string(reinterpret_cast<char *>(bytes) + s.keyoff, s.keylen), list[i].first);
            bdb_datum d{};
            ASSERT_EQ(bdb_ret_data(h_, pg, &d, static_cast<int32_t>(i)), 0);
            ASSERT_TRUE(std::string(d.len ? static_cast<char *>(d.ptr) : "", d.len) == list[i].second) << i;
            std::free(d.ptr);
            pages += dpages ? (s.datalen + 8191) / 8192 : 0;
            end = s.keyoff;
        }
        ASSERT_EQ(pg->datastart, end) << "step " << step;
        for (uint32_t w : map()) used += static_cast<uint32_t>(std::popcount(w));
        ASSERT_EQ(used, pages) << "step " << step;
    }
}

TEST(Entries, DefaultComparisonAgreesWithAByteWiseReference) {
    std::mt19937 rng(99);
    auto key = [&](std::string s) { for (auto &c : s) c = rng() % 8 ? c : static_cast<char>(rng()); return s; };
    for (int i = 0; i < 20000; ++i) {
        std::string x = key(std::string(rng() % 40, 'p')), y = key(std::string(rng() % 40, 'p'));
        bdb_datum dx = vt::datum(x), dy = vt::datum(y);
        const auto [ix, iy] = std::mismatch(x.begin(), x.end(), y.begin(), y.end());
        const int want = ix == x.end() || iy == y.end() ? (iy != y.end() ? -1 : ix != x.end())
                                                        : static_cast<uint8_t>(*ix) - static_cast<uint8_t>(*iy);
        ASSERT_EQ(bdb_dti_compare(&dx, &dy), want) << "case " << i;
    }
    char same[] = "xyz";
    bdb_datum a{same, 3}, b{same, 1}, null{nullptr, 3};
    EXPECT_EQ(std::tuple(bdb_dti_compare(&a, &b), bdb_dti_compare(&null, &a), bdb_dti_compare(&a, &null)),
              std::tuple(0, -1, 1)) << "the same address whatever the lengths; no bytes before any";
}

TEST_F(Storage, LongValuesTakeWholeRunsFromTheThreshold) {
    alignas(8) uint8_t bytes[BDB_PGSIZE] = {};
    auto *pg = reinterpret_cast<bdb_page *>(bytes);
    pg->datastart = BDB_PGSIZE;
    // value length -> data pages (0: inline after its key)
    const std::pair<uint32_t, uint32_t> sizes[] = {{2047, 0}, {2048, 1}, {8192, 1}, {8193, 2}, {16385, 3}};
    for (auto [len, pages] : sizes) {
        std::string k = "k" + std::to_string(len), v(len, 'v');
        bdb_entry e{k.data(), static_cast<uint32_t>(k.size()), v.data(), len, 0, 0};
        const uint32_t before = varlo::count_free_pages(h_);
        ASSERT_EQ(bdb_insdatum(h_, pg, -1, &e), 0);
        EXPECT_EQ(before - varlo::count_free_pages(h_), pages) << len;
        EXPECT_EQ(bdb_key_data_size(pg, 0), k.size() + (pages ? 0 : len)) << len;
        ASSERT_EQ(bdb_deldata(h_, pg, 0, 0), 0);
    }
}

}  // namespace
