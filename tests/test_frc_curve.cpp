#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "design/cubic_interp.h"
#include "design/frc_curve.h"
#include "design/minimum_phase.h"
#include "dsp/sorn_hp_effect.h"
#include "support/log_capture.h"

namespace {

struct Design {
    sorn_hp_wrapper_t w{};
    explicit Design(int rate = 48000) { w.sample_rate = rate; }
    void lc(std::vector<int> f, std::vector<int> g) { set(w.lc, w.lc_freq, w.lc_gain, f, g); }
    void hp(std::vector<int> f, std::vector<int> g) { set(w.hp, w.hp_freq, w.hp_gain, f, g); }
    void ea(std::vector<int> f, std::vector<int> g) { set(w.ea, w.ea_freq, w.ea_gain, f, g); }
    std::vector<int32_t> run() {
        update_frc_params(&w);
        EXPECT_EQ(0, std::memcmp(w.frc.coef_left, w.frc.coef_right, sizeof w.frc.coef_left));
        return {w.frc.coef_left, w.frc.coef_left + ORLA_FIR_TAPS};
    }
    static void set(int32_t &sw, int32_t *fr, int32_t *ga, const std::vector<int> &f,
                    const std::vector<int> &g) {
        sw = 1;
        for (size_t i = 0; i < f.size(); ++i) fr[i] = f[i], ga[i] = g[i];
    }
};

std::vector<int> flat(size_t n, int g) { return std::vector<int>(n, g); }
const std::vector<int> kF12{50, 100, 200, 400, 800, 1600, 3000, 5000, 8000, 12000, 16000, 20000};
const std::vector<int> kF8{60, 250, 1000, 2500, 6000, 10000, 15000, 21000};

std::vector<int32_t> default_taps() {
    orla_earadapt_params_t p{};
    earadapt_params_fill_bypass(&p);
    return {p.coef_left, p.coef_left + ORLA_FIR_TAPS};
}

TEST(FrcCurve, NoGroupGivesTheDefaultTableAndAConstantGainScalesIt) {
    const auto def = default_taps();
    EXPECT_EQ(def, Design().run());
    Design plus3;
    plus3.lc(kF12, flat(12, 3));
    const auto taps = plus3.run();
    for (int k = 0; k < ORLA_FIR_TAPS; ++k)
        EXPECT_NEAR(def[k] * std::pow(10.0, 3 / 20.0), taps[k], 2) << k;
}

// Bin 0 takes the first gain and the bins above 22000 Hz (470..511 at 48 kHz) the last one.
TEST(FrcCurve, EndsAreFlatAtFirstAndLastGain) {
    std::vector<float> x{0}, y{-2}, f(512), c(512);
    for (int i = 0; i < 12; ++i) x.push_back(kF12[i]), y.push_back(float(i % 5 - 2));
    x.push_back(22000), y.push_back(y.back());
    clac_frc_curve(x.data(), y.data(), f.data(), c.data(), 14, 512, 48000);
    EXPECT_FLOAT_EQ(46.875f, f[1]);
    EXPECT_EQ(-2.0f, c[0]);
    for (int k = 470; k < 512; ++k) EXPECT_EQ(y.back(), c[k]) << k;
}

// A clean table must follow the documented steps to the bit: build the same design here. The
// random gains of three groups sum well past both limits, -6 and +7 dB.
std::vector<int32_t> reference(
    int rate, const std::vector<std::pair<std::vector<int>, std::vector<int>>> &groups) {
    std::vector<float> grid(512), total(512, 0.0f), curve(512);
    for (int k = 0; k < 512; ++k) grid[k] = (float(k) * float(rate)) * 0.0009765625f;
    for (auto &[f, g] : groups) {
        std::vector<float> x{0}, y{float(g[0])};
        for (size_t i = 0; i < f.size(); ++i) x.push_back(f[i]), y.push_back(g[i]);
        x.push_back(22000), y.push_back(float(g.back()));
        void *p = cubicinterp_init(x.data(), y.data(), int(x.size()));
        cubicinterp_process(p, grid.data(), curve.data(), 512);
        cubicinterp_deinit(p);
        curve[0] = float(g[0]);
        for (int k = 0; k < 512; ++k) total[k] += curve[k];
    }
    for (float &t : total) t = t > 7.0f ? 7.0f : (t < -6.0f ? -6.0f : t);
    std::vector<double> lin(513), mp(513);
    coef_transform(total.data(), 1024, lin.data(), 513);
    line2mp(lin.data(), 513, mp.data(), 513);
    std::vector<int32_t> taps(513);
    for (int k = 0; k < 513; ++k) taps[k] = int32_t(mp[k] * 8388608.0);
    return taps;
}

TEST(FrcCurve, CleanTablesFollowTheDocumentedDesignExactly) {
    std::mt19937 rng(5);
    for (int rate : {44100, 48000}) {
        std::vector<int> g12(12), h12(12), g8(8);
        for (auto *v : {&g12, &h12, &g8})
            for (int &g : *v) g = int(rng() % 19) - 9;
        Design d(rate);
        d.lc(kF12, g12), d.hp(kF12, h12), d.ea(kF8, g8);
        EXPECT_EQ(reference(rate, {{kF12, g12}, {kF12, h12}, {kF8, g8}}), d.run()) << rate;
    }
}

TEST(FrcCurve, UnusableTablesAreRepairedWithAWarning) {
    sorn_test::LogCapture log;
    std::vector<int> g{1, -3, 4, 2, 0, -2, 5, 1, 3, -1, 2, 0};
    Design sorted, shuffled;
    sorted.lc(kF12, g);
    std::vector<int> sf(kF12.rbegin(), kF12.rend()), sg(g.rbegin(), g.rend());
    shuffled.lc(sf, sg);
    EXPECT_EQ(sorted.run(), shuffled.run());  // order does not matter
    EXPECT_EQ(1, log.count_containing("lc table"));

    // Coincident points merge to their mean gain: (1000, 2) + (1000, 4) is (1000, 3).
    Design dup, merged;
    dup.ea({100, 1000, 1000, 5000, 9000, 12000, 15000, 18000}, {0, 2, 4, 1, 1, 1, 1, 1});
    merged.ea({100, 1000, 5000, 5000, 9000, 12000, 15000, 18000}, {0, 3, 1, 1, 1, 1, 1, 1});
    EXPECT_EQ(dup.run(), merged.run());

    // Nothing but 0 Hz and 22000 Hz: too few knots, the group adds 0 dB.
    Design empty;
    empty.lc(flat(6, 0), flat(6, 9)), empty.ea(flat(8, 22000), flat(8, 2));
    empty.hp(kF12, flat(12, 0));
    EXPECT_EQ(default_taps(), empty.run());
    EXPECT_EQ(2, log.count_containing("too few knots"));
    for (auto &l : log.lines()) EXPECT_EQ("ORLA_SORN", l.tag);
}

}  // namespace
