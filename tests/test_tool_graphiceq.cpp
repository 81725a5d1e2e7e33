// Published corrections as the sorn-hp tool reads them (GraphicEQ, parametric lists, EqualizerAPO
// configurations, CSV), and the one-group GraphicEQ fit of import-graphiceq.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "design/cubic_interp.h"
#include "tools/fit/eq_import.h"
#include "tools/fit/graphiceq.h"
#include "tools/plot/design_view.h"

namespace {

using namespace sorn_tool;

const Interpolant kLibrary{cubicinterp_init, cubicinterp_process, cubicinterp_deinit};

// Each form gives the curve it describes: points linear in log frequency and flat beyond their
// ends, cookbook biquads at 48 kHz (a peak's gain at its centre, half a shelf's at its corner),
// the preamp added, disabled filters and lines that shape nothing left out.
TEST(ToolImport, EveryFormatGivesTheCurveItDescribes) {
    const struct {
        const char *text, *format;
        std::vector<CurvePoint> expect;
        size_t notes;
    } cases[] = {
        {"\xEF\xBB\xBF  graphiceq:20 -1.5;100\t0 ;\n 1000   2.25;\r\n10000 -3;24000 5;\n", "GraphicEQ line",
         {{10, -1.5}, {20, -1.5}, {1000, 2.25}, {3162.2777, -0.375}, {30000, -3}}, 1},
        {"Preamp: -6 dB\nFilter 1: ON PK Fc 1000 Hz Gain 6 dB Q 1.0\nFilter 2: OFF PK Fc 100 Hz Gain 9 dB Q 1\n"
         "Filter 3: OFF LP Fc 50 Hz", "parametric list", {{1000, 0}, {10, -6}, {100, -6}}, 0},
        {"Filter: ON LSC Fc 100 Hz Gain 4 dB Q 0.7\nFilter: ON HS Fc 4000 Hz Gain -3 dB", "parametric list",
         {{5, 4}, {100, 2}, {4000, -1.5}, {20000, -3}}, 0},
        {"# a comment: ignored\nDevice: X\nPreamp: -2 dB\nGraphicEQ: 20 1; 20000 1\nFilter 1: ON PK Fc 1000 Hz Gain 3 dB Q 2\n",
         "EqualizerAPO configuration", {{1000, 2}, {20, -1}}, 1},
        {"frequency,gain\n20,1\n200;-1\n2000\t3\n", "CSV", {{63.245553, 0}, {2000, 3}, {9000, 3}}, 0},
        {"GraphicEQ: 20 -60; 20000 60", "GraphicEQ line", {{20, -60}, {20000, 60}}, 0},  // the gain limits
    };
    for (const auto &c : cases) {
        ImportedCurve r = eq_import_parse(c.text, "eq.txt");
        ASSERT_TRUE(r.ok) << r.error;
        EXPECT_EQ(c.format, r.format) << c.text;
        EXPECT_FALSE(r.read.empty());
        EXPECT_EQ(c.notes, r.notes.size()) << c.text;
        for (const CurvePoint &p : c.expect) EXPECT_NEAR(p.gain_db, eq_import_gain_db(r, p.freq_hz, 48000), 0.12) << c.text << " at " << p.freq_hz;
    }
}

TEST(ToolImport, MistakesNameTheFileTheLineAndTheProblem) {
    const std::pair<const char *, const char *> cases[] = {
        {"Filter 1: ON LP Fc 100 Hz", "eq.txt: line 1: filter type LP cannot be imported"},
        {"Preamp: 1 dB\nFilter 1: ON PK Fc 100 Hz Gain 3 dB", "line 2: Q missing"},
        {"Filter 1: ON PK Fc 0 Hz Gain 3 dB Q 1", "Fc must be above 0"},
        {"Filter 1: ON HS Fc 9000 Hz Gain 1e9 dB", "line 1: gain 1e+09 dB is beyond +-60 dB"},
        {"Preamp: 40 dB\nPreamp: 30 dB\nGraphicEQ: 20 1", "line 2 (the preamp lines added up): gain 70 dB is beyond"},
        {"GraphicEQ: 20 1; 50 -60.5", "item 2 \"50 -60.5\": gain -60.5 dB is beyond +-60 dB"},
        {"20,1\n30,1e30", "line 2: gain 1e+30 dB is beyond +-60 dB"},
        {"Filter 1: ON PK Fc 10 Hz Gain 3 dB Width 1", "cannot read \"Width 1\""},
        {"Filter 1: MAYBE PK", "expected ON or OFF"},
        {"Preamp: loud\nGraphicEQ: 20 1", "line 1: expected \"Preamp: X dB\""},
        {"Device: X\nChannel: L", "nothing to import"},
        {"Preamp: -1 dB\nGraphicEQ: 20 -1; 50 x", "line 2: item 2 \"50 x\""},
        {"GraphicEQ: 20; 50 1", "item 1 \"20\": expected a frequency in Hz and a gain in dB"},
        {"GraphicEQ: 100 1; 50 1", "item 2 \"50 1\": frequency is not above the previous"},
        {"GraphicEQ: 0 1; 50 1", "above 0 Hz"},
        {"GraphicEQ: 23000 1", "no points below 22000 Hz"},
        {"20,1\n10,2", "line 2: frequency is not above the previous row's"},
        {"20,1,3\n30,1,2", "line 2: expected two numbers, frequency in Hz and gain in dB (this row has 3 columns)"},
        {"20 1", "at least two rows"},
    };
    for (const auto &[text, expect] : cases) {
        ImportedCurve r = eq_import_parse(text, "eq.txt");
        EXPECT_FALSE(r.ok) << text;
        EXPECT_NE(std::string::npos, r.error.find(expect)) << r.error;
    }
}

// import-graphiceq's one-group fit: a smooth curve within the effect's range comes out within a
// fraction of a dB through the effect's own interpolant, as reported; gains beyond -6..+7 dB
// are limited and counted, and the departure is measured against the input as given.
TEST(ToolGraphicEq, OneGroupFitFollowsTheEffectsInterpolantAndLimits) {
    std::vector<CurvePoint> in;
    std::vector<double> query;
    for (double f = 20.0; f <= 20000.0; f *= 1.0594630943592953) {  // 1/12 octave
        const double x = std::log10(f);
        in.push_back({std::round(f), 3.0 * std::exp(-(x - 1.7) * (x - 1.7) * 4.0) +
                                         2.5 * std::exp(-(x - 3.5) * (x - 3.5) * 8.0) - 1.0});
        query.push_back(in.back().freq_hz);
    }
    GroupFit fit = graphiceq_fit(in, 12, kLibrary);
    ASSERT_EQ(12u, fit.freq.size());
    EXPECT_TRUE(fit.limited_points == 0 && fit.rms_departure_db < 0.5) << fit.rms_departure_db;
    const auto drawn = effect_group_curve(fit.freq.data(), fit.gain.data(), 12, query, kLibrary);
    double worst = 0.0;
    for (size_t i = 0; i < in.size(); ++i) worst = std::max(worst, std::fabs(drawn[i] - in[i].gain_db));
    EXPECT_NEAR(fit.max_departure_db, worst, 1e-9);
    EXPECT_LT(worst, 1.0);

    GroupFit limited = graphiceq_fit({{20, -12}, {200, -3}, {2000, 10}, {20000, 0}}, 8, kLibrary);
    EXPECT_EQ(2, limited.limited_points);
    for (int32_t g : limited.gain) EXPECT_TRUE(g >= -6 && g <= 7) << g;
    EXPECT_GE(limited.max_departure_db, 3.0);
    EXPECT_EQ(graphiceq_fit({{1000, 3}}, 8, kLibrary).gain, std::vector<int32_t>(8, 3));
}

}  // namespace
