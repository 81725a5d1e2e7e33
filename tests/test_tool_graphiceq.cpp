// GraphicEQ text import of the sorn-hp tool, fitted with the library's own curve interpolant.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "design/cubic_interp.h"
#include "tools/design_view.h"
#include "tools/graphiceq.h"

namespace {

using namespace sorn_tool;

const Interpolant kLibrary{cubicinterp_init, cubicinterp_process, cubicinterp_deinit};

TEST(ToolGraphicEq, ParsingToleratesSpacingCaseBomAndTrailingSeparator) {
    for (const std::string text : {"GraphicEQ: 20 -1.5; 100 0; 1000 2.25; 10000 -3",
                                   "\xEF\xBB\xBF  graphiceq:20 -1.5;100\t0 ;\n 1000   2.25;\r\n10000 -3;\n",
                                   "GRAPHICEQ:\n20 -1.5;\n100 0;\n1000 2.25;\n10000 -3;;"}) {
        GraphicEqParse r = graphiceq_parse(text, "eq.txt");
        ASSERT_TRUE(r.ok) << r.error;
        ASSERT_EQ(4u, r.points.size());
        EXPECT_DOUBLE_EQ(20.0, r.points[0].freq_hz);
        EXPECT_DOUBLE_EQ(-1.5, r.points[0].gain_db);
        EXPECT_DOUBLE_EQ(2.25, r.points[2].gain_db);
        EXPECT_DOUBLE_EQ(-3.0, r.points[3].gain_db);
    }
}

TEST(ToolGraphicEq, RefusesWhatIsNotThePublishedFormatAndDropsPointsAbove22000Hz) {
    const std::pair<const char *, const char *> cases[] = {
        {"Preamp: -6 dB", "must start with \"GraphicEQ:\""},
        {"GraphicEQ: 20 -1; 50 x; 100 2", "item 2 \"50 x\""},
        {"GraphicEQ: 20; 50 1", "item 1 \"20\": expected a frequency in Hz and a gain in dB"},
        {"GraphicEQ: 100 1; 50 1", "item 2 \"50 1\": frequency is not above the previous"},
        {"GraphicEQ: 0 1; 50 1", "above 0 Hz"},
        {"GraphicEQ: ", "no points"},
        {"GraphicEQ: 23000 1", "no points below 22000 Hz"},
    };
    for (const auto &[text, expect] : cases) {
        GraphicEqParse r = graphiceq_parse(text, "eq.txt");
        EXPECT_FALSE(r.ok) << text;
        EXPECT_EQ(0u, r.error.rfind("eq.txt: ", 0)) << r.error;
        EXPECT_NE(std::string::npos, r.error.find(expect)) << r.error;
    }
    GraphicEqParse top = graphiceq_parse("GraphicEQ: 20 0; 21000 1; 22000 2; 24000 3", "eq.txt");
    ASSERT_TRUE(top.ok);
    EXPECT_EQ(2u, top.points.size());
    ASSERT_EQ(1u, top.notes.size());
    EXPECT_NE(std::string::npos, top.notes[0].find("2 points at or above 22000 Hz dropped"));
}

// A dense, smooth curve of the kind published for headphones, within the effect's range: the 12
// fitted points on a log grid reproduce it closely through the effect's own interpolation, and
// the departure reported is the one the effect would draw.
TEST(ToolGraphicEq, SmoothCurveFitsWithinAFractionOfADecibel) {
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
    EXPECT_EQ(20u, fit.freq.front());
    for (size_t i = 1; i < fit.freq.size(); ++i) EXPECT_GT(fit.freq[i], fit.freq[i - 1]);
    EXPECT_EQ(0, fit.limited_points);
    EXPECT_LT(fit.rms_departure_db, 0.5);
    EXPECT_LT(fit.max_departure_db, 1.0);
    const auto drawn = effect_group_curve(fit.freq.data(), fit.gain.data(), 12, query, kLibrary);
    double worst = 0.0;
    for (size_t i = 0; i < in.size(); ++i) worst = std::max(worst, std::fabs(drawn[i] - in[i].gain_db));
    EXPECT_NEAR(fit.max_departure_db, worst, 1e-9);
}

TEST(ToolGraphicEq, GainsBeyondTheEffectsRangeAreLimitedAndCounted) {
    GroupFit fit = graphiceq_fit({{20, -12}, {200, -3}, {2000, 10}, {20000, 0}}, 8, kLibrary);
    EXPECT_EQ(2, fit.limited_points);
    for (int32_t g : fit.gain) {
        EXPECT_GE(g, -6);
        EXPECT_LE(g, 7);
    }
    EXPECT_GE(fit.max_departure_db, 3.0);  // measured against the input as given
    GroupFit flat = graphiceq_fit({{1000, 3}}, 8, kLibrary);
    EXPECT_EQ(flat.gain, std::vector<int32_t>(8, 3));
    EXPECT_NEAR(0.0, flat.max_departure_db, 1e-6);
}

}  // namespace
