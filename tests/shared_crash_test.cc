// A process killed in the middle of a change to a shared database: the others
// are not blocked, and they never build on a tree the dead change left
// damaged. When the dead change had touched nothing, work simply goes on.
#include <random>

#include "test_util.h"

namespace {

class Crash : public ::testing::Test {
protected:
    void SetUp() override { vt::Watchdog::arm(120); }
    void TearDown() override { vt::Watchdog::disarm_and_clean(); }
    vt::TempDir dir;
};

// Kills the process at the n-th write (or read) of a page.
struct Killer {
    static inline int left = 0;
    static ssize_t pwrite(int fd, const void *b, size_t n, off_t off) {
        if (--left == 0) raise(SIGKILL);
        return ::pwrite(fd, b, n, off);
    }
    static ssize_t pread(int fd, void *b, size_t n, off_t off) {
        if (--left == 0) raise(SIGKILL);
        return ::pread(fd, b, n, off);
    }
};

bdb_handle *open_shared(const std::string &path) {
    uint32_t err = 0;
    bdb_options o{0, nullptr, vt::recording_handler};
    return bdb_open(path.c_str(), 0, BDB_RDWR, BDB_SHARED, &o, 0, &err);
}

// A child that opens the database, arms the killer on its first write (or
// read) and puts a record; the parent sees it killed.
void child_dies_putting(const std::string &path, bool on_write, const std::string &k, const std::string &v) {
    pid_t pid = vt::spawn([&] {
        bdb_handle *c = open_shared(path);
        VT_CHILD_CHECK(c != nullptr);
        Killer::left = 1;
        if (on_write)
            varlo::sysio.pwrite = Killer::pwrite;
        else
            varlo::sysio.pread = Killer::pread;
        vt::put(c, k, v);
        return 1;  // not reached
    });
    EXPECT_EQ(vt::wait_child(pid), 128 + SIGKILL);
}

TEST_F(Crash, DeathHalfWayThroughAChangeStopsFurtherChanges) {
    key_t key = 0;
    const std::string path = vt::fresh_db(dir, "c", BDB_SHARED, &key);
    ASSERT_FALSE(path.empty());
    bdb_handle *h = open_shared(path);
    ASSERT_NE(h, nullptr);
    for (int i = 0; i < 200; ++i) ASSERT_EQ(vt::put(h, "k" + std::to_string(i), "v"), 0);
    ASSERT_EQ(bdb_sync(h), 0);
    // The child dies writing its long value: the run is already taken in
    // the shared map, the record not yet placed.
    child_dies_putting(path, true, "long", std::string(20000, 'L'));
    // Not blocked; reads go on; the next change checks the tree, finds the
    // damage and refuses, and so does every later one.
    vt::reports().clear();
    EXPECT_TRUE(vt::get(h, "k7", nullptr));
    EXPECT_EQ(vt::put(h, "after", "x"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DBTYPE);
    EXPECT_EQ(vt::del(h, "k8"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DBTYPE);
    EXPECT_TRUE(vt::get(h, "k8", nullptr));
    ASSERT_FALSE(vt::reports().empty());
    EXPECT_NE(vt::last_context().find("died"), std::string::npos) << vt::last_context();
    bdb_close(h);
    EXPECT_FALSE(vt::shm_exists(key));
}

TEST_F(Crash, DeathBeforeTheChangeTouchedAnythingLeavesWorkGoingOn) {
    key_t key = 0;
    const std::string path = vt::fresh_db(dir, "d", BDB_SHARED, &key);
    ASSERT_FALSE(path.empty());
    bdb_handle *h = open_shared(path);
    ASSERT_NE(h, nullptr);
    std::mt19937 rng(7);
    std::vector<std::string> keys;
    for (int i = 0; i < 5000; ++i) {
        keys.push_back("key" + std::to_string(rng()));
        ASSERT_EQ(vt::replace(h, keys.back(), std::string(100, 'v')), 0);
    }
    ASSERT_EQ(bdb_sync(h), 0);
    // The child dies at its first page read, on the way down to its leaf.
    child_dies_putting(path, false, "new-key", "x");
    EXPECT_EQ(vt::put(h, "after", "x"), 0) << bdbstrerr(bdb_error(h)) << " " << vt::last_context();
    EXPECT_EQ(bdb_check(h), 0);
    for (auto &k : keys) ASSERT_TRUE(vt::get(h, k, nullptr)) << k;
    bdb_close(h);
    EXPECT_FALSE(vt::shm_exists(key));
}

}  // namespace
