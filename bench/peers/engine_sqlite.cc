// SQLite: one table kv(k BLOB PRIMARY KEY, v BLOB) WITHOUT ROWID (a B-tree
// on the key, like the others), in WAL mode with synchronous=FULL and
// exclusive locking (one process, no shared-memory index). Each phase is one
// transaction through prepared statements; a write phase's COMMIT fsyncs the
// WAL and then checkpoints it into the database file (the default automatic
// checkpoint), both counted in the phase.
#include <sqlite3.h>

#include "engine.h"

namespace peers {
namespace {

class Sqlite final : public Engine {
public:
    explicit Sqlite(const Options &o) : cache_kib_(o.cache_bytes >> 10) {}
    ~Sqlite() override { close(); }

    void create(const std::string &dir) override {
        if (sqlite3_open_v2((dir + "/sqlite.db").c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
            SQLITE_OK)
            fail("sqlite3_open_v2: %s", db_ ? sqlite3_errmsg(db_) : "out of memory");
        exec("PRAGMA locking_mode=EXCLUSIVE");
        exec("PRAGMA journal_mode=WAL");
        exec("PRAGMA synchronous=FULL");
        exec(("PRAGMA cache_size=-" + std::to_string(cache_kib_)).c_str());
        exec("CREATE TABLE kv(k BLOB PRIMARY KEY, v BLOB NOT NULL) WITHOUT ROWID");
        insert_ = prepare("INSERT INTO kv(k, v) VALUES(?1, ?2)");
        update_ = prepare("UPDATE kv SET v = ?2 WHERE k = ?1");
        select_ = prepare("SELECT v FROM kv WHERE k = ?1");
        delete_ = prepare("DELETE FROM kv WHERE k = ?1");
        scan_ = prepare("SELECT k, v FROM kv ORDER BY k");
    }

    void close() override {
        for (sqlite3_stmt **s : {&insert_, &update_, &select_, &delete_, &scan_}) {
            sqlite3_finalize(*s);
            *s = nullptr;
        }
        if (db_ && sqlite3_close(db_) != SQLITE_OK) fail("sqlite3_close: %s", sqlite3_errmsg(db_));
        db_ = nullptr;
    }

    Settings settings() override {
        return {std::string("SQLite ") + sqlite3_libversion(),
                "page cache: PRAGMA cache_size=-" + std::to_string(cache_kib_) + " (" + size_text(cache_kib_ << 10) + ")",
                "COMMIT with synchronous=FULL (fsyncs the WAL), then the automatic checkpoint; crash-safe (WAL)",
                std::to_string(pragma("page_size")) +
                    "-byte pages (default); journal_mode=WAL, locking_mode=EXCLUSIVE, wal_autocheckpoint=" +
                    std::to_string(pragma("wal_autocheckpoint")) + "; prepared statements"};
    }

    void begin(bool write) override { exec(write ? "BEGIN IMMEDIATE" : "BEGIN"); }
    void end(bool) override {
        sqlite3_reset(scan_);
        exec("COMMIT");
    }

    void insert(std::string_view key, std::string_view value) override { change(insert_, key, value, "INSERT"); }
    void replace(std::string_view key, std::string_view value) override { change(update_, key, value, "UPDATE"); }
    void remove(std::string_view key) override { change(delete_, key, {}, "DELETE"); }

    bool get(std::string_view key, std::string_view *value) override {
        sqlite3_reset(select_);
        bind(select_, 1, key);
        int rc = sqlite3_step(select_);
        if (rc == SQLITE_DONE) return false;
        if (rc != SQLITE_ROW) fail("SELECT: %s", sqlite3_errmsg(db_));
        *value = column(select_, 0);
        return true;
    }

    bool first(std::string_view *key, std::string_view *value) override {
        sqlite3_reset(scan_);
        return next(key, value);
    }
    bool next(std::string_view *key, std::string_view *value) override {
        int rc = sqlite3_step(scan_);
        if (rc == SQLITE_DONE) return false;
        if (rc != SQLITE_ROW) fail("SELECT (walk): %s", sqlite3_errmsg(db_));
        *key = column(scan_, 0);
        *value = column(scan_, 1);
        return true;
    }

private:
    uint64_t cache_kib_;
    sqlite3 *db_ = nullptr;
    sqlite3_stmt *insert_ = nullptr, *update_ = nullptr, *select_ = nullptr, *delete_ = nullptr, *scan_ = nullptr;

    void exec(const char *sql) {
        char *msg = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &msg) != SQLITE_OK) fail("%s: %s", sql, msg ? msg : "?");
    }

    long pragma(const char *name) {
        sqlite3_stmt *s = prepare((std::string("PRAGMA ") + name).c_str());
        long v = sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : -1;
        sqlite3_finalize(s);
        return v;
    }

    sqlite3_stmt *prepare(const char *sql) {
        sqlite3_stmt *s = nullptr;
        if (sqlite3_prepare_v2(db_, sql, -1, &s, nullptr) != SQLITE_OK) fail("prepare %s: %s", sql, sqlite3_errmsg(db_));
        return s;
    }

    static void bind(sqlite3_stmt *s, int i, std::string_view b) {
        sqlite3_bind_blob(s, i, b.data(), static_cast<int>(b.size()), SQLITE_STATIC);
    }

    static std::string_view column(sqlite3_stmt *s, int i) {
        const void *p = sqlite3_column_blob(s, i);
        return {static_cast<const char *>(p), static_cast<size_t>(sqlite3_column_bytes(s, i))};
    }

    // One INSERT, UPDATE or DELETE that must change exactly one row (an
    // INSERT of a present key fails on the primary key).
    void change(sqlite3_stmt *s, std::string_view key, std::string_view value, const char *what) {
        sqlite3_reset(s);
        bind(s, 1, key);
        if (!value.empty()) bind(s, 2, value);
        if (sqlite3_step(s) != SQLITE_DONE) fail("%s: %s", what, sqlite3_errmsg(db_));
        if (sqlite3_changes(db_) != 1) fail("%s of %.16s changed %d rows", what, key.data(), sqlite3_changes(db_));
    }
};

}  // namespace

std::unique_ptr<Engine> make_sqlite(const Options &o) { return std::make_unique<Sqlite>(o); }

}  // namespace peers
