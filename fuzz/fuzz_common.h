// Shared pieces of the fuzz harnesses and the soak: exact-size heap buffers (so AddressSanitizer
// sees any byte read or written past what the caller handed over), invariant checks that abort
// with a message, a quiet logger that still formats every log line, the usual stream set-up
// through the command interface, and the output checks.
#ifndef SORN_FUZZ_FUZZ_COMMON_H
#define SORN_FUZZ_FUZZ_COMMON_H

#include <android/log.h>
#include <system/audio.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "effect/sorn_hp_command.h"
#include "effect/sorn_hp_entry.h"
#include "wrapper/sorn_hp_params.h"

#define FUZZ_CHECK(cond, ...)                                                                                  \
    do {                                                                                                       \
        if (cond) break;                                                                                       \
        std::fprintf(stderr, "%s:%d: invariant failed: %s: ", __FILE__, __LINE__, #cond);                     \
        std::fprintf(stderr, __VA_ARGS__), std::fputc('\n', stderr), std::abort();                           \
    } while (0)

namespace sorn_fuzz {

inline constexpr effect_uuid_t kUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                        {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};

// A heap block of exactly `size` bytes (an empty array for 0), filled with `fill` (by default a
// pattern no writer leaves by chance). Never a vector with spare capacity: the redzone must start
// right after the last byte.
struct ExactBuffer {
    explicit ExactBuffer(size_t size, uint8_t fill = 0xA5) : bytes(size), block(new uint8_t[size]) { std::memset(data(), fill, size); }
    uint8_t *data() const { return block.get(); }
    size_t size() const { return bytes; }
    std::vector<uint8_t> snapshot() const { return {data(), data() + bytes}; }
    size_t bytes;
    std::unique_ptr<uint8_t[]> block;
};

inline size_t bytes_per_sample(uint32_t format) {  // 4 for formats that are not linear PCM
    const size_t bytes = audio_bytes_per_sample(static_cast<audio_format_t>(format));
    return bytes != 0 ? bytes : 4;
}

// Sample i of a buffer in `format`, from v in [-1, 1].
inline void put_sample(uint8_t *buf, uint32_t format, size_t i, double v) {
    const float f = static_cast<float>(v);
    const auto s16 = static_cast<int16_t>(std::lround(v * 32767.0));
    const auto s32 = static_cast<int32_t>(std::lround(v * (format == AUDIO_FORMAT_PCM_8_24_BIT ? 8388607.0 : 2147483647.0)));
    if (format == AUDIO_FORMAT_PCM_16_BIT) std::memcpy(buf + 2 * i, &s16, 2);
    else std::memcpy(buf + 4 * i, format == AUDIO_FORMAT_PCM_FLOAT ? static_cast<const void *>(&f) : &s32, 4);
}

inline effect_config_t stereo_config(uint32_t rate, uint32_t format, bool accumulate) {
    effect_config_t c{};
    for (buffer_config_t *b : {&c.inputCfg, &c.outputCfg})
        b->samplingRate = rate, b->channels = AUDIO_CHANNEL_OUT_STEREO, b->format = static_cast<uint8_t>(format);
    c.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
    c.outputCfg.accessMode = accumulate ? EFFECT_BUFFER_ACCESS_ACCUMULATE : EFFECT_BUFFER_ACCESS_WRITE;
    return c;
}

// A command with a one-word reply: the command's result if it failed, else the reply word.
inline int32_t send(effect_handle_t h, uint32_t code, uint32_t size = 0, const void *data = nullptr) {
    int32_t reply = -1;
    uint32_t reply_size = sizeof reply;
    const int32_t r = (*h)->command(h, code, size, const_cast<void *>(data), &reply_size, &reply);
    return r != 0 ? r : reply;
}

inline int32_t set_param(effect_handle_t h, uint32_t id, const void *value, uint32_t vsize) {
    std::vector<uint32_t> v{0, 4, vsize, id};
    v.resize(4 + (vsize + 3) / 4);
    std::memcpy(v.data() + 4, value, vsize);
    return send(h, EFFECT_CMD_SET_PARAM, 16 + vsize, v.data());
}

// Blocks a client would send. 0: flat lc; 1: a steep curve at the +7 dB limit with surround;
// 2: the same with a frequency out of range (default taps, FIR off); 3: the steep curve and an
// ea table of unordered and repeated frequencies (a repaired design).
inline sorn_hp_params_t usual_block(int kind) {
    sorn_hp_params_t p{};
    p.lc = 1;
    for (int i = 0; i < SORN_HP_LC_POINTS; ++i) p.lc_freq[i] = 100 + 1500 * i;
    if (kind >= 1) {
        p.hp = p.ss = 1;
        for (int i = 0; i < SORN_HP_HP_POINTS; ++i)
            p.lc_gain[i] = (i % 2) ? 12 : -12, p.hp_freq[i] = 60 + 1700 * i, p.hp_gain[i] = 9;
    }
    if (kind == 2) p.hp_freq[3] = 22001;
    if (kind == 3) {
        p.ea = 1;
        for (int i = 0; i < SORN_HP_EA_POINTS; ++i) p.ea_freq[i] = (i % 3) ? 22000 - 1000 * i : 0, p.ea_gain[i] = -3 * i;
    }
    return p;
}

// Configure, load a block (unless kind < 0), pick a headphone device and enable; false if any
// step is refused.
inline bool start_stream(effect_handle_t h, const effect_config_t &c, int kind, uint32_t device, bool enable) {
    bool ok = send(h, EFFECT_CMD_SET_CONFIG, sizeof c, &c) == 0;
    const sorn_hp_params_t p = usual_block(kind < 0 ? 0 : kind);
    if (kind >= 0) ok = ok && set_param(h, SORN_HP_PARAM_BLOCK, &p, sizeof p) == 0;
    ok = ok && send(h, EFFECT_CMD_SET_DEVICE, 4, &device) == 0;
    return ok && (!enable || send(h, EFFECT_CMD_ENABLE) == 0);
}

// Checks an output buffer after a successful process call against what it held before and
// returns the first sample that fails, or -1. Float: every sample finite and within [-1, 1], in
// both modes. 16-bit and 32-bit accumulate: each sample lies within prev + [min, max] of the
// added contribution, which a wrapped sum never does. 8.24 written: within 24 bits;
// accumulated, a plain 32-bit sum by design, so the difference taken modulo 2^32 must still be
// a contribution of 24 bits.
inline long bad_output(uint32_t format, bool accumulate, const uint8_t *before, const uint8_t *after, size_t samples) {
    const bool s16 = format == AUDIO_FORMAT_PCM_16_BIT, s824 = format == AUDIO_FORMAT_PCM_8_24_BIT;
    const bool ints = s16 || s824 || (format == AUDIO_FORMAT_PCM_32_BIT && accumulate);
    const size_t w = s16 ? 2 : 4;
    if (format != AUDIO_FORMAT_PCM_FLOAT && !ints) return -1;  // nothing to check: any value is valid
    for (size_t i = 0; i < samples; ++i) {
        float f = 0.0f;
        int32_t p = 0, v = 0;  // little-endian samples, 16-bit ones sign-extended below
        std::memcpy(format == AUDIO_FORMAT_PCM_FLOAT ? static_cast<void *>(&f) : &v, after + w * i, w);
        if (accumulate && ints) std::memcpy(&p, before + w * i, w);
        if (s16) p = static_cast<int16_t>(p), v = static_cast<int16_t>(v);
        const int64_t d = s824 ? static_cast<int32_t>(static_cast<uint32_t>(v) - static_cast<uint32_t>(p)) : int64_t{v} - p;
        const int64_t lo = s824 ? -(1 << 23) : s16 ? INT16_MIN : INT32_MIN, hi = s824 ? (1 << 23) - 1 : s16 ? INT16_MAX : INT32_MAX;
        if (!(std::isfinite(f) && f >= -1.0f && f <= 1.0f) || (ints && (accumulate || s824) && (d < lo || d > hi)))
            return static_cast<long>(i);
    }
    return -1;
}

// The harnesses' libFuzzer start-up: log lines are formatted by liblog (so a bad format
// argument still shows) but dropped.
#define SORN_FUZZ_INITIALIZE                                                                    \
    extern "C" int LLVMFuzzerInitialize(int *, char ***) {                                      \
        __android_log_set_logger([](const struct __android_logger_data *, const char *) {});   \
        return __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE), 0;                      \
    }

}  // namespace sorn_fuzz

#endif
