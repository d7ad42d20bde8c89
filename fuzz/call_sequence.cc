// Fuzz target: the input is a program of record and object-store calls with
// hostile arguments (keys of 0 or more than 1024 bytes, null pointers, values
// around the long-value threshold, null handles, bad operation codes, second
// opens of an open file), run against a std::map that says what every call
// must answer. A private handle, or a thread group of two handles, works on a
// new database; closes and reopens, syncs and integrity checks come in
// between, and at the end the database must hold exactly the model.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include "fuzz_common.h"

namespace {

using Model = std::map<std::string, std::string>;

// Object-store records have keys from "\xff\xff" on, after every key the
// record calls use, and the model leaves them out.
bool object_key(const std::string &k) { return k.size() >= 2 && k[0] == '\xff' && k[1] == '\xff'; }

void drop_objects(fz::Records &r) {
    r.erase(std::remove_if(r.begin(), r.end(), [](const auto &kv) { return object_key(kv.first); }), r.end());
}

// Reads the program; past its end every read gives 0.
struct Program {
    const uint8_t *p;
    size_t n;
    uint8_t u8() { return n ? (--n, *p++) : 0; }
    uint32_t u16() { return u8() | static_cast<uint32_t>(u8()) << 8; }
};

std::string key_of(Program &in) {
    static const char *prefixes[] = {"", "a", "ab", "user/", "\x01", "\xff", "zz", "k"};
    const uint8_t sel = in.u8();
    if (sel == 0xff) return std::string();                              // empty: refused
    if (sel == 0xfe) return std::string(1025 + in.u8() % 80, 'x');      // too long: refused
    if (sel == 0xfd) return std::string(BDB_MAXKEY, static_cast<char>('a' + in.u8() % 4));
    std::string k = prefixes[sel & 7];
    for (int i = (sel >> 3) & 7; i >= 0; --i) k.push_back(static_cast<char>('a' + in.u8() % 5));
    return k;
}

std::string value_of(Program &in) {
    static const uint32_t sizes[] = {0, 1, 7, 100, 2046, 2047, 2048, 2049, 8191, 8192, 8193, 20000};
    const uint8_t sel = in.u8();
    const uint32_t n = sel < 192 ? sel % 64 : sizes[sel % 12] + (sel & 1 ? in.u8() : 0);
    return std::string(n, static_cast<char>('A' + in.u8() % 26));
}

bool valid(const std::string &k) { return !k.empty() && k.size() <= BDB_MAXKEY; }

struct Session {
    std::string path;
    bool group = false;
    bdb_handle *h = nullptr, *h2 = nullptr;  // h2: a second thread handle of the group

    void open() {
        h = fz::open(path, BDB_RDWR, group ? 0 : 32768, group ? 1 : 0);
        FZ_CHECK(h);
        if (group) FZ_CHECK(h2 = fz::open(path, BDB_RDWR, 0, 1));
    }
    void close() {
        if (h2) FZ_CHECK(bdb_close(h2) == 0);
        FZ_CHECK(bdb_close(h) == 0);
        h = h2 = nullptr;
    }
    bdb_handle *any(Program &in) { return h2 && (in.u8() & 1) ? h2 : h; }
};

// The record calls, checked against the model.
void record_call(Session &s, Program &in, Model &m, uint8_t op) {
    bdb_handle *h = s.any(in);
    const std::string k = key_of(in), v = value_of(in);
    bdb_datum kd{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size())};
    bdb_datum vd{const_cast<char *>(v.data()), static_cast<uint32_t>(v.size())};
    const auto it = m.find(k);
    const bool present = it != m.end();
    switch (op) {
    case 0: {
        const int r = bdb_put(h, &kd, &vd);
        FZ_CHECK(r == 0 ? valid(k) && !present : bdb_error(h) == (valid(k) ? BDB_E_DUPLICATE : BDB_E_KEYSIZE));
        if (r == 0) m[k] = v;
        break;
    }
    case 1: {
        bdb_seterror(h, 0);
        const int r = bdb_replace(h, &kd, &vd);
        FZ_CHECK(r == 0 ? valid(k) && (bdb_error(h) == BDB_E_INSERTED) == !present : bdb_error(h) == BDB_E_KEYSIZE && !valid(k));
        if (r == 0) m[k] = v;
        break;
    }
    case 2: {
        const int r = bdb_update(h, &kd, &vd);
        FZ_CHECK(r == 0 ? present : bdb_error(h) == (valid(k) ? BDB_E_NOTFOUND : BDB_E_KEYSIZE));
        if (r == 0) m[k] = v;
        break;
    }
    case 3: {
        const int r = bdb_delete(h, &kd);
        FZ_CHECK(r == 0 ? present : !present && (bdb_error(h) == BDB_E_NOTFOUND || bdb_error(h) == BDB_E_KEYSIZE));
        if (r == 0) m.erase(k);
        break;
    }
    case 4: {
        bdb_datum out{nullptr, 0};
        const int r = bdb_remove(h, &kd, &out);
        if (r == 0) {
            FZ_CHECK(present && std::string(out.ptr ? static_cast<char *>(out.ptr) : "", out.len) == it->second);
            m.erase(k);
        } else {
            FZ_CHECK(!present && out.ptr == nullptr);
        }
        std::free(out.ptr);
        break;
    }
    case 5: {
        bdb_datum out{nullptr, 0};
        const int r = bdb_get(h, &kd, &out);
        FZ_CHECK(r == 0 ? present && std::string(out.ptr ? static_cast<char *>(out.ptr) : "", out.len) == it->second
                        : !present && bdb_error(h) == BDB_E_NOTFOUND);
        std::free(out.ptr);
        break;
    }
    default: {  // first, or next after a key (present or not)
        char kbuf[BDB_MAXKEY + 1];
        std::memcpy(kbuf, k.data(), std::min<size_t>(k.size(), BDB_MAXKEY));
        bdb_datum cur{kbuf, static_cast<uint32_t>(std::min<size_t>(k.size(), BDB_MAXKEY))}, out{nullptr, 0};
        const bool from_start = k.empty();
        const int r = from_start ? bdb_first(h, &cur, &out) : bdb_next(h, &cur, &out);
        const auto want = from_start ? m.begin() : (present ? std::next(it) : m.end());
        if (r == 0 && object_key(std::string(kbuf, cur.len))) {
            FZ_CHECK(want == m.end());
        } else if (r == 0) {
            FZ_CHECK(want != m.end() && std::string(kbuf, cur.len) == want->first);
            FZ_CHECK(std::string(out.ptr ? static_cast<char *>(out.ptr) : "", out.len) == want->second);
        } else {
            FZ_CHECK(want == m.end());
            FZ_CHECK(bdb_error(h) == (from_start ? BDB_E_EMPTY : present ? BDB_E_EOF : BDB_E_NOTFOUND));
        }
        std::free(out.ptr);
        break;
    }
    }
}

// Calls with arguments no caller should pass: each is refused with its code
// and changes nothing.
void hostile_call(Session &s, Program &in) {
    bdb_handle *h = s.any(in);
    char kb[BDB_MAXKEY + 1] = "k";
    bdb_datum good{kb, 1}, nullkey{nullptr, 5}, out{nullptr, 0};
    uint32_t err = 0;
    switch (in.u8() % 12) {
    case 0:
        FZ_CHECK(bdb_put(nullptr, &good, &good) == -1 && errno == EINVAL);
        break;
    case 1:
        FZ_CHECK(bdb_put(h, &nullkey, &good) == -1 && bdb_error(h) == BDB_E_PARAM);
        FZ_CHECK(bdb_put(h, &good, &nullkey) == -1 && bdb_error(h) == BDB_E_PARAM);
        FZ_CHECK(bdb_get(h, nullptr, &out) == -1 && bdb_error(h) == BDB_E_PARAM);
        FZ_CHECK(bdb_first(h, &nullkey, &out) == -1 && bdb_error(h) == BDB_E_PARAM);
        break;
    case 2: {
        const int op = static_cast<int8_t>(in.u8());
        FZ_CHECK(bdb_transaction(h, op) == ((op >= 1 && op <= 3) ? 0 : -1));
        break;
    }
    case 3:  // a second open of an open file: refused (or, for a group, joined)
        if (!s.group) FZ_CHECK(fz::open(s.path, in.u8() & 1 ? BDB_RDWR : BDB_RDONLY) == nullptr);
        break;
    case 4:
        FZ_CHECK(bdb_open(s.path.c_str(), 0, in.u8(), BDB_PRIVATE, nullptr, 0, &err) == nullptr);
        FZ_CHECK(bdb_open(s.path.c_str(), 0, BDB_RDWR, 3 + in.u8() % 5, nullptr, 0, &err) == nullptr && err == BDB_E_PARAM);
        FZ_CHECK(bdb_open(nullptr, 0, BDB_RDWR, BDB_PRIVATE, nullptr, 0, &err) == nullptr && err == BDB_E_PARAM);
        break;
    case 5:
        FZ_CHECK(bdb_create(s.path.c_str(), BDB_PRIVATE, &err) == -1 && err == BDB_E_EXISTS);
        break;
    case 6:
        FZ_CHECK(std::strlen(bdbstrerr(static_cast<uint32_t>(in.u16()) << 12 | in.u8())) > 0);
        break;
    case 7: {  // object store: ids, prefixes and names that may be null or empty
        static const char *ids[] = {"\xff\xff" "car", "\xff\xff" "car#x", "\xff\xff", nullptr};
        static const char *parts[] = {"", "door.", "left", nullptr};
        const char *id = ids[in.u8() % 4], *pre = parts[in.u8() % 4], *name = parts[in.u8() % 4];
        void *got = nullptr;
        char **list = nullptr;
        uint32_t count = 0;
        switch (in.u8() % 7) {
        case 0: bt_mkobj(h, id, "obj", 3); break;
        case 1: bt_additem(h, id, pre, name, "item", 4); break;
        case 2: bt_replace_item(h, id, pre, name, "new", 3); break;
        case 3: bt_rmitem(h, id, pre, name); break;
        case 4: if (bt_getitem(h, id, pre, name, &got) >= 0) std::free(got); break;
        case 5: bt_rmobj(h, id); break;
        default:
            if (bt_getitem_list(h, id, pre, &list, &count) >= 0 && list) {
                for (uint32_t i = 0; i < count; ++i) std::free(list[i]);
                std::free(list);
            }
        }
        break;
    }
    case 8:
        FZ_CHECK(bdb_check(h) == 0);
        break;
    default:
        FZ_CHECK(bdb_sync(h) == 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    Program in{data, size};
    Session s;
    s.path = fz::db_path();
    s.group = in.u8() & 1;
    fz::remove_db(s.path);
    FZ_CHECK(bdb_create(s.path.c_str(), BDB_PRIVATE, nullptr) == 0);
    s.open();
    Model m;
    while (in.n) {
        const uint8_t op = in.u8();
        if (op < 200) {
            record_call(s, in, m, op % 7);
        } else if (op < 240) {
            hostile_call(s, in);
        } else if (op < 250) {
            s.close();
            s.open();
        } else {
            // A read-only handle refuses changes and reads the same records.
            s.close();
            bdb_handle *r = fz::open(s.path, BDB_RDONLY);
            FZ_CHECK(r);
            bdb_datum k{const_cast<char *>("k"), 1};
            FZ_CHECK(bdb_put(r, &k, &k) == -1 && bdb_error(r) == BDB_E_RDONLY);
            fz::Records got = fz::walk(r, 1u << 20);
            drop_objects(got);
            FZ_CHECK(got == fz::Records(m.begin(), m.end()));
            FZ_CHECK(bdb_close(r) == 0);
            s.open();
        }
    }
    FZ_CHECK(bdb_check(s.h) == 0);
    fz::Records got = fz::walk(s.h, 1u << 20);
    drop_objects(got);
    FZ_CHECK(got == fz::Records(m.begin(), m.end()));
    s.close();
    fz::remove_db(s.path);
    return 0;
}
