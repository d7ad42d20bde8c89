// Runs a fuzz target's code on saved inputs, without libFuzzer: every file
// in the directories (or the files) named on the command line, in name
// order. This is how `make test` replays the regression cases and the seeds.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg = argv[i];
        if (fs::is_regular_file(arg)) inputs.push_back(arg);
        if (!fs::is_directory(arg)) continue;
        for (const auto &e : fs::directory_iterator(arg))
            if (e.is_regular_file() && e.path().filename().string()[0] != '.') inputs.push_back(e.path());
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path &p : inputs) {
        std::ifstream in(p, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        std::fprintf(stderr, "%s\n", p.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}
