// What the fuzz targets share: a scratch database path, a failure check that
// stops the run with a message, and a walk of the records.
#ifndef VARLO_FUZZ_COMMON_H
#define VARLO_FUZZ_COMMON_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "bdb.h"

// A broken expectation is a finding: the run stops here and libFuzzer keeps
// the input.
#define FZ_CHECK(cond)                                                                    \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

namespace fz {

using Records = std::vector<std::pair<std::string, std::string>>;

// One database file per process, on tmpfs when there is one.
inline const std::string &db_path() {
    static const std::string path = [] {
        const char *dir = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        return std::string(dir) + "/varlo-fuzz-" + std::to_string(::getpid()) + ".db";
    }();
    return path;
}

// Removes a database and the meta log beside it.
inline void remove_db(const std::string &path) {
    ::unlink(path.c_str());
    ::unlink((path + "-log").c_str());
}

// A new database file holding the bytes (and no meta log).
inline void write_file(const std::string &path, const uint8_t *data, size_t n) {
    remove_db(path);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    FZ_CHECK(fd >= 0);
    for (size_t done = 0; done < n;) {
        ssize_t w = ::write(fd, data + done, n - done);
        FZ_CHECK(w > 0);
        done += static_cast<size_t>(w);
    }
    ::close(fd);
}

inline bdb_handle *open(const std::string &path, int flags, uint32_t cache = 0, uint32_t thread = 0) {
    bdb_options o{cache, nullptr, nullptr};  // no handler: reports stay quiet
    uint32_t err = 0;
    return bdb_open(path.c_str(), 0, flags, BDB_PRIVATE, &o, thread, &err);
}

// Frees a handle whatever happens: a close that fails leaves it open, and
// bdb_destroy then frees it (removing the scratch file).
inline void close(bdb_handle *h) {
    if (h && bdb_close(h) < 0) bdb_destroy(h);
}

// At most `limit` records in key order; *complete says whether the walk
// reached the end of the database.
inline Records walk(bdb_handle *h, size_t limit, bool *complete = nullptr) {
    Records out;
    char kbuf[BDB_MAXKEY + 1];
    bdb_datum k{kbuf, 0}, v{nullptr, 0};
    int r = bdb_first(h, &k, &v);
    while (r == 0 && out.size() < limit) {
        out.emplace_back(std::string(kbuf, k.len), v.ptr ? std::string(static_cast<char *>(v.ptr), v.len) : std::string());
        std::free(v.ptr);
        v = bdb_datum{nullptr, 0};
        r = bdb_next(h, &k, &v);
    }
    if (r == 0) std::free(v.ptr);
    if (complete) *complete = r != 0 && (bdb_error(h) == BDB_E_EOF || bdb_error(h) == BDB_E_EMPTY);
    return out;
}

}  // namespace fz

#endif  // VARLO_FUZZ_COMMON_H
