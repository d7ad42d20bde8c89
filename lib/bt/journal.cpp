// The change journal: pre-change images of the pages one change of the tree
// engine touches, kept in memory until the change ends.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "preimage.h"

namespace varlo {

namespace {

// Memory of a journal, kept per thread so that changes allocate nothing once
// it has grown to the size they need.
struct Spare {
    uint8_t *meta = nullptr;
    uint8_t *images = nullptr;
    uint32_t cap_images = 0;
    uint8_t *arena = nullptr;
    uint32_t cap_arena = 0;
    void *pages = nullptr;
    uint32_t cap_pages = 0;
    uint32_t (*runs)[2] = nullptr;
    uint32_t cap_runs = 0;
    uint32_t *pins = nullptr;
    uint32_t cap_pins = 0;
    bool in_use = false;
    ~Spare() {
        std::free(meta);
        std::free(images);
        std::free(arena);
        std::free(pages);
        std::free(runs);
        std::free(pins);
    }
};
thread_local Spare spare;
thread_local ChangeJournal *active = nullptr;

template <typename T>
bool grow(T *&arr, uint32_t &cap, uint32_t need, size_t elem) {
    if (need <= cap) return true;
    uint32_t ncap = cap ? cap : 8;
    while (ncap < need) ncap *= 2;
    void *p = std::realloc(arr, static_cast<size_t>(ncap) * elem);
    if (!p) return false;
    arr = static_cast<T *>(p);
    cap = ncap;
    return true;
}

// Copies the header and slots, and the entry area, of a page image; the free
// gap between them is zero in dst.
void copy_used(uint8_t *dst, const uint8_t *src) {
    const auto *p = reinterpret_cast<const bdb_page *>(src);
    const uint64_t head = kHeaderSize + static_cast<uint64_t>(kSlotSize) * p->nslots;
    const uint32_t ds = p->datastart;
    if (head > kPageSize || ds > kPageSize || ds < head) {
        std::memcpy(dst, src, kPageSize);
        return;
    }
    std::memcpy(dst, src, static_cast<size_t>(head));
    std::memset(dst + head, 0, ds - head);
    std::memcpy(dst + ds, src + ds, kPageSize - ds);
}

}  // namespace

ChangeJournal *journal_of(const bdb_handle *h) { return active && active->handle() == h ? active : nullptr; }

ChangeJournal::ChangeJournal(bdb_handle *h) : h_(h), prev_(active) {
    if (!spare.in_use) {
        spare.in_use = true;
        borrowed_ = true;
        meta_ = std::exchange(spare.meta, nullptr);
        images_ = std::exchange(spare.images, nullptr);
        cap_images_ = std::exchange(spare.cap_images, 0);
        arena_ = std::exchange(spare.arena, nullptr);
        cap_arena_ = std::exchange(spare.cap_arena, 0);
        pages_ = static_cast<Entry *>(std::exchange(spare.pages, nullptr));
        cap_pages_ = std::exchange(spare.cap_pages, 0);
        runs_ = std::exchange(spare.runs, nullptr);
        cap_runs_ = std::exchange(spare.cap_runs, 0);
        pins_ = std::exchange(spare.pins, nullptr);
        cap_pins_ = std::exchange(spare.cap_pins, 0);
    }
    // The meta image and room for a typical change are reserved up front, so
    // that only unusually deep changes allocate on the way.
    if (!meta_) meta_ = static_cast<uint8_t *>(std::malloc(kPageSize));
    ok_ = meta_ && grow(images_, cap_images_, 16, kPageSize) && grow(arena_, cap_arena_, 4096, 1) &&
          grow(pages_, cap_pages_, 32, sizeof(Entry)) && grow(runs_, cap_runs_, 8, sizeof(uint32_t[2])) &&
          grow(pins_, cap_pins_, 16, sizeof(uint32_t));
    active = this;
}

ChangeJournal::~ChangeJournal() {
    active = prev_;
    if (borrowed_) {
        spare.meta = meta_;
        spare.images = images_;
        spare.cap_images = cap_images_;
        spare.arena = arena_;
        spare.cap_arena = cap_arena_;
        spare.pages = pages_;
        spare.cap_pages = cap_pages_;
        spare.runs = runs_;
        spare.cap_runs = cap_runs_;
        spare.pins = pins_;
        spare.cap_pins = cap_pins_;
        spare.in_use = false;
    } else {
        std::free(meta_);
        std::free(images_);
        std::free(arena_);
        std::free(pages_);
        std::free(runs_);
        std::free(pins_);
    }
}

void ChangeJournal::save_meta() {
    if (meta_saved_ || !meta_) return;
    std::memcpy(meta_, h_->meta, kPageSize);
    meta_saved_ = true;
}

// A page's image is kept once: the first image is the page before the
// change. (Notes do not count: an image taken after a note undoes what came
// after it, and the note is undone later.)
bool ChangeJournal::save_page(const bdb_page *page, bool fresh) {
    const uint32_t pg = page->pgno;
    for (uint32_t i = 0; i < npages_; ++i)
        if (pages_[i].e.pgno == pg && pages_[i].e.kind <= SavedPage::kFresh) return true;
    if (!grow(pages_, cap_pages_, npages_ + 1, sizeof(Entry))) return false;
    uint32_t slot = 0;
    if (!fresh) {
        if (!grow(images_, cap_images_, nimages_ + 1, kPageSize)) return false;
        slot = nimages_++;
        copy_used(images_ + static_cast<size_t>(slot) * kPageSize, page_bytes(page));
    }
    SavedPage e{};
    e.kind = fresh ? SavedPage::kFresh : SavedPage::kImage;
    e.pgno = pg;
    pages_[npages_++] = Entry{e, slot};
    return true;
}

bool ChangeJournal::add(const SavedPage &e, const void *bytes, uint32_t n) {
    if (!grow(pages_, cap_pages_, npages_ + 1, sizeof(Entry)) || !grow(arena_, cap_arena_, narena_ + n, 1))
        return false;
    if (n) std::memcpy(arena_ + narena_, bytes, n);
    pages_[npages_++] = Entry{e, narena_};
    narena_ += n;
    return true;
}

bool ChangeJournal::note_inserted(uint32_t pgno, int32_t slot) {
    SavedPage e{};
    e.kind = SavedPage::kInserted;
    e.pgno = pgno;
    e.pos = slot;
    return add(e, nullptr, 0);
}

bool ChangeJournal::note_bytes(uint32_t pgno, const bdb_page *page, uint32_t off, uint32_t len) {
    SavedPage e{};
    e.kind = SavedPage::kBytes;
    e.pgno = pgno;
    e.off = off;
    e.len = len;
    return add(e, page_bytes(page) + off, len);
}

bool ChangeJournal::note_removed(uint32_t pgno, const bdb_page *page, int32_t slot, uint32_t child_before) {
    SavedPage e{};
    e.kind = SavedPage::kRemoved;
    e.pgno = pgno;
    e.pos = slot;
    e.off = child_before;
    e.slot = page->slots[slot];
    e.len = e.slot.keylen + (slot_is_long(e.slot) ? 0 : e.slot.datalen);
    return add(e, page_bytes(page) + e.slot.keyoff, e.len);
}

bool ChangeJournal::defer_run(uint32_t first, uint32_t n) {
    if (!grow(runs_, cap_runs_, nruns_ + 1, sizeof(uint32_t[2]))) return false;
    runs_[nruns_][0] = first;
    runs_[nruns_][1] = n;
    ++nruns_;
    return true;
}

SavedPage ChangeJournal::page(uint32_t newest_first) const {
    const Entry &en = pages_[npages_ - 1 - newest_first];
    SavedPage e = en.e;
    if (e.kind == SavedPage::kImage)
        e.bytes = images_ + static_cast<size_t>(en.at) * kPageSize;
    else if (e.kind != SavedPage::kFresh)
        e.bytes = arena_ + en.at;
    return e;
}

bool ChangeJournal::pin(uint32_t pgno) {
    for (uint32_t i = 0; i < npins_; ++i)
        if (pins_[i] == pgno) return true;
    if (!grow(pins_, cap_pins_, npins_ + 1, sizeof(uint32_t))) return false;
    pins_[npins_++] = pgno;
    return true;
}

void ChangeJournal::pause() { active = prev_; }

void ChangeJournal::resume_empty() {
    meta_saved_ = false;
    npages_ = nimages_ = nruns_ = narena_ = npins_ = 0;
    active = this;
}

bool journal_page_touched(bdb_handle *h, const bdb_page *page, bool fresh) {
    ChangeJournal *j = journal_of(h);
    if (!j || j->save_page(page, fresh)) return true;
    h->error = BDB_E_NOMEM;
    return false;
}

void journal_meta_touched(bdb_handle *h) {
    if (ChangeJournal *j = journal_of(h)) j->save_meta();
}

// A page whose pin cannot be remembered keeps its mark until a later change
// commits it: the cache then has one record fewer to choose from, nothing
// more.
void journal_pinned(bdb_handle *h, uint32_t pgno) {
    if (ChangeJournal *j = journal_of(h)) (void)j->pin(pgno);
}

// Without room to remember the run it is released at once: the change then
// cannot restore that one value, but nothing else is affected.
bool journal_defer_run(bdb_handle *h, uint32_t first, uint32_t n) {
    ChangeJournal *j = journal_of(h);
    return j && j->defer_run(first, n);
}

}  // namespace varlo
