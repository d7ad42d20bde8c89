// The layers on the record calls. The object store: a model-based test of
// random object and item operations (ids sharing prefixes and carrying '#'
// parts, items named in split parts, the header as the empty item, cloning,
// removal, listing), and the cases it does not reach: long item lists, key
// limits, opening an object database. The ndbm interface as an ndbm program
// uses it: insert versus replace, missing keys and empty values, walks that
// delete, read-only handles, the open flags.
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>

#include "ndbm.h"
#include "test_util.h"

namespace {

using Opt = std::optional<std::string>;

// The value a call hands back through its pointer (freed here), or nullopt when the call fails.
template <typename Call>
Opt got(Call call) {
    void *p = nullptr;
    const int n = call(&p);
    const Opt v = n < 0 ? std::nullopt : Opt(std::string(p ? static_cast<char *>(p) : "", static_cast<size_t>(n)));
    std::free(p);
    return v;
}
// The names bt_getitem_list gives, each followed by '|', or nullopt when it fails.
Opt list(bdb_handle *h, const char *id, const char *prefix) {
    char **l = nullptr;
    uint32_t n = 0;
    const int rc = bt_getitem_list(h, id, prefix, &l, &n);
    EXPECT_TRUE(rc < 0 || (rc == static_cast<int>(n) && (l ? l[n] == nullptr : n == 0)));
    std::string names;
    for (uint32_t i = 0; i < n; ++i) names += l[i] + std::string("|"), std::free(l[i]);
    std::free(l);
    return rc < 0 ? std::nullopt : Opt(names);
}
// The code a failed call (-1) left in the handle; 0 when it did not fail.
uint32_t failure(bdb_handle *h, int rc) { return rc < 0 ? bdb_error(h) : 0; }

TEST(ObjStore, DefaultDatabaseCarListsAndKeyLimits) {
    vt::TempDir d;
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(d.path());  // bt_initdb makes "odb" here when given no name
    uint32_t err = 1;
    EXPECT_EQ(bt_initdb(std::string(4096, 'n').c_str(), 0, 0, BDB_PRIVATE, 0, &err) ? 0 : err, BDB_E_PARAM);
    bdb_handle *h = bt_initdb(nullptr, 0, 0, BDB_PRIVATE, 0, &err);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(bt_mkobj(h, "car", "red", 3), 0);
    for (auto [pre, name] : {std::pair{"door.", "left"}, {"door.", "right"}, {"", "wheel"}})
        ASSERT_EQ(bt_additem(h, "car", pre, name, "v", 1), 0);
    EXPECT_EQ(list(h, "car", "door."), "left|right|");
    EXPECT_EQ(list(h, "car", nullptr), "door.left|door.right|wheel|");
    const std::string long_prefix(1100, 'p');  // longer than any key: matches nothing
    EXPECT_EQ(list(h, "car", long_prefix.c_str()), "");
    EXPECT_TRUE(!list(h, "bus", long_prefix.c_str()) && bdb_error(h) == BDB_E_NOTFOUND);
    // When only the final release of the mutex fails, bt_getitem returns its
    // result and the value is the caller's to free (once).
    static int depth = 0;
    h->wait = [](bdb_handle *, int) { return ++depth, 0; };
    h->release = [](bdb_handle *, int) { return --depth == 0 ? -7 : 0; };
    void *p = nullptr;
    EXPECT_EQ(bt_getitem(h, "car", "door.", "left", &p), -7);
    EXPECT_STREQ(static_cast<char *>(p), "v");
    std::free(p);
    h->wait = nullptr, h->release = nullptr;
    std::string names;  // the list array is replaced at 15 and 30 entries
    for (int i = 10; i < 57; ++i) {
        ASSERT_EQ(bt_additem(h, "car", "n", std::to_string(i).c_str(), "v", 1), 0);
        ASSERT_EQ(list(h, "car", "n"), names += std::to_string(i) + "|");
    }
    // Keys: header = id, NUL; item = id, NUL, prefix + name, NUL; at most 1024 bytes.
    const std::string id(1024, 'o'), name(1020, 'n');
    ASSERT_EQ(bt_mkobj(h, id.c_str() + 1, "1024", 4), 0);
    ASSERT_EQ(bt_additem(h, "car", "", name.c_str() + 1, "1024", 4), 0);
    const auto before = vt::walk(h);
    const char *to[] = {id.c_str(), nullptr};
    const std::function<int()> calls[] = {
        [&] { return bt_mkobj(h, id.c_str(), "v", 1); }, [&] { return bt_putobj(h, id.c_str(), "v", 1); },
        [&] { return bt_rmobj(h, id.c_str()); }, [&] { return bt_clone(h, "car", to, nullptr, 0); },
        [&] { return bt_additem(h, "car", "", name.c_str(), "v", 1); }, [&] { return bt_replace_item(h, "car", "n", name.c_str() + 1, "v", 1); }};
    for (size_t i = 0; i < std::size(calls); ++i) EXPECT_EQ(failure(h, (bdb_seterror(h, 0), calls[i]())), BDB_E_KEYSIZE) << i;
    // An empty prefix and name would be the object's own header record.
    EXPECT_EQ(failure(h, bt_replace_item(h, "car", "", "", "x", 1)), BDB_E_PARAM);
    EXPECT_EQ(failure(h, bt_rmitem(h, "car", nullptr, "")), BDB_E_PARAM);
    EXPECT_TRUE(vt::walk(h) == before);
    EXPECT_EQ(bt_closedb(h), 0);
    std::filesystem::current_path(cwd);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(d.path()), {}), 2);  // nothing but odb and its log
    EXPECT_TRUE(std::filesystem::exists(d.file("odb")));
}

class ObjectModel : public ::testing::TestWithParam<int> {};

TEST_P(ObjectModel, RandomOperationsMatchAMapOfMaps) {
    vt::TempDir dir;
    bdb_handle *h = bt_initdb(dir.file("odb").c_str(), 0, 0, GetParam(), 0, nullptr);
    ASSERT_NE(h, nullptr);
    using Items = std::map<std::string, std::string>;  // full item name -> value; "" -> the header's value
    std::map<std::string, Items> m;                     // object key (the id up to a '#') -> items
    std::mt19937_64 rng(GetParam() == BDB_PRIVATE ? 20240611 : 77);
    auto below = [&](uint64_t n) { return rng() % n; };
    auto new_id = [&] {
        static const char *ids[] = {"a", "ab", "abc", "aa", "b", "ba", "z", "zz", "car", "c"};
        const std::string s = ids[below(10)] + std::string(below(3) ? "" : "x");
        return below(5) ? s : s + "#" + std::to_string(below(100));
    };
    // Item names split differently meet: door. + left = do + or.left, w + heel = wheel.
    static const char *prefixes[] = {"", "door.", "do", "w"}, *names[] = {"left", "or.left", "heel", "wheel"};
    for (int step = 1; step <= 8000 && !HasFailure(); ++step) {
        const int op = static_cast<int>(below(20));
        const std::string id = new_id(), key = id.substr(0, id.find('#'));
        const uint64_t kind = below(6), len = kind == 0 ? 0 : kind == 1 ? 2048 + below(6000) : 1 + below(100);
        const std::string v(len, static_cast<char>('a' + below(26)));
        const char *pre = below(4) ? prefixes[below(4)] : nullptr;  // null: an empty prefix
        // Sometimes additem and getitem of the empty name (the header, with an empty prefix).
        const std::string name = (op == 8 || op == 17) && !below(8) ? "" : names[below(4)] + std::to_string(below(3));
        const std::string prefix = pre ? pre : "", full = prefix + name;
        SCOPED_TRACE("step " + std::to_string(step) + " op " + std::to_string(op) + " id " + id + " item " + full);
        Items *o = m.count(key) ? &m[key] : nullptr;
        int rc = 0;
        uint32_t want = o ? 0 : BDB_E_NOTFOUND;  // the code of the expected failure
        Opt value, expected;                     // what a reading call gave and what the model holds
        bdb_seterror(h, 0);
        if (op < 2) {
            rc = bt_mkobj(h, id.c_str(), v.data(), static_cast<uint32_t>(v.size())), want = o ? BDB_E_DUPLICATE : 0;
            if (!o) m[key][""] = v;
        } else if (op == 2) {
            rc = bt_putobj(h, id.c_str(), v.data(), static_cast<uint32_t>(v.size())), want = 0;
            EXPECT_EQ(bdb_error(h), o ? 0u : BDB_E_INSERTED);
            m[key][""] = v;
        } else if (op == 3) {
            rc = bt_rmobj(h, id.c_str()), m.erase(key);
        } else if (op < 9) {
            rc = bt_additem(h, id.c_str(), pre, name.c_str(), v.data(), static_cast<uint32_t>(v.size()));
            if (o) want = o->emplace(full, v).second ? 0 : BDB_E_DUPLICATE;
        } else if (op < 11) {
            rc = bt_rmitem(h, id.c_str(), pre, name.c_str()), want = o && o->erase(full) ? 0 : BDB_E_NOTFOUND;
        } else if (op < 13) {
            rc = bt_replace_item(h, id.c_str(), pre, name.c_str(), v.data(), static_cast<uint32_t>(v.size()));
            want = o && o->count(full) ? 0 : BDB_E_NOTFOUND;
            if (!want) (*o)[full] = v;
        } else if (op < 15) {  // clone to no, one, two or three ids, with or without new header data
            std::vector<std::string> to(below(4));
            std::vector<const char *> arr(to.size() + 1);  // ends with null
            for (size_t i = 0; i < to.size(); ++i) arr[i] = (to[i] = new_id()).c_str();
            const bool data = below(2);
            rc = bt_clone(h, id.c_str(), arr.data(), data ? v.data() : nullptr, data ? static_cast<int32_t>(v.size()) : 0);
            want = to.empty() ? 0 : want;
            for (size_t i = 0; o && want == 0 && i < to.size(); ++i) {
                const std::string tk = to[i].substr(0, to[i].find('#'));
                if (m.count(tk)) want = BDB_E_DUPLICATE;
                else (m[tk] = *o)[""] = data && !v.empty() ? v : o->at("");
            }
        } else if (op == 15) {
            value = got([&](void **p) { return bt_getobj(h, id.c_str(), p); });
            if (o) expected = o->at("");
        } else if (op < 18) {
            value = got([&](void **p) { return bt_getitem(h, id.c_str(), pre, name.c_str(), p); });
            if (o && o->count(full)) expected = o->at(full);
        } else {
            value = list(h, id.c_str(), pre);
            if (o) expected = "";
            for (auto &[n, val] : o ? *o : Items{})
                if (!n.empty() && n.starts_with(prefix)) *expected += n.substr(prefix.size()) + "|";
        }
        if (op >= 15) rc = value ? 0 : -1, want = expected ? 0 : BDB_E_NOTFOUND;
        EXPECT_EQ(value, expected);
        EXPECT_EQ(failure(h, rc), want);
        if (step % 500 == 0) {  // after a close and reopen the store holds exactly the model's records
            ASSERT_EQ(bt_closedb(h), 0);
            ASSERT_NE(h = bt_initdb(dir.file("odb").c_str(), 0, 0, GetParam(), 0, nullptr), nullptr);
            Items records;
            for (auto &[k, items] : m)
                for (auto &[n, val] : items) records[k + '\0' + (n.empty() ? "" : n + '\0')] = val;
            ASSERT_TRUE(vt::walk(h) == decltype(vt::walk(h))(records.begin(), records.end()));
            ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
        }
    }
    EXPECT_EQ(bt_closedb(h), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, ObjectModel, ::testing::Values(BDB_PRIVATE, BDB_SHARED),
                         [](const auto &info) { return info.param == BDB_PRIVATE ? "Private" : "Shared"; });

datum D(const std::string &s) { return datum{const_cast<char *>(s.data()), s.size()}; }
std::string S(datum d) { return d.dptr ? std::string(static_cast<char *>(d.dptr), d.dsize) : "<missing>"; }
std::map<std::string, std::string> all(DBM *db) {
    std::map<std::string, std::string> out;
    for (datum k = dbm_firstkey(db); k.dptr; k = dbm_nextkey(db)) EXPECT_TRUE(out.emplace(S(k), S(dbm_fetch(db, k))).second);
    return out;
}

TEST(Ndbm, StoresFetchesWalksAndOpenFlagsActAsForOpen) {
    vt::TempDir dir;
    const std::string name = dir.file("m"), file = name + ".db";
    const mode_t mask = umask(022);
    DBM *db = dbm_open(name.c_str(), O_RDWR | O_CREAT, 0640);
    umask(mask);
    ASSERT_NE(db, nullptr);
    struct stat st;  // NAME.db, there from the start with the mode asked for
    EXPECT_TRUE(stat(file.c_str(), &st) == 0 && (st.st_mode & 0777) == 0640 && !dbm_firstkey(db).dptr);
    std::mt19937 rng(16);
    std::map<std::string, std::string> model;
    for (int i = 0; i < 3000; ++i) {
        const std::string k = "key" + std::to_string(rng() % 100000), v(i % 100 == 0 ? 3000 + rng() % 9000 : rng() % 120, 'a' + i % 26);
        const int r = dbm_store(db, D(k), D(v), i % 2 ? DBM_INSERT : DBM_REPLACE);
        EXPECT_EQ(r, model.count(k) && i % 2 ? 1 : 0);
        if (r == 0) model[k] = v;
    }
    EXPECT_EQ(dbm_store(db, D("e"), datum{nullptr, 0}, DBM_INSERT), 0);
    model["e"] = "";
    EXPECT_TRUE(dbm_fetch(db, D("e")).dptr != nullptr && dbm_fetch(db, D("none")).dptr == nullptr);
    EXPECT_TRUE(dbm_delete(db, D("none")) == -1 && dbm_error(db) == 0);
    EXPECT_TRUE((errno = 0, dbm_store(nullptr, D("k"), D("v"), DBM_INSERT)) == -1 && errno == EINVAL);
    // Refused stores are errors until cleared; none of them changes anything.
    for (const auto &[key, mode] : std::vector<std::pair<std::string, int>>{{"", 0}, {std::string(1025, 'k'), 1}, {"e", 7}}) {
        EXPECT_EQ((errno = 0, dbm_store(db, D(key), D("x"), mode)), -1);
        EXPECT_TRUE(errno == EINVAL && dbm_error(db) != 0 && dbm_clearerr(db) == 0 && dbm_error(db) == 0);
    }
    EXPECT_TRUE(all(db) == model);
    size_t n = 0;
    const size_t total = model.size();  // deleting the key just returned (every third) keeps the walk going
    for (datum k = dbm_firstkey(db); k.dptr; k = dbm_nextkey(db), ++n)
        if (n % 3 == 0) {
            EXPECT_TRUE(model.erase(S(k)) && dbm_delete(db, k) == 0);
        }
    EXPECT_EQ(n, total);
    dbm_close(db);
    ASSERT_NE(db = dbm_open(name.c_str(), O_RDONLY, 0), nullptr);
    EXPECT_TRUE(all(db) == model);
    EXPECT_TRUE(dbm_store(db, D("new"), D("x"), DBM_REPLACE) == -1 && errno == EPERM && dbm_error(db) != 0);
    const std::string kept = model.begin()->first;
    EXPECT_TRUE(dbm_delete(db, D(kept)) == -1 && dbm_fetch(db, D(kept)).dptr != nullptr);
    auto opens = [&](int flags, int err) {  // true when it opened; else errno must be err
        errno = 0;
        DBM *o = dbm_open(name.c_str(), flags, 0644);
        EXPECT_EQ(o ? err : errno, err) << std::hex << flags;
        if (o) dbm_close(o);
        return o != nullptr;
    };
    EXPECT_FALSE(opens(O_RDWR, EAGAIN));  // a reader has it open
    dbm_close(db);
    EXPECT_FALSE(opens(O_RDWR | O_CREAT | O_EXCL, EEXIST));
    EXPECT_TRUE(opens(O_RDWR | O_TRUNC, 0));
    ASSERT_NE(db = dbm_open(name.c_str(), O_RDONLY, 0), nullptr);
    EXPECT_TRUE(all(db).empty());
    dbm_close(db);
    // A zero-length file is not a database until O_CREAT makes it one;
    // anything else that is not a database needs O_TRUNC.
    for (const std::string content : {"", "not a database"}) {
        std::ofstream(file, std::ios::trunc) << content;
        EXPECT_FALSE(opens(O_RDONLY, EINVAL));
        EXPECT_EQ(opens(O_RDWR | O_CREAT, EINVAL), content.empty());
        EXPECT_TRUE(opens(O_RDWR | O_TRUNC, 0)) << content;
    }
    std::filesystem::remove(file);
    EXPECT_FALSE(opens(O_RDONLY, ENOENT));
    EXPECT_TRUE(opens(O_WRONLY | O_CREAT, 0));
}

}  // namespace
