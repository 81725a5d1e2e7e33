#include "dsp/stereo_surround.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "tests/support/log_capture.h"

namespace {

using Plane = std::vector<int>;
using Surround = std::unique_ptr<stereo_surround_t, void (*)(void *)>;

Surround make(int rate, int frequency = 5000, int depth = 20) {
    Surround ss(static_cast<stereo_surround_t *>(stereo_surround_init(rate, 2)), stereo_surround_deinit);
    stereo_surround_set_status(ss.get(), 1);
    stereo_surround_set_parameters(ss.get(), frequency, depth);
    return ss;
}

void run(const Surround &ss, Plane &l, Plane &r) { stereo_surround_process(ss.get(), l.data(), r.data(), int(l.size())); }

// Refused depths and frequencies at or above a quarter of the rate change nothing.
TEST(StereoSurround, RefusedSettingsChangeNothing) {
    sorn_test::LogCapture log;
    Surround ss = make(48000);
    ss->prev_out = 7.0f;
    const stereo_surround_t before = *ss;
    stereo_surround_set_parameters(ss.get(), 5000, 0);
    for (int f : {12000, 36000, INT_MAX}) stereo_surround_set_parameters(ss.get(), f, 20);
    EXPECT_EQ(0, memcmp(&before, ss.get(), sizeof before));
    EXPECT_EQ(log.count("stereo_surround_set_parameters: frequency 12000 unsupported at sample rate 48000", 5, "ORLA_SORN"), 1);
    // Below a quarter in integers, but w rounds up to pi at this rate and tan() turns negative.
    EXPECT_EQ(make(2000000000, 499999999)->configured, 0);
    EXPECT_GT(make(48000, 11999)->a1, -1.0f);  // just below a quarter: stable, accepted
}

// Mid passes, a constant side D settles at left += gain * D, right -= gain * D (unity gain at
// DC), the sums saturate, and silence after loud leaves no subnormal tail.
TEST(StereoSurround, WidensTheSideOnlySaturatesAndDecaysToZero) {
    Surround ss = make(48000);
    const Plane same0 = {0, 12345, -8388608, INT_MAX, INT_MIN};
    Plane same = same0, same_r = same0;
    run(ss, same, same_r);
    EXPECT_EQ(same, same0);
    EXPECT_EQ(same_r, same0);
    Plane l(400, 105000), r(400, 5000);
    run(ss, l, r);
    EXPECT_NEAR(l.back(), 135000, 1);
    EXPECT_EQ(l.back() + r.back(), 110000);
    stereo_surround_reset(ss.get());
    Plane hi = {2147400000, -2146400000}, lo = {2146400000, -2147400000};
    run(ss, hi, lo);
    EXPECT_EQ(hi[0], INT_MAX);  // would wrap negative without saturation
    EXPECT_EQ(lo[1], INT_MIN);

    Surround slow = make(48000, 100);  // pole near 1: the slowest tail
    Plane loud(240, 3000000), quiet(240);
    for (int block = 0; block < 200; ++block) {
        run(slow, loud, quiet);
        loud.assign(240, 0);
        quiet.assign(240, 0);
        ASSERT_NE(std::fpclassify(slow->prev_out), FP_SUBNORMAL) << block;
    }
    EXPECT_EQ(slow->prev_out, 0.0f);
}

}  // namespace
