#include "dsp/compressor.h"

#include <gtest/gtest.h>

#include <algorithm>
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

/* The per-sample gain with B held constant by the history and a unity gate: the delay is
   bypassed, so each output of an input of 2^17 is the gain itself. */
Samples gain_trace(int from, int b, int volume, int n) {
    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    audio_delay_set_delay(d.delay, 0);
    d.gain = from;
    d.volume = volume; /* keeps this block's own target at or above B */
    d.gate_gain = d.avg_env = 131072;
    d.gain_history[0] = d.gain_history[1] = b;
    return cc.drc(Samples(n, 131072));
}

TEST(Compressor, SilentForTwoBlocksFadesInSettlesAndReducesLoudAudioBeforeItLeaves) {
    ChainCompressor cc;
    const Samples out = cc.run(Samples(kBlock * 80, 838860)); /* 0.1 of full scale */
    for (int i = 0; i < 480; ++i) ASSERT_EQ(out[i], 0) << i;
    EXPECT_TRUE(out[480] > 0 && out[480] < 838860 * 3 / 4);
    for (size_t i = 481; i < out.size(); ++i) ASSERT_GE(out[i], out[i - 1]) << i;
    /* The volume step halves toward 8192 in Q13 and stops at 8191: gain 131056. */
    EXPECT_EQ(cc.d().gain, 131056);
    EXPECT_EQ(out.back(), (838860LL * 131056) >> 17);
    /* Worked example: peak 8304721 -> level 32440 -> target 120224, lowering the gain in the
       very block it arrives in. */
    const Samples loud(kBlock, 8304721);
    cc.run(loud);
    EXPECT_EQ(cc.d().gain_history[1], 120224);
    EXPECT_EQ(cc.d().gain, 120224);
    cc.run(loud);
    EXPECT_EQ(cc.run(loud)[0], (8304721LL * 120224) >> 17); /* 0.908 of full scale */
    /* A level of exactly the threshold is not reduced; one step above it is. */
    for (int extra : {0, 256}) {
        ChainCompressor fresh;
        Samples in(kBlock, 0);
        in[7] = 30720 * 256 + extra;
        fresh.run(in);
        EXPECT_EQ(fresh.d().gain_history[1], extra ? 126960 : 98304) << extra;
    }
}

TEST(Compressor, GainSmoothingFollowsTheShiftTables) {
    const struct { int from, b, volume, samples; } counts[] = {
        {131072, 65536, 8192, 957}, {131072, 120224, 8192, 119},
        {65536, 131072, 16384, 2558}, {120224, 131072, 16384, 376}};
    for (const auto &c : counts) {
        const Samples g = gain_trace(c.from, c.b, c.volume, 4000);
        EXPECT_EQ(std::find(g.begin(), g.end(), c.b) - g.begin() + 1, c.samples);
    }
    /* At low gains the table term sets the first step. Release shifts 6..11 over distances
       1000..32000 all give 15; attack shifts 5, 6, 8, 9, 10 (there is no 7). */
    for (int d : {1000, 2000, 4000, 8000, 16000, 32000}) EXPECT_EQ(gain_trace(1000, 1000 + d, 8192, 1)[0], 1015) << d;
    const int attack[] = {1000, 2000, 4000, 8000, 16000}, step[] = {31, 31, 15, 15, 15};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(gain_trace(1000 + attack[i], 1000, 8192, 1)[0], 1000 + attack[i] - step[i]);
}

TEST(Compressor, GateActsOnDigitalSilenceOnly) {
    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    cc.run(Samples(kBlock * 40, 0));
    EXPECT_EQ(d.gate_gain, 1536 * 16);
    cc.run(Samples(kBlock * 4, 100));
    EXPECT_EQ(d.gate_gain, 131072);
    cc.run(Samples(kBlock * 60, 1)); /* the mean envelope falls to 1 of the floor 2: half-way */
    EXPECT_EQ(d.avg_env, 1);
    EXPECT_EQ(d.gate_gain, 4096 * 16);
    /* Closing moves 1/32 of the distance per sample, opening 1/8. */
    d.gate_gain = 131072, d.avg_env = 0;
    cc.drc({0});
    EXPECT_EQ(d.gate_gain, 131072 - (131072 - 24576) / 32);
    d.gate_gain = 24576, d.avg_env = 100;
    cc.drc({0});
    EXPECT_EQ(d.gate_gain, 24576 + (131072 - 24576) / 8);
    /* An envelope at half a large threshold gives a gate of 0.5: avg_env x 8192 is wide. */
    dynamic_range_control_set_denoise_threshold(&d, 1 << 28);
    d.avg_env = 1 << 27;
    for (int i = 0; i < 40; ++i) cc.drc(Samples(kBlock, 1 << 27));
    EXPECT_EQ(d.gate_gain, 65536);
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
