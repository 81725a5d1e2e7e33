// End-to-end: the sorn-hp executable as a user runs it.
#include "tests/test_effect_harness.h"
#include "tests/tool_test_support.h"
#include "tools/files/audio_file.h"
#include "tools/files/builtin_tuning.h"
#include "tools/files/tuning.h"

namespace {

namespace fs = std::filesystem;
using namespace sorn_tool;
using sorn_test::has;
using sorn_test::slurp;
using Result = sorn_test::ToolResult;

void spit(const fs::path &p, const std::string &text) { std::ofstream(p, std::ios::binary) << text; }

using ToolCli = sorn_test::ToolDir;

TEST_F(ToolCli, HelpForEverySubcommandShowsAnExample) {
    for (const std::string sub : {"run", "demo", "design", "params", "import", "import-graphiceq", "info"}) {
        Result r = tool({sub, "--help"});
        EXPECT_EQ(0, r.code) << sub;
        EXPECT_TRUE(has(r.out, "Example:\n  sorn-hp " + sub)) << r.out;
    }
    EXPECT_EQ(1, tool({}).code);
}

TEST_F(ToolCli, DemoRunsThroughTheLibraryAndRefusesToOverwriteWithoutYes) {
    Result r = tool({"demo", "out/demo"});
    ASSERT_EQ(0, r.code) << r.err;
    for (const char *f : {"program.wav", "processed.wav", "tuning.json", "params.bin"})
        EXPECT_TRUE(fs::exists(at("out/demo") / f)) << f;
    EXPECT_TRUE(fs::exists(at("out/demo/response.png")) || fs::exists(at("out/demo/response.gp")));
    EXPECT_TRUE(has(r.out, "latency      719 frames") && has(r.out, "largest deviation")) << r.out;
    AudioBuffer program, processed;
    std::string error;
    ASSERT_TRUE(audio_read(at("out/demo/program.wav"), SampleFormat::f32, program, error) &&
                audio_read(at("out/demo/processed.wav"), SampleFormat::f32, processed, error)) << error;
    EXPECT_TRUE(program.frames == processed.frames && processed.channels == 2 && program.f32 != processed.f32);

    Result again = tool({"demo", "out/demo"});
    EXPECT_TRUE(again.code == 1 && has(again.err, "exists; add -y to overwrite it")) << again.err;
}

// The published corrections fitted through the library's design: each within 0.5 dB RMS of its
// target after the level offset, by the import's report and by design's own measure of the
// written tuning, which shows the target beside requested and achieved. The block comes back
// byte for byte through its text form; the library's log reaches stderr only with -v.
TEST_F(ToolCli, ImportFitsThePublishedCorrectionsAndDesignShowsTheTarget) {
    const auto rms_after = [](const std::string &text, const std::string &label) {
        const size_t at = text.find(label);
        return at == std::string::npos ? 99.0 : std::atof(text.c_str() + at + label.size());
    };
    for (const char *name : {"Sennheiser HD 650 GraphicEQ", "Sennheiser HD 650 ParametricEQ",
                             "Sony WH-1000XM4 GraphicEQ", "Sony WH-1000XM4 ParametricEQ"}) {
        SCOPED_TRACE(name);
        Result r = tool({"import", std::string(SORN_HP_CORRECTIONS "/") + name + ".txt", "-o", "fit.json", "-y"});
        ASSERT_EQ(0, r.code) << r.err;
        EXPECT_TRUE(has(r.out, "level offset  +") && has(r.out, "error from    the -6..+7 dB window")) << r.out;
        EXPECT_LE(rms_after(r.out, "20000 Hz: RMS "), 0.5) << r.out;
        Result d = tool({"design", "fit.json", "--csv", "fit.csv", "-y"});
        ASSERT_EQ(0, d.code) << d.err;
        EXPECT_LE(rms_after(d.out, " dB): RMS "), 0.5) << d.out;
        EXPECT_EQ(0u, slurp(at("fit.csv")).rfind("frequency_hz,requested_db,achieved_db,lc_db,hp_db,ea_db,target_db\n", 0));
        EXPECT_FALSE(has(r.err + d.err, "ORLA_SORN")) << r.err << d.err;
    }
    ASSERT_EQ(0, tool({"params", "fit.json", "-o", "a.bin"}).code);
    spit(at("b.json"), tool({"params", "--decode", "a.bin"}).out);
    ASSERT_EQ(0, tool({"params", "b.json", "-o", "b.bin"}).code);
    EXPECT_EQ(slurp(at("a.bin")), slurp(at("b.bin")));
    EXPECT_TRUE(has(tool({"design", "fit.json", "-v"}).err, "ORLA_SORN"));

    // import-graphiceq keeps its one-group fit; design writes taps and plot, or without
    // gnuplot the data and the script and how to render them.
    spit(at("eq.txt"), "GraphicEQ: 20 3; 100 2.5; 300 0; 1000 -1; 3000 2; 6000 4; 10000 -2; 16000 1\n");
    Result g = tool({"import-graphiceq", "eq.txt", "-o", "eq.json"});
    ASSERT_EQ(0, g.code) << g.err;
    EXPECT_TRUE(has(g.out, "into hp (12 points") && has(g.out, "departure from the input: largest")) << g.out;
    Result d = tool({"design", "eq.json", "--plot", "r.png", "--taps", "r.txt"});
    ASSERT_EQ(0, d.code) << d.err;
    std::ifstream taps(at("r.txt"));
    int count = 0;
    for (std::string line; std::getline(taps, line);) count += !line.empty() && line[0] != '#';
    EXPECT_EQ(513, count);
    EXPECT_TRUE(fs::exists(at("r.png")) || has(d.err, "gnuplot is not installed"));
    Result bare = tool({"design", "fit.json", "--plot", "s.svg"}, "PATH=/nonexistent");
    ASSERT_EQ(0, bare.code) << bare.err;
    EXPECT_FALSE(fs::exists(at("s.svg")));
    EXPECT_TRUE(fs::exists(at("s.dat")) && has(slurp(at("s.gp")), "set terminal svg") && has(slurp(at("s.gp")), "target"));
    EXPECT_TRUE(has(bare.err, "Render it with: gnuplot " + at("s.gp").string())) << bare.err;
}

TEST_F(ToolCli, ErrorsAndWarningsGiveTheirMessagesAndExitCodes) {
    write_signal("in.wav", 48000, 2, 0.2);
    write_signal("slow.wav", 32000, 2, 0.1);
    write_signal("three.wav", 48000, 3, 0.03);
    spit(at("bad.json"), "{\"hp\": {\"enabled\": true, \"points\": [[50, 0], [200, 0], [25000, 1]]}}");
    spit(at("odd.bin"), std::string(100, '\0'));
    const std::string bad_freq = "bad.json: hp.points: point 3 [25000, 1]: frequency 25000 Hz is above 22000 Hz";
    spit(at("old.wav"), "old");
    spit(at("huge.txt"), "GraphicEQ: 20 1; 50 1e30");
    const char *env_lib = "SORN_HP_LIB=/nonexistent/env.so";
    const struct { std::vector<std::string> args; int code; std::string message; const char *must_not_exist, *env = nullptr; } cases[] = {
        {{"run", "in.wav", "out.wav", "--tuning", "bad.json"}, 2, bad_freq, "out.wav"},
        {{"params", "bad.json", "-o", "bad.bin"}, 2, bad_freq, "bad.bin"},
        {{"design", "bad.json", "--plot", "bad.png"}, 2, bad_freq, "bad.png"},
        {{"run", "in.wav", "in.wav", "-y"}, 1, "in.wav is also an input", nullptr},
        {{"run", "in.wav", "bad.json", "--tuning", "bad.json"}, 1, "bad.json is also an input", nullptr},
        {{"run", "in.wav", "out.wav", "--format", "24"}, 1, "--format must be float, 16 or 32", "out.wav"},
        {{"run", "in.wav", "out.xyz"}, 1, "cannot tell the audio format", "out.xyz"},
        {{"run", "in.wav", "out.wav", "--device", "toaster"}, 1, "--device toaster is unknown", "out.wav"},
        {{"run", "in.wav", "out.wav", "--loud"}, 1, "--loud", "out.wav"},
        {{"run", "missing.wav", "out.wav"}, 2, "missing.wav: cannot read audio", "out.wav"},
        {{"run", "three.wav", "out.wav"}, 2, "three.wav: 3 channels", "out.wav"},
        {{"run", "in.wav", "out.wav", "--lib", "/nonexistent/lib.so"}, 2, "cannot load the effect library /nonexistent/lib.so", "out.wav"},
        {{"params", "--decode", "odd.bin"}, 2, "odd.bin: 100 bytes; a parameter block is 292 bytes", nullptr},
        {{"params", "bad.json"}, 1, "needs -o", nullptr},
        {{"design", "--rate", "96000"}, 1, "--rate 96000", nullptr},
        {{"design", "--plot", "r.jpg"}, 1, "must be named .png or .svg", "r.jpg"},
        {{"import-graphiceq", "bad.json", "-o", "x.json"}, 2, "bad.json: not a GraphicEQ text", "x.json"},
        {{"import", "bad.json", "-o", "x.json"}, 2, "bad.json: not a correction", "x.json"},
        {{"import", "bad.json", "-o", "x.json", "--rate", "8000"}, 1, "--rate 8000", "x.json"},
        {{"import", "huge.txt", "-o", "x.json"}, 2, "huge.txt: item 2 \"50 1e30\": gain 1e+30 dB is beyond +-60 dB", "x.json"},
        {{"import-graphiceq", "huge.txt", "-o", "x.json"}, 2, "gain 1e+30 dB is beyond +-60 dB", "x.json"},
        {{"studio", "bad.json", "--port", "0"}, 2, bad_freq, nullptr},
        {{"studio", "odd.bin", "--port", "0"}, 2, "odd.bin: 100 bytes", nullptr},
        {{"studio", "--port", "0", "--audio", "in.wav"}, 2, "in.wav: not a folder", nullptr},
        {{"studio", "--port", "70000"}, 1, "--port must be 0 to 65535", nullptr},
        // Not an error, but said loudly: the output is the input unchanged.
        {{"run", "slow.wav", "slow-out.wav"}, 0, "THE EFFECT DOES NOT PROCESS THIS RATE", nullptr},
        // An existing output needs -y; the environment names the library; --lib overrides it.
        {{"run", "in.wav", "old.wav"}, 1, "old.wav exists; add -y to overwrite it", nullptr},
        {{"info"}, 2, "/nonexistent/env.so", nullptr, env_lib},
        {{"info", "--lib", SORN_LIBRARY_PATH}, 0, "", nullptr, env_lib},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args.back() + " " + c.message);
        Result r = tool(c.args, c.env ? c.env : "");
        EXPECT_EQ(c.code, r.code) << r.err;
        EXPECT_TRUE(has(r.err, c.message)) << r.err;
        EXPECT_TRUE(!c.must_not_exist || !fs::exists(at(c.must_not_exist)));
    }
    EXPECT_EQ("old", slurp(at("old.wav")));
    // -q leaves nothing on either stream.
    const Result quiet = tool({"run", "in.wav", "out.wav", "-y", "-q"});
    EXPECT_TRUE(quiet.code == 0 && quiet.out + quiet.err == "") << quiet.err;
}

}  // namespace
