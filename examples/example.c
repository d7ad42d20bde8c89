#include <stdio.h>
#include "bdb.h"
int main(void) {
    for (unsigned i = 0; i < BDB_E_COUNT; ++i) printf("0x%08x %s\n", BDB_E_BASE + i, bdbstrerr(BDB_E_BASE + i));
    return 0;
}
