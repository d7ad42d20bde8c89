// Internal declarations shared by the modules of lib/bt. Not installed.
//
// Locking: page storage (bdb_io, bdb_util) and the tree engine (bdb_srch)
// take no lock of their own. Every function here that touches a database
// REQUIRES the database mutex (or a private handle used by one thread).
#ifndef VARLO_BDB_INT_H
#define VARLO_BDB_INT_H

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/types.h>

#include "bdb.h"
#include "fileio.h"

// ---------------------------------------------------------------------------
// On-disk and shared-memory layouts: identical in 32-bit and 64-bit builds.
// ---------------------------------------------------------------------------

static_assert(sizeof(bdb_meta) == BDB_PGSIZE);
static_assert(offsetof(bdb_meta, magic) == 0);
static_assert(offsetof(bdb_meta, reserved1) == 4);
static_assert(offsetof(bdb_meta, mode) == 8);
static_assert(offsetof(bdb_meta, reserved3) == 12);
static_assert(offsetof(bdb_meta, reserved4) == 16);
static_assert(offsetof(bdb_meta, root) == 20);
static_assert(offsetof(bdb_meta, pgmap) == 24);
static_assert(24 + BDB_MAPWORDS * 4 == BDB_PGSIZE);
static_assert(BDB_MAPWORDS * 32 == BDB_MAXPAGES);

static_assert(sizeof(bdb_slot) == 24);
static_assert(offsetof(bdb_slot, flags) == 0);
static_assert(offsetof(bdb_slot, childpg) == 4);
static_assert(offsetof(bdb_slot, keylen) == 8);
static_assert(offsetof(bdb_slot, datalen) == 12);
static_assert(offsetof(bdb_slot, keyoff) == 16);
static_assert(offsetof(bdb_slot, dataref) == 20);

static_assert(sizeof(bdb_page) == 20);
static_assert(offsetof(bdb_page, pgno) == 0);
static_assert(offsetof(bdb_page, leftpg) == 4);
static_assert(offsetof(bdb_page, flags) == 8);
static_assert(offsetof(bdb_page, datastart) == 12);
static_assert(offsetof(bdb_page, nslots) == 16);
static_assert(offsetof(bdb_page, slots) == 20);

static_assert(sizeof(bdb_stats) == 84);
static_assert(offsetof(bdb_stats, cache_hits) == 13 * 4);
static_assert(offsetof(bdb_stats, page_reads) == 16 * 4);
static_assert(offsetof(bdb_stats, max_depth) == 19 * 4);
static_assert(offsetof(bdb_stats, depth) == 20 * 4);

static_assert(sizeof(bdb_cachepg) == 24);
static_assert(offsetof(bdb_cachepg, pgno) == 0);
static_assert(offsetof(bdb_cachepg, flags) == 4);
static_assert(offsetof(bdb_cachepg, age) == 8);
static_assert(offsetof(bdb_cachepg, buf) == 12);
static_assert(offsetof(bdb_cachepg, lru_prev) == 16);
static_assert(offsetof(bdb_cachepg, lru_next) == 20);

static_assert(sizeof(bdb_shared) == 65772);
static_assert(offsetof(bdb_shared, sh_size) == 0);
static_assert(offsetof(bdb_shared, sh_cache_bytes) == 4);
static_assert(offsetof(bdb_shared, sh_ncache) == 8);
static_assert(offsetof(bdb_shared, sh_state) == 12);
static_assert(offsetof(bdb_shared, sh_npages) == 16);
static_assert(offsetof(bdb_shared, sh_cache_bufs) == 20);
static_assert(offsetof(bdb_shared, sh_cache) == 24);
static_assert(offsetof(bdb_shared, sh_meta) == 28);
static_assert(offsetof(bdb_shared, sh_logmap) == 28 + 8192);
static_assert(offsetof(bdb_shared, sh_stats) == 28 + 8192 + 8168);
static_assert(offsetof(bdb_shared, sh_recs) == 16472);
static_assert(offsetof(bdb_shared, sh_bufs) == 16472 + 144);
static_assert(offsetof(bdb_shared, spare) == 65768);

// File offsets are 64-bit in every build (large-file interfaces in 32-bit ones).
static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");

// The embedded layout of a private handle puts the log map where the
// trailing name array begins and the meta page right after 8172 bytes of it.
static_assert(offsetof(bdb_handle, name_buf) % 4 == 0);

namespace varlo {

// ---------------------------------------------------------------------------
// Constants
// ---------------------------------------------------------------------------

inline constexpr uint32_t kPageSize = BDB_PGSIZE;
inline constexpr uint32_t kPageShift = 13;
inline constexpr uint32_t kHeaderSize = 20;
inline constexpr uint32_t kSlotSize = 24;
inline constexpr uint32_t kLogmapBytes = 8172;  // log map region of a private handle
inline constexpr uint32_t kShmPages = 6;
inline constexpr uint32_t kShmCacheBytes = kShmPages * (kSlotSize + kPageSize);  // 49296
inline constexpr uint32_t kShmSize = sizeof(bdb_shared);                          // 65772
inline constexpr int kIpcProject = 66;                                            // 'B'

// Bits of the state word (the handle's own, or the shared area's) besides
// BDB_METADIRTY and BDB_BACKOUT:
// the file is in the other byte order (set by the handle that read the meta
// page, so that every later handle of an area converts pages too);
inline constexpr uint32_t kStateSwapped = 0x20;
// a change or a sync is under way on the area (set while the mutex is held
// for it): found set by a holder of the mutex, its maker died part way.
inline constexpr uint32_t kStateChanging = 0x40;
// damage was found: every later change is refused (reads go on where they
// can), nothing more is allocated and no sync cuts the file;
inline constexpr uint32_t kStateDamaged = 0x80;
// every page the tree references was found marked in the allocation map, so
// a page free in the map is free indeed (verify_references).
inline constexpr uint32_t kStateVerified = 0x100;

// Engine results.
enum : int {
    SR_OK = 0,
    SR_NOTFOUND = 1,
    SR_PROMOTE = 2,
    SR_NOPAGE = 3,
    SR_DUPLICATE = 4,
    SR_WRITEFAIL = 5,
    SR_NOMEM = 6,
    SR_DONE = 7,
    SR_END = 8,
    SR_SHRUNK = 9,
    SR_PENDING = 10,
};
inline constexpr int32_t BAL_EMPTY = 8192;

// The deepest a tree can be: it grows a level only when its root splits, so
// even a full file stays far below this. A walk that goes deeper follows a
// cycle or a runaway chain of child links in a damaged file and stops there
// with an error (the engine, bdb_parse_tree, bdb_check, the bulk loader).
inline constexpr int kMaxDepth = 64;

// ---------------------------------------------------------------------------
// Small page helpers
// ---------------------------------------------------------------------------

inline uint8_t *page_bytes(bdb_page *p) { return reinterpret_cast<uint8_t *>(p); }
inline const uint8_t *page_bytes(const bdb_page *p) { return reinterpret_cast<const uint8_t *>(p); }
inline bool slot_is_long(const bdb_slot &s) { return (s.flags & BDB_DPAGES) != 0; }

// The room rule of a tree page: slots and entry bytes of `used` bytes in all
// fit a page when the 20-byte header and one spare slot fit beside them (44
// bytes: a page is never filled to its last slot). page_room is what a page
// has left under the rule (negative: nothing), so an entry of n in-page
// bytes fits when n + 24 <= page_room. Rebalancing asks for one byte more
// than an insert: what it moves or merges must leave a byte beyond the rule.
inline constexpr uint32_t kPageReserve = kHeaderSize + kSlotSize;
constexpr bool fits_page(int64_t used) { return used + kPageReserve <= kPageSize; }
constexpr bool fits_page_balanced(int64_t used) { return used + kPageReserve < kPageSize; }
inline int64_t page_room(const bdb_page *p) {
    return static_cast<int64_t>(p->datastart) - kPageReserve - static_cast<int64_t>(kSlotSize) * p->nslots;
}
// The physical bound, which no page may break whatever the rule: the slot
// array with `more` slots added ends at or below datastart less `bytes`.
inline bool slots_fit(const bdb_page *p, uint32_t more, uint64_t bytes) {
    const uint64_t head = kHeaderSize + static_cast<uint64_t>(kSlotSize) * (p->nslots + more);
    return p->datastart >= head && p->datastart - head >= bytes;
}
inline uint32_t run_pages(uint32_t datalen) {
    return static_cast<uint32_t>((static_cast<uint64_t>(datalen) + kPageSize - 1) >> kPageShift);
}
// In-page bytes of an entry about to be placed.
inline uint32_t entry_size(const bdb_entry &e) {
    return e.keylen + (e.datalen < BDB_LONGDATA && !(e.flags & BDB_DPAGES) ? e.datalen : 0);
}
// The child of position pos (-1 = leftmost).
inline uint32_t child_at(const bdb_page *p, int32_t pos) {
    return pos < 0 ? p->leftpg : p->slots[pos].childpg;
}
inline void set_child_at(bdb_page *p, int32_t pos, uint32_t child) {
    if (pos < 0)
        p->leftpg = child;
    else
        p->slots[pos].childpg = child;
}
// The default order of keys: unsigned bytes, a key before every longer key
// of which it is a prefix. The difference of the first differing bytes, or
// -1 / 0 / 1 by length. Eight bytes are compared at a time.
inline int key_order(const uint8_t *a, uint32_t al, const uint8_t *b, uint32_t bl) {
    const uint32_t n = al < bl ? al : bl;
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t x, y;
        std::memcpy(&x, a + i, 8);
        std::memcpy(&y, b + i, 8);
        if (x != y) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            const uint32_t k = static_cast<uint32_t>(__builtin_ctzll(x ^ y)) >> 3;
#else
            const uint32_t k = static_cast<uint32_t>(__builtin_clzll(x ^ y)) >> 3;
#endif
            return static_cast<int>(a[i + k]) - static_cast<int>(b[i + k]);
        }
    }
    for (; i < n; ++i)
        if (a[i] != b[i]) return static_cast<int>(a[i]) - static_cast<int>(b[i]);
    return al < bl ? -1 : al > bl ? 1 : 0;
}

inline bdb_datum slot_key(const bdb_page *p, int32_t i) {
    const bdb_slot &s = p->slots[i];
    return bdb_datum{const_cast<uint8_t *>(page_bytes(p)) + s.keyoff, s.keylen};
}

// A fetch flag of bdb_get_dpage inside the library, with BDB_FORUPDATE: the
// engine keeps its own note of how to undo the change, so the change journal
// takes no image of the page.
inline constexpr int kNoImage = 0x100;

// Releases the buffers an entry owns (BDB_KEYALLOC / BDB_DATAALLOC).
void entry_release(bdb_entry *e);

// ---------------------------------------------------------------------------
// Reporting helpers
// ---------------------------------------------------------------------------

// Stores code in the handle and reports context.
void fail(bdb_handle *h, uint32_t code, const char *context);
// Calls a handler directly (no handle exists): the seven-argument report.
void report_nohandle(bdb_errhandler_fn fn, const char *path, uint32_t code, const char *context);

// Take / give the database mutex through the handle's slots (nothing to do
// without slots): 0, or the slot's negative result, reported as "Failed to
// lock mutex" / "Failed to unlock mutex".
int take_mutex(bdb_handle *h);
int give_mutex(bdb_handle *h);

// Debug builds (NDEBUG not defined) assert the rules stated above where the
// check is cheap: a handle with the library's mutex slots is held by the
// calling thread when page storage or the engine runs on it (a handle
// without slots is one thread's by contract). The engine asserts that a
// change journal is active when it takes a page for a change.
#ifndef NDEBUG
bool mutex_held_here(const bdb_handle *h);
#define VARLO_REQUIRES_MUTEX(h) assert(varlo::mutex_held_here(h))
#else
#define VARLO_REQUIRES_MUTEX(h) ((void)0)
#endif

// Holds the database mutex of a handle for a scope, reporting "Failed to
// lock mutex" / "Failed to unlock mutex" as every exported call does.
class MutexHold {
public:
    explicit MutexHold(bdb_handle *h);
    ~MutexHold() { (void)release(); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;
    // 0 when the mutex was taken (or there is none), else the slot's result.
    int status() const { return status_; }
    // Releases now; returns 0 or the release slot's negative result.
    int release();

private:
    bdb_handle *h_;
    int status_ = 0;
    bool held_ = false;
};

// "Take the mutex, run, release, merge the results", as every exported call
// that works on the database does: the take's negative result when the mutex
// cannot be had; else body's result (0, or -1 with the code set), unless the
// release fails, whose negative result then stands in for it (what body
// handed to the caller stays the caller's).
template <typename Body>
int under_mutex(bdb_handle *h, Body body) {
    MutexHold hold(h);
    if (hold.status() < 0) return hold.status();
    const int rc = body();
    const int r = hold.release();
    return r < 0 ? r : rc;
}

// Marks a change (or a sync) under way on an area for the scope, so that a
// process that dies during it is noticed by the next holder of the mutex.
class ChangeMark {
public:
    explicit ChangeMark(bdb_handle *h) : h_(h), on_(h->flags & BDB_F_AREA) {
        if (on_) *h_->state_ref |= kStateChanging;
    }
    ~ChangeMark() {
        if (on_) *h_->state_ref &= ~kStateChanging;
    }
    ChangeMark(const ChangeMark &) = delete;
    ChangeMark &operator=(const ChangeMark &) = delete;

private:
    bdb_handle *h_;
    bool on_;
};

// ---------------------------------------------------------------------------
// Page storage internals
// ---------------------------------------------------------------------------

int32_t bits_tst(const uint32_t *map, int32_t nwords, uint32_t pattern, int32_t start, int32_t max);
int32_t bits_tstclr(const uint32_t *map, int32_t nwords, int32_t start, int32_t max);
int32_t bits_tstset(const uint32_t *map, int32_t nwords, int32_t start, int32_t max);
extern const int32_t _zeroes[16];

// A long value's run: allocation that spares the meta log, and the write of
// a new run. 0 or -1 (code set).
int alloc_data_run(bdb_handle *h, uint32_t n, uint32_t *first);
int write_data_run(bdb_handle *h, uint32_t first, const void *data, uint32_t len);

struct LogScan;
// Puts the file back to its last sync from the records of a scan of the meta
// log (recovery): every image is applied once, the cache is emptied, the
// meta page copy and the page count are those of the last sync, the file has
// its synced length and is fsynced. The log's session must be stopped (or
// not begun). 0, or -1 with a code; applying again after a failure or a
// crash gives the same result.
int restore_last_sync(bdb_handle *h, const LogScan &scan);

// The read-only mapping of a handle's file (h->fmap): pages of it, or none.
void map_file(bdb_handle *h, uint32_t pages);
void unmap_file(bdb_handle *h);

// Clears the update mark of a cached page that a change held and did not
// commit (so that the cache may take its record again).
void cache_unpin(bdb_handle *h, uint32_t pg);

// The meta page copy as it stands in the file (converted when the file is
// in the other byte order), kPageSize bytes.
void meta_file_image(const bdb_handle *h, void *out);
// Before the first call on an area after a process died during a change or
// a sync (the mark was left): the database goes back to its last sync
// through the meta log, for every user. 0, or -1 with a code when it cannot.
// REQUIRES the database mutex.
int area_check(bdb_handle *h);

// Fills the meta page of a new database (empty tree, only page 0 in use) in
// machine order; mode is BDB_SHARED or BDB_PRIVATE. bdb_create and the ndbm
// layer's creation write it.
void init_meta(bdb_meta *m, uint32_t mode);
// The version of a database's tree: it moves with every change of a tree
// page or of the meta page, by any user of the database, so that the
// position bdb_next remembers is good while the version is unchanged. Null
// when it cannot be told (an area whose users share no control block):
// positions are then not kept.
uint32_t *tree_version(bdb_handle *h);
inline void tree_changed(bdb_handle *h) {
    if (uint32_t *v = tree_version(h)) ++*v;
}

// ---------------------------------------------------------------------------
// Damage: what is read from the file is checked before it is used, and a
// database found damaged is never written in a way that could destroy what
// its tree still uses.
// ---------------------------------------------------------------------------

// The one check of a tree page read from the file (bdb_check uses it too):
// nullptr when the page can be used, else what is wrong with it. It bounds
// every offset and length to the page and every page reference to the file
// (npages pages): slots packed downward in reverse slot order, inline values
// right after their keys, datastart at the last key, long-value runs and
// child pages inside the file and never page 0. One pass, a few comparisons
// per slot.
const char *page_fault(const bdb_page *p, uint32_t npages);
// Copies page pg (machine order, checked) into out without changing what the
// cache holds: the cache's copy when it has the page, else the file's.
// 0, or -1 with *why set (nullptr: it could not be read; BDB_E_READ left).
int copy_page(bdb_handle *h, uint32_t pg, uint8_t *out, const char **why);
// Reports damage (BDB_E_DBTYPE, context "page N: what") and marks the
// database damaged. Returns -1.
int report_damage(bdb_handle *h, uint32_t pg, const char *what);
// One walk of the tree from the root that checks every reference: pages in
// the file, each reached once, each marked in the map. Sets kStateVerified,
// or reports the damage (report_damage) and returns false.
bool verify_references(bdb_handle *h);
// The number of pages the file must keep at a sync: the map's highest page in
// use plus one, but never more than the file has (a map never grows the
// file) and never less than a page the tree references (when the map has not
// been verified against the tree, it is first).
uint32_t pages_to_keep(bdb_handle *h);

// Copies the allocation map into the log map (open and sync).
void refresh_logmap(bdb_handle *h);
// Free pages below BDB_MAXPAGES, counted exactly (slow; used near a full file).
uint32_t count_free_pages(const bdb_handle *h);

// Locks a descriptor's file (bytes 0..8191) without recording it in the
// handle: shared (read) or exclusive. 0 or -1.
int lock_file(int fd, bool exclusive);
// Marks the descriptor's file as used by a private reader (true) or a
// shared-mode writer (false); -1 when the other kind holds it.
int lock_role(int fd, bool private_reader);

// ---------------------------------------------------------------------------
// Handles, registry, shared memory, mutexes
// ---------------------------------------------------------------------------

extern bdb_handle bdb_var;
extern int exInit;
extern bdb_hndl_entry *bdb_hndl_array;
extern uint32_t numDatabases;

// Releasing a handle in two steps (bdb_dealloc_handle runs both): leaving
// the registry and closing the file, under the process-wide mutex; then,
// without it, detaching the shared area under the database mutex when
// *area_left says so, and freeing the block. 0 or -1 each.
int bdb_leave_handle(bdb_handle *h, bool *area_left);
int bdb_free_handle(bdb_handle *h, bool area_left);
int bdb_add_database(bdb_handle *h);
int bdb_remove_database(bdb_handle *h);
int bdb_do_close(bdb_handle *h);
void bdb_atexit();
int bdb_add_thread(bdb_hndl_entry *entry, bdb_handle *h);
int bdb_remove_thread(bdb_hndl_entry *entry, bdb_handle *h);
void bdb_mapshmerror(bdb_handle *h);
void bdb_mapsemerror(bdb_handle *h);

// ---------------------------------------------------------------------------
// Object store internals
// ---------------------------------------------------------------------------

uint32_t objid_size(const char *id);
uint32_t bt_glue(uint8_t *out, const char *id, const char *prefix, const char *name);
int arrcat(uint32_t count, char **list, int unused, const char **str, char ***newlist, uint32_t *newcount);

}  // namespace varlo

#endif  // VARLO_BDB_INT_H
