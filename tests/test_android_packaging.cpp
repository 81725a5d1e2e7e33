// The Android packaging stays in step with the host build: Android.bp compiles exactly the
// sources CMake puts into the library, and the example effect configuration validates against
// the configuration schema and names this library and this effect.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "effect/sorn_hp_entry.h"

namespace {

const std::filesystem::path kSource = SORN_SOURCE_DIR;

std::string read_file(const std::filesystem::path &p) {
    std::ifstream in(p);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> out;
    std::stringstream s(text);
    for (std::string l; std::getline(s, l);)
        if (!l.empty()) out.push_back(l);
    return out;
}

// The quoted entries of the `srcs: [...]` list of the library module.
std::vector<std::string> android_bp_sources() {
    const std::string bp = read_file(kSource / "Android.bp");
    std::smatch list;
    if (!std::regex_search(bp, list, std::regex(R"(srcs:\s*\[([^\]]*)\])"))) return {};
    std::vector<std::string> out;
    const std::string body = list[1];
    const std::regex quoted(R"delim("([^"]+)")delim");
    for (auto it = std::sregex_iterator(body.begin(), body.end(), quoted);
         it != std::sregex_iterator(); ++it)
        out.push_back((*it)[1]);
    return out;
}

int xmllint_validate(const std::filesystem::path &xml) {
    const std::string cmd = "xmllint --noout --schema '" +
                            (kSource / "android/audio_effects_conf.xsd").string() + "' '" +
                            xml.string() + "' >/dev/null 2>&1";
    return std::system(cmd.c_str());
}

std::string uuid_string(const effect_uuid_t &u) {
    char s[40];
    std::snprintf(s, sizeof s, "%08x-%04x-%04x-%04x-%02x%02x%02x%02x%02x%02x", u.timeLow,
                  u.timeMid, u.timeHiAndVersion, u.clockSeq, u.node[0], u.node[1], u.node[2],
                  u.node[3], u.node[4], u.node[5]);
    return s;
}

}  // namespace

TEST(AndroidPackaging, BlueprintBuildsTheSameSourcesAsCMake) {
    const std::vector<std::string> cmake = lines_of(read_file(SORN_LIBRARY_SOURCES_LIST));
    ASSERT_FALSE(cmake.empty());
    EXPECT_EQ(android_bp_sources(), cmake)
        << "Android.bp's srcs differ from the CMake library sources";
}

TEST(AndroidPackaging, ExampleConfigurationValidatesAndNamesThisEffect) {
    const auto xml = kSource / "android/audio_effects.xml";
    ASSERT_EQ(xmllint_validate(xml), 0) << "xmllint rejects " << xml;

    // The schema has teeth: a dangling effect reference is rejected.
    std::string broken = read_file(xml);
    broken.replace(broken.find("apply effect=\"") + 14, 1, "x");
    const auto broken_path = std::filesystem::temp_directory_path() / "sorn_broken_effects.xml";
    std::ofstream(broken_path) << broken;
    EXPECT_NE(xmllint_validate(broken_path), 0);
    std::filesystem::remove(broken_path);

    effect_descriptor_t d{};
    ASSERT_EQ(EffectQueryEffect(0, &d), 0);
    const std::string text = read_file(xml);
    EXPECT_NE(text.find("uuid=\"" + uuid_string(d.uuid) + "\""), std::string::npos);
    const std::string lib = std::filesystem::path(SORN_LIBRARY_PATH).filename().string();
    EXPECT_NE(text.find("path=\"" + lib + "\""), std::string::npos);
}
