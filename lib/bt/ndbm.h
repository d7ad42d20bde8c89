/*
 * varlo's ndbm interface: the POSIX <ndbm.h> calls on top of a varlo
 * database. A program written for ndbm builds against it with a different
 * include path (installed as <prefix>/include/varlo/ndbm.h; `pkg-config
 * --cflags varlo` names that folder) and -lvarlo. It compiles as C99 and as
 * C++; every call is extern "C" and never throws.
 *
 * Files. dbm_open(NAME, ...) uses one file, NAME.db: a varlo database opened
 * in private mode. It exists from the moment the database is created, even
 * while it holds no record. A zero-length NAME.db is not a database: an open
 * without O_CREAT or O_TRUNC refuses it (errno EINVAL), one with either makes
 * it a new empty database (which also completes a creation that a crash
 * interrupted).
 *
 * Sharing. One handle with write access, or any number of read-only handles,
 * may have a database open at a time, in all processes together; an open
 * that would break this fails with errno EAGAIN. A handle is for one thread
 * at a time.
 *
 * Durability. Changes are kept in the handle's page cache and reach the file
 * at the latest with dbm_close, as with the ndbm layers of Berkeley DB and
 * gdbm; a process that ends without dbm_close may lose them.
 *
 * Limits: keys of 1 to 1024 bytes (others: dbm_store fails with EINVAL,
 * dbm_fetch and dbm_delete find nothing), values of any length below 4 GiB.
 */
#ifndef VARLO_NDBM_H
#define VARLO_NDBM_H

#include <stddef.h>
#include <sys/types.h> /* mode_t */

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* A key or value: dsize bytes at dptr. */
typedef struct {
    void *dptr;
    size_t dsize;
} datum;

/* An open database (opaque). */
typedef struct varlo_dbm DBM;

/* dbm_store modes. */
#define DBM_INSERT 0  /* refuse a key that is present (dbm_store returns 1) */
#define DBM_REPLACE 1 /* insert the key or overwrite its value */

/*
 * Opens the database NAME.db. open_flags as for open(2): O_RDONLY gives a
 * read-only handle, O_WRONLY and O_RDWR a read-write one; O_CREAT creates
 * the database when NAME.db does not exist, with the permission bits of
 * file_mode less the umask (file_mode is used only then); O_CREAT|O_EXCL
 * fails with EEXIST when it exists; O_TRUNC empties it (keeping the file's
 * owner and permissions). O_CREAT and O_TRUNC act whatever the access mode,
 * as they do for open(2). Other flags are ignored.
 *
 * Returns the handle, or NULL with errno set: ENOENT (no NAME.db and no
 * O_CREAT), EEXIST, EACCES, ENAMETOOLONG (NAME.db longer than 1023 bytes),
 * EINVAL (NAME.db is not a database: zero-length, too short, a bad size or
 * a bad magic number; or a NULL name), EAGAIN (the database is open
 * elsewhere, see Sharing above), ENOMEM, or the error of the failing system
 * call. A failed open leaves an existing database unchanged; a NAME.db that
 * it created but could not make a database of is removed again.
 */
DBM *dbm_open(const char *file, int open_flags, mode_t file_mode);

/* Writes the changes, closes the database and frees the handle (NULL: does
 * nothing). A failure to write is not reported: call nothing else after it. */
void dbm_close(DBM *db);

/*
 * The value of key, or {NULL, 0} when the key is absent (not an error:
 * dbm_error stays 0) or on an error (dbm_error set). An empty value comes
 * back as a non-NULL dptr with dsize 0. The bytes belong to the handle and
 * stay valid until the next dbm_fetch, or until dbm_close.
 */
datum dbm_fetch(DBM *db, datum key);

/*
 * Stores content under key. store_mode DBM_INSERT keeps an existing value
 * and returns 1; DBM_REPLACE overwrites it. Returns 0 when stored, 1 for a
 * refused insert, -1 on an error with dbm_error set and errno: EPERM
 * (read-only handle), EINVAL (key of 0 or more than 1024 bytes, a NULL dptr
 * with a nonzero size, a value of 4 GiB or more, or a bad store_mode),
 * ENOSPC (the file is full), EIO, ENOMEM. A failed store changes nothing.
 */
int dbm_store(DBM *db, datum key, datum content, int store_mode);

/* Deletes key. 0, or -1: the key is absent (dbm_error stays 0), or an error
 * (dbm_error set; EPERM for a read-only handle). */
int dbm_delete(DBM *db, datum key);

/*
 * The walk over the keys: dbm_firstkey gives the first key, each dbm_nextkey
 * the next one, and {NULL, 0} follows the last (or an error, with dbm_error
 * set). Every key comes exactly once, in ascending byte order, while the
 * database is not changed; deleting the key just returned does not disturb
 * the walk. The key's bytes belong to the handle and stay valid until the
 * next dbm_firstkey or dbm_nextkey, or until dbm_close.
 */
datum dbm_firstkey(DBM *db);
datum dbm_nextkey(DBM *db);

/* Nonzero when an error has occurred on the handle since it was opened or
 * since the last dbm_clearerr. A NULL handle counts as an error. */
int dbm_error(DBM *db);
/* Clears the error indicator. Returns 0. */
int dbm_clearerr(DBM *db);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif /* VARLO_NDBM_H */
