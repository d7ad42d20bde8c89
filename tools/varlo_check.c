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

static const char *prog = "varlo_check";

static void usage(void) {
    fprintf(stderr, "usage: %s [-V] [-s] DB\n"
                    "  -V  print the library version and exit\n"
                    "  -s  open in shared mode (default: private)\n",
            prog);
    exit(1);
}

static void report(const char *call, uint32_t code) {
    fprintf(stderr, "%s failed: 0x%08x %s\n", call, (unsigned)code, bdbstrerr(code));
}

/* Prints the library's own reports; for a damaged file the context names the
 * page and the problem ("page 7: keys out of order"). */
static void print_report(bdb_handle *h, const char *name, const char *syserr, int sys_errno, const char *message,
                         uint32_t code, const char *context) {
    (void)h;
    (void)code;
    fprintf(stderr, "%s: %s: %s", name ? name : prog, context ? context : "", message ? message : "");
    if (sys_errno) fprintf(stderr, " (%s)", syserr ? syserr : "");
    fputc('\n', stderr);
}

int main(int argc, char **argv) {
    int mode = BDB_PRIVATE;
    int c, rc = 0;
    uint32_t err = 0;
    bdb_options opts;
    bdb_handle *h;

    while ((c = getopt(argc, argv, "Vs")) != -1) {
        switch (c) {
        case 'V':
            printf("%s\n", VARLO_VERSION_STRING);
            return 0;
        case 's':
            mode = BDB_SHARED;
            break;
        default:
            usage();
        }
    }
    if (argc - optind != 1) usage();

    memset(&opts, 0, sizeof opts);
    opts.errhandler = print_report;
    h = bdb_open(argv[optind], 0, BDB_RDONLY, mode, &opts, 0, &err);
    if (!h) {
        report("bdb_open", err);
        return 1;
    }
    if (bdb_check(h) < 0) {
        report("bdb_check", bdb_error(h));
        rc = 1;
    } else {
        printf("ok\n");
    }
    if (bdb_close(h) < 0) {
        report("bdb_close", bdb_error(h));
        rc = 1;
    }
    if (fflush(stdout) != 0) rc = 1;
    return rc;
}
