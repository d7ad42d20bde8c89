// Crash safety of sync. A workload of batches separated by syncs is cut at
// many points: by a simulated power cut at a write (what was written since
// each file's last fsync survives page by page at random, some pages torn),
// and by SIGKILL at random moments, in private and in shared mode. Every time, the database opens, passes the integrity
// check, and holds exactly the state of the last completed sync or of the
// next one.
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <random>
#include <sys/mman.h>

#include "test_util.h"

namespace {

using Model = std::map<std::string, std::string>;
using Bytes = std::string;

Bytes slurp(const std::string &p) { std::ifstream in(p, std::ios::binary); return {std::istreambuf_iterator<char>(in), {}}; }
void spill(const std::string &p, const Bytes &b) { std::ofstream(p, std::ios::binary | std::ios::trunc) << b; }

// The workload: batches of new keys, replaces that grow values to long ones
// and shrink them again, and deletes of whole ranges (pages emptied and
// dropped); each batch ends with a sync. It runs against a handle or, with a
// null handle, against the model alone.
std::string key_of(uint32_t n) { return "key" + std::to_string(100000 + n); }
std::string value_of(std::mt19937 &rng) {
    const uint32_t r = rng() % 10;
    return std::string(r == 0 ? 2000 + rng() % 12000 : 20 + rng() % 200, static_cast<char>('a' + rng() % 26));
}
Model base_model() {
    Model m;
    std::mt19937 rng(1);
    for (uint32_t i = 0; i < 600; i += 2) m[key_of(i)] = value_of(rng);
    return m;
}

// Runs batch b (0..4) on m, and on h when given. `stop` ends it early (the
// process has crashed). False when a call on h failed.
bool run_batch(bdb_handle *h, Model &m, uint32_t seed, int b, const std::function<bool()> &stop) {
    std::mt19937 rng(seed * 100 + static_cast<uint32_t>(b));
    for (int i = 0; i < 120 && !stop(); ++i) {
        const uint32_t op = rng() % 10, k = rng() % 700;
        const std::string key = key_of(k), val = value_of(rng);
        if (b == 0) {
            // Values of the same length only: the meta page does not change
            // in this interval, and its sync does not write it.
            auto it = m.find(key);
            if (it == m.end()) continue;
            const std::string same(it->second.size(), val[0]);
            if (h && vt::update(h, key, same) != 0) return false;
            it->second = same;
        } else if (op < 6) {
            if (h && vt::replace(h, key, val) != 0) return false;
            m[key] = val;
        } else if (op < 9) {  // a range delete empties whole pages
            for (uint32_t j = k; j < k + 12; ++j) {
                if (h && vt::del(h, key_of(j)) != 0 && bdb_error(h) != BDB_E_NOTFOUND) return false;
                m.erase(key_of(j));
            }
        } else if (h && vt::put(h, key, val) != 0 && bdb_error(h) != BDB_E_DUPLICATE) {
            return false;
        } else {
            m.emplace(key, val);
        }
    }
    return stop() || !h || bdb_sync(h) == 0;
}

constexpr int kBatches = 5;

// The states after each sync: [0] before the first batch.
std::vector<Model> snapshots(uint32_t seed) {
    std::vector<Model> s{base_model()};
    for (int b = 0; b < kBatches; ++b) {
        s.push_back(s.back());
        run_batch(nullptr, s.back(), seed, b, [] { return false; });
    }
    return s;
}

// Opens db, checks it and gives its content (or a note why it failed).
std::string verify(const std::string &db, int mode, Model *out) {
    uint32_t err = 0;
    bdb_handle *h = bdb_open(db.c_str(), 0, BDB_RDWR, mode, nullptr, 0, &err);
    if (!h) return std::string("open: ") + bdbstrerr(err);
    const std::string note = bdb_check(h) != 0 ? std::string("check: ") + bdbstrerr(bdb_error(h)) : "";
    const auto w = vt::walk(h);
    *out = Model(w.begin(), w.end());
    return bdb_close(h) != 0 ? note + " close failed" : note;
}

bool is_one_of(const Model &got, const std::vector<Model> &snaps, size_t k) {
    return got == snaps[k] || (k + 1 < snaps.size() && got == snaps[k + 1]);
}

// The base database (created unless it exists) holds the base model.
void make_base(const std::string &db, int mode) {
    uint32_t err = 0;
    if (::access(db.c_str(), F_OK) != 0) {
        ASSERT_EQ(bdb_create(db.c_str(), mode, &err), 0);
    }
    bdb_handle *h = bdb_open(db.c_str(), 0, BDB_RDWR, mode, nullptr, 0, &err);
    ASSERT_NE(h, nullptr);
    for (auto &[k, v] : base_model()) ASSERT_EQ(vt::put(h, k, v), 0);
    ASSERT_EQ(bdb_close(h), 0);
}

// Simulated power cuts: the seam keeps, for every file of the database, its
// content at the last fsync and the writes and length changes since. At the
// chosen write the machine stops (later calls change nothing); the files are
// then rebuilt from what was durable plus, page by page, any version written
// since, some of them torn in half.
struct Sim {
    struct Event {
        off_t off;  // -1: a length change to `len`
        Bytes bytes;
        size_t len;
    };
    struct File {
        Bytes durable, live;
        std::vector<Event> pending;
    };
    static inline std::map<std::string, File> files;
    static inline std::map<int, std::string> fds;
    static inline std::string dir;
    static inline long writes = 0, crash_at = -1;
    static inline bool crashed = false;

    static File *of(int fd) { return fds.count(fd) ? &files[fds[fd]] : nullptr; }
    static int open(const char *p, int flags, mode_t mode) {
        const int fd = ::open(p, flags | O_CLOEXEC, mode);
        if (fd >= 0 && std::string(p).rfind(dir, 0) == 0 && !(flags & O_DIRECTORY)) {
            File &f = files[fds[fd] = p];
            if (f.live.empty()) f.live = f.durable = slurp(p);
        }
        return fd;
    }
    static ssize_t pwrite(int fd, const void *b, size_t n, off_t off) {
        File *f = of(fd);
        if (!f || crashed) return f ? static_cast<ssize_t>(n) : ::pwrite(fd, b, n, off);
        if (++writes == crash_at) crashed = true, n /= 2;  // the write in progress is torn
        f->pending.push_back({off, Bytes(static_cast<const char *>(b), n), 0});
        if (f->live.size() < off + n) f->live.resize(off + n);
        f->live.replace(off, n, static_cast<const char *>(b), n);
        return ::pwrite(fd, b, n, off);
    }
    static int ftruncate(int fd, off_t len) {
        File *f = of(fd);
        if (!f || crashed) return f ? 0 : ::ftruncate(fd, len);
        f->pending.push_back({-1, {}, static_cast<size_t>(len)});
        f->live.resize(static_cast<size_t>(len));
        return ::ftruncate(fd, len);
    }
    static void install(const std::string &d, long at) {
        files.clear(), fds.clear();
        dir = d, writes = 0, crash_at = at, crashed = false;
        auto &s = varlo::sysio;
        s.open = open, s.pwrite = pwrite, s.ftruncate = ftruncate;
        s.close = [](int fd) { return fds.erase(fd), ::close(fd); };
        s.pread = [](int fd, void *b, size_t n, off_t off) { return ::pread(fd, b, n, off); };
        s.fsync = [](int fd) {
            if (File *f = of(fd); f && !crashed) f->durable = f->live, f->pending.clear();
            return 0;
        };
        s.unlink = [](const char *p) { return crashed ? 0 : ::unlink(p); };
    }
    // What the disk holds after the cut.
    static void power_cut(uint32_t seed) {
        std::mt19937 rng(seed);
        for (auto &[path, f] : files) {
            Bytes img = f.durable;
            for (auto &e : f.pending) {
                if (e.off < 0) {
                    if (rng() % 2) img.resize(e.len);
                    continue;
                }
                for (size_t at = 0; at < e.bytes.size(); at += 8192) {
                    const size_t n = std::min<size_t>(8192, e.bytes.size() - at), off = static_cast<size_t>(e.off) + at;
                    const uint32_t fate = rng() % 8;  // 0..2: this page of the write was lost; 3: torn
                    if (fate < 3) continue;
                    if (img.size() < off + n) img.resize(off + n);
                    img.replace(off, fate == 3 ? n / 2 : n, e.bytes, at, fate == 3 ? n / 2 : n);
                }
            }
            spill(path, img);
        }
    }
};

TEST(Crash, PowerCutAtAnyWriteKeepsTheLastSyncOrTheNext) {
    vt::TempDir dir;
    const std::string db = dir.file("c.db"), log = db + "-log";
    // Made in shared mode: the private opens below change the mode word of
    // the meta page copy without marking the page changed.
    make_base(db, BDB_SHARED);
    const Bytes base_db = slurp(db), base_log = slurp(log);
    const uint32_t seed = 7;
    const auto snaps = snapshots(seed);
    // Runs the workload on a fresh copy of the base files, cut at write `at`
    // (never, for -1); gives the syncs completed and the writes seen.
    auto run = [&](long at, long *writes) {
        spill(db, base_db), spill(log, base_log);
        Sim::install(dir.path(), at);
        size_t synced = 0;
        if (bdb_handle *h = vt::open_db(db)) {  // the default cache: pages are evicted between syncs
            Model m = snaps[0];
            for (int b = 0; b < kBatches && !Sim::crashed; ++b) {
                EXPECT_TRUE(run_batch(h, m, seed, b, [] { return Sim::crashed; }) || Sim::crashed) << b;
                if (!Sim::crashed) synced = static_cast<size_t>(b) + 1;
            }
            if (bdb_close(h) != 0) bdb_destroy(h);  // after the cut the file stays anyway
        }
        *writes = Sim::writes;
        return synced;
    };
    long total = 0;
    ASSERT_EQ(run(-1, &total), static_cast<size_t>(kBatches));
    varlo::sysio_reset();
    ASSERT_GT(total, 100);
    const long points = std::min<long>(total, 200 * vt::env_long("VARLO_SOAK", 1));  // spread over all writes
    for (long i = 0; i < points; ++i) {
        long at = 1 + i * (total - 1) / (points - 1), w = 0;
        const size_t synced = run(at, &w);
        Sim::power_cut(static_cast<uint32_t>(at));
        varlo::sysio_reset();
        Model got;
        ASSERT_EQ(verify(db, BDB_PRIVATE, &got), "") << "cut at write " << at << " of " << total;
        ASSERT_TRUE(is_one_of(got, snaps, synced)) << "cut at write " << at << " after sync " << synced;
    }
}

// SIGKILL at random moments.
class Kill : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { vt::Watchdog::arm(static_cast<unsigned>(600 * vt::env_long("VARLO_SOAK", 1))); }
    void TearDown() override { vt::Watchdog::disarm_and_clean(); }
};

TEST_P(Kill, AtRandomMomentsKeepsTheLastSyncOrTheNext) {
    const int mode = GetParam();
    vt::TempDir dir;
    key_t key = 0;
    const std::string db = vt::fresh_db(dir, "k", mode, &key);
    ASSERT_FALSE(db.empty());
    make_base(db, mode);
    const Bytes base_db = slurp(db), base_log = slurp(db + "-log");
    // The child tells how many syncs it completed through a shared page.
    auto *synced = static_cast<volatile uint32_t *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(synced, MAP_FAILED);
    std::mt19937 rng(static_cast<uint32_t>(mode));
    long span_us = 0;
    for (long run = 0; run < 150 * vt::env_long("VARLO_SOAK", 1); ++run) {
        spill(db, base_db), spill(db + "-log", base_log);
        const uint32_t seed = static_cast<uint32_t>(run + 1);
        *synced = 0;
        const pid_t pid = vt::spawn([&] {
            uint32_t err = 0;
            bdb_handle *h = bdb_open(db.c_str(), 0, BDB_RDWR, mode, nullptr, 0, &err);
            VT_CHILD_CHECK(h != nullptr);
            Model m = base_model();
            for (int b = 0; b < kBatches; ++b) {
                VT_CHILD_CHECK(run_batch(h, m, seed, b, [] { return false; }));
                *synced = static_cast<uint32_t>(b) + 1;
            }
            for (;;) pause();  // killed here at the latest
        });
        if (run == 0) {  // the first run measures the workload, so that the kills spread over all of it
            const auto t0 = std::chrono::steady_clock::now();
            ASSERT_TRUE(vt::wait_until([&] { return *synced == kBatches; }, 60000));
            span_us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0).count();
        } else {
            usleep(static_cast<useconds_t>(rng() % (span_us + 1)));
        }
        kill(pid, SIGKILL);
        ASSERT_EQ(vt::wait_child(pid), 128 + SIGKILL);
        Model got;
        ASSERT_EQ(verify(db, mode, &got), "") << "run " << run;
        ASSERT_TRUE(is_one_of(got, snapshots(seed), *synced)) << "run " << run << " after sync " << *synced;
    }
    munmap(const_cast<uint32_t *>(synced), 4096);
    EXPECT_FALSE(vt::shm_exists(key) || vt::sem_exists(key));
}

INSTANTIATE_TEST_SUITE_P(Modes, Kill, ::testing::Values(BDB_PRIVATE, BDB_SHARED),
                         [](const auto &i) { return i.param == BDB_PRIVATE ? "private" : "shared"; });

}  // namespace
