/*
 * varlo_stat: prints the layout and the statistics of a database.
 *
 *   varlo_stat [-V] [-s] DB
 *
 * Opens DB read-only (private mode, or shared mode with -s), walks the whole
 * tree and prints, one "label: value" line each: the file size and pages, the
 * root page, the pages in use according to the allocation map, the tree
 * depth, the tree pages, the data pages of long values, the records, and then
 * the statistics block of the handle. Exit status 0 on success, 1 on failure.
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

const char *tool_prog = "varlo_stat";

static void usage(void) { tool_usage("DB", ""); }

/* Totals of the walk (the visit function has no argument of its own). */
static uint32_t tree_pages;
static uint32_t data_pages;
static uint32_t levels;
static uint64_t records;

static int count_page(bdb_handle *h, bdb_page *page, int32_t index, int32_t depth) {
    uint32_t i;
    (void)h;
    (void)index;
    ++tree_pages;
    records += page->nslots;
    if (depth >= 0 && (uint32_t)depth + 1 > levels) levels = (uint32_t)depth + 1;
    for (i = 0; i < page->nslots; ++i) {
        const bdb_slot *s = &page->slots[i];
        if (s->flags & BDB_DPAGES) data_pages += (uint32_t)(((uint64_t)s->datalen + BDB_PGSIZE - 1) / BDB_PGSIZE);
    }
    return 0;
}

static void field(const char *label, unsigned long long value) { printf("%-21s%llu\n", label, value); }

static uint32_t popcount32(uint32_t w) {
    uint32_t n = 0;
    while (w) {
        w &= w - 1;
        ++n;
    }
    return n;
}

int main(int argc, char **argv) {
    int mode;
    int rc = 0, locked = 0;
    uint32_t in_use = 0, w, root;
    const char *path;
    struct stat st;
    bdb_handle *h;
    const bdb_stats *s;

    const char *arg = tool_args(argc, argv, 1, NULL, NULL, &mode, usage)[0];
    path = arg;

    h = tool_open(path, BDB_RDONLY, mode);
    if (!h) {
        return 1;
    }
    if (stat(path, &st) != 0) {
        fprintf(stderr, "stat %s failed: %s\n", path, strerror(errno));
        bdb_close(h);
        return 1;
    }
    if (tool_hold(h, mode)) return 1;
    locked = mode == BDB_SHARED;

    root = h->meta->root;
    for (w = 0; w < BDB_MAPWORDS; ++w) in_use += popcount32(h->meta->pgmap[w]);
    if (bdb_parse_tree(h, root, count_page, 0, 0) < 0) {
        tool_fail("bdb_parse_tree", bdb_error(h));
        rc = 1;
    } else {
        s = h->stats;
        printf("%-21s%s\n", "database:", path);
        printf("%-21s%s\n", "byte order:", (h->flags & BDB_F_SWAPPED) ? "swapped" : "native");
        field("file size (bytes):", (unsigned long long)st.st_size);
        field("file pages:", (unsigned long long)st.st_size / BDB_PGSIZE);
        field("root page:", root);
        field("pages in use:", in_use);
        field("tree depth:", levels);
        field("tree pages:", tree_pages);
        field("data pages:", data_pages);
        field("records:", records);
        printf("statistics:\n");
        field("  splits:", s->splits);
        field("  redistributions:", s->redistributions);
        field("  merges:", s->merges);
        field("  deferred inserts:", s->deferred_inserts);
        field("  puts:", s->puts);
        field("  replaces:", s->replaces);
        field("  updates:", s->updates);
        field("  deletes:", s->deletes);
        field("  removes:", s->removes);
        field("  reads:", s->reads);
        field("  cache hits:", s->cache_hits);
        field("  cache misses:", s->cache_misses);
        field("  page reads:", s->page_reads);
        field("  page writes:", s->page_writes);
        field("  max depth:", s->max_depth);
    }

    if (locked && bdb_lock(h, BDB_UNLOCK, 0) < 0) {
        tool_fail("bdb_lock", bdb_error(h));
        rc = 1;
    }
    if (bdb_close(h) < 0) {
        tool_fail("bdb_close", bdb_error(h));
        rc = 1;
    }
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "write failed: %s\n", strerror(errno));
        rc = 1;
    }
    return rc;
}
