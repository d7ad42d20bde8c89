// Error codes, their texts and the reporting calls.
#include <cerrno>
#include <cstring>

#include "test_util.h"

namespace {

// The texts in code order, as callers see them.
const char *const kTexts[39] = {
    "VARLO error not defined",
    "Key not found",
    "Duplicate key found",
    "Key has been inserted on replace",
    "Read I/O error",
    "Write I/O error",
    "No memory available for operation",
    "Database already locked",
    "Unable to open database",
    "Share violation on open",
    "Can not write to a read only database",
    "General I/O error",
    "Database named does not exist in path specified",
    "Database named in path is not accessible",
    "Access to shared memory not allowed",
    "Shared memory segment already exists",
    "Shared memory segment not found",
    "Invalid size specified for shared memory segment",
    "No physical memory available to create shared memory segment",
    "Maximum number of shared id's exceeded",
    "Invalid shared memory handle",
    "Unknown shared memory error",
    "Access to semaphore not allowed",
    "Maximum number of semaphore id's exceeded",
    "No memory available for semaphore(s)",
    "Invalid semaphore handle",
    "Unknown semaphore error",
    "Unknown database type, not a valid VARLO database",
    "Database size not multiple of BDB_PGSIZE",
    "Bad magic number in meta data",
    "Invalid key size specified",
    "End of database reached",
    "No records found in database",
    "Database is full",
    "Invalid parameter",
    "General transaction logging error",
    "Database not previously locked",
    "Database already exists",
    "Could not create database",
};

TEST(ErrorText, EveryCodeHasItsText) {
    ASSERT_EQ(BDB_E_COUNT, 39u);
    for (uint32_t i = 0; i < 39; ++i) {
        SCOPED_TRACE("index " + std::to_string(i));
        EXPECT_STREQ(bdbstrerr(BDB_E_BASE + i), kTexts[i]);
        EXPECT_EQ(bdbstrerr(BDB_E_BASE + i), bdb_errorid[i]);
    }
    // A few names against their numbers, so that the header and the table
    // cannot drift apart.
    EXPECT_STREQ(bdbstrerr(BDB_E_NOTFOUND), "Key not found");
    EXPECT_STREQ(bdbstrerr(BDB_E_FULL), "Database is full");
    EXPECT_STREQ(bdbstrerr(BDB_E_PARAM), "Invalid parameter");
    EXPECT_STREQ(bdbstrerr(BDB_E_CREATE), "Could not create database");
    EXPECT_EQ(BDB_E_CREATE, 0x08000026u);
}

TEST(ErrorText, UnknownCodesGiveTheUndefinedText) {
    for (uint32_t code : {0u, 0xffffffffu, 0x07ffffffu, 0x08000027u, 0x08000100u, 0x80000000u}) {
        SCOPED_TRACE(code);
        EXPECT_STREQ(bdbstrerr(code), "VARLO error not defined");
    }
    EXPECT_STREQ(bdbstrerr(0x08000026u), "Could not create database");
    errno = 1234;
    (void)bdbstrerr(0x08000027u);
    EXPECT_EQ(errno, 1234);
}

TEST(ErrorCalls, NullHandle) {
    errno = EINVAL;
    EXPECT_EQ(bdb_error(nullptr), BDB_E_PARAM);
    errno = ENOMEM;
    EXPECT_EQ(bdb_error(nullptr), BDB_E_NOMEM);
    errno = ENOENT;
    EXPECT_EQ(bdb_error(nullptr), 0u);

    errno = 0;
    EXPECT_EQ(bdb_seterror(nullptr, BDB_E_FULL), static_cast<uint32_t>(-1));
    EXPECT_EQ(errno, EINVAL);

    errno = 0;
    EXPECT_EQ(bdb_errhandler(nullptr, vt::recording_handler), nullptr);
    EXPECT_EQ(errno, EINVAL);

    vt::reports().clear();
    bdb_errlog(nullptr, "nothing");  // must not crash or report
    EXPECT_TRUE(vt::reports().empty());
}

class ErrorHandle : public ::testing::Test {
protected:
    void SetUp() override {
        vt::reports().clear();
        path_ = dir_.file("db");
        h_ = vt::create_open(path_);
        ASSERT_NE(h_, nullptr);
    }
    void TearDown() override {
        if (h_) {
            EXPECT_EQ(bdb_close(h_), 0);
        }
    }
    vt::TempDir dir_;
    std::string path_;
    bdb_handle *h_ = nullptr;
};

TEST_F(ErrorHandle, SeterrorReturnsThePreviousCode) {
    EXPECT_EQ(bdb_error(h_), 0u);
    EXPECT_EQ(bdb_seterror(h_, BDB_E_FULL), 0u);
    EXPECT_EQ(bdb_error(h_), BDB_E_FULL);
    EXPECT_EQ(bdb_seterror(h_, BDB_E_EOF), BDB_E_FULL);
    EXPECT_EQ(bdb_seterror(h_, 0), BDB_E_EOF);
    EXPECT_EQ(bdb_error(h_), 0u);
}

TEST_F(ErrorHandle, ErrhandlerInstallsAndReturnsThePrevious) {
    // An open without options reports to the no-op handler, never to nobody.
    EXPECT_EQ(bdb_errhandler(h_, vt::recording_handler), &bdb_noop_handler);
    EXPECT_EQ(bdb_errhandler(h_, nullptr), &vt::recording_handler);
    bdb_seterror(h_, BDB_E_IO);
    bdb_errlog(h_, "silenced");
    EXPECT_TRUE(vt::reports().empty());
    EXPECT_EQ(bdb_errhandler(h_, vt::recording_handler), nullptr);
    bdb_errlog(h_, "heard");
    ASSERT_EQ(vt::reports().size(), 1u);
    EXPECT_EQ(vt::reports()[0].context, "heard");
}

// A handler that scribbles over errno: the report must not leak that.
void clobbering_handler(bdb_handle *h, const char *name, const char *syserr, int e, const char *msg, uint32_t code,
                        const char *ctx) {
    vt::recording_handler(h, name, syserr, e, msg, code, ctx);
    errno = EBADF;
}

TEST_F(ErrorHandle, ErrlogPassesSevenArgumentsAndChangesNothing) {
    bdb_errhandler(h_, clobbering_handler);
    bdb_seterror(h_, BDB_E_WRITE);
    errno = ENOSPC;
    bdb_errlog(h_, "db write");
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(bdb_error(h_), BDB_E_WRITE);
    ASSERT_EQ(vt::reports().size(), 1u);
    const vt::Report &r = vt::reports()[0];
    EXPECT_EQ(r.h, h_);
    EXPECT_EQ(r.name, path_);
    EXPECT_EQ(r.syserr, std::strerror(ENOSPC));
    EXPECT_EQ(r.sys_errno, ENOSPC);
    EXPECT_EQ(r.message, "Write I/O error");
    EXPECT_EQ(r.code, BDB_E_WRITE);
    EXPECT_EQ(r.context, "db write");

    // An unknown code is reported with the undefined text.
    bdb_seterror(h_, 0);
    errno = 0;
    bdb_errlog(h_, "none");
    ASSERT_EQ(vt::reports().size(), 2u);
    EXPECT_EQ(vt::reports()[1].message, "VARLO error not defined");
    EXPECT_EQ(vt::reports()[1].code, 0u);
    EXPECT_EQ(vt::reports()[1].sys_errno, 0);
}

TEST_F(ErrorHandle, ExpectedOutcomesOnlyLeaveTheirCode) {
    bdb_errhandler(h_, vt::recording_handler);
    ASSERT_EQ(vt::put(h_, "k", "v"), 0);
    EXPECT_FALSE(vt::get(h_, "absent", nullptr));
    EXPECT_EQ(bdb_error(h_), BDB_E_NOTFOUND);
    EXPECT_EQ(vt::put(h_, "k", "w"), -1);
    EXPECT_EQ(bdb_error(h_), BDB_E_DUPLICATE);
    EXPECT_TRUE(vt::reports().empty()) << "unexpected report: " << vt::last_context();
}

TEST(ErrorReports, OpenArgumentErrorsReportWithoutAHandle) {
    vt::TempDir dir;
    const std::string path = dir.file("db");
    ASSERT_EQ(bdb_create(path.c_str(), BDB_PRIVATE, nullptr), 0);
    bdb_options o{0, nullptr, vt::recording_handler};
    for (int flags : {0, 3}) {
        SCOPED_TRACE(flags);
        vt::reports().clear();
        uint32_t err = 0;
        errno = 0;
        EXPECT_EQ(bdb_open(path.c_str(), 0, flags, BDB_PRIVATE, &o, 0, &err), nullptr);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(err, BDB_E_PARAM);
        EXPECT_EQ(bdb_error(nullptr), BDB_E_PARAM);
        ASSERT_EQ(vt::reports().size(), 1u);
        const vt::Report &r = vt::reports()[0];
        EXPECT_EQ(r.h, nullptr);
        EXPECT_EQ(r.name, path);
        EXPECT_EQ(r.sys_errno, EINVAL);
        EXPECT_EQ(r.syserr, std::strerror(EINVAL));
        EXPECT_EQ(r.message, "Invalid parameter");
        EXPECT_EQ(r.code, BDB_E_PARAM);
        EXPECT_EQ(r.context, "Bad flags parameter");
    }
    // A file too short to be a database is reported once with its code.
    const std::string shortf = dir.file("short");
    FILE *f = std::fopen(shortf.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("not a database", f);
    std::fclose(f);
    vt::reports().clear();
    uint32_t err = 0;
    EXPECT_EQ(bdb_open(shortf.c_str(), 0, BDB_RDWR, BDB_PRIVATE, &o, 0, &err), nullptr);
    EXPECT_EQ(err, BDB_E_DBTYPE);
    ASSERT_EQ(vt::reports().size(), 1u);
    EXPECT_EQ(vt::reports()[0].code, BDB_E_DBTYPE);
    EXPECT_EQ(vt::reports()[0].context, "meta size");
    EXPECT_EQ(vt::reports()[0].name, shortf);
}

}  // namespace
