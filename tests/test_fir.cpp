// FFT FIR filter against a direct convolution, plus the off state, saturation, parameter
// bookkeeping and refused calls. Runs on every FFT backend.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <vector>

#include "dsp/fir.h"
#include "dsp/sorn_hp_effect.h"

namespace {

constexpr int kN = 1024;

struct Filter {
    orla_fir_t fir{};
    int block;
    explicit Filter(std::vector<int> taps, SampleRateType rate = SAMPLE_RATE_TYPE_48K) {
        fir_init(&fir, kN, 784);
        fir_set_sample_rate(&fir, rate);
        block = kN - fir.in_offset;
        taps.resize(ORLA_FIR_TAPS);
        fir_set_param(&fir, ORLA_FIR_TAPS, taps.data());
        fir_update_param(&fir, ORLA_FIR_TAPS);
        fir.status = 1;
    }
    ~Filter() { fir_end(&fir); }
    std::vector<int> run(std::vector<int> x) {  // whole blocks, in place
        for (size_t at = 0; at + block <= x.size(); at += block) {
            fir_process(&fir, &x[at], &x[at], block);
        }
        return x;
    }
};

std::vector<int> noise(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> d(-(1 << 23), 1 << 23);
    std::vector<int> v(n);
    for (int &s : v) s = d(gen);
    return v;
}

}  // namespace

// Output against a direct convolution in double, for the default taps, a unit tap and a
// one-sample delay, across the block boundaries of every rate class. A 1024-point float FFT pair
// errs by about eps * log2(N) of the frame's level; for a full-scale 24-bit frame and taps of
// unit energy that is a few LSB (about 3 measured on both backends). 32 LSB (-108 dB) leaves
// room while any real fault (a wrong sample, tap or bin) costs thousands.
TEST(Fir, MatchesDirectConvolutionForDefaultUnitAndDelayTaps) {
    orla_earadapt_params_t params{};
    earadapt_params_fill_bypass(&params);
    const std::vector<std::vector<int>> tap_sets = {
        {params.coef_left, params.coef_left + ORLA_FIR_TAPS}, {8388608}, {0, 8388608}};
    for (const std::vector<int> &taps : tap_sets) {
        for (SampleRateType rate : {SAMPLE_RATE_TYPE_44K, SAMPLE_RATE_TYPE_48K, SAMPLE_RATE_TYPE_96K}) {
            Filter f(taps, rate);
            const std::vector<int> x = noise(f.block * 8, 7), y = f.run(x);
            double worst = 0;
            for (size_t t = 0; t < x.size(); ++t) {
                double acc = 0;
                for (size_t k = 0; k < taps.size() && k <= t; ++k) acc += taps[k] / 8388608.0 * x[t - k];
                worst = std::max(worst, std::abs(y[t] - acc));
            }
            EXPECT_LT(worst, 32.0) << taps.size() << " taps, rate class " << rate;
        }
    }
}

TEST(Fir, OffStateKeepsTheHistoryAndNewTapsClearIt) {
    Filter f({0, 8388608});
    std::vector<int> other(f.block, 2000), out(f.block, -7);
    f.run(std::vector<int>(f.block, 1000));
    fir_set_status(&f.fir, 0);
    fir_process(&f.fir, other.data(), out.data(), f.block);
    EXPECT_EQ(out, std::vector<int>(f.block, -7));
    fir_set_status(&f.fir, 1);
    EXPECT_NEAR(f.run(other)[0], 1000, 1);  // the skipped block never entered the frame

    std::vector<int> taps(ORLA_FIR_TAPS, 0);
    taps[1] = 8388608;
    EXPECT_EQ(fir_set_param(&f.fir, ORLA_FIR_TAPS, taps.data()), 0);  // the same taps
    taps[512] = 5;
    EXPECT_EQ(fir_set_param(&f.fir, 0, taps.data()), 0);
    EXPECT_EQ(fir_set_param(&f.fir, ORLA_FIR_TAPS, taps.data()), 1);
    fir_update_param(&f.fir, ORLA_FIR_TAPS);
    EXPECT_EQ(f.run(std::vector<int>(f.block, 0))[0], 0);  // the 2000s before are forgotten
}

TEST(Fir, SaturationAndSilence) {
    Filter twice({2 * 8388608});
    std::vector<int> x(twice.block);
    for (int i = 0; i < twice.block; ++i) x[i] = (i % 2) ? INT_MIN : INT_MAX - i;
    const std::vector<int> y = twice.run(x);
    for (int i = 0; i < twice.block; ++i) ASSERT_EQ(y[i], (i % 2) ? INT_MIN : INT_MAX) << i;

    fir_update_param(&twice.fir, 0);  // no taps: silence while on
    EXPECT_EQ(twice.run(x), std::vector<int>(twice.block, 0));
}

TEST(Fir, OffsetsAndRefusedCalls) {
    Filter f({8388608});
    for (auto [rate, offset] : {std::pair{0, 804}, {1, 784}, {2, 544}, {3, 784}, {7, 784}}) {
        fir_set_sample_rate(&f.fir, rate);
        EXPECT_EQ(f.fir.in_offset, offset) << "rate class " << rate;
    }
    fir_set_sample_rate(&f.fir, SAMPLE_RATE_TYPE_48K);
    std::vector<int> in(kN, 9), out(kN, -1);
    for (int n : {0, -3, 241}) fir_process(&f.fir, in.data(), out.data(), n);
    EXPECT_EQ(out, std::vector<int>(kN, -1));

    // Tap counts beyond N are clamped: N taps stored, nothing written past N.
    std::vector<int> many(kN + 8, 3), got(kN + 8, -1);
    EXPECT_EQ(fir_set_param(&f.fir, kN + 8, many.data()), 1);
    fir_get_param(&f.fir, kN + 8, got.data());
    EXPECT_EQ(got[kN - 1], 3);
    EXPECT_EQ(got[kN], -1);
}
