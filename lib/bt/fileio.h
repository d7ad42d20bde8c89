// The file I/O seam: every system call that the library makes on a database
// file or on its meta log goes through `sysio`, so that tests can fail any
// call or simulate a crash. Production code uses the system calls as they are.
#ifndef VARLO_FILEIO_H
#define VARLO_FILEIO_H

#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace varlo {

struct SysIo {
    int (*open)(const char *path, int flags, mode_t mode);
    int (*close)(int fd);
    ssize_t (*pread)(int fd, void *buf, size_t n, off_t off);
    ssize_t (*pwrite)(int fd, const void *buf, size_t n, off_t off);
    int (*fsync)(int fd);
    int (*ftruncate)(int fd, off_t len);
    int (*fstat)(int fd, struct stat *st);
    int (*unlink)(const char *path);
    // Starts writing len bytes at off to the disk without waiting (a hint:
    // the fsync that follows finds less to do). 0 or -1.
    int (*start_writeback)(int fd, off_t off, off_t len);
    // A record-lock call on the open file description (fcntl with
    // F_OFD_SETLK, which never waits, or F_OFD_GETLK).
    int (*lock)(int fd, int cmd, struct flock *fl);
    // A shared read-write (or read-only) mapping of len bytes at off; null
    // on failure.
    void *(*map)(int fd, size_t len, off_t off, bool writable);
    int (*unmap)(void *addr, size_t len);
};
extern SysIo sysio;
// Puts the system calls back (tests call it after injecting faults).
void sysio_reset();

// Page reads may come from a read-only mapping of the file instead of a
// read call, but only while the seam's pread is the system's (a test that
// replaces it sees every read).
bool mapped_reads();

// Transfers of exactly n bytes at off, continued after EINTR and short
// counts: 0, or -1 with errno set (EIO for a read that meets the end of the
// file, ENOSPC for a write that makes no progress).
int read_full(int fd, void *buf, size_t n, off_t off);
int write_full(int fd, const void *buf, size_t n, off_t off);

// Makes a new name in the folder of path durable (fsync of the folder).
int sync_parent_dir(const char *path);

}  // namespace varlo

#endif  // VARLO_FILEIO_H
