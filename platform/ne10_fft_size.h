/*
 * Shared by the FFT backends behind the Ne10 names: which transform lengths a plan accepts, which
 * calls a transform refuses, and the inverse's 1/N scaling.
 *
 * A length must be at least 1 and factor into 2, 3 and 5 only. Those are the radices a
 * mixed-radix transform runs without work memory, so executing a plan never allocates, and the
 * ones Ne10 transforms correctly.
 *
 * A call that Ne10 computes wrongly is refused here rather than computed correctly, so that code
 * tested on this host cannot come to depend on it: a null plan or array, arrays that partly
 * overlap, and a transform in place (fout == fin) at 2 points or at 256 points and above. The
 * refusal prints what was wrong to stderr and aborts, in every build type: such a call is a bug
 * in the caller, and on a device it would produce wrong audio without any sign.
 */
#ifndef SORN_PLATFORM_NE10_FFT_SIZE_H
#define SORN_PLATFORM_NE10_FFT_SIZE_H

#include <NE10.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace sorn {

constexpr bool fft_size_supported(int32_t n) {
    if (n < 1) return false;
    for (int32_t radix : {2, 3, 5}) {
        while (n % radix == 0) n /= radix;
    }
    return n == 1;
}

/* Whether Ne10 transforms n points correctly with the output written over the input. */
constexpr bool fft_in_place_supported(int32_t n) { return n != 2 && n < 256; }

[[noreturn]] inline void fft_refuse(int32_t n, const char *what, const char *why) {
    std::fprintf(stderr, "ne10_fft_c2c_1d_float32_neon: %d points, %s: refused, %s\n",
                 static_cast<int>(n), what, why);
    std::fflush(stderr);
    std::abort();
}

/* Aborts on a call Ne10 does not compute correctly (see above); returns for every other. */
inline void fft_check_call(const ne10_fft_cpx_float32_t *fout, const ne10_fft_cpx_float32_t *fin,
                           ne10_fft_cfg_float32_t cfg) {
    if (cfg == nullptr || fout == nullptr || fin == nullptr) {
        fft_refuse(cfg != nullptr ? cfg->nfft : 0, "null plan or array", "nothing to transform");
    }
    const int32_t n = cfg->nfft;
    if (fout == fin) {
        if (!fft_in_place_supported(n)) {
            fft_refuse(n, "in place (output array == input array)",
                       "Ne10 computes this size wrongly in place: pass a separate output array");
        }
        return;
    }
    const uintptr_t out = reinterpret_cast<uintptr_t>(fout);
    const uintptr_t in = reinterpret_cast<uintptr_t>(fin);
    const uintptr_t bytes = static_cast<uintptr_t>(n) * sizeof(ne10_fft_cpx_float32_t);
    if (out < in + bytes && in < out + bytes) {
        fft_refuse(n, "input and output arrays partly overlap",
                   "Ne10 computes this wrongly: pass arrays that do not overlap");
    }
}

/* Multiplies n complex values, given as their 2n floats, by `scale`: one plain run of floats,
   which vectorizes. */
inline void fft_scale_complex(void *values, int32_t n, float scale) {
    float *v = static_cast<float *>(values);
    for (size_t k = 0; k < 2 * static_cast<size_t>(n); ++k) v[k] *= scale;
}

}  // namespace sorn

#endif /* SORN_PLATFORM_NE10_FFT_SIZE_H */
