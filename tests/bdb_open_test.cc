// Creating, opening, closing and destroying databases: every refusal with its
// code and context, the file left exactly as it was by a refused open, the
// file lock between processes, read-only handles, and files written in the
// other byte order.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "test_util.h"

namespace {

using vt::reports;

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

uint32_t word(const std::string &bytes, size_t index) {
    uint32_t w;
    std::memcpy(&w, bytes.data() + index * 4, 4);
    return w;
}

// Runs fn in a forked child (bounded by an alarm) and returns its exit code,
// or 128 + the signal that ended it.
template <typename F>
int in_child(F fn) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(20);
        int rc = fn();
        ::_exit(rc);
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Restores the system calls of the library when the test ends.
struct SysioGuard {
    ~SysioGuard() { varlo::sysio_reset(); }
};

// Counts the changing system calls the library makes on database files.
int g_writes = 0;
ssize_t counting_pwrite(int fd, const void *b, size_t n, off_t o) {
    ++g_writes;
    return ::pwrite(fd, b, n, o);
}
int counting_fsync(int fd) {
    ++g_writes;
    return ::fsync(fd);
}
int counting_ftruncate(int fd, off_t len) {
    ++g_writes;
    return ::ftruncate(fd, len);
}
void count_writes() {
    g_writes = 0;
    varlo::sysio.pwrite = counting_pwrite;
    varlo::sysio.fsync = counting_fsync;
    varlo::sysio.ftruncate = counting_ftruncate;
}

// What a refused open must leave alone: the bytes (the first megabyte), the
// size and the modification time.
std::string fingerprint(const std::string &path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return "missing";
    std::string head(1 << 20, '\0');
    int fd = ::open(path.c_str(), O_RDONLY);
    ssize_t n = fd < 0 ? -1 : ::pread(fd, head.data(), head.size(), 0);
    if (fd >= 0) ::close(fd);
    head.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return std::to_string(st.st_size) + "/" + std::to_string(st.st_mtim.tv_sec) + "." +
           std::to_string(st.st_mtim.tv_nsec) + "/" + head;
}

// An open that must fail with code, reporting the given contexts in order
// (the last one is the open's own), and leaving the file as it was.
void expect_open_fails(const std::string &path, int flags, int mode, uint32_t code,
                       const std::vector<std::string> &contexts, uint32_t cache = 0) {
    const std::string before = fingerprint(path);
    reports().clear();
    uint32_t err = 0;
    bdb_options o{cache, nullptr, vt::recording_handler};
    bdb_handle *h = bdb_open(path.c_str(), 0, flags, mode, &o, 0, &err);
    EXPECT_EQ(h, nullptr);
    if (h) bdb_close(h);
    EXPECT_EQ(err, code) << bdbstrerr(err) << " / " << vt::last_context();
    ASSERT_EQ(reports().size(), contexts.size()) << vt::last_context();
    for (size_t i = 0; i < contexts.size(); ++i) {
        EXPECT_EQ(reports()[i].context, contexts[i]);
        EXPECT_EQ(reports()[i].code, code);
        EXPECT_EQ(reports()[i].name, path);
        EXPECT_NE(reports()[i].h, nullptr);
    }
    EXPECT_TRUE(fingerprint(path) == before) << "a refused open changed " << path;
}
void expect_open_fails(const std::string &path, int flags, int mode, uint32_t code, const std::string &context,
                       uint32_t cache = 0) {
    expect_open_fails(path, flags, mode, code, std::vector<std::string>{context}, cache);
}
const std::vector<std::string> kLocked = {"db lock", "Database already opened by another process"};

// A database with a few hundred records: short and long values, several
// tree levels. Returns the records.
std::map<std::string, std::string> fill(bdb_handle *h, int n) {
    std::map<std::string, std::string> m;
    for (int i = 0; i < n; ++i) {
        std::string k = "key-" + std::to_string(i * 7919 % 1000) + std::string(static_cast<size_t>(i % 40), 'k');
        std::string v(static_cast<size_t>(i % 13 == 0 ? 2048 + i * 11 : i % 300), static_cast<char>('a' + i % 26));
        if (m.count(k)) continue;
        EXPECT_EQ(vt::put(h, k, v), 0) << bdbstrerr(bdb_error(h));
        m[k] = v;
    }
    return m;
}

void expect_records(bdb_handle *h, const std::map<std::string, std::string> &m) {
    auto got = vt::walk(h);
    ASSERT_EQ(got.size(), m.size());
    auto it = m.begin();
    for (size_t i = 0; i < got.size(); ++i, ++it) {
        ASSERT_EQ(got[i].first, it->first);
        ASSERT_TRUE(got[i].second == it->second) << "value of " << it->first;
    }
}

// ---------------------------------------------------------------------------
// bdb_create
// ---------------------------------------------------------------------------

TEST(Create, FreshFileHoldsOnlyItsMetaPage) {
    vt::TempDir d;
    for (int mode : {BDB_SHARED, BDB_PRIVATE}) {
        const std::string p = d.file("m" + std::to_string(mode));
        uint32_t err = 1;
        ASSERT_EQ(bdb_create(p.c_str(), mode, &err), 0);
        EXPECT_EQ(err, 0u);
        const std::string f = read_file(p);
        ASSERT_EQ(f.size(), 8192u);
        EXPECT_EQ(word(f, 0), BDB_MAGIC);
        EXPECT_EQ(word(f, 2), static_cast<uint32_t>(mode));
        EXPECT_EQ(word(f, 5), 0u);  // no root
        EXPECT_EQ(word(f, 6), 1u);  // only page 0 in use
        for (size_t w = 7; w < 2048; ++w) ASSERT_EQ(word(f, w), 0u) << "word " << w;

        bdb_handle *h = vt::open_db(p);
        ASSERT_NE(h, nullptr);
        char kb[1024];
        bdb_datum k{kb, 0}, v{};
        EXPECT_EQ(bdb_first(h, &k, &v), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_EMPTY);
        EXPECT_EQ(bdb_check(h), 0);
        EXPECT_EQ(bdb_close(h), 0);
    }
    // The error word may be null.
    EXPECT_EQ(bdb_create(d.file("noerr").c_str(), BDB_PRIVATE, nullptr), 0);
    EXPECT_EQ(bdb_create(d.file("noerr").c_str(), BDB_PRIVATE, nullptr), -1);
}

TEST(Create, RefusalsLeaveTheDiskAsItWas) {
    vt::TempDir d;
    // An existing path, database or not, is left alone.
    const std::string other = d.file("other");
    write_file(other, "not a database");
    const std::string db = d.file("db");
    ASSERT_EQ(bdb_create(db.c_str(), BDB_PRIVATE, nullptr), 0);
    bdb_handle *h = vt::open_db(db);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    ASSERT_EQ(bdb_close(h), 0);
    for (const std::string &p : {other, db}) {
        const std::string before = read_file(p);
        for (int mode : {BDB_SHARED, BDB_PRIVATE, 3}) {
            uint32_t err = 0;
            EXPECT_EQ(bdb_create(p.c_str(), mode, &err), -1);
            EXPECT_EQ(err, BDB_E_EXISTS);
            EXPECT_TRUE(read_file(p) == before);
        }
    }
    // A bad mode creates nothing.
    for (int mode : {0, 3, -1}) {
        uint32_t err = 0;
        const std::string p = d.file("bad" + std::to_string(mode));
        EXPECT_EQ(bdb_create(p.c_str(), mode, &err), -1);
        EXPECT_EQ(err, BDB_E_PARAM);
        EXPECT_FALSE(exists(p));
    }
    // A link to a file that does not exist: the link's target is not made.
    const std::string target = d.file("target"), link = d.file("link");
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    uint32_t lerr = 0;
    EXPECT_EQ(bdb_create(link.c_str(), BDB_PRIVATE, &lerr), -1);
    EXPECT_EQ(lerr, BDB_E_EXISTS);
    EXPECT_FALSE(exists(target));
    // A folder that does not exist: nothing to create in.
    uint32_t err = 0;
    EXPECT_EQ(bdb_create(d.file("no/such/dir").c_str(), BDB_PRIVATE, &err), -1);
    EXPECT_EQ(err, BDB_E_CREATE);
    // A path longer than 1023 bytes.
    const std::string long_path = d.path() + "/" + std::string(1100, 'x');
    EXPECT_EQ(bdb_create(long_path.c_str(), BDB_PRIVATE, &err), -1);
    EXPECT_EQ(err, BDB_E_PARAM);
}

ssize_t failing_pwrite(int, const void *, size_t, off_t) {
    errno = EIO;
    return -1;
}
int failing_fsync(int) {
    errno = EIO;
    return -1;
}

TEST(Create, FileThatCouldNotBeFinishedIsRemoved) {
    vt::TempDir d;
    SysioGuard guard;
    const std::string p = d.file("db");
    uint32_t err = 0;
    varlo::sysio.pwrite = failing_pwrite;
    EXPECT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, &err), -1);
    EXPECT_EQ(err, BDB_E_WRITE);
    EXPECT_FALSE(exists(p));
    varlo::sysio_reset();
    varlo::sysio.fsync = failing_fsync;
    EXPECT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, &err), -1);
    EXPECT_EQ(err, BDB_E_IO);
    EXPECT_FALSE(exists(p));
    varlo::sysio_reset();
    // The path is free for a create that works.
    EXPECT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, &err), 0);
    EXPECT_EQ(read_file(p).size(), 8192u);
}

// ---------------------------------------------------------------------------
// bdb_open refusals
// ---------------------------------------------------------------------------

TEST(Open, BadArgumentsReportOnceWithoutAHandle) {
    vt::TempDir d;
    const std::string p = d.file("db");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, nullptr), 0);
    const std::string before = read_file(p);
    struct Case {
        int flags, mode;
        const char *context;
    };
    for (const Case &c : {Case{0, BDB_PRIVATE, "Bad flags parameter"}, Case{3, BDB_PRIVATE, "Bad flags parameter"},
                          Case{BDB_RDWR, 0, "Bad mode parameter"}, Case{BDB_RDWR, 3, "Bad mode parameter"},
                          Case{BDB_RDONLY, 3, "Bad mode parameter"}}) {
        SCOPED_TRACE(c.context);
        reports().clear();
        errno = 0;
        uint32_t err = 0;
        bdb_options o{0, nullptr, vt::recording_handler};
        EXPECT_EQ(bdb_open(p.c_str(), 0, c.flags, c.mode, &o, 0, &err), nullptr);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(err, BDB_E_PARAM);
        EXPECT_EQ(bdb_error(nullptr), BDB_E_PARAM);
        ASSERT_EQ(reports().size(), 1u);
        EXPECT_EQ(reports()[0].h, nullptr);
        EXPECT_EQ(reports()[0].name, p);
        EXPECT_EQ(reports()[0].context, c.context);
        EXPECT_EQ(reports()[0].code, BDB_E_PARAM);
        EXPECT_EQ(reports()[0].sys_errno, EINVAL);
        // Without an error word or options.
        errno = 0;
        EXPECT_EQ(bdb_open(p.c_str(), 0, c.flags, c.mode, nullptr, 0, nullptr), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_TRUE(read_file(p) == before);
    // The arguments were refused before anything was taken: the file opens.
    bdb_handle *h = vt::open_db(p);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_close(h), 0);
}

TEST(Open, MissingFile) {
    vt::TempDir d;
    const std::string p = d.file("missing");
    expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_NOENT, "Shared database check failed");
    expect_open_fails(p, BDB_RDONLY, BDB_PRIVATE, BDB_E_NOENT, "Shared database check failed");
    // Shared mode: the IPC key of a missing path cannot be made, so no
    // segment or semaphore set is created for it.
    expect_open_fails(p, BDB_RDWR, BDB_SHARED, BDB_E_NOENT, "Failed to attach shared memory resource");
    EXPECT_FALSE(exists(p));
}

TEST(Open, FilesThatAreNotDatabases) {
    vt::TempDir d;
    const std::string good = d.file("good");
    ASSERT_EQ(bdb_create(good.c_str(), BDB_PRIVATE, nullptr), 0);
    const std::string page0 = read_file(good);

    const std::string tiny = d.file("tiny");
    write_file(tiny, std::string(100, 'x'));
    const std::string empty = d.file("empty");
    write_file(empty, "");
    const std::string odd = d.file("odd");
    write_file(odd, page0 + std::string(4096, '\0'));
    std::string bad_magic = page0;
    bad_magic[0] ^= 0x01;
    const std::string magic = d.file("magic");
    write_file(magic, bad_magic);
    // Bigger than the most pages a file can hold (sparse).
    const std::string huge = d.file("huge");
    write_file(huge, page0);
    ASSERT_EQ(::truncate(huge.c_str(), static_cast<off_t>(BDB_MAXPAGES + 1) * 8192), 0);

    for (int flags : {BDB_RDWR, BDB_RDONLY}) {
        SCOPED_TRACE(flags);
        expect_open_fails(tiny, flags, BDB_PRIVATE, BDB_E_DBTYPE, "meta size");
        expect_open_fails(empty, flags, BDB_PRIVATE, BDB_E_DBTYPE, "meta size");
        expect_open_fails(odd, flags, BDB_PRIVATE, BDB_E_DBSIZE, "db lseek end");
        expect_open_fails(magic, flags, BDB_PRIVATE, BDB_E_MAGIC, "meta magic corrupt");
        expect_open_fails(huge, flags, BDB_PRIVATE, BDB_E_DBSIZE, "db lseek end");
    }
    // A folder cannot be opened for writing; read-only it is no database.
    expect_open_fails(d.path(), BDB_RDWR, BDB_PRIVATE, BDB_E_OPEN, "open");
    EXPECT_EQ(bdb_open(d.path().c_str(), 0, BDB_RDONLY, BDB_PRIVATE, nullptr, 0, nullptr), nullptr);
    // The good file still opens after all of this.
    bdb_handle *h = vt::open_db(good);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_close(h), 0);
}

// A shared open that fails after it made the database's segment and
// semaphore set removes both again, and changes nothing in the file.
TEST(Open, RefusedSharedOpenLeavesNoIpcBehind) {
    vt::TempDir d;
    const std::string good = d.file("good");
    ASSERT_EQ(bdb_create(good.c_str(), BDB_SHARED, nullptr), 0);
    std::string page0 = read_file(good);
    page0[1] ^= 0x10;
    const std::string magic = d.file("magic"), odd = d.file("odd");
    write_file(magic, page0);
    page0[1] ^= 0x10;
    write_file(odd, page0 + std::string(100, '\0'));
    for (const std::string &p : {magic, odd}) {
        const key_t key = ::ftok(p.c_str(), 66);
        ASSERT_NE(key, -1);
        ASSERT_LT(::shmget(key, 0, 0), 0) << "segment exists before the test";
        if (p == magic)
            expect_open_fails(p, BDB_RDWR, BDB_SHARED, BDB_E_MAGIC, "meta magic corrupt");
        else
            expect_open_fails(p, BDB_RDWR, BDB_SHARED, BDB_E_DBSIZE, "db lseek end");
        EXPECT_LT(::shmget(key, 0, 0), 0) << "segment left behind";
        EXPECT_LT(::semget(key, 0, 0), 0) << "semaphore set left behind";
    }
}

// While a database is in use in shared mode, private opens are refused.
TEST(Open, PrivateRefusedWhileOpenShared) {
    vt::TempDir d;
    const std::string p = d.file("db");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_SHARED, nullptr), 0);
    bdb_handle *s = bdb_open(p.c_str(), 0, BDB_RDWR, BDB_SHARED, nullptr, 0, nullptr);
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(vt::put(s, "k", "v"), 0);
    ASSERT_EQ(bdb_sync(s), 0);
    expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_SHARE, "Private database already opened shared");
    expect_open_fails(p, BDB_RDONLY, BDB_PRIVATE, BDB_E_SHARE, "Private database already opened shared");
    ASSERT_EQ(bdb_close(s), 0);
    bdb_handle *h = vt::open_db(p);
    ASSERT_NE(h, nullptr);
    std::string v;
    EXPECT_TRUE(vt::get(h, "k", &v));
    EXPECT_EQ(bdb_close(h), 0);
}

ssize_t failing_pread(int, void *, size_t, off_t) {
    errno = EIO;
    return -1;
}
ssize_t eof_pread(int, void *, size_t, off_t) { return 0; }
int g_short_reads = 0;
ssize_t short_pread(int fd, void *b, size_t n, off_t o) {
    ++g_short_reads;
    return ::pread(fd, b, n < 1000 ? n : 1000, o);
}

TEST(Open, MetaPageReadFailureAndShortReads) {
    vt::TempDir d;
    SysioGuard guard;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    auto m = fill(h, 50);
    ASSERT_EQ(bdb_close(h), 0);

    varlo::sysio.pread = failing_pread;
    expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_READ, "meta read");
    expect_open_fails(p, BDB_RDONLY, BDB_PRIVATE, BDB_E_READ, "meta read");
    // A file that ends early (cut while being opened) ends the open too.
    varlo::sysio.pread = eof_pread;
    expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_READ, "meta read");

    // Reads that deliver less than asked for are continued.
    varlo::sysio.pread = short_pread;
    g_short_reads = 0;
    h = vt::open_db(p, 0, BDB_RDONLY);
    ASSERT_NE(h, nullptr);
    EXPECT_GE(g_short_reads, 9);
    expect_records(h, m);
    EXPECT_EQ(bdb_close(h), 0);
}

// A page cache too big for the process: the open fails and gives up the
// file lock, so that the next open works.
TEST(Open, CacheThatCannotBeMadeFailsCleanly) {
    vt::TempDir d;
    const std::string p = d.file("db");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, nullptr), 0);
    int rc = in_child([&] {
        long pages = 0;
        if (FILE *f = std::fopen("/proc/self/statm", "r")) {
            if (std::fscanf(f, "%ld", &pages) != 1) pages = 0;
            std::fclose(f);
        }
        if (pages == 0 || pages * ::sysconf(_SC_PAGESIZE) > (1L << 29)) return 77;  // e.g. a sanitizer's shadow
        struct rlimit lim {1L << 30, 1L << 30};
        if (::setrlimit(RLIMIT_AS, &lim) != 0) return 77;
        expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_NOMEM, "Failed to set up page cache", 0xffffe000u);
        bdb_handle *h = vt::open_db(p);
        if (!h) return 2;
        if (bdb_close(h) != 0) return 3;
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    if (rc == 77) GTEST_SKIP() << "cannot limit this process's address space";
    EXPECT_EQ(rc, 0);
}

// No permission to open the file at all: tried as an unprivileged user.
TEST(Open, NoPermissionAndReadOnlyFile) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    ASSERT_EQ(bdb_close(h), 0);
    if (::geteuid() != 0) {
        // Without root the owner is us: take every permission away instead.
        ASSERT_EQ(::chmod(p.c_str(), 0), 0);
        expect_open_fails(p, BDB_RDONLY, BDB_PRIVATE, BDB_E_OPEN, "open");
        ASSERT_EQ(::chmod(p.c_str(), 0444), 0);
        expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_OPEN, "open");
        h = vt::open_db(p, 0, BDB_RDONLY);
        ASSERT_NE(h, nullptr);
        std::string v;
        EXPECT_TRUE(vt::get(h, "k", &v));
        EXPECT_EQ(bdb_close(h), 0);
        return;
    }
    ASSERT_EQ(::chmod(d.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(p.c_str(), 0600), 0);
    const std::string before = read_file(p);
    auto as_nobody = [&](auto body) {
        return in_child([&] {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 90;
            return body();
        });
    };
    // Owner-only file: nobody may not open it at all.
    int rc = as_nobody([&] {
        reports().clear();
        uint32_t err = 0;
        bdb_options o{0, nullptr, vt::recording_handler};
        for (int flags : {BDB_RDONLY, BDB_RDWR}) {
            if (bdb_open(p.c_str(), 0, flags, BDB_PRIVATE, &o, 0, &err)) return 1;
            if (err != BDB_E_OPEN) return 2;
            if (reports().empty() || reports().back().context != "open") return 3;
        }
        return 0;
    });
    if (rc == 90) GTEST_SKIP() << "cannot change to user nobody here";
    EXPECT_EQ(rc, 0);
    // A file nobody may only read: a read-only open works and reads, a
    // read-write open is refused.
    ASSERT_EQ(::chmod(p.c_str(), 0444), 0);
    rc = as_nobody([&] {
        uint32_t err = 0;
        bdb_options o{0, nullptr, vt::recording_handler};
        if (bdb_open(p.c_str(), 0, BDB_RDWR, BDB_PRIVATE, &o, 0, &err)) return 1;
        if (err != BDB_E_OPEN) return 2;
        bdb_handle *r = bdb_open(p.c_str(), 0, BDB_RDONLY, BDB_PRIVATE, &o, 0, &err);
        if (!r) return 3;
        std::string v;
        if (!vt::get(r, "k", &v) || v != "v") return 4;
        if (vt::put(r, "x", "y") != -1 || bdb_error(r) != BDB_E_RDONLY) return 5;
        if (bdb_close(r) != 0) return 6;
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(read_file(p) == before);
}

// ---------------------------------------------------------------------------
// The file lock between processes and within one
// ---------------------------------------------------------------------------

// In a child: tries to open path with flags; 0 = refused as expected,
// 10 = opened (and closed again), other values = something else went wrong.
int child_open(const std::string &path, int flags) {
    return in_child([&] {
        reports().clear();
        uint32_t err = 0;
        bdb_options o{0, nullptr, vt::recording_handler};
        bdb_handle *h = bdb_open(path.c_str(), 0, flags, BDB_PRIVATE, &o, 0, &err);
        if (h) {
            std::string v;
            if (!vt::get(h, "k", &v) || v != "v") return 20;
            return bdb_close(h) == 0 ? 10 : 21;
        }
        if (err != BDB_E_IO) return 30;
        if (reports().size() != 2 || reports()[0].context != "db lock" ||
            reports()[1].context != "Database already opened by another process")
            return 31;
        return 0;
    });
}

TEST(OpenLock, WriterKeepsEveryOtherOpenerOut) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    ASSERT_EQ(bdb_sync(h), 0);
    EXPECT_EQ(child_open(p, BDB_RDWR), 0);
    EXPECT_EQ(child_open(p, BDB_RDONLY), 0);
    // A second open in this process is refused too; its failure closes its
    // own descriptor, which must not give up the first handle's lock.
    const std::string before = read_file(p);
    expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_IO, kLocked);
    expect_open_fails(p, BDB_RDONLY, BDB_PRIVATE, BDB_E_IO, kLocked);
    EXPECT_EQ(child_open(p, BDB_RDWR), 0);
    std::string v;
    EXPECT_TRUE(vt::get(h, "k", &v));
    ASSERT_EQ(bdb_close(h), 0);
    EXPECT_EQ(child_open(p, BDB_RDWR), 10);
    EXPECT_EQ(child_open(p, BDB_RDONLY), 10);
}

TEST(OpenLock, ReadersShareAndKeepWritersOut) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    ASSERT_EQ(bdb_close(h), 0);

    bdb_handle *r1 = vt::open_db(p, 0, BDB_RDONLY);
    ASSERT_NE(r1, nullptr);
    bdb_handle *r2 = vt::open_db(p, 0, BDB_RDONLY);
    ASSERT_NE(r2, nullptr);
    EXPECT_EQ(child_open(p, BDB_RDONLY), 10);
    EXPECT_EQ(child_open(p, BDB_RDWR), 0);
    expect_open_fails(p, BDB_RDWR, BDB_PRIVATE, BDB_E_IO, kLocked);
    ASSERT_EQ(bdb_close(r1), 0);
    EXPECT_EQ(child_open(p, BDB_RDWR), 0);  // r2 still reads
    ASSERT_EQ(bdb_close(r2), 0);
    EXPECT_EQ(child_open(p, BDB_RDWR), 10);
}

// ---------------------------------------------------------------------------
// Read-only handles
// ---------------------------------------------------------------------------

TEST(ReadOnly, RefusesEveryChangeAndWritesNothing) {
    vt::TempDir d;
    SysioGuard guard;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    auto m = fill(h, 120);
    ASSERT_EQ(bdb_close(h), 0);
    const std::string before = read_file(p);

    reports().clear();
    h = vt::open_db(p, 0, BDB_RDONLY, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(bdb_get_dbname(h) == p);
    count_writes();
    const std::string k = m.begin()->first, absent = "absent";
    for (const std::string &key : {k, absent}) {
        const std::string nv = "new";
        bdb_datum kd = vt::datum(key), vd = vt::datum(nv);
        bdb_datum out{};
        bdb_seterror(h, 0);
        EXPECT_EQ(bdb_put(h, &kd, &vd), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
        bdb_seterror(h, 0);
        EXPECT_EQ(bdb_replace(h, &kd, &vd), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
        bdb_seterror(h, 0);
        EXPECT_EQ(bdb_update(h, &kd, &vd), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
        bdb_seterror(h, 0);
        EXPECT_EQ(bdb_delete(h, &kd), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
        bdb_seterror(h, 0);
        EXPECT_EQ(bdb_remove(h, &kd, &out), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
        EXPECT_EQ(out.ptr, nullptr);
    }
    bdb_seterror(h, 0);
    EXPECT_EQ(bdb_sync(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
    bdb_seterror(h, 0);
    EXPECT_EQ(bdb_do_sync(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
    EXPECT_TRUE(reports().empty()) << reports().front().context;
    EXPECT_EQ(h->stats->puts + h->stats->replaces + h->stats->updates + h->stats->deletes + h->stats->removes, 0u);
    // Reading works and leaves everything as it was.
    expect_records(h, m);
    EXPECT_EQ(bdb_check(h), 0);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(g_writes, 0);
    varlo::sysio_reset();
    EXPECT_TRUE(read_file(p) == before);
}

// ---------------------------------------------------------------------------
// Names, destroy, the exit hook, null handles
// ---------------------------------------------------------------------------

TEST(Handle, NameIsThePathAsGiven) {
    vt::TempDir d;
    char cwd[4096];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(::chdir(d.path().c_str()), 0);
    ASSERT_EQ(bdb_create("rel.db", BDB_PRIVATE, nullptr), 0);
    for (std::string given : {std::string("rel.db"), std::string("./rel.db"), d.file("rel.db"),
                              d.path() + "//./rel.db"}) {
        bdb_handle *h = bdb_open(given.c_str(), 0, BDB_RDWR, BDB_PRIVATE, nullptr, 0, nullptr);
        ASSERT_NE(h, nullptr) << given;
        const std::string copy = given;
        given.assign(given.size(), 'z');  // the handle keeps its own copy
        EXPECT_EQ(std::string(bdb_get_dbname(h)), copy);
        EXPECT_EQ(bdb_close(h), 0);
    }
    ASSERT_EQ(::chdir(cwd), 0);
    errno = 0;
    EXPECT_EQ(bdb_get_dbname(nullptr), reinterpret_cast<const char *>(static_cast<intptr_t>(-1)));
    EXPECT_EQ(errno, EINVAL);
}

TEST(Handle, DestroyRemovesTheFile) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    fill(h, 40);
    EXPECT_EQ(bdb_destroy(h), 0);
    EXPECT_FALSE(exists(p));
    // The path can carry a new database, which starts empty.
    h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(vt::walk(h).empty());
    EXPECT_EQ(bdb_destroy(h), 0);
    EXPECT_FALSE(exists(p));
    errno = 0;
    EXPECT_EQ(bdb_destroy(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(Handle, DestroyRefusedForASharedDatabase) {
    vt::TempDir d;
    const std::string p = d.file("db");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_SHARED, nullptr), 0);
    bdb_handle *h = bdb_open(p.c_str(), 0, BDB_RDWR, BDB_SHARED, nullptr, 0, nullptr);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    EXPECT_EQ(bdb_destroy(h), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_SHARE);
    std::string v;
    EXPECT_TRUE(vt::get(h, "k", &v));  // still usable
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(exists(p));
}

TEST(Handle, NullHandlesAndTheExitHook) {
    vt::TempDir d;
    bdb_handle *h = vt::create_open(d.file("db"));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_sigexit(h), 0);
    EXPECT_EQ(bdb_error(h), 0u);
    EXPECT_EQ(bdb_close(h), 0);
    errno = 0;
    EXPECT_EQ(bdb_sigexit(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(bdb_close(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

// ---------------------------------------------------------------------------
// A database in the other byte order
// ---------------------------------------------------------------------------

std::set<uint32_t> *g_tree_pages = nullptr;
int note_page(bdb_handle *, bdb_page *page, int32_t, int32_t) {
    g_tree_pages->insert(page->pgno);
    return 0;
}

// The tree pages of a database (read through a read-only handle).
std::set<uint32_t> tree_pages(const std::string &path) {
    std::set<uint32_t> pages;
    bdb_handle *h = vt::open_db(path, 0, BDB_RDONLY);
    EXPECT_NE(h, nullptr);
    if (!h) return pages;
    g_tree_pages = &pages;
    EXPECT_EQ(bdb_parse_tree(h, h->meta->root, note_page, 0, 0), 0);
    g_tree_pages = nullptr;
    bdb_close(h);
    return pages;
}

// Converts a file to the other byte order as the file format defines it:
// every word of the meta page, the header and slots of every tree page; the
// data pages of long values are bytes and stay as they are. to_other: from
// this machine's order to the other one, else back.
void convert(const std::string &path, bool to_other) {
    const std::set<uint32_t> pages = tree_pages(path);
    ASSERT_FALSE(pages.empty());
    std::string f = read_file(path);
    ASSERT_EQ(f.size() % 8192, 0u);
    bdb_swap(f.data(), 8192);
    for (uint32_t pg : pages) {
        ASSERT_LT(static_cast<size_t>(pg) * 8192, f.size());
        bdb_pgswap(f.data() + static_cast<size_t>(pg) * 8192, to_other ? 1 : 0);
    }
    write_file(path, f);
}

TEST(ByteOrder, OtherOrderFileReadsWritesAndStaysInItsOrder) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p);
    ASSERT_NE(h, nullptr);
    auto m = fill(h, 600);
    ASSERT_EQ(bdb_close(h), 0);
    const std::set<uint32_t> native_pages = tree_pages(p);
    ASSERT_GT(native_pages.size(), 3u);  // several levels

    convert(p, true);
    ASSERT_EQ(word(read_file(p), 0), BDB_MAGIC_SWAPPED);

    h = vt::open_db(p, 0, BDB_RDONLY);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_SWAPPED);
    EXPECT_EQ(h->meta->magic, BDB_MAGIC);
    EXPECT_EQ(h->meta->mode, static_cast<uint32_t>(BDB_PRIVATE));
    expect_records(h, m);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    ASSERT_EQ(bdb_close(h), 0);
    ASSERT_EQ(word(read_file(p), 0), BDB_MAGIC_SWAPPED);

    // Changes: new records (short and long), replacements, deletions; a
    // small cache so that pages are written and read back while open.
    h = vt::open_db(p, 32768);
    ASSERT_NE(h, nullptr);
    ASSERT_TRUE(h->flags & BDB_F_SWAPPED);
    int i = 0;
    for (auto it = m.begin(); it != m.end(); ++i) {
        if (i % 3 == 0) {
            ASSERT_EQ(vt::del(h, it->first), 0);
            it = m.erase(it);
            continue;
        }
        if (i % 5 == 0) {
            std::string v(static_cast<size_t>(i % 2 ? 3000 + i : i), 'R');
            ASSERT_EQ(vt::replace(h, it->first, v), 0);
            it->second = v;
        }
        ++it;
    }
    for (int j = 0; j < 200; ++j) {
        std::string k = "new-" + std::to_string(j), v(static_cast<size_t>(j % 17 == 0 ? 5000 : j), 'N');
        ASSERT_EQ(vt::put(h, k, v), 0);
        m[k] = v;
    }
    expect_records(h, m);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    ASSERT_EQ(bdb_close(h), 0);

    // Still in the other order, and it reopens with everything.
    ASSERT_EQ(word(read_file(p), 0), BDB_MAGIC_SWAPPED);
    h = vt::open_db(p);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(h->flags & BDB_F_SWAPPED);
    expect_records(h, m);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    ASSERT_EQ(bdb_close(h), 0);

    // Converted back, the file is a correct database of this machine: every
    // page the library wrote was in the other order.
    convert(p, false);
    ASSERT_EQ(word(read_file(p), 0), BDB_MAGIC);
    h = vt::open_db(p);
    ASSERT_NE(h, nullptr);
    EXPECT_FALSE(h->flags & BDB_F_SWAPPED);
    expect_records(h, m);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    ASSERT_EQ(bdb_close(h), 0);
}

}  // namespace
