// The command-line tools as a user runs them: a dump / load / dump round
// trip, a compacted copy, varlo_check on a sound and a damaged file, a dump
// of a damaged file, refused dumps and bad arguments; and the bulk load
// behind varlo_copy failing midway.
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

std::string slurp(const std::string &path) { std::ifstream in(path, std::ios::binary); return {std::istreambuf_iterator<char>(in), {}}; }
Records records(const std::string &db) {
    bdb_handle *h = vt::open_db(db, 0, BDB_RDONLY);
    const auto got = h ? vt::walk(h) : decltype(vt::walk(h)){};
    EXPECT_EQ(bdb_close(h), 0);
    return Records(got.begin(), got.end());
}

struct Result { int status; std::string err; };
// Runs a tool through the shell (the paths hold no spaces or quotes), standard input from /dev/null.
Result run(const vt::TempDir &dir, const std::string &args) {
    const int st = std::system((args + " </dev/null >/dev/null 2>'" + dir.file("err") + "'").c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, slurp(dir.file("err"))};
}

// Garbage in the entry count of page pg of db (the root: meta word 5); gives pg.
uint32_t spoil(const std::string &db, uint32_t pg) {
    std::fstream f(db, std::ios::binary | std::ios::in | std::ios::out);
    const uint32_t garbage = 0x7fff1234u;
    if (!pg) f.seekg(20).read(reinterpret_cast<char *>(&pg), 4);
    f.seekp(pg * BDB_PGSIZE + 16).write(reinterpret_cast<const char *>(&garbage), 4);
    return pg;
}

TEST(Tools, RoundTripCopyAndCheck) {
    vt::TempDir dir;
    // Binary keys and values, keys of 1 and 1024 bytes, empty, inline and long
    // values, and many records put in random order.
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    Records recs = {{std::string("\0", 1), ""}, {"\n", std::string("\n\0\n", 3)}, {std::string(1024, '\xff'), "x"},
                    {all, all}, {"v2047", std::string(2047, '\0')}, {"v30000", std::string(30000, '\n')}};
    std::mt19937 rng(16);
    for (int i = 0; i < 20000; ++i) recs["r" + std::to_string(rng())] = all.substr(rng() % 200, rng() % 50);
    std::vector<std::pair<std::string, std::string>> order(recs.begin(), recs.end());
    std::shuffle(order.begin(), order.end(), rng);
    const std::string db1 = dir.file("1.db"), db2 = dir.file("2.db"), db3 = dir.file("3.db"), d1 = dir.file("1.dump"),
                      d2 = dir.file("2.dump");
    bdb_handle *h = vt::create_open(db1);
    for (const auto &[k, v] : order) ASSERT_EQ(vt::put(h, k, v), 0);
    ASSERT_EQ(bdb_close(h), 0);
    ASSERT_EQ(run(dir, kDump + " -f " + d1 + " " + db1).status, 0);
    Result r = run(dir, kLoad + " -n -f " + d1 + " " + db2);
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(run(dir, kDump + " -f " + d2 + " " + db2).status, 0);
    EXPECT_TRUE(slurp(d2) == slurp(d1) && records(db2) == recs);
    ASSERT_EQ((r = run(dir, kCopy + " " + db1 + " " + db3)).status, 0) << r.err;
    EXPECT_LT(std::filesystem::file_size(db3), std::filesystem::file_size(db1) * 3 / 4);
    EXPECT_EQ(run(dir, kCheck + " " + db3).status + run(dir, kStat + " " + db3).status, 0);
    EXPECT_EQ(run(dir, kCopy + " " + db1 + " " + db3).status, 1);  // an existing DST is refused
    EXPECT_TRUE(records(db3) == recs);
    ASSERT_NE(h = vt::open_db(db3), nullptr);  // the copy takes changes like any database
    for (size_t i = 0; i < order.size(); i += 2) ASSERT_EQ(vt::del(h, order[i].first), 0);
    for (int i = 0; i < 3000; ++i) ASSERT_EQ(vt::replace(h, "n" + std::to_string(rng()), std::string(rng() % 300, 'n')), 0);
    EXPECT_EQ(bdb_check(h), 0);
    EXPECT_EQ(bdb_close(h), 0);

    const uint32_t root = spoil(db2, 0);
    r = run(dir, kCheck + " " + db2);
    EXPECT_TRUE(r.status == 1 && r.err.find(": page " + std::to_string(root) + ": ") != std::string::npos) << r.err;
    // The same garbage in a leaf: the dump saves every other record, names the page and fails.
    std::ifstream f(db1, std::ios::binary);
    uint32_t leaf = 0, next = 0;
    for (f.seekg(20).read(reinterpret_cast<char *>(&next), 4); next; f.seekg(leaf * BDB_PGSIZE + 4).read(reinterpret_cast<char *>(&next), 4))
        leaf = next;  // down the leftmost children
    spoil(db1, leaf);
    r = run(dir, kDump + " -f " + d1 + " " + db1);
    EXPECT_TRUE(r.status == 1 && r.err.find("page " + std::to_string(leaf) + ": ") != std::string::npos) << r.err;
    const std::string saved = slurp(d1);
    const auto lines = static_cast<size_t>(std::count(saved.begin(), saved.end(), '\n'));
    EXPECT_TRUE(lines > recs.size() / 2 && lines < recs.size() + 2) << lines;
    EXPECT_NE(saved.find("\nrecords=" + std::to_string(lines - 2) + "\n"), std::string::npos);
}

TEST(Tools, BadArgumentsAndBadDumpsAreRefused) {
    vt::TempDir dir;
    for (const std::string &tool : {kStat, kCheck, kDump, kLoad, kCopy}) {
        const bool two = tool == kCopy;  // varlo_copy takes SRC and DST
        for (const char *args : {"", " -x a.db", two ? " a.db" : " a.db b.db", two ? " a b c" : " a.db -f"}) {
            const Result r = run(dir, tool + args);
            EXPECT_TRUE(r.status == 1 && r.err.find("usage: ") != std::string::npos) << tool << args << ": " << r.err;
        }
        EXPECT_EQ(run(dir, tool + " --help").status + run(dir, tool + " -V").status, 0) << tool;
    }
    const std::string good = "VARLO-DUMP 1\n6b 76\n6c 77\nrecords=2\n", dump = dir.file("d"), db = dir.file("new.db");
    for (const auto &[bad, message] : Records{{"VARLO-DUMP\n6b 76\nrecords=1\n", "wrong header"},
                                              {good.substr(0, 16), "truncated dump"},   // cut mid-line
                                              {good.substr(0, 25), "truncated dump"}}) {  // no trailer
        std::ofstream(dump, std::ios::binary) << bad;
        const Result r = run(dir, kLoad + " -f " + dump + " " + db);
        EXPECT_TRUE(r.status == 1 && r.err.find(message) != std::string::npos) << r.err;
        EXPECT_FALSE(std::ifstream(db).good()) << bad;
    }
}

// A load that fails midway (keys out of order, or a source that gives up)
// leaves the database empty and sound, its pages free for what comes next.
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
        EXPECT_EQ(h->meta->root, 0u);
        // The pages it took are free again and hold nothing the cache could write over them.
        for (int i = 0; i < 40; ++i) ASSERT_EQ(vt::replace(h, "long" + std::to_string(i), std::string(9000, 'a' + i % 26)), 0);
        for (int i = 0; i < 40; ++i) EXPECT_TRUE(vt::get(h, "long" + std::to_string(i), &src.v) && src.v == std::string(9000, 'a' + i % 26));
        EXPECT_EQ(bdb_sync(h) + bdb_check(h), 0);
        for (int i = 0; i < 40; ++i) ASSERT_EQ(vt::del(h, "long" + std::to_string(i)), 0);
        EXPECT_EQ(bdb_sync(h) + bdb_check(h), 0);
        EXPECT_EQ(std::filesystem::file_size(dir.file("b.db")), BDB_PGSIZE);
    }
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
