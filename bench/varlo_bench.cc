// varlo_bench: throughput of the record calls.
//
//   varlo_bench [--num=N] [--cache_mb=MB] [--mode=private|shared|threads]
//               [--threads=T] [--db=PATH] [--check] [--csv=FILE] [--baseline=FILE]
//
// Records are 16-byte keys (16 decimal digits of 2*i for record i, so keys of
// 2*i+1 fall between them and are never stored) with 100-byte values (the
// key, a generation byte, filler). The phases, in this order:
//
//   fillseq       N bdb_put in ascending key order into a new database, then
//                 one bdb_sync. That database is removed afterwards.
//   fillrandom    N bdb_put in a random order into a new database, then one
//                 bdb_sync. The following phases use this database.
//   overwrite     bdb_replace of every key, in another random order, with a
//                 value of the next generation, then one bdb_sync.
//   readrandom    N bdb_get of present keys in random order.
//   readmissing   N bdb_get of absent keys (2*i+1) in random order; each must
//                 end with BDB_E_NOTFOUND.
//   readseq       one walk over every record: bdb_first, then bdb_next until
//                 BDB_E_EOF.
//   deleterandom  bdb_delete of every key in random order, then one bdb_sync;
//                 the database is empty afterwards.
//   fill4k        N/20 bdb_put of 4096-byte values (each on a data page of its
//                 own) in random order into a new database, then one bdb_sync.
//   read4k        N/20 bdb_get of those records in random order.
//
// The time of a phase includes its closing bdb_sync. Every value read is
// checked (length, key, generation, filler), and so are the counts (records
// found, walked, missing); a wrong one stops the program with exit status 1.
// The random orders come from a fixed seed, so runs do the same work.
//
// Modes:
//   private  (default) one handle, BDB_PRIVATE without thread management, with
//            a page cache of --cache_mb (default 64 MB).
//   shared   one handle in BDB_SHARED mode: the meta page, statistics and page
//            cache live in a System V shared memory segment and every call
//            takes the database's semaphore. The cache of a shared area is
//            fixed at 6 pages; --cache_mb does not apply.
//   threads  BDB_PRIVATE with thread management: --threads (default 2) worker
//            threads, each on a handle of its own opened in that thread, share
//            one area (its 6-page cache) and one mutex. Worker t owns the t-th
//            contiguous slice of the records: it does the random phases over
//            a random order of its slice, and readseq walks its slice (from
//            bdb_first, or from a bdb_get of its slice's first key, then
//            bdb_next). The main thread keeps one more handle open for the
//            life of each database and runs the closing bdb_sync. Every call
//            holds the database mutex, so the threads take turns; the figures
//            show the cost of that locking, not a parallel speed-up.
//
// MB/s counts key and value bytes of the records written or read (MB = 2^20
// bytes); readmissing and deleterandom move no values and show "-".
// The databases live in a new temporary folder (or at --db PATH, with
// PATH.seq and PATH.4k next to it) and are removed at the end.

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bdb.h"
#include "bench_common.h"

namespace {

using namespace bench;

enum class Mode { Private, Shared, Threads };

struct Config {
    uint32_t num = 1000000;
    uint32_t cache_mb = 64;
    Mode mode = Mode::Private;
    uint32_t threads = 2;
    std::string db;  // empty: a temporary folder
    bool check = false;
    std::string csv;       // write "phase,us_per_op" lines here
    std::string baseline;  // compare with such a file (the build without the meta log)
};

// ---------------------------------------------------------------------------
// Failing loudly
// ---------------------------------------------------------------------------

std::vector<std::string> g_cleanup;  // files and folders removed on every exit

void cleanup() {
    for (auto it = g_cleanup.rbegin(); it != g_cleanup.rend(); ++it) ::remove(it->c_str());
    g_cleanup.clear();
}

[[noreturn]] void fail(const char *fmt, ...) {
    std::va_list ap;
    va_start(ap, fmt);
    bench::report_failure("varlo_bench", fmt, ap);
    va_end(ap);
    cleanup();
    std::exit(EXIT_FAILURE);
}

std::string code_text(uint32_t code) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "%s (0x%08x)", bdbstrerr(code), code);
    return buf;
}

void print_error(bdb_handle *, const char *name, const char *syserr, int sys_errno, const char *message, uint32_t,
                 const char *context) {
    std::fprintf(stderr, "varlo: %s: %s: %s", name ? name : "-", context, message);
    if (sys_errno) std::fprintf(stderr, " (%s)", syserr);
    std::fputc('\n', stderr);
}

// ---------------------------------------------------------------------------
// Workers: the share of one handle in a phase
// ---------------------------------------------------------------------------

struct Worker {
    bdb_handle *h = nullptr;
    uint32_t lo = 0, hi = 0;       // the slice of records this worker owns
    bool last = false;             // the slice ends with the last record
    std::vector<uint32_t> order;   // the records of the slice in phase order
    uint64_t ops = 0;
    std::string error;             // first failure
};

using Work = std::function<void(Worker &)>;

// Stops the worker's phase with a message; returns false for `return` chaining.
bool worker_fail(Worker &w, const char *fmt, ...) {
    if (!w.error.empty()) return false;
    char buf[512];
    std::va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    w.error = buf;
    return false;
}

// ---------------------------------------------------------------------------
// The benchmark
// ---------------------------------------------------------------------------

struct PhaseResult {
    std::string name;
    uint64_t ops;
    double seconds;
    uint32_t bytes_per_op;  // 0: no MB/s
};

class Bench {
public:
    explicit Bench(const Config &cfg) : cfg_(cfg), rng_(kSeed) {
        if (!cfg.baseline.empty()) {
            std::ifstream in(cfg.baseline);
            std::string line;
            while (std::getline(in, line))
                if (auto c = line.find(','); c != std::string::npos) baseline_[line.substr(0, c)] = std::stod(line.substr(c + 1));
            if (baseline_.empty()) fail("--baseline %s: no results in it", cfg.baseline.c_str());
        }
        if (!cfg.csv.empty() && !(csv_ = std::fopen(cfg.csv.c_str(), "w")))
            fail("--csv %s: %s", cfg.csv.c_str(), std::strerror(errno));
    }
    ~Bench() {
        if (csv_) std::fclose(csv_);
    }

    void run();

private:
    const Config &cfg_;
    std::mt19937_64 rng_;
    std::string path_;           // the database in use
    bdb_handle *h_ = nullptr;    // main handle of that database
    std::vector<PhaseResult> results_;
    std::vector<std::pair<std::string, long long>> sizes_;
    // Resident memory sampled at the end of each phase, in KiB: the process's
    // own (anonymous and System V shared) and the file pages it maps for reads.
    long peak_own_kb_ = 0, peak_file_kb_ = 0;

    void sample_memory() {
        std::ifstream in("/proc/self/status");
        long anon = 0, shmem = 0, file = 0;
        for (std::string line; std::getline(in, line);) {
            long *slot = line.rfind("RssAnon:", 0) == 0    ? &anon
                         : line.rfind("RssShmem:", 0) == 0 ? &shmem
                         : line.rfind("RssFile:", 0) == 0  ? &file
                                                           : nullptr;
            if (slot) *slot = std::strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
        }
        peak_own_kb_ = std::max(peak_own_kb_, anon + shmem);
        peak_file_kb_ = std::max(peak_file_kb_, file);
    }
    std::map<std::string, double> baseline_;  // phase -> µs/op of the build without the log
    FILE *csv_ = nullptr;

    uint32_t nworkers() const { return cfg_.mode == Mode::Threads ? cfg_.threads : 1; }
    int open_mode() const { return cfg_.mode == Mode::Shared ? BDB_SHARED : BDB_PRIVATE; }

    bdb_handle *open_handle(uint32_t thread) {
        bdb_options opts{cfg_.cache_mb << 20, nullptr, print_error};
        uint32_t err = 0;
        bdb_handle *h = bdb_open(path_.c_str(), 0, BDB_RDWR, open_mode(), &opts, thread, &err);
        if (!h) fail("bdb_open %s: %s", path_.c_str(), code_text(err).c_str());
        return h;
    }

    void create_db(const std::string &path) {
        path_ = path;
        uint32_t err = 0;
        if (bdb_create(path_.c_str(), open_mode(), &err) < 0)
            fail("bdb_create %s: %s", path_.c_str(), code_text(err).c_str());
        g_cleanup.push_back(path_);
        h_ = open_handle(cfg_.mode == Mode::Threads ? 1 : 0);
    }

    void close_db(bool remove) {
        if (bdb_close(h_) < 0) fail("bdb_close: %s", code_text(bdb_error(h_)).c_str());
        h_ = nullptr;
        if (remove) {
            ::remove(path_.c_str());
            g_cleanup.erase(std::remove(g_cleanup.begin(), g_cleanup.end(), path_), g_cleanup.end());
        }
    }

    void sync() {
        if (bdb_sync(h_) < 0) fail("bdb_sync: %s", code_text(bdb_error(h_)).c_str());
    }

    long long file_size() const {
        struct stat st;
        return ::stat(path_.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    }

    void integrity_check(const char *when) {
        if (!cfg_.check) return;
        if (bdb_check(h_) < 0) fail("bdb_check %s: %s", when, code_text(bdb_error(h_)).c_str());
        std::printf("  (bdb_check %s: ok)\n", when);
    }

    // The workers of a phase over records 0..n-1: their slices and, when
    // `order` is given, each slice's records in that order.
    std::vector<Worker> make_workers(uint32_t n, const std::vector<uint32_t> *order) {
        const uint32_t t = nworkers();
        std::vector<Worker> ws(t);
        for (uint32_t k = 0; k < t; ++k) {
            ws[k].lo = static_cast<uint32_t>(uint64_t(n) * k / t);
            ws[k].hi = static_cast<uint32_t>(uint64_t(n) * (k + 1) / t);
            ws[k].last = k + 1 == t;
        }
        if (order) {
            for (auto &w : ws) w.order.reserve(w.hi - w.lo);
            for (uint32_t i : *order) {
                uint32_t k = static_cast<uint32_t>(uint64_t(i) * t / n);
                while (k + 1 < t && i >= ws[k + 1].lo) ++k;
                while (k > 0 && i < ws[k].lo) --k;
                ws[k].order.push_back(i);
            }
        } else {
            for (auto &w : ws)
                for (uint32_t i = w.lo; i < w.hi; ++i) w.order.push_back(i);
        }
        return ws;
    }

    // Runs one phase: the work of every worker, then (with `sync`) one
    // bdb_sync; the time covers both.
    void phase(const char *name, std::vector<Worker> ws, const Work &work, bool sync_after, uint32_t bytes_per_op,
               uint64_t expect_ops) {
        double seconds;
        if (cfg_.mode != Mode::Threads) {
            ws[0].h = h_;
            auto t0 = std::chrono::steady_clock::now();
            work(ws[0]);
            if (ws[0].error.empty() && sync_after) sync();
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        } else {
            // Each worker opens its handle in its own thread, then all start
            // together; the main thread times from the start to the end of
            // the closing sync; the workers close their handles afterwards.
            const uint32_t t = nworkers();
            std::barrier<> gate(static_cast<std::ptrdiff_t>(t + 1));
            std::vector<std::thread> threads;
            for (uint32_t k = 0; k < t; ++k) {
                threads.emplace_back([&, k] {
                    Worker &w = ws[k];
                    w.h = open_handle(k + 2);
                    gate.arrive_and_wait();  // start
                    work(w);
                    gate.arrive_and_wait();  // done
                    gate.arrive_and_wait();  // synced
                    if (bdb_close(w.h) < 0) worker_fail(w, "bdb_close: %s", code_text(bdb_error(w.h)).c_str());
                });
            }
            gate.arrive_and_wait();
            auto t0 = std::chrono::steady_clock::now();
            gate.arrive_and_wait();
            bool ok = std::all_of(ws.begin(), ws.end(), [](const Worker &w) { return w.error.empty(); });
            if (ok && sync_after) sync();
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            gate.arrive_and_wait();
            for (auto &th : threads) th.join();
        }
        uint64_t ops = 0;
        for (auto &w : ws) {
            if (!w.error.empty()) fail("%s: %s", name, w.error.c_str());
            ops += w.ops;
        }
        if (ops != expect_ops)
            fail("%s: %" PRIu64 " operations done, expected %" PRIu64, name, ops, expect_ops);
        results_.push_back({name, ops, seconds, bytes_per_op});
        sample_memory();
        print_result(results_.back());
    }

    void print_result(const PhaseResult &r) {
        double us = r.seconds * 1e6 / static_cast<double>(r.ops);
        double ops_s = static_cast<double>(r.ops) / r.seconds;
        char mb[32] = "-";
        if (r.bytes_per_op)
            std::snprintf(mb, sizeof mb, "%.1f", ops_s * r.bytes_per_op / (1024.0 * 1024.0));
        std::printf("%-13s %10.3f %12.0f %9s", r.name.c_str(), us, ops_s, mb);
        if (auto it = baseline_.find(r.name); it != baseline_.end())
            std::printf(" %10.3f %7.2fx", it->second, us / it->second);
        std::printf("\n");
        std::fflush(stdout);
        if (csv_) std::fprintf(csv_, "%s,%.4f\n", r.name.c_str(), us);
    }

    void header(const std::string &dbpath) const;

    // The phases' work, for one worker.
    static void fill(Worker &w, uint32_t value_len, char gen) {
        static thread_local std::vector<unsigned char> vbuf(kBigValueLen);
        char kbuf[kKeyLen];
        for (uint32_t i : w.order) {
            make_key(2ull * i, kbuf);
            make_value(i, gen, kbuf, vbuf.data(), value_len);
            bdb_datum k{kbuf, kKeyLen}, v{vbuf.data(), value_len};
            if (bdb_put(w.h, &k, &v) < 0) {
                worker_fail(w, "bdb_put of record %u: %s", i, code_text(bdb_error(w.h)).c_str());
                return;
            }
            ++w.ops;
        }
    }

    static void overwrite(Worker &w) {
        static thread_local std::vector<unsigned char> vbuf(kValueLen);
        char kbuf[kKeyLen];
        for (uint32_t i : w.order) {
            make_key(2ull * i, kbuf);
            make_value(i, 'b', kbuf, vbuf.data(), kValueLen);
            bdb_datum k{kbuf, kKeyLen}, v{vbuf.data(), kValueLen};
            bdb_seterror(w.h, 0);
            if (bdb_replace(w.h, &k, &v) < 0) {
                worker_fail(w, "bdb_replace of record %u: %s", i, code_text(bdb_error(w.h)).c_str());
                return;
            }
            if (bdb_error(w.h) == BDB_E_INSERTED) {
                worker_fail(w, "bdb_replace of record %u inserted it: the record was missing", i);
                return;
            }
            ++w.ops;
        }
    }

    static void read(Worker &w, uint32_t value_len, char gen) {
        char kbuf[kKeyLen];
        for (uint32_t i : w.order) {
            make_key(2ull * i, kbuf);
            bdb_datum k{kbuf, kKeyLen}, v{nullptr, 0};
            if (bdb_get(w.h, &k, &v) < 0) {
                worker_fail(w, "bdb_get of record %u: %s", i, code_text(bdb_error(w.h)).c_str());
                return;
            }
            std::string bad = check_value(i, gen, kbuf, v.ptr, v.len, value_len);
            std::free(v.ptr);
            if (!bad.empty()) {
                worker_fail(w, "bdb_get: %s", bad.c_str());
                return;
            }
            ++w.ops;
        }
    }

    static void read_missing(Worker &w) {
        char kbuf[kKeyLen];
        for (uint32_t i : w.order) {
            make_key(2ull * i + 1, kbuf);
            bdb_datum k{kbuf, kKeyLen}, v{nullptr, 0};
            if (bdb_get(w.h, &k, &v) == 0) {
                std::free(v.ptr);
                worker_fail(w, "bdb_get found the absent key %.16s", kbuf);
                return;
            }
            if (bdb_error(w.h) != BDB_E_NOTFOUND) {
                worker_fail(w, "bdb_get of the absent key %.16s: %s", kbuf, code_text(bdb_error(w.h)).c_str());
                return;
            }
            ++w.ops;
        }
    }

    // Walks the worker's slice in key order: from bdb_first (the first
    // slice) or a bdb_get of the slice's first key, then bdb_next until the
    // slice ends (or BDB_E_EOF for the last slice).
    static void read_seq(Worker &w, char gen) {
        if (w.lo == w.hi) return;
        char kbuf[BDB_MAXKEY];
        bdb_datum k{kbuf, 0}, v{nullptr, 0};
        int rc;
        if (w.lo == 0) {
            rc = bdb_first(w.h, &k, &v);
        } else {
            make_key(2ull * w.lo, kbuf);
            k.len = kKeyLen;
            rc = bdb_get(w.h, &k, &v);
        }
        uint32_t expect = w.lo;
        while (rc == 0) {
            uint64_t n = key_number(kbuf, k.len);
            if (n == UINT64_MAX || n % 2 != 0 || n / 2 != expect) {
                std::free(v.ptr);
                worker_fail(w, "walk: found key \"%.*s\" where record %u was expected", static_cast<int>(k.len), kbuf,
                            expect);
                return;
            }
            std::string bad = check_value(expect, gen, kbuf, v.ptr, v.len, kValueLen);
            std::free(v.ptr);
            if (!bad.empty()) {
                worker_fail(w, "walk: %s", bad.c_str());
                return;
            }
            ++w.ops;
            // The last slice goes on to see BDB_E_EOF (that call is not counted).
            if (++expect == w.hi && !w.last) return;
            v = {nullptr, 0};
            rc = bdb_next(w.h, &k, &v);
        }
        if (rc != 0 && bdb_error(w.h) != BDB_E_EOF) {
            worker_fail(w, "walk: bdb_%s after record %u: %s", expect == w.lo ? "first" : "next", expect,
                        code_text(bdb_error(w.h)).c_str());
            return;
        }
        if (expect != w.hi) worker_fail(w, "walk ended after record %u, expected %u records", expect, w.hi - w.lo);
    }

    static void remove_all(Worker &w) {
        char kbuf[kKeyLen];
        for (uint32_t i : w.order) {
            make_key(2ull * i, kbuf);
            bdb_datum k{kbuf, kKeyLen};
            if (bdb_delete(w.h, &k) < 0) {
                worker_fail(w, "bdb_delete of record %u: %s", i, code_text(bdb_error(w.h)).c_str());
                return;
            }
            ++w.ops;
        }
    }
};

void Bench::header(const std::string &dbpath) const {
    char date[64];
    std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S %Z", std::localtime(&now));
    const char *mode = cfg_.mode == Mode::Private ? "private" : cfg_.mode == Mode::Shared ? "shared" : "threads";
    std::printf("varlo_bench  varlo %s\n", VARLO_VERSION_STRING);
    std::printf("Date:     %s\n", date);
    std::printf("CPU:      %s (%u logical CPUs)\n", cpu_model().c_str(), std::thread::hardware_concurrency());
    std::printf("Records:  %u x (%u-byte key + %u-byte value); fill4k/read4k: %u x %u-byte values\n", cfg_.num,
                kKeyLen, kValueLen, std::max(1u, cfg_.num / 20), kBigValueLen);
    if (cfg_.mode == Mode::Private)
        std::printf("Cache:    %u MB\n", cfg_.cache_mb);
    else
        std::printf("Cache:    6 pages in the shared area (--cache_mb does not apply)\n");
    if (cfg_.mode == Mode::Threads)
        std::printf("Mode:     threads (%u worker threads, own handles, one area and mutex)\n", cfg_.threads);
    else
        std::printf("Mode:     %s\n", mode);
    std::printf("Database: %s\n", dbpath.c_str());
#ifdef VARLO_BENCH_NOLOG
    std::printf("Meta log: off (a build without it, only to measure what it costs)\n");
#else
    std::printf("Meta log: on\n");
#endif
    const char *rule = baseline_.empty() ? "-------------------------------------------------\n"
                                         : "--------------------------------------------------------------------\n";
    std::printf("%s", rule);
    std::printf("phase              µs/op        ops/s      MB/s%s\n", baseline_.empty() ? "" : "     no log   ratio");
    std::printf("%s", rule);
    std::fflush(stdout);
}

void Bench::run() {
    const uint32_t n = cfg_.num;
    const uint32_t n4 = std::max(1u, n / 20);
    std::string dir, main_path;
    if (cfg_.db.empty()) {
        const char *tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/varlo-bench-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (!::mkdtemp(buf.data())) fail("mkdtemp %s: %s", templ.c_str(), std::strerror(errno));
        dir = buf.data();
        g_cleanup.push_back(dir);
        main_path = dir + "/bench.db";
    } else {
        main_path = cfg_.db;
    }
    header(main_path);
    auto t_start = std::chrono::steady_clock::now();

    // fillseq, on a database of its own.
    create_db(main_path + ".seq");
    phase("fillseq", make_workers(n, nullptr), [](Worker &w) { fill(w, kValueLen, 'a'); }, true,
          kKeyLen + kValueLen, n);
    sizes_.emplace_back("after fillseq", file_size());
    close_db(true);

    // The main database.
    create_db(main_path);
    auto order = random_order(n, rng_);
    phase("fillrandom", make_workers(n, &order), [](Worker &w) { fill(w, kValueLen, 'a'); }, true,
          kKeyLen + kValueLen, n);
    sizes_.emplace_back("after fillrandom", file_size());

    order = random_order(n, rng_);
    phase("overwrite", make_workers(n, &order), overwrite, true, kKeyLen + kValueLen, n);
    sizes_.emplace_back("after overwrite", file_size());
    integrity_check("after overwrite");

    order = random_order(n, rng_);
    phase("readrandom", make_workers(n, &order), [](Worker &w) { read(w, kValueLen, 'b'); }, false,
          kKeyLen + kValueLen, n);

    order = random_order(n, rng_);
    phase("readmissing", make_workers(n, &order), read_missing, false, 0, n);

    phase("readseq", make_workers(n, nullptr), [](Worker &w) { read_seq(w, 'b'); }, false, kKeyLen + kValueLen, n);

    order = random_order(n, rng_);
    phase("deleterandom", make_workers(n, &order), remove_all, true, 0, n);
    {
        char kbuf[BDB_MAXKEY];
        bdb_datum k{kbuf, 0}, v{nullptr, 0};
        if (bdb_first(h_, &k, &v) == 0) {
            std::free(v.ptr);
            fail("deleterandom: the database still holds \"%.*s\"", static_cast<int>(k.len), kbuf);
        }
        if (bdb_error(h_) != BDB_E_EMPTY)
            fail("deleterandom: bdb_first on the emptied database: %s", code_text(bdb_error(h_)).c_str());
    }
    sizes_.emplace_back("after deleterandom", file_size());
    integrity_check("after deleterandom");
    close_db(true);

    // Long values, on a database of their own.
    create_db(main_path + ".4k");
    order = random_order(n4, rng_);
    phase("fill4k", make_workers(n4, &order), [](Worker &w) { fill(w, kBigValueLen, 'x'); }, true,
          kKeyLen + kBigValueLen, n4);
    sizes_.emplace_back("after fill4k", file_size());
    order = random_order(n4, rng_);
    phase("read4k", make_workers(n4, &order), [](Worker &w) { read(w, kBigValueLen, 'x'); }, false,
          kKeyLen + kBigValueLen, n4);
    integrity_check("after read4k");
    close_db(true);

    double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - t_start).count();
    std::printf("-------------------------------------------------\n");
    for (auto &[what, size] : sizes_)
        std::printf("file size %-19s %12lld bytes (%.1f MB)\n", what.c_str(), size,
                    static_cast<double>(size) / (1024.0 * 1024.0));
    // File pages a handle maps for its reads belong to the operating system's
    // page cache: the kernel drops them under memory pressure as it would for
    // read(), so they are shown apart from the memory the process owns.
    std::printf("resident memory, peak   %6.1f MB own (anonymous + shared), %.1f MB of mapped file pages\n",
                static_cast<double>(peak_own_kb_) / 1024.0, static_cast<double>(peak_file_kb_) / 1024.0);
    std::printf("total time %.1f s; all results checked\n", total);
    cleanup();
}

[[noreturn]] void usage(const char *arg) {
    if (arg) std::fprintf(stderr, "varlo_bench: unknown or bad argument: %s\n", arg);
    std::fprintf(stderr,
                 "usage: varlo_bench [--num=N] [--cache_mb=MB] [--mode=private|shared|threads]\n"
                 "                   [--threads=T] [--db=PATH] [--check] [--csv=FILE] [--baseline=FILE]\n"
                 "  --num       records of 16-byte keys and 100-byte values (default 1000000)\n"
                 "  --cache_mb  page cache of a private handle in MB (default 64)\n"
                 "  --mode      private (default), shared (BDB_SHARED) or threads (thread management)\n"
                 "  --threads   worker threads in threads mode (default 2)\n"
                 "  --db        database path (default: a new temporary folder); PATH.seq and\n"
                 "              PATH.4k are made next to it; all are removed at the end\n"
                 "  --check     run bdb_check after overwrite, deleterandom and read4k (not timed)\n"
                 "  --csv FILE  also write each phase's µs/op to FILE (phase,us)\n"
                 "  --baseline FILE  show each phase against FILE's figures (make bench: the\n"
                 "              build without the meta log) and the ratio\n");
    std::exit(2);
}

bool parse_u32(const char *s, uint32_t lo, uint32_t hi, uint32_t *out) {
    char *end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(s, &end, 10);
    if (errno || end == s || *end || v < lo || v > hi) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    Config cfg;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        std::string name = a, value;
        auto eq = a.find('=');
        if (eq != std::string::npos) {
            name = a.substr(0, eq);
            value = a.substr(eq + 1);
        } else if (a != "--check" && a != "--help" && a != "-h" && i + 1 < argc) {
            value = argv[++i];
        }
        if (name == "--num") {
            if (!parse_u32(value.c_str(), 1, 100000000, &cfg.num)) usage(argv[i]);
        } else if (name == "--cache_mb") {
            if (!parse_u32(value.c_str(), 0, 4095, &cfg.cache_mb)) usage(argv[i]);
        } else if (name == "--threads") {
            if (!parse_u32(value.c_str(), 1, 64, &cfg.threads)) usage(argv[i]);
        } else if (name == "--mode") {
            if (value == "private")
                cfg.mode = Mode::Private;
            else if (value == "shared")
                cfg.mode = Mode::Shared;
            else if (value == "threads")
                cfg.mode = Mode::Threads;
            else
                usage(argv[i]);
        } else if (name == "--db") {
            if (value.empty()) usage(argv[i]);
            cfg.db = value;
        } else if (name == "--check") {
            cfg.check = true;
        } else if (name == "--csv") {
            cfg.csv = value;
        } else if (name == "--baseline") {
            cfg.baseline = value;
        } else if (name == "--help" || name == "-h") {
            usage(nullptr);
        } else {
            usage(argv[i]);
        }
    }
    Bench(cfg).run();
    return 0;
}
