// Calls that fail half way leave the database as it was: a file filled to
// its last page, writes and reads failing at random points, and every kind
// of system call failing at each point of a create / open / change / sync /
// close session. After every failure every earlier record is still readable
// and the file passes the integrity check.
#include <fcntl.h>

#include <map>
#include <random>

#include "test_util.h"

namespace {

using Model = std::map<std::string, std::string>;

void expect_model(bdb_handle *h, const Model &m) {
    ASSERT_TRUE(vt::walk(h) == decltype(vt::walk(h))(m.begin(), m.end()));
    for (auto &[k, v] : m) {
        std::string out;
        ASSERT_TRUE(vt::get(h, k, &out) && out == v) << k << ": " << bdbstrerr(bdb_error(h));
    }
}

// Closes, reopens and checks the file, and compares it with the model.
void reopen_and_verify(bdb_handle *h, const std::string &path, const Model &m, int mode = BDB_PRIVATE) {
    if (h) {
        ASSERT_EQ(bdb_close(h), 0) << vt::last_context();
    }
    uint32_t err = 0;
    ASSERT_NE(h = bdb_open(path.c_str(), 0, BDB_RDWR, mode, nullptr, 0, &err), nullptr) << bdbstrerr(err);
    EXPECT_EQ(bdb_check(h), 0) << bdbstrerr(bdb_error(h));
    expect_model(h, m);
    EXPECT_EQ(bdb_close(h), 0);
}

std::string key_n(uint64_t n) { return "key-" + std::to_string(100000000 + n); }

// Takes all free pages of the map (the file grows sparsely, no data is
// written), so that the next changes run into the end of the file.
std::pair<uint32_t, uint32_t> hog_pages(bdb_handle *h) {
    const uint32_t n = varlo::count_free_pages(h);
    uint32_t first = 0;
    return bdb_alloc_dpages(h, n, &first) < 0 ? std::pair{0u, 0u} : std::pair{first, n};
}

TEST(Full, EveryKindOfChangeFailsWholeWhenTheFileIsFull) {
    // The file is filled; then pages are handed back one to three at a time
    // while records keep coming, so that the file runs full at every step of
    // a change: a long value's run, a leaf split, a split climbing to a full
    // parent, a new root, a deferred insert.
    for (uint64_t seed = 1; seed <= static_cast<uint64_t>(3 * vt::env_long("VARLO_SOAK", 1)); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        vt::TempDir dir;
        bdb_handle *h = vt::create_open(dir.file("full.db"), 64 * 1024, vt::recording_handler);
        ASSERT_NE(h, nullptr);
        std::mt19937_64 rng(seed);
        Model m;
        // Long keys: few entries a page, so splits climb often.
        auto key = [&] { return key_n(rng() % 1000000) + std::string(rng() % 500, 'p'); };
        auto existing = [&] { auto it = m.lower_bound(key()); return it == m.end() ? m.begin()->first : it->first; };
        for (int i = 0; i < 1500; ++i) {
            std::string k = key(), v(rng() % 300, 'v');
            if (vt::put(h, k, v) == 0) m[k] = v;
        }
        const auto [hog, hogged] = hog_pages(h);
        ASSERT_NE(hog, 0u);
        uint32_t given_back = 0;
        int fulls = 0;
        for (int i = 0; i < 6000 && given_back + 3 < hogged; ++i) {
            const int what = static_cast<int>(rng() % 10);
            std::string k = what < 2 ? existing() : key(), v(what == 0 ? 2048 + rng() % 20000 : what == 2 ? 2048 + rng() % 9000 : rng() % 1200, 'R');
            const int rc = what == 0 ? vt::replace(h, k, v) : what == 1 ? vt::del(h, k) : vt::put(h, k, v);
            if (rc == 0) what == 1 ? (void)m.erase(k) : (void)(m[k] = v);
            if (rc == 0 || bdb_error(h) == BDB_E_DUPLICATE) continue;
            ASSERT_EQ(bdb_error(h), BDB_E_FULL) << bdbstrerr(bdb_error(h));
            if (++fulls % 25 == 1) {
                expect_model(h, m);
                if (HasFatalFailure()) return;
            }
            const uint32_t k2 = 1 + static_cast<uint32_t>(rng() % 3);
            ASSERT_EQ(bdb_del_dpages(h, hog + given_back, k2), 0);
            given_back += k2;
        }
        EXPECT_GT(fulls, 100);
        expect_model(h, m);
        ASSERT_EQ(bdb_del_dpages(h, hog + given_back, hogged - given_back), 0);  // the rest back: the tree is whole
        ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
        reopen_and_verify(h, dir.file("full.db"), m);
    }
}

// ---------------------------------------------------------------------------
// Failing system calls
// ---------------------------------------------------------------------------

// Fails call number `at` (from 1) of one kind of the seam, once; counts the calls of each kind.
struct Sweep {
    enum Kind { kOpen, kClose, kPread, kPwrite, kFsync, kTruncate, kStat, kUnlink, kWriteback, kLock, kMap, kUnmap, kKinds };
    static inline int kind = -1;
    static inline long at = 0, seen[kKinds];
    static inline varlo::SysIo real;
    static bool hit(int k) { return ++seen[k] == at && kind == k ? (errno = EIO, true) : false; }
    static void arm(int k, long n) {
        real = varlo::sysio;
        kind = k, at = n;
        std::fill(seen, seen + kKinds, 0);
        auto &s = varlo::sysio;
        s.open = [](const char *p, int f, mode_t m) { return hit(kOpen) ? -1 : real.open(p, f, m); };
        s.close = [](int fd) { return hit(kClose) ? (real.close(fd), -1) : real.close(fd); };
        if (k == kPread) s.pread = [](int fd, void *b, size_t n, off_t o) { return hit(kPread) ? -1 : real.pread(fd, b, n, o); };
        s.pwrite = [](int fd, const void *b, size_t n, off_t o) { return hit(kPwrite) ? -1 : real.pwrite(fd, b, n, o); };
        s.fsync = [](int fd) { return hit(kFsync) ? -1 : real.fsync(fd); };
        s.ftruncate = [](int fd, off_t n) { return hit(kTruncate) ? -1 : real.ftruncate(fd, n); };
        s.fstat = [](int fd, struct stat *st) { return hit(kStat) ? -1 : real.fstat(fd, st); };
        s.unlink = [](const char *p) { return hit(kUnlink) ? -1 : real.unlink(p); };
        s.start_writeback = [](int fd, off_t o, off_t n) { return hit(kWriteback) ? -1 : real.start_writeback(fd, o, n); };
        s.lock = [](int fd, int cmd, struct flock *fl) { return hit(kLock) ? -1 : real.lock(fd, cmd, fl); };
        s.map = [](int fd, size_t n, off_t o, bool w) { return hit(kMap) ? nullptr : real.map(fd, n, o, w); };
        s.unmap = [](void *p, size_t n) { return hit(kUnmap) ? (real.unmap(p, n), -1) : real.unmap(p, n); };
    }
};

// A session: create, open, changes with a sync between, sync, close. Every
// call either works or fails with a code or a report (a failed truncation
// leaves the code as it was); a failed create leaves no file, a
// failed open no handle, a failed change no trace, a crash right after a
// failed change or sync keeps the last sync (or the failed sync's state,
// when it failed past its commit point), and a failed sync or close loses
// nothing (the next one does the work). m gets the changes made.
void session(const std::string &path, int mode, Model &m, bool close_faults) {
    Model synced, failed_sync;  // what the last sync made durable; what a failed one may have
    auto crash_now = [&] {  // a copy of the files is what the disk holds
        for (const std::string ext : {"", "-log"}) {
            std::error_code ec;
            std::filesystem::remove(path + ".copy" + ext, ec);
            std::filesystem::copy_file(path + ext, path + ".copy" + ext, ec);
        }
        uint32_t err = 0;
        bdb_handle *c = bdb_open((path + ".copy").c_str(), 0, BDB_RDWR, mode, nullptr, 0, &err);
        ASSERT_NE(c, nullptr) << bdbstrerr(err);
        EXPECT_EQ(bdb_check(c), 0) << bdbstrerr(bdb_error(c));
        const auto got = vt::walk(c);
        EXPECT_TRUE(Model(got.begin(), got.end()) == synced || Model(got.begin(), got.end()) == failed_sync);
        EXPECT_EQ(bdb_close(c), 0);
    };
    uint32_t err = 0;
    if (bdb_create(path.c_str(), mode, &err) < 0) {
        ASSERT_TRUE(err != 0 && ::access(path.c_str(), F_OK) != 0) << bdbstrerr(err);
        ASSERT_EQ(bdb_create(path.c_str(), mode, &err), 0);
    }
    bdb_options o{0, nullptr, vt::recording_handler};
    bdb_handle *h = bdb_open(path.c_str(), 0, BDB_RDWR, mode, &o, 0, &err);
    if (!h) {
        ASSERT_NE(err, 0u);
        ASSERT_NE(h = bdb_open(path.c_str(), 0, BDB_RDWR, mode, &o, 0, &err), nullptr) << bdbstrerr(err);
    }
    std::mt19937 rng(5);
    for (int i = 0; i < 400; ++i) {
        const std::string k = key_n(rng() % 300), v(rng() % 8 ? rng() % 400 : 2048 + rng() % 9000, 'a' + i % 26);
        const int what = i % 50 == 0 ? 2 : static_cast<int>(rng() % 2);
        bdb_seterror(h, 0);
        vt::reports().clear();
        const int rc = what == 2 ? bdb_sync(h) : what == 1 ? vt::del(h, k) : vt::replace(h, k, v);
        if (rc == 0) what == 2 ? (void)(synced = m) : what == 1 ? (void)m.erase(k) : (void)(m[k] = v);
        if (rc < 0 && bdb_error(h) != BDB_E_NOTFOUND) {
            ASSERT_TRUE(bdb_error(h) != 0 || !vt::reports().empty()) << "a failure neither coded nor reported";
            if (what == 2) failed_sync = m;
            ASSERT_EQ(bdb_check(h), 0) << "step " << i << ": " << bdbstrerr(bdb_error(h));
            crash_now();
        }
    }
    vt::reports().clear();
    if (bdb_sync(h) < 0) {
        ASSERT_TRUE(bdb_error(h) != 0 || !vt::reports().empty()) << "a failure neither coded nor reported";
        failed_sync = m;
        crash_now();
    }
    if (!close_faults) varlo::sysio_reset();
    if (bdb_close(h) < 0 && !close_faults) FAIL() << vt::last_context();  // a failed close has freed the handle
}

class Syscalls : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { vt::Watchdog::arm(static_cast<unsigned>(300 * vt::env_long("VARLO_SOAK", 1))); }
    void TearDown() override {
        varlo::sysio_reset();
        vt::Watchdog::disarm_and_clean();
    }
};

TEST_P(Syscalls, EachFailingCallFailsItsCallAndLosesNothing) {
    const int mode = GetParam();
    vt::TempDir dir;
    for (int kind = 0; kind < Sweep::kKinds; ++kind) {
        Model counted;
        Sweep::arm(kind, 0);  // counts only
        session(dir.file("count" + std::to_string(kind) + ".db"), mode, counted, true);
        varlo::sysio_reset();
        const long total = Sweep::seen[kind], points = std::min<long>(total, 8);
        for (long i = 0; i < points; ++i) {
            const long at = points == 1 ? 1 : 1 + i * (total - 1) / (points - 1);
            SCOPED_TRACE("call kind " + std::to_string(kind) + ", call " + std::to_string(at) + " of " + std::to_string(total));
            const std::string path = dir.file("s" + std::to_string(kind) + "-" + std::to_string(at) + ".db");
            Model m;
            Sweep::arm(kind, at);
            session(path, mode, m, kind == Sweep::kClose || kind == Sweep::kUnmap || kind == Sweep::kLock);
            varlo::sysio_reset();
            if (HasFatalFailure()) return;
            reopen_and_verify(nullptr, path, m, mode);
            if (mode == BDB_SHARED) vt::remove_ipc(ftok(path.c_str(), varlo::kIpcProject));  // after a failed close
            if (HasFatalFailure()) return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, Syscalls, ::testing::Values(BDB_PRIVATE, BDB_SHARED),
                         [](const auto &i) { return i.param == BDB_PRIVATE ? "private" : "shared"; });

// ---------------------------------------------------------------------------
// Failing writes and reads at random points of random changes
// ---------------------------------------------------------------------------

// Fails the n-th transfer from now (once), then lets everything through.
struct Fault {
    static inline long countdown = -1;
    static inline bool reads = false;
    static bool now(bool read) { return read == reads && countdown >= 0 && countdown-- == 0 ? (errno = EIO, true) : false; }
    static void arm(long n, bool on_reads) {
        countdown = n, reads = on_reads;
        varlo::sysio.pwrite = [](int fd, const void *b, size_t n, off_t o) { return now(false) ? -1 : ::pwrite(fd, b, n, o); };
        varlo::sysio.pread = [](int fd, void *b, size_t n, off_t o) { return now(true) ? -1 : ::pread(fd, b, n, o); };
    }
};

TEST(IoFailure, AFailedChangeLeavesTheDatabaseAsItWas) {
    for (uint64_t seed = 1; seed <= static_cast<uint64_t>(12 * vt::env_long("VARLO_SOAK", 1)); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        vt::TempDir dir;
        // The smallest cache: changes evict dirty pages, so writes happen in
        // the middle of operations.
        bdb_handle *h = vt::create_open(dir.file("io.db"), 0, vt::recording_handler);
        ASSERT_NE(h, nullptr);
        std::mt19937_64 rng(seed);
        Model m;
        int failures = 0;
        for (int i = 0; i < 3000; ++i) {
            if (rng() % 8 == 0) Fault::arm(static_cast<long>(rng() % 6), rng() % 3 == 0);
            const int what = static_cast<int>(rng() % 10);
            std::string k = key_n(rng() % 5000), out;
            if (what >= 6 && !m.empty()) {
                auto it = m.lower_bound(k);
                k = it == m.end() ? m.begin()->first : it->first;
            }
            std::string v(rng() % 4 == 0 ? 2048 + rng() % 9000 : rng() % 700, static_cast<char>('a' + rng() % 26));
            const int rc = what < 5 ? vt::replace(h, k, v) : what < 8 ? vt::del(h, k) : vt::get(h, k, &out) ? 0 : -1;
            varlo::sysio_reset();
            if (rc == 0 && what >= 8) {
                ASSERT_TRUE(out == m[k]);
            }
            if (rc == 0 && what < 8) what < 5 ? (void)(m[k] = v) : (void)m.erase(k);
            if (rc != 0 && (bdb_error(h) != BDB_E_NOTFOUND || m.count(k))) {
                ASSERT_TRUE(bdb_error(h) == BDB_E_WRITE || bdb_error(h) == BDB_E_READ) << bdbstrerr(bdb_error(h));
                if (++failures % 8 == 1) {
                    expect_model(h, m);
                    ASSERT_EQ(bdb_check(h), 0) << bdbstrerr(bdb_error(h)) << ": " << bdbstrerr(bdb_error(h)) << ": " << vt::last_context();
                }
            }
            if (i % 500 == 499) {  // now and then a sync, which may fail too and must be retried
                Fault::arm(static_cast<long>(rng() % 20), false);
                const int s = bdb_sync(h);
                varlo::sysio_reset();
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
