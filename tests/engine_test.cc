// Page storage and the tree engine below the record calls: word swaps,
// allocation and entries against simple references; the two page caches
// against each other; and tree shapes built page by page (holes, empty
// pages, full neighbours) that random operations seldom reach, changed and
// checked.
#include <algorithm>
#include <bit>
#include <map>
#include <random>
#include <sstream>

#include "test_util.h"

namespace {

using Model = std::map<std::string, std::string>;

bool bit(const std::vector<uint32_t> &map, uint32_t b) { return map[b / 32] >> (b % 32) & 1; }

TEST(Storage, SwapsCopiesAndTheRoomRule) {
    // {offset, length, mask of the words of buf that end up swapped}
    for (auto [off, len, words] : {std::tuple{0, 3, 0}, {1, 3, 0}, {2, 10, 6}, {0, 7, 1}, {3, 13, 14}}) {
        alignas(4) uint8_t buf[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
        bdb_swap(buf + off, static_cast<uint32_t>(len));
        for (int i = 0; i < 16; ++i) EXPECT_EQ(buf[i], words >> i / 4 & 1 ? i ^ 3 : i) << off << '+' << len << '@' << i;
    }
    for (int shift : {-3, 3}) {  // overlapping copies either way
        std::string a = "0123456789abcdef", b = a;
        bdbcpy(a.data() + 4, a.data() + 4 + shift, 8);
        std::memmove(b.data() + 4 + shift, b.data() + 4, 8);
        EXPECT_EQ(a, b);
    }
    // An entry of n in-page bytes (a long value counts none) fits when n + 24 <= datastart - 44 - 24 * nslots.
    alignas(8) uint8_t bytes[64] = {};
    auto *p = reinterpret_cast<bdb_page *>(bytes);
    p->nslots = 2, p->datastart = 44 + 48 + 24 + 100;
    for (uint32_t vlen : {40u, 9000u}) {
        bdb_entry e{nullptr, vlen < 2048 ? 60u : 100u, nullptr, vlen, 0, 0};
        EXPECT_EQ(bdb_data_fits(p, &e), 1);
        --p->datastart;
        EXPECT_EQ(bdb_data_fits(p, &e), 0);
        ++p->datastart;
    }
}

class Pages : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(h_ = vt::create_open(dir_.file("db"), 0, vt::recording_handler), nullptr); }
    void TearDown() override {  // destroyed: nothing of the hand-made maps reaches the file
        varlo::sysio_reset();
        EXPECT_EQ(h_ ? bdb_destroy(h_) : 0, 0);
    }
    std::vector<uint32_t> map() const { return {h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS}; }
    vt::TempDir dir_;
    bdb_handle *h_ = nullptr;
};

TEST_F(Pages, AllocationIsFirstFitLikeAPageByPageSearch) {
    uint32_t first = 0, *m = h_->meta->pgmap;
    auto alloc = [&](uint32_t n) { return bdb_alloc_dpages(h_, n, &first) == 0 ? first : bdb_error(h_); };
    EXPECT_EQ(alloc(1), 1u);
    EXPECT_EQ(std::filesystem::file_size(dir_.file("db")), 2u * 8192) << "the file grows to the map";
    std::mt19937 rng(31337);
    *h_->npages_ref = BDB_MAXPAGES;  // no more extension: the file would be huge
    for (int round = 0; round < 300; ++round) {
        std::fill(m, m + BDB_MAPWORDS, 0u);
        const uint32_t used_to = round % 10 == 0 ? BDB_MAXPAGES : 1 + rng() % 4000, density = rng() % 100;
        for (uint32_t p = 0; p < used_to; ++p)
            if (p == 0 || rng() % 100 < density) bits_setb(m, static_cast<int32_t>(p));
        const uint32_t n = 1 + (rng() % 4 ? rng() % 8 : rng() % 70);
        std::vector<uint32_t> want = map();
        uint32_t end = 0, run = 0;
        while (end < BDB_MAXPAGES && run < n) run = bit(want, end++) ? 0 : run + 1;
        for (uint32_t p = end - n; run == n && p < end; ++p) want[p / 32] |= 1u << (p % 32);
        ASSERT_EQ(alloc(n), run == n ? end - n : BDB_E_FULL) << "round " << round << " n " << n;
        ASSERT_EQ(map(), want) << "round " << round << " n " << n;
    }
    std::fill(m, m + BDB_MAPWORDS, 0xffffffffu);  // a run that would end past the last page is never given
    for (uint32_t p = BDB_MAXPAGES - 4; p < BDB_MAXPAGES; ++p) bits_clrb(m, static_cast<int32_t>(p));
    EXPECT_EQ(alloc(5), BDB_E_FULL);
    EXPECT_EQ(alloc(4), BDB_MAXPAGES - 4);
    EXPECT_EQ(bdb_find_max_page_number(h_), BDB_MAXPAGES) << "the last usable page is 65343";
    EXPECT_EQ(vt::put(h_, "k", "v") == -1 ? bdb_error(h_) : 0u, BDB_E_FULL) << "the first record gets no root page";
    EXPECT_EQ(h_->meta->root, 0u);
    bdb_del_dpages(h_, BDB_MAXPAGES - 1, 1);
    EXPECT_EQ(vt::put(h_, "k", "v"), 0);
    EXPECT_EQ(h_->meta->root, BDB_MAXPAGES - 1);
}

// Random places and removals of short and long values (the lengths around
// the page boundaries among them) against a list; for every fourth long
// value the run first cannot be had (full map) or written, which must leave
// the page and the map as they were.
TEST_F(Pages, RandomEntriesMatchAList) {
    std::mt19937 rng(7);
    alignas(8) uint8_t bytes[BDB_PGSIZE] = {};
    auto *pg = reinterpret_cast<bdb_page *>(bytes);
    pg->datastart = BDB_PGSIZE;
    std::vector<std::pair<std::string, std::string>> list;
    const uint32_t edges[] = {2047, 2048, 8192, 8193, 16385};
    for (int step = 0, longs = 0; step < 2000; ++step) {
        if (list.empty() || rng() % 3 != 0) {
            std::string k(1 + rng() % 40, static_cast<char>('a' + rng() % 26));
            std::string v(rng() % 4 ? rng() % 120 : rng() % 2 ? edges[rng() % 5] : rng() % 20000, 0);
            for (auto &c : v) c = static_cast<char>(rng());
            bdb_entry e{k.data(), static_cast<uint32_t>(k.size()), v.data(), static_cast<uint32_t>(v.size()), 0, 0};
            if (!bdb_data_fits(pg, &e)) continue;
            const int32_t pos = static_cast<int32_t>(rng() % (list.size() + 1)) - 1;
            if (v.size() >= BDB_LONGDATA && ++longs % 4 == 0) {
                const std::vector<uint8_t> before(bytes, bytes + BDB_PGSIZE);
                const std::vector<uint32_t> saved = map();
                const bool full = longs % 8 == 0;
                varlo::sysio.pwrite = [](int, const void *, size_t, off_t) -> ssize_t { return errno = EIO, -1; };
                if (full) std::fill(h_->meta->pgmap, h_->meta->pgmap + BDB_MAPWORDS, 0xffffffffu);
                bdb_entry copy = e;
                ASSERT_EQ(bdb_insdatum(h_, pg, pos, &copy) ? bdb_error(h_) : 0u, full ? BDB_E_FULL : BDB_E_WRITE);
                ASSERT_TRUE(std::equal(before.begin(), before.end(), bytes)) << "step " << step;
                ASSERT_EQ(map(), full ? std::vector<uint32_t>(BDB_MAPWORDS, ~0u) : saved) << "step " << step;
                std::copy(saved.begin(), saved.end(), h_->meta->pgmap);
                varlo::sysio_reset();
            }
            ASSERT_EQ(bdb_insdatum(h_, pg, pos, &e), 0) << "step " << step << " " << vt::last_context();
            list.insert(list.begin() + (pos + 1), {k, v});
        } else {
            const uint32_t i = rng() % list.size();
            ASSERT_EQ(bdb_deldata(h_, pg, static_cast<int32_t>(i), 0), 0);
            list.erase(list.begin() + i);
        }
        // Entries packed downward from 8192 in slot order, inline values right
        // after their keys; long values own exactly their runs of pages.
        ASSERT_EQ(pg->nslots, list.size());
        uint32_t end = BDB_PGSIZE, pages = 1, used = 0;
        for (uint32_t i = 0; i < list.size(); ++i) {
            const bdb_slot &s = pg->slots[i];
            const bool dpages = s.flags & BDB_DPAGES;
            ASSERT_EQ(dpages, list[i].second.size() >= BDB_LONGDATA) << "step " << step << " slot " << i;
            ASSERT_EQ(s.keyoff + bdb_key_data_size(pg, static_cast<int32_t>(i)), end) << "step " << step;
            ASSERT_EQ(bdb_key_data_size(pg, static_cast<int32_t>(i)), s.keylen + (dpages ? 0 : s.datalen));
            ASSERT_TRUE(dpages || s.dataref == s.keyoff + s.keylen) << "step " << step << " slot " << i;
            ASSERT_EQ(std::string(reinterpret_cast<char *>(bytes) + s.keyoff, s.keylen), list[i].first);
            bdb_datum d{};
            ASSERT_EQ(bdb_ret_data(h_, pg, &d, static_cast<int32_t>(i)), 0);
            ASSERT_TRUE(std::string(d.len ? static_cast<char *>(d.ptr) : "", d.len) == list[i].second) << i;
            std::free(d.ptr);
            pages += dpages ? (s.datalen + 8191) / 8192 : 0;
            end = s.keyoff;
        }
        ASSERT_EQ(pg->datastart, end) << "step " << step;
        for (uint32_t w : map()) used += static_cast<uint32_t>(std::popcount(w));
        ASSERT_EQ(used, pages) << "step " << step;
    }
}

// The cache of a private handle is indexed, the six-page cache of a shared
// area is scanned: both must take the same records for the same requests.
TEST_F(Pages, IndexedAndScannedCachesPickTheSameRecords) {
    bdb_cache_free(h_);
    ASSERT_EQ(bdb_cache_init(h_, 6 * 8192), 0);
    std::memset(h_->stats, 0, sizeof(bdb_stats));
    std::memset(h_->cache_bufs, 0, 6 * 8192);  // no update marks: the area's buffers start zeroed too
    std::vector<bdb_shared> area(1);
    bdb_initialize_shmem(area.data(), varlo::kShmSize, varlo::kShmCacheBytes, varlo::kShmPages);
    bdb_handle a{};
    a.flags = BDB_F_AREA | BDB_F_AREA_OWNER;
    a.fd = h_->fd;
    bdb_setup_shmem(&a, area.data());
    ASSERT_EQ(bdb_cache_init(&a, 1 << 20), 0);
    ASSERT_EQ(std::tuple(h_->ncache, a.ncache), std::tuple(6u, 6u)) << "an area has six pages whatever the size";
    auto apply = [](bdb_handle *h, uint32_t op, uint32_t pg) -> int {
        if (op >= 6) return op < 8 ? bdb_cache_dirty(h, pg) : bdb_inval_cache_pg(h, pg);
        void *buf = bdb_cache_pg(h, pg);
        if (buf) std::memcpy(buf, &pg, 4);  // as if read
        return buf ? static_cast<int>((static_cast<uint8_t *>(buf) - h->cache_bufs) >> 13) : -1;
    };
    std::mt19937 rng(4242);
    for (int step = 0; step < 20000; ++step) {
        const uint32_t pg = 1 + rng() % 11, op = rng() % 10;
        ASSERT_EQ(apply(h_, op, pg), apply(&a, op, pg)) << "step " << step << " op " << op << " page " << pg;
        for (uint32_t i = 0; i < 6; ++i)
            ASSERT_EQ(std::tuple(h_->cache[i].pgno, h_->cache[i].flags), std::tuple(a.cache[i].pgno, a.cache[i].flags))
                << "step " << step << " record " << i;
        ASSERT_EQ(std::memcmp(h_->stats, a.stats, sizeof(bdb_stats)), 0) << "step " << step;
    }
    EXPECT_TRUE(h_->stats->page_writes > 100 && h_->stats->cache_hits > 1000);

}

// ---------------------------------------------------------------------------
// Tree shapes. A tree in one line: a page is ( ... ); a leaf lists entries,
// an inner page children and entries in order ( child key child ... ), `_`
// for a hole, missing children are holes too. An entry is NAME[@KEYLEN]
// [:VALUELEN][*COUNT]: NAME padded to KEYLEN with its last character, a value
// of VALUELEN bytes (default 1), COUNT entries NAME000, NAME001, ...
// ---------------------------------------------------------------------------

std::vector<std::pair<std::string, std::string>> entries(const std::string &t) {
    const size_t at = t.find('@'), colon = t.find(':'), star = t.find('*');
    std::string name = t.substr(0, std::min({at, colon, star}));
    if (at != std::string::npos) name.resize(std::stoul(t.substr(at + 1)), name.back());
    const size_t vlen = colon == std::string::npos ? 1 : std::stoul(t.substr(colon + 1));
    const std::string v(vlen, static_cast<char>(std::toupper(name[0])));
    if (star == std::string::npos) return {{name, v}};
    std::vector<std::pair<std::string, std::string>> out;
    for (unsigned long i = 0; i < std::stoul(t.substr(star + 1)); ++i) {
        char n[24];
        std::snprintf(n, sizeof n, "%03lu", i);
        out.emplace_back(name + n, v);
    }
    return out;
}

// Builds the page whose "(" was read; its records go to m.
uint32_t build(bdb_handle *h, std::istringstream &in, Model &m) {
    std::vector<std::pair<std::string, std::string>> es;
    std::map<size_t, uint32_t> kids;  // position (entries before it) -> child page
    for (std::string t; in >> t && t != ")";) {
        if (t == "(" || t == "_") {
            kids[es.size()] = t == "_" ? 0 : build(h, in, m);
        } else {
            for (auto &e : entries(t)) es.push_back(e), m.insert(e);
        }
    }
    bdb_page *p = bdb_new_dpage(h);
    const uint32_t pg = p->pgno;
    for (size_t i = 0; i < es.size(); ++i) {
        auto &[k, v] = es[i];
        bdb_entry e{k.data(), static_cast<uint32_t>(k.size()), v.data(), static_cast<uint32_t>(v.size()), BDB_INSERT,
                    kids.count(i + 1) ? kids[i + 1] : 0};
        EXPECT_EQ(bdb_insdatum(h, bdb_get_dpage(h, pg, BDB_FORUPDATE), static_cast<int32_t>(i) - 1, &e), 0);
    }
    p = bdb_get_dpage(h, pg, BDB_FORUPDATE);
    p->leftpg = kids.count(0) ? kids[0] : 0;
    EXPECT_EQ(bdb_update_dpage(h, p), 0);
    return pg;
}

struct Shape {
    const char *tree, *ops, *expect;  // ops: +ENTRY put, =ENTRY replace, -KEY delete; expect: counter=n, root=KEYS
};
const Shape kShapes[] = {
    // Splits: the new entry last, first, in the middle (a large one: it goes up itself).
    {"( k*36:196 )", "+k999:196", "splits=1 rootn=1"},
    {"( k*36:196 )", "+a:199", "splits=1 rootn=1"},
    {"( k*36:196 )", "+k017m:2047", "splits=1 root=k017m"},
    {"( k*36:196 )", "=k010:2047", "splits=1 rootn=1"},
    // A page of two entries keeps entry 0 and sends entry 1 up, wherever the third goes.
    {"( b@1000:2040 d@1000:2040 )", "+a@1000:2040", "splits=1 root=b@1000"},
    {"( b@1000:2040 d@1000:2040 )", "+c@1000:2040", "splits=1 root=c@1000"},
    {"( b@1000:2040 d@1000:2040 )", "+e@1000:2040", "splits=1 root=d@1000"},
    // The cut leaves the new page empty; a put in its range lands there.
    {"( k*181:0 z@1000:2047 )", "+y:0 +z@1001:3", "splits=1 root=z@1000"},
    // The chosen cut leaves no room for a large new entry: it is cut at the entry.
    {"( k*250:0 z@400:700 )", "+y@1000:1000", "splits=1 root=y@1000"},
    // Redistribution from either neighbour, merges into the left page.
    {"( ( a*8:195 ) m:11 ( p*30:195 ) )", "-a000", "redistributions=1 rootn=1"},
    {"( ( a*30:195 ) m:11 ( p*8:195 ) )", "-p007", "redistributions=1 rootn=1"},
    {"( ( a*8:195 ) m:3 ( p*20:195 ) )", "-a003", "merges=1 rootn=28"},
    {"( ( a*8:195 ) m:3 ( p*20:195 ) )", "-p003", "merges=1 rootn=28"},
    // An inner key goes and its predecessor takes its place; a large one only
    // after the repairs below (a deferred insert that splits the root).
    {"( ( a*20:195 ) m ( p*20:195 ) )", "-m", "root=a019"},
    {"( ( a1 a2 a@1000:2047 ) b ( c1 c2 ) d@1000:2047 ( e1 ) f@1000:2047 ( g1 ) )", "-b", "deferred_inserts=1"},
    // Holes and pages without entries.
    {"( ( ) m ( p ) t ( x ) )", "-m +n", ""},
    {"( ( a ) m ( ) t ( x ) )", "-a -t", ""},
    {"( ( ) )", "+a", ""},
    {"( _ c ( d e ) m ( x ) )", "-c -m", ""},
    {"( ( ( a b ) f ( ) ) m ( ( p ) t ( x ) ) )", "-m", "root=f"},
    {"( ( ( ) ) m ( x ) )", "-m -x", ""},
    {"( ( ( a b ) ) m ( ( x ) ) )", "-a -x", ""},
    // A one-entry neighbour whose merge would not fit: nothing moves.
    {"( ( a*14:195 ) m@1001:2040 ( z@1001:2040 ) )", "-a000", "merges=0"},
    // An inner page left with only a leftmost child beside a full neighbour
    // whose entries are too large for the root stays; an empty leaf there goes.
    {"( ( ( a ) k ( l ) ) n ( ( p ) q0@1001:2040 q1@1001:2040 qz*19:72 qz19:82 ) s@1001:2040 ( t ) u@1001:2040 ( v ) )",
     "-k", ""},
    {"( ( a ) m ( r0@1001:2040 r1@1001:2040 rz*19:72 rz19:82 ) s@1001:2040 ( t ) u@1001:2040 ( v ) )", "-a +b", ""},
};

// A private database holding the tree of shape; its records go to m.
bdb_handle *make_tree(const vt::TempDir &dir, std::string shape, Model &m) {
    bdb_handle *h = vt::create_open(dir.file("t.db"), 0, vt::recording_handler);
    for (size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == '(' || shape[i] == ')') shape.insert(i + 1, " "), shape.insert(i, " "), i += 2;
    std::istringstream in(shape);
    std::string open;
    in >> open;
    const uint32_t root = build(h, in, m);
    bdb_update_meta(h);
    h->meta->root = root;
    return h;
}

TEST(Tree, ShapesChangeAndStayWhole) {
    for (const Shape &s : kShapes) {
        SCOPED_TRACE(std::string(s.tree) + " " + s.ops);
        vt::TempDir dir;
        Model m;
        bdb_handle *h = make_tree(dir, s.tree, m);
        ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
        std::istringstream ops(s.ops);
        for (std::string op; ops >> op;) {
            for (auto &[k, v] : entries(op.substr(1))) {
                const int rc = op[0] == '+' ? vt::put(h, k, v) : op[0] == '=' ? vt::replace(h, k, v) : vt::del(h, k);
                ASSERT_EQ(rc, 0) << op << ": " << bdbstrerr(bdb_error(h));
                op[0] == '-' ? (void)m.erase(k) : (void)(m[k] = v);
            }
            ASSERT_EQ(bdb_check(h), 0) << op << ": " << vt::last_context();
            ASSERT_TRUE(vt::walk(h) == decltype(vt::walk(h))(m.begin(), m.end())) << op;
        }
        // The walk of bdb_parse_tree: every entry in key order, the depth
        // counted from the one given; a negative visit stops it.
        static std::string seen;
        seen.clear();
        auto visit = [](bdb_handle *, bdb_page *p, int32_t i, int32_t depth) {
            seen += std::string(reinterpret_cast<char *>(p) + p->slots[i].keyoff, p->slots[i].keylen) + (depth < 7 ? "!" : "");
            return seen.size() > 3000 ? -1 : 0;
        };
        std::string keys;
        for (auto &kv : m) keys += kv.first;
        const int rc = bdb_parse_tree(h, h->meta->root, visit, 1, 7);
        EXPECT_EQ(rc, keys.size() > 3000 ? -1 : 0);
        EXPECT_TRUE(keys.substr(0, seen.size()) == seen && (rc < 0 || seen == keys)) << seen;
        std::istringstream want(s.expect);
        const bdb_stats &st = *h->stats;
        const std::map<std::string, uint32_t> counters = {{"splits", st.splits}, {"merges", st.merges},
                                                          {"redistributions", st.redistributions},
                                                          {"deferred_inserts", st.deferred_inserts}};
        const bdb_page *r = h->meta->root ? bdb_get_dpage(h, h->meta->root, 0) : nullptr;
        for (std::string w; want >> w;) {
            ASSERT_TRUE(r || !w.starts_with("root")) << "no root";
            const std::string name = w.substr(0, w.find('=')), value = w.substr(w.find('=') + 1);
            if (name == "root")
                EXPECT_EQ(std::string(reinterpret_cast<const char *>(r) + r->slots[0].keyoff, r->slots[0].keylen),
                          entries(value)[0].first);
            else
                EXPECT_EQ(name == "rootn" ? r->nslots : counters.at(name), std::stoul(value)) << name;
        }
        EXPECT_EQ(bdb_close(h), 0);
    }
}

}  // namespace
