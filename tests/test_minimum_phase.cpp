// Minimum-phase design: the double FFT bit for bit against its plainest form, shaping by a dB
// curve (the mirrored upper half), and the cepstral step, whose output for the flat curve must
// be the default FIR table bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "design/minimum_phase.h"
#include "dsp/sorn_hp_effect.h"
#include "platform/sat_math.h"

namespace {

using C = std::complex<double>;
constexpr int kTaps = SORN_PROTOTYPE_TAPS;

C twiddle(long t, long k, long n) { return std::polar(1.0, 2 * M_PI * static_cast<double>(t * k % n) / n); }

std::vector<double> shaped(std::vector<float> curve, int nout = kTaps) {
    std::vector<double> out(nout, 7.0);
    coef_transform(curve.data(), static_cast<int>(curve.size() * 2), out.data(), nout);
    return out;
}

/* The transform in its plainest form: each index swapped with its bit reversal, then per stage
   the twiddle recurrence in the outer loop and the butterflies strided through the whole
   buffer. The library may order its work differently, but not change a single bit. */
void reference_transform(double *buf, long n, int sign) {
    for (long e = 0; e < n; ++e) {
        long r = 0;
        for (long bit = 1, mirror = n >> 1; bit < n; bit <<= 1, mirror >>= 1) r |= (e & bit) ? mirror : 0;
        if (e < r) std::swap_ranges(buf + 2 * e, buf + 2 * e + 2, buf + 2 * r);
    }
    for (long le2 = 2; le2 < 2 * n; le2 <<= 1) {
        const double arg = 3.141592653589793 / static_cast<double>(le2 >> 1);
        const double wr = std::cos(arg), wi = sign * std::sin(arg);
        double ur = 1.0, ui = 0.0;
        for (long j = 0; j < le2; j += 2) {
            for (long i = j; i < 2 * n; i += 2 * le2) {
                double *p1 = buf + i, *p2 = buf + i + le2;
                const double tr = p2[0] * ur - p2[1] * ui, ti = p2[0] * ui + p2[1] * ur;
                p2[0] = p1[0] - tr, p2[1] = p1[1] - ti, p1[0] += tr, p1[1] += ti;
            }
            const double next_ur = ur * wr - ui * wi;
            ui = ur * wi + ui * wr, ur = next_ur;
        }
    }
}

}  // namespace

// Both directions at every size the design uses and a few more; a length that is not a power
// of two is refused.
TEST(QelFft, BitIdenticalToThePlainAlgorithm) {
    std::mt19937 rng(3);
    for (int n : {1, 2, 4, 64, 1024, 8192}) {
        for (int sign : {-1, 1}) {
            std::vector<double> a(2 * n);
            for (double &x : a) x = std::ldexp(double(rng()), -31) - 1.0;
            std::vector<double> b = a;
            qelFft(a.data(), n, sign);
            reference_transform(b.data(), n, sign);
            ASSERT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * sizeof(double))) << n << " " << sign;
        }
    }
    std::vector<double> six(12, 3.0);
    qelFft(six.data(), 6, -1);
    EXPECT_EQ(six, std::vector<double>(12, 3.0));
}

// Raising bin k by g adds (g - 1)/n * Re(P[k] e^(2 pi i k t/n) + P[n-1-k] e^(...)): bin n-1-k,
// not n-k, takes the gain of bin k. Transform lengths below 513 are refused, and nothing is
// written past n.
TEST(CoefTransform, MirroredGainsAndRefusals) {
    std::vector<double> p(kTaps);
    minimum_phase_get_prototype(p.data(), kTaps);
    const int n = 1024, k = 500;
    std::vector<float> curve(512, 0.0f);
    curve[k] = 6.0f;
    const std::vector<double> bump = shaped(curve), flat = shaped(std::vector<float>(512, 0));
    auto bin = [&](long m) { C a; for (int t = 0; t < kTaps; ++t) a += p[t] * std::conj(twiddle(t, m, n)); return a; };
    const C pk = bin(k), pm = bin(n - 1 - k);
    for (int t = 0; t < kTaps; ++t) {
        const C change = pk * twiddle(t, k, n) + pm * twiddle(t, n - 1 - k, n);
        ASSERT_NEAR(bump[t] - flat[t], (1.99526231496888 - 1) / n * change.real(), 1e-13) << t;
    }
    EXPECT_EQ(shaped(std::vector<float>(256, 0.0f)), std::vector<double>(kTaps, 7.0));  // n = 512
    EXPECT_EQ(shaped(curve, n + 4)[n], 7.0);
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
    orla_earadapt_params_t params{1, {}, {}};
    earadapt_params_fill_bypass(&params);  // the table, and the enable word left as it was
    EXPECT_EQ(params.enable, 1);
    for (int i = 0; i < kTaps; ++i)
        ASSERT_TRUE(params.coef_left[i] == sorn::sat_f2i32(mp[i] * 8388608.0) && params.coef_right[i] == params.coef_left[i]) << i;
}
