// The file lock of a private handle, sync (flush, log map, trimming the
// file) and its failures, and transaction requests.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>

#include "test_util.h"

namespace {

using vt::reports;

off_t file_size(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Pages the file needs by the meta page's allocation map: highest page in
// use + 1 (counted here bit by bit, independently of the library).
uint32_t pages_in_use(const bdb_handle *h) {
    uint32_t top = 0;
    for (uint32_t pg = 0; pg < BDB_MAXPAGES; ++pg)
        if ((h->meta->pgmap[pg / 32] >> (pg % 32)) & 1u) top = pg + 1;
    return top;
}

template <typename F>
int in_child(F fn) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(20);
        ::_exit(fn());
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Another process opens the database: 10 = it opened (and closed), 0 = it
// was refused because the database is in use, other values = wrong.
int other_process_opens(const std::string &path) {
    return in_child([&] {
        uint32_t err = 0;
        bdb_handle *h = bdb_open(path.c_str(), 0, BDB_RDWR, BDB_PRIVATE, nullptr, 0, &err);
        if (h) return bdb_close(h) == 0 ? 10 : 11;
        return err == BDB_E_IO ? 0 : 12;
    });
}

struct SysioGuard {
    ~SysioGuard() { varlo::sysio_reset(); }
};
ssize_t failing_pwrite(int, const void *, size_t, off_t) {
    errno = EIO;
    return -1;
}
int failing_fsync(int) {
    errno = EIO;
    return -1;
}
int failing_ftruncate(int, off_t) {
    errno = EPERM;
    return -1;
}

std::string key(int i) {
    char b[16];
    std::snprintf(b, sizeof b, "k%04d", i);
    return b;
}

// ---------------------------------------------------------------------------
// bdb_lock on a private handle
// ---------------------------------------------------------------------------

TEST(FileLock, HeldFromOpenReleasedAndTakenAgain) {
    vt::TempDir d;
    const std::string p = d.file("db");
    reports().clear();
    bdb_handle *h = vt::create_open(p, 0, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_LOCKED);
    EXPECT_EQ(other_process_opens(p), 0);

    // The lock is already held.
    EXPECT_EQ(bdb_lock(h, BDB_LOCK, 3), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_IO);
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].context, "db lock");
    EXPECT_EQ(reports()[0].h, h);
    EXPECT_TRUE(h->flags & BDB_F_LOCKED);
    EXPECT_EQ(other_process_opens(p), 0);

    // Released: another process may open the database.
    reports().clear();
    EXPECT_EQ(bdb_lock(h, BDB_UNLOCK, 3), 0);
    EXPECT_FALSE(h->flags & BDB_F_LOCKED);
    EXPECT_EQ(other_process_opens(p), 10);
    // There is nothing left to release.
    EXPECT_EQ(bdb_lock(h, BDB_UNLOCK, 3), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_IO);
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].context, "db unlock");

    // Taken again (the kind does not matter): others are out again.
    EXPECT_EQ(bdb_lock(h, BDB_LOCK, 0), 0);
    EXPECT_TRUE(h->flags & BDB_F_LOCKED);
    EXPECT_EQ(other_process_opens(p), 0);
    // Any operation other than lock releases a private handle's lock.
    EXPECT_EQ(bdb_lock(h, 2, 3), 0);
    EXPECT_EQ(other_process_opens(p), 10);

    // Records work without the lock, and close works without it too.
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(other_process_opens(p), 10);
    errno = 0;
    EXPECT_EQ(bdb_lock(nullptr, BDB_LOCK, 3), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(FileLock, ReadOnlyHandleLocksAndUnlocks) {
    vt::TempDir d;
    const std::string p = d.file("db");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, nullptr), 0);
    bdb_handle *h = vt::open_db(p, 0, BDB_RDONLY);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_LOCKED);
    EXPECT_EQ(other_process_opens(p), 0);
    EXPECT_EQ(bdb_lock(h, BDB_UNLOCK, 3), 0);
    EXPECT_EQ(other_process_opens(p), 10);
    EXPECT_EQ(bdb_lock(h, BDB_LOCK, 3), 0);
    EXPECT_EQ(other_process_opens(p), 0);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(other_process_opens(p), 10);
}

// ---------------------------------------------------------------------------
// Transactions
// ---------------------------------------------------------------------------

TEST(Transaction, AcceptsOneToThreeOnly) {
    vt::TempDir d;
    reports().clear();
    bdb_handle *h = vt::create_open(d.file("db"), 0, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    for (int op : {1, 2, 3}) {
        bdb_seterror(h, 0);
        EXPECT_EQ(bdb_transaction(h, op), 0);
        EXPECT_EQ(bdb_error(h), 0u);
    }
    for (int op : {0, 4, -1, 100}) {
        bdb_seterror(h, 0);
        EXPECT_EQ(bdb_transaction(h, op), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_PARAM);
    }
    EXPECT_TRUE(reports().empty());
    errno = 0;
    EXPECT_EQ(bdb_transaction(nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(bdb_close(h), 0);
}

// ---------------------------------------------------------------------------
// Sync
// ---------------------------------------------------------------------------

TEST(Sync, FileShrinksToItsHighestPageInUse) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    // Only the meta page.
    ASSERT_EQ(bdb_sync(h), 0);
    EXPECT_EQ(file_size(p), 8192);

    // Long values in key order: the last records own the last pages.
    std::map<std::string, std::string> m;
    for (int i = 0; i < 60; ++i) {
        std::string v(static_cast<size_t>(10000 + i), static_cast<char>('a' + i % 26));
        ASSERT_EQ(vt::put(h, key(i), v), 0);
        m[key(i)] = v;
    }
    ASSERT_EQ(bdb_sync(h), 0);
    const off_t full = file_size(p);
    EXPECT_EQ(full, static_cast<off_t>(pages_in_use(h)) * 8192);
    EXPECT_GE(full, 60 * 2 * 8192);
    EXPECT_EQ(std::memcmp(h->logmap, h->meta->pgmap, BDB_MAPWORDS * 4), 0);

    for (int i = 40; i < 60; ++i) {
        ASSERT_EQ(vt::del(h, key(i)), 0);
        m.erase(key(i));
    }
    // The log map differs until the sync.
    EXPECT_NE(std::memcmp(h->logmap, h->meta->pgmap, BDB_MAPWORDS * 4), 0);
    ASSERT_EQ(bdb_sync(h), 0);
    const off_t trimmed = file_size(p);
    EXPECT_EQ(trimmed, static_cast<off_t>(pages_in_use(h)) * 8192);
    EXPECT_EQ(trimmed, static_cast<off_t>(bdb_find_max_page_number(h)) * 8192);
    EXPECT_EQ(*h->npages_ref, pages_in_use(h));
    EXPECT_LE(trimmed, full - 20 * 2 * 8192);
    EXPECT_EQ(std::memcmp(h->logmap, h->meta->pgmap, BDB_MAPWORDS * 4), 0);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();

    // The file can grow again after it was cut.
    for (int i = 100; i < 110; ++i) {
        std::string v(9000, 'z');
        ASSERT_EQ(vt::put(h, key(i), v), 0);
        m[key(i)] = v;
    }
    ASSERT_EQ(bdb_close(h), 0);
    h = vt::open_db(p);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(file_size(p), static_cast<off_t>(pages_in_use(h)) * 8192);
    auto all = vt::walk(h);
    ASSERT_EQ(all.size(), m.size());
    for (auto &[k, v] : all) ASSERT_TRUE(m.at(k) == v) << k;
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();

    // Zero pages appended behind the library's back are cut by the next sync.
    ASSERT_EQ(bdb_close(h), 0);
    ASSERT_EQ(::truncate(p.c_str(), file_size(p) + 5 * 8192), 0);
    h = vt::open_db(p);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(bdb_sync(h), 0);
    EXPECT_EQ(file_size(p), static_cast<off_t>(pages_in_use(h)) * 8192);

    // Everything deleted: the pages left in use are the tree's, if any.
    for (auto &[k, v] : m) ASSERT_EQ(vt::del(h, k), 0);
    ASSERT_EQ(bdb_sync(h), 0);
    EXPECT_EQ(file_size(p), static_cast<off_t>(pages_in_use(h)) * 8192);
    if (h->meta->root == 0) {
        EXPECT_EQ(file_size(p), 8192);
    }
    EXPECT_LE(file_size(p), 2 * 8192);
    EXPECT_EQ(bdb_close(h), 0);
}

TEST(Sync, ReadOnlyHandleIsRefusedAndFileUntouched) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    for (int i = 0; i < 30; ++i) ASSERT_EQ(vt::put(h, key(i), std::string(3000, 'x')), 0);
    ASSERT_EQ(bdb_close(h), 0);
    // Extra zero pages past the last page in use: a sync would cut them.
    ASSERT_EQ(::truncate(p.c_str(), file_size(p) + 3 * 8192), 0);
    const std::string before = read_file(p);

    reports().clear();
    h = vt::open_db(p, 0, BDB_RDONLY, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_sync(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
    EXPECT_EQ(bdb_do_sync(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(read_file(p) == before);
    errno = 0;
    EXPECT_EQ(bdb_sync(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

// A failed sync keeps what it could not write, and the next sync (or close)
// writes it; a close whose flush fails leaves the handle open.
TEST(Sync, FailuresAreReportedAndRetried) {
    vt::TempDir d;
    SysioGuard guard;
    const std::string p = d.file("db");
    reports().clear();
    bdb_handle *h = vt::create_open(p, 0, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    std::map<std::string, std::string> m;
    for (int i = 0; i < 200; ++i) {
        std::string v(static_cast<size_t>(i % 7 == 0 ? 2500 : 100), static_cast<char>('a' + i % 26));
        ASSERT_EQ(vt::put(h, key(i), v), 0);
        m[key(i)] = v;
    }
    ASSERT_EQ(bdb_sync(h), 0);
    for (int i = 0; i < 200; i += 3) {
        std::string v(50, 'R');
        ASSERT_EQ(vt::replace(h, key(i), v), 0);
        m[key(i)] = v;
    }
    for (int i = 150; i < 200; ++i) {
        ASSERT_EQ(vt::del(h, key(i)), 0);
        m.erase(key(i));
    }

    varlo::sysio.pwrite = failing_pwrite;
    EXPECT_EQ(bdb_sync(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_WRITE);
    varlo::sysio.pwrite = ::pwrite;
    varlo::sysio.fsync = failing_fsync;
    EXPECT_EQ(bdb_sync(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_IO);
    EXPECT_EQ(vt::last_context(), "db force cache fsync");
    varlo::sysio.fsync = ::fsync;
    varlo::sysio.ftruncate = failing_ftruncate;
    bdb_seterror(h, 0);
    reports().clear();
    EXPECT_EQ(bdb_sync(h), -1);
    EXPECT_EQ(bdb_error(h), 0u);  // left as it was
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].context, "db sync truncate");
    EXPECT_EQ(reports()[0].sys_errno, EPERM);

    // A close that cannot flush keeps the handle.
    varlo::sysio.pwrite = failing_pwrite;
    ASSERT_EQ(vt::put(h, "late", "x"), 0);
    m["late"] = "x";
    EXPECT_EQ(bdb_close(h), -1);
    varlo::sysio_reset();
    std::string v;
    ASSERT_TRUE(vt::get(h, key(0), &v));
    EXPECT_EQ(v, m[key(0)]);
    ASSERT_EQ(bdb_close(h), 0);

    h = vt::open_db(p);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(file_size(p), static_cast<off_t>(pages_in_use(h)) * 8192);
    auto all = vt::walk(h);
    ASSERT_EQ(all.size(), m.size());
    for (auto &[k, val] : all) ASSERT_TRUE(m.at(k) == val) << k;
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
