// The database mutex of a shared database (semaphore 1 of the database's
// set): recursion for its holder, releases beyond the takes, a destroy while
// held, and a set removed under a waiting process.
#include <atomic>
#include <new>
#include <sys/mman.h>

#include "test_util.h"

namespace {

struct Board {
    std::atomic<int> child_locked{0}, parent_checked{0};
};

class SharedMutex : public ::testing::Test {
protected:
    void SetUp() override {
        vt::Watchdog::arm(120);
        void *m = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(m, MAP_FAILED);
        board = new (m) Board;
        path = vt::fresh_db(dir, "mutex", BDB_SHARED, &key);
        ASSERT_FALSE(path.empty());
        h = open_shared();
        ASSERT_NE(h, nullptr);
    }
    void TearDown() override {
        vt::Watchdog::disarm_and_clean();
        munmap(board, sizeof(Board));
    }
    bdb_handle *open_shared() {
        uint32_t err = 0;
        return bdb_open(path.c_str(), 0, BDB_RDWR, BDB_SHARED, nullptr, 0, &err);
    }
    // A child whose open waits for the mutex; it closes again and exits 0.
    pid_t spawn_opener() {
        return vt::spawn([this] {
            bdb_handle *c = open_shared();
            VT_CHILD_CHECK(c != nullptr);
            VT_CHILD_CHECK(vt::put(c, "child", "was here") == 0);
            VT_CHILD_CHECK(bdb_close(c) == 0);
            return 0;
        });
    }
    // Bounded: a process is blocked on the mutex.
    bool someone_waits() {
        return vt::wait_until([&] { return vt::sem_ctl(key, GETZCNT) == 1; });
    }
    void close_and_expect_clean() {
        EXPECT_EQ(bdb_close(h), 0);
        EXPECT_FALSE(vt::shm_exists(key));
        EXPECT_FALSE(vt::sem_exists(key));
    }

    vt::TempDir dir;
    std::string path;
    key_t key = -1;
    Board *board = nullptr;
    bdb_handle *h = nullptr;
};

TEST_F(SharedMutex, ThreeTakesNeedThreeReleases) {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(bdb_wait_shared_mutex(h, BDB_MUTEX_OP), 0);
    EXPECT_EQ(h->hold_count, 3);
    EXPECT_EQ(h->owner, bdb_thread_self());
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);

    const pid_t kid = spawn_opener();
    ASSERT_TRUE(someone_waits());
    for (int i = 0; i < 2; ++i) ASSERT_EQ(bdb_release_shared_mutex(h, BDB_MUTEX_OP), 0);
    EXPECT_EQ(h->hold_count, 1);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);
    // The child is still blocked in its open.
    EXPECT_EQ(vt::sem_ctl(key, GETZCNT), 1);
    EXPECT_EQ(waitpid(kid, nullptr, WNOHANG), 0);

    ASSERT_EQ(bdb_release_shared_mutex(h, BDB_MUTEX_OP), 0);
    EXPECT_EQ(h->hold_count, 0);
    EXPECT_EQ(h->owner, 0u);
    EXPECT_EQ(vt::wait_child(kid), 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);

    // A fourth release does nothing (a semop would block on the free mutex).
    EXPECT_EQ(bdb_release_shared_mutex(h, BDB_MUTEX_OP), 0);
    EXPECT_EQ(h->hold_count, 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);
    EXPECT_TRUE(vt::get(h, "child", nullptr));
    close_and_expect_clean();
}

TEST_F(SharedMutex, DestroyWhileHeldTwiceGivesUpTheWholeHold) {
    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    const pid_t kid = spawn_opener();
    ASSERT_TRUE(someone_waits());

    EXPECT_EQ(bdb_destroy_shared_mutex(h), 0);
    EXPECT_EQ(h->hold_count, 0);
    EXPECT_EQ(h->owner, 0u);
    EXPECT_EQ(h->sem_id, 0);
    // The waiter made a new set and got through.
    EXPECT_EQ(vt::wait_child(kid), 0);
    EXPECT_TRUE(vt::sem_exists(key));
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);

    // The handle finds the new set on its next call.
    EXPECT_TRUE(vt::get(h, "child", nullptr));
    EXPECT_NE(h->sem_id, 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);
    close_and_expect_clean();
}

TEST_F(SharedMutex, SetRemovedUnderAWaiterIsMadeAgain) {
    ASSERT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    const int old_id = semget(key, 0, 0);
    ASSERT_GE(old_id, 0);
    EXPECT_EQ(h->sem_id, old_id + 1);  // the id plus one: id 0 is valid

    const pid_t kid = vt::spawn([this] {
        bdb_handle *c = open_shared();
        VT_CHILD_CHECK(c != nullptr);
        VT_CHILD_CHECK(bdb_lock(c, BDB_LOCK, 3) == 0);
        board->child_locked = 1;
        while (board->parent_checked.load() == 0) usleep(200);
        VT_CHILD_CHECK(bdb_lock(c, BDB_UNLOCK, 3) == 0);
        VT_CHILD_CHECK(bdb_close(c) == 0);
        return 0;
    });
    ASSERT_TRUE(someone_waits());
    ASSERT_EQ(semctl(old_id, 0, IPC_RMID), 0);

    ASSERT_TRUE(vt::wait_until([&] { return board->child_locked.load() == 1; }));
    const int new_id = semget(key, 0, 0);
    EXPECT_GE(new_id, 0);
    EXPECT_NE(new_id, old_id);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);
    EXPECT_EQ(vt::sem_ctl(key, GETPID), kid);

    // The parent's hold went with the old set: its unlock succeeds, finds the
    // new set and leaves the child's hold alone.
    EXPECT_EQ(bdb_lock(h, BDB_UNLOCK, 3), 0);
    EXPECT_EQ(h->hold_count, 0);
    EXPECT_EQ(h->sem_id, new_id + 1);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 1);
    board->parent_checked = 1;
    EXPECT_EQ(vt::wait_child(kid), 0);

    EXPECT_EQ(vt::put(h, "after", "removal"), 0);
    EXPECT_EQ(vt::sem_ctl(key, GETVAL), 0);
    close_and_expect_clean();
}

}  // namespace
