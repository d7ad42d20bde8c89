// Error codes, their texts and the reporting calls.
#include <cerrno>
#include <tuple>

#include "test_util.h"

namespace {

const char *const kTexts[39] = {
    "VARLO error not defined", "Key not found", "Duplicate key found", "Key has been inserted on replace",
    "Read I/O error", "Write I/O error", "No memory available for operation", "Database already locked",
    "Unable to open database", "Share violation on open", "Can not write to a read only database", "General I/O error",
    "Database named does not exist in path specified", "Database named in path is not accessible",
    "Access to shared memory not allowed", "Shared memory segment already exists", "Shared memory segment not found",
    "Invalid size specified for shared memory segment", "No physical memory available to create shared memory segment",
    "Maximum number of shared id's exceeded", "Invalid shared memory handle", "Unknown shared memory error",
    "Access to semaphore not allowed", "Maximum number of semaphore id's exceeded",
    "No memory available for semaphore(s)", "Invalid semaphore handle", "Unknown semaphore error",
    "Unknown database type, not a valid VARLO database", "Database size not multiple of BDB_PGSIZE",
    "Bad magic number in meta data", "Invalid key size specified", "End of database reached",
    "No records found in database", "Database is full", "Invalid parameter", "General transaction logging error",
    "Database not previously locked", "Database already exists", "Could not create database"};

TEST(Errors, EveryCodeHasItsTextAndUnknownCodesTheUndefinedOne) {
    for (uint32_t i = 0; i < 39; ++i) EXPECT_STREQ(bdbstrerr(BDB_E_BASE + i), kTexts[i]) << "index " << i;
    for (uint32_t code : {0u, 0xffffffffu, 0x07ffffffu, 0x08000027u}) EXPECT_STREQ(bdbstrerr(code), kTexts[0]);
}

TEST(Errors, ReportingCalls) {
    for (auto [e, want] : {std::pair{EINVAL, BDB_E_PARAM}, {ENOMEM, BDB_E_NOMEM}, {ENOENT, 0u}})
        EXPECT_EQ((errno = e, bdb_error(nullptr)), want) << "errno " << e;
    EXPECT_EQ((errno = 0, bdb_seterror(nullptr, BDB_E_FULL)), static_cast<uint32_t>(-1));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ((errno = 0, bdb_errhandler(nullptr, vt::recording_handler)), nullptr);
    EXPECT_EQ(errno, EINVAL);

    vt::TempDir dir;
    vt::reports().clear();
    bdb_handle *h = vt::create_open(dir.file("db"));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_errhandler(h, nullptr), &bdb_noop_handler) << "an open without options gets the no-op handler";
    bdb_errlog(h, "silenced");
    // A handler that changes errno: the caller's errno must survive it.
    auto clobber = [](bdb_handle *a, const char *b, const char *c, int d, const char *e, uint32_t f, const char *g) {
        errno = EBADF, vt::recording_handler(a, b, c, d, e, f, g); };
    EXPECT_EQ(bdb_errhandler(h, clobber), nullptr);
    EXPECT_FALSE(vt::get(h, "absent", nullptr)) << "an expected outcome leaves its code and reports nothing";
    EXPECT_EQ(bdb_seterror(h, BDB_E_WRITE), BDB_E_NOTFOUND);
    errno = EIO;
    bdb_errlog(h, "db write");
    bdb_errlog(nullptr, "nothing");
    ASSERT_EQ(vt::reports().size(), 1u);
    const vt::Report &r = vt::reports()[0];
    EXPECT_EQ(std::tie(errno, r.h, r.name, r.syserr, r.sys_errno, r.message, r.code, r.context),
              std::tuple(EIO, h, dir.file("db"), strerror(EIO), EIO, "Write I/O error", BDB_E_WRITE, "db write"));
    EXPECT_EQ(bdb_close(h), 0);
}

}  // namespace
