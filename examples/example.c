/*
 * varlo_example: a tour of the varlo C API.
 *
 *   varlo_example /some/folder/example.db
 *
 * Creates a database at the given path, stores 100,000 records (every 100th
 * value is 3000 to 10000 bytes long and lives on data pages), reads them all
 * back, replaces and deletes some, walks the rest in key order, syncs, prints
 * the statistics, reopens the file read-only and checks it. Then it uses the
 * object store on a second file in the same folder. Every result is checked;
 * the program stops with a message naming the failing call and exits 1 at
 * the first thing that is wrong. The files are left in the folder.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "bdb.h"

#define NRECORDS 100000u
#define MAXVALUE 10000u

/* ------------------------------------------------------------------------ */
/* Failing loudly                                                            */
/* ------------------------------------------------------------------------ */

/* Stops the program: `call` is the library call that failed, code its result. */
static void die(const char *call, uint32_t code)
{
    fprintf(stderr, "varlo_example: %s failed: %s (0x%08x)\n", call, bdbstrerr(code), (unsigned)code);
    exit(EXIT_FAILURE);
}

/* Stops the program on a result that is wrong although the call succeeded. */
static void wrong(const char *call, const char *fmt, ...)
{
    va_list ap;
    fprintf(stderr, "varlo_example: %s: ", call);
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
    exit(EXIT_FAILURE);
}

/* A negative result of a call on handle h stops the program. */
static void check(bdb_handle *h, int rc, const char *call)
{
    if (rc < 0) die(call, bdb_error(h));
}

/* The call must have failed with exactly the code `want` (an expected outcome
 * such as "key not found"). */
static void expect_code(bdb_handle *h, int rc, uint32_t want, const char *call)
{
    if (rc >= 0) wrong(call, "succeeded, expected \"%s\"", bdbstrerr(want));
    if (bdb_error(h) != want) die(call, bdb_error(h));
}

/* The library calls this at every failure it reports with a context (I/O
 * errors, locks, ...); expected outcomes like "key not found" are not
 * reported. */
static void print_error(bdb_handle *h, const char *name, const char *syserr, int sys_errno,
                        const char *message, uint32_t code, const char *context)
{
    (void)h;
    (void)code;
    fprintf(stderr, "varlo: %s: %s: %s", name ? name : "-", context, message);
    if (sys_errno != 0) fprintf(stderr, " (%s)", syserr);
    fputc('\n', stderr);
}

/* ------------------------------------------------------------------------ */
/* The records                                                               */
/* ------------------------------------------------------------------------ */

/* Record i has the key "key-%07u": zero-padded, so key order is number order. */
static uint32_t make_key(uint32_t i, char *buf)
{
    return (uint32_t)sprintf(buf, "key-%07u", (unsigned)i);
}

/* The value of record i in generation gen (0 as first stored, 1 after a
 * replacement): usually 10 to 99 bytes; one record in a hundred has 3000 to
 * 10000 bytes. */
static uint32_t value_len(uint32_t i, uint32_t gen)
{
    if ((i + gen * 37u) % 100u == 0) return 3000u + (i * 7919u + gen * 101u) % 7001u;
    return 10u + (i * 31u + gen * 17u) % 90u;
}

static uint32_t make_value(uint32_t i, uint32_t gen, unsigned char *buf)
{
    uint32_t len = value_len(i, gen);
    for (uint32_t j = 0; j < len; j++) buf[j] = (unsigned char)('a' + (i * 13u + j + gen * 5u) % 26u);
    return len;
}

/* The generation record i has after the replacements and deletions below;
 * -1 for a deleted record. */
static int generation(uint32_t i)
{
    if (i % 5u == 1u) return -1;
    return i % 7u == 0u ? 1 : 0;
}

/* The value found must be the one record i has in generation gen. */
static void verify_value(const char *call, uint32_t i, uint32_t gen, const bdb_datum *val)
{
    static unsigned char want[MAXVALUE];
    uint32_t len = make_value(i, gen, want);
    if (val->len != len) wrong(call, "record %u has %u bytes, expected %u", (unsigned)i, (unsigned)val->len, (unsigned)len);
    if (memcmp(val->ptr, want, len) != 0) wrong(call, "record %u has the wrong bytes", (unsigned)i);
}

static double now_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

static long long file_size(const char *path)
{
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    return (long long)st.st_size;
}

/* ------------------------------------------------------------------------ */
/* Records: store, read, replace, delete, walk                               */
/* ------------------------------------------------------------------------ */

static void records(const char *path)
{
    static unsigned char vbuf[MAXVALUE];
    char kbuf[BDB_MAXKEY]; /* bdb_first and bdb_next need room for the longest key */
    bdb_datum key, val;
    uint32_t err = 0;
    double t;

    /* bdb_create makes the file; bdb_open hands out the handle. The options
     * ask for a 4 MB page cache and install an error handler. */
    if (bdb_create(path, BDB_PRIVATE, &err) < 0) die("bdb_create", err);
    bdb_options opts = {4u << 20, NULL, print_error};
    bdb_handle *h = bdb_open(path, 0, BDB_RDWR, BDB_PRIVATE, &opts, 0, &err);
    if (!h) die("bdb_open", err);
    printf("created %s (varlo %s)\n", path, VARLO_VERSION_STRING);

    /* Store: the keys go in a scattered order (i = k * 7919 mod N visits
     * every record once, since 7919 is prime to N). */
    t = now_ms();
    uint32_t nlong = 0;
    for (uint32_t k = 0; k < NRECORDS; k++) {
        uint32_t i = (uint32_t)((k * 7919ull) % NRECORDS);
        key.ptr = kbuf;
        key.len = make_key(i, kbuf);
        val.ptr = vbuf;
        val.len = make_value(i, 0, vbuf);
        if (val.len >= BDB_LONGDATA) nlong++;
        check(h, bdb_put(h, &key, &val), "bdb_put");
    }
    printf("stored %u records (%u of them with long values) in %.0f ms\n", (unsigned)NRECORDS, (unsigned)nlong,
           now_ms() - t);

    /* bdb_put refuses a key that is present. */
    key.ptr = kbuf;
    key.len = make_key(42, kbuf);
    val.ptr = vbuf;
    val.len = make_value(42, 0, vbuf);
    expect_code(h, bdb_put(h, &key, &val), BDB_E_DUPLICATE, "bdb_put of a present key");

    /* Read every record back. Values come back as new allocations. */
    t = now_ms();
    for (uint32_t i = 0; i < NRECORDS; i++) {
        key.ptr = kbuf;
        key.len = make_key(i, kbuf);
        check(h, bdb_get(h, &key, &val), "bdb_get");
        verify_value("bdb_get", i, 0, &val);
        free(val.ptr);
    }
    printf("read and verified all %u records in %.0f ms\n", (unsigned)NRECORDS, now_ms() - t);

    /* Replace every 7th record with a value of another length (some long
     * values become short and some short ones long), then delete every 5th
     * (i % 5 == 1). */
    uint32_t nreplaced = 0, ndeleted = 0;
    t = now_ms();
    for (uint32_t i = 0; i < NRECORDS; i += 7) {
        key.ptr = kbuf;
        key.len = make_key(i, kbuf);
        val.ptr = vbuf;
        val.len = make_value(i, 1, vbuf);
        check(h, bdb_replace(h, &key, &val), "bdb_replace");
        nreplaced++;
    }
    for (uint32_t i = 1; i < NRECORDS; i += 5) {
        key.ptr = kbuf;
        key.len = make_key(i, kbuf);
        check(h, bdb_delete(h, &key), "bdb_delete");
        ndeleted++;
    }
    printf("replaced %u records and deleted %u in %.0f ms\n", (unsigned)nreplaced, (unsigned)ndeleted,
           now_ms() - t);

    /* A deleted key is gone: reading or deleting it again says so. */
    key.ptr = kbuf;
    key.len = make_key(6, kbuf);
    expect_code(h, bdb_get(h, &key, &val), BDB_E_NOTFOUND, "bdb_get of a deleted key");
    expect_code(h, bdb_delete(h, &key), BDB_E_NOTFOUND, "bdb_delete of a deleted key");

    /* Walk every record in key order: bdb_first, then bdb_next with the key
     * the previous call left in the same buffer, until "end of database". */
    t = now_ms();
    uint32_t count = 0, expect_i = 0;
    key.ptr = kbuf;
    key.len = 0;
    int rc;
    for (rc = bdb_first(h, &key, &val); rc == 0; rc = bdb_next(h, &key, &val)) {
        char want[32];
        while (generation(expect_i) < 0) expect_i++; /* skip the deleted ones */
        uint32_t wlen = make_key(expect_i, want);
        if (key.len != wlen || memcmp(key.ptr, want, wlen) != 0)
            wrong("bdb_next", "record %u of the walk is \"%.*s\", expected \"%s\"", (unsigned)count,
                  (int)key.len, kbuf, want);
        verify_value("bdb_next", expect_i, (uint32_t)generation(expect_i), &val);
        free(val.ptr);
        count++;
        expect_i++;
    }
    if (bdb_error(h) != BDB_E_EOF) die("bdb_next", bdb_error(h));
    if (count != NRECORDS - ndeleted)
        wrong("bdb_first/bdb_next", "walked %u records, expected %u", (unsigned)count, (unsigned)(NRECORDS - ndeleted));
    printf("walked %u records in key order in %.0f ms\n", (unsigned)count, now_ms() - t);

    /* Sync: changed pages and the meta page reach the file, which is then
     * cut to its highest page in use. */
    check(h, bdb_sync(h), "bdb_sync");
    const bdb_stats *s = h->stats;
    printf("statistics: puts %u, replaces %u, deletes %u, reads %u\n"
           "            splits %u, merges %u, redistributions %u, deferred inserts %u\n"
           "            cache hits %u, misses %u, page reads %u, page writes %u, max depth %u\n",
           (unsigned)s->puts, (unsigned)s->replaces, (unsigned)s->deletes, (unsigned)s->reads, (unsigned)s->splits,
           (unsigned)s->merges, (unsigned)s->redistributions, (unsigned)s->deferred_inserts,
           (unsigned)s->cache_hits, (unsigned)s->cache_misses, (unsigned)s->page_reads, (unsigned)s->page_writes,
           (unsigned)s->max_depth);
    long long size = file_size(path);
    printf("file size after sync: %lld bytes (%lld pages)\n", size, size / (long long)BDB_PGSIZE);

    check(h, bdb_check(h), "bdb_check");
    check(h, bdb_close(h), "bdb_close");

    /* Reopen read-only (no options: default cache, silent error handler)
     * and check every 97th record. Changes are refused. */
    h = bdb_open(path, 0, BDB_RDONLY, BDB_PRIVATE, NULL, 0, &err);
    if (!h) die("bdb_open (read-only)", err);
    uint32_t nsample = 0;
    for (uint32_t i = 0; i < NRECORDS; i += 97) {
        key.ptr = kbuf;
        key.len = make_key(i, kbuf);
        int gen = generation(i);
        rc = bdb_get(h, &key, &val);
        if (gen < 0) {
            expect_code(h, rc, BDB_E_NOTFOUND, "bdb_get (read-only) of a deleted key");
        } else {
            check(h, rc, "bdb_get (read-only)");
            verify_value("bdb_get (read-only)", i, (uint32_t)gen, &val);
            free(val.ptr);
        }
        nsample++;
    }
    key.ptr = kbuf;
    key.len = make_key(1, kbuf);
    val.ptr = vbuf;
    val.len = make_value(1, 0, vbuf);
    expect_code(h, bdb_put(h, &key, &val), BDB_E_RDONLY, "bdb_put on a read-only handle");
    check(h, bdb_check(h), "bdb_check (read-only)");
    check(h, bdb_close(h), "bdb_close (read-only)");
    printf("reopened read-only: %u sampled records correct, bdb_check passed\n", (unsigned)nsample);
}

/* ------------------------------------------------------------------------ */
/* The object store                                                          */
/* ------------------------------------------------------------------------ */

static void free_list(char **list)
{
    if (!list) return;
    for (char **p = list; *p; p++) free(*p);
    free(list);
}

/* The object `id` has the item prefix+name with the value `want`. */
static void expect_item(bdb_handle *h, const char *id, const char *prefix, const char *name, const char *want)
{
    void *data = NULL;
    int len = bt_getitem(h, id, prefix, name, &data);
    check(h, len, "bt_getitem");
    if ((size_t)len != strlen(want) || memcmp(data, want, (size_t)len) != 0)
        wrong("bt_getitem", "%s: %s%s is \"%.*s\", expected \"%s\"", id, prefix ? prefix : "", name, len,
              (const char *)data, want);
    free(data);
}

/* Joins a NULL-terminated list of names into buf for printing. */
static const char *joined(char **list, char *buf, size_t size)
{
    buf[0] = '\0';
    for (char **p = list; p && *p; p++) {
        if (p != list) strncat(buf, ", ", size - strlen(buf) - 1);
        strncat(buf, *p, size - strlen(buf) - 1);
    }
    return buf;
}

static void objects(const char *path)
{
    uint32_t err = 0;
    char **list = NULL;
    uint32_t count = 0;
    char text[256];
    void *data = NULL;

    /* bt_initdb creates the file when needed and opens it (0: default cache). */
    bdb_handle *h = bt_initdb(path, 0, 0, BDB_PRIVATE, 0, &err);
    if (!h) die("bt_initdb", err);
    bdb_errhandler(h, print_error);

    /* An object "car" with a value of its own and three items. */
    check(h, bt_mkobj(h, "car", "hatchback", 9), "bt_mkobj");
    check(h, bt_additem(h, "car", "door.", "left", "red", 3), "bt_additem");
    check(h, bt_additem(h, "car", "door.", "right", "blue", 4), "bt_additem");
    check(h, bt_additem(h, "car", NULL, "wheel", "17 inch", 7), "bt_additem");
    printf("object store %s: made \"car\" with items door.left, door.right, wheel\n", path);

    /* The items whose names start with "door.", without that prefix. */
    int n = bt_getitem_list(h, "car", "door.", &list, &count);
    check(h, n, "bt_getitem_list");
    if (n != 2 || count != 2 || strcmp(list[0], "left") != 0 || strcmp(list[1], "right") != 0)
        wrong("bt_getitem_list", "items of car under \"door.\" are [%s], expected [left, right]",
              joined(list, text, sizeof text));
    printf("items of \"car\" under \"door.\": %s\n", joined(list, text, sizeof text));
    free_list(list);
    list = NULL;

    /* Clone it twice; the clones get a value of their own, the items are copied. */
    const char *const clones[] = {"car2", "car3", NULL};
    check(h, bt_clone(h, "car", clones, "convertible", 11), "bt_clone");
    for (int c = 0; clones[c]; c++) {
        int len = bt_getobj(h, clones[c], &data);
        check(h, len, "bt_getobj");
        if (len != 11 || memcmp(data, "convertible", 11) != 0) wrong("bt_getobj", "%s has the wrong value", clones[c]);
        free(data);
        data = NULL;
        expect_item(h, clones[c], "door.", "left", "red");
        expect_item(h, clones[c], NULL, "door.right", "blue"); /* the same item, named in one part */
        expect_item(h, clones[c], NULL, "wheel", "17 inch");
    }
    printf("cloned \"car\" to \"car2\" and \"car3\" with all items\n");

    /* Remove the original with all its items; the clones stay. */
    check(h, bt_rmobj(h, "car"), "bt_rmobj");
    expect_code(h, bt_getobj(h, "car", &data), BDB_E_NOTFOUND, "bt_getobj of a removed object");
    expect_code(h, bt_getitem(h, "car", "door.", "left", &data), BDB_E_NOTFOUND, "bt_getitem of a removed object");
    n = bt_getitem_list(h, "car2", NULL, &list, &count);
    check(h, n, "bt_getitem_list");
    if (n != 3) wrong("bt_getitem_list", "car2 has %d items, expected 3", n);
    printf("removed \"car\"; \"car2\" still has %s\n", joined(list, text, sizeof text));
    free_list(list);

    check(h, bdb_check(h), "bdb_check");
    check(h, bt_closedb(h), "bt_closedb");
}

/* The folder part of a path ("." when it has none). */
static void folder_of(const char *path, char *buf, size_t size)
{
    const char *slash = strrchr(path, '/');
    if (!slash) {
        snprintf(buf, size, ".");
    } else if (slash == path) {
        snprintf(buf, size, "/");
    } else {
        snprintf(buf, size, "%.*s", (int)(slash - path), path);
    }
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s DATABASE-PATH  (the file must not exist; a second file objects.db is\n"
                        "       made in the same folder)\n",
                argv[0]);
        return 2;
    }
    char objpath[4096], folder[4096];
    folder_of(argv[1], folder, sizeof folder);
    if (snprintf(objpath, sizeof objpath, "%s/objects.db", folder) >= (int)sizeof objpath) {
        fprintf(stderr, "varlo_example: path too long\n");
        return 2;
    }

    records(argv[1]);
    objects(objpath);
    printf("all checks passed\n");
    return 0;
}
