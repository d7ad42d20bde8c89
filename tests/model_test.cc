// Model-based test of the record calls: random sequences of put, replace,
// update, delete, remove, get, first and next checked against std::map, with
// close and reopen and an integrity check of the file between batches.
//
// VARLO_SOAK=n multiplies the number of seeds and batches (make soak).
#include <map>
#include <random>

#include "test_util.h"

namespace {

using Model = std::map<std::string, std::string>;

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
        size_t n;
        int r = static_cast<int>(below(100));
        if (long_keys && r < 60)
            n = 300 + below(725);
        else if (r < 70)
            n = 1 + below(12);
        else if (r < 95)
            n = 1 + below(120);
        else
            n = 500 + below(525);
        for (size_t i = 0; i < n && k.size() < 1024; ++i) k.push_back(static_cast<char>('a' + below(6)));
        if (k.empty()) k = "k";
        if (k.size() > 1024) k.resize(1024);
        return k;
    }

    // Values: empty, small, around the long-value threshold, and long.
    std::string value() {
        size_t n;
        int r = static_cast<int>(below(100));
        if (r < 5)
            n = 0;
        else if (r < 55)
            n = below(200);
        else if (r < 75)
            n = 200 + below(1800);
        else if (r < 87)
            n = 2040 + below(16);
        else
            n = 2049 + below(30000);
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
    if (it == m.end()) it = m.begin();
    return it->first;
}

void expect_same(bdb_handle *h, const Model &m) {
    auto got = vt::walk(h);
    ASSERT_EQ(bdb_error(h), m.empty() ? BDB_E_EMPTY : BDB_E_EOF);
    ASSERT_EQ(got.size(), m.size());
    auto it = m.begin();
    for (size_t i = 0; i < got.size(); ++i, ++it) {
        ASSERT_EQ(got[i].first, it->first) << "record " << i;
        ASSERT_EQ(got[i].second.size(), it->second.size()) << "key " << it->first;
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
        int rc = vt::put(h, k, v);
        if (m.count(k)) {
            ASSERT_EQ(rc, -1);
            ASSERT_EQ(bdb_error(h), BDB_E_DUPLICATE);
        } else {
            ASSERT_EQ(rc, 0) << bdbstrerr(bdb_error(h));
            m[k] = v;
        }
    } else if (r < 42) {  // replace
        std::string k = g.chance(60) ? pick_existing(g, m) : g.key(), v = g.value();
        const bool had = m.count(k) > 0;
        bdb_seterror(h, 0);
        ASSERT_EQ(vt::replace(h, k, v), 0) << bdbstrerr(bdb_error(h));
        ASSERT_EQ(bdb_error(h), had ? 0u : BDB_E_INSERTED);
        m[k] = v;
    } else if (r < 52) {  // update
        std::string k = g.chance(70) ? pick_existing(g, m) : g.key(), v = g.value();
        int rc = vt::update(h, k, v);
        if (m.count(k)) {
            ASSERT_EQ(rc, 0) << bdbstrerr(bdb_error(h));
            m[k] = v;
        } else {
            ASSERT_EQ(rc, -1);
            ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
        }
    } else if (r < 66) {  // delete
        std::string k = g.chance(85) ? pick_existing(g, m) : g.key();
        int rc = vt::del(h, k);
        if (m.erase(k)) {
            ASSERT_EQ(rc, 0) << bdbstrerr(bdb_error(h));
        } else {
            ASSERT_EQ(rc, -1);
            ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
        }
    } else if (r < 72) {  // remove
        std::string k = g.chance(85) ? pick_existing(g, m) : g.key();
        bool ok = vt::remove(h, k, &out);
        auto it = m.find(k);
        if (it != m.end()) {
            ASSERT_TRUE(ok) << bdbstrerr(bdb_error(h));
            ASSERT_TRUE(out == it->second);
            m.erase(it);
        } else {
            ASSERT_FALSE(ok);
            ASSERT_EQ(bdb_error(h), BDB_E_NOTFOUND);
        }
    } else if (r < 90) {  // get
        std::string k = g.chance(70) ? pick_existing(g, m) : g.key();
        bool ok = vt::get(h, k, &out);
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
            int rc = bdb_next(h, &kd, &vd);
            if (it == m.end()) {
                ASSERT_EQ(rc, -1);
                ASSERT_EQ(bdb_error(h), BDB_E_EOF);
                break;
            }
            ASSERT_EQ(rc, 0) << bdbstrerr(bdb_error(h));
            ASSERT_EQ(std::string(kbuf, kd.len), it->first);
            ASSERT_EQ(vd.len, it->second.size());
            std::free(vd.ptr);
        }
    } else {  // first, and keys of bad sizes
        char kbuf[1024];
        bdb_datum kd{kbuf, 0}, vd{};
        int rc = bdb_first(h, &kd, &vd);
        if (m.empty()) {
            ASSERT_EQ(rc, -1);
            ASSERT_EQ(bdb_error(h), BDB_E_EMPTY);
        } else {
            ASSERT_EQ(rc, 0);
            ASSERT_EQ(std::string(kbuf, kd.len), m.begin()->first);
            std::free(vd.ptr);
        }
        std::string big(1025, 'k');
        ASSERT_EQ(vt::put(h, big, "v"), -1);
        ASSERT_EQ(bdb_error(h), BDB_E_KEYSIZE);
        ASSERT_EQ(vt::put(h, "", "v"), -1);
        ASSERT_EQ(bdb_error(h), BDB_E_KEYSIZE);
    }
}

struct Config {
    uint64_t seed;
    uint32_t cache;
};

class ModelTest : public ::testing::TestWithParam<Config> {};

TEST_P(ModelTest, RandomOperationsMatchTheModel) {
    const Config cfg = GetParam();
    const long soak = vt::env_long("VARLO_SOAK", 1);
    vt::TempDir dir;
    const std::string path = dir.file("model.db");
    Gen g(cfg.seed);
    Model m;
    bdb_handle *h = vt::create_open(path, cfg.cache, vt::recording_handler);
    ASSERT_NE(h, nullptr);
    const int batches = static_cast<int>(12 * soak);
    for (int b = 0; b < batches; ++b) {
        SCOPED_TRACE("seed " + std::to_string(cfg.seed) + " batch " + std::to_string(b));
        g.phase = b % 6 < 3 ? 0 : (b % 6 < 5 ? 1 : 2);
        const int ops = 1500;
        for (int i = 0; i < ops; ++i) {
            one_op(g, h, m);
            if (HasFatalFailure()) {
                bdb_close(h);
                return;
            }
        }
        // Mostly close and reopen; sometimes only sync.
        if (g.chance(75)) {
            ASSERT_EQ(bdb_close(h), 0);
            h = vt::open_db(path, cfg.cache, BDB_RDWR, vt::recording_handler);
            ASSERT_NE(h, nullptr);
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
    const uint64_t seeds = static_cast<uint64_t>(8 * soak);
    for (uint64_t s = 1; s <= seeds; ++s) {
        out.push_back(Config{s, 0});                // the smallest cache: 4 pages
        out.push_back(Config{1000 + s, 1u << 20});  // 128 pages
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, ::testing::ValuesIn(configs()), [](const auto &info) {
    return "seed" + std::to_string(info.param.seed) + "_cache" + std::to_string(info.param.cache);
});

}  // namespace
