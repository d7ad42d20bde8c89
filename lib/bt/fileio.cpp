// The file I/O seam and the transfer loops built on it.
#include "fileio.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace varlo {

namespace {

int sys_open(const char *path, int flags, mode_t mode) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int sys_lock(int fd, int cmd, struct flock *fl) { return ::fcntl(fd, cmd, fl); }

void *sys_map(int fd, size_t len, off_t off, bool writable) {
    void *p = ::mmap(nullptr, len, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, off);
    return p == MAP_FAILED ? nullptr : p;
}

int sys_fstat(int fd, struct stat *st) { return ::fstat(fd, st); }

int sys_start_writeback(int fd, off_t off, off_t len) {
#ifdef SYNC_FILE_RANGE_WRITE
    return ::sync_file_range(fd, off, len, SYNC_FILE_RANGE_WRITE);
#else
    (void)fd, (void)off, (void)len;
    return 0;
#endif
}

constexpr SysIo kSystem = {sys_open,  ::close,   ::pread,   ::pwrite, ::fsync, ::ftruncate,
                           sys_fstat, ::unlink, sys_start_writeback, sys_lock, sys_map, ::munmap};

}  // namespace

SysIo sysio = kSystem;

void sysio_reset() { sysio = kSystem; }

bool mapped_reads() { return sysio.pread == kSystem.pread; }

int read_full(int fd, void *buf, size_t n, off_t off) {
    auto *p = static_cast<uint8_t *>(buf);
    while (n > 0) {
        ssize_t r = sysio.pread(fd, p, n, off);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r == 0) errno = EIO;
            return -1;
        }
        p += r;
        off += r;
        n -= static_cast<size_t>(r);
    }
    return 0;
}

int write_full(int fd, const void *buf, size_t n, off_t off) {
    auto *p = static_cast<const uint8_t *>(buf);
    while (n > 0) {
        ssize_t w = sysio.pwrite(fd, p, n, off);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            if (w == 0) errno = ENOSPC;
            return -1;
        }
        p += w;
        off += w;
        n -= static_cast<size_t>(w);
    }
    return 0;
}

int sync_parent_dir(const char *path) {
    std::string dir(path);
    const size_t slash = dir.rfind('/');
    dir = slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
    int fd = sysio.open(dir.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (fd < 0) return -1;
    int r = sysio.fsync(fd);
    const int saved = errno;
    sysio.close(fd);
    errno = saved;
    return r;
}

}  // namespace varlo
