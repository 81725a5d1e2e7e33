// FFT FIR filter against a direct convolution, plus the off state, saturation, parameter
// bookkeeping and refused calls. Runs on every FFT backend.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <vector>

#include "dsp/fir.h"
#include "dsp/sorn_hp_effect.h"
#include "tests/support/alloc_counter.h"

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

// A 1024-point float FFT pair errs by about eps * log2(N) of the frame's level; for a full-scale
// 24-bit frame and taps of unit energy that is a few LSB (about 3 measured on both backends).
// 32 LSB (-108 dB) leaves room while any real fault (a wrong sample, tap or bin) costs thousands.
TEST(Fir, DefaultTapsMatchDirectConvolution) {
    orla_earadapt_params_t params{};
    earadapt_params_fill_bypass(&params);
    const std::vector<int> taps(params.coef_left, params.coef_left + ORLA_FIR_TAPS);
    for (SampleRateType rate : {SAMPLE_RATE_TYPE_44K, SAMPLE_RATE_TYPE_48K}) {
        Filter f(taps, rate);
        const std::vector<int> x = noise(f.block * 12, 7), y = f.run(x);
        double worst = 0;
        for (size_t t = 0; t < x.size(); ++t) {
            double acc = 0;
            for (size_t k = 0; k < taps.size() && k <= t; ++k) {
                acc += taps[k] / 8388608.0 * x[t - k];
            }
            worst = std::max(worst, std::abs(y[t] - acc));
        }
        EXPECT_LT(worst, 32.0) << "rate class " << rate;
    }
    Filter dc(taps);  // DC settles to the taps' sum, 8388213 / 2^23
    EXPECT_NEAR(dc.run(std::vector<int>(2400, 1 << 22)).back(), 8388213.0 / 2, 2.0);

    if (sorn_test::AllocCounter::available()) {
        std::vector<int> block(dc.block, 5);
        sorn_test::AllocCounter allocs;
        fir_process(&dc.fir, block.data(), block.data(), dc.block);
        fir_update_param(&dc.fir, ORLA_FIR_TAPS);
        EXPECT_EQ(allocs.count(), 0);
    }
}

TEST(Fir, UnitTapAndOneSampleDelayAcrossBlocks) {
    for (SampleRateType rate : {SAMPLE_RATE_TYPE_44K, SAMPLE_RATE_TYPE_48K, SAMPLE_RATE_TYPE_96K}) {
        Filter unit({8388608}, rate), delay({0, 8388608}, rate);
        const std::vector<int> x = noise(unit.block * 4, 3);
        const std::vector<int> same = unit.run(x), late = delay.run(x);
        for (size_t t = 0; t < x.size(); ++t) {
            ASSERT_NEAR(same[t], x[t], 4) << "rate " << rate << " t " << t;
            ASSERT_NEAR(late[t], t == 0 ? 0 : x[t - 1], 4) << "rate " << rate << " t " << t;
        }
    }
}

TEST(Fir, OffStateLeavesOutputAndHistoryAlone) {
    Filter f({0, 8388608});
    std::vector<int> other(f.block, 2000), out(f.block, -7);
    f.run(std::vector<int>(f.block, 1000));
    fir_set_status(&f.fir, 0);
    fir_process(&f.fir, other.data(), out.data(), f.block);
    EXPECT_EQ(out, std::vector<int>(f.block, -7));
    fir_set_status(&f.fir, 1);
    EXPECT_NEAR(f.run(other)[0], 1000, 1);  // the skipped block never entered the frame
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

TEST(Fir, SetParamReportsChangesAndUpdateClearsHistory) {
    Filter f({0, 8388608});
    std::vector<int> taps(ORLA_FIR_TAPS, 0), got(ORLA_FIR_TAPS, -1);
    taps[1] = 8388608;
    EXPECT_EQ(fir_set_param(&f.fir, ORLA_FIR_TAPS, taps.data()), 0);
    taps[512] = 5;
    EXPECT_EQ(fir_set_param(&f.fir, 0, taps.data()), 0);
    EXPECT_EQ(fir_set_param(&f.fir, ORLA_FIR_TAPS, taps.data()), 1);
    fir_get_param(&f.fir, ORLA_FIR_TAPS, got.data());
    EXPECT_EQ(got, taps);

    f.run(std::vector<int>(f.block, 500));
    fir_update_param(&f.fir, ORLA_FIR_TAPS);
    EXPECT_EQ(f.run(std::vector<int>(f.block, 0))[0], 0);  // the previous block is forgotten
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

    // A size the FFT cannot do leaves a filter that is off, empty and ignores every call.
    fir_end(&f.fir);
    EXPECT_EQ(f.fir.fft_cfg, nullptr);
    fir_init(&f.fir, 1022, 784);
    EXPECT_TRUE(f.fir.fft_cfg == nullptr && f.fir.param == nullptr && f.fir.status == 0);
    fir_set_status(&f.fir, 1);
    fir_update_param(&f.fir, ORLA_FIR_TAPS);
    fir_process(&f.fir, in.data(), out.data(), 240);
    EXPECT_EQ(out, std::vector<int>(kN, -1));
}
