// The complex float FFT behind the Ne10 names, against a direct DFT in double. Runs on every
// FFT backend.
#include <gtest/gtest.h>

#include <NE10.h>

#include <cmath>
#include <complex>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/alloc_counter.h"

namespace {

using Cpx = ne10_fft_cpx_float32_t;

std::vector<Cpx> noise(int n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    std::vector<Cpx> v(n);
    for (Cpx &c : v) c = {d(gen), d(gen)};
    return v;
}

// Forward against a direct DFT, then the inverse back to x. A float FFT errs by about
// eps * log2(n) of the spectrum level (sqrt(n) for this noise); 1e-5 * sqrt(n) is ample and
// still far below a wrong twiddle, sign, index or scale (errors of order 1).
void expect_round_trip(ne10_fft_cfg_float32_t cfg, const std::vector<Cpx> &x, Cpx *in, Cpx *out) {
    const int n = cfg->nfft;
    std::copy(x.begin(), x.end(), in);
    ne10_fft_c2c_1d_float32_neon(out, in, cfg, 0);
    for (int k = 0; k < n; ++k) {
        std::complex<double> want;
        for (int t = 0; t < n; ++t)
            want += std::complex<double>(x[t].r, x[t].i) * std::polar(1.0, -2 * M_PI * static_cast<double>(long{t} * k % n) / n);
        ASSERT_LT(std::abs(std::complex<double>(out[k].r, out[k].i) - want), 1e-5 * std::sqrt(n)) << "n " << n << " bin " << k;
    }
    std::copy(out, out + n, in);
    ne10_fft_c2c_1d_float32_neon(out, in, cfg, 1);
    for (int t = 0; t < n; ++t) ASSERT_LT(std::abs(out[t].r - x[t].r) + std::abs(out[t].i - x[t].i), 1e-5) << n << " " << t;
}

}  // namespace

// Out of place, in place and one float past the allocator's alignment (as a caller's buffer may
// be), for sizes that use every radix (240 = 16 * 3 * 5). Four threads plan and run at once,
// with sizes the others are planning too, so an unserialised planner races.
TEST(Ne10Fft, MatchesDirectDftInEveryBufferLayoutOnSeveralThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int th = 0; th < 4; ++th) {
        threads.emplace_back([th] {
            std::vector<int> sizes = {1, 2, 8, 240, 1024};
            for (int n = 2 + th; n <= 400; n += 4) sizes.push_back(n);
            for (int n : sizes) {
                ne10_fft_cfg_float32_t cfg = ne10_fft_alloc_c2c_float32_neon(n);
                if (cfg == nullptr) continue;  // sizes with other prime factors
                const std::vector<Cpx> x = noise(n, static_cast<unsigned>(n));
                std::vector<Cpx> a(n + 1), b(n + 1);
                expect_round_trip(cfg, x, a.data(), b.data());
                expect_round_trip(cfg, x, a.data(), a.data());
                expect_round_trip(cfg, x, reinterpret_cast<Cpx *>(&a[0].i), reinterpret_cast<Cpx *>(&b[0].i));
                ne10_fft_destroy_c2c_float32(cfg);
            }
        });
    }
    for (std::thread &t : threads) t.join();
}

TEST(Ne10Fft, RefusalsAndNoAllocationWhileRunning) {
    for (int n : {0, -4, 7, 1022}) EXPECT_EQ(ne10_fft_alloc_c2c_float32_neon(n), nullptr) << n;
    ne10_fft_destroy_c2c_float32(nullptr);
    ne10_fft_cfg_float32_t cfg = ne10_fft_alloc_c2c_float32_neon(1024);
    std::vector<Cpx> a = noise(1024, 1), b(1024);
    sorn_test::AllocCounter allocs;
    ne10_fft_c2c_1d_float32_neon(b.data(), a.data(), cfg, 0);
    ne10_fft_c2c_1d_float32_neon(a.data(), a.data(), cfg, 1);
    if (sorn_test::AllocCounter::available()) {
        EXPECT_EQ(allocs.count(), 0);
    }
    ne10_fft_destroy_c2c_float32(cfg);
}
