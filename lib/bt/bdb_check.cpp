// bdb_check: walks the whole file and verifies the tree and the allocation
// map. It reads checked copies of the pages (the cache keeps what it holds)
// and changes nothing in the database. The same walk, reduced to what keeps
// writes safe, checks a tree's references before its first allocation.
//
// What counts as valid follows from how the tree evolves: child pointers of 0
// (holes left by dropped pages) and pages without entries are normal. Leaves
// start out at one depth, but a page whose children were all dropped takes
// the puts of its range and splits like a leaf one level up, so leaves above
// the bottom level are legitimate wherever pages were dropped. Depth is
// therefore bounded (a cycle or a runaway chain is reported), not equalised.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bdb_int.h"

using namespace varlo;

namespace {

struct Bound {
    const uint8_t *ptr = nullptr;
    uint32_t len = 0;
    bool set = false;
};

// full: bdb_check, which reports every disagreement. Otherwise the check
// of references before pages are handed out (verify_references): only what
// could make a write destroy something the tree uses (a referenced page free
// in the map, a page reached twice, a reference outside the file), so that it
// holds in the middle of a change too, where moved entries and new pages are
// briefly not linked.
class Checker {
public:
    Checker(bdb_handle *h, bool full) : h_(h), full_(full), reached_(BDB_MAPWORDS, 0u) {}

    bool run() {
        const bdb_meta *m = h_->meta;
        if (m->magic != BDB_MAGIC) return bad(0, "bad magic in the meta page copy");
        if (!bits_tstb(m->pgmap, 0)) return bad(0, "meta page not marked in use");
        mark(0);
        npages_ = *h_->npages_ref;
        if (m->root && !walk(m->root, 0, Bound{}, Bound{})) return false;
        for (uint32_t w = 0; full_ && w < BDB_MAPWORDS; ++w) {
            uint32_t lost = m->pgmap[w] & ~reached_[w];
            if (lost) {
                uint32_t pg = 32 * w + static_cast<uint32_t>(__builtin_ctz(lost));
                return bad(pg, "page in use but not reachable");
            }
        }
        return true;
    }

private:
    // bdb_check reports without marking the database: it is a diagnosis.
    bool bad(uint32_t pg, const char *what) {
        if (!full_) return report_damage(h_, pg, what), false;
        std::snprintf(msg_, sizeof msg_, "page %u: %s", pg, what);
        errno = 0;
        fail(h_, BDB_E_DBTYPE, msg_);
        return false;
    }

    bool mark(uint32_t pg) {
        reached_[pg >> 5] |= 1u << (pg & 31);
        return true;
    }
    bool seen(uint32_t pg) const { return (reached_[pg >> 5] >> (pg & 31)) & 1u; }

    bool claim(uint32_t pg, const char *what_twice) {
        if (pg == 0 || pg >= BDB_MAXPAGES || pg >= npages_) return bad(pg, "page number past the end of the file");
        if (seen(pg)) return bad(pg, what_twice);
        if (!bits_tstb(h_->meta->pgmap, static_cast<int32_t>(pg))) return bad(pg, "reachable page is free in the map");
        return mark(pg);
    }

    int cmp(const uint8_t *a, uint32_t al, const uint8_t *b, uint32_t bl) const {
        bdb_datum da{const_cast<uint8_t *>(a), al}, db{const_cast<uint8_t *>(b), bl};
        return (h_->compare ? h_->compare : bdb_dti_compare)(&da, &db);
    }

    bool walk(uint32_t pg, int depth, Bound lo, Bound hi) {
        if (depth > kMaxDepth) return bad(pg, "tree too deep");
        if (!claim(pg, "tree page reached twice")) return false;
        // A copy of the page, checked as every page read from the file is;
        // the cache keeps what it holds.
        std::vector<uint8_t> copy(kPageSize);
        const char *why = nullptr;
        if (copy_page(h_, pg, copy.data(), &why) < 0) {
            if (why) return bad(pg, why);
            std::snprintf(msg_, sizeof msg_, "page %u: cannot be read", pg);
            bdb_errlog(h_, msg_);
            return false;
        }
        const auto *p = reinterpret_cast<const bdb_page *>(copy.data());
        const uint32_t n = p->nslots;
        const uint8_t *base = copy.data();
        for (uint32_t i = 0; i < n; ++i) {
            const bdb_slot &s = p->slots[i];
            if (slot_is_long(s)) {
                const uint32_t cnt = run_pages(s.datalen);
                for (uint32_t k = 0; k < cnt; ++k)
                    if (!claim(s.dataref + k, "long value page used twice")) return false;
            }
            if (full_ && i > 0) {
                const bdb_slot &t = p->slots[i - 1];
                if (cmp(base + t.keyoff, t.keylen, base + s.keyoff, s.keylen) >= 0) return bad(pg, "keys out of order");
            }
        }
        if (full_ && n > 0) {
            const bdb_slot &f = p->slots[0], &l = p->slots[n - 1];
            if (lo.set && cmp(lo.ptr, lo.len, base + f.keyoff, f.keylen) >= 0)
                return bad(pg, "key not above its parent's separator");
            if (hi.set && cmp(base + l.keyoff, l.keylen, hi.ptr, hi.len) >= 0)
                return bad(pg, "key not below its parent's separator");
        }
        // Children: leftpg, then each slot's child, with the keys around them.
        for (int32_t c = -1; c < static_cast<int32_t>(n); ++c) {
            const uint32_t child = c < 0 ? p->leftpg : p->slots[c].childpg;
            if (!child) continue;
            Bound clo = lo, chi = hi;
            if (c >= 0) clo = Bound{base + p->slots[c].keyoff, p->slots[c].keylen, true};
            if (c + 1 < static_cast<int32_t>(n)) chi = Bound{base + p->slots[c + 1].keyoff, p->slots[c + 1].keylen, true};
            if (!walk(child, depth + 1, clo, chi)) return false;
        }
        return true;
    }

    bdb_handle *h_;
    bool full_;
    std::vector<uint32_t> reached_;
    uint32_t npages_ = 0;
    char msg_[160] = {};
};

}  // namespace

namespace varlo {

bool verify_references(bdb_handle *h) {
    try {
        Checker ck(h, false);
        if (!ck.run()) return false;
    } catch (...) {
        fail(h, BDB_E_NOMEM, "checking the tree's references");
        return false;
    }
    *h->state_ref |= kStateVerified;
    return true;
}

}  // namespace varlo

extern "C" int bdb_check(bdb_handle *h) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    return under_mutex(h, [h] {
        // A shared area left half changed by a process that died is put back
        // to its last sync first: the check never sees those pages.
        if (area_check(h) < 0) return -1;
        try {
            Checker ck(h, true);
            return ck.run() ? 0 : -1;
        } catch (...) {
            h->error = BDB_E_NOMEM;
            return -1;
        }
    });
}
