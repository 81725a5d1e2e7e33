/*
 * Stereo FFT FIR filter: the left and the right channel of a block through their own up to
 * (in_offset + 1) Q23 taps by overlap-save fast convolution, both at once. The frame holds the
 * left samples as the real parts and the right samples as the imaginary parts of one complex
 * signal, so a block costs one forward and one inverse N-point transform for both channels,
 * where two single-channel filters (fir.h) need two each.
 *
 * With the same taps on both channels the product with the one spectrum already yields the left
 * output in the real parts and the right in the imaginary parts. With different taps the product
 * splits the frame's spectrum Z into the channels' spectra by conjugate symmetry,
 * X_L[k] = (Z[k] + conj Z[N-k]) / 2 and X_R[k] = (Z[k] - conj Z[N-k]) / 2i, filters each and
 * recombines them as Y_L + i Y_R; folded together that is
 * Y[k] = (H_L[k] + H_R[k]) / 2 * Z[k] + (H_L[k] - H_R[k]) / 2 * conj Z[N-k].
 * Which product runs is decided when the taps are set, not per block. The oldest samples of the
 * frame, which no kept output reaches through the taps, enter the forward transform as zeros:
 * that changes no output but lowers the transform's rounding noise.
 *
 * The result equals two single-channel filters with the same taps up to float rounding (the
 * packed transform rounds differently), adds no latency (output sample i of a call is the
 * filtered input sample i of that call), truncates toward zero and saturates to int32 (NaN
 * gives 0), exactly as fir.h describes for one channel.
 *
 * Contract:
 *  - stereo_fir_init allocates one FFT plan and its arrays (zeroed, 64-byte aligned) and leaves
 *    the filter off with both spectra zero. If fir is NULL nothing happens. If fft_size is not a
 *    size the FFT supports or an allocation fails, everything made is released and the filter
 *    stays safely off: all pointers NULL, every number 0; its owner detects this by
 *    fft_cfg == NULL. Such a filter (and one after stereo_fir_end) ignores every call.
 *  - in_offset is clamped to 0..N-1; stereo_fir_set_sample_rate sets it from the rate class by
 *    the single-channel filter's rule (N minus 220, 240 or 480).
 *  - stereo_fir_set_taps takes n taps per channel (clamped to N; n < 1 or a NULL array gives
 *    all-zero taps, silence while on), computes both spectra, chooses the product and clears
 *    the history. It allocates nothing and cannot fail.
 *  - stereo_fir_process filters n samples of each plane in place. It refuses (reads and writes
 *    nothing, history stays) when the filter is off, unusable, a plane is NULL, the planes are
 *    the same, or n is outside 1..N - in_offset. The block length must stay the same from call
 *    to call. More than in_offset + 1 taps wrap around circularly.
 *  - stereo_fir_reset clears the history; status and spectra stay.
 *  - stereo_fir_end releases the plan with ne10_fft_destroy_c2c_float32 and frees the arrays,
 *    leaving the record as after a failed init; it does not free the record. NULL is ignored.
 *  - Transforms are always out of place. No operation allocates after init, takes a lock or
 *    logs. set_taps and reset must not run at the same time as process on the same filter;
 *    separate filters share nothing.
 */
#ifndef SORN_DSP_STEREO_FIR_H
#define SORN_DSP_STEREO_FIR_H

#include <stdint.h>

#include <NE10.h>

#include "dsp/fir.h"
#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

typedef struct {
    int32_t status;     /* 0: off, stereo_fir_process does nothing */
    int32_t fft_size;   /* N */
    int32_t in_offset;  /* where each new block is written: N - block length */
    int32_t same_taps;  /* 1: both channels share one spectrum; 0: the separated product */
    int32_t reach;      /* taps up to the last nonzero one in either channel (0: none) */
    /* The overlap-save frame, N values, oldest first: left samples in the real parts, right
       samples in the imaginary parts. */
    ne10_fft_cpx_float32_t *history;
    ne10_fft_cfg_float32_t fft_cfg;
    /* 4N floats. Same taps: the spectrum's N real parts, then its N imaginary parts. Different
       taps: (H_L + H_R) / 2 split the same way, then (H_L - H_R) / 2. */
    float *spectra;
    ne10_fft_cpx_float32_t *time_buf; /* N values: transform input, then the product */
    ne10_fft_cpx_float32_t *freq_buf; /* N values: the frame's spectrum, then the output frame */
} stereo_fir_t;

SORN_EXPORT void stereo_fir_init(stereo_fir_t *fir, int fft_size, int offset);
SORN_EXPORT void stereo_fir_end(stereo_fir_t *fir);
SORN_EXPORT void stereo_fir_set_sample_rate(stereo_fir_t *fir, SampleRateType rate);
SORN_EXPORT void stereo_fir_set_taps(stereo_fir_t *fir, int n, const int *left, const int *right);
SORN_EXPORT void stereo_fir_reset(stereo_fir_t *fir);
SORN_EXPORT void stereo_fir_process(stereo_fir_t *fir, int *left, int *right, int n);

SORN_EXTERN_C_END

#endif /* SORN_DSP_STEREO_FIR_H */
