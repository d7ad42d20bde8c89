// The one interface through which varlo_peers drives every engine. An
// adapter maps each call onto its engine's natural API and stops the program
// through fail() on any error, so the driver only counts and checks.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace peers {

// Stops the program with exit status 1 after closing the engine in use and
// removing the benchmark's files.
[[noreturn]] void fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// How the engine is set up, for the header of the report (filled in while
// a database is open, so that it shows what the engine really took).
struct Settings {
    std::string version;  // the library and its version
    std::string cache;    // what holds pages in memory, and how big
    std::string sync;     // what ends a write phase, and whether it is crash-safe
    std::string other;    // page size, layout, options left at their defaults
};

class Engine {
public:
    virtual ~Engine() = default;

    // A new, empty database whose files all live in the empty folder dir.
    virtual void create(const std::string &dir) = 0;
    // Closes the database (no-op when none is open; safe after a failure).
    virtual void close() = 0;
    virtual Settings settings() = 0;

    // Every phase runs between begin and end. For a write phase end makes
    // every change of the phase durable (one fsync'ed commit or sync).
    virtual void begin(bool /*write*/) {}
    virtual void end(bool write) = 0;

    // insert fails on a key that is present where the engine can tell
    // without an extra lookup; replace changes the value of a present key.
    virtual void insert(std::string_view key, std::string_view value) = 0;
    virtual void replace(std::string_view key, std::string_view value) = 0;
    // The value of key in *value (valid until the next call); false when the
    // key is absent.
    virtual bool get(std::string_view key, std::string_view *value) = 0;
    // Deletes a key, which must be present where the engine can tell.
    virtual void remove(std::string_view key) = 0;
    // A walk over every record (in key order where ordered()); false at the end.
    virtual bool first(std::string_view *key, std::string_view *value) = 0;
    virtual bool next(std::string_view *key, std::string_view *value) = 0;
    virtual bool ordered() const { return true; }
};

struct Options {
    uint64_t cache_bytes;
};

std::unique_ptr<Engine> make_varlo(const Options &, bool shared);
std::unique_ptr<Engine> make_lmdb(const Options &);
std::unique_ptr<Engine> make_leveldb(const Options &);
std::unique_ptr<Engine> make_berkeleydb(const Options &);
std::unique_ptr<Engine> make_sqlite(const Options &);
std::unique_ptr<Engine> make_gdbm(const Options &);
std::unique_ptr<Engine> make_kyoto(const Options &);

// "64 MiB", "512 KiB", "1234 bytes".
std::string size_text(uint64_t bytes);

}  // namespace peers
