// The file lock: the one place in the library that locks a database file.
//
// The lock covers the meta page (bytes 0 to 8191). It is a record lock of the
// open file description (F_OFD_SETLK), taken without waiting:
//  - a read-write handle takes it exclusively, a read-only handle shares it
//    with other readers, so a private read-only open works on a file the
//    user may only read and still keeps writers of other processes out;
//  - it belongs to the handle's own open file, so a second private open of
//    the database in the same process is refused as well, and closing some
//    other descriptor of the file does not drop it;
//  - every opener takes it: shared-mode users share it, so a private opener
//    elsewhere is kept out, and a shared opener is kept out while a private
//    user holds it.
#include <cerrno>
#include <fcntl.h>


#include "bdb_int.h"

using namespace varlo;

namespace {

int set_lock(int fd, short type) { return sysio.lock(fd, type); }

}  // namespace

namespace varlo {

// The file lock of a handle that does not record it in BDB_F_LOCKED: shared
// users take it shared, a private thread group (whose bdb_lock is its mutex)
// takes it like a private handle. It goes with the descriptor's last close.
int lock_file(int fd, bool exclusive) { return set_lock(fd, exclusive ? F_WRLCK : F_RDLCK); }

}  // namespace varlo

extern "C" int btree_lockf(bdb_handle *h, int op, int kind) {
    (void)kind;
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (op == BDB_LOCK) {
        if (h->flags & BDB_F_LOCKED) {
            h->error = BDB_E_LOCKED;
            return -1;
        }
        if (set_lock(h->fd, (h->flags & BDB_F_RDONLY) ? F_RDLCK : F_WRLCK) < 0) {
            h->error = BDB_E_IO;
            return -1;
        }
        h->flags |= BDB_F_LOCKED;
        return 0;
    }
    if (!(h->flags & BDB_F_LOCKED)) {
        h->error = BDB_E_NOTLOCKED;
        return -1;
    }
    if (set_lock(h->fd, F_UNLCK) < 0) {
        h->error = BDB_E_IO;
        return -1;
    }
    h->flags &= ~BDB_F_LOCKED;
    return 0;
}
