/*
 * Ne10's complex-to-complex float32 FFT: the part of Ne10 this library uses. On ARM builds the
 * real Ne10 header and library take this file's place; on this host the same names come from
 * platform/ne10_fft_<backend>.cpp over KissFFT (default) or FFTW. The host layer computes
 * exactly what Ne10 computes correctly and aborts, with a message on stderr, on the calls Ne10
 * gets wrong, so code that passes here does not depend on anything a device lacks.
 *
 * ne10_fft_alloc_c2c_float32_neon(nfft)
 *     A plan for nfft points, or NULL when it cannot be made. Sizes: nfft >= 1 whose only prime
 *     factors are 2, 3 and 5 (radices 2, 3, 4 and 5). Ask for no other size: Ne10 returns NULL
 *     for some (1022) and for others (7) a plan that computes wrong results; the host layer
 *     returns NULL for all of them. Plans may be made and destroyed on several threads at once.
 *
 * ne10_fft_c2c_1d_float32_neon(fout, fin, cfg, inverse_fft)
 *     Transforms cfg->nfft points from fin into fout.
 *     inverse_fft == 0: forward, unscaled: X[k] = sum over t of x[t] e^(-2 pi i t k / N).
 *     inverse_fft != 0: inverse, scaled by 1/N, so that the inverse of the forward transform
 *     returns the input (the host layer multiplies each value by the float 1.0f / N).
 *     Aliasing: pass separate arrays that do not overlap. Ne10 computes a transform in place
 *     (fout == fin) wrongly at 2 points and at 256 points and above; the host layer aborts on
 *     those calls and on arrays that partly overlap, and computes fout == fin correctly at the
 *     other sizes below 256 points, as Ne10 does at 1, 8, 16 and 240 points. The contents of
 *     fin after the call are not promised: keep a copy of data still needed.
 *     cfg, fout and fin must not be NULL (the host layer aborts). Arrays need no alignment beyond the type's own. The
 *     call allocates nothing and takes no lock; a plan's work memory serves one transform at a
 *     time, so one plan must not run on two threads at once (separate plans may).
 *
 * ne10_fft_destroy_c2c_float32(cfg)
 *     Releases the plan; NULL is ignored. With Ne10 (and KissFFT here) a plan is one heap block
 *     and this is a plain free(); FFTW's plans hold more, so always release plans through it.
 */
#ifndef SORN_PLATFORM_NE10_H
#define SORN_PLATFORM_NE10_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t ne10_int32_t;
typedef float ne10_float32_t;

typedef struct {
    ne10_float32_t r;
    ne10_float32_t i;
} ne10_fft_cpx_float32_t;

/* Opaque to callers except for nfft, the plan's size; the backend keeps its state behind it. */
typedef struct {
    ne10_int32_t nfft;
} ne10_fft_state_float32_t;

typedef ne10_fft_state_float32_t *ne10_fft_cfg_float32_t;

ne10_fft_cfg_float32_t ne10_fft_alloc_c2c_float32_neon(ne10_int32_t nfft);
void ne10_fft_c2c_1d_float32_neon(ne10_fft_cpx_float32_t *fout, ne10_fft_cpx_float32_t *fin,
                                  ne10_fft_cfg_float32_t cfg, ne10_int32_t inverse_fft);
void ne10_fft_destroy_c2c_float32(ne10_fft_cfg_float32_t cfg);

#ifdef __cplusplus
}
#endif

#endif /* SORN_PLATFORM_NE10_H */
