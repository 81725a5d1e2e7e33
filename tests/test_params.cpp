// Parameter block through the wrapper: validation, the surround gate, groups that are off, the
// status record, and the design entry (the record's tables to the taps, its log lines). (The
// switch to a new block is proven in test_wrapper, the design itself in test_frc_curve.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "design/frc_curve.h"
#include "dsp/sorn_hp_effect.h"
#include "support/log_capture.h"
#include "wrapper/sorn_hp_params.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

constexpr int kBlock = 240;  // frames per block at 48 kHz
using Taps = std::vector<int32_t>;

sorn_hp_params_t block(int lc, int hp, int ea, int ss, int gain = 0) {
    sorn_hp_params_t p{};
    p.lc = lc, p.hp = hp, p.ea = ea, p.ss = ss;
    for (int i = 0; i < 12; ++i) p.lc_freq[i] = p.hp_freq[i] = 100u + 1500u * i, p.lc_gain[i] = gain;
    for (int i = 0; i < 8; ++i) p.ea_freq[i] = 200u + 2000u * i;
    return p;
}

struct Wrapper {
    sorn_hp_wrapper_t *w;
    explicit Wrapper(int rate = 48000) : w(static_cast<sorn_hp_wrapper_t *>(sorn_hp_wrapper_init(rate, 3, 2))) {}
    ~Wrapper() { sorn_hp_wrapper_deinit(w); }
    void set(sorn_hp_params_t p) { sorn_hp_wrapper_set_parameters(w, &p); }
    // Eight blocks of a 1 kHz tone with the right channel at half level (a side signal).
    std::vector<int32_t> play() {
        std::vector<int32_t> buf(2 * 8 * kBlock);
        for (size_t n = 0; n < buf.size() / 2; ++n)
            buf[2 * n] = int32_t(2.1e8 * std::sin(2 * M_PI * n / 48)), buf[2 * n + 1] = buf[2 * n] / 2;
        sorn_hp_wrapper_process(w, buf.data(), buf.size() * 4);
        return buf;
    }
};

Taps taps(const int32_t *t) { return {t, t + ORLA_FIR_TAPS}; }
Taps default_taps() {
    orla_earadapt_params_t p{};
    earadapt_params_fill_bypass(&p);
    return taps(p.coef_left);
}

// A block with an invalid frequency (22001 Hz, or -1 compared unsigned; 22000 Hz is valid, see
// the design entry test) loads the default taps with the FIR off but keeps its surround. lc gates
// the surround and the filter, but only a positive switch reads a table; a group that is off
// keeps the table an earlier block left, and its frequencies are not checked. The status record
// reports the last block; a wrapper in bypass ignores blocks and writes no status.
TEST(Params, ValidationSurroundGateUnusedGroupsAndStatus) {
    sorn_test::LogCapture log;
    Wrapper bad, bad_dry, neg, x;
    auto p = block(1, 1, 0, 1);
    p.hp_freq[2] = 22001;
    bad.set(p);
    EXPECT_EQ(1, log.count("hp_freq 22001 invalid, need bypass", 5, "ORLA_SORN"));
    EXPECT_TRUE(bad.w->frc.enable == 0 && default_taps() == taps(bad.w->frc.coef_left));
    p.ss = 0;
    bad_dry.set(p);
    EXPECT_NE(bad.play(), bad_dry.play());  // the surround is on even though the FIR is off
    auto q = block(0, 0, 1, 0);
    q.ea_freq[0] = uint32_t(-1);
    neg.set(q);
    EXPECT_EQ(1, log.count("ea_freq -1 invalid, need bypass", 5, "ORLA_SORN"));
    EXPECT_EQ(3, log.count_containing("invalid"));

    x.set(block(0, 0, 0, 1));
    EXPECT_TRUE(x.w->ss_status == 0 && x.w->frc.enable == 0);
    x.set(block(-5, 0, 0, 1, 4));
    EXPECT_TRUE(x.w->ss_status == 1 && x.w->frc.enable == 1);
    EXPECT_EQ(default_taps(), taps(x.w->frc.coef_left));
    x.set(block(1, 0, 0, 0, 4));
    EXPECT_EQ(0, x.w->ss_status);
    auto off = block(0, 3, 4, 1, -3);
    off.lc_freq[0] = 50000;
    x.set(off);
    EXPECT_TRUE(x.w->lc_gain[0] == 4 && x.w->lc_freq[0] == 100);
    EXPECT_EQ(3, log.count_containing("invalid"));
    sorn_hp_status_t s{-1, -1, -1, -1, -1};
    sorn_hp_wrapper_get_parameters(x.w, &s);
    EXPECT_EQ((std::vector<int>{0, 3, 4, 0, 3}), (std::vector<int>{s.lc, s.hp, s.ea, s.ss, s.state}));

    Wrapper bypassed(40000);
    bypassed.set(block(1, 0, 0, 0));
    sorn_hp_status_t st{7, 7, 7, 7, 7};
    sorn_hp_wrapper_get_parameters(bypassed.w, &st);
    EXPECT_TRUE(bypassed.w->state == 0 && st.lc == 7 && st.state == 7);
}

// The entry hands the record's rate and tables to the design and both filters get its taps; a
// table that needs repair (lc zero-padded, hp with every point at 22000 Hz) is named in the log.
TEST(Params, DesignEntryDesignsFromTheRecordAndLogsRepairs) {
    sorn_test::LogCapture log;
    Wrapper x(44100);
    auto p = block(1, 1, 1, 0, 2);
    for (int i = 3; i < 12; ++i) p.lc_freq[i] = 0;
    for (int i = 0; i < 12; ++i) p.hp_freq[i] = 22000, p.hp_gain[i] = 1;
    for (int i = 0; i < 8; ++i) p.ea_gain[i] = i % 3;
    x.set(p);
    frc_design_input_t in{44100, 1, 1, 1, {}, {}, {}, {}, {}, {}};
    std::memcpy(in.lc_freq, p.lc_freq, 64 * sizeof(int32_t));  // the same six tables, same order
    Taps want(ORLA_FIR_TAPS);
    ASSERT_EQ(1, frc_design(&in, want.data(), nullptr));
    EXPECT_TRUE(want == taps(x.w->frc.coef_left) && want == taps(x.w->frc.coef_right));
    for (const char *l : {
        "update_frc_params: lc table unordered or with coincident frequencies, designed from 5 knots",
        "update_frc_params: hp table unordered or with coincident frequencies, designed from 2 knots",
        "update_frc_params: hp table has too few knots, group contributes 0 dB"})
        EXPECT_EQ(1, log.count(l, 5, "ORLA_SORN")) << l;
    EXPECT_EQ(3, log.count_containing("update_frc_params"));
}

}  // namespace
