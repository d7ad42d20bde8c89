// The ndbm interface as an ndbm program uses it: insert versus replace,
// missing keys and empty values, walks, read-only handles, reopening, and
// the open flags.
#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <random>

#include "ndbm.h"
#include "test_util.h"

namespace {

datum D(const std::string &s) { return datum{const_cast<char *>(s.data()), s.size()}; }
std::string S(datum d) { return d.dptr ? std::string(static_cast<char *>(d.dptr), d.dsize) : "<missing>"; }
std::vector<std::string> walk(DBM *db) {
    std::vector<std::string> out;
    for (datum k = dbm_firstkey(db); k.dptr; k = dbm_nextkey(db)) out.push_back(S(k));
    return out;
}

TEST(Ndbm, InsertReplaceMissingAndEmptyValues) {
    vt::TempDir dir;
    const mode_t mask = umask(022);
    DBM *db = dbm_open(dir.file("t").c_str(), O_RDWR | O_CREAT, 0640);
    umask(mask);
    ASSERT_NE(db, nullptr);
    struct stat st;  // NAME.db, there from the start with the mode asked for
    ASSERT_EQ(stat(dir.file("t.db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(dbm_firstkey(db).dptr, nullptr);
    EXPECT_EQ(dbm_store(db, D("k"), D("v1"), DBM_INSERT), 0);
    EXPECT_EQ(dbm_store(db, D("k"), D("v2"), DBM_INSERT), 1);
    EXPECT_EQ(S(dbm_fetch(db, D("k"))), "v1");
    EXPECT_EQ(dbm_store(db, D("k"), D("v2"), DBM_REPLACE), 0);
    EXPECT_EQ(S(dbm_fetch(db, D("k"))), "v2");
    EXPECT_EQ(dbm_store(db, D("e"), datum{nullptr, 0}, DBM_INSERT), 0);
    const datum e = dbm_fetch(db, D("e"));
    EXPECT_TRUE(e.dptr != nullptr && e.dsize == 0);
    EXPECT_EQ(dbm_fetch(db, D("none")).dptr, nullptr);
    EXPECT_EQ(dbm_delete(db, D("none")), -1);
    EXPECT_EQ(dbm_error(db), 0);
    EXPECT_EQ(dbm_delete(db, D("k")), 0);
    EXPECT_EQ(dbm_fetch(db, D("k")).dptr, nullptr);
    // Refused stores are errors until cleared; none of them changes anything.
    for (const auto &[key, mode] : std::vector<std::pair<std::string, int>>{{"", 0}, {std::string(1025, 'k'), 1}, {"e", 7}}) {
        errno = 0;
        EXPECT_EQ(dbm_store(db, D(key), D("x"), mode), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(dbm_error(db), 0);
        EXPECT_EQ(dbm_clearerr(db), 0);
        EXPECT_EQ(dbm_error(db), 0);
    }
    EXPECT_EQ(walk(db), std::vector<std::string>{"e"});
    dbm_close(db);
}

TEST(Ndbm, WalksVisitEveryKeyOnceAndReadOnlyReopenKeepsData) {
    vt::TempDir dir;
    const std::string name = dir.file("m");
    std::mt19937 rng(16);
    std::map<std::string, std::string> model;
    DBM *db = dbm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_NE(db, nullptr);
    for (int i = 0; i < 3000; ++i) {
        const std::string k = "key" + std::to_string(rng() % 100000);
        const std::string v(i % 100 == 0 ? 3000 + rng() % 9000 : rng() % 120, static_cast<char>('a' + i % 26));
        const int r = dbm_store(db, D(k), D(v), i % 2 ? DBM_INSERT : DBM_REPLACE);
        EXPECT_EQ(r, model.count(k) && i % 2 ? 1 : 0);
        if (r == 0) model[k] = v;
    }
    auto keys = walk(db);
    ASSERT_EQ(keys.size(), model.size());
    EXPECT_TRUE(std::equal(keys.begin(), keys.end(), model.begin(), [](auto &a, auto &b) { return a == b.first; }));
    // Deleting the key just returned (every third) keeps the walk going.
    size_t n = 0;
    for (datum k = dbm_firstkey(db); k.dptr; k = dbm_nextkey(db), ++n) {
        if (n % 3) continue;
        model.erase(S(k));
        ASSERT_EQ(dbm_delete(db, k), 0);
    }
    EXPECT_EQ(n, keys.size());
    dbm_close(db);

    ASSERT_NE(db = dbm_open(name.c_str(), O_RDONLY, 0), nullptr);
    for (const auto &[k, v] : model) ASSERT_EQ(S(dbm_fetch(db, D(k))), v);
    EXPECT_EQ(walk(db).size(), model.size());
    EXPECT_EQ(dbm_store(db, D("new"), D("x"), DBM_REPLACE), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_NE(dbm_error(db), 0);
    dbm_clearerr(db);
    EXPECT_EQ(dbm_delete(db, D(model.begin()->first)), -1);
    EXPECT_NE(dbm_error(db), 0);
    EXPECT_EQ(S(dbm_fetch(db, D(model.begin()->first))), model.begin()->second);
    dbm_close(db);
}

TEST(Ndbm, OpenFlagsActAsForOpen) {
    vt::TempDir dir;
    const std::string name = dir.file("f"), file = name + ".db";
    const char *n = name.c_str();
    auto opens = [&](int flags, int err) {
        errno = 0;
        DBM *db = dbm_open(n, flags, 0644);
        const int got = errno;
        if (db) dbm_close(db);
        EXPECT_EQ(db ? err : got, err) << std::hex << flags;
        return db != nullptr;
    };
    EXPECT_FALSE(opens(O_RDONLY, ENOENT));
    DBM *db = dbm_open(n, O_WRONLY | O_CREAT, 0644);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(dbm_store(db, D("k"), D("v"), DBM_INSERT), 0);
    EXPECT_FALSE(opens(O_RDONLY, EAGAIN));  // a writer has it open
    dbm_close(db);
    EXPECT_FALSE(opens(O_RDWR | O_CREAT | O_EXCL, EEXIST));
    db = dbm_open(n, O_RDWR | O_TRUNC, 0);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(walk(db).size(), 0u);
    dbm_close(db);
    // A zero-length file is not a database until O_CREAT makes it one;
    // anything else that is not a database needs O_TRUNC.
    for (const std::string content : {"", "not a database"}) {
        std::ofstream(file, std::ios::trunc) << content;
        EXPECT_FALSE(opens(O_RDONLY, EINVAL));
        EXPECT_EQ(opens(O_RDWR | O_CREAT, EINVAL), content.empty());
        EXPECT_TRUE(opens(O_RDWR | O_TRUNC, 0)) << content;
    }
}

}  // namespace
