// The page cache, page transfers, byte-swapped files, the log map and the
// back-out of saved page images.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using varlo::kPageSize;

std::vector<uint8_t> read_file(const std::string &path, off_t off, size_t n) {
    std::vector<uint8_t> out(n);
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return {};
    ssize_t r = ::pread(fd, out.data(), n, off);
    ::close(fd);
    if (r != static_cast<ssize_t>(n)) return {};
    return out;
}

off_t file_size(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) < 0 ? -1 : st.st_size;
}

uint32_t record_of(const bdb_handle *h, const void *buf) {
    return static_cast<uint32_t>((static_cast<const uint8_t *>(buf) - h->cache_bufs) / kPageSize);
}

// A database with tree pages 1..n in the file and an empty cache.
class Io : public ::testing::Test {
protected:
    void SetUp() override { vt::reports().clear(); }
    void TearDown() override {
        varlo::sysio_reset();
        if (h_) {
            EXPECT_EQ(bdb_destroy(h_), 0);
        }
    }
    void open_with_pages(uint32_t n, uint32_t cache = 0) {
        path_ = dir_.file("db");
        h_ = vt::create_open(path_, cache, vt::recording_handler);
        ASSERT_NE(h_, nullptr);
        for (uint32_t i = 1; i <= n; ++i) {
            bdb_page *p = bdb_new_dpage(h_);
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(p->pgno, i);
            p->leftpg = 1000 + i;  // a mark to recognise the page by
            ASSERT_EQ(bdb_update_dpage(h_, p), 0);
        }
        ASSERT_EQ(bdb_sync(h_), 0);
        fresh_cache(cache);
    }
    void fresh_cache(uint32_t cache) {
        bdb_cache_free(h_);
        ASSERT_EQ(bdb_cache_init(h_, cache), 0);
        std::memset(h_->stats, 0, sizeof(bdb_stats));
    }
    bdb_page *fetch(uint32_t pg, int flags = 0) {
        bdb_page *p = bdb_get_dpage(h_, pg, flags);
        EXPECT_NE(p, nullptr) << "page " << pg << ": " << vt::last_context();
        if (p) {
            EXPECT_EQ(p->leftpg, 1000 + pg);
        }
        return p;
    }
    bool logbit(uint32_t pg) const { return bits_tstb(h_->logmap, static_cast<int32_t>(pg)) != 0; }
    bool logmap_is_allocation_map() const { return std::memcmp(h_->logmap, h_->meta->pgmap, BDB_MAPWORDS * 4) == 0; }

    vt::TempDir dir_;
    std::string path_;
    bdb_handle *h_ = nullptr;
};

// ---------------------------------------------------------------------------
// The cache
// ---------------------------------------------------------------------------

TEST(CacheSize, PrivateHandlesRoundUpToPages) {
    vt::TempDir dir;
    struct Case {
        uint32_t bytes, pages;
    };
    for (Case c : {Case{0, 4}, Case{8192, 4}, Case{32767, 4}, Case{32768, 4}, Case{40000, 5}, Case{40960, 5},
                   Case{40961, 6}, Case{1 << 20, 128}}) {
        SCOPED_TRACE(c.bytes);
        const std::string path = dir.file("db" + std::to_string(c.bytes));
        bdb_handle *h = vt::create_open(path, c.bytes);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->ncache, c.pages);
        EXPECT_EQ(bdb_close(h), 0);
    }
}

TEST_F(Io, LeastRecentlyUsedRecordIsTaken) {
    open_with_pages(6);
    ASSERT_EQ(h_->ncache, 4u);
    for (uint32_t pg = 1; pg <= 4; ++pg) {
        bdb_page *p = fetch(pg);
        EXPECT_EQ(record_of(h_, p), pg - 1) << "an empty cache is filled in record order";
    }
    EXPECT_EQ(h_->stats->cache_misses, 4u);
    EXPECT_EQ(h_->stats->page_reads, 4u);
    bdb_page *p5 = fetch(5);
    EXPECT_EQ(record_of(h_, p5), 0u) << "page 1's record is taken for page 5";
    EXPECT_EQ(h_->cache[0].pgno, 5u);
    bdb_page *p1 = fetch(1);
    EXPECT_EQ(record_of(h_, p1), 1u) << "page 2 is now the oldest";
    EXPECT_EQ(h_->stats->page_reads, 6u) << "page 1 is read from the file again";
    EXPECT_EQ(h_->stats->cache_misses, 6u);
    EXPECT_EQ(h_->stats->cache_hits, 0u);

    // Hits refresh a record: touching 3 makes 4 the next victim.
    fetch(3);
    EXPECT_EQ(h_->stats->cache_hits, 1u);
    EXPECT_EQ(h_->stats->page_reads, 6u);
    bdb_page *p6 = fetch(6);
    EXPECT_EQ(record_of(h_, p6), 3u);
    EXPECT_EQ(h_->cache[2].pgno, 3u);
    // A dropped record counts as used by the last lookup (here: with page
    // 6's record); between records of one age the lower index goes first.
    ASSERT_EQ(bdb_inval_cache_pg(h_, 5), 0);
    EXPECT_EQ(h_->cache[0].pgno, 0u);
    fetch(3);
    bdb_page *p2 = fetch(2);
    EXPECT_EQ(record_of(h_, p2), 1u) << "page 1's record is the oldest";
    bdb_page *p5again = fetch(5);
    EXPECT_EQ(record_of(h_, p5again), 0u) << "the dropped record before page 6's";
    bdb_page *p4 = fetch(4);
    EXPECT_EQ(record_of(h_, p4), 3u);
    EXPECT_EQ(h_->stats->cache_hits, 2u);
    EXPECT_EQ(h_->stats->cache_misses, 10u);
    EXPECT_EQ(h_->stats->page_writes, 0u) << "clean pages are never written";
    EXPECT_TRUE(vt::reports().empty()) << vt::last_context();
}

TEST_F(Io, CommittedPageIsWrittenOnceAndUncommittedNever) {
    open_with_pages(4);
    bdb_page *p = fetch(2, BDB_FORUPDATE);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(p->flags & BDB_PGBUSY);
    p->leftpg = 1002;  // unchanged mark, new content below
    const std::string k = "key", v = "value";
    bdb_entry e{const_cast<char *>(k.data()), 3, const_cast<char *>(v.data()), 5, 0, 0};
    ASSERT_EQ(bdb_insdatum(h_, p, -1, &e), 0);
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    EXPECT_FALSE(p->flags & BDB_PGBUSY);

    // Changed but not committed: not written.
    bdb_page *q = fetch(3, BDB_FORUPDATE);
    ASSERT_NE(q, nullptr);
    q->nslots = 0;
    q->datastart = 4000;

    ASSERT_EQ(bdb_force_cache(h_), 0);
    EXPECT_EQ(h_->stats->page_writes, 1u);
    std::vector<uint8_t> disk = read_file(path_, 2 * 8192, 8192);
    ASSERT_EQ(disk.size(), 8192u);
    EXPECT_EQ(std::memcmp(disk.data(), p, 8192), 0);
    std::vector<uint8_t> disk3 = read_file(path_, 3 * 8192, 8192);
    ASSERT_EQ(disk3.size(), 8192u);
    EXPECT_EQ(reinterpret_cast<bdb_page *>(disk3.data())->datastart, 8192u);
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(h_->stats->page_writes, 1u) << "a second flush writes nothing";
    EXPECT_EQ(h_->cache[record_of(h_, p)].flags & BDB_CACHE_DIRTY, 0u);
}

TEST_F(Io, FreedDirtyPageIsNeverWritten) {
    open_with_pages(6);
    const std::vector<uint8_t> before = read_file(path_, 3 * 8192, 8192);
    bdb_page *p = fetch(3, BDB_FORUPDATE);
    ASSERT_NE(p, nullptr);
    p->datastart = 1234;
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    ASSERT_EQ(bdb_free_dpage(h_, p), 0);
    EXPECT_EQ(bits_tstb(h_->meta->pgmap, 3), 0);
    EXPECT_TRUE(*h_->state_ref & BDB_METADIRTY);
    for (uint32_t pg : {1, 2, 4, 5, 6, 1, 2}) fetch(pg);  // evictions all round
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(h_->stats->page_writes, 1u) << "only the meta page";
    EXPECT_EQ(read_file(path_, 3 * 8192, 8192), before);
    EXPECT_EQ(read_file(path_, 0, 8192)[24], 0x77u) << "the map on disk lost page 3";
}

// A dirty victim is written before its record is reused; when that write
// fails the lookup gives nothing and the victim keeps its page and changes.
TEST_F(Io, DirtyVictimIsWrittenFirst) {
    open_with_pages(5);
    bdb_page *p = fetch(1, BDB_FORUPDATE);
    ASSERT_NE(p, nullptr);
    p->datastart = 4321;
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    for (uint32_t pg : {2, 3, 4}) fetch(pg);

    varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(bdb_get_dpage(h_, 5, 0), nullptr);
    varlo::sysio_reset();
    EXPECT_EQ(bdb_error(h_), BDB_E_WRITE);
    EXPECT_EQ(vt::last_context(), "db write");
    EXPECT_EQ(h_->cache[0].pgno, 1u);
    EXPECT_TRUE(h_->cache[0].flags & BDB_CACHE_DIRTY);
    EXPECT_EQ(p->datastart, 4321u);

    const uint32_t writes = h_->stats->page_writes;
    bdb_page *p5 = fetch(5);
    EXPECT_EQ(record_of(h_, p5), 0u);
    EXPECT_EQ(h_->stats->page_writes, writes + 1);
    EXPECT_EQ(reinterpret_cast<bdb_page *>(read_file(path_, 8192, 8192).data())->datastart, 4321u);
    bdb_page *again = fetch(1);
    EXPECT_EQ(again->datastart, 4321u);
}

TEST_F(Io, FailedReadLeavesTheRecordToBeReadAgain) {
    open_with_pages(2);
    varlo::sysio.pread = [](int, void *, size_t, off_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(bdb_get_dpage(h_, 2, 0), nullptr);
    varlo::sysio_reset();
    EXPECT_EQ(bdb_error(h_), BDB_E_READ);
    EXPECT_EQ(vt::last_context(), "db read");
    const uint32_t reads = h_->stats->page_reads;
    fetch(2);
    EXPECT_EQ(h_->stats->page_reads, reads + 1);
}

// The cache of a private handle is indexed, the six-page cache of a shared
// area is scanned: both must take the same records for the same requests.
struct AreaHandle {
    bdb_shared *area;
    bdb_handle h{};
    explicit AreaHandle(int fd) {
        area = static_cast<bdb_shared *>(std::calloc(1, sizeof(bdb_shared)));
        bdb_initialize_shmem(area, varlo::kShmSize, varlo::kShmCacheBytes, varlo::kShmPages);
        h.flags = BDB_F_AREA | BDB_F_AREA_OWNER;
        h.fd = fd;
        bdb_setup_shmem(&h, area);
    }
    ~AreaHandle() { std::free(area); }
};

TEST_F(Io, IndexedAndScannedCachesPickTheSameVictims) {
    path_ = dir_.file("db");
    h_ = vt::create_open(path_, 6 * 8192, vt::recording_handler);
    ASSERT_NE(h_, nullptr);
    ASSERT_EQ(h_->ncache, 6u);
    const std::string other = dir_.file("other");
    int fd = ::open(other.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    AreaHandle a(fd);
    ASSERT_EQ(bdb_cache_init(&a.h, 1 << 20), 0);
    ASSERT_EQ(a.h.ncache, 6u) << "an area has six pages whatever the size asked";
    std::memset(h_->stats, 0, sizeof(bdb_stats));
    bdb_handle *hs[2] = {h_, &a.h};

    const uint32_t seed = 4242;
    std::mt19937 rng(seed);
    for (int step = 0; step < 20000; ++step) {
        const uint32_t pg = 1 + rng() % 11;
        const uint32_t op = rng() % 10;
        int r[2];
        for (int i = 0; i < 2; ++i) {
            bdb_handle *h = hs[i];
            if (op < 6) {
                void *buf = bdb_cache_pg(h, pg);
                r[i] = buf ? static_cast<int>(record_of(h, buf)) : -1;
                if (buf) std::memcpy(buf, &pg, 4);  // as if read
            } else if (op < 8) {
                r[i] = bdb_cache_dirty(h, pg);
            } else {
                r[i] = bdb_inval_cache_pg(h, pg);
            }
        }
        ASSERT_EQ(r[0], r[1]) << "seed " << seed << " step " << step << " op " << op << " page " << pg;
        for (uint32_t i = 0; i < 6; ++i) {
            ASSERT_EQ(h_->cache[i].pgno, a.h.cache[i].pgno) << "seed " << seed << " step " << step << " record " << i;
            ASSERT_EQ(h_->cache[i].flags, a.h.cache[i].flags) << "seed " << seed << " step " << step << " record " << i;
        }
        ASSERT_EQ(h_->stats->cache_hits, a.h.stats->cache_hits) << "seed " << seed << " step " << step;
        ASSERT_EQ(h_->stats->cache_misses, a.h.stats->cache_misses) << "seed " << seed << " step " << step;
        ASSERT_EQ(h_->stats->page_writes, a.h.stats->page_writes) << "seed " << seed << " step " << step;
    }
    EXPECT_GT(h_->stats->page_writes, 100u);
    EXPECT_GT(h_->stats->cache_hits, 1000u);
    ::close(fd);
}

// The lookup rule itself, record by record: the victim is the record with
// the greatest age (lookups since its last use or drop), the lowest index
// among equals.
struct CacheModel {
    struct Rec {
        uint32_t pgno = 0;
        int32_t age = 0;
        bool dirty = false;
    };
    std::vector<Rec> r;
    uint32_t hits = 0, misses = 0, writes = 0;
    explicit CacheModel(size_t n) : r(n) {}
    uint32_t lookup(uint32_t pg) {
        uint32_t victim = 0, hit = UINT32_MAX;
        int32_t oldest = r[0].age;
        for (uint32_t i = 0; i < r.size(); ++i) {
            if (r[i].pgno == pg) {
                r[i].age = 0;
                ++hits;
                hit = i;
                continue;
            }
            if (r[i].age > oldest) {
                victim = i;
                oldest = r[i].age;
            }
            ++r[i].age;
        }
        if (hit != UINT32_MAX) return hit;
        if (r[victim].dirty) ++writes;
        r[victim] = Rec{pg, 0, false};
        ++misses;
        return victim;
    }
    Rec *find(uint32_t pg) {
        for (auto &x : r)
            if (x.pgno == pg) return &x;
        return nullptr;
    }
};

// A large private cache, with page numbers that share hash buckets.
TEST_F(Io, LargeCacheFollowsTheAgeRule) {
    path_ = dir_.file("db");
    h_ = vt::create_open(path_, 40 * 8192, vt::recording_handler);
    ASSERT_NE(h_, nullptr);
    ASSERT_EQ(h_->ncache, 40u);
    std::memset(h_->stats, 0, sizeof(bdb_stats));
    CacheModel m(40);
    const uint32_t seed = 777;
    std::mt19937 rng(seed);
    for (int step = 0; step < 30000; ++step) {
        // 64 pages in a few buckets' reach: 1 + k * 128 + small.
        const uint32_t pg = 1 + (rng() % 16) * 128 + rng() % 4;
        const uint32_t op = rng() % 10;
        if (op < 6) {
            void *buf = bdb_cache_pg(h_, pg);
            ASSERT_NE(buf, nullptr);
            ASSERT_EQ(record_of(h_, buf), m.lookup(pg)) << "seed " << seed << " step " << step << " page " << pg;
        } else if (op < 8) {
            CacheModel::Rec *x = m.find(pg);
            if (x) x->dirty = true;
            ASSERT_EQ(bdb_cache_dirty(h_, pg), x ? 0 : -1) << "seed " << seed << " step " << step;
        } else {
            if (CacheModel::Rec *x = m.find(pg)) *x = CacheModel::Rec{};
            ASSERT_EQ(bdb_inval_cache_pg(h_, pg), 0);
        }
        for (uint32_t i = 0; i < 40; ++i) {
            ASSERT_EQ(h_->cache[i].pgno, m.r[i].pgno) << "seed " << seed << " step " << step << " record " << i;
            ASSERT_EQ((h_->cache[i].flags & BDB_CACHE_DIRTY) != 0, m.r[i].dirty)
                << "seed " << seed << " step " << step << " record " << i;
        }
        ASSERT_EQ(h_->stats->cache_hits, m.hits) << "seed " << seed << " step " << step;
        ASSERT_EQ(h_->stats->cache_misses, m.misses) << "seed " << seed << " step " << step;
        ASSERT_EQ(h_->stats->page_writes, m.writes) << "seed " << seed << " step " << step;
    }
    EXPECT_GT(m.writes, 100u);
}

// ---------------------------------------------------------------------------
// Transfers
// ---------------------------------------------------------------------------

TEST_F(Io, TransferOfARunCoversExactlyItsBytes) {
    open_with_pages(0);
    ASSERT_EQ(bdb_extend(h_, 10), 0);
    EXPECT_EQ(*h_->npages_ref, 10u);
    EXPECT_EQ(file_size(path_), 10 * 8192);
    std::vector<uint8_t> fill(10 * 8192, 0x55);
    {
        int fd = ::open(path_.c_str(), O_WRONLY);
        ASSERT_EQ(::pwrite(fd, fill.data(), fill.size(), 0), static_cast<ssize_t>(fill.size()));
        ::close(fd);
    }
    std::vector<uint8_t> data(10000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
    ASSERT_EQ(bdb_write_dpage(h_, 7, data.data(), 10000), 0);
    EXPECT_EQ(h_->stats->page_writes, 1u);
    std::vector<uint8_t> all = read_file(path_, 0, 10 * 8192);
    ASSERT_EQ(all.size(), 10u * 8192);
    for (size_t i = 0; i < all.size(); ++i) {
        const bool inside = i >= 57344 && i <= 67343;
        ASSERT_EQ(all[i], inside ? data[i - 57344] : 0x55) << "byte " << i;
    }
    std::vector<uint8_t> back(10000);
    ASSERT_EQ(bdb_read_dpage(h_, 7, back.data(), 10000), 0);
    EXPECT_EQ(back, data);
    EXPECT_EQ(h_->stats->page_reads, 1u);
}

// Interrupted and short transfers continue where they stopped.
int g_calls = 0;
ssize_t choppy_pwrite(int fd, const void *buf, size_t n, off_t off) {
    if (g_calls++ % 3 == 0) {
        errno = EINTR;
        return -1;
    }
    return ::pwrite(fd, buf, std::min<size_t>(n, 1000), off);
}
ssize_t choppy_pread(int fd, void *buf, size_t n, off_t off) {
    if (g_calls++ % 3 == 0) {
        errno = EINTR;
        return -1;
    }
    return ::pread(fd, buf, std::min<size_t>(n, 777), off);
}

TEST_F(Io, ShortAndInterruptedTransfersAreContinued) {
    open_with_pages(0);
    ASSERT_EQ(bdb_extend(h_, 4), 0);
    std::vector<uint8_t> data(3 * 8192 + 100);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i ^ (i >> 8));
    g_calls = 0;
    varlo::sysio.pwrite = choppy_pwrite;
    ASSERT_EQ(bdb_write_dpage(h_, 1, data.data(), static_cast<uint32_t>(data.size())), 0);
    EXPECT_GT(g_calls, 30);
    varlo::sysio.pread = choppy_pread;
    std::vector<uint8_t> back(data.size());
    ASSERT_EQ(bdb_read_dpage(h_, 1, back.data(), static_cast<uint32_t>(back.size())), 0);
    varlo::sysio_reset();
    EXPECT_EQ(back, data);
    EXPECT_EQ(read_file(path_, 8192, data.size()), data);
    EXPECT_EQ(h_->stats->page_writes, 1u);
    EXPECT_EQ(h_->stats->page_reads, 1u);
    EXPECT_TRUE(vt::reports().empty()) << vt::last_context();
}

TEST_F(Io, FailedTransfersReportTheirStep) {
    open_with_pages(1);
    std::vector<uint8_t> buf(8192, 1);
    varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(bdb_write_dpage(h_, 1, buf.data(), 8192), -1);
    EXPECT_EQ(bdb_error(h_), BDB_E_WRITE);
    ASSERT_EQ(vt::reports().size(), 1u);
    EXPECT_EQ(vt::reports()[0].context, "db write");
    EXPECT_EQ(vt::reports()[0].sys_errno, ENOSPC);
    EXPECT_EQ(vt::reports()[0].h, h_);

    // A write that makes no progress ends too, instead of spinning.
    varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t { return 0; };
    EXPECT_EQ(bdb_write_dpage(h_, 1, buf.data(), 8192), -1);
    EXPECT_EQ(vt::last_context(), "db write");
    varlo::sysio_reset();

    // Reading past the end of the file.
    std::vector<uint8_t> big(3 * 8192);
    EXPECT_EQ(bdb_read_dpage(h_, 1, big.data(), static_cast<uint32_t>(big.size())), -1);
    EXPECT_EQ(bdb_error(h_), BDB_E_READ);
    EXPECT_EQ(vt::last_context(), "db read");

    // A failed extension keeps the page count.
    varlo::sysio.ftruncate = [](int, off_t) -> int {
        errno = EFBIG;
        return -1;
    };
    const uint32_t pages = *h_->npages_ref;
    EXPECT_EQ(bdb_extend(h_, pages + 5), -1);
    EXPECT_EQ(vt::last_context(), "db extend file");
    EXPECT_EQ(*h_->npages_ref, pages);
    uint32_t first = 0;
    const std::vector<uint32_t> map(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS);
    EXPECT_EQ(bdb_alloc_dpages(h_, 3, &first), -1);
    EXPECT_EQ(std::vector<uint32_t>(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS), map);
    varlo::sysio_reset();

    // A failed fsync fails the flush.
    varlo::sysio.fsync = [](int) -> int {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(bdb_force_cache(h_), -1);
    EXPECT_EQ(bdb_error(h_), BDB_E_IO);
    EXPECT_EQ(vt::last_context(), "db force cache fsync");
}

// ---------------------------------------------------------------------------
// A file in the other byte order
// ---------------------------------------------------------------------------

TEST_F(Io, SwappedFileIsConvertedOnEveryTransfer) {
    open_with_pages(0);
    h_->flags |= BDB_F_SWAPPED;
    // Page 1: a tree page with a few entries, stored in the other order.
    alignas(8) uint8_t img[8192] = {};
    auto *tp = reinterpret_cast<bdb_page *>(img);
    tp->pgno = 1;
    tp->leftpg = 0;
    tp->datastart = 8192;
    const std::string keys[] = {"alpha", "beta", "gamma"};
    for (int i = 0; i < 3; ++i) {
        const std::string v = "value of " + keys[i];
        bdb_entry e{const_cast<char *>(keys[i].data()), static_cast<uint32_t>(keys[i].size()),
                    const_cast<char *>(v.data()), static_cast<uint32_t>(v.size()), 0, 0};
        ASSERT_EQ(bdb_insdatum(h_, tp, i - 1, &e), 0);
    }
    alignas(8) uint8_t file_img[8192];
    std::memcpy(file_img, img, 8192);
    bdb_pgswap(file_img, 1);
    ASSERT_EQ(bdb_extend(h_, 2), 0);
    bits_setb(h_->meta->pgmap, 1);
    h_->meta->root = 1;
    bdb_update_meta(h_);
    ASSERT_EQ(bdb_write_dpage(h_, 1, file_img, 8192), 0);

    bdb_page *p = bdb_get_dpage(h_, 1, 0);
    ASSERT_NE(p, nullptr) << vt::last_context();
    EXPECT_EQ(std::memcmp(p, img, 8192), 0) << "fetched in machine order";

    // Change it, sync: the file holds the new page in file order, the meta
    // page too, and the copies in memory stay usable.
    p = bdb_get_dpage(h_, 1, BDB_FORUPDATE);
    ASSERT_NE(p, nullptr);
    const std::string k = "delta", v = "four";
    bdb_entry e{const_cast<char *>(k.data()), 5, const_cast<char *>(v.data()), 4, 0, 0};
    ASSERT_EQ(bdb_insdatum(h_, p, 1, &e), 0);  // after "beta"
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    alignas(8) uint8_t changed[8192];
    std::memcpy(changed, p, 8192);
    ASSERT_EQ(bdb_sync(h_), 0);
    std::vector<uint8_t> disk = read_file(path_, 8192, 8192);
    ASSERT_EQ(disk.size(), 8192u);
    bdb_pgswap(disk.data(), 0);
    EXPECT_EQ(std::memcmp(disk.data(), changed, 8192), 0) << "page 1 stands in file order";
    std::vector<uint8_t> meta = read_file(path_, 0, 8192);
    uint32_t w[6];
    std::memcpy(w, meta.data(), sizeof w);
    EXPECT_EQ(w[0], __builtin_bswap32(BDB_MAGIC));
    EXPECT_EQ(w[5], __builtin_bswap32(1u)) << "root";
    EXPECT_EQ(h_->meta->magic, BDB_MAGIC);
    EXPECT_EQ(h_->meta->root, 1u);
    EXPECT_EQ(h_->meta->pgmap[0], 3u);

    const uint32_t reads = h_->stats->page_reads;
    p = bdb_get_dpage(h_, 1, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(h_->stats->page_reads, reads + 1) << "the flushed buffer is read again";
    EXPECT_EQ(std::memcmp(p, changed, 8192), 0);
    // A failed write of a swapped dirty page leaves it in machine order.
    p = bdb_get_dpage(h_, 1, BDB_FORUPDATE);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);
    varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(bdb_force_cache(h_), -1);
    varlo::sysio_reset();
    EXPECT_EQ(std::memcmp(p, changed, 8192), 0);

    // The records read back through an ordinary open of the file.
    ASSERT_EQ(bdb_close(h_), 0);
    h_ = vt::open_db(path_);
    ASSERT_NE(h_, nullptr);
    EXPECT_TRUE(h_->flags & BDB_F_SWAPPED);
    EXPECT_EQ(h_->meta->magic, BDB_MAGIC);
    std::string got;
    ASSERT_TRUE(vt::get(h_, "delta", &got));
    EXPECT_EQ(got, "four");
    ASSERT_TRUE(vt::get(h_, "beta", &got));
    EXPECT_EQ(got, "value of beta");
    // Enough records to split pages, and a long value, through the swapped
    // handle; all of it comes back after a reopen.
    for (int i = 0; i < 400; ++i) ASSERT_EQ(vt::put(h_, "rec" + std::to_string(i), std::string(40, 'a' + i % 26)), 0);
    ASSERT_EQ(vt::put(h_, "long", std::string(9000, 'L')), 0);
    ASSERT_EQ(bdb_close(h_), 0);
    h_ = vt::open_db(path_);
    ASSERT_NE(h_, nullptr);
    EXPECT_EQ(vt::walk(h_).size(), 405u);
    ASSERT_TRUE(vt::get(h_, "long", &got));
    EXPECT_EQ(got, std::string(9000, 'L'));
    EXPECT_EQ(bdb_check(h_), 0) << vt::last_context();
}

// ---------------------------------------------------------------------------
// The log map and back-out
// ---------------------------------------------------------------------------

TEST_F(Io, LogMapMarksTheFirstChangeSinceTheSync) {
    open_with_pages(5);
    EXPECT_TRUE(logmap_is_allocation_map());
    EXPECT_EQ(h_->logmap[0], 0x3fu);

    fetch(2);
    EXPECT_TRUE(logbit(2)) << "a read leaves the bit";
    fetch(2, BDB_FORUPDATE);
    EXPECT_FALSE(logbit(2)) << "first fetch for update is the log point";
    fetch(2, BDB_FORUPDATE);
    EXPECT_FALSE(logbit(2));
    EXPECT_TRUE(logbit(3));
    EXPECT_TRUE(logbit(0));
    bdb_update_meta(h_);
    EXPECT_FALSE(logbit(0));

    // A page in use at the sync, freed and allocated again has no bit.
    bdb_page *p4 = fetch(4);
    ASSERT_NE(p4, nullptr);
    ASSERT_EQ(bdb_free_dpage(h_, p4), 0);
    ASSERT_TRUE(logbit(4));
    bdb_page *n = bdb_new_dpage(h_);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->pgno, 4u);
    EXPECT_FALSE(logbit(4));
    ASSERT_EQ(bdb_update_dpage(h_, n), 0);
    // The same for a long value's run.
    ASSERT_TRUE(logbit(5));
    ASSERT_EQ(bdb_del_dpages(h_, 5, 1), 0);
    alignas(8) uint8_t pgbuf[8192] = {};
    auto *tp = reinterpret_cast<bdb_page *>(pgbuf);
    tp->datastart = 8192;
    const std::string k = "k", v(3000, 'v');
    bdb_entry e{const_cast<char *>(k.data()), 1, const_cast<char *>(v.data()), 3000, 0, 0};
    ASSERT_EQ(bdb_insdatum(h_, tp, -1, &e), 0);
    EXPECT_EQ(tp->slots[0].dataref, 5u);
    EXPECT_FALSE(logbit(5));
    bdb_page *fresh = bdb_new_dpage(h_);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->pgno, 6u);
    EXPECT_FALSE(logbit(6));
    ASSERT_EQ(bdb_update_dpage(h_, fresh), 0);

    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_TRUE(logmap_is_allocation_map());
    EXPECT_EQ(h_->logmap[0], 0x7fu);
    ASSERT_EQ(bdb_close(h_), 0);
    h_ = vt::open_db(path_, 0, BDB_RDWR, vt::recording_handler);
    ASSERT_NE(h_, nullptr);
    EXPECT_TRUE(logmap_is_allocation_map());
}

TEST_F(Io, BackoutOfTheMetaPage) {
    open_with_pages(3);
    alignas(8) uint8_t rec[4 + 8192];
    const uint32_t zero = 0;
    std::memcpy(rec, &zero, 4);
    std::memcpy(rec + 4, h_->meta, 8192);  // the image before the change
    uint32_t first = 0;
    ASSERT_EQ(bdb_alloc_dpages(h_, 2, &first), 0);
    h_->meta->root = 2;
    ASSERT_EQ(bdb_sync(h_), 0);
    const std::vector<uint8_t> changed(reinterpret_cast<uint8_t *>(h_->meta), reinterpret_cast<uint8_t *>(h_->meta) + 8192);

    // A record of the wrong size changes nothing.
    bdb_seterror(h_, BDB_E_NOTFOUND);
    EXPECT_EQ(bdb_backout_old(h_, rec, 8192), -1);
    EXPECT_EQ(vt::last_context(), "Bad meta page log size");
    EXPECT_EQ(bdb_error(h_), BDB_E_NOTFOUND);
    EXPECT_EQ(std::memcmp(h_->meta, changed.data(), 8192), 0);
    EXPECT_FALSE(*h_->state_ref & BDB_BACKOUT);
    EXPECT_FALSE(*h_->state_ref & BDB_METADIRTY);

    EXPECT_EQ(bdb_backout_old(h_, rec, 8196), 0);
    EXPECT_EQ(std::memcmp(h_->meta, rec + 4, 8192), 0);
    EXPECT_EQ(h_->meta->root, 0u);
    EXPECT_FALSE(*h_->state_ref & BDB_BACKOUT);
    const uint32_t writes = h_->stats->page_writes;
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(h_->stats->page_writes, writes + 1) << "the restored meta page reaches the file";
    EXPECT_EQ(read_file(path_, 0, 8192), std::vector<uint8_t>(rec + 4, rec + 4 + 8192));
    EXPECT_EQ(file_size(path_), 4 * 8192) << "cut to the restored map";
}

bdb_handle *g_handle = nullptr;
bool g_backout_seen = false;
ssize_t watching_pwrite(int fd, const void *buf, size_t n, off_t off) {
    g_backout_seen = (*g_handle->state_ref & BDB_BACKOUT) != 0;
    return ::pwrite(fd, buf, n, off);
}

TEST_F(Io, BackoutOfATreePage) {
    open_with_pages(6);
    bdb_page *p = fetch(5, BDB_FORUPDATE);
    ASSERT_NE(p, nullptr);
    p->datastart = 2222;  // committed, not yet written
    ASSERT_EQ(bdb_update_dpage(h_, p), 0);

    alignas(8) uint8_t rec[4 + 8192];
    const uint32_t five = 5;
    std::memcpy(rec, &five, 4);
    auto *img = reinterpret_cast<bdb_page *>(rec + 4);
    std::memset(img, 0, 8192);
    img->pgno = 5;
    img->leftpg = 1005;
    img->datastart = 8192;
    img->nslots = 0;
    std::memset(rec + 4 + 100, 0xab, 50);  // something to recognise

    g_handle = h_;
    varlo::sysio.pwrite = watching_pwrite;
    EXPECT_EQ(bdb_backout_old(h_, rec, sizeof rec), 0);
    varlo::sysio_reset();
    EXPECT_TRUE(g_backout_seen) << "the state bit is set while the image is written";
    EXPECT_FALSE(*h_->state_ref & BDB_BACKOUT);
    for (uint32_t i = 0; i < h_->ncache; ++i) EXPECT_NE(h_->cache[i].pgno, 5u) << "record " << i;
    EXPECT_EQ(read_file(path_, 5 * 8192, 8192), std::vector<uint8_t>(rec + 4, rec + sizeof rec));
    ASSERT_EQ(bdb_sync(h_), 0);
    EXPECT_EQ(read_file(path_, 5 * 8192, 8192), std::vector<uint8_t>(rec + 4, rec + sizeof rec))
        << "the discarded change is never written";
    bdb_page *back = fetch(5);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->datastart, 8192u);

    // A failing write is reported and still clears the state bit.
    varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    EXPECT_EQ(bdb_backout_old(h_, rec, sizeof rec), -1);
    varlo::sysio_reset();
    EXPECT_EQ(vt::last_context(), "recovery write failed");
    EXPECT_FALSE(*h_->state_ref & BDB_BACKOUT);
    for (uint32_t i = 0; i < h_->ncache; ++i) EXPECT_NE(h_->cache[i].pgno, 5u) << "record " << i;
}

}  // namespace
