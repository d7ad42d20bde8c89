// bdb_bulk_load: builds the tree of an empty database bottom-up from records
// in key order, every page filled as far as the room rule allows.
//
// The builder keeps one open page per level, leaves at level 0. A record is
// appended to the open leaf; when it does not fit, that leaf is closed and
// the record goes up as a separator, appended to the open page of level 1,
// and so on up; a separator that reaches above the top makes a new root whose
// leftmost child is the page just closed. A separator's child is the next
// page of the level below, which does not exist yet: its child stays 0 and
// the open page of that level is 0 until the next record arrives. The page
// made for it then gets linked from above (as the child of the last
// separator, or as the leftmost child of a page made in the same step), so
// that no empty page is ever made.
//
// Pages are made and filled through the page storage calls (bdb_new_dpage,
// bdb_insdatum, bdb_update_dpage), so the cache, long values, byte order and
// the log points behave as for any change.
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "bdb_int.h"

using namespace varlo;

namespace {

class Builder {
public:
    // Throws std::bad_alloc; nothing else does, so an undo never misses.
    explicit Builder(bdb_handle *h) : h_(h), map0_(h->meta->pgmap, h->meta->pgmap + BDB_MAPWORDS) {
        // Every page takes at least two records (3071 in-page bytes at most
        // each), so 65344 pages never need more than 11 levels.
        open_.reserve(kMaxDepth);
    }

    // Stores one record; 0, or -1 with the code in the handle.
    int add(const bdb_datum &key, const bdb_datum &data) {
        if (key.len < 1 || key.len > BDB_MAXKEY) {
            h_->error = BDB_E_KEYSIZE;
            return -1;
        }
        if ((!key.ptr) || (!data.ptr && data.len)) return refuse("bulk load: NULL key or value pointer");
        if (count_ > 0 && h_->compare(&key, &prev_) <= 0) return refuse("bulk load: keys not in ascending order");
        if (open_.empty()) open_.push_back(0);
        if (open_[0] == 0 && make(0) < 0) return -1;
        bdb_entry e{key.ptr, key.len, data.ptr, data.len, 0, 0};
        for (size_t level = 0;; ++level) {
            if (level == kMaxDepth) {
                h_->error = BDB_E_FULL;
                return -1;
            }
            if (level == open_.size() && new_root() < 0) return -1;
            const int r = append(open_[level], e);
            if (r < 0) return -1;
            if (r > 0) break;
            closed_ = open_[level];
            open_[level] = 0;
        }
        std::memcpy(prev_buf_, key.ptr, key.len);
        prev_.len = key.len;
        ++count_;
        return 0;
    }

    // Names the root in the meta page copy.
    void finish() {
        bdb_update_meta(h_);
        h_->meta->root = open_.empty() ? 0 : open_.back();
    }

    // Frees every page taken since the start (dropping tree pages from the
    // cache unwritten) and empties the tree again.
    void undo() {
        bdb_update_meta(h_);
        for (uint32_t w = 0; w < BDB_MAPWORDS; ++w)
            for (uint32_t taken = h_->meta->pgmap[w] & ~map0_[w]; taken; taken &= taken - 1)
                bdb_inval_cache_pg(h_, 32 * w + static_cast<uint32_t>(__builtin_ctz(taken)));
        std::memcpy(h_->meta->pgmap, map0_.data(), BDB_MAPWORDS * 4);
        h_->meta->root = 0;
    }

private:
    int refuse(const char *why) {
        errno = 0;
        fail(h_, BDB_E_PARAM, why);
        return -1;
    }

    // Appends e to page pg: 1 done, 0 no room, -1 failure.
    int append(uint32_t pg, bdb_entry &e) {
        bdb_page *p = bdb_get_dpage(h_, pg, 0);
        if (!p) return -1;
        if (!bdb_data_fits(p, &e)) return 0;
        if (!(p = bdb_get_dpage(h_, pg, BDB_FORUPDATE))) return -1;
        if (bdb_insdatum(h_, p, static_cast<int32_t>(p->nslots) - 1, &e) < 0) return -1;
        return bdb_update_dpage(h_, p) < 0 ? -1 : 1;
    }

    // Makes the open page of a level whose previous page was closed, and
    // links it from the level above: as the child of that level's last
    // separator, or as the leftmost child when that level's page is made in
    // the same step (it has no entries yet).
    int make(size_t level) {
        bdb_page *p = bdb_new_dpage(h_);
        if (!p) return -1;
        const uint32_t pg = p->pgno;
        if (bdb_update_dpage(h_, p) < 0) return -1;
        open_[level] = pg;
        if (level + 1 == open_.size()) return 0;
        if (open_[level + 1] == 0 && make(level + 1) < 0) return -1;
        bdb_page *up = bdb_get_dpage(h_, open_[level + 1], BDB_FORUPDATE);
        if (!up) return -1;
        set_child_at(up, static_cast<int32_t>(up->nslots) - 1, pg);
        return bdb_update_dpage(h_, up);
    }

    // A new top level whose page starts with the page just closed.
    int new_root() {
        bdb_page *p = bdb_new_dpage(h_);
        if (!p) return -1;
        p->leftpg = closed_;
        open_.push_back(p->pgno);
        return bdb_update_dpage(h_, p);
    }

    bdb_handle *h_;
    std::vector<uint32_t> map0_;  // the allocation map before the load
    std::vector<uint32_t> open_;  // open page per level (0: not made yet)
    uint32_t closed_ = 0;         // the page closed last
    uint64_t count_ = 0;
    uint8_t prev_buf_[BDB_MAXKEY];
    bdb_datum prev_{prev_buf_, 0};
};

}  // namespace

extern "C" int bdb_bulk_load(bdb_handle *h, bdb_bulk_next_fn next, void *ctx) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    if (h->flags & BDB_F_RDONLY) {
        h->error = BDB_E_RDONLY;
        return -1;
    }
    return under_mutex(h, [&] {
        if (!next || h->meta->root != 0) {
            errno = 0;
            fail(h, BDB_E_PARAM, next ? "bulk load into a database that holds records" : "bulk load without a source");
            return -1;
        }
        int rc = 0;
        try {
            Builder b(h);
            for (;;) {
                bdb_datum key{}, data{};
                const int more = next(ctx, &key, &data);
                if (more == 0) break;
                if (more < 0 || b.add(key, data) < 0) {
                    rc = -1;
                    break;
                }
            }
            if (rc == 0)
                b.finish();
            else
                b.undo();
        } catch (const std::bad_alloc &) {
            h->error = BDB_E_NOMEM;
            rc = -1;
        }
        return rc;
    });
}
