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
 *
 * The records are read by walking the tree page by page in key order. On a
 * damaged file the dump saves what can still be read: a page that fails its
 * check is reported (with its number) and skipped together with the records
 * below it, a record whose long value cannot be read is skipped, and the
 * dump of everything else is written and kept, with its trailer; the exit
 * status is then 1.
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

/* The walk of the tree: where the records go, what was written and skipped,
 * and the pages already visited (a damaged tree may reach a page twice). */
struct walk {
    FILE *out;
    char *line;
    size_t cap;
    unsigned long long count, skipped;
    int io_error;
    uint32_t seen[BDB_MAPWORDS];
};

/* Writes the records of the subtree at pg in key order. Damage is reported
 * and skipped; only a failed write of the dump stops the walk (-1). */
static int dump_tree(bdb_handle *h, uint32_t pg, int depth, struct walk *w) {
    unsigned char *copy;
    const bdb_page *p;
    uint32_t i;
    if (pg == 0) return 0;
    if (depth > 64 || pg >= BDB_MAXPAGES || (w->seen[pg / 32] >> (pg % 32) & 1u)) {
        fprintf(stderr, "%s: page %u: reached twice or too deep: skipped\n", tool_prog, (unsigned)pg);
        w->skipped++;
        return 0;
    }
    w->seen[pg / 32] |= 1u << (pg % 32);
    p = bdb_get_dpage(h, pg, 0); /* a damaged page is reported by the handler */
    if (!p || !(copy = malloc(BDB_PGSIZE))) {
        fprintf(stderr, "%s: page %u and the records below it skipped\n", tool_prog, (unsigned)pg);
        w->skipped++;
        return 0;
    }
    /* The walk below takes the page's buffer for others: keep a copy. */
    memcpy(copy, p, BDB_PGSIZE);
    p = (const bdb_page *)copy;
    if (dump_tree(h, p->leftpg, depth + 1, w) < 0) goto failed;
    for (i = 0; i < p->nslots; ++i) {
        bdb_datum key, val;
        key.ptr = copy + p->slots[i].keyoff;
        key.len = p->slots[i].keylen;
        if (bdb_ret_data(h, p, &val, (int32_t)i) < 0) {
            fprintf(stderr, "%s: page %u: record %u skipped: %s\n", tool_prog, (unsigned)pg, (unsigned)i,
                    bdbstrerr(bdb_error(h)));
            w->skipped++;
        } else {
            int r = write_record(w->out, &key, &val, &w->line, &w->cap);
            free(val.ptr);
            if (r < 0) goto failed;
            w->count++;
        }
        if (dump_tree(h, p->slots[i].childpg, depth + 1, w) < 0) goto failed;
    }
    free(copy);
    return 0;
failed:
    free(copy);
    w->io_error = 1;
    return -1;
}

int main(int argc, char **argv) {
    int mode;
    int rc = 0, locked = 0;
    static struct walk w;
    bdb_handle *h;

    const char *arg = tool_args(argc, argv, 1, "f:", option, &mode, usage)[0];

    h = tool_open(arg, BDB_RDONLY, mode);
    if (!h) {
        return 1;
    }
    if (tool_hold(h, mode)) return 1;
    locked = mode == BDB_SHARED;
    w.out = stdout;
    if (outpath && !(w.out = fopen(outpath, "w"))) {
        fprintf(stderr, "fopen %s failed: %s\n", outpath, strerror(errno));
        if (locked) bdb_lock(h, BDB_UNLOCK, 0);
        bdb_close(h);
        return 1;
    }

    w.seen[0] = 1; /* the meta page is never a tree page */
    if (fputs("VARLO-DUMP 1\n", w.out) == EOF || dump_tree(h, h->meta->root, 0, &w) < 0 ||
        fprintf(w.out, "records=%llu\n", w.count) < 0 || fflush(w.out) != 0) {
        fprintf(stderr, "write %s failed: %s\n", outpath ? outpath : "standard output", strerror(errno));
        rc = 2;
    } else if (w.skipped) {
        fprintf(stderr, "%s: damaged database: %llu pages or records skipped, %llu records saved\n", tool_prog,
                w.skipped, w.count);
        rc = 1;
    }
    free(w.line);

    if (outpath) {
        if (fclose(w.out) != 0 && rc != 2) {
            fprintf(stderr, "write %s failed: %s\n", outpath, strerror(errno));
            rc = 2;
        }
        if (rc == 2) remove(outpath); /* a dump that could not be written; a damaged database's is kept */
    }
    if (rc == 2) rc = 1;
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
