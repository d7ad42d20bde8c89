// A process killed in the middle of a change to a shared database while
// others keep using it: they are not blocked, and the next of them to call
// puts the database back to its last sync through the meta log (changes
// since then, by any process, are undone as after a crash), then work goes
// on.
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

TEST_F(Crash, DeathHalfWayThroughAChangeRollsBackToTheLastSyncForEveryone) {
    struct Case {
        bool on_write;
        int at;
    } cases[] = {{true, 1}, {false, 1}};
    for (const Case &c : cases) {
        const std::string name = std::string(c.on_write ? "write" : "read") + std::to_string(c.at);
        SCOPED_TRACE(name);
        key_t key = 0;
        const std::string path = vt::fresh_db(dir, name, BDB_SHARED, &key);
        ASSERT_FALSE(path.empty());
        bdb_handle *h = open_shared(path);
        ASSERT_NE(h, nullptr);
        for (int i = 0; i < 2000; ++i) ASSERT_EQ(vt::put(h, "k" + std::to_string(i), std::string(100, 'v')), 0);
        ASSERT_EQ(bdb_sync(h), 0);
        const auto synced = vt::walk(h);
        ASSERT_EQ(vt::put(h, "unsynced", "u"), 0);
        // The child dies putting a long value: taking its run, writing it
        // (or on a page read on its way down).
        pid_t pid = vt::spawn([&] {
            bdb_handle *ch = open_shared(path);
            VT_CHILD_CHECK(ch != nullptr);
            for (int i = 2000; i < 2020; ++i) vt::put(ch, "k" + std::to_string(i), std::string(100, 'w'));
            Killer::left = c.at;
            if (c.on_write)
                varlo::sysio.pwrite = Killer::pwrite;
            else
                varlo::sysio.pread = Killer::pread;
            vt::put(ch, "a-long", std::string(20000, 'L'));  // on a leaf not in the cache
            return 1;  // not reached
        });
        ASSERT_EQ(vt::wait_child(pid), 128 + SIGKILL);
        EXPECT_TRUE(vt::walk(h) == synced) << bdbstrerr(bdb_error(h)) << " " << vt::last_context();
        EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
        EXPECT_EQ(vt::put(h, "after", "x"), 0) << bdbstrerr(bdb_error(h));
        EXPECT_EQ(bdb_close(h), 0);
        EXPECT_FALSE(vt::shm_exists(key));
    }
}

}  // namespace
