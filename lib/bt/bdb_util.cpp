// Byte order conversion, bit maps and page allocation, entries of tree pages
// and long values, the default comparison, and the split point.
//
// The file format is described once, in bdb.h (bdb_meta, bdb_page, bdb_slot).
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "preimage.h"

using namespace varlo;

// ---------------------------------------------------------------------------
// The meta page of a new database
// ---------------------------------------------------------------------------

// The words at offsets 4, 12 and 16 are written as 1, 1 and 0 and never read
// back: they carry no meaning.
void varlo::init_meta(bdb_meta *m, uint32_t mode) {
    std::memset(m, 0, kPageSize);
    bits_setb(m->pgmap, 0);
    m->magic = BDB_MAGIC;
    m->reserved1 = 1;
    m->mode = mode;
    m->reserved3 = 1;
    m->root = 0;
}

// ---------------------------------------------------------------------------
// Byte order
// ---------------------------------------------------------------------------

extern "C" void bdb_swap(void *addr, uint32_t len) {
    if (len < 4) return;
    auto *p = static_cast<uint8_t *>(addr);
    uint32_t mis = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p) & 3u);
    if (mis) {
        uint32_t skip = 4 - mis;
        if (len <= skip) return;
        p += skip;
        len -= skip;
    }
    len &= ~3u;
    for (uint32_t i = 0; i < len; i += 4) {
        uint32_t w;
        std::memcpy(&w, p + i, 4);
        w = __builtin_bswap32(w);
        std::memcpy(p + i, &w, 4);
    }
}

// The conversion covers the header, the slots and the 24 bytes after them.
// A damaged nslots is clamped to the page so that the conversion never runs
// past the buffer; the integrity check reports such a page.
static uint32_t swap_span(uint32_t nslots) {
    uint64_t span = kPageReserve + static_cast<uint64_t>(kSlotSize) * nslots;
    return span > kPageSize ? kPageSize : static_cast<uint32_t>(span);
}

extern "C" void bdb_pgswap(void *page, int dir) {
    auto *p = static_cast<uint8_t *>(page);
    if (dir == 0) {
        bdb_swap(p, kPageReserve);
        uint32_t n;
        std::memcpy(&n, p + 16, 4);
        uint32_t span = swap_span(n);
        bdb_swap(p + kPageReserve, span - kPageReserve);
    } else {
        uint32_t n;
        std::memcpy(&n, p + 16, 4);
        bdb_swap(p, swap_span(n));
    }
}

// ---------------------------------------------------------------------------
// Bit maps
// ---------------------------------------------------------------------------

namespace varlo {
const int32_t _zeroes[16] = {4, 0, 1, 0, 2, 0, 1, 0, 3, 0, 1, 0, 2, 0, 1, 0};
}

extern "C" void bits_setb(uint32_t *map, int32_t bit) { map[bit >> 5] |= 1u << (bit & 31); }
extern "C" void bits_clrb(uint32_t *map, int32_t bit) { map[bit >> 5] &= ~(1u << (bit & 31)); }
extern "C" int bits_tstb(const uint32_t *map, int32_t bit) { return (map[bit >> 5] >> (bit & 31)) & 1u; }

namespace varlo {

// Counts the bits from `start` upward that equal the pattern's, at most `max`,
// never past the map's last word: a whole word at a time where it matches
// entirely, otherwise a nibble at a time. -1 when start lies beyond the map.
int32_t bits_tst(const uint32_t *map, int32_t nwords, uint32_t pattern, int32_t start, int32_t max) {
    if (start < 0) return -1;
    int32_t w = start >> 5;
    if (w >= nwords) return -1;
    int32_t b = start & 31;
    int32_t count = 0;
    int32_t nib = b >> 2;
    if (b & 3) {
        uint32_t x = map[w] ^ pattern;
        int32_t t = _zeroes[(x >> b) & 15u];
        if (t < 4) return std::min(t, max);
        count = 4 - (b & 3);
        if (++nib == 8) {
            nib = 0;
            ++w;
        }
    }
    while (count < max && w < nwords) {
        uint32_t x = map[w] ^ pattern;
        if (nib == 0 && x == 0) {
            count += 32;
        } else {
            bool stop = false;
            for (; nib < 8; ++nib) {
                int32_t t = _zeroes[(x >> (4 * nib)) & 15u];
                count += t;
                if (count >= max || t < 4) {
                    stop = true;
                    break;
                }
            }
            if (stop) break;
        }
        ++w;
        nib = 0;
    }
    return std::min(count, max);
}

int32_t bits_tstclr(const uint32_t *map, int32_t nwords, int32_t start, int32_t max) {
    return bits_tst(map, nwords, 0u, start, max);
}

int32_t bits_tstset(const uint32_t *map, int32_t nwords, int32_t start, int32_t max) {
    return bits_tst(map, nwords, 0xffffffffu, start, max);
}

uint32_t count_free_pages(const bdb_handle *h) {
    uint32_t used = 0;
    for (uint32_t i = 0; i < BDB_MAPWORDS; ++i) used += static_cast<uint32_t>(__builtin_popcount(h->meta->pgmap[i]));
    return BDB_MAXPAGES - used;
}

}  // namespace varlo

// ---------------------------------------------------------------------------
// Page allocation
// ---------------------------------------------------------------------------

namespace {

// First fit of n consecutive clear bits in map, from page 0: the first page
// of the run, or -1 when there is none below BDB_MAXPAGES.
int32_t first_fit(const uint32_t *map, uint32_t n) {
    const int32_t nw = static_cast<int32_t>(BDB_MAPWORDS);
    const int32_t maxp = static_cast<int32_t>(BDB_MAXPAGES);
    if (n < 1 || n > BDB_MAXPAGES) return -1;
    int32_t start = 0;
    for (;;) {
        int32_t s = bits_tstset(map, nw, start, maxp - start);
        if (s < 0) return -1;
        start += s;
        int32_t r = bits_tstclr(map, nw, start, static_cast<int32_t>(n));
        if (r < 0) return -1;
        if (static_cast<uint32_t>(r) >= n) return start;
        start += r;
    }
}

// Takes the run [pg, pg + n): the file grows to hold it, then the meta
// page's log point, then the map.
// `extend`: the file grows here to hold the run; otherwise the caller's
// write of the whole run makes it that long (write_data_run).
int take_run(bdb_handle *h, uint32_t pg, uint32_t n, uint32_t *first, bool extend = true) {
    if (pg > *h->npages_ref) return report_damage(h, *h->npages_ref, "the allocation map marks pages past the end of the file");
    if (extend && pg + n > *h->npages_ref && bdb_extend(h, pg + n) < 0) return -1;
    if (bdb_update_meta(h) < 0) return -1;
    for (uint32_t i = 0; i < n; ++i) bits_setb(h->meta->pgmap, static_cast<int32_t>(pg + i));
    *first = pg;
    return 0;
}

// A page is handed out only when nothing the tree uses can be on it: the map
// must mark the meta page, and the first allocation of a session checks once
// that every page the tree references is marked (verify_references), so that
// from then on a page free in the map is free indeed. Pages past the end of
// the file are never in use: a map that marks them, and so would send the
// file far past its end, is damaged (take_run).
bool may_allocate(bdb_handle *h) {
    if (*h->state_ref & kStateDamaged) {
        fail(h, BDB_E_DBTYPE, "the database is damaged: nothing more is allocated");
        return false;
    }
    if (!bits_tstb(h->meta->pgmap, 0)) return report_damage(h, 0, "the allocation map marks the meta page free"), false;
    return (*h->state_ref & kStateVerified) || verify_references(h);
}

}  // namespace

extern "C" int bdb_alloc_dpages(bdb_handle *h, uint32_t n, uint32_t *first) {
    if (!may_allocate(h)) return -1;
    const int32_t start = first_fit(h->meta->pgmap, n);
    if (start < 0) {
        errno = ENOSPC;
        fail(h, BDB_E_FULL, "db too big - no room in meta");
        return -1;
    }
    return take_run(h, static_cast<uint32_t>(start), n, first);
}

namespace varlo {

// Long values up to this size are written from one staged copy.
constexpr uint64_t kStagedRun = 64u << 10;

// A long value is written straight to its run, so a run over pages that the
// last sync left in use would have to wait for their images to reach the
// meta log durably (one fsync each time). The run therefore goes first fit
// among pages that are free now and were free at the last sync as well (the
// log map marks the others); only when there is no such run does it take
// pages freed since, as bdb_alloc_dpages would, and pay for the log.
int alloc_data_run(bdb_handle *h, uint32_t n, uint32_t *first) {
    if (!may_allocate(h)) return -1;
    if (metalog_active(h)) {
        uint32_t both[BDB_MAPWORDS];
        for (uint32_t w = 0; w < BDB_MAPWORDS; ++w) both[w] = h->meta->pgmap[w] | h->logmap[w];
        const int32_t start = first_fit(both, n);
        if (start >= 0) return take_run(h, static_cast<uint32_t>(start), n, first, false);
    }
    return bdb_alloc_dpages(h, n, first);
}

// Writes a long value to its new run, whole pages (the bytes after the value
// are zero): a run past the file's end is made part of the file by this
// write rather than by growing the file first, and the page count follows
// once the write is done. The meta log takes what it needs first
// (bdb_write_dpage); any bit still set then is cleared as for every new page
// (nothing of it is left to log).
int write_data_run(bdb_handle *h, uint32_t first, const void *data, uint32_t len) {
    const uint32_t n = run_pages(len);
    const uint64_t whole = static_cast<uint64_t>(n) << kPageShift;
    if (whole - len > 0 && whole <= kStagedRun) {
        alignas(64) static thread_local uint8_t staged[kStagedRun];
        std::memcpy(staged, data, len);
        std::memset(staged + len, 0, whole - len);
        if (bdb_write_dpage(h, first, staged, static_cast<uint32_t>(whole)) < 0) return -1;
    } else {
        if (bdb_write_dpage(h, first, data, len) < 0) return -1;
        if (whole > len) {
            // The rest of the last page, so that the file ends on a page.
            static const uint8_t zeros[kPageSize] = {};
            const uint64_t at = (static_cast<uint64_t>(first) << kPageShift) + len;
            if (write_full(h->fd, zeros, whole - len, static_cast<off_t>(at)) < 0) {
                fail(h, BDB_E_WRITE, "db write");
                return -1;
            }
        }
    }
    if (first + n > *h->npages_ref) *h->npages_ref = first + n;
    for (uint32_t i = 0; i < n; ++i)
        if (bits_tstb(h->logmap, static_cast<int32_t>(first + i))) bits_clrb(h->logmap, static_cast<int32_t>(first + i));
    return 0;
}

}  // namespace varlo

extern "C" int bdb_free_dpage(bdb_handle *h, bdb_page *page) {
    uint32_t pg = page->pgno;
    if (!journal_page_touched(h, page, false)) return -1;
    if (bdb_update_meta(h) < 0) return -1;
    bits_clrb(h->meta->pgmap, static_cast<int32_t>(pg));
    bdb_inval_cache_pg(h, pg);
    return 0;
}

namespace varlo {

uint32_t pages_to_keep(bdb_handle *h) {
    const uint32_t have = *h->npages_ref, marked = bdb_find_max_page_number(h);
    if (marked >= have) return have;  // a map never grows the file
    // A cut below what the tree references would lose records: the map is
    // trusted for a cut only once checked against the tree.
    if ((*h->state_ref & kStateDamaged) || (!(*h->state_ref & kStateVerified) && !verify_references(h))) return have;
    return marked;
}

}  // namespace varlo

extern "C" uint32_t bdb_find_max_page_number(bdb_handle *h) {
    const uint32_t *map = h->meta->pgmap;
    for (int32_t w = static_cast<int32_t>(BDB_MAPWORDS) - 1; w >= 0; --w) {
        if (map[w]) return 32u * static_cast<uint32_t>(w) + (31u - static_cast<uint32_t>(__builtin_clz(map[w]))) + 1u;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Entries
// ---------------------------------------------------------------------------

namespace varlo {
void entry_release(bdb_entry *e) {
    if (e->flags & BDB_KEYALLOC) {
        std::free(e->key);
        e->key = nullptr;
        e->flags &= ~BDB_KEYALLOC;
    }
    if (e->flags & BDB_DATAALLOC) {
        std::free(e->data);
        e->data = nullptr;
        e->flags &= ~BDB_DATAALLOC;
    }
}
}  // namespace varlo

extern "C" int bdb_insdatum(bdb_handle *h, bdb_page *page, int32_t pos, bdb_entry *e) {
    const uint32_t c = page->nslots;
    const uint32_t s = entry_size(*e);
    uint32_t flags = e->flags;
    uint32_t dataref = 0;
    bool long_value = e->datalen >= BDB_LONGDATA;

    // The slot array and the entry must fit below datastart whatever the
    // caller checked: a page is never overwritten past its free space.
    if (pos < -1 || pos >= static_cast<int32_t>(c) || !slots_fit(page, 1, s) || e->keylen == 0 ||
        e->keylen > BDB_MAXKEY) {
        h->error = BDB_E_PARAM;
        entry_release(e);
        return -1;
    }

    // A new long value gets its run allocated and written before the slot is
    // placed, so that the page never holds a slot without a valid value.
    if (long_value && !(flags & BDB_DPAGES)) {
        uint32_t n = run_pages(e->datalen);
        uint32_t first = 0;
        if (alloc_data_run(h, n, &first) < 0) {
            entry_release(e);
            return -1;
        }
        if (write_data_run(h, first, e->data, e->datalen) < 0) {
            bdb_del_dpages(h, first, n);
            entry_release(e);
            return -1;
        }
        flags |= BDB_DPAGES;
        dataref = first;
    } else if (long_value) {
        dataref = BDB_ENTRY_PAGE(e);
    }

    uint8_t *bytes = page_bytes(page);
    uint32_t m = pos < 0 ? kPageSize - page->datastart : page->slots[pos].keyoff - page->datastart;
    if (m > 0) std::memmove(bytes + page->datastart - s, bytes + page->datastart, m);
    page->datastart -= s;
    page->nslots = c + 1;
    for (int32_t k = static_cast<int32_t>(c); k >= pos + 2; --k) {
        page->slots[k] = page->slots[k - 1];
        page->slots[k].keyoff -= s;
        if (!slot_is_long(page->slots[k])) page->slots[k].dataref -= s;
    }
    bdb_slot &sl = page->slots[pos + 1];
    sl.childpg = e->childpg;
    // The slot keeps the entry's whole flags word, the engine's working bits
    // included; every reader looks at bit 0 (BDB_DPAGES) only.
    sl.flags = flags;
    sl.keylen = e->keylen;
    sl.datalen = e->datalen;
    sl.keyoff = page->datastart + m;
    std::memcpy(bytes + sl.keyoff, e->key, e->keylen);
    if (!long_value) {
        sl.dataref = sl.keyoff + e->keylen;
        if (e->datalen) std::memcpy(bytes + sl.dataref, e->data, e->datalen);
    } else {
        sl.dataref = dataref;
    }
    entry_release(e);
    return 0;
}

extern "C" int bdb_getdatum(bdb_handle *h, const bdb_page *page, int32_t idx, bdb_entry *e) {
    const bdb_slot &sl = page->slots[idx];
    e->flags = sl.flags;
    e->childpg = sl.childpg;
    e->keylen = sl.keylen;
    e->key = std::malloc(sl.keylen ? sl.keylen : 1);
    if (!e->key) {
        h->error = BDB_E_NOMEM;
        e->flags = 0;
        return -1;
    }
    e->flags |= BDB_KEYALLOC;
    std::memcpy(e->key, page_bytes(page) + sl.keyoff, sl.keylen);
    e->datalen = sl.datalen;
    if (slot_is_long(sl)) {
        e->data = BDB_PAGE_PTR(sl.dataref);
    } else if (sl.datalen == 0) {
        e->data = nullptr;
    } else {
        e->data = std::malloc(sl.datalen);
        if (!e->data) {
            std::free(e->key);
            e->key = nullptr;
            e->flags = 0;
            h->error = BDB_E_NOMEM;
            return -1;
        }
        e->flags |= BDB_DATAALLOC;
        std::memcpy(e->data, page_bytes(page) + sl.dataref, sl.datalen);
    }
    return 0;
}

extern "C" int bdb_deldata(bdb_handle *h, bdb_page *page, int32_t idx, int mode) {
    if (idx < 0 || static_cast<uint32_t>(idx) >= page->nslots) {
        h->error = BDB_E_PARAM;
        return -1;
    }
    bdb_slot victim = page->slots[idx];
    uint32_t s = victim.keylen;
    if (slot_is_long(victim)) {
        if (!(mode & BDB_KEEPPAGES)) bdb_del_dpages(h, victim.dataref, run_pages(victim.datalen));
    } else {
        s += victim.datalen;
    }
    uint8_t *bytes = page_bytes(page);
    uint32_t below = victim.keyoff - page->datastart;
    if (below) std::memmove(bytes + page->datastart + s, bytes + page->datastart, below);
    const uint32_t n = page->nslots;
    for (uint32_t k = static_cast<uint32_t>(idx); k + 1 < n; ++k) {
        page->slots[k] = page->slots[k + 1];
        page->slots[k].keyoff += s;
        if (!slot_is_long(page->slots[k])) page->slots[k].dataref += s;
    }
    page->datastart += s;
    page->nslots = n - 1;
    return 0;
}

extern "C" int bdb_del_dpages(bdb_handle *h, uint32_t first, uint32_t n) {
    if (n == 0) return 0;
    if (first == 0 || static_cast<uint64_t>(first) + n > BDB_MAXPAGES)
        return report_damage(h, first, "long value run outside the allocation map");
    if (journal_defer_run(h, first, n)) return 0;
    if (bdb_update_meta(h) < 0) return -1;
    for (uint32_t i = 0; i < n; ++i) bits_clrb(h->meta->pgmap, static_cast<int32_t>(first + i));
    return 0;
}

extern "C" int bdb_data_fits(const bdb_page *page, const bdb_entry *e) {
    return entry_size(*e) + kSlotSize <= page_room(page) ? 1 : 0;
}

extern "C" uint32_t bdb_key_data_size(const bdb_page *page, int32_t idx) {
    const bdb_slot &sl = page->slots[idx];
    return sl.keylen + (slot_is_long(sl) ? 0 : sl.datalen);
}

extern "C" int bdb_ret_key(const bdb_page *page, bdb_datum *key, int32_t idx) {
    const bdb_slot &sl = page->slots[idx];
    auto *out = static_cast<uint8_t *>(key->ptr);
    std::memcpy(out, page_bytes(page) + sl.keyoff, sl.keylen);
    key->len = sl.keylen;
    if (sl.keylen <= BDB_MAXKEY - 1) out[sl.keylen] = 0;
    return 0;
}

extern "C" int bdb_ret_data(bdb_handle *h, const bdb_page *page, bdb_datum *data, int32_t idx) {
    const bdb_slot &sl = page->slots[idx];
    data->len = sl.datalen;
    if (sl.datalen == 0) {
        data->ptr = nullptr;
        return 0;
    }
    // The stated length is checked against the file before it is allocated.
    if (slot_is_long(sl) && (sl.dataref == 0 || static_cast<uint64_t>(sl.dataref) + run_pages(sl.datalen) > *h->npages_ref)) {
        data->ptr = nullptr;
        return report_damage(h, sl.dataref, "long value runs past the end of the file");
    }
    auto *buf = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(sl.datalen) + 1));
    if (!buf) {
        data->ptr = nullptr;
        h->error = BDB_E_NOMEM;
        return -1;
    }
    if (slot_is_long(sl)) {
        if (bdb_read_dpage(h, sl.dataref, buf, sl.datalen) < 0) {
            std::free(buf);
            data->ptr = nullptr;
            h->error = BDB_E_READ;
            return -1;
        }
    } else {
        std::memcpy(buf, page_bytes(page) + sl.dataref, sl.datalen);
    }
    buf[sl.datalen] = 0;
    data->ptr = buf;
    return 0;
}

extern "C" int bdb_dti_compare(const bdb_datum *a, const bdb_datum *b) {
    if (a->ptr == b->ptr) return 0;
    if (!a->ptr) return -1;
    if (!b->ptr) return 1;
    return key_order(static_cast<const uint8_t *>(a->ptr), a->len, static_cast<const uint8_t *>(b->ptr), b->len);
}

extern "C" void bdbcpy(const void *src, void *dst, uint32_t n) {
    const auto *s = static_cast<const uint8_t *>(src);
    auto *d = static_cast<uint8_t *>(dst);
    if (s < d && d < s + n) {
        for (uint32_t i = n; i > 0; --i) d[i - 1] = s[i - 1];
    } else {
        for (uint32_t i = 0; i < n; ++i) d[i] = s[i];
    }
}

// ---------------------------------------------------------------------------
// Split point
// ---------------------------------------------------------------------------

extern "C" int32_t bdb_where_split(const bdb_page *page, int32_t p, const bdb_entry *e) {
    const int32_t count = static_cast<int32_t>(page->nslots);
    const uint32_t ns = e->keylen + (e->datalen < BDB_LONGDATA ? e->datalen : 0);
    const uint32_t half = (kPageSize - page->datastart) / 2;
    uint32_t left = 0, right = 0;
    for (int32_t i = 0; i < count; ++i) {
        if (i <= p)
            left += bdb_key_data_size(page, i);
        else
            right += bdb_key_data_size(page, i);
    }
    int32_t i;
    if (left < right) {
        i = p + 1;
        while (i < count - 2 && left + ns < half) {
            left += bdb_key_data_size(page, i);
            ++i;
        }
    } else {
        i = p;
        while (i > 1 && right + ns < half) {
            right += bdb_key_data_size(page, i);
            --i;
        }
    }
    return i;
}

// ---------------------------------------------------------------------------
// Tree walk
// ---------------------------------------------------------------------------

namespace {

// The walk of one subtree; `level` counts the recursion so that a cycle of
// child pointers in a damaged file ends with an error.
int walk(bdb_handle *h, uint32_t pgno, bdb_visit_fn visit, int mode, int32_t depth, int level) {
    if (pgno == 0) return 0;
    if (level > kMaxDepth) {
        fail(h, BDB_E_DBTYPE, "tree too deep: damaged child links");
        return -1;
    }
    bdb_page *p = bdb_get_dpage(h, pgno, 0);
    if (!p) return -1;
    const uint32_t n = p->nslots;
    if (mode == 0 && visit && visit(h, p, 0, depth) < 0) return -1;
    if (walk(h, p->leftpg, visit, mode, depth + 1, level + 1) < 0) return -1;
    for (uint32_t i = 0; i < n; ++i) {
        // The walk below may have taken this page's buffer.
        if (!(p = bdb_get_dpage(h, pgno, 0))) return -1;
        if (i >= p->nslots) break;
        if (mode == 1 && visit && visit(h, p, static_cast<int32_t>(i), depth) < 0) return -1;
        if (walk(h, p->slots[i].childpg, visit, mode, depth + 1, level + 1) < 0) return -1;
    }
    return 0;
}

}  // namespace

extern "C" int bdb_parse_tree(bdb_handle *h, uint32_t pgno, bdb_visit_fn visit, int mode, int32_t depth) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    return walk(h, pgno, visit, mode, depth, 0);
}
