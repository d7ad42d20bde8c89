// Database files: refused opens (with their code and context, the file left as
// it was), creating, the file lock between processes, read-only handles, sync,
// and files in the other byte order.
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>

#include "test_util.h"

namespace {

using Records = std::vector<std::pair<std::string, std::string>>;

std::string read_file(const std::string &p) { std::ifstream in(p, std::ios::binary); return {std::istreambuf_iterator<char>(in), {}}; }
void write_file(const std::string &p, const std::string &bytes) { std::ofstream(p, std::ios::binary) << bytes; }
uint32_t word(const std::string &f, size_t i) { uint32_t w = 0; return f.size() < i * 4 + 4 ? 0 : (std::memcpy(&w, &f[i * 4], 4), w); }
// Modification time and bytes: what a refused call must leave alone.
std::string snapshot(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) ? "missing"
                                  : std::to_string(st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec) +
                                        (S_ISREG(st.st_mode) ? read_file(p) : "");
}

// The code a call left in the handle when it failed (-1); 0 when it did not fail.
uint32_t failure(bdb_handle *h, int rc) { return rc == -1 ? bdb_error(h) : 0; }

// Another process opens the database: 10 = it opened (and closed), 0 = it was
// refused because the database is in use, other values = something else.
int other_opens(const std::string &p, int flags) {
    return vt::wait_child(vt::spawn([&] {
        uint32_t err = 0;
        bdb_handle *h = bdb_open(p.c_str(), 0, flags, BDB_PRIVATE, nullptr, 0, &err);
        return h ? (bdb_close(h) == 0 ? 10 : 11) : (err == BDB_E_IO ? 0 : 12);
    }, 20));
}

// A new database of n records, short and long values (long ones live on data
// pages) over several tree levels.
std::map<std::string, std::string> filled(const std::string &p, int n) {
    std::map<std::string, std::string> m;
    bdb_handle *h = vt::create_open(p);
    for (int i = 0; h && i < n; ++i) {
        const std::string k = "key" + std::to_string(i * 7919 % 100003);
        m[k] = std::string(static_cast<size_t>(i % 13 ? i % 300 : 2048 + i), static_cast<char>('a' + i % 26));
        EXPECT_EQ(vt::put(h, k, m[k]), 0);
    }
    EXPECT_EQ(bdb_close(h), 0);
    return m;
}
bool holds(bdb_handle *h, const std::map<std::string, std::string> &m) { return vt::walk(h) == Records(m.begin(), m.end()); }

TEST(Open, RefusalsReportTheirCodeOnceAndLeaveTheFileAlone) {
    vt::TempDir d;
    const std::string good = d.file("good");
    ASSERT_EQ(bdb_create(good.c_str(), BDB_PRIVATE, nullptr), 0);
    const std::string page0 = read_file(good);
    for (auto [name, bytes] : {std::pair{"small", std::string(100, 'x')}, {"odd", page0 + std::string(4096, '\0')},
                               {"magic", "XXXX" + page0.substr(4)}, {"secret", page0}})
        write_file(d.file(name), bytes);
    ASSERT_EQ(::mkfifo(d.file("fifo").c_str(), 0644), 0);
    ASSERT_EQ(::chmod(d.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(d.file("secret").c_str(), 0), 0);
    struct Case { std::string path; int flags, mode; uint32_t code; std::string context; };
    const int W = BDB_RDWR, R = BDB_RDONLY, P = BDB_PRIVATE;
    const Case cases[] = {{good, 0, P, BDB_E_PARAM, "Bad flags parameter"}, {good, 3, P, BDB_E_PARAM, "Bad flags parameter"},
                          {good, W, 0, BDB_E_PARAM, "Bad mode parameter"}, {good, R, 3, BDB_E_PARAM, "Bad mode parameter"},
                          {d.file("none"), W, P, BDB_E_NOENT, "Shared database check failed"},
                          {d.file("small"), W, P, BDB_E_DBTYPE, "meta size"},
                          {d.file("odd"), R, P, BDB_E_DBSIZE, "db lseek end"},
                          {d.file("magic"), W, P, BDB_E_MAGIC, "meta magic corrupt"},
                          {d.file("fifo"), R, P, BDB_E_DBTYPE, "not a regular file"},  // not waited on
                          {d.file("secret"), R, P, BDB_E_OPEN, "open"}};  // last: it may skip
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path + ": " + c.context);
        const std::string before = snapshot(c.path);
        auto attempt = [&] {
            vt::reports().clear();
            uint32_t err = 0;
            bdb_options o{0, nullptr, vt::recording_handler};
            EXPECT_EQ(bdb_open(c.path.c_str(), 0, c.flags, c.mode, &o, 0, &err), nullptr);
            EXPECT_EQ(err, c.code) << bdbstrerr(err);
            EXPECT_EQ(vt::reports().size(), 1u);
            const vt::Report r = vt::reports().empty() ? vt::Report{} : vt::reports()[0];
            EXPECT_EQ(r.context + "/" + bdbstrerr(r.code), c.context + "/" + bdbstrerr(c.code));
            EXPECT_EQ(r.h == nullptr, c.code == BDB_E_PARAM);  // arguments are checked before there is a handle
            return ::testing::Test::HasFailure() ? 1 : 0;
        };
        auto as_nobody = [&] { return ::setgid(65534) || ::setuid(65534) ? 90 : attempt(); };
        // Root may open anything: the permission case runs in a child as nobody.
        const int rc = c.code == BDB_E_OPEN && ::geteuid() == 0 ? vt::wait_child(vt::spawn(as_nobody, 20)) : attempt();
        if (rc == 90) GTEST_SKIP() << "cannot become user nobody to be refused permission";
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(snapshot(c.path) == before) << "a refused open changed the file";
    }
}

TEST(Create, FreshLayoutAndRefusals) {
    vt::TempDir d;
    uint32_t err = 1;
    for (int mode : {BDB_SHARED, BDB_PRIVATE}) {
        const std::string p = d.file("db" + std::to_string(mode));
        ASSERT_EQ(bdb_create(p.c_str(), mode, &err), 0);
        const std::string f = read_file(p), before = snapshot(p);
        ASSERT_EQ(f.size(), 8192u);
        EXPECT_EQ(word(f, 0), BDB_MAGIC);
        EXPECT_EQ(word(f, 2), static_cast<uint32_t>(mode));
        EXPECT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, &err) == -1 ? err : 0u, BDB_E_EXISTS);
        EXPECT_TRUE(snapshot(p) == before);
    }
    for (int mode : {0, 3}) EXPECT_EQ(bdb_create(d.file("bad").c_str(), mode, &err) == -1 ? err : 0u, BDB_E_PARAM);
    EXPECT_EQ(snapshot(d.file("bad")), "missing");
}

TEST(FileLock, PrivateHandleKeepsOtherProcessesOutUntilReleased) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p, 0, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(other_opens(p, BDB_RDWR), 0);
    // A second open in this process is refused; closing its descriptor must not drop the lock.
    EXPECT_EQ(vt::open_db(p, 0, BDB_RDONLY, vt::recording_handler), nullptr);
    EXPECT_EQ(other_opens(p, BDB_RDONLY), 0);
    EXPECT_EQ(failure(h, bdb_lock(h, BDB_LOCK, 3)), BDB_E_IO);
    EXPECT_EQ(vt::last_context(), "db lock");
    EXPECT_EQ(bdb_lock(h, BDB_UNLOCK, 3), 0);
    EXPECT_EQ(other_opens(p, BDB_RDWR), 10);
    EXPECT_EQ(failure(h, bdb_lock(h, BDB_UNLOCK, 3)), BDB_E_IO);
    EXPECT_EQ(bdb_lock(h, BDB_LOCK, 0), 0);
    EXPECT_EQ(other_opens(p, BDB_RDWR), 0);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(other_opens(p, BDB_RDWR), 10);
}

TEST(ReadOnly, ReadsA0444FileKeepsWritersOutAndRefusesEveryChange) {
    vt::TempDir d;
    const std::string p = d.file("db"), given = d.path() + "//./db";
    const auto m = filled(p, 100);
    ASSERT_EQ(::truncate(p.c_str(), static_cast<off_t>(read_file(p).size()) + 3 * 8192), 0);  // a sync would cut
    ASSERT_EQ(::chmod(p.c_str(), 0444), 0);
    const std::string before = snapshot(p);
    vt::reports().clear();
    bdb_handle *h = vt::open_db(given, 0, BDB_RDONLY, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(std::string(bdb_get_dbname(h)), given);
    EXPECT_EQ(other_opens(p, BDB_RDONLY), 10);
    ASSERT_EQ(::chmod(p.c_str(), 0644), 0);  // writers are kept out by the lock, not by the mode
    EXPECT_EQ(other_opens(p, BDB_RDWR), 0);
    const std::string k = m.begin()->first, absent = "absent", v = "v";
    bdb_datum kd = vt::datum(k), ad = vt::datum(absent), vd = vt::datum(v), out{};
    const std::function<int()> changes[] = {
        [&] { return bdb_put(h, &ad, &vd); },    [&] { return bdb_replace(h, &kd, &vd); },
        [&] { return bdb_update(h, &kd, &vd); }, [&] { return bdb_delete(h, &kd); },
        [&] { return bdb_remove(h, &kd, &out); }, [&] { return bdb_sync(h); }};
    for (const auto &change : changes) {
        bdb_seterror(h, 0);
        EXPECT_EQ(failure(h, change()), BDB_E_RDONLY);
    }
    EXPECT_TRUE(vt::reports().empty()) << vt::last_context();
    const bdb_stats *s = h->stats;
    EXPECT_EQ(s->puts + s->replaces + s->updates + s->deletes + s->removes, 0u);  // refusals count nothing
    EXPECT_TRUE(holds(h, m));
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(snapshot(p) == before);
}

// Pages the file needs by the allocation map, counted bit by bit.
uint64_t needed_bytes(const bdb_handle *h) {
    uint64_t top = 0;
    for (uint32_t pg = 0; pg < BDB_MAXPAGES; ++pg) top = (h->meta->pgmap[pg / 32] >> (pg % 32) & 1u) ? pg + 1 : top;
    return top * 8192;
}

TEST(Sync, CutsTheFileToItsHighestPageAndSurvivesFailures) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p, 0, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(bdb_sync(h), 0);
    EXPECT_EQ(read_file(p).size(), 8192u);
    for (int i = 100; i < 160; ++i) ASSERT_EQ(vt::put(h, std::to_string(i), std::string(10000, static_cast<char>(i))), 0);
    ASSERT_EQ(bdb_sync(h), 0);
    const size_t full = read_file(p).size();
    EXPECT_EQ(full, needed_bytes(h));
    Records want = vt::walk(h);
    want.resize(40);
    for (int i = 140; i < 160; ++i) ASSERT_EQ(vt::del(h, std::to_string(i)), 0);  // the last keys own the last pages
    // A failed fsync or truncate is reported, the handle stays usable and the next sync does the work.
    varlo::sysio.fsync = [](int) -> int { return errno = EIO, -1; };
    EXPECT_EQ(failure(h, bdb_sync(h)), BDB_E_IO);
    EXPECT_EQ(vt::last_context(), "meta log fsync");
    varlo::sysio_reset();
    varlo::sysio.ftruncate = [](int, off_t) -> int { return errno = EPERM, -1; };
    EXPECT_EQ(bdb_sync(h), -1);
    EXPECT_EQ(vt::last_context(), "db sync truncate");
    varlo::sysio_reset();
    ASSERT_EQ(bdb_sync(h), 0);
    EXPECT_EQ(read_file(p).size(), needed_bytes(h));
    EXPECT_LT(read_file(p).size(), full);
    ASSERT_EQ(bdb_close(h), 0);
    ASSERT_NE(h = vt::open_db(p), nullptr);
    EXPECT_TRUE(vt::walk(h) == want);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(bdb_close(h), 0);
}

// Converts a file to the other byte order (dir 1) or back (dir 0): every word
// of the meta page, header and slots of the tree pages; long values are bytes.
std::set<uint32_t> g_pages;
void convert(const std::string &p, int dir) {
    bdb_handle *h = vt::open_db(p, 0, BDB_RDONLY);
    ASSERT_NE(h, nullptr);
    g_pages.clear();
    auto note = [](bdb_handle *, bdb_page *pg, int32_t, int32_t) { return g_pages.insert(pg->pgno), 0; };
    ASSERT_EQ(bdb_parse_tree(h, h->meta->root, note, 0, 0), 0);
    ASSERT_EQ(bdb_close(h), 0);
    std::string f = read_file(p);
    bdb_swap(f.data(), 8192);
    for (uint32_t pg : g_pages) bdb_pgswap(f.data() + static_cast<size_t>(pg) * 8192, dir);
    write_file(p, f);
}

TEST(ByteOrder, OtherOrderFileReadsWritesAndStaysInItsOrder) {
    vt::TempDir d;
    const std::string p = d.file("db");
    auto m = filled(p, 600);
    convert(p, 1);
    ASSERT_GT(g_pages.size(), 3u);
    bdb_handle *h = nullptr;
    ASSERT_NE(h = vt::open_db(p, 32768), nullptr);  // a small cache: pages are written and read back while open
    EXPECT_TRUE(h->flags & BDB_F_SWAPPED);
    for (auto &[k, v] : m) {
        const size_t op = v.size() % 3;  // 0: delete, 1: replace by a long value, 2: keep
        ASSERT_EQ(op == 0 ? vt::del(h, k) : op == 1 ? vt::replace(h, k, v = std::string(3001, 'R')) : 0, 0);
    }
    std::erase_if(m, [](const auto &r) { return r.second.size() % 3 == 0; });
    for (int i = 0; i < 200; ++i) {
        const std::string k = "new" + std::to_string(i);
        ASSERT_EQ(vt::put(h, k, m[k] = std::string(static_cast<size_t>(i % 17 ? i : 5000), 'N')), 0);
    }
    EXPECT_TRUE(holds(h, m));
    ASSERT_EQ(bdb_close(h), 0);
    ASSERT_EQ(word(read_file(p), 0), BDB_MAGIC_SWAPPED);
    convert(p, 0);  // every page written went out in the other order
    ASSERT_NE(h = vt::open_db(p), nullptr);
    EXPECT_FALSE(h->flags & BDB_F_SWAPPED);
    EXPECT_TRUE(holds(h, m));
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
