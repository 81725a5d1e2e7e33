// Tuning files and parameter blocks of the sorn-hp tool.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "tools/files/builtin_tuning.h"
#include "tools/files/tuning.h"

namespace {

using namespace sorn_tool;

// A tuning file holding one group with the given JSON body, as text and as read.
std::string grp(const char *name, const std::string &body, const std::string &rest = "") {
    return std::string("{\"") + name + "\": {" + body + "}" + rest + "}";
}
TuningResult one_group(const char *name, const std::string &body, const std::string &rest = "") {
    return tuning_from_json(grp(name, body, rest), "t.json");
}

TEST(ToolTuning, BuiltInTuningIsCleanAndUsesEveryGroup) {
    TuningResult t = tuning_from_json(builtin_tuning_json(), "built-in");
    ASSERT_TRUE(t.ok && t.notes.empty() && params_findings(t.params).empty()) << t.error;
    for (Group g : kGroups) EXPECT_EQ(1, group_switch(t.params, g)) << group_name(g);
    EXPECT_EQ(1, t.params.ss);
}

TEST(ToolTuning, BlockBytesAreLittleEndianInTheDocumentedOrder) {
    sorn_hp_params_t p{};
    p.lc = 1, p.ss = -2, p.lc_freq[0] = 0x01020304, p.ea_gain[7] = -1;
    const auto b = params_to_bytes(p);
    ASSERT_EQ(292u, b.size());
    // ss is the fourth word, lc_freq starts at byte 36, the last ea gain fills the last word.
    EXPECT_TRUE(b[0] == 1 && b[12] == 0xFE && b[15] == 0xFF && b[36] == 0x04 && b[39] == 0x01 && b[288] == 0xFF);
}

// Any block a client may send, decoded to a tuning and encoded again, gives the same bytes:
// odd switch values, reserved words, and junk in the tables of groups that are off.
TEST(ToolTuning, AnyBlockSurvivesDecodeAndEncodeByteForByte) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int32_t> any(INT32_MIN, INT32_MAX);
    std::uniform_int_distribution<int> pick(0, 4);
    static const int32_t kSwitches[] = {0, 1, 2, -5, INT32_MAX};
    for (int round = 0; round < 200; ++round) {
        sorn_hp_params_t p{};
        for (Group g : kGroups) {
            group_switch(p, g) = kSwitches[pick(rng)];
            const bool used = group_used(p, g);
            for (uint32_t i = 0, f = 0; i < static_cast<uint32_t>(group_points(g)); ++i) {
                if (used) group_freq(p, g)[i] = f += 1 + rng() % 1500;
                else if (pick(rng) > 0) group_freq(p, g)[i] = static_cast<uint32_t>(any(rng));
                group_gain(p, g)[i] = used ? static_cast<int32_t>(rng() % 25) - 12 : any(rng);
            }
        }
        p.ss = pick(rng) == 0 ? any(rng) : pick(rng) % 2;
        if (pick(rng) == 0) p.reserved[pick(rng)] = any(rng);
        const std::string json = tuning_to_json(p);
        TuningResult t = tuning_from_json(json, "decoded");
        ASSERT_TRUE(t.ok) << t.error << "\n" << json;
        ASSERT_EQ(params_to_bytes(p), params_to_bytes(t.params)) << json;
    }
}

// Every mistake names the file and the field and says what is wrong; nothing is returned.
TEST(ToolTuning, MistakesGiveOneMessageNamingFileFieldAndProblem) {
    const struct {
        std::string json;
        std::vector<std::string> expect;
    } cases[] = {
        {grp("lc", "\"enabled\": true, \"points\": [[50,0],[200,1.5]]"), {"lc.points: point 2", "gain 1.5", "not a whole dB"}},
        {grp("ea", "\"enabled\": true, \"points\": [[50,0],[40,1]]"), {"ea.points: point 2 [40, 1]", "increasing frequency order"}},
        {grp("ea", "\"enabled\": true, \"points\": [[50,0],[50,1]]"), {"ea.points: point 2", "not above the previous"}},
        {grp("hp", "\"enabled\": true, \"points\": [[-10,0]]"), {"below 0 Hz"}},
        {grp("hp", "\"enabled\": true, \"gains\": []"), {"hp.gains: unknown key"}},
        {grp("hp", "\"enabled\": \"yes\""), {"hp.enabled", "true or false"}},
        {grp("hp", "\"enabled\": true"), {"hp.points", "missing"}},
        {grp("hp", "\"enabled\": true, \"points\": [[100]]"), {"point 1", "pair"}},
        {grp("hp", "\"enabled\": true, \"points\": [[\"1k\", 1]]"), {"frequency", "number of Hz"}},
        {grp("hp", "\"enabled\": true, \"enabled\": false"), {"hp.enabled: given twice"}},
        {"{\"reserved\": [1, 2]}", {"reserved", "5 integers"}},
        {"{\"target\": {\"points\": [[100, 1], [50, 2]]}}", {"target.points: point 2", "increasing"}},
        {"{\"target\": {\"points\": [[100, 1]], \"level_offset_db\": \"+3\"}}", {"target.level_offset_db", "number"}},
        {"{\n  \"lc\": {\n    \"enabled\": tru\n  }\n}", {"not valid JSON", "line 3"}},
        {grp("hp", "\"enabled\": true, \"points\": [[100, 1e999]]"), {"not valid JSON", "overflow", "1e999"}},
    };
    for (const auto &c : cases) {
        TuningResult t = tuning_from_json(c.json, "my.json");
        EXPECT_FALSE(t.ok) << c.json;
        EXPECT_EQ(0u, t.error.rfind("my.json: ", 0)) << t.error;
        for (const std::string &e : c.expect) EXPECT_NE(std::string::npos, t.error.find(e)) << t.error;
        EXPECT_EQ(0, t.params.hp) << "no partial block on error";
    }
}

// Whole numbers may be written as decimals, and 0 and 22000 Hz are in range. A group given
// another count than the block holds is spread on a log-frequency grid over its own span,
// keeping the curve's shape, and the reader is told.
TEST(ToolTuning, TablesAreTakenAsGivenOrResampledWithANote) {
    TuningResult ends = one_group("ea", "\"enabled\": 1, \"points\": [[0,2.0],[100,1],[200,0],[300,0],[400,0],"
                                        "[500,0],[600,0],[22000,-3e0]]", ", \"surround\": false");
    ASSERT_TRUE(ends.ok) << ends.error;
    EXPECT_TRUE(ends.notes.empty() && ends.params.ea_gain[0] == 2 && ends.params.ea_freq[7] == 22000u &&
                ends.params.ea_gain[7] == -3);
    TuningResult t = one_group("hp", "\"enabled\": true, \"points\": [[100,-4],[1000,0],[10000,4]]");
    ASSERT_TRUE(t.ok && t.notes.size() == 1) << t.error;
    EXPECT_NE(std::string::npos, t.notes[0].find("hp.points: 3 points resampled to the block's 12")) << t.notes[0];
    EXPECT_TRUE(t.params.hp_freq[0] == 100u && t.params.hp_freq[11] == 10000u && t.params.hp_gain[0] == -4 &&
                t.params.hp_gain[11] == 4);
    TuningResult top = one_group("lc", "\"enabled\": true, \"points\": [[21990,0],[21995,1],[21999,2]]");
    ASSERT_TRUE(top.ok) << top.error;
    EXPECT_LE(top.params.lc_freq[11], 22000u);
    for (int i = 1; i < 12; ++i) {
        EXPECT_GT(t.params.hp_freq[i], t.params.hp_freq[i - 1]);
        EXPECT_GE(t.params.hp_gain[i], t.params.hp_gain[i - 1]) << "a rising curve stays rising";
        EXPECT_GT(top.params.lc_freq[i], top.params.lc_freq[i - 1]);
    }
    const TuningResult one = one_group("ea", "\"enabled\": true, \"points\": [[1000,3]]");
    EXPECT_TRUE(one.ok && std::count(one.params.ea_gain, one.params.ea_gain + 8, 3) == 8);
}

// The target an import fitted to travels with the tuning file but never reaches the block.
TEST(ToolTuning, ImportTargetIsKeptBesideTheBlock) {
    const sorn_hp_params_t p = tuning_from_json(builtin_tuning_json(), "built-in").params;
    const TuningTarget target{"hd650.txt", 7.5, {{20, -0.2}, {1000, -6.85}, {19871, -15.6}}};
    TuningResult back = tuning_from_json(tuning_to_json(p, &target), "t.json");
    ASSERT_TRUE(back.ok && back.target.points.size() == 3) << back.error;
    EXPECT_EQ(params_to_bytes(p), params_to_bytes(back.params));
    EXPECT_TRUE(back.target.source == "hd650.txt" && back.target.level_offset_db == 7.5 &&
                back.target.points[1].gain_db == -6.85);
}

TEST(ToolTuning, DisabledGroupKeepsItsTableAsGivenWithANoteWhenItWouldBeRefused) {
    const std::string pts = "\"points\": [[9,0],[8,0],[7,0],[6,0],[5,0],[4,0],[3,0],[2,0],[1,0],[0,0],[30000,0],[0,0]]";
    TuningResult t = one_group("lc", "\"enabled\": false, " + pts);
    ASSERT_TRUE(t.ok && t.notes.size() == 1) << t.error;
    EXPECT_TRUE(t.params.lc_freq[10] == 30000u && t.notes[0].find("lc is off") != std::string::npos) << t.notes[0];
    EXPECT_FALSE(one_group("lc", "\"enabled\": true, " + pts).ok);
}

TEST(ToolTuning, FindingsReportWhatTheEffectWillRefuseInUsedGroupsOnly) {
    sorn_hp_params_t p{};
    p.hp = 1;
    for (int i = 0; i < 12; ++i) p.hp_freq[i] = 100 * (i + 1);
    p.hp_freq[2] = 22001;
    p.ea_freq[0] = 99999;  // ea is off: never read by the effect
    const auto f = params_findings(p);
    ASSERT_FALSE(f.empty());
    EXPECT_TRUE(f[0].find("hp: point 3 [22001, 0]") != std::string::npos &&
                f[0].find("without frequency compensation") != std::string::npos) << f[0];
    for (const std::string &s : f) EXPECT_EQ(std::string::npos, s.find("ea")) << s;
}

}  // namespace
