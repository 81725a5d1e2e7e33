#include "dsp/compressor.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace {

constexpr int kBlock = 240;
using Samples = std::vector<int>;

/* A compressor set up the way the processing chain sets it up at 48 kHz. */
struct ChainCompressor {
    compressor_t c{};
    ChainCompressor() {
        compressor_init(&c, 8192, 2);
        compressor_set_sample_rate(&c, 1);
        compressor_set_volume(&c, 8192);
        compressor_setstatus(&c, 1);
    }
    ~ChainCompressor() { compressor_end(&c); }
    dynamic_range_control_t &d() { return *c.drc_left; }
    /* Runs `l` in place through both channels block by block; returns the left output. */
    Samples run(Samples l) {
        Samples r = l;
        for (size_t i = 0; i < l.size(); i += kBlock) compressor_process(&c, &l[i], &r[i], &l[i], &r[i], kBlock);
        EXPECT_EQ(l, r);
        return l;
    }
    /* One call of the left DRC alone on `in`, of any length. */
    Samples drc(Samples in) {
        Samples out(in.size());
        dynamic_range_control_process(&d(), in.data(), out.data(), int(in.size()));
        return out;
    }
};

/* What the chain does with these settings is decided by the output checksum; here the points
   its program cannot reach: a peak of exactly the threshold is not reduced (one step above it
   is), the gate opens by 1/8 of the distance per sample, and its ratio of a large envelope to a
   large threshold is taken wide. */
TEST(Compressor, ThresholdItselfIsNotReducedGateOpeningAndItsWideRatio) {
    for (int extra : {0, 256}) {
        ChainCompressor fresh;
        Samples in(kBlock, 0);
        in[7] = 30720 * 256 + extra;
        fresh.run(in);
        EXPECT_EQ(fresh.d().gain_history[1], extra ? 126960 : 98304) << extra;
    }
    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    d.gate_gain = 24576, d.avg_env = 100;
    cc.drc({0});
    EXPECT_EQ(d.gate_gain, 24576 + (131072 - 24576) / 8);
    dynamic_range_control_set_denoise_threshold(&d, 1 << 28);
    d.avg_env = 1 << 27;
    for (int i = 0; i < 40; ++i) cc.drc(Samples(kBlock, 1 << 27));
    EXPECT_EQ(d.gate_gain, 65536);  /* half the threshold: a gate of 0.5 */
}

TEST(DynamicRangeControl, EdgesOfTheArithmeticAndTheDelay) {
    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    cc.run(Samples(kBlock * 4, 8304721)); /* zero frames still advance the envelopes */
    const int avg = d.avg_env, peak = d.peak_env, newest = d.gain_history[1];
    int sentinel = 12345;
    dynamic_range_control_process(&d, &sentinel, &sentinel, 0);
    EXPECT_EQ(sentinel, 12345);
    EXPECT_TRUE(d.avg_env == avg + ((0 - avg) >> 5) && d.peak_env == peak - peak / 128);
    EXPECT_TRUE(d.gain_history[0] == newest && d.gain_history[1] != newest);

    audio_delay_set_delay(d.delay, 0);
    d.gate_gain = 131072;
    d.avg_env = 1000;
    d.gain = d.gain_history[0] = d.gain_history[1] = 65536;
    EXPECT_EQ(cc.drc({-1, -2, -3, -4, 1}), (Samples{0, 0, -2, -2, 0})); /* -1 is written as 0 */
    d.gain = d.gain_history[0] = d.gain_history[1] = 131072; /* unity (the chain stops just below) */
    EXPECT_EQ(cc.drc({-1, -2, 5}), (Samples{0, -2, 5}));
    dynamic_range_control_set_volume(&d, 32768); /* gain far above unity: saturates */
    d.threshold = INT_MAX;
    d.gain_history[0] = d.gain_history[1] = 32768 * 16;
    EXPECT_EQ(cc.drc({1 << 30, -(1 << 30)}), (Samples{INT_MAX, INT_MIN}));
    dynamic_range_control_set_threshold(&d, -1); /* acts as 0, never divides by 0 */
    for (int p : {0, 5}) d.peak_env = p, cc.drc({0});
    EXPECT_EQ(d.gain_history[1], 0);

    int mean = -1;
    Samples s = {8304721, -5, INT_MIN, 3};
    EXPECT_EQ(find_current_max_drc(s.data(), &mean, 4), 32440); /* -2^31 never wins */
    EXPECT_EQ(mean, (8304721LL + 5 + 2147483648LL + 3) / 4);
    s.assign(4, INT_MIN);
    find_current_max_drc(s.data(), &mean, 4);
    EXPECT_EQ(mean, INT_MAX); /* 2^31 saturates rather than turning negative */

    const int rates[] = {0, 1, 2, 3, 9}, lengths[] = {440, 480, 960, 1920, 480};
    for (int i = 0; i < 5; ++i) {
        compressor_set_sample_rate(&cc.c, rates[i]);
        EXPECT_EQ(d.delay->length, lengths[i]) << rates[i];
    }
    audio_delay line{};
    audio_delay_init(&line, 4);
    Samples got;
    for (int x = 1; x <= 6; ++x) got.push_back(audio_delay_process(&line, x));
    EXPECT_EQ(got, (Samples{0, 0, 0, 0, 1, 2}));
    audio_delay_end(&line);
    audio_delay_set_delay(d.delay, 1 << 20);
    EXPECT_EQ(d.delay->length, d.delay->capacity);
    audio_delay_reinit(d.delay, -3);
    EXPECT_EQ(d.delay->length, 0);
}

}  // namespace
