// Databases used by several threads of one process, each through a handle of
// its own (a nonzero thread argument to bdb_open): a mixed workload checked
// against per-thread models, the registry and the handle lists, two paths to
// one file, shared mode with thread handles, and the process-wide mutex.
#include <algorithm>
#include <malloc.h>
#include <map>
#include <pthread.h>
#include <random>
#include <thread>

#include "test_util.h"

namespace {

using varlo::bdb_hndl_array;
using varlo::numDatabases;

class ThreadGroup : public ::testing::Test {
protected:
    void SetUp() override {
        vt::Watchdog::arm(300);
        ASSERT_EQ(numDatabases, 0u);
    }
    void TearDown() override {
        vt::Watchdog::disarm_and_clean();
        EXPECT_EQ(numDatabases, 0u);
        EXPECT_EQ(bdb_hndl_array, nullptr);
    }
    std::string make_db(const std::string &base, int mode = BDB_PRIVATE, key_t *key = nullptr) {
        key_t k;
        std::string p = vt::fresh_db(dir, base, mode, &k);
        if (key) *key = k;
        return p;
    }
    vt::TempDir dir;
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

// Room of a list made by calloc(n, elem): n elements, fewer than n + 5.
testing::AssertionResult room_for(const void *p, size_t n, size_t elem) {
    const size_t bytes = malloc_usable_size(const_cast<void *>(p));
    if (bytes >= n * elem && bytes < (n + 5) * elem) return testing::AssertionSuccess();
    return testing::AssertionFailure() << bytes << " bytes, not room for " << n;
}

// --- the mixed workload -------------------------------------------------------

using Model = std::map<std::string, std::string>;

struct Worker {
    int t = 0;
    bdb_handle *h = nullptr;
    Model model;
    std::string error;  // the first disagreement, empty when none
};

std::string value(std::mt19937 &rng) {
    const size_t n = rng() % 10 == 0 ? 2048 + rng() % 4000 : rng() % 200;
    std::string v(n, '\0');
    const char c = static_cast<char>('A' + rng() % 26);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>(c + i % 5);
    return v;
}

std::string prefix_of(int t) { return "t" + std::to_string(t) + "-"; }

// The records of the worker's own range, through bdb_next from the range's
// marker record (bdb_next needs a present key to start from).
bool scan_matches(Worker &w) {
    const std::string pre = prefix_of(w.t);
    char kbuf[1024];
    std::memcpy(kbuf, pre.data(), pre.size());
    bdb_datum kd{kbuf, static_cast<uint32_t>(pre.size())}, vd{};
    auto it = w.model.upper_bound(pre);
    while (bdb_next(w.h, &kd, &vd) == 0) {
        std::string k(kbuf, kd.len), v(vd.ptr ? static_cast<char *>(vd.ptr) : "", vd.len);
        std::free(vd.ptr);
        vd = bdb_datum{};
        if (k.compare(0, pre.size(), pre) != 0) break;
        if (it == w.model.end() || it->first != k || it->second != v) return false;
        ++it;
    }
    return it == w.model.end();
}

void run_workload(Worker &w, int ops) {
    std::mt19937 rng(1000 + w.t);
    // The marker: the prefix itself, which the workload never touches.
    if (vt::put(w.h, prefix_of(w.t), "") != 0) w.error = "marker";
    w.model[prefix_of(w.t)] = "";
    auto fail = [&](const std::string &what, const std::string &k) {
        w.error = what + " " + k + " code " + std::to_string(bdb_error(w.h));
    };
    for (int n = 0; n < ops && w.error.empty(); ++n) {
        char kb[16];
        std::snprintf(kb, sizeof kb, "%03u", static_cast<unsigned>(rng() % 150));
        const std::string k = prefix_of(w.t) + kb;
        const auto it = w.model.find(k);
        const bool present = it != w.model.end();
        const int r = static_cast<int>(rng() % 100);
        std::string v, got;
        if (r < 25) {
            v = value(rng);
            const int rc = vt::put(w.h, k, v);
            if (present ? rc != -1 || bdb_error(w.h) != BDB_E_DUPLICATE : rc != 0) fail("put", k);
            if (!present) w.model[k] = v;
        } else if (r < 40) {
            v = value(rng);
            bdb_seterror(w.h, 0);
            if (vt::replace(w.h, k, v) != 0 || (bdb_error(w.h) == BDB_E_INSERTED) == present) fail("replace", k);
            w.model[k] = v;
        } else if (r < 50) {
            v = value(rng);
            const int rc = vt::update(w.h, k, v);
            if (present ? rc != 0 : rc != -1 || bdb_error(w.h) != BDB_E_NOTFOUND) fail("update", k);
            if (present) w.model[k] = v;
        } else if (r < 60) {
            const int rc = vt::del(w.h, k);
            if (present ? rc != 0 : rc != -1 || bdb_error(w.h) != BDB_E_NOTFOUND) fail("delete", k);
            w.model.erase(k);
        } else if (r < 68) {
            const bool ok = vt::remove(w.h, k, &got);
            if (ok != present || (present && got != it->second)) fail("remove", k);
            w.model.erase(k);
        } else if (r < 97) {
            const bool ok = vt::get(w.h, k, &got);
            if (ok != present || (present && got != it->second)) fail("get", k);
        } else if (!scan_matches(w)) {
            fail("scan", k);
        }
    }
}

TEST_F(ThreadGroup, EightThreadsAgreeWithTheirModels) {
    constexpr int kThreads = 8;
    key_t key;
    const std::string path = make_db("group", BDB_PRIVATE, &key);
    ASSERT_FALSE(path.empty());
    // The group's first handle belongs to the main thread.
    bdb_handle *first = open_thread(path, 100);
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(first->flags & BDB_F_AREA_OWNER);

    pthread_barrier_t opened, worked, checked;
    pthread_barrier_init(&opened, nullptr, kThreads + 1);
    pthread_barrier_init(&worked, nullptr, kThreads + 1);
    pthread_barrier_init(&checked, nullptr, kThreads + 1);
    std::vector<Worker> workers(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Worker &w = workers[t];
            w.t = t;
            w.h = open_thread(path, static_cast<uint32_t>(t + 1));
            pthread_barrier_wait(&opened);
            if (w.h) run_workload(w, 1500);
            pthread_barrier_wait(&worked);
            pthread_barrier_wait(&checked);
            if (w.h && w.error.empty() && !scan_matches(w)) w.error = "final scan";
            if (w.h && bdb_close(w.h) != 0) w.error += " close";
        });
    }
    pthread_barrier_wait(&opened);
    for (auto &w : workers) {
        ASSERT_NE(w.h, nullptr);
        EXPECT_TRUE(w.h->flags & BDB_F_FILE_SHARED);
        EXPECT_FALSE(w.h->flags & BDB_F_AREA_OWNER);
        EXPECT_EQ(w.h->area, first->area);
        EXPECT_NE(w.h->thread_id, 0u);
        EXPECT_NE(w.h->thread_id, first->thread_id);
    }
    const int fd = first->fd;
    // The first handle goes first, while the others work.
    EXPECT_EQ(bdb_close(first), 0);

    pthread_barrier_wait(&worked);
    const bdb_hndl_entry *e = entry_of(key);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->nhandles, 8u);
    // A later opener copies from the new first handle.
    bdb_handle *late = open_thread(path, 200);
    ASSERT_NE(late, nullptr);
    e = entry_of(key);
    ASSERT_EQ(e->nhandles, 9u);
    EXPECT_TRUE(std::any_of(workers.begin(), workers.end(), [&](const Worker &w) { return w.h == e->handles[0]; }));
    EXPECT_EQ(late->fd, fd);
    EXPECT_EQ(late->area, e->handles[0]->area);
    EXPECT_TRUE(late->flags & BDB_F_FILE_SHARED);
    Model all;
    for (auto &w : workers) {
        EXPECT_EQ(w.error, "") << "thread " << w.t;
        all.insert(w.model.begin(), w.model.end());
    }
    auto got = vt::walk(late);
    EXPECT_TRUE(Model(got.begin(), got.end()) == all && got.size() == all.size());
    EXPECT_EQ(bdb_check(late), 0);
    pthread_barrier_wait(&checked);
    for (auto &t : threads) t.join();
    for (auto &w : workers) EXPECT_EQ(w.error, "") << "thread " << w.t;
    pthread_barrier_destroy(&opened);
    pthread_barrier_destroy(&worked);
    pthread_barrier_destroy(&checked);

    e = entry_of(key);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->nhandles, 1u);
    EXPECT_EQ(e->handles[0], late);
    EXPECT_EQ(bdb_close(late), 0);
    EXPECT_EQ(entry_of(key), nullptr);

    // Everything reached the file.
    bdb_handle *h = vt::open_db(path);
    ASSERT_NE(h, nullptr);
    got = vt::walk(h);
    EXPECT_TRUE(Model(got.begin(), got.end()) == all);
    EXPECT_EQ(bdb_close(h), 0);
}

// --- registry and handle lists ----------------------------------------------

TEST_F(ThreadGroup, HandleListGrowsAndShrinksInStepsOfFive) {
    key_t key;
    const std::string path = make_db("list", BDB_PRIVATE, &key);
    std::vector<bdb_handle *> hs;
    for (uint32_t i = 1; i <= 5; ++i) {
        hs.push_back(open_thread(path, i));
        ASSERT_NE(hs.back(), nullptr);
    }
    const bdb_hndl_entry *e = entry_of(key);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(numDatabases, 1u);
    EXPECT_EQ(e->nhandles, 5u);
    EXPECT_TRUE(room_for(e->handles, 5, sizeof(bdb_handle *)));
    for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(e->handles[i], hs[i]);

    hs.push_back(open_thread(path, 6));
    ASSERT_NE(hs.back(), nullptr);
    e = entry_of(key);
    EXPECT_EQ(e->nhandles, 6u);
    EXPECT_TRUE(room_for(e->handles, 10, sizeof(bdb_handle *)));

    // Closing the first of six: five left, in a new list with room for 10.
    const void *before = e->handles;
    EXPECT_EQ(bdb_close(hs[0]), 0);
    e = entry_of(key);
    EXPECT_EQ(e->nhandles, 5u);
    EXPECT_NE(static_cast<const void *>(e->handles), before);
    EXPECT_TRUE(room_for(e->handles, 10, sizeof(bdb_handle *)));
    for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(e->handles[i], hs[i + 1]);
    // The remaining handles still work on the shared file.
    EXPECT_EQ(vt::put(hs[1], "k", "v"), 0);
    EXPECT_TRUE(vt::get(hs[5], "k", nullptr));

    before = e->handles;
    EXPECT_EQ(bdb_close(hs[3]), 0);
    e = entry_of(key);
    EXPECT_EQ(e->nhandles, 4u);
    EXPECT_EQ(static_cast<const void *>(e->handles), before);
    for (bdb_handle *h : {hs[1], hs[2], hs[4], hs[5]}) EXPECT_EQ(bdb_close(h), 0);
    EXPECT_EQ(entry_of(key), nullptr);
}

TEST_F(ThreadGroup, RegistryGrowsAndShrinksInStepsOfFive) {
    std::vector<bdb_handle *> hs;
    for (int i = 0; i < 6; ++i) {
        const std::string p = make_db("reg" + std::to_string(i) + "-");
        ASSERT_FALSE(p.empty());
        hs.push_back(open_thread(p, 1));
        ASSERT_NE(hs.back(), nullptr);
        EXPECT_EQ(numDatabases, static_cast<uint32_t>(i + 1));
        EXPECT_TRUE(room_for(bdb_hndl_array, i < 5 ? 5 : 10, sizeof(bdb_hndl_entry)));
    }
    // Removing the third of six: the entries behind it move down, in order,
    // into a new array of 10.
    const void *before = bdb_hndl_array;
    EXPECT_EQ(bdb_close(hs[2]), 0);
    EXPECT_EQ(numDatabases, 5u);
    EXPECT_NE(static_cast<const void *>(bdb_hndl_array), before);
    EXPECT_TRUE(room_for(bdb_hndl_array, 10, sizeof(bdb_hndl_entry)));
    const std::vector<bdb_handle *> left = {hs[0], hs[1], hs[3], hs[4], hs[5]};
    for (uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(bdb_hndl_array[i].nhandles, 1u);
        EXPECT_EQ(bdb_hndl_array[i].handles[0], left[i]);
        EXPECT_EQ(bdb_hndl_array[i].key, left[i]->ipc_key);
    }
    for (bdb_handle *h : left) EXPECT_EQ(bdb_close(h), 0);
}

TEST_F(ThreadGroup, TwoPathsToOneFileMakeOneEntry) {
    key_t key;
    const std::string path = make_db("paths", BDB_PRIVATE, &key);
    const std::string other = dir.path() + "/./" + path.substr(dir.path().size() + 1);
    ASSERT_NE(other, path);
    bdb_handle *a = open_thread(path, 1);
    ASSERT_NE(a, nullptr);
    std::thread t([&] {
        bdb_handle *b = open_thread(other, 2);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(numDatabases, 1u);
        const bdb_hndl_entry *e = entry_of(key);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->nhandles, 2u);
        EXPECT_EQ(b->fd, a->fd);
        EXPECT_STREQ(bdb_get_dbname(b), other.c_str());
        EXPECT_EQ(vt::put(b, "via", "other path"), 0);
        EXPECT_EQ(bdb_close(b), 0);
    });
    t.join();
    EXPECT_TRUE(vt::get(a, "via", nullptr));
    EXPECT_EQ(bdb_close(a), 0);
}

TEST_F(ThreadGroup, DestroyRemovesTheFileOnlyThroughTheLastHandle) {
    const std::string path = make_db("destroy");
    bdb_handle *a = open_thread(path, 1), *b = open_thread(path, 2);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(bdb_destroy(a), 0);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(vt::put(b, "still", "here"), 0);
    EXPECT_EQ(bdb_destroy(b), 0);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

// Without an identity from the hook, a handle takes the thread argument.
uint32_t no_identity() { return 0; }

TEST_F(ThreadGroup, ThreadArgumentStandsInForAMissingIdentity) {
    const std::string path = make_db("noid");
    bdb_thread_self = no_identity;
    bdb_handle *a = open_thread(path, 41), *b = open_thread(path, 42);
    bdb_thread_self = unix_thread_self;
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(bdb_get_threadid(a), 41u);
    EXPECT_EQ(bdb_get_threadid(b), 42u);
    EXPECT_EQ(bdb_close(a), 0);
    EXPECT_EQ(bdb_close(b), 0);
}

// --- shared mode with thread handles ------------------------------------------

TEST_F(ThreadGroup, SharedModeThreadHandlesAttachOnce) {
    key_t key;
    const std::string path = make_db("shared", BDB_SHARED, &key);
    ASSERT_FALSE(path.empty());
    bdb_handle *a = open_thread(path, 1, BDB_SHARED);
    ASSERT_NE(a, nullptr);
    bdb_handle *b = nullptr;
    std::thread t([&] { b = open_thread(path, 2, BDB_SHARED); });
    t.join();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(vt::shm_nattch(key), 1);
    EXPECT_EQ(b->area, a->area);
    EXPECT_EQ(b->sem_id, a->sem_id);

    // Both threads work at once; the semaphore serialises them.
    auto work = [](bdb_handle *h, const std::string &pre, std::string *error) {
        for (int i = 0; i < 200 && error->empty(); ++i) {
            const std::string k = pre + std::to_string(i);
            if (vt::put(h, k, k + k) != 0 || !vt::get(h, k, nullptr)) *error = k;
        }
    };
    std::string ea, eb;
    std::thread ta(work, a, "a", &ea), tb(work, b, "b", &eb);
    ta.join();
    tb.join();
    EXPECT_EQ(ea, "");
    EXPECT_EQ(eb, "");

    // Closing the first keeps the attachment for the other.
    EXPECT_EQ(bdb_close(a), 0);
    EXPECT_EQ(vt::shm_nattch(key), 1);
    EXPECT_EQ(vt::walk(b).size(), 400u);
    EXPECT_EQ(bdb_check(b), 0);
    // The last detaches and removes segment and set.
    EXPECT_EQ(bdb_close(b), 0);
    EXPECT_FALSE(vt::shm_exists(key));
    EXPECT_FALSE(vt::sem_exists(key));
}

// --- the process-wide mutex ---------------------------------------------------

TEST(ProcessMutex, FirstUseByManyThreadsMakesOneMutex) {
    vt::Watchdog::arm(120);
    varlo::bdb_atexit();  // back to "not made yet"
    ASSERT_EQ(varlo::bdb_var.mutex, nullptr);
    constexpr int kThreads = 8, kRounds = 300;
    pthread_barrier_t go;
    pthread_barrier_init(&go, nullptr, kThreads);
    long counter = 0;  // changed only under the process-wide mutex
    int failures = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            pthread_barrier_wait(&go);
            for (int i = 0; i < kRounds; ++i) {
                uint32_t err = 0;
                if (bdb_lock_smutex("x", nullptr, &err) != 0) {
                    __atomic_add_fetch(&failures, 1, __ATOMIC_RELAXED);
                    return;
                }
                // Recursive for its holder.
                if (bdb_lock_smutex("x", nullptr, &err) == 0) bdb_unlock_smutex("x", nullptr, &err);
                const long c = counter;
                counter = c + 1;
                bdb_unlock_smutex("x", nullptr, &err);
            }
        });
    }
    for (auto &t : threads) t.join();
    pthread_barrier_destroy(&go);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
    EXPECT_NE(varlo::bdb_var.mutex, nullptr);
    EXPECT_EQ(varlo::bdb_var.hold_count, 0);
    vt::Watchdog::disarm_and_clean();
}

}  // namespace
