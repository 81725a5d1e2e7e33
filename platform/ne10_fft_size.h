/*
 * Shared by the FFT backends behind the Ne10 names: which transform lengths a plan accepts.
 * A length must be at least 1 and factor into 2, 3 and 5 only. Those are the radices a
 * mixed-radix transform runs without work memory, so executing a plan never allocates.
 */
#ifndef SORN_PLATFORM_NE10_FFT_SIZE_H
#define SORN_PLATFORM_NE10_FFT_SIZE_H

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

}  // namespace sorn

#endif /* SORN_PLATFORM_NE10_FFT_SIZE_H */
