// The Android packaging stays in step with the host build: Android.bp compiles exactly the
// sources CMake puts into the library, and the example effect configuration validates against
// the configuration schema and names this library and this effect.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
const fs::path kSource = SORN_SOURCE_DIR;

std::string read_file(const fs::path &p) { return (std::stringstream() << std::ifstream(p).rdbuf()).str(); }

// Every match of the regular expression's first group.
std::vector<std::string> all(const std::string &text, const std::string &re) {
    std::vector<std::string> out;
    const std::regex r(re);
    for (auto it = std::sregex_iterator(text.begin(), text.end(), r); it != std::sregex_iterator(); ++it)
        out.push_back((*it)[1]);
    return out;
}

int xmllint_validate(const fs::path &xml) {
    return std::system(("xmllint --noout --schema '" + (kSource / "android/audio_effects_conf.xsd").string() +
                        "' '" + xml.string() + "' >/dev/null 2>&1").c_str());
}

TEST(AndroidPackaging, BlueprintBuildsTheSameSourcesAsCMake) {
    const auto cmake = all(read_file(SORN_LIBRARY_SOURCES_LIST), R"((\S+)\n)");
    ASSERT_FALSE(cmake.empty());
    const auto srcs = all(read_file(kSource / "Android.bp"), R"(srcs:\s*\[([^\]]*)\])");
    ASSERT_EQ(srcs.size(), 1u) << "one srcs list in Android.bp";
    EXPECT_EQ(all(srcs[0], R"delim("([^"]+)")delim"), cmake) << "Android.bp's srcs differ from the CMake library sources";
}

TEST(AndroidPackaging, ExampleConfigurationValidatesAndNamesThisEffect) {
    const auto xml = kSource / "android/audio_effects.xml";
    ASSERT_EQ(xmllint_validate(xml), 0) << "xmllint rejects " << xml;
    std::string text = read_file(xml);
    EXPECT_NE(text.find("uuid=\"40050b20-6999-11e0-b0d8-0002a5d5c534\""), std::string::npos);
    EXPECT_NE(text.find("path=\"" + fs::path(SORN_LIBRARY_PATH).filename().string() + "\""), std::string::npos);

    // The schema has teeth: a dangling effect reference is rejected.
    const auto broken_path = fs::temp_directory_path() / "sorn_broken_effects.xml";
    std::ofstream(broken_path) << text.replace(text.find("apply effect=\"") + 14, 1, "x");
    EXPECT_NE(xmllint_validate(broken_path), 0);
    fs::remove(broken_path);
}

}  // namespace
