// Model-based test of the record calls: random sequences of put, replace,
// update, delete, remove, get, first and next checked against std::map, with
// close and reopen and an integrity check of the file between batches. Runs differ in cache
// size and in how the database is used: a private handle, some starting
// from a bulk load, some with the reverse order; a file in the other byte
// order; transfers interrupted and cut short at every call; a thread handle;
// a shared-mode handle. After every close the file holds just the pages the
// allocation map uses.
//
// VARLO_SOAK=n multiplies the number of seeds and batches (make soak).
#include <fcntl.h>
#include <map>
#include <random>

#include "test_util.h"

namespace {

// Keys in the default order (unsigned bytes, as std::string compares) or its reverse.
struct Order {
    bool reverse;
    bool operator()(const std::string &a, const std::string &b) const { return reverse ? b < a : a < b; }
};
using Model = std::map<std::string, std::string, Order>;
int reverse_compare(const bdb_datum *a, const bdb_datum *b) { return bdb_dti_compare(b, a); }

struct Gen {
    explicit Gen(uint64_t seed) : rng(seed), long_keys(seed % 3 == 0) {}
    std::mt19937_64 rng;
    bool long_keys;  // this seed favours long keys: few entries a page, deep trees
    int phase = 0;   // 0 grow, 1 churn, 2 shrink

    uint64_t below(uint64_t n) { return rng() % n; }
    bool chance(int pct) { return below(100) < static_cast<uint64_t>(pct); }

    // Keys of 1 to 1024 bytes, many sharing prefixes.
    std::string key() {
        static const char *prefixes[] = {"", "a", "ab", "user/", "user/profile/", "zz", "\x01", "\xff\xfe"};
        std::string k = prefixes[below(8)];
        const int r = static_cast<int>(below(100));
        const size_t n = long_keys && r < 60 ? 300 + below(725) : r < 70 ? 1 + below(12) : r < 95 ? 1 + below(120) : 500 + below(525);
        for (size_t i = 0; i < n && k.size() < 1024; ++i) k.push_back(static_cast<char>('a' + below(6)));
        return k.empty() ? "k" : k.substr(0, 1024);
    }

    // Values: empty, small, around the long-value threshold, and long.
    std::string value() {
        const int r = static_cast<int>(below(100));
        const size_t n = r < 5 ? 0 : r < 55 ? below(200) : r < 75 ? 200 + below(1800) : r < 87 ? 2040 + below(16) : 2049 + below(30000);
        std::string v(n, '\0');
        const char c = static_cast<char>('A' + below(26));
        for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>(c + (i % 7));
        return v;
    }
};

// An existing key near a random one (or a fresh key when the model is empty).
std::string pick_existing(Gen &g, const Model &m) {
    if (m.empty()) return g.key();
    auto it = m.lower_bound(g.key());
    return it == m.end() ? m.begin()->first : it->first;
}

void expect_same(bdb_handle *h, const Model &m) {
    auto got = vt::walk(h);
    ASSERT_EQ(bdb_error(h), m.empty() ? BDB_E_EMPTY : BDB_E_EOF);
    ASSERT_EQ(got.size(), m.size());
    auto it = m.begin();
    for (size_t i = 0; i < got.size(); ++i, ++it) {
        ASSERT_EQ(got[i].first, it->first) << "record " << i;
        ASSERT_TRUE(got[i].second == it->second) << "key " << it->first;
    }
}

void one_op(Gen &g, bdb_handle *h, Model &m) {
    int r = static_cast<int>(g.below(100));
    // Growing batches mostly put, shrinking ones mostly delete.
    if (g.phase == 0 && r >= 28 && g.chance(50)) r = static_cast<int>(g.below(28));
    if (g.phase == 2 && r < 52 && g.chance(60)) r = 52 + static_cast<int>(g.below(20));
    std::string out;
    if (r < 28) {  // put
        std::string k = g.chance(20) ? pick_existing(g, m) : g.key(), v = g.value();
        const int rc = vt::put(h, k, v);
        ASSERT_EQ(rc == 0 ? 0u : bdb_error(h), m.count(k) ? BDB_E_DUPLICATE : 0u) << bdbstrerr(bdb_error(h));
        m.emplace(k, v);
    } else if (r < 42) {  // replace
        std::string k = g.chance(60) ? pick_existing(g, m) : g.key(), v = g.value();
        const bool had = m.count(k) > 0;
        bdb_seterror(h, 0);
        ASSERT_EQ(vt::replace(h, k, v), 0) << bdbstrerr(bdb_error(h));
        ASSERT_EQ(bdb_error(h), had ? 0u : BDB_E_INSERTED);
        m[k] = v;
    } else if (r < 52) {  // update
        std::string k = g.chance(70) ? pick_existing(g, m) : g.key(), v = g.value();
        const int rc = vt::update(h, k, v);
        ASSERT_EQ(rc == 0 ? 0u : bdb_error(h), m.count(k) ? 0u : BDB_E_NOTFOUND) << bdbstrerr(bdb_error(h));
        if (rc == 0) m[k] = v;
    } else if (r < 66) {  // delete
        std::string k = g.chance(85) ? pick_existing(g, m) : g.key();
        const int rc = vt::del(h, k);
        ASSERT_EQ(rc == 0 ? 0u : bdb_error(h), m.erase(k) ? 0u : BDB_E_NOTFOUND) << bdbstrerr(bdb_error(h));
    } else if (r < 72) {  // remove
        std::string k = g.chance(85) ? pick_existing(g, m) : g.key();
        const bool ok = vt::remove(h, k, &out);
        auto it = m.find(k);
        ASSERT_EQ(ok ? 0u : bdb_error(h), it != m.end() ? 0u : BDB_E_NOTFOUND);
        if (ok) {
            ASSERT_TRUE(out == it->second);
            m.erase(it);
        }
    } else if (r < 90) {  // get
        std::string k = g.chance(70) ? pick_existing(g, m) : g.key();
        const bool ok = vt::get(h, k, &out);
        auto it = m.find(k);
        ASSERT_EQ(ok, it != m.end());
        if (ok) {
            ASSERT_TRUE(out == it->second);
        }
    } else if (r < 97) {  // a few steps of next from an existing key
        if (m.empty()) return;
        std::string k = pick_existing(g, m);
        char kbuf[1024];
        std::memcpy(kbuf, k.data(), k.size());
        bdb_datum kd{kbuf, static_cast<uint32_t>(k.size())};
        for (int step = 0; step < 5; ++step) {
            const std::string cur(kbuf, kd.len);
            auto it = m.upper_bound(cur);
            if (step > 0 && g.chance(30)) {
                // The tree changes under the walk: a key put right after the
                // current one, or the next one deleted.
                if (it != m.end() && g.chance(50)) {
                    ASSERT_EQ(vt::del(h, it->first), 0);
                    m.erase(it);
                } else if (cur.size() < 1024 && !m.count(cur + "+")) {
                    ASSERT_EQ(vt::put(h, cur + "+", "w"), 0);
                    m[cur + "+"] = "w";
                }
                it = m.upper_bound(cur);
            }
            bdb_datum vd{};
            const int rc = bdb_next(h, &kd, &vd);
            ASSERT_EQ(rc == 0 ? 0u : bdb_error(h), it == m.end() ? BDB_E_EOF : 0u) << bdbstrerr(bdb_error(h));
            if (rc < 0) break;
            ASSERT_EQ(std::string(kbuf, kd.len), it->first);
            ASSERT_EQ(vd.len, it->second.size());
            std::free(vd.ptr);
        }
    } else {  // first, and keys of bad sizes
        char kbuf[1024];
        bdb_datum kd{kbuf, 0}, vd{};
        const int rc = bdb_first(h, &kd, &vd);
        ASSERT_EQ(rc == 0 ? 0u : bdb_error(h), m.empty() ? BDB_E_EMPTY : 0u);
        if (rc == 0) {
            ASSERT_EQ(std::string(kbuf, kd.len), m.begin()->first);
        }
        std::free(vd.ptr);
        ASSERT_EQ(vt::put(h, std::string(1025, 'k'), "v") == 0 ? 0u : bdb_error(h), BDB_E_KEYSIZE);
        ASSERT_EQ(vt::put(h, "", "v") == 0 ? 0u : bdb_error(h), BDB_E_KEYSIZE);
    }
}

enum Kind { kPrivate, kBulk, kOtherOrder, kChoppy, kThread, kShared, kReverse };
const char *const kKindNames[] = {"private", "bulk", "otherorder", "choppy", "thread", "shared", "reverse"};
struct Config {
    uint64_t seed;
    uint32_t cache;
    Kind kind;
};

// Transfers that fail with EINTR every other call and move at most 1000 bytes.
struct Choppy {
    static inline int calls = 0;
    static ssize_t pwrite(int fd, const void *b, size_t n, off_t off) {
        return ++calls % 2 ? (errno = EINTR, -1) : ::pwrite(fd, b, n > 1000 ? 1000 : n, off);
    }
    static ssize_t pread(int fd, void *b, size_t n, off_t off) {
        return ++calls % 2 ? (errno = EINTR, -1) : ::pread(fd, b, n > 1000 ? 1000 : n, off);
    }
};

// Sorted records for a bulk load, handed out one by one.
struct Source {
    Model::const_iterator it, end;
    static int next(void *ctx, bdb_datum *k, bdb_datum *d) {
        auto *s = static_cast<Source *>(ctx);
        if (s->it == s->end) return 0;
        *k = vt::datum(s->it->first), *d = vt::datum(s->it->second);
        ++s->it;
        return 1;
    }
};

class ModelTest : public ::testing::TestWithParam<Config> {
protected:
    void SetUp() override { vt::Watchdog::arm(static_cast<unsigned>(550 * vt::env_long("VARLO_SOAK", 1))); }
    void TearDown() override {
        varlo::sysio_reset();
        vt::Watchdog::disarm_and_clean();
    }
};

TEST_P(ModelTest, RandomOperationsMatchTheModel) {
    const Config cfg = GetParam();
    const long soak = vt::env_long("VARLO_SOAK", 1);
    vt::TempDir dir;
    const int mode = cfg.kind == kShared ? BDB_SHARED : BDB_PRIVATE;
    const std::string path = vt::fresh_db(dir, "model", mode, nullptr);
    ASSERT_FALSE(path.empty());
    if (cfg.kind == kOtherOrder) {  // the empty database's meta page, every word turned round
        std::vector<uint8_t> meta(8192);
        const int fd = ::open(path.c_str(), O_RDWR);
        ASSERT_EQ(varlo::read_full(fd, meta.data(), 8192, 0), 0);
        bdb_swap(meta.data(), 8192);
        ASSERT_EQ(varlo::write_full(fd, meta.data(), 8192, 0) + ::close(fd), 0);
    }
    if (cfg.kind == kChoppy) varlo::sysio.pwrite = Choppy::pwrite, varlo::sysio.pread = Choppy::pread;
    auto open = [&] {
        uint32_t err = 0;
        bdb_options o{cfg.cache, cfg.kind == kReverse ? reverse_compare : nullptr, vt::recording_handler};
        return bdb_open(path.c_str(), 0, BDB_RDWR, mode, &o, cfg.kind == kThread ? 7 : 0, &err);
    };
    Gen g(cfg.seed);
    Model m(Order{cfg.kind == kReverse});
    bdb_handle *h = open();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ((h->flags & BDB_F_SWAPPED) != 0, cfg.kind == kOtherOrder);
    if (cfg.kind == kBulk) {
        for (int i = 0; i < 3000; ++i) m.emplace(g.key(), g.value());
        Source src{m.begin(), m.end()};
        ASSERT_EQ(bdb_bulk_load(h, Source::next, &src), 0) << bdbstrerr(bdb_error(h));
        ASSERT_EQ(bdb_check(h), 0) << vt::last_context();
    }
    const int batches = static_cast<int>(12 * soak);
    for (int b = 0; b < batches; ++b) {
        SCOPED_TRACE("seed " + std::to_string(cfg.seed) + " batch " + std::to_string(b));
        g.phase = b % 6 < 3 ? 0 : (b % 6 < 5 ? 1 : 2);
        for (int i = 0; i < 1500; ++i) {
            one_op(g, h, m);
            if (HasFatalFailure()) {
                bdb_close(h);
                return;
            }
        }
        // Mostly close and reopen; sometimes only sync.
        if (g.chance(75)) {
            ASSERT_EQ(bdb_close(h), 0);
            ASSERT_NE(h = open(), nullptr);
            uint32_t top = 0;
            for (uint32_t pg = 0; pg < BDB_MAXPAGES; ++pg) top = h->meta->pgmap[pg / 32] >> (pg % 32) & 1 ? pg + 1 : top;
            ASSERT_EQ(std::filesystem::file_size(path), top * 8192ull);
        } else {
            ASSERT_EQ(bdb_sync(h), 0);
        }
        ASSERT_EQ(bdb_check(h), 0) << bdbstrerr(bdb_error(h)) << ": " << vt::last_context();
        expect_same(h, m);
        if (HasFatalFailure()) break;
        // Now and then empty most of the database, to exercise merges and the
        // root collapsing.
        if (b % 6 == 5) {
            for (auto it = m.begin(); it != m.end();) {
                if (g.chance(90)) {
                    ASSERT_EQ(vt::del(h, it->first), 0);
                    it = m.erase(it);
                } else {
                    ++it;
                }
            }
            ASSERT_EQ(bdb_check(h), 0) << bdbstrerr(bdb_error(h)) << ": " << vt::last_context();
        }
    }
    expect_same(h, m);
    ASSERT_EQ(bdb_close(h), 0);
}

std::vector<Config> configs() {
    std::vector<Config> out;
    const long soak = vt::env_long("VARLO_SOAK", 1);
    for (uint64_t s = 1; s <= static_cast<uint64_t>(8 * soak); ++s) {
        out.push_back(Config{s, 0, static_cast<Kind>(s % 7)});                     // the smallest cache: 4 pages
        out.push_back(Config{1000 + s, 1u << 20, static_cast<Kind>((s + 3) % 7)});  // 128 pages
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, ::testing::ValuesIn(configs()), [](const auto &info) {
    return "seed" + std::to_string(info.param.seed) + "_cache" + std::to_string(info.param.cache) + "_" +
           kKindNames[info.param.kind];
});

}  // namespace
