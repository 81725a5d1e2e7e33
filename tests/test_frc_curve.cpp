// Curve design on plain inputs: the taps against a build of the documented steps from the
// general curve routine and the two design steps, and table repair. (The wrapper's entry and
// the repair lines it logs are tested with the parameter block in test_params.)
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "design/frc_curve.h"
#include "design/minimum_phase.h"

namespace {

using Group = std::pair<std::vector<int>, std::vector<int>>;  // frequencies, gains
const std::vector<int> kF12{50, 100, 200, 400, 800, 1600, 3000, 5000, 8000, 12000, 16000, 20000};
const std::vector<int> kF8{60, 250, 1000, 2500, 6000, 10000, 15000, 21000};

// Groups in lc, hp, ea order; an empty group is switched off.
std::vector<int32_t> design(int rate, const std::vector<Group> &g, frc_design_report_t *rep = nullptr) {
    frc_design_input_t in{rate, 0, 0, 0, {}, {}, {}, {}, {}, {}};
    int32_t *sw[] = {&in.lc, &in.hp, &in.ea}, *fr[] = {in.lc_freq, in.hp_freq, in.ea_freq},
            *ga[] = {in.lc_gain, in.hp_gain, in.ea_gain};
    for (size_t k = 0; k < g.size(); ++k) {
        *sw[k] = g[k].first.empty() ? 0 : 1;
        for (size_t i = 0; i < g[k].first.size(); ++i) fr[k][i] = g[k].first[i], ga[k][i] = g[k].second[i];
    }
    std::vector<int32_t> taps(FRC_DESIGN_TAPS, 12345);
    EXPECT_EQ(1, frc_design(&in, taps.data(), rep));
    return taps;
}

// The documented steps, built here from the general curve routine (whose grid is the design's)
// and the two design steps.
std::vector<int32_t> reference(int rate, const std::vector<Group> &groups) {
    std::vector<float> grid(512), total(512, 0.0f), curve(512);
    for (auto &[f, g] : groups) {
        if (f.empty()) continue;
        std::vector<float> x{0}, y{float(g[0])};
        for (size_t i = 0; i < f.size(); ++i) x.push_back(f[i]), y.push_back(g[i]);
        x.push_back(22000), y.push_back(float(g.back()));
        clac_frc_curve(x.data(), y.data(), grid.data(), curve.data(), int(x.size()), 512, rate);
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

// Random gains in three groups sum well past both limits, -6 and +7 dB. (With no group in use
// the taps are the default table: test_params.)
TEST(FrcDesign, CleanTablesFollowTheDocumentedStepsExactly) {
    std::mt19937 rng(5);
    for (int rate : {44100, 48000}) {
        std::vector<int> g12(12), h12(12), g8(8);
        for (auto *v : {&g12, &h12, &g8})
            for (int &g : *v) g = int(rng() % 19) - 9;
        const std::vector<Group> groups{{kF12, g12}, {kF12, h12}, {kF8, g8}};
        EXPECT_EQ(reference(rate, groups), design(rate, groups)) << rate;
    }
}

TEST(FrcDesign, UnusableTablesAreRepaired) {
    std::vector<int> g{1, -3, 4, 2, 0, -2, 5, 1, 3, -1, 2, 0};
    const std::vector<int> sf(kF12.rbegin(), kF12.rend()), sg(g.rbegin(), g.rend());
    EXPECT_EQ(design(48000, {{kF12, g}}), design(48000, {{sf, sg}}));  // order does not matter

    // Coincident points merge to their mean gain, (1000, 2) + (1000, 4) to (1000, 3); zero
    // padding merges into one point at 0 Hz that takes the end knot's place.
    const std::vector<int> f8{100, 1000, 1000, 5000, 9000, 12000, 15000, 18000}, pad{100, 1600, 3100, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(reference(48000, {{}, {}, {{100, 1000, 5000, 9000, 12000, 15000, 18000}, {0, 3, 1, 1, 1, 1, 1}}}),
              design(48000, {{}, {}, {f8, {0, 2, 4, 1, 1, 1, 1, 1}}}));
    EXPECT_EQ(reference(44100, {{{100, 1600, 3100}, {0, 5, 0}}}),
              design(44100, {{pad, {0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}}));

    // Nothing but 0 Hz and 22000 Hz: too few knots, the group adds 0 dB (the report says so).
    frc_design_report_t rep;
    EXPECT_EQ(design(48000, {{}, {kF12, std::vector<int>(12, 0)}}),
              design(48000, {{std::vector<int>(12, 0), std::vector<int>(12, 9)}, {kF12, std::vector<int>(12, 0)},
                             {std::vector<int>(8, 22000), std::vector<int>(8, 2)}}, &rep));
    EXPECT_TRUE(rep.knots[0] == 2 && rep.knots[2] == 2 && rep.repaired[0] && !rep.repaired[1]);
}

}  // namespace
