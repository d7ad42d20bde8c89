/* The public header compiled as plain C99 and used through the shared
 * library: create and open a private database in the directory given as the
 * first argument, store and read back a record, print an error text, close.
 * Exits 0 when every step behaves. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bdb.h"

static int failures = 0;

#define CHECK(cond)                                                      \
    do {                                                                 \
        if (!(cond)) {                                                   \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                  \
        }                                                                \
    } while (0)

static int reports = 0;

static void count_reports(bdb_handle *h, const char *name, const char *syserr, int sys_errno, const char *message,
                          uint32_t code, const char *context) {
    (void)h;
    (void)name;
    (void)syserr;
    (void)sys_errno;
    (void)message;
    (void)code;
    (void)context;
    ++reports;
}

int main(int argc, char **argv) {
    char path[1024];
    uint32_t err = 0;
    bdb_options opts;
    bdb_handle *h;
    bdb_datum key, val, out;
    char kbuf[] = "c-key";
    char vbuf[] = "a value from C";

    if (argc < 2) {
        fprintf(stderr, "usage: %s writable-dir\n", argv[0]);
        return 2;
    }
    snprintf(path, sizeof path, "%s/c_api_test.db", argv[1]);
    remove(path);

    CHECK(bdb_create(path, BDB_PRIVATE, &err) == 0);
    CHECK(err == 0);
    CHECK(bdb_create(path, BDB_PRIVATE, &err) == -1);
    CHECK(err == BDB_E_EXISTS);

    opts.cache_size = 0;
    opts.compare = NULL;
    opts.errhandler = count_reports;
    h = bdb_open(path, 0, BDB_RDWR, BDB_PRIVATE, &opts, 0, &err);
    CHECK(h != NULL);
    if (!h) return 1;

    key.ptr = kbuf;
    key.len = (uint32_t)strlen(kbuf);
    val.ptr = vbuf;
    val.len = (uint32_t)strlen(vbuf);
    CHECK(bdb_put(h, &key, &val) == 0);

    out.ptr = NULL;
    out.len = 0;
    CHECK(bdb_get(h, &key, &out) == 0);
    CHECK(out.len == val.len);
    CHECK(out.ptr != NULL && memcmp(out.ptr, vbuf, val.len) == 0 && ((char *)out.ptr)[out.len] == '\0');
    free(out.ptr);

    key.ptr = "absent";
    key.len = 6;
    CHECK(bdb_get(h, &key, &out) == -1);
    CHECK(bdb_error(h) == BDB_E_NOTFOUND);
    printf("absent key: %s\n", bdbstrerr(bdb_error(h)));
    CHECK(strcmp(bdbstrerr(bdb_error(h)), "Key not found") == 0);
    CHECK(strcmp(bdbstrerr(0), bdb_errorid[0]) == 0);
    CHECK(reports == 0);

    CHECK(strcmp(bdb_get_dbname(h), path) == 0);
    CHECK(bdb_close(h) == 0);

    errno = 0;
    CHECK(bdb_close(NULL) == -1);
    CHECK(errno == EINVAL);
    CHECK(bdb_error(NULL) == BDB_E_PARAM);

    /* The record survives the close. */
    h = bdb_open(path, 0, BDB_RDONLY, BDB_PRIVATE, NULL, 0, &err);
    CHECK(h != NULL);
    if (h) {
        key.ptr = kbuf;
        key.len = (uint32_t)strlen(kbuf);
        CHECK(bdb_get(h, &key, &out) == 0);
        CHECK(out.len == val.len && out.ptr && memcmp(out.ptr, vbuf, val.len) == 0);
        free(out.ptr);
        CHECK(bdb_close(h) == 0);
    }
    remove(path);
    return failures ? 1 : 0;
}
