// Databases opened in shared mode by several processes: concurrent writers
// and a reader, the one statistics block, the area's owner and its removal,
// a holder killed with the mutex, a segment left behind, refused private
// opens and destroys, bdb_lock, and a file of the other byte order.
#include <atomic>
#include <fcntl.h>
#include <map>
#include <new>
#include <random>
#include <sys/mman.h>

#include "test_util.h"

namespace {

// Counters that parent and children share (an anonymous shared mapping).
struct Board {
    std::atomic<int> started{0}, done{0}, flag{0}, owners{0};
};

class SharedMode : public ::testing::Test {
protected:
    void SetUp() override {
        vt::Watchdog::arm(300);
        vt::reports().clear();
        void *m = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(m, MAP_FAILED);
        board = new (m) Board;
        path = vt::fresh_db(dir, "shared", BDB_SHARED, &key);
        ASSERT_FALSE(path.empty());
    }
    void TearDown() override {
        vt::Watchdog::disarm_and_clean();
        munmap(board, sizeof(Board));
    }
    bdb_handle *open_shared(uint32_t *err = nullptr) {
        bdb_options o{0, nullptr, vt::recording_handler};
        return bdb_open(path.c_str(), 0, BDB_RDWR, BDB_SHARED, &o, 0, err);
    }
    bdb_handle *open_private(uint32_t *err) {
        bdb_options o{0, nullptr, vt::recording_handler};
        return bdb_open(path.c_str(), 0, BDB_RDWR, BDB_PRIVATE, &o, 0, err);
    }
    // Neither the segment nor the semaphore set of the database exists.
    bool ipc_gone() const { return !vt::shm_exists(key) && !vt::sem_exists(key); }

    vt::TempDir dir;
    std::string path;
    key_t key = -1;
    Board *board = nullptr;
};

// Spins (bounded by the child's alarm) until a counter reaches n.
void await(const std::atomic<int> &c, int n) {
    while (c.load() < n) usleep(200);
}

uint32_t fnv(const std::string &s) {
    uint32_t h = 2166136261u;
    for (unsigned char c : s) h = (h ^ c) * 16777619u;
    return h;
}

// Values follow from the key and a version, so that any process can check a
// record it did not write. One in eleven is a long value (data pages).
std::string value_of(const std::string &k, int version) {
    const uint32_t h = fnv(k) + static_cast<uint32_t>(version) * 7919u;
    const size_t n = h % 11 == 0 ? 2048 + h % 5000 : h % 300;
    std::string v(n, '\0');
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>('a' + (h + i * 7) % 26);
    return v;
}

constexpr int kWriters = 4;
constexpr int kKeys = 250;
std::string key_of(int w, int i) {
    char b[32];
    std::snprintf(b, sizeof b, "w%d-%05d", w, i);
    return b;
}
// What each writer does to its range after putting it.
bool deleted(int i) { return i % 10 == 3; }
bool replaced(int i) { return i % 5 == 1 && !deleted(i); }

std::map<std::string, std::string> final_state() {
    std::map<std::string, std::string> m;
    for (int w = 0; w < kWriters; ++w)
        for (int i = 0; i < kKeys; ++i)
            if (!deleted(i)) m[key_of(w, i)] = value_of(key_of(w, i), replaced(i) ? 1 : 0);
    return m;
}

bool matches_final(bdb_handle *h) {
    auto got = vt::walk(h);
    if (bdb_error(h) != BDB_E_EOF) return false;
    auto want = final_state();
    return std::map<std::string, std::string>(got.begin(), got.end()) == want && got.size() == want.size();
}

// A record seen while the writers run: a key of some writer's range with its
// first or (for replaced keys) second value.
bool plausible(const std::string &k, const std::string &v) {
    int w = -1, i = -1;
    if (std::sscanf(k.c_str(), "w%d-%d", &w, &i) != 2 || k != key_of(w, i)) return false;
    return v == value_of(k, 0) || (replaced(i) && v == value_of(k, 1));
}

bool is_deleted_key(const std::string &k) {
    int w = -1, i = -1;
    return std::sscanf(k.c_str(), "w%d-%d", &w, &i) == 2 && deleted(i);
}

int writer(const std::string &path, Board *board, int w) {
    uint32_t err = 0;
    bdb_handle *h = bdb_open(path.c_str(), 0, BDB_RDWR, BDB_SHARED, nullptr, 0, &err);
    VT_CHILD_CHECK(h != nullptr);
    if (h->flags & BDB_F_AREA_OWNER) board->owners++;
    board->started++;
    await(board->started, kWriters + 1);
    std::vector<int> order(kKeys);
    for (int i = 0; i < kKeys; ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(17 + w));
    for (int i : order) VT_CHILD_CHECK(vt::put(h, key_of(w, i), value_of(key_of(w, i), 0)) == 0);
    for (int i : order)
        if (deleted(i)) VT_CHILD_CHECK(vt::del(h, key_of(w, i)) == 0);
    for (int i : order) {
        if (!replaced(i)) continue;
        VT_CHILD_CHECK(vt::replace(h, key_of(w, i), value_of(key_of(w, i), 1)) == 0);
        VT_CHILD_CHECK(bdb_error(h) != BDB_E_INSERTED);
    }
    board->done++;
    await(board->done, kWriters);
    // Every writer sees every writer's records, and one count of all puts.
    VT_CHILD_CHECK(matches_final(h));
    VT_CHILD_CHECK(bdb_lock(h, BDB_LOCK, 3) == 0);
    const uint32_t puts = h->stats->puts;
    VT_CHILD_CHECK(bdb_lock(h, BDB_UNLOCK, 3) == 0);
    VT_CHILD_CHECK(puts == kWriters * kKeys);
    VT_CHILD_CHECK(bdb_close(h) == 0);
    return 0;
}

int reader(const std::string &path, Board *board) {
    uint32_t err = 0;
    bdb_handle *h = bdb_open(path.c_str(), 0, BDB_RDONLY, BDB_SHARED, nullptr, 0, &err);
    VT_CHILD_CHECK(h != nullptr);
    if (h->flags & BDB_F_AREA_OWNER) board->owners++;
    board->started++;
    await(board->started, kWriters + 1);
    std::mt19937 rng(5);
    for (;;) {
        const bool finished = board->done.load() == kWriters;
        auto got = vt::walk(h);
        // bdb_next from a key that a writer deleted meanwhile finds no key.
        const bool cut = bdb_error(h) == BDB_E_NOTFOUND && !got.empty() && is_deleted_key(got.back().first);
        VT_CHILD_CHECK(bdb_error(h) == BDB_E_EOF || bdb_error(h) == BDB_E_EMPTY || cut);
        for (size_t i = 0; i < got.size(); ++i) {
            VT_CHILD_CHECK(i == 0 || got[i - 1].first < got[i].first);
            VT_CHILD_CHECK(plausible(got[i].first, got[i].second));
        }
        for (int n = 0; n < 20; ++n) {
            const std::string k = key_of(static_cast<int>(rng() % kWriters), static_cast<int>(rng() % kKeys));
            std::string v;
            if (vt::get(h, k, &v))
                VT_CHILD_CHECK(plausible(k, v));
            else
                VT_CHILD_CHECK(bdb_error(h) == BDB_E_NOTFOUND);
        }
        if (finished) break;
    }
    VT_CHILD_CHECK(matches_final(h));
    VT_CHILD_CHECK(bdb_close(h) == 0);
    return 0;
}

TEST_F(SharedMode, ConcurrentWritersAndAReaderAgree) {
    std::vector<pid_t> kids;
    for (int w = 0; w < kWriters; ++w)
        kids.push_back(vt::spawn([&, w] { return writer(path, board, w); }, 240));
    kids.push_back(vt::spawn([&] { return reader(path, board); }, 240));
    for (pid_t p : kids) EXPECT_EQ(vt::wait_child(p, 250000), 0) << "child " << p;
    // The opens were serialised: exactly one process initialised the area.
    EXPECT_EQ(board->owners.load(), 1);
    // The last close removed the segment and the semaphore set.
    EXPECT_TRUE(ipc_gone());

    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_AREA_OWNER);
    EXPECT_TRUE(matches_final(h));
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());
}

// Processes opening and closing at once: every last close removes segment
// and set while others may be attaching; no record may be lost on the way.
TEST_F(SharedMode, OpenAndCloseChurn) {
    constexpr int kProcs = 4, kRounds = 40;
    std::vector<pid_t> kids;
    for (int w = 0; w < kProcs; ++w) {
        kids.push_back(vt::spawn([&, w] {
            for (int i = 0; i < kRounds; ++i) {
                bdb_handle *c = open_shared();
                VT_CHILD_CHECK(c != nullptr);
                VT_CHILD_CHECK(vt::put(c, key_of(w, i), value_of(key_of(w, i), 0)) == 0);
                for (int k = 0; k <= i; ++k) {
                    std::string v;
                    VT_CHILD_CHECK(vt::get(c, key_of(w, k), &v) && v == value_of(key_of(w, k), 0));
                }
                VT_CHILD_CHECK(bdb_close(c) == 0);
            }
            return 0;
        }, 240));
    }
    for (pid_t p : kids) EXPECT_EQ(vt::wait_child(p, 250000), 0) << "child " << p;
    EXPECT_TRUE(ipc_gone());
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(vt::walk(h).size(), static_cast<size_t>(kProcs * kRounds));
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());
}

TEST_F(SharedMode, FirstOpenerMakesTheAreaLaterOnesTakeItAsItIs) {
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_AREA_OWNER);
    EXPECT_EQ(vt::shm_nattch(key), 1);
    EXPECT_TRUE(vt::sem_exists(key));
    // Not synced: only the shared cache holds it.
    ASSERT_EQ(vt::put(h, "parent", "P"), 0);
    ASSERT_TRUE(vt::get(h, "parent", nullptr));
    const uint32_t reads = h->stats->reads;

    pid_t kid = vt::spawn([&] {
        bdb_handle *c = open_shared();
        VT_CHILD_CHECK(c != nullptr);
        VT_CHILD_CHECK(!(c->flags & BDB_F_AREA_OWNER));
        // The attachment inherited through fork and the child's own.
        VT_CHILD_CHECK(vt::shm_nattch(key) == 3);
        // The parent's counts and record, as the parent left them.
        VT_CHILD_CHECK(c->stats->reads == reads && c->stats->puts == 1);
        std::string v;
        VT_CHILD_CHECK(vt::get(c, "parent", &v) && v == "P");
        VT_CHILD_CHECK(!vt::get(c, "missing", nullptr));
        VT_CHILD_CHECK(vt::put(c, "child", "C") == 0);
        VT_CHILD_CHECK(bdb_close(c) == 0);
        return 0;
    });
    ASSERT_EQ(vt::wait_child(kid), 0);

    // One statistics block: the child's two gets and put count here.
    EXPECT_EQ(h->stats->reads, reads + 2);
    EXPECT_EQ(h->stats->puts, 2u);
    std::string v;
    EXPECT_TRUE(vt::get(h, "child", &v));
    EXPECT_EQ(v, "C");
    // The child's close left the area to the parent.
    EXPECT_EQ(vt::shm_nattch(key), 1);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());

    // Both records reached the file.
    h = open_private(nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(vt::walk(h).size(), 2u);
    EXPECT_EQ(bdb_close(h), 0);
}

TEST_F(SharedMode, HolderKilledWithTheMutexFreesIt) {
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    pid_t holder = vt::spawn([&] {
        bdb_handle *c = open_shared();
        VT_CHILD_CHECK(c != nullptr);
        VT_CHILD_CHECK(vt::put(c, "held", "by the holder") == 0);
        VT_CHILD_CHECK(bdb_lock(c, BDB_LOCK, 3) == 0);
        board->flag = 1;
        for (;;) pause();  // until killed (or the alarm)
    });
    ASSERT_TRUE(vt::wait_until([&] { return board->flag.load() == 1; }));
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);
    EXPECT_EQ(vt::sem_ctl(key, GETPID), holder);

    // A second process waits for the mutex in its open.
    pid_t waiter = vt::spawn([&] {
        bdb_handle *c = open_shared();
        VT_CHILD_CHECK(c != nullptr);
        VT_CHILD_CHECK(vt::get(c, "held", nullptr));
        VT_CHILD_CHECK(bdb_close(c) == 0);
        return 0;
    });
    ASSERT_TRUE(vt::wait_until([&] { return vt::sem_ctl(key, GETZCNT) == 1; }));

    kill(holder, SIGKILL);
    EXPECT_EQ(vt::wait_child(holder), 128 + SIGKILL);
    EXPECT_EQ(vt::wait_child(waiter), 0);
    // The parent's next call goes through and sees the holder's record.
    std::string v;
    EXPECT_TRUE(vt::get(h, "held", &v));
    EXPECT_EQ(v, "by the holder");
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);
    EXPECT_EQ(vt::shm_nattch(key), 1);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());
}

TEST_F(SharedMode, PrivateOpenIsRefusedWhileASharedUserIsAttached) {
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    uint32_t err = 0;
    EXPECT_EQ(open_private(&err), nullptr);
    EXPECT_EQ(err, BDB_E_SHARE);
    EXPECT_EQ(vt::last_context(), "Private database already opened shared");
    // A thread-managed private open is refused as well.
    bdb_options o{0, nullptr, vt::recording_handler};
    EXPECT_EQ(bdb_open(path.c_str(), 0, BDB_RDWR, BDB_PRIVATE, &o, 7, &err), nullptr);
    EXPECT_EQ(err, BDB_E_SHARE);
    EXPECT_EQ(varlo::numDatabases, 0u);
    // The shared handle is unaffected.
    EXPECT_EQ(vt::put(h, "k", "v"), 0);
    EXPECT_EQ(bdb_close(h), 0);

    h = open_private(&err);
    ASSERT_NE(h, nullptr) << err;
    EXPECT_TRUE(vt::get(h, "k", nullptr));
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());
}

TEST_F(SharedMode, SegmentLeftBehindIsInitialisedAgain) {
    // A process that ends without closing leaves segment and set behind.
    pid_t kid = vt::spawn([&] {
        bdb_handle *c = open_shared();
        VT_CHILD_CHECK(c != nullptr);
        VT_CHILD_CHECK(vt::put(c, "left", "behind") == 0);
        VT_CHILD_CHECK(bdb_sync(c) == 0);
        VT_CHILD_CHECK(c->stats->puts == 1);
        return 0;
    });
    ASSERT_EQ(vt::wait_child(kid), 0);
    EXPECT_EQ(vt::shm_nattch(key), 0);
    EXPECT_TRUE(vt::sem_exists(key));

    // Nobody is attached: a private open is admitted.
    uint32_t err = 0;
    bdb_handle *h = open_private(&err);
    ASSERT_NE(h, nullptr) << err;
    EXPECT_TRUE(vt::get(h, "left", nullptr));
    EXPECT_EQ(vt::put(h, "private", "p"), 0);
    EXPECT_EQ(bdb_close(h), 0);

    // The next shared opener initialises the area and reads the file anew.
    h = open_shared();
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_AREA_OWNER);
    EXPECT_EQ(h->stats->puts, 0u);
    EXPECT_EQ(vt::walk(h).size(), 2u);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());
}

TEST_F(SharedMode, AreaOfAnotherFileUnderTheSameKeyIsRefused) {
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    // As if another file with the same IPC key had made the segment.
    auto *area = static_cast<bdb_shared *>(h->area);
    const uint32_t identity = area->spare;
    EXPECT_NE(identity, 0u);
    area->spare = identity + 1;
    pid_t kid = vt::spawn([&] {
        uint32_t err = 0;
        VT_CHILD_CHECK(open_shared(&err) == nullptr);
        VT_CHILD_CHECK(err == BDB_E_SHARE);
        VT_CHILD_CHECK(vt::shm_nattch(key) == 2);  // the parent's and the inherited one
        VT_CHILD_CHECK(vt::sem_ctl(key, GETVAL) == 0);
        return 0;
    });
    EXPECT_EQ(vt::wait_child(kid), 0);
    area->spare = identity;
    EXPECT_EQ(vt::put(h, "k", "v"), 0);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());
}

TEST_F(SharedMode, DestroyIsRefusedAndTheHandleStaysUsable) {
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(vt::put(h, "a", "1"), 0);
    EXPECT_EQ(bdb_destroy(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_SHARE);
    EXPECT_EQ(h->hold_count, 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);
    EXPECT_EQ(vt::put(h, "b", "2"), 0);
    EXPECT_EQ(vt::walk(h).size(), 2u);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    EXPECT_TRUE(ipc_gone());
}

TEST_F(SharedMode, LockHoldsTheMutexAcrossCalls) {
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_lock(h, 2, 3), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_PARAM);
    EXPECT_EQ(vt::last_context(), "Invalid lock operation");
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);

    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);
    // The holder's own calls go through.
    EXPECT_EQ(vt::put(h, "k", "v"), 0);
    EXPECT_EQ(bdb_sync(h), 0);
    EXPECT_EQ(h->hold_count, 2);
    ASSERT_EQ(bdb_lock(h, BDB_UNLOCK, 3), 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);
    ASSERT_EQ(bdb_lock(h, BDB_UNLOCK, 3), 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);
    EXPECT_EQ(h->hold_count, 0);

    // Another process now gets it.
    pid_t kid = vt::spawn([&] {
        bdb_handle *c = open_shared();
        VT_CHILD_CHECK(c != nullptr && vt::get(c, "k", nullptr));
        VT_CHILD_CHECK(bdb_close(c) == 0);
        return 0;
    });
    EXPECT_EQ(vt::wait_child(kid), 0);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());
}

TEST_F(SharedMode, FileOfTheOtherByteOrderIsKnownToEveryProcess) {
    // Turn the new file's meta page into the other byte order.
    {
        int fd = open(path.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        std::vector<uint8_t> page(BDB_PGSIZE);
        ASSERT_EQ(pread(fd, page.data(), page.size(), 0), BDB_PGSIZE);
        bdb_swap(page.data(), BDB_PGSIZE);
        ASSERT_EQ(pwrite(fd, page.data(), page.size(), 0), BDB_PGSIZE);
        close(fd);
    }
    bdb_handle *h = open_shared();
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_SWAPPED);
    pid_t kid = vt::spawn([&] {
        bdb_handle *c = open_shared();
        VT_CHILD_CHECK(c != nullptr);
        VT_CHILD_CHECK(c->flags & BDB_F_SWAPPED);
        for (int i = 0; i < 300; ++i) VT_CHILD_CHECK(vt::put(c, key_of(1, i), value_of(key_of(1, i), 0)) == 0);
        VT_CHILD_CHECK(bdb_close(c) == 0);
        return 0;
    });
    ASSERT_EQ(vt::wait_child(kid), 0);
    for (int i = 0; i < 300; ++i) {
        std::string v;
        ASSERT_TRUE(vt::get(h, key_of(1, i), &v)) << i;
        ASSERT_EQ(v, value_of(key_of(1, i), 0));
    }
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(ipc_gone());

    uint32_t magic = 0;
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_EQ(pread(fd, &magic, 4, 0), 4);
    close(fd);
    EXPECT_EQ(magic, BDB_MAGIC_SWAPPED);
    h = open_private(nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_SWAPPED);
    EXPECT_EQ(vt::walk(h).size(), 300u);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
