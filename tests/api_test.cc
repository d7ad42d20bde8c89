// The calls as a caller sees them: refused opens and creates (their code,
// one report, the file left alone), the file lock between processes,
// read-only handles, the record calls' outcomes, counters and bad
// arguments, and the reporting calls.
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>

#include "test_util.h"

namespace {

using Records = std::vector<std::pair<std::string, std::string>>;

std::string read_file(const std::string &p) { std::ifstream in(p, std::ios::binary); return {std::istreambuf_iterator<char>(in), {}}; }
// Modification time and bytes: what a refused call must leave alone.
std::string snapshot(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) ? "missing"
                                  : std::to_string(st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec) + (S_ISREG(st.st_mode) ? read_file(p) : "");
}
// The code a call left in the handle when it failed (-1); 0 when it did not fail.
uint32_t failure(bdb_handle *h, int rc) { return rc == -1 ? bdb_error(h) : 0; }
// Another process opens the database: 10 = it opened (and closed), 0 = refused as in use.
int other_opens(const std::string &p, int flags) {
    return vt::wait_child(vt::spawn([&] {
        uint32_t err = 0;
        bdb_handle *h = bdb_open(p.c_str(), 0, flags, BDB_PRIVATE, nullptr, 0, &err);
        return h ? (bdb_close(h) == 0 ? 10 : 11) : (err == BDB_E_IO ? 0 : 12);
    }, 20));
}

TEST(Open, RefusalsReportTheirCodeOnceAndLeaveTheFileAlone) {
    vt::TempDir d;
    const std::string good = d.file("good");
    uint32_t err = 1;
    ASSERT_EQ(bdb_create(good.c_str(), BDB_SHARED, &err), 0);
    const std::string page0 = read_file(good);
    uint32_t w[3];
    std::memcpy(w, page0.data(), sizeof w);
    EXPECT_EQ(std::tuple(page0.size(), w[0], w[2]), std::tuple(size_t{8192}, BDB_MAGIC, uint32_t{BDB_SHARED}));
    for (auto [name, bytes] : {std::pair{"small", std::string(100, 'x')}, {"odd", page0 + std::string(4096, '\0')},
                               {"magic", "XXXX" + page0.substr(4)}})
        std::ofstream(d.file(name), std::ios::binary) << bytes;
    ASSERT_EQ(::mkfifo(d.file("fifo").c_str(), 0644), 0);
    struct Case { std::string path; int flags, mode; uint32_t code; std::string context; };
    const int W = BDB_RDWR, R = BDB_RDONLY, P = BDB_PRIVATE;
    const Case cases[] = {{good, 0, P, BDB_E_PARAM, "Bad flags parameter"}, {good, 3, P, BDB_E_PARAM, "Bad flags parameter"},
                          {good, W, 0, BDB_E_PARAM, "Bad mode parameter"}, {good, R, 3, BDB_E_PARAM, "Bad mode parameter"},
                          {d.file("none"), W, P, BDB_E_NOENT, "Shared database check failed"},
                          {d.file("small"), W, P, BDB_E_DBTYPE, "meta size"},
                          {d.file("odd"), R, P, BDB_E_DBSIZE, "db lseek end"},
                          {d.file("magic"), W, P, BDB_E_MAGIC, "meta magic corrupt"},
                          {d.file("fifo"), R, P, BDB_E_DBTYPE, "not a regular file"}};  // not waited on
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path + ": " + c.context);
        const std::string before = snapshot(c.path);
        vt::reports().clear();
        bdb_options o{0, nullptr, vt::recording_handler};
        EXPECT_EQ(bdb_open(c.path.c_str(), 0, c.flags, c.mode, &o, 0, &err), nullptr);
        EXPECT_EQ(err, c.code) << bdbstrerr(err);
        ASSERT_EQ(vt::reports().size(), 1u);
        const vt::Report r = vt::reports()[0];
        EXPECT_EQ(r.context + "/" + bdbstrerr(r.code), c.context + "/" + bdbstrerr(c.code));
        EXPECT_EQ(r.h == nullptr, c.code == BDB_E_PARAM);  // arguments are checked before there is a handle
        EXPECT_TRUE(snapshot(c.path) == before) << "a refused open changed the file";
    }
    const std::string before = snapshot(good);
    for (int mode : {BDB_PRIVATE, 0, 3})
        EXPECT_EQ(bdb_create((mode == BDB_PRIVATE ? good : d.file("bad")).c_str(), mode, &err) == -1 ? err : 0u,
                  mode == BDB_PRIVATE ? BDB_E_EXISTS : BDB_E_PARAM);
    EXPECT_TRUE(snapshot(good) == before && snapshot(d.file("bad")) == "missing");
}

TEST(Open, FileLockAndReadOnlyHandles) {
    vt::TempDir d;
    const std::string p = d.file("db");
    bdb_handle *h = vt::create_open(p, 0, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(vt::put(h, "k" + std::to_string(i), std::string(i * 50, 'v')), 0);
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
    const Records all = vt::walk(h);
    EXPECT_EQ(bdb_close(h), 0);
    // Read-only: a 0444 file with more pages than it needs (a sync would cut
    // it) is read, shared with other readers, kept from writers, never changed.
    ASSERT_EQ(::truncate(p.c_str(), static_cast<off_t>(read_file(p).size()) + 3 * 8192) + ::chmod(p.c_str(), 0444), 0);
    const std::string before = snapshot(p), given = d.path() + "//./db";
    vt::reports().clear();
    ASSERT_NE(h = vt::open_db(given, 0, BDB_RDONLY, vt::recording_handler), nullptr);
    EXPECT_EQ(std::string(bdb_get_dbname(h)), given);
    EXPECT_EQ(other_opens(p, BDB_RDONLY), 10);
    ASSERT_EQ(::chmod(p.c_str(), 0644), 0);  // writers are kept out by the lock, not by the mode
    EXPECT_EQ(other_opens(p, BDB_RDWR), 0);
    std::string k = "k1", v = "v";
    bdb_datum kd = vt::datum(k), vd = vt::datum(v), out{};
    for (const auto &change : std::initializer_list<std::function<int()>>{
             [&] { return bdb_put(h, &vd, &vd); }, [&] { return bdb_replace(h, &kd, &vd); },
             [&] { return bdb_update(h, &kd, &vd); }, [&] { return bdb_delete(h, &kd); },
             [&] { return bdb_remove(h, &kd, &out); }, [&] { return bdb_sync(h); }, [&] { return bdb_do_sync(h); }})
        EXPECT_EQ(failure(h, (bdb_seterror(h, 0), change())), BDB_E_RDONLY);
    EXPECT_TRUE(vt::reports().empty()) << vt::last_context();
    const bdb_stats *s = h->stats;
    EXPECT_EQ(s->puts + s->replaces + s->updates + s->deletes + s->removes, 0u);  // refusals count nothing
    EXPECT_TRUE(vt::walk(h) == all);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_TRUE(snapshot(p) == before);
}

// A call that must fail with code left in the handle.
::testing::AssertionResult Fails(bdb_handle *h, int rc, uint32_t code) {
    if (rc == -1 && bdb_error(h) == code) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << rc << ", " << bdbstrerr(bdb_error(h)) << "; wanted " << bdbstrerr(code);
}

TEST(RecordCalls, OutcomesCodesCountersAndBadArguments) {
    vt::TempDir dir;
    bdb_handle *h = vt::create_open(dir.file("db"));
    ASSERT_NE(h, nullptr);
    char kb[1024];
    bdb_datum k{kb, 0}, d{};
    EXPECT_TRUE(Fails(h, bdb_first(h, &k, &d), BDB_E_EMPTY));
    bdb_seterror(h, 0);
    ASSERT_EQ(vt::replace(h, "b", "1"), 0);
    EXPECT_EQ(bdb_error(h), BDB_E_INSERTED);
    bdb_seterror(h, BDB_E_EOF);
    ASSERT_EQ(vt::replace(h, "b", "2"), 0);
    EXPECT_EQ(bdb_error(h), BDB_E_EOF);  // replacing a present key leaves the code alone
    EXPECT_TRUE(Fails(h, vt::update(h, "a", "x"), BDB_E_NOTFOUND));
    ASSERT_EQ(vt::put(h, "d", "4"), 0);
    std::string v;
    EXPECT_TRUE(!vt::get(h, "a", &v) && vt::get(h, "b", &v) && v == "2");  // the update inserted nothing
    ASSERT_EQ(bdb_first(h, &k, &d), 0);
    std::free(d.ptr);
    // bdb_next from a key: the following record, past the last one, from a key that is not there.
    for (auto [from, code] : {std::pair{'b', 0u}, {'d', BDB_E_EOF}, {'c', BDB_E_NOTFOUND}, {'a', BDB_E_NOTFOUND}, {'b', 0u}}) {
        kb[0] = from, k = bdb_datum{kb, 1}, d = bdb_datum{};
        const std::string got = bdb_next(h, &k, &d) == 0 ? std::string(kb, k.len) + "=" + static_cast<char *>(d.ptr)
                                                         : bdbstrerr(bdb_error(h));
        EXPECT_EQ(got, code ? bdbstrerr(code) : "d=4") << "next from " << from;
        std::free(d.ptr);
    }
    // Every call counts whatever its outcome. Reads: 2 firsts, 2 gets, 5 nexts.
    const bdb_stats *s = h->stats;
    EXPECT_EQ(std::vector<uint32_t>({s->puts, s->replaces, s->updates, s->reads, s->deletes, s->removes}),
              std::vector<uint32_t>({1, 2, 1, 9, 0, 0}));
    // Bad descriptors. Code 0: refused with BDB_E_PARAM before the call
    // counts, since the engine would store from or write through a null
    // pointer. Else searched and counted: a null key pointer matches no key.
    char xb[] = "x", mb[] = "m";
    bdb_datum key{kb, 1}, missing{mb, 1}, nullkey{nullptr, 3}, data{xb, 1}, nulldata{nullptr, 5};
    const std::pair<std::function<int()>, uint32_t> calls[] = {
        {[&] { return bdb_put(h, nullptr, &data); }, 0},     {[&] { return bdb_put(h, &key, nullptr); }, 0},
        {[&] { return bdb_put(h, &nullkey, &data); }, 0},    {[&] { return bdb_put(h, &key, &nulldata); }, 0},
        {[&] { return bdb_replace(h, nullptr, &data); }, 0}, {[&] { return bdb_update(h, &key, nullptr); }, 0},
        {[&] { return bdb_remove(h, &nullkey, &data); }, 0}, {[&] { return bdb_delete(h, nullptr); }, 0},
        {[&] { return bdb_remove(h, &key, nullptr); }, 0},   {[&] { return bdb_first(h, nullptr, &data); }, 0},
        {[&] { return bdb_next(h, &key, nullptr); }, 0},
        {[&] { return bdb_get(h, &nullkey, &data); }, BDB_E_NOTFOUND},
        {[&] { return bdb_delete(h, &nullkey); }, BDB_E_NOTFOUND},
        {[&] { return bdb_next(h, &nullkey, &data); }, BDB_E_NOTFOUND},
        {[&] { return bdb_get(h, &missing, nullptr); }, BDB_E_NOTFOUND},
        {[&] { return bdb_get(h, &key, nullptr); }, BDB_E_PARAM}};  // found, but nowhere to put the value
    auto counted = [s] { return s->puts + s->replaces + s->updates + s->reads + s->deletes + s->removes; };
    for (size_t i = 0; i < std::size(calls); ++i) {
        bdb_seterror(h, 0);
        const uint32_t before = counted();
        EXPECT_TRUE(Fails(h, calls[i].first(), calls[i].second ? calls[i].second : BDB_E_PARAM)) << "call " << i;
        EXPECT_EQ(counted(), before + (calls[i].second != 0)) << "call " << i;
    }
    EXPECT_EQ(vt::walk(h), (Records{{"b", "2"}, {"d", "4"}}));
    for (int op : {1, 2, 3}) EXPECT_EQ(bdb_transaction(h, op), 0);
    for (int op : {0, 4}) EXPECT_TRUE(Fails(h, bdb_transaction(h, op), BDB_E_PARAM));
    // A mutex slot that fails: the call gives its result and reports it.
    h->errhandler = vt::recording_handler;
    h->wait = [](bdb_handle *, int) { return -5; };
    EXPECT_TRUE(vt::put(h, "x", "y") == -5 && vt::last_context() == "Failed to lock mutex" && !vt::get(h, "b", nullptr));
    h->wait = nullptr;
    EXPECT_EQ(bdb_close(h), 0);
    // Calls on no handle fail with EINVAL.
    bdb_datum *no = nullptr;
    for (const auto &call : std::initializer_list<std::function<int()>>{
             [] { return bdb_close(nullptr); }, [] { return bdb_destroy(nullptr); }, [] { return bdb_sync(nullptr); },
             [] { return bdb_do_sync(nullptr); }, [] { return bdb_lock(nullptr, BDB_LOCK, 3); }, [] { return bdb_check(nullptr); },
             [&] { return bdb_get(nullptr, no, no); }, [&] { return bdb_put(nullptr, no, no); }, [&] { return bdb_delete(nullptr, no); },
             [&] { return bdb_first(nullptr, no, no); }, [] { return bdb_transaction(nullptr, 1); },
             [] { return bdb_bulk_load(nullptr, nullptr, nullptr); }, [] { return bdb_parse_tree(nullptr, 1, nullptr, 0, 0); }})
        EXPECT_TRUE((errno = 0, call()) == -1 && errno == EINVAL);
}

TEST(RecordCalls, TheReportingCalls) {
    vt::TempDir d;
    const std::string p = d.file("db");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, nullptr), 0);
    bdb_handle *h = bdb_open(p.c_str(), 0, BDB_RDWR, BDB_PRIVATE, nullptr, 0, nullptr);
    ASSERT_NE(h, nullptr);
    for (auto [e, want] : {std::pair{EINVAL, BDB_E_PARAM}, {ENOMEM, BDB_E_NOMEM}, {ENOENT, 0u}})
        EXPECT_EQ((errno = e, bdb_error(nullptr)), want) << "errno " << e;
    EXPECT_EQ((errno = 0, bdb_seterror(nullptr, BDB_E_FULL)), static_cast<uint32_t>(-1));
    EXPECT_TRUE(bdb_errhandler(nullptr, vt::recording_handler) == nullptr && errno == EINVAL);
    EXPECT_STREQ(bdbstrerr(0x08000027u), bdbstrerr(0));
    EXPECT_EQ(bdb_errhandler(h, nullptr), &bdb_noop_handler) << "an open without a handler gets the no-op one";
    bdb_errlog(h, "silenced");
    // A handler that changes errno: the caller's errno must survive it.
    auto clobber = [](bdb_handle *a, const char *b, const char *c, int d, const char *e, uint32_t f, const char *g) {
        errno = EBADF, vt::recording_handler(a, b, c, d, e, f, g); };
    vt::reports().clear();
    EXPECT_EQ(bdb_errhandler(h, clobber), nullptr);
    EXPECT_FALSE(vt::get(h, "absent", nullptr)) << "an expected outcome leaves its code and reports nothing";
    EXPECT_EQ(bdb_seterror(h, BDB_E_WRITE), BDB_E_NOTFOUND);
    errno = EIO;
    bdb_errlog(h, "db write");
    bdb_errlog(nullptr, "nothing");
    ASSERT_EQ(vt::reports().size(), 1u);
    const vt::Report &r = vt::reports()[0];
    EXPECT_EQ(std::tie(errno, r.h, r.name, r.syserr, r.sys_errno, r.message, r.code, r.context),
              std::tuple(EIO, h, p, strerror(EIO), EIO, "Write I/O error", BDB_E_WRITE, "db write"));
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
