// Process sharing and concurrency: the process-wide mutex, handle blocks and
// the registry of thread-managed databases, the shared area of a database,
// the database mutexes and the handle lists of thread groups.
//
// The shared area (bdb_shared) holds offsets, never addresses: every process
// attaches the segment wherever the system puts it and computes its own
// addresses from the offsets (bdb_setup_shmem).
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "preimage.h"

using namespace varlo;

namespace varlo {

bdb_handle bdb_var{};
int exInit = 0;
bdb_hndl_entry *bdb_hndl_array = nullptr;
uint32_t numDatabases = 0;

}  // namespace varlo

namespace {

// owner and hold_count of the process-wide record are read by threads that do
// not hold the mutex (to recognise a recursive take); they are accessed
// atomically so that such a read is well defined.
uint32_t load_owner(const bdb_handle *h) { return __atomic_load_n(&h->owner, __ATOMIC_RELAXED); }
int32_t load_hold(const bdb_handle *h) { return __atomic_load_n(&h->hold_count, __ATOMIC_RELAXED); }
void store_owner(bdb_handle *h, uint32_t v) { __atomic_store_n(&h->owner, v, __ATOMIC_RELAXED); }
void store_hold(bdb_handle *h, int32_t v) { __atomic_store_n(&h->hold_count, v, __ATOMIC_RELAXED); }

// The semaphore set id 0 is a valid id, so sem_id holds the id plus one and
// 0 keeps meaning "no set".
int semid_of(const bdb_handle *h) { return h->sem_id - 1; }

struct sembuf mutex_lock[2] = {{1, 0, 0}, {1, 1, SEM_UNDO}};
struct sembuf mutex_unlock[1] = {{1, -1, SEM_UNDO}};

// The file behind a path, folded into one nonzero word. The area's spare
// word carries it, so that a segment whose key another database shares (the
// key comes from only part of the file's identity) is never taken for ours.
uint32_t file_identity(const char *path) {
    struct stat st;
    if (::stat(path, &st) < 0) return 0;
    uint64_t x = static_cast<uint64_t>(st.st_dev) * 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(st.st_ino);
    x ^= x >> 29;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 32;
    uint32_t id = static_cast<uint32_t>(x);
    return id ? id : 1;
}

// ThreadSanitizer does not know that semop orders the threads of a process
// that share a database's area: the semaphore's takes and releases are
// announced to it (on one object per process).
#if defined(__SANITIZE_THREAD__)
#define VARLO_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VARLO_TSAN 1
#endif
#endif
#ifdef VARLO_TSAN
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
char sem_order;
void sem_taken() { __tsan_acquire(&sem_order); }
void sem_giving_up() { __tsan_release(&sem_order); }
#else
void sem_taken() {}
void sem_giving_up() {}
#endif

// The registry's lists (its entries, an entry's handles) are reallocated in
// steps of five: an add that finds n, a multiple of five, in use and a remove
// that leaves n, a multiple of five (but not 0, which frees the list), put
// the first n elements into a fresh block with room for n + 5. False when
// memory runs out: the list is left as it was.
template <typename T>
bool relist(T *&list, uint32_t n, bool adding) {
    if (n % 5 != 0) return true;
    if (n == 0 && !adding) {
        std::free(list);
        list = nullptr;
        return true;
    }
    T *fresh = static_cast<T *>(std::calloc(n + 5, sizeof(T)));
    if (!fresh) return false;
    if (n) std::memcpy(fresh, list, n * sizeof(T));
    std::free(list);
    list = fresh;
    return true;
}

void release_if_held(bdb_handle *h, int (*release)(bdb_handle *, int)) {
    if (load_hold(h) != 0) {
        store_hold(h, 1);
        release(h, BDB_MUTEX_OP);
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Thread identity
// ---------------------------------------------------------------------------

// The kernel thread id: unique among the live threads of the process and
// never 0, whereas the low 32 bits of pthread_self() on a 64-bit system need
// not be either.
extern "C" uint32_t unix_thread_self(void) { return static_cast<uint32_t>(::syscall(SYS_gettid)); }

extern "C" {
uint32_t (*bdb_thread_self)(void) = unix_thread_self;
}

// ---------------------------------------------------------------------------
// Mutexes
// ---------------------------------------------------------------------------

namespace varlo {

#ifndef NDEBUG
bool mutex_held_here(const bdb_handle *h) {
    if (h->wait != bdb_wait_shared_mutex && h->wait != bdb_wait_private_mutex) return true;
    return load_owner(h) == bdb_thread_self() && load_hold(h) > 0;
}
#endif

void bdb_mapsemerror(bdb_handle *h) {
    switch (errno) {
    case EPERM:
    case EACCES:
        h->error = BDB_E_SEM_ACCESS;
        break;
    case ENOMEM:
        h->error = BDB_E_SEM_NOMEM;
        break;
    case EINVAL:
        h->error = BDB_E_SEM_HANDLE;
        break;
    case ENOSPC:
        h->error = BDB_E_SEM_MAXID;
        break;
    default:
        h->error = BDB_E_SEM_UNKNOWN;
        break;
    }
}

void bdb_mapshmerror(bdb_handle *h) {
    switch (errno) {
    case EPERM:
    case EACCES:
        h->error = BDB_E_SHM_ACCESS;
        break;
    case ENOMEM:
        h->error = BDB_E_SHM_NOMEM;
        break;
    case EEXIST:
        h->error = BDB_E_SHM_EXISTS;
        break;
    case EINVAL:
        h->error = BDB_E_SHM_HANDLE;
        break;
    case EMFILE:
        h->error = BDB_E_SHM_MAXID;
        break;
    default:
        h->error = BDB_E_SHM_UNKNOWN;
        break;
    }
}

}  // namespace varlo

extern "C" {

int bdb_create_shared_mutex(bdb_handle *h) {
    if (h->sem_id != 0) return 0;
    int id = ::semget(h->ipc_key, 2, IPC_CREAT | 0664);
    if (id < 0) {
        bdb_mapsemerror(h);
        return -1;
    }
    h->sem_id = id + 1;
    return 0;
}

int bdb_wait_shared_mutex(bdb_handle *h, int op) {
    (void)op;
    const uint32_t self = bdb_thread_self();
    if (load_hold(h) != 0 && load_owner(h) == self) {
        store_hold(h, load_hold(h) + 1);
        return 0;
    }
    for (;;) {
        if (h->sem_id == 0 && bdb_create_shared_mutex(h) < 0) return -1;
        if (::semop(semid_of(h), mutex_lock, 2) == 0) {
            sem_taken();
            store_owner(h, self);
            store_hold(h, load_hold(h) + 1);
            return 0;
        }
        if (errno == EIDRM || errno == EINVAL) {
            // The set was removed: make it again and wait on the new one.
            h->sem_id = 0;
            if (bdb_create_shared_mutex(h) < 0) return -1;
            continue;
        }
        if (errno == EINTR) continue;
        bdb_mapsemerror(h);
        return -1;
    }
}

int bdb_release_shared_mutex(bdb_handle *h, int op) {
    (void)op;
    const int32_t held = load_hold(h);
    if (held <= 0) return 0;
    store_hold(h, held - 1);
    if (held != 1) return 0;
    store_owner(h, 0);
    sem_giving_up();
    for (;;) {
        if (::semop(semid_of(h), mutex_unlock, 1) == 0) return 0;
        if (errno == EIDRM || errno == EINVAL) {
            // The set is gone, and the hold with it.
            h->sem_id = 0;
            return bdb_create_shared_mutex(h) < 0 ? -1 : 0;
        }
        if (errno == EINTR) continue;
        bdb_mapsemerror(h);
        return -1;
    }
}

int bdb_destroy_shared_mutex(bdb_handle *h) {
    if (h->sem_id == 0) return 0;
    // A hold goes with the set, without a release first: a process waiting
    // for the mutex would otherwise take it in the set about to go while the
    // next opener takes a new set, and both would work on the area at once.
    // Waiters on the removed set make a new one and compete for it.
    if (load_hold(h) != 0) {
        store_hold(h, 0);
        store_owner(h, 0);
        sem_giving_up();
    }
    const int id = semid_of(h);
    h->sem_id = 0;
    if (::semctl(id, 1, IPC_RMID) < 0) {  // a set removed already gives BDB_E_SEM_HANDLE
        bdb_mapsemerror(h);
        return -1;
    }
    return 0;
}

int bdb_create_private_mutex(bdb_handle *h) {
    if (h->mutex) return 0;
    auto *m = static_cast<pthread_mutex_t *>(std::malloc(sizeof(pthread_mutex_t)));
    if (!m) {
        h->error = BDB_E_NOMEM;
        return -1;
    }
    int r;
    while ((r = pthread_mutex_init(m, nullptr)) == EBUSY) {
    }
    if (r == 0) {
        h->mutex = m;
        return 0;
    }
    std::free(m);
    h->error = r == EINVAL ? BDB_E_PARAM : BDB_E_NOMEM;
    return -1;
}

int bdb_wait_private_mutex(bdb_handle *h, int op) {
    (void)op;
    const uint32_t self = bdb_thread_self();
    if (load_hold(h) != 0 && load_owner(h) == self) {
        store_hold(h, load_hold(h) + 1);
        return 0;
    }
    if (!h->mutex) {
        h->error = BDB_E_PARAM;
        return -1;
    }
    int r = pthread_mutex_lock(h->mutex);
    if (r == 0) {
        store_owner(h, self);
        store_hold(h, load_hold(h) + 1);
        return 0;
    }
    h->error = r == EDEADLK ? BDB_E_LOCKED : BDB_E_PARAM;
    return -1;
}

int bdb_release_private_mutex(bdb_handle *h, int op) {
    (void)op;
    const int32_t held = load_hold(h);
    if (held <= 0) return 0;
    store_hold(h, held - 1);
    if (held != 1) return 0;
    // The owner is cleared before the unlock: afterwards the next holder
    // may already have written its own id.
    store_owner(h, 0);
    int r = pthread_mutex_unlock(h->mutex);
    if (r == 0) return 0;
    h->error = r == EINVAL ? BDB_E_PARAM : BDB_E_NOTLOCKED;
    return -1;
}

int bdb_destroy_private_mutex(bdb_handle *h) {
    if (!h->mutex) return 0;
    release_if_held(h, bdb_release_private_mutex);
    pthread_mutex_destroy(h->mutex);
    std::free(h->mutex);
    h->mutex = nullptr;
    return 0;
}

// ---------------------------------------------------------------------------
// The process-wide mutex
// ---------------------------------------------------------------------------

}  // extern "C"

namespace varlo {
void bdb_atexit() { bdb_destroy_private_mutex(&bdb_var); }
}  // namespace varlo

namespace {
void atexit_hook() { varlo::bdb_atexit(); }
// Guards the first creation of the process-wide mutex: two threads opening
// their first databases at once end up with one mutex.
pthread_mutex_t smutex_guard = PTHREAD_MUTEX_INITIALIZER;
}  // namespace

extern "C" {

int bdb_lock_smutex(const char *path, bdb_errhandler_fn fn, uint32_t *err) {
    pthread_mutex_lock(&smutex_guard);
    if (!bdb_var.mutex) {
        if (!exInit) {
            exInit = 1;
            std::atexit(atexit_hook);
        }
        if (bdb_create_private_mutex(&bdb_var) < 0) {
            const uint32_t code = bdb_var.error;
            pthread_mutex_unlock(&smutex_guard);
            if (err) *err = code;
            report_nohandle(fn, path, code, "Creating VARLO shared mutex");
            return -1;
        }
    }
    pthread_mutex_unlock(&smutex_guard);
    if (bdb_wait_private_mutex(&bdb_var, BDB_MUTEX_OP) < 0) {
        if (err) *err = bdb_var.error;
        report_nohandle(fn, path, bdb_var.error, "Locking VARLO shared mutex");
        return -1;
    }
    return 0;
}

int bdb_unlock_smutex(const char *path, bdb_errhandler_fn fn, uint32_t *err) {
    if (bdb_release_private_mutex(&bdb_var, BDB_MUTEX_OP) < 0) {
        if (err) *err = bdb_var.error;
        report_nohandle(fn, path, bdb_var.error, "Unlocking VARLO shared mutex");
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Handle blocks
// ---------------------------------------------------------------------------

bdb_handle *bdb_alloc_handle(const char *path, int mode, uint32_t thread, bdb_errhandler_fn fn, uint32_t *err) {
    const size_t R = sizeof(bdb_handle);
    const size_t len = std::strlen(path);
    const bool embedded = mode != BDB_SHARED && thread == 0;
    const size_t base_off = offsetof(bdb_handle, name_buf);
    const size_t need = embedded ? base_off + kLogmapBytes + kPageSize + sizeof(bdb_stats) + len + 1 : R + len + 1;
    const size_t size = (need / R + 1) * R;
    auto *h = static_cast<bdb_handle *>(std::calloc(1, size));
    if (!h) {
        errno = ENOMEM;
        report_nohandle(fn, path, BDB_E_NOMEM, "No memory allocating VARLO handle");
        if (err) *err = BDB_E_NOMEM;
        return nullptr;
    }
    h->alloc_size = static_cast<uint32_t>(size);
    h->errhandler = fn;
    h->sem_id = 0;
    h->mutex = nullptr;
    h->fd = -1;
    if (embedded) {
        auto *base = reinterpret_cast<uint8_t *>(h) + base_off;
        h->logmap = reinterpret_cast<uint32_t *>(base);
        h->meta = reinterpret_cast<bdb_meta *>(base + kLogmapBytes);
        h->stats = reinterpret_cast<bdb_stats *>(base + kLogmapBytes + kPageSize);
        h->name = reinterpret_cast<char *>(base + kLogmapBytes + kPageSize + sizeof(bdb_stats));
        std::memcpy(h->name, path, len + 1);
        h->npages_ref = &h->npages;
        h->state_ref = &h->state;
        return h;
    }
    h->name = h->name_buf;
    std::memcpy(h->name, path, len + 1);
    if (thread == 0) return h;
    h->thread_id = bdb_thread_self();
    if (h->thread_id == 0) h->thread_id = thread;
    if (bdb_hash_database(h) < 0) {
        bdb_errlog(h, "Creating database hash");
        if (err) *err = h->error;
        std::free(h);
        return nullptr;
    }
    // The thread handles of one file in a process are all of one mode: a
    // private group and shared-mode handles would each have a mutex of their
    // own, and closing one kind would free what the other still uses.
    struct stat st;
    const bool known = ::stat(h->name, &st) == 0;
    for (uint32_t i = 0; known && i < numDatabases; ++i) {
        const bdb_hndl_entry &e = bdb_hndl_array[i];
        if (e.key != h->ipc_key || e.nhandles == 0 || e.file_dev != static_cast<uint64_t>(st.st_dev) ||
            e.file_ino != static_cast<uint64_t>(st.st_ino))
            continue;
        if ((e.handles[0]->attach == bdb_attach_shared_memory) != (mode == BDB_SHARED)) {
            h->error = BDB_E_SHARE;
            bdb_errlog(h, "Database already opened in the other mode by this process");
            if (err) *err = h->error;
            std::free(h);
            return nullptr;
        }
    }
    if (bdb_add_database(h) < 0) {
        if (err) *err = h->error;
        std::free(h);
        return nullptr;
    }
    h->flags |= BDB_F_AREA;
    return h;
}

// A shared-mode handle opened without a thread argument is detached too when
// it is released, so that the last user of a database, however it opened,
// removes the segment and the semaphore set.
int bdb_dealloc_handle(bdb_handle *h) {
    bool area_left = false;
    int rc = bdb_leave_handle(h, &area_left);
    if (bdb_free_handle(h, area_left) < 0) rc = -1;
    return rc;
}

int bdb_hash_database(bdb_handle *h) {
    if (h->ipc_key != 0) return 0;
    key_t key = ::ftok(h->name, kIpcProject);
    if (key == -1) {
        h->error = errno == EACCES ? BDB_E_ACCESS : BDB_E_NOENT;
        return -1;
    }
    h->ipc_key = key;
    return 0;
}

}  // extern "C"

// ---------------------------------------------------------------------------
// The registry of thread-managed databases and the handle lists
// ---------------------------------------------------------------------------

namespace varlo {

int bdb_do_close(bdb_handle *h) {
    int rc = -1;
    if (h->fd != -1) {
        rc = (h->flags & BDB_F_LOCKED) ? bdb_lock(h, BDB_UNLOCK, 3) : 0;
        metalog_close(h);
        unmap_file(h);
        if (sysio.close(h->fd) < 0) {
            h->error = BDB_E_IO;
            bdb_errlog(h, "db close");
        }
        h->fd = -1;
    }
    if ((h->flags & BDB_F_DESTROY) && rc != -1) {
        if (sysio.unlink(h->name) < 0) {
            h->error = BDB_E_IO;
            bdb_errlog(h, "db destroy");
            rc = -1;
        } else {
            // The database's meta log goes with it.
            const std::string log = std::string(h->name) + kLogSuffix;
            (void)sysio.unlink(log.c_str());
        }
    }
    return rc;
}

int bdb_add_thread(bdb_hndl_entry *entry, bdb_handle *h) {
    if (!relist(entry->handles, entry->nhandles, true)) {
        h->error = BDB_E_NOMEM;
        bdb_errlog(h, "Adding thread to handle array");
        return -1;
    }
    entry->handles[entry->nhandles++] = h;
    if (entry->nhandles == 1) {
        h->sem_id = 0;
        h->mutex = nullptr;
        return 0;
    }
    const bdb_handle *first = entry->handles[0];
    h->fd = first->fd;
    h->fmap = first->fmap;
    h->fmap_pages = first->fmap_pages;
    h->mlog = first->mlog;
    h->blksize = first->blksize;
    h->npages = first->npages;
    h->state = first->state;
    h->shm_id = first->shm_id;
    h->area = first->area;
    h->sem_id = first->sem_id;
    h->mutex = first->mutex;
    h->flags |= first->flags & (BDB_F_LOCKED | BDB_F_SWAPPED);
    h->flags |= BDB_F_FILE_SHARED;
    return 0;
}

int bdb_remove_thread(bdb_hndl_entry *entry, bdb_handle *h) {
    uint32_t i = 0;
    while (i < entry->nhandles && entry->handles[i] != h) ++i;
    if (i == entry->nhandles) {
        h->error = BDB_E_PARAM;
        bdb_errlog(h, "Invalid thread id");
        return -1;
    }
    std::memmove(&entry->handles[i], &entry->handles[i + 1], (entry->nhandles - i - 1) * sizeof(bdb_handle *));
    entry->nhandles--;
    if (entry->nhandles == 0) {
        h->flags &= ~BDB_F_FILE_SHARED;
        bdb_do_close(h);
    }
    if (!relist(entry->handles, entry->nhandles, false)) {
        h->error = BDB_E_NOMEM;
        bdb_errlog(h, "Reallocating thread handle array");
    }
    return 0;
}

// Two databases can share an IPC key (it is made from part of the file's
// identity only): an entry is the handle's when its key matches and it was
// made for the same file. The entry keeps the file's identity from when it
// was made; the paths its handles were opened with may no longer name the
// file (a relative path after a chdir, a renamed file).
int bdb_add_database(bdb_handle *h) {
    struct stat st;
    if (::stat(h->name, &st) < 0) {
        h->error = errno == EACCES ? BDB_E_ACCESS : BDB_E_NOENT;
        return -1;
    }
    const uint64_t dev = static_cast<uint64_t>(st.st_dev), ino = static_cast<uint64_t>(st.st_ino);
    for (uint32_t i = 0; i < numDatabases; ++i) {
        bdb_hndl_entry &e = bdb_hndl_array[i];
        if (e.key == h->ipc_key && e.file_dev == dev && e.file_ino == ino) return bdb_add_thread(&e, h);
    }
    if (!relist(bdb_hndl_array, numDatabases, true)) {
        h->error = BDB_E_NOMEM;
        bdb_errlog(h, "Allocating shared handle array");
        return -1;
    }
    bdb_hndl_entry &e = bdb_hndl_array[numDatabases];
    e.key = h->ipc_key;
    e.nhandles = 0;
    e.handles = nullptr;
    e.file_dev = dev;
    e.file_ino = ino;
    if (bdb_add_thread(&e, h) < 0) return -1;
    ++numDatabases;
    return 0;
}

int bdb_remove_database(bdb_handle *h) {
    int32_t found = -1;
    for (uint32_t i = 0; i < numDatabases && found < 0; ++i) {
        const bdb_hndl_entry &e = bdb_hndl_array[i];
        if (e.key != h->ipc_key) continue;
        for (uint32_t k = 0; k < e.nhandles; ++k)
            if (e.handles[k] == h) found = static_cast<int32_t>(i);
    }
    if (found < 0) {
        for (uint32_t i = 0; i < numDatabases && found < 0; ++i)
            if (bdb_hndl_array[i].key == h->ipc_key) found = static_cast<int32_t>(i);
    }
    if (found < 0) {
        h->error = BDB_E_PARAM;
        bdb_errlog(h, "Database not using thread management");
        return -1;
    }
    bdb_hndl_entry &e = bdb_hndl_array[found];
    if (bdb_remove_thread(&e, h) < 0) return -1;
    if (e.nhandles > 0) return static_cast<int>(e.nhandles);
    std::memmove(&bdb_hndl_array[found], &bdb_hndl_array[found + 1],
                 (numDatabases - static_cast<uint32_t>(found) - 1) * sizeof(bdb_hndl_entry));
    --numDatabases;
    if (!relist(bdb_hndl_array, numDatabases, false)) {
        h->error = BDB_E_NOMEM;
        bdb_errlog(h, "Reallocating shared handle array");
    }
    return 0;
}

}  // namespace varlo

// ---------------------------------------------------------------------------
// The shared area
// ---------------------------------------------------------------------------

namespace {

// An area made by another process is taken only when its layout is ours.
bool layout_ok(const bdb_shared *a) {
    return a->sh_size == kShmSize && a->sh_ncache == kShmPages && a->sh_cache == offsetof(bdb_shared, sh_recs) &&
           a->sh_cache_bufs == offsetof(bdb_shared, sh_bufs) && a->sh_cache_bytes == kShmCacheBytes;
}

int attach_fail(bdb_handle *h) {
    release_if_held(h, bdb_release_shared_mutex);
    return -1;
}

}  // namespace

extern "C" {

void bdb_size_shmem(bdb_handle *h, uint32_t *pages, uint32_t *cache_bytes, uint32_t *size) {
    (void)h;
    if (pages) *pages = kShmPages;
    if (cache_bytes) *cache_bytes = kShmCacheBytes;
    if (size) *size = kShmSize;
}

void bdb_initialize_shmem(void *area, uint32_t size, uint32_t cache_bytes, uint32_t pages) {
    std::memset(area, 0, size);
    auto *a = static_cast<bdb_shared *>(area);
    a->sh_size = size;
    a->sh_cache_bytes = cache_bytes;
    a->sh_ncache = pages;
    a->sh_cache = offsetof(bdb_shared, sh_recs);
    a->sh_cache_bufs = a->sh_cache + pages * kSlotSize;
}

void bdb_setup_shmem(bdb_handle *h, void *area) {
    auto *a = static_cast<bdb_shared *>(area);
    auto *base = static_cast<uint8_t *>(area);
    h->npages_ref = &a->sh_npages;
    h->meta = &a->sh_meta;
    h->logmap = a->sh_logmap;
    h->state_ref = &a->sh_state;
    h->stats = &a->sh_stats;
    h->cache_bufs = base + a->sh_cache_bufs;
    h->cache = reinterpret_cast<bdb_cachepg *>(base + a->sh_cache);
    h->ncache = a->sh_ncache;
}

int bdb_attach_shared_memory(bdb_handle *h) {
    if (bdb_hash_database(h) < 0) return -1;
    if (bdb_create_shared_mutex(h) < 0) return -1;
    if (bdb_wait_shared_mutex(h, BDB_MUTEX_OP) < 0) return -1;
    uint32_t pages, cache_bytes, size;
    bdb_size_shmem(h, &pages, &cache_bytes, &size);
    bool fresh_attach = false;
    if (!h->area) {
        int id = ::shmget(h->ipc_key, size, 0664);
        if (id < 0) {
            if (errno != ENOENT) {
                bdb_mapshmerror(h);
                return attach_fail(h);
            }
            id = ::shmget(h->ipc_key, size, IPC_CREAT | 0664);
            if (id < 0) {
                bdb_mapshmerror(h);
                return attach_fail(h);
            }
        }
        h->shm_id = id;
        struct shmid_ds ds;
        if (::shmctl(id, IPC_STAT, &ds) < 0) {
            bdb_mapshmerror(h);
            return attach_fail(h);
        }
        if (ds.shm_nattch == 0) h->flags |= BDB_F_AREA_OWNER;
        void *a = ::shmat(id, nullptr, 0);
        if (a == reinterpret_cast<void *>(-1)) {
            bdb_mapshmerror(h);
            return attach_fail(h);
        }
        h->area = a;
        fresh_attach = true;
    }
    auto *area = static_cast<bdb_shared *>(h->area);
    if (h->flags & BDB_F_AREA_OWNER) {
        bdb_initialize_shmem(area, size, cache_bytes, pages);
        area->spare = file_identity(h->name);
    } else if (fresh_attach && (!layout_ok(area) || area->spare != file_identity(h->name))) {
        // Another database's area under the same key, or a foreign layout.
        ::shmdt(h->area);
        h->area = nullptr;
        h->shm_id = 0;
        h->error = BDB_E_SHARE;
        return attach_fail(h);
    }
    bdb_setup_shmem(h, area);
    return 0;
}

}  // extern "C"

namespace {

// The registry's part of a shared detach: 1 when other handles of the
// process keep the area (nothing more to do), 0 when the area is to be
// detached, -1 on error.
int leave_group(bdb_handle *h) {
    if (h->thread_id == 0) return 0;
    const int r = bdb_remove_database(h);
    if (r <= 0) return r;
    h->area = nullptr;
    h->shm_id = 0;
    release_if_held(h, bdb_release_shared_mutex);
    return 1;
}

// The area's part of a shared detach. The last user of a process decides
// under the database mutex whether to remove the segment and the semaphore
// set, so that no attach can run between that decision and the removal: an
// opener waiting on the mutex finds the set removed, makes a new one and
// creates a fresh segment. The handle has left the registry by now, so no
// other thread of the process reaches this area through it.
int detach_area(bdb_handle *h) {
    if (h->ipc_key == 0) return 0;  // never got as far as the key
    if (bdb_wait_shared_mutex(h, BDB_MUTEX_OP) < 0) return -1;
    if (!h->area) {
        // The attach failed before the segment was attached: when no segment
        // exists, nobody uses the database and the set goes too.
        if (::shmget(h->ipc_key, kShmSize, 0664) < 0 && errno == ENOENT) return bdb_destroy_shared_mutex(h);
        release_if_held(h, bdb_release_shared_mutex);
        return 0;
    }
    if (::shmdt(h->area) < 0) {
        bdb_mapshmerror(h);
        release_if_held(h, bdb_release_shared_mutex);
        return -1;
    }
    h->area = nullptr;
    const int id = h->shm_id;
    h->shm_id = 0;
    struct shmid_ds ds;
    if (::shmctl(id, IPC_STAT, &ds) < 0) {
        bdb_mapshmerror(h);
        release_if_held(h, bdb_release_shared_mutex);
        return -1;
    }
    if (ds.shm_nattch != 0) {
        release_if_held(h, bdb_release_shared_mutex);
        return 0;
    }
    if (::shmctl(id, IPC_RMID, nullptr) < 0) {
        bdb_mapshmerror(h);
        release_if_held(h, bdb_release_shared_mutex);
        return -1;
    }
    return bdb_destroy_shared_mutex(h);
}

}  // namespace

// Releasing a handle goes in two steps so that bdb_close and bdb_destroy
// never wait for a database mutex while they hold the process-wide one (a
// thread holding the database mutex through bdb_lock may be waiting for the
// process-wide mutex to open another database). The first step, under the
// process-wide mutex, takes the handle out of the registry and closes its
// file; the second, after the process-wide mutex is given up, detaches the
// shared area under the database mutex and frees the block.
namespace varlo {

int bdb_leave_handle(bdb_handle *h, bool *area_left) {
    *area_left = false;
    const bool shared = h->detach == bdb_detach_shared_memory;
    if (h->thread_id == 0) {
        int rc = bdb_do_close(h);
        bdb_cache_free(h);
        if (shared)
            *area_left = true;
        else if (h->detach && h->detach(h) < 0)
            rc = -1;
        return rc;
    }
    if (shared) {
        const int r = leave_group(h);
        *area_left = r == 0;
        return r < 0 ? -1 : 0;
    }
    // The local detach waits for nothing: it leaves the group, and the last
    // handle frees the area and the mutex. An open refused before its slots
    // were filled (a private open of a database in shared use) leaves the
    // registry all the same.
    if (h->detach) return h->detach(h) < 0 ? -1 : 0;
    return bdb_remove_database(h) < 0 ? -1 : 0;
}

int bdb_free_handle(bdb_handle *h, bool area_left) {
    const int rc = area_left && detach_area(h) < 0 ? -1 : 0;
    std::free(h);
    return rc;
}

}  // namespace varlo

extern "C" {

int bdb_detach_shared_memory(bdb_handle *h) {
    const int r = leave_group(h);
    if (r != 0) return r < 0 ? -1 : 0;
    return detach_area(h);
}

int bdb_attach_local_shmem(bdb_handle *h) {
    if (bdb_hash_database(h) < 0) return -1;
    if (bdb_create_private_mutex(h) < 0) return -1;
    if (bdb_wait_private_mutex(h, BDB_MUTEX_OP) < 0) return -1;
    uint32_t pages, cache_bytes, size;
    bdb_size_shmem(h, &pages, &cache_bytes, &size);
    if (!h->area) {
        void *a = std::malloc(size);
        if (!a) {
            // The mutex stays held: the failed open's detach releases it.
            h->error = BDB_E_NOMEM;
            return -1;
        }
        h->flags |= BDB_F_AREA_OWNER;
        h->area = a;
        bdb_initialize_shmem(a, size, cache_bytes, pages);
    }
    bdb_setup_shmem(h, h->area);
    return 0;
}

int bdb_detach_local_shmem(bdb_handle *h) {
    int r = bdb_remove_database(h);
    if (r < 0) return -1;
    void *a = h->area;
    h->area = nullptr;
    h->shm_id = 0;
    if (r == 0) {
        std::free(a);
        bdb_destroy_private_mutex(h);
        return 0;
    }
    release_if_held(h, bdb_release_private_mutex);
    return 0;
}

// A snapshot: is any process attached to the database's segment?
int bdb_check_shared_memory(bdb_handle *h) {
    if (bdb_hash_database(h) < 0) return -1;
    int id = ::shmget(h->ipc_key, kShmSize, 0664);
    if (id < 0) return 0;
    struct shmid_ds ds;
    if (::shmctl(id, IPC_STAT, &ds) < 0) {
        bdb_mapshmerror(h);
        return -1;
    }
    return ds.shm_nattch != 0 ? 1 : 0;
}

}  // extern "C"
