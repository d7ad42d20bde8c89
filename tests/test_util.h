// Helpers shared by the tests: temporary folders, record helpers, a recording
// error handler; for multi-process and thread tests children, bounded waits
// and System V clean-up.
#ifndef VARLO_TEST_UTIL_H
#define VARLO_TEST_UTIL_H

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bdb.h"
#include "bdb_int.h"

namespace vt {

// A folder under /tmp removed with everything in it at the end of the test.
class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/varlo-test-XXXXXX";
        if (!mkdtemp(tmpl)) std::abort();
        path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// A datum over a string that outlives it; temporaries are refused at compile time.
inline bdb_datum datum(const std::string &s) { return bdb_datum{const_cast<char *>(s.data()), static_cast<uint32_t>(s.size())}; }
bdb_datum datum(std::string &&) = delete;

// Record calls on strings: put / replace / update / delete give the call's
// result; get / remove give false when the call fails, the value to out.
inline int store(int (*fn)(bdb_handle *, bdb_datum *, bdb_datum *), bdb_handle *h, const std::string &k, const std::string &v) {
    bdb_datum kd = datum(k), vd = datum(v);
    return fn(h, &kd, &vd);
}
inline int put(bdb_handle *h, const std::string &k, const std::string &v) { return store(bdb_put, h, k, v); }
inline int replace(bdb_handle *h, const std::string &k, const std::string &v) { return store(bdb_replace, h, k, v); }
inline int update(bdb_handle *h, const std::string &k, const std::string &v) { return store(bdb_update, h, k, v); }
inline int del(bdb_handle *h, const std::string &k) {
    bdb_datum kd = datum(k);
    return bdb_delete(h, &kd);
}
inline bool fetch(int (*fn)(bdb_handle *, bdb_datum *, bdb_datum *), bdb_handle *h, const std::string &k, std::string *out) {
    bdb_datum kd = datum(k), vd{};
    if (fn(h, &kd, &vd) < 0) return false;
    if (out) out->assign(vd.ptr ? static_cast<char *>(vd.ptr) : "", vd.len);
    std::free(vd.ptr);
    return true;
}
inline bool get(bdb_handle *h, const std::string &k, std::string *out) { return fetch(bdb_get, h, k, out); }
inline bool remove(bdb_handle *h, const std::string &k, std::string *out) { return fetch(bdb_remove, h, k, out); }

// Every record in key order through bdb_first / bdb_next.
inline std::vector<std::pair<std::string, std::string>> walk(bdb_handle *h) {
    std::vector<std::pair<std::string, std::string>> out;
    char kbuf[1024];
    bdb_datum kd{kbuf, 0}, vd{};
    for (int r = bdb_first(h, &kd, &vd); r == 0; vd = bdb_datum{}, r = bdb_next(h, &kd, &vd)) {
        out.emplace_back(std::string(kbuf, kd.len), std::string(vd.ptr ? static_cast<char *>(vd.ptr) : "", vd.len));
        std::free(vd.ptr);
    }
    return out;
}

// An error handler that records the reports it receives.
struct Report {
    bdb_handle *h;
    std::string name, syserr, message, context;
    int sys_errno;
    uint32_t code;
};
inline std::vector<Report> &reports() {
    static std::vector<Report> r;
    return r;
}
inline void recording_handler(bdb_handle *h, const char *name, const char *syserr, int e, const char *msg, uint32_t code,
                              const char *ctx) {
    reports().push_back(Report{h, name ? name : "", syserr ? syserr : "", msg ? msg : "", ctx ? ctx : "", e, code});
}
// The context of the last report, for failure messages.
inline std::string last_context() { return reports().empty() ? std::string() : reports().back().context; }

inline bdb_handle *open_db(const std::string &path, uint32_t cache = 0, int flags = BDB_RDWR, bdb_errhandler_fn fn = nullptr) {
    uint32_t err = 0;
    bdb_options o{cache, nullptr, fn};
    return bdb_open(path.c_str(), 0, flags, BDB_PRIVATE, &o, 0, &err);
}
inline bdb_handle *create_open(const std::string &path, uint32_t cache = 0, bdb_errhandler_fn fn = nullptr) {
    uint32_t err = 0;
    return bdb_create(path.c_str(), BDB_PRIVATE, &err) < 0 ? nullptr : open_db(path, cache, BDB_RDWR, fn);
}

// A number from the environment (soak settings), or the default.
inline long env_long(const char *name, long dflt) {
    const char *v = std::getenv(name);
    return v && *v ? std::strtol(v, nullptr, 10) : dflt;
}

// In a child: reports the failed condition on stderr and ends the child's
// function with status 1.
#define VT_CHILD_CHECK(c)                                                                                        \
    do {                                                                                                         \
        if (!(c)) {                                                                                              \
            std::fprintf(stderr, "child %d: check failed at line %d: %s\n", (int)getpid(), __LINE__, #c);        \
            return 1;                                                                                            \
        }                                                                                                        \
    } while (0)

// The segment and the semaphore set of a key: whether they exist, removal.
inline bool shm_exists(key_t key) { return shmget(key, 0, 0) >= 0; }
inline bool sem_exists(key_t key) { return semget(key, 0, 0) >= 0; }
inline void remove_ipc(key_t key) {
    if (int id = shmget(key, 0, 0); id >= 0) shmctl(id, IPC_RMID, nullptr);
    if (int id = semget(key, 0, 0); id >= 0) semctl(id, 0, IPC_RMID);
}
// Processes attached to the key's segment; -1 when there is none.
inline int shm_nattch(key_t key) {
    struct shmid_ds ds;
    const int id = shmget(key, 0, 0);
    return id < 0 || shmctl(id, IPC_STAT, &ds) < 0 ? -1 : static_cast<int>(ds.shm_nattch);
}
// semctl on semaphore 1 (the database mutex) of the key's set; -1 when none.
inline int sem_ctl(key_t key, int cmd) {
    const int id = semget(key, 0, 0);
    return id < 0 ? -1 : semctl(id, 1, cmd);
}

// A watchdog for the whole process: when the alarm fires, the System V
// objects of the keys registered here are removed and the process ends with
// status 3, so that a hang fails the test instead of blocking the run.
struct Watchdog {
    static inline volatile sig_atomic_t nkeys = 0;
    static inline key_t keys[32];
    static void on_alarm(int) {
        for (int i = 0; i < nkeys; ++i) remove_ipc(keys[i]);
        static const char msg[] = "watchdog: test timed out\n";
        if (write(2, msg, sizeof msg - 1)) _exit(3);
        _exit(3);
    }
    static void arm(unsigned seconds) {
        std::signal(SIGALRM, on_alarm);
        alarm(seconds);
    }
    static void watch(key_t key) {
        if (nkeys < 32) {
            keys[nkeys] = key;
            nkeys = nkeys + 1;
        }
    }
    // Stops the alarm and removes what the registered keys left behind.
    static void disarm_and_clean() {
        alarm(0);
        for (int i = 0; i < nkeys; ++i) remove_ipc(keys[i]);
        nkeys = 0;
    }
};

// Runs fn in a forked child that an alarm ends after `seconds`; the child
// exits with fn's result.
inline pid_t spawn(const std::function<int()> &fn, unsigned seconds = 60) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        std::signal(SIGALRM, SIG_DFL);
        alarm(seconds);
        _exit(fn());
    }
    return pid;
}

// Polls pred every millisecond for at most ms milliseconds.
inline bool wait_until(const std::function<bool()> &pred, int ms = 20000) {
    for (int i = 0; i < ms; ++i, usleep(1000))
        if (pred()) return true;
    return pred();
}

// The child's exit status; 128 + signal when a signal ended it; -1 when it
// did not end within ms milliseconds (it is then killed).
inline int wait_child(pid_t pid, int ms = 90000) {
    int st = 0;
    pid_t r = 0;
    wait_until([&] { return (r = waitpid(pid, &st, WNOHANG)) != 0; }, ms);
    if (r == 0) kill(pid, SIGKILL), waitpid(pid, &st, 0);
    return r <= 0 ? -1 : WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

// Creates a database at a fresh name in dir whose IPC key nobody uses yet
// (another database elsewhere may share a key), puts its key under the
// watchdog and returns the path.
inline std::string fresh_db(const TempDir &dir, const std::string &base, int mode, key_t *key) {
    for (int i = 0; i <= 50; ++i) {
        const std::string p = dir.file(base + std::to_string(i));
        uint32_t err = 0;
        if (bdb_create(p.c_str(), mode, &err) < 0) return std::string();
        const key_t k = ftok(p.c_str(), varlo::kIpcProject);
        if (k != -1 && !shm_exists(k) && !sem_exists(k)) {
            Watchdog::watch(k);
            if (key) *key = k;
            return p;
        }
    }
    return std::string();
}

}  // namespace vt

#endif
