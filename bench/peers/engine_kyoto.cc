// Kyoto Cabinet's TreeDB: a B+tree whose pages are records of a hash file.
// Its page cache is the tree's pccap (tune_page_cache); the hash file below
// also maps the first msiz bytes of the file (its default 64 MiB) through
// mmap. A write phase ends with synchronize(true): the cached pages
// written, then fsync. Without its transactions or auto-sync it is not
// crash-safe.
#include <kcpolydb.h>

#include <map>

#include "engine.h"

namespace peers {
namespace {

class Kyoto final : public Engine {
public:
    explicit Kyoto(const Options &o) : cache_bytes_(o.cache_bytes) {}
    ~Kyoto() override { close(); }

    void create(const std::string &dir) override {
        db_ = std::make_unique<kyotocabinet::TreeDB>();
        if (!db_->tune_page_cache(static_cast<int64_t>(cache_bytes_))) error("tune_page_cache");
        using kyotocabinet::TreeDB;
        if (!db_->open(dir + "/kyoto.kct", TreeDB::OWRITER | TreeDB::OCREATE | TreeDB::OTRUNCATE)) error("open");
    }

    void close() override {
        drop();
        if (!db_) return;
        auto db = std::move(db_);
        if (!db->close()) fail("Kyoto close: %s", db->error().message());
    }

    Settings settings() override {
        std::map<std::string, std::string> st;
        if (!db_->status(&st)) error("status");
        auto bytes = [&](const char *k) { return size_text(std::stoull(st[k])); };
        return {std::string("Kyoto Cabinet ") + kyotocabinet::VERSION,
                "page cache: tune_page_cache(" + size_text(cache_bytes_) + "), pccap " + bytes("pccap"),
                "synchronize(true) (cached pages written, fsync); not crash-safe (no transactions)",
                st["psiz"] + "-byte pages, " + bytes("msiz") + " memory map of the file's start (defaults)"};
    }

    void end(bool write) override {
        drop();
        if (write && !db_->synchronize(true)) error("synchronize");
    }

    void insert(std::string_view key, std::string_view value) override {
        if (!db_->add(key.data(), key.size(), value.data(), value.size())) error("add");
    }
    void replace(std::string_view key, std::string_view value) override {
        if (!db_->replace(key.data(), key.size(), value.data(), value.size())) error("replace");
    }

    bool get(std::string_view key, std::string_view *value) override {
        int32_t n = db_->get(key.data(), key.size(), value_, sizeof value_);
        if (n < 0) {
            if (db_->error() == kyotocabinet::BasicDB::Error::NOREC) return false;
            error("get");
        }
        if (static_cast<size_t>(n) > sizeof value_) fail("Kyoto get: a value of %d bytes", n);
        *value = {value_, static_cast<size_t>(n)};
        return true;
    }

    void remove(std::string_view key) override {
        if (!db_->remove(key.data(), key.size())) error("remove");
    }

    bool first(std::string_view *key, std::string_view *value) override {
        drop();
        cursor_.reset(db_->cursor());
        if (!cursor_->jump()) {
            if (db_->error() == kyotocabinet::BasicDB::Error::NOREC) return false;
            error("cursor jump");
        }
        return here(key, value);
    }
    bool next(std::string_view *key, std::string_view *value) override { return here(key, value); }

private:
    uint64_t cache_bytes_;
    std::unique_ptr<kyotocabinet::TreeDB> db_;
    std::unique_ptr<kyotocabinet::BasicDB::Cursor> cursor_;
    char *record_ = nullptr;  // the walk's last key and value (one new[] block)
    char value_[8192];

    [[noreturn]] void error(const char *call) { fail("Kyoto %s: %s", call, db_->error().message()); }

    void drop() {
        delete[] record_;
        record_ = nullptr;
        cursor_.reset();
    }

    // The record under the cursor, which then steps to the next one.
    bool here(std::string_view *key, std::string_view *value) {
        delete[] record_;
        size_t ksiz = 0, vsiz = 0;
        const char *vbuf = nullptr;
        record_ = cursor_->get(&ksiz, &vbuf, &vsiz, true);
        if (!record_) {
            if (db_->error() == kyotocabinet::BasicDB::Error::NOREC) return false;
            error("cursor get");
        }
        *key = {record_, ksiz};
        *value = {vbuf, vsiz};
        return true;
    }
};

}  // namespace

std::unique_ptr<Engine> make_kyoto(const Options &o) { return std::make_unique<Kyoto>(o); }

}  // namespace peers
