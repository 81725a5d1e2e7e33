/*
 * Shared by the FFT backends behind the Ne10 names: which transform lengths a plan accepts, and
 * the inverse's 1/N scaling. A length must be at least 1 and factor into 2, 3 and 5 only. Those
 * are the radices a mixed-radix transform runs without work memory, so executing a plan never
 * allocates.
 */
#ifndef SORN_PLATFORM_NE10_FFT_SIZE_H
#define SORN_PLATFORM_NE10_FFT_SIZE_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace sorn {

constexpr bool fft_size_supported(int32_t n) {
    if (n < 1) return false;
    for (int32_t radix : {2, 3, 5}) {
        while (n % radix == 0) n /= radix;
    }
    return n == 1;
}

/* Multiplies n complex values, given as their 2n floats, by `scale`: one plain run of floats,
   which vectorizes. */
inline void fft_scale_complex(void *values, int32_t n, float scale) {
    float *v = static_cast<float *>(values);
    for (size_t k = 0; k < 2 * static_cast<size_t>(n); ++k) v[k] *= scale;
}

}  // namespace sorn

#endif /* SORN_PLATFORM_NE10_FFT_SIZE_H */
