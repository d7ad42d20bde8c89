// Damaged files: the integrity check reports the first problem with the page
// where it was found, and the record calls refuse damaged pages with an error
// instead of crashing or looping.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "test_util.h"

namespace {

struct Page {
    alignas(8) uint8_t b[8192];
    bdb_page *p() { return reinterpret_cast<bdb_page *>(b); }
    bdb_meta *m() { return reinterpret_cast<bdb_meta *>(b); }
};

// A database of 3000 records (every 50th value long) and raw page access.
struct File {
    vt::TempDir dir;
    std::string path = dir.file("d.db");
    std::vector<std::string> keys;

    File() {
        bdb_handle *h = vt::create_open(path);
        for (int i = 0; i < 3000; ++i) {
            char k[16];
            std::snprintf(k, sizeof k, "key%06d", i * 7 % 3000);
            keys.push_back(k);
            vt::put(h, k, i % 50 == 0 ? std::string(3000, 'L') : std::string(60, 'v'));
        }
        bdb_close(h);
    }
    Page read(uint32_t pg) {
        Page page;
        int fd = open(path.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, page.b, 8192, static_cast<off_t>(pg) * 8192), 8192);
        close(fd);
        return page;
    }
    void write(uint32_t pg, Page &page) {
        int fd = open(path.c_str(), O_WRONLY);
        EXPECT_EQ(pwrite(fd, page.b, 8192, static_cast<off_t>(pg) * 8192), 8192);
        close(fd);
    }
    // Changes one page in place.
    void edit(uint32_t pg, const std::function<void(Page &)> &fn) {
        Page page = read(pg);
        fn(page);
        write(pg, page);
    }
    // Changes the slot of the first long value in the file.
    void edit_long(const std::function<void(bdb_slot &)> &fn) {
        for (uint32_t pg = 1;; ++pg) {
            Page p = read(pg);
            for (uint32_t i = 0; p.p()->pgno == pg && i < p.p()->nslots; ++i) {
                if (p.p()->slots[i].flags & BDB_DPAGES) {
                    fn(p.p()->slots[i]);
                    return write(pg, p);
                }
            }
        }
    }
    uint32_t root() { return read(0).m()->root; }
    // The leftmost leaf and its parent.
    std::pair<uint32_t, uint32_t> leftmost_leaf() {
        uint32_t parent = 0, pg = root();
        for (uint32_t next; (next = read(pg).p()->leftpg) != 0; pg = next) parent = pg;
        return {pg, parent};
    }
};

TEST(Damaged, EachKindOfDamageIsReportedWithItsPage) {
    struct Case {
        const char *what;  // expected in the report
        std::function<void(File &)> damage;
    };
    const Case cases[] = {
        {"keys out of order",
         [](File &f) {
             f.edit(f.leftmost_leaf().first, [](Page &p) {
                 bdb_slot &a = p.p()->slots[0], &b = p.p()->slots[1];
                 std::vector<uint8_t> tmp(p.b + a.keyoff, p.b + a.keyoff + a.keylen);
                 std::memcpy(p.b + a.keyoff, p.b + b.keyoff, a.keylen);
                 std::memcpy(p.b + b.keyoff, tmp.data(), a.keylen);
             });
         }},
        {"separator",  // a key above the separator to its right
         [](File &f) {
             f.edit(f.leftmost_leaf().first, [](Page &p) {
                 bdb_slot &last = p.p()->slots[p.p()->nslots - 1];
                 std::memset(p.b + last.keyoff, 'z', last.keylen);
             });
         }},
        {"free in the map",
         [](File &f) {
             uint32_t leaf = f.leftmost_leaf().first;
             f.edit(0, [&](Page &p) { bits_clrb(p.m()->pgmap, static_cast<int32_t>(leaf)); });
         }},
        {"not reachable",
         [](File &f) {
             f.edit(0, [](Page &p) {
                 int32_t pg = 1;
                 while (bits_tstb(p.m()->pgmap, pg)) ++pg;
                 bits_setb(p.m()->pgmap, pg);
             });
         }},
        {"reached twice",
         [](File &f) {
             auto [leaf, parent] = f.leftmost_leaf();
             f.edit(parent, [&](Page &p) { p.p()->slots[0].childpg = leaf; });
         }},
        {"past the end",
         [](File &f) { f.edit(f.leftmost_leaf().second, [](Page &p) { p.p()->slots[0].childpg = 60000; }); }},
        {"long value runs past the end", [](File &f) { f.edit_long([](bdb_slot &s) { s.dataref = 65000; }); }},
        {"overlap", [](File &f) { f.edit(f.leftmost_leaf().first, [](Page &p) { p.p()->nslots = 5000; }); }},
        {"not packed",  // an entry running past the page
         [](File &f) { f.edit(f.leftmost_leaf().first, [](Page &p) { p.p()->slots[1].keyoff = 8190; }); }},
        {"not packed",  // entries in bounds but not in slot order
         [](File &f) { f.edit(f.root(), [](Page &p) { std::swap(p.p()->slots[0].keyoff, p.p()->slots[1].keyoff); }); }},
        {"inline value", [](File &f) { f.edit(f.root(), [](Page &p) { p.p()->slots[0].dataref += 1; }); }},
        {"datastart", [](File &f) { f.edit(f.root(), [](Page &p) { p.p()->datastart -= 8; }); }},
        {"meta page not marked", [](File &f) { f.edit(0, [](Page &p) { bits_clrb(p.m()->pgmap, 0); }); }},
        {"long value at page 0", [](File &f) { f.edit_long([](bdb_slot &s) { s.dataref = 0; }); }},
        {"past the end", [](File &f) { f.edit_long([](bdb_slot &s) { s.datalen = 0xfffffff0u; }); }},
        {"page",  // a child pointing back at the root: a cycle
         [](File &f) {
             const uint32_t root = f.root();
             f.edit(f.leftmost_leaf().second, [&](Page &p) { p.p()->leftpg = root; });
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        File f;
        {
            bdb_handle *h = vt::open_db(f.path, 0, BDB_RDONLY);
            ASSERT_EQ(bdb_check(h), 0);
            bdb_close(h);
        }
        c.damage(f);
        vt::reports().clear();
        bdb_handle *h = vt::open_db(f.path, 0, BDB_RDONLY, vt::recording_handler);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(bdb_check(h), -1);
        EXPECT_TRUE(bdb_error(h) == BDB_E_DBTYPE || bdb_error(h) == BDB_E_READ) << bdbstrerr(bdb_error(h));
        EXPECT_EQ(vt::reports().size(), 1u);
        const std::string ctx = vt::last_context();
        EXPECT_NE(ctx.find("page "), std::string::npos) << ctx;
        EXPECT_NE(ctx.find(c.what), std::string::npos) << ctx;
        // The record calls neither crash nor loop on it (bdb_next never
        // returns a key that is not above the one given).
        for (auto &k : f.keys) vt::get(h, k, nullptr);
        EXPECT_LE(vt::walk(h).size(), f.keys.size());
        bdb_close(h);
    }
}

TEST(Damaged, ChangesNeedingADamagedPageFailWithoutSpreadingIt) {
    File f;
    f.edit(f.leftmost_leaf().first, [](Page &p) { p.p()->nslots = 5000; });
    bdb_handle *h = vt::open_db(f.path);
    ASSERT_NE(h, nullptr);
    char kbuf[1024];
    bdb_datum kd{kbuf, 0}, vd{};
    EXPECT_EQ(bdb_first(h, &kd, &vd), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DBTYPE);
    EXPECT_EQ(vt::put(h, "\x01", "x"), -1);
    EXPECT_EQ(bdb_error(h), BDB_E_DBTYPE);
    EXPECT_TRUE(vt::get(h, f.keys.back(), nullptr));  // other pages still serve
    bdb_close(h);
}

// Damage to the map or to a long value's reference never spreads: a
// read-write session that tries changes and closes loses no record that was
// readable, never grows the file because of the map, and after the first
// damage found refuses every change while reads go on.
TEST(Damaged, ReadWriteSessionsOnADamagedFileLoseNothingThatWasReadable) {
    struct Case {
        const char *what;
        std::function<void(File &)> damage;
    };
    const Case cases[] = {
        {"a map word lost", [](File &f) { f.edit(0, [](Page &p) { p.m()->pgmap[1] = 0; }); }},
        {"a map of zeros", [](File &f) { f.edit(0, [](Page &p) { std::memset(p.m()->pgmap, 0, 8168); }); }},
        {"a map of ones", [](File &f) { f.edit(0, [](Page &p) { std::memset(p.m()->pgmap, 0xff, 8168); }); }},
        {"ones but the last page",
         [](File &f) { f.edit(0, [](Page &p) { std::memset(p.m()->pgmap, 0xff, 8168), bits_clrb(p.m()->pgmap, 65343); }); }},
        {"the meta page free", [](File &f) { f.edit(0, [](Page &p) { bits_clrb(p.m()->pgmap, 0); }); }},
        {"a long value at page 0", [](File &f) { f.edit_long([](bdb_slot &s) { s.dataref = 0; }); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        File f;
        const auto size = std::filesystem::file_size(f.path);
        c.damage(f);
        auto readable = [&f] {
            std::vector<std::string> out;
            bdb_handle *r = vt::open_db(f.path, 0, BDB_RDONLY);
            for (std::size_t i = 400; r && i < f.keys.size(); ++i)
                if (vt::get(r, f.keys[i], nullptr)) out.push_back(f.keys[i]);
            bdb_close(r);
            return out;
        };
        const std::vector<std::string> before = readable();
        bdb_handle *h = vt::open_db(f.path);
        ASSERT_NE(h, nullptr);
        // Changes that allocate, or free, or neither; each either works or is
        // refused with a code, and once damage is found nothing more goes in.
        const std::string big(20000, 'B');
        bool refused = false;
        for (int i = 0; i < 400; ++i) {
            const std::string k = "new" + std::to_string(i);
            int r = i % 3 == 0 ? vt::put(h, k, big) : i % 3 == 1 ? vt::put(h, k, std::string(500, 'n')) : vt::del(h, f.keys[i]);
            if (r < 0) {
                EXPECT_TRUE(bdb_error(h) == BDB_E_DBTYPE || bdb_error(h) == BDB_E_FULL) << bdbstrerr(bdb_error(h));
                refused = refused || bdb_error(h) == BDB_E_DBTYPE;
            } else {
                EXPECT_FALSE(refused) << "a change after damage was found";
            }
        }
        EXPECT_EQ(bdb_close(h), 0);
        EXPECT_GE(std::filesystem::file_size(f.path), size - 8192 * 64);
        EXPECT_LE(std::filesystem::file_size(f.path), size + 8192 * 2000) << "grown because of the map";
        EXPECT_EQ(readable(), before);
    }
}

}  // namespace
