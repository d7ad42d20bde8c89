// The record calls as a caller sees them: outcomes and codes, the statistics
// counters, bad arguments, the compare function, and transaction requests.
#include <functional>
#include <map>

#include "test_util.h"

namespace {

using Records = std::vector<std::pair<std::string, std::string>>;

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
    EXPECT_FALSE(vt::get(h, "a", &v));  // the update inserted nothing
    EXPECT_TRUE(vt::get(h, "b", &v) && v == "2");
    EXPECT_TRUE(vt::get(h, "d", &v) && v == "4");
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
    // Every call counts whatever its outcome. Reads: 2 firsts, 3 gets (one of a missing key), 5 nexts.
    const bdb_stats *s = h->stats;
    EXPECT_EQ(std::vector<uint32_t>({s->puts, s->replaces, s->updates, s->reads, s->deletes, s->removes}),
              std::vector<uint32_t>({1, 2, 1, 10, 0, 0}));

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
    EXPECT_EQ(bdb_close(h), 0);
}

// The reverse of the default order.
int reverse_compare(const bdb_datum *a, const bdb_datum *b) { return bdb_dti_compare(b, a); }

TEST(RecordCalls, CustomCompareTransactionRequests) {
    vt::TempDir d;
    const std::string p = d.file("db");
    ASSERT_EQ(bdb_create(p.c_str(), BDB_PRIVATE, nullptr), 0);
    bdb_options o{0, reverse_compare, nullptr};
    bdb_handle *h = bdb_open(p.c_str(), 0, BDB_RDWR, BDB_PRIVATE, &o, 0, nullptr);
    ASSERT_NE(h, nullptr);
    std::map<std::string, std::string, std::greater<>> m;  // many keys: pages split under the compare
    for (int i = 0; i < 2000; ++i) {
        const std::string k = "key" + std::to_string(i * 7 % 2000);
        ASSERT_EQ(vt::put(h, k, m[k] = std::string(static_cast<size_t>(i % 50), 'v')), 0);
    }
    EXPECT_TRUE(vt::walk(h) == Records(m.begin(), m.end()));
    EXPECT_EQ(bdb_compare(h, nullptr), &reverse_compare);
    EXPECT_EQ(bdb_compare(h, nullptr), &bdb_dti_compare);  // the first call installed the default
    for (int op : {1, 2, 3}) EXPECT_EQ(bdb_transaction(h, op), 0);
    for (int op : {0, 4}) EXPECT_TRUE(Fails(h, bdb_transaction(h, op), BDB_E_PARAM));
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
