// Openers of different kinds keep each other out of one database: a private
// handle, a private thread group, and shared-mode users, in different
// processes. Only users of one kind work on a file at a time.
#include "test_util.h"

namespace {

struct Opener {
    const char *name;
    int mode;
    uint32_t thread;
};
const Opener kPrivate{"private", BDB_PRIVATE, 0};
const Opener kGroup{"thread group", BDB_PRIVATE, 1};
const Opener kShared{"shared", BDB_SHARED, 0};

bdb_handle *open_as(const std::string &path, const Opener &o, uint32_t *err) {
    return bdb_open(path.c_str(), 0, BDB_RDWR, o.mode, nullptr, o.thread, err);
}

class Exclusion : public ::testing::Test {
protected:
    void SetUp() override { vt::Watchdog::arm(120); }
    void TearDown() override { vt::Watchdog::disarm_and_clean(); }
    vt::TempDir dir;
};

TEST_F(Exclusion, UsersOfDifferentKindsKeepEachOtherOut) {
    const Opener all[] = {kPrivate, kGroup, kShared};
    int n = 0;
    for (const Opener &holder : all) {
        for (const Opener &other : all) {
            if (holder.mode == BDB_SHARED && other.mode == BDB_SHARED) continue;  // they share
            // A forked child inherits the parent's thread registry and
            // descriptor, so its group would join the parent's: that pairing
            // needs a process of its own, not a fork.
            if (holder.thread && other.thread) continue;
            SCOPED_TRACE(std::string(holder.name) + " holds, " + other.name + " opens");
            key_t key = 0;
            const std::string path = vt::fresh_db(dir, "x" + std::to_string(n++) + "-", BDB_PRIVATE, &key);
            ASSERT_FALSE(path.empty());
            uint32_t err = 0;
            bdb_handle *h = open_as(path, holder, &err);
            ASSERT_NE(h, nullptr) << bdbstrerr(err);
            ASSERT_EQ(vt::put(h, "k", "v"), 0);
            // Another process is refused while the holder has the database...
            pid_t pid = vt::spawn([&] {
                uint32_t e = 0;
                bdb_handle *o = open_as(path, other, &e);
                VT_CHILD_CHECK(o == nullptr);
                VT_CHILD_CHECK(e == BDB_E_SHARE || e == BDB_E_IO);
                return 0;
            });
            EXPECT_EQ(vt::wait_child(pid), 0);
            ASSERT_EQ(bdb_close(h), 0);
            // ...and admitted once it has closed.
            pid = vt::spawn([&] {
                uint32_t e = 0;
                bdb_handle *o = open_as(path, other, &e);
                VT_CHILD_CHECK(o != nullptr);
                std::string v;
                VT_CHILD_CHECK(vt::get(o, "k", &v) && v == "v");
                VT_CHILD_CHECK(bdb_close(o) == 0);
                return 0;
            });
            EXPECT_EQ(vt::wait_child(pid), 0);
            // Nothing is left of the refused or finished shared users.
            EXPECT_FALSE(vt::shm_exists(key));
            EXPECT_FALSE(vt::sem_exists(key));
        }
    }
}

TEST_F(Exclusion, SharedUsersShareAndReadOnlyPrivateUsersShare) {
    key_t key = 0;
    const std::string path = vt::fresh_db(dir, "s", BDB_SHARED, &key);
    ASSERT_FALSE(path.empty());
    uint32_t err = 0;
    bdb_handle *h = open_as(path, kShared, &err);
    ASSERT_NE(h, nullptr);
    pid_t pid = vt::spawn([&] {
        uint32_t e = 0;
        bdb_handle *o = open_as(path, kShared, &e);
        VT_CHILD_CHECK(o != nullptr);
        VT_CHILD_CHECK(vt::put(o, "child", "1") == 0);
        VT_CHILD_CHECK(bdb_close(o) == 0);
        return 0;
    });
    EXPECT_EQ(vt::wait_child(pid), 0);
    EXPECT_TRUE(vt::get(h, "child", nullptr));
    ASSERT_EQ(bdb_close(h), 0);

    // Two private readers in different processes share the file.
    bdb_handle *r = vt::open_db(path, 0, BDB_RDONLY);
    ASSERT_NE(r, nullptr);
    pid = vt::spawn([&] {
        bdb_handle *o = vt::open_db(path, 0, BDB_RDONLY);
        VT_CHILD_CHECK(o != nullptr);
        VT_CHILD_CHECK(vt::get(o, "child", nullptr));
        bdb_close(o);
        // a writer is refused while a reader is there, a shared one too
        VT_CHILD_CHECK(vt::open_db(path, 0, BDB_RDWR) == nullptr);
        uint32_t e = 0;
        VT_CHILD_CHECK(open_as(path, kShared, &e) == nullptr && e == BDB_E_SHARE);
        return 0;
    });
    EXPECT_EQ(vt::wait_child(pid), 0);
    bdb_close(r);
    EXPECT_FALSE(vt::shm_exists(key) || vt::sem_exists(key));

    // In one process the thread handles of a file are all of one mode.
    for (int first : {BDB_PRIVATE, BDB_SHARED}) {
        bdb_handle *a = bdb_open(path.c_str(), 0, BDB_RDWR, first, nullptr, 1, &err);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(bdb_open(path.c_str(), 0, BDB_RDWR, BDB_PRIVATE + BDB_SHARED - first, nullptr, 1, &err), nullptr);
        EXPECT_EQ(err, BDB_E_SHARE);
        EXPECT_EQ(bdb_close(a), 0);
        EXPECT_FALSE(vt::shm_exists(key) || vt::sem_exists(key));
    }
}

}  // namespace
