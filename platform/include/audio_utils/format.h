/*
 * PCM sample format conversions of Android's libaudioutils (the subset this library uses),
 * written for this host. On Android the real <audio_utils/format.h> is used instead; this one
 * reproduces its per-sample formulas and defines what the platform leaves unconverted.
 *
 * memcpy_by_audio_format(dst, dst_format, src, src_format, count)
 *   Converts `count` samples (frames x channels, not bytes) of linear PCM. Formats: 16-bit,
 *   8-bit unsigned, 32-bit, 8.24 (Q8.23 in an int32), float and packed 24-bit (3 bytes, little
 *   endian). Full scale is -1.0 .. 1.0 for float, the type's range for the integer formats.
 *   - Equal formats: a plain copy; nothing at all when dst == src.
 *   - Every pair Android converts uses Android's formulas (listed in audio_format.cpp):
 *     integer widening shifts left (zero low bits), integer narrowing shifts right
 *     (truncation, no rounding or dither), float to integer rounds half away from zero and
 *     clamps to the integer range, integer to float scales exactly (32-bit to float rounds to
 *     the nearest float, so 0x7FFFFFFF becomes 1.0f). Float output is not clamped: 8.24 input
 *     beyond +-1.0 stays beyond it.
 *   - The pairs Android leaves unconverted (8-bit or 8.24 to 32-bit, 32-bit or 8-bit to 8.24,
 *     8-bit to packed 24-bit) and every format that is not one of the six, equal or not: dst
 *     is left untouched and nothing is logged, as on Android release builds.
 *   - Non-finite float input follows the same formulas, with no rule of its own: +-Inf and any
 *     float beyond full scale saturate to the destination's limits; a NaN gives the upper limit
 *     in 16-bit (0x7FFF), 8-bit (0xFF), 8.24 (0x007FFFFF) and packed 24-bit (0x7FFFFF), because
 *     the clamp returns its other operand for a NaN; in 32-bit it gives whatever the processor's
 *     double to int32 conversion gives: INT32_MIN on x86-64 (CVTTSD2SI), 0 on arm64 (FCVTZS).
 *     That is what Android's libaudioutils gives on the same processor. The conversion is made
 *     with the processor's own instruction (never a C cast of a NaN, which is undefined), so
 *     sanitizer builds see no undefined behaviour. Callers that must not hear a NaN as a
 *     full-scale sample have to deal with it before converting.
 *   - Null dst or src, or count 0: nothing.
 *   Overlap: dst and src either do not overlap or start at the same address (in-place).
 *   In-place works for every pair: conversions to a wider sample run from the last sample
 *   backwards, all others forwards. Partly overlapping buffers give undefined contents for
 *   converting pairs (never a crash or an access outside the two ranges); equal formats are
 *   copied as by memmove.
 *
 * The memcpy_to_X_from_Y helpers are the same conversions on typed buffers, with the same
 * overlap rule; clamp32_from_float is the per-sample float to 32-bit conversion:
 *   f <= -1.0 -> INT32_MIN, f >= 1.0 -> INT32_MAX, otherwise f * 2^31 rounded half away from
 *   zero (in double, then truncated by the processor: a NaN gives INT32_MIN on x86-64, 0 on
 *   arm64; other targets use a plain cast). Buffers convert four samples at a time with the
 *   vector form of the same instructions (SSE2, NEON), bit for bit the per-sample result.
 *
 * None of these allocate, lock, log or block; all are safe on the audio path. They are
 * internal to the library (not exported from the shared object).
 */
#ifndef SORN_PLATFORM_AUDIO_UTILS_FORMAT_H
#define SORN_PLATFORM_AUDIO_UTILS_FORMAT_H

#include <stddef.h>
#include <stdint.h>

#include <system/audio.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

void memcpy_by_audio_format(void *dst, audio_format_t dst_format, const void *src,
                            audio_format_t src_format, size_t count);

int32_t clamp32_from_float(float f);

/* float -> int32 by clamp32_from_float. */
void memcpy_to_i32_from_float(int32_t *dst, const float *src, size_t count);
/* int32 -> float: v * 2^-31, rounded to the nearest float; result in [-1.0, 1.0]. */
void memcpy_to_float_from_i32(float *dst, const int32_t *src, size_t count);
/* int32 -> int16: v >> 16 (arithmetic, truncating). */
void memcpy_to_i16_from_i32(int16_t *dst, const int32_t *src, size_t count);
/* int16 -> int32: s << 16. */
void memcpy_to_i32_from_i16(int32_t *dst, const int16_t *src, size_t count);

SORN_EXTERN_C_END

#endif /* SORN_PLATFORM_AUDIO_UTILS_FORMAT_H */
