// Focused tests of the tree engine: split placements, merges and
// redistributions in both directions, deferred inserts, root growth and
// collapse, next across levels, replace, the tree walk, and the places where
// pages without entries or dropped pages (holes) could lose records.
//
// Most scenarios are built page by page with a small tree builder, so that
// each one starts from exactly the shape it needs.
#include <algorithm>
#include <map>
#include <memory>

#include "test_util.h"

namespace {

// A page to build: entries (key, value) and, for an inner page, one child per
// position -1 .. n-1 (nullptr = hole).
struct Node {
    std::vector<std::pair<std::string, std::string>> entries;
    std::vector<std::shared_ptr<Node>> kids;  // empty for a leaf
};
using NodeP = std::shared_ptr<Node>;

NodeP leaf(std::vector<std::pair<std::string, std::string>> e) { return std::make_shared<Node>(Node{std::move(e), {}}); }
NodeP inner(std::vector<std::pair<std::string, std::string>> e, std::vector<NodeP> kids) {
    return std::make_shared<Node>(Node{std::move(e), std::move(kids)});
}

uint32_t build(bdb_handle *h, const NodeP &n) {
    std::vector<uint32_t> kid_pgs;
    for (const NodeP &k : n->kids) kid_pgs.push_back(k ? build(h, k) : 0);
    bdb_page *p = bdb_new_dpage(h);
    EXPECT_NE(p, nullptr);
    const uint32_t pg = p->pgno;
    for (size_t i = 0; i < n->entries.size(); ++i) {
        const auto &[k, v] = n->entries[i];
        bdb_entry e{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size()), const_cast<char *>(v.data()),
                    static_cast<uint32_t>(v.size()), BDB_INSERT, n->kids.empty() ? 0u : kid_pgs[i + 1]};
        p = bdb_get_dpage(h, pg, BDB_FORUPDATE);
        EXPECT_EQ(bdb_insdatum(h, p, static_cast<int32_t>(i) - 1, &e), 0);
    }
    p = bdb_get_dpage(h, pg, BDB_FORUPDATE);
    p->leftpg = n->kids.empty() ? 0 : kid_pgs[0];
    EXPECT_EQ(bdb_update_dpage(h, p), 0);
    return pg;
}

void set_root(bdb_handle *h, uint32_t pg) {
    bdb_update_meta(h);
    h->meta->root = pg;
}

// Records of a built tree in key order, for the model.
void collect(const NodeP &n, std::map<std::string, std::string> &m) {
    if (!n) return;
    for (size_t i = 0; i < n->entries.size(); ++i) {
        if (!n->kids.empty()) collect(n->kids[i], m);
        m[n->entries[i].first] = n->entries[i].second;
    }
    if (!n->kids.empty()) collect(n->kids.back(), m);
}

// A fresh private database holding the built tree; the model gets its records.
struct Fixture {
    vt::TempDir dir;
    bdb_handle *h = nullptr;
    std::map<std::string, std::string> model;

    explicit Fixture(const NodeP &root = nullptr, uint32_t cache = 0) {
        h = vt::create_open(dir.file("t.db"), cache, vt::recording_handler);
        if (!h) std::abort();
        if (root) {
            set_root(h, build(h, root));
            collect(root, model);
        }
    }
    ~Fixture() {
        if (h) bdb_close(h);
    }
    // The database equals the model and passes the integrity check.
    void verify() {
        ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
        auto got = vt::walk(h);
        ASSERT_EQ(got.size(), model.size());
        auto it = model.begin();
        for (auto &kv : got) {
            ASSERT_EQ(kv.first, it->first);
            ASSERT_TRUE(kv.second == it->second) << kv.first;
            ++it;
        }
    }
    void del(const std::string &k) {
        ASSERT_EQ(vt::del(h, k), 0) << bdbstrerr(bdb_error(h)) << " deleting " << k;
        model.erase(k);
    }
    void put(const std::string &k, const std::string &v) {
        ASSERT_EQ(vt::put(h, k, v), 0) << bdbstrerr(bdb_error(h)) << " putting " << k;
        model[k] = v;
    }
    bdb_page *page(uint32_t pg) { return bdb_get_dpage(h, pg, 0); }
    bdb_page *root() { return page(h->meta->root); }
};

std::string key_of(const bdb_page *p, int i) { return std::string(reinterpret_cast<const char *>(p) + p->slots[i].keyoff, p->slots[i].keylen); }

// Keys k000.. with values making each entry `inpage` bytes in the page.
std::vector<std::pair<std::string, std::string>> run(int from, int to, size_t inpage, char tag = 'k') {
    std::vector<std::pair<std::string, std::string>> out;
    for (int i = from; i < to; ++i) {
        char k[16];
        std::snprintf(k, sizeof k, "%c%04d", tag, i);
        out.emplace_back(k, std::string(inpage - 5, static_cast<char>('a' + i % 26)));
    }
    return out;
}

std::string big_value(size_t n, char c) { return std::string(n, c); }

// Fills a one-page tree with 200-byte entries until the next one would split.
void fill_root_leaf(Fixture &f, int &next) {
    for (;;) {
        auto e = run(next, next + 1, 200);
        bdb_entry probe{e[0].first.data(), 5, e[0].second.data(), 195, BDB_INSERT, 0};
        if (f.h->meta->root && !bdb_data_fits(f.root(), &probe)) return;
        f.put(e[0].first, e[0].second);
        ++next;
    }
}

TEST(Split, ThreePlacementsOfTheNewEntry) {
    // Appending: the cut is below the new entry and the new page's first entry
    // goes up. A smallest key: it goes into the old page and the old page's
    // entry s goes up. A large middle entry: it is the separator itself.
    for (int which = 0; which < 3; ++which) {
        SCOPED_TRACE(which);
        Fixture f;
        int next = 100;
        fill_root_leaf(f, next);
        bdb_page *r = f.root();
        const int c = static_cast<int>(r->nslots);
        const int p = which == 0 ? c - 1 : which == 1 ? -1 : c / 2;
        const std::string key = which == 0 ? run(next, next + 1, 200)[0].first : which == 1 ? "a0000" : key_of(r, c / 2) + "m";
        const std::string val(which == 2 ? 2047 : 195, 'V');
        bdb_entry probe{const_cast<char *>(key.data()), static_cast<uint32_t>(key.size()), nullptr,
                        static_cast<uint32_t>(val.size()), BDB_INSERT, 0};
        const int s = bdb_where_split(r, p, &probe);
        EXPECT_EQ(which == 0 ? p > s : which == 1 ? p < s : p == s, true) << "p " << p << " s " << s;
        const std::string sep = p > s ? key_of(r, s + 1) : p < s ? key_of(r, s) : key;
        f.put(key, val);
        r = f.root();
        ASSERT_EQ(r->nslots, 1u);
        EXPECT_EQ(key_of(r, 0), sep);
        EXPECT_EQ(f.h->stats->splits, 1u);
        f.verify();
    }
}

TEST(Split, TwoEntryPageKeepsEntryZeroAndSendsIndexOneUp) {
    const std::string v = big_value(2040, 'q');
    auto k = [](char c) { return std::string(1, c) + std::string(999, c); };
    for (char added : {'a', 'c', 'e'}) {
        SCOPED_TRACE(std::string("adding ") + added);
        Fixture f(leaf({{k('b'), v}, {k('d'), v}}));
        f.put(k(added), v);  // a page of two such entries cannot take a third
        std::vector<std::string> keys = {k('b'), k('d'), k(added)};
        std::sort(keys.begin(), keys.end());
        bdb_page *r = f.root();
        ASSERT_EQ(r->nslots, 1u);
        EXPECT_EQ(key_of(r, 0), keys[1]);  // whatever lands at index 1 goes up
        EXPECT_EQ(key_of(f.page(r->leftpg), 0), keys[0]);
        EXPECT_EQ(key_of(f.page(r->slots[0].childpg), 0), keys[2]);
        f.verify();
    }
}

TEST(Split, CanLeaveTheNewPageEmpty) {
    // Many small entries and a last entry larger than all of them together;
    // the new key goes just before it: the cut falls after the last entry,
    // which goes up, and the new page holds nothing.
    std::vector<std::pair<std::string, std::string>> e;
    for (int i = 0; i < 150; ++i) {
        char k[16];
        std::snprintf(k, sizeof k, "k%03d", i);
        e.emplace_back(k, "");
    }
    e.emplace_back(std::string(1000, 'z'), big_value(2047, 'Z'));
    Fixture f(leaf(e));
    bdb_entry probe{const_cast<char *>("y"), 1, nullptr, 0, BDB_INSERT, 0};
    // Fill until the next small key no longer fits.
    int i = 150;
    while (bdb_data_fits(f.root(), &probe)) {
        char k[16];
        std::snprintf(k, sizeof k, "k%03d", i++);
        f.put(k, "");
    }
    f.put("y", "");
    bdb_page *r = f.root();
    ASSERT_EQ(r->nslots, 1u);
    EXPECT_EQ(r->slots[0].keylen, 1000u);
    const uint32_t empty = r->slots[0].childpg;
    ASSERT_NE(empty, 0u);
    EXPECT_EQ(f.page(empty)->nslots, 0u);
    f.verify();
    // Lookups in its range end there and find nothing; a put lands there.
    std::string high(1000, 'z');
    high += "1";
    EXPECT_FALSE(vt::get(f.h, high, nullptr));
    EXPECT_EQ(bdb_error(f.h), BDB_E_NOTFOUND);
    f.put(high, "top");
    EXPECT_EQ(f.page(empty)->nslots, 1u);
    f.verify();
}

TEST(Split, NewEntryTooLargeForTheCutPageIsCutAtItself) {
    // The cut the split point chooses would put a large new entry into a page
    // whose many small entries (their slots) leave it no room: the page is
    // cut at the new entry instead, which goes up.
    std::vector<std::pair<std::string, std::string>> e;
    for (int i = 0; i < 250; ++i) {
        char k[16];
        std::snprintf(k, sizeof k, "k%03d", i);
        e.emplace_back(k, "");
    }
    e.emplace_back(std::string(400, 'z'), big_value(700, 'Z'));  // larger than the 250 others together
    Fixture f(leaf(e));
    const std::string key = "y" + std::string(999, 'y');
    bdb_entry probe{const_cast<char *>(key.data()), 1000, nullptr, 1000, BDB_INSERT, 0};
    ASSERT_EQ(bdb_where_split(f.root(), 249, &probe), 250);  // the cut the split point picks...
    ASSERT_FALSE(varlo::entry_size(probe) + 24 + 44 + 24u * 250 + 1000 <= 8192u);  // ...leaves no room
    f.put(key, big_value(1000, 'B'));
    EXPECT_EQ(f.h->stats->splits, 1u);
    bdb_page *r = f.root();
    ASSERT_EQ(r->nslots, 1u);
    EXPECT_EQ(key_of(r, 0), key);
    f.verify();
}

TEST(Delete, RedistributesFromEitherNeighbour) {
    // The shrunk page (8 entries, one deleted) and its 30-entry neighbour do
    // not fit one page: the neighbour gives eleven entries through the
    // parent, and its twelfth becomes the new separator.
    for (int shrunk_right = 0; shrunk_right < 2; ++shrunk_right) {
        SCOPED_TRACE(shrunk_right);
        Fixture f(inner({{"m", "sep-value-x"}}, {leaf(run(0, shrunk_right ? 30 : 8, 200, 'a')),
                                                 leaf(run(0, shrunk_right ? 8 : 30, 200, 'p'))}));
        const std::string next_sep = shrunk_right ? run(18, 19, 200, 'a')[0].first : run(11, 12, 200, 'p')[0].first;
        f.del(shrunk_right ? "p0007" : "a0000");
        EXPECT_EQ(f.h->stats->redistributions, 1u);
        bdb_page *r = f.root();
        ASSERT_EQ(r->nslots, 1u);
        EXPECT_EQ(key_of(r, 0), next_sep);
        EXPECT_EQ(f.page(r->leftpg)->nslots, shrunk_right ? 18u : 19u);
        EXPECT_EQ(f.page(r->slots[0].childpg)->nslots, shrunk_right ? 19u : 18u);
        f.verify();
    }
}

TEST(Delete, MergesIntoTheLeftPageAndTheRootCollapses) {
    for (int from_right = 0; from_right < 2; ++from_right) {
        SCOPED_TRACE(from_right ? "shrunk right page" : "shrunk left page");
        Fixture f(inner({{"m", "sep"}}, {leaf(run(0, 8, 200, 'a')), leaf(run(0, 20, 200, 'p'))}));
        const uint32_t left = f.root()->leftpg, right = f.root()->slots[0].childpg;
        f.del(from_right ? "p0003" : "a0003");
        EXPECT_EQ(f.h->stats->merges, 1u);
        // The merged left page is the new root; the old root and right page are free.
        EXPECT_EQ(f.h->meta->root, left);
        EXPECT_EQ(f.root()->nslots, 8u + 20u);
        EXPECT_FALSE(bits_tstb(f.h->meta->pgmap, static_cast<int32_t>(right)));
        f.verify();
    }
}

TEST(Delete, InnerKeyIsReplacedByItsPredecessor) {
    Fixture f(inner({{"m", "M"}}, {leaf(run(0, 20, 200, 'a')), leaf(run(0, 20, 200, 'p'))}));
    std::string out;
    ASSERT_TRUE(vt::remove(f.h, "m", &out));
    EXPECT_EQ(out, "M");
    f.model.erase("m");
    EXPECT_EQ(key_of(f.root(), 0), run(19, 20, 200, 'a')[0].first);
    f.verify();
}

TEST(Delete, LargePredecessorWaitsForTheRepairsBelow) {
    // Deleting the small root entry "b": its predecessor (a 3047-byte entry)
    // does not fit the full root, so it is inserted after the levels below
    // were repaired, splitting the root.
    const std::string big = big_value(2047, 'B');
    const std::string ka(1000, 'a'), kd = "d" + std::string(999, 'd'), kf = "f" + std::string(999, 'f');
    Fixture f(inner({{"b", "x"}, {kd, big}, {kf, big}},
                    {leaf({{"a1", "1"}, {"a2", "2"}, {ka, big}}), leaf({{"c1", "1"}, {"c2", "2"}}), leaf({{"e1", "1"}}),
                     leaf({{"g1", "1"}})}));
    f.del("b");
    EXPECT_EQ(f.h->stats->deferred_inserts, 1u);
    EXPECT_GE(f.h->stats->splits, 1u);
    f.verify();
}

TEST(Holes, FirstSkipsEmptyLeftmostPages) {
    // The leftmost leaf holds nothing: the smallest record is the root's entry 0.
    Fixture f(inner({{"m", "M"}, {"t", "T"}}, {leaf({}), leaf({{"p", "P"}}), leaf({{"x", "X"}})}));
    char kbuf[1024];
    bdb_datum kd{kbuf, 0}, vd{};
    ASSERT_EQ(bdb_first(f.h, &kd, &vd), 0);
    EXPECT_EQ(std::string(kbuf, kd.len), "m");
    std::free(vd.ptr);
    // next from an entry whose right subtree holds nothing goes on in the page
    Fixture g(inner({{"m", "M"}, {"t", "T"}}, {leaf({{"a", "A"}}), leaf({}), leaf({{"x", "X"}})}));
    g.verify();
    // only empty pages left: the database is empty
    Fixture e(inner({}, {leaf({})}));
    vd = bdb_datum{};
    EXPECT_EQ(bdb_first(e.h, &kd, &vd), -1);
    EXPECT_EQ(bdb_error(e.h), BDB_E_EMPTY);
}

TEST(Holes, DirectRemovalBesideAHoleKeepsTheSubtree) {
    // "c" has a hole on its left and a subtree on its right: removing it moves
    // the subtree into the hole.
    Fixture f(inner({{"c", "C"}, {"m", "M"}}, {nullptr, leaf({{"d", "D"}, {"e", "E"}}), leaf({{"x", "X"}})}));
    f.del("c");
    EXPECT_NE(f.root()->leftpg, 0u);
    f.verify();
    f.del("m");
    f.verify();
}

TEST(Holes, PredecessorSearchPastAnEmptyRightmostPage) {
    // The rightmost page of "m"'s left subtree holds nothing: the predecessor
    // is the entry above it, and the empty page is released.
    Fixture f(inner({{"m", "M"}},
                    {inner({{"f", "F"}}, {leaf({{"a", "A"}, {"b", "B"}}), leaf({})}),
                     inner({{"t", "T"}}, {leaf({{"p", "P"}}), leaf({{"x", "X"}})})}));
    f.del("m");
    EXPECT_EQ(key_of(f.root(), 0), "f");
    f.verify();
    // A left subtree with no record at all: the entry goes and so do its pages.
    Fixture g(inner({{"m", "M"}}, {inner({}, {leaf({})}), leaf({{"x", "X"}})}));
    g.del("m");
    g.verify();
    g.del("x");
    g.verify();
}

// A page whose used bytes (8140) leave no room to merge a neighbour into it,
// and whose first entries are too large to serve as the parent's separator.
std::vector<std::pair<std::string, std::string>> full_page_entries(char tag) {
    std::vector<std::pair<std::string, std::string>> e;
    for (int i = 0; i < 2; ++i) e.emplace_back(std::string(1, tag) + std::to_string(i) + std::string(999, tag), std::string(2040, 'q'));
    for (int i = 0; i < 20; ++i) {
        char k[16];
        std::snprintf(k, sizeof k, "%cz%02d", tag, i);
        e.emplace_back(k, std::string(i == 19 ? 82 : 72, 'w'));
    }
    return e;
}

TEST(Holes, InnerPageWithOnlyALeftmostChildIsNotDropped) {
    // Deleting "k" merges X's two children, leaving X with no entry and one
    // child. X's right neighbour Q is too full to merge and its first entries
    // are too large for the root, which answers "drop the empty page". X
    // still holds a subtree, so it must stay.
    const std::string big = big_value(2040, 'q');
    auto qe = full_page_entries('q');
    std::vector<NodeP> qkids;
    for (size_t i = 0; i <= qe.size(); ++i) {
        char k[16];
        std::snprintf(k, sizeof k, "q%02zu~", i);
        qkids.push_back(leaf({{i == 0 ? std::string("p") : qe[i - 1].first + "~", "x"}}));
    }
    Fixture f(inner({{"n", "N"}, {"s" + std::string(1000, 's'), big}, {"u" + std::string(1000, 'u'), big}},
                    {inner({{"k", "K"}}, {leaf({{"a", "A"}}), leaf({{"l", "L"}})}), inner(qe, qkids),
                     leaf({{"t", "T"}}), leaf({{"v", "V"}})}));
    f.verify();
    f.del("k");
    f.verify();
    for (auto k : {"a", "l", "p", "t", "v"}) EXPECT_TRUE(vt::get(f.h, k, nullptr)) << k;
}

TEST(Holes, OneEntryNeighbourWhoseMergeWouldNotFit) {
    // The shrunk page and its one-entry neighbour do not fit one page with the
    // separator: no merge is made (nothing moves).
    const std::string big = big_value(2040, 'q');
    std::vector<std::pair<std::string, std::string>> l = run(0, 14, 200, 'a');
    Fixture f(inner({{"m" + std::string(1000, 'm'), big}}, {leaf(l), leaf({{"z" + std::string(1000, 'z'), big}})}));
    f.del("a0000");
    EXPECT_EQ(f.h->stats->merges, 0u);
    f.verify();
}

TEST(Holes, ParentWithoutEntriesHasNoPair) {
    Fixture f(inner({{"m", "M"}}, {inner({}, {leaf({{"a", "A"}, {"b", "B"}})}), inner({}, {leaf({{"x", "X"}})})}));
    f.del("a");
    f.verify();
    f.del("x");
    f.verify();
}

TEST(Holes, EmptyLeafBesideAFullNeighbourIsDroppedAndItsRangeLandsInTheParent) {
    // The leftmost leaf loses its only entry; the neighbour is full of entries
    // too large for the parent: the empty leaf is freed and the pointer is 0.
    const std::string big = big_value(2040, 'q');
    Fixture f(inner({{"m", "M"}, {"s" + std::string(1000, 's'), big}, {"u" + std::string(1000, 'u'), big}},
                    {leaf({{"a", "A"}}), leaf(full_page_entries('r')), leaf({{"t", "T"}}), leaf({{"v", "V"}})}));
    const uint32_t left = f.root()->leftpg;
    f.del("a");
    EXPECT_EQ(f.root()->leftpg, 0u);
    EXPECT_FALSE(bits_tstb(f.h->meta->pgmap, static_cast<int32_t>(left)));
    f.verify();
    const uint32_t before = f.root()->nslots;
    f.put("b", "B");  // lands in the root, beside the hole
    EXPECT_EQ(f.root()->nslots, before + 1);
    f.verify();
}

TEST(Next, ClimbsLevelsAndDescendsRightSubtrees) {
    Fixture f(inner({{"m", "M"}},
                    {inner({{"f", "F"}}, {leaf({{"a", "A"}}), leaf({{"g", "G"}, {"h", "H"}})}),
                     inner({{"t", "T"}}, {leaf({{"p", "P"}}), leaf({{"x", "X"}})})}));
    auto next_of = [&](const std::string &k) {
        char kbuf[1024];
        std::memcpy(kbuf, k.data(), k.size());
        bdb_datum kd{kbuf, static_cast<uint32_t>(k.size())}, vd{};
        if (bdb_next(f.h, &kd, &vd) < 0) return std::string("!") + bdbstrerr(bdb_error(f.h));
        std::free(vd.ptr);
        return std::string(kbuf, kd.len);
    };
    EXPECT_EQ(next_of("h"), "m");  // last key of a leaf: two levels up
    EXPECT_EQ(next_of("m"), "p");  // inner key: smallest of its right subtree
    EXPECT_EQ(next_of("f"), "g");
    EXPECT_EQ(next_of("x"), std::string("!") + bdbstrerr(BDB_E_EOF));
    EXPECT_EQ(next_of("n"), std::string("!") + bdbstrerr(BDB_E_NOTFOUND));
}

TEST(Replace, SameLengthTouchesOnlyTheValueOtherLengthsMoveIt) {
    Fixture f(leaf({{"a", "11111"}, {"b", "22222"}, {"c", std::string(3000, 'c')}}));
    std::vector<uint8_t> before(8192), after(8192);
    std::memcpy(before.data(), f.root(), 8192);
    ASSERT_EQ(vt::replace(f.h, "b", "33333"), 0);
    std::memcpy(after.data(), f.root(), 8192);
    size_t diffs = 0;
    for (size_t i = 0; i < 8192; ++i) diffs += before[i] != after[i];
    EXPECT_EQ(diffs, 5u);
    // A long value of the same length is rewritten on its pages; the page stays.
    const uint32_t first = f.root()->slots[2].dataref;
    ASSERT_EQ(vt::replace(f.h, "c", std::string(3000, 'C')), 0);
    EXPECT_EQ(std::memcmp(f.root(), after.data(), 8192), 0);
    f.model = {{"a", "11111"}, {"b", "33333"}, {"c", std::string(3000, 'C')}};
    f.verify();
    // Into and out of data pages; a long value of another length takes a new
    // run and the old one is freed.
    for (size_t len : {20000u, 5u, 2048u}) {
        ASSERT_EQ(vt::replace(f.h, "b", std::string(len, 'L')), 0);
        f.model["b"] = std::string(len, 'L');
        EXPECT_EQ((f.root()->slots[1].flags & BDB_DPAGES) != 0, len >= 2048);
        f.verify();
    }
    ASSERT_EQ(vt::replace(f.h, "c", std::string(9000, 'D')), 0);
    EXPECT_FALSE(bits_tstb(f.h->meta->pgmap, static_cast<int32_t>(first)));
    f.model["c"] = std::string(9000, 'D');
    f.verify();
}

TEST(Replace, GrowingValueSplitsAndInnerKeysKeepTheirSubtrees) {
    Fixture f;
    int next = 100;
    fill_root_leaf(f, next);
    ASSERT_EQ(vt::replace(f.h, "k0110", std::string(2047, 'G')), 0);
    f.model["k0110"] = std::string(2047, 'G');
    EXPECT_EQ(f.h->stats->splits, 1u);
    EXPECT_EQ(bdb_error(f.h), 0u);  // a present key never leaves BDB_E_INSERTED
    f.verify();
    const std::string root_key = key_of(f.root(), 0);
    for (size_t len : {1500u, 1u}) {
        ASSERT_EQ(vt::replace(f.h, root_key, std::string(len, 'N')), 0);
        f.model[root_key] = std::string(len, 'N');
        f.verify();
    }
}

TEST(Search, OperationCodesWithoutAnOperationFindNothing) {
    Fixture f(leaf({{"a", "A"}}));
    const std::string a = "a";
    for (int op : {5, 6, 7, 11, 99}) {
        bdb_datum kd = vt::datum(a), vd{};
        EXPECT_EQ(bdb_search(f.h, &kd, &vd, op), -1) << op;
        EXPECT_EQ(bdb_error(f.h), BDB_E_NOTFOUND);
    }
}

struct Visits {
    std::vector<std::pair<std::string, int>> seen;
    int stop_after = -1;
};
thread_local Visits *visits = nullptr;

int visit_entry(bdb_handle *, bdb_page *p, int32_t i, int32_t depth) {
    visits->seen.emplace_back(key_of(p, i), depth);
    return visits->stop_after >= 0 && static_cast<int>(visits->seen.size()) > visits->stop_after ? -1 : 0;
}
int visit_page(bdb_handle *, bdb_page *p, int32_t i, int32_t depth) {
    EXPECT_EQ(i, 0);
    visits->seen.emplace_back(std::to_string(p->pgno), depth);
    return 0;
}

TEST(ParseTree, VisitsPagesInPreOrderAndEntriesInKeyOrder) {
    Fixture f(inner({{"m", "M"}}, {inner({{"f", "F"}}, {leaf({{"a", "A"}}), nullptr}),
                                   inner({{"t", "T"}}, {leaf({{"p", "P"}}), leaf({{"x", "X"}})})}));
    Visits v;
    visits = &v;
    ASSERT_EQ(bdb_parse_tree(f.h, f.h->meta->root, visit_entry, 1, 0), 0);
    std::vector<std::pair<std::string, int>> want = {{"a", 2}, {"f", 1}, {"m", 0}, {"p", 2}, {"t", 1}, {"x", 2}};
    EXPECT_EQ(v.seen, want);
    v.seen.clear();
    ASSERT_EQ(bdb_parse_tree(f.h, f.h->meta->root, visit_page, 0, 0), 0);
    ASSERT_EQ(v.seen.size(), 6u);  // the hole is skipped
    EXPECT_EQ(v.seen[0], std::make_pair(std::to_string(f.h->meta->root), 0));
    // a negative visit stops the walk at once
    v.seen.clear();
    v.stop_after = 0;
    EXPECT_EQ(bdb_parse_tree(f.h, f.h->meta->root, visit_entry, 1, 0), -1);
    EXPECT_EQ(v.seen.size(), 1u);
    // other modes only read; an empty tree visits nothing
    v.seen.clear();
    EXPECT_EQ(bdb_parse_tree(f.h, f.h->meta->root, visit_entry, 7, 0), 0);
    EXPECT_EQ(bdb_parse_tree(f.h, 0, visit_entry, 1, 0), 0);
    EXPECT_TRUE(v.seen.empty());
    visits = nullptr;
}

}  // namespace
