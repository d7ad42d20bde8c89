// Databases opened in shared mode by several processes: writers and a
// reader at once, the area and the database mutex (semaphore 1 of the set)
// that serialises them, a process killed holding the mutex or half way
// through a change (the next caller puts the database back to its last
// sync), and openers of different kinds keeping each other out.
#include <atomic>
#include <map>
#include <numeric>
#include <new>
#include <random>
#include <sys/mman.h>
#include <thread>

#include "test_util.h"

namespace {

// Counters that parent and children share (an anonymous shared mapping).
struct Board { std::atomic<int> started{0}, done{0}, flag{0}, owners{0}; };

class Shared : public ::testing::Test {
protected:
    void SetUp() override {
        vt::Watchdog::arm(300);
        void *m = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(m, MAP_FAILED);
        board = new (m) Board;
        path = vt::fresh_db(dir, "shared", BDB_SHARED, &key);
        ASSERT_FALSE(path.empty());
        h = open();  // the first opener makes the area
        ASSERT_TRUE(h && (h->flags & BDB_F_AREA_OWNER));
    }
    void TearDown() override {
        vt::Watchdog::disarm_and_clean();
        munmap(board, sizeof(Board));
    }
    bdb_handle *open(int mode = BDB_SHARED, uint32_t *err = nullptr, int flags = BDB_RDWR) {
        uint32_t scratch = 0;
        bdb_options o{0, nullptr, vt::recording_handler};
        return bdb_open(path.c_str(), 0, flags, mode, &o, 0, err ? err : &scratch);
    }
    // A child whose open waits for the mutex; it stores "child", closes and exits 0.
    pid_t spawn_opener() { return vt::spawn([this] { bdb_handle *c = open(); return !c || vt::replace(c, "child", "") || bdb_close(c); }); }
    bool someone_waits() { return vt::wait_until([&] { return vt::sem_ctl(key, GETZCNT) == 1; }); }
    void close_last() {  // which removes the segment and the semaphore set
        EXPECT_EQ(bdb_close(h), 0);
        EXPECT_TRUE(!vt::shm_exists(key) && !vt::sem_exists(key));
    }

    vt::TempDir dir;
    std::string path;
    key_t key = -1;
    Board *board = nullptr;
    bdb_handle *h = nullptr;
};

// Values follow from the key, so any process can check a record it did not
// write; one in eleven is long enough for data pages. Writer w puts keys
// w * kKeys ... (w + 1) * kKeys - 1 and deletes some.
std::string value_of(const std::string &k) {
    uint32_t h = 2166136261u;
    for (unsigned char c : k) h = (h ^ c) * 16777619u;
    return std::string(h % 11 == 0 ? 2048 + h % 5000 : h % 300, static_cast<char>('a' + h % 26));
}

constexpr int kWriters = 4, kKeys = 250;
std::string key_of(int n) { return "k" + std::to_string(n); }
int number_of(const std::string &k) {  // -1 for a key no writer puts
    const int n = k.size() > 1 ? std::atoi(k.c_str() + 1) : -1;
    return n >= 0 && n < kWriters * kKeys && k == key_of(n) ? n : -1;
}
bool deleted(int n) { return n % 10 == 3; }

// Writers put their own keys in a random order and delete some; they and a
// reader walk the tree all the while. The last one of each process sees the
// final state and the one count of all puts.
TEST_F(Shared, WritersAndAReaderAtOnceAgree) {
    close_last();  // the children race to make the area
    std::map<std::string, std::string> want;
    for (int n = 0; n < kWriters * kKeys; ++n)
        if (!deleted(n)) want[key_of(n)] = value_of(key_of(n));
    auto agrees = [&](bdb_handle *c) {
        auto got = vt::walk(c);
        return bdb_error(c) == BDB_E_EOF && std::map<std::string, std::string>(got.begin(), got.end()) == want;
    };
    std::vector<pid_t> kids;
    for (int w = 0; w <= kWriters; ++w) {
        kids.push_back(vt::spawn([&, w] {
            bdb_handle *c = open(BDB_SHARED, nullptr, w == kWriters ? BDB_RDONLY : BDB_RDWR);
            VT_CHILD_CHECK(c != nullptr);
            if (c->flags & BDB_F_AREA_OWNER) board->owners++;
            board->started++;
            while (board->started.load() < kWriters + 1) usleep(200);
            if (w < kWriters) {
                std::vector<int> order(kKeys);
                std::iota(order.begin(), order.end(), w * kKeys);
                std::shuffle(order.begin(), order.end(), std::mt19937(17 + w));
                for (int n : order) VT_CHILD_CHECK(vt::put(c, key_of(n), value_of(key_of(n))) == 0);
                for (int n : order) VT_CHILD_CHECK(!deleted(n) || vt::del(c, key_of(n)) == 0);
                board->done++;
            }
            for (bool last = false; !last;) {
                last = board->done.load() == kWriters;
                auto got = vt::walk(c);
                // bdb_next from a key deleted meanwhile finds no key.
                const bool cut = bdb_error(c) == BDB_E_NOTFOUND && !got.empty() && deleted(number_of(got.back().first));
                VT_CHILD_CHECK(bdb_error(c) == BDB_E_EOF || bdb_error(c) == BDB_E_EMPTY || cut);
                for (size_t i = 0; i < got.size(); ++i)
                    VT_CHILD_CHECK((i == 0 || got[i - 1].first < got[i].first) && number_of(got[i].first) >= 0 &&
                                   got[i].second == value_of(got[i].first));
            }
            VT_CHILD_CHECK(agrees(c) && bdb_lock(c, BDB_LOCK, 3) == 0);
            const uint32_t puts = c->stats->puts;
            VT_CHILD_CHECK(bdb_lock(c, BDB_UNLOCK, 3) == 0 && puts == kWriters * kKeys && bdb_close(c) == 0);
            return 0;
        }, 240));
    }
    for (pid_t p : kids) EXPECT_EQ(vt::wait_child(p, 250000), 0) << "child " << p;
    EXPECT_EQ(board->owners.load(), 1);  // the opens were serialised
    h = open();
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_AREA_OWNER);  // the last close removed the area
    EXPECT_TRUE(agrees(h));
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    close_last();
}

TEST_F(Shared, AreaIsMadeByTheFirstOpenerTakenByLaterOnesAndRemade) {
    ASSERT_EQ(vt::put(h, "parent", "P"), 0);  // in the shared cache only
    uint32_t err = 0;
    EXPECT_TRUE(!open(BDB_PRIVATE, &err) && err == BDB_E_SHARE && vt::last_context() == "Private database already opened shared");
    pid_t kid = vt::spawn([&] {
        bdb_handle *c = open();
        VT_CHILD_CHECK(c != nullptr && !(c->flags & BDB_F_AREA_OWNER) && c->stats->puts == 1);
        VT_CHILD_CHECK(vt::get(c, "parent", nullptr) && vt::put(c, "child", "C") == 0 && bdb_close(c) == 0);
        return 0;
    });
    ASSERT_EQ(vt::wait_child(kid), 0);
    EXPECT_TRUE(h->stats->puts == 2u && vt::get(h, "child", nullptr));  // one statistics block
    close_last();

    // A process that ends without closing leaves segment and set behind.
    kid = vt::spawn([&] { bdb_handle *c = open(); return c && !vt::put(c, "left", "") && !bdb_sync(c) ? 0 : 1; });
    ASSERT_EQ(vt::wait_child(kid), 0);
    EXPECT_EQ(vt::shm_nattch(key), 0);
    h = open(BDB_PRIVATE, &err);  // nobody attached: admitted
    ASSERT_NE(h, nullptr) << err;
    EXPECT_EQ(bdb_close(h), 0);
    h = open();
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE((h->flags & BDB_F_AREA_OWNER) && h->stats->puts == 0u && vt::walk(h).size() == 3u);
    close_last();
}

TEST_F(Shared, HolderKilledWithTheMutexFreesIt) {
    pid_t holder = vt::spawn([&] {
        bdb_handle *c = open();
        VT_CHILD_CHECK(c != nullptr && vt::put(c, "held", "H") == 0 && bdb_lock(c, BDB_LOCK, 3) == 0);
        board->flag = 1;
        for (;;) pause();
    });
    ASSERT_TRUE(vt::wait_until([&] { return board->flag.load() == 1; }));
    kill(holder, SIGKILL);
    EXPECT_EQ(vt::wait_child(holder), 128 + SIGKILL);
    EXPECT_TRUE(vt::get(h, "held", nullptr) && vt::sem_ctl(key, GETVAL) == 0);
    close_last();
}

TEST_F(Shared, RefusalsLeaveTheHandleUsable) {
    EXPECT_TRUE(bdb_lock(h, 2, 3) == -1 && bdb_error(h) == BDB_E_PARAM && vt::last_context() == "Invalid lock operation");
    EXPECT_TRUE(bdb_destroy(h) == -1 && bdb_error(h) == BDB_E_SHARE);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);
    // As if another file under the same IPC key had made the segment.
    static_cast<bdb_shared *>(h->area)->spare += 1;
    pid_t kid = vt::spawn([&] { uint32_t err = 0; return !open(BDB_SHARED, &err) && err == BDB_E_SHARE ? 0 : 1; });
    EXPECT_EQ(vt::wait_child(kid), 0);
    static_cast<bdb_shared *>(h->area)->spare -= 1;
    EXPECT_EQ(vt::put(h, "k", "v"), 0);
    close_last();
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST_F(Shared, MutexTakesNeedAsManyReleasesAndADestroyGivesUpTheHold) {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(bdb_wait_shared_mutex(h, BDB_MUTEX_OP), 0);
    pid_t kid = spawn_opener();
    ASSERT_TRUE(someone_waits());
    for (int i = 0; i < 2; ++i) ASSERT_EQ(bdb_release_shared_mutex(h, BDB_MUTEX_OP), 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);
    ASSERT_EQ(bdb_release_shared_mutex(h, BDB_MUTEX_OP), 0);
    EXPECT_EQ(vt::wait_child(kid), 0);
    // A fourth release does nothing (a semop would block on the free mutex).
    EXPECT_TRUE(bdb_release_shared_mutex(h, BDB_MUTEX_OP) == 0 && h->hold_count == 0);
    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    EXPECT_EQ(vt::put(h, "own", "call"), 0);  // the holder's own calls go through
    kid = spawn_opener();
    ASSERT_TRUE(someone_waits());
    EXPECT_TRUE(bdb_destroy_shared_mutex(h) == 0 && h->hold_count == 0);
    EXPECT_EQ(vt::wait_child(kid), 0);  // the waiter made a new set, and the handle finds it
    EXPECT_TRUE(vt::get(h, "child", nullptr) && vt::sem_ctl(key, GETVAL) == 0);
    close_last();
}

TEST_F(Shared, SetRemovedUnderAWaiterIsMadeAgain) {
    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    const int old_id = semget(key, 0, 0);
    const pid_t kid = spawn_opener();
    ASSERT_TRUE(someone_waits());
    ASSERT_EQ(semctl(old_id, 0, IPC_RMID), 0);
    EXPECT_EQ(vt::wait_child(kid), 0);
    EXPECT_NE(semget(key, 0, 0), old_id);
    // The parent's hold went with the old set: its unlock leaves the new one
    // alone (a release of the free mutex there would block).
    EXPECT_TRUE(bdb_lock(h, BDB_UNLOCK, 3) == 0 && h->hold_count == 0);
    EXPECT_TRUE(vt::get(h, "child", nullptr) && vt::sem_ctl(key, GETVAL) == 0);
    ASSERT_EQ(semctl(semget(key, 0, 0), 0, IPC_RMID), 0);
    EXPECT_TRUE(bdb_destroy_shared_mutex(h) == -1 && bdb_error(h) == BDB_E_SEM_HANDLE);  // the set is gone already
    close_last();
}

// A close waits for the database mutex only after it has given up the
// process-wide mutex. Thread x takes the database mutex (through b) the
// moment a's close lets go of it, and once the close waits for it again, x
// opens another database before it lets go. Both hang when the close waits
// holding the process-wide mutex. a is a plain handle, then the only handle
// of a thread group.
TEST_F(Shared, CloseWaitsForTheDatabaseMutexOnlyOutsideTheProcessWideOne) {
    const std::string other = dir.file("other");
    ASSERT_EQ(bdb_create(other.c_str(), BDB_PRIVATE, nullptr), 0);
    const pid_t kid = vt::spawn([&] {
        static std::atomic<int> step;  // 1: a's close let go of the mutex, 2: x holds it, 3: x's open failed
        for (uint32_t thread : {0u, 7u}) {
            uint32_t err = 0;
            bdb_handle *a = bdb_open(path.c_str(), 0, BDB_RDWR, BDB_SHARED, nullptr, thread, &err), *b = open();
            VT_CHILD_CHECK(a && b);
            step = 0;
            std::thread x([&] {
                while (step.load() == 0) usleep(100);
                bdb_lock(b, BDB_LOCK, 3);
                step = 2;
                someone_waits();  // a's close, for the mutex
                bdb_handle *o = vt::open_db(other);
                if (!o || bdb_close(o) != 0) step = 3;
                bdb_lock(b, BDB_UNLOCK, 3);
            });
            a->release = [](bdb_handle *ah, int op) {
                const int r = bdb_release_shared_mutex(ah, op);
                if (ah->hold_count == 0) {
                    step = 1;
                    while (step.load() == 1) usleep(100);
                }
                return r;
            };
            const int rc = bdb_close(a);
            x.join();
            VT_CHILD_CHECK(rc == 0 && step.load() == 2 && bdb_close(b) == 0);
        }
        return 0;
    }, 30);
    EXPECT_EQ(vt::wait_child(kid, 40000), 0);
    close_last();
}

// A child dies putting a long value: at the first page write (taking its
// run, writing it) or read (on a leaf not in the cache). The others go on,
// and the next call puts the database back to its last sync for everyone.
TEST_F(Shared, DeathHalfWayThroughAChangeRollsBackToTheLastSyncForEveryone) {
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(vt::put(h, "k" + std::to_string(i), std::string(100, 'v')), 0);
    for (bool on_write : {true, false}) {
        ASSERT_EQ(bdb_sync(h), 0);
        const auto synced = vt::walk(h);
        ASSERT_EQ(vt::put(h, "unsynced", "u"), 0);
        const pid_t pid = vt::spawn([&] {
            bdb_handle *c = open();
            VT_CHILD_CHECK(c != nullptr);
            for (int i = 2000; i < 2020; ++i) vt::put(c, "k" + std::to_string(i), std::string(100, 'w'));
            if (on_write) varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t { return raise(SIGKILL); };
            else varlo::sysio.pread = [](int, void *, size_t, off_t) -> ssize_t { return raise(SIGKILL); };
            vt::put(c, "a-long", std::string(20000, 'L'));
            return 1;  // not reached
        });
        ASSERT_EQ(vt::wait_child(pid), 128 + SIGKILL);
        EXPECT_TRUE(vt::walk(h) == synced) << bdbstrerr(bdb_error(h)) << " " << vt::last_context();
        EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
        EXPECT_EQ(vt::put(h, "after" + std::to_string(on_write), "x"), 0) << bdbstrerr(bdb_error(h));
    }
    close_last();
}

// Openers of different kinds (a private handle, a private thread group,
// shared-mode users) in different processes: only users of one kind work on
// a file at a time, and nothing is left of refused or finished shared users.
TEST_F(Shared, UsersOfDifferentKindsKeepEachOtherOut) {
    close_last();
    struct Opener { int mode; uint32_t thread; } const all[] = {{BDB_PRIVATE, 0}, {BDB_PRIVATE, 1}, {BDB_SHARED, 0}};
    auto open_as = [&](const Opener &o, uint32_t *err) { return bdb_open(path.c_str(), 0, BDB_RDWR, o.mode, nullptr, o.thread, err); };
    uint32_t err = 0;
    for (const Opener &holder : all) {
        for (const Opener &other : all) {
            // Shared users share; a forked child inherits the parent's thread
            // registry, so its group would join the parent's.
            if ((holder.mode == BDB_SHARED && other.mode == BDB_SHARED) || (holder.thread && other.thread)) continue;
            SCOPED_TRACE(std::to_string(holder.mode + 10 * holder.thread) + " holds, " + std::to_string(other.mode + 10 * other.thread) + " opens");
            bdb_handle *a = open_as(holder, &err);
            ASSERT_NE(a, nullptr) << bdbstrerr(err);
            ASSERT_EQ(vt::replace(a, "k", "v"), 0);
            auto opens = [&] {
                uint32_t e = 0;
                bdb_handle *o = open_as(other, &e);
                return o ? (vt::get(o, "k", nullptr) && bdb_close(o) == 0 ? 10 : 11) : e == BDB_E_SHARE || e == BDB_E_IO ? 0 : 12;
            };
            EXPECT_EQ(vt::wait_child(vt::spawn(opens)), 0);
            ASSERT_EQ(bdb_close(a), 0);
            EXPECT_EQ(vt::wait_child(vt::spawn(opens)), 10);
            EXPECT_TRUE(!vt::shm_exists(key) && !vt::sem_exists(key));
        }
    }
    // Private readers in different processes share the file, keeping writers out.
    bdb_handle *r = vt::open_db(path, 0, BDB_RDONLY);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(vt::wait_child(vt::spawn([&] {
        bdb_handle *o = vt::open_db(path, 0, BDB_RDONLY);
        VT_CHILD_CHECK(o != nullptr && vt::get(o, "k", nullptr) && bdb_close(o) == 0);
        VT_CHILD_CHECK(vt::open_db(path, 0, BDB_RDWR) == nullptr);
        uint32_t e = 0;
        VT_CHILD_CHECK(open_as(all[2], &e) == nullptr && e == BDB_E_SHARE);
        return 0;
    })), 0);
    bdb_close(r);
    // In one process the thread handles of a file are all of one mode.
    for (int first : {BDB_PRIVATE, BDB_SHARED}) {
        bdb_handle *a = bdb_open(path.c_str(), 0, BDB_RDWR, first, nullptr, 1, &err);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(bdb_open(path.c_str(), 0, BDB_RDWR, BDB_PRIVATE + BDB_SHARED - first, nullptr, 1, &err), nullptr);
        EXPECT_EQ(err, BDB_E_SHARE);
        EXPECT_EQ(bdb_close(a), 0);
        EXPECT_TRUE(!vt::shm_exists(key) && !vt::sem_exists(key));
    }
}

}  // namespace
