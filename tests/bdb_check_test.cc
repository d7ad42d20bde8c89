// Damaged files: the integrity check reports the first problem with the page
// where it was found; the record calls refuse damaged pages with an error
// instead of crashing or looping; and damage to the map or to a long value's
// reference never spreads through a read-write session.
#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "test_util.h"

namespace {

union Page {
    alignas(8) uint8_t b[8192];
    bdb_page p;
    bdb_meta m;
};

// A database of 3000 records (every 50th value long) and raw page access.
struct File {
    vt::TempDir dir;
    std::string path = dir.file("d.db");
    std::vector<std::string> keys;

    File() {
        bdb_handle *h = vt::create_open(path);
        for (int i = 0; i < 3000; ++i) {
            keys.push_back("key" + std::to_string(100000 + i * 7 % 3000));
            vt::put(h, keys.back(), i % 50 == 0 ? std::string(3000, 'L') : std::string(60, 'v'));
        }
        bdb_close(h);
    }
    // Changes page pg in place.
    void edit(uint32_t pg, const std::function<void(Page &)> &fn) {
        Page page;
        const int fd = open(path.c_str(), O_RDWR);
        EXPECT_EQ(pread(fd, page.b, 8192, static_cast<off_t>(pg) * 8192), 8192);
        fn(page);
        EXPECT_EQ(pwrite(fd, page.b, 8192, static_cast<off_t>(pg) * 8192), 8192);
        close(fd);
    }
    Page read(uint32_t pg) {
        Page page{};
        edit(pg, [&](Page &p) { page = p; });
        return page;
    }
    // Changes the slot of the first long value in the file.
    void edit_long(const std::function<void(bdb_slot &)> &fn) {
        for (uint32_t pg = 1;; ++pg)
            for (uint32_t i = 0; read(pg).p.pgno == pg && i < read(pg).p.nslots; ++i)
                if (read(pg).p.slots[i].flags & BDB_DPAGES) return edit(pg, [&](Page &p) { fn(p.p.slots[i]); });
    }
    uint32_t root() { return read(0).m.root; }
    // The leftmost leaf and its parent.
    std::pair<uint32_t, uint32_t> leftmost_leaf() {
        uint32_t parent = 0, pg = root();
        for (uint32_t next; (next = read(pg).p.leftpg) != 0; pg = next) parent = pg;
        return {pg, parent};
    }
};

using Damage = std::function<void(File &)>;
Damage leaf(const std::function<void(Page &)> &fn) { return [fn](File &f) { f.edit(f.leftmost_leaf().first, fn); }; }
Damage root(const std::function<void(Page &)> &fn) { return [fn](File &f) { f.edit(f.root(), fn); }; }
Damage meta(const std::function<void(Page &)> &fn) { return [fn](File &f) { f.edit(0, fn); }; }
Damage long_value(const std::function<void(bdb_slot &)> &fn) { return [fn](File &f) { f.edit_long(fn); }; }

TEST(Damaged, EachKindOfDamageIsReportedWithItsPage) {
    const std::pair<const char *, Damage> cases[] = {
        {"keys out of order", leaf([](Page &p) { std::swap(p.b[p.p.slots[0].keyoff + 8], p.b[p.p.slots[1].keyoff + 8]); })},
        {"separator", leaf([](Page &p) { std::memset(p.b + p.p.slots[p.p.nslots - 1].keyoff, 'z', 9); })},
        {"free in the map", [](File &f) { const uint32_t l = f.leftmost_leaf().first; f.edit(0, [&](Page &p) { bits_clrb(p.m.pgmap, l); }); }},
        {"not reachable", meta([](Page &p) { int32_t pg = 1; while (bits_tstb(p.m.pgmap, pg)) ++pg; bits_setb(p.m.pgmap, pg); })},
        {"reached twice", [](File &f) { auto [l, parent] = f.leftmost_leaf(); f.edit(parent, [&](Page &p) { p.p.slots[0].childpg = l; }); }},
        {"past the end", [](File &f) { f.edit(f.leftmost_leaf().second, [](Page &p) { p.p.slots[0].childpg = 60000; }); }},
        {"long value runs past the end", long_value([](bdb_slot &s) { s.dataref = 65000; })},
        {"overlap", leaf([](Page &p) { p.p.nslots = 5000; })},
        {"not packed", leaf([](Page &p) { p.p.slots[1].keyoff = 8190; })},  // an entry running past the page
        {"not packed", root([](Page &p) { std::swap(p.p.slots[0].keyoff, p.p.slots[1].keyoff); })},
        {"inline value", root([](Page &p) { p.p.slots[0].dataref += 1; })},
        {"datastart", root([](Page &p) { p.p.datastart -= 8; })},
        {"meta page not marked", meta([](Page &p) { bits_clrb(p.m.pgmap, 0); })},
        {"long value at page 0", long_value([](bdb_slot &s) { s.dataref = 0; })},
        {"past the end", long_value([](bdb_slot &s) { s.datalen = 0xfffffff0u; })},
        {"page", [](File &f) { const uint32_t r = f.root(); f.edit(f.leftmost_leaf().second, [&](Page &p) { p.p.leftpg = r; }); }},
    };
    for (const auto &[what, damage] : cases) {
        SCOPED_TRACE(what);
        File f;
        damage(f);
        vt::reports().clear();
        bdb_handle *h = vt::open_db(f.path, 0, BDB_RDONLY, vt::recording_handler);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(bdb_check(h), -1);
        EXPECT_TRUE(bdb_error(h) == BDB_E_DBTYPE || bdb_error(h) == BDB_E_READ) << bdbstrerr(bdb_error(h));
        EXPECT_EQ(vt::reports().size(), 1u);
        const std::string ctx = vt::last_context();
        EXPECT_TRUE(ctx.find("page ") != std::string::npos && ctx.find(what) != std::string::npos) << ctx;
        // The record calls neither crash nor loop on it (bdb_next never
        // returns a key that is not above the one given).
        for (auto &k : f.keys) vt::get(h, k, nullptr);
        EXPECT_LE(vt::walk(h).size(), f.keys.size());
        bdb_close(h);
    }
    File f;  // a sound file passes; a change needing a damaged page fails, other pages still serve
    bdb_handle *h = vt::open_db(f.path, 0, BDB_RDWR, vt::recording_handler);
    EXPECT_EQ(bdb_check(h), 0) << vt::last_context();
    bdb_close(h);
    f.edit(f.leftmost_leaf().first, [](Page &p) { p.p.nslots = 5000; });
    ASSERT_NE(h = vt::open_db(f.path), nullptr);
    EXPECT_EQ(vt::put(h, "\x01", "x") == -1 ? bdb_error(h) : 0u, BDB_E_DBTYPE);
    EXPECT_TRUE(vt::get(h, f.keys.back(), nullptr));
    bdb_close(h);
}

// Damage to the map or to a long value's reference never spreads: a
// read-write session that tries changes and closes loses no record that was
// readable, never grows the file because of the map, and after the first
// damage found refuses every change while reads go on.
TEST(Damaged, ReadWriteSessionsOnADamagedFileLoseNothingThatWasReadable) {
    const std::pair<const char *, Damage> cases[] = {
        {"a map word lost", meta([](Page &p) { p.m.pgmap[1] = 0; })},
        {"a map of zeros", meta([](Page &p) { std::memset(p.m.pgmap, 0, 8168); })},
        {"a map of ones", meta([](Page &p) { std::memset(p.m.pgmap, 0xff, 8168); })},
        {"ones but the last page", meta([](Page &p) { std::memset(p.m.pgmap, 0xff, 8168), bits_clrb(p.m.pgmap, 65343); })},
        {"page 0: the allocation map marks the meta page free", meta([](Page &p) { bits_clrb(p.m.pgmap, 0); })},
        {"a long value at page 0", long_value([](bdb_slot &s) { s.dataref = 0; })},
    };
    for (const auto &[what, damage] : cases) {
        SCOPED_TRACE(what);
        File f;
        const auto size = std::filesystem::file_size(f.path);
        damage(f);
        auto readable = [&f] {
            std::vector<std::string> out;
            bdb_handle *r = vt::open_db(f.path, 0, BDB_RDONLY);
            for (std::size_t i = 400; r && i < f.keys.size(); ++i)
                if (vt::get(r, f.keys[i], nullptr)) out.push_back(f.keys[i]);
            bdb_close(r);
            return out;
        };
        const std::vector<std::string> before = readable();
        vt::reports().clear();
        bdb_handle *h = vt::open_db(f.path, 0, BDB_RDWR, vt::recording_handler);
        ASSERT_NE(h, nullptr);
        // Changes that allocate, or free, or neither; each either works or is
        // refused with a code, and once damage is found nothing more goes in.
        bool refused = false;
        for (int i = 0; i < 400; ++i) {
            const std::string k = "new" + std::to_string(i);
            const int r = i % 3 == 0 ? vt::put(h, k, std::string(20000, 'B')) : i % 3 == 1 ? vt::put(h, k, std::string(500, 'n')) : vt::del(h, f.keys[i]);
            EXPECT_TRUE(r == 0 ? !refused : bdb_error(h) == BDB_E_DBTYPE || bdb_error(h) == BDB_E_FULL) << bdbstrerr(bdb_error(h));
            refused = refused || (r < 0 && bdb_error(h) == BDB_E_DBTYPE);
        }
        const bool names_page = std::string(what).starts_with("page 0");  // the report names the damaged page
        EXPECT_TRUE(!names_page || (!vt::reports().empty() && vt::reports()[0].context == what)) << vt::last_context();
        EXPECT_EQ(bdb_close(h), 0);
        EXPECT_GE(std::filesystem::file_size(f.path), size - 8192 * 64);
        EXPECT_LE(std::filesystem::file_size(f.path), size + 8192 * 2000) << "grown because of the map";
        EXPECT_EQ(readable(), before);
    }
}

}  // namespace
