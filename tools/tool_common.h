/*
 * What the command-line tools share: their reports and the opening of a
 * database. Every tool defines tool_prog, its own name.
 */
#ifndef VARLO_TOOL_COMMON_H
#define VARLO_TOOL_COMMON_H

#include "bdb.h"

extern const char *tool_prog;

/* Prints "usage: <prog> [-V] [-s] <args>", the -V, -s and --help lines and
 * the tool's own option lines (may be ""), and exits 1 (on standard error);
 * asked for with --help it prints to standard output and exits 0. */
void tool_usage(const char *args, const char *options);

/* Parses the command line: --help calls usage, -V (or --version) prints the
 * library version and exits 0, -s sets *mode to BDB_SHARED (it starts
 * BDB_PRIVATE), the letters of `own` (getopt syntax) go to on_option (which
 * returns 0 when it took the option). Anything else, or not exactly nargs
 * arguments left, calls usage. Returns the arguments. */
char **tool_args(int argc, char **argv, int nargs, const char *own, int (*on_option)(int c, const char *arg),
                 int *mode, void (*usage)(void));

/* Prints "<call> failed: 0x<code> <message>" on stderr. */
void tool_fail(const char *call, uint32_t code);

/* The tools' error handler: the library's own reports (the failing step and,
 * for a damaged file, its page) on stderr. */
void tool_print_report(bdb_handle *h, const char *name, const char *syserr, int sys_errno, const char *message,
                       uint32_t code, const char *context);

/* Opens path with the tools' error handler; on failure reports it and
 * returns NULL. */
bdb_handle *tool_open(const char *path, int flags, int mode);

/* In shared mode other processes may change the tree: holds the database
 * mutex until bdb_close, so that a walk sees one state (a private read-only
 * open already keeps writers out with its file lock). 0, or 1 after closing
 * the handle and reporting the failure. */
int tool_hold(bdb_handle *h, int mode);

#endif
