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
    /* Runs `in` in place through both channels block by block; returns the left output. */
    Samples run(Samples l) {
        Samples r = l;
        for (size_t i = 0; i < l.size(); i += kBlock)
            compressor_process(&c, &l[i], &r[i], &l[i], &r[i], kBlock);
        EXPECT_EQ(l, r);
        return l;
    }
};

Samples alternating(int blocks, int magnitude) {
    Samples v(kBlock * blocks, magnitude);
    for (size_t i = 0; i < v.size(); i += 2) v[i] = -magnitude;
    return v;
}

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
    Samples in(n, 131072), out(n);
    dynamic_range_control_process(&d, in.data(), out.data(), n);
    return out;
}

int samples_to_reach(int from, int b, int volume) {
    const Samples g = gain_trace(from, b, volume, 4000);
    return static_cast<int>(std::find(g.begin(), g.end(), b) - g.begin()) + 1;
}

TEST(Compressor, OutputIsSilentForTwoBlocksThenFadesInAndSettles) {
    ChainCompressor cc;
    const Samples out = cc.run(Samples(kBlock * 80, 838860)); /* 0.1 of full scale */
    for (int i = 0; i < 480; ++i) ASSERT_EQ(out[i], 0) << i;
    EXPECT_TRUE(out[480] > 0 && out[480] < 838860 * 3 / 4);
    for (size_t i = 481; i < out.size(); ++i) ASSERT_GE(out[i], out[i - 1]) << i;
    /* The volume step halves toward 8192 in Q13 and stops at 8191: gain 131056. */
    EXPECT_EQ(cc.d().gain, 131056);
    EXPECT_EQ(out.back(), (838860LL * 131056) >> 17);

    compressor_reset(&cc.c); /* keeps the gain, restarts the look-ahead */
    EXPECT_EQ(cc.d().gain, 131056);
    EXPECT_EQ(cc.run(Samples(kBlock * 2, 838860)), Samples(kBlock * 2, 0));
}

TEST(Compressor, LoudAudioIsReducedBeforeItLeavesTheDelay) {
    ChainCompressor cc;
    cc.run(Samples(kBlock * 40, 838860)); /* gain near unity */
    Samples loud(kBlock, 0);
    for (int i = 0; i < kBlock; i += 2) loud[i] = 8304721;
    cc.run(loud);
    /* Worked example: peak 8304721 -> level 32440 -> target 120224, lowering the gain in the
       very block it arrives in. */
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
    EXPECT_EQ(samples_to_reach(131072, 65536, 8192), 957);
    EXPECT_EQ(samples_to_reach(131072, 120224, 8192), 119);
    EXPECT_EQ(samples_to_reach(65536, 131072, 16384), 2558);
    EXPECT_EQ(samples_to_reach(120224, 131072, 16384), 376);
    /* At low gains the table term sets the first step. Release shifts 6..11 over distances
       1000..32000 all give 15; attack shifts 5, 6, 8, 9, 10 (there is no 7). */
    for (int d : {1000, 2000, 4000, 8000, 16000, 32000})
        EXPECT_EQ(gain_trace(1000, 1000 + d, 8192, 1)[0], 1015) << d;
    const int attack[] = {1000, 2000, 4000, 8000, 16000}, step[] = {31, 31, 15, 15, 15};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(gain_trace(1000 + attack[i], 1000, 8192, 1)[0], 1000 + attack[i] - step[i]);
}

TEST(Compressor, GateActsOnDigitalSilenceOnly) {
    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    cc.run(Samples(kBlock * 40, 0));
    EXPECT_EQ(d.gate_gain, 1536 * 16);
    cc.run(alternating(4, 100));
    EXPECT_EQ(d.gate_gain, 131072);
    cc.run(alternating(60, 1)); /* the mean envelope falls to 1: the gate goes half-way */
    EXPECT_EQ(d.avg_env, 1);
    EXPECT_EQ(d.gate_gain, 4096 * 16);

    /* Closing moves 1/32 of the distance per sample, opening 1/8. */
    int zero = 0;
    d.gate_gain = 131072;
    d.avg_env = 0;
    dynamic_range_control_process(&d, &zero, &zero, 1);
    EXPECT_EQ(d.gate_gain, 131072 - (131072 - 24576) / 32);
    d.gate_gain = 24576;
    d.avg_env = 100;
    dynamic_range_control_process(&d, &zero, &zero, 1);
    EXPECT_EQ(d.gate_gain, 24576 + (131072 - 24576) / 8);

    /* An envelope at half a large threshold gives a gate of 0.5: avg_env x 8192 is wide. */
    dynamic_range_control_set_denoise_threshold(&d, 1 << 28);
    d.avg_env = 1 << 27;
    Samples in(kBlock * 40, 1 << 27), out(in.size());
    for (size_t i = 0; i < in.size(); i += kBlock)
        dynamic_range_control_process(&d, &in[i], &out[i], kBlock);
    EXPECT_EQ(d.gate_gain, 65536);
}

TEST(Compressor, ZeroFramesAdvanceTheEnvelopesAndStatusZeroTouchesNothing) {
    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    cc.run(Samples(kBlock * 4, 8304721));
    const int avg = d.avg_env, peak = d.peak_env, newest = d.gain_history[1];
    int sentinel = 12345;
    dynamic_range_control_process(&d, &sentinel, &sentinel, 0);
    EXPECT_EQ(sentinel, 12345);
    EXPECT_EQ(d.avg_env, avg + ((0 - avg) >> 5));
    EXPECT_EQ(d.peak_env, peak - peak / 128);
    EXPECT_EQ(d.gain_history[0], newest);
    EXPECT_NE(d.gain_history[1], newest);

    compressor_setstatus(&cc.c, 0);
    Samples in(kBlock, 1000000), out(kBlock, 7);
    const int gain = d.gain;
    compressor_process(&cc.c, in.data(), in.data(), out.data(), out.data(), kBlock);
    EXPECT_EQ(cc.run(in), in);
    EXPECT_EQ(out, Samples(kBlock, 7));
    EXPECT_EQ(d.gain, gain);
}

TEST(Compressor, FailedInitAndOutOfRangeSettingsStayDefined) {
    /* Look-ahead x 960 frames past int32 fails like an allocation, detectably. */
    compressor_t bad{};
    compressor_init(&bad, 8192, 3000000);
    EXPECT_EQ(bad.drc_left, nullptr);
    EXPECT_EQ(bad.drc_right, nullptr);
    compressor_setstatus(&bad, 1);
    compressor_set_sample_rate(&bad, 1);
    compressor_reset(&bad);
    Samples in(kBlock, 1000), out(kBlock, 7);
    compressor_process(&bad, in.data(), in.data(), out.data(), out.data(), kBlock);
    EXPECT_EQ(out, Samples(kBlock, 7));
    compressor_end(&bad);

    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    dynamic_range_control_set_attact_order(&d, -4); /* acts as 0: rises at once */
    cc.run(Samples(kBlock, 2000000));
    EXPECT_EQ(d.peak_env, 2000000 >> 8);
    dynamic_range_control_set_release_order(&d, 200); /* a floor division: falls by 1 */
    int zero = 0;
    dynamic_range_control_process(&d, &zero, &zero, 0);
    EXPECT_EQ(d.peak_env, (2000000 >> 8) - 1);
    dynamic_range_control_set_threshold(&d, -1); /* acts as 0, never divides by 0 */
    d.peak_env = 0;
    dynamic_range_control_process(&d, &zero, &zero, 1);
    d.peak_env = 5;
    dynamic_range_control_process(&d, &zero, &zero, 1);
    EXPECT_EQ(d.gain_history[1], 0);

    const int rates[] = {0, 1, 2, 3, 9, -1}, lengths[] = {440, 480, 960, 1920, 480, 480};
    for (int i = 0; i < 6; ++i) {
        compressor_set_sample_rate(&cc.c, rates[i]);
        EXPECT_EQ(d.delay->length, lengths[i]) << rates[i];
    }
}

TEST(DynamicRangeControl, SettersApplyTheirFloorsAndSaturation) {
    ChainCompressor cc;
    dynamic_range_control_t *d = &cc.d();
    int v = -1;
    for (int in : {0, 1, 2, 3}) {
        d->avg_env = 99;
        dynamic_range_control_set_denoise_threshold(d, in);
        dynamic_range_control_get_denoise_threshold(d, &v);
        EXPECT_EQ(v, in == 3 ? 3 : 2);
        EXPECT_EQ(d->avg_env, 0);
    }
    dynamic_range_control_set_volume(d, 1 << 28);
    EXPECT_EQ(d->gain, INT_MAX);
    dynamic_range_control_set_volume(d, -(1 << 29));
    EXPECT_EQ(d->gain, INT_MIN);
    compressor_set_volume(&cc.c, 8192);
    EXPECT_EQ(cc.c.drc_right->gain, 65536);
}

TEST(DynamicRangeControl, OutputRoundingSaturationAndLevels) {
    ChainCompressor cc;
    dynamic_range_control_t &d = cc.d();
    audio_delay_set_delay(d.delay, 0);
    d.gate_gain = 131072;
    d.avg_env = 1000;
    d.gain = d.gain_history[0] = d.gain_history[1] = 65536;
    Samples in = {-1, -2, -3, -4, 1}, out(5);
    dynamic_range_control_process(&d, in.data(), out.data(), 5);
    EXPECT_EQ(out, (Samples{0, 0, -2, -2, 0})); /* a product of -1 is written as 0 */

    dynamic_range_control_set_volume(&d, 32768); /* gain far above unity: saturates */
    d.threshold = INT_MAX;
    d.gain_history[0] = d.gain_history[1] = 32768 * 16;
    in = {1 << 30, -(1 << 30), 0, 0, 0};
    dynamic_range_control_process(&d, in.data(), out.data(), 5);
    EXPECT_EQ(out[0], INT_MAX);
    EXPECT_EQ(out[1], INT_MIN);

    int avg = -1;
    Samples s = {8304721, -5, INT_MIN, 3};
    EXPECT_EQ(find_current_max_drc(s.data(), &avg, 4), 32440); /* -2^31 never wins */
    EXPECT_EQ(avg, (8304721LL + 5 + 2147483648LL + 3) / 4);
    EXPECT_EQ(find_current_max_drc(s.data(), &avg, 0), 0);
    EXPECT_EQ(avg, 0);
    s.assign(4, INT_MIN);
    find_current_max_drc(s.data(), &avg, 4);
    EXPECT_EQ(avg, INT_MAX); /* 2^31 saturates rather than turning negative */
}

TEST(AudioDelay, DelaysAndPassesThrough) {
    audio_delay d{};
    audio_delay_init(&d, 4);
    Samples got;
    for (int x = 1; x <= 6; ++x) got.push_back(audio_delay_process(&d, x));
    EXPECT_EQ(got, (Samples{0, 0, 0, 0, 1, 2}));
    audio_delay_set_delay(&d, 0);
    EXPECT_EQ(audio_delay_process(&d, 42), 42);
    int len = 0;
    audio_delay_set_delay(&d, 9);
    audio_delay_get_delay(&d, &len);
    EXPECT_EQ(len, 4);
    audio_delay_reinit(&d, -3);
    EXPECT_EQ(d.length, 0);
    audio_delay_reinit(&d, 2);
    audio_delay_reset(&d);
    got = {audio_delay_process(&d, 5), audio_delay_process(&d, 6), audio_delay_process(&d, 7)};
    EXPECT_EQ(got, (Samples{0, 0, 5}));
    audio_delay_end(&d);
    EXPECT_EQ(audio_delay_process(&d, 8), 8);
}

}  // namespace
