// Writes the seed corpus kept in fuzz/corpus: small valid databases for the
// damaged-file target, one database file each (empty, one leaf, a tree with long values, a tree with
// free pages inside, a file in the other byte order) and a few programs for
// the call-sequence target. Run from the source tree:
//     build/fuzz/fuzz_make_seeds fuzz/corpus
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bdb.h"

namespace {

std::string dir;

void put(bdb_handle *h, const std::string &k, const std::string &v) {
    bdb_datum kd{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size())};
    bdb_datum vd{const_cast<char *>(v.data()), static_cast<uint32_t>(v.size())};
    if (bdb_put(h, &kd, &vd) < 0) std::fprintf(stderr, "put %s failed\n", k.c_str());
}

void del(bdb_handle *h, const std::string &k) {
    bdb_datum kd{const_cast<char *>(k.data()), static_cast<uint32_t>(k.size())};
    bdb_delete(h, &kd);
}

// A database made by fill, written to the corpus.
template <typename Fill>
std::string make_db(const std::string &name, Fill fill) {
    const std::string path = dir + "/damaged_file/" + name;
    std::filesystem::remove(path);
    uint32_t err = 0;
    bdb_create(path.c_str(), BDB_PRIVATE, &err);
    bdb_handle *h = bdb_open(path.c_str(), 0, BDB_RDWR, BDB_PRIVATE, nullptr, 0, &err);
    fill(h);
    bdb_close(h);
    std::filesystem::remove(path + "-log");  // the seed is the database file alone
    return path;
}

// The same database in the other byte order: every word of the meta page
// and of the tree pages' headers and slots reversed, data pages as they are.
void swap_file(const std::string &from, const std::string &to) {
    std::ifstream in(from, std::ios::binary);
    std::vector<char> f{std::istreambuf_iterator<char>(in), {}};
    bdb_swap(f.data(), BDB_PGSIZE);
    for (size_t pg = 1; pg * BDB_PGSIZE < f.size(); ++pg) {
        uint32_t own;
        std::memcpy(&own, &f[pg * BDB_PGSIZE], 4);
        if (own == pg) bdb_pgswap(&f[pg * BDB_PGSIZE], 1);
    }
    std::ofstream(to, std::ios::binary).write(f.data(), static_cast<std::streamsize>(f.size()));
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 1;
    }
    dir = argv[1];
    std::filesystem::create_directories(dir + "/damaged_file");
    std::filesystem::create_directories(dir + "/call_sequence");
    make_db("empty", [](bdb_handle *) {});
    const std::string leaf = make_db("leaf", [](bdb_handle *h) {
        for (int i = 0; i < 12; ++i) put(h, "key" + std::to_string(i), std::string(i * 3, 'v'));
    });
    make_db("tree", [](bdb_handle *h) {
        for (int i = 0; i < 160; ++i) put(h, "k" + std::to_string(i * 7 % 160), std::string(40, 'a' + i % 26));
        put(h, "long1", std::string(3000, 'L'));
        put(h, "long2", std::string(9000, 'M'));
    });
    make_db("holes", [](bdb_handle *h) {
        for (int i = 0; i < 100; ++i) put(h, "h" + std::to_string(i), std::string(i % 20 == 0 ? 2500 : 30, 'h'));
        for (int i = 0; i < 70; ++i) del(h, "h" + std::to_string(i));
    });
    swap_file(leaf, dir + "/damaged_file/swapped");
    std::mt19937 rng(13);
    for (int s = 0; s < 4; ++s) {
        std::string prog(200 + 100 * s, '\0');
        for (char &c : prog) c = static_cast<char>(rng());
        std::ofstream(dir + "/call_sequence/prog" + std::to_string(s), std::ios::binary) << prog;
    }
    return 0;
}
