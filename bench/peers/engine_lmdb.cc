// LMDB: a copy-on-write B+tree read through a read-only memory map of the
// file. It has no cache of its own: every read goes through the operating
// system's page cache, which no setting bounds. Each phase is one
// transaction; a write phase's commit writes the new pages and meta page and
// fsyncs (MDB_NOSYNC and MDB_WRITEMAP off, the defaults).
#include <lmdb.h>

#include "engine.h"

namespace peers {
namespace {

constexpr size_t kMapSize = size_t(1) << 36;  // address space only; the file grows as needed

MDB_val val(std::string_view s) { return {s.size(), const_cast<char *>(s.data())}; }
std::string_view view(const MDB_val &v) { return {static_cast<const char *>(v.mv_data), v.mv_size}; }

class Lmdb final : public Engine {
public:
    ~Lmdb() override { close(); }

    void create(const std::string &dir) override {
        check(mdb_env_create(&env_), "mdb_env_create");
        check(mdb_env_set_mapsize(env_, kMapSize), "mdb_env_set_mapsize");
        check(mdb_env_open(env_, dir.c_str(), 0, 0644), "mdb_env_open");
        begin(true);
        check(mdb_dbi_open(txn_, nullptr, 0, &dbi_), "mdb_dbi_open");
        end(true);
    }

    void close() override {
        if (cursor_) mdb_cursor_close(cursor_);
        if (txn_) mdb_txn_abort(txn_);
        if (env_) mdb_env_close(env_);
        cursor_ = nullptr;
        txn_ = nullptr;
        env_ = nullptr;
    }

    Settings settings() override {
        MDB_stat st;
        check(mdb_env_stat(env_, &st), "mdb_env_stat");
        return {MDB_VERSION_STRING, "none of its own: reads through a memory map and the OS page cache (unbounded)",
                "one write transaction per write phase; its commit fsyncs; crash-safe (copy-on-write)",
                std::to_string(st.ms_psize) + "-byte pages; one read transaction per read phase; map size " +
                    size_text(kMapSize) + " (address space)"};
    }

    void begin(bool write) override { check(mdb_txn_begin(env_, nullptr, write ? 0 : MDB_RDONLY, &txn_), "mdb_txn_begin"); }

    void end(bool write) override {
        if (cursor_) mdb_cursor_close(cursor_);
        cursor_ = nullptr;
        MDB_txn *txn = txn_;
        txn_ = nullptr;
        if (write)
            check(mdb_txn_commit(txn), "mdb_txn_commit");
        else
            mdb_txn_abort(txn);
    }

    void insert(std::string_view key, std::string_view value) override { put(key, value, MDB_NOOVERWRITE); }
    void replace(std::string_view key, std::string_view value) override { put(key, value, 0); }

    bool get(std::string_view key, std::string_view *value) override {
        MDB_val k = val(key), v;
        int rc = mdb_get(txn_, dbi_, &k, &v);
        if (rc == MDB_NOTFOUND) return false;
        check(rc, "mdb_get");
        *value = view(v);
        return true;
    }

    void remove(std::string_view key) override {
        MDB_val k = val(key);
        check(mdb_del(txn_, dbi_, &k, nullptr), "mdb_del");
    }

    bool first(std::string_view *key, std::string_view *value) override {
        if (!cursor_) check(mdb_cursor_open(txn_, dbi_, &cursor_), "mdb_cursor_open");
        return step(MDB_FIRST, key, value);
    }
    bool next(std::string_view *key, std::string_view *value) override { return step(MDB_NEXT, key, value); }

private:
    MDB_env *env_ = nullptr;
    MDB_txn *txn_ = nullptr;
    MDB_dbi dbi_ = 0;
    MDB_cursor *cursor_ = nullptr;

    static void check(int rc, const char *call) {
        if (rc != 0) fail("%s: %s", call, mdb_strerror(rc));
    }

    void put(std::string_view key, std::string_view value, unsigned flags) {
        MDB_val k = val(key), v = val(value);
        check(mdb_put(txn_, dbi_, &k, &v, flags), "mdb_put");
    }

    bool step(MDB_cursor_op op, std::string_view *key, std::string_view *value) {
        MDB_val k, v;
        int rc = mdb_cursor_get(cursor_, &k, &v, op);
        if (rc == MDB_NOTFOUND) return false;
        check(rc, "mdb_cursor_get");
        *key = view(k);
        *value = view(v);
        return true;
    }
};

}  // namespace

std::unique_ptr<Engine> make_lmdb(const Options &) { return std::make_unique<Lmdb>(); }

}  // namespace peers
