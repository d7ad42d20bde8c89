// The meta log: the image every page had at the last sync, written to a file
// beside the database before the page changes in place. The layout is
// described in preimage.h.
//
// Write ordering. A page's record is written at its log point (the first
// change after a sync); the page itself reaches the file later, when the
// cache evicts it or at sync. Before any in-place write the records of the
// pages written are made durable, in one fsync for every record so far; each
// page carries the stamp of its record for that test, so a cache that evicts
// pages logged long ago does not fsync for them again. Sync makes the log
// durable, writes the pages, fsyncs the database and then writes a new
// header (a new epoch) durably: that is the commit point, after which the
// records are dead.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

#include "fileio.h"
#include "preimage.h"

using namespace varlo;

namespace {

constexpr uint32_t kCtlMagic = 0x564c4354;  // "VLCT"
constexpr uint32_t kRecMagic = 0x564c5243;  // "VLRC"
constexpr uint32_t kLogVersion = 1;
constexpr uint32_t kOrderMark = 0x01020304;
constexpr char kHeaderMagic[8] = {'V', 'A', 'R', 'L', 'O', 'L', 'O', 'G'};
constexpr off_t kSlotSize = 4096;
constexpr uint32_t kHeaderBytes = 64;
constexpr off_t kControlOffset = 8192;
// A log whose records passed this size is cut back at the next commit.
constexpr uint64_t kKeepRecordBytes = 8u << 20;

// The control block of one database's users: in shared mode it is mapped
// from the log file by every process, otherwise it is process-local memory.
// Fixed-width fields only: 32-bit and 64-bit processes share it.
struct LogControl {
    uint32_t magic;         // kCtlMagic once the session's first user set it up
    uint32_t version;
    uint64_t epoch;         // the interval whose records are written
    uint64_t end;           // log offset of the next record
    uint32_t nrec;          // records of this interval
    uint32_t stamp;         // last stamp given to a record
    uint32_t durable;       // records with stamps up to here are on disk
    uint32_t synced_pages;  // the file's length at the last sync
    uint64_t meta_hash;     // hash of the meta page (file order) at the last sync
    uint32_t ndeferred;     // pages in the write-behind buffer
    uint8_t file_magic[4];  // the file's first word as it stands (its byte order)
    uint32_t changes;       // the tree's version (see tree_version)
    uint32_t kicked;        // records up to this offset (in MiB) are on their way to the disk
    uint32_t deferred_pgno[kDeferPages];
    uint8_t deferred[kDeferPages][kPageSize];  // their images, machine order
    uint32_t lsn[BDB_MAXPAGES];  // stamp of each page's record (0 = none)
};
static_assert(offsetof(LogControl, ndeferred) == 48);
static_assert(offsetof(LogControl, deferred) == 64 + 4 * kDeferPages);
static_assert(offsetof(LogControl, lsn) == 64 + 4 * kDeferPages + kDeferPages * kPageSize);
static_assert(sizeof(LogControl) == offsetof(LogControl, lsn) + 4 * BDB_MAXPAGES);

constexpr size_t round_up(size_t n, size_t to) { return (n + to - 1) / to * to; }
constexpr size_t kControlMap = round_up(sizeof(LogControl), 4096);
constexpr off_t kRecordsStart = kControlOffset + static_cast<off_t>(round_up(sizeof(LogControl), kPageSize));
constexpr uint32_t kRecordBytes = kLogRecordHeader + 4 + kPageSize;
// The intent record of a sync: the page number kIntentPage, then the hash of
// the meta page the sync is about to write and the file's length after it.
constexpr uint32_t kIntentPage = 0xffffffffu;
constexpr uint32_t kIntentBytes = 16;

uint64_t meta_hash_of(const void *meta_file_image) { return log_hash(meta_file_image, kPageSize, 0); }

// The log's records start on their way to the disk in steps of this many MiB.
constexpr uint32_t kKickMiB = 4;

// Record flag: a tree page stored without its free gap.
constexpr uint32_t kCompact = 1;

// Where a tree page's header and slots end and its entries begin, read from
// its image in file order.
struct PageSpan {
    bool valid;
    uint32_t head, datastart;
};
PageSpan page_span(const uint8_t *img, bool swapped) {
    uint32_t ds, ns;
    std::memcpy(&ds, img + 12, 4);
    std::memcpy(&ns, img + 16, 4);
    if (swapped) ds = __builtin_bswap32(ds), ns = __builtin_bswap32(ns);
    const uint64_t head = kHeaderSize + static_cast<uint64_t>(kSlotSize) * ns;
    if (head > ds || ds > kPageSize) return {false, 0, 0};
    return {true, static_cast<uint32_t>(head), ds};
}

// --- little-endian fields --------------------------------------------------

void put32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void put64(uint8_t *p, uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t get32(const uint8_t *p) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | p[i];
    return v;
}
uint64_t get64(const uint8_t *p) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

uint64_t rotl(uint64_t x, int r) { return x << r | x >> (64 - r); }
constexpr uint64_t P1 = 0x9E3779B185EBCA87ull, P2 = 0xC2B2AE3D27D4EB4Full, P3 = 0x165667B19E3779F9ull;
uint64_t round64(uint64_t acc, uint64_t w) { return rotl(acc + w * P2, 31) * P1; }

struct Header {
    uint32_t order = kOrderMark;
    uint8_t file_magic[4] = {};  // the database's first word as it stands in the file
    uint64_t epoch = 0;
    uint32_t synced_pages = 0;
    uint64_t meta_hash = 0;
};

void encode(const Header &hd, uint8_t *b) {
    std::memset(b, 0, kHeaderBytes);
    std::memcpy(b, kHeaderMagic, 8);
    put32(b + 8, kLogVersion);
    std::memcpy(b + 12, &hd.order, 4);  // the writer's own order
    put64(b + 16, hd.epoch);
    put32(b + 32, hd.synced_pages);
    put32(b + 36, kPageSize);
    put64(b + 40, hd.meta_hash);
    std::memcpy(b + 48, hd.file_magic, 4);
    put64(b + 56, log_hash(b, 56, 0));
}

bool decode(const uint8_t *b, Header *hd) {
    if (std::memcmp(b, kHeaderMagic, 8) != 0 || get32(b + 8) != kLogVersion || get32(b + 36) != kPageSize ||
        get64(b + 56) != log_hash(b, 56, 0))
        return false;
    std::memcpy(&hd->order, b + 12, 4);
    hd->epoch = get64(b + 16);
    hd->synced_pages = get32(b + 32);
    hd->meta_hash = get64(b + 40);
    std::memcpy(hd->file_magic, b + 48, 4);
    return hd->order == kOrderMark || hd->order == __builtin_bswap32(kOrderMark);
}

std::string log_path(const bdb_handle *h) { return std::string(h->name) + kLogSuffix; }

inline bool bit(const uint32_t *map, uint32_t p) { return (map[p >> 5] >> (p & 31)) & 1u; }
inline void clear_bit(uint32_t *map, uint32_t p) { map[p >> 5] &= ~(1u << (p & 31)); }

}  // namespace

// The process-local side of a log: one per handle, shared by the handles of
// a thread group (they share the database's descriptor too).
struct bdb_metalog {
    int fd = -1;
    bool writable = false;
    bool mapped = false;
    LogControl *ctl = nullptr;
    alignas(8) uint8_t stage[kRecordBytes];  // one record on its way out
};

namespace varlo {

uint64_t log_hash(const void *data, size_t n, uint64_t seed) {
    const auto *p = static_cast<const uint8_t *>(data);
    uint64_t acc = seed + P3 + n;
    uint64_t v[4] = {seed + P1 + P2, seed + P2, seed, seed - P1};
    size_t i = 0;
    for (; i + 32 <= n; i += 32)
        for (int k = 0; k < 4; ++k) v[k] = round64(v[k], get64(p + i + 8 * k));
    if (n >= 32) acc += rotl(v[0], 1) + rotl(v[1], 7) + rotl(v[2], 12) + rotl(v[3], 18);
    for (; i + 8 <= n; i += 8) acc = rotl(acc ^ round64(0, get64(p + i)), 27) * P1 + P3;
    for (; i < n; ++i) acc = rotl(acc ^ (p[i] * P3), 11) * P1;
    acc ^= acc >> 33;
    acc *= P2;
    acc ^= acc >> 29;
    acc *= P3;
    return acc ^ (acc >> 32);
}

// ---------------------------------------------------------------------------
// Opening and closing
// ---------------------------------------------------------------------------

int metalog_open(bdb_handle *h, bool first, bool writable, bool shared) {
#ifdef VARLO_WITHOUT_METALOG
    // The benchmark's build without a log, to measure what the log costs.
    (void)h, (void)first, (void)writable, (void)shared;
    return 0;
#endif
    auto *m = new (std::nothrow) bdb_metalog;
    if (!m) {
        h->error = BDB_E_NOMEM;
        return -1;
    }
    const std::string path = log_path(h);
    m->writable = writable;
    m->fd = sysio.open(path.c_str(), writable ? O_RDWR : O_RDONLY, 0);
    bool created = false;
    if (m->fd < 0 && errno == ENOENT && writable && first) {
        // The log takes the permission bits of the database, so that every
        // user who may write the one may write the other.
        struct stat st {};
        mode_t perm = sysio.fstat(h->fd, &st) == 0 ? (st.st_mode & 0666) : 0644;
        m->fd = sysio.open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, perm);
        created = m->fd >= 0;
    }
    auto give_up = [&](uint32_t code, const char *context) {
        if (m->fd >= 0) sysio.close(m->fd);
        if (created) sysio.unlink(path.c_str());
        delete m;
        fail(h, code, context);
        return -1;
    };
    if (m->fd < 0) return give_up(errno == ENOMEM ? BDB_E_NOMEM : BDB_E_OPEN, "meta log open");
    if (created) {
        // The new log is as long as its control block (a hole until used),
        // and its name is made durable before anything relies on it.
        if (sysio.ftruncate(m->fd, kRecordsStart) < 0 || sysio.fsync(m->fd) < 0 || sync_parent_dir(path.c_str()) < 0)
            return give_up(BDB_E_IO, "meta log create");
    }
    if (shared) {
        struct stat st {};
        if (sysio.fstat(m->fd, &st) < 0) return give_up(BDB_E_IO, "meta log stat");
        if (st.st_size < kRecordsStart) {
            if (!first || !writable || sysio.ftruncate(m->fd, kRecordsStart) < 0)
                return give_up(BDB_E_IO, "meta log too short");
        }
        void *p = sysio.map(m->fd, kControlMap, kControlOffset, writable);
        if (!p) return give_up(BDB_E_SHM_NOMEM, "meta log map");
        m->ctl = static_cast<LogControl *>(p);
        m->mapped = true;
        if (!first && (m->ctl->magic != kCtlMagic || m->ctl->version != kLogVersion)) {
            sysio.unmap(p, kControlMap);
            return give_up(BDB_E_IO, "meta log not set up by the database's first user");
        }
    } else {
        m->ctl = static_cast<LogControl *>(std::calloc(1, sizeof(LogControl)));
        if (!m->ctl) return give_up(BDB_E_NOMEM, "meta log control");
    }
    h->mlog = m;
    return 0;
}

void metalog_close(bdb_handle *h) {
    bdb_metalog *m = h->mlog;
    if (!m) return;
    h->mlog = nullptr;
    if (m->mapped)
        sysio.unmap(m->ctl, kControlMap);
    else
        std::free(m->ctl);
    sysio.close(m->fd);
    delete m;
}

// ---------------------------------------------------------------------------
// Reading the log
// ---------------------------------------------------------------------------

int metalog_scan(bdb_handle *h, LogScan *scan) {
    *scan = LogScan{};
    int fd = h->mlog ? h->mlog->fd : -1;
    bool own_fd = false;
    if (fd < 0) {
        const std::string path = log_path(h);
        fd = sysio.open(path.c_str(), O_RDONLY, 0);
        if (fd < 0) {
            if (errno == ENOENT) return 0;  // no log: nothing to recover
            fail(h, BDB_E_OPEN, "meta log open");
            return -1;
        }
        own_fd = true;
    }
    auto done = [&](int rc) {
        if (own_fd) sysio.close(fd);
        return rc;
    };
    Header best{};
    for (int slot = 0; slot < 2; ++slot) {
        uint8_t b[kHeaderBytes];
        Header hd;
        if (read_full(fd, b, kHeaderBytes, slot * kSlotSize) == 0 && decode(b, &hd) &&
            (!scan->valid_header || hd.epoch > best.epoch)) {
            best = hd;
            scan->valid_header = true;
        }
    }
    // Records are written only after a header is durable: a log without a
    // valid header holds none.
    if (!scan->valid_header) return done(0);
    scan->epoch = best.epoch;
    scan->synced_pages = best.synced_pages;
    scan->meta_hash = best.meta_hash;
    scan->foreign_order = best.order != kOrderMark;
    uint32_t magic;
    std::memcpy(&magic, best.file_magic, 4);
    scan->file_swapped = magic == BDB_MAGIC_SWAPPED;
    struct stat lst {};
    if (sysio.fstat(fd, &lst) < 0) {
        fail(h, BDB_E_IO, "meta log stat");
        return done(-1);
    }
    std::vector<uint8_t> buf(kRecordBytes);
    uint64_t off = kRecordsStart;
    for (uint32_t seq = 1;; ++seq) {
        if (off + kLogRecordHeader > static_cast<uint64_t>(lst.st_size)) break;
        uint8_t *b = buf.data();
        if (read_full(fd, b, kLogRecordHeader, static_cast<off_t>(off)) < 0) break;
        const uint32_t len = get32(b + 4);
        const bool compact = get32(b + 20) == kCompact;
        if (get32(b) != kRecMagic || get64(b + 8) != best.epoch || get32(b + 16) != seq ||
            (compact ? len < 4 + kHeaderSize || len > 4 + kPageSize : len != 4 + kPageSize && len != 4 + kIntentBytes) ||
            off + kLogRecordHeader + len > static_cast<uint64_t>(lst.st_size))
            break;
        if (read_full(fd, b + kLogRecordHeader, len, static_cast<off_t>(off + kLogRecordHeader)) < 0) break;
        const uint64_t check = get64(b + 24);
        put64(b + 24, 0);
        if (log_hash(b, kLogRecordHeader + len, 0) != check) break;
        uint32_t pg;
        std::memcpy(&pg, b + kLogRecordHeader, 4);
        if (scan->foreign_order) pg = __builtin_bswap32(pg);
        off += kLogRecordHeader + len;
        if (pg == kIntentPage && len == 4 + kIntentBytes) {
            scan->has_intent = true;
            scan->intent_hash = get64(b + kLogRecordHeader + 4);
            continue;
        }
        if (pg >= BDB_MAXPAGES || (!compact && len != 4 + kPageSize)) break;
        if (compact) {
            // The stored parts must be those of a page: its own header says
            // where they go.
            const PageSpan sp = page_span(b + kLogRecordHeader + 4, scan->file_swapped);
            if (!sp.valid || sp.head + (kPageSize - sp.datastart) != len - 4) break;
        }
        try {
            scan->records.push_back(LogScan::Rec{pg, off - len, len, compact});
        } catch (...) {
            fail(h, BDB_E_NOMEM, "meta log scan");
            return done(-1);
        }
    }
    return done(0);
}

int metalog_read(bdb_handle *h, const LogScan &scan, const LogScan::Rec &rec, void *buf) {
    int fd = h->mlog ? h->mlog->fd : -1;
    if (fd < 0 || read_full(fd, buf, rec.len, static_cast<off_t>(rec.off)) < 0) {
        fail(h, BDB_E_READ, "meta log read");
        return -1;
    }
    auto *w = static_cast<uint32_t *>(buf);
    if (rec.compact) {
        // Back to a whole page: the entries move to the page's end, the gap
        // between reads as zero.
        auto *img = static_cast<uint8_t *>(buf) + 4;
        const PageSpan sp = page_span(img, scan.file_swapped);
        const uint32_t tail = kPageSize - sp.datastart;
        std::memmove(img + sp.datastart, img + sp.head, tail);
        std::memset(img + sp.head, 0, sp.datastart - sp.head);
    }
    if (scan.foreign_order) {
        // The page number and a meta page image are in the writer's order.
        w[0] = rec.pgno;
        if (rec.pgno == 0)
            for (uint32_t i = 1; i < rec.len / 4; ++i) w[i] = __builtin_bswap32(w[i]);
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Intervals
// ---------------------------------------------------------------------------

namespace {

// Writes the header of a new interval into the slot the previous one does not
// use, durably. 0 or -1 (BDB_E_IO, "meta log commit").
int write_header(bdb_handle *h, uint64_t epoch, uint32_t pages, uint64_t meta_hash, const void *meta_file_image) {
    Header hd;
    hd.epoch = epoch;
    hd.synced_pages = pages;
    hd.meta_hash = meta_hash;
    std::memcpy(hd.file_magic, meta_file_image, 4);
    uint8_t b[kHeaderBytes];
    encode(hd, b);
    const int fd = h->mlog->fd;
    if (write_full(fd, b, kHeaderBytes, static_cast<off_t>(epoch % 2) * kSlotSize) < 0 || sysio.fsync(fd) < 0) {
        fail(h, BDB_E_IO, "meta log commit");
        return -1;
    }
    return 0;
}

// The control block of a new interval: no records, every stamp given so far
// counts as durable (the records they name are dead).
void start_interval(LogControl *c, uint64_t epoch, uint32_t pages, uint64_t meta_hash, const void *magic) {
    c->epoch = epoch;
    c->end = kRecordsStart;
    c->nrec = 0;
    if (c->stamp > 0xF0000000u) {
        // Stamps are about to wrap: start them again from a clean table.
        std::memset(c->lsn, 0, sizeof c->lsn);
        c->stamp = 0;
    }
    c->durable = c->stamp;
    c->kicked = 0;
    c->synced_pages = pages;
    c->meta_hash = meta_hash;
    std::memcpy(c->file_magic, magic, 4);
    c->version = kLogVersion;
    c->magic = kCtlMagic;
}

}  // namespace

int metalog_begin(bdb_handle *h, const LogScan &scan, const void *meta_file_image, uint32_t pages) {
    bdb_metalog *m = h->mlog;
    LogControl *c = m->ctl;
    if (m->mapped) {
        // A control block left by an earlier session holds its stamps.
        std::memset(c, 0, sizeof(LogControl));
    }
    const uint64_t hash = meta_hash_of(meta_file_image);
    uint64_t epoch = scan.epoch;
    // A header that describes the file as it stands needs no rewrite (and
    // an open then costs no fsync).
    if (!scan.valid_header || !scan.records.empty() || scan.synced_pages != pages || scan.meta_hash != hash) {
        epoch = scan.valid_header ? scan.epoch + 1 : 1;
        if (!m->writable) {
            errno = 0;
            fail(h, BDB_E_IO, "meta log cannot be written");
            return -1;
        }
        if (write_header(h, epoch, pages, hash, meta_file_image) < 0) return -1;
    }
    start_interval(c, epoch, pages, hash, meta_file_image);
    return 0;
}

int metalog_commit(bdb_handle *h, const void *meta_file_image, uint32_t pages) {
    bdb_metalog *m = h->mlog;
    LogControl *c = m->ctl;
    const uint64_t hash = meta_file_image ? meta_hash_of(meta_file_image) : c->meta_hash;
    if (c->nrec == 0 && c->synced_pages == pages && c->meta_hash == hash) return 0;
    uint8_t magic[4];
    std::memcpy(magic, meta_file_image ? meta_file_image : c->file_magic, 4);
    if (write_header(h, c->epoch + 1, pages, hash, magic) < 0) return -1;
    const bool cut = c->end > static_cast<uint64_t>(kRecordsStart) + kKeepRecordBytes;
    start_interval(c, c->epoch + 1, pages, hash, magic);
    // The dead records of a large interval are given back to the file system
    // (nothing depends on it: records of an older epoch are never read).
    if (cut) (void)sysio.ftruncate(m->fd, kRecordsStart);
    return 0;
}

uint32_t metalog_records(const bdb_handle *h) { return h->mlog ? h->mlog->ctl->nrec : 0; }

uint32_t metalog_synced_pages(const bdb_handle *h) { return h->mlog->ctl->synced_pages; }

// ---------------------------------------------------------------------------
// Log points and write ordering
// ---------------------------------------------------------------------------

namespace {

// Appends a record: a page's image (n = kPageSize) or, for kIntentPage, the
// intent of a sync.
int append(bdb_handle *h, uint32_t pgno, const void *image, uint32_t n, bool tree = false) {
    bdb_metalog *m = h->mlog;
    LogControl *c = m->ctl;
    uint8_t *b = m->stage;
    const auto *img = static_cast<const uint8_t *>(image);
    // A tree page goes without the free gap between its slots and its
    // entries: the log carries only what the page holds.
    uint32_t head = n, tail = 0;
    if (tree) {
        const PageSpan sp = page_span(img, h->flags & BDB_F_SWAPPED);
        if (sp.valid) head = sp.head, tail = kPageSize - sp.datastart;
    }
    const uint32_t stored = head + tail, total = kLogRecordHeader + 4 + stored;
    put32(b, kRecMagic);
    put32(b + 4, 4 + stored);
    put64(b + 8, c->epoch);
    put32(b + 16, c->nrec + 1);
    put32(b + 20, head != n ? kCompact : 0);
    put64(b + 24, 0);
    std::memcpy(b + kLogRecordHeader, &pgno, 4);
    std::memcpy(b + kLogRecordHeader + 4, img, head);
    if (tail) std::memcpy(b + kLogRecordHeader + 4 + head, img + kPageSize - tail, tail);
    put64(b + 24, log_hash(b, total, 0));
    if (!m->writable || write_full(m->fd, b, total, static_cast<off_t>(c->end)) < 0) {
        fail(h, BDB_E_WRITE, "meta log write");
        return -1;
    }
    c->end += total;
    c->nrec++;
    ++c->stamp;
    if (pgno < BDB_MAXPAGES) c->lsn[pgno] = c->stamp;
    // Every few MiB the records written so far start on their way to the
    // disk, so that the sync's fsync of the log has little left to wait for.
    const uint32_t mib = static_cast<uint32_t>(c->end >> 20);
    if (mib >= c->kicked + kKickMiB) {
        (void)sysio.start_writeback(m->fd, static_cast<off_t>(c->kicked) << 20,
                                    static_cast<off_t>(mib - c->kicked) << 20);
        c->kicked = mib;
    }
    return 0;
}

}  // namespace

int metalog_log_page(bdb_handle *h, uint32_t pgno, const void *file_image) {
    return append(h, pgno, file_image, kPageSize, true);
}

int metalog_log_meta(bdb_handle *h) { return append(h, 0, h->meta, kPageSize); }

int metalog_intent(bdb_handle *h, const void *meta_file_image, uint32_t pages) {
    uint8_t b[kIntentBytes] = {};
    put64(b, meta_hash_of(meta_file_image));
    put32(b + 8, pages);
    return append(h, kIntentPage, b, kIntentBytes);
}

int metalog_flush(bdb_handle *h) {
    bdb_metalog *m = h->mlog;
    LogControl *c = m->ctl;
    if (c->durable == c->stamp) return 0;
    const uint32_t upto = c->stamp;
    // A failed fsync is retried by the next flush; the records stay in the
    // file meanwhile and nothing that needs them is written in place.
    if (sysio.fsync(m->fd) < 0) {
        fail(h, BDB_E_IO, "meta log fsync");
        return -1;
    }
    c->durable = upto;
    return 0;
}

int metalog_take_pages(bdb_handle *h, uint32_t pgno, uint32_t n) {
    if (!metalog_active(h)) return 0;
    for (uint32_t p = pgno; p < pgno + n && p < BDB_MAXPAGES; ++p) {
        if (!bit(h->logmap, p)) continue;
        if (p == 0) {
            if (metalog_log_meta(h) < 0) return -1;
        } else {
            alignas(8) uint8_t img[kPageSize];
            if (read_full(h->fd, img, kPageSize, static_cast<off_t>(p) << kPageShift) < 0) {
                fail(h, BDB_E_READ, "db read");
                return -1;
            }
            if (append(h, p, img, kPageSize) < 0) return -1;
        }
        clear_bit(h->logmap, p);
    }
    return 0;
}

int metalog_before_write(bdb_handle *h, uint32_t pgno, uint32_t nbytes) {
    if (!metalog_active(h)) return 0;
    const uint32_t n = (nbytes + kPageSize - 1) >> kPageShift;
    if (metalog_take_pages(h, pgno, n) < 0) return -1;
    const LogControl *c = h->mlog->ctl;
    uint32_t need = 0;
    for (uint32_t p = pgno; p < pgno + n && p < BDB_MAXPAGES; ++p)
        if (c->lsn[p] > need) need = c->lsn[p];
    return need > c->durable ? metalog_flush(h) : 0;
}

bool metalog_waits(const bdb_handle *h, uint32_t pgno) {
    const LogControl *c = h->mlog->ctl;
    return pgno < BDB_MAXPAGES && c->lsn[pgno] > c->durable;
}

bool metalog_defer(bdb_handle *h, uint32_t pgno, const void *image) {
    LogControl *c = h->mlog->ctl;
    if (c->ndeferred == kDeferPages) return false;
    c->deferred_pgno[c->ndeferred] = pgno;
    std::memcpy(c->deferred[c->ndeferred], image, kPageSize);
    c->ndeferred++;
    return true;
}

namespace {
int32_t find_deferred(const LogControl *c, uint32_t pgno) {
    for (uint32_t i = 0; i < c->ndeferred; ++i)
        if (c->deferred_pgno[i] == pgno) return static_cast<int32_t>(i);
    return -1;
}
void remove_deferred(LogControl *c, uint32_t i) {
    const uint32_t last = --c->ndeferred;
    if (i == last) return;
    c->deferred_pgno[i] = c->deferred_pgno[last];
    std::memcpy(c->deferred[i], c->deferred[last], kPageSize);
}
}  // namespace

bool metalog_take_deferred(bdb_handle *h, uint32_t pgno, void *buf) {
    if (!h->mlog) return false;
    LogControl *c = h->mlog->ctl;
    if (c->ndeferred == 0) return false;
    const int32_t i = find_deferred(c, pgno);
    if (i < 0) return false;
    std::memcpy(buf, c->deferred[i], kPageSize);
    remove_deferred(c, static_cast<uint32_t>(i));
    return true;
}

void metalog_drop_deferred(bdb_handle *h, uint32_t pgno) {
    if (!h->mlog) return;
    LogControl *c = h->mlog->ctl;
    if (c->ndeferred == 0) return;
    const int32_t i = find_deferred(c, pgno);
    if (i >= 0) remove_deferred(c, static_cast<uint32_t>(i));
}

uint32_t metalog_deferred(const bdb_handle *h, uint32_t i, const uint8_t **image) {
    const LogControl *c = h->mlog->ctl;
    *image = c->deferred[i];
    return c->deferred_pgno[i];
}

uint32_t metalog_deferred_count(const bdb_handle *h) { return h->mlog ? h->mlog->ctl->ndeferred : 0; }

void metalog_clear_deferred(bdb_handle *h) {
    if (h->mlog) h->mlog->ctl->ndeferred = 0;
}

uint32_t *tree_version(bdb_handle *h) {
    if (h->mlog) return &h->mlog->ctl->changes;
    return (h->flags & BDB_F_AREA) ? nullptr : &h->changes;
}

bool metalog_active(const bdb_handle *h) { return h->mlog && h->mlog->ctl->magic == kCtlMagic; }

void metalog_stop(bdb_handle *h) {
    if (h->mlog) h->mlog->ctl->magic = 0;
}

}  // namespace varlo
