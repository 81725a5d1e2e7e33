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
using Samples = std::vector<int>;

struct Filter {
    orla_fir_t fir{};
    int block;
    explicit Filter(Samples taps, SampleRateType rate = SAMPLE_RATE_TYPE_48K) {
        fir_init(&fir, kN, 784);
        fir_set_sample_rate(&fir, rate);
        block = kN - fir.in_offset;
        taps.resize(ORLA_FIR_TAPS);
        fir_set_param(&fir, ORLA_FIR_TAPS, taps.data());
        fir_update_param(&fir, ORLA_FIR_TAPS);
        fir.status = 1;
    }
    ~Filter() { fir_end(&fir); }
    Samples run(Samples x) {  // whole blocks, in place
        for (size_t at = 0; at + block <= x.size(); at += block) fir_process(&fir, &x[at], &x[at], block);
        return x;
    }
};

}  // namespace

// Output against a direct convolution in double, for the default taps, a unit tap and a
// one-sample delay, across the block boundaries of every rate class. A 1024-point float FFT pair
// errs by about eps * log2(N) of the frame's level; for a full-scale 24-bit frame and taps of
// unit energy that is a few LSB (about 3 measured on both backends). 32 LSB (-108 dB) leaves
// room while any real fault (a wrong sample, tap or bin) costs thousands.
TEST(Fir, MatchesDirectConvolutionForDefaultUnitAndDelayTaps) {
    orla_earadapt_params_t params{};
    earadapt_params_fill_bypass(&params);
    const std::vector<Samples> tap_sets = {{params.coef_left, params.coef_left + ORLA_FIR_TAPS}, {8388608}, {0, 8388608}};
    std::mt19937 gen(7);
    std::uniform_int_distribution<int> noise(-(1 << 23), 1 << 23);
    for (const Samples &taps : tap_sets) {
        for (SampleRateType rate : {SAMPLE_RATE_TYPE_44K, SAMPLE_RATE_TYPE_48K, SAMPLE_RATE_TYPE_96K}) {
            Filter f(taps, rate);
            Samples x(f.block * 8);
            for (int &s : x) s = noise(gen);
            const Samples y = f.run(x);
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

// Off: nothing written, the history stays (the skipped block never enters the frame). New taps
// clear the history; no taps give silence; sums saturate; block lengths follow the rate class;
// refused lengths and tap counts beyond N touch nothing outside.
TEST(Fir, OffStateTapUpdatesSaturationAndRefusedCalls) {
    Filter f({0, 8388608});
    Samples other(f.block, 2000), out(f.block, -7);
    f.run(Samples(f.block, 1000));
    fir_set_status(&f.fir, 0);
    fir_process(&f.fir, other.data(), out.data(), f.block);
    EXPECT_EQ(out, Samples(f.block, -7));
    fir_set_status(&f.fir, 1);
    EXPECT_NEAR(f.run(other)[0], 1000, 1);
    Samples taps(ORLA_FIR_TAPS, 0);
    taps[1] = 8388608;
    EXPECT_EQ(fir_set_param(&f.fir, ORLA_FIR_TAPS, taps.data()), 0);  // the same taps
    taps[0] = 2 * 8388608;
    EXPECT_EQ(fir_set_param(&f.fir, 0, taps.data()), 0);
    EXPECT_EQ(fir_set_param(&f.fir, ORLA_FIR_TAPS, taps.data()), 1);
    fir_update_param(&f.fir, ORLA_FIR_TAPS);
    EXPECT_EQ(f.run(Samples(f.block, 0))[0], 0);  // the 2000s before are forgotten
    fir_update_param(&f.fir, 1);  // gain 2 on the newest sample alone
    Samples x(f.block);
    for (int i = 0; i < f.block; ++i) x[i] = (i % 2) ? INT_MIN : INT_MAX - i;
    const Samples y = f.run(x);
    for (int i = 0; i < f.block; ++i) ASSERT_EQ(y[i], (i % 2) ? INT_MIN : INT_MAX) << i;
    fir_update_param(&f.fir, 0);
    EXPECT_EQ(f.run(x), Samples(f.block, 0));

    for (auto [rate, offset] : {std::pair{0, 804}, {1, 784}, {2, 544}, {3, 784}, {7, 784}}) {
        fir_set_sample_rate(&f.fir, rate);
        EXPECT_EQ(f.fir.in_offset, offset) << "rate class " << rate;
    }
    fir_set_sample_rate(&f.fir, SAMPLE_RATE_TYPE_48K);
    Samples in(kN, 9), untouched(kN, -1);
    for (int n : {0, -3, 241}) fir_process(&f.fir, in.data(), untouched.data(), n);
    EXPECT_EQ(untouched, Samples(kN, -1));
    Samples many(kN + 8, 3), got(kN + 8, -1);
    EXPECT_EQ(fir_set_param(&f.fir, kN + 8, many.data()), 1);
    fir_get_param(&f.fir, kN + 8, got.data());
    EXPECT_EQ(got[kN - 1], 3);
    EXPECT_EQ(got[kN], -1);
}
