#include "dsp/stereo_surround.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <cmath>
#include <vector>

#include "tests/support/log_capture.h"

namespace {

struct Surround {
    stereo_surround_t *ss;
    explicit Surround(int rate, int frequency = 5000, int depth = 20)
        : ss(static_cast<stereo_surround_t *>(stereo_surround_init(rate, 2))) {
        stereo_surround_set_status(ss, 1);
        stereo_surround_set_parameters(ss, frequency, depth);
    }
    ~Surround() { stereo_surround_deinit(ss); }
    void run(std::vector<int> &l, std::vector<int> &r) {
        stereo_surround_process(ss, l.data(), r.data(), static_cast<int>(l.size()));
    }
};

TEST(StereoSurroundDesign, CoefficientsAtTheChainRates) {
    struct Row { int rate; double k, b0, a1; } rows[] = {{44100, 0.863674, 0.463426, 0.073149},
                                                         {48000, 0.767327, 0.434174, 0.131653}};
    for (const Row &row : rows) {
        Surround s(row.rate);
        EXPECT_NEAR(s.ss->b0 / (1.0 - s.ss->b0), row.k, 2e-6) << row.rate;  // b0 = K / (1 + K)
        EXPECT_NEAR(s.ss->b0, row.b0, 1e-6) << row.rate;
        EXPECT_NEAR(s.ss->a1, row.a1, 1e-6) << row.rate;
        EXPECT_FLOAT_EQ(s.ss->gain, 0.3f);
        EXPECT_EQ(s.ss->configured, 1);
    }
}

TEST(StereoSurroundDesign, RefusedPairsKeepEverything) {
    sorn_test::LogCapture log;
    Surround s(48000);
    s.ss->prev_out = 7.0f;
    const stereo_surround_t before = *s.ss;
    stereo_surround_set_parameters(s.ss, 5000, 0);
    stereo_surround_set_parameters(s.ss, 0, 20);
    for (int f : {12000, 12001, 23999, 36000, 2000000000}) stereo_surround_set_parameters(s.ss, f, 20);
    EXPECT_EQ(0, memcmp(&before, s.ss, sizeof before));
    EXPECT_EQ(log.count("stereo_surround_set_parameters: frequency 12000 unsupported at sample rate 48000",
                        5, "ORLA_SORN"), 1);
    stereo_surround_set_parameters(s.ss, 11999, 20);  // just below a quarter: stable, accepted
    EXPECT_GT(s.ss->a1, -1.0f);
    EXPECT_LT(s.ss->b0, 1.0f);
    // Below a quarter in integers, but at this rate w rounds up to pi and tan() turns negative.
    Surround huge(2000000000, 499999999);
    EXPECT_EQ(huge.ss->configured, 0);

    EXPECT_EQ(stereo_surround_init(48000, 1), nullptr);
    EXPECT_EQ(log.count("stereo_surround_init: chnnum 1 unsupported, need to be stereo",
                        6, "ORLA_SORN"), 1);
}

TEST(StereoSurroundProcess, PassesThroughUntilConfiguredAndOn) {
    std::vector<int> l = {100, -5000, 70000}, r = {90, 4000, -1};
    const std::vector<int> l0 = l, r0 = r;
    void *fresh = stereo_surround_init(48000, 2);
    stereo_surround_set_status(fresh, 1);  // on, but no accepted pair yet
    stereo_surround_set_parameters(fresh, 5000, 0);
    stereo_surround_process(fresh, l.data(), r.data(), 3);
    EXPECT_EQ(l, l0);
    EXPECT_EQ(r, r0);
    stereo_surround_deinit(fresh);

    Surround s(48000);
    s.run(l, r);
    const stereo_surround_t mem = *s.ss;
    std::vector<int> l1 = l, r1 = r;
    stereo_surround_process(s.ss, l.data(), r.data(), 0);  // zero frames: nothing moves
    EXPECT_EQ(0, memcmp(&mem, s.ss, sizeof mem));
    stereo_surround_set_status(s.ss, 0);                   // off: bypassed, memory kept
    s.run(l, r);
    EXPECT_EQ(l, l1);
    EXPECT_EQ(r, r1);
    EXPECT_EQ(s.ss->prev_out, mem.prev_out);
}

TEST(StereoSurroundProcess, MidUntouchedSideWidenedBySaturatingGain) {
    Surround s(48000);
    std::vector<int> same = {0, 12345, -8388608, INT_MAX, INT_MIN}, same_r = same;
    s.run(same, same_r);
    EXPECT_EQ(same, (std::vector<int>{0, 12345, -8388608, INT_MAX, INT_MIN}));
    EXPECT_EQ(same_r, same);

    // A constant side D settles at left += gain * D, right -= gain * D (unity gain at DC).
    std::vector<int> l(400, 105000), r(400, 5000);
    s.run(l, r);
    EXPECT_NEAR(l.back(), 135000, 1);
    EXPECT_NEAR(r.back(), -25000, 1);
    EXPECT_EQ(l.back() + r.back(), 110000);

    stereo_surround_reset(s.ss);
    std::vector<int> hi = {2147400000, -2146400000}, lo = {2146400000, -2147400000};
    s.run(hi, lo);
    EXPECT_EQ(hi[0], INT_MAX);  // would wrap negative without saturation
    EXPECT_EQ(lo[1], INT_MIN);
}

TEST(StereoSurroundProcess, SilenceAfterLoudLeavesNoSubnormalTail) {
    Surround s(48000, 100, 20);  // pole near 1: the slowest tail
    Surround fresh(48000, 100, 20);
    std::vector<int> l(240, 3000000), r(240);
    s.run(l, r);
    std::vector<int> zl, zr;
    for (int block = 0; block < 200; ++block) {
        zl.assign(240, 0);
        zr.assign(240, 0);
        s.run(zl, zr);
        ASSERT_NE(std::fpclassify(s.ss->prev_out), FP_SUBNORMAL) << block;
    }
    EXPECT_EQ(s.ss->prev_out, 0.0f);
    EXPECT_EQ(zl, std::vector<int>(240));
    // With the tail gone the state equals a fresh one, so audio resumes exactly alike.
    std::vector<int> a(240, 777), b(240, -3), c = a, d = b;
    s.run(a, b);
    fresh.run(c, d);
    EXPECT_EQ(a, c);
    EXPECT_EQ(b, d);
}

}  // namespace
