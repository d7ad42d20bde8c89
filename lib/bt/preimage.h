// Page pre-images: the images of pages about to change, kept so that the
// change can be undone. Two keepers share this module:
//
//  - The change journal, in memory, for one change of the tree engine. A
//    change that fails part way puts the images back, so every change is
//    whole or nothing.
//  - The meta log, on disk beside the database, for one sync interval. It
//    holds the image every page had at the last sync, written before the page
//    is changed in place; after a crash (or a process killed during a change
//    in shared mode) the images are put back and the file is again exactly
//    as the last sync left it.
//
// The module keeps images and says what it keeps; it calls nothing above the
// file I/O seam. Page storage reports pages to it (the hooks below), the
// engine runs journals and puts their images back, and open, sync and
// recovery drive the log.
//
// Everything here REQUIRES the database mutex (or a private handle used by
// one thread).
#ifndef VARLO_PREIMAGE_H
#define VARLO_PREIMAGE_H

#include <cstdint>
#include <span>
#include <vector>

#include "bdb_int.h"

namespace varlo {

// ---------------------------------------------------------------------------
// The change journal
// ---------------------------------------------------------------------------

// What one journal entry puts back, newest first:
//  - kImage: a tree page's image (the used part of the page; the free gap
//    reads as zero);
//  - kFresh: a page the change allocated (nothing to put back but a cache
//    record to drop);
//  - and, for changes that stay on one page, a note that undoes them without
//    a copy of the page: kInserted (the entry placed at slot `pos` goes
//    again, its long value's pages kept), kBytes (the `len` bytes at `off`
//    get their old content back: a value overwritten where it lies),
//    kRemoved (the entry `slot` comes back at slot `pos`, key and inline
//    value bytes in `bytes`, and the child before it becomes `off` again).
struct SavedPage {
    enum Kind : uint8_t { kImage, kFresh, kInserted, kBytes, kRemoved };
    Kind kind;
    uint32_t pgno;
    const uint8_t *bytes;  // kImage: kPageSize bytes; kBytes / kRemoved: the saved bytes
    int32_t pos;
    uint32_t off, len;
    bdb_slot slot;
};

// The journal of the change running on a handle. While it lives, page
// storage saves into it every tree page fetched for update (unless the
// engine notes its own undo), every page made or freed, the meta page before
// its first change, and the long-value runs released (their release is
// deferred so that a failed change can restore the records that use them).
// Memory is kept per thread between changes.
class ChangeJournal {
public:
    explicit ChangeJournal(bdb_handle *h);
    ~ChangeJournal();
    ChangeJournal(const ChangeJournal &) = delete;
    ChangeJournal &operator=(const ChangeJournal &) = delete;

    // False when the journal could not reserve its memory: nothing may change.
    bool ok() const { return ok_; }
    bdb_handle *handle() const { return h_; }

    bool save_page(const bdb_page *page, bool fresh);
    void save_meta();
    bool defer_run(uint32_t first, uint32_t n);
    // Notes (false: no memory, nothing noted).
    bool note_inserted(uint32_t pgno, int32_t slot);
    bool note_bytes(uint32_t pgno, const bdb_page *page, uint32_t off, uint32_t len);
    bool note_removed(uint32_t pgno, const bdb_page *page, int32_t slot, uint32_t child_before);
    // Forgets the newest entry (its change did not happen after all).
    void drop_newest() { --npages_; }
    // Pages held for update during the change (their update mark keeps the
    // cache from taking them); the owner clears the marks left at its end.
    bool pin(uint32_t pgno);
    std::span<const uint32_t> pins() const { return {pins_, npins_}; }

    // What was saved, newest first, for putting back.
    uint32_t page_count() const { return npages_; }
    SavedPage page(uint32_t newest_first) const;
    const uint8_t *meta_image() const { return meta_saved_ ? meta_ : nullptr; }
    std::span<const uint32_t[2]> deferred_runs() const { return {runs_, nruns_}; }

    // Stops collecting while the owner puts images back or releases runs
    // (those calls pass through the hooks too), and starts afresh after.
    void pause();
    void resume_empty();

private:
    bool add(const SavedPage &e, const void *bytes, uint32_t n);

    bdb_handle *h_;
    ChangeJournal *prev_;
    bool ok_ = false;
    bool borrowed_ = false;
    bool meta_saved_ = false;
    uint8_t *meta_ = nullptr;
    uint8_t *images_ = nullptr;  // page images, kPageSize each
    uint32_t cap_images_ = 0, nimages_ = 0;
    uint8_t *arena_ = nullptr;  // bytes of the notes
    uint32_t cap_arena_ = 0, narena_ = 0;
    struct Entry {
        SavedPage e;  // e.bytes is unset: `at` says where they are
        uint32_t at;  // kImage: index in images_; kBytes / kRemoved: offset in arena_
    };
    Entry *pages_ = nullptr;
    uint32_t cap_pages_ = 0, npages_ = 0;
    uint32_t (*runs_)[2] = nullptr;
    uint32_t cap_runs_ = 0, nruns_ = 0;
    uint32_t *pins_ = nullptr;
    uint32_t cap_pins_ = 0, npins_ = 0;
};

// The journal running on h, or null.
ChangeJournal *journal_of(const bdb_handle *h);

// Hooks for page storage; they do nothing when no journal runs on h.
// journal_page_touched is false (BDB_E_NOMEM in the handle) when the image
// cannot be kept: the caller then must not change the page.
bool journal_page_touched(bdb_handle *h, const bdb_page *page, bool fresh);
void journal_meta_touched(bdb_handle *h);
// True when the release of the run was deferred to the end of the change.
bool journal_defer_run(bdb_handle *h, uint32_t first, uint32_t n);
// A page just held for update (or made): its mark is cleared at the end of
// the change if nothing committed it.
void journal_pinned(bdb_handle *h, uint32_t pgno);

// ---------------------------------------------------------------------------
// The meta log
// ---------------------------------------------------------------------------
//
// One log file per database, named after it: the database path followed by
// kLogSuffix. All users of the database (the processes of shared mode, the
// threads of a thread group) write the one log under the database mutex.
//
//   offset  size     content
//        0  4096     header slot 0 } the slot with the higher epoch and a
//     4096  4096     header slot 1 } valid checksum is the log's header
//     8192  ~256 K   control block of the users in shared mode (mapped, not
//                    persistent: the first user of a session rewrites it)
//  kLogRecords ...   records of the current interval, one after another
//
// Header (little-endian): magic "VARLOLOG", version, the writer's byte order
// (0x01020304 in its own order), epoch (the interval's number), the file's
// length in pages, a hash of its meta page
// (as it stands in the file) and its first word (as it stands, which tells
// the file's byte order) at the last sync, checksum.
//
// Record: a 32-byte header (little-endian: magic, length of the back-out
// record, epoch, sequence number from 1, flags, checksum over the header and
// the back-out record) followed by the back-out record as bdb_backout_old
// takes it: the page number in the writer's byte order, then the page's
// image as it stands in the file (the meta page: 8192 bytes in the writer's
// order). A tree page's image may be stored compact (flag 1): its header and
// slots, then its entries, without the free gap between; reading the
// record gives the whole page back.
// A sync appends one more record before it writes the file, its intent: page
// number 0xffffffff, the hash of the meta page it writes and the length.
// Recovery applies the records of the header's epoch in order up to the
// first that does not check; since a page is written in place only after
// its record is durable, no later record can matter.

inline constexpr char kLogSuffix[] = "-log";
inline constexpr uint32_t kLogRecordHeader = 32;

// What a scan of the log finds.
struct LogScan {
    bool valid_header = false;  // false: no usable header (a log never set up)
    uint64_t epoch = 0;         // the interval the records belong to
    uint32_t synced_pages = 0;  // the file's length at the last sync
    uint64_t meta_hash = 0;     // hash of the meta page at the last sync
    bool foreign_order = false; // written by a machine of the other byte order
    bool file_swapped = false;  // the database is in the other byte order than this machine's
    bool has_intent = false;    // a sync had begun writing the file
    uint64_t intent_hash = 0;   // hash of the meta page that sync was writing
    struct Rec {
        uint32_t pgno;
        uint64_t off;   // offset of the back-out record in the log
        uint32_t len;   // its length as stored
        bool compact;   // a tree page stored without its free gap
    };
    std::vector<Rec> records;  // records of the current interval, in order
};

// True when the handle writes a meta log: a read-write user of a file whose
// log session has begun. Read-only private handles, bdb_create's handle and
// a handle in the middle of recovery write none.
bool metalog_active(const bdb_handle *h);
// Ends the session (recovery is about to put the last sync back).
void metalog_stop(bdb_handle *h);

// Opens the log of h's database and sets h->mlog. `first`: nobody else uses
// the database now (the file lock or the shared area says so); the caller
// then scans the log, recovers what it finds and starts the session with
// metalog_begin, and a missing log is created. `writable`: the handle may
// write (otherwise the log is opened read-only). `shared`: users in other
// processes share the control block (mapped from the log file). 0, or -1
// with a code in the handle (BDB_E_OPEN, BDB_E_IO, BDB_E_NOMEM).
int metalog_open(bdb_handle *h, bool first, bool writable, bool shared);
// Closes h's log (unmaps or frees the control block). Safe without a log.
void metalog_close(bdb_handle *h);
// Reads the log of h's database through h's log, or, when h has none, by
// name read-only: the header and the records of its interval, each checked.
// 0 (no log file at all gives an empty scan), or -1 with a code (BDB_E_OPEN,
// BDB_E_NOMEM). A record that does not check ends the scan.
int metalog_scan(bdb_handle *h, LogScan *scan);
// Reads one back-out record of a scan into buf (room for 4 + kPageSize
// bytes): a whole page image, converted to the machine's order where the
// writer's order differs; the record's length is then 4 + kPageSize (or
// rec.len for an intent). 0 or -1.
int metalog_read(bdb_handle *h, const LogScan &scan, const LogScan::Rec &rec, void *buf);
// Starts the session of the database's first user, after any recovery: the
// file as it stands (meta page image in file order, length in pages) is the
// synced state. The header is rewritten (durably) only when it does not say
// exactly that. 0 or -1 (BDB_E_IO).
int metalog_begin(bdb_handle *h, const LogScan &scan, const void *meta_file_image, uint32_t pages);
// The commit point of a sync, once the file is durable: a new interval
// begins with the state given (a null image: the meta page was not written). Nothing is written when the interval logged
// nothing and the state is unchanged. 0 or -1 (BDB_E_IO, "meta log
// commit"): the interval goes on, and its records still describe the last
// sync.
int metalog_commit(bdb_handle *h, const void *meta_file_image, uint32_t pages);
// Records written in the current interval, and the file's length in pages
// at the last sync.
uint32_t metalog_records(const bdb_handle *h);
uint32_t metalog_synced_pages(const bdb_handle *h);

// Log points. The image is a tree page (kPageSize bytes) in the file's byte
// order, or the meta page copy in the machine's order. 0, or -1 with
// BDB_E_WRITE ("meta log write") when the record cannot be written: the page
// must not change then.
int metalog_log_page(bdb_handle *h, uint32_t pgno, const void *file_image);
int metalog_log_meta(bdb_handle *h);
// Pages [pgno, pgno + n) about to be used again or changed in place: those
// in use at the last sync whose image is not yet in the log are logged from
// the file (their log map bits are cleared). 0 or -1 (code set).
int metalog_take_pages(bdb_handle *h, uint32_t pgno, uint32_t n);
// Before nbytes are written in place from page pgno on: metalog_take_pages,
// then the records of the pages are made durable. 0 or -1 (code set).
int metalog_before_write(bdb_handle *h, uint32_t pgno, uint32_t nbytes);
// The write-behind buffer: dirty pages the cache gives up while their
// records are not yet durable wait there (in machine order) instead of
// costing an fsync each; the cache writes them out, all at once after one
// fsync of the log, when the buffer is full and at sync.
inline constexpr uint32_t kDeferPages = 64;
// True when pgno's record is not yet durable (its page may not be written).
bool metalog_waits(const bdb_handle *h, uint32_t pgno);
// Keeps a page image in the buffer: false when the buffer is full.
bool metalog_defer(bdb_handle *h, uint32_t pgno, const void *image);
// Moves pgno's image out of the buffer into buf: false when it is not there.
bool metalog_take_deferred(bdb_handle *h, uint32_t pgno, void *buf);
// Forgets pgno's image (the page was freed or is being replaced).
void metalog_drop_deferred(bdb_handle *h, uint32_t pgno);
// The buffer's pages: count, and the i-th (page number; image in *image).
uint32_t metalog_deferred_count(const bdb_handle *h);
uint32_t metalog_deferred(const bdb_handle *h, uint32_t i, const uint8_t **image);
void metalog_clear_deferred(bdb_handle *h);

// Records that a sync is about to write the file: the meta page it will
// write (in file order) and the file's length after it. Recovery knows the
// file from it: page 0 is then the synced meta page, this one, or torn.
// 0 or -1 (BDB_E_WRITE).
int metalog_intent(bdb_handle *h, const void *meta_file_image, uint32_t pages);
// Makes every record written so far durable. 0 or -1 (BDB_E_IO, "meta log
// fsync").
int metalog_flush(bdb_handle *h);
// Hash used by the log (64-bit, byte-order independent).
uint64_t log_hash(const void *data, size_t n, uint64_t seed);

}  // namespace varlo

#endif  // VARLO_PREIMAGE_H
