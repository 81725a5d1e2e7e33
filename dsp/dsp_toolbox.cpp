#include "dsp/dsp_toolbox.h"

#include <algorithm>
#include <cstdint>

#include "platform/sat_math.h"

namespace {

using sorn::kQ13One;
using sorn::sat_i32;

constexpr int32_t kDefaultSmoothBufferNum = 2;
constexpr int32_t kSmoothShiftOffset = 5;
constexpr int32_t kMinSmoothBufferNum = -3; /* keeps shift - 2 at 0 or above */
constexpr int32_t kMaxSmoothBufferNum = 26; /* keeps the shift within a 32-bit word */

constexpr int kComplexFraction = 28;

/* round(65536 ln(1 + 2^-k)) for k = 1..7. */
constexpr int32_t kLnOnePlus[] = {26573, 14624, 7719, 3973, 2017, 1016, 510};
/* 65536 ln 2 times 1, 2, 4, 8 and 15. */
constexpr int32_t kLn2 = 45426;
constexpr int32_t kLn2x2 = 90852;
constexpr int32_t kLn2x4 = 181704;
constexpr int32_t kLn2x8 = 363409;
constexpr int32_t kLn2x15 = 681391;

constexpr int64_t kTwo31 = int64_t{1} << 31;

/* Wrapping 64-bit arithmetic, done on unsigned values so overflow is defined. */
constexpr int64_t wrap_add(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
constexpr int64_t wrap_sub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}
constexpr int64_t wrap_mul(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

/* e^x for 0 <= x < 15 ln 2, in Q16, by shift and add. Needs 64 bits only near the top. */
int64_t exp_in_range(int32_t x) {
    int64_t y = 65536;
    if (x >= kLn2x8) { x -= kLn2x8; y <<= 8; }
    if (x >= kLn2x4) { x -= kLn2x4; y <<= 4; }
    if (x >= kLn2x2) { x -= kLn2x2; y <<= 2; }
    if (x >= kLn2) { x -= kLn2; y <<= 1; }
    for (int k = 1; k <= 7; ++k) {
        if (x >= kLnOnePlus[k - 1]) {
            x -= kLnOnePlus[k - 1];
            y += y >> k;
        }
    }
    /* Remainder below 510: multiply by about 1 + x / 65536, bit by bit. */
    for (int b = 8; b >= 0; --b) {
        if (x & (1 << b)) y += y >> (16 - b);
    }
    return y;
}

}  // namespace

/* ---- Smoothed volume ---------------------------------------------------------------------- */

void smooth_volume_init(smooth_volume_t *sv) {
    if (sv == nullptr) return;
    sv->current = 0;
    sv->smooth_buffer_num = kDefaultSmoothBufferNum;
    sv->volume = kQ13One;
    sv->smooth_shift = kDefaultSmoothBufferNum + kSmoothShiftOffset;
}

void smooth_volume_reset(smooth_volume_t *sv) {
    if (sv != nullptr) sv->current = sat_i32(int64_t{kQ13One} - sv->volume);
}

void smooth_volume_end(smooth_volume_t *) {}

void smooth_volume_set_volume(smooth_volume_t *sv, int volume) {
    if (sv != nullptr) sv->volume = volume;
}

void smooth_volume_get_volume(smooth_volume_t *sv, int *out) {
    if (sv != nullptr && out != nullptr) *out = sv->volume;
}

void smooth_volume_set_soft_volume(smooth_volume_t *sv, int current) {
    if (sv != nullptr) sv->current = current;
}

void smooth_volume_set_smooth_buffer_num(smooth_volume_t *sv, int n) {
    if (sv == nullptr) return;
    sv->smooth_buffer_num = std::clamp(n, kMinSmoothBufferNum, kMaxSmoothBufferNum);
    sv->smooth_shift = sv->smooth_buffer_num + kSmoothShiftOffset;
}

void smooth_volume_get_smooth_buffer_num(smooth_volume_t *sv, int *out) {
    if (sv != nullptr && out != nullptr) *out = sv->smooth_buffer_num;
}

void smooth_volume_process(smooth_volume_t *sv, int *in1, int *in2, int *out1, int *out2,
                           int frames) {
    if (sv == nullptr || frames < 1) return;
    if (in1 == nullptr || in2 == nullptr || out1 == nullptr || out2 == nullptr) return;
    const int s = std::clamp<int32_t>(sv->smooth_shift, 2, 62);
    const int64_t coarse = int64_t{1} << s;
    const int64_t fine = int64_t{1} << (s - 2);
    const int64_t volume = sv->volume;
    int64_t current = sv->current;
    for (int i = 0; i < frames; ++i) {
        out1[i] = sorn::mul_shift_sat(in1[i], current, 13);
        out2[i] = sorn::mul_shift_sat(current, in2[i], 13);
        if (current != volume) {
            current += (volume - current) >> s;
            if (volume - current < coarse && current - volume < coarse) {
                current += (volume - current) >> (s - 2);
            }
            if (volume - current < fine && current - volume < fine) current = volume;
        }
    }
    sv->current = static_cast<int32_t>(current);
}

/* ---- Complex numbers ---------------------------------------------------------------------- */

void complex_init(complex64_t *c, int re, int im) { complex_setvalue(c, re, im); }

void complex_setvalue(complex64_t *c, int re, int im) {
    if (c == nullptr) return;
    c->re = re;
    c->im = im;
}

void complex_end(complex64_t *c) {
    if (c == nullptr) return;
    c->re = 0;
    c->im = 0;
}

void complex_add(complex64_t *a, complex64_t *b, complex64_t *out) {
    if (a == nullptr || b == nullptr || out == nullptr) return;
    out->re = wrap_add(a->re, b->re);
    out->im = wrap_add(a->im, b->im);
}

void complex_sub(complex64_t *a, complex64_t *b, complex64_t *out) {
    if (a == nullptr || b == nullptr || out == nullptr) return;
    out->re = wrap_sub(a->re, b->re);
    out->im = wrap_sub(a->im, b->im);
}

void complex_mul(complex64_t *a, complex64_t *b, complex64_t *out) {
    if (a == nullptr || b == nullptr || out == nullptr) return;
    /* Both parts are computed before out is written, so out may alias a or b. */
    const int64_t re = wrap_sub(wrap_mul(a->re, b->re), wrap_mul(a->im, b->im));
    const int64_t im = wrap_add(wrap_mul(a->re, b->im), wrap_mul(a->im, b->re));
    out->re = re >> kComplexFraction;
    out->im = im >> kComplexFraction;
}

int64_t complex_getpower(complex64_t *c) {
    if (c == nullptr) return 0;
    const uint64_t re = static_cast<uint64_t>(c->re >> 13);
    const uint64_t im = static_cast<uint64_t>(c->im >> 13);
    return static_cast<int64_t>((re * re + im * im) >> 10);
}

void complex_swap(complex64_t *a, complex64_t *b) {
    if (a == nullptr || b == nullptr) return;
    std::swap(*a, *b);
}

/* ---- Q16 functions ------------------------------------------------------------------------ */

uint32_t sqrt_fixed(uint32_t x) {
    /* Restoring square root over the bit pairs, one result bit per pair. */
    uint32_t root = 0;
    uint32_t bit = uint32_t{1} << 30;
    while (bit > x) bit >>= 2;
    while (bit != 0) {
        if (x >= root + bit) {
            x -= root + bit;
            root = (root >> 1) + bit;
        } else {
            root >>= 1;
        }
        bit >>= 2;
    }
    return root;
}

int32_t exp_fixed(int32_t x) {
    if (x >= kLn2x15) return INT32_MAX;
    if (x >= 0) return sat_i32(exp_in_range(x));
    /* e^x = e^(x + k ln 2) / 2^k with x + k ln 2 in [0, ln 2). */
    const int64_t k = (-static_cast<int64_t>(x) + kLn2 - 1) / kLn2;
    const int64_t reduced = static_cast<int64_t>(x) + k * kLn2;
    const int64_t y = exp_in_range(static_cast<int32_t>(reduced));
    return k >= 63 ? 0 : static_cast<int32_t>(y >> k);
}

int32_t log_fixed(int32_t x) {
    int64_t v = std::max<int32_t>(x, 1);
    int64_t r = kLn2x15;
    if (v < 32768) {
        v <<= 16;
        r = -kLn2;
    }
    /* Normalise toward 2^31, taking off ln 2 for every doubling. */
    if (v < (int64_t{1} << 23)) { v <<= 8; r -= kLn2x8; }
    if (v < (int64_t{1} << 27)) { v <<= 4; r -= kLn2x4; }
    if (v < (int64_t{1} << 29)) { v <<= 2; r -= kLn2x2; }
    if (v < (int64_t{1} << 30)) { v <<= 1; r -= kLn2; }
    for (int k = 1; k <= 7; ++k) {
        if (v + (v >> k) < kTwo31) {
            v += v >> k;
            r -= kLnOnePlus[k - 1];
        }
    }
    r -= (kTwo31 - v) >> 15; /* first-order term for the factor left */
    return static_cast<int32_t>(r);
}
