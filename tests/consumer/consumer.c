/* A program written for ndbm, built against an installed varlo with nothing
 * but its include path and -lvarlo (and, as c_api_test, against the build's
 * shared library as pedantic C99): stores a record in NAME.db, reads it back
 * and prints the library version (from bdb.h). */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <bdb.h>
#include <ndbm.h>

int main(int argc, char **argv) {
    char key[] = "hello", val[] = "world";
    datum k = {key, 5}, v = {val, 5}, got;
    DBM *db;
    int ok;
    if (argc != 2 || !(db = dbm_open(argv[1], O_RDWR | O_CREAT, 0644))) return 1;
    got = dbm_store(db, k, v, DBM_REPLACE) == 0 ? dbm_fetch(db, k) : k;
    ok = got.dsize == 5 && memcmp(got.dptr, "world", 5) == 0 && !dbm_error(db);
    dbm_close(db);
    printf("varlo %s: %s\n", VARLO_VERSION_STRING, ok ? "ok" : "FAILED");
    return !ok;
}
