// The records of the benchmarks, shared by varlo_bench and peers/varlo_peers
// so that both do exactly the same work: 16-byte keys (16 decimal digits of
// 2*i for record i, so keys of 2*i+1 fall between them and are never stored),
// values made of the key, a generation byte and filler, and random orders
// drawn from one fixed seed.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace bench {

constexpr uint32_t kKeyLen = 16;
constexpr uint32_t kValueLen = 100;
constexpr uint32_t kBigValueLen = 4096;
constexpr uint64_t kSeed = 0x5eed2024u;
constexpr uint32_t kFillerLen = 8192;

// 16 decimal digits of n.
inline void make_key(uint64_t n, char *out) {
    for (int i = kKeyLen - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + n % 10);
        n /= 10;
    }
}

// The number a key stands for, or UINT64_MAX when it is not 16 digits.
inline uint64_t key_number(const char *k, size_t len) {
    if (len != kKeyLen) return UINT64_MAX;
    uint64_t n = 0;
    for (uint32_t i = 0; i < kKeyLen; ++i) {
        if (k[i] < '0' || k[i] > '9') return UINT64_MAX;
        n = n * 10 + static_cast<uint64_t>(k[i] - '0');
    }
    return n;
}

inline const unsigned char *filler() {
    static const std::vector<unsigned char> bytes = [] {
        std::vector<unsigned char> v(kFillerLen + kBigValueLen);
        std::mt19937_64 rng(kSeed ^ 0xf111);
        for (auto &b : v) b = static_cast<unsigned char>(rng());
        return v;
    }();
    return bytes.data();
}

// The value of record i: its key, a generation byte, then filler from an
// offset that depends on i.
inline void make_value(uint32_t i, char gen, const char *key, unsigned char *out, uint32_t len) {
    std::memcpy(out, key, kKeyLen);
    out[kKeyLen] = static_cast<unsigned char>(gen);
    std::memcpy(out + kKeyLen + 1, filler() + i % 997, len - kKeyLen - 1);
}

// Empty when the n bytes at data are the value record i should have, else
// what is wrong.
inline std::string check_value(uint32_t i, char gen, const char *key, const void *data, size_t n, uint32_t len) {
    char buf[160];
    if (n != len) {
        std::snprintf(buf, sizeof buf, "record %u: value of %zu bytes, expected %u", i, n, len);
        return buf;
    }
    const auto *p = static_cast<const unsigned char *>(data);
    if (std::memcmp(p, key, kKeyLen) != 0 || p[kKeyLen] != static_cast<unsigned char>(gen) ||
        p[len - 1] != filler()[i % 997 + len - kKeyLen - 2]) {
        std::snprintf(buf, sizeof buf, "record %u: wrong value bytes (generation '%c', expected '%c')", i,
                      p[kKeyLen], gen);
        return buf;
    }
    return {};
}

// A random order of 0..n-1 (Fisher-Yates, fixed generator).
inline std::vector<uint32_t> random_order(uint32_t n, std::mt19937_64 &rng) {
    std::vector<uint32_t> v(n);
    for (uint32_t i = 0; i < n; ++i) v[i] = i;
    for (uint32_t i = n; i > 1; --i) std::swap(v[i - 1], v[rng() % i]);
    return v;
}

inline std::string cpu_model() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("model name", 0) == 0) {
            auto colon = line.find(':');
            if (colon != std::string::npos) {
                auto s = line.substr(colon + 1);
                s.erase(0, s.find_first_not_of(" \t"));
                return s;
            }
        }
    }
    return "unknown";
}

// "PROGRAM: FAILED: message" on standard error, after what standard output
// holds so far.
inline void report_failure(const char *program, const char *fmt, std::va_list ap) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: FAILED: ", program);
    std::vfprintf(stderr, fmt, ap);
    std::fputc('\n', stderr);
}

}  // namespace bench
