/* What the command-line tools share. */
#define _POSIX_C_SOURCE 200809L
#include "tool_common.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static void print_version(void) {
    printf("%s\n", VARLO_VERSION_STRING);
    exit(0);
}

static int help_asked; /* --help: the usage goes to standard output, exit 0 */

void tool_usage(const char *args, const char *options) {
    fprintf(help_asked ? stdout : stderr,
            "usage: %s [-V] [-s] %s\n"
            "  -V       print the library version and exit\n"
            "  -s       open in shared mode (default: private)\n"
            "  --help   print this help and exit\n"
            "%s",
            tool_prog, args, options);
    exit(help_asked ? 0 : 1);
}

char **tool_args(int argc, char **argv, int nargs, const char *own, int (*on_option)(int c, const char *arg),
                 int *mode, void (*usage)(void)) {
    char opts[32] = "Vs";
    int c, i;
    if (own) strncat(opts, own, sizeof opts - 3);
    *mode = BDB_PRIVATE;
    /* The long options, before getopt sees them (up to a "--"). */
    for (i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i) {
        if (strcmp(argv[i], "--help") == 0) {
            help_asked = 1;
            usage();
        }
        if (strcmp(argv[i], "--version") == 0) print_version();
    }
    while ((c = getopt(argc, argv, opts)) != -1) {
        if (c == 'V') print_version();
        if (c == 's')
            *mode = BDB_SHARED;
        else if (!on_option || on_option(c, optarg) != 0)
            usage();
    }
    if (argc - optind != nargs) usage();
    return argv + optind;
}

void tool_fail(const char *call, uint32_t code) {
    fprintf(stderr, "%s failed: 0x%08x %s\n", call, (unsigned)code, bdbstrerr(code));
}

void tool_print_report(bdb_handle *h, const char *name, const char *syserr, int sys_errno, const char *message,
                       uint32_t code, const char *context) {
    (void)h;
    (void)code;
    fprintf(stderr, "%s: %s: %s", name ? name : tool_prog, context ? context : "", message ? message : "");
    if (sys_errno) fprintf(stderr, " (%s)", syserr ? syserr : "");
    fputc('\n', stderr);
}

bdb_handle *tool_open(const char *path, int flags, int mode) {
    bdb_options opts = {0, NULL, tool_print_report};
    uint32_t err = 0;
    bdb_handle *h = bdb_open(path, 0, flags, mode, &opts, 0, &err);
    if (!h) tool_fail("bdb_open", err);
    return h;
}

int tool_hold(bdb_handle *h, int mode) {
    if (mode != BDB_SHARED || bdb_lock(h, BDB_LOCK, 0) == 0) return 0;
    tool_fail("bdb_lock", bdb_error(h));
    bdb_close(h);
    return 1;
}
