// varlo_peers: varlo next to other embedded key/value engines, one after
// another, on the work of varlo_bench.
//
//   varlo_peers [--num=N] [--cache_mb=MB] [--engines=LIST] [--dir=DIR]
//               [--csv=FILE] [--png=FILE]
//
// Each engine runs the nine phases of varlo_bench with the same records
// (bench_common.h: 16-byte keys, 100-byte values, N/20 values of 4096 bytes
// for fill4k and read4k), the same random orders (one generator from the
// same seed, drawn in varlo_bench's sequence: fillrandom, overwrite,
// readrandom, readmissing, deleterandom, fill4k, read4k) and the same sync
// points: every write phase (fillseq, fillrandom, overwrite, deleterandom,
// fill4k) ends with one durable sync or commit, counted in its time. fillseq
// and fill4k use databases of their own; the other phases share the one
// fillrandom makes. Every phase runs between the engine's begin and end (one
// transaction for the engines that have them). Every value read is checked
// (length, key, generation, filler), readmissing must find nothing, readseq
// must see every record once (in key order where the engine is ordered),
// deleterandom must leave the database empty, and a changing call that the
// engine reports as wrong (a duplicate insert, a replace or delete of a
// missing key) stops the program with exit status 1, so that a wrong setup
// cannot look fast.
//
// Every engine gets --cache_mb of cache in its own terms (the report's
// header says which, and what each sync does). The output is one table of
// µs/op per phase and engine with varlo's ratio to the fastest peer, the
// file sizes after fillseq and fillrandom (all files of the database), the
// same as CSV (--csv), and a bar chart drawn by gnuplot (--png).
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

#include "../bench_common.h"
#include "engine.h"

namespace fs = std::filesystem;
using namespace bench;

namespace peers {

namespace {

Engine *g_engine = nullptr;  // the engine in use, closed by fail()
std::string g_dir;           // the benchmark's folder, removed at every exit

}  // namespace

void fail(const char *fmt, ...) {
    static bool failing = false;  // a close that fails in here ends in here again
    std::fflush(stdout);
    if (!failing) {
        std::va_list ap;
        va_start(ap, fmt);
        bench::report_failure("varlo_peers", fmt, ap);
        va_end(ap);
        failing = true;
        if (g_engine) g_engine->close();  // releases what outlives the process (System V objects)
    }
    std::error_code ec;
    if (!g_dir.empty()) fs::remove_all(g_dir, ec);
    std::exit(EXIT_FAILURE);
}

std::string size_text(uint64_t bytes) {
    static const char *const units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    double v = static_cast<double>(bytes);
    while (v >= 1024 && u < 4) v /= 1024, ++u;
    char buf[40];
    std::snprintf(buf, sizeof buf, v == std::floor(v) ? "%.0f %s" : "%.1f %s", v, units[u]);
    return buf;
}

namespace {

struct Config {
    uint32_t num = 1000000;
    uint32_t cache_mb = 64;
    std::vector<std::string> engines;  // ids; empty: all
    std::string dir;                   // parent of the benchmark's folder (default $TMPDIR or /tmp)
    std::string csv = "build-release/peers.csv";
    std::string png = "build-release/peers.png";
};

struct EngineInfo {
    const char *id;     // for --engines
    const char *label;  // column of the table
    std::unique_ptr<Engine> (*make)(const Options &);
    bool varlo;
    const char *color;  // of its bars
};

const EngineInfo kEngines[] = {
    {"varlo", "varlo", [](const Options &o) { return make_varlo(o, false); }, true, "#c0392b"},
    {"varlo-shared", "varlo shared", [](const Options &o) { return make_varlo(o, true); }, true, "#f1948a"},
    {"lmdb", "LMDB", make_lmdb, false, "#2471a3"},
    {"leveldb", "LevelDB", make_leveldb, false, "#28b463"},
    {"bdb", "Berkeley DB", make_berkeleydb, false, "#7d3c98"},
    {"sqlite", "SQLite", make_sqlite, false, "#d68910"},
    {"gdbm", "gdbm", make_gdbm, false, "#17a589"},
    {"kyoto", "Kyoto", make_kyoto, false, "#566573"},
};

enum Phase { FillSeq, FillRandom, Overwrite, ReadRandom, ReadMissing, ReadSeq, DeleteRandom, Fill4k, Read4k, kPhases };
const char *const kPhaseNames[kPhases] = {"fillseq", "fillrandom",   "overwrite", "readrandom", "readmissing",
                                          "readseq", "deleterandom", "fill4k",    "read4k"};

struct Result {
    const EngineInfo *info;
    Settings settings;
    double us[kPhases] = {};
    uint64_t size_seq = 0, size_random = 0;  // bytes of the database's files after fillseq / fillrandom
};

// The random orders, in the sequence varlo_bench draws them.
struct Orders {
    std::vector<uint32_t> fillrandom, overwrite, readrandom, readmissing, deleterandom, fill4k, read4k;
    Orders(uint32_t n, uint32_t n4) {
        std::mt19937_64 rng(kSeed);
        for (auto *o : {&fillrandom, &overwrite, &readrandom, &readmissing, &deleterandom}) *o = random_order(n, rng);
        fill4k = random_order(n4, rng);
        read4k = random_order(n4, rng);
    }
};

uint64_t folder_size(const std::string &dir) {
    uint64_t total = 0;
    for (const auto &e : fs::recursive_directory_iterator(dir))
        if (e.is_regular_file()) total += e.file_size();
    return total;
}

// Runs the nine phases on one engine.
class Runner {
public:
    Runner(const Config &cfg, const Orders &orders, Engine &e, Result &r)
        : cfg_(cfg), orders_(orders), e_(e), r_(r), vbuf_(kBigValueLen), seen_(cfg.num) {}

    void run() {
        const uint32_t n = cfg_.num, n4 = std::max(1u, n / 20);
        open("seq");
        phase(FillSeq, true, n, [&] { fill(nullptr, n, kValueLen, 'a'); });
        r_.size_seq = folder_size(dir_);
        drop();

        open("main");
        phase(FillRandom, true, n, [&] { fill(&orders_.fillrandom, n, kValueLen, 'a'); });
        r_.size_random = folder_size(dir_);
        phase(Overwrite, true, n, [&] {
            for (uint32_t i : orders_.overwrite) {
                auto k = key(2ull * i);  // before the value, which starts with it
                e_.replace(k, value(i, 'b', kValueLen));
            }
        });
        phase(ReadRandom, false, n, [&] { read(orders_.readrandom, kValueLen, 'b'); });
        phase(ReadMissing, false, n, [&] {
            std::string_view v;
            for (uint32_t i : orders_.readmissing)
                if (e_.get(key(2ull * i + 1), &v)) fail("%s: found the absent key %.16s", label(), kbuf_);
        });
        phase(ReadSeq, false, n, [&] { walk(); });
        phase(DeleteRandom, true, n, [&] {
            for (uint32_t i : orders_.deleterandom) e_.remove(key(2ull * i));
        });
        e_.begin(false);
        std::string_view k, v;
        if (e_.first(&k, &v)) fail("%s: after deleterandom the database still holds %.16s", label(), k.data());
        e_.end(false);
        drop();

        open("4k");
        phase(Fill4k, true, n4, [&] { fill(&orders_.fill4k, n4, kBigValueLen, 'x'); });
        phase(Read4k, false, n4, [&] { read(orders_.read4k, kBigValueLen, 'x'); });
        drop();
        std::printf("\n");
    }

private:
    const Config &cfg_;
    const Orders &orders_;
    Engine &e_;
    Result &r_;
    std::string dir_;
    char kbuf_[kKeyLen];
    std::vector<unsigned char> vbuf_;
    std::vector<bool> seen_;  // records met by an unordered walk

    const char *label() const { return r_.info->label; }

    std::string_view key(uint64_t n) {
        make_key(n, kbuf_);
        return {kbuf_, kKeyLen};
    }
    std::string_view value(uint32_t i, char gen, uint32_t len) {
        make_value(i, gen, kbuf_, vbuf_.data(), len);
        return {reinterpret_cast<const char *>(vbuf_.data()), len};
    }

    void open(const char *name) {
        dir_ = g_dir + "/" + r_.info->id + "-" + name;
        fs::create_directory(dir_);
        e_.create(dir_);
    }
    void drop() {
        e_.close();
        fs::remove_all(dir_);
    }

    // One phase: begin, the work, end (the closing sync of a write phase);
    // the time covers all three.
    template <class Work>
    void phase(Phase p, bool write, uint32_t ops, Work work) {
        auto t0 = std::chrono::steady_clock::now();
        e_.begin(write);
        work();
        e_.end(write);
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        r_.us[p] = s * 1e6 / ops;
        std::printf(" %s %.3f", kPhaseNames[p], r_.us[p]);
        std::fflush(stdout);
    }

    void fill(const std::vector<uint32_t> *order, uint32_t n, uint32_t len, char gen) {
        for (uint32_t j = 0; j < n; ++j) {
            uint32_t i = order ? (*order)[j] : j;
            auto k = key(2ull * i);
            e_.insert(k, value(i, gen, len));
        }
    }

    void read(const std::vector<uint32_t> &order, uint32_t len, char gen) {
        std::string_view v;
        for (uint32_t i : order) {
            if (!e_.get(key(2ull * i), &v)) fail("%s: record %u not found", label(), i);
            if (auto bad = check_value(i, gen, kbuf_, v.data(), v.size(), len); !bad.empty())
                fail("%s: %s", label(), bad.c_str());
        }
    }

    // Every record once: in key order, or (unordered engines) each seen once.
    void walk() {
        const bool ordered = e_.ordered();
        std::string_view k, v;
        uint32_t count = 0;
        for (bool ok = e_.first(&k, &v); ok; ok = e_.next(&k, &v)) {
            uint64_t n = key_number(k.data(), k.size());
            uint64_t i = n / 2;
            bool fits = n != UINT64_MAX && n % 2 == 0 && i < cfg_.num;
            if (!fits || (ordered ? i != count : bool(seen_[i])))
                fail("%s: walk: found key \"%.*s\" %s", label(), static_cast<int>(k.size()), k.data(),
                     ordered ? "out of order" : "twice or not stored");
            if (!ordered) seen_[i] = true;
            if (auto bad = check_value(static_cast<uint32_t>(i), 'b', k.data(), v.data(), v.size(), kValueLen);
                !bad.empty())
                fail("%s: walk: %s", label(), bad.c_str());
            ++count;
        }
        if (count != cfg_.num) fail("%s: walk saw %u records, expected %u", label(), count, cfg_.num);
    }
};

// ---------------------------------------------------------------------------
// The report
// ---------------------------------------------------------------------------

std::string read_line(const char *path, const char *prefix = "") {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(prefix, 0) == 0) return line.substr(std::strlen(prefix));
    return "?";
}

std::string fs_type(const std::string &dir) {
    struct statfs st;
    if (::statfs(dir.c_str(), &st) != 0) return "?";
    switch (static_cast<unsigned long>(st.f_type)) {
    case 0xEF53: return "ext4";
    case 0x58465342: return "xfs";
    case 0x9123683E: return "btrfs";
    case 0x01021994: return "tmpfs (fsync costs nothing)";
    case 0x794c7630: return "overlayfs";
    default: {
        char buf[32];
        std::snprintf(buf, sizeof buf, "type 0x%lx", static_cast<unsigned long>(st.f_type));
        return buf;
    }
    }
}

std::string load() { return read_line("/proc/loadavg").substr(0, 14); }

// 1000000 as "1,000,000".
std::string grouped(uint32_t n) {
    const std::string digits = std::to_string(n);
    std::string s;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) s += ',';
        s += digits[i];
    }
    return s;
}

void header(const Config &cfg, const std::vector<Result> &results) {
    char date[64];
    std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M %Z", std::localtime(&now));
    utsname u{};
    ::uname(&u);
    std::string mem = read_line("/proc/meminfo", "MemTotal:");
    mem.erase(0, mem.find_first_not_of(' '));
    std::printf("varlo_peers: varlo and other embedded key/value engines, one after another\n");
    std::printf("Date:     %s\n", date);
    std::printf("Machine:  %s, %u logical CPUs, %s RAM, Linux %s; load average %s at the start\n",
                cpu_model().c_str(), std::thread::hardware_concurrency(), mem.c_str(), u.release, load().c_str());
    std::printf("Files:    %s (%s); compiler g++ %s -O3\n", g_dir.c_str(), fs_type(g_dir).c_str(), __VERSION__);
    std::printf("Records:  %s x (%u-byte key + %u-byte value); fill4k/read4k: %s x %u-byte values\n",
                grouped(cfg.num).c_str(), kKeyLen, kValueLen, grouped(std::max(1u, cfg.num / 20)).c_str(),
                kBigValueLen);
    std::printf("Cache:    %u MiB for every engine, in its own terms (below)\n", cfg.cache_mb);
    std::printf("Syncs:    one durable sync or commit at the end of every write phase, in its time\n");
    std::printf("Engines:\n");
    for (const auto &r : results) {
        const Settings &s = r.settings;
        std::printf("  %-13s %s\n  %-13s cache: %s\n  %-13s sync:  %s\n  %-13s %s\n", r.info->label, s.version.c_str(),
                    "", s.cache.c_str(), "", s.sync.c_str(), "", s.other.c_str());
    }
    std::printf("\n");
    std::fflush(stdout);
}

std::string us_text(double us) {
    char buf[32];
    std::snprintf(buf, sizeof buf, us < 1 ? "%.3f" : us < 10 ? "%.2f" : us < 100 ? "%.1f" : "%.0f", us);
    return buf;
}

std::string ratio_text(double r) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2fx", r);
    return buf;
}

// The table's rows as cells, then printed as an aligned Markdown table.
using Table = std::vector<std::vector<std::string>>;

// Characters of a UTF-8 text (what it takes on the terminal).
size_t width(const std::string &s) {
    return static_cast<size_t>(std::count_if(s.begin(), s.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

void print_table(const Table &t) {
    std::vector<size_t> w(t[0].size(), 0);
    for (const auto &row : t)
        for (size_t c = 0; c < row.size(); ++c) w[c] = std::max(w[c], width(row[c]));
    auto line = [&](const std::vector<std::string> &row) {
        std::printf("|");
        for (size_t c = 0; c < row.size(); ++c) {
            std::string pad(w[c] - width(row[c]), ' ');
            std::printf(" %s |", (c == 0 ? row[c] + pad : pad + row[c]).c_str());
        }
        std::printf("\n");
    };
    line(t[0]);
    std::printf("|");
    for (size_t c = 0; c < w.size(); ++c) {  // the first column left-aligned, the others right-aligned
        std::string dashes(w[c] + 2, '-');
        dashes[c == 0 ? 0 : w[c] + 1] = ':';
        std::printf("%s|", dashes.c_str());
    }
    std::printf("\n");
    for (size_t r = 1; r < t.size(); ++r) line(t[r]);
}

struct Columns {
    const Result *varlo = nullptr, *shared = nullptr;
    std::vector<const Result *> peers;
};

// The fastest peer on phase p, or nullptr without peers.
const Result *best_peer(const Columns &c, int p) {
    const Result *best = nullptr;
    for (const Result *r : c.peers)
        if (!best || r->us[p] < best->us[p]) best = r;
    return best;
}

void report(const std::vector<Result> &results, const Config &cfg) {
    Columns c;
    for (const auto &r : results) {
        if (!r.info->varlo)
            c.peers.push_back(&r);
        else if (std::string(r.info->id) == "varlo")
            c.varlo = &r;
        else
            c.shared = &r;
    }
    const bool ratio = c.varlo && !c.peers.empty(), shared_ratio = c.varlo && c.shared;

    Table t{{"phase (µs/op)"}};
    for (const auto &r : results) t[0].push_back(r.info->label);
    if (ratio) t[0].insert(t[0].end(), {"best peer", "varlo / best peer"});
    if (shared_ratio) t[0].push_back("shared / private");
    for (int p = 0; p < kPhases; ++p) {
        std::vector<std::string> row{kPhaseNames[p]};
        for (const auto &r : results) row.push_back(us_text(r.us[p]));
        if (ratio) {
            const Result *b = best_peer(c, p);
            row.push_back(us_text(b->us[p]) + " " + b->info->label);
            row.push_back(ratio_text(c.varlo->us[p] / b->us[p]));
        }
        if (shared_ratio) row.push_back(ratio_text(c.shared->us[p] / c.varlo->us[p]));
        t.push_back(row);
    }
    print_table(t);
    std::printf("\n");

    Table sizes{{"file size (MiB)"}};
    std::vector<std::string> seq{"after fillseq"}, rnd{"after fillrandom"};
    for (const auto &r : results) {
        sizes[0].push_back(r.info->label);
        char a[32], b[32];
        std::snprintf(a, sizeof a, "%.1f", r.size_seq / 1048576.0);
        std::snprintf(b, sizeof b, "%.1f", r.size_random / 1048576.0);
        seq.push_back(a);
        rnd.push_back(b);
    }
    sizes.push_back(seq);
    sizes.push_back(rnd);
    print_table(sizes);
    std::printf("(all files of the database: LevelDB's log and tables, SQLite's WAL, which keeps its largest size,\n"
                "LMDB's lock file)\n");
    std::printf("\nLoad average at the end: %s. All results checked.\n", load().c_str());

    if (!cfg.csv.empty()) {
        FILE *f = std::fopen(cfg.csv.c_str(), "w");
        if (!f) fail("--csv %s: %s", cfg.csv.c_str(), std::strerror(errno));
        std::fprintf(f, "phase");
        for (const auto &r : results) std::fprintf(f, ",%s", r.info->label);
        if (ratio) std::fprintf(f, ",best peer,best peer us/op,varlo / best peer");
        if (shared_ratio) std::fprintf(f, ",shared / private");
        std::fprintf(f, "\n");
        for (int p = 0; p < kPhases; ++p) {
            std::fprintf(f, "%s", kPhaseNames[p]);
            for (const auto &r : results) std::fprintf(f, ",%.4f", r.us[p]);
            if (ratio) {
                const Result *b = best_peer(c, p);
                std::fprintf(f, ",%s,%.4f,%.3f", b->info->label, b->us[p], c.varlo->us[p] / b->us[p]);
            }
            if (shared_ratio) std::fprintf(f, ",%.3f", c.shared->us[p] / c.varlo->us[p]);
            std::fprintf(f, "\n");
        }
        for (auto [what, field] : {std::pair{"bytes after fillseq", &Result::size_seq},
                                   std::pair{"bytes after fillrandom", &Result::size_random}}) {
            std::fprintf(f, "%s", what);
            for (const auto &r : results) std::fprintf(f, ",%llu", static_cast<unsigned long long>(r.*field));
            std::fprintf(f, "\n");
        }
        if (std::fclose(f) != 0) fail("--csv %s: %s", cfg.csv.c_str(), std::strerror(errno));
        std::printf("CSV:   %s\n", cfg.csv.c_str());
    }
}

// A bar chart: one group per phase, one bar per engine; a log scale when
// the figures span more than a factor of 20.
void chart(const std::vector<Result> &results, const Config &cfg, const std::string &when) {
    if (cfg.png.empty()) return;
    double lo = 1e300, hi = 0;
    for (const auto &r : results)
        for (double us : r.us) lo = std::min(lo, us), hi = std::max(hi, us);
    const bool log = hi > 20 * lo;
    std::ostringstream s;
    s << "set encoding utf8\nset terminal pngcairo size 1400,700 font 'sans,11' noenhanced\n"
      << "set output '" << cfg.png << "'\n"
      << "set title \"µs per operation, lower is better: " << grouped(cfg.num) << " records, " << cfg.cache_mb
      << " MiB cache, every write phase ending with one sync (" << when << ")\"\n"
      << "set style data histograms\nset style histogram clustered gap 1\n"
      << "set style fill solid 0.9 border rgb '#404040'\nset boxwidth 0.9\nset xtics nomirror\n"
      << "set key outside right top vertical samplen 2\nset grid ytics\n";
    if (log)
        s << "set logscale y\nset yrange [" << lo / 1.5 << ":" << hi * 1.5
          << "]\nset ylabel 'µs per operation (log scale)'\n";
    else
        s << "set yrange [0:" << hi * 1.3 << "]\nset ylabel 'µs per operation'\n";
    s << "$d << EOD\nphase";
    for (const auto &r : results) s << " \"" << r.info->label << "\"";
    s << "\n";
    for (int p = 0; p < kPhases; ++p) {
        s << kPhaseNames[p];
        for (const auto &r : results) s << " " << r.us[p];
        s << "\n";
    }
    s << "EOD\nplot";
    for (size_t c = 0; c < results.size(); ++c)
        s << (c ? ", ''" : " $d") << " using " << c + 2 << (c ? "" : ":xtic(1)") << " title columnheader(" << c + 2
          << ") linecolor rgb '" << results[c].info->color << "'";
    s << "\n";
    FILE *g = ::popen("gnuplot", "w");
    if (!g) fail("cannot run gnuplot: %s", std::strerror(errno));
    std::fputs(s.str().c_str(), g);
    int rc = ::pclose(g);
    if (rc != 0) fail("gnuplot failed (status %d) drawing %s; is it installed (make bench-peers installs it)?", rc,
                      cfg.png.c_str());
    std::printf("Chart: %s\n", cfg.png.c_str());
}

[[noreturn]] void usage(const char *arg) {
    if (arg) std::fprintf(stderr, "varlo_peers: unknown or bad argument: %s\n", arg);
    std::fprintf(stderr,
                 "usage: varlo_peers [--num=N] [--cache_mb=MB] [--engines=LIST] [--dir=DIR]\n"
                 "                   [--csv=FILE] [--png=FILE]\n"
                 "  --num       records of 16-byte keys and 100-byte values (default 1000000)\n"
                 "  --cache_mb  cache of every engine in MiB (default 64)\n"
                 "  --engines   comma-separated, in this order by default: ");
    for (const auto &e : kEngines) std::fprintf(stderr, "%s%s", e.id, &e == std::end(kEngines) - 1 ? "\n" : ",");
    std::fprintf(stderr,
                 "  --dir       where to make the benchmark's temporary folder (default $TMPDIR or /tmp)\n"
                 "  --csv FILE  the table as CSV (default build-release/peers.csv; empty: none)\n"
                 "  --png FILE  the bar chart, drawn by gnuplot (default build-release/peers.png; empty: none)\n");
    std::exit(2);
}

Config parse(int argc, char **argv) {
    Config cfg;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i], name = a, value;
        if (auto eq = a.find('='); eq != std::string::npos)
            name = a.substr(0, eq), value = a.substr(eq + 1);
        else if (a != "--help" && a != "-h" && i + 1 < argc)
            value = argv[++i];
        char *end = nullptr;
        unsigned long long v = std::strtoull(value.c_str(), &end, 10);
        const bool number = !value.empty() && *end == '\0';
        if (name == "--num" && number && v >= 1 && v <= 100000000)
            cfg.num = static_cast<uint32_t>(v);
        else if (name == "--cache_mb" && number && v >= 1 && v <= 4095)
            cfg.cache_mb = static_cast<uint32_t>(v);
        else if (name == "--engines" && !value.empty()) {
            std::stringstream ss(value);
            for (std::string id; std::getline(ss, id, ',');) {
                if (std::none_of(std::begin(kEngines), std::end(kEngines), [&](auto &e) { return id == e.id; }))
                    usage(argv[i]);
                cfg.engines.push_back(id);
            }
        } else if (name == "--dir" && !value.empty())
            cfg.dir = value;
        else if (name == "--csv")
            cfg.csv = value;
        else if (name == "--png")
            cfg.png = value;
        else
            usage(name == "--help" || name == "-h" ? nullptr : argv[i]);
    }
    return cfg;
}

int run(const Config &cfg) {
    std::string parent = cfg.dir;
    if (parent.empty()) {
        const char *tmp = std::getenv("TMPDIR");
        parent = tmp && *tmp ? tmp : "/tmp";
    }
    std::string templ = parent + "/varlo-peers-XXXXXX";
    if (!::mkdtemp(templ.data())) fail("mkdtemp %s: %s", templ.c_str(), std::strerror(errno));
    g_dir = templ;

    const Options opts{uint64_t(cfg.cache_mb) << 20};
    std::vector<Result> results;
    std::vector<std::unique_ptr<Engine>> engines;
    for (const auto &info : kEngines) {
        if (!cfg.engines.empty() && std::find(cfg.engines.begin(), cfg.engines.end(), info.id) == cfg.engines.end())
            continue;
        // A first open of an empty database: it shows what the engine took
        // as its settings, and that it works, before the long runs.
        engines.push_back(info.make(opts));
        Engine &e = *engines.back();
        g_engine = &e;
        std::string probe = g_dir + "/probe";
        fs::create_directory(probe);
        e.create(probe);
        results.push_back({&info, e.settings()});
        e.close();
        fs::remove_all(probe);
    }
    header(cfg, results);

    char when[32];
    std::time_t now = std::time(nullptr);
    std::strftime(when, sizeof when, "%Y-%m-%d", std::localtime(&now));
    const uint32_t n4 = std::max(1u, cfg.num / 20);
    const Orders orders(cfg.num, n4);
    for (size_t k = 0; k < results.size(); ++k) {
        g_engine = engines[k].get();
        std::printf("%-13s", results[k].info->label);
        Runner(cfg, orders, *engines[k], results[k]).run();
        g_engine = nullptr;
        engines[k].reset();
    }
    std::printf("\n");
    report(results, cfg);
    chart(results, cfg, std::string(when) + ", " + cpu_model());
    fs::remove_all(g_dir);
    return 0;
}

}  // namespace
}  // namespace peers

int main(int argc, char **argv) { return peers::run(peers::parse(argc, argv)); }
