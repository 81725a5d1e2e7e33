/*
 * Stereo surround: widens the stereo image of a block by low-pass filtering the side signal
 * (left - right) with a first-order bilinear low-pass and adding the filtered side, times
 * `gain`, to the left plane while subtracting it from the right. The mid signal is unchanged.
 *
 * The filter is H(z) = b0 (1 + z^-1) / (1 - a1 z^-1) with K = tan(2 pi frequency / rate),
 * b0 = K / (1 + K), a1 = (1 - K) / (1 + K); its -3 dB point lies at twice `frequency` and its
 * gain at DC is 1. `gain` is 0.015 per unit of depth. The design runs in double, the sample
 * loop in single precision; samples are int32 on any scale.
 *
 * Contract
 *  - stereo_surround_init allocates the record (calloc) and is the only operation that
 *    allocates; stereo_surround_process allocates nothing, never logs and never blocks.
 *  - Every operation accepts a null handle and then does nothing.
 *  - A new instance is off and unconfigured and passes audio through. It processes only while
 *    its status is non-zero and a parameter pair has been accepted. Each accepted pair clears
 *    the filter memory; switching the status off keeps it for when the status comes back.
 *  - The side difference wraps in 32-bit two's complement; results are truncated toward zero
 *    and saturate at the int32 limits instead of wrapping.
 *
 * Decisions on points the algorithm leaves open
 *  - A frequency at or above a quarter of the sample rate would put the filter's pole on or
 *    outside the unit circle (K infinite or negative). Such a pair is refused: a WARN line
 *    "stereo_surround_set_parameters: frequency %d unsupported at sample rate %d" is logged and
 *    the previous coefficients, gain, filter memory and configuration stay as they were. A pair
 *    whose single-precision coefficients would still land on the unit circle (very high rates,
 *    where tan() is evaluated right at pi/2) is refused the same way. Frequencies below 1 and
 *    depths below 1 are refused silently, as before.
 *  - During silence the filter output decays toward zero and, with a1 close to 1 (low
 *    frequencies), would settle on a subnormal value and stay there, slowing every later
 *    sample about twofold. At the end of each block a filter memory below the smallest normal
 *    float is therefore flushed to 0. This never changes an output sample: a subnormal
 *    correction is lost when it is added to an integer sample.
 */
#ifndef SORN_DSP_STEREO_SURROUND_H
#define SORN_DSP_STEREO_SURROUND_H

#include <stdint.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

typedef struct {
    int32_t sample_rate; /* Hz, given at creation */
    int32_t status;      /* 0: off */
    int32_t configured;  /* 1 once a parameter pair has been accepted */
    float gain;          /* mix gain of the filtered side signal */
    float b0;            /* feed-forward coefficient (current and previous input) */
    float a1;            /* feedback coefficient (previous output) */
    float prev_side;     /* x[n-1] */
    float prev_out;      /* y[n-1] */
} stereo_surround_t;

/* Returns a new instance, or null when channels < 2 (logged) or the allocation fails. */
SORN_EXPORT void *stereo_surround_init(int sample_rate, int channels);
SORN_EXPORT void stereo_surround_deinit(void *handle);
SORN_EXPORT void stereo_surround_set_status(void *handle, int status);
SORN_EXPORT void stereo_surround_set_parameters(void *handle, int frequency, int depth);
SORN_EXPORT void stereo_surround_reset(void *handle);
SORN_EXPORT void stereo_surround_process(void *handle, int *left, int *right, int frames);

SORN_EXTERN_C_END

#endif /* SORN_DSP_STEREO_SURROUND_H */
