// Creating, opening and closing databases; the record calls; locks, sync and
// transactions; the small accessors of a handle.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "preimage.h"

using namespace varlo;

namespace varlo {

MutexHold::MutexHold(bdb_handle *h) : h_(h) {
    status_ = take_mutex(h_);
    held_ = status_ == 0 && h_->wait;
}

int MutexHold::release() {
    if (!held_) return 0;
    held_ = false;
    return give_mutex(h_);
}

int take_mutex(bdb_handle *h) {
    if (!h->wait) return 0;
    int r = h->wait(h, BDB_MUTEX_OP);
    if (r >= 0) return 0;
    bdb_errlog(h, "Failed to lock mutex");
    return r;
}

int give_mutex(bdb_handle *h) {
    if (!h->release) return 0;
    int r = h->release(h, BDB_MUTEX_OP);
    if (r >= 0) return 0;
    bdb_errlog(h, "Failed to unlock mutex");
    return r;
}

}  // namespace varlo

namespace {

bool path_ok(const char *path) { return path && path[0] && std::strlen(path) <= BDB_MAXPATH; }

// Failures inside the log's start-up report once, through the failing
// open: their reports are held back and the last context kept.
thread_local char held_context[200];
thread_local int held_errno;
void hold_report(bdb_handle *, const char *, const char *, int e, const char *, uint32_t, const char *ctx) {
    std::snprintf(held_context, sizeof held_context, "%s", ctx ? ctx : "");
    held_errno = e;
}

// The meta log at open. The database's first user (a private handle, the
// first process of a shared area, the first handle of a thread group) opens
// it, scans it and puts back what an interrupted session left (*recovered);
// the caller then starts the session (metalog_begin). A later user of an
// area joins the session. A handle that cannot write the file writes no log:
// as the first user it opens a database whose log holds records of an
// interrupted session only once a read-write open has recovered them (it
// never reads the mixed file).
int open_log(bdb_handle *h, bool first, bool fd_writable, bool shared, LogScan *scan, bool *recovered) {
    const bool writer = fd_writable && (!(h->flags & BDB_F_RDONLY) || (h->flags & BDB_F_AREA));
    if (!writer) {
        if (!first) return 0;
        if (metalog_scan(h, scan) < 0) return -1;
        if (scan->records.empty()) return 0;
        errno = 0;
        fail(h, BDB_E_RDONLY,
             "the meta log holds changes of an interrupted session: open the database read-write once to recover");
        return -1;
    }
    if (metalog_open(h, first, true, shared) < 0) return -1;
    if (!first) return 0;
    if (metalog_scan(h, scan) < 0) return -1;
    if (scan->records.empty()) return 0;
    *recovered = true;
    return restore_last_sync(h, *scan);
}

// The common shape of the record calls: null check, read-only refusal, the
// database mutex, the counter, the search.
//
// Refused before the call counts (BDB_E_PARAM) is only what the search would
// read or write through a null pointer whatever it finds: a missing key
// descriptor; a missing data descriptor where the value is stored or handed
// back (bdb_get excepted, below); a null value or key pointer with a length
// where they are stored; a null key buffer for bdb_first. A null key pointer
// given to bdb_get, bdb_delete or bdb_next is searched like any key (the
// default compare orders it before every key, so it is not found), and
// bdb_get without a data descriptor searches as well: a missing key ends in
// BDB_E_NOTFOUND, a present one in BDB_E_PARAM, its value dropped.
int record_call(bdb_handle *h, bdb_datum *key, bdb_datum *data, int op, bool changing, uint32_t bdb_stats::*counter) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (changing && (h->flags & BDB_F_RDONLY)) {
        h->error = BDB_E_RDONLY;
        return -1;
    }
    const bool stores = op == OP_PUT || op == OP_REPLACE || op == OP_UPDATE;
    const bool key_searched_only = op == OP_GET || op == OP_DELETE || op == OP_NEXT;
    if (!key || (!key->ptr && key->len && !key_searched_only) || (!data && op != OP_DELETE && op != OP_GET) ||
        (stores && !data->ptr && data->len) || (op == OP_FIRST && !key->ptr)) {
        h->error = BDB_E_PARAM;
        return -1;
    }
    bdb_datum dropped{};
    if (op == OP_GET && !data) data = &dropped;
    return under_mutex(h, [&] {
        h->stats->*counter += 1;
        const int rc = bdb_search(h, key, data, op);
        if (data != &dropped || rc != 0) return rc;
        std::free(dropped.ptr);
        h->error = BDB_E_PARAM;
        return -1;
    });
}

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------
// Create
// ---------------------------------------------------------------------------

int bdb_create(const char *path, int mode, uint32_t *err) {
    uint32_t local = 0;
    if (!err) err = &local;
    *err = 0;
    const bdb_errhandler_fn fn = bdb_noop_handler;
    if (!path_ok(path)) {
        errno = EINVAL;
        *err = BDB_E_PARAM;
        return -1;
    }
    if (bdb_lock_smutex(path, fn, err) < 0) return -1;
    bdb_handle *h = nullptr;
    bool created = false;
    auto failed = [&]() {
        if (h) bdb_dealloc_handle(h);
        // A file this call created and could not finish is removed again, so
        // that no half-made database stays behind.
        if (created) sysio.unlink(path);
        uint32_t scratch;
        bdb_unlock_smutex(path, fn, &scratch);
        return -1;
    };
    if (::access(path, F_OK) == 0) {
        *err = BDB_E_EXISTS;
        return failed();
    }
    // A meta log left beside a file that is gone belongs to no database: it
    // must not be applied to the new one.
    const std::string log = std::string(path) + kLogSuffix;
    if (sysio.unlink(log.c_str()) < 0 && errno != ENOENT) {
        *err = BDB_E_CREATE;
        return failed();
    }
    if (!(h = bdb_alloc_handle(path, BDB_PRIVATE, 0, fn, err))) return failed();
    mode_t perm;
    if (mode == BDB_SHARED)
        perm = 0664;
    else if (mode == BDB_PRIVATE)
        perm = 0644;
    else {
        errno = EINVAL;
        *err = BDB_E_PARAM;
        return failed();
    }
    // O_EXCL: a file that another process creates meanwhile is not truncated.
    h->fd = sysio.open(path, O_RDWR | O_CREAT | O_EXCL, perm);
    if (h->fd < 0) {
        *err = errno == EEXIST ? BDB_E_EXISTS : BDB_E_CREATE;
        return failed();
    }
    created = true;
    if (bdb_lock(h, BDB_LOCK, 3) < 0) {
        *err = h->error;
        return failed();
    }
    bdb_meta *m = h->meta;
    init_meta(m, static_cast<uint32_t>(mode));
    *h->npages_ref = 1;
    if (bdb_write_dpage(h, 0, m, kPageSize) < 0 || bdb_do_sync(h) < 0 || sync_parent_dir(path) < 0 ||
        bdb_lock(h, BDB_UNLOCK, 3) < 0) {
        // A failed truncation leaves no code of its own in the handle.
        *err = h->error ? h->error : BDB_E_CREATE;
        return failed();
    }
    bdb_dealloc_handle(h);
    uint32_t scratch;
    bdb_unlock_smutex(path, fn, &scratch);
    return 0;
}

// ---------------------------------------------------------------------------
// Open
// ---------------------------------------------------------------------------

bdb_handle *bdb_open_error(bdb_handle *h, const char *context, uint32_t code, uint32_t *err) {
    if (err) *err = code;
    h->error = code;
    bdb_errlog(h, context);
    char name[BDB_MAXPATH + 1];
    std::strncpy(name, h->name, sizeof name - 1);
    name[sizeof name - 1] = 0;
    bdb_errhandler_fn fn = h->errhandler;
    bdb_dealloc_handle(h);
    uint32_t scratch;
    bdb_unlock_smutex(name, fn, &scratch);
    return nullptr;
}

bdb_handle *bdb_open(const char *path, int reserved, int flags, int mode, const bdb_options *opts, uint32_t thread,
                     uint32_t *err) {
    (void)reserved;
    const bdb_errhandler_fn fn = opts && opts->errhandler ? opts->errhandler : bdb_noop_handler;
    uint32_t local = 0;
    if (!err) err = &local;
    *err = 0;
    if (!path_ok(path)) {
        errno = EINVAL;
        report_nohandle(fn, path ? path : "", BDB_E_PARAM, "Bad path parameter");
        *err = BDB_E_PARAM;
        return nullptr;
    }
    int oflag;
    if (flags == BDB_RDONLY)
        oflag = O_RDONLY;
    else if (flags == BDB_RDWR)
        oflag = O_RDWR;
    else {
        errno = EINVAL;
        report_nohandle(fn, path, BDB_E_PARAM, "Bad flags parameter");
        *err = BDB_E_PARAM;
        return nullptr;
    }
    mode_t perm;
    if (mode == BDB_SHARED)
        perm = 0664;
    else if (mode == BDB_PRIVATE)
        perm = 0644;
    else {
        errno = EINVAL;
        report_nohandle(fn, path, BDB_E_PARAM, "Bad mode parameter");
        *err = BDB_E_PARAM;
        return nullptr;
    }

    if (bdb_lock_smutex(path, fn, err) < 0) return nullptr;
    bdb_handle *h = bdb_alloc_handle(path, mode, thread, fn, err);
    if (!h) {
        uint32_t scratch;
        bdb_unlock_smutex(path, fn, &scratch);
        return nullptr;
    }
    if (flags == BDB_RDONLY) h->flags |= BDB_F_RDONLY;

    if (mode == BDB_SHARED) {
        h->attach = bdb_attach_shared_memory;
        h->wait = bdb_wait_shared_mutex;
        h->release = bdb_release_shared_mutex;
        h->detach = bdb_detach_shared_memory;
        h->flags |= BDB_F_AREA;
    } else {
        int in_use = bdb_check_shared_memory(h);
        if (in_use < 0) return bdb_open_error(h, "Shared database check failed", h->error, err);
        if (in_use > 0) return bdb_open_error(h, "Private database already opened shared", BDB_E_SHARE, err);
        if (thread) {
            h->attach = bdb_attach_local_shmem;
            h->wait = bdb_wait_private_mutex;
            h->release = bdb_release_private_mutex;
            h->detach = bdb_detach_local_shmem;
        }
    }
    if (h->attach && h->attach(h) < 0)
        return bdb_open_error(h, "Failed to attach shared memory resource", h->error, err);
    if (h->flags & BDB_F_AREA_OWNER) h->meta->mode = static_cast<uint32_t>(mode);

    if (!(h->flags & BDB_F_FILE_SHARED)) {
        const bool reads_meta = !(h->flags & BDB_F_AREA) || (h->flags & BDB_F_AREA_OWNER);
        // The cache of an area is common to all its users: a read-only
        // handle may have to write another user's changed page out of it to
        // make room (and thread handles share this descriptor), so the file
        // is opened for writing when the caller may write it.
        const int area_oflag = (h->flags & BDB_F_AREA) ? O_RDWR : oflag;
        // O_NONBLOCK: a FIFO or a device is refused below, never waited on.
        int open_flags = area_oflag;
        h->fd = sysio.open(path, area_oflag | O_NONBLOCK, perm);
        if (h->fd < 0 && area_oflag != oflag && (errno == EACCES || errno == EROFS))
            h->fd = sysio.open(path, (open_flags = oflag) | O_NONBLOCK, perm);
        if (h->fd < 0) return bdb_open_error(h, "open", errno == ETXTBSY ? BDB_E_SHARE : BDB_E_OPEN, err);
        struct stat kind;
        if (sysio.fstat(h->fd, &kind) < 0 || !S_ISREG(kind.st_mode) ||
            ::fcntl(h->fd, F_SETFL, ::fcntl(h->fd, F_GETFL) & ~O_NONBLOCK) < 0)
            return bdb_open_error(h, "not a regular file", BDB_E_DBTYPE, err);
        if (mode == BDB_PRIVATE) {
            if (bdb_lock(h, BDB_LOCK, 3) < 0)
                return bdb_open_error(h, "Database already opened by another process", h->error, err);
            // A thread group's lock above is its mutex; the group's file is
            // locked too, so that no other process opens it meanwhile.
            if (h->thread_id && (varlo::lock_file(h->fd, !(h->flags & BDB_F_RDONLY)) < 0 ||
                                 ((h->flags & BDB_F_RDONLY) && varlo::lock_role(h->fd, true) < 0)))
                return bdb_open_error(h, "Database already opened by another process", BDB_E_IO, err);
            if (h->thread_id) h->flags |= BDB_F_FILE_SHARED;
        } else if (varlo::lock_file(h->fd, false) < 0) {
            // Shared users hold the file lock together; a private user in
            // another process holds it alone.
            return bdb_open_error(h, "Database already opened privately by another process", BDB_E_SHARE, err);
        }
        struct stat st;
        if (sysio.fstat(h->fd, &st) < 0) return bdb_open_error(h, "db stat", BDB_E_IO, err);
        h->blksize = static_cast<uint32_t>(st.st_blksize);
        if (st.st_size < static_cast<off_t>(kPageSize)) return bdb_open_error(h, "meta size", BDB_E_DBTYPE, err);
        if (reads_meta && read_full(h->fd, h->meta, kPageSize, 0) < 0)
            return bdb_open_error(h, "meta read", BDB_E_READ, err);
        // The meta log comes first: what an interrupted session left (a torn
        // page, a partial length) is put back before the file is judged.
        LogScan scan;
        bool recovered = false;
        const bdb_errhandler_fn handler = h->errhandler;
        h->errhandler = hold_report;
        held_context[0] = 0;
        int logged = open_log(h, reads_meta, (open_flags & O_ACCMODE) == O_RDWR, mode == BDB_SHARED, &scan, &recovered);
        h->errhandler = handler;
        if (logged < 0) {
            errno = held_errno;
            return bdb_open_error(h, held_context[0] ? held_context : "meta log", h->error, err);
        }
        if (recovered && sysio.fstat(h->fd, &st) < 0) return bdb_open_error(h, "db stat", BDB_E_IO, err);
        const off_t end = st.st_size;
        if (end % kPageSize != 0 || end / kPageSize > BDB_MAXPAGES)
            return bdb_open_error(h, "db lseek end", BDB_E_DBSIZE, err);
        h->npages = static_cast<uint32_t>(end / kPageSize);
        // Page reads come from a read-only mapping of the file when the
        // system gives one (a read call otherwise). A thread group shares
        // one mapping, as large as a file can be; other handles map what
        // the file holds and some room beyond, and map again as it grows
        // (growing a file walks every mapping of it past its old end).
        map_file(h, h->thread_id ? BDB_MAXPAGES : h->npages);
        if (reads_meta) {
            *h->npages_ref = h->npages;
            if (recovered) {
                // The meta page copy is in machine order already.
            } else if (h->meta->magic == BDB_MAGIC_SWAPPED) {
                h->flags |= BDB_F_SWAPPED;
                bdb_swap(h->meta, kPageSize);
                *h->state_ref |= kStateSwapped;
            } else if (h->meta->magic == BDB_MAGIC) {
                *h->state_ref &= ~kStateSwapped;
            } else {
                return bdb_open_error(h, "meta magic corrupt", BDB_E_MAGIC, err);
            }
            if (h->mlog) {
                alignas(8) uint8_t image[kPageSize];
                meta_file_image(h, image);
                h->errhandler = hold_report;
                held_context[0] = 0;
                logged = metalog_begin(h, scan, image, h->npages);
                h->errhandler = handler;
                if (logged < 0) {
                    errno = held_errno;
                    return bdb_open_error(h, held_context[0] ? held_context : "meta log", h->error, err);
                }
            }
            h->meta->mode = static_cast<uint32_t>(mode);
            // A handle that takes an area as another handle left it keeps the
            // area's log map: its sync interval did not begin here.
            refresh_logmap(h);
        } else {
            if (*h->state_ref & kStateSwapped) h->flags |= BDB_F_SWAPPED;
            if (h->meta->magic != BDB_MAGIC) return bdb_open_error(h, "meta magic corrupt", BDB_E_MAGIC, err);
        }
        if (bdb_cache_init(h, opts ? opts->cache_size : 0) < 0)
            return bdb_open_error(h, "Failed to set up page cache", BDB_E_NOMEM, err);
    } else if (*h->state_ref & kStateSwapped) {
        h->flags |= BDB_F_SWAPPED;
    }
    // A shared-mode writer stays out while a private reader holds the file.
    if (mode == BDB_SHARED && !(h->flags & BDB_F_RDONLY) && varlo::lock_role(h->fd, false) < 0)
        return bdb_open_error(h, "Database opened read-only privately by another process", BDB_E_SHARE, err);
    h->compare = opts && opts->compare ? opts->compare : bdb_dti_compare;
    if (h->hold_count > 0) {
        h->hold_count = 1;
        if (h->release) h->release(h, BDB_MUTEX_OP);
    }
    uint32_t scratch;
    bdb_unlock_smutex(path, fn, &scratch);
    return h;
}

// ---------------------------------------------------------------------------
// Close and destroy
// ---------------------------------------------------------------------------

// Frees a handle that has mutex slots: the database mutex is given up first,
// then the process-wide mutex is taken while the handle leaves the registry.
// The shared area is detached after the process-wide mutex is given up: the
// detach waits for the database mutex, and a thread holding that mutex may
// be waiting for the process-wide one.
static int release_and_free(bdb_handle *h) {
    char name[BDB_MAXPATH + 1];
    std::strncpy(name, h->name, sizeof name - 1);
    name[sizeof name - 1] = 0;
    bdb_errhandler_fn fn = h->errhandler;
    if (int r = give_mutex(h); r < 0) return r;
    if (bdb_lock_smutex(name, fn, &h->error) < 0) return -1;
    bool area_left = false;
    int rc = bdb_leave_handle(h, &area_left);
    uint32_t scratch;
    bdb_unlock_smutex(name, fn, &scratch);
    if (bdb_free_handle(h, area_left) < 0) rc = -1;
    return rc;
}

int bdb_close(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (int r = take_mutex(h); r < 0) return r;
    if (!(h->flags & BDB_F_RDONLY)) {
        int r = bdb_sync(h);
        if (r < 0) {
            int r2 = give_mutex(h);
            return r2 < 0 ? r2 : r;
        }
    }
    if (!h->wait) return bdb_dealloc_handle(h);
    return release_and_free(h);
}

int bdb_destroy(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (int r = take_mutex(h); r < 0) return r;
    if (h->meta->mode == BDB_SHARED) {
        h->error = BDB_E_SHARE;
        int r = give_mutex(h);
        return r < 0 ? r : -1;
    }
    h->flags |= BDB_F_DESTROY;
    if (!h->wait) return bdb_dealloc_handle(h);
    return release_and_free(h);
}

int bdb_sigexit(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Record calls
// ---------------------------------------------------------------------------

int bdb_get(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    return record_call(h, key, data, OP_GET, false, &bdb_stats::reads);
}
int bdb_put(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    return record_call(h, key, data, OP_PUT, true, &bdb_stats::puts);
}
int bdb_replace(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    return record_call(h, key, data, OP_REPLACE, true, &bdb_stats::replaces);
}
int bdb_update(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    return record_call(h, key, data, OP_UPDATE, true, &bdb_stats::updates);
}
int bdb_delete(bdb_handle *h, bdb_datum *key) {
    return record_call(h, key, nullptr, OP_DELETE, true, &bdb_stats::deletes);
}
int bdb_remove(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    return record_call(h, key, data, OP_REMOVE, true, &bdb_stats::removes);
}
int bdb_first(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    return record_call(h, key, data, OP_FIRST, false, &bdb_stats::reads);
}
int bdb_next(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    return record_call(h, key, data, OP_NEXT, false, &bdb_stats::reads);
}

bdb_compare_fn bdb_compare(bdb_handle *h, bdb_compare_fn fn) {
    if (!h) return reinterpret_cast<bdb_compare_fn>(static_cast<intptr_t>(-1));
    bdb_compare_fn old = h->compare;
    h->compare = fn ? fn : bdb_dti_compare;
    return old;
}

uint32_t bdb_get_threadid(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return static_cast<uint32_t>(-1);
    }
    return h->thread_id;
}

const char *bdb_get_dbname(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return reinterpret_cast<const char *>(static_cast<intptr_t>(-1));
    }
    return h->name;
}

// ---------------------------------------------------------------------------
// Locks, sync, transactions
// ---------------------------------------------------------------------------

int bdb_lock(bdb_handle *h, int op, int kind) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (h->flags & (BDB_F_AREA | BDB_F_FILE_SHARED)) {
        if (op == BDB_LOCK) return take_mutex(h);
        if (op == BDB_UNLOCK) return give_mutex(h);
        fail(h, BDB_E_PARAM, "Invalid lock operation");
        return -1;
    }
    return under_mutex(h, [&] {
        if (btree_lockf(h, op, kind) == 0) return 0;
        fail(h, BDB_E_IO, op == BDB_LOCK ? "db lock" : "db unlock");
        return -1;
    });
}

int bdb_sync(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    return under_mutex(h, [h] { return bdb_do_sync(h); });
}

// With a meta log the sync is crash-safe: the log is made durable, the pages
// and the meta page are written and the file is fsynced (bdb_force_cache),
// then a new log interval begins (the commit point: after it a crash keeps
// this sync's state, before it the previous one), and only then is the file
// cut to its pages in use.
int bdb_do_sync(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (h->flags & BDB_F_RDONLY) {
        h->error = BDB_E_RDONLY;
        return -1;
    }
    return under_mutex(h, [h] {
        if (area_check(h) < 0) return -1;
        ChangeMark mark(h);
        const uint32_t pages = pages_to_keep(h);
        alignas(8) uint8_t image[kPageSize];
        meta_file_image(h, image);
        const bool meta_written = *h->state_ref & BDB_METADIRTY;
        if (metalog_records(h) && metalog_intent(h, image, pages) < 0) return -1;
        if (bdb_force_cache(h) < 0) return -1;
        if (metalog_active(h) && metalog_commit(h, meta_written ? image : nullptr, pages) < 0) return -1;
        refresh_logmap(h);
        *h->npages_ref = pages;
        if (sysio.ftruncate(h->fd, static_cast<off_t>(pages) << kPageShift) == 0) return 0;
        bdb_errlog(h, "db sync truncate");
        return -1;
    });
}

int bdb_transaction(bdb_handle *h, int op) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (op >= 1 && op <= 3) return 0;
    h->error = BDB_E_PARAM;
    return -1;
}

}  // extern "C"
