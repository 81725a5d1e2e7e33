// The sorn-hp executable run as a user runs it, in a temporary folder of its own per test.
#ifndef SORN_TESTS_TOOL_TEST_SUPPORT_H
#define SORN_TESTS_TOOL_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace sorn_test {

namespace fs = std::filesystem;

struct ToolResult {
    int code = -1;
    std::string out, err;
};

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
};

}  // namespace sorn_test

#endif
