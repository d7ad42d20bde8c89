// The command-line tools run as a user runs them: varlo_dump / varlo_load
// round trips, varlo_stat figures, varlo_check on sound and damaged files,
// argument errors, and dumps that must be refused.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "test_util.h"

extern char **environ;

namespace {

using Records = std::map<std::string, std::string>;

struct Result {
    int status = -1;  // exit status, -1 when the tool did not exit normally
    std::string out, err;
};

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void spit(const std::string &path, const std::string &data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
}

bool exists(const std::string &path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// Runs a tool; `input`, when given, is written to its standard input through
// a pipe (otherwise standard input is /dev/null).
Result run(const vt::TempDir &dir, const std::vector<std::string> &args, const std::string *input = nullptr) {
    std::signal(SIGPIPE, SIG_IGN);
    Result r;
    const std::string outp = dir.file(".out"), errp = dir.file(".err");
    int outfd = ::open(outp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int errfd = ::open(errp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int pfd[2] = {-1, -1};
    int infd = -1;
    if (input) {
        if (pipe(pfd) != 0) return r;
        infd = pfd[0];
    } else {
        infd = ::open("/dev/null", O_RDONLY);
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, infd, 0);
    posix_spawn_file_actions_adddup2(&fa, outfd, 1);
    posix_spawn_file_actions_adddup2(&fa, errfd, 2);
    if (input) posix_spawn_file_actions_addclose(&fa, pfd[1]);
    std::vector<char *> argv;
    for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    ::close(infd);
    ::close(outfd);
    ::close(errfd);
    if (input) {
        size_t off = 0;
        while (rc == 0 && off < input->size()) {
            ssize_t n = ::write(pfd[1], input->data() + off, input->size() - off);
            if (n <= 0) break;  // the tool stopped reading
            off += static_cast<size_t>(n);
        }
        ::close(pfd[1]);
    }
    if (rc != 0) return r;
    int st = 0;
    if (waitpid(pid, &st, 0) == pid && WIFEXITED(st)) r.status = WEXITSTATUS(st);
    r.out = slurp(outp);
    r.err = slurp(errp);
    return r;
}

std::string hex(const std::string &s) {
    static const char d[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : s) {
        out += d[c >> 4];
        out += d[c & 15];
    }
    return out;
}

// The dump varlo_dump must write for these records (std::map orders strings
// bytewise as unsigned values, like the default key order of the library).
std::string expected_dump(const Records &recs) {
    std::string d = "VARLO-DUMP 1\n";
    for (const auto &[k, v] : recs) d += hex(k) + " " + hex(v) + "\n";
    return d + "records=" + std::to_string(recs.size()) + "\n";
}

std::string pattern(size_t n, unsigned seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + seed) % 256);  // holds NUL and '\n'
    return s;
}

Records sample() {
    Records m;
    m[std::string("\0", 1)] = "key is one NUL byte";
    m[std::string("a\0b\nc", 5)] = std::string("\n\0\n", 3);
    m["\n"] = "";                              // empty value
    m["e"] = "";                               // 1-byte key, empty value
    m[std::string(1024, '\xff')] = "longest";  // 1024-byte key
    m[std::string(1023, 'k') + '\n'] = pattern(100, 1);
    m["v2047"] = pattern(2047, 2);   // largest inline value
    m["v2048"] = pattern(2048, 3);   // smallest long value: 1 data page
    m["v30000"] = pattern(30000, 4); // 4 data pages
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    m[all] = all;
    for (int i = 0; i < 600; ++i) {  // enough for more than one level
        char k[16];
        std::snprintf(k, sizeof k, "rec%05d", i);
        m[k] = pattern(40, static_cast<unsigned>(i));
    }
    return m;
}
constexpr uint32_t kSampleDataPages = 1 + 4;

void build(const std::string &path, const Records &recs) {
    bdb_handle *h = vt::create_open(path);
    ASSERT_NE(h, nullptr);
    for (const auto &[k, v] : recs) ASSERT_EQ(vt::put(h, k, v), 0) << hex(k);
    ASSERT_EQ(bdb_sync(h), 0);
    ASSERT_EQ(bdb_close(h), 0);
}

Records contents(const std::string &path) {
    Records m;
    bdb_handle *h = vt::open_db(path, 0, BDB_RDONLY);
    EXPECT_NE(h, nullptr) << path;
    if (!h) return m;
    for (auto &[k, v] : vt::walk(h)) m[k] = v;
    EXPECT_EQ(bdb_check(h), 0);
    EXPECT_EQ(bdb_close(h), 0);
    return m;
}

// The number after "label" at the start of a line of varlo_stat's output.
unsigned long long stat_field(const std::string &out, const std::string &label) {
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(label, 0) == 0) return std::stoull(line.substr(label.size()));
    ADD_FAILURE() << "no line " << label << " in:\n" << out;
    return ~0ULL;
}

uint32_t file_word(const std::string &data, size_t off) {
    uint32_t w;
    std::memcpy(&w, data.data() + off, 4);
    return w;
}

const std::string kStat = VARLO_STAT_BIN, kCheck = VARLO_CHECK_BIN, kDump = VARLO_DUMP_BIN, kLoad = VARLO_LOAD_BIN;

TEST(Tools, DumpLoadRoundTripIsExact) {
    vt::TempDir dir;
    const Records recs = sample();
    const std::string db1 = dir.file("one.db"), db2 = dir.file("two.db"), d1 = dir.file("one.dump");
    build(db1, recs);

    Result r = run(dir, {kDump, "-f", d1, db1});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    const std::string dump = slurp(d1);
    ASSERT_EQ(dump, expected_dump(recs));

    r = run(dir, {kLoad, "-n", "-f", d1, db2});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(contents(db2), recs);

    r = run(dir, {kDump, db2});  // to standard output
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, dump);

    r = run(dir, {kCheck, db2});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "ok\n");
}

TEST(Tools, LoadFromPipeAndSharedMode) {
    vt::TempDir dir;
    const Records recs = sample();
    const std::string db1 = dir.file("one.db"), db2 = dir.file("two.db");
    build(db1, recs);
    const std::string dump = expected_dump(recs);

    // A pipe cannot be read twice: the tool checks a copy, then loads it.
    Result r = run(dir, {kLoad, "-s", db2}, &dump);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(contents(db2), recs);

    r = run(dir, {kDump, "-s", db2});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, dump);
    r = run(dir, {kCheck, "-s", db2});
    EXPECT_EQ(r.status, 0) << r.err;
    r = run(dir, {kStat, "-s", db2});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(stat_field(r.out, "records:"), recs.size());

    // An empty database dumps to a header and a zero trailer, and loads back.
    const std::string empty = dir.file("empty.db"), empty2 = dir.file("empty2.db");
    build(empty, {});
    r = run(dir, {kDump, empty});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "VARLO-DUMP 1\nrecords=0\n");
    r = run(dir, {kLoad, empty2}, &r.out);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contents(empty2).empty());
}

TEST(Tools, StatCountsPagesAndRecords) {
    vt::TempDir dir;
    const Records recs = sample();
    const std::string db = dir.file("s.db");
    build(db, recs);
    const std::string file = slurp(db);
    ASSERT_EQ(file.size() % BDB_PGSIZE, 0u);
    uint32_t in_use = 0;
    for (uint32_t w = 0; w < BDB_MAPWORDS; ++w) in_use += static_cast<uint32_t>(__builtin_popcount(file_word(file, 24 + 4 * w)));

    Result r = run(dir, {kStat, db});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(stat_field(r.out, "file size (bytes):"), file.size());
    EXPECT_EQ(stat_field(r.out, "file pages:"), file.size() / BDB_PGSIZE);
    EXPECT_EQ(stat_field(r.out, "root page:"), file_word(file, 20));
    EXPECT_EQ(stat_field(r.out, "pages in use:"), in_use);
    EXPECT_EQ(stat_field(r.out, "records:"), recs.size());
    EXPECT_EQ(stat_field(r.out, "data pages:"), kSampleDataPages);
    // Every page in use is the meta page, a tree page or a data page.
    EXPECT_EQ(stat_field(r.out, "tree pages:"), in_use - 1 - kSampleDataPages);
    const unsigned long long depth = stat_field(r.out, "tree depth:");
    EXPECT_GE(depth, 2u);
    EXPECT_LE(depth, 4u);
    EXPECT_NE(r.out.find("statistics:\n"), std::string::npos);
    EXPECT_GE(stat_field(r.out, "  page reads:"), stat_field(r.out, "tree pages:"));
}

TEST(Tools, CheckNamesTheDamagedPage) {
    vt::TempDir dir;
    const std::string db = dir.file("c.db");
    build(db, sample());
    Result r = run(dir, {kCheck, db});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "ok\n");
    EXPECT_EQ(r.err, "");

    // Garbage in the entry count of the root page.
    std::string file = slurp(db);
    const uint32_t root = file_word(file, 20);
    ASSERT_GT(root, 0u);
    const uint32_t garbage = 0x7fff1234u;
    std::memcpy(&file[root * BDB_PGSIZE + 16], &garbage, 4);
    spit(db, file);

    r = run(dir, {kCheck, db});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    const std::string msg = bdbstrerr(BDB_E_DBTYPE);
    EXPECT_EQ(r.err, db + ": page " + std::to_string(root) + ": damaged tree page: " + msg + "\n" +
                         "bdb_check failed: 0x0800001b " + msg + "\n");

    // The other tools fail too instead of printing a partial picture as whole.
    const std::string out = dir.file("c.dump");
    r = run(dir, {kDump, "-f", out, db});
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(exists(out));
    r = run(dir, {kStat, db});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("bdb_parse_tree failed: 0x"), std::string::npos) << r.err;
}

TEST(Tools, BadArguments) {
    vt::TempDir dir;
    const std::string db = dir.file("a.db");
    build(db, {{"k", "v"}});
    for (const std::string &tool : {kStat, kCheck, kDump, kLoad}) {
        SCOPED_TRACE(tool);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{tool}, {tool, "-x", db}, {tool, db, db}, {tool, db, "-f"}}) {
            Result r = run(dir, args);
            EXPECT_EQ(r.status, 1) << args.size();
            EXPECT_NE(r.err.find("usage: "), std::string::npos) << r.err;
            EXPECT_EQ(r.out, "");
        }
        Result r = run(dir, {tool, "-V"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, std::string(VARLO_VERSION_STRING) + "\n");
    }
    // A missing database is a library failure with its code and message.
    const std::string none = dir.file("none.db");
    for (const std::string &tool : {kStat, kCheck, kDump}) {
        Result r = run(dir, {tool, none});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("bdb_open failed: 0x0800000c " + std::string(bdbstrerr(BDB_E_NOENT))), std::string::npos)
            << r.err;
    }
    Result r = run(dir, {kLoad, "-f", dir.file("no.dump"), db});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("fopen"), std::string::npos) << r.err;
}

TEST(Tools, LoadRefusesBadDumpsAndWritesNothing) {
    vt::TempDir dir;
    const Records recs = sample();
    const std::string good = expected_dump(recs);
    const size_t trailer = good.rfind("records=");
    const size_t second = good.find('\n') + 1;  // start of the first record line
    const std::string one_line = good.substr(second, good.find('\n', second) + 1 - second);

    struct Case {
        const char *name;
        std::string dump, message;
    };
    const std::vector<Case> cases = {
        {"empty input", "", "empty input"},
        {"wrong header", "VARLO-DUMP\n" + good.substr(second), "wrong header"},
        {"other version", "VARLO-DUMP 2\n" + good.substr(second), "unsupported dump version"},
        {"cut mid-line", good.substr(0, good.size() / 2), "truncated dump"},
        {"no trailer", good.substr(0, trailer), "truncated dump"},
        {"trailer cut", good.substr(0, good.size() - 1), "truncated dump"},
        {"record missing", "VARLO-DUMP 1\n" + good.substr(second + one_line.size()), "truncated dump"},
        {"bad count", good.substr(0, trailer) + "records=12x\n", "bad trailer"},
        {"after trailer", good + one_line, "data after the trailer"},
        {"odd hex", "VARLO-DUMP 1\n616 62\nrecords=1\n", "hex digits"},
        {"not hex", "VARLO-DUMP 1\n6g 62\nrecords=1\n", "hex digits"},
        {"no space", "VARLO-DUMP 1\n6162\nrecords=1\n", "no space"},
        {"empty key", "VARLO-DUMP 1\n 62\nrecords=1\n", "key of 0 bytes"},
        {"long key", "VARLO-DUMP 1\n" + hex(std::string(1025, 'k')) + " 62\nrecords=1\n", "key of 1025 bytes"},
    };
    const std::string db = dir.file("new.db");
    const std::string existing = dir.file("old.db");
    const Records before = {{"keep", "me"}, {"rec00001", "old"}};
    build(existing, before);
    const std::string existing_bytes = slurp(existing);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string dumpfile = dir.file("bad.dump");
        spit(dumpfile, c.dump);
        Result r = run(dir, {kLoad, "-f", dumpfile, db});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("nothing loaded"), std::string::npos) << r.err;
        EXPECT_FALSE(exists(db));
        // Through a pipe, and into an existing database: left untouched.
        r = run(dir, {kLoad, existing}, &c.dump);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(slurp(existing), existing_bytes);
    }
    EXPECT_EQ(contents(existing), before);
}

TEST(Tools, LoadIntoExistingDatabase) {
    vt::TempDir dir;
    const std::string db = dir.file("e.db"), dumpfile = dir.file("e.dump");
    build(db, {{"a", "1"}, {"z", "old"}});
    spit(dumpfile, expected_dump({{"m", "2"}, {"z", std::string(5000, 'n')}}));

    // -n refuses an existing database and leaves it alone.
    Result r = run(dir, {kLoad, "-n", "-f", dumpfile, db});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("bdb_create failed: 0x08000025 "), std::string::npos) << r.err;
    EXPECT_EQ(contents(db), (Records{{"a", "1"}, {"z", "old"}}));

    // Without -n the records are stored over the existing ones.
    r = run(dir, {kLoad, "-f", dumpfile, db});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(contents(db), (Records{{"a", "1"}, {"m", "2"}, {"z", std::string(5000, 'n')}}));
    r = run(dir, {kCheck, db});
    EXPECT_EQ(r.status, 0) << r.err;
}

}  // namespace
