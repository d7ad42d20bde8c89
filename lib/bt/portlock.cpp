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
//    user holds it;
//  - private readers and shared-mode writers both take it shared, so each
//    also marks a byte of its own past the file's end (lock_role): a private
//    read-only handle keeps every writer out.
#include <cerrno>
#include <fcntl.h>

#include "bdb_int.h"

using namespace varlo;

namespace {

// One record-lock call through the file I/O seam, continued after EINTR;
// *held (F_OFD_GETLK) receives the type of a lock another file holds there.
int lock_range(int fd, int cmd, short type, off_t start, off_t len, short *held = nullptr) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = start;
    fl.l_len = len;
    fl.l_pid = 0;
    int r;
    do {
        r = sysio.lock(fd, cmd, &fl);
    } while (r < 0 && errno == EINTR);
    if (held) *held = fl.l_type;
    return r;
}

int set_lock(int fd, short type) { return lock_range(fd, F_OFD_SETLK, type, 0, BDB_PGSIZE); }

// Two bytes past the largest possible file mark the two kinds of user that
// must not meet although each shares the meta page lock with its own kind:
// private read-only handles and shared-mode handles that may write.
constexpr off_t kWriterMark = static_cast<off_t>(BDB_MAXPAGES) * BDB_PGSIZE;
constexpr off_t kReaderMark = kWriterMark + 1;

int mark_lock(int fd, short type, off_t at) { return lock_range(fd, F_OFD_SETLK, type, at, 1); }

// Does another open file hold any lock on the byte?
bool byte_held(int fd, off_t at) {
    short held = F_UNLCK;
    return lock_range(fd, F_OFD_GETLK, F_WRLCK, at, 1, &held) < 0 || held != F_UNLCK;
}

}  // namespace

namespace varlo {

// Each kind first marks its own byte, then looks at the other kind's: of two
// openers racing, at least the later one sees the other's mark, so the two
// kinds never hold the file together (both may fail, which is safe).
int lock_role(int fd, bool private_reader) {
    const off_t own = private_reader ? kReaderMark : kWriterMark;
    if (mark_lock(fd, F_RDLCK, own) < 0) return -1;
    if (!byte_held(fd, private_reader ? kWriterMark : kReaderMark)) return 0;
    mark_lock(fd, F_UNLCK, own);
    return -1;
}

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
        const bool reader = h->flags & BDB_F_RDONLY;
        if (set_lock(h->fd, reader ? F_RDLCK : F_WRLCK) < 0) {
            h->error = BDB_E_IO;
            return -1;
        }
        if (reader && lock_role(h->fd, true) < 0) {
            set_lock(h->fd, F_UNLCK);
            h->error = BDB_E_SHARE;
            return -1;
        }
        h->flags |= BDB_F_LOCKED;
        return 0;
    }
    if (!(h->flags & BDB_F_LOCKED)) {
        h->error = BDB_E_NOTLOCKED;
        return -1;
    }
    if (lock_range(h->fd, F_OFD_SETLK, F_UNLCK, kWriterMark, 2) < 0 || set_lock(h->fd, F_UNLCK) < 0) {
        h->error = BDB_E_IO;
        return -1;
    }
    h->flags &= ~BDB_F_LOCKED;
    return 0;
}
