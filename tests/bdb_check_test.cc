// Damaged files: the integrity check reports the first problem with the page
// where it was found, and the record calls refuse damaged pages with an error
// instead of crashing or looping.
#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "test_util.h"

namespace {

struct Page {
    alignas(8) uint8_t b[8192];
    bdb_page *p() { return reinterpret_cast<bdb_page *>(b); }
    bdb_meta *m() { return reinterpret_cast<bdb_meta *>(b); }
};

class Damaged : public ::testing::Test {
protected:
    vt::TempDir dir;
    std::string path = dir.file("d.db");
    std::vector<std::string> keys;

    void SetUp() override {
        bdb_handle *h = vt::create_open(path);
        ASSERT_NE(h, nullptr);
        for (int i = 0; i < 3000; ++i) {
            char k[16];
            std::snprintf(k, sizeof k, "key%06d", i * 7 % 3000);
            keys.push_back(k);
            ASSERT_EQ(vt::put(h, k, i % 50 == 0 ? std::string(3000, 'L') : std::string(60, 'v')), 0);
        }
        ASSERT_EQ(bdb_close(h), 0);
    }

    Page read(uint32_t pg) {
        Page pg_;
        int fd = open(path.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, pg_.b, 8192, static_cast<off_t>(pg) * 8192), 8192);
        close(fd);
        return pg_;
    }
    void write(uint32_t pg, Page &page) {
        int fd = open(path.c_str(), O_WRONLY);
        EXPECT_EQ(pwrite(fd, page.b, 8192, static_cast<off_t>(pg) * 8192), 8192);
        close(fd);
    }
    uint32_t root() { return read(0).m()->root; }
    // The leftmost leaf and its parent.
    std::pair<uint32_t, uint32_t> leftmost_leaf() {
        uint32_t parent = 0, pg = root();
        for (;;) {
            Page p = read(pg);
            if (p.p()->leftpg == 0) return {pg, parent};
            parent = pg;
            pg = p.p()->leftpg;
        }
    }

    // Opens the damaged file: the check must fail with a context naming a
    // page and containing `what`.
    void expect_check_reports(const std::string &what) {
        vt::reports().clear();
        bdb_handle *h = vt::open_db(path, 0, BDB_RDONLY, vt::recording_handler);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(bdb_check(h), -1);
        EXPECT_TRUE(bdb_error(h) == BDB_E_DBTYPE || bdb_error(h) == BDB_E_READ) << bdbstrerr(bdb_error(h));
        EXPECT_EQ(vt::reports().size(), 1u);
        const std::string ctx = vt::reports().empty() ? "" : vt::reports()[0].context;
        EXPECT_NE(ctx.find("page "), std::string::npos) << ctx;
        EXPECT_NE(ctx.find(what), std::string::npos) << ctx;
        // The record calls neither crash nor loop on it.
        for (auto &k : keys) vt::get(h, k, nullptr);
        vt::walk(h);
        bdb_close(h);
    }
};

TEST_F(Damaged, IntactFilePasses) {
    bdb_handle *h = vt::open_db(path, 0, BDB_RDONLY);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bdb_check(h), 0);
    bdb_close(h);
}

TEST_F(Damaged, KeysOutOfOrder) {
    auto [leaf, parent] = leftmost_leaf();
    Page p = read(leaf);
    bdb_slot &a = p.p()->slots[0], &b = p.p()->slots[1];
    ASSERT_EQ(a.keylen, b.keylen);
    std::vector<uint8_t> tmp(p.b + a.keyoff, p.b + a.keyoff + a.keylen);
    std::memcpy(p.b + a.keyoff, p.b + b.keyoff, a.keylen);
    std::memcpy(p.b + b.keyoff, tmp.data(), a.keylen);
    write(leaf, p);
    expect_check_reports("keys out of order");
}

TEST_F(Damaged, KeyOutsideItsParentsRange) {
    auto [leaf, parent] = leftmost_leaf();
    Page p = read(leaf);
    bdb_slot &last = p.p()->slots[p.p()->nslots - 1];
    std::memset(p.b + last.keyoff, 'z', last.keylen);  // above the separator to its right
    write(leaf, p);
    expect_check_reports("separator");
}

TEST_F(Damaged, MapDisagreesWithTheTree) {
    auto [leaf, parent] = leftmost_leaf();
    Page meta = read(0);
    bits_clrb(meta.m()->pgmap, static_cast<int32_t>(leaf));
    write(0, meta);
    expect_check_reports("free in the map");
}

TEST_F(Damaged, PageInUseButUnreachable) {
    Page meta = read(0);
    // The first page the tree does not use is marked in use.
    uint32_t pg = 1;
    while (bits_tstb(meta.m()->pgmap, static_cast<int32_t>(pg))) ++pg;
    bits_setb(meta.m()->pgmap, static_cast<int32_t>(pg));
    write(0, meta);
    expect_check_reports("not reachable");
}

TEST_F(Damaged, ChildLinksReachingAPageTwiceOrPastTheEnd) {
    auto [leaf, parent] = leftmost_leaf();
    ASSERT_NE(parent, 0u);
    Page p = read(parent);
    const uint32_t saved = p.p()->slots[0].childpg;
    p.p()->slots[0].childpg = leaf;  // same page as leftpg
    write(parent, p);
    expect_check_reports("reached twice");
    p.p()->slots[0].childpg = 60000;  // past the end of the file
    write(parent, p);
    expect_check_reports("past the end");
    p.p()->slots[0].childpg = saved;
    write(parent, p);
}

TEST_F(Damaged, LongValueRunPastTheEnd) {
    // Find a leaf slot holding a long value and point it past the end.
    for (uint32_t pg = 1;; ++pg) {
        Page p = read(pg);
        if (p.p()->pgno != pg) continue;
        for (uint32_t i = 0; i < p.p()->nslots; ++i) {
            if (p.p()->slots[i].flags & BDB_DPAGES) {
                p.p()->slots[i].dataref = 65000;
                write(pg, p);
                expect_check_reports("past the end of the file");
                return;
            }
        }
    }
}

TEST_F(Damaged, BrokenHeadersAndCyclesGiveErrorsNotCrashes) {
    auto [leaf, parent] = leftmost_leaf();
    {
        Page p = read(leaf);
        p.p()->nslots = 5000;
        write(leaf, p);
        expect_check_reports("damaged tree page");
        bdb_handle *h = vt::open_db(path, 0, BDB_RDWR);
        ASSERT_NE(h, nullptr);
        char kbuf[1024];
        bdb_datum kd{kbuf, 0}, vd{};
        EXPECT_EQ(bdb_first(h, &kd, &vd), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_DBTYPE);
        // a change that needs the page fails and changes nothing else
        EXPECT_EQ(vt::put(h, keys.empty() ? "a" : "\x01", "x"), -1);
        EXPECT_EQ(bdb_error(h), BDB_E_DBTYPE);
        bdb_close(h);
    }
    {
        Page p = read(leaf);
        p.p()->nslots = 3;
        p.p()->slots[1].keyoff = 8190;  // runs past the page
        write(leaf, p);
        expect_check_reports("damaged tree page");
    }
    {
        // A child pointing back at the root: a cycle.
        Page p = read(parent);
        p.p()->leftpg = root();
        write(parent, p);
        expect_check_reports("page");
    }
}

}  // namespace
