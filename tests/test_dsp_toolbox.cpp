#include "dsp/dsp_toolbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <tuple>
#include <vector>

namespace {

// Against the true functions over their whole domains; exact where the documented values fall
// on powers of two; out of range, exp saturates above and halves per ln 2 below, log treats 0 as
// the smallest input, and the root is widened above 65535.
TEST(FixedPointFunctions, ExpLogAndSqrtAgainstTheTrueFunctions) {
    const int32_t x[] = {0, 45426, 90852, 181704, 363409}, times[] = {1, 2, 4, 16, 256};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(exp_fixed(x[i]), 65536 * times[i]);
    for (int32_t v = 0; v < 681391; ++v) {
        const double truth = 65536.0 * std::exp(v / 65536.0);
        ASSERT_LT(std::fabs(exp_fixed(v) - truth) / truth, 1e-4) << v;
    }
    for (auto [in, want] : {std::pair{681391, INT_MAX}, {-45426, 32768}, {INT_MIN, 0}}) EXPECT_EQ(exp_fixed(in), want) << in;
    EXPECT_NEAR(exp_fixed(-65536), 65536.0 * std::exp(-1.0), 3.0);
    for (auto [in, want] : {std::pair{65536, 0}, {131072, 45426}, {INT_MAX, 681391}}) EXPECT_EQ(log_fixed(in), want) << in;
    for (int64_t v = 1; v <= INT_MAX; v += (v < (1 << 20)) ? 1 : v / 4099)  // all to 2^20, then geometric
        ASSERT_NEAR(log_fixed(static_cast<int32_t>(v)), 65536.0 * std::log(v / 65536.0), 3.5) << v;
    EXPECT_EQ(log_fixed(0), log_fixed(1));

    for (uint32_t v = 0; v <= 65535; ++v) {
        const uint32_t r = sqrt_fixed(v);
        ASSERT_TRUE(r * r <= v && (r + 1) * (r + 1) > v) << v;
    }
    EXPECT_EQ(sqrt_fixed(65536), 256u);
    EXPECT_EQ(sqrt_fixed(UINT32_MAX), 65535u);
}

TEST(SmoothVolume, FadesInLandsOnTheTargetAndSaturates) {
    smooth_volume_t sv;
    const int n = 2000;
    std::vector<int> in1(n, 1 << 20), in2(n, -(1 << 20)), out1(n), out2(n);
    auto half_way = [&](int num) { /* samples to reach half of the input */
        smooth_volume_init(&sv);
        smooth_volume_set_smooth_buffer_num(&sv, num);
        smooth_volume_process(&sv, in1.data(), in2.data(), out1.data(), out2.data(), n);
        return std::find_if(out1.begin(), out1.end(), [](int v) { return v >= 1 << 19; }) - out1.begin();
    };
    const auto normal = half_way(2);
    EXPECT_EQ(out1[0], 0);
    EXPECT_EQ(out1[1], (1 << 20) / 128); /* the first step covers 1/128 of the way */
    for (int i = 1; i < n; ++i) ASSERT_TRUE(out1[i] >= out1[i - 1] && out2[i] == -out1[i]);
    EXPECT_EQ(out1[n - 1], 1 << 20);
    smooth_volume_set_soft_volume(&sv, 8192 - 40); /* within 128: 1/32 a sample, lands within 32 */
    smooth_volume_process(&sv, in1.data(), in2.data(), out1.data(), out2.data(), 8);
    EXPECT_EQ(sv.current, 8192 - 32);
    smooth_volume_process(&sv, in1.data(), in2.data(), out1.data(), out2.data(), 1);
    EXPECT_EQ(sv.current, 8192);
    EXPECT_LT(half_way(0), normal);
    EXPECT_GT(half_way(4), normal);
    half_way(-10); /* clamped so the shift s - 2 stays defined */
    EXPECT_EQ(sv.smooth_shift, 2);
    smooth_volume_set_volume(&sv, 2048);
    smooth_volume_reset(&sv);
    EXPECT_EQ(sv.current, 6144);
    smooth_volume_set_soft_volume(&sv, 4 * 8192);
    smooth_volume_set_volume(&sv, 4 * 8192);
    int a = 1 << 30, b = INT_MIN;
    smooth_volume_process(&sv, &a, &b, &a, &b, 1);
    EXPECT_TRUE(a == INT_MAX && b == INT_MIN);
}

// Q28 products (tiny ones round toward minus infinity), wrapping sums, and the power with its
// arithmetic part shifts and logical final shift.
TEST(Complex, Q28ArithmeticAndPower) {
    const int one = 1 << 28;
    complex64_t a, b, out;
    auto is = [&](const complex64_t &c, int64_t re, int64_t im) { return c.re == re && c.im == im; };
    complex_init(&a, 0, one);
    complex_mul(&a, &a, &a); /* i * i, written over its operand */
    EXPECT_TRUE(is(a, -one, 0));
    for (auto [ar, ai, br, bi, re, im] : {std::tuple{one / 2, one / 2, one / 2, -one / 2, one / 2, 0}, {-3, 1, 0, 1, -1, -1}}) {
        complex_setvalue(&a, ar, ai), complex_setvalue(&b, br, bi);
        complex_mul(&a, &b, &out);
        EXPECT_TRUE(is(out, re, im)) << ar;
    }
    complex_setvalue(&a, 10, -1);
    complex_setvalue(&b, 3, 4);
    complex_sub(&a, &b, &out);
    EXPECT_TRUE(is(out, 7, -5));
    a.re = INT64_MAX;
    complex_add(&a, &b, &out);
    EXPECT_EQ(out.re, INT64_MIN + 2);
    for (auto [re, im, power] : {std::tuple{int64_t{one}, int64_t{one}, int64_t{1} << 21}, {-(1 << 23), 0, 1024},
                                 {-(int64_t{1} << 44), -(int64_t{1} << 44), int64_t{1} << 53}}) {
        a.re = re, a.im = im;
        EXPECT_EQ(complex_getpower(&a), power) << re;
    }
}

}  // namespace
