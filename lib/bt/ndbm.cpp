// The ndbm interface (ndbm.h): DBM handles over private-mode varlo
// databases, one file NAME.db per database.
//
// Creation. A new NAME.db is made with open(O_CREAT | O_EXCL, file_mode), so
// that it has the caller's permission bits (less the umask) from its first
// moment, and then receives the meta page of an empty database. A zero-length
// NAME.db is thus a database being created (or whose creation a crash cut
// short): it is not opened as a database, and an open with O_CREAT or O_TRUNC
// makes it one. Making a file empty happens under the exclusive file lock, so
// a database that another handle has open is never truncated under it.
//
// Walks. bdb_next continues from the key it is given, so the handle keeps the
// key last returned. Deleting that key would end the walk: dbm_delete of the
// walk's current key first steps the walk on to the key after it.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "preimage.h"
#include "ndbm.h"

using namespace varlo;

struct varlo_dbm {
    bdb_handle *h = nullptr;
    bool error = false;
    // The walk: `key` holds the key last returned (kAt) or the next key to
    // return (kAhead, after the current key was deleted).
    enum Walk { kNone, kAt, kAhead, kEnd } walk = kNone;
    uint8_t key[BDB_MAXKEY];
    uint32_t keylen = 0;
    void *value = nullptr;  // the last value dbm_fetch handed out (malloc'd)
};

namespace {

// The page cache of a handle: a few levels of a large tree stay cached.
constexpr uint32_t kCacheBytes = 1u << 20;
char empty_value[1];  // where an empty value points

bool to_datum(const datum &d, bdb_datum *out) {
    if ((!d.dptr && d.dsize) || d.dsize > UINT32_MAX) return false;
    *out = bdb_datum{d.dptr, static_cast<uint32_t>(d.dsize)};
    return true;
}

// Marks the handle failed and gives errno the meaning of the library code.
template <typename T>
T failed(DBM *db, int err, T result) {
    db->error = true;
    errno = err;
    return result;
}

int errno_of(uint32_t code) {
    switch (code) {
    case BDB_E_NOENT: return ENOENT;
    case BDB_E_ACCESS: return EACCES;
    case BDB_E_RDONLY: return EPERM;
    case BDB_E_KEYSIZE:
    case BDB_E_PARAM:
    case BDB_E_DBTYPE:
    case BDB_E_DBSIZE:
    case BDB_E_MAGIC: return EINVAL;
    case BDB_E_IO:
    case BDB_E_SHARE: return EAGAIN;  // on open: the file lock is held elsewhere
    case BDB_E_FULL: return ENOSPC;
    case BDB_E_NOMEM: return ENOMEM;
    default: return EIO;
    }
}

// Makes the file of fd an empty database: always when `truncate`, else only
// while it is still zero-length. 0, or -1 with errno (EAGAIN: in use). A meta
// log beside the file described the content that goes: it goes too.
int make_empty(const std::string &path, int fd, bool truncate) {
    if (lock_file(fd, true) < 0) {
        errno = EAGAIN;
        return -1;
    }
    struct stat st;
    if (sysio.fstat(fd, &st) < 0) return -1;
    if (!truncate && st.st_size != 0) return 0;  // made meanwhile by another opener
    alignas(8) static thread_local bdb_meta meta;
    init_meta(&meta, BDB_PRIVATE);
    const std::string log = path + kLogSuffix;
    if (sysio.unlink(log.c_str()) < 0 && errno != ENOENT) return -1;
    if (sysio.ftruncate(fd, 0) < 0 || write_full(fd, &meta, kPageSize, 0) < 0) return -1;
    return sysio.fsync(fd);
}

// Runs make_empty on path; 0 or -1 with errno.
int make_empty_path(const std::string &path, bool truncate) {
    int fd = sysio.open(path.c_str(), O_RDWR, 0);
    if (fd < 0) return -1;
    int rc = make_empty(path, fd, truncate);
    int e = errno;
    sysio.close(fd);
    errno = e;
    return rc;
}

bool same_key(const DBM *db, const bdb_datum &k) {
    return db->walk != DBM::kNone && db->walk != DBM::kEnd && k.len == db->keylen &&
           std::memcmp(k.ptr, db->key, k.len) == 0;
}

// One step of the walk into db->key: bdb_first when `first`, else bdb_next
// from db->key. The key, or {NULL, 0} at the end (no error) or on an error.
datum step(DBM *db, bool first) {
    bdb_datum k{db->key, db->keylen}, v{};
    const int r = first ? bdb_first(db->h, &k, &v) : bdb_next(db->h, &k, &v);
    std::free(v.ptr);
    if (r == 0) {
        db->keylen = k.len;
        db->walk = DBM::kAt;
        return datum{db->key, db->keylen};
    }
    const uint32_t code = bdb_error(db->h);
    db->walk = DBM::kEnd;
    if (code == BDB_E_EOF || code == BDB_E_EMPTY) return datum{nullptr, 0};
    return failed(db, errno_of(code), datum{nullptr, 0});
}

}  // namespace

extern "C" {

DBM *dbm_open(const char *file, int open_flags, mode_t file_mode) {
    if (!file) {
        errno = EINVAL;
        return nullptr;
    }
    std::string path;
    try {
        path = std::string(file) + ".db";
    } catch (...) {
        errno = ENOMEM;
        return nullptr;
    }
    if (path.size() > BDB_MAXPATH) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    bool made = false;
    if (open_flags & O_CREAT) {
        int fd = sysio.open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, file_mode);
        if (fd >= 0) {
            // A new file: if it cannot be made a database it goes again. A
            // lock held meanwhile means another opener took the file over.
            int rc = make_empty(path, fd, false), e = errno;
            sysio.close(fd);
            if (rc < 0 && e != EAGAIN) {
                sysio.unlink(path.c_str());
                errno = e;
                return nullptr;
            }
            made = true;
        } else if (errno != EEXIST || (open_flags & O_EXCL)) {
            return nullptr;
        }
    }
    if (!made && (open_flags & O_TRUNC)) {
        if (make_empty_path(path, true) < 0) return nullptr;
    } else if (!made && (open_flags & O_CREAT)) {
        struct stat st;
        if (::stat(path.c_str(), &st) == 0 && st.st_size == 0 && make_empty_path(path, false) < 0) return nullptr;
    }
    auto *db = new (std::nothrow) DBM;
    if (!db) {
        errno = ENOMEM;
        return nullptr;
    }
    const int access = (open_flags & O_ACCMODE) == O_RDONLY ? BDB_RDONLY : BDB_RDWR;
    const bdb_options opts{kCacheBytes, nullptr, nullptr};
    uint32_t err = 0;
    db->h = bdb_open(path.c_str(), 0, access, BDB_PRIVATE, &opts, 0, &err);
    if (!db->h) {
        delete db;
        errno = errno_of(err);
        return nullptr;
    }
    return db;
}

void dbm_close(DBM *db) {
    if (!db) return;
    // A failed sync leaves the handle open: it is freed all the same.
    if (bdb_close(db->h) < 0) bdb_dealloc_handle(db->h);
    std::free(db->value);
    delete db;
}

datum dbm_fetch(DBM *db, datum key) {
    if (!db) {
        errno = EINVAL;
        return datum{nullptr, 0};
    }
    bdb_datum k, v{};
    if (!to_datum(key, &k)) return failed(db, EINVAL, datum{nullptr, 0});
    const int r = bdb_get(db->h, &k, &v);
    std::free(db->value);  // after the call: the key may point into it
    db->value = nullptr;
    if (r < 0) {
        const uint32_t code = bdb_error(db->h);
        if (code == BDB_E_NOTFOUND) return datum{nullptr, 0};
        return failed(db, errno_of(code), datum{nullptr, 0});
    }
    db->value = v.ptr;
    return datum{v.ptr ? v.ptr : empty_value, v.len};
}

int dbm_store(DBM *db, datum key, datum content, int store_mode) {
    if (!db) {
        errno = EINVAL;
        return -1;
    }
    bdb_datum k, v;
    if (!to_datum(key, &k) || !to_datum(content, &v) || k.len < 1 || k.len > BDB_MAXKEY ||
        (store_mode != DBM_INSERT && store_mode != DBM_REPLACE))
        return failed(db, EINVAL, -1);
    const int r = store_mode == DBM_INSERT ? bdb_put(db->h, &k, &v) : bdb_replace(db->h, &k, &v);
    if (r == 0) return 0;
    const uint32_t code = bdb_error(db->h);
    return code == BDB_E_DUPLICATE ? 1 : failed(db, errno_of(code), -1);
}

int dbm_delete(DBM *db, datum key) {
    if (!db) {
        errno = EINVAL;
        return -1;
    }
    bdb_datum k;
    if (!to_datum(key, &k)) return failed(db, EINVAL, -1);
    if (db->h->flags & BDB_F_RDONLY) return failed(db, EPERM, -1);
    if (k.len < 1 || k.len > BDB_MAXKEY) return -1;  // never stored: absent
    if (!same_key(db, k)) {
        if (bdb_delete(db->h, &k) == 0) return 0;
        const uint32_t code = bdb_error(db->h);
        return code == BDB_E_NOTFOUND ? -1 : failed(db, errno_of(code), -1);
    }
    // The walk's key: find its successor first, then delete.
    uint8_t next[BDB_MAXKEY];
    std::memcpy(next, db->key, db->keylen);
    bdb_datum nk{next, db->keylen}, v{};
    const int found = bdb_next(db->h, &nk, &v);
    std::free(v.ptr);
    const uint32_t code = bdb_error(db->h);
    if (found < 0 && code != BDB_E_EOF) return failed(db, errno_of(code), -1);
    bdb_datum cur{db->key, db->keylen};
    if (bdb_delete(db->h, &cur) < 0) return failed(db, errno_of(bdb_error(db->h)), -1);
    if (found == 0) {
        std::memcpy(db->key, next, nk.len);
        db->keylen = nk.len;
        db->walk = DBM::kAhead;
    } else {
        db->walk = DBM::kEnd;
    }
    return 0;
}

datum dbm_firstkey(DBM *db) {
    if (!db) {
        errno = EINVAL;
        return datum{nullptr, 0};
    }
    return step(db, true);
}

datum dbm_nextkey(DBM *db) {
    if (!db) {
        errno = EINVAL;
        return datum{nullptr, 0};
    }
    switch (db->walk) {
    case DBM::kAt: return step(db, false);
    case DBM::kAhead: db->walk = DBM::kAt; return datum{db->key, db->keylen};
    default: return datum{nullptr, 0};  // no walk begun, or past its end
    }
}

int dbm_error(DBM *db) { return db ? db->error : 1; }

int dbm_clearerr(DBM *db) {
    if (db) db->error = false;
    return 0;
}

}  // extern "C"
