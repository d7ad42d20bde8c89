// LevelDB: a log-structured merge tree (a folder of a log, sorted tables and
// a manifest). Writes go to the log without sync and to the memtable;
// background compaction runs in a thread of its own. A write phase ends with
// a write of an empty batch with sync=true, which fsyncs the current log,
// plus an fsync of every older log still in the folder (a memtable still on
// its way to a table lives only there, and LevelDB closed that log without
// fsync). Puts and deletes are blind: LevelDB cannot tell whether the key was
// present without a read. Compression is off: the values repeat one filler at
// shifting offsets, which Snappy shrinks as it would not shrink real data
// (and no other engine here compresses). A bloom filter (10 bits per key, the
// setting LevelDB recommends) spares reads of absent keys.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>

#include "engine.h"

namespace peers {
namespace {

constexpr int kBloomBits = 10;

class LevelDb final : public Engine {
public:
    explicit LevelDb(const Options &o)
        : cache_bytes_(o.cache_bytes),
          cache_(leveldb::NewLRUCache(o.cache_bytes)), bloom_(leveldb::NewBloomFilterPolicy(kBloomBits)) {}
    ~LevelDb() override { close(); }

    void create(const std::string &dir) override {
        dir_ = dir + "/leveldb";
        leveldb::Options o;
        o.create_if_missing = true;
        o.error_if_exists = true;
        o.block_cache = cache_.get();
        o.filter_policy = bloom_.get();
        o.compression = leveldb::kNoCompression;
        leveldb::DB *db = nullptr;
        check(leveldb::DB::Open(o, dir_, &db), "open");
        db_.reset(db);
    }

    void close() override {
        it_.reset();
        db_.reset();  // waits for a running compaction
    }

    Settings settings() override {
        leveldb::Options d;
        return {"LevelDB " + std::to_string(leveldb::kMajorVersion) + "." + std::to_string(leveldb::kMinorVersion),
                "block cache (LRU): " + size_text(cache_bytes_) + " (leveldb::Options::block_cache)",
                "write of an empty batch with sync=true (fsyncs the log), fsync of older logs; crash-safe (log)",
                "defaults: " + size_text(d.write_buffer_size) + " memtable, " + size_text(d.block_size) + " blocks, " +
                    std::to_string(d.max_open_files) + " open files; bloom filter of " + std::to_string(kBloomBits) +
                    " bits per key; compression off; puts and deletes blind (no check of the key)"};
    }

    void end(bool write) override {
        it_.reset();
        if (!write) return;
        leveldb::WriteOptions wo;
        wo.sync = true;
        leveldb::WriteBatch empty;
        check(db_->Write(wo, &empty), "write (sync)");
        sync_older_logs();
    }

    void insert(std::string_view key, std::string_view value) override { replace(key, value); }
    void replace(std::string_view key, std::string_view value) override {
        check(db_->Put(leveldb::WriteOptions(), slice(key), slice(value)), "put");
    }

    bool get(std::string_view key, std::string_view *value) override {
        leveldb::Status s = db_->Get(leveldb::ReadOptions(), slice(key), &value_);
        if (s.IsNotFound()) return false;
        check(s, "get");
        *value = value_;
        return true;
    }

    void remove(std::string_view key) override { check(db_->Delete(leveldb::WriteOptions(), slice(key)), "delete"); }

    bool first(std::string_view *key, std::string_view *value) override {
        it_.reset(db_->NewIterator(leveldb::ReadOptions()));
        it_->SeekToFirst();
        return here(key, value);
    }
    bool next(std::string_view *key, std::string_view *value) override {
        it_->Next();
        return here(key, value);
    }

private:
    uint64_t cache_bytes_;
    std::unique_ptr<leveldb::Cache> cache_;
    std::unique_ptr<const leveldb::FilterPolicy> bloom_;
    std::unique_ptr<leveldb::DB> db_;
    std::unique_ptr<leveldb::Iterator> it_;
    std::string dir_;
    std::string value_;

    static leveldb::Slice slice(std::string_view s) { return {s.data(), s.size()}; }

    static void check(const leveldb::Status &s, const char *call) {
        if (!s.ok()) fail("leveldb %s: %s", call, s.ToString().c_str());
    }

    bool here(std::string_view *key, std::string_view *value) {
        if (!it_->Valid()) {
            check(it_->status(), "iterator");
            return false;
        }
        *key = {it_->key().data(), it_->key().size()};
        *value = {it_->value().data(), it_->value().size()};
        return true;
    }

    // Every log but the newest (just synced) is one whose memtable may not
    // be in a table yet. A log that compaction removes meanwhile is no loss.
    void sync_older_logs() {
        std::vector<std::string> logs;
        if (DIR *d = opendir(dir_.c_str())) {
            while (dirent *e = readdir(d)) {
                std::string n = e->d_name;
                if (n.size() > 4 && n.compare(n.size() - 4, 4, ".log") == 0) logs.push_back(n);
            }
            closedir(d);
        }
        std::sort(logs.begin(), logs.end(), [](const std::string &a, const std::string &b) {
            return std::stoull(a) < std::stoull(b);
        });
        if (!logs.empty()) logs.pop_back();
        for (const auto &n : logs) {
            int fd = ::open((dir_ + "/" + n).c_str(), O_RDONLY);
            if (fd < 0) continue;
            if (::fsync(fd) < 0) fail("leveldb: fsync %s failed", n.c_str());
            ::close(fd);
        }
    }
};

}  // namespace

std::unique_ptr<Engine> make_leveldb(const Options &o) { return std::make_unique<LevelDb>(o); }

}  // namespace peers
