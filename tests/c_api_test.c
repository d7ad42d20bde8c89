// The public header compiled as plain C99 and used through the shared
// library: create and open a private database in the directory given as the
// first argument, store and read back a record, print an error text, close,
// and read the record again read-only. Exits 0 when every step behaves.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "bdb.h"

static int failures = 0;
#define CHECK(cond) \
    ((cond) ? (void)0 : (void)(fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), ++failures))

int main(int argc, char **argv) {
    char path[1024], kbuf[] = "c-key", vbuf[] = "a value from C";
    uint32_t err = 0;
    int pass;
    bdb_datum key, val, out = {NULL, 0};
    bdb_handle *h;
    if (argc < 2) return 2;
    snprintf(path, sizeof path, "%s/c_api_test.db", argv[1]);
    remove(path);
    CHECK(bdb_create(path, BDB_PRIVATE, &err) == 0 && err == 0);
    key.ptr = kbuf, key.len = (uint32_t)strlen(kbuf), val.ptr = vbuf, val.len = (uint32_t)strlen(vbuf);
    for (pass = 0; pass < 2; ++pass) {
        h = bdb_open(path, 0, pass ? BDB_RDONLY : BDB_RDWR, BDB_PRIVATE, NULL, 0, &err);
        CHECK(h != NULL);
        if (!h) return 1;
        if (!pass) CHECK(bdb_put(h, &key, &val) == 0);
        CHECK(bdb_get(h, &key, &out) == 0 && out.len == val.len && out.ptr && memcmp(out.ptr, vbuf, val.len) == 0 &&
              ((char *)out.ptr)[out.len] == '\0');
        free(out.ptr);
        CHECK(bdb_put(h, &key, &val) == -1);
        printf("second put: %s\n", bdbstrerr(bdb_error(h)));
        CHECK(strcmp(bdbstrerr(bdb_error(h)), pass ? bdb_errorid[10] : "Duplicate key found") == 0);
        CHECK(bdb_close(h) == 0);
    }
    remove(path);
    return failures ? 1 : 0;
}
