// Fuzz target: the input is a database file, sound or damaged. It is opened
// read-only (check, walk, gets), then read-write with a small cache (walk, a
// few changes that place, replace and free short and long values and split
// pages, sync, close), then read-only again (check, walk).
//
// Every call must end with a result, never a crash, a hang or a sanitizer
// report. A file that passes bdb_check at first must pass it at the end and
// hold exactly what the changes made of it.
#include <map>
#include <string>

#include "fuzz_common.h"

namespace {

int put(bdb_handle *h, int (*fn)(bdb_handle *, bdb_datum *, bdb_datum *), const std::string &k, const std::string &v) {
    bdb_datum kd{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size())};
    bdb_datum vd{const_cast<char *>(v.data()), static_cast<uint32_t>(v.size())};
    return fn(h, &kd, &vd);
}

int del(bdb_handle *h, const std::string &k) {
    bdb_datum kd{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size())};
    return bdb_delete(h, &kd);
}

bool get(bdb_handle *h, const std::string &k, std::string *out) {
    bdb_datum kd{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size())}, vd{nullptr, 0};
    if (bdb_get(h, &kd, &vd) < 0) return false;
    if (out) *out = vd.ptr ? std::string(static_cast<char *>(vd.ptr), vd.len) : std::string();
    std::free(vd.ptr);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;  // 128 pages are plenty
    const std::string &path = fz::db_path();
    // Whole pages, except for inputs shorter than a page (refused at open).
    fz::write_file(path, data, size < BDB_PGSIZE ? size : size / BDB_PGSIZE * BDB_PGSIZE);

    bool sound = false, complete = false;
    std::map<std::string, std::string> model;
    if (bdb_handle *h = fz::open(path, BDB_RDONLY)) {
        sound = bdb_check(h) == 0;
        fz::Records recs = fz::walk(h, 1u << 20, &complete);
        for (size_t i = 0; i < recs.size(); i += 7) {
            std::string v;
            const bool found = get(h, recs[i].first, &v);
            if (sound) FZ_CHECK(found && v == recs[i].second);
        }
        model.insert(recs.begin(), recs.end());
        fz::close(h);
    }
    if (sound) FZ_CHECK(complete);

    if (bdb_handle *h = fz::open(path, BDB_RDWR, 32768)) {
        // Each change must work on a sound file; on a damaged one it may be
        // refused, and the model no longer says anything.
        auto expect = [&](int rc) {
            if (sound) FZ_CHECK(rc == 0);
        };
        std::vector<std::string> keys;
        for (auto &kv : model) {
            if (keys.size() == 3) break;
            keys.push_back(kv.first);
        }
        const std::string shortv(40, 's'), longv(5000, 'L'), longer(20000, 'M');
        expect(put(h, bdb_replace, "\x7f" "fz-short", shortv));
        model["\x7f" "fz-short"] = shortv;
        expect(put(h, bdb_replace, "\x7f" "fz-long", longer));
        model["\x7f" "fz-long"] = longer;
        if (keys.size() > 0) {
            expect(put(h, bdb_replace, keys[0], longv));
            model[keys[0]] = longv;
        }
        if (keys.size() > 1) {
            expect(del(h, keys[1]));
            model.erase(keys[1]);
        }
        if (keys.size() > 2) {
            expect(put(h, bdb_update, keys[2], shortv));
            model[keys[2]] = shortv;
        }
        // Enough entries to split pages, then most of them gone again.
        for (int i = 0; i < 60; ++i) {
            const std::string k = "\x7f" "fz-" + std::to_string(i * 37 % 60), v(i % 5 == 0 ? 2100 : 150, 'a' + i % 26);
            expect(put(h, bdb_replace, k, v));
            model[k] = v;
        }
        for (int i = 0; i < 60; i += 2) {
            const std::string k = "\x7f" "fz-" + std::to_string(i);
            expect(del(h, k));
            model.erase(k);
        }
        expect(put(h, bdb_update, "\x7f" "fz-long", shortv));
        model["\x7f" "fz-long"] = shortv;
        fz::walk(h, 1u << 20);
        expect(bdb_sync(h));
        if (sound) {
            FZ_CHECK(bdb_close(h) == 0);
        } else {
            fz::close(h);
        }
    }

    if (bdb_handle *h = fz::open(path, BDB_RDONLY)) {
        const int checked = bdb_check(h);
        fz::Records after = fz::walk(h, 1u << 20);
        if (sound) {
            FZ_CHECK(checked == 0);
            FZ_CHECK(after == fz::Records(model.begin(), model.end()));
        }
        fz::close(h);
    } else {
        FZ_CHECK(!sound);
    }
    fz::remove_db(path);
    return 0;
}
