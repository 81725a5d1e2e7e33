// The complex float FFT behind the Ne10 names, against a direct DFT in double. The cases ask only
// what Ne10 itself computes correctly (out of place at sizes of radices 2, 3, 4 and 5, in place at
// the sizes where Ne10 gets it right, the 1/N-scaled inverse, NULL for 1022 points), so they pass
// on every backend, real Ne10 included. The host layer's refusals of what Ne10 gets wrong are
// checked only on the host backends.
#include <gtest/gtest.h>

#include <NE10.h>

#include <cmath>
#include <complex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/ne10_fft_size.h"
#include "tests/support/alloc_counter.h"

namespace {

using Cpx = ne10_fft_cpx_float32_t;

constexpr bool kHostLayer = std::string_view(SORN_FFT_BACKEND_NAME) != "ne10";

std::vector<Cpx> noise(int n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    std::vector<Cpx> v(n);
    for (Cpx &c : v) c = {d(gen), d(gen)};
    return v;
}

// Forward against a direct DFT, then the inverse back to x. A float FFT errs by about
// eps * log2(n) of the spectrum level (sqrt(n) for this noise); 1e-5 * sqrt(n) is ample and
// still far below a wrong twiddle, sign, index or scale (errors of order 1). With in == out the
// transforms run in place; otherwise in is refilled before each, as its contents afterwards are
// not promised.
void expect_round_trip(ne10_fft_cfg_float32_t cfg, const std::vector<Cpx> &x, Cpx *in, Cpx *out) {
    const int n = cfg->nfft;
    std::copy(x.begin(), x.end(), in);
    ne10_fft_c2c_1d_float32_neon(out, in, cfg, 0);
    std::vector<Cpx> spectrum(out, out + n);
    for (int k = 0; k < n; ++k) {
        std::complex<double> want;
        for (int t = 0; t < n; ++t)
            want += std::complex<double>(x[t].r, x[t].i) * std::polar(1.0, -2 * M_PI * static_cast<double>(long{t} * k % n) / n);
        ASSERT_LT(std::abs(std::complex<double>(spectrum[k].r, spectrum[k].i) - want), 1e-5 * std::sqrt(n)) << "n " << n << " bin " << k;
    }
    std::copy(spectrum.begin(), spectrum.end(), in);
    ne10_fft_c2c_1d_float32_neon(out, in, cfg, 1);
    for (int t = 0; t < n; ++t) ASSERT_LT(std::abs(out[t].r - x[t].r) + std::abs(out[t].i - x[t].i), 1e-5) << n << " " << t;
}

}  // namespace

// Out of place for sizes that use every radix (240 = 16 * 3 * 5), also with both arrays one float
// past the allocator's alignment (as a caller's arrays may be); in place at the sizes Ne10
// transforms in place correctly. Four threads plan and run at once, with sizes the others are
// planning too, so an unserialised planner races.
TEST(Ne10Fft, MatchesDirectDftOutOfPlaceAndWhereNe10AllowsInPlaceOnSeveralThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int th = 0; th < 4; ++th) {
        threads.emplace_back([th] {
            std::vector<int> sizes = {1, 2, 8, 16, 240, 256, 1024};
            for (int n = 2 + th; n <= 400; n += 4) {
                if (sorn::fft_size_supported(n)) sizes.push_back(n);
            }
            for (int n : sizes) {
                ne10_fft_cfg_float32_t cfg = ne10_fft_alloc_c2c_float32_neon(n);
                ASSERT_NE(cfg, nullptr) << n;
                const std::vector<Cpx> x = noise(n, static_cast<unsigned>(n));
                std::vector<Cpx> a(n + 1), b(n + 1);
                expect_round_trip(cfg, x, a.data(), b.data());
                expect_round_trip(cfg, x, reinterpret_cast<Cpx *>(&a[0].i), reinterpret_cast<Cpx *>(&b[0].i));
                if (n == 1 || n == 8 || n == 16 || n == 240) expect_round_trip(cfg, x, a.data(), a.data());
                ne10_fft_destroy_c2c_float32(cfg);
            }
        });
    }
    for (std::thread &t : threads) t.join();
}

// Sizes with a prime factor above 5 give no plan (the host layer refuses every one; Ne10 itself
// only some, such as 1022). Running a plan allocates nothing.
TEST(Ne10Fft, RefusedSizesAndNoAllocationWhileRunning) {
    EXPECT_EQ(ne10_fft_alloc_c2c_float32_neon(1022), nullptr);
    if (kHostLayer) {
        for (int n : {0, -4, 7, 1021, 1024 * 7}) EXPECT_EQ(ne10_fft_alloc_c2c_float32_neon(n), nullptr) << n;
    }
    ne10_fft_destroy_c2c_float32(nullptr);
    ne10_fft_cfg_float32_t cfg = ne10_fft_alloc_c2c_float32_neon(1024);
    std::vector<Cpx> a = noise(1024, 1), b(1024);
    sorn_test::AllocCounter allocs;
    ne10_fft_c2c_1d_float32_neon(b.data(), a.data(), cfg, 0);
    ne10_fft_c2c_1d_float32_neon(a.data(), b.data(), cfg, 1);
    if (sorn_test::AllocCounter::available()) {
        EXPECT_EQ(allocs.count(), 0);
    }
    ne10_fft_destroy_c2c_float32(cfg);
}

// What Ne10 computes wrongly, the host layer refuses with a message and an abort, whatever the
// build type: in place at 2 points and from 256 points on, partly overlapping arrays, a null
// plan or array.
TEST(Ne10FftDeathTest, HostLayerAbortsOnCallsNe10ComputesWrongly) {
    if (!kHostLayer) GTEST_SKIP() << "refusals of the host layer";
    for (int n : {2, 256, 1024}) {
        ne10_fft_cfg_float32_t cfg = ne10_fft_alloc_c2c_float32_neon(n);
        std::vector<Cpx> a = noise(n + 1, 2);
        for (int inverse : {0, 1}) {
            EXPECT_DEATH(ne10_fft_c2c_1d_float32_neon(a.data(), a.data(), cfg, inverse),
                         "ne10_fft_c2c_1d_float32_neon: " + std::to_string(n) + " points, in place")
                << n;
        }
        EXPECT_DEATH(ne10_fft_c2c_1d_float32_neon(a.data() + 1, a.data(), cfg, 0), "partly overlap") << n;
        EXPECT_DEATH(ne10_fft_c2c_1d_float32_neon(a.data(), a.data() + 1, cfg, 1), "partly overlap") << n;
        EXPECT_DEATH(ne10_fft_c2c_1d_float32_neon(a.data(), nullptr, cfg, 0), "null plan or array") << n;
        ne10_fft_destroy_c2c_float32(cfg);
    }
    std::vector<Cpx> a(8), b(8);
    EXPECT_DEATH(ne10_fft_c2c_1d_float32_neon(b.data(), a.data(), nullptr, 0), "null plan or array");
}
