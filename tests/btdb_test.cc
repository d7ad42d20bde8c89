// The object store: objects and items under composed keys, kept apart from
// each other, listed, cloned and removed; key limits; opening an object
// database; and a model-based test of random object and item operations.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>

#include "test_util.h"

namespace {

using Records = std::vector<std::pair<std::string, std::string>>;

std::string hdr(const std::string &id) { return id + std::string(1, '\0'); }
std::string item_key(const std::string &id, const std::string &name) {
    return id + std::string(1, '\0') + name + std::string(1, '\0');
}

// Value of an object, or nullopt when the call fails.
std::optional<std::string> getobj(bdb_handle *h, const char *id) {
    void *p = reinterpret_cast<void *>(1);
    int n = bt_getobj(h, id, &p);
    if (n < 0) return std::nullopt;
    EXPECT_EQ(n == 0, p == nullptr);
    std::string v(n ? static_cast<char *>(p) : "", static_cast<size_t>(n));
    if (n) {
        EXPECT_EQ(static_cast<char *>(p)[n], '\0');
    }
    std::free(p);
    return v;
}
std::optional<std::string> getitem(bdb_handle *h, const char *id, const char *prefix, const char *name) {
    void *p = nullptr;
    int n = bt_getitem(h, id, prefix, name, &p);
    if (n < 0) return std::nullopt;
    EXPECT_EQ(n == 0, p == nullptr);
    std::string v(n ? static_cast<char *>(p) : "", static_cast<size_t>(n));
    std::free(p);
    return v;
}
int additem(bdb_handle *h, const char *id, const char *prefix, const char *name, const std::string &v) {
    return bt_additem(h, id, prefix, name, v.data(), static_cast<uint32_t>(v.size()));
}
int mkobj(bdb_handle *h, const char *id, const std::string &v) {
    return bt_mkobj(h, id, v.data(), static_cast<uint32_t>(v.size()));
}

// The names bt_getitem_list gives (frees the list); rc is its result.
std::vector<std::string> list(bdb_handle *h, const char *id, const char *prefix, int *rc = nullptr) {
    char **l = reinterpret_cast<char **>(8);
    uint32_t count = 12345;
    int r = bt_getitem_list(h, id, prefix, &l, &count);
    if (rc) *rc = r;
    std::vector<std::string> out;
    if (r < 0) {
        EXPECT_EQ(l, reinterpret_cast<char **>(8));  // untouched
        EXPECT_EQ(count, 12345u);
        return out;
    }
    EXPECT_EQ(static_cast<uint32_t>(r), count);
    if (count == 0) {
        EXPECT_EQ(l, nullptr);
    }
    for (uint32_t i = 0; l && l[i]; ++i) out.emplace_back(l[i]);
    EXPECT_EQ(out.size(), count);
    for (uint32_t i = 0; l && l[i]; ++i) std::free(l[i]);
    std::free(l);
    return out;
}

// Each call must fail with code and leave it in the handle.
void expect_refused(bdb_handle *h, uint32_t code, const std::vector<std::function<int()>> &calls) {
    for (size_t i = 0; i < calls.size(); ++i) {
        bdb_seterror(h, 0);
        EXPECT_EQ(calls[i](), -1) << "call " << i;
        EXPECT_EQ(bdb_error(h), code) << "call " << i;
    }
}

class ObjStore : public ::testing::Test {
protected:
    void SetUp() override {
        uint32_t err = 0;
        h = bt_initdb(dir.file("odb").c_str(), 0, 0, BDB_PRIVATE, 0, &err);
        ASSERT_NE(h, nullptr) << bdbstrerr(err);
    }
    void TearDown() override {
        if (h) {
            EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
            EXPECT_EQ(bt_closedb(h), 0);
        }
    }
    // An object with items (name, value), every item under an empty prefix.
    void make(const std::string &id, const std::string &value, const std::vector<std::string> &items) {
        ASSERT_EQ(mkobj(h, id.c_str(), value), 0) << id;
        for (auto &n : items) ASSERT_EQ(additem(h, id.c_str(), "", n.c_str(), id + "/" + n), 0) << n;
    }
    vt::TempDir dir;
    bdb_handle *h = nullptr;
};

TEST_F(ObjStore, CarItemsListedByPrefix) {
    ASSERT_EQ(mkobj(h, "car", "red"), 0);
    ASSERT_EQ(additem(h, "car", "door.", "left", "L"), 0);
    ASSERT_EQ(additem(h, "car", "door.", "right", "R"), 0);
    ASSERT_EQ(additem(h, "car", "", "wheel", "W"), 0);
    // The records under their composed keys.
    EXPECT_EQ(vt::walk(h), (Records{{hdr("car"), "red"},
                                    {item_key("car", "door.left"), "L"},
                                    {item_key("car", "door.right"), "R"},
                                    {item_key("car", "wheel"), "W"}}));
    using S = std::vector<std::string>;
    int rc = -1;
    EXPECT_EQ(list(h, "car", "door.", &rc), (S{"left", "right"}));
    EXPECT_EQ(rc, 2);
    EXPECT_EQ(list(h, "car", nullptr, &rc), (S{"door.left", "door.right", "wheel"}));
    EXPECT_EQ(rc, 3);
    EXPECT_EQ(list(h, "car", ""), (S{"door.left", "door.right", "wheel"}));
    EXPECT_EQ(list(h, "car", "door.l"), (S{"eft"}));
    EXPECT_EQ(list(h, "car#7", "d"), (S{"oor.left", "oor.right"}));
    EXPECT_EQ(list(h, "car", "door.left"), (S{""}));
    EXPECT_EQ(list(h, "car", "x", &rc), S{});
    EXPECT_EQ(rc, 0);
    // Missing object.
    EXPECT_EQ(list(h, "bus", nullptr, &rc), S{});
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    // An object without items.
    ASSERT_EQ(mkobj(h, "bike", ""), 0);
    EXPECT_EQ(list(h, "bike", nullptr, &rc), S{});
    EXPECT_EQ(rc, 0);
}

TEST_F(ObjStore, ItemNamesHeadersAndIds) {
    ASSERT_EQ(mkobj(h, "car", "red"), 0);
    ASSERT_EQ(additem(h, "car", "door.", "left", "L"), 0);
    // One record, however the name is split.
    EXPECT_EQ(getitem(h, "car", "", "door.left"), "L");
    EXPECT_EQ(getitem(h, "car", nullptr, "door.left"), "L");
    EXPECT_EQ(getitem(h, "car", "do", "or.left"), "L");
    EXPECT_EQ(getitem(h, "car", "door.left", ""), "L");
    EXPECT_EQ(additem(h, "car", "", "door.left", "again"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DUPLICATE);
    ASSERT_EQ(bt_replace_item(h, "car", "door", ".left", "l2", 2), 0);
    EXPECT_EQ(getitem(h, "car", "door.", "left"), "l2");
    // Empty prefix and name: the header itself.
    EXPECT_EQ(getitem(h, "car", "", ""), "red");
    EXPECT_EQ(getitem(h, "car", nullptr, ""), "red");
    EXPECT_EQ(additem(h, "car", "", "", "x"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DUPLICATE);
    EXPECT_EQ(getobj(h, "car"), "red");

    // What follows a '#' plays no part.
    EXPECT_EQ(getobj(h, "car#7"), "red");
    EXPECT_EQ(getitem(h, "car#x", "door.", "left"), "l2");
    ASSERT_EQ(mkobj(h, "a", "A"), 0);
    EXPECT_EQ(getobj(h, "a#x"), "A");
    EXPECT_EQ(mkobj(h, "a#y", "again"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DUPLICATE);
    ASSERT_EQ(additem(h, "a#7", "", "tyre", "T"), 0);
    EXPECT_EQ(getitem(h, "a", nullptr, "tyre"), "T");
    ASSERT_EQ(bt_rmitem(h, "a#9", "ty", "re"), 0);
    EXPECT_EQ(getitem(h, "a", nullptr, "tyre"), std::nullopt);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);

    // Objects: duplicate, write of a missing one, empty values.
    bdb_seterror(h, 0);
    ASSERT_EQ(bt_putobj(h, "new", "nv", 2), 0);
    EXPECT_EQ(bdb_error(h), BDB_E_INSERTED);
    bdb_seterror(h, 0);
    ASSERT_EQ(bt_putobj(h, "new#1", "nv2", 3), 0);
    EXPECT_EQ(bdb_error(h), 0u);
    EXPECT_EQ(getobj(h, "new"), "nv2");
    ASSERT_EQ(mkobj(h, "empty", ""), 0);
    EXPECT_EQ(getobj(h, "empty"), "");
    ASSERT_EQ(additem(h, "empty", "", "e", ""), 0);
    EXPECT_EQ(getitem(h, "empty", "", "e"), "");
    EXPECT_EQ(getobj(h, "nothing"), std::nullopt);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);

    // Missing objects and items store nothing.
    const Records before = vt::walk(h);
    EXPECT_EQ(additem(h, "nothing", "", "x", "v"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_EQ(bt_replace_item(h, "car", "", "nothing", "v", 1), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_EQ(bt_replace_item(h, "nothing", "", "x", "v", 1), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_EQ(bt_rmitem(h, "car", "", "nothing"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);

    // Null ids and names.
    void *p = nullptr;
    char **l = nullptr;
    uint32_t c = 0;
    const char *ids[] = {"x", nullptr};
    expect_refused(h, BDB_E_PARAM,
                   {[&] { return bt_mkobj(h, nullptr, "v", 1); }, [&] { return bt_getobj(h, nullptr, &p); },
                    [&] { return bt_putobj(h, nullptr, "v", 1); }, [&] { return bt_rmobj(h, nullptr); },
                    [&] { return bt_clone(h, nullptr, ids, nullptr, 0); },
                    [&] { return bt_getitem(h, nullptr, "", "x", &p); },
                    [&] { return bt_getitem(h, "car", "", nullptr, &p); },
                    [&] { return bt_additem(h, nullptr, "", "x", "v", 1); },
                    [&] { return bt_additem(h, "car", "", nullptr, "v", 1); },
                    [&] { return bt_rmitem(h, nullptr, "", "x"); }, [&] { return bt_rmitem(h, "car", "", nullptr); },
                    [&] { return bt_replace_item(h, nullptr, "", "x", "v", 1); },
                    [&] { return bt_replace_item(h, "car", "", nullptr, "v", 1); },
                    [&] { return bt_getitem_list(h, nullptr, "", &l, &c); },
                    [&] { return bt_getitem_list(h, "car", "", nullptr, &c); },
                    [&] { return bt_getitem_list(h, "car", "", &l, nullptr); }});
    EXPECT_EQ(vt::walk(h), before);
    errno = 0;
    EXPECT_EQ(bt_mkobj(nullptr, "x", "v", 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(ObjStore, ObjectsWithSharedPrefixesStayApart) {
    make("a", "A", {"1", "b", "x"});
    make("ab", "AB", {"1", "y"});
    make("aa", "AA", {"z"});
    make("b", "B", {"q"});
    using S = std::vector<std::string>;
    EXPECT_EQ(list(h, "a", nullptr), (S{"1", "b", "x"}));
    EXPECT_EQ(list(h, "ab", nullptr), (S{"1", "y"}));
    EXPECT_EQ(list(h, "a", "b"), (S{""}));

    // A clone of a takes a's items only.
    const char *to[] = {"c", nullptr};
    ASSERT_EQ(bt_clone(h, "a", to, nullptr, 0), 0);
    EXPECT_EQ(list(h, "c", nullptr), (S{"1", "b", "x"}));
    EXPECT_EQ(getobj(h, "c"), "A");
    EXPECT_EQ(getitem(h, "c", "", "b"), "a/b");

    // Removing a leaves ab, aa and the rest alone.
    Records expected;
    for (auto &r : vt::walk(h))
        if (r.first.compare(0, 2, std::string("a\0", 2)) != 0) expected.push_back(r);
    ASSERT_EQ(bt_rmobj(h, "a"), 0);
    EXPECT_EQ(vt::walk(h), expected);
    EXPECT_EQ(getobj(h, "a"), std::nullopt);
    EXPECT_EQ(list(h, "ab", nullptr), (S{"1", "y"}));
    EXPECT_EQ(list(h, "aa", nullptr), (S{"z"}));
    // Removing ab does not touch aa (which sorts before it) nor b.
    ASSERT_EQ(bt_rmobj(h, "ab#2"), 0);
    EXPECT_EQ(list(h, "aa", nullptr), (S{"z"}));
    EXPECT_EQ(list(h, "b", nullptr), (S{"q"}));
    EXPECT_EQ(getobj(h, "b"), "B");
}

TEST_F(ObjStore, RemovingObjects) {
    make("a", "A", {"1", "2"});
    make("m", "M", {});
    make("z", "Z", {"1", "2", "3"});
    // The object with the highest keys: the walk ends at the end.
    ASSERT_EQ(bt_rmobj(h, "z"), 0);
    EXPECT_EQ(vt::walk(h),
              (Records{{hdr("a"), "A"}, {item_key("a", "1"), "a/1"}, {item_key("a", "2"), "a/2"}, {hdr("m"), "M"}}));
    // The highest object without items.
    ASSERT_EQ(bt_rmobj(h, "m"), 0);
    // A missing object: nothing removed.
    const Records before = vt::walk(h);
    EXPECT_EQ(bt_rmobj(h, "m"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_EQ(bt_rmobj(h, ""), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_EQ(vt::walk(h), before);
    // Many items across pages.
    make("big", std::string(3000, 'B'), {});
    for (int i = 0; i < 500; ++i) {
        std::string n = "item" + std::to_string(i);
        ASSERT_EQ(additem(h, "big", "", n.c_str(), std::string(static_cast<size_t>(i % 5 == 0 ? 2100 : 40), 'v')), 0);
    }
    ASSERT_EQ(bt_rmobj(h, "big"), 0);
    EXPECT_EQ(vt::walk(h), before);
    ASSERT_EQ(bt_rmobj(h, "a"), 0);
    EXPECT_TRUE(vt::walk(h).empty());
}

TEST_F(ObjStore, Cloning) {
    make("a", "hdr", {"i1", "i2", "i3"});
    make("z", "last", {"k"});
    using S = std::vector<std::string>;
    const char *bc[] = {"b", "c", nullptr};
    ASSERT_EQ(bt_clone(h, "a", bc, nullptr, 0), 0);
    for (const char *id : {"b", "c"}) {
        EXPECT_EQ(getobj(h, id), "hdr");
        EXPECT_EQ(list(h, id, nullptr), (S{"i1", "i2", "i3"}));
        EXPECT_EQ(getitem(h, id, "", "i2"), "a/i2");
    }
    // New header data; items keep their own values. A zero length means
    // the source's header.
    const char *de[] = {"d#1", "e", nullptr};
    ASSERT_EQ(bt_clone(h, "a#x", de, "xyz", 3), 0);
    const char *f[] = {"f", nullptr};
    ASSERT_EQ(bt_clone(h, "a", f, "ignored", 0), 0);
    EXPECT_EQ(getobj(h, "d"), "xyz");
    EXPECT_EQ(getobj(h, "e"), "xyz");
    EXPECT_EQ(getobj(h, "f"), "hdr");
    EXPECT_EQ(getitem(h, "e", "", "i3"), "a/i3");
    EXPECT_EQ(getobj(h, "a"), "hdr");
    // The object with the highest keys (its walk ends at the end).
    const char *y[] = {"y", nullptr};
    ASSERT_EQ(bt_clone(h, "z", y, nullptr, 0), 0);
    EXPECT_EQ(list(h, "y", nullptr), (S{"k"}));
    EXPECT_EQ(getitem(h, "y", "", "k"), "z/k");

    // Empty array: nothing changes.
    const Records before = vt::walk(h);
    const char *none[] = {nullptr};
    EXPECT_EQ(bt_clone(h, "a", none, "xyz", 3), 0);
    EXPECT_EQ(vt::walk(h), before);
    // Into an object that exists, or from one that does not.
    EXPECT_EQ(bt_clone(h, "a", bc, nullptr, 0), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DUPLICATE);
    const char *self[] = {"a#2", nullptr};
    EXPECT_EQ(bt_clone(h, "a", self, nullptr, 0), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DUPLICATE);
    const char *g[] = {"g", nullptr};
    EXPECT_EQ(bt_clone(h, "missing", g, nullptr, 0), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_EQ(vt::walk(h), before);
    // Stops at the first failure: what was copied stays, later ids untouched.
    const char *hbj[] = {"h", "b", "j", nullptr};
    EXPECT_EQ(bt_clone(h, "a", hbj, nullptr, 0), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DUPLICATE);
    EXPECT_EQ(list(h, "h", nullptr), (S{"i1", "i2", "i3"}));
    EXPECT_EQ(getobj(h, "j"), std::nullopt);
    EXPECT_EQ(bt_clone(h, "a", nullptr, nullptr, 0), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_PARAM);

    // An object spread over many pages, cloned twice: the copies split
    // pages while the source is being read.
    ASSERT_EQ(mkobj(h, "m", "big"), 0);
    S names;
    for (int i = 0; i < 400; ++i) {
        char n[8];
        std::snprintf(n, sizeof n, "%03d", i);
        names.emplace_back(n);
        ASSERT_EQ(additem(h, "m", "", n, std::string(static_cast<size_t>(i % 9 == 0 ? 2500 : 60), 'v')), 0);
    }
    const char *mm[] = {"ma", "mb", nullptr};
    ASSERT_EQ(bt_clone(h, "m", mm, nullptr, 0), 0);
    EXPECT_EQ(list(h, "ma", nullptr), names);
    EXPECT_EQ(list(h, "mb", nullptr), names);
    EXPECT_EQ(list(h, "m", nullptr), names);
    EXPECT_EQ(getitem(h, "mb", "", "099"), std::string(2500, 'v'));
}

TEST_F(ObjStore, KeysLongerThanTheLimitAreRefused) {
    const std::string id1023(1023, 'o'), id1024(1024, 'o');
    // Header keys: id part + NUL.
    ASSERT_EQ(mkobj(h, id1023.c_str(), "max"), 0);
    EXPECT_EQ(getobj(h, id1023.c_str()), "max");
    const Records before = vt::walk(h);
    const std::string huge(5000, 'h');
    for (const std::string &id : {id1024, huge}) {
        const char *c = id.c_str();
        void *p = nullptr;
        char **l = nullptr;
        uint32_t n = 0;
        const char *to[] = {"t", nullptr};
        const char *from[] = {c, nullptr};
        expect_refused(h, BDB_E_KEYSIZE,
                       {[&] { return mkobj(h, c, "v"); }, [&] { return bt_getobj(h, c, &p); },
                        [&] { return bt_putobj(h, c, "v", 1); }, [&] { return bt_rmobj(h, c); },
                        [&] { return bt_clone(h, c, to, nullptr, 0); },
                        [&] { return bt_clone(h, id1023.c_str(), from, nullptr, 0); },
                        [&] { return bt_getitem(h, c, "", "", &p); }, [&] { return additem(h, c, "", "i", "v"); },
                        [&] { return bt_rmitem(h, c, "", "i"); },
                        [&] { return bt_replace_item(h, c, "", "i", "v", 1); },
                        [&] { return bt_getitem_list(h, c, nullptr, &l, &n); }});
    }
    EXPECT_EQ(vt::walk(h), before);
    // What follows a '#' does not count.
    const std::string tagged = "t#" + huge;
    ASSERT_EQ(mkobj(h, tagged.c_str(), "T"), 0);
    EXPECT_EQ(getobj(h, "t"), "T");

    // Item keys: id part, NUL, name, NUL: "t", NUL, 1021 name bytes, NUL.
    const std::string pre(500, 'p'), name521(521, 'n'), name522(522, 'n');
    ASSERT_EQ(additem(h, "t", pre.c_str(), name521.c_str(), "ok"), 0);
    EXPECT_EQ(getitem(h, "t", "", (pre + name521).c_str()), "ok");
    const Records with_item = vt::walk(h);
    void *p = nullptr;
    char **l = nullptr;
    uint32_t n = 0;
    expect_refused(h, BDB_E_KEYSIZE,
                   {[&] { return additem(h, "t", pre.c_str(), name522.c_str(), "v"); },
                    [&] { return bt_getitem(h, "t", pre.c_str(), name522.c_str(), &p); },
                    [&] { return bt_rmitem(h, "t", pre.c_str(), name522.c_str()); },
                    [&] { return bt_replace_item(h, "t", pre.c_str(), name522.c_str(), "v", 1); },
                    [&] { return additem(h, "t", huge.c_str(), huge.c_str(), "v"); },
                    [&] { return bt_getitem_list(h, "t", huge.c_str(), &l, &n); }});
    EXPECT_EQ(vt::walk(h), with_item);
    // A clone whose id would make an item key too long fails on that item
    // and stores nothing under an oversized key.
    const char *longer[] = {"tt", nullptr};
    EXPECT_EQ(bt_clone(h, "t", longer, nullptr, 0), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_KEYSIZE);
    EXPECT_EQ(getobj(h, "tt"), "T");  // the header came first
    for (auto &r : vt::walk(h)) EXPECT_LE(r.first.size(), 1024u);
}

// Reads that start failing part-way: removal, cloning and listing stop with
// the read error, keep the object's header, and leave a sound database.
int g_reads_left = 0;
ssize_t limited_pread(int fd, void *b, size_t n, off_t o) {
    if (g_reads_left-- <= 0) {
        errno = EIO;
        return -1;
    }
    return ::pread(fd, b, n, o);
}

TEST(ObjStoreIo, ReadErrorsStopCallsCleanly) {
    vt::TempDir d;
    const std::string path = d.file("odb");
    uint32_t err = 0;
    bdb_handle *h = bt_initdb(path.c_str(), 0, 32768, BDB_PRIVATE, 0, &err);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(mkobj(h, "a", "A"), 0);
    ASSERT_EQ(mkobj(h, "big", "B"), 0);
    ASSERT_EQ(mkobj(h, "z", "Z"), 0);
    std::vector<std::string> names;
    for (int i = 0; i < 300; ++i) {
        char n[8];
        std::snprintf(n, sizeof n, "%03d", i);
        names.emplace_back(n);
        ASSERT_EQ(additem(h, "big", "", n, std::string(100, 'v')), 0);
    }
    ASSERT_EQ(bt_closedb(h), 0);
    h = nullptr;

    struct Restore {
        ~Restore() { varlo::sysio_reset(); }
    } restore;
    auto reopen = [&] {
        if (h) bt_closedb(h);
        h = bt_initdb(path.c_str(), 0, 32768, BDB_PRIVATE, 0, &err);
        ASSERT_NE(h, nullptr);
    };
    // Listing: the caller gets what was listed so far, or nothing.
    reopen();
    g_reads_left = 6;
    varlo::sysio.pread = limited_pread;
    char **l = nullptr;
    uint32_t c = 0;
    EXPECT_EQ(bt_getitem_list(h, "big", nullptr, &l, &c), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_READ);
    for (uint32_t i = 0; i < c; ++i) EXPECT_EQ(l[i], names[i]);
    EXPECT_GT(c, 0u);  // the failure came part-way
    EXPECT_LT(c, 300u);
    if (l) {
        EXPECT_EQ(l[c], nullptr);
    }
    for (uint32_t i = 0; i < c; ++i) std::free(l[i]);
    std::free(l);
    varlo::sysio_reset();

    // Cloning.
    reopen();
    g_reads_left = 6;
    varlo::sysio.pread = limited_pread;
    const char *to[] = {"c", nullptr};
    EXPECT_EQ(bt_clone(h, "big", to, nullptr, 0), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_READ);
    varlo::sysio_reset();
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(list(h, "big", nullptr), names);
    // What was copied stays: the header and the first items, in order.
    EXPECT_EQ(getobj(h, "c"), "B");
    auto copied = list(h, "c", nullptr);
    EXPECT_GT(copied.size(), 0u);
    EXPECT_LT(copied.size(), names.size());
    EXPECT_TRUE(std::equal(copied.begin(), copied.end(), names.begin()));

    // Removal.
    reopen();
    g_reads_left = 6;
    varlo::sysio.pread = limited_pread;
    EXPECT_EQ(bt_rmobj(h, "big"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_READ);
    varlo::sysio_reset();
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    EXPECT_EQ(getobj(h, "big"), "B");  // the header stays
    // The items removed so far are the first ones.
    auto left = list(h, "big", nullptr);
    EXPECT_GT(left.size(), 0u);
    EXPECT_LT(left.size(), names.size());
    EXPECT_TRUE(std::equal(left.rbegin(), left.rend(), names.rbegin()));
    ASSERT_EQ(bt_rmobj(h, "big"), 0);
    ASSERT_EQ(bt_rmobj(h, "c"), 0);
    EXPECT_EQ(vt::walk(h), (Records{{hdr("a"), "A"}, {hdr("z"), "Z"}}));
    ASSERT_EQ(bt_closedb(h), 0);
    h = nullptr;
}

TEST(ItemList, ArrayIsReplacedEveryFifteenEntries) {
    char **arr = nullptr;
    uint32_t count = 0;
    std::vector<uint32_t> fresh_at;
    for (uint32_t i = 0; i < 46; ++i) {
        const std::string s = "name" + std::to_string(i);
        const char *sp = s.c_str();
        char **next = nullptr;
        uint32_t n = 0;
        ASSERT_EQ(varlo::arrcat(count, arr, 1, &sp, &next, &n), 1);
        ASSERT_EQ(n, i + 1);
        if (next != arr) {
            fresh_at.push_back(i + 1);
            std::free(arr);
        }
        arr = next;
        count = n;
        for (uint32_t j = 0; j <= i; ++j) ASSERT_EQ(std::string(arr[j]), "name" + std::to_string(j));
        ASSERT_EQ(arr[i + 1], nullptr);
    }
    EXPECT_EQ(fresh_at, (std::vector<uint32_t>{1, 16, 31, 46}));
    for (uint32_t j = 0; j < count; ++j) std::free(arr[j]);
    std::free(arr);
}

TEST_F(ObjStore, ListGrowsPastFifteenAndThirty) {
    ASSERT_EQ(mkobj(h, "o", "O"), 0);
    ASSERT_EQ(mkobj(h, "p", "P"), 0);  // follows o's items
    ASSERT_EQ(additem(h, "p", "", "zz", "x"), 0);
    std::vector<std::string> names;
    for (int i = 0; i < 47; ++i) {
        char n[8];
        std::snprintf(n, sizeof n, "n%02d", i);
        ASSERT_EQ(additem(h, "o", "", n, "v"), 0);
        names.emplace_back(n);
        int rc = -1;
        ASSERT_EQ(list(h, "o", nullptr, &rc), names);
        ASSERT_EQ(rc, i + 1);
    }
    std::vector<std::string> suffixes;
    for (auto &n : names) suffixes.push_back(n.substr(1));
    EXPECT_EQ(list(h, "o", "n"), suffixes);
}

TEST(ObjInit, NamesCachesAndRefusals) {
    vt::TempDir d;
    char cwd[4096];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(::chdir(d.path().c_str()), 0);
    uint32_t err = 1;
    bdb_handle *h = bt_initdb(nullptr, 0, 0, BDB_PRIVATE, 0, &err);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(err, 0u);
    EXPECT_STREQ(bdb_get_dbname(h), "odb");
    EXPECT_EQ(h->ncache, 7u);  // 57344 bytes
    ASSERT_EQ(mkobj(h, "kept", "v"), 0);
    EXPECT_EQ(bt_closedb(h), 0);
    ASSERT_EQ(::chdir(cwd), 0);
    EXPECT_TRUE(std::filesystem::exists(d.file("odb")));

    // An existing database is opened as it is.
    h = bt_initdb(d.file("odb").c_str(), 0, 100000, BDB_PRIVATE, 0, nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->ncache, 13u);  // rounded up to whole pages
    EXPECT_EQ(getobj(h, "kept"), "v");
    EXPECT_EQ(bt_closedb(h), 0);

    // Refusals create nothing.
    const std::string name4096 = d.path() + "/" + std::string(4096 - d.path().size() - 1, 'n');
    ASSERT_EQ(name4096.size(), 4096u);
    err = 0;
    EXPECT_EQ(bt_initdb(name4096.c_str(), 0, 0, BDB_PRIVATE, 0, &err), nullptr);
    EXPECT_EQ(err, BDB_E_PARAM);
    const std::string longer = name4096 + std::string(10000, 'm');
    EXPECT_EQ(bt_initdb(longer.c_str(), 0, 0, BDB_PRIVATE, 0, &err), nullptr);
    EXPECT_EQ(err, BDB_E_PARAM);
    EXPECT_EQ(bt_initdb(d.file("badmode").c_str(), 0, 0, 3, 0, &err), nullptr);
    EXPECT_EQ(err, BDB_E_PARAM);
    // Not a database: the open refuses it.
    {
        FILE *f = std::fopen(d.file("text").c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs("hello", f);
        std::fclose(f);
    }
    EXPECT_EQ(bt_initdb(d.file("text").c_str(), 0, 0, BDB_PRIVATE, 0, &err), nullptr);
    EXPECT_EQ(err, BDB_E_DBTYPE);
    size_t files = 0;
    for (auto &e : std::filesystem::directory_iterator(d.path())) {
        (void)e;
        ++files;
    }
    EXPECT_EQ(files, 2u);  // odb and text
    errno = 0;
    EXPECT_EQ(bt_closedb(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

// ---------------------------------------------------------------------------
// Model-based test
// ---------------------------------------------------------------------------

struct Obj {
    std::string value;
    std::map<std::string, std::string> items;  // full item name -> value
};
using Model = std::map<std::string, Obj>;

// The records the model stands for, in key order.
Records expected_records(const Model &m) {
    std::map<std::string, std::string> recs;
    for (auto &[id, o] : m) {
        recs[hdr(id)] = o.value;
        for (auto &[n, v] : o.items) recs[item_key(id, n)] = v;
    }
    return Records(recs.begin(), recs.end());
}

struct ModelRun {
    explicit ModelRun(uint64_t seed) : rng(seed) {}
    std::mt19937_64 rng;
    uint64_t below(uint64_t n) { return rng() % n; }

    std::string id() {
        static const char *ids[] = {"a", "ab", "abc", "aa", "b", "ba", "z", "zz", "car", "c"};
        std::string s = ids[below(10)];
        if (below(3) == 0) s += static_cast<char>('a' + below(3));  // more ids sharing prefixes
        if (below(5) == 0) s += "#" + std::to_string(below(100));
        return s;
    }
    static std::string part(const std::string &id) { return id.substr(0, id.find('#')); }
    // A split item name: prefix (possibly null) and name.
    std::pair<std::optional<std::string>, std::string> name(bool may_be_empty) {
        static const char *prefixes[] = {"", "door.", "do", "w", "x.y."};
        static const char *names[] = {"left", "right", "or.left", "heel", "1", "2", "z"};
        std::optional<std::string> pre;
        if (below(4)) pre = prefixes[below(5)];
        std::string n = names[below(7)];
        if (below(2)) n += std::to_string(below(12));
        if (may_be_empty && below(15) == 0) n.clear();
        return {pre, n};
    }
    std::string value() {
        size_t n;
        switch (below(6)) {
        case 0: n = 0; break;
        case 1: n = 2048 + below(6000); break;
        default: n = 1 + below(100);
        }
        return std::string(n, static_cast<char>('a' + below(26)));
    }
};

class ObjectModel : public ::testing::TestWithParam<int> {};

void check_same(bdb_handle *h, const Model &m) {
    ASSERT_EQ(vt::walk(h), expected_records(m));
    ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
}

TEST_P(ObjectModel, RandomOperationsMatchTheModel) {
    const int mode = GetParam();
    vt::TempDir dir;
    const std::string path = dir.file("odb");
    uint32_t err = 0;
    bdb_handle *h = bt_initdb(path.c_str(), 0, 0, mode, 0, &err);
    ASSERT_NE(h, nullptr) << bdbstrerr(err);
    Model m;
    ModelRun r(mode == BDB_PRIVATE ? 20240611 : 77);
    for (int step = 0; step < 8000; ++step) {
        const std::string id = r.id(), key = ModelRun::part(id);
        const char *idc = id.c_str();
        const bool have = m.count(key) > 0;
        const int op = static_cast<int>(r.below(100));
        SCOPED_TRACE("step " + std::to_string(step) + " op " + std::to_string(op) + " id " + id);
        if (op < 10) {  // mkobj
            std::string v = r.value();
            int rc = mkobj(h, idc, v);
            if (have) {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_DUPLICATE);
            } else {
                ASSERT_EQ(rc, 0);
                m[key].value = v;
            }
        } else if (op < 15) {  // putobj
            std::string v = r.value();
            bdb_seterror(h, 0);
            ASSERT_EQ(bt_putobj(h, idc, v.data(), static_cast<uint32_t>(v.size())), 0);
            ASSERT_EQ(bdb_error(h), have ? 0u : BDB_E_INSERTED);
            m[key].value = v;
        } else if (op < 20) {  // getobj
            auto got = getobj(h, idc);
            if (have) {
                ASSERT_EQ(got, m[key].value);
            } else {
                ASSERT_EQ(got, std::nullopt);
                ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
            }
        } else if (op < 24) {  // rmobj
            int rc = bt_rmobj(h, idc);
            if (have) {
                ASSERT_EQ(rc, 0);
                m.erase(key);
            } else {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
            }
        } else if (op < 50) {  // additem
            auto [pre, n] = r.name(true);
            const std::string full = pre.value_or("") + n, v = r.value();
            int rc = additem(h, idc, pre ? pre->c_str() : nullptr, n.c_str(), v);
            if (!have) {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
            } else if (full.empty() || m[key].items.count(full)) {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_DUPLICATE);
            } else {
                ASSERT_EQ(rc, 0);
                m[key].items[full] = v;
            }
        } else if (op < 60) {  // rmitem
            auto [pre, n] = r.name(false);
            const std::string full = pre.value_or("") + n;
            int rc = bt_rmitem(h, idc, pre ? pre->c_str() : nullptr, n.c_str());
            if (have && m[key].items.erase(full)) {
                ASSERT_EQ(rc, 0);
            } else {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
            }
        } else if (op < 70) {  // replace_item
            auto [pre, n] = r.name(false);
            const std::string full = pre.value_or("") + n, v = r.value();
            int rc = bt_replace_item(h, idc, pre ? pre->c_str() : nullptr, n.c_str(), v.data(),
                                     static_cast<uint32_t>(v.size()));
            if (have && m[key].items.count(full)) {
                ASSERT_EQ(rc, 0);
                m[key].items[full] = v;
            } else {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
            }
        } else if (op < 82) {  // getitem
            auto [pre, n] = r.name(true);
            const std::string full = pre.value_or("") + n;
            auto got = getitem(h, idc, pre ? pre->c_str() : nullptr, n.c_str());
            if (have && full.empty()) {
                ASSERT_EQ(got, m[key].value);
            } else if (have && m[key].items.count(full)) {
                ASSERT_EQ(got, m[key].items[full]);
            } else {
                ASSERT_EQ(got, std::nullopt);
                ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
            }
        } else if (op < 92) {  // getitem_list
            auto [pre, n] = r.name(false);
            (void)n;
            int rc = 0;
            auto got = list(h, idc, pre ? pre->c_str() : nullptr, &rc);
            if (!have) {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
            } else {
                std::vector<std::string> want;
                const std::string p = pre.value_or("");
                for (auto &[full, v] : m[key].items)
                    if (full.compare(0, p.size(), p) == 0) want.push_back(full.substr(p.size()));
                ASSERT_EQ(got, want);
            }
        } else {  // clone to one to three ids
            std::vector<std::string> to;
            for (uint64_t i = 0, n = 1 + r.below(3); i < n; ++i) to.push_back(r.id());
            std::vector<const char *> arr;
            for (auto &t : to) arr.push_back(t.c_str());
            arr.push_back(nullptr);
            const bool with_data = r.below(2) == 0;
            const std::string data = with_data ? r.value() : std::string();
            int rc = bt_clone(h, idc, arr.data(), with_data ? data.data() : nullptr, static_cast<int32_t>(data.size()));
            uint32_t want_err = 0;
            if (!have) {
                want_err = BDB_E_NOTFOUND;
            } else {
                const Obj src = m[key];
                for (auto &t : to) {
                    const std::string tk = ModelRun::part(t);
                    if (m.count(tk)) {
                        want_err = BDB_E_DUPLICATE;
                        break;
                    }
                    Obj copy = src;
                    if (!data.empty()) copy.value = data;
                    m[tk] = copy;
                }
            }
            if (want_err) {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), want_err);
            } else {
                ASSERT_EQ(rc, 0);
            }
        }
        if (step % 500 == 499) {
            check_same(h, m);
            if (HasFatalFailure()) return;
        }
        if (step % 2000 == 1999) {
            ASSERT_EQ(bt_closedb(h), 0);
            h = bt_initdb(path.c_str(), 0, 0, mode, 0, &err);
            ASSERT_NE(h, nullptr) << bdbstrerr(err);
            check_same(h, m);
            if (HasFatalFailure()) return;
        }
    }
    check_same(h, m);
    EXPECT_EQ(bt_closedb(h), 0);
}

INSTANTIATE_TEST_SUITE_P(Modes, ObjectModel, ::testing::Values(BDB_PRIVATE, BDB_SHARED),
                         [](const auto &info) { return info.param == BDB_PRIVATE ? "Private" : "Shared"; });

}  // namespace
