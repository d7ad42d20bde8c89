// varlo through its C API, in private mode (one handle, a page cache of the
// given size) or in shared mode (the cache lives in the System V area of the
// database; bdb_close of the last user removes the segment and semaphores).
// The calls are the ones varlo_bench makes.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bdb.h"
#include "engine.h"

namespace peers {
namespace {

std::string code_text(uint32_t code) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "%s (0x%08x)", bdbstrerr(code), code);
    return buf;
}

bdb_datum datum(std::string_view s) { return {const_cast<char *>(s.data()), static_cast<uint32_t>(s.size())}; }

class Varlo final : public Engine {
public:
    Varlo(const Options &o, bool shared) : opts_(o), shared_(shared) {}
    ~Varlo() override { close(); }

    void create(const std::string &dir) override {
        path_ = dir + "/varlo.db";
        const int mode = shared_ ? BDB_SHARED : BDB_PRIVATE;
        uint32_t err = 0;
        if (bdb_create(path_.c_str(), mode, &err) < 0) fail("bdb_create %s: %s", path_.c_str(), code_text(err).c_str());
        bdb_options bo{static_cast<uint32_t>(opts_.cache_bytes), nullptr, nullptr};
        h_ = bdb_open(path_.c_str(), 0, BDB_RDWR, mode, &bo, 0, &err);
        if (!h_) fail("bdb_open %s: %s", path_.c_str(), code_text(err).c_str());
    }

    void close() override {
        drop_value();
        if (!h_) return;
        bdb_handle *h = h_;
        h_ = nullptr;
        if (bdb_close(h) < 0) fail("bdb_close: %s", code_text(bdb_error(h)).c_str());
    }

    Settings settings() override {
        const uint64_t bytes = uint64_t(h_->ncache) * BDB_PGSIZE;
        return {std::string("varlo ") + VARLO_VERSION_STRING,
                (shared_ ? "the shared area's page cache: " : "page cache: ") + std::to_string(h_->ncache) +
                    " pages of 8 KiB (" + size_text(bytes) + ")",
                "bdb_sync (dirty pages written, fsync); crash-safe through its meta log",
                shared_ ? "BDB_SHARED: every call takes the database's System V semaphore; 8 KiB pages"
                        : "BDB_PRIVATE, no thread management; 8 KiB pages"};
    }

    void end(bool write) override {
        if (write && bdb_sync(h_) < 0) fail("bdb_sync: %s", err().c_str());
    }

    void insert(std::string_view key, std::string_view value) override {
        bdb_datum k = datum(key), v = datum(value);
        if (bdb_put(h_, &k, &v) < 0) fail("bdb_put: %s", err().c_str());
    }

    void replace(std::string_view key, std::string_view value) override {
        bdb_datum k = datum(key), v = datum(value);
        bdb_seterror(h_, 0);
        if (bdb_replace(h_, &k, &v) < 0) fail("bdb_replace: %s", err().c_str());
        if (bdb_error(h_) == BDB_E_INSERTED) fail("bdb_replace inserted %.16s: the record was missing", key.data());
    }

    bool get(std::string_view key, std::string_view *value) override {
        drop_value();
        bdb_datum k = datum(key);
        if (bdb_get(h_, &k, &value_) < 0) {
            if (bdb_error(h_) == BDB_E_NOTFOUND) return false;
            fail("bdb_get: %s", err().c_str());
        }
        *value = {static_cast<const char *>(value_.ptr), value_.len};
        return true;
    }

    void remove(std::string_view key) override {
        bdb_datum k = datum(key);
        if (bdb_delete(h_, &k) < 0) fail("bdb_delete: %s", err().c_str());
    }

    bool first(std::string_view *key, std::string_view *value) override { return walk(true, key, value); }
    bool next(std::string_view *key, std::string_view *value) override { return walk(false, key, value); }

private:
    Options opts_;
    bool shared_;
    std::string path_;
    bdb_handle *h_ = nullptr;
    bdb_datum value_{nullptr, 0};  // the last value handed out (ours to free)
    char kbuf_[BDB_MAXKEY];
    bdb_datum key_{kbuf_, 0};      // the walk's position

    std::string err() const { return code_text(bdb_error(h_)); }

    void drop_value() {
        std::free(value_.ptr);
        value_ = {nullptr, 0};
    }

    bool walk(bool from_start, std::string_view *key, std::string_view *value) {
        drop_value();
        if ((from_start ? bdb_first(h_, &key_, &value_) : bdb_next(h_, &key_, &value_)) < 0) {
            if (bdb_error(h_) == (from_start ? BDB_E_EMPTY : BDB_E_EOF)) return false;
            fail("bdb_%s: %s", from_start ? "first" : "next", err().c_str());
        }
        *key = {kbuf_, key_.len};
        *value = {static_cast<const char *>(value_.ptr), value_.len};
        return true;
    }
};

}  // namespace

std::unique_ptr<Engine> make_varlo(const Options &o, bool shared) { return std::make_unique<Varlo>(o, shared); }

}  // namespace peers
