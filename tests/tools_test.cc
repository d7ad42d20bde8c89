// The command-line tools as a user runs them: a dump / load / dump round
// trip, varlo_check on a sound and a damaged file, dumps that must be
// refused, a compacted copy, and bad arguments.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>

#include "test_util.h"

namespace {

using Records = std::map<std::string, std::string>;
const std::string kCheck = VARLO_CHECK_BIN, kDump = VARLO_DUMP_BIN, kLoad = VARLO_LOAD_BIN, kStat = VARLO_STAT_BIN,
                  kCopy = VARLO_COPY_BIN;

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct Result { int status; std::string err; };
// Runs a tool through the shell (the paths hold no spaces or quotes),
// standard input from /dev/null.
Result run(const vt::TempDir &dir, const std::string &args) {
    const int st = std::system((args + " </dev/null >/dev/null 2>'" + dir.file("err") + "'").c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, slurp(dir.file("err"))};
}

void build(const std::string &path, const Records &recs) {
    bdb_handle *h = vt::create_open(path);
    ASSERT_NE(h, nullptr);
    for (const auto &[k, v] : recs) ASSERT_EQ(vt::put(h, k, v), 0);
    ASSERT_EQ(bdb_close(h), 0);
}

// Binary keys and values, keys of 1 and 1024 bytes, empty, inline and long
// values, and enough records for more than one tree level.
Records sample() {
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    Records m = {{std::string("\0", 1), ""}, {"\n", std::string("\n\0\n", 3)}, {std::string(1024, '\xff'), "x"},
                 {all, all}, {"v2047", std::string(2047, '\0')}, {"v30000", std::string(30000, '\n')}};
    for (int i = 0; i < 600; ++i) m["rec" + std::to_string(i)] = all.substr(i % 200, 40);
    return m;
}

TEST(Tools, DumpLoadDumpRoundTripIsExactAndCheckNamesADamagedPage) {
    vt::TempDir dir;
    const Records recs = sample();
    const std::string db1 = dir.file("1.db"), db2 = dir.file("2.db"), d1 = dir.file("1.dump"), d2 = dir.file("2.dump");
    build(db1, recs);
    ASSERT_EQ(run(dir, kDump + " -f " + d1 + " " + db1).status, 0);
    Result r = run(dir, kLoad + " -n -f " + d1 + " " + db2);
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(run(dir, kDump + " -f " + d2 + " " + db2).status, 0);
    EXPECT_EQ(slurp(d2), slurp(d1));
    bdb_handle *h = vt::open_db(db2, 0, BDB_RDONLY);
    ASSERT_NE(h, nullptr);
    const auto got = vt::walk(h);
    EXPECT_EQ(Records(got.begin(), got.end()), recs);
    EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(run(dir, kCheck + " " + db2).status, 0);

    // Garbage in the entry count of the root page (its number: meta word 5).
    std::fstream f(db2, std::ios::binary | std::ios::in | std::ios::out);
    uint32_t root = 0, garbage = 0x7fff1234u;
    f.seekg(20).read(reinterpret_cast<char *>(&root), 4);
    ASSERT_GT(root, 0u);
    f.seekp(root * BDB_PGSIZE + 16).write(reinterpret_cast<const char *>(&garbage), 4);
    f.close();
    r = run(dir, kCheck + " " + db2);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(": page " + std::to_string(root) + ": "), std::string::npos) << r.err;

    // The same garbage in a leaf: the dump saves every other record, names
    // the page and fails.
    uint32_t leaf = 0;
    f.open(db1, std::ios::binary | std::ios::in | std::ios::out);
    f.seekg(root * BDB_PGSIZE + 4).read(reinterpret_cast<char *>(&leaf), 4);
    ASSERT_GT(leaf, 0u);
    f.seekp(leaf * BDB_PGSIZE + 16).write(reinterpret_cast<const char *>(&garbage), 4);
    f.close();
    r = run(dir, kDump + " -f " + d1 + " " + db1);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("page " + std::to_string(leaf) + ": "), std::string::npos) << r.err;
    const std::string saved = slurp(d1);
    const auto lines = static_cast<size_t>(std::count(saved.begin(), saved.end(), '\n'));
    EXPECT_TRUE(lines > recs.size() / 2 && lines < recs.size() + 2) << lines;
    EXPECT_NE(saved.find("\nrecords=" + std::to_string(lines - 2) + "\n"), std::string::npos);
}

TEST(Tools, LoadRefusesABadDumpAndCreatesNothing) {
    vt::TempDir dir;
    const std::string good = "VARLO-DUMP 1\n6b 76\n6c 77\nrecords=2\n", dump = dir.file("d"), db = dir.file("new.db");
    const std::map<std::string, std::string> cases = {{"VARLO-DUMP\n6b 76\nrecords=1\n", "wrong header"},
                                                      {good.substr(0, 16), "truncated dump"},   // cut mid-line
                                                      {good.substr(0, 25), "truncated dump"}};  // no trailer
    for (const auto &[bad, message] : cases) {
        std::ofstream(dump, std::ios::binary) << bad;
        const Result r = run(dir, kLoad + " -f " + dump + " " + db);
        EXPECT_EQ(r.status, 1) << bad;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
        EXPECT_FALSE(std::ifstream(db).good()) << bad;
    }
}

// A copy of a database grown by inserts in random order is smaller, holds
// the same records, passes the check, and takes changes like any database.
TEST(Tools, CopyIsCompactCompleteAndChecked) {
    vt::TempDir dir;
    Records recs = sample();
    std::mt19937 rng(16);
    for (int i = 0; i < 20000; ++i) recs["r" + std::to_string(rng())] = std::string(rng() % 200, 'v');
    std::vector<std::pair<std::string, std::string>> order(recs.begin(), recs.end());
    std::shuffle(order.begin(), order.end(), rng);
    const std::string src = dir.file("src.db"), dst = dir.file("dst.db");
    bdb_handle *h = vt::create_open(src);
    ASSERT_NE(h, nullptr);
    for (const auto &[k, v] : order) ASSERT_EQ(vt::put(h, k, v), 0);
    ASSERT_EQ(bdb_close(h), 0);
    Result r = run(dir, kCopy + " " + src + " " + dst);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_LT(std::filesystem::file_size(dst), std::filesystem::file_size(src) * 3 / 4);
    EXPECT_EQ(run(dir, kCheck + " " + dst).status, 0);
    EXPECT_EQ(run(dir, kCopy + " " + src + " " + dst).status, 1);  // an existing DST is refused
    ASSERT_NE(h = vt::open_db(dst), nullptr);
    const auto got = vt::walk(h);
    EXPECT_EQ(Records(got.begin(), got.end()), recs);
    for (size_t i = 0; i < order.size(); i += 2) ASSERT_EQ(vt::del(h, order[i].first), 0);
    for (int i = 0; i < 3000; ++i) ASSERT_EQ(vt::replace(h, "n" + std::to_string(rng()), std::string(rng() % 300, 'n')), 0);
    EXPECT_EQ(bdb_check(h), 0);
    EXPECT_EQ(bdb_close(h), 0);
}

// The bulk load behind varlo_copy: a load that fails midway (keys out of
// order, or a source that gives up) leaves the database empty and sound.
TEST(Tools, FailedBulkLoadLeavesTheDatabaseEmpty) {
    vt::TempDir dir;
    bdb_handle *h = vt::create_open(dir.file("b.db"));
    ASSERT_NE(h, nullptr);
    for (int stop_at : {7000, -1}) {  // give up at record 7000 / record 7000 out of order
        struct Src { int i, stop; std::string k, v; } src{0, stop_at, "", ""};
        auto next = [](void *c, bdb_datum *k, bdb_datum *d) {
            auto *s = static_cast<Src *>(c);
            if (s->i == s->stop) return -1;
            s->k = "k" + std::to_string(s->i == 7000 ? 1000000 : 1000000 + s->i), s->v.assign(s->i % 700 ? 50 : 3000, 'v');
            *k = vt::datum(s->k), *d = vt::datum(s->v);
            return ++s->i > 9000 ? 0 : 1;
        };
        EXPECT_EQ(bdb_bulk_load(h, next, &src), -1);
        EXPECT_EQ(bdb_error(h), stop_at < 0 ? BDB_E_PARAM : 0u);
        EXPECT_EQ(bdb_sync(h), 0);
        EXPECT_EQ(bdb_check(h), 0);
        EXPECT_EQ(h->meta->root, 0u);
        EXPECT_EQ(std::filesystem::file_size(dir.file("b.db")), BDB_PGSIZE);
    }
    EXPECT_EQ(bdb_close(h), 0);
}

TEST(Tools, BadArgumentsExitOneHelpAndVersionZero) {
    vt::TempDir dir;
    for (const std::string &tool : {kStat, kCheck, kDump, kLoad, kCopy}) {
        const bool two = tool == kCopy;  // varlo_copy takes SRC and DST
        for (const char *args : {"", " -x a.db", two ? " a.db" : " a.db b.db", two ? " a b c" : " a.db -f"}) {
            const Result r = run(dir, tool + args);
            EXPECT_EQ(r.status, 1) << tool << args;
            EXPECT_NE(r.err.find("usage: "), std::string::npos) << r.err;
        }
        EXPECT_EQ(run(dir, tool + " --help").status, 0) << tool;
        EXPECT_EQ(run(dir, tool + " -V").status, 0) << tool;
    }
}

}  // namespace
