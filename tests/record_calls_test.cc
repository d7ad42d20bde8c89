// The record calls as a caller sees them: results and codes of every call,
// the statistics counters, the values handed back, bad arguments, key
// lengths, and the compare function.
#include <cerrno>
#include <map>

#include "test_util.h"

namespace {

using vt::reports;

class RecordCalls : public ::testing::Test {
protected:
    void SetUp() override {
        reports().clear();
        h = vt::create_open(dir.file("db"), 0, vt::recording_handler);
        ASSERT_NE(h, nullptr);
    }
    void TearDown() override {
        if (h) {
            EXPECT_EQ(bdb_close(h), 0);
        }
    }
    // The six counters of the record calls, in the order of bdb_stats.
    std::vector<uint32_t> counters() const {
        const bdb_stats *s = h->stats;
        return {s->deletes, s->puts, s->replaces, s->reads, s->updates, s->removes};
    }
    vt::TempDir dir;
    bdb_handle *h = nullptr;
};

TEST_F(RecordCalls, CountersCountEveryCallWhateverItsOutcome) {
    using V = std::vector<uint32_t>;
    EXPECT_EQ(counters(), V({0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(vt::put(h, "a", "1"), 0);
    ASSERT_EQ(vt::put(h, "b", "2"), 0);
    ASSERT_EQ(vt::put(h, "c", "3"), 0);
    EXPECT_EQ(vt::put(h, "a", "dup"), -1);  // fails, still counted
    EXPECT_EQ(counters(), V({0, 4, 0, 0, 0, 0}));

    // Ten reads: three gets (one of a missing key), two firsts, five nexts
    // (the last ones past the end).
    std::string v;
    EXPECT_TRUE(vt::get(h, "a", &v));
    EXPECT_TRUE(vt::get(h, "b", &v));
    EXPECT_FALSE(vt::get(h, "zz", &v));
    char kb[1024];
    for (int i = 0; i < 2; ++i) {
        bdb_datum k{kb, 0}, d{};
        ASSERT_EQ(bdb_first(h, &k, &d), 0);
        std::free(d.ptr);
    }
    bdb_datum k{kb, 1}, d{};
    kb[0] = 'a';
    int ok = 0;
    for (int i = 0; i < 5; ++i) {
        d = bdb_datum{};
        if (bdb_next(h, &k, &d) == 0) ++ok;
        std::free(d.ptr);
    }
    EXPECT_EQ(ok, 2);
    EXPECT_EQ(counters(), V({0, 4, 0, 10, 0, 0}));

    ASSERT_EQ(vt::replace(h, "a", "x"), 0);
    ASSERT_EQ(vt::replace(h, "new", "x"), 0);
    ASSERT_EQ(vt::update(h, "b", "y"), 0);
    EXPECT_EQ(vt::update(h, "missing", "y"), -1);
    ASSERT_EQ(vt::del(h, "c"), 0);
    EXPECT_EQ(vt::del(h, "c"), -1);
    EXPECT_EQ(vt::del(h, "c"), -1);
    EXPECT_TRUE(vt::remove(h, "new", &v));
    EXPECT_FALSE(vt::remove(h, "new", &v));
    EXPECT_EQ(counters(), V({3, 4, 2, 10, 2, 2}));

    // Refusals of a read-only handle are not calls of the engine: nothing
    // counts, nothing is reported.
    ASSERT_EQ(bdb_close(h), 0);
    h = vt::open_db(dir.file("db"), 0, BDB_RDONLY, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    reports().clear();
    EXPECT_EQ(vt::put(h, "q", "q"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
    EXPECT_EQ(vt::del(h, "a"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_RDONLY);
    EXPECT_EQ(counters(), V({0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(reports().empty());
    EXPECT_TRUE(vt::get(h, "a", &v));
    EXPECT_EQ(v, "x");
    EXPECT_EQ(counters(), V({0, 0, 0, 1, 0, 0}));
}

TEST_F(RecordCalls, OutcomesAndCodes) {
    char kb[1024];
    bdb_datum k{kb, 0}, d{};
    // Empty database.
    EXPECT_EQ(bdb_first(h, &k, &d), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_EMPTY);
    EXPECT_FALSE(vt::get(h, "a", nullptr));
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);

    // Replace of an absent key inserts and says so; of a present key it
    // leaves the code as it was.
    bdb_seterror(h, 0);
    ASSERT_EQ(vt::replace(h, "b", "1"), 0);
    EXPECT_EQ(bdb_error(h), BDB_E_INSERTED);
    bdb_seterror(h, 0);
    ASSERT_EQ(vt::replace(h, "b", "2"), 0);
    EXPECT_EQ(bdb_error(h), 0u);
    bdb_seterror(h, BDB_E_EOF);
    ASSERT_EQ(vt::replace(h, "b", "3"), 0);
    EXPECT_EQ(bdb_error(h), BDB_E_EOF);

    // Update of an absent key inserts nothing.
    EXPECT_EQ(vt::update(h, "a", "x"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_FALSE(vt::get(h, "a", nullptr));
    ASSERT_EQ(vt::update(h, "b", "4"), 0);

    EXPECT_EQ(vt::put(h, "b", "dup"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DUPLICATE);
    std::string v;
    ASSERT_TRUE(vt::get(h, "b", &v));
    EXPECT_EQ(v, "4");

    ASSERT_EQ(vt::put(h, "d", "5"), 0);
    // Next after the last key, and from a key that is not there.
    std::memcpy(kb, "d", 1);
    k = bdb_datum{kb, 1};
    d = bdb_datum{};
    EXPECT_EQ(bdb_next(h, &k, &d), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_EOF);
    EXPECT_EQ(d.ptr, nullptr);
    std::memcpy(kb, "c", 1);
    k = bdb_datum{kb, 1};
    EXPECT_EQ(bdb_next(h, &k, &d), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    // Next from a present key gives the following one, key and value.
    std::memcpy(kb, "b", 1);
    k = bdb_datum{kb, 1};
    ASSERT_EQ(bdb_next(h, &k, &d), 0);
    EXPECT_EQ(std::string(kb, k.len), "d");
    EXPECT_EQ(std::string(static_cast<char *>(d.ptr), d.len), "5");
    std::free(d.ptr);

    // Delete and remove of absent keys.
    EXPECT_EQ(vt::del(h, "zz"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    EXPECT_FALSE(vt::remove(h, "zz", &v));
    EXPECT_EQ(bdb_error(h), BDB_E_NOTFOUND);
    ASSERT_TRUE(vt::remove(h, "d", &v));
    EXPECT_EQ(v, "5");
    EXPECT_FALSE(vt::get(h, "d", nullptr));
    ASSERT_EQ(vt::del(h, "b"), 0);
    k = bdb_datum{kb, 0};
    EXPECT_EQ(bdb_first(h, &k, &d), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_EMPTY);
    // None of these expected outcomes is reported.
    EXPECT_TRUE(reports().empty()) << vt::last_context();
}

TEST_F(RecordCalls, ValuesComeBackAsTerminatedCopies) {
    const std::string shortv = "abc", longv(5000, 'L'), binary("a\0b\0", 4), edge(2047, 'e'), edge2(2048, 'f');
    const std::map<std::string, std::string> m = {
        {"short", shortv}, {"long", longv}, {"binary", binary}, {"edge", edge}, {"edge2", edge2}, {"empty", ""}};
    for (auto &[key, val] : m) ASSERT_EQ(vt::put(h, key, val), 0);
    for (auto &[key, val] : m) {
        SCOPED_TRACE(key);
        bdb_datum kd = vt::datum(key), d{};
        ASSERT_EQ(bdb_get(h, &kd, &d), 0);
        ASSERT_EQ(d.len, val.size());
        if (val.empty()) {
            EXPECT_EQ(d.ptr, nullptr);
            ASSERT_EQ(vt::del(h, key), 0);
            continue;
        }
        ASSERT_NE(d.ptr, nullptr);
        EXPECT_EQ(std::memcmp(d.ptr, val.data(), val.size()), 0);
        EXPECT_EQ(static_cast<char *>(d.ptr)[d.len], '\0');
        // A copy: changing it changes nothing stored.
        std::memset(d.ptr, 'Z', d.len);
        std::free(d.ptr);
        std::string again;
        ASSERT_TRUE(vt::get(h, key, &again));
        EXPECT_TRUE(again == val);
        // bdb_remove hands back the same kind of copy.
        bdb_datum r{};
        ASSERT_EQ(bdb_remove(h, &kd, &r), 0);
        ASSERT_EQ(r.len, val.size());
        EXPECT_EQ(std::memcmp(r.ptr, val.data(), val.size()), 0);
        EXPECT_EQ(static_cast<char *>(r.ptr)[r.len], '\0');
        std::free(r.ptr);
    }
    // Keys handed back by first/next are the caller's buffer, exactly.
    ASSERT_EQ(vt::put(h, std::string("k\0ey", 4), "v"), 0);
    auto all = vt::walk(h);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].first, std::string("k\0ey", 4));
}

TEST_F(RecordCalls, BadArgumentsAreRefused) {
    ASSERT_EQ(vt::put(h, "k", "v"), 0);
    const uint32_t puts = h->stats->puts;
    char kb[1024] = "k";
    char xb[] = "x";
    bdb_datum key{kb, 1}, nullkey{nullptr, 3}, data{xb, 1}, nulldata{nullptr, 5};
    auto refused = [&](int rc) {
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(bdb_error(h), BDB_E_PARAM);
        bdb_seterror(h, 0);
    };
    refused(bdb_put(h, nullptr, &data));
    refused(bdb_put(h, &key, nullptr));
    refused(bdb_put(h, &nullkey, &data));
    refused(bdb_put(h, &key, &nulldata));
    refused(bdb_replace(h, &key, &nulldata));
    refused(bdb_update(h, &key, &nulldata));
    refused(bdb_replace(h, nullptr, &data));
    refused(bdb_update(h, &key, nullptr));
    refused(bdb_get(h, nullptr, &data));
    refused(bdb_get(h, &key, nullptr));
    refused(bdb_get(h, &nullkey, &data));
    refused(bdb_delete(h, nullptr));
    refused(bdb_delete(h, &nullkey));
    refused(bdb_remove(h, &key, nullptr));
    refused(bdb_first(h, &key, nullptr));
    refused(bdb_first(h, nullptr, &data));
    bdb_datum nullbuf{nullptr, 0}, out{};
    refused(bdb_first(h, &nullbuf, &out));
    refused(bdb_next(h, &nullbuf, &out));
    EXPECT_EQ(h->stats->puts, puts);
    // Nothing changed.
    auto all = vt::walk(h);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].second, "v");
    // An empty value may come with a null pointer.
    const std::string empty_key = "empty";
    bdb_datum k2 = vt::datum(empty_key), e{nullptr, 0};
    EXPECT_EQ(bdb_put(h, &k2, &e), 0);
    // Null handles: errno EINVAL.
    for (int rc : {bdb_get(nullptr, &key, &data), bdb_put(nullptr, &key, &data), bdb_replace(nullptr, &key, &data),
                   bdb_update(nullptr, &key, &data), bdb_delete(nullptr, &key), bdb_remove(nullptr, &key, &data),
                   bdb_first(nullptr, &key, &data), bdb_next(nullptr, &key, &data)}) {
        EXPECT_EQ(rc, -1);
    }
    errno = 0;
    EXPECT_EQ(bdb_put(nullptr, &key, &data), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(bdb_get_threadid(nullptr), static_cast<uint32_t>(-1));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(bdb_get_threadid(h), 0u);
}

TEST_F(RecordCalls, KeyLengths) {
    const std::string k1024(1024, 'k'), k1025(1025, 'k');
    ASSERT_EQ(vt::put(h, k1024, "max"), 0);
    std::string v;
    ASSERT_TRUE(vt::get(h, k1024, &v));
    EXPECT_EQ(v, "max");
    auto all = vt::walk(h);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].first, k1024);

    for (const std::string &bad : {k1025, std::string(), std::string(5000, 'x')}) {
        SCOPED_TRACE(bad.size());
        EXPECT_EQ(vt::put(h, bad, "v"), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_KEYSIZE);
        EXPECT_EQ(vt::replace(h, bad, "v"), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_KEYSIZE);
        EXPECT_EQ(vt::update(h, bad, "v"), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_KEYSIZE);
        EXPECT_FALSE(vt::remove(h, bad, &v));
        EXPECT_EQ(bdb_error(h), BDB_E_KEYSIZE);
    }
    EXPECT_EQ(vt::walk(h).size(), 1u);
    EXPECT_EQ(bdb_check(h), 0);
}

// Reverse byte order of the default comparison.
int reverse_compare(const bdb_datum *a, const bdb_datum *b) { return bdb_dti_compare(b, a); }

TEST(RecordCompare, DefaultOrderAndACustomCompare) {
    vt::TempDir d;
    const std::vector<std::string> keys = {"b", "a", "ab", "abc", std::string("a\0", 2), "\xff", "B", "aa"};
    // Default: unsigned bytes, a prefix before its extensions.
    bdb_handle *h = vt::create_open(d.file("fwd"));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->compare, &bdb_dti_compare);
    for (auto &k : keys) ASSERT_EQ(vt::put(h, k, k), 0);
    std::vector<std::string> got;
    for (auto &r : vt::walk(h)) got.push_back(r.first);
    EXPECT_EQ(got, (std::vector<std::string>{"B", "a", std::string("a\0", 2), "aa", "ab", "abc", "b", "\xff"}));
    EXPECT_EQ(bdb_close(h), 0);

    // A compare function given at open orders the tree; many keys so that
    // pages split under it.
    const std::string p = d.file("rev");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, nullptr), 0);
    bdb_options o{0, reverse_compare, nullptr};
    h = bdb_open(p.c_str(), 0, BDB_RDWR, BDB_PRIVATE, &o, 0, nullptr);
    ASSERT_NE(h, nullptr);
    std::map<std::string, std::string, std::greater<>> model;
    for (int i = 0; i < 2000; ++i) {
        std::string k = "key" + std::to_string(i * 7 % 2000);
        ASSERT_EQ(vt::put(h, k, std::string(static_cast<size_t>(i % 50), 'v')), 0);
        model[k] = std::string(static_cast<size_t>(i % 50), 'v');
    }
    auto all = vt::walk(h);
    ASSERT_EQ(all.size(), model.size());
    auto it = model.begin();
    for (size_t i = 0; i < all.size(); ++i, ++it) ASSERT_EQ(all[i].first, it->first);
    std::string v;
    EXPECT_TRUE(vt::get(h, "key1999", &v));
    // bdb_compare returns what was installed; null restores the default.
    EXPECT_EQ(bdb_compare(h, nullptr), &reverse_compare);
    EXPECT_EQ(h->compare, &bdb_dti_compare);
    EXPECT_EQ(bdb_compare(h, reverse_compare), &bdb_dti_compare);
    EXPECT_EQ(h->compare, &reverse_compare);
    EXPECT_EQ(bdb_compare(nullptr, reverse_compare), reinterpret_cast<bdb_compare_fn>(static_cast<intptr_t>(-1)));
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
