// Databases used by several threads of one process, each through a handle of
// its own (a nonzero thread argument to bdb_open): a mixed workload against
// models, privately and in shared mode, and the registry and the handle
// lists (with a stale path and a second name of one file).
#include <malloc.h>
#include <filesystem>
#include <latch>
#include <map>
#include <random>
#include <thread>

#include "test_util.h"

namespace {

using namespace varlo;  // the registry: bdb_hndl_array, numDatabases
using Model = std::map<std::string, std::string>;
struct Worker { bdb_handle *h = nullptr; Model model; std::string error; };

class ThreadGroup : public ::testing::Test {
protected:
    void SetUp() override { vt::Watchdog::arm(300); }
    void TearDown() override {  // every registry entry went with its last handle
        vt::Watchdog::disarm_and_clean();
        EXPECT_TRUE(numDatabases == 0 && bdb_hndl_array == nullptr);
    }
    std::string make_db(const std::string &base, int mode = BDB_PRIVATE) { return vt::fresh_db(dir, base, mode, &key); }
    vt::TempDir dir;
    key_t key = -1;  // of the last database made
};

bdb_handle *open_thread(const std::string &path, uint32_t thread, int mode = BDB_PRIVATE) {
    uint32_t err = 0;
    return bdb_open(path.c_str(), 0, BDB_RDWR, mode, nullptr, thread, &err);
}

const bdb_hndl_entry *entry_of(key_t key) {
    for (uint32_t i = 0; i < numDatabases; ++i)
        if (bdb_hndl_array[i].key == key) return &bdb_hndl_array[i];
    return nullptr;
}

// A list made by calloc(n, elem) has room for n elements, not for n + 5.
bool room_for(const void *p, size_t n, size_t elem) {
    const size_t bytes = malloc_usable_size(const_cast<void *>(p));
    return bytes >= n * elem && bytes < (n + 5) * elem;
}

// Thread t puts, replaces, deletes and gets keys of its own at random and
// checks every answer against its model; returns the first disagreement.
std::string run_workload(bdb_handle *h, int t, Model &model) {
    std::mt19937 rng(1000 + t);
    for (int n = 0; n < 2000; ++n) {
        const std::string k = "t" + std::to_string(t) + "-" + std::to_string(rng() % 150);
        const std::string v(rng() % 10 == 0 ? 2048 + rng() % 4000 : rng() % 200, static_cast<char>('a' + n % 26));
        const bool present = model.count(k) != 0;
        const unsigned op = rng() % 6;
        std::string got;
        const bool ok = op == 0   ? vt::put(h, k, v) == (present ? -1 : 0)
                        : op == 1 ? vt::replace(h, k, v) == 0
                        : op == 2 ? vt::del(h, k) == (present ? 0 : -1)
                                  : vt::get(h, k, &got) == present && (!present || got == model[k]);
        if (op == 1 || (op == 0 && !present)) model[k] = v;
        if (op == 2) model.erase(k);
        if (!ok) return k + ": operation " + std::to_string(op) + ", code " + std::to_string(bdb_error(h));
    }
    return "";
}

// Eight threads, a handle each, work while the main thread closes the
// group's first handle; in shared mode the group attaches once.
TEST_F(ThreadGroup, EightThreadsAgreeWithTheirModelsAndOutliveTheFirstHandle) {
    constexpr int kThreads = 8;
    for (int mode : {BDB_PRIVATE, BDB_SHARED}) {
        SCOPED_TRACE(mode);
        const std::string path = make_db("group" + std::to_string(mode) + "-", mode);
        bdb_handle *first = open_thread(path, 100, mode);
        ASSERT_NE(first, nullptr);
        varlo::bdb_atexit();  // the threads' opens race to make the process-wide mutex again
        std::vector<Worker> ws(kThreads);
        std::latch opened(kThreads + 1), checked(1);  // the workers start once the group is checked
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                Worker &w = ws[t];
                w.h = open_thread(path, static_cast<uint32_t>(t + 1), mode);
                opened.arrive_and_wait();
                checked.wait();
                if (w.h) w.error = run_workload(w.h, t, w.model);
                if (w.h && bdb_close(w.h) != 0) w.error += " close";
            });
        opened.arrive_and_wait();
        EXPECT_TRUE(entry_of(key) && entry_of(key)->nhandles == kThreads + 1);
        EXPECT_EQ(vt::shm_nattch(key), mode == BDB_SHARED ? 1 : -1);
        for (const Worker &w : ws) EXPECT_TRUE(w.h && w.h->area == first->area);
        checked.count_down();
        EXPECT_EQ(bdb_close(first), 0);
        for (auto &t : threads) t.join();
        Model all;
        for (const Worker &w : ws) {
            EXPECT_EQ(w.error, "");
            all.insert(w.model.begin(), w.model.end());
        }
        EXPECT_TRUE(!vt::shm_exists(key) && !vt::sem_exists(key));
        bdb_handle *h = vt::open_db(path);
        ASSERT_NE(h, nullptr);
        auto got = vt::walk(h);
        EXPECT_TRUE(Model(got.begin(), got.end()) == all && got.size() == all.size());
        EXPECT_EQ(bdb_check(h), 0);
        EXPECT_EQ(bdb_close(h), 0);
    }
}

// The group is found by its file, not by its first handle's path: that
// handle comes by a relative path before a chdir, the sixth by a new name
// after a rename.
TEST_F(ThreadGroup, RegistryAndHandleListsGrowAndShrinkInStepsOfFive) {
    const std::string path = make_db("list"), moved = path + "-moved";
    const key_t list_key = key;
    auto fds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto fds_before = fds();
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    std::vector<bdb_handle *> hs, dbs;
    for (uint32_t i = 1; i <= 6; ++i) {
        if (i == 2) std::filesystem::current_path(cwd);
        ASSERT_TRUE(i < 6 || std::rename(path.c_str(), moved.c_str()) == 0);
        hs.push_back(open_thread(i == 1 ? std::filesystem::path(path).filename().string() : i < 6 ? path : moved, i));
        ASSERT_TRUE(hs.back() && room_for(entry_of(list_key)->handles, i <= 5 ? 5 : 10, sizeof(bdb_handle *))) << i;
    }
    EXPECT_TRUE(numDatabases == 1 && hs[5]->fd == hs[0]->fd);
    // Closing the first of six: the others move down, in order, into a new
    // list with room for 10.
    const void *before = entry_of(list_key)->handles;
    EXPECT_EQ(bdb_close(hs[0]), 0);
    const bdb_hndl_entry *e = entry_of(list_key);
    EXPECT_TRUE(e->nhandles == 5 && e->handles != before && room_for(e->handles, 10, sizeof(bdb_handle *)));
    for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(e->handles[i], hs[i + 1]);
    EXPECT_TRUE(vt::put(hs[5], "via", "other path") == 0 && vt::get(hs[1], "via", nullptr));
    // The registry likewise, with five more databases.
    for (uint32_t i = 2; i <= 6; ++i) {
        dbs.push_back(open_thread(make_db("reg" + std::to_string(i) + "-"), 1));
        ASSERT_TRUE(dbs.back() && room_for(bdb_hndl_array, i <= 5 ? 5 : 10, sizeof(bdb_hndl_entry))) << i;
    }
    // Removing the first of six entries: the others move down likewise.
    before = bdb_hndl_array;
    for (size_t i = 1; i < hs.size(); ++i) EXPECT_EQ(bdb_close(hs[i]), 0);
    EXPECT_TRUE(numDatabases == 5 && bdb_hndl_array != before && room_for(bdb_hndl_array, 10, sizeof(bdb_hndl_entry)));
    for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(bdb_hndl_array[i].handles[0], dbs[i]);
    for (bdb_handle *h : dbs) EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(fds(), fds_before) << "a descriptor left open";
}

}  // namespace
