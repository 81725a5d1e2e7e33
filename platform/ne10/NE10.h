/*
 * The part of Ne10's API that the FFT FIR filter uses: the complex-to-complex float32 FFT.
 * On ARM builds the real Ne10 header and library are used; on this host the same names are
 * provided by platform/ne10_fft_<backend>.cpp on top of KissFFT (default) or FFTW.
 *
 * Contract of this layer:
 *  - ne10_fft_alloc_c2c_float32_neon(n): a plan for n points. n must be at least 1 and have no
 *    prime factor other than 2, 3 and 5 (the sizes a mixed-radix transform handles without
 *    work memory); any other n, or running out of memory, gives NULL. Plans may be allocated
 *    and destroyed from several threads at once.
 *  - ne10_fft_c2c_1d_float32_neon(out, in, cfg, inverse): transform of cfg->nfft points;
 *    inverse 0 is the unscaled forward transform X[k] = sum x[t] e^(-2 pi i t k / N), any other
 *    value the inverse scaled by 1/N, so inverse(forward(x)) = x. Allocates nothing, locks
 *    nothing, needs no alignment, and does nothing when cfg, in or out is NULL. in == out is
 *    allowed (the layer copies through scratch that the plan owns), though the filter never
 *    does it. One plan serves one thread at a time: its scratch is not shared safely.
 *  - With in != out the transform only reads in (KissFFT and FFTW's complex transforms never
 *    write their input), so a caller may keep data there across calls.
 *  - sorn_fft_c2c_inverse_unscaled(out, in, cfg): the inverse without the 1/N scaling, which
 *    this layer applies afterwards as a product with the float 1.0f / N: a caller that needs
 *    only some of the values can scale just those and get the same bits.
 *    These two points are this layer's own (real Ne10 does not make them); code that relies on
 *    them tests SORN_NE10_HOST_LAYER and keeps a path for the real header.
 *  - ne10_fft_destroy_c2c_float32(cfg) releases everything the plan holds; NULL is ignored.
 *    With KissFFT (and real Ne10) a plan is one heap block and this is a plain free(); with
 *    FFTW it also destroys the FFTW plans, so always release plans through this call.
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

#define SORN_NE10_HOST_LAYER 1
void sorn_fft_c2c_inverse_unscaled(ne10_fft_cpx_float32_t *fout, ne10_fft_cpx_float32_t *fin,
                                   ne10_fft_cfg_float32_t cfg);

#ifdef __cplusplus
}
#endif

#endif /* SORN_PLATFORM_NE10_H */
