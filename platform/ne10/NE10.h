/*
 * The part of Ne10's API that the FFT FIR filter uses: the complex-to-complex float32 FFT.
 * On ARM builds the real Ne10 header and library are used; on this host the same names are
 * provided by platform/ne10_fft_<backend>.cpp on top of KissFFT (default) or FFTW.
 *
 * Contract of this layer:
 *  - ne10_fft_alloc_c2c_float32_neon(n): one heap block per plan holding everything the plan
 *    needs (forward and inverse configurations and any scratch); returns NULL when n < 1 or
 *    memory runs out. Released by one free() (ne10_fft_destroy_c2c_float32 does exactly that).
 *  - ne10_fft_c2c_1d_float32_neon(out, in, cfg, inverse): out-of-place transform of cfg->nfft
 *    points; inverse 0 is the unscaled forward transform X[k] = sum x[t] e^(-2 pi i t k / N),
 *    inverse 1 the inverse scaled by 1/N. Allocates nothing, needs no alignment, and does
 *    nothing when cfg, in or out is NULL. in == out is allowed (the layer copies through its
 *    own scratch), though the filter never does it.
 *  - Plans may be allocated from several threads at once.
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

/* Opaque to callers except for nfft; the backend keeps its state behind this header. */
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
