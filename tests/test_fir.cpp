// FFT FIR filter, single-channel and stereo, against a direct convolution and against each
// other, plus the off state, saturation, parameter bookkeeping and refused calls. Runs on every
// FFT backend.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <random>
#include <vector>

#include "dsp/fir.h"
#include "dsp/sorn_hp_effect.h"
#include "dsp/stereo_fir.h"

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

struct Stereo {
    stereo_fir_t fir{};
    int block;
    Stereo(Samples left, Samples right, SampleRateType rate = SAMPLE_RATE_TYPE_48K) {
        stereo_fir_init(&fir, kN, 784);
        stereo_fir_set_sample_rate(&fir, rate);
        block = kN - fir.in_offset;
        left.resize(ORLA_FIR_TAPS), right.resize(ORLA_FIR_TAPS);
        stereo_fir_set_taps(&fir, ORLA_FIR_TAPS, left.data(), right.data());
        fir.status = 1;
    }
    ~Stereo() { stereo_fir_end(&fir); }
    std::pair<Samples, Samples> run(Samples l, Samples r) {  // whole blocks, in place
        for (size_t at = 0; at + block <= l.size(); at += block) stereo_fir_process(&fir, &l[at], &r[at], block);
        return {l, r};
    }
};

double direct_error(const Samples &taps, const Samples &x, const Samples &y) {
    double worst = 0;
    for (size_t t = 0; t < x.size(); ++t) {
        double acc = 0;
        for (size_t k = 0; k < taps.size() && k <= t; ++k) acc += taps[k] / 8388608.0 * x[t - k];
        worst = std::max(worst, std::abs(y[t] - acc));
    }
    return worst;
}

}  // namespace

// Output against a direct convolution in double, for the default taps, a unit tap and a
// one-sample delay, across the block boundaries of every rate class; the stereo filter with the
// same taps on both channels and with each channel's own (the next set on the right). A
// 1024-point float FFT pair errs by about eps * log2(N) of the frame's level; for a full-scale
// 24-bit frame and taps of unit energy that is a few LSB (about 3 measured on both backends).
// 32 LSB (-108 dB) leaves room while any real fault (a wrong sample, tap, bin or channel) costs
// thousands. At a music-like level (noise at -15 dBFS) the stereo filter must also stay as close
// to two single-channel filters as two FFT libraries' builds of the single-channel filter stay
// to each other on the demo program: at most 4 LSB (-126 dBFS), RMS 0.49 LSB (-145 dBFS).
TEST(Fir, MatchesDirectConvolutionForDefaultUnitAndDelayTaps) {
    orla_earadapt_params_t params{};
    earadapt_params_fill_bypass(&params);
    const std::vector<Samples> tap_sets = {{params.coef_left, params.coef_left + ORLA_FIR_TAPS}, {8388608}, {0, 8388608}};
    std::mt19937 gen(7);
    auto noise = [&](size_t n, int level) {
        std::uniform_int_distribution<int> d(-level, level);
        Samples v(n);
        for (int &s : v) s = d(gen);
        return v;
    };
    for (size_t set = 0; set < tap_sets.size(); ++set) {
        const Samples &taps = tap_sets[set], &other = tap_sets[(set + 1) % tap_sets.size()];
        for (SampleRateType rate : {SAMPLE_RATE_TYPE_44K, SAMPLE_RATE_TYPE_48K, SAMPLE_RATE_TYPE_96K}) {
            Filter f(taps, rate);
            const Samples x = noise(f.block * 8, 1 << 23), z = noise(x.size(), 1 << 23);
            EXPECT_LT(direct_error(taps, x, f.run(x)), 32.0) << "set " << set << ", rate class " << rate;
            for (const Samples *right : {&taps, &other}) {
                const bool same = right == &taps;
                Stereo loud(taps, *right, rate);
                EXPECT_EQ(loud.fir.same_taps, same ? 1 : 0);
                const auto [l, r] = loud.run(x, z);
                EXPECT_LT(direct_error(taps, x, l), 32.0) << "set " << set << ", rate class " << rate;
                EXPECT_LT(direct_error(*right, z, r), 32.0) << "set " << set << ", rate class " << rate;

            }
            // Against two single-channel filters, on the default taps and on a second response
            // (the same at three quarters the gain, one sample later) on the right.
            Samples later_taps(taps.size() + 1, 0);
            for (size_t k = 0; k < taps.size(); ++k) later_taps[k + 1] = taps[k] / 4 * 3;
            const Samples &later = later_taps;
            for (const Samples *right : {&taps, &later}) {
                if (set != 0) break;
                Stereo st(taps, *right, rate);
                const Samples xm = noise(x.size(), 1 << 21), zm = noise(x.size(), 1 << 21);
                const auto [l, r] = st.run(xm, zm);
                const Samples ml = Filter(taps, rate).run(xm), mr = Filter(*right, rate).run(zm);
                double worst = 0, square = 0;
                for (size_t t = 0; t < x.size(); ++t) {
                    for (double d : {double(l[t]) - ml[t], double(r[t]) - mr[t]}) worst = std::max(worst, std::abs(d)), square += d * d;
                }
                EXPECT_LE(worst, 4.0) << "rate class " << rate << (right == &taps ? ", same taps" : ", own taps");
                EXPECT_LE(std::sqrt(square / (2.0 * x.size())), 0.49) << "rate class " << rate << (right == &taps ? ", same taps" : ", own taps");
            }
        }
    }
}

// Off: nothing written, the history stays (the skipped block never enters the frame). New taps
// clear the history; no taps give silence; sums saturate; block lengths follow the rate class;
// refused lengths and tap counts beyond N touch nothing outside. The stereo filter's refused
// calls, off state and empty taps likewise.
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

    // The stereo filter: refused lengths, one plane for both channels and the off state touch
    // nothing; no taps give silence on both channels.
    Stereo st({0, 8388608}, {8388608});
    Samples l(kN, 5), r(kN, 6);
    for (int n : {0, 241}) stereo_fir_process(&st.fir, l.data(), r.data(), n);
    stereo_fir_process(&st.fir, l.data(), l.data(), st.block);
    st.fir.status = 0;
    stereo_fir_process(&st.fir, l.data(), r.data(), st.block);
    EXPECT_EQ(l, Samples(kN, 5));
    EXPECT_EQ(r, Samples(kN, 6));
    st.fir.status = 1;
    stereo_fir_set_taps(&st.fir, 0, nullptr, nullptr);
    const auto [quiet_l, quiet_r] = st.run(Samples(st.block, 1000), Samples(st.block, -1000));
    EXPECT_EQ(quiet_l, Samples(st.block, 0));
    EXPECT_EQ(quiet_r, Samples(st.block, 0));
}
