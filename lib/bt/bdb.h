/*
 * varlo: an embedded key/value store.
 *
 * This is the one header users include. It compiles as C99 and as C++; every
 * call is extern "C" and never throws.
 *
 * A database is one file of 8192-byte pages: page 0 is the meta page (magic,
 * root of a B-tree, allocation map), every other page in use is a tree page or
 * a data page of a long value. Records are keys of 1 to 1024 bytes with values
 * of any length; values of 2048 bytes and more live on runs of data pages.
 *
 * Conventions shared by every call below:
 *  - Results are 0 (or a count, or a pointer) on success and -1 (or NULL) on
 *    failure. A failing call leaves a library code (BDB_E_*) in the handle,
 *    read with bdb_error(); calls that have no handle yet (bdb_open,
 *    bdb_create, bt_initdb) leave it in the caller's error word.
 *  - A call given a NULL handle sets errno to EINVAL and returns -1 or NULL.
 *  - Failures with a context ("db write", "open", ...) are reported once
 *    through the handle's error handler (bdb_errhandler_fn). Expected outcomes
 *    (key not found, duplicate key, end of database) only leave their code.
 *  - Values handed back to the caller are new allocations (the value followed
 *    by a NUL byte, or NULL for an empty value) that the caller frees with
 *    free().
 *  - Every call that works on a database holds the database mutex for its
 *    whole run (shared mode and thread management); the mutex is recursive
 *    for the thread that holds it.
 */
#ifndef VARLO_BDB_H
#define VARLO_BDB_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/ipc.h> /* key_t, also under strict -std=c99 */
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* Library version. */
#define VARLO_VERSION_MAJOR 0
#define VARLO_VERSION_MINOR 1
#define VARLO_VERSION_PATCH 0
#define VARLO_VERSION_STRING "0.1.0"

/* ------------------------------------------------------------------------ */
/* Error codes: BDB_E_BASE + an index into bdb_errorid.                      */
/* ------------------------------------------------------------------------ */

#define BDB_E_BASE 0x08000000u
#define BDB_E_UNDEFINED 0x08000000u    /* never stored; text of unknown codes */
#define BDB_E_NOTFOUND 0x08000001u     /* key not found */
#define BDB_E_DUPLICATE 0x08000002u    /* bdb_put of a key that is present */
#define BDB_E_INSERTED 0x08000003u     /* bdb_replace inserted: the call succeeded */
#define BDB_E_READ 0x08000004u         /* a page or long value could not be read */
#define BDB_E_WRITE 0x08000005u        /* a page or long value could not be written */
#define BDB_E_NOMEM 0x08000006u        /* out of memory */
#define BDB_E_LOCKED 0x08000007u       /* already locked */
#define BDB_E_OPEN 0x08000008u         /* the file could not be opened */
#define BDB_E_SHARE 0x08000009u        /* share violation (mode clash between openers) */
#define BDB_E_RDONLY 0x0800000au       /* change refused on a read-only handle */
#define BDB_E_IO 0x0800000bu           /* general I/O error (seek, fsync, lock, close) */
#define BDB_E_NOENT 0x0800000cu        /* the database path does not exist */
#define BDB_E_ACCESS 0x0800000du       /* the database path is not accessible */
#define BDB_E_SHM_ACCESS 0x0800000eu   /* shared memory: permission denied */
#define BDB_E_SHM_EXISTS 0x0800000fu   /* shared memory: segment exists */
#define BDB_E_SHM_NOTFOUND 0x08000010u /* shared memory: not found (not raised) */
#define BDB_E_SHM_SIZE 0x08000011u     /* shared memory: bad size (not raised) */
#define BDB_E_SHM_NOMEM 0x08000012u    /* shared memory: no memory */
#define BDB_E_SHM_MAXID 0x08000013u    /* shared memory: too many ids */
#define BDB_E_SHM_HANDLE 0x08000014u   /* shared memory: invalid id or size */
#define BDB_E_SHM_UNKNOWN 0x08000015u  /* shared memory: other error */
#define BDB_E_SEM_ACCESS 0x08000016u   /* semaphore: permission denied */
#define BDB_E_SEM_MAXID 0x08000017u    /* semaphore: too many ids */
#define BDB_E_SEM_NOMEM 0x08000018u    /* semaphore: no memory */
#define BDB_E_SEM_HANDLE 0x08000019u   /* semaphore: invalid id */
#define BDB_E_SEM_UNKNOWN 0x0800001au  /* semaphore: other error */
#define BDB_E_DBTYPE 0x0800001bu       /* not a database (shorter than a page) */
#define BDB_E_DBSIZE 0x0800001cu       /* file size not a multiple of the page size */
#define BDB_E_MAGIC 0x0800001du        /* bad magic number in the meta page */
#define BDB_E_KEYSIZE 0x0800001eu      /* key length outside 1..1024 */
#define BDB_E_EOF 0x0800001fu          /* bdb_next past the last record */
#define BDB_E_EMPTY 0x08000020u        /* bdb_first on an empty database */
#define BDB_E_FULL 0x08000021u         /* no room left in the file (65344 pages) */
#define BDB_E_PARAM 0x08000022u        /* invalid parameter */
#define BDB_E_TXLOG 0x08000023u        /* transaction log (not raised) */
#define BDB_E_NOTLOCKED 0x08000024u    /* unlock without a lock */
#define BDB_E_EXISTS 0x08000025u       /* bdb_create of an existing path */
#define BDB_E_CREATE 0x08000026u       /* the file could not be created */
#define BDB_E_COUNT 39u                /* number of entries in bdb_errorid */

/* The message texts, index = code - BDB_E_BASE, in the order above. */
extern const char *const bdb_errorid[39];

/* ------------------------------------------------------------------------ */
/* Limits, argument values and flags                                         */
/* ------------------------------------------------------------------------ */

#define BDB_PGSIZE 8192u         /* bytes per page */
#define BDB_MAGIC 0xf00dfaceu    /* word 0 of the meta page, in file order */
#define BDB_MAGIC_SWAPPED 0xcefa0df0u /* the magic as read on the other order */
#define BDB_MAPWORDS 2042u       /* words of the allocation map */
#define BDB_MAXPAGES 65344u      /* pages a file can hold (BDB_MAPWORDS * 32) */
#define BDB_LONGDATA 2048u       /* values of this length and more go on data pages */
#define BDB_MAXKEY 1024u         /* longest key */
#define BDB_MAXPATH 1023u        /* longest database path */

/* bdb_open flags */
#define BDB_RDONLY 1
#define BDB_RDWR 2
/* bdb_open / bdb_create mode */
#define BDB_SHARED 1
#define BDB_PRIVATE 2
/* bdb_lock operations */
#define BDB_UNLOCK 0
#define BDB_LOCK 1
/* the operation code every caller passes to the wait and release slots */
#define BDB_MUTEX_OP 3

/* Handle flag bits (bdb_handle.flags). */
#define BDB_F_RDONLY 0x04u       /* opened read-only: changes fail with BDB_E_RDONLY */
#define BDB_F_SWAPPED 0x80u      /* the file is in the other byte order */
#define BDB_F_AREA 0x100u        /* meta page and bookkeeping live in a shared area */
#define BDB_F_AREA_OWNER 0x200u  /* this handle created the area and initialised it */
#define BDB_F_LOCKED 0x400u      /* this handle holds the file lock */
#define BDB_F_FILE_SHARED 0x800u /* thread group member sharing the first handle's file */
#define BDB_F_DESTROY 0x1000u    /* remove the file when it is closed */

/* State bits of the state word (bdb_handle.state_ref). */
#define BDB_METADIRTY 0x08u /* the meta page copy changed since it was written */
#define BDB_BACKOUT 0x10u   /* bdb_backout_old is running */

/* Tree page flag: the update mark (set while a page is held for update). */
#define BDB_PGBUSY 0x01u
/* Fetch flag of bdb_get_dpage: the caller will change the page. */
#define BDB_FORUPDATE 0x01

/* Entry and slot flags. */
#define BDB_DPAGES 0x01u    /* the value lives on data pages; data holds the first page */
#define BDB_INSERT 0x04u    /* entry built by the engine for insertion */
#define BDB_KEYALLOC 0x08u  /* key was allocated by the library; bdb_insdatum frees it */
#define BDB_DATAALLOC 0x10u /* data was allocated by the library; bdb_insdatum frees it */
/* bdb_deldata mode: keep the data pages of a long value (the entry moves). */
#define BDB_KEEPPAGES 0x02

/* Cache record flag: the buffer holds changes not yet written. */
#define BDB_CACHE_DIRTY 0x01u

/* Operation codes of bdb_search. Codes 5, 6, 7 and above 10 find nothing. */
#define OP_PUT 0
#define OP_DELETE 1
#define OP_FIRST 2
#define OP_NEXT 3
#define OP_GET 4
#define OP_REPLACE 8
#define OP_UPDATE 9
#define OP_REMOVE 10

/* ------------------------------------------------------------------------ */
/* Records                                                                   */
/* ------------------------------------------------------------------------ */

typedef struct bdb_handle bdb_handle;
/* The meta log of an open database (internal to the library). */
struct bdb_metalog;

/* A key or value as the caller gives or receives it. */
typedef struct bdb_datum {
    void *ptr;
    uint32_t len;
} bdb_datum;

/*
 * Error handler, called at every logged failure with: the handle (NULL when
 * no handle exists), the database name, strerror(errno), errno, the library
 * message, the library code and a context text naming the failing step.
 */
typedef void (*bdb_errhandler_fn)(bdb_handle *h, const char *name, const char *syserr, int sys_errno,
                                  const char *message, uint32_t code, const char *context);

/*
 * Key comparison: a is the key looked for, b a stored key. Negative when a
 * orders before b, 0 when equal, positive when after. It must be a total
 * order consistent with the order already stored in the file.
 */
typedef int (*bdb_compare_fn)(const bdb_datum *a, const bdb_datum *b);

/* Function slots of a handle. The operation argument of wait and release is
 * always BDB_MUTEX_OP and has no effect; it stays in the signature so that
 * slots keep one documented form. */
typedef int (*bdb_attach_fn)(bdb_handle *h);
typedef int (*bdb_wait_fn)(bdb_handle *h, int op);
typedef int (*bdb_release_fn)(bdb_handle *h, int op);
typedef int (*bdb_detach_fn)(bdb_handle *h);

/* Open options; a NULL options pointer means all defaults. */
typedef struct bdb_options {
    uint32_t cache_size;          /* page cache bytes (private handles); 0 = 32768 */
    bdb_compare_fn compare;       /* NULL = bdb_dti_compare */
    bdb_errhandler_fn errhandler; /* NULL = bdb_noop_handler */
} bdb_options;

/* Statistics block: 21 counters (84 bytes), shared by all users of an area. */
typedef struct bdb_stats {
    uint32_t splits;           /* page splits */
    uint32_t redistributions;  /* entries moved between neighbours after a delete */
    uint32_t merges;           /* neighbour pages merged after a delete */
    uint32_t deferred_inserts; /* inner deletes whose replacing entry waited */
    uint32_t deletes;          /* bdb_delete calls */
    uint32_t puts;             /* bdb_put calls */
    uint32_t replaces;         /* bdb_replace calls */
    uint32_t reads;            /* bdb_get, bdb_first and bdb_next calls */
    uint32_t updates;          /* bdb_update calls */
    uint32_t removes;          /* bdb_remove calls */
    uint32_t reserved10;
    uint32_t reserved11;
    uint32_t reserved12;
    uint32_t cache_hits;   /* page requests found in the cache */
    uint32_t cache_misses; /* page requests that took over a cache buffer */
    uint32_t page_writes;  /* page transfers to the file */
    uint32_t page_reads;   /* page transfers from the file */
    uint32_t reserved17;
    uint32_t reserved18;
    uint32_t max_depth; /* deepest search seen (levels) */
    uint32_t depth;     /* levels visited by the current search */
} bdb_stats;

/*
 * One page cache record (24 bytes in every build). Record i uses buffer i of
 * the buffer block; `buf` holds that index, never an address, so that the
 * records can live in a segment attached at different addresses.
 *
 * `age`: in the scanned cache of a shared area, the number of lookups since
 * the record was last used. In the indexed cache of a private handle it holds
 * the lookup tick of the record's last use; the recency order itself is the
 * list threaded through `lru_prev` / `lru_next` (record indexes).
 */
typedef struct bdb_cachepg {
    uint32_t pgno;     /* page held; 0 = empty */
    uint32_t flags;    /* BDB_CACHE_DIRTY */
    int32_t age;       /* see above */
    uint32_t buf;      /* index of the record's buffer (always its own index) */
    uint32_t lru_prev; /* indexed cache: neighbour towards the least recent */
    uint32_t lru_next; /* indexed cache: neighbour towards the most recent */
} bdb_cachepg;

/*
 * The meta page (page 0), 8192 bytes:
 *   offset  size  field
 *        0     4  magic     BDB_MAGIC
 *        4     4  reserved  1 at creation, never interpreted
 *        8     4  mode      mode of the last open (1 shared, 2 private)
 *       12     4  reserved  1 at creation, never interpreted
 *       16     4  reserved  0
 *       20     4  root      root tree page, 0 for an empty tree
 *       24  8168  pgmap     allocation map, one bit per page (set = in use)
 * Page p is bit (p % 32) of pgmap word (p / 32). All words are in the byte
 * order of the machine that created the file.
 */
typedef struct bdb_meta {
    uint32_t magic;
    uint32_t reserved1;
    uint32_t mode;
    uint32_t reserved3;
    uint32_t reserved4;
    uint32_t root;
    uint32_t pgmap[2042];
} bdb_meta;

/*
 * An entry slot of a tree page (24 bytes):
 *   flags    bit 0 (BDB_DPAGES): the value lives on data pages
 *   childpg  child holding the keys between this entry and the next (0 = none)
 *   keylen   key length, 1..1024
 *   datalen  value length
 *   keyoff   offset in the page of the key
 *   dataref  inline value: its offset (keyoff + keylen); long value: its first data page
 */
typedef struct bdb_slot {
    uint32_t flags;
    uint32_t childpg;
    uint32_t keylen;
    uint32_t datalen;
    uint32_t keyoff;
    uint32_t dataref;
} bdb_slot;

/*
 * A tree page: a 20-byte header, the slot array growing upward from offset
 * 20, and the entries' bytes (key, then inline value) packed downward from
 * offset 8192 in reverse slot order, so that slot 0's bytes end at 8192 and
 * datastart is the keyoff of the last slot.
 *
 *   +--------+--------+-----+--------+-------------+---------+---------+
 *   | header | slot 0 | ... | slot n | free space  | entry n | ... e0  |
 *   +--------+--------+-----+--------+-------------+---------+---------+
 *   0        20                       ^20+24n      ^datastart          8192
 */
typedef struct bdb_page {
    uint32_t pgno;      /* the page's own number */
    uint32_t leftpg;    /* child holding the keys before slot 0 (0 = none) */
    uint32_t flags;     /* BDB_PGBUSY while held for update; ignored in the file */
    uint32_t datastart; /* lowest byte of the entry area; 8192 when empty */
    uint32_t nslots;    /* number of entries */
    bdb_slot slots[];   /* nslots entries, ascending key order */
} bdb_page;

/* One entry in transit between the engine and a page. */
typedef struct bdb_entry {
    void *key;        /* key bytes */
    uint32_t keylen;  /* 1..1024 */
    void *data;       /* value bytes, or with BDB_DPAGES the first data page */
    uint32_t datalen; /* value length */
    uint32_t flags;   /* BDB_DPAGES, BDB_INSERT, BDB_KEYALLOC, BDB_DATAALLOC */
    uint32_t childpg; /* child travelling with the entry (0 for a new record) */
} bdb_entry;

/* Pack a data page number into / out of bdb_entry.data. */
#define BDB_ENTRY_PAGE(e) ((uint32_t)(uintptr_t)(e)->data)
#define BDB_PAGE_PTR(pg) ((void *)(uintptr_t)(uint32_t)(pg))

/*
 * The database handle. Allocated by bdb_open (bdb_alloc_handle), freed by
 * bdb_close or bdb_destroy. Callers read it only through the calls below;
 * fields are documented for tools and tests.
 */
struct bdb_handle {
    uint32_t alloc_size;         /* bytes of the handle's whole allocation */
    char *name;                  /* the path exactly as given */
    int32_t fd;                  /* database file descriptor, -1 = none */
    uint32_t blksize;            /* st_blksize of the file */
    uint32_t *npages_ref;        /* page count in force */
    uint32_t npages;             /* file size in pages at open (private: the count) */
    uint32_t flags;              /* BDB_F_* */
    uint32_t *state_ref;         /* state word in force (BDB_METADIRTY, BDB_BACKOUT) */
    uint32_t state;              /* this handle's own state word */
    uint8_t *cache_bufs;         /* page buffers of the cache */
    bdb_cachepg *cache;          /* cache records */
    uint32_t ncache;             /* pages in the cache */
    bdb_meta *meta;              /* meta page copy, machine byte order */
    uint32_t *logmap;            /* log map (BDB_MAPWORDS words) */
    int32_t ipc_key;             /* System V key of the database, 0 = not computed */
    int32_t shm_id;              /* shared memory segment id */
    void *area;                  /* shared area (segment or process-local) */
    int32_t sem_id;              /* semaphore set id, 0 = none */
    pthread_mutex_t *mutex;      /* process-local mutex, NULL = none */
    bdb_attach_fn attach;        /* attaches the shared area (mutex held on return) */
    bdb_wait_fn wait;            /* takes the database mutex */
    bdb_release_fn release;      /* releases the database mutex */
    bdb_detach_fn detach;        /* detaches the shared area */
    uint32_t thread_id;          /* thread id under thread management, 0 = none */
    uint32_t owner;              /* thread holding the mutex through this handle */
    int32_t hold_count;          /* nested takes of the mutex by its holder */
    bdb_errhandler_fn errhandler; /* error handler (may be NULL: silent) */
    bdb_compare_fn compare;      /* key comparison */
    uint32_t error;              /* last error code, 0 = none */
    bdb_stats *stats;            /* statistics block */
    struct bdb_metalog *mlog;    /* meta log of the file, NULL = none (read-only) */
    uint32_t walk_pgno;          /* page of the record bdb_first / bdb_next handed out last (0 = none) */
    uint32_t walk_slot;          /* its slot */
    uint32_t walk_version;       /* the tree's version then */
    uint32_t changes;            /* tree version of a private handle without a meta log */
    const uint8_t *fmap;         /* read-only mapping of the file for page reads, NULL = none */
    uint32_t fmap_pages;         /* pages it covers */
    char name_buf[4];            /* the name (and, private handles, more) runs on from here */
};

/* The shared area of a database: 65772 bytes, identical in every build. */
typedef struct bdb_shared {
    uint32_t sh_size;        /* 65772 */
    uint32_t sh_cache_bytes; /* 49296 = 6 * (24 + 8192) */
    uint32_t sh_ncache;      /* 6 */
    uint32_t sh_state;       /* state word of the database */
    uint32_t sh_npages;      /* pages of the file, for all users */
    uint32_t sh_cache_bufs;  /* offset of sh_bufs from the start of the area */
    uint32_t sh_cache;       /* offset of sh_recs from the start of the area */
    bdb_meta sh_meta;        /* meta page copy */
    uint32_t sh_logmap[2042]; /* log map */
    bdb_stats sh_stats;      /* statistics block */
    bdb_cachepg sh_recs[6];  /* cache records */
    uint8_t sh_bufs[6 * 8192]; /* cache buffers */
    uint32_t spare;
} bdb_shared;

/* One database registered for thread management in this process. */
typedef struct bdb_hndl_entry {
    key_t key;             /* IPC key of the database */
    uint32_t nhandles;     /* handles in `handles` */
    bdb_handle **handles;  /* registration order; element 0 is the group's first */
    uint64_t file_dev;     /* the file's st_dev and st_ino when the entry was made: */
    uint64_t file_ino;     /* later handles join it whatever path they name it by */
} bdb_hndl_entry;

/* Visit function of bdb_parse_tree: (handle, page, entry index, depth). */
typedef int (*bdb_visit_fn)(bdb_handle *h, bdb_page *page, int32_t index, int32_t depth);

/* ------------------------------------------------------------------------ */
/* Error reporting                                                           */
/* ------------------------------------------------------------------------ */

/* The message of a code; "VARLO error not defined" for any unknown value,
 * 0 included. Never fails, never touches errno. */
const char *bdbstrerr(uint32_t code);

/* The handle's last code. With a NULL handle, maps errno: EINVAL gives
 * BDB_E_PARAM, ENOMEM gives BDB_E_NOMEM, anything else 0. */
uint32_t bdb_error(bdb_handle *h);

/* Stores code in the handle and returns the previous code; NULL handle:
 * errno EINVAL, returns (uint32_t)-1. */
uint32_t bdb_seterror(bdb_handle *h, uint32_t code);

/* Installs an error handler (NULL silences the handle) and returns the one
 * installed before; NULL handle: errno EINVAL, returns NULL. */
bdb_errhandler_fn bdb_errhandler(bdb_handle *h, bdb_errhandler_fn fn);

/* Reports the handle's current code with a context text through its handler.
 * Does nothing for a NULL handle or handler; changes neither the code nor
 * errno. */
void bdb_errlog(bdb_handle *h, const char *context);

/* The default handler: does nothing. */
void bdb_noop_handler(bdb_handle *h, const char *name, const char *syserr, int sys_errno,
                      const char *message, uint32_t code, const char *context);

/* ------------------------------------------------------------------------ */
/* Creating, opening and closing                                             */
/* ------------------------------------------------------------------------ */

/*
 * Creates a database file holding only its meta page; does not open it.
 * mode: BDB_SHARED (file mode 0664) or BDB_PRIVATE (0644). err may be NULL.
 * Returns 0, or -1 with *err = BDB_E_EXISTS (path exists, left alone),
 * BDB_E_PARAM (bad mode, nothing created), BDB_E_CREATE, or the code of the
 * failed lock, write or sync. Calls no error handler. A meta log left at
 * PATH-log by a database that is gone is removed (BDB_E_CREATE when it
 * cannot be).
 */
int bdb_create(const char *path, int mode, uint32_t *err);

/*
 * Opens a database. reserved: not interpreted. flags: BDB_RDONLY or
 * BDB_RDWR. mode: BDB_SHARED (several processes, System V shared memory and a
 * semaphore) or BDB_PRIVATE (this process alone, under a file lock). A
 * nonzero `thread` asks for thread management: each thread opens its own
 * handle and all handles of the process share one area and one mutex.
 * opts and err may be NULL.
 *
 * Returns the handle, or NULL with *err set: BDB_E_PARAM (bad flags or mode;
 * the handler is called once with a NULL handle), BDB_E_NOENT / BDB_E_ACCESS
 * (path), BDB_E_SHARE (the database is in use in the other mode, also by
 * thread handles of this process under the same path: a process's thread
 * handles of one file are all shared or all private), BDB_E_OPEN, BDB_E_IO
 * (file lock held by another process), BDB_E_DBTYPE (shorter than a page, or
 * not a regular file: a FIFO or a device is refused without waiting on it),
 * BDB_E_DBSIZE (size not a multiple of a page), BDB_E_MAGIC, BDB_E_NOMEM, or
 * a shared memory / semaphore code. A failed open leaves no shared memory segment
 * or semaphore set behind. The handle is freed by bdb_close or bdb_destroy.
 *
 * Crash recovery: every database has a meta log beside it, PATH-log (made by
 * the first read-write open). The first user of a database (a private open,
 * the first process of a shared area, the first handle of a thread group)
 * that finds in it the images of a session interrupted by a crash puts them
 * back, so that the file holds exactly the state of its last completed sync,
 * before anything reads the tree. Failures there fail the open and keep the
 * log: BDB_E_OPEN ("meta log does not describe this database file": nothing
 * applied), or the code of the failing read or write. A private read-only
 * open never reads such an interrupted file: it fails with BDB_E_RDONLY and
 * a message asking for one read-write open. Apart from recovery, a failed
 * open writes nothing to the file.
 *
 * A private read-only open shares the file lock with other readers and keeps
 * every writer out, private or shared-mode, in this process or another (a
 * shared-mode writer is refused with BDB_E_SHARE); a private read-write open
 * holds the lock alone.
 *
 * Damage: every tree page is checked when it is read from the file; a page
 * that fails gives BDB_E_DBTYPE with a report naming the page. Once damage is
 * found (by a page check, or by the check of the tree's references that the
 * first allocation of a session makes) every later change is refused with
 * BDB_E_DBTYPE, while reads of what is still sound go on; nothing is ever
 * allocated on a page the tree references, and a sync never cuts the file
 * below such a page nor grows it because the map says so.
 */
bdb_handle *bdb_open(const char *path, int reserved, int flags, int mode, const bdb_options *opts,
                     uint32_t thread, uint32_t *err);

/* The failure exit of bdb_open: stores code in *err and the handle, reports
 * context, frees the handle, releases the process-wide mutex; returns NULL. */
bdb_handle *bdb_open_error(bdb_handle *h, const char *context, uint32_t code, uint32_t *err);

/*
 * Syncs (unless read-only) and frees the handle. Returns 0, or a negative
 * value: a failed sync or mutex step leaves the handle open and usable (call
 * bdb_close again, or bdb_destroy); a failure of the freeing step itself
 * (closing the file, detaching the area) still frees the handle.
 */
int bdb_close(bdb_handle *h);

/*
 * Marks the handle for destruction and frees it without syncing. Once the
 * freeing step is reached the handle is gone whatever the result: a -1 from
 * that step (the file could not be removed, a detach failed) still means the
 * handle is freed. Only a failure before it leaves the handle open and
 * usable: taking the database mutex or the process-wide mutex (a negative
 * mutex result), or a database open in shared mode, whose file is never
 * removed (-1, BDB_E_SHARE). The file and its meta log go once the file is
 * closed: at once for a private handle; for a thread group only with the
 * group's last handle, and only if that last handle carries the destroy mark
 * (a group member's bdb_destroy frees it without removing anything while
 * others remain).
 */
int bdb_destroy(bdb_handle *h);

/* A hook that does nothing: 0, or -1 with errno EINVAL for a NULL handle. */
int bdb_sigexit(bdb_handle *h);

/* ------------------------------------------------------------------------ */
/* Record calls                                                              */
/* ------------------------------------------------------------------------ */

/*
 * All return 0 on success and -1 (or a negative mutex result) on failure with
 * the code in the handle. Keys given to put, replace, update and remove are
 * 1..1024 bytes (else BDB_E_KEYSIZE). Values returned in `data` are newly
 * allocated (value + NUL, or NULL when empty); the caller frees them.
 * Changing calls on a read-only handle fail with BDB_E_RDONLY and report
 * nothing. I/O failures leave BDB_E_READ, BDB_E_WRITE or BDB_E_IO; a full
 * file BDB_E_FULL. A failed change leaves the database as it was.
 */

/*
 * Bad descriptors: a NULL key, a NULL data (bdb_delete and bdb_get aside), or
 * a NULL pointer with a length where the key or value is stored (put,
 * replace, update, remove) fail with BDB_E_PARAM before the call is counted.
 * A NULL key pointer given to bdb_get, bdb_delete or bdb_next is searched
 * like any key and, under the default compare, is not found.
 */

/* Reads the value of key into data. BDB_E_NOTFOUND when absent. With a NULL
 * data the key is still looked up: BDB_E_NOTFOUND when absent, BDB_E_PARAM
 * (the value dropped) when present. */
int bdb_get(bdb_handle *h, bdb_datum *key, bdb_datum *data);
/* Inserts key/data; BDB_E_DUPLICATE when the key is present. */
int bdb_put(bdb_handle *h, bdb_datum *key, bdb_datum *data);
/* Replaces the value, or inserts an absent key and leaves BDB_E_INSERTED
 * in the handle while returning 0. */
int bdb_replace(bdb_handle *h, bdb_datum *key, bdb_datum *data);
/* Replaces the value of a present key; BDB_E_NOTFOUND when absent. */
int bdb_update(bdb_handle *h, bdb_datum *key, bdb_datum *data);
/* Deletes the record; BDB_E_NOTFOUND when absent. */
int bdb_delete(bdb_handle *h, bdb_datum *key);
/* Deletes the record and hands its value to data. */
int bdb_remove(bdb_handle *h, bdb_datum *key, bdb_datum *data);
/* The record with the smallest key: key->ptr must have room for 1024 bytes;
 * it receives the key (NUL-terminated when shorter than 1024) and key->len.
 * BDB_E_EMPTY on an empty database. */
int bdb_first(bdb_handle *h, bdb_datum *key, bdb_datum *data);
/* The record after key (given in the same buffer bdb_first filled), written
 * back into key and data. BDB_E_EOF after the last record, BDB_E_NOTFOUND
 * when key is not present. */
int bdb_next(bdb_handle *h, bdb_datum *key, bdb_datum *data);

/* Installs a compare function (NULL = bdb_dti_compare); returns the previous
 * one, or (bdb_compare_fn)-1 for a NULL handle (errno untouched). */
bdb_compare_fn bdb_compare(bdb_handle *h, bdb_compare_fn fn);
/* The handle's thread id (0 without thread management); NULL handle:
 * errno EINVAL, (uint32_t)-1. */
uint32_t bdb_get_threadid(bdb_handle *h);
/* The path given at open; NULL handle: errno EINVAL, (const char *)-1. */
const char *bdb_get_dbname(bdb_handle *h);

/*
 * Walks the whole file and verifies the tree: key order within and across
 * pages, child links (in the file, in use, no page reached twice, depth
 * bounded), every page in use reachable exactly once (tree pages and
 * long-value runs), no reachable page free in the map, long-value runs of
 * the right length, page headers consistent (datastart, packed entries).
 * Leaves start at one depth; where empty pages were dropped (child pointers
 * of 0) a page may take puts and split like a leaf one level up, which is
 * valid. Changes nothing. Returns 0, or -1 with a code in the handle
 * (BDB_E_DBTYPE for a damaged tree, or a read code) and the first problem
 * reported through the handler with a context naming the page.
 */
int bdb_check(bdb_handle *h);

/*
 * The source of records of bdb_bulk_load: stores the next record in *key and
 * *data and returns 1, returns 0 after the last record, or a negative value
 * to abandon the load. The bytes must stay valid until the next call. It is
 * called with the database mutex held and must not use the loading handle.
 */
typedef int (*bdb_bulk_next_fn)(void *ctx, bdb_datum *key, bdb_datum *data);

/*
 * Builds the tree of an empty database bottom-up from records delivered in
 * strictly ascending key order (the handle's compare function), so that
 * every page is full: a page takes records while they fit (the room rule of
 * bdb_data_fits), and the record that does not fit goes one level up as the
 * separator whose child is the next page of its level, recursively. Every
 * record is stored once, in a leaf or an inner page; leaves are all at one
 * depth; the last page of a level may be partly filled, and the child of the
 * last separator of a level may be 0 (an empty subtree). Inserting in key
 * order through bdb_put instead leaves pages half full.
 *
 * h: a read-write handle of a database without records; it holds the
 * database mutex for the whole load. next/ctx: the record source above.
 * Values of 2048 bytes and more go on data pages as with bdb_put.
 *
 * Returns 0 when every record is stored; the tree reaches the file with the
 * next bdb_sync or bdb_close. On failure returns -1 and leaves the database
 * empty again (every page the load took is free, nothing written is
 * reachable), with the code in the handle: BDB_E_RDONLY (read-only handle),
 * BDB_E_PARAM (NULL next, a database that holds records, keys not strictly
 * ascending, a NULL pointer with a nonzero length; reported), BDB_E_KEYSIZE
 * (a key outside 1..1024 bytes), BDB_E_FULL, BDB_E_NOMEM, or the write codes
 * of page storage. When next abandons the load the code is left as it was.
 */
int bdb_bulk_load(bdb_handle *h, bdb_bulk_next_fn next, void *ctx);

/* ------------------------------------------------------------------------ */
/* Locks, sync and transactions                                              */
/* ------------------------------------------------------------------------ */

/*
 * BDB_LOCK / BDB_UNLOCK. With a shared area (shared mode, thread management)
 * the lock is the database mutex, held across calls until the matching
 * unlock (other operations are refused with BDB_E_PARAM, "Invalid lock
 * operation"). For a private handle it is the file lock (BDB_E_IO, "db lock"
 * when it cannot be taken or is already held). kind is not interpreted.
 */
int bdb_lock(bdb_handle *h, int op, int kind);
/* The file lock itself (the one place that locks the file). 0 or -1. */
int btree_lockf(bdb_handle *h, int op, int kind);
/*
 * Makes every change so far durable: the meta log is made durable, the
 * changed pages (in page order) and the meta page are written and the file is
 * fsynced; then a new log interval begins (the commit point) and the file is
 * cut to its highest page in use. After 0, a crash at any later moment keeps
 * at least this state; a crash during the call keeps the previous sync's
 * state or this one. -1 with BDB_E_RDONLY (read-only handle), BDB_E_IO
 * ("meta log fsync", "db force cache fsync", "meta log commit"), BDB_E_WRITE
 * ("db write", "meta log write"): nothing synced before is lost, the changes
 * stay in memory and a later sync can succeed.
 */
int bdb_sync(bdb_handle *h);
/* bdb_sync without its own mutex step (it still takes the mutex, nested). */
int bdb_do_sync(bdb_handle *h);
/* Operations 1, 2, 3 are accepted and do nothing (changes are durable after
 * bdb_sync); others fail with BDB_E_PARAM. */
int bdb_transaction(bdb_handle *h, int op);

/* ------------------------------------------------------------------------ */
/* Page storage (for tools and tests; REQUIRES the database mutex)           */
/* ------------------------------------------------------------------------ */

/* Reverses the bytes of each 32-bit word in [addr, addr + len), starting at
 * the first word boundary and ignoring a trailing partial word. */
void bdb_swap(void *addr, uint32_t len);
/* Converts a tree page in place: dir 0 file to machine order, 1 machine to
 * file order. Covers the header, the slots and the 24 bytes after them. */
void bdb_pgswap(void *page, int dir);

/* Sets up the page cache: private handles allocate max(size, 32768) rounded
 * up to pages; with an area the area's 6 pages are used. 0 or -1 (NOMEM). */
int bdb_cache_init(bdb_handle *h, uint32_t size);
/* Releases a private cache; the handle then has no cache. */
void bdb_cache_free(bdb_handle *h);
/* The buffer assigned to a page (a hit, or an evicted record whose first word
 * is cleared), or NULL when a dirty victim cannot be written. */
void *bdb_cache_pg(bdb_handle *h, uint32_t pgno);
/* Fetches a tree page in machine order (BDB_FORUPDATE: the caller changes
 * it and commits with bdb_update_dpage). NULL on a read failure. */
bdb_page *bdb_get_dpage(bdb_handle *h, uint32_t pgno, int flags);
/* Allocates and initialises a new tree page (not yet dirty), or NULL. */
bdb_page *bdb_new_dpage(bdb_handle *h);
/* Commits a change: clears the update mark and marks the page dirty. 0, or
 * -1 when the page is no longer cached. */
int bdb_update_dpage(bdb_handle *h, bdb_page *page);
/* Marks a cached page dirty: 0, or -1 when not cached. */
int bdb_cache_dirty(bdb_handle *h, uint32_t pgno);
/* Drops a page from the cache without writing it. Always 0. */
int bdb_inval_cache_pg(bdb_handle *h, uint32_t pgno);
/* Declares a change of the meta page copy (its log point: the copy's image
 * goes to the meta log at the first change after a sync). 0, or -1 when the
 * image cannot be logged; the caller must not change the copy then. */
int bdb_update_meta(bdb_handle *h);
/* Writes every dirty page, then the meta page if changed, then fsyncs. */
int bdb_force_cache(bdb_handle *h);
/* Page transfers of n bytes at page pgno (n may span a run of pages).
 * 0, or -1 with BDB_E_WRITE / BDB_E_READ ("db write" / "db read"). */
int bdb_write_dpage(bdb_handle *h, uint32_t pgno, const void *src, uint32_t n);
int bdb_read_dpage(bdb_handle *h, uint32_t pgno, void *dst, uint32_t n);
/* Extends the file to `pages` pages and records the new page count. */
int bdb_extend(bdb_handle *h, uint32_t pages);

/* Bit maps: bit i is bit (i % 32) of word (i / 32). */
void bits_setb(uint32_t *map, int32_t bit);
void bits_clrb(uint32_t *map, int32_t bit);
int bits_tstb(const uint32_t *map, int32_t bit);
/* Allocates n consecutive pages first fit, extending the file when needed;
 * *first receives the first page. -1 with BDB_E_FULL when no run exists. */
int bdb_alloc_dpages(bdb_handle *h, uint32_t n, uint32_t *first);
/* Frees a tree page (and drops it from the cache unwritten). Always 0. */
int bdb_free_dpage(bdb_handle *h, bdb_page *page);
/* One more than the highest page in use (the pages the file needs). */
uint32_t bdb_find_max_page_number(bdb_handle *h);

/* Entries. Positions are signed: the entry lands at index pos + 1. */
/* Places an entry; a long value's run is allocated and written before the
 * slot is placed, and on failure the page is unchanged. Frees the entry's
 * BDB_KEYALLOC / BDB_DATAALLOC buffers on every path. 0 or -1. */
int bdb_insdatum(bdb_handle *h, bdb_page *page, int32_t pos, bdb_entry *e);
/* Copies slot idx out into freshly allocated buffers. 0 or -1 (NOMEM). */
int bdb_getdatum(bdb_handle *h, const bdb_page *page, int32_t idx, bdb_entry *e);
/* Removes slot idx; mode 0 frees a long value's pages, BDB_KEEPPAGES keeps
 * them. 0. */
int bdb_deldata(bdb_handle *h, bdb_page *page, int32_t idx, int mode);
/* Frees n data pages from first (deferred to the end of a running change).
 * 0, or -1 when the meta page's log point fails. */
int bdb_del_dpages(bdb_handle *h, uint32_t first, uint32_t n);
/* 1 when the entry fits the page with one slot to spare, else 0. */
int bdb_data_fits(const bdb_page *page, const bdb_entry *e);
/* In-page bytes of slot idx (key, plus an inline value). */
uint32_t bdb_key_data_size(const bdb_page *page, int32_t idx);
/* Copies slot idx's key into key->ptr (room for 1024 bytes). 0. */
int bdb_ret_key(const bdb_page *page, bdb_datum *key, int32_t idx);
/* Hands slot idx's value to data as a new allocation. 0 or -1 (NOMEM/READ). */
int bdb_ret_data(bdb_handle *h, const bdb_page *page, bdb_datum *data, int32_t idx);
/* The default comparison: unsigned bytes, a prefix before its extensions. */
int bdb_dti_compare(const bdb_datum *a, const bdb_datum *b);
/* Copies n bytes from src to dst, correct for overlapping ranges. */
void bdbcpy(const void *src, void *dst, uint32_t n);

/* Applies one back-out record: a 32-bit page number followed by the page
 * image (for page 0 exactly 8192 bytes in machine order). 0 or -1. */
int bdb_backout_old(bdb_handle *h, const void *record, uint32_t len);

/* ------------------------------------------------------------------------ */
/* Tree engine                                                               */
/* ------------------------------------------------------------------------ */

/* Runs an operation code on the tree. REQUIRES the database mutex. */
int bdb_search(bdb_handle *h, bdb_datum *key, bdb_datum *data, int op);
/* The split index for inserting e after position pos into a full page: the
 * old page keeps entries 0..result. */
int32_t bdb_where_split(const bdb_page *page, int32_t pos, const bdb_entry *e);
/* Walks the subtree at pgno: mode 0 visits each page before its children,
 * mode 1 each entry in key order, other modes only read. A negative visit
 * result stops the walk. 0, or -1 (read failure or stopped). */
int bdb_parse_tree(bdb_handle *h, uint32_t pgno, bdb_visit_fn visit, int mode, int32_t depth);

/* ------------------------------------------------------------------------ */
/* Process sharing and concurrency                                           */
/* ------------------------------------------------------------------------ */

/* Thread identity hook: replace it before the first open to identify
 * threads otherwise. The default returns the kernel thread id. */
extern uint32_t (*bdb_thread_self)(void);
uint32_t unix_thread_self(void);

/* The process-wide mutex that serialises open, create, close and destroy. */
int bdb_lock_smutex(const char *path, bdb_errhandler_fn fn, uint32_t *err);
int bdb_unlock_smutex(const char *path, bdb_errhandler_fn fn, uint32_t *err);
/* Handle blocks in their three layouts. */
bdb_handle *bdb_alloc_handle(const char *path, int mode, uint32_t thread, bdb_errhandler_fn fn,
                             uint32_t *err);
/* Closes the file, leaves the registry, detaches the area and frees the
 * block, all under the caller's process-wide mutex (bdb_close and bdb_destroy
 * detach after giving that mutex up). 0, or -1; the block is freed always. */
int bdb_dealloc_handle(bdb_handle *h);
/* Computes the IPC key of the database (ftok, project 66). 0 or -1. */
int bdb_hash_database(bdb_handle *h);

/* The shared area. */
void bdb_size_shmem(bdb_handle *h, uint32_t *pages, uint32_t *cache_bytes, uint32_t *size);
void bdb_initialize_shmem(void *area, uint32_t size, uint32_t cache_bytes, uint32_t pages);
void bdb_setup_shmem(bdb_handle *h, void *area);
int bdb_attach_shared_memory(bdb_handle *h);
int bdb_detach_shared_memory(bdb_handle *h);
int bdb_attach_local_shmem(bdb_handle *h);
int bdb_detach_local_shmem(bdb_handle *h);
/* -1 error, 0 nobody has the database's segment attached, 1 somebody has. */
int bdb_check_shared_memory(bdb_handle *h);

/* Database mutexes: recursive per handle through owner and hold_count. */
int bdb_create_shared_mutex(bdb_handle *h);
int bdb_wait_shared_mutex(bdb_handle *h, int op);
int bdb_release_shared_mutex(bdb_handle *h, int op);
/* Removes the semaphore set (a hold goes with it): 0 (also without a set),
 * or -1 with the mapped code (BDB_E_SEM_HANDLE when the set is gone). */
int bdb_destroy_shared_mutex(bdb_handle *h);
int bdb_create_private_mutex(bdb_handle *h);
int bdb_wait_private_mutex(bdb_handle *h, int op);
int bdb_release_private_mutex(bdb_handle *h, int op);
int bdb_destroy_private_mutex(bdb_handle *h);

/* ------------------------------------------------------------------------ */
/* Object store                                                              */
/* ------------------------------------------------------------------------ */

/*
 * Objects are a header record (key: the id up to its first '#', then NUL)
 * plus item records (key: header key, prefix part, name part, NUL). Every
 * call below takes the database mutex for its whole run. Values returned are
 * new allocations the caller frees (NULL for an empty value).
 */

/* Creates (if needed) and opens the object database `name` ("odb" when NULL;
 * a name of 4096 characters or more fails with BDB_E_PARAM). cache_size 0
 * means 57344 bytes. Returns the handle or NULL with *err set. */
bdb_handle *bt_initdb(const char *name, int reserved, uint32_t cache_size, int mode, uint32_t thread,
                      uint32_t *err);
/* bdb_close. */
int bt_closedb(bdb_handle *h);
/* Makes an object; BDB_E_DUPLICATE when it exists. */
int bt_mkobj(bdb_handle *h, const char *id, const void *data, uint32_t len);
/* Reads an object's value into *data; returns its length or -1. */
int bt_getobj(bdb_handle *h, const char *id, void **data);
/* Writes an object's value, creating it if needed (BDB_E_INSERTED). */
int bt_putobj(bdb_handle *h, const char *id, const void *data, uint32_t len);
/* Removes an object and all its items. */
int bt_rmobj(bdb_handle *h, const char *id);
/* Copies an object with its items to each id of the NULL-terminated array;
 * with data (len >= 1) the copies' headers get data instead. */
int bt_clone(bdb_handle *h, const char *id, const char *const *newids, const void *data, int32_t len);
/* Reads an item's value; returns its length or -1. A NULL prefix is empty.
 * When only the final release of the mutex fails, its negative result is
 * returned and *data still holds the value, which the caller frees. */
int bt_getitem(bdb_handle *h, const char *id, const char *prefix, const char *name, void **data);
/* Adds an item to an existing object; BDB_E_DUPLICATE when it exists. */
int bt_additem(bdb_handle *h, const char *id, const char *prefix, const char *name, const void *data,
               uint32_t len);
/* Removes an item. An empty (or NULL) prefix with an empty name would name
 * the object's own header record: refused with BDB_E_PARAM. */
int bt_rmitem(bdb_handle *h, const char *id, const char *prefix, const char *name);
/* Replaces an existing item's value; BDB_E_NOTFOUND when absent. An empty
 * prefix and name are refused with BDB_E_PARAM, as for bt_rmitem. */
int bt_replace_item(bdb_handle *h, const char *id, const char *prefix, const char *name,
                    const void *data, uint32_t len);
/* Lists the names (after `prefix`) of an object's items in key order into a
 * new NULL-terminated array of new strings (*list, *count); the caller frees
 * every string and the array. Returns the count or -1 (BDB_E_NOTFOUND for a
 * missing object). No items match: 0 and a NULL list (a prefix of any
 * length is accepted). */
int bt_getitem_list(bdb_handle *h, const char *id, const char *prefix, char ***list, uint32_t *count);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif /* VARLO_BDB_H */
