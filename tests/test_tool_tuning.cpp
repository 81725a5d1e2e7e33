// Tuning files and parameter blocks of the sorn-hp tool.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "tools/builtin_tuning.h"
#include "tools/tuning.h"

namespace {

using namespace sorn_tool;

std::string group_json(const char *name, const std::string &body) {
    return std::string("\"") + name + "\": {" + body + "}";
}


TEST(ToolTuning, BuiltInTuningIsCleanAndUsesEveryGroup) {
    TuningResult t = tuning_from_json(builtin_tuning_json(), "built-in");
    ASSERT_TRUE(t.ok) << t.error;
    EXPECT_TRUE(t.notes.empty());
    for (Group g : kGroups) EXPECT_EQ(1, group_switch(t.params, g)) << group_name(g);
    EXPECT_EQ(1, t.params.ss);
    EXPECT_TRUE(params_findings(t.params).empty());
}

TEST(ToolTuning, BlockBytesAreLittleEndianInTheDocumentedOrder) {
    sorn_hp_params_t p{};
    p.lc = 1;
    p.ss = -2;
    p.lc_freq[0] = 0x01020304;
    p.ea_gain[7] = -1;
    auto b = params_to_bytes(p);
    ASSERT_EQ(292u, b.size());
    EXPECT_EQ(1, b[0]);
    EXPECT_EQ(0xFE, b[12]);
    EXPECT_EQ(0xFF, b[15]);
    EXPECT_EQ(0x04, b[36]);  // lc_freq starts at byte 36
    EXPECT_EQ(0x01, b[39]);
    EXPECT_EQ(0xFF, b[288]);  // the last ea gain fills the last word
    sorn_hp_params_t back = params_from_bytes(b.data());
    EXPECT_EQ(0, std::memcmp(&p, &back, sizeof p));
}

// Any block a client may send, decoded to a tuning and encoded again, gives the same bytes:
// odd switch values, reserved words, and junk in the tables of groups that are off.
TEST(ToolTuning, AnyBlockSurvivesDecodeAndEncodeByteForByte) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    std::uniform_int_distribution<int> pick(0, 4);
    for (int round = 0; round < 200; ++round) {
        sorn_hp_params_t p{};
        for (Group g : kGroups) {
            static const int32_t kSwitches[] = {0, 1, 2, -5, INT32_MAX};
            group_switch(p, g) = kSwitches[pick(rng)];
            uint32_t f = 0;
            for (int i = 0; i < group_points(g); ++i) {
                if (group_used(p, g)) {
                    f += 1 + static_cast<uint32_t>(rng() % 1500);
                    group_freq(p, g)[i] = f;
                } else if (pick(rng) > 0) {
                    group_freq(p, g)[i] = static_cast<uint32_t>(any(rng));
                }
                group_gain(p, g)[i] = group_used(p, g) ? static_cast<int32_t>(rng() % 25) - 12 : any(rng);
            }
        }
        p.ss = pick(rng) == 0 ? any(rng) : pick(rng) % 2;
        if (pick(rng) == 0) p.reserved[pick(rng)] = any(rng);

        std::string json = tuning_to_json(p);
        TuningResult t = tuning_from_json(json, "decoded");
        ASSERT_TRUE(t.ok) << t.error << "\n" << json;
        auto a = params_to_bytes(p), b = params_to_bytes(t.params);
        ASSERT_EQ(a, b) << json;
    }
}

// Every mistake names the file and the field and says what is wrong; nothing is returned.
TEST(ToolTuning, MistakesGiveOneMessageNamingFileFieldAndProblem) {
    struct Case {
        std::string json;
        std::vector<std::string> expect;
    };
    const std::string hp_bad_freq =
        "{" + group_json("hp", "\"enabled\": true, \"points\": [[50,0],[200,0],[25000,1]]") + "}";
    const Case cases[] = {
        {hp_bad_freq, {"my.json: hp.points: point 3 [25000, 1]", "above 22000 Hz"}},
        {"{" + group_json("lc", "\"enabled\": true, \"points\": [[50,0],[200,1.5]]") + "}",
         {"lc.points: point 2", "gain 1.5", "not a whole dB"}},
        {"{" + group_json("ea", "\"enabled\": true, \"points\": [[50,0],[40,1]]") + "}",
         {"ea.points: point 2 [40, 1]", "increasing frequency order"}},
        {"{" + group_json("ea", "\"enabled\": true, \"points\": [[50,0],[50,1]]") + "}",
         {"ea.points: point 2", "not above the previous"}},
        {"{" + group_json("hp", "\"enabled\": true, \"points\": [[-10,0]]") + "}", {"below 0 Hz"}},
        {"{\"loudness\": 3}", {"loudness: unknown key"}},
        {"{" + group_json("hp", "\"enabled\": true, \"gains\": []") + "}", {"hp.gains: unknown key"}},
        {"{" + group_json("hp", "\"enabled\": \"yes\"") + "}", {"hp.enabled", "true or false"}},
        {"{" + group_json("hp", "\"enabled\": true") + "}", {"hp.points", "missing"}},
        {"{" + group_json("hp", "\"points\": []") + "}", {"hp.enabled", "missing"}},
        {"{" + group_json("hp", "\"enabled\": true, \"points\": [[100]]") + "}", {"point 1", "pair"}},
        {"{" + group_json("hp", "\"enabled\": true, \"points\": [[\"1k\", 1]]") + "}", {"frequency", "number of Hz"}},
        {"{\"surround\": true, \"surround\": false}", {"surround: given twice"}},
        {"{" + group_json("hp", "\"enabled\": true, \"enabled\": false") + "}", {"hp.enabled: given twice"}},
        {"{\"reserved\": [1, 2]}", {"reserved", "5 integers"}},
        {"{\n  \"lc\": {\n    \"enabled\": tru\n  }\n}", {"not valid JSON", "line 3"}},
        {"[1, 2]", {"JSON object"}},
    };
    for (const Case &c : cases) {
        TuningResult t = tuning_from_json(c.json, "my.json");
        EXPECT_FALSE(t.ok) << c.json;
        EXPECT_EQ(0u, t.error.rfind("my.json: ", 0)) << t.error;
        for (const std::string &e : c.expect) EXPECT_NE(std::string::npos, t.error.find(e)) << t.error;
        EXPECT_EQ(0, t.params.hp) << "no partial block on error";
    }
}

TEST(ToolTuning, AcceptsWholeNumbersWrittenAsDecimalsAndTheBandEnds) {
    TuningResult t = tuning_from_json(
        "{" + group_json("ea", "\"enabled\": 1, \"points\": [[0,2.0],[100,1],[200,0],[300,0],[400,0],"
                               "[500,0],[600,0],[22000,-3e0]]") + ", \"surround\": false}",
        "t.json");
    ASSERT_TRUE(t.ok) << t.error;
    EXPECT_EQ(2, t.params.ea_gain[0]);
    EXPECT_EQ(22000u, t.params.ea_freq[7]);
    EXPECT_EQ(-3, t.params.ea_gain[7]);
}

// A group given another count than the block holds is spread on a log-frequency grid over its
// own span, keeping the curve's shape, and the reader is told.
TEST(ToolTuning, OtherPointCountsAreResampledWithANote) {
    TuningResult t = tuning_from_json(
        "{" + group_json("hp", "\"enabled\": true, \"points\": [[100,-4],[1000,0],[10000,4]]") + "}", "t.json");
    ASSERT_TRUE(t.ok) << t.error;
    ASSERT_EQ(1u, t.notes.size());
    EXPECT_NE(std::string::npos, t.notes[0].find("hp.points: 3 points resampled to the block's 12")) << t.notes[0];
    EXPECT_EQ(100u, t.params.hp_freq[0]);
    EXPECT_EQ(10000u, t.params.hp_freq[11]);
    EXPECT_EQ(-4, t.params.hp_gain[0]);
    EXPECT_EQ(4, t.params.hp_gain[11]);
    for (int i = 1; i < 12; ++i) {
        EXPECT_GT(t.params.hp_freq[i], t.params.hp_freq[i - 1]);
        EXPECT_GE(t.params.hp_gain[i], t.params.hp_gain[i - 1]) << "a rising curve stays rising";
    }

    TuningResult one = tuning_from_json("{" + group_json("ea", "\"enabled\": true, \"points\": [[1000,3]]") + "}", "t");
    ASSERT_TRUE(one.ok) << one.error;
    for (int i = 0; i < 8; ++i) EXPECT_EQ(3, one.params.ea_gain[i]);

    TuningResult many = tuning_from_json(
        "{" + group_json("lc", "\"enabled\": true, \"points\": [[21990,0],[21995,1],[21999,2]]") + "}", "t");
    ASSERT_TRUE(many.ok) << many.error;
    EXPECT_LE(many.params.lc_freq[11], 22000u);
    for (int i = 1; i < 12; ++i) EXPECT_GT(many.params.lc_freq[i], many.params.lc_freq[i - 1]);
}

TEST(ToolTuning, DisabledGroupKeepsItsTableAsGivenWithANoteWhenItWouldBeRefused) {
    std::string pts = "[[9,0],[8,0],[7,0],[6,0],[5,0],[4,0],[3,0],[2,0],[1,0],[0,0],[30000,0],[0,0]]";
    TuningResult t = tuning_from_json("{" + group_json("lc", "\"enabled\": false, \"points\": " + pts) + "}", "t.json");
    ASSERT_TRUE(t.ok) << t.error;
    EXPECT_EQ(30000u, t.params.lc_freq[10]);
    ASSERT_EQ(1u, t.notes.size());
    EXPECT_NE(std::string::npos, t.notes[0].find("lc is off")) << t.notes[0];

    TuningResult on = tuning_from_json("{" + group_json("lc", "\"enabled\": true, \"points\": " + pts) + "}", "t.json");
    EXPECT_FALSE(on.ok);
}

TEST(ToolTuning, FindingsReportWhatTheEffectWillRefuseInUsedGroupsOnly) {
    sorn_hp_params_t p{};
    p.hp = 1;
    for (int i = 0; i < 12; ++i) p.hp_freq[i] = 100 * (i + 1);
    p.hp_freq[2] = 22001;
    p.ea_freq[0] = 99999;  // ea is off: never read by the effect
    auto f = params_findings(p);
    ASSERT_FALSE(f.empty());
    EXPECT_NE(std::string::npos, f[0].find("hp: point 3 [22001, 0]")) << f[0];
    EXPECT_NE(std::string::npos, f[0].find("without frequency compensation"));
    for (const std::string &s : f) EXPECT_EQ(std::string::npos, s.find("ea")) << s;
}

}  // namespace
