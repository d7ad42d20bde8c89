// The page cache, page transfers, byte-swapped files, the log map and the
// back-out of saved page images.
#include <fstream>
#include <random>

#include "test_util.h"

namespace {

std::vector<uint8_t> read_page(const std::string &path, uint32_t pg) {
    std::vector<uint8_t> out(8192);
    std::ifstream(path, std::ios::binary).seekg(pg * 8192).read(reinterpret_cast<char *>(out.data()), 8192);
    return out;
}
// The word at byte off of a page image, as this machine reads it.
uint32_t word(const std::vector<uint8_t> &page, size_t off) {
    uint32_t w;
    std::memcpy(&w, page.data() + off, 4);
    return w;
}
std::vector<uint8_t> image(const void *p) {
    auto *b = static_cast<const uint8_t *>(p);
    return {b, b + 8192};
}
uint32_t record(const bdb_handle *h, const void *b) { return (static_cast<const uint8_t *>(b) - h->cache_bufs) >> 13; }
// A mark in the free gap of an empty tree page, which no check looks at.
uint32_t &mark(void *page) { return *reinterpret_cast<uint32_t *>(static_cast<uint8_t *>(page) + 4096); }

class Io : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(h_ ? bdb_destroy(h_) : 0, 0); }
    // Tree pages 1..n marked 1000 + n in the file, an empty cache of
    // `cache` bytes and zeroed counters.
    void open_with_pages(uint32_t n, uint32_t cache = 0) {
        ASSERT_NE(h_ = vt::create_open(path_, cache, vt::recording_handler), nullptr);
        for (uint32_t i = 1; i <= n; ++i) {
            bdb_page *p = bdb_new_dpage(h_);
            ASSERT_EQ(p ? p->pgno : 0, i);
            mark(p) = 1000 + i;
            ASSERT_EQ(bdb_update_dpage(h_, p), 0);
        }
        ASSERT_EQ(bdb_sync(h_), 0);
        bdb_cache_free(h_);
        ASSERT_EQ(bdb_cache_init(h_, cache), 0);
        std::memset(h_->stats, 0, sizeof(bdb_stats));
    }
    bdb_page *fetch(uint32_t pg, int flags = 0) {
        bdb_page *p = bdb_get_dpage(h_, pg, flags);
        EXPECT_EQ(p ? mark(p) : 0, 1000 + pg) << "page " << pg << ": " << vt::last_context();
        return p;
    }
    bool logbit(uint32_t pg) const { return bits_tstb(h_->logmap, static_cast<int32_t>(pg)) != 0; }
    bool logmap_is_map() const { return std::memcmp(h_->logmap, h_->meta->pgmap, BDB_MAPWORDS * 4) == 0; }
    vt::TempDir dir_;
    const std::string path_ = dir_.file("db");
    bdb_handle *h_ = nullptr;
};

TEST_F(Io, LeastRecentlyUsedRecordIsTakenCommittedPagesWrittenOnce) {
    open_with_pages(6);  // a cache of four pages
    // {page, the record it lands in}: an empty cache fills in order, then the
    // record unused for the most lookups goes; a hit refreshes its record.
    for (auto [pg, rec] : {std::pair{1u, 0u}, {2, 1}, {3, 2}, {4, 3}, {5, 0}, {1, 1}, {3, 2}, {6, 3}})
        EXPECT_EQ(record(h_, fetch(pg)), rec) << "page " << pg;
    // A dropped record counts as used by the last lookup; among records of
    // one age the lower index goes first.
    ASSERT_EQ(bdb_inval_cache_pg(h_, 5), 0);
    for (auto [pg, rec] : {std::pair{3u, 2u}, {2, 1}, {5, 0}, {4, 3}})
        EXPECT_EQ(record(h_, fetch(pg)), rec) << "page " << pg;
    const bdb_stats &s = *h_->stats;
    EXPECT_EQ(std::tuple(s.cache_hits, s.cache_misses, s.page_reads, s.page_writes), std::tuple(2u, 10u, 10u, 0u));

    // A committed page is written once by two flushes; a page changed but not
    // committed, or committed and then freed, never.
    const std::vector<uint8_t> page3 = read_page(path_, 3), page4 = read_page(path_, 4);
    bdb_page *p = fetch(2, BDB_FORUPDATE);
    std::memset(p->slots, 0x5a, 5000);
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    fetch(4, BDB_FORUPDATE)->datastart = 4000;  // never committed
    bdb_page *q = fetch(3, BDB_FORUPDATE);
    ASSERT_EQ(bdb_update_dpage(h_, q), 0);
    ASSERT_EQ(bdb_free_dpage(h_, q), 0);
    ASSERT_EQ(bdb_force_cache(h_), 0);
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(h_->stats->page_writes, 2u) << "page 2 and the meta page, once";
    EXPECT_EQ(read_page(path_, 2), image(p));
    EXPECT_EQ(read_page(path_, 3), page3);
    EXPECT_EQ(read_page(path_, 4), page4);
    EXPECT_EQ(word(read_page(path_, 0), 24), 0x77u) << "the map on disk lost page 3";
}

// The cache of a private handle is indexed, the six-page cache of a shared
// area is scanned: both must take the same records for the same requests.
TEST_F(Io, IndexedAndScannedCachesPickTheSameRecords) {
    open_with_pages(0, 6 * 8192);
    ASSERT_EQ(h_->ncache, 6u);
    std::vector<bdb_shared> area(1);
    bdb_initialize_shmem(area.data(), varlo::kShmSize, varlo::kShmCacheBytes, varlo::kShmPages);
    bdb_handle a{};
    a.flags = BDB_F_AREA | BDB_F_AREA_OWNER;
    a.fd = h_->fd;
    bdb_setup_shmem(&a, area.data());
    ASSERT_EQ(bdb_cache_init(&a, 1 << 20), 0);
    ASSERT_EQ(a.ncache, 6u) << "an area has six pages whatever the size asked";
    auto apply = [](bdb_handle *h, uint32_t op, uint32_t pg) -> int {
        if (op >= 6) return op < 8 ? bdb_cache_dirty(h, pg) : bdb_inval_cache_pg(h, pg);
        void *buf = bdb_cache_pg(h, pg);
        if (buf) std::memcpy(buf, &pg, 4);  // as if read
        return buf ? static_cast<int>(record(h, buf)) : -1;
    };
    std::mt19937 rng(4242);
    for (int step = 0; step < 20000; ++step) {
        const uint32_t pg = 1 + rng() % 11, op = rng() % 10;
        ASSERT_EQ(apply(h_, op, pg), apply(&a, op, pg)) << "step " << step << " op " << op << " page " << pg;
        for (uint32_t i = 0; i < 6; ++i)
            ASSERT_EQ(std::tuple(h_->cache[i].pgno, h_->cache[i].flags), std::tuple(a.cache[i].pgno, a.cache[i].flags))
                << "step " << step << " record " << i;
        ASSERT_EQ(std::memcmp(h_->stats, a.stats, sizeof(bdb_stats)), 0) << "step " << step;
    }
    EXPECT_TRUE(h_->stats->page_writes > 100 && h_->stats->cache_hits > 1000);
}

TEST_F(Io, SwappedFilePagesAreConvertedThroughTheCache) {
    open_with_pages(1);
    h_->flags |= BDB_F_SWAPPED;
    std::vector<uint8_t> file = read_page(path_, 1);
    bdb_pgswap(file.data(), 1);
    ASSERT_EQ(bdb_write_dpage(h_, 1, file.data(), 8192), 0);
    bdb_page *p = fetch(1, BDB_FORUPDATE);  // in machine order, or its mark is wrong
    std::string k = "key";
    bdb_entry e{k.data(), 3, k.data(), 3, 0, 0};
    ASSERT_EQ(bdb_insdatum(h_, p, -1, &e), 0);
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    const std::vector<uint8_t> changed = image(p);
    bdb_update_meta(h_);
    ASSERT_EQ(bdb_sync(h_), 0);
    file = read_page(path_, 1);
    bdb_pgswap(file.data(), 0);
    EXPECT_EQ(file, changed) << "the file holds the page in file order";
    EXPECT_EQ(std::tuple(word(read_page(path_, 0), 0), h_->meta->magic), std::tuple(BDB_MAGIC_SWAPPED, BDB_MAGIC))
        << "and the meta page";
    EXPECT_EQ(image(fetch(1)), changed);
    EXPECT_EQ(h_->stats->page_reads, 2u) << "the flushed buffer is read again";
}

TEST_F(Io, LogMapIsTheAllocationMapAtEachSyncAndClearedAtTheFirstChange) {
    open_with_pages(5);
    EXPECT_TRUE(logmap_is_map());
    fetch(2);
    EXPECT_TRUE(logbit(0) && logbit(2) && logbit(3)) << "a read leaves the bit";
    bdb_page *p = fetch(2, BDB_FORUPDATE);
    EXPECT_FALSE(logbit(2)) << "the first fetch for update is the log point";
    bdb_update_meta(h_);
    EXPECT_FALSE(logbit(0));
    // A page in use at the sync, freed and taken again as a tree page (4),
    // has no bit; a long value's run spares the page freed since the sync
    // (5) and takes a page free at the sync too.
    ASSERT_EQ(bdb_free_dpage(h_, fetch(4)), 0);
    ASSERT_EQ(bdb_del_dpages(h_, 5, 1), 0);
    ASSERT_TRUE(logbit(4) && logbit(5));
    bdb_page *n = bdb_new_dpage(h_);
    ASSERT_EQ(n ? n->pgno : 0, 4u);
    std::string v(3000, 'v');
    bdb_entry e{v.data(), 1, v.data(), 3000, 0, 0};
    ASSERT_EQ(bdb_insdatum(h_, p, -1, &e), 0);
    EXPECT_EQ(p->slots[0].dataref, 6u);
    EXPECT_TRUE(!logbit(4) && logbit(5));
    ASSERT_EQ(bdb_update_dpage(h_, n), 0);
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_TRUE(logmap_is_map());
    ASSERT_EQ(bdb_close(h_), 0);
    ASSERT_NE(h_ = vt::open_db(path_), nullptr);
    EXPECT_TRUE(logmap_is_map());
}

TEST_F(Io, BackoutOfATreePageAndOfTheMetaPage) {
    open_with_pages(6);
    alignas(8) uint8_t rec[4 + 8192] = {}, meta[4 + 8192] = {};  // page number, image
    std::memcpy(meta + 4, h_->meta, 8192);
    auto *img = reinterpret_cast<bdb_page *>(rec + 4);
    img->pgno = 5, mark(img) = 1005, img->datastart = 8192;
    std::memcpy(rec, &img->pgno, 4);
    bdb_page *p = fetch(5, BDB_FORUPDATE);
    p->datastart = 2222;
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);  // committed, not yet written
    EXPECT_EQ(bdb_backout_old(h_, rec, sizeof rec), 0);
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(read_page(path_, 5), image(img)) << "the image, and the discarded change never written";
    EXPECT_EQ(fetch(5)->datastart, 8192u) << "the cached copy is discarded";

    uint32_t first = 0;
    ASSERT_EQ(bdb_alloc_dpages(h_, 2, &first), 0);
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(bdb_backout_old(h_, meta, 8192), -1);
    EXPECT_EQ(vt::last_context(), "Bad meta page log size");
    EXPECT_EQ(image(h_->meta), read_page(path_, 0)) << "unchanged";
    EXPECT_EQ(*h_->state_ref & (BDB_BACKOUT | BDB_METADIRTY), 0u);
    EXPECT_EQ(bdb_backout_old(h_, meta, sizeof meta), 0);
    EXPECT_EQ(*h_->state_ref & BDB_BACKOUT, 0u);
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(read_page(path_, 0), image(meta + 4)) << "the restored meta page reaches the file";
    EXPECT_EQ(std::filesystem::file_size(path_), 7u * 8192) << "cut to the restored map";
}

// Transfers go on after EINTR and short counts, in one call per piece.
struct Choppy {
    static inline int calls = 0;
    static ssize_t pwrite(int fd, const void *b, size_t n, off_t off) {
        if (++calls % 2) return errno = EINTR, -1;
        return ::pwrite(fd, b, n > 1000 ? 1000 : n, off);
    }
    static ssize_t pread(int fd, void *b, size_t n, off_t off) {
        if (++calls % 2) return errno = EINTR, -1;
        return ::pread(fd, b, n > 1000 ? 1000 : n, off);
    }
};

TEST_F(Io, TransfersContinueAfterInterruptionsAndShortCounts) {
    open_with_pages(0);
    std::vector<uint8_t> out(10000), in(10000);
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<uint8_t>(i * 7);
    varlo::sysio.pwrite = Choppy::pwrite;
    varlo::sysio.pread = Choppy::pread;
    EXPECT_EQ(bdb_write_dpage(h_, 7, out.data(), 10000), 0);
    EXPECT_EQ(bdb_read_dpage(h_, 7, in.data(), 10000), 0);
    varlo::sysio_reset();
    EXPECT_EQ(in, out);
    const std::vector<uint8_t> p7 = read_page(path_, 7), p8 = read_page(path_, 8);  // bytes 57344..67343
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 8192, p7.begin()));
    EXPECT_TRUE(std::equal(out.begin() + 8192, out.end(), p8.begin()));
}

TEST(CacheSize, PrivateCachesHoldAtLeastFourPagesRoundedUp) {
    vt::TempDir dir;
    ASSERT_EQ(bdb_create(dir.file("db").c_str(), BDB_PRIVATE, nullptr), 0);
    for (auto [bytes, pages] : {std::pair{0u, 4u}, {8192u, 4u}, {32768u, 4u}, {40000u, 5u}, {1u << 20, 128u}}) {
        bdb_handle *h = vt::open_db(dir.file("db"), bytes);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->ncache, pages) << bytes;
        bdb_close(h);
    }
}

}  // namespace
