/*
 * Fixed-point toolbox beside the DSP blocks: a smoothed stereo volume, a 64-bit complex number
 * (Q28 when multiplied), and Q16 square root, exponential and natural logarithm. The processing
 * chain does not use them; they are part of the library's interface.
 *
 * Contract: no function allocates, logs or blocks. Every function taking a record accepts null
 * and then does nothing (complex_getpower returns 0). Sample products are 64-bit, shifted
 * arithmetically and saturated to int32.
 *
 * The complex type. C's <complex.h> defines `complex` as a macro, so the record is declared
 * as `struct complex64` with the typedef `complex64_t`, and the plain name `complex` is added
 * as a further typedef only where no such macro is in force. Functions take complex64_t*.
 * complex_add, complex_sub and complex_mul wrap on 64-bit overflow (no undefined behaviour).
 *
 * Decisions on inputs outside the natural domains
 *  - sqrt_fixed covers the whole uint32 range: it returns floor(sqrt(x)) for every x, so
 *    inputs of 65536 and above give roots above 255. Inside 0..65535 the result is the 8-bit
 *    rounded-down root.
 *  - exp_fixed: for x >= 681391 (15 ln 2) the true result no longer fits, and the function
 *    returns 2147483647. A negative x is brought into range by whole multiples of ln 2 and the
 *    result halved as often, so e^x stays meaningful (rounded down, 0 far below).
 *  - log_fixed: x <= 0 has no logarithm; it is treated as 1, the smallest positive input,
 *    giving the most negative result log_fixed(1) = -726817.
 *  - smooth_volume_set_smooth_buffer_num clamps n to -3..26, so the smoothing shift stays in
 *    2..31 and every shift it drives is defined; smooth_shift is always the stored n + 5.
 *    smooth_volume_process also keeps a hand-written smooth_shift within 2..62.
 */
#ifndef SORN_DSP_DSP_TOOLBOX_H
#define SORN_DSP_DSP_TOOLBOX_H

#include <stdint.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

typedef struct {
    int32_t current;           /* gain for the next sample, Q13 */
    int32_t smooth_buffer_num; /* smoothing setting */
    int32_t volume;            /* target gain, Q13 */
    int32_t smooth_shift;      /* smooth_buffer_num + 5: speed of the approach */
} smooth_volume_t;

struct complex64 {
    int64_t re;
    int64_t im;
};
typedef struct complex64 complex64_t;
#ifndef complex
typedef struct complex64 complex;
#endif

SORN_EXPORT void smooth_volume_init(smooth_volume_t *sv);
/* current = 8192 - volume. */
SORN_EXPORT void smooth_volume_reset(smooth_volume_t *sv);
SORN_EXPORT void smooth_volume_end(smooth_volume_t *sv);
SORN_EXPORT void smooth_volume_set_volume(smooth_volume_t *sv, int volume);
SORN_EXPORT void smooth_volume_get_volume(smooth_volume_t *sv, int *out);
/* Sets the gain applied next, with no smoothing. */
SORN_EXPORT void smooth_volume_set_soft_volume(smooth_volume_t *sv, int current);
SORN_EXPORT void smooth_volume_set_smooth_buffer_num(smooth_volume_t *sv, int n);
SORN_EXPORT void smooth_volume_get_smooth_buffer_num(smooth_volume_t *sv, int *out);
/* Scales both channels by the current gain, moving it toward the target sample by sample. */
SORN_EXPORT void smooth_volume_process(smooth_volume_t *sv, int *in1, int *in2, int *out1,
                                       int *out2, int frames);

SORN_EXPORT void complex_init(complex64_t *c, int re, int im);
SORN_EXPORT void complex_setvalue(complex64_t *c, int re, int im);
SORN_EXPORT void complex_end(complex64_t *c);
SORN_EXPORT void complex_add(complex64_t *a, complex64_t *b, complex64_t *out);
/* out = a - b */
SORN_EXPORT void complex_sub(complex64_t *a, complex64_t *b, complex64_t *out);
/* Q28 product: parts (a.re b.re - a.im b.im) >> 28 and (a.re b.im + a.im b.re) >> 28. */
SORN_EXPORT void complex_mul(complex64_t *a, complex64_t *b, complex64_t *out);
/* ((re >> 13)^2 + (im >> 13)^2) >> 10, the last shift logical. */
SORN_EXPORT int64_t complex_getpower(complex64_t *c);
SORN_EXPORT void complex_swap(complex64_t *a, complex64_t *b);

/* floor(sqrt(x)). */
SORN_EXPORT uint32_t sqrt_fixed(uint32_t x);
/* 65536 e^(x / 65536), Q16 in and out, slightly low. */
SORN_EXPORT int32_t exp_fixed(int32_t x);
/* 65536 ln(x / 65536), Q16 in and out, within about 4 units. */
SORN_EXPORT int32_t log_fixed(int32_t x);

SORN_EXTERN_C_END

#endif /* SORN_DSP_DSP_TOOLBOX_H */
