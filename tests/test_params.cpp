#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "dsp/sorn_hp_effect.h"
#include "support/log_capture.h"
#include "wrapper/sorn_hp_params.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

constexpr int kBlock = 240;  // frames per block at 48 kHz

sorn_hp_params_t block(int lc, int hp, int ea, int ss, int gain = 0) {
    sorn_hp_params_t p{};
    p.lc = lc, p.hp = hp, p.ea = ea, p.ss = ss;
    for (int i = 0; i < 12; ++i) {
        p.lc_freq[i] = p.hp_freq[i] = 100u + 1500u * i;
        p.lc_gain[i] = gain;
    }
    for (int i = 0; i < 8; ++i) p.ea_freq[i] = 200u + 2000u * i;
    return p;
}

struct Wrapper {
    sorn_hp_wrapper_t *w = static_cast<sorn_hp_wrapper_t *>(sorn_hp_wrapper_init(48000, 3, 2));
    ~Wrapper() { sorn_hp_wrapper_deinit(w); }
    void set(sorn_hp_params_t p) { sorn_hp_wrapper_set_parameters(w, &p); }
    sorn_hp_status_t status() {
        sorn_hp_status_t s{-1, -1, -1, -1, -1};
        sorn_hp_wrapper_get_parameters(w, &s);
        return s;
    }
    // Plays `blocks` blocks of a 1 kHz tone (right channel at half level, so the side signal is
    // not zero) in block-sized calls, continuing the tone across calls; returns the left channel.
    std::vector<int32_t> play(int blocks) {
        std::vector<int32_t> buf(2 * kBlock), left;
        for (int b = 0; b < blocks; ++b, ++played) {
            for (int i = 0; i < kBlock; ++i) {
                double v =
                    0.1 * 2147483648.0 * std::sin(2 * M_PI * 1000 * (played * kBlock + i) / 48000);
                buf[2 * i] = int32_t(v), buf[2 * i + 1] = int32_t(v / 2);
            }
            sorn_hp_wrapper_process(w, buf.data(), buf.size() * 4);
            for (int i = 0; i < kBlock; ++i) left.push_back(buf[2 * i]);
        }
        return left;
    }
    int played = 0;
};

std::vector<int32_t> defaults() {
    orla_earadapt_params_t p{};
    earadapt_params_fill_bypass(&p);
    return {p.coef_left, p.coef_left + ORLA_FIR_TAPS};
}
std::vector<int32_t> taps(const Wrapper &x) {
    return {x.w->frc.coef_left, x.w->frc.coef_left + ORLA_FIR_TAPS};
}

TEST(Params, InvalidFrequencyLoadsDefaultTapsWithFirOffButKeepsSurround) {
    sorn_test::LogCapture log;
    Wrapper ok, bad, bad_dry, neg;
    auto p = block(1, 1, 0, 1);
    p.hp_freq[2] = 22000;
    ok.set(p);
    EXPECT_EQ(0, log.count_containing("invalid, need bypass"));
    EXPECT_EQ(1, ok.w->frc.enable);
    EXPECT_EQ(1, log.count("(3)hp_freq 22000: hp_gain 0", 3, "ORLA_SORN"));
    EXPECT_EQ(1, log.count("sorn_hp_wrapper_set_parameters: lc 1, ss 1, hp 1, ea 0, check 0", 3));

    p.hp_freq[2] = 22001;
    bad.set(p);
    EXPECT_EQ(1, log.count("hp_freq 22001 invalid, need bypass", 5, "ORLA_SORN"));
    EXPECT_EQ(1, log.count("sorn_hp_wrapper_set_parameters: lc 1, ss 1, hp 1, ea 0, check 1", 3));
    EXPECT_EQ(0, bad.w->frc.enable);
    EXPECT_EQ(defaults(), taps(bad));
    p.ss = 0;
    bad_dry.set(p);
    EXPECT_NE(bad.play(8), bad_dry.play(8));  // the surround is on even though the FIR is off

    auto q = block(0, 0, 1, 0);
    q.ea_freq[0] = uint32_t(-1);
    neg.set(q);
    EXPECT_EQ(1, log.count("ea_freq -1 invalid, need bypass", 5));
    EXPECT_EQ(3, log.count_containing("invalid, need bypass"));
}

TEST(Params, SurroundFollowsLcAndUnusedGroupsKeepTheirTables) {
    Wrapper x;
    x.set(block(0, 0, 0, 1));
    EXPECT_EQ(0, x.status().ss);
    EXPECT_EQ(0, x.w->frc.enable);

    sorn_test::LogCapture log;
    x.set(block(-5, 0, 0, 1, 4));  // gates the surround and the FIR, but its table is not read
    EXPECT_EQ(1, x.status().ss);
    EXPECT_EQ(1, x.w->frc.enable);
    EXPECT_EQ(0, x.w->lc_gain[0]);
    EXPECT_EQ(defaults(), taps(x));
    EXPECT_EQ(0, log.count_containing("lc_freq"));

    x.set(block(1, 0, 0, 0, 4));  // surround off keeps 5000 Hz / 20 for the chain
    EXPECT_EQ(0, x.status().ss);
    EXPECT_EQ(5000, x.w->ss_frequency);
    EXPECT_EQ(20, x.w->ss_depth);
    const auto with_a = taps(x);

    auto off = block(0, 0, 0, 0, -3);
    off.lc_freq[0] = 50000;  // not read, so not invalid either
    x.set(off);
    EXPECT_EQ(4, x.w->lc_gain[0]);
    EXPECT_EQ(0, log.count_containing("invalid"));
    x.set(block(1, 0, 0, 0, 4));
    EXPECT_EQ(with_a, taps(x));
    x.set(block(1, 0, 0, 0, -3));
    EXPECT_EQ(-3, x.w->lc_gain[11]);
    EXPECT_NE(with_a, taps(x));
}

TEST(Params, StateMovesThroughTheSwitchAndStatusReportsIt) {
    Wrapper x;
    EXPECT_EQ(1, x.status().state);
    x.set(block(1, 2, 0, 1));
    auto s = x.status();
    EXPECT_EQ((std::vector<int>{1, 2, 0, 1, 2}),
              (std::vector<int>{s.lc, s.hp, s.ea, s.ss, s.state}));
    x.set(block(0, 0, 3, 1));
    EXPECT_EQ(3, x.status().state);
    EXPECT_EQ(3, x.status().ea);
    x.play(3);
    EXPECT_EQ(3, x.status().state);
    x.play(1);
    EXPECT_EQ(2, x.status().state);

    void *bypassed = sorn_hp_wrapper_init(40000, 3, 2);
    auto p = block(1, 0, 0, 0);
    sorn_hp_wrapper_set_parameters(bypassed, &p);
    sorn_hp_status_t st{7, 7, 7, 7, 7};
    sorn_hp_wrapper_get_parameters(bypassed, &st);
    EXPECT_EQ(0, static_cast<sorn_hp_wrapper_t *>(bypassed)->state);
    EXPECT_TRUE(st.lc == 7 && st.state == 7);
    sorn_hp_wrapper_deinit(bypassed);
}

int max_step(const std::vector<int32_t> &v, size_t from, size_t to) {
    long long m = 0;
    for (size_t n = from; n + 1 < to; ++n) m = std::max(m, std::llabs((long long)v[n + 1] - v[n]));
    return int(m / 256);
}

TEST(Params, SecondBlockIsHeardAfterThreeBlocksAndCompleteAfterFour) {
    // c switches from 0 dB to -6 dB after s blocks; a keeps 0 dB; d starts at -6 dB fresh at
    // block s, as the standby chain of c does.
    Wrapper a, c, d;
    const int s = 10;
    a.set(block(1, 0, 0, 0, 0)), c.set(block(1, 0, 0, 0, 0)), d.set(block(1, 0, 0, 0, -6));
    auto yc = c.play(s);
    c.set(block(1, 0, 0, 0, -6));
    auto tail = c.play(10);
    yc.insert(yc.end(), tail.begin(), tail.end());
    auto ya = a.play(s + 10);
    d.played = s;
    auto yd = d.play(10);
    yd.insert(yd.begin(), kBlock * s, 0);

    const size_t fade = kBlock * (s + 3) + kBlock - 1;  // first output frame of the fourth block
    EXPECT_TRUE(std::equal(ya.begin(), ya.begin() + fade + 1, yc.begin()));
    EXPECT_NE(ya[fade + 100], yc[fade + 100]);
    EXPECT_TRUE(std::equal(yd.begin() + fade + kBlock, yd.end(), yc.begin() + fade + kBlock));
    const size_t lo = fade - 2 * kBlock, hi = fade + 3 * kBlock;
    EXPECT_LE(max_step(yc, lo, hi), std::max(max_step(ya, lo, hi), max_step(yd, lo, hi)) * 1.02);
}

TEST(Params, ZeroPaddedTableStillSounds) {
    sorn_test::LogCapture log;
    Wrapper x;
    auto p = block(1, 0, 0, 0);
    for (int i = 3; i < 12; ++i) p.lc_freq[i] = 0, p.lc_gain[i] = 0;
    p.lc_gain[1] = 5;
    x.set(p);
    EXPECT_EQ(1, log.count_containing("lc table"));
    auto out = x.play(40);
    double peak = 0;
    for (size_t n = 20 * kBlock; n < out.size(); ++n)
        peak = std::max(peak, std::fabs(out[n] / 2147483648.0));
    EXPECT_GT(peak, 0.1);  // the 1 kHz tone comes out (louder: the table lifts 1600 Hz by 5 dB)
    EXPECT_EQ(1, x.w->enable);
}

}  // namespace
