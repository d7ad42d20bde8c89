/* The public header compiled as plain C99, calling a few functions through
 * the shared library. (Placeholder; completed by the error-reporting tests.) */
#include <stdio.h>
#include "bdb.h"
int main(void) { return bdbstrerr(0) == bdb_errorid[0] ? 0 : 1; }
