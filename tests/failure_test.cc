// Changes that fail half way leave the database as it was: a file filled to
// its last page, writes and reads failing at random points, and out-of-range
// inputs. After every failure every earlier record is still readable and the
// file passes the integrity check.
#include <map>
#include <random>

#include "test_util.h"

namespace {

using Model = std::map<std::string, std::string>;

void expect_model(bdb_handle *h, const Model &m) {
    auto got = vt::walk(h);
    ASSERT_EQ(got.size(), m.size());
    auto it = m.begin();
    for (auto &kv : got) {
        ASSERT_EQ(kv.first, it->first);
        ASSERT_TRUE(kv.second == it->second) << kv.first;
        ++it;
    }
    for (auto &[k, v] : m) {
        std::string out;
        ASSERT_TRUE(vt::get(h, k, &out)) << k << ": " << bdbstrerr(bdb_error(h));
        ASSERT_TRUE(out == v) << k;
    }
}

// Closes, reopens and checks the file, and compares it with the model.
void reopen_and_verify(bdb_handle *h, const std::string &path, const Model &m) {
    ASSERT_EQ(bdb_close(h), 0);
    h = vt::open_db(path);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_check(h), 0);
    expect_model(h, m);
    bdb_close(h);
}

std::string key_n(uint64_t n) {
    char k[32];
    std::snprintf(k, sizeof k, "key-%08llu", static_cast<unsigned long long>(n));
    return k;
}

// ---------------------------------------------------------------------------
// A full file
// ---------------------------------------------------------------------------

// Takes all but `spare` free pages of the map (the file grows sparsely, no
// data is written), so that the next changes run into the end of the file.
std::pair<uint32_t, uint32_t> hog_pages(bdb_handle *h, uint32_t spare) {
    const uint32_t n = varlo::count_free_pages(h) - spare;
    uint32_t first = 0;
    if (bdb_alloc_dpages(h, n, &first) < 0) return {0, 0};
    return {first, n};
}

TEST(Full, EveryKindOfChangeFailsWholeWhenTheFileIsFull) {
    // The file is filled but for a few pages; then pages are handed back one
    // to three at a time while records keep coming, so that the file runs
    // full at every step of a change: a long value's run, a leaf split, a
    // split climbing to a full parent, a new root, a deferred insert.
    const long soak = vt::env_long("VARLO_SOAK", 1);
    for (uint64_t seed = 1; seed <= static_cast<uint64_t>(3 * soak); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        vt::TempDir dir;
        bdb_handle *h = vt::create_open(dir.file("full.db"), 64 * 1024, vt::recording_handler);
        ASSERT_NE(h, nullptr);
        std::mt19937_64 rng(seed);
        Model m;
        // Long keys: few entries a page, so splits climb often.
        auto key = [&] { return key_n(rng() % 1000000) + std::string(rng() % 500, 'p'); };
        for (int i = 0; i < 1500; ++i) {
            std::string k = key(), v(rng() % 300, 'v');
            if (vt::put(h, k, v) == 0) m[k] = v;
        }
        const auto [hog, hogged] = hog_pages(h, 0);
        ASSERT_NE(hog, 0u);
        uint32_t given_back = 0;
        int fulls = 0;
        for (int i = 0; i < 6000 && given_back + 3 < hogged; ++i) {
            const int what = static_cast<int>(rng() % 10);
            std::string k = key();
            int rc;
            if (what == 0 && !m.empty()) {
                auto it = m.lower_bound(k);
                if (it == m.end()) it = m.begin();
                k = it->first;
                std::string v(2048 + rng() % 20000, 'R');
                rc = vt::replace(h, k, v);
                if (rc == 0) m[k] = v;
            } else if (what == 1 && !m.empty()) {
                auto it = m.lower_bound(k);
                if (it == m.end()) it = m.begin();
                k = it->first;
                rc = vt::del(h, k);
                if (rc == 0) m.erase(k);
            } else {
                std::string v(what == 2 ? 2048 + rng() % 9000 : rng() % 1200, static_cast<char>('A' + rng() % 26));
                rc = vt::put(h, k, v);
                if (rc == 0) m[k] = v;
                if (rc < 0 && bdb_error(h) == BDB_E_DUPLICATE) continue;
            }
            if (rc < 0) {
                ASSERT_EQ(bdb_error(h), BDB_E_FULL) << bdbstrerr(bdb_error(h));
                ++fulls;
                if (fulls % 25 == 1) {
                    expect_model(h, m);
                    if (HasFatalFailure()) return;
                }
                const uint32_t k2 = 1 + static_cast<uint32_t>(rng() % 3);
                ASSERT_EQ(bdb_del_dpages(h, hog + given_back, k2), 0);
                given_back += k2;
            }
        }
        EXPECT_GT(fulls, 100);
        expect_model(h, m);
        // Give the rest back; the tree must then be whole.
        ASSERT_EQ(bdb_del_dpages(h, hog + given_back, hogged - given_back), 0);
        ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
        reopen_and_verify(h, dir.file("full.db"), m);
    }
}

TEST(Full, LastUsablePageIs65343) {
    vt::TempDir dir;
    bdb_handle *h = vt::create_open(dir.file("edge.db"));
    ASSERT_NE(h, nullptr);
    uint32_t first = 0;
    ASSERT_EQ(bdb_alloc_dpages(h, BDB_MAXPAGES - 1, &first), 0);
    EXPECT_EQ(first, 1u);
    EXPECT_EQ(bdb_find_max_page_number(h), BDB_MAXPAGES);
    EXPECT_EQ(bdb_alloc_dpages(h, 1, &first), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_FULL);
    // the first record cannot get a root page
    EXPECT_EQ(vt::put(h, "k", "v"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_FULL);
    EXPECT_EQ(h->meta->root, 0u);
    bdb_del_dpages(h, 1, BDB_MAXPAGES - 1);
    EXPECT_EQ(vt::put(h, "k", "v"), 0);
    bdb_close(h);
}

// ---------------------------------------------------------------------------
// Failing writes and reads
// ---------------------------------------------------------------------------

// Fails the n-th transfer from now (once), then lets everything through.
struct Fault {
    static inline long countdown = -1;
    static inline bool reads = false;
    static ssize_t pwrite(int fd, const void *b, size_t n, off_t off) {
        if (!reads && countdown >= 0 && countdown-- == 0) {
            errno = EIO;
            return -1;
        }
        return ::pwrite(fd, b, n, off);
    }
    static ssize_t pread(int fd, void *b, size_t n, off_t off) {
        if (reads && countdown >= 0 && countdown-- == 0) {
            errno = EIO;
            return -1;
        }
        return ::pread(fd, b, n, off);
    }
    static void arm(long n, bool on_reads) {
        countdown = n;
        reads = on_reads;
        varlo::sysio.pwrite = pwrite;
        varlo::sysio.pread = pread;
    }
    static void disarm() {
        countdown = -1;
        varlo::sysio_reset();
    }
};

TEST(IoFailure, AFailedChangeLeavesTheDatabaseAsItWas) {
    const long soak = vt::env_long("VARLO_SOAK", 1);
    for (uint64_t seed = 1; seed <= static_cast<uint64_t>(6 * soak); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        vt::TempDir dir;
        // The smallest cache: changes evict dirty pages, so writes happen in
        // the middle of operations.
        bdb_handle *h = vt::create_open(dir.file("io.db"), 0);
        ASSERT_NE(h, nullptr);
        std::mt19937_64 rng(seed);
        Model m;
        int failures = 0;
        for (int i = 0; i < 3000; ++i) {
            const bool fault = rng() % 8 == 0;
            if (fault) Fault::arm(static_cast<long>(rng() % 6), rng() % 3 == 0);
            const int what = static_cast<int>(rng() % 10);
            std::string k = key_n(rng() % 5000);
            if (what >= 6 && !m.empty()) {
                auto it = m.lower_bound(k);
                if (it == m.end()) it = m.begin();
                k = it->first;
            }
            std::string v(rng() % 4 == 0 ? 2048 + rng() % 9000 : rng() % 700, static_cast<char>('a' + rng() % 26));
            int rc;
            if (what < 5) {
                rc = vt::replace(h, k, v);
            } else if (what < 8) {
                rc = vt::del(h, k);
            } else {
                std::string out;
                rc = vt::get(h, k, &out) ? 0 : -1;
                if (rc == 0) {
                    ASSERT_TRUE(out == m[k]);
                }
            }
            Fault::disarm();
            if (rc == 0) {
                if (what < 5)
                    m[k] = v;
                else if (what < 8)
                    m.erase(k);
            } else {
                const uint32_t e = bdb_error(h);
                if (e == BDB_E_NOTFOUND && !m.count(k)) continue;
                ASSERT_TRUE(e == BDB_E_WRITE || e == BDB_E_READ) << bdbstrerr(e);
                ++failures;
                if (failures % 8 == 1) {
                    expect_model(h, m);
                    ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
                }
            }
            // Now and then a sync, which may fail too and must be retried.
            if (i % 500 == 499) {
                Fault::arm(static_cast<long>(rng() % 20), false);
                int s = bdb_sync(h);
                Fault::disarm();
                if (s < 0) {
                    ASSERT_EQ(bdb_sync(h), 0);
                }
            }
        }
        EXPECT_GT(failures, 0);
        expect_model(h, m);
        reopen_and_verify(h, dir.file("io.db"), m);
    }
}

}  // namespace
