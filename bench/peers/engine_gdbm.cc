// GNU gdbm: an extendible hash file, so its walk comes in hash order, not in
// key order, and fetches each value with a second call. Its cache holds
// buckets of one block each, so GDBM_SETCACHESIZE gets the cache size in
// blocks; the file is read through mmap (its default). A write phase ends
// with gdbm_sync (everything written, fsync); without its optional crash
// tolerance (snapshots on a reflink file system) it is not crash-safe.
#include <gdbm.h>

#include <algorithm>
#include <cstdlib>

#include "engine.h"

namespace peers {
namespace {

datum dat(std::string_view s) { return {const_cast<char *>(s.data()), static_cast<int>(s.size())}; }

class Gdbm final : public Engine {
public:
    explicit Gdbm(const Options &o) : cache_bytes_(o.cache_bytes) {}
    ~Gdbm() override { close(); }

    void create(const std::string &dir) override {
        dbf_ = gdbm_open((dir + "/gdbm.db").c_str(), 0, GDBM_NEWDB, 0644, nullptr);
        if (!dbf_) fail("gdbm_open: %s", gdbm_strerror(gdbm_errno));
        size_t buckets = std::max<size_t>(1, cache_bytes_ / opt(GDBM_GETBLOCKSIZE));
        if (gdbm_setopt(dbf_, GDBM_SETCACHESIZE, &buckets, sizeof buckets) != 0) error("GDBM_SETCACHESIZE");
    }

    void close() override {
        drop();
        if (dbf_ && gdbm_close(dbf_) != 0) error("gdbm_close");
        dbf_ = nullptr;
    }

    Settings settings() override {
        size_t buckets = 0;
        if (gdbm_setopt(dbf_, GDBM_GETCACHESIZE, &buckets, sizeof buckets) != 0) error("GDBM_GETCACHESIZE");
        const int block = opt(GDBM_GETBLOCKSIZE);
        return {gdbm_version,
                "bucket cache: GDBM_SETCACHESIZE " + std::to_string(buckets) + " buckets of " + std::to_string(block) +
                    " bytes (" + size_text(uint64_t(buckets) * block) + ")",
                "gdbm_sync (everything written, fsync); not crash-safe (crash tolerance off)",
                std::to_string(block) + "-byte blocks (default); hash file, walk in hash order; mmap " +
                    (opt(GDBM_GETMMAP) ? "on" : "off") + " (default)"};
    }

    void end(bool write) override {
        drop();
        if (write && gdbm_sync(dbf_) != 0) error("gdbm_sync");
    }

    void insert(std::string_view key, std::string_view value) override {
        int rc = gdbm_store(dbf_, dat(key), dat(value), GDBM_INSERT);
        if (rc == 1) fail("gdbm_store: key %.16s is present", key.data());
        if (rc != 0) error("gdbm_store");
    }
    void replace(std::string_view key, std::string_view value) override {
        if (gdbm_store(dbf_, dat(key), dat(value), GDBM_REPLACE) != 0) error("gdbm_store");
    }

    bool get(std::string_view key, std::string_view *value) override {
        drop();
        value_ = gdbm_fetch(dbf_, dat(key));
        if (!value_.dptr) {
            if (gdbm_errno == GDBM_ITEM_NOT_FOUND) return false;
            error("gdbm_fetch");
        }
        *value = {value_.dptr, static_cast<size_t>(value_.dsize)};
        return true;
    }

    void remove(std::string_view key) override {
        if (gdbm_delete(dbf_, dat(key)) != 0) error("gdbm_delete");
    }

    bool first(std::string_view *key, std::string_view *value) override {
        drop();
        key_ = gdbm_firstkey(dbf_);
        return here(key, value);
    }
    bool next(std::string_view *key, std::string_view *value) override {
        std::free(value_.dptr);
        value_ = {};
        datum k = gdbm_nextkey(dbf_, key_);
        std::free(key_.dptr);
        key_ = k;
        return here(key, value);
    }
    bool ordered() const override { return false; }

private:
    uint64_t cache_bytes_;
    GDBM_FILE dbf_ = nullptr;
    datum key_{}, value_{};  // the walk's key and the last value (ours to free)

    [[noreturn]] void error(const char *call) { fail("%s: %s", call, gdbm_db_strerror(dbf_)); }

    int opt(int what) {
        int v = 0;
        if (gdbm_setopt(dbf_, what, &v, sizeof v) != 0) error("gdbm_setopt");
        return v;
    }

    void drop() {
        std::free(key_.dptr);
        std::free(value_.dptr);
        key_ = value_ = {};
    }

    bool here(std::string_view *key, std::string_view *value) {
        if (!key_.dptr) {
            if (gdbm_errno == GDBM_ITEM_NOT_FOUND) return false;
            error("gdbm_firstkey/nextkey");
        }
        value_ = gdbm_fetch(dbf_, key_);
        if (!value_.dptr) error("gdbm_fetch (walk)");
        *key = {key_.dptr, static_cast<size_t>(key_.dsize)};
        *value = {value_.dptr, static_cast<size_t>(value_.dsize)};
        return true;
    }
};

}  // namespace

std::unique_ptr<Engine> make_gdbm(const Options &o) { return std::make_unique<Gdbm>(o); }

}  // namespace peers
