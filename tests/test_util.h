// Helpers shared by the tests: temporary folders, record helpers, a recording
// error handler.
#ifndef VARLO_TEST_UTIL_H
#define VARLO_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bdb.h"
#include "bdb_int.h"

namespace vt {

// A folder under /tmp removed with everything in it at the end of the test.
class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/varlo-test-XXXXXX";
        const char *p = mkdtemp(tmpl);
        if (!p) std::abort();
        path_ = p;
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

inline bdb_datum datum(const std::string &s) { return bdb_datum{const_cast<char *>(s.data()), static_cast<uint32_t>(s.size())}; }

inline int put(bdb_handle *h, const std::string &k, const std::string &v) {
    bdb_datum kd = datum(k), vd = datum(v);
    return bdb_put(h, &kd, &vd);
}
inline int replace(bdb_handle *h, const std::string &k, const std::string &v) {
    bdb_datum kd = datum(k), vd = datum(v);
    return bdb_replace(h, &kd, &vd);
}
inline int update(bdb_handle *h, const std::string &k, const std::string &v) {
    bdb_datum kd = datum(k), vd = datum(v);
    return bdb_update(h, &kd, &vd);
}
inline int del(bdb_handle *h, const std::string &k) {
    bdb_datum kd = datum(k);
    return bdb_delete(h, &kd);
}
// The value of k, or nullopt-like: returns false when absent.
inline bool get(bdb_handle *h, const std::string &k, std::string *out) {
    bdb_datum kd = datum(k), vd{};
    if (bdb_get(h, &kd, &vd) < 0) return false;
    if (out) out->assign(static_cast<char *>(vd.ptr) ? static_cast<char *>(vd.ptr) : "", vd.len);
    std::free(vd.ptr);
    return true;
}
inline bool remove(bdb_handle *h, const std::string &k, std::string *out) {
    bdb_datum kd = datum(k), vd{};
    if (bdb_remove(h, &kd, &vd) < 0) return false;
    if (out) out->assign(static_cast<char *>(vd.ptr) ? static_cast<char *>(vd.ptr) : "", vd.len);
    std::free(vd.ptr);
    return true;
}

// Every record in key order through bdb_first / bdb_next.
inline std::vector<std::pair<std::string, std::string>> walk(bdb_handle *h) {
    std::vector<std::pair<std::string, std::string>> out;
    char kbuf[1024];
    bdb_datum kd{kbuf, 0}, vd{};
    int r = bdb_first(h, &kd, &vd);
    while (r == 0) {
        out.emplace_back(std::string(kbuf, kd.len), std::string(vd.ptr ? static_cast<char *>(vd.ptr) : "", vd.len));
        std::free(vd.ptr);
        vd = bdb_datum{};
        r = bdb_next(h, &kd, &vd);
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
inline void recording_handler(bdb_handle *h, const char *name, const char *syserr, int e, const char *msg,
                              uint32_t code, const char *ctx) {
    reports().push_back(Report{h, name ? name : "", syserr ? syserr : "", msg ? msg : "", ctx ? ctx : "", e, code});
}

// The context of the last report, for failure messages.
inline std::string last_context() { return reports().empty() ? std::string() : reports().back().context; }

inline bdb_handle *create_open(const std::string &path, uint32_t cache = 0, bdb_errhandler_fn fn = nullptr) {
    uint32_t err = 0;
    if (bdb_create(path.c_str(), BDB_PRIVATE, &err) < 0) return nullptr;
    bdb_options o{cache, nullptr, fn};
    return bdb_open(path.c_str(), 0, BDB_RDWR, BDB_PRIVATE, &o, 0, &err);
}
inline bdb_handle *open_db(const std::string &path, uint32_t cache = 0, int flags = BDB_RDWR,
                           bdb_errhandler_fn fn = nullptr) {
    uint32_t err = 0;
    bdb_options o{cache, nullptr, fn};
    return bdb_open(path.c_str(), 0, flags, BDB_PRIVATE, &o, 0, &err);
}

// A number from the environment (soak settings), or the default.
inline long env_long(const char *name, long dflt) {
    const char *v = std::getenv(name);
    return v && *v ? std::strtol(v, nullptr, 10) : dflt;
}

}  // namespace vt

#endif
