/*
 * varlo_load: stores the records of a dump written by varlo_dump.
 *
 *   varlo_load [-V] [-s] [-n] [-f FILE] DB
 *
 * Reads the dump from FILE, or from standard input without -f. The whole
 * dump is checked first: a wrong header, a malformed line, a key outside
 * 1..1024 bytes, a missing trailer, a trailer whose count disagrees with the
 * record lines, or anything after the trailer refuses the dump with a message
 * naming the line, exit status 1, and nothing created or written.
 *
 * Then DB is created when it does not exist (bdb_create), opened read-write
 * (private mode, or shared mode with -s) and every record is stored with
 * bdb_replace: loading into an existing database overwrites the values of
 * keys it already holds and keeps its other records. With -n an existing DB
 * is refused instead (exit 1, left alone). The database is synced and closed
 * at the end.
 *
 * Should storing fail midway (a full file, an I/O error), a database created
 * by this run is removed; an existing one keeps the records stored so far.
 *
 * Standard input that cannot be read twice (a pipe) is copied to a temporary
 * file while it is checked.
 *
 * When standard error is a terminal and storing takes longer than a second,
 * a progress line ("N of M records (P%)") is kept up to date there.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "bdb.h"
#include "tool_common.h"

const char *tool_prog = "varlo_load";

static const char *inpath; /* -f */
static int no_existing;    /* -n */

static int option(int c, const char *arg) {
    if (c == 'n')
        no_existing = 1;
    else if (c == 'f')
        inpath = arg;
    else
        return -1;
    return 0;
}

static void usage(void) { tool_usage("[-n] [-f FILE] DB", "  -n       refuse to load into an existing database\n  -f FILE  read the dump from FILE (default: standard input)\n"); }

/* The progress line: shown from one second into storing on, at most four
 * times a second, and only on a terminal. */
static struct {
    int on, shown;
    unsigned long long total;
    struct timespec start, last;
} prog;

static double seconds_since(const struct timespec *t, const struct timespec *now) {
    return (double)(now->tv_sec - t->tv_sec) + (double)(now->tv_nsec - t->tv_nsec) / 1e9;
}

/* Called after each record stored (done of prog.total), and with last set
 * when storing ends, well or not. */
static void progress(unsigned long long done, int last) {
    struct timespec now;
    if (!prog.on || (!last && done % 512 != 0) || (last && !prog.shown)) return;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (!last && seconds_since(prog.shown ? &prog.last : &prog.start, &now) < (prog.shown ? 0.25 : 1.0)) return;
    fprintf(stderr, "\r%s: %llu of %llu records (%llu%%)%s", tool_prog, done, prog.total,
            prog.total ? done * 100 / prog.total : 100, last ? "\n" : "");
    prog.shown = 1;
    prog.last = now;
}

/* The value of a hex digit, or -1. */
static int digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/* Decodes n hex digits (n even, all valid) in place: byte i lands at p[i]. */
static void unhex(char *p, size_t n) {
    size_t i;
    for (i = 0; i < n / 2; ++i) p[i] = (char)(digit(p[2 * i]) << 4 | digit(p[2 * i + 1]));
}

static int all_hex(const char *p, size_t n) {
    size_t i;
    for (i = 0; i < n; ++i)
        if (digit(p[i]) < 0) return 0;
    return 1;
}

/* A strict decimal count: digits only, no overflow. */
static int parse_count(const char *p, unsigned long long *out) {
    unsigned long long v = 0;
    if (!*p) return -1;
    for (; *p; ++p) {
        if (*p < '0' || *p > '9') return -1;
        if (v > (~0ULL - 9) / 10) return -1;
        v = v * 10 + (unsigned long long)(*p - '0');
    }
    *out = v;
    return 0;
}

struct reader {
    FILE *in;
    FILE *copy; /* receives every byte read (first pass over a pipe), or NULL */
    const char *src;
    char *line;
    size_t cap;
    unsigned long lineno;
};

enum { LINE_OK = 0, LINE_EOF = 1, LINE_ERR = -1 };

/* Reads one whole line without its newline. LINE_EOF at the end of input;
 * LINE_ERR (reported) for a read error or a last line without a newline. */
static int next_line(struct reader *r, size_t *len) {
    ssize_t n;
    errno = 0;
    n = getline(&r->line, &r->cap, r->in);
    if (n < 0) {
        if (ferror(r->in)) {
            fprintf(stderr, "%s: read failed: %s\n", r->src, strerror(errno ? errno : EIO));
            return LINE_ERR;
        }
        return LINE_EOF;
    }
    ++r->lineno;
    if (r->copy && fwrite(r->line, 1, (size_t)n, r->copy) != (size_t)n) {
        fprintf(stderr, "%s: write to a temporary file failed: %s\n", r->src, strerror(errno));
        return LINE_ERR;
    }
    if (r->line[n - 1] != '\n') {
        fprintf(stderr, "%s:%lu: truncated dump: the last line is incomplete\n", r->src, r->lineno);
        return LINE_ERR;
    }
    r->line[--n] = '\0';
    *len = (size_t)n;
    return LINE_OK;
}

/*
 * Reads the whole dump. Without a handle it only checks it; with one it
 * stores every record. Returns 0 with *count the records, -1 for a bad dump
 * or a read error (reported), -2 when storing failed (reported).
 */
static int scan(struct reader *r, bdb_handle *h, unsigned long long *count) {
    unsigned long long n = 0, trailer = 0;
    size_t len;
    int st;

    st = next_line(r, &len);
    if (st == LINE_EOF) {
        fprintf(stderr, "%s: empty input: not a varlo dump\n", r->src);
        return -1;
    }
    if (st != LINE_OK) return -1;
    if (strcmp(r->line, "VARLO-DUMP 1") != 0) {
        if (strncmp(r->line, "VARLO-DUMP ", 11) == 0)
            fprintf(stderr, "%s:1: unsupported dump version \"%s\" (this tool reads version 1)\n", r->src,
                    r->line + 11);
        else
            fprintf(stderr, "%s:1: not a varlo dump: wrong header line\n", r->src);
        return -1;
    }
    for (;;) {
        char *sp;
        size_t klen, vlen;
        unsigned long long vbytes;
        st = next_line(r, &len);
        if (st == LINE_EOF) {
            fprintf(stderr, "%s: truncated dump: no \"records=\" trailer after %llu records\n", r->src, n);
            return -1;
        }
        if (st != LINE_OK) return -1;
        if (strncmp(r->line, "records=", 8) == 0) {
            if (parse_count(r->line + 8, &trailer) < 0) {
                fprintf(stderr, "%s:%lu: bad trailer line\n", r->src, r->lineno);
                return -1;
            }
            break;
        }
        sp = memchr(r->line, ' ', len);
        if (!sp) {
            fprintf(stderr, "%s:%lu: bad record line: no space between key and value\n", r->src, r->lineno);
            return -1;
        }
        klen = (size_t)(sp - r->line);
        vlen = len - klen - 1;
        if (klen % 2 || vlen % 2 || !all_hex(r->line, klen) || !all_hex(sp + 1, vlen)) {
            fprintf(stderr, "%s:%lu: bad record line: not an even number of hex digits\n", r->src, r->lineno);
            return -1;
        }
        if (klen < 2 || klen > 2 * (size_t)BDB_MAXKEY) {
            fprintf(stderr, "%s:%lu: bad record line: key of %lu bytes (1 to %u allowed)\n", r->src, r->lineno,
                    (unsigned long)(klen / 2), (unsigned)BDB_MAXKEY);
            return -1;
        }
        vbytes = vlen / 2; /* 64-bit: a 32-bit size_t can never exceed the limit */
        if (vbytes > 0xffffffffULL) {
            fprintf(stderr, "%s:%lu: bad record line: value too long\n", r->src, r->lineno);
            return -1;
        }
        if (h) {
            bdb_datum key, val;
            unhex(r->line, klen);
            unhex(sp + 1, vlen);
            key.ptr = r->line;
            key.len = (uint32_t)(klen / 2);
            val.ptr = sp + 1;
            val.len = (uint32_t)(vlen / 2);
            if (bdb_replace(h, &key, &val) < 0) {
                progress(n, 1);
                fprintf(stderr, "%s:%lu: ", r->src, r->lineno);
                tool_fail("bdb_replace", bdb_error(h));
                return -2;
            }
        }
        ++n;
        if (h) progress(n, 0);
    }
    if (h) progress(n, 1);
    st = next_line(r, &len);
    if (st == LINE_OK) {
        fprintf(stderr, "%s:%lu: data after the trailer\n", r->src, r->lineno);
        return -1;
    }
    if (st != LINE_EOF) return -1;
    if (trailer != n) {
        fprintf(stderr, "%s: truncated dump: the trailer counts %llu records, the dump holds %llu\n", r->src,
                trailer, n);
        return -1;
    }
    *count = n;
    return 0;
}

int main(int argc, char **argv) {
    int mode, created = 0;
    int st, rc = 0;
    unsigned long long count = 0;
    const char *db;
    struct reader rd;
    struct stat sb;
    off_t start = 0;
    FILE *in = stdin, *copy = NULL;
    bdb_handle *h;

    const char *arg = tool_args(argc, argv, 1, "nf:", option, &mode, usage)[0];
    db = arg;
    memset(&rd, 0, sizeof rd);

    if (inpath && !(in = fopen(inpath, "r"))) {
        fprintf(stderr, "fopen %s failed: %s\n", inpath, strerror(errno));
        rc = 1;
        goto done;
    }
    /* First pass: check the whole dump. A regular file is read again from
     * where it started; anything else is copied aside. */
    if (fstat(fileno(in), &sb) == 0 && S_ISREG(sb.st_mode) && (start = ftello(in)) >= 0) {
        copy = NULL;
    } else if (!(copy = tmpfile())) {
        fprintf(stderr, "tmpfile failed: %s\n", strerror(errno));
        rc = 1;
        goto done;
    }
    rd.in = in;
    rd.copy = copy;
    rd.src = inpath ? inpath : "standard input";
    if (scan(&rd, NULL, &count) < 0) {
        fprintf(stderr, "%s: dump refused, nothing loaded\n", tool_prog);
        rc = 1;
        goto done;
    }
    if (copy) {
        if (fflush(copy) != 0 || fseeko(copy, 0, SEEK_SET) != 0) {
            fprintf(stderr, "temporary file failed: %s\n", strerror(errno));
            rc = 1;
            goto done;
        }
        rd.in = copy;
        rd.copy = NULL;
    } else if (fseeko(in, start, SEEK_SET) != 0) {
        fprintf(stderr, "seek %s failed: %s\n", rd.src, strerror(errno));
        rc = 1;
        goto done;
    }
    rd.lineno = 0;

    /* Second pass: store. */
    uint32_t err = 0;
    if (bdb_create(db, mode, &err) == 0) {
        created = 1;
    } else if (err != BDB_E_EXISTS || no_existing) {
        tool_fail("bdb_create", err);
        rc = 1;
        goto done;
    }
    h = tool_open(db, BDB_RDWR, mode);
    if (!h) {
        if (created) remove(db);
        rc = 1;
        goto done;
    }
    prog.on = isatty(STDERR_FILENO);
    prog.total = count;
    clock_gettime(CLOCK_MONOTONIC, &prog.start);
    st = scan(&rd, h, &count);
    if (st == 0 && bdb_sync(h) < 0) {
        tool_fail("bdb_sync", bdb_error(h));
        st = -2;
    }
    if (st != 0) {
        rc = 1;
        if (created) {
            /* Leave no half-loaded database behind. */
            if (mode == BDB_PRIVATE && bdb_destroy(h) == 0) h = NULL;
            if (h && bdb_close(h) == 0) h = NULL;
            remove(db);
        } else {
            fprintf(stderr, "%s: %s keeps the records stored before the failure\n", tool_prog, db);
        }
    }
    if (h && bdb_close(h) < 0) {
        tool_fail("bdb_close", bdb_error(h));
        rc = 1;
    }
done:
    free(rd.line);
    if (copy) fclose(copy);
    if (inpath && in) fclose(in);
    return rc;
}
