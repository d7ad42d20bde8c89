/*
 * varlo_check: verifies the integrity of a database.
 *
 *   varlo_check [-V] [-s] DB
 *
 * Opens DB read-only (private mode, or shared mode with -s) and runs
 * bdb_check: key order, child links, the allocation map against the pages
 * reached, long-value runs and page headers. Prints "ok" and exits 0 when
 * the file is sound; otherwise prints the first problem found (it names the
 * page) on stderr and exits 1. Changes nothing.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "bdb.h"
#include "tool_common.h"

const char *tool_prog = "varlo_check";

static void usage(void) { tool_usage("DB", ""); }

int main(int argc, char **argv) {
    int mode;
    int rc = 0;

    bdb_handle *h;

    const char *arg = tool_args(argc, argv, 1, NULL, NULL, &mode, usage)[0];

    h = tool_open(arg, BDB_RDONLY, mode);
    if (!h) {
        return 1;
    }
    if (bdb_check(h) < 0) {
        tool_fail("bdb_check", bdb_error(h));
        rc = 1;
    } else {
        printf("ok\n");
    }
    if (bdb_close(h) < 0) {
        tool_fail("bdb_close", bdb_error(h));
        rc = 1;
    }
    if (fflush(stdout) != 0) rc = 1;
    return rc;
}
