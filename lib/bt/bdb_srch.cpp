// The tree engine: search and dispatch, insertion with page splits, deletion
// with merges and redistribution, replacement of values.
//
// Every record is stored once, in an inner page or a leaf. Changes travel
// upward through the recursion: a level that splits hands a separator to its
// parent (SR_PROMOTE), a level that lost an entry asks its parent to
// rebalance it (SR_SHRUNK). Children are numbered -1 (leftpg) to n-1; a child
// page number of 0 is an empty subtree (a hole), and pages without entries
// may remain in the tree: every step below copes with both.
//
// A change either completes or leaves the database as it was: every change
// runs under a journal that keeps the pre-change image of each tree page it
// touches and of the meta page, and defers the release of long-value runs to
// the end. When any step fails (full file, no memory, I/O error) the images
// are put back, so that every record that was there before stays readable.
#include <cerrno>
#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <utility>

#include "preimage.h"

using namespace varlo;

// ---------------------------------------------------------------------------
// Ending a change: its journal's images put back, or its deferred releases
// carried out
// ---------------------------------------------------------------------------

namespace {

// Internal result: the subtree searched for a predecessor holds no record;
// its pages have been released and the parent must clear its pointer.
constexpr int SR_EMPTYSUB = 100;

// The change succeeded: release the runs it gave up.
void finish(bdb_handle *h, ChangeJournal &j) {
    j.pause();
    for (uint32_t pg : j.pins()) cache_unpin(h, pg);
    for (const auto &run : j.deferred_runs()) bdb_del_dpages(h, run[0], run[1]);
    j.resume_empty();
}

// Undoes one note of a change that stayed on one page (see SavedPage).
bool undo_note(bdb_handle *h, const SavedPage &n) {
    bdb_page *p = bdb_get_dpage(h, n.pgno, 0);
    if (!p) return false;
    if (n.kind == SavedPage::kInserted) {
        if (bdb_deldata(h, p, n.pos, BDB_KEEPPAGES) < 0) return false;
    } else if (n.kind == SavedPage::kBytes) {
        std::memcpy(page_bytes(p) + n.off, n.bytes, n.len);
    } else {
        const bool lng = slot_is_long(n.slot);
        bdb_entry e{const_cast<uint8_t *>(n.bytes), n.slot.keylen,
                    lng ? BDB_PAGE_PTR(n.slot.dataref) : const_cast<uint8_t *>(n.bytes) + n.slot.keylen,
                    n.slot.datalen, n.slot.flags & ~(BDB_KEYALLOC | BDB_DATAALLOC), n.slot.childpg};
        if (bdb_insdatum(h, p, n.pos - 1, &e) < 0) return false;
        set_child_at(p, n.pos - 1, n.off);
    }
    p->flags &= ~BDB_PGBUSY;
    return bdb_cache_dirty(h, n.pgno) == 0;
}

// The change failed: put back every page image and undo every note, newest
// first, and the meta page.
void undo(bdb_handle *h, ChangeJournal &j) {
    j.pause();
    const uint32_t saved_error = h->error;
    for (uint32_t i = 0; i < j.page_count(); ++i) {
        const SavedPage sp = j.page(i);
        if (sp.kind == SavedPage::kFresh) {
            bdb_inval_cache_pg(h, sp.pgno);
            continue;
        }
        if (sp.kind != SavedPage::kImage) {
            if (!undo_note(h, sp)) bdb_errlog(h, "rollback of a change failed");
            continue;
        }
        auto *buf = static_cast<uint8_t *>(bdb_cache_pg(h, sp.pgno));
        if (buf) {
            std::memcpy(buf, sp.bytes, kPageSize);
            reinterpret_cast<bdb_page *>(buf)->flags &= ~BDB_PGBUSY;
            bdb_cache_dirty(h, sp.pgno);
        } else {
            // No buffer could be freed for it: write the image straight to
            // the file instead.
            alignas(8) uint8_t tmp[kPageSize];
            std::memcpy(tmp, sp.bytes, kPageSize);
            reinterpret_cast<bdb_page *>(tmp)->flags &= ~BDB_PGBUSY;
            if (h->flags & BDB_F_SWAPPED) bdb_pgswap(tmp, 1);
            if (bdb_write_dpage(h, sp.pgno, tmp, kPageSize) < 0) bdb_errlog(h, "rollback write failed");
        }
    }
    if (const uint8_t *meta = j.meta_image()) {
        std::memcpy(h->meta, meta, kPageSize);
        *h->state_ref |= BDB_METADIRTY;
    }
    for (uint32_t pg : j.pins()) cache_unpin(h, pg);
    h->error = saved_error;
    j.resume_empty();
}

}  // namespace

// ---------------------------------------------------------------------------
// Block moves of entries between pages
// ---------------------------------------------------------------------------

namespace {

// End (exclusive) of entry i's bytes: entries are packed downward from 8192
// in slot order.
inline uint32_t entry_end(const bdb_page *p, uint32_t i) { return i == 0 ? kPageSize : p->slots[i - 1].keyoff; }

inline void shift_slot(bdb_slot &s, int64_t delta) {
    s.keyoff = static_cast<uint32_t>(s.keyoff + delta);
    if (!slot_is_long(s)) s.dataref = static_cast<uint32_t>(s.dataref + delta);
}

// Appends src's entries [from, to) to the end of dst: their bytes in one block
// below dst's, their slots after dst's.
bool append_block(bdb_page *dst, const bdb_page *src, uint32_t from, uint32_t to) {
    if (from >= to) return true;
    const uint32_t s0 = src->slots[to - 1].keyoff, e0 = entry_end(src, from);
    const uint32_t b = e0 - s0, cnt = to - from;
    if (!slots_fit(dst, cnt, b)) return false;
    const uint32_t d = dst->datastart;
    std::memcpy(page_bytes(dst) + d - b, page_bytes(src) + s0, b);
    const int64_t delta = static_cast<int64_t>(d) - e0;
    for (uint32_t k = 0; k < cnt; ++k) {
        dst->slots[dst->nslots + k] = src->slots[from + k];
        shift_slot(dst->slots[dst->nslots + k], delta);
    }
    dst->datastart = d - b;
    dst->nslots += cnt;
    return true;
}

// Puts src's entries [from, to) in front of dst's entries.
bool prepend_block(bdb_page *dst, const bdb_page *src, uint32_t from, uint32_t to) {
    if (from >= to) return true;
    const uint32_t s0 = src->slots[to - 1].keyoff, e0 = entry_end(src, from);
    const uint32_t b = e0 - s0, cnt = to - from;
    if (!slots_fit(dst, cnt, b)) return false;
    uint8_t *db = page_bytes(dst);
    const uint32_t d = dst->datastart;
    std::memmove(db + d - b, db + d, kPageSize - d);
    std::memmove(&dst->slots[cnt], &dst->slots[0], static_cast<size_t>(dst->nslots) * kSlotSize);
    for (uint32_t k = 0; k < dst->nslots; ++k) shift_slot(dst->slots[cnt + k], -static_cast<int64_t>(b));
    std::memcpy(db + kPageSize - b, page_bytes(src) + s0, b);
    const int64_t delta = static_cast<int64_t>(kPageSize) - e0;
    for (uint32_t k = 0; k < cnt; ++k) {
        dst->slots[k] = src->slots[from + k];
        shift_slot(dst->slots[k], delta);
    }
    dst->datastart = d - b;
    dst->nslots += cnt;
    return true;
}

// Drops entries [from, n) (the lowest bytes of the entry area).
void remove_tail(bdb_page *p, uint32_t from) {
    if (from >= p->nslots) return;
    p->datastart = entry_end(p, from);
    p->nslots = from;
}

// Drops entries [0, k) and moves the rest to the front.
void remove_front(bdb_page *p, uint32_t k) {
    if (k == 0) return;
    const uint32_t n = p->nslots;
    if (k >= n) {
        p->datastart = kPageSize;
        p->nslots = 0;
        return;
    }
    const uint32_t cut = p->slots[k - 1].keyoff;  // bytes [cut, 8192) go
    const uint32_t b = kPageSize - cut;
    uint8_t *pb = page_bytes(p);
    std::memmove(pb + p->datastart + b, pb + p->datastart, cut - p->datastart);
    std::memmove(&p->slots[0], &p->slots[k], static_cast<size_t>(n - k) * kSlotSize);
    for (uint32_t i = 0; i < n - k; ++i) shift_slot(p->slots[i], b);
    p->datastart += b;
    p->nslots = n - k;
}

// Used bytes of a page for balancing: slots plus entry bytes.
inline uint32_t used_size(const bdb_page *p) { return p->nslots * kSlotSize + (kPageSize - p->datastart); }
inline uint32_t esize(const bdb_page *p, int32_t i) { return bdb_key_data_size(p, i) + kSlotSize; }

// ---------------------------------------------------------------------------
// Fetch and commit helpers
// ---------------------------------------------------------------------------

inline bdb_page *read_page(bdb_handle *h, uint32_t pg) { return bdb_get_dpage(h, pg, 0); }
inline bdb_page *change_page(bdb_handle *h, uint32_t pg) {
    assert(journal_of(h));
    return bdb_get_dpage(h, pg, BDB_FORUPDATE);
}
// For a change of one page that the engine notes itself (no page image).
inline bdb_page *note_page(bdb_handle *h, uint32_t pg) {
    assert(journal_of(h));
    return bdb_get_dpage(h, pg, BDB_FORUPDATE | kNoImage);
}
// Takes the page's image after all (the change goes further than a note).
inline bool keep_image(bdb_handle *h, const bdb_page *p) { return journal_page_touched(h, p, false); }

// Commits a change; fails when the page was meanwhile taken for another one.
inline bool commit(bdb_handle *h, bdb_page *p, uint32_t pg) { return p->pgno == pg && bdb_update_dpage(h, p) == 0; }

inline bool is_empty_page(const bdb_page *p) { return p->nslots == 0 && p->leftpg == 0; }

int too_deep(bdb_handle *h) {
    report_damage(h, h->meta->root, "tree too deep: damaged child links");
    return SR_NOPAGE;
}

// Hands entry i's key and value to the caller. For a successor (after set:
// the caller's key) the record must order after it; in a damaged tree it may
// not, and handing it out could walk the caller in circles.
int hand_out(bdb_handle *h, const bdb_page *p, int32_t i, bdb_datum *key, bdb_datum *data,
             const bdb_datum *after = nullptr) {
    if (after) {
        bdb_datum cand = slot_key(p, i);
        if ((h->compare ? h->compare : bdb_dti_compare)(after, &cand) >= 0) {
            report_damage(h, p->pgno, "keys out of order: damaged tree");
            return SR_NOPAGE;
        }
    }
    if (!key->ptr) {  // a null key given to bdb_next that a compare function matched
        h->error = BDB_E_PARAM;
        return SR_NOPAGE;
    }
    if (bdb_ret_key(p, key, i) < 0) return SR_NOMEM;
    if (bdb_ret_data(h, p, data, i) < 0) return SR_NOPAGE;
    // The walk's position, for the next bdb_next.
    if (const uint32_t *v = tree_version(h)) {
        h->walk_pgno = p->pgno;
        h->walk_slot = static_cast<uint32_t>(i);
        h->walk_version = *v;
    }
    return SR_OK;
}

// bdb_next from the position of the record handed out last, when the tree
// has not changed since and the key given is that record's: its successor is
// the next entry of the same page when the entry has no right subtree.
// SR_NOTFOUND when that does not apply (the caller descends from the root).
int next_in_place(bdb_handle *h, bdb_datum *key, bdb_datum *data) {
    const uint32_t *v = tree_version(h);
    if (!v || h->walk_pgno == 0 || *v != h->walk_version || !key->ptr) return SR_NOTFOUND;
    bdb_page *p = read_page(h, h->walk_pgno);
    if (!p) return SR_NOTFOUND;
    const uint32_t i = h->walk_slot;
    if (i + 1 >= p->nslots || p->slots[i].childpg != 0) return SR_NOTFOUND;
    const bdb_slot &sl = p->slots[i];
    if (sl.keylen != key->len || std::memcmp(page_bytes(p) + sl.keyoff, key->ptr, key->len) != 0) return SR_NOTFOUND;
    return hand_out(h, p, static_cast<int32_t>(i) + 1, key, data, key);
}

// ---------------------------------------------------------------------------
// first
// ---------------------------------------------------------------------------

// The smallest record of the subtree at pg. Pages without entries can remain
// in the tree, so when the leftmost subtree holds nothing the record wanted
// is entry 0 of this page; a subtree with no record at all gives SR_END.
int first(bdb_handle *h, bdb_datum *key, bdb_datum *data, uint32_t pg, int level = 0,
          const bdb_datum *after = nullptr) {
    if (level > kMaxDepth) return too_deep(h);
    bdb_page *p = read_page(h, pg);
    if (!p) return SR_NOPAGE;
    if (p->leftpg) {
        int r = first(h, key, data, p->leftpg, level + 1, after);
        if (r != SR_END) return r;
        if (!(p = read_page(h, pg))) return SR_NOPAGE;
    }
    if (p->nslots == 0) return SR_END;
    return hand_out(h, p, 0, key, data, after);
}

// ---------------------------------------------------------------------------
// insert
// ---------------------------------------------------------------------------

// Does the page that receives the new entry after a cut at s have room for
// it? (p == s: the entry itself goes up and no page receives it.)
bool cut_leaves_room(const bdb_page *pg, int32_t p, int32_t s, const bdb_entry *e) {
    const uint32_t ns = entry_size(*e);
    uint64_t bytes, count;
    if (p > s) {  // new page: entries s+2 .. c-1 and the new entry
        count = pg->nslots - static_cast<uint32_t>(s) - 2;
        bytes = pg->slots[s + 1].keyoff - pg->datastart;
    } else if (p < s) {  // old page: entries 0 .. s-1 and the new entry
        count = static_cast<uint32_t>(s);
        bytes = s == 0 ? 0 : kPageSize - pg->slots[s - 1].keyoff;
    } else {
        return true;
    }
    return fits_page(ns + kSlotSize + bytes + kSlotSize * count);
}

// Inserts entry after position p of page pgno, splitting the page when it is
// full. Consumes the entry's buffers on every path. On a split the separator
// is left in promote, owned by the caller.
int insert(bdb_handle *h, uint32_t pgno, int32_t p, bdb_entry *promote, bdb_entry *entry) {
    bdb_page *pg = note_page(h, pgno);
    if (!pg) {
        entry_release(entry);
        return SR_NOPAGE;
    }
    ChangeJournal *j = journal_of(h);
    if (bdb_data_fits(pg, entry)) {
        // Undone by taking the entry out again (noted first, forgotten if it
        // never went in).
        if (j && !j->note_inserted(pgno, p + 1)) {
            entry_release(entry);
            h->error = BDB_E_NOMEM;
            return SR_NOMEM;
        }
        if (bdb_insdatum(h, pg, p, entry) < 0) {
            if (j) j->drop_newest();
            return SR_WRITEFAIL;
        }
        return commit(h, pg, pgno) ? SR_DONE : SR_WRITEFAIL;
    }
    if (!keep_image(h, pg)) {
        entry_release(entry);
        return SR_NOMEM;
    }

    h->stats->splits++;
    const int32_t c = static_cast<int32_t>(pg->nslots);
    if (c < 2) {  // only a damaged page can be full with fewer than two entries
        entry_release(entry);
        report_damage(h, pgno, "page full with fewer than two entries");
        return SR_WRITEFAIL;
    }
    int32_t s = c > 2 ? bdb_where_split(pg, p, entry) : c - 2;
    // The chosen cut must leave room for the new entry in the page that
    // receives it. When it does not (many small entries whose slots fill the
    // page beside a large last entry), cut right at the new entry instead so
    // that it becomes the separator, or at the page's end when it goes first
    // or last; those cuts always leave room.
    if (s < 0 || s >= c || !cut_leaves_room(pg, p, s, entry)) {
        if (p < 0)
            s = 0;
        else if (p == c - 1)
            s = c - 2;
        else
            s = p;
    }

    // The separator is copied out before anything moves.
    bdb_entry sep{};
    if (p != s) {
        if (bdb_getdatum(h, pg, p > s ? s + 1 : s, &sep) < 0) {
            entry_release(entry);
            return SR_NOMEM;
        }
    }
    bdb_page *np = bdb_new_dpage(h);
    if (!np) {
        entry_release(&sep);
        entry_release(entry);
        return SR_WRITEFAIL;
    }
    const uint32_t newpg = np->pgno;

    // The upper part moves to the new page in one block.
    if (!append_block(np, pg, static_cast<uint32_t>(s) + 1, static_cast<uint32_t>(c))) {
        entry_release(&sep);
        entry_release(entry);
        return SR_WRITEFAIL;
    }
    remove_tail(pg, static_cast<uint32_t>(s) + 1);

    int rc = 0;
    if (p > s) {
        rc = bdb_deldata(h, np, 0, BDB_KEEPPAGES);
        if (rc == 0) rc = bdb_insdatum(h, np, p - s - 2, entry);
    } else if (p < s) {
        rc = bdb_deldata(h, pg, s, BDB_KEEPPAGES);
        if (rc == 0) rc = bdb_insdatum(h, pg, p, entry);
    } else {
        sep = *entry;  // the new entry is the separator; its buffers move with it
        *entry = bdb_entry{};
    }
    if (rc < 0) {
        entry_release(&sep);
        entry_release(entry);
        return SR_WRITEFAIL;
    }
    np->leftpg = sep.childpg;
    sep.childpg = newpg;
    if (!commit(h, pg, pgno) || !commit(h, np, newpg)) {
        entry_release(&sep);
        return SR_WRITEFAIL;
    }
    *promote = sep;
    return SR_PROMOTE;
}

// ---------------------------------------------------------------------------
// balance, underflow, fix_empty_pages
// ---------------------------------------------------------------------------

// Picks the pair of child c of P and decides: 0 nothing, k entries leave the
// neighbour (k at least its count: merge), BAL_EMPTY drop the empty child,
// -1 a page could not be fetched.
int32_t balance(bdb_handle *h, uint32_t ppg, uint32_t *lpg, uint32_t *rpg, int32_t c) {
    *lpg = *rpg = 0;
    bdb_page *P = read_page(h, ppg);
    if (!P) return -1;
    const int32_t n = static_cast<int32_t>(P->nslots);
    // A parent without entries has no pair.
    if (n == 0) return 0;
    const bool last = c >= n - 1;
    const int32_t sepidx = last ? c : c + 1;
    if (sepidx < 0 || sepidx >= n) return 0;
    *lpg = child_at(P, last ? c - 1 : c);
    *rpg = child_at(P, last ? c : c + 1);
    const int64_t s = esize(P, sepidx);
    const int64_t sep_in = bdb_key_data_size(P, sepidx);
    const int64_t Pu = used_size(P);
    if (*lpg == 0 || *rpg == 0) return 0;

    bdb_page *L = read_page(h, *lpg);
    if (!L) return -1;
    const int64_t Lu = used_size(L);
    const int32_t Ln = static_cast<int32_t>(L->nslots);
    bdb_page *R = read_page(h, *rpg);
    if (!R) return -1;
    const int64_t Ru = used_size(R);
    const int32_t Rn = static_cast<int32_t>(R->nslots);
    if (!(L = read_page(h, *lpg))) return -1;  // R's fetch may have taken L's buffer

    if (fits_page_balanced(Lu + Ru + s)) return last ? Ln : Rn;

    const int32_t e = (Ln == 0 || Rn == 0) ? 1 : 0;
    const int64_t half = (Lu + Ru) / 2;
    const int64_t Pp = Pu - sep_in;  // the parent without the separator's bytes
    int32_t result;
    if (!last) {
        if (Lu >= kPageSize / 2) return 0;
        if (Rn == 0) return 0;
        if (!(R = read_page(h, *rpg))) return -1;
        int64_t gain = s, loss = esize(R, 0);
        int32_t best = 0, k = 1;
        while (k < Rn && Lu + gain < half && Ru - loss >= half) {
            gain += esize(R, k - 1);
            loss += esize(R, k);
            if (fits_page_balanced(bdb_key_data_size(R, k) + Pp)) best = k;
            ++k;
        }
        if (best > 0)
            result = best + 1;
        else if (k == 1)
            result = fits_page_balanced(bdb_key_data_size(R, 0) + Pp) ? 1 : e * BAL_EMPTY;
        else
            result = e * BAL_EMPTY;
        // A one-entry neighbour whose merge does not fit would be answered
        // with a merge: nothing is done instead.
        if (result != BAL_EMPTY && result >= Rn) result = 0;
    } else {
        if (Ru >= kPageSize / 2) return 0;
        if (Ln == 0) return 0;
        int64_t gain = s, loss = esize(L, Ln - 1);
        int32_t best = 0, k = 1;
        while (k < Ln && Ru + gain < half && Lu - loss >= half) {
            gain += esize(L, Ln - k);
            loss += esize(L, Ln - k - 1);
            if (fits_page_balanced(bdb_key_data_size(L, Ln - k - 1) + Pp)) best = k;
            ++k;
        }
        if (best > 0)
            result = best + 1;
        else if (k == 1)
            result = fits_page_balanced(bdb_key_data_size(L, Ln - 1) + Pp) ? 1 : e * BAL_EMPTY;
        else
            result = e * BAL_EMPTY;
        if (result != BAL_EMPTY && result >= Ln) result = 0;
    }
    return result;
}

// Drops child c of P when it is an empty page. A page without entries that
// still has a leftmost child is kept: dropping it would lose that subtree.
int drop_if_empty(bdb_handle *h, uint32_t ppg, int32_t c, uint32_t cpg) {
    if (cpg == 0) return SR_DONE;
    bdb_page *C = read_page(h, cpg);
    if (!C) return SR_NOPAGE;
    if (!is_empty_page(C)) return SR_DONE;
    bdb_page *P = change_page(h, ppg);
    if (!P) return SR_NOPAGE;
    if (child_at(P, c) != cpg) return SR_DONE;
    set_child_at(P, c, 0);
    if (!commit(h, P, ppg)) return SR_WRITEFAIL;
    if (!(C = read_page(h, cpg))) return SR_NOPAGE;
    return bdb_free_dpage(h, C) == 0 ? SR_DONE : SR_WRITEFAIL;
}

int fix_empty_pages(bdb_handle *h, uint32_t ppg, uint32_t lpg, uint32_t rpg, int32_t c) {
    bdb_page *P = read_page(h, ppg);
    if (!P) return SR_NOPAGE;
    const bool last = c >= static_cast<int32_t>(P->nslots) - 1;
    return drop_if_empty(h, ppg, c, last ? rpg : lpg);
}

// Carries out balance's decision k for the pair (L, R) of child c of P.
int underflow(bdb_handle *h, uint32_t ppg, uint32_t lpg, uint32_t rpg, int32_t c, int32_t k) {
    bdb_page *P = read_page(h, ppg);
    if (!P) return SR_NOPAGE;
    const int32_t n = static_cast<int32_t>(P->nslots);
    const bool last = c >= n - 1;
    if (k == BAL_EMPTY) return drop_if_empty(h, ppg, c, last ? rpg : lpg);
    if (lpg == 0 || rpg == 0 || n == 0) return SR_DONE;

    bdb_page *L, *R;
    if (!(P = change_page(h, ppg)) || !(L = change_page(h, lpg)) || !(R = change_page(h, rpg))) return SR_NOPAGE;
    const int32_t sepidx = last ? c : c + 1;

    // The separator comes down first.
    bdb_entry sep{};
    if (bdb_getdatum(h, P, sepidx, &sep) < 0) return SR_NOMEM;
    if (bdb_deldata(h, P, sepidx, BDB_KEEPPAGES) < 0) {
        entry_release(&sep);
        return SR_WRITEFAIL;
    }
    sep.childpg = R->leftpg;
    const int32_t Ln = static_cast<int32_t>(L->nslots), Rn = static_cast<int32_t>(R->nslots);

    if (k >= (last ? Ln : Rn)) {
        // Merge: L receives the separator and all of R.
        h->stats->merges++;
        if (bdb_insdatum(h, L, Ln - 1, &sep) < 0) return SR_WRITEFAIL;
        if (!append_block(L, R, 0, static_cast<uint32_t>(Rn))) return SR_WRITEFAIL;
        if (!commit(h, P, ppg) || !commit(h, L, lpg)) return SR_WRITEFAIL;
        if (!(R = read_page(h, rpg))) return SR_NOPAGE;
        return bdb_free_dpage(h, R) == 0 ? SR_SHRUNK : SR_WRITEFAIL;
    }

    h->stats->redistributions++;
    bdb_entry up{};
    if (!last) {
        // R gives entries 0..k-2 to L; its entry k-1 becomes the separator.
        if (bdb_insdatum(h, L, Ln - 1, &sep) < 0) return SR_WRITEFAIL;
        if (!append_block(L, R, 0, static_cast<uint32_t>(k - 1))) return SR_WRITEFAIL;
        if (bdb_getdatum(h, R, k - 1, &up) < 0) return SR_NOMEM;
        R->leftpg = R->slots[k - 1].childpg;
        remove_front(R, static_cast<uint32_t>(k));
        up.childpg = rpg;
        if (bdb_insdatum(h, P, c, &up) < 0) return SR_WRITEFAIL;
    } else {
        // L gives its last k-1 entries to R; the entry before them goes up.
        if (bdb_insdatum(h, R, -1, &sep) < 0) return SR_WRITEFAIL;
        const uint32_t from = static_cast<uint32_t>(Ln - k + 1);
        if (!prepend_block(R, L, from, static_cast<uint32_t>(Ln))) return SR_WRITEFAIL;
        remove_tail(L, from);
        const int32_t upidx = Ln - k;
        if (bdb_getdatum(h, L, upidx, &up) < 0) return SR_NOMEM;
        R->leftpg = L->slots[upidx].childpg;
        if (bdb_deldata(h, L, upidx, BDB_KEEPPAGES) < 0) {
            entry_release(&up);
            return SR_WRITEFAIL;
        }
        up.childpg = rpg;
        if (bdb_insdatum(h, P, c - 1, &up) < 0) return SR_WRITEFAIL;
    }
    if (!commit(h, P, ppg) || !commit(h, L, lpg) || !commit(h, R, rpg)) return SR_WRITEFAIL;
    return SR_DONE;
}

// Rebalances child c of P after it lost an entry.
int rebalance(bdb_handle *h, uint32_t ppg, int32_t c) {
    uint32_t l, r;
    int32_t b = balance(h, ppg, &l, &r, c);
    if (b < 0) return SR_NOPAGE;
    if (b == 0) return SR_DONE;
    return underflow(h, ppg, l, r, c, b);
}

// ---------------------------------------------------------------------------
// Deletion
// ---------------------------------------------------------------------------

int set_child(bdb_handle *h, uint32_t ppg, int32_t c, uint32_t child) {
    bdb_page *P = change_page(h, ppg);
    if (!P) return SR_NOPAGE;
    set_child_at(P, c, child);
    return commit(h, P, ppg) ? SR_DONE : SR_WRITEFAIL;
}

// Removes entry i of T and puts in its place the largest entry of the subtree
// at Y. A rightmost page without entries may end the descent; the predecessor
// then lies higher up (the last entry of a page above), and a subtree without
// any record is released (SR_EMPTYSUB) for the caller to unlink.
int deletekey(bdb_handle *h, uint32_t tpg, uint32_t ypg, int32_t i, bdb_entry *promote, bdb_datum *data,
              int level = 0) {
    if (level > kMaxDepth) return too_deep(h);
    bdb_page *Y = read_page(h, ypg);
    if (!Y) return SR_NOPAGE;
    int32_t l = static_cast<int32_t>(Y->nslots) - 1;
    uint32_t c = child_at(Y, l);
    if (c != 0) {
        int r = deletekey(h, tpg, c, i, promote, data, level + 1);
        if (r == SR_EMPTYSUB) {
            // The rightmost subtree held nothing and is gone.
            if ((r = set_child(h, ypg, l, 0)) != SR_DONE) return r;
        } else if (r == SR_SHRUNK || r == SR_PENDING) {
            uint32_t lp, rp;
            int32_t b = balance(h, ypg, &lp, &rp, l);
            int u;
            if (b < 0)
                u = SR_NOPAGE;
            else if (b > 0)
                u = underflow(h, ypg, lp, rp, l, b);
            else
                u = SR_DONE;
            if (r == SR_SHRUNK) return u;
            if (u == SR_DONE) return SR_PROMOTE;
            if (u == SR_SHRUNK) return SR_PENDING;
            return u;
        } else {
            return r;
        }
    }
    if (l < 0) {
        // No entry here and nothing below: this page holds no record.
        if (!(Y = read_page(h, ypg))) return SR_NOPAGE;
        return bdb_free_dpage(h, Y) == 0 ? SR_EMPTYSUB : SR_WRITEFAIL;
    }

    // Y's last entry is the predecessor.
    bdb_page *T = change_page(h, tpg);
    if (!T || !(Y = change_page(h, ypg))) return SR_NOPAGE;
    Y->slots[l].childpg = T->slots[i].childpg;
    if (data && bdb_ret_data(h, T, data, i) < 0) return SR_NOPAGE;
    if (bdb_deldata(h, T, i, 0) < 0) return SR_WRITEFAIL;
    if (bdb_getdatum(h, Y, l, promote) < 0) return SR_NOMEM;
    if (bdb_deldata(h, Y, l, BDB_KEEPPAGES) < 0) return SR_WRITEFAIL;
    if (bdb_data_fits(T, promote)) {
        if (bdb_insdatum(h, T, i - 1, promote) < 0) return SR_WRITEFAIL;
        if (!commit(h, Y, ypg) || !commit(h, T, tpg)) return SR_WRITEFAIL;
        return SR_SHRUNK;
    }
    if (!commit(h, Y, ypg) || !commit(h, T, tpg)) return SR_WRITEFAIL;
    h->stats->deferred_inserts++;
    return SR_PENDING;
}

// Removes entry m of page X directly: its left child is empty. The entry's own
// child (a subtree beside a hole in an inner page) moves into the hole.
int remove_direct(bdb_handle *h, uint32_t xpg, int32_t m, bdb_datum *data) {
    bdb_page *X = note_page(h, xpg);
    if (!X) return SR_NOPAGE;
    if (data && bdb_ret_data(h, X, data, m) < 0) return SR_NOPAGE;
    // Undone by putting the entry back and the child before it.
    ChangeJournal *j = journal_of(h);
    if (j && !j->note_removed(xpg, X, m, child_at(X, m - 1))) {
        h->error = BDB_E_NOMEM;
        return SR_NOMEM;
    }
    const uint32_t own = X->slots[m].childpg;
    if (own) set_child_at(X, m - 1, own);
    if (bdb_deldata(h, X, m, 0) < 0) return SR_WRITEFAIL;
    return commit(h, X, xpg) ? SR_SHRUNK : SR_WRITEFAIL;
}

// Deletes entry m found in page X; a split of X on the way hands its
// separator to up.
int delete_found(bdb_handle *h, uint32_t xpg, int32_t m, bdb_entry *up, bdb_datum *data) {
    bdb_page *X = read_page(h, xpg);
    if (!X) return SR_NOPAGE;
    const int32_t hc = m - 1;
    const uint32_t left = child_at(X, hc);
    if (left == 0) return remove_direct(h, xpg, m, data);

    bdb_entry promote{};
    int r = deletekey(h, xpg, left, m, &promote, data);
    switch (r) {
    case SR_EMPTYSUB:
        // The left subtree held no record and has been released.
        if ((r = set_child(h, xpg, hc, 0)) != SR_DONE) return r;
        return remove_direct(h, xpg, m, data);
    case SR_SHRUNK:
        return rebalance(h, xpg, hc);
    case SR_PROMOTE:
        // The subtree is repaired; the replacing entry is still out.
        return insert(h, xpg, hc, up, &promote);
    case SR_PENDING: {
        // X lacks the separator of child hc until the entry is back: only an
        // empty child is dropped here, nothing is merged or moved.
        uint32_t lp, rp;
        int32_t b = balance(h, xpg, &lp, &rp, hc);
        int u;
        if (b < 0)
            u = SR_NOPAGE;
        else if (b == BAL_EMPTY)
            u = underflow(h, xpg, lp, rp, hc, BAL_EMPTY);
        else
            u = fix_empty_pages(h, xpg, lp, rp, hc);
        if (u != SR_DONE) {
            entry_release(&promote);
            return u;
        }
        return insert(h, xpg, hc, up, &promote);
    }
    default:
        entry_release(&promote);
        return r;
    }
}

}  // namespace
namespace {

// ---------------------------------------------------------------------------
// replace
// ---------------------------------------------------------------------------

// Gives the record at index idx of page pgno the caller's value. A value of
// the same length is overwritten where it lies. Otherwise the new entry is
// built first (a new long value is written to a run of its own before the old
// record is touched), then the old entry is removed and the new one placed,
// which may split the page or leave it smaller. Should placing it fail, the
// journal puts the old record back.
int replace(bdb_handle *h, bdb_datum *key, bdb_datum *data, uint32_t pgno, int32_t idx, bdb_entry *promote) {
    bdb_page *pg = note_page(h, pgno);
    if (!pg) return SR_NOPAGE;
    const bdb_slot sl = pg->slots[idx];
    ChangeJournal *j = journal_of(h);
    if (sl.datalen == data->len) {
        if (!slot_is_long(sl)) {
            // Undone by the old bytes.
            if (j && !j->note_bytes(pgno, pg, sl.dataref, data->len)) {
                h->error = BDB_E_NOMEM;
                return SR_NOMEM;
            }
            if (data->len) std::memcpy(page_bytes(pg) + sl.dataref, data->ptr, data->len);
            return commit(h, pg, pgno) ? SR_DONE : SR_WRITEFAIL;
        }
        pg->flags &= ~BDB_PGBUSY;  // the tree page itself does not change
        if (bdb_write_dpage(h, sl.dataref, data->ptr, data->len) < 0) {
            h->error = BDB_E_WRITE;
            return SR_WRITEFAIL;
        }
        return SR_DONE;
    }

    if (!keep_image(h, pg)) return SR_NOMEM;
    const uint32_t old_in = bdb_key_data_size(pg, idx);
    bdb_entry ne{key->ptr, key->len, data->ptr, data->len, BDB_INSERT, sl.childpg};
    if (data->len >= BDB_LONGDATA) {
        uint32_t first = 0;
        if (alloc_data_run(h, run_pages(data->len), &first) < 0) return SR_WRITEFAIL;
        if (write_data_run(h, first, data->ptr, data->len) < 0) return SR_WRITEFAIL;
        ne.flags |= BDB_DPAGES;
        ne.data = BDB_PAGE_PTR(first);
        if (!(pg = change_page(h, pgno))) return SR_NOPAGE;
    }
    if (bdb_deldata(h, pg, idx, 0) < 0) return SR_WRITEFAIL;
    if (bdb_data_fits(pg, &ne)) {
        if (bdb_insdatum(h, pg, idx - 1, &ne) < 0) return SR_WRITEFAIL;
        if (!commit(h, pg, pgno)) return SR_WRITEFAIL;
        return entry_size(ne) < old_in ? SR_SHRUNK : SR_DONE;
    }
    if (!commit(h, pg, pgno)) return SR_WRITEFAIL;
    int r = insert(h, pgno, idx - 1, promote, &ne);
    return r;
}

// ---------------------------------------------------------------------------
// search
// ---------------------------------------------------------------------------

// The record after entry mid of page pgno: the smallest of its right subtree,
// else the next entry of the page, else SR_END for the level above.
int next_after(bdb_handle *h, uint32_t pgno, int32_t mid, bdb_datum *key, bdb_datum *data) {
    bdb_page *p = read_page(h, pgno);
    if (!p) return SR_NOPAGE;
    const uint32_t c = p->slots[mid].childpg;
    if (c) {
        int r = first(h, key, data, c, 0, key);
        if (r != SR_END) return r;
        if (!(p = read_page(h, pgno))) return SR_NOPAGE;
    }
    if (static_cast<uint32_t>(mid + 1) >= p->nslots) return SR_END;
    return hand_out(h, p, mid + 1, key, data, key);
}

// Binary search of a page's slots with order(slot) (the key looked for
// against the slot's key). Found: lo <= hi and mid is the slot; not found:
// lo = hi + 1, the key lies between slots hi and lo.
template <typename Order>
inline void binary_search(const bdb_page *p, int32_t &lo, int32_t &hi, int32_t &mid, Order order) {
    while (lo <= hi) {
        mid = (lo + hi) / 2;
        const int c = order(p->slots[mid]);
        if (c > 0)
            lo = mid + 1;
        else if (c < 0)
            hi = mid - 1;
        else
            break;
    }
}

int search(bdb_handle *h, bdb_datum *key, bdb_datum *data, int *op, uint32_t pgno, bdb_entry *promote) {
    if (pgno == 0) {
        if (*op == OP_PUT || *op == OP_REPLACE) {
            *promote = bdb_entry{key->ptr, key->len, data->ptr, data->len, BDB_INSERT, 0};
            if (*op == OP_REPLACE) *op = OP_PUT;
            return SR_PROMOTE;
        }
        return SR_NOTFOUND;
    }
    if (++h->stats->depth > static_cast<uint32_t>(kMaxDepth)) return too_deep(h);
    bdb_page *p = read_page(h, pgno);
    if (!p) return SR_NOPAGE;

    int32_t lo = 0, hi = static_cast<int32_t>(p->nslots) - 1, mid = 0;
    const bdb_compare_fn cmp = h->compare ? h->compare : bdb_dti_compare;
    if (cmp == bdb_dti_compare && key->ptr) {
        // The default order, compared in place (no call per probe).
        const auto *k = static_cast<const uint8_t *>(key->ptr);
        const uint8_t *base = page_bytes(p);
        binary_search(p, lo, hi, mid, [&](const bdb_slot &sl) { return key_order(k, key->len, base + sl.keyoff, sl.keylen); });
    } else {
        binary_search(p, lo, hi, mid, [&](const bdb_slot &sl) {
            bdb_datum stored{page_bytes(p) + sl.keyoff, sl.keylen};
            return cmp(key, &stored);
        });
    }
    if (lo <= hi) {
        switch (*op) {
        case OP_PUT:
            return SR_DUPLICATE;
        case OP_GET:
            return bdb_ret_data(h, p, data, mid) < 0 ? SR_NOPAGE : SR_OK;
        case OP_NEXT:
            return next_after(h, pgno, mid, key, data);
        case OP_REPLACE:
        case OP_UPDATE:
            return replace(h, key, data, pgno, mid, promote);
        case OP_DELETE:
            return delete_found(h, pgno, mid, promote, nullptr);
        case OP_REMOVE:
            return delete_found(h, pgno, mid, promote, data);
        default:
            return SR_NOTFOUND;
        }
    }

    bdb_entry below{};
    int r = search(h, key, data, op, child_at(p, hi), &below);
    switch (r) {
    case SR_END:
        if (!(p = read_page(h, pgno))) return SR_NOPAGE;
        if (static_cast<uint32_t>(lo) >= p->nslots) return SR_END;
        return hand_out(h, p, lo, key, data, key);
    case SR_PROMOTE:
        return insert(h, pgno, hi, promote, &below);
    case SR_SHRUNK:
        return rebalance(h, pgno, hi);
    default:
        return r;
    }
}

inline void note_depth(bdb_handle *h) {
    if (h->stats->depth > h->stats->max_depth) h->stats->max_depth = h->stats->depth;
}

// Collapses roots left without entries: the leftmost child takes over.
int collapse_root(bdb_handle *h) {
    for (;;) {
        const uint32_t root = h->meta->root;
        if (root == 0) return 0;
        bdb_page *p = read_page(h, root);
        if (!p) return -1;
        if (p->nslots > 0) return 0;
        const uint32_t next = p->leftpg;
        if (bdb_update_meta(h) < 0) return -1;
        h->meta->root = next;
        if (bdb_free_dpage(h, p) < 0) return -1;
    }
}

// Makes a new root holding the separator that came up from the old one.
int grow_root(bdb_handle *h, bdb_entry *promote) {
    bdb_page *np = bdb_new_dpage(h);
    if (!np) {
        entry_release(promote);
        return -1;
    }
    const uint32_t pg = np->pgno;
    if (bdb_update_meta(h) < 0) return -1;
    np->leftpg = h->meta->root;
    h->meta->root = pg;
    if (bdb_insdatum(h, np, -1, promote) < 0) return -1;
    return commit(h, np, pg) ? 0 : -1;
}

bool is_change(int op) {
    return op == OP_PUT || op == OP_REPLACE || op == OP_UPDATE || op == OP_DELETE || op == OP_REMOVE;
}

}  // namespace

// ---------------------------------------------------------------------------
// The dispatcher
// ---------------------------------------------------------------------------

extern "C" int bdb_search(bdb_handle *h, bdb_datum *key, bdb_datum *data, int op) {
    VARLO_REQUIRES_MUTEX(h);
    h->stats->depth = 0;
    if (area_check(h) < 0) return -1;
    if ((op == OP_PUT || op == OP_REPLACE || op == OP_UPDATE || op == OP_REMOVE) &&
        (key->len < 1 || key->len > BDB_MAXKEY)) {
        h->error = BDB_E_KEYSIZE;
        return -1;
    }
    if (op == OP_FIRST) {
        if (h->meta->root == 0) {
            h->error = BDB_E_EMPTY;
            return -1;
        }
        int r = first(h, key, data, h->meta->root);
        note_depth(h);
        if (r == SR_OK) return 0;
        if (r == SR_END) h->error = BDB_E_EMPTY;  // only pages without records remain
        return -1;
    }
    if (!is_change(op)) {
        bdb_entry promote{};
        int r = op == OP_NEXT ? next_in_place(h, key, data) : SR_NOTFOUND;
        if (r == SR_NOTFOUND) r = search(h, key, data, &op, h->meta->root, &promote);
        note_depth(h);
        switch (r) {
        case SR_OK:
        case SR_DONE:
            return 0;
        case SR_END:
            h->error = BDB_E_EOF;
            return -1;
        case SR_NOTFOUND:
            h->error = BDB_E_NOTFOUND;
            return -1;
        default:
            return -1;
        }
    }

    // A database found damaged (by any page check) takes no change.
    if (*h->state_ref & kStateDamaged) {
        fail(h, BDB_E_DBTYPE, "the database is damaged: changes are refused (see varlo_check)");
        return -1;
    }
    ChangeJournal journal(h);
    if (!journal.ok()) {
        h->error = BDB_E_NOMEM;
        return -1;
    }
    ChangeMark mark(h);
    const int op_in = op;
    if (op == OP_REMOVE) {
        data->ptr = nullptr;
        data->len = 0;
    }
    bdb_entry promote{};
    int r = search(h, key, data, &op, h->meta->root, &promote);
    note_depth(h);
    int rc = -1;
    switch (r) {
    case SR_OK:
    case SR_DONE:
        rc = 0;
        break;
    case SR_NOTFOUND:
        h->error = BDB_E_NOTFOUND;
        break;
    case SR_DUPLICATE:
        h->error = BDB_E_DUPLICATE;
        break;
    case SR_END:
        h->error = BDB_E_EOF;
        break;
    case SR_PROMOTE:
        rc = grow_root(h, &promote);
        break;
    case SR_SHRUNK:
        rc = collapse_root(h);
        break;
    default:
        break;
    }
    // Releasing the runs the change gave up changes the meta page, whose
    // first change after a sync writes its image to the meta log: that write
    // happens here, while the change can still be undone, so that its failure
    // fails the change instead of leaving the runs marked in use forever.
    if (rc == 0 && !journal.deferred_runs().empty() && bdb_update_meta(h) < 0) rc = -1;
    entry_release(&promote);
    if (rc == 0) {
        finish(h, journal);
        if (op_in == OP_REPLACE && op == OP_PUT) h->error = BDB_E_INSERTED;
        return 0;
    }
    undo(h, journal);
    if (op_in == OP_REMOVE && data->ptr) {
        std::free(data->ptr);
        data->ptr = nullptr;
        data->len = 0;
    }
    return -1;
}
