// Parameter block through the wrapper: validation, the surround gate, groups that are off, the
// status record, and tables that would give coincident knots. (The switch to a new block is
// proven in test_wrapper, the design itself in test_frc_curve.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
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
    std::vector<int32_t> taps() const { return {w->frc.coef_left, w->frc.coef_left + ORLA_FIR_TAPS}; }
    // Plays `blocks` blocks of a 1 kHz tone (right channel at half level, so the side signal is
    // not zero) in block-sized calls; returns the left channel.
    std::vector<int32_t> play(int blocks) {
        std::vector<int32_t> buf(2 * kBlock), left;
        for (int n = 0; n < blocks * kBlock; ++n) {
            const double v = 0.1 * 2147483648.0 * std::sin(2 * M_PI * 1000 * n / 48000);
            buf[2 * (n % kBlock)] = int32_t(v), buf[2 * (n % kBlock) + 1] = int32_t(v / 2);
            if (n % kBlock != kBlock - 1) continue;
            sorn_hp_wrapper_process(w, buf.data(), buf.size() * 4);
            for (int i = 0; i < kBlock; ++i) left.push_back(buf[2 * i]);
        }
        return left;
    }
};

std::vector<int32_t> default_taps() {
    orla_earadapt_params_t p{};
    earadapt_params_fill_bypass(&p);
    return {p.coef_left, p.coef_left + ORLA_FIR_TAPS};
}

TEST(Params, InvalidFrequencyLoadsDefaultTapsWithFirOffButKeepsSurround) {
    sorn_test::LogCapture log;
    Wrapper ok, bad, bad_dry, neg;
    auto p = block(1, 1, 0, 1);
    p.hp_freq[2] = 22000;
    ok.set(p);
    EXPECT_EQ(0, log.count_containing("invalid"));
    EXPECT_EQ(1, ok.w->frc.enable);
    p.hp_freq[2] = 22001;
    bad.set(p);
    EXPECT_EQ(1, log.count("hp_freq 22001 invalid, need bypass", 5, "ORLA_SORN"));
    EXPECT_EQ(0, bad.w->frc.enable);
    EXPECT_EQ(default_taps(), bad.taps());
    p.ss = 0;
    bad_dry.set(p);
    EXPECT_NE(bad.play(8), bad_dry.play(8));  // the surround is on even though the FIR is off
    auto q = block(0, 0, 1, 0);
    q.ea_freq[0] = uint32_t(-1);
    neg.set(q);
    EXPECT_EQ(1, log.count("ea_freq -1 invalid, need bypass", 5, "ORLA_SORN"));
    EXPECT_EQ(3, log.count_containing("invalid"));
}

// lc gates the surround and the filter, but only a positive switch reads a table; a group that
// is off keeps the table an earlier block left, and its frequencies are not checked.
TEST(Params, SurroundFollowsLcAndUnusedGroupsKeepTheirTables) {
    sorn_test::LogCapture log;
    Wrapper x;
    x.set(block(0, 0, 0, 1));
    EXPECT_EQ(0, x.w->ss_status);
    EXPECT_EQ(0, x.w->frc.enable);
    x.set(block(-5, 0, 0, 1, 4));
    EXPECT_EQ(1, x.w->ss_status);
    EXPECT_EQ(1, x.w->frc.enable);
    EXPECT_EQ(default_taps(), x.taps());
    x.set(block(1, 0, 0, 0, 4));
    EXPECT_EQ(0, x.w->ss_status);
    auto off = block(0, 0, 0, 0, -3);
    off.lc_freq[0] = 50000;
    x.set(off);
    EXPECT_EQ(4, x.w->lc_gain[0]);
    EXPECT_EQ(100, x.w->lc_freq[0]);
    EXPECT_EQ(0, log.count_containing("invalid"));
}

TEST(Params, StatusRecordReportsTheLastBlockAndBypassedWrappersIgnoreBlocks) {
    Wrapper x;
    x.set(block(1, 2, 0, 1));
    x.set(block(0, 3, 4, 1));
    sorn_hp_status_t s{-1, -1, -1, -1, -1};
    sorn_hp_wrapper_get_parameters(x.w, &s);
    EXPECT_EQ((std::vector<int>{0, 3, 4, 0, 3}), (std::vector<int>{s.lc, s.hp, s.ea, s.ss, s.state}));

    void *bypassed = sorn_hp_wrapper_init(40000, 3, 2);
    auto p = block(1, 0, 0, 0);
    sorn_hp_wrapper_set_parameters(bypassed, &p);
    sorn_hp_status_t st{7, 7, 7, 7, 7};
    sorn_hp_wrapper_get_parameters(bypassed, &st);
    EXPECT_EQ(0, static_cast<sorn_hp_wrapper_t *>(bypassed)->state);
    EXPECT_TRUE(st.lc == 7 && st.state == 7);
    sorn_hp_wrapper_deinit(bypassed);
}

// Zero padding gives coincident knots; they are merged (with a warning), and the design stays
// finite, so the tone comes out (louder: the table lifts 1600 Hz by 5 dB) and never trips the
// mute detector.
TEST(Params, ZeroPaddedTableStillSounds) {
    sorn_test::LogCapture log;
    Wrapper x;
    auto p = block(1, 0, 0, 0);
    for (int i = 3; i < 12; ++i) p.lc_freq[i] = 0, p.lc_gain[i] = 0;
    p.lc_gain[1] = 5;
    x.set(p);
    EXPECT_EQ(1, log.count_containing("lc table"));
    const auto out = x.play(40);
    const auto peak = *std::max_element(out.begin() + 20 * kBlock, out.end());
    EXPECT_GT(peak / 2147483648.0, 0.1);
    EXPECT_EQ(1, x.w->enable);
}

}  // namespace
