// The page cache, page transfers, file extension, the log map and back-out.
//
// Two cache flavours share the record layout (bdb_cachepg):
//  - A shared area keeps 6 records and finds pages and victims by scanning
//    them with age counters.
//  - A private handle may have thousands of records, so it keeps, in the
//    same allocation behind the records, a hash index from page number to
//    record and a recency list threaded through the records. Both flavours
//    choose the same victim: the least recently used record, and among
//    records never used (or dropped) since the same lookup, the lowest index.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "preimage.h"

using namespace varlo;

namespace varlo {

void refresh_logmap(bdb_handle *h) { std::memcpy(h->logmap, h->meta->pgmap, BDB_MAPWORDS * 4); }

}  // namespace varlo

namespace {

constexpr uint32_t kNone = 0xffffffffu;

// Lives right behind the records of a private cache, followed by the hash
// buckets (record index + 1, 0 = empty) and the bucket chains.
struct CacheIndex {
    uint32_t mask;  // buckets - 1 (a power of two minus one)
    uint32_t head;  // least recently used record
    uint32_t tail;  // most recently used record
    uint32_t tick;  // lookups so far; a record's `age` is the tick of its last use
};

inline bool is_indexed(const bdb_handle *h) { return !(h->flags & BDB_F_AREA); }
inline CacheIndex *index_of(const bdb_handle *h) { return reinterpret_cast<CacheIndex *>(h->cache + h->ncache); }
inline uint32_t *buckets(CacheIndex *ix) { return reinterpret_cast<uint32_t *>(ix + 1); }
inline uint32_t *chains(CacheIndex *ix) { return buckets(ix) + ix->mask + 1; }
inline uint8_t *buffer(const bdb_handle *h, uint32_t rec) {
    return h->cache_bufs + static_cast<size_t>(h->cache[rec].buf) * kPageSize;
}
inline void clear_first_word(uint8_t *buf) { std::memset(buf, 0, 4); }

uint32_t index_bytes(uint32_t n, uint32_t buckets_n) {
    return static_cast<uint32_t>(sizeof(CacheIndex)) + 4u * buckets_n + 4u * n;
}

// --- hash index ------------------------------------------------------------

uint32_t hfind(const bdb_handle *h, CacheIndex *ix, uint32_t pg) {
    uint32_t i = buckets(ix)[pg & ix->mask];
    while (i) {
        if (h->cache[i - 1].pgno == pg) return i - 1;
        i = chains(ix)[i - 1];
    }
    return kNone;
}

void hinsert(const bdb_handle *h, CacheIndex *ix, uint32_t rec) {
    uint32_t &b = buckets(ix)[h->cache[rec].pgno & ix->mask];
    chains(ix)[rec] = b;
    b = rec + 1;
}

void hremove(const bdb_handle *h, CacheIndex *ix, uint32_t rec) {
    uint32_t *link = &buckets(ix)[h->cache[rec].pgno & ix->mask];
    while (*link) {
        if (*link == rec + 1) {
            *link = chains(ix)[rec];
            return;
        }
        link = &chains(ix)[*link - 1];
    }
}

// --- recency list ----------------------------------------------------------

void lru_unlink(bdb_handle *h, CacheIndex *ix, uint32_t rec) {
    bdb_cachepg &r = h->cache[rec];
    if (r.lru_prev != kNone)
        h->cache[r.lru_prev].lru_next = r.lru_next;
    else
        ix->head = r.lru_next;
    if (r.lru_next != kNone)
        h->cache[r.lru_next].lru_prev = r.lru_prev;
    else
        ix->tail = r.lru_prev;
}

// Inserts rec after `at` (kNone: at the head).
void lru_insert_after(bdb_handle *h, CacheIndex *ix, uint32_t rec, uint32_t at) {
    bdb_cachepg &r = h->cache[rec];
    r.lru_prev = at;
    r.lru_next = at == kNone ? ix->head : h->cache[at].lru_next;
    if (r.lru_next != kNone)
        h->cache[r.lru_next].lru_prev = rec;
    else
        ix->tail = rec;
    if (at != kNone)
        h->cache[at].lru_next = rec;
    else
        ix->head = rec;
}

void lru_touch(bdb_handle *h, CacheIndex *ix, uint32_t rec) {
    if (ix->tail == rec) return;
    lru_unlink(h, ix, rec);
    lru_insert_after(h, ix, rec, ix->tail);
}

// A dropped record counts as used at the last lookup, like the record that
// lookup used; records of equal age are taken in index order.
void lru_place_dropped(bdb_handle *h, CacheIndex *ix, uint32_t rec) {
    lru_unlink(h, ix, rec);
    const auto now = static_cast<int32_t>(ix->tick);
    h->cache[rec].age = now;
    uint32_t at = ix->tail;
    while (at != kNone && h->cache[at].age == now && at > rec) at = h->cache[at].lru_prev;
    lru_insert_after(h, ix, rec, at);
}

void reset_index(bdb_handle *h) {
    CacheIndex *ix = index_of(h);
    std::memset(buckets(ix), 0, 4u * (ix->mask + 1));
    ix->tick = 0;
    ix->head = h->ncache ? 0 : kNone;
    ix->tail = h->ncache ? h->ncache - 1 : kNone;
    for (uint32_t i = 0; i < h->ncache; ++i) {
        h->cache[i].lru_prev = i ? i - 1 : kNone;
        h->cache[i].lru_next = i + 1 < h->ncache ? i + 1 : kNone;
    }
}

// Writes a page image (machine order) to its page in file order.
int write_image(bdb_handle *h, uint32_t pg, const uint8_t *img) {
    if (!(h->flags & BDB_F_SWAPPED)) return bdb_write_dpage(h, pg, img, kPageSize);
    alignas(8) uint8_t tmp[kPageSize];
    std::memcpy(tmp, img, kPageSize);
    bdb_pgswap(tmp, 1);
    return bdb_write_dpage(h, pg, tmp, kPageSize);
}

// Writes out the write-behind buffer: one fsync of the meta log for all its
// pages, then the pages in page order.
int write_deferred(bdb_handle *h) {
    const uint32_t n = metalog_deferred_count(h);
    if (n == 0) return 0;
    if (metalog_flush(h) < 0) return -1;
    std::pair<uint32_t, const uint8_t *> pages[kDeferPages];
    const uint32_t m = std::min(n, kDeferPages);
    for (uint32_t i = 0; i < m; ++i) pages[i].first = metalog_deferred(h, i, &pages[i].second);
    std::sort(pages, pages + m);
    for (uint32_t i = 0; i < m; ++i)
        if (write_image(h, pages[i].first, pages[i].second) < 0) return -1;
    metalog_clear_deferred(h);
    return 0;
}

// Writes a dirty record's buffer to its page in file order, or, while the
// page's image in the meta log is not yet durable, moves it to the
// write-behind buffer. On failure the record stays dirty.
int write_back(bdb_handle *h, uint32_t rec) {
    bdb_cachepg &r = h->cache[rec];
    uint8_t *buf = buffer(h, rec);
    if (metalog_active(h) && metalog_waits(h, r.pgno)) {
        if (metalog_defer(h, r.pgno, buf)) {
            r.flags &= ~BDB_CACHE_DIRTY;
            return 0;
        }
        // The buffer is full: after its pages go out the log is durable.
        if (write_deferred(h) < 0) return -1;
    }
    if (write_image(h, r.pgno, buf) < 0) return -1;
    r.flags &= ~BDB_CACHE_DIRTY;
    return 0;
}

// A record taking a new page: a dirty image of the page waiting in the
// write-behind buffer comes back into it (dirty still); otherwise the buffer
// is marked invalid, to be read or initialised by the caller.
void take_deferred(bdb_handle *h, uint32_t rec, uint8_t *buf) {
    if (metalog_take_deferred(h, h->cache[rec].pgno, buf))
        h->cache[rec].flags |= BDB_CACHE_DIRTY;
    else
        clear_first_word(buf);
}

// Age-counter scan over every record (the cache of a shared area).
// A page held for update (its update mark set while a change works on it)
// is never taken for another page while any other record can be.
inline bool pinned(const bdb_handle *h, uint32_t rec) {
    const auto *p = reinterpret_cast<const bdb_page *>(buffer(h, rec));
    return h->cache[rec].pgno != 0 && p->pgno == h->cache[rec].pgno && (p->flags & BDB_PGBUSY);
}

void *cache_pg_scan(bdb_handle *h, uint32_t pg) {
    bdb_cachepg *c = h->cache;
    uint32_t victim = 0, free_victim = kNone;
    int32_t oldest = c[0].age, free_oldest = 0;
    uint32_t hit = kNone;
    for (uint32_t i = 0; i < h->ncache; ++i) {
        if (c[i].pgno == pg) {
            c[i].age = 0;
            h->stats->cache_hits++;
            hit = i;
            continue;
        }
        if (c[i].age > oldest) {
            victim = i;
            oldest = c[i].age;
        }
        if (!pinned(h, i) && (free_victim == kNone || c[i].age > free_oldest)) {
            free_victim = i;
            free_oldest = c[i].age;
        }
        c[i].age++;
    }
    if (hit != kNone) return buffer(h, hit);
    if (free_victim != kNone) victim = free_victim;
    if ((c[victim].flags & BDB_CACHE_DIRTY) && write_back(h, victim) < 0) return nullptr;
    c[victim].pgno = pg;
    c[victim].age = 0;
    c[victim].flags = 0;
    uint8_t *buf = buffer(h, victim);
    take_deferred(h, victim, buf);
    h->stats->cache_misses++;
    return buf;
}

// Constant-time lookup and victim choice (the cache of a private handle).
void *cache_pg_indexed(bdb_handle *h, uint32_t pg) {
    CacheIndex *ix = index_of(h);
    ix->tick++;
    uint32_t rec = hfind(h, ix, pg);
    if (rec != kNone) {
        h->cache[rec].age = static_cast<int32_t>(ix->tick);
        lru_touch(h, ix, rec);
        h->stats->cache_hits++;
        return buffer(h, rec);
    }
    uint32_t victim = ix->head;
    while (victim != kNone && pinned(h, victim)) victim = h->cache[victim].lru_next;
    if (victim == kNone) victim = ix->head;  // every record held: the oldest goes all the same
    bdb_cachepg &v = h->cache[victim];
    if ((v.flags & BDB_CACHE_DIRTY) && write_back(h, victim) < 0) return nullptr;
    if (v.pgno) hremove(h, ix, victim);
    v.pgno = pg;
    v.age = static_cast<int32_t>(ix->tick);
    v.flags = 0;
    hinsert(h, ix, victim);
    lru_touch(h, ix, victim);
    uint8_t *buf = buffer(h, victim);
    take_deferred(h, victim, buf);
    h->stats->cache_misses++;
    return buf;
}

// The record holding a page, or kNone.
uint32_t find_record(const bdb_handle *h, uint32_t pg) {
    if (!h->cache || pg == 0) return kNone;
    if (is_indexed(h)) return hfind(h, index_of(h), pg);
    for (uint32_t i = 0; i < h->ncache; ++i)
        if (h->cache[i].pgno == pg) return i;
    return kNone;
}

// Writes the meta page copy to page 0 in file order; the copy in memory
// stays in machine order.
int write_meta(bdb_handle *h) {
    if (!(h->flags & BDB_F_SWAPPED)) return bdb_write_dpage(h, 0, h->meta, kPageSize);
    alignas(8) uint8_t image[kPageSize];
    std::memcpy(image, h->meta, kPageSize);
    bdb_swap(image, kPageSize);
    return bdb_write_dpage(h, 0, image, kPageSize);
}

// Writes a tree page's image to the meta log, in the file's byte order.
int log_point(bdb_handle *h, const bdb_page *page) {
    if (!(h->flags & BDB_F_SWAPPED)) return metalog_log_page(h, page->pgno, page);
    alignas(8) uint8_t img[kPageSize];
    std::memcpy(img, page, kPageSize);
    bdb_pgswap(img, 1);
    return metalog_log_page(h, page->pgno, img);
}

}  // namespace

// ---------------------------------------------------------------------------
// Checks of what is read from the file
// ---------------------------------------------------------------------------

namespace varlo {

const char *page_fault(const bdb_page *p, uint32_t npages) {
    const uint32_t n = p->nslots;
    if (n > (kPageSize - kHeaderSize) / kSlotSize || p->datastart > kPageSize || !slots_fit(p, 0, 0))
        return "slot array and entry area overlap";
    if (p->leftpg >= npages) return "child page past the end of the file";
    // Entry i's bytes end where entry i-1's begin (8192 for slot 0).
    uint32_t end = kPageSize;
    for (uint32_t i = 0; i < n; ++i) {
        const bdb_slot &s = p->slots[i];
        if (s.keylen < 1 || s.keylen > BDB_MAXKEY) return "key length out of range";
        const bool lng = slot_is_long(s);
        if (lng != (s.datalen >= BDB_LONGDATA)) return "long value flag disagrees with its length";
        const uint32_t size = s.keylen + (lng ? 0 : s.datalen);
        if (size > end || s.keyoff != end - size) return "entries not packed";
        if (lng) {
            if (s.dataref == 0) return "long value at page 0";
            if (static_cast<uint64_t>(s.dataref) + run_pages(s.datalen) > npages)
                return "long value runs past the end of the file";
        } else if (s.dataref != s.keyoff + s.keylen) {
            return "inline value not after its key";
        }
        if (s.childpg >= npages) return "child page past the end of the file";
        end = s.keyoff;
    }
    if (end != p->datastart) return "datastart does not match the entries";
    return nullptr;
}

int report_damage(bdb_handle *h, uint32_t pg, const char *what) {
    char ctx[128];
    std::snprintf(ctx, sizeof ctx, "page %u: %s", pg, what);
    *h->state_ref |= kStateDamaged;
    errno = 0;  // not a system failure: report no stale errno
    fail(h, BDB_E_DBTYPE, ctx);
    return -1;
}

int copy_page(bdb_handle *h, uint32_t pg, uint8_t *out, const char **why) {
    *why = nullptr;
    const uint32_t npages = *h->npages_ref;
    if (pg == 0 || pg >= npages) {
        *why = "page past the end of the file";
        return -1;
    }
    const uint32_t rec = find_record(h, pg);
    const uint8_t *cached = rec == kNone ? nullptr : buffer(h, rec);
    if (!cached || reinterpret_cast<const bdb_page *>(cached)->pgno != pg) {
        // A changed page may wait in the write-behind buffer of the meta log.
        cached = nullptr;
        const uint32_t n = metalog_active(h) ? std::min(metalog_deferred_count(h), kDeferPages) : 0;
        for (uint32_t i = 0; i < n && !cached; ++i) {
            const uint8_t *img = nullptr;
            if (metalog_deferred(h, i, &img) == pg) cached = img;
        }
    }
    if (cached) {
        std::memcpy(out, cached, kPageSize);
    } else {
        if (bdb_read_dpage(h, pg, out, kPageSize) < 0) return -1;
        if (h->flags & BDB_F_SWAPPED) bdb_pgswap(out, 0);
    }
    const auto *p = reinterpret_cast<const bdb_page *>(out);
    *why = p->pgno != pg ? "not a tree page" : page_fault(p, npages);
    return *why ? -1 : 0;
}

}  // namespace varlo

// ---------------------------------------------------------------------------
// Cache set-up
// ---------------------------------------------------------------------------

extern "C" int bdb_cache_init(bdb_handle *h, uint32_t size) {
    if (!(h->flags & BDB_F_AREA)) {
        uint64_t bytes = size <= 32767 ? 32768 : size;
        bytes = (bytes + kPageSize - 1) / kPageSize * kPageSize;
        const uint32_t n = static_cast<uint32_t>(bytes / kPageSize);
        uint32_t nb = 1;
        while (nb < 2 * n) nb <<= 1;
        const size_t rec_bytes = static_cast<size_t>(n) * sizeof(bdb_cachepg) + index_bytes(n, nb);
        auto *recs = static_cast<bdb_cachepg *>(std::calloc(1, rec_bytes));
        void *bufs = nullptr;
        // Buffers of a large cache sit on huge pages where the system has
        // them: a lookup then rarely misses the address translation cache.
        const size_t buf_bytes = static_cast<size_t>(n) * kPageSize;
        const size_t align = buf_bytes >= (2u << 20) ? (2u << 20) : 4096;
        if (!recs || posix_memalign(&bufs, align, buf_bytes) != 0) {
            std::free(recs);
            h->cache = nullptr;
            h->cache_bufs = nullptr;
            h->ncache = 0;
            h->error = BDB_E_NOMEM;
            return -1;
        }
#ifdef MADV_HUGEPAGE
        if (align > 4096) (void)madvise(bufs, buf_bytes, MADV_HUGEPAGE);
#endif
        h->cache = recs;
        h->cache_bufs = static_cast<uint8_t *>(bufs);
        h->ncache = n;
        index_of(h)->mask = nb - 1;
    }
    if ((h->flags & BDB_F_AREA) && !(h->flags & BDB_F_AREA_OWNER)) return 0;
    // A buffer's contents count only once its record holds a page (the first
    // word is cleared then), so the buffers are not touched here: memory is
    // taken as the cache fills.
    for (uint32_t i = 0; i < h->ncache; ++i) h->cache[i] = bdb_cachepg{0, 0, 0, i, 0, 0};
    if (is_indexed(h)) reset_index(h);
    return 0;
}

extern "C" void bdb_cache_free(bdb_handle *h) {
    if (!(h->flags & BDB_F_AREA)) {
        std::free(h->cache);
        std::free(h->cache_bufs);
    }
    h->cache = nullptr;
    h->cache_bufs = nullptr;
    h->ncache = 0;
}

extern "C" void *bdb_cache_pg(bdb_handle *h, uint32_t pg) {
    if (!h->cache || pg == 0) {
        h->error = BDB_E_PARAM;
        return nullptr;
    }
    return is_indexed(h) ? cache_pg_indexed(h, pg) : cache_pg_scan(h, pg);
}

// ---------------------------------------------------------------------------
// Fetching, making and committing tree pages
// ---------------------------------------------------------------------------

extern "C" bdb_page *bdb_get_dpage(bdb_handle *h, uint32_t pg, int flags) {
    VARLO_REQUIRES_MUTEX(h);
    // A reference past the end of the file is damage, not a short read.
    if (pg >= *h->npages_ref && pg != 0) {
        report_damage(h, pg, "page past the end of the file");
        return nullptr;
    }
    auto *buf = static_cast<uint8_t *>(bdb_cache_pg(h, pg));
    if (!buf) return nullptr;
    auto *page = reinterpret_cast<bdb_page *>(buf);
    if (page->pgno != pg) {
        if (bdb_read_dpage(h, pg, buf, kPageSize) < 0) {
            clear_first_word(buf);
            return nullptr;
        }
        if (h->flags & BDB_F_SWAPPED) bdb_pgswap(buf, 0);
        // The file holds something else at this page, or a damaged tree
        // page: it is refused before anything reads past its bounds.
        if (const char *why = page->pgno != pg ? "not a tree page" : page_fault(page, *h->npages_ref)) {
            clear_first_word(buf);
            report_damage(h, pg, why);
            return nullptr;
        }
    }
    if (!(flags & BDB_FORUPDATE)) return page;
    // The page's log point: its first change since the last sync. The image
    // it has now is the one the last sync left in the file.
    if (bits_tstb(h->logmap, static_cast<int32_t>(pg))) {
        if (metalog_active(h) && log_point(h, page) < 0) return nullptr;
        bits_clrb(h->logmap, static_cast<int32_t>(pg));
    }
    if (!(flags & kNoImage) && !journal_page_touched(h, page, false)) return nullptr;
    page->flags |= BDB_PGBUSY;
    journal_pinned(h, pg);
    return page;
}

extern "C" bdb_page *bdb_new_dpage(bdb_handle *h) {
    VARLO_REQUIRES_MUTEX(h);
    uint32_t pg = 0;
    if (bdb_alloc_dpages(h, 1, &pg) < 0) return nullptr;
    // A page in use at the last sync, freed and taken again since, still
    // holds in the file what the synced tree refers to: its image goes to
    // the meta log before the page is used again.
    if (bits_tstb(h->logmap, static_cast<int32_t>(pg))) {
        if (metalog_active(h) && metalog_take_pages(h, pg, 1) < 0) return nullptr;
        bits_clrb(h->logmap, static_cast<int32_t>(pg));
    }
    auto *page = static_cast<bdb_page *>(bdb_cache_pg(h, pg));
    if (!page) return nullptr;
    // A new page starts zeroed: its free gap never carries bytes left over
    // from whatever page the buffer held before.
    std::memset(page, 0, kPageSize);
    page->pgno = pg;
    page->leftpg = 0;
    page->flags = BDB_PGBUSY;
    page->datastart = kPageSize;
    page->nslots = 0;
    if (!journal_page_touched(h, page, true)) {
        bdb_inval_cache_pg(h, pg);
        return nullptr;
    }
    journal_pinned(h, pg);
    return page;
}

namespace varlo {
void cache_unpin(bdb_handle *h, uint32_t pg) {
    const uint32_t rec = find_record(h, pg);
    if (rec == kNone) return;
    auto *p = reinterpret_cast<bdb_page *>(buffer(h, rec));
    if (p->pgno == pg) p->flags &= ~BDB_PGBUSY;
}
}  // namespace varlo

extern "C" int bdb_update_dpage(bdb_handle *h, bdb_page *page) {
    page->flags &= ~BDB_PGBUSY;
    return bdb_cache_dirty(h, page->pgno);
}

extern "C" int bdb_cache_dirty(bdb_handle *h, uint32_t pg) {
    tree_changed(h);
    uint32_t rec = find_record(h, pg);
    if (rec == kNone) return -1;
    h->cache[rec].flags |= BDB_CACHE_DIRTY;
    return 0;
}

extern "C" int bdb_inval_cache_pg(bdb_handle *h, uint32_t pg) {
    tree_changed(h);
    metalog_drop_deferred(h, pg);
    uint32_t rec = find_record(h, pg);
    if (rec == kNone) return 0;
    bdb_cachepg &r = h->cache[rec];
    if (is_indexed(h)) hremove(h, index_of(h), rec);
    r.pgno = 0;
    r.age = 0;
    r.flags = 0;
    clear_first_word(buffer(h, rec));
    if (is_indexed(h)) lru_place_dropped(h, index_of(h), rec);
    return 0;
}

// The meta page's log point can fail (its image cannot be written to the
// meta log): -1 then, and the caller must not change the meta page.
extern "C" int bdb_update_meta(bdb_handle *h) {
    VARLO_REQUIRES_MUTEX(h);
    if (bits_tstb(h->logmap, 0)) {
        if (metalog_active(h) && metalog_log_meta(h) < 0) return -1;
        bits_clrb(h->logmap, 0);
    }
    journal_meta_touched(h);
    tree_changed(h);
    *h->state_ref |= BDB_METADIRTY;
    return 0;
}

// The meta log is made durable first; then the dirty pages go out in page
// order and the meta page last, and the file is fsynced. Should the fsync
// fail, the pages just written are marked dirty again, so that the next sync
// writes them once more rather than trust what the system may have dropped.
extern "C" int bdb_force_cache(bdb_handle *h) {
    if (metalog_active(h) && (metalog_flush(h) < 0 || write_deferred(h) < 0)) return -1;
    std::vector<uint32_t> order;
    try {
        for (uint32_t i = 0; i < h->ncache; ++i)
            if (h->cache[i].flags & BDB_CACHE_DIRTY) order.push_back(i);
        std::sort(order.begin(), order.end(),
                  [h](uint32_t a, uint32_t b) { return h->cache[a].pgno < h->cache[b].pgno; });
    } catch (...) {
        h->error = BDB_E_NOMEM;
        return -1;
    }
    for (uint32_t i : order) {
        // A buffer written in file order stays so: its first word no longer
        // matches the page, so the next fetch reads the page again.
        uint8_t *buf = buffer(h, i);
        if (h->flags & BDB_F_SWAPPED) bdb_pgswap(buf, 1);
        if (bdb_write_dpage(h, h->cache[i].pgno, buf, kPageSize) < 0) {
            if (h->flags & BDB_F_SWAPPED) bdb_pgswap(buf, 0);
            return -1;
        }
        h->cache[i].flags &= ~BDB_CACHE_DIRTY;
    }
    const bool meta_dirty = *h->state_ref & BDB_METADIRTY;
    if (meta_dirty) {
        if (write_meta(h) < 0) return -1;
        *h->state_ref &= ~BDB_METADIRTY;
    }
    if (sysio.fsync(h->fd) < 0) {
        for (uint32_t i : order)
            if (h->cache[i].pgno) h->cache[i].flags |= BDB_CACHE_DIRTY;
        if (meta_dirty) *h->state_ref |= BDB_METADIRTY;
        fail(h, BDB_E_IO, "db force cache fsync");
        return -1;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Page transfers. Positional reads and writes: one system call per transfer,
// no seek (so the "db lseek" failure of a seek-based transfer cannot occur),
// retried after EINTR and continued after short transfers. A transfer that
// fails leaves BDB_E_WRITE or BDB_E_READ in the handle. No page reaches the
// file before the meta log holds, durably, the image it replaces.
// ---------------------------------------------------------------------------

extern "C" int bdb_write_dpage(bdb_handle *h, uint32_t pg, const void *src, uint32_t n) {
    if (metalog_before_write(h, pg, n) < 0) return -1;
    h->stats->page_writes++;
    if (write_full(h->fd, src, n, static_cast<off_t>(pg) << kPageShift) < 0) {
        fail(h, BDB_E_WRITE, "db write");
        return -1;
    }
    return 0;
}

namespace varlo {

// Room mapped past the file's end, in pages (64 MiB).
constexpr uint32_t kMapRoom = 8192;

void map_file(bdb_handle *h, uint32_t pages) {
    if (h->fmap) sysio.unmap(const_cast<uint8_t *>(h->fmap), static_cast<size_t>(h->fmap_pages) << kPageShift);
    const uint32_t want = std::min<uint32_t>(BDB_MAXPAGES, pages + kMapRoom);
    h->fmap = static_cast<const uint8_t *>(sysio.map(h->fd, static_cast<size_t>(want) << kPageShift, 0, false));
    h->fmap_pages = h->fmap ? want : 0;
}

void unmap_file(bdb_handle *h) {
    if (h->fmap) sysio.unmap(const_cast<uint8_t *>(h->fmap), static_cast<size_t>(h->fmap_pages) << kPageShift);
    h->fmap = nullptr;
    h->fmap_pages = 0;
}

}  // namespace varlo

// Reads come from the file's mapping when there is one and the pages lie
// within the file as the page count knows it (kept exact under the database
// mutex, so a page past the end is never touched), else from a read call.
// A file grown past the mapping is mapped again (not a thread group's,
// whose handles share one mapping of the largest file there can be).
extern "C" int bdb_read_dpage(bdb_handle *h, uint32_t pg, void *dst, uint32_t n) {
    h->stats->page_reads++;
    const uint64_t end = (static_cast<uint64_t>(pg) << kPageShift) + n;
    if (h->fmap && end <= static_cast<uint64_t>(*h->npages_ref) << kPageShift && mapped_reads()) {
        if (end > static_cast<uint64_t>(h->fmap_pages) << kPageShift && !h->thread_id) map_file(h, *h->npages_ref);
        if (h->fmap && end <= static_cast<uint64_t>(h->fmap_pages) << kPageShift) {
            std::memcpy(dst, h->fmap + (static_cast<size_t>(pg) << kPageShift), n);
            return 0;
        }
    }
    if (read_full(h->fd, dst, n, static_cast<off_t>(pg) << kPageShift) < 0) {
        fail(h, BDB_E_READ, "db read");
        return -1;
    }
    return 0;
}

// A failed extension leaves BDB_E_IO, so that the allocation that asked for
// it reports a code of its own rather than whatever the handle held before.
extern "C" int bdb_extend(bdb_handle *h, uint32_t pages) {
    if (sysio.ftruncate(h->fd, static_cast<off_t>(pages) << kPageShift) < 0) {
        fail(h, BDB_E_IO, "db extend file");
        return -1;
    }
    *h->npages_ref = pages;
    return 0;
}

// ---------------------------------------------------------------------------
// Back-out of saved page images
// ---------------------------------------------------------------------------

// A restored meta page image is marked changed, so that the next sync writes
// it: otherwise a close right after the back-out would leave page 0 of the
// file describing the state that was backed out. On a handle that writes a
// meta log, images applied by a caller reach their pages through the log
// like any other change; recovery applies its records before the session's
// log starts, so they are not logged again.
extern "C" int bdb_backout_old(bdb_handle *h, const void *record, uint32_t len) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    *h->state_ref |= BDB_BACKOUT;
    int rc = 0;
    if (len < 4) {
        fail(h, BDB_E_PARAM, "Bad back-out record length");
        rc = -1;
    } else {
        uint32_t pg;
        std::memcpy(&pg, record, 4);
        const auto *image = static_cast<const uint8_t *>(record) + 4;
        const uint32_t n = len - 4;
        if (pg != 0) {
            if (static_cast<uint64_t>(pg) + run_pages(n) > BDB_MAXPAGES) {
                fail(h, BDB_E_PARAM, "recovery write failed");
                rc = -1;
            } else {
                bdb_inval_cache_pg(h, pg);
                if (bdb_write_dpage(h, pg, image, n) < 0) {
                    bdb_errlog(h, "recovery write failed");
                    rc = -1;
                }
            }
        } else if (n != kPageSize) {
            bdb_errlog(h, "Bad meta page log size");
            rc = -1;
        } else if (bdb_update_meta(h) < 0) {
            rc = -1;
        } else {
            std::memcpy(h->meta, image, kPageSize);
            *h->state_ref &= ~kStateVerified;  // a map to check again
        }
    }
    *h->state_ref &= ~BDB_BACKOUT;
    return rc;
}

// ---------------------------------------------------------------------------
// Back to the last sync
// ---------------------------------------------------------------------------

namespace varlo {

void meta_file_image(const bdb_handle *h, void *out) {
    std::memcpy(out, h->meta, kPageSize);
    if (h->flags & BDB_F_SWAPPED) bdb_swap(out, kPageSize);
}

int restore_last_sync(bdb_handle *h, const LogScan &scan) {
    *h->state_ref &= ~kStateVerified;  // the map it leaves is checked again
    // The file's byte order comes from the log: page 0 may be torn.
    if (scan.file_swapped) {
        h->flags |= BDB_F_SWAPPED;
        *h->state_ref |= kStateSwapped;
    } else {
        h->flags &= ~BDB_F_SWAPPED;
        *h->state_ref &= ~kStateSwapped;
    }
    std::vector<uint8_t> rec(4 + kPageSize);
    alignas(8) uint8_t page0[kPageSize];
    if (read_full(h->fd, page0, kPageSize, 0) < 0) {
        fail(h, BDB_E_READ, "db read");
        return -1;
    }
    // The log must describe this file: page 0 is written only by a sync,
    // after its intent is in the log, so it is the page of the last sync, the
    // one a sync was writing, or torn by a crash during that write. Anything
    // else means a log left beside another file: nothing is applied.
    const uint64_t h0 = log_hash(page0, kPageSize, 0);
    if (h0 != scan.meta_hash && !scan.has_intent) {
        errno = 0;
        fail(h, BDB_E_OPEN, "meta log does not describe this database file");
        return -1;
    }
    bool meta_logged = false;
    for (const auto &r : scan.records) meta_logged |= r.pgno == 0;
    std::vector<uint32_t> done(BDB_MAPWORDS, 0u);
    for (const auto &r : scan.records) {
        if ((done[r.pgno >> 5] >> (r.pgno & 31)) & 1u) continue;  // the first image of a page counts
        done[r.pgno >> 5] |= 1u << (r.pgno & 31);
        if (metalog_read(h, scan, r, rec.data()) < 0 || bdb_backout_old(h, rec.data(), 4 + kPageSize) < 0) return -1;
    }
    // Whatever the cache holds (another process's changes in a shared area)
    // is later than the last sync.
    metalog_clear_deferred(h);
    for (uint32_t i = 0; i < h->ncache; ++i) bdb_inval_cache_pg(h, h->cache[i].pgno);
    if (meta_logged) {
        if (write_meta(h) < 0) return -1;
    } else {
        // Without a record of it the meta page did not change: the file's
        // page is the synced one.
        std::memcpy(h->meta, page0, kPageSize);
        if (h->flags & BDB_F_SWAPPED) bdb_swap(h->meta, kPageSize);
    }
    *h->state_ref &= ~BDB_METADIRTY;
    if (sysio.ftruncate(h->fd, static_cast<off_t>(scan.synced_pages) << kPageShift) < 0 || sysio.fsync(h->fd) < 0) {
        fail(h, BDB_E_IO, "recovery sync");
        return -1;
    }
    *h->npages_ref = scan.synced_pages;
    refresh_logmap(h);
    return 0;
}

// A recovery that fails leaves the mark in place: the next call tries again
// (applying the images again gives the same result) and every call fails
// meanwhile, so nobody works on the half-changed pages.
int area_check(bdb_handle *h) {
    if (!(h->flags & BDB_F_AREA) || !(*h->state_ref & kStateChanging)) return 0;
    // The mutex is ours, so whoever set the mark died part way through.
    // Everything since the last sync is undone, for every user, as after a
    // crash: it was not yet durable.
    if (h->mlog) {
        metalog_stop(h);
        LogScan scan;
        alignas(8) uint8_t image[kPageSize];
        if (metalog_scan(h, &scan) == 0 && restore_last_sync(h, scan) == 0) {
            meta_file_image(h, image);
            if (metalog_begin(h, scan, image, *h->npages_ref) == 0) {
                *h->state_ref &= ~kStateChanging;
                return 0;
            }
        }
    } else {
        errno = 0;
        h->error = BDB_E_IO;
    }
    bdb_errlog(h, "a process died during a change and the database could not be brought back to its last sync");
    return -1;
}

}  // namespace varlo
