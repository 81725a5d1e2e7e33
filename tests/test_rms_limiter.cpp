#include "dsp/rms_limiter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace {

using Plane = std::vector<int>;
using Param = sa6_dynamic_processor_param_t;
constexpr int kBlock = 240;

std::string stdout_of(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

/* Curve threshold -20 dB, ratio 4, knee width 10 dB; instant detector and ramps, no holds:
   one block shows the gain the curve asks for. */
Param instant(int type) { return {1, type, -20, 4, 0, 0, 0, 0, 0, 0, -100, 100, 0, 0.25f}; }

sa6_dynamic_processor_t processor(Param p) {
    sa6_dynamic_processor_t st;
    sa6_dynamic_processor_init_f(&st);
    stdout_of([&] { sa6_dynamic_processor_set_param_f(&st, &p); });
    return st;
}

// The chain's limiter: unity gain moves samples one step toward zero (the way back scales by
// 2^23 - 1), the same on both planes. Its dynamics are decided by the output checksum.
TEST(RmsLimiter, RefusesMonoAndMovesSamplesOneStepTowardZeroAtUnityGain) {
    sorn_test::LogCapture log;
    EXPECT_EQ(rms_limiter_init(48000, 1), nullptr);
    EXPECT_EQ(log.count("rms_limiter_init: chnnum 1 unsupported, need to be stereo", 6, "ORLA_SORN"), 1);
    void *lim = nullptr;
    stdout_of([&] { lim = rms_limiter_init(48000, 2); });
    Plane l = {1000, -1000, 1, -1, 8388608, -8388608, 0, 5000000};
    l.resize(kBlock);
    Plane r = l;
    rms_limiter_process(lim, l.data(), r.data(), kBlock);
    EXPECT_EQ(l, r);
    EXPECT_EQ(Plane(l.begin(), l.begin() + 8), (Plane{999, -999, 0, 0, 8388607, -8388607, 0, 4999999}));
    rms_limiter_deinit(lim);
}

TEST(DynamicProcessor, ConfigurationAndItsStatusLines) {
    sa6_dynamic_processor_t st;
    sa6_dynamic_processor_init_f(&st);
    Param p = {7, 3, -13, 10, 2000, 2000, 1000, 100, 1000, 100, -9, 0, 0, 0.2f};
    EXPECT_EQ(stdout_of([&] { sa6_dynamic_processor_set_param_f(&st, &p); }),
              "[SA6_SBS]sa6_dynamic_processor_set_param_f:enable_flag is 7\n");
    int32_t q[14] = {1, 4, -425984, 131072, 3276800, 6553600, 32768, 0, 65536, 16384, -24576, 8192, 4096, 6554};
    EXPECT_TRUE(stdout_of([&] { sa6_dynamic_processor_set_param_acdb_f(&st, q); })
                    .starts_with("[SA6_SBS]sa6_dynamic_processor_set_param_acdb_f:enable_flag "
                                 "is 1\n[SA6_SBS]type:4 threshold:-13.000000 ratio:4.000000 "));
    EXPECT_EQ(st.gain_min, -3.0f);  // Q13, the times and levels Q15
}

/* The gain curve in dB, evaluated straight from its definition. */
double curve_db(int type, double L, double T, double R, double W) {
    const double u = L - T, up = (u + W / 2) * (u + W / 2), down = (u - W / 2) * (u - W / 2);
    if (type == 3 || type == 4) return 2 * u > W ? T + u / R - L : 2 * u > -W ? (1 / R - 1) * up / (2 * W) : 0;
    if (type == 1 || type == 2) return 2 * u <= -W ? T + u / R - L : 2 * u <= W ? (1 - 1 / R) * down / (2 * W) : 0;
    return 2 * u > W ? T - L : 2 * u > -W ? -up / (2 * W) : 0;
}

// Every kind of curve, open and crossed limits (gain_min wins), blocks of any length: the
// detected level, the gain and every output against the definitions, nothing written past n.
TEST(DynamicProcessor, GainFollowsTheCurveOfEveryKindForAnyBlockLength) {
    int n = 0;
    for (int type : {0, 1, 2, 3, 4, 9}) {
        for (auto [lo, hi] : {std::pair{-100.0, 100.0}, {-3.0, -6.0}}) {
            for (double level_db : {-40.0, -27.0, -23.0, -19.0, -16.0, -12.0, -3.0}) {
                Param p = instant(type);
                p.gain_makeup = 1.5f;
                p.gain_min = float(lo), p.gain_max = float(hi);
                sa6_dynamic_processor_t st = processor(p);
                n = n % 9 + 1;
                const float a = static_cast<float>(pow(10.0, level_db / 20));
                std::vector<float> x(n + 1, 0.0f);
                double sum = 0;
                for (int i = 0; i < n; i += 2) x[i] = a, sum += double(a) * a;
                x[n] = 123.0f;
                sa6_dynamic_processor_process_f(&st, x.data(), x.data(), n);
                const double level = (type == 1 || type == 3) ? sqrt(sum / n) : a;
                ASSERT_NEAR(st.det_level, level, level * 1e-6);
                const double g_db = std::max(std::min(curve_db(type, 20 * log10(level), -20, 4, 10), hi), lo);
                const double g = pow(10.0, (g_db + 1.5) / 20);
                EXPECT_NEAR(st.gain_current, g, g * 2e-5) << type << " at " << level_db << ", " << lo;
                for (int i = 0; i < n; ++i) ASSERT_EQ(x[i], i % 2 ? 0.0f : a * st.gain_current);
                EXPECT_EQ(x[n], 123.0f);
                float peak, rms;
                sa6_dynamic_processor_find_current_max_f(x.data(), &peak, &rms, n);
                EXPECT_TRUE(peak == x[0] && std::abs(rms - sqrt(sum / n) * st.gain_current) < 1e-6 * a) << n;
            }
        }
    }
}

// A ramp ends on its target and stays there (the chain's ramps never get that far in a block).
TEST(DynamicProcessor, ARampStopsOnItsTarget) {
    Param p = instant(3);
    p.gain_attack = 1;  // 48 samples
    sa6_dynamic_processor_t st = processor(p);
    std::vector<float> x(100, 0.5f);
    sa6_dynamic_processor_process_f(&st, x.data(), x.data(), 100);
    EXPECT_NEAR(st.gain_current, pow(10.0, curve_db(3, 20 * log10(0.5), -20, 4, 10) / 20), 1e-6);
    EXPECT_EQ(x[99], x[60]);
    EXPECT_GT(x[20], x[60]);
}

TEST(DynamicProcessor, DivisorsNeverYieldAnInfiniteGain) {
    sorn_test::LogCapture log;
    sa6_dynamic_processor_t st = processor(instant(3));
    const sa6_dynamic_processor_t before = st;
    for (float ratio : {0.0f, -2.0f, NAN}) {
        Param p = instant(1);
        p.ratio = ratio;
        EXPECT_EQ(stdout_of([&] { sa6_dynamic_processor_set_param_f(&st, &p); }), "");
    }
    EXPECT_EQ(0, memcmp(&before, &st, sizeof st));  // refused whole
    EXPECT_EQ(log.count_containing("unsupported, parameters unchanged"), 3);
    for (int type : {0, 1, 3}) {
        for (float knee : {0.0f, -1.0f}) {  // zero and negative knees, ramp and detector times
            Param p = instant(type);
            p.knee = p.det_attack = p.det_release = knee;
            p.gain_attack = p.gain_release = 5 * knee;
            st = processor(p);
            EXPECT_EQ(st.knee_width, 0.0f);
            for (float a : {1e-7f, 0.05f, 0.1f, 0.2f, 3.0f, 0.0f}) {
                std::vector<float> x(8, a);
                sa6_dynamic_processor_process_f(&st, x.data(), x.data(), 8);
                ASSERT_TRUE(std::isfinite(st.gain_current) && st.gain_current > 0) << type << a;
                ASSERT_TRUE(st.det_level > 0.0f && st.det_level <= 20.0f);  // within the clamps
                for (float v : x) ASSERT_TRUE(std::isfinite(v));
            }
        }
    }
}

}  // namespace
