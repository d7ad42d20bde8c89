// Berkeley DB: a B-tree database without an environment, locks, log or
// transactions (its plain data store, like varlo's private mode). Its memory
// pool is set with DB->set_cachesize; a write phase ends with DB->sync,
// which writes every dirty page and fsyncs the file. Without a log a crash
// during that sync can leave a damaged file.
#include <db.h>

#include "engine.h"

namespace peers {
namespace {

DBT dbt(std::string_view s) {
    DBT d{};
    d.data = const_cast<char *>(s.data());
    d.size = static_cast<u_int32_t>(s.size());
    return d;
}

class BerkeleyDb final : public Engine {
public:
    explicit BerkeleyDb(const Options &o) : cache_bytes_(o.cache_bytes) {}
    ~BerkeleyDb() override { close(); }

    void create(const std::string &dir) override {
        check(db_create(&db_, nullptr, 0), "db_create");
        check(db_->set_cachesize(db_, static_cast<u_int32_t>(cache_bytes_ >> 30),
                                 static_cast<u_int32_t>(cache_bytes_ & ((1u << 30) - 1)), 1),
              "set_cachesize");
        check(db_->open(db_, nullptr, (dir + "/bdb.db").c_str(), nullptr, DB_BTREE, DB_CREATE, 0644), "open");
    }

    void close() override {
        if (cursor_) cursor_->close(cursor_);
        cursor_ = nullptr;
        if (!db_) return;
        DB *db = db_;
        db_ = nullptr;
        check(db->close(db, 0), "close");
    }

    Settings settings() override {
        u_int32_t gb = 0, bytes = 0, pagesize = 0;
        int ncache = 0;
        check(db_->get_cachesize(db_, &gb, &bytes, &ncache), "get_cachesize");
        check(db_->get_pagesize(db_, &pagesize), "get_pagesize");
        return {DB_VERSION_STRING,
                "memory pool: set_cachesize(" + size_text(cache_bytes_) + "), which it takes as " +
                    size_text((uint64_t(gb) << 30) + bytes) + " (it adds 25% for its own overhead below 500 MB)",
                "DB->sync (dirty pages written, fsync); not crash-safe (no log)",
                std::to_string(pagesize) + "-byte pages (default); DB_BTREE, no environment, locking or transactions"};
    }

    void end(bool write) override {
        if (cursor_) cursor_->close(cursor_);
        cursor_ = nullptr;
        if (write) check(db_->sync(db_, 0), "sync");
    }

    void insert(std::string_view key, std::string_view value) override { put(key, value, DB_NOOVERWRITE); }
    void replace(std::string_view key, std::string_view value) override { put(key, value, 0); }

    bool get(std::string_view key, std::string_view *value) override {
        DBT k = dbt(key), v = out(value_, sizeof value_);
        int rc = db_->get(db_, nullptr, &k, &v, 0);
        if (rc == DB_NOTFOUND) return false;
        check(rc, "get");
        *value = {value_, v.size};
        return true;
    }

    void remove(std::string_view key) override {
        DBT k = dbt(key);
        check(db_->del(db_, nullptr, &k, 0), "del");
    }

    bool first(std::string_view *key, std::string_view *value) override {
        check(db_->cursor(db_, nullptr, &cursor_, 0), "cursor");
        return step(DB_FIRST, key, value);
    }
    bool next(std::string_view *key, std::string_view *value) override { return step(DB_NEXT, key, value); }

private:
    uint64_t cache_bytes_;
    DB *db_ = nullptr;
    DBC *cursor_ = nullptr;
    char key_[1024];
    char value_[8192];  // values are copied here (DB_DBT_USERMEM), no allocation per read

    static DBT out(char *buf, u_int32_t size) {
        DBT d{};
        d.data = buf;
        d.ulen = size;
        d.flags = DB_DBT_USERMEM;
        return d;
    }

    static void check(int rc, const char *call) {
        if (rc != 0) fail("Berkeley DB %s: %s", call, db_strerror(rc));
    }

    void put(std::string_view key, std::string_view value, u_int32_t flags) {
        DBT k = dbt(key), v = dbt(value);
        check(db_->put(db_, nullptr, &k, &v, flags), "put");
    }

    bool step(u_int32_t op, std::string_view *key, std::string_view *value) {
        DBT k = out(key_, sizeof key_), v = out(value_, sizeof value_);
        int rc = cursor_->get(cursor_, &k, &v, op);
        if (rc == DB_NOTFOUND) return false;
        check(rc, "cursor get");
        *key = {key_, k.size};
        *value = {value_, v.size};
        return true;
    }
};

}  // namespace

std::unique_ptr<Engine> make_berkeleydb(const Options &o) { return std::make_unique<BerkeleyDb>(o); }

}  // namespace peers
