// Error codes, their messages and the reporting calls.
#include <cerrno>
#include <cstring>

#include "bdb_int.h"

extern "C" {

const char *const bdb_errorid[39] = {
    "VARLO error not defined",
    "Key not found",
    "Duplicate key found",
    "Key has been inserted on replace",
    "Read I/O error",
    "Write I/O error",
    "No memory available for operation",
    "Database already locked",
    "Unable to open database",
    "Share violation on open",
    "Can not write to a read only database",
    "General I/O error",
    "Database named does not exist in path specified",
    "Database named in path is not accessible",
    "Access to shared memory not allowed",
    "Shared memory segment already exists",
    "Shared memory segment not found",
    "Invalid size specified for shared memory segment",
    "No physical memory available to create shared memory segment",
    "Maximum number of shared id's exceeded",
    "Invalid shared memory handle",
    "Unknown shared memory error",
    "Access to semaphore not allowed",
    "Maximum number of semaphore id's exceeded",
    "No memory available for semaphore(s)",
    "Invalid semaphore handle",
    "Unknown semaphore error",
    "Unknown database type, not a valid VARLO database",
    "Database size not multiple of BDB_PGSIZE",
    "Bad magic number in meta data",
    "Invalid key size specified",
    "End of database reached",
    "No records found in database",
    "Database is full",
    "Invalid parameter",
    "General transaction logging error",
    "Database not previously locked",
    "Database already exists",
    "Could not create database",
};

const char *bdbstrerr(uint32_t code) {
    uint32_t idx = code - BDB_E_BASE;  // unsigned: codes below the base wrap high
    if (idx >= BDB_E_COUNT) idx = 0;
    return bdb_errorid[idx];
}

uint32_t bdb_error(bdb_handle *h) {
    if (h) return h->error;
    if (errno == EINVAL) return BDB_E_PARAM;
    if (errno == ENOMEM) return BDB_E_NOMEM;
    return 0;
}

uint32_t bdb_seterror(bdb_handle *h, uint32_t code) {
    if (!h) {
        errno = EINVAL;
        return static_cast<uint32_t>(-1);
    }
    uint32_t old = h->error;
    h->error = code;
    return old;
}

bdb_errhandler_fn bdb_errhandler(bdb_handle *h, bdb_errhandler_fn fn) {
    if (!h) {
        errno = EINVAL;
        return nullptr;
    }
    bdb_errhandler_fn old = h->errhandler;
    h->errhandler = fn;
    return old;
}

void bdb_errlog(bdb_handle *h, const char *context) {
    if (!h || !h->errhandler) return;
    int saved = errno;
    h->errhandler(h, h->name, strerror(saved), saved, bdbstrerr(h->error), h->error, context);
    errno = saved;
}

void bdb_noop_handler(bdb_handle *, const char *, const char *, int, const char *, uint32_t, const char *) {}

}  // extern "C"

namespace varlo {

void fail(bdb_handle *h, uint32_t code, const char *context) {
    h->error = code;
    bdb_errlog(h, context);
}

void report_nohandle(bdb_errhandler_fn fn, const char *path, uint32_t code, const char *context) {
    if (!fn) return;
    int saved = errno;
    fn(nullptr, path, strerror(saved), saved, bdbstrerr(code), code, context);
    errno = saved;
}

}  // namespace varlo
