// End-to-end: the sorn-hp executable as a user runs it.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <hardware/audio_effect.h>

#include "tools/audio_file.h"
#include "tools/builtin_tuning.h"
#include "tools/tuning.h"

extern char **environ;

namespace {

namespace fs = std::filesystem;
using namespace sorn_tool;

struct Result {
    int code = -1;
    std::string out, err;
};

std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void spit(const fs::path &p, const std::string &text) { std::ofstream(p, std::ios::binary) << text; }

class ToolCli : public ::testing::Test {
protected:
    fs::path dir;

    void SetUp() override {
        char tmpl[] = "/tmp/sorn-hp-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
    }
    void TearDown() override { fs::remove_all(dir); }

    fs::path at(const std::string &name) const { return dir / name; }

    /* Runs the tool in `dir`; `env` entries ("NAME=value") replace or add variables. */
    Result tool(std::vector<std::string> args, std::vector<std::string> env = {}) {
        args.insert(args.begin(), SORN_HP_TOOL);
#ifdef SORN_HP_TOOL_EMULATOR
        // Cross builds run the tool under the target's emulator (qemu-user).
        args.insert(args.begin(), SORN_HP_TOOL_EMULATOR);
#endif
        std::vector<char *> argv;
        for (std::string &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        std::vector<std::string> vars;
        for (char **e = environ; *e; ++e) {
            std::string v = *e;
            bool replaced = false;
            for (const std::string &o : env) replaced |= v.substr(0, v.find('=')) == o.substr(0, o.find('='));
            if (!replaced) vars.push_back(v);
        }
        vars.insert(vars.end(), env.begin(), env.end());
        std::vector<char *> envp;
        for (std::string &v : vars) envp.push_back(v.data());
        envp.push_back(nullptr);

        const std::string out = at(".stdout"), err = at(".stderr");
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addchdir_np(&fa, dir.c_str());
        pid_t pid = 0;
        Result r;
        if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data()) == 0) {
            int status = 0;
            waitpid(pid, &status, 0);
            r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        posix_spawn_file_actions_destroy(&fa);
        r.out = slurp(out);
        r.err = slurp(err);
        return r;
    }

    /* A stereo test signal: tones, noise and a pause, different on each side. */
    void write_signal(const std::string &name, int rate, int channels, double seconds) {
        AudioBuffer b;
        audio_allocate(b, rate, channels, static_cast<int64_t>(seconds * rate), SampleFormat::f32);
        std::mt19937 rng(3);
        std::normal_distribution<float> noise(0.0f, 0.05f);
        for (int64_t k = 0; k < b.frames; ++k) {
            double t = double(k) / rate;
            float pause = (t > 0.5 && t < 0.6) ? 0.0f : 1.0f;
            for (int c = 0; c < channels; ++c)
                b.f32[k * channels + c] =
                    pause * (0.3f * float(std::sin(2 * M_PI * (c ? 330.0 : 110.0) * t)) + noise(rng));
        }
        std::string error;
        ASSERT_TRUE(audio_write(at(name), b, error)) << error;
    }
};

TEST_F(ToolCli, HelpForEverySubcommandShowsAnExample) {
    for (const char *sub : {"run", "demo", "design", "params", "import-graphiceq", "info"}) {
        Result r = tool({sub, "--help"});
        EXPECT_EQ(0, r.code) << sub;
        EXPECT_NE(std::string::npos, r.out.find("Example:\n  sorn-hp " + std::string(sub))) << r.out;
    }
    Result none = tool({});
    EXPECT_EQ(1, none.code);
}

TEST_F(ToolCli, DemoRunsThroughTheLibraryAndRefusesToOverwriteWithoutYes) {
    Result r = tool({"demo", "out/demo"});
    ASSERT_EQ(0, r.code) << r.err;
    for (const char *f : {"program.wav", "processed.wav", "tuning.json", "params.bin"})
        EXPECT_TRUE(fs::exists(at("out/demo") / f)) << f;
    bool plotted = fs::exists(at("out/demo/response.png")) || fs::exists(at("out/demo/response.gp"));
    EXPECT_TRUE(plotted);
    EXPECT_NE(std::string::npos, r.out.find("latency      719 frames")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("largest deviation")) << r.out;
    AudioBuffer program, processed;
    std::string error;
    ASSERT_TRUE(audio_read(at("out/demo/program.wav"), SampleFormat::f32, program, error)) << error;
    ASSERT_TRUE(audio_read(at("out/demo/processed.wav"), SampleFormat::f32, processed, error)) << error;
    EXPECT_EQ(program.frames, processed.frames);
    EXPECT_EQ(2, processed.channels);
    EXPECT_NE(program.f32, processed.f32);

    Result again = tool({"demo", "out/demo"});
    EXPECT_EQ(1, again.code);
    EXPECT_NE(std::string::npos, again.err.find("exists; add -y to overwrite it")) << again.err;
}

// The tool's output is the library's own output, driven through AELI with the framework's
// calls, with the latency removed; bit for bit, whatever the format and call size.
TEST_F(ToolCli, RunMatchesTheLibraryDrivenDirectly) {
    struct Case {
        int rate, channels, frames_per_call, latency;
        SampleFormat format;
        const char *format_arg;
    };
    void *dl = dlopen(SORN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, dl);
    auto *aeli = static_cast<audio_effect_library_t *>(dlsym(dl, "AELI"));
    ASSERT_NE(nullptr, aeli);
    spit(at("t.json"), builtin_tuning_json());
    const sorn_hp_params_t params = tuning_load(at("t.json")).params;

    for (Case c : {Case{48000, 2, 240, 719, SampleFormat::f32, "float"}, Case{44100, 1, 100, 659, SampleFormat::s16, "16"},
                   Case{48000, 2, 1024, 719, SampleFormat::s32, "32"}}) {
        write_signal("in.wav", c.rate, c.channels, 1.2);
        Result r = tool({"run", "in.wav", "out.wav", "--tuning", "t.json", "--format", c.format_arg, "--frames",
                         std::to_string(c.frames_per_call), "-y"});
        ASSERT_EQ(0, r.code) << r.err;
        AudioBuffer in, out;
        std::string error;
        ASSERT_TRUE(audio_read(at("in.wav"), c.format, in, error)) << error;
        ASSERT_TRUE(audio_read(at("out.wav"), c.format, out, error)) << error;
        audio_mono_to_stereo(in);
        ASSERT_EQ(in.frames, out.frames);
        ASSERT_EQ(2, out.channels);

        // The same calls, made here.
        effect_handle_t h = nullptr;
        effect_uuid_t uuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8, {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};
        ASSERT_EQ(0, aeli->create_effect(&uuid, 0, 1, &h));
        auto cmd = [&](uint32_t code, uint32_t size, void *data) {
            int32_t reply = 0;
            uint32_t reply_size = 4;
            EXPECT_EQ(0, (*h)->command(h, code, size, data, &reply_size, &reply)) << code;
            return reply;
        };
        effect_config_t cfg{};
        for (buffer_config_t *b : {&cfg.inputCfg, &cfg.outputCfg}) {
            b->samplingRate = static_cast<uint32_t>(c.rate);
            b->channels = AUDIO_CHANNEL_OUT_STEREO;
            b->format = c.format == SampleFormat::f32 ? AUDIO_FORMAT_PCM_FLOAT
                        : c.format == SampleFormat::s16 ? AUDIO_FORMAT_PCM_16_BIT : AUDIO_FORMAT_PCM_32_BIT;
        }
        cfg.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
        EXPECT_EQ(0, cmd(EFFECT_CMD_SET_CONFIG, sizeof cfg, &cfg));
        std::vector<uint8_t> set(16 + sizeof params);
        uint32_t head[4] = {0, 4, sizeof params, 100};
        std::memcpy(set.data(), head, 16);
        std::memcpy(set.data() + 16, &params, sizeof params);
        cmd(EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(set.size()), set.data());
        uint32_t device = AUDIO_DEVICE_OUT_WIRED_HEADPHONE, mode = 0;
        cmd(EFFECT_CMD_SET_DEVICE, 4, &device);
        cmd(EFFECT_CMD_SET_AUDIO_MODE, 4, &mode);
        cmd(EFFECT_CMD_ENABLE, 0, nullptr);

        const size_t n = static_cast<size_t>(c.frames_per_call);
        const size_t total = (static_cast<size_t>(in.frames) + c.latency + n - 1) / n * n;
        AudioBuffer src, dst;
        audio_allocate(src, c.rate, 2, static_cast<int64_t>(total), c.format);
        audio_allocate(dst, c.rate, 2, static_cast<int64_t>(total), c.format);
        const size_t bytes = 2 * audio_sample_bytes(c.format);
        std::memcpy(audio_data(src), audio_data(in), static_cast<size_t>(in.frames) * bytes);
        for (size_t at = 0; at < total; at += n) {
            audio_buffer_t a{n, {static_cast<uint8_t *>(audio_data(src)) + at * bytes}};
            audio_buffer_t b{n, {static_cast<uint8_t *>(audio_data(dst)) + at * bytes}};
            ASSERT_EQ(0, (*h)->process(h, &a, &b));
        }
        aeli->release_effect(h);

        size_t differing = 0, nonzero = 0;
        for (size_t i = 0; i < static_cast<size_t>(out.frames) * 2; ++i) {
            double want = audio_sample(dst, i + static_cast<size_t>(c.latency) * 2);
            differing += audio_sample(out, i) != want;
            nonzero += want != 0.0;
        }
        EXPECT_EQ(0u, differing) << c.rate << " Hz, " << c.format_arg;
        EXPECT_GT(nonzero, static_cast<size_t>(out.frames));
    }
    dlclose(dl);
}

TEST_F(ToolCli, ParamsRoundTripByteForByte) {
    // A block as a client may send it: lc switched by a value other than 1, the surround word
    // set while lc is off, a reserved word used, and junk in the tables of a group that is off.
    sorn_hp_params_t p{};
    p.hp = 3;
    p.ea = -5;
    p.ss = 7;
    p.reserved[2] = 0x12345678;
    for (int i = 0; i < 12; ++i) {
        p.hp_freq[i] = 40u + 1700u * static_cast<uint32_t>(i);
        p.hp_gain[i] = (i % 5) - 2;
        p.lc_freq[i] = 0xFFFFFFFFu - static_cast<uint32_t>(i);
        p.lc_gain[i] = INT32_MIN + i;
    }
    auto bytes = params_to_bytes(p);
    spit(at("client.bin"), std::string(bytes.begin(), bytes.end()));

    Result dec = tool({"params", "--decode", "client.bin", "-o", "client.json"});
    ASSERT_EQ(0, dec.code) << dec.err;
    Result enc = tool({"params", "client.json", "-o", "again.bin"});
    ASSERT_EQ(0, enc.code) << enc.err;
    EXPECT_EQ(slurp(at("client.bin")), slurp(at("again.bin")));

    // And a tuning written by hand: to a block, back to text, and to the same block again.
    spit(at("mine.json"), builtin_tuning_json());
    ASSERT_EQ(0, tool({"params", "mine.json", "-o", "mine.bin"}).code);
    Result text = tool({"params", "--decode", "mine.bin"});
    ASSERT_EQ(0, text.code);
    spit(at("mine2.json"), text.out);
    ASSERT_EQ(0, tool({"params", "mine2.json", "-o", "mine2.bin"}).code);
    EXPECT_EQ(292u, fs::file_size(at("mine.bin")));
    EXPECT_EQ(slurp(at("mine.bin")), slurp(at("mine2.bin")));
}

TEST_F(ToolCli, ImportsAGraphicEqSampleIntoATuningTheEffectTakes) {
    std::string sample = "GraphicEQ: ";
    for (double f = 20; f < 20000; f *= 1.26)
        sample += std::to_string(int(f)) + " " + std::to_string(-1.0 + 2.0 * std::sin(std::log(f))) + "; ";
    spit(at("eq.txt"), sample + "\n");
    Result r = tool({"import-graphiceq", "eq.txt", "-o", "eq.json"});
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("into hp (12 points")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("departure from the input: largest")) << r.out;
    TuningResult t = tuning_load(at("eq.json"));
    ASSERT_TRUE(t.ok) << t.error;
    EXPECT_EQ(1, t.params.hp);
    EXPECT_EQ(0, t.params.lc);
    EXPECT_EQ(0, tool({"design", "eq.json", "--csv", "eq.csv"}).code);
}

TEST_F(ToolCli, ErrorsGiveTheirMessagesAndExitCodes) {
    write_signal("in.wav", 48000, 2, 0.2);
    spit(at("bad.json"), "{\"hp\": {\"enabled\": true, \"points\": [[50, 0], [200, 0], [25000, 1]]}}");
    spit(at("odd.bin"), std::string(100, '\0'));
    {
        AudioBuffer three;
        audio_allocate(three, 48000, 3, 480, SampleFormat::f32);
        std::string error;
        ASSERT_TRUE(audio_write(at("three.wav"), three, error));
    }
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string message;
        const char *must_not_exist;
    };
    const std::string bad_freq = "bad.json: hp.points: point 3 [25000, 1]: frequency 25000 Hz is above 22000 Hz";
    const Case cases[] = {
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
    };
    for (const Case &c : cases) {
        Result r = tool(c.args);
        std::string cmd;
        for (const std::string &a : c.args) cmd += a + " ";
        EXPECT_EQ(c.code, r.code) << cmd << "\n" << r.err;
        EXPECT_NE(std::string::npos, r.err.find(c.message)) << cmd << "\n" << r.err;
        if (c.must_not_exist) {
            EXPECT_FALSE(fs::exists(at(c.must_not_exist))) << cmd;
        }
    }

    // The library path: the environment names it, --lib overrides the environment.
    Result env = tool({"info"}, {"SORN_HP_LIB=/nonexistent/env.so"});
    EXPECT_EQ(2, env.code);
    EXPECT_NE(std::string::npos, env.err.find("/nonexistent/env.so"));
    EXPECT_EQ(0, tool({"info", "--lib", SORN_LIBRARY_PATH}, {"SORN_HP_LIB=/nonexistent/env.so"}).code);

    // An existing output needs -y; -q leaves nothing on either stream.
    spit(at("out.wav"), "old");
    Result exists = tool({"run", "in.wav", "out.wav"});
    EXPECT_EQ(1, exists.code);
    EXPECT_NE(std::string::npos, exists.err.find("out.wav exists; add -y to overwrite it"));
    EXPECT_EQ("old", slurp(at("out.wav")));
    Result quiet = tool({"run", "in.wav", "out.wav", "-y", "-q"});
    EXPECT_EQ(0, quiet.code);
    EXPECT_EQ("", quiet.out + quiet.err);
}

TEST_F(ToolCli, UnsupportedRateIsSaidLoudlyAndPassesUnchanged) {
    write_signal("in.wav", 32000, 2, 0.3);
    Result r = tool({"run", "in.wav", "out.wav"});
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("THE EFFECT DOES NOT PROCESS THIS RATE")) << r.err;
    AudioBuffer in, out;
    std::string error;
    ASSERT_TRUE(audio_read(at("in.wav"), SampleFormat::f32, in, error));
    ASSERT_TRUE(audio_read(at("out.wav"), SampleFormat::f32, out, error));
    // Unchanged but for the effect's trip through 32-bit integers.
    ASSERT_EQ(in.f32.size(), out.f32.size());
    for (size_t i = 0; i < in.f32.size(); ++i) ASSERT_NEAR(in.f32[i], out.f32[i], 1.2e-7) << i;  // one float step
}

TEST_F(ToolCli, DesignWritesTapsTableAndPlotOrItsScript) {
    Result r = tool({"design", "--plot", "r.png", "--csv", "r.csv", "--taps", "r.txt"});
    ASSERT_EQ(0, r.code) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("largest deviation")) << r.out;
    EXPECT_EQ(0u, slurp(at("r.csv")).rfind("frequency_hz,requested_db,achieved_db,lc_db,hp_db,ea_db\n", 0));
    std::ifstream taps(at("r.txt"));
    std::string line;
    int count = 0;
    while (std::getline(taps, line))
        if (!line.empty() && line[0] != '#') ++count;
    EXPECT_EQ(513, count);
    EXPECT_TRUE(fs::exists(at("r.png")) || r.err.find("gnuplot is not installed") != std::string::npos);

    // Without gnuplot on the path: the data and the script, and how to render them.
    Result bare = tool({"design", "--plot", "s.svg"}, {"PATH=/nonexistent"});
    ASSERT_EQ(0, bare.code) << bare.err;
    EXPECT_FALSE(fs::exists(at("s.svg")));
    EXPECT_TRUE(fs::exists(at("s.dat")));
    EXPECT_NE(std::string::npos, slurp(at("s.gp")).find("set terminal svg"));
    EXPECT_NE(std::string::npos, bare.err.find("Render it with: gnuplot " + at("s.gp").string())) << bare.err;
}

}  // namespace
