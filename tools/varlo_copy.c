/*
 * varlo_copy: writes a compacted copy of a database.
 *
 *   varlo_copy [-V] [-s] SRC DST
 *
 * Opens SRC read-only (private mode, or shared mode with -s, where the
 * database mutex is held for the whole copy so that it is one consistent
 * state) and creates DST, which must not exist, as a private database. The
 * records go over in key order through bdb_bulk_load, which fills every page
 * as far as it can: the copy has no free pages and no half-full ones, so it
 * is smaller than a database grown by inserts, and its long values lie on
 * fresh runs. DST is then synced and checked with bdb_check.
 *
 * Prints the sizes before and after and the result of the check:
 *
 *   SRC: <bytes> bytes, <pages> pages
 *   DST: <bytes> bytes, <pages> pages, <records> records
 *   ok
 *
 * Exit status 0 on success; 1 on any failure, reported on stderr as the
 * other tools do, and DST (if this run created it) removed.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bdb.h"
#include "tool_common.h"

const char *tool_prog = "varlo_copy";

static void usage(void) { tool_usage("SRC DST", ""); }

/* The walk over the source that feeds bdb_bulk_load. */
struct source {
    bdb_handle *h;
    char key[BDB_MAXKEY + 1];
    bdb_datum k, v;
    unsigned long long count;
    int failed; /* the walk ended on an error (reported) */
};

static int next_record(void *ctx, bdb_datum *key, bdb_datum *data) {
    struct source *s = ctx;
    int r;
    free(s->v.ptr);
    s->v.ptr = NULL;
    r = s->count == 0 ? bdb_first(s->h, &s->k, &s->v) : bdb_next(s->h, &s->k, &s->v);
    if (r < 0) {
        uint32_t code = bdb_error(s->h);
        if (code == BDB_E_EOF || code == BDB_E_EMPTY) return 0;
        tool_fail(s->count ? "bdb_next" : "bdb_first", code);
        s->failed = 1;
        return -1;
    }
    ++s->count;
    *key = s->k;
    *data = s->v;
    return 1;
}

static int print_size(const char *label, const char *path, const char *tail) {
    struct stat st;
    if (stat(path, &st) != 0) {
        fprintf(stderr, "stat %s failed: %s\n", path, strerror(errno));
        return 1;
    }
    printf("%s: %lld bytes, %lld pages%s\n", label, (long long)st.st_size, (long long)st.st_size / BDB_PGSIZE, tail);
    return 0;
}

int main(int argc, char **argv) {
    int mode, rc = 0, locked;
    uint32_t err = 0;
    char tail[64];
    struct source src;
    bdb_handle *dst;
    char **args = tool_args(argc, argv, 2, NULL, NULL, &mode, usage);
    const char *srcpath = args[0], *dstpath = args[1];

    memset(&src, 0, sizeof src);
    src.k.ptr = src.key;
    src.h = tool_open(srcpath, BDB_RDONLY, mode);
    if (!src.h) return 1;
    if (tool_hold(src.h, mode)) return 1;
    locked = mode == BDB_SHARED;
    if (bdb_create(dstpath, BDB_PRIVATE, &err) < 0) {
        tool_fail("bdb_create", err);
        rc = 1;
    } else if (print_size("SRC", srcpath, "") != 0 || !(dst = tool_open(dstpath, BDB_RDWR, BDB_PRIVATE))) {
        remove(dstpath);
        rc = 1;
    } else {
        if (bdb_bulk_load(dst, next_record, &src) < 0) {
            if (!src.failed) tool_fail("bdb_bulk_load", bdb_error(dst));
            rc = 1;
        } else if (bdb_sync(dst) < 0) {
            tool_fail("bdb_sync", bdb_error(dst));
            rc = 1;
        } else if (bdb_check(dst) < 0) {
            tool_fail("bdb_check", bdb_error(dst));
            rc = 1;
        }
        /* Leave no half-made copy behind. */
        if (rc != 0 && bdb_destroy(dst) == 0) dst = NULL;
        if (dst && bdb_close(dst) < 0) {
            tool_fail("bdb_close", bdb_error(dst));
            rc = 1;
        }
        if (rc != 0) {
            remove(dstpath);
        } else {
            snprintf(tail, sizeof tail, ", %llu records", src.count);
            rc = print_size("DST", dstpath, tail);
            if (rc == 0) printf("ok\n");
        }
    }
    free(src.v.ptr);
    if (locked && bdb_lock(src.h, BDB_UNLOCK, 0) < 0) {
        tool_fail("bdb_lock", bdb_error(src.h));
        rc = 1;
    }
    if (bdb_close(src.h) < 0) {
        tool_fail("bdb_close", bdb_error(src.h));
        rc = 1;
    }
    if (fflush(stdout) != 0) rc = 1;
    return rc;
}
