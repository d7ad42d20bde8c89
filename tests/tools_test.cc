// The command-line tools as a user runs them: a dump / load / dump round
// trip, varlo_check on a sound and a damaged file, dumps that must be
// refused, and bad arguments.
#include <fstream>
#include <iterator>
#include <map>

#include "test_util.h"

namespace {

using Records = std::map<std::string, std::string>;
const std::string kCheck = VARLO_CHECK_BIN, kDump = VARLO_DUMP_BIN, kLoad = VARLO_LOAD_BIN, kStat = VARLO_STAT_BIN;

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

TEST(Tools, BadArgumentsExitOne) {
    vt::TempDir dir;
    for (const std::string &tool : {kStat, kCheck, kDump, kLoad})
        for (const char *args : {"", " -x a.db", " a.db b.db", " a.db -f"}) {
            const Result r = run(dir, tool + args);
            EXPECT_EQ(r.status, 1) << tool << args;
            EXPECT_NE(r.err.find("usage: "), std::string::npos) << r.err;
        }
}

}  // namespace
