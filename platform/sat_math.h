/*
 * The library's one set of saturating conversions and fixed-point product helpers, kept in the
 * lowest layer so that every layer, the platform conversions included, can use them. Every block
 * that narrows a float or a 64-bit product to int32 uses these; none writes its own.
 *
 * Contract (all functions): pure, constexpr-capable where the language allows, no allocation,
 * defined for every input. Float to integer conversions truncate toward zero, saturate at the
 * target range and map NaN to 0 (the same on every CPU, unlike a plain cast).
 */
#ifndef SORN_PLATFORM_SAT_MATH_H
#define SORN_PLATFORM_SAT_MATH_H

#ifdef __cplusplus

#include <cstdint>
#include <limits>

namespace sorn {

/* Saturates a 64-bit value to the int32 range. */
constexpr int32_t sat_i32(int64_t v) {
    if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    if (v < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

/* Saturates a 32-bit value to the int16 range. */
constexpr int16_t sat_i16(int32_t v) {
    if (v > 32767) return 32767;
    if (v < -32768) return -32768;
    return static_cast<int16_t>(v);
}

/* Float or double to int32: truncation toward zero, saturating, NaN -> 0. */
template <typename F>
constexpr int32_t sat_f2i32(F x) {
    static_assert(std::numeric_limits<F>::is_iec559, "IEEE floating type expected");
    if (!(x == x)) return 0;                                  // NaN
    if (x >= static_cast<F>(2147483648.0)) return std::numeric_limits<int32_t>::max();
    if (x <= static_cast<F>(-2147483648.0)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(x);                           // in range: truncates
}

/* v * 256 saturated to the int32 range: a sample on the 24-bit scale (or 8.24) to full scale
   2^31. Equal to sat_i32(int64_t{v} * 256), written as selects on 32-bit values so that loops
   over it vectorize. */
constexpr int32_t sat_shl8(int32_t v) {
    const int32_t up = static_cast<int32_t>(static_cast<uint32_t>(v) << 8);
    return v > 0x7fffff ? std::numeric_limits<int32_t>::max()
                        : v < -0x800000 ? std::numeric_limits<int32_t>::min() : up;
}

/* (a * b) >> shift with a 64-bit product, arithmetic shift, saturated to int32. */
constexpr int32_t mul_shift_sat(int64_t a, int64_t b, int shift) {
    return sat_i32((a * b) >> shift);
}

/* Q-format constants used across the blocks. */
inline constexpr int32_t kQ13One = 8192;     /* compressor volume */
inline constexpr int32_t kQ17One = 131072;   /* DRC gains */
inline constexpr int32_t kQ23One = 8388608;  /* FIR taps, chain full scale */
inline constexpr float kQ23ToFloat = 1.1920929e-7f; /* exactly 2^-23 */

}  // namespace sorn

#endif /* __cplusplus */

#endif /* SORN_PLATFORM_SAT_MATH_H */
