// Driver of the cross-build test (cross_test.sh): built by every toolchain,
// it lets builds of other byte orders and widths work on one database.
//
//   cross_driver step DB K ORDER   step K of a chain of changes: checks that
//       the file is in ORDER (le/be, the creator's order) and holds what
//       steps 0..K-1 made (bdb_check, every record against the model), then
//       makes step K's changes (K = 0 creates the file) and checks again
//       after a read-only reopen. Odd steps open the file in shared mode;
//       step 2 syncs, changes more with a small cache and ends without closing.
//   cross_driver share DB ID N     shared-mode peer ID (0 or 1): puts N
//       records, one at a time, each after seeing the peer's previous one;
//       then checks every record of both and the file.
//   cross_driver ipc DB            fails (and removes them) when the System V
//       objects of DB are left over.
// Every wait is bounded by an alarm. Exit status 0 when every check holds.
#include <cstdio>
#include <map>
#include <random>

#include "test_util.h"

namespace {

using Model = std::map<std::string, std::string>;

int failed(const char *what, bdb_handle *h = nullptr) {
    std::fprintf(stderr, "cross_driver %d: %s (%s)\n", (int)getpid(), what, h ? bdbstrerr(bdb_error(h)) : "-");
    return 1;
}
#define CHECK(c, h) \
    if (!(c)) return failed(#c, h)

// A value of n bytes that depends on its key; every few are long values.
std::string value_for(const std::string &key, uint64_t r) {
    const size_t n = r % 5 == 0 ? 2048 + r % 20000 : r % 600;
    std::string v(n, '\0');
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>(key[i % key.size()] + i);
    return v;
}

// Step k's changes, applied to the model and, when h is given, to the file.
int apply_step(uint32_t k, Model &m, bdb_handle *h) {
    std::mt19937_64 rng(k);  // the same sequence in every build
    for (int i = 0; i < 400; ++i) {
        const uint64_t r = rng();
        const std::string key = "key" + std::to_string(r % 700) + std::string(r % 90, 'k');
        const std::string v = value_for(key, r >> 20);
        const bool had = m.count(key) > 0;
        switch (r >> 60 & 3) {
        case 0:
            if (h) CHECK(vt::put(h, key, v) == (had ? -1 : 0), h);
            if (!had) m[key] = v;
            break;
        case 1:
            if (h) CHECK(vt::replace(h, key, v) == 0, h);
            m[key] = v;
            break;
        case 2:
            if (h) CHECK(vt::del(h, key) == (had ? 0 : -1), h);
            m.erase(key);
            break;
        default:
            if (std::string got; h) CHECK(vt::get(h, key, &got) == had && (!had || got == m[key]), h);
        }
    }
    return 0;
}

int expect(bdb_handle *h, const Model &m) {
    CHECK(bdb_check(h) == 0, h);
    const auto got = vt::walk(h);
    auto same = [](const auto &a, const auto &b) { return a.first == b.first && a.second == b.second; };
    CHECK(got.size() == m.size() && std::equal(got.begin(), got.end(), m.begin(), same), h);
    return 0;
}

int step(const std::string &db, uint32_t k, const std::string &order) {
    constexpr bool big = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
    uint32_t err = 0;
    if (k == 0) CHECK(bdb_create(db.c_str(), BDB_PRIVATE, &err) == 0, nullptr);
    uint8_t magic[4] = {};
    FILE *f = std::fopen(db.c_str(), "rb");
    CHECK(f && std::fread(magic, 1, 4, f) == 4, nullptr);
    std::fclose(f);
    CHECK(magic[0] == (order == "be" ? 0xf0 : 0xce), nullptr);  // never rewritten in another order
    Model m;
    for (uint32_t j = 0; j < k; ++j) apply_step(j, m, nullptr);
    const bdb_options opts{k == 2 ? 0u : 1u << 20, nullptr, nullptr};  // odd steps work in shared mode
    bdb_handle *h = bdb_open(db.c_str(), 0, BDB_RDWR, k % 2 ? BDB_SHARED : BDB_PRIVATE, &opts, 0, &err);
    CHECK(h, nullptr);
    CHECK(((h->flags & BDB_F_SWAPPED) != 0) == (order != (big ? "be" : "le")), h);
    if (expect(h, m) || apply_step(k, m, h) || expect(h, m)) return 1;
    if (k == 2) {  // synced, then changes that a crash loses: the next build finds the synced state
        CHECK(bdb_sync(h) == 0, h);
        if (Model lost = m; apply_step(k + 1000, lost, h)) return 1;
        _exit(0);
    }
    CHECK(bdb_close(h) == 0, h);
    CHECK((h = vt::open_db(db, 0, BDB_RDONLY)), nullptr);
    if (expect(h, m)) return 1;
    CHECK(bdb_close(h) == 0, h);
    return 0;
}

int share(const std::string &db, int id, int n) {
    uint32_t err = 0;
    bdb_handle *h = bdb_open(db.c_str(), 0, BDB_RDWR, BDB_SHARED, nullptr, 0, &err);
    CHECK(h, nullptr);
    auto key = [](int who, int i) { return "peer" + std::to_string(who) + "/" + std::to_string(i); };
    auto val = [&](int who, int i) { return value_for(key(who, i), static_cast<uint64_t>(i) * 7 + who); };
    std::string got;
    for (int i = 0; i < n; ++i) {
        CHECK(vt::put(h, key(id, i), val(id, i)) == 0, h);
        while (!vt::get(h, key(1 - id, i), &got)) {
            CHECK(bdb_error(h) == BDB_E_NOTFOUND, h);
            usleep(500);
        }
        CHECK(got == val(1 - id, i), h);
    }
    for (int i = 0; i < n; ++i)
        for (int who = 0; who < 2; ++who) CHECK(vt::get(h, key(who, i), &got) && got == val(who, i), h);
    CHECK(bdb_check(h) == 0, h);
    CHECK(bdb_close(h) == 0, h);
    return 0;
}

int ipc(const std::string &db) {
    const key_t key = ftok(db.c_str(), varlo::kIpcProject);
    const bool left = vt::shm_exists(key) || vt::sem_exists(key);
    vt::remove_ipc(key);
    return left ? failed("System V objects left behind") : 0;
}

}  // namespace

int main(int argc, char **argv) {
    alarm(120);
    const std::string cmd = argc > 2 ? argv[1] : "", db = argc > 2 ? argv[2] : "";
    if (cmd == "step" && argc == 5) return step(db, std::stoul(argv[3]), argv[4]);
    if (cmd == "share" && argc == 5) return share(db, std::stoi(argv[3]), std::stoi(argv[4]));
    if (cmd == "ipc" && argc == 3) return ipc(db);
    std::fprintf(stderr, "usage: cross_driver step DB K le|be | share DB ID N | ipc DB\n");
    return 2;
}
