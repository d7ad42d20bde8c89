/*
 * varlo_dump: writes every record of a database as text, in key order.
 *
 *   varlo_dump [-V] [-s] [-f FILE] DB
 *
 * Opens DB read-only (private mode, or shared mode with -s, where the
 * database mutex is held for the whole dump so that it is one consistent
 * state) and writes to FILE, or to standard output without -f.
 *
 * Dump format, version 1 (read back by varlo_load):
 *
 *   VARLO-DUMP 1
 *   <key in hex> <value in hex>        one line per record, in key order
 *   ...
 *   records=<number of record lines>
 *
 * Hex digits are lower case, two per byte, so keys and values may hold any
 * bytes (NUL and newline included); an empty value leaves nothing after the
 * space. Every line ends with a newline. The trailer lets a reader detect a
 * truncated dump. On failure a FILE given with -f is removed.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "bdb.h"
#include "tool_common.h"

const char *tool_prog = "varlo_dump";

static const char *outpath; /* -f */

static int option(int c, const char *arg) {
    if (c != 'f') return -1;
    outpath = arg;
    return 0;
}

static void usage(void) { tool_usage("[-f FILE] DB", "  -f FILE  write the dump to FILE (default: standard output)\n"); }

static char *hex(char *out, const unsigned char *p, uint32_t n) {
    static const char digits[] = "0123456789abcdef";
    uint32_t i;
    for (i = 0; i < n; ++i) {
        *out++ = digits[p[i] >> 4];
        *out++ = digits[p[i] & 15];
    }
    return out;
}

/* Writes one record line; 0, or -1 (errno set) when it cannot. */
static int write_record(FILE *out, const bdb_datum *key, const bdb_datum *val, char **buf, size_t *cap) {
    size_t need = 2 * (size_t)key->len + 1 + 2 * (size_t)val->len + 1;
    char *end;
    if (need > *cap) {
        char *nb = realloc(*buf, need);
        if (!nb) {
            errno = ENOMEM;
            return -1;
        }
        *buf = nb;
        *cap = need;
    }
    end = hex(*buf, key->ptr, key->len);
    *end++ = ' ';
    if (val->len) end = hex(end, val->ptr, val->len);
    *end++ = '\n';
    return fwrite(*buf, 1, (size_t)(end - *buf), out) == (size_t)(end - *buf) ? 0 : -1;
}

int main(int argc, char **argv) {
    int mode;
    int r, rc = 0, locked = 0;
    unsigned long long count = 0;
    char kbuf[BDB_MAXKEY + 1];
    char *line = NULL;
    size_t cap = 0;
    bdb_datum key, val;
    bdb_handle *h;
    FILE *out = stdout;

    const char *arg = tool_args(argc, argv, 1, "f:", option, &mode, usage)[0];

    h = tool_open(arg, BDB_RDONLY, mode);
    if (!h) {
        return 1;
    }
    if (tool_hold(h, mode)) return 1;
    locked = mode == BDB_SHARED;
    if (outpath && !(out = fopen(outpath, "w"))) {
        fprintf(stderr, "fopen %s failed: %s\n", outpath, strerror(errno));
        if (locked) bdb_lock(h, BDB_UNLOCK, 0);
        bdb_close(h);
        return 1;
    }

    if (fputs("VARLO-DUMP 1\n", out) == EOF) rc = -1;
    key.ptr = kbuf;
    key.len = 0;
    val.ptr = NULL;
    val.len = 0;
    r = rc == 0 ? bdb_first(h, &key, &val) : -1;
    while (rc == 0 && r == 0) {
        if (write_record(out, &key, &val, &line, &cap) < 0) rc = -1;
        free(val.ptr);
        val.ptr = NULL;
        ++count;
        if (rc == 0) r = bdb_next(h, &key, &val);
    }
    if (rc < 0) {
        fprintf(stderr, "write %s failed: %s\n", outpath ? outpath : "standard output", strerror(errno));
        rc = 1;
    } else if (bdb_error(h) != BDB_E_EOF && bdb_error(h) != BDB_E_EMPTY) {
        tool_fail(count ? "bdb_next" : "bdb_first", bdb_error(h));
        rc = 1;
    } else if (fprintf(out, "records=%llu\n", count) < 0 || fflush(out) != 0) {
        fprintf(stderr, "write %s failed: %s\n", outpath ? outpath : "standard output", strerror(errno));
        rc = 1;
    }
    free(line);

    if (outpath) {
        if (fclose(out) != 0 && rc == 0) {
            fprintf(stderr, "write %s failed: %s\n", outpath, strerror(errno));
            rc = 1;
        }
        if (rc) remove(outpath);
    }
    if (locked && bdb_lock(h, BDB_UNLOCK, 0) < 0) {
        tool_fail("bdb_lock", bdb_error(h));
        rc = 1;
    }
    if (bdb_close(h) < 0) {
        tool_fail("bdb_close", bdb_error(h));
        rc = 1;
    }
    return rc;
}
