// Shared pieces of the fuzz harnesses: exact-size heap buffers (so AddressSanitizer sees any
// byte read or written past what the caller handed over), invariant checks that abort with a
// message, and a quiet logger that still formats every log line.
#ifndef SORN_FUZZ_FUZZ_COMMON_H
#define SORN_FUZZ_FUZZ_COMMON_H

#include <android/log.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "effect/sorn_hp_entry.h"

#define FUZZ_CHECK(cond, ...)                                                          \
    do {                                                                               \
        if (!(cond)) {                                                                 \
            std::fprintf(stderr, "%s:%d: invariant failed: %s: ", __FILE__, __LINE__, #cond); \
            std::fprintf(stderr, __VA_ARGS__);                                         \
            std::fputc('\n', stderr);                                                  \
            std::abort();                                                              \
        }                                                                              \
    } while (0)

namespace sorn_fuzz {

inline constexpr effect_uuid_t kUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                        {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};

// Log lines are formatted by liblog (so a bad format argument still shows) but dropped.
inline void quiet_logs() {
    __android_log_set_logger([](const struct __android_logger_data *, const char *) {});
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

// A heap block of exactly `size` bytes (malloc(0) gives a valid, empty block). Never a vector
// with spare capacity: the redzone must start right after the last byte.
class ExactBuffer {
public:
    explicit ExactBuffer(size_t size) : size_(size), data_(static_cast<uint8_t *>(std::malloc(size ? size : 1))) {}
    ~ExactBuffer() { std::free(data_); }
    ExactBuffer(const ExactBuffer &) = delete;
    ExactBuffer &operator=(const ExactBuffer &) = delete;
    uint8_t *data() { return data_; }
    size_t size() const { return size_; }
    std::vector<uint8_t> snapshot() const { return std::vector<uint8_t>(data_, data_ + size_); }
    bool equals(const std::vector<uint8_t> &s) const {
        return s.size() == size_ && (size_ == 0 || std::memcmp(s.data(), data_, size_) == 0);
    }

private:
    size_t size_;
    uint8_t *data_;
};

inline size_t bytes_per_sample(uint32_t format) {
    switch (format) {
        case 1: return 2;  // 16-bit
        case 2: return 1;  // 8-bit
        case 6: return 3;  // packed 24-bit
        case 3: case 4: case 5: return 4;
        default: return 4;
    }
}

// Checks an output buffer after a successful process call against what it held before.
// Float: every sample finite and within [-1, 1], in both modes. 16-bit and 32-bit accumulate:
// each sample lies within prev + [min, max] of the added contribution, which a wrapped sum
// never does. 8.24 accumulate is a plain 32-bit sum by design: the difference taken modulo 2^32
// must still be a contribution of 24 bits.
inline void check_output(uint32_t format, bool accumulate, const uint8_t *before,
                         const uint8_t *after, size_t samples) {
    for (size_t i = 0; i < samples; ++i) {
        if (format == 5) {
            float v;
            std::memcpy(&v, after + 4 * i, 4);
            FUZZ_CHECK(std::isfinite(v) && v >= -1.0f && v <= 1.0f, "float sample %zu is %g", i,
                       static_cast<double>(v));
        } else if (format == 1 && accumulate) {
            int16_t p, v;
            std::memcpy(&p, before + 2 * i, 2);
            std::memcpy(&v, after + 2 * i, 2);
            FUZZ_CHECK(v >= p - 32768 && v <= p + 32767, "16-bit sample %zu wrapped: %d -> %d", i,
                       p, v);
        } else if (format == 3 && accumulate) {
            int32_t p, v;
            std::memcpy(&p, before + 4 * i, 4);
            std::memcpy(&v, after + 4 * i, 4);
            const int64_t lo = int64_t{p} + INT32_MIN, hi = int64_t{p} + INT32_MAX;
            FUZZ_CHECK(v >= lo && v <= hi, "32-bit sample %zu wrapped: %d -> %d", i, p, v);
        } else if (format == 4 && !accumulate) {
            int32_t v;
            std::memcpy(&v, after + 4 * i, 4);
            FUZZ_CHECK(v >= -(1 << 23) && v < (1 << 23), "8.24 sample %zu is %d", i, v);
        } else if (format == 4 && accumulate) {
            uint32_t p, v;
            std::memcpy(&p, before + 4 * i, 4);
            std::memcpy(&v, after + 4 * i, 4);
            const auto d = static_cast<int32_t>(v - p);
            FUZZ_CHECK(d >= -(1 << 23) && d < (1 << 23), "8.24 sample %zu moved by %d", i, d);
        }
    }
}

}  // namespace sorn_fuzz

#endif
