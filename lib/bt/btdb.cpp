// The object store: named objects with named items, kept as records under
// composed keys.
//
//   header key  id part, NUL                              ("car\0")
//   item key    id part, NUL, prefix part, name part, NUL  ("car\0door.left\0")
//
// The id part is the id up to its first '#'. Under the default comparison an
// object's header sorts first and its items follow as one contiguous range.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bdb_int.h"

using namespace varlo;

namespace varlo {

uint32_t objid_size(const char *id) {
    const char *hash = std::strchr(id, '#');
    return static_cast<uint32_t>(hash ? hash - id + 1 : std::strlen(id) + 1);
}

uint32_t bt_glue(uint8_t *out, const char *id, const char *prefix, const char *name) {
    const uint32_t n = objid_size(id);
    std::memcpy(out, id, n);
    if (out[n - 1] == '#') out[n - 1] = 0;
    const size_t pl = prefix ? std::strlen(prefix) : 0, nl = name ? std::strlen(name) : 0;
    if (pl == 0 && nl == 0) return n;
    if (pl) std::memcpy(out + n, prefix, pl);
    if (nl) std::memcpy(out + n + pl, name, nl);
    out[n + pl + nl] = 0;
    return static_cast<uint32_t>(n + pl + nl + 1);
}

int arrcat(uint32_t count, char **list, int unused, const char **str, char ***newlist, uint32_t *newcount) {
    (void)unused;
    char **arr = list;
    const bool fresh = count % 15 == 0;
    auto give_up = [&]() {
        for (uint32_t i = 0; i < count; ++i) std::free(list[i]);
        if (fresh) std::free(arr);
        *newlist = nullptr;
        errno = ENOMEM;
        return 0;
    };
    if (fresh) {
        arr = static_cast<char **>(std::malloc((count + 16) * sizeof(char *)));
        if (!arr) return give_up();
        if (count > 0) std::memcpy(arr, list, (count + 1) * sizeof(char *));
    }
    char *s = static_cast<char *>(std::malloc(std::strlen(*str) + 1));
    if (!s) return give_up();
    std::strcpy(s, *str);
    arr[count] = s;
    arr[count + 1] = nullptr;
    *newlist = arr;
    if (newcount) *newcount = count + 1;
    return 1;
}

}  // namespace varlo

namespace {

// A composed key. Composition refuses keys longer than the record layer's
// limit before any record is touched.
struct Key {
    uint8_t buf[BDB_MAXKEY];
    uint32_t len = 0;
    bdb_datum datum() { return bdb_datum{buf, len}; }
};

bool compose(bdb_handle *h, Key &k, const char *id, const char *prefix, const char *name) {
    const size_t pl = prefix ? std::strlen(prefix) : 0, nl = name ? std::strlen(name) : 0;
    const size_t total = objid_size(id) + (pl + nl ? pl + nl + 1 : 0);
    if (total > BDB_MAXKEY) {
        h->error = BDB_E_KEYSIZE;
        return false;
    }
    k.len = bt_glue(k.buf, id, prefix, name);
    return true;
}

// Runs body inside the handle's database mutex, with the null-id check that
// every object call makes after taking it.
template <typename Body>
int with_mutex(bdb_handle *h, const char *id, Body body) {
    if (!h) {
        errno = EINVAL;
        return -1;
    }
    return under_mutex(h, [&] {
        if (id) return body();
        h->error = BDB_E_PARAM;
        return -1;
    });
}

// Does the record exist? (Reads it and drops the value.)
bool exists(bdb_handle *h, Key &k) {
    bdb_datum kd = k.datum(), dd{};
    if (bdb_get(h, &kd, &dd) < 0) return false;
    std::free(dd.ptr);
    return true;
}

inline bool starts_with(const bdb_datum &k, const uint8_t *p, uint32_t n) {
    return k.len >= n && std::memcmp(k.ptr, p, n) == 0;
}

}  // namespace

extern "C" {

bdb_handle *bt_initdb(const char *name, int reserved, uint32_t cache_size, int mode, uint32_t thread, uint32_t *err) {
    const char *path = name ? name : "odb";
    // The name buffer holds 4095 characters: a longer name is refused before
    // anything is created.
    if (std::strlen(path) >= 4096) {
        if (err) *err = BDB_E_PARAM;
        errno = EINVAL;
        return nullptr;
    }
    bdb_options opts{cache_size ? cache_size : 57344u, nullptr, nullptr};
    uint32_t local = 0;
    if (bdb_create(path, mode, &local) < 0 && local != 0 && local != BDB_E_EXISTS) {
        if (err) *err = local;
        return nullptr;
    }
    return bdb_open(path, reserved, BDB_RDWR, mode, &opts, thread, err);
}

int bt_closedb(bdb_handle *h) { return bdb_close(h); }

int bt_mkobj(bdb_handle *h, const char *id, const void *data, uint32_t len) {
    return with_mutex(h, id, [&] {
        Key k;
        if (!compose(h, k, id, nullptr, nullptr)) return -1;
        bdb_datum kd = k.datum(), dd{const_cast<void *>(data), len};
        return bdb_put(h, &kd, &dd);
    });
}

int bt_getobj(bdb_handle *h, const char *id, void **data) {
    bdb_datum dd{};
    int rc = with_mutex(h, id, [&] {
        if (!data) {
            h->error = BDB_E_PARAM;
            return -1;
        }
        Key k;
        if (!compose(h, k, id, nullptr, nullptr)) return -1;
        bdb_datum kd = k.datum();
        return bdb_get(h, &kd, &dd);
    });
    if (rc < 0) {
        std::free(dd.ptr);
        return rc;
    }
    *data = dd.ptr;
    return static_cast<int>(dd.len);
}

int bt_putobj(bdb_handle *h, const char *id, const void *data, uint32_t len) {
    return with_mutex(h, id, [&] {
        Key k;
        if (!compose(h, k, id, nullptr, nullptr)) return -1;
        bdb_datum kd = k.datum(), dd{const_cast<void *>(data), len};
        return bdb_replace(h, &kd, &dd);
    });
}

int bt_rmobj(bdb_handle *h, const char *id) {
    return with_mutex(h, id, [&] {
        Key hk;
        if (!compose(h, hk, id, nullptr, nullptr)) return -1;
        if (!exists(h, hk)) return -1;
        uint8_t cur[BDB_MAXKEY];
        bool foreign = false;
        for (;;) {
            std::memcpy(cur, hk.buf, hk.len);
            bdb_datum kd{cur, hk.len}, dd{};
            if (bdb_next(h, &kd, &dd) < 0) break;
            std::free(dd.ptr);
            if (!starts_with(kd, hk.buf, hk.len)) {
                foreign = true;
                break;
            }
            if (bdb_delete(h, &kd) < 0) return -1;
        }
        if (!foreign && h->error != BDB_E_EOF) return -1;
        bdb_datum hd = hk.datum();
        return bdb_delete(h, &hd);
    });
}

int bt_clone(bdb_handle *h, const char *id, const char *const *newids, const void *data, int32_t len) {
    return with_mutex(h, id, [&] {
        if (!newids) {
            h->error = BDB_E_PARAM;
            return -1;
        }
        Key hk;
        if (!compose(h, hk, id, nullptr, nullptr)) return -1;
        for (const char *const *nid = newids; *nid; ++nid) {
            Key nk;
            if (!compose(h, nk, *nid, nullptr, nullptr)) return -1;
            uint8_t cur[BDB_MAXKEY];
            std::memcpy(cur, hk.buf, hk.len);
            bdb_datum kd{cur, hk.len}, val{};
            if (bdb_get(h, &kd, &val) < 0) return -1;
            if (data && len >= 1) {
                std::free(val.ptr);
                val.ptr = std::malloc(static_cast<size_t>(len) + 1);
                if (!val.ptr) {
                    h->error = BDB_E_NOMEM;
                    return -1;
                }
                std::memcpy(val.ptr, data, static_cast<size_t>(len));
                val.len = static_cast<uint32_t>(len);
            }
            for (;;) {
                const uint32_t rest = kd.len - hk.len;
                if (nk.len + rest > BDB_MAXKEY) {
                    std::free(val.ptr);
                    h->error = BDB_E_KEYSIZE;
                    return -1;
                }
                uint8_t nkey[BDB_MAXKEY];
                std::memcpy(nkey, nk.buf, nk.len);
                std::memcpy(nkey + nk.len, cur + hk.len, rest);
                bdb_datum nd{nkey, nk.len + rest};
                int r = bdb_put(h, &nd, &val);
                std::free(val.ptr);
                val = bdb_datum{};
                if (r < 0) return -1;
                if (bdb_next(h, &kd, &val) < 0) {
                    if (h->error == BDB_E_EOF) break;
                    return -1;
                }
                if (!starts_with(kd, hk.buf, hk.len)) {
                    std::free(val.ptr);
                    break;
                }
            }
        }
        return 0;
    });
}

// The value is handed to the caller before the mutex is released: when only
// the release fails, its result is returned and the caller owns *data.
int bt_getitem(bdb_handle *h, const char *id, const char *prefix, const char *name, void **data) {
    bdb_datum dd{};
    bool handed = false;
    int rc = with_mutex(h, id, [&] {
        if (!name || !data) {
            h->error = BDB_E_PARAM;
            return -1;
        }
        Key k;
        if (!compose(h, k, id, prefix, name)) return -1;
        bdb_datum kd = k.datum();
        int r = bdb_get(h, &kd, &dd);
        if (r == 0) *data = dd.ptr, handed = true;
        return r;
    });
    if (rc < 0) {
        if (!handed) std::free(dd.ptr);
        return rc;
    }
    return static_cast<int>(dd.len);
}

// The existence check uses the object's header key (the id up to its '#'),
// the same key every other item call uses, so ids written with a '#' suffix
// work for every item call alike.
int bt_additem(bdb_handle *h, const char *id, const char *prefix, const char *name, const void *data, uint32_t len) {
    return with_mutex(h, id, [&] {
        if (!name) {
            h->error = BDB_E_PARAM;
            return -1;
        }
        Key k, hk;
        if (!compose(h, k, id, prefix, name) || !compose(h, hk, id, nullptr, nullptr)) return -1;
        if (!exists(h, hk)) return -1;
        bdb_datum kd = k.datum(), dd{const_cast<void *>(data), len};
        return bdb_put(h, &kd, &dd);
    });
}

int bt_rmitem(bdb_handle *h, const char *id, const char *prefix, const char *name) {
    return with_mutex(h, id, [&] {
        // An empty prefix and name would name the object's own header record.
        if (!name || (!*name && (!prefix || !*prefix))) {
            h->error = BDB_E_PARAM;
            return -1;
        }
        Key k;
        if (!compose(h, k, id, prefix, name)) return -1;
        bdb_datum kd = k.datum();
        return bdb_delete(h, &kd);
    });
}

int bt_replace_item(bdb_handle *h, const char *id, const char *prefix, const char *name, const void *data,
                    uint32_t len) {
    return with_mutex(h, id, [&] {
        // An empty prefix and name would name the object's own header record.
        if (!name || (!*name && (!prefix || !*prefix))) {
            h->error = BDB_E_PARAM;
            return -1;
        }
        Key k;
        if (!compose(h, k, id, prefix, name)) return -1;
        if (!exists(h, k)) return -1;
        bdb_datum kd = k.datum(), dd{const_cast<void *>(data), len};
        return bdb_replace(h, &kd, &dd);
    });
}

int bt_getitem_list(bdb_handle *h, const char *id, const char *prefix, char ***list, uint32_t *count) {
    return with_mutex(h, id, [&] {
        if (!list || !count) {
            h->error = BDB_E_PARAM;
            return -1;
        }
        Key hk;
        if (!compose(h, hk, id, nullptr, nullptr)) return -1;
        if (!exists(h, hk)) return -1;
        // Items listed: the header key followed by the prefix, then the name.
        // The prefix is not part of a composed key: one that makes this
        // longer than any key simply matches nothing.
        const size_t pl = prefix ? std::strlen(prefix) : 0, match_len = hk.len + pl;
        *list = nullptr;
        *count = 0;
        int listed = 0;
        uint8_t cur[BDB_MAXKEY];
        std::memcpy(cur, hk.buf, hk.len);
        bdb_datum kd{cur, hk.len};
        for (;;) {
            bdb_datum dd{};
            if (bdb_next(h, &kd, &dd) < 0) {
                if (h->error == BDB_E_EOF) break;
                return -1;
            }
            std::free(dd.ptr);
            if (!starts_with(kd, hk.buf, hk.len)) break;
            if (kd.len < match_len || (pl && std::memcmp(cur + hk.len, prefix, pl) != 0)) continue;
            // The name: the key's bytes after the prefix, up to its NUL.
            char name_buf[BDB_MAXKEY + 1];
            uint32_t n = 0;
            while (match_len + n < kd.len && cur[match_len + n] != 0) {
                name_buf[n] = static_cast<char>(cur[match_len + n]);
                ++n;
            }
            name_buf[n] = 0;
            const char *s = name_buf;
            char **nl = nullptr;
            uint32_t nc = 0;
            if (!arrcat(static_cast<uint32_t>(listed), *list, 1, &s, &nl, &nc)) {
                // arrcat released the strings and any array it made; the
                // array it was given is still ours.
                std::free(*list);
                *list = nullptr;
                *count = 0;
                h->error = BDB_E_NOMEM;
                return -1;
            }
            if (nl != *list) std::free(*list);
            *list = nl;
            *count = nc;
            ++listed;
        }
        return listed;
    });
}

}  // extern "C"
