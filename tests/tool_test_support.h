// The sorn-hp executable run as a user runs it, in a temporary folder of its own per test, and
// the test signal its runs read.
#ifndef SORN_TESTS_TOOL_TEST_SUPPORT_H
#define SORN_TESTS_TOOL_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tools/files/audio_file.h"

namespace sorn_test {

namespace fs = std::filesystem;

struct ToolResult { int code = -1; std::string out, err; };

inline std::string slurp(const fs::path &p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class ToolDir : public ::testing::Test {
protected:
    fs::path dir;

    void SetUp() override {
        char tmpl[] = "/tmp/sorn-hp-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
    }
    void TearDown() override { fs::remove_all(dir); }
    fs::path at(const std::string &name) const { return dir / name; }

    // Runs the tool in `dir` (its streams go to .stdout and .stderr there); `env` holds
    // NAME=value settings for this run only.
    ToolResult tool(const std::vector<std::string> &args, const std::string &env = "") {
        std::string cmd = "cd '" + dir.string() + "' && env " + env;
#ifdef SORN_HP_TOOL_EMULATOR
        cmd += " '" SORN_HP_TOOL_EMULATOR "'";  // cross builds run the tool under qemu-user
#endif
        cmd += " '" SORN_HP_TOOL "'";
        for (const std::string &a : args) cmd += " '" + a + "'";
        const int status = std::system((cmd + " >.stdout 2>.stderr").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(at(".stdout")), slurp(at(".stderr"))};
    }

    // Tones and a rough noise, different on each channel, for a length (by default 1.2345 s)
    // that no chunk or call size divides; two samples at full scale.
    void write_signal(const std::string &name, int rate, int channels, double seconds = 1.2345) {
        sorn_tool::AudioBuffer b;
        sorn_tool::audio_allocate(b, rate, channels, static_cast<int64_t>(seconds * rate), sorn_tool::SampleFormat::f32);
        for (size_t i = 0; i < b.f32.size(); ++i)
            b.f32[i] = float(0.3 * std::sin(2 * M_PI * (i % 2 ? 330 : 110) * double(i / channels) / rate) +
                             0.001 * double(i * 7919 % 101));
        b.f32.at(3000) = -1.0f, b.f32.at(3001) = 1.0f;
        std::string error;
        ASSERT_TRUE(sorn_tool::audio_write(at(name), b, error)) << error;
    }
};

}  // namespace sorn_test

#endif
