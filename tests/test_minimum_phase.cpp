// Minimum-phase design: the double FFT, the prototype, shaping by a dB curve, the cepstral
// minimum-phase step, and the default FIR table that it must reproduce bit for bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "design/minimum_phase.h"
#include "platform/sat_math.h"
#include "dsp/sorn_hp_effect.h"

namespace {

using C = std::complex<double>;
constexpr int kTaps = SORN_PROTOTYPE_TAPS;

C twiddle(long t, long k, long n, int sign) {
    return std::polar(1.0, sign * 2 * M_PI * static_cast<double>(t * k % n) / n);
}

C dft_bin(const std::vector<double> &x, int n, int k) {  // real taps, forward transform
    C acc;
    for (size_t t = 0; t < x.size(); ++t) acc += x[t] * twiddle(t, k, n, -1);
    return acc;
}

// Flat to 0.42 fs (bin 430 of 1024) within `ripple` dB, at least 84.9 dB down from bin 441.
void expect_lowpass(const std::vector<double> &x, double ripple) {
    auto gain_db = [&](int k) { return 20 * std::log10(std::abs(dft_bin(x, 1024, k))); };
    for (int k = 0; k <= 430; ++k) ASSERT_LT(std::abs(gain_db(k)), ripple) << k;
    for (int k = 441; k <= 512; ++k) ASSERT_LT(gain_db(k), -84.9) << k;
}

std::vector<double> random_signal(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(2 * static_cast<size_t>(n));
    for (double &x : v) x = u(rng);
    return v;
}

std::vector<double> shaped(std::vector<float> curve, int nout = kTaps) {
    std::vector<double> out(nout, 7.0);
    coef_transform(curve.data(), static_cast<int>(curve.size() * 2), out.data(), nout);
    return out;
}

/* The transform in its plainest form: each index swapped with its bit reversal, then per stage
   the twiddle recurrence in the outer loop and the butterflies strided through the whole
   buffer. The library may order its work differently, but not change a single bit. */
void reference_transform(double *buf, int n, int sign) {
    const long len = 2L * n;
    for (long e = 0; e < n; ++e) {
        long r = 0;
        for (long bit = 1, mirror = n >> 1; bit < n; bit <<= 1, mirror >>= 1)
            if (e & bit) r |= mirror;
        if (e < r) std::swap_ranges(buf + 2 * e, buf + 2 * e + 2, buf + 2 * r);
    }
    for (long le2 = 2; le2 < len; le2 <<= 1) {
        const double arg = 3.141592653589793 / static_cast<double>(le2 >> 1);
        const double wr = std::cos(arg), wi = sign * std::sin(arg);
        double ur = 1.0, ui = 0.0;
        for (long j = 0; j < le2; j += 2) {
            for (long i = j; i < len; i += 2 * le2) {
                double *p1 = buf + i, *p2 = buf + i + le2;
                const double tr = p2[0] * ur - p2[1] * ui;
                const double ti = p2[0] * ui + p2[1] * ur;
                p2[0] = p1[0] - tr;
                p2[1] = p1[1] - ti;
                p1[0] += tr;
                p1[1] += ti;
            }
            const double next_ur = ur * wr - ui * wi;
            ui = ur * wi + ui * wr;
            ur = next_ur;
        }
    }
}

}  // namespace

TEST(QelFft, BitIdenticalToThePlainAlgorithm) {
    for (int n : {2, 4, 64, 1024, 8192}) {
        for (int sign : {-1, 1}) {
            std::vector<double> a = random_signal(n, n + sign), b = a;
            qelFft(a.data(), n, sign);
            reference_transform(b.data(), n, sign);
            ASSERT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * sizeof(double)))
                << "n " << n << " sign " << sign;
        }
    }
}

// Forward against a direct DFT, backward as its unscaled inverse; other sizes are refused.
TEST(QelFft, MatchesDirectDftAndInvertsWithScaling) {
    for (int n : {1, 2, 64, 1024}) {
        const std::vector<double> x = random_signal(n, 11);
        std::vector<double> y = x;
        qelFft(y.data(), n, -1);
        for (int k = 0; k < n; ++k) {
            C want;
            for (int t = 0; t < n; ++t) want += C(x[2 * t], x[2 * t + 1]) * twiddle(t, k, n, -1);
            ASSERT_LT(std::abs(C(y[2 * k], y[2 * k + 1]) - want), 1e-11 * n) << n << " bin " << k;
        }
        qelFft(y.data(), n, +1);
        for (int i = 0; i < 2 * n; ++i) ASSERT_NEAR(y[i] / n, x[i], 1e-13) << n;
    }
    std::vector<double> six(12, 3.0);
    qelFft(six.data(), 6, -1);
    EXPECT_EQ(six, std::vector<double>(12, 3.0));
}

TEST(CoefTransform, PrototypeFlatConstantAndMirroredGains) {
    std::vector<double> p(kTaps);
    minimum_phase_get_prototype(p.data(), kTaps);
    EXPECT_TRUE(p[0] == -2.3e-05 && p[255] == 0.144502 && p[256] == 0.85 && p[257] == 0.144502);
    EXPECT_NEAR(std::accumulate(p.begin(), p.end(), 0.0), 0.999954, 1e-12);  // any wrong entry
    const std::vector<double> flat = shaped(std::vector<float>(512, 0)), six = shaped(std::vector<float>(512, 6));
    for (int i = 0; i < kTaps; ++i) {
        ASSERT_NEAR(flat[i], p[i], 4e-15) << i;
        ASSERT_NEAR(six[i], p[i] * 1.99526231496888, 1e-14) << i;
    }

    // Raising bin k by g adds (g - 1)/n * Re(P[k] e^(2 pi i k t/n) + P[n-1-k] e^(...)): bin
    // n-1-k, not n-k, takes the gain of bin k.
    const int n = 1024, k = 500;
    std::vector<float> curve(512, 0.0f);
    curve[k] = 6.0f;
    const std::vector<double> bump = shaped(curve);
    const C pk = dft_bin(p, n, k), pm = dft_bin(p, n, n - 1 - k);
    for (int t = 0; t < kTaps; ++t) {
        const C change = pk * twiddle(t, k, n, 1) + pm * twiddle(t, n - 1 - k, n, 1);
        ASSERT_NEAR(bump[t] - flat[t], (1.99526231496888 - 1) / n * change.real(), 1e-13) << t;
    }

    EXPECT_EQ(shaped(std::vector<float>(256, 0.0f)), std::vector<double>(kTaps, 7.0));  // n = 512
    EXPECT_EQ(shaped(curve, n + 4)[n], 7.0);  // nothing written past n
}

TEST(Line2mp, DelayedImpulseReferenceTapsAndDefaultTable) {
    std::vector<double> delayed(kTaps, 0.0), wide(SORN_LINE2MP_POINTS + 4, 7.0);
    delayed[10] = 1.0;
    line2mp(delayed.data(), kTaps, wide.data(), SORN_LINE2MP_POINTS + 4);
    for (int t = 0; t < kTaps; ++t) ASSERT_NEAR(wide[t], t == 0 ? 1.0 : 0.0, 1e-12) << t;
    EXPECT_EQ(wide[SORN_LINE2MP_POINTS], 7.0);  // outputs clamped to the transform length

    std::vector<double> mp(kTaps);
    const std::vector<double> linear = shaped(std::vector<float>(512, 0.0f));
    line2mp(linear.data(), kTaps, mp.data(), kTaps);
    const double reference[] = {0.215219023, 0.639084041, 0.373456399, -0.291675003};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(mp[i], reference[i], 1e-9) << i;
    expect_lowpass(mp, 0.0025);  // same magnitude as the prototype, less the cut tail

    orla_earadapt_params_t params{};
    params.enable = 1;
    earadapt_params_fill_bypass(&params);
    EXPECT_EQ(params.enable, 1);
    for (int i = 0; i < kTaps; ++i) {
        ASSERT_EQ(params.coef_left[i], sorn::sat_f2i32(mp[i] * 8388608.0)) << i;
        ASSERT_EQ(params.coef_right[i], params.coef_left[i]) << i;
    }
}
