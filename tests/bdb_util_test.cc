// Byte order conversion, the file layout, bit maps and page allocation,
// entries of tree pages and long values, and the default comparison.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using varlo::bits_tst;

uint32_t word_at(const uint8_t *p) {
    uint32_t w;
    std::memcpy(&w, p, 4);
    return w;
}

off_t file_size(const std::string &path) {
    struct stat st;
    if (::stat(path.c_str(), &st) < 0) return -1;
    return st.st_size;
}

// ---------------------------------------------------------------------------
// Byte order
// ---------------------------------------------------------------------------

TEST(ByteOrder, SwapTouchesOnlyWholeAlignedWords) {
    alignas(4) uint8_t buf[16];
    uint8_t orig[16];
    for (int i = 0; i < 16; ++i) orig[i] = static_cast<uint8_t>(i);

    std::memcpy(buf, orig, 16);
    bdb_swap(buf, 3);
    EXPECT_EQ(std::memcmp(buf, orig, 16), 0) << "length 3 changes nothing";
    bdb_swap(buf + 1, 3);
    EXPECT_EQ(std::memcmp(buf, orig, 16), 0) << "no whole word after the boundary";
    bdb_swap(buf, 0);
    EXPECT_EQ(std::memcmp(buf, orig, 16), 0);

    // Two bytes past a boundary, ten bytes: the words at 4 and 8 only.
    bdb_swap(buf + 2, 10);
    const uint8_t want[16] = {0, 1, 2, 3, 7, 6, 5, 4, 11, 10, 9, 8, 12, 13, 14, 15};
    EXPECT_EQ(std::memcmp(buf, want, 16), 0);

    // A trailing partial word is left alone.
    std::memcpy(buf, orig, 16);
    bdb_swap(buf, 7);
    const uint8_t want7[16] = {3, 2, 1, 0, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    EXPECT_EQ(std::memcmp(buf, want7, 16), 0);
}

// A page of random bytes whose nslots (in machine order) is n.
std::vector<uint8_t> random_page(uint32_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> pg(BDB_PGSIZE);
    for (auto &b : pg) b = static_cast<uint8_t>(rng());
    std::memcpy(pg.data() + 16, &n, 4);
    return pg;
}

TEST(ByteOrder, PageConversionCoversHeaderSlotsAndOneMoreSlot) {
    for (uint32_t n : {0u, 1u, 7u, 200u, 339u}) {
        const uint32_t seed = 1000 + n;
        SCOPED_TRACE("nslots " + std::to_string(n) + " seed " + std::to_string(seed));
        const std::vector<uint8_t> orig = random_page(n, seed);
        const uint32_t span = 44 + 24 * n;

        std::vector<uint8_t> pg = orig;
        bdb_pgswap(pg.data(), 1);  // machine -> file order
        for (uint32_t off = 0; off < span; off += 4)
            ASSERT_EQ(word_at(&pg[off]), __builtin_bswap32(word_at(&orig[off]))) << "offset " << off;
        ASSERT_EQ(std::memcmp(pg.data() + span, orig.data() + span, BDB_PGSIZE - span), 0)
            << "bytes past " << span << " changed";
        bdb_pgswap(pg.data(), 0);  // and back
        EXPECT_EQ(pg, orig);

        // The other way round: a page in file order read in and written out.
        std::vector<uint8_t> file = orig;
        uint32_t swapped_n = __builtin_bswap32(n);
        std::memcpy(file.data() + 16, &swapped_n, 4);
        std::vector<uint8_t> pg2 = file;
        bdb_pgswap(pg2.data(), 0);
        uint32_t got_n;
        std::memcpy(&got_n, pg2.data() + 16, 4);
        EXPECT_EQ(got_n, n);
        EXPECT_EQ(std::memcmp(pg2.data() + span, file.data() + span, BDB_PGSIZE - span), 0);
        bdb_pgswap(pg2.data(), 1);
        EXPECT_EQ(pg2, file);
    }
}

TEST(FileLayout, NewFileHoldsOnlyItsMetaPage) {
    vt::TempDir dir;
    const std::string path = dir.file("db");
    uint32_t err = 0;
    ASSERT_EQ(bdb_create(path.c_str(), BDB_PRIVATE, &err), 0) << std::hex << err;
    ASSERT_EQ(file_size(path), 8192);
    std::vector<uint32_t> w(2048);
    int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pread(fd, w.data(), 8192, 0), 8192);
    ::close(fd);
    EXPECT_EQ(w[0], 0xf00dfaceu);
    EXPECT_EQ(w[1], 1u);
    EXPECT_EQ(w[2], static_cast<uint32_t>(BDB_PRIVATE));
    EXPECT_EQ(w[3], 1u);
    EXPECT_EQ(w[4], 0u);
    EXPECT_EQ(w[5], 0u) << "root";
    EXPECT_EQ(w[6], 1u) << "map word 0: only page 0 in use";
    for (size_t i = 7; i < w.size(); ++i) ASSERT_EQ(w[i], 0u) << "word " << i;

    // The first record makes page 1 the root.
    bdb_handle *h = vt::open_db(path);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    EXPECT_EQ(h->meta->root, 1u);
    EXPECT_EQ(h->meta->pgmap[0], 3u);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(file_size(path), 2 * 8192);
}

// ---------------------------------------------------------------------------
// Bit maps
// ---------------------------------------------------------------------------

// Bit by bit: the run of bits equal to the pattern's from start, at most max.
int32_t naive_tst(const std::vector<uint32_t> &map, uint32_t pattern, int32_t start, int32_t max) {
    const int32_t nbits = static_cast<int32_t>(map.size()) * 32;
    if (start >= nbits) return -1;
    const int want = pattern ? 1 : 0;
    int32_t c = 0;
    while (c < max && start + c < nbits && bits_tstb(map.data(), start + c) == want) ++c;
    return c;
}

TEST(BitMap, RunScanExamples) {
    std::vector<uint32_t> map = {0u, 0xffffffffu, 0u};
    const int32_t nw = 3;
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 5, 1000), 27) << "start 5, word 0 free, word 1 in use";
    EXPECT_EQ(bits_tst(map.data(), nw, 0xffffffffu, 32, 1000), 32);
    EXPECT_EQ(bits_tst(map.data(), nw, 0xffffffffu, 37, 1000), 27);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 64, 1000), 32) << "the map's end stops the count";
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 94, 1000), 2);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 95, 1000), 1);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 96, 1000), -1);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 1 << 20, 1000), -1);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 0, 0), 0);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 5, 0), 0);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 3, 2), 2);
    EXPECT_EQ(bits_tst(map.data(), nw, 0xffffffffu, 0, 1000), 0);
    EXPECT_EQ(bits_tst(map.data(), nw, 0, 32, 1000), 0);
    EXPECT_EQ(varlo::bits_tstclr(map.data(), nw, 64, 10), 10);
    EXPECT_EQ(varlo::bits_tstset(map.data(), nw, 33, 100), 31);
}

TEST(BitMap, RunScanAgreesWithBitByBitCount) {
    const uint32_t seed = 20240611;
    std::mt19937 rng(seed);
    const uint32_t kinds[] = {0u, 0xffffffffu, 0x0000fff0u, 0xfff0000fu, 0x80000001u, 0x7ffffffeu};
    for (int round = 0; round < 400; ++round) {
        std::vector<uint32_t> map(1 + rng() % 6);
        for (auto &w : map) w = rng() % 3 ? kinds[rng() % 6] : static_cast<uint32_t>(rng());
        const int32_t nbits = static_cast<int32_t>(map.size()) * 32;
        for (int q = 0; q < 40; ++q) {
            const uint32_t pattern = rng() % 2 ? 0xffffffffu : 0u;
            const int32_t start = static_cast<int32_t>(rng() % (nbits + 8));
            const int32_t max = static_cast<int32_t>(rng() % 3 ? rng() % 200 : rng() % 5);
            const int32_t got = bits_tst(map.data(), static_cast<int32_t>(map.size()), pattern, start, max);
            ASSERT_EQ(got, naive_tst(map, pattern, start, max))
                << "seed " << seed << " round " << round << " start " << start << " max " << max << " pattern "
                << pattern << " map word " << (start / 32 < static_cast<int32_t>(map.size()) ? map[start / 32] : 0);
        }
    }
}

TEST(BitMap, SetClearTest) {
    uint32_t map[3] = {0, 0, 0};
    bits_setb(map, 0);
    bits_setb(map, 31);
    bits_setb(map, 32);
    bits_setb(map, 95);
    EXPECT_EQ(map[0], 0x80000001u);
    EXPECT_EQ(map[1], 1u);
    EXPECT_EQ(map[2], 0x80000000u);
    EXPECT_EQ(bits_tstb(map, 31), 1);
    EXPECT_EQ(bits_tstb(map, 30), 0);
    bits_clrb(map, 31);
    EXPECT_EQ(map[0], 1u);
    EXPECT_EQ(bits_tstb(map, 31), 0);
}

// ---------------------------------------------------------------------------
// Allocation: a real handle whose map the tests set up by hand
// ---------------------------------------------------------------------------

class Storage : public ::testing::Test {
protected:
    void SetUp() override {
        vt::reports().clear();
        path_ = dir_.file("db");
        h_ = vt::create_open(path_, 0, vt::recording_handler);
        ASSERT_NE(h_, nullptr);
    }
    void TearDown() override {
        varlo::sysio_reset();
        // Destroy: nothing of what the tests did to the map goes to the file.
        if (h_) {
            EXPECT_EQ(bdb_destroy(h_), 0);
        }
    }
    // Marks pages in use and makes the file as long as the map says.
    void use_pages(std::initializer_list<uint32_t> pages) {
        for (uint32_t p : pages) bits_setb(h_->meta->pgmap, static_cast<int32_t>(p));
        uint32_t need = bdb_find_max_page_number(h_);
        if (need > *h_->npages_ref) {
            ASSERT_EQ(bdb_extend(h_, need), 0);
        }
    }
    std::vector<uint32_t> map() const { return {h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS}; }
    uint32_t alloc(uint32_t n) {
        uint32_t first = 0xdeadbeef;
        EXPECT_EQ(bdb_alloc_dpages(h_, n, &first), 0) << "n " << n << " " << vt::last_context();
        return first;
    }

    vt::TempDir dir_;
    std::string path_;
    bdb_handle *h_ = nullptr;
};

TEST_F(Storage, AllocationIsFirstFitAndExtendsTheFile) {
    EXPECT_EQ(*h_->npages_ref, 1u);
    EXPECT_EQ(alloc(1), 1u);
    EXPECT_EQ(*h_->npages_ref, 2u);
    EXPECT_EQ(file_size(path_), 2 * 8192);
    EXPECT_TRUE(*h_->state_ref & BDB_METADIRTY);

    use_pages({2, 3, 4, 5});
    bits_clrb(h_->meta->pgmap, 3);
    ASSERT_EQ(file_size(path_), 6 * 8192);
    EXPECT_EQ(alloc(1), 3u);
    EXPECT_EQ(*h_->npages_ref, 6u);
    EXPECT_EQ(file_size(path_), 6 * 8192);
    bits_clrb(h_->meta->pgmap, 3);
    EXPECT_EQ(alloc(2), 6u) << "the hole at 3 is too short";
    EXPECT_EQ(h_->meta->pgmap[0], 0xf7u);
    EXPECT_EQ(*h_->npages_ref, 8u);
    EXPECT_EQ(file_size(path_), 8 * 8192);
    EXPECT_TRUE(vt::reports().empty()) << vt::last_context();
}

TEST_F(Storage, AllocationSkipsHolesTooShort) {
    for (uint32_t p = 0; p <= 100; p += 2) bits_setb(h_->meta->pgmap, static_cast<int32_t>(p));
    ASSERT_EQ(bdb_extend(h_, 101), 0);
    EXPECT_EQ(alloc(2), 101u);
    EXPECT_EQ(bits_tstb(h_->meta->pgmap, 101), 1);
    EXPECT_EQ(bits_tstb(h_->meta->pgmap, 102), 1);
    EXPECT_EQ(bits_tstb(h_->meta->pgmap, 103), 0);
    EXPECT_EQ(alloc(1), 1u);
    // Runs across a word boundary.
    EXPECT_EQ(alloc(40), 103u);
    EXPECT_EQ(bdb_find_max_page_number(h_), 143u);
}

TEST_F(Storage, FullMapFailsAndChangesNothing) {
    std::fill(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS, 0xffffffffu);
    *h_->npages_ref = BDB_MAXPAGES;  // no extension wanted
    *h_->state_ref &= ~BDB_METADIRTY;
    const std::vector<uint32_t> before = map();
    uint32_t first = 77;
    errno = 0;
    EXPECT_EQ(bdb_alloc_dpages(h_, 1, &first), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(bdb_error(h_), BDB_E_FULL);
    ASSERT_EQ(vt::reports().size(), 1u);
    EXPECT_EQ(vt::reports()[0].context, "db too big - no room in meta");
    EXPECT_EQ(vt::reports()[0].code, BDB_E_FULL);
    EXPECT_EQ(map(), before);
    EXPECT_FALSE(*h_->state_ref & BDB_METADIRTY);

    // Only the last page free: one page fits there, two never go past it.
    bits_clrb(h_->meta->pgmap, 65343);
    EXPECT_EQ(bdb_alloc_dpages(h_, 2, &first), -1);
    EXPECT_EQ(bdb_error(h_), BDB_E_FULL);
    EXPECT_EQ(alloc(1), 65343u);
    EXPECT_EQ(bdb_alloc_dpages(h_, 1, &first), -1);
}

// First fit against a page-by-page search, on maps with holes of every size.
TEST_F(Storage, AllocationFindsTheFirstRunLikeAPageByPageSearch) {
    const uint32_t seed = 31337;
    std::mt19937 rng(seed);
    uint32_t *m = h_->meta->pgmap;
    *h_->npages_ref = BDB_MAXPAGES;  // extension is tested above
    for (int round = 0; round < 300; ++round) {
        std::fill(m, m + BDB_MAPWORDS, 0u);
        const uint32_t used_to = round % 10 == 0 ? BDB_MAXPAGES : 1 + rng() % 4000;
        const uint32_t density = rng() % 100;
        for (uint32_t p = 0; p < used_to; ++p)
            if (rng() % 100 < density) bits_setb(m, static_cast<int32_t>(p));
        bits_setb(m, 0);
        const uint32_t n = 1 + (rng() % 4 ? rng() % 8 : rng() % 70);
        int64_t want = -1;
        for (uint32_t p = 0, run = 0; p < BDB_MAXPAGES; ++p) {
            run = bits_tstb(m, static_cast<int32_t>(p)) ? 0 : run + 1;
            if (run == n) {
                want = p + 1 - n;
                break;
            }
        }
        const std::vector<uint32_t> before = map();
        uint32_t first = 0;
        const int rc = bdb_alloc_dpages(h_, n, &first);
        if (want < 0) {
            ASSERT_EQ(rc, -1) << "seed " << seed << " round " << round << " n " << n << " got " << first;
            ASSERT_EQ(map(), before) << "seed " << seed << " round " << round;
            continue;
        }
        ASSERT_EQ(rc, 0) << "seed " << seed << " round " << round << " n " << n;
        ASSERT_EQ(first, want) << "seed " << seed << " round " << round << " n " << n;
        std::vector<uint32_t> expect = before;
        for (uint32_t p = first; p < first + n; ++p) expect[p / 32] |= 1u << (p % 32);
        ASSERT_EQ(map(), expect) << "seed " << seed << " round " << round;
    }
    // A run that would end past the last page is never given.
    std::fill(m, m + BDB_MAPWORDS, 0xffffffffu);
    for (uint32_t p = 65340; p < BDB_MAXPAGES; ++p) bits_clrb(m, static_cast<int32_t>(p));
    uint32_t first = 0;
    EXPECT_EQ(bdb_alloc_dpages(h_, 5, &first), -1);
    EXPECT_EQ(bdb_error(h_), BDB_E_FULL);
    EXPECT_EQ(alloc(4), 65340u);
}

TEST_F(Storage, PagesTheFileNeeds) {
    EXPECT_EQ(bdb_find_max_page_number(h_), 1u);
    for (int32_t p = 0; p <= 40; ++p) bits_setb(h_->meta->pgmap, p);
    EXPECT_EQ(bdb_find_max_page_number(h_), 41u);
    std::fill(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS, 0u);
    bits_setb(h_->meta->pgmap, 0);
    bits_setb(h_->meta->pgmap, 65343);
    EXPECT_EQ(bdb_find_max_page_number(h_), 65344u);
    bits_clrb(h_->meta->pgmap, 65343);
    bits_setb(h_->meta->pgmap, 65312);
    EXPECT_EQ(bdb_find_max_page_number(h_), 65313u);
    h_->meta->pgmap[0] = 0;
    h_->meta->pgmap[BDB_MAPWORDS - 1] = 0;
    EXPECT_EQ(bdb_find_max_page_number(h_), 0u);
}

// ---------------------------------------------------------------------------
// Entries
// ---------------------------------------------------------------------------

struct PageBuf {
    alignas(8) uint8_t bytes[BDB_PGSIZE];
    explicit PageBuf(uint32_t pgno = 9) {
        std::memset(bytes, 0, sizeof bytes);
        p()->pgno = pgno;
        p()->datastart = BDB_PGSIZE;
    }
    bdb_page *p() { return reinterpret_cast<bdb_page *>(bytes); }
    std::string key(uint32_t i) { return {reinterpret_cast<char *>(bytes) + p()->slots[i].keyoff, p()->slots[i].keylen}; }
    std::string inline_value(uint32_t i) {
        return {reinterpret_cast<char *>(bytes) + p()->slots[i].dataref, p()->slots[i].datalen};
    }
};

// Entries packed from 8192 downward in slot order, inline values right after
// their keys, datastart at the last entry.
void expect_packed(PageBuf &pg) {
    const bdb_page *p = pg.p();
    uint32_t end = BDB_PGSIZE;
    for (uint32_t i = 0; i < p->nslots; ++i) {
        const bdb_slot &s = p->slots[i];
        const uint32_t size = s.keylen + ((s.flags & BDB_DPAGES) ? 0 : s.datalen);
        EXPECT_EQ(s.keyoff + size, end) << "slot " << i;
        EXPECT_EQ(bdb_key_data_size(p, static_cast<int32_t>(i)), size) << "slot " << i;
        if (!(s.flags & BDB_DPAGES)) {
            EXPECT_EQ(s.dataref, s.keyoff + s.keylen) << "slot " << i;
        }
        end = s.keyoff;
    }
    EXPECT_EQ(p->datastart, end);
}

bdb_entry entry(const std::string &k, const std::string &v) {
    return bdb_entry{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size()), const_cast<char *>(v.data()),
                     static_cast<uint32_t>(v.size()), 0, 0};
}

TEST_F(Storage, PlacingAndRemovingKeepsEntriesPacked) {
    PageBuf pg;
    const std::string k1 = "first", v1 = "one", k2 = "second", v2 = "twotwo", k3 = "third", v3(300, 'x');
    bdb_entry e1 = entry(k1, v1), e2 = entry(k2, v2), e3 = entry(k3, v3);
    e2.childpg = 42;
    ASSERT_EQ(bdb_insdatum(h_, pg.p(), -1, &e1), 0);
    ASSERT_EQ(bdb_insdatum(h_, pg.p(), 0, &e2), 0);
    ASSERT_EQ(bdb_insdatum(h_, pg.p(), -1, &e3), 0);
    ASSERT_EQ(pg.p()->nslots, 3u);
    EXPECT_EQ(pg.key(0), k3);
    EXPECT_EQ(pg.key(1), k1);
    EXPECT_EQ(pg.key(2), k2);
    EXPECT_EQ(pg.inline_value(0), v3);
    EXPECT_EQ(pg.inline_value(1), v1);
    EXPECT_EQ(pg.inline_value(2), v2);
    EXPECT_EQ(pg.p()->slots[2].childpg, 42u);
    EXPECT_EQ(pg.p()->slots[0].keyoff, BDB_PGSIZE - k3.size() - v3.size());
    expect_packed(pg);

    // Removing slot 0 gives its bytes back and moves the others up.
    const uint32_t ds = pg.p()->datastart;
    const uint32_t off1 = pg.p()->slots[1].keyoff, off2 = pg.p()->slots[2].keyoff;
    const uint32_t gone = static_cast<uint32_t>(k3.size() + v3.size());
    ASSERT_EQ(bdb_deldata(h_, pg.p(), 0, 0), 0);
    ASSERT_EQ(pg.p()->nslots, 2u);
    EXPECT_EQ(pg.p()->datastart, ds + gone);
    EXPECT_EQ(pg.p()->slots[0].keyoff, off1 + gone);
    EXPECT_EQ(pg.p()->slots[1].keyoff, off2 + gone);
    EXPECT_EQ(pg.key(0), k1);
    EXPECT_EQ(pg.inline_value(1), v2);
    expect_packed(pg);

    // Empty values, and removing the middle one of three.
    const std::string k4 = "m", v4;
    bdb_entry e4 = entry(k4, v4);
    ASSERT_EQ(bdb_insdatum(h_, pg.p(), 0, &e4), 0);
    EXPECT_EQ(pg.key(1), "m");
    EXPECT_EQ(pg.p()->slots[1].datalen, 0u);
    expect_packed(pg);
    ASSERT_EQ(bdb_deldata(h_, pg.p(), 1, 0), 0);
    EXPECT_EQ(pg.key(0), k1);
    EXPECT_EQ(pg.key(1), k2);
    expect_packed(pg);
    ASSERT_EQ(bdb_deldata(h_, pg.p(), 1, 0), 0);
    ASSERT_EQ(bdb_deldata(h_, pg.p(), 0, 0), 0);
    EXPECT_EQ(pg.p()->datastart, BDB_PGSIZE);
}

TEST_F(Storage, RandomPlacementMatchesAModel) {
    const uint32_t seed = 7;
    std::mt19937 rng(seed);
    PageBuf pg;
    std::vector<std::pair<std::string, std::string>> model;
    for (int step = 0; step < 2000; ++step) {
        const bool add = model.empty() || rng() % 3 != 0;
        if (add) {
            std::string k(1 + rng() % 40, static_cast<char>('a' + rng() % 26));
            std::string v(rng() % 4 ? rng() % 120 : rng() % 2048, static_cast<char>('A' + step % 26));
            bdb_entry e = entry(k, v);
            if (!bdb_data_fits(pg.p(), &e)) continue;
            const int32_t pos = static_cast<int32_t>(rng() % (model.size() + 1)) - 1;
            ASSERT_EQ(bdb_insdatum(h_, pg.p(), pos, &e), 0) << "seed " << seed << " step " << step;
            model.insert(model.begin() + (pos + 1), {k, v});
            ASSERT_GE(pg.p()->datastart, 20 + 24 * pg.p()->nslots + 24) << "seed " << seed << " step " << step;
        } else {
            const uint32_t i = rng() % model.size();
            ASSERT_EQ(bdb_deldata(h_, pg.p(), static_cast<int32_t>(i), 0), 0);
            model.erase(model.begin() + i);
        }
        ASSERT_EQ(pg.p()->nslots, model.size());
        for (uint32_t i = 0; i < model.size(); ++i) {
            ASSERT_EQ(pg.key(i), model[i].first) << "seed " << seed << " step " << step << " slot " << i;
            ASSERT_EQ(pg.inline_value(i), model[i].second) << "seed " << seed << " step " << step << " slot " << i;
        }
        expect_packed(pg);
        if (HasFailure()) FAIL() << "seed " << seed << " step " << step;
    }
}

TEST_F(Storage, LongValuesLiveOnRunsOfDataPages) {
    PageBuf pg;
    struct Case {
        uint32_t len;
        uint32_t pages;
    };
    const Case cases[] = {{2047, 0}, {2048, 1}, {8192, 1}, {8193, 2}, {16385, 3}};
    uint32_t next_page = 1;
    int32_t pos = -1;
    for (const Case &c : cases) {
        SCOPED_TRACE("value length " + std::to_string(c.len));
        const std::string k = "key" + std::to_string(c.len);
        std::string v(c.len, '\0');
        for (uint32_t i = 0; i < c.len; ++i) v[i] = static_cast<char>(i * 7 + c.len);
        bdb_entry e = entry(k, v);
        const uint32_t ds = pg.p()->datastart;
        ASSERT_EQ(bdb_insdatum(h_, pg.p(), pos, &e), 0) << vt::last_context();
        ++pos;
        const bdb_slot &s = pg.p()->slots[pos];
        EXPECT_EQ(s.datalen, c.len);
        if (c.pages == 0) {
            EXPECT_FALSE(s.flags & BDB_DPAGES);
            EXPECT_EQ(ds - pg.p()->datastart, k.size() + c.len);
            EXPECT_EQ(pg.inline_value(static_cast<uint32_t>(pos)), v);
        } else {
            EXPECT_TRUE(s.flags & BDB_DPAGES);
            EXPECT_EQ(ds - pg.p()->datastart, k.size()) << "only the key stays in the page";
            EXPECT_EQ(s.dataref, next_page);
            for (uint32_t i = 0; i < c.pages; ++i)
                EXPECT_EQ(bits_tstb(h_->meta->pgmap, static_cast<int32_t>(next_page + i)), 1);
            EXPECT_EQ(bits_tstb(h_->meta->pgmap, static_cast<int32_t>(next_page + c.pages)), 0);
            next_page += c.pages;
            EXPECT_EQ(*h_->npages_ref, next_page);
            EXPECT_EQ(file_size(path_), static_cast<off_t>(next_page) * 8192);
            // The bytes stand contiguously in the file from the run's start.
            std::string onfile(c.len, '\0');
            int fd = ::open(path_.c_str(), O_RDONLY);
            ASSERT_GE(fd, 0);
            EXPECT_EQ(::pread(fd, onfile.data(), c.len, static_cast<off_t>(s.dataref) * 8192), c.len);
            ::close(fd);
            EXPECT_TRUE(onfile == v);
        }
        bdb_datum out{};
        ASSERT_EQ(bdb_ret_data(h_, pg.p(), &out, pos), 0);
        ASSERT_EQ(out.len, c.len);
        EXPECT_EQ(std::memcmp(out.ptr, v.data(), c.len), 0);
        EXPECT_EQ(static_cast<char *>(out.ptr)[c.len], '\0');
        std::free(out.ptr);
        expect_packed(pg);
    }
    // Removing a long value frees its run.
    ASSERT_EQ(bdb_deldata(h_, pg.p(), 4, 0), 0);
    for (uint32_t p = 5; p < 8; ++p) EXPECT_EQ(bits_tstb(h_->meta->pgmap, static_cast<int32_t>(p)), 0) << p;
    EXPECT_EQ(bits_tstb(h_->meta->pgmap, 4), 1);
    expect_packed(pg);
}

TEST_F(Storage, MovedLongValueKeepsItsRun) {
    PageBuf a(10), b(11);
    const std::string k = "long", v(9000, 'q'), k2 = "short", v2 = "s";
    bdb_entry e = entry(k, v), e2 = entry(k2, v2);
    ASSERT_EQ(bdb_insdatum(h_, a.p(), -1, &e), 0);
    ASSERT_EQ(bdb_insdatum(h_, a.p(), 0, &e2), 0);
    const uint32_t first = a.p()->slots[0].dataref;
    const std::vector<uint32_t> before = map();

    bdb_entry moved{};
    ASSERT_EQ(bdb_getdatum(h_, a.p(), 0, &moved), 0);
    EXPECT_TRUE(moved.flags & BDB_DPAGES);
    EXPECT_TRUE(moved.flags & BDB_KEYALLOC);
    EXPECT_FALSE(moved.flags & BDB_DATAALLOC);
    EXPECT_EQ(BDB_ENTRY_PAGE(&moved), first);
    EXPECT_EQ(moved.datalen, v.size());
    ASSERT_EQ(bdb_deldata(h_, a.p(), 0, BDB_KEEPPAGES), 0);
    EXPECT_EQ(map(), before);
    expect_packed(a);
    ASSERT_EQ(bdb_insdatum(h_, b.p(), -1, &moved), 0);
    EXPECT_EQ(map(), before);
    ASSERT_EQ(b.p()->nslots, 1u);
    EXPECT_EQ(b.p()->slots[0].dataref, first);
    EXPECT_TRUE(b.p()->slots[0].flags & BDB_DPAGES);
    EXPECT_EQ(b.key(0), k);
    bdb_datum out{};
    ASSERT_EQ(bdb_ret_data(h_, b.p(), &out, 0), 0);
    EXPECT_EQ(std::string(static_cast<char *>(out.ptr), out.len), v);
    std::free(out.ptr);

    // An inline entry moves the same way, copies and all.
    bdb_entry moved2{};
    ASSERT_EQ(bdb_getdatum(h_, a.p(), 0, &moved2), 0);
    EXPECT_TRUE(moved2.flags & BDB_DATAALLOC);
    ASSERT_EQ(bdb_deldata(h_, a.p(), 0, BDB_KEEPPAGES), 0);
    EXPECT_EQ(a.p()->datastart, BDB_PGSIZE);
    ASSERT_EQ(bdb_insdatum(h_, b.p(), 0, &moved2), 0);
    EXPECT_EQ(b.key(1), k2);
    EXPECT_EQ(b.inline_value(1), v2);
    expect_packed(b);
}

// A long value whose run cannot be had or written leaves the page as it was.
TEST_F(Storage, FailedLongValueLeavesThePageUnchanged) {
    PageBuf pg;
    const std::string k0 = "present", v0 = "value";
    bdb_entry e0 = entry(k0, v0);
    ASSERT_EQ(bdb_insdatum(h_, pg.p(), -1, &e0), 0);
    uint8_t before[BDB_PGSIZE];
    std::memcpy(before, pg.bytes, BDB_PGSIZE);

    // The map is full.
    const std::vector<uint32_t> saved = map();
    std::fill(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS, 0xffffffffu);
    const std::string k = "big";
    std::string v(5000, 'z');
    bdb_entry e = entry(k, v);
    EXPECT_EQ(bdb_insdatum(h_, pg.p(), 0, &e), -1);
    EXPECT_EQ(bdb_error(h_), BDB_E_FULL);
    EXPECT_EQ(std::memcmp(pg.bytes, before, BDB_PGSIZE), 0);
    std::copy(saved.begin(), saved.end(), h_->meta->pgmap);

    // The write fails.
    varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    vt::reports().clear();
    e = entry(k, v);
    EXPECT_EQ(bdb_insdatum(h_, pg.p(), -1, &e), -1);
    varlo::sysio_reset();
    EXPECT_EQ(bdb_error(h_), BDB_E_WRITE);
    EXPECT_EQ(vt::last_context(), "db write");
    EXPECT_EQ(std::memcmp(pg.bytes, before, BDB_PGSIZE), 0);
    EXPECT_EQ(map(), saved) << "the run of a failed write is given back";

    // Library-owned copies are freed on failure too (checked by the leak
    // sanitizer): a copied-out entry that cannot be placed.
    std::fill(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS, 0xffffffffu);
    bdb_entry owned{};
    owned.key = std::malloc(3);
    std::memcpy(owned.key, "own", 3);
    owned.keylen = 3;
    owned.data = std::malloc(4000);
    std::memset(owned.data, 'o', 4000);
    owned.datalen = 4000;
    owned.flags = BDB_KEYALLOC | BDB_DATAALLOC;
    EXPECT_EQ(bdb_insdatum(h_, pg.p(), 0, &owned), -1);
    EXPECT_EQ(std::memcmp(pg.bytes, before, BDB_PGSIZE), 0);
    std::copy(saved.begin(), saved.end(), h_->meta->pgmap);

    // And the page still takes the value once the file can.
    e = entry(k, v);
    ASSERT_EQ(bdb_insdatum(h_, pg.p(), 0, &e), 0);
    bdb_datum out{};
    ASSERT_EQ(bdb_ret_data(h_, pg.p(), &out, 1), 0);
    EXPECT_EQ(std::string(static_cast<char *>(out.ptr), out.len), v);
    std::free(out.ptr);
}

TEST_F(Storage, ReadingALongValueThatFails) {
    PageBuf pg;
    const std::string k = "k", v(3000, 'r');
    bdb_entry e = entry(k, v);
    ASSERT_EQ(bdb_insdatum(h_, pg.p(), -1, &e), 0);
    varlo::sysio.pread = [](int, void *, size_t, off_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    bdb_datum out{reinterpret_cast<void *>(1), 0};
    EXPECT_EQ(bdb_ret_data(h_, pg.p(), &out, 0), -1);
    varlo::sysio_reset();
    EXPECT_EQ(out.ptr, nullptr);
    EXPECT_EQ(bdb_error(h_), BDB_E_READ);
}

TEST(Entries, SpaceTest) {
    PageBuf pg;
    bdb_entry e{};
    e.keylen = 6077;
    e.datalen = 2047;  // in-page size 8124
    EXPECT_EQ(bdb_data_fits(pg.p(), &e), 1);
    e.keylen = 6078;  // 8125
    EXPECT_EQ(bdb_data_fits(pg.p(), &e), 0);
    // A long value counts only its key.
    e.keylen = 8124;
    e.datalen = 100000;
    EXPECT_EQ(bdb_data_fits(pg.p(), &e), 1);
    // Slots count: with 10 slots and datastart 1000, free = 1000 - 284.
    pg.p()->nslots = 10;
    pg.p()->datastart = 1000;
    e.datalen = 0;
    e.keylen = 692;
    EXPECT_EQ(bdb_data_fits(pg.p(), &e), 1);
    e.keylen = 693;
    EXPECT_EQ(bdb_data_fits(pg.p(), &e), 0);
    // A page whose slots reach past datastart admits nothing.
    pg.p()->nslots = 300;
    e.keylen = 1;
    EXPECT_EQ(bdb_data_fits(pg.p(), &e), 0);
}

TEST(Entries, HandingBackKeysAndValues) {
    PageBuf pg;
    const std::string k1024(1024, 'K'), k5 = "abcde", empty, val = "val";
    bdb_entry e1 = entry(k1024, empty), e2 = entry(k5, val);
    bdb_handle dummy{};  // inline entries never use the handle
    bdb_handle *none = &dummy;
    ASSERT_EQ(bdb_insdatum(none, pg.p(), -1, &e1), 0);
    ASSERT_EQ(bdb_insdatum(none, pg.p(), 0, &e2), 0);

    std::vector<uint8_t> buf(1100, 0xAA);
    bdb_datum key{buf.data(), 0};
    ASSERT_EQ(bdb_ret_key(pg.p(), &key, 0), 0);
    EXPECT_EQ(key.len, 1024u);
    EXPECT_EQ(std::memcmp(buf.data(), k1024.data(), 1024), 0);
    EXPECT_EQ(buf[1024], 0xAA) << "no NUL after a 1024-byte key";

    std::fill(buf.begin(), buf.end(), 0xAA);
    ASSERT_EQ(bdb_ret_key(pg.p(), &key, 1), 0);
    EXPECT_EQ(key.len, 5u);
    EXPECT_EQ(std::memcmp(buf.data(), "abcde", 5), 0);
    EXPECT_EQ(buf[5], 0);
    EXPECT_EQ(buf[6], 0xAA);

    bdb_datum data{reinterpret_cast<void *>(1), 99};
    ASSERT_EQ(bdb_ret_data(none, pg.p(), &data, 0), 0);
    EXPECT_EQ(data.ptr, nullptr);
    EXPECT_EQ(data.len, 0u);
    ASSERT_EQ(bdb_ret_data(none, pg.p(), &data, 1), 0);
    ASSERT_EQ(data.len, 3u);
    EXPECT_STREQ(static_cast<char *>(data.ptr), "val");
    std::free(data.ptr);
}

int cmp(const std::string &a, const std::string &b) {
    bdb_datum da = vt::datum(a), db = vt::datum(b);
    return bdb_dti_compare(&da, &db);
}

TEST(Entries, DefaultComparison) {
    EXPECT_EQ(cmp("abc", "abd"), -1);
    EXPECT_EQ(cmp("abd", "abc"), 1);
    EXPECT_EQ(cmp("ab", "abc"), -1);
    EXPECT_EQ(cmp("abc", "ab"), 1);
    EXPECT_EQ(cmp("abc", "abc"), 0);
    EXPECT_EQ(cmp("\xff", "\x01"), 254);
    EXPECT_EQ(cmp("\x01", "\xff"), -254);
    // Past the first eight bytes, and the first difference decides even when
    // a later byte differs the other way.
    EXPECT_EQ(cmp("0123456789\x01\xff", "0123456789\x02\x00"), -1);
    EXPECT_EQ(cmp("01234567\x05\x00\x00\x00\x00\x00\x00\x00", "01234567\x03\xff\xff\xff\xff\xff\xff\xff"), 2);
    EXPECT_EQ(cmp("0123456789abcdefX", "0123456789abcdef"), 1);

    char same[] = "xyz";
    bdb_datum a{same, 3}, b{same, 1};
    EXPECT_EQ(bdb_dti_compare(&a, &b), 0) << "same address, whatever the lengths";
    bdb_datum null{nullptr, 3};
    EXPECT_EQ(bdb_dti_compare(&null, &a), -1);
    EXPECT_EQ(bdb_dti_compare(&a, &null), 1);

    // Against a byte-wise reference on random keys sharing long prefixes.
    const uint32_t seed = 99;
    std::mt19937 rng(seed);
    for (int i = 0; i < 20000; ++i) {
        std::string x(rng() % 40, 'p'), y(rng() % 40, 'p');
        for (auto &c : x)
            if (rng() % 8 == 0) c = static_cast<char>(rng());
        for (auto &c : y)
            if (rng() % 8 == 0) c = static_cast<char>(rng());
        int want = 0;
        const size_t n = std::min(x.size(), y.size());
        size_t j = 0;
        while (j < n && x[j] == y[j]) ++j;
        if (j < n)
            want = static_cast<uint8_t>(x[j]) - static_cast<uint8_t>(y[j]);
        else
            want = x.size() < y.size() ? -1 : x.size() > y.size() ? 1 : 0;
        ASSERT_EQ(cmp(x, y), want) << "seed " << seed << " case " << i;
    }
}

TEST(Entries, OverlappingCopies) {
    for (int shift : {-5, -1, 1, 3, 17}) {
        SCOPED_TRACE(shift);
        std::vector<uint8_t> a(80), b;
        for (int i = 0; i < 80; ++i) a[i] = static_cast<uint8_t>(i + 1);
        b = a;
        uint8_t *src = a.data() + 20;
        bdbcpy(src, src + shift, 30);
        std::memmove(b.data() + 20 + shift, b.data() + 20, 30);
        EXPECT_EQ(a, b);
    }
}

}  // namespace
