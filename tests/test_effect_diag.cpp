// Diagnostics of the process handler: PCM dump files and the processing-time statistics.
//
// The shipped library writes its dumps under /data/vendor/audio. This test executable
// interposes fopen and sends exactly those paths into a temporary folder, so the library under
// test is the shipped one, file names included.
#include <android-base/properties.h>
#include <android/log.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

namespace {

const std::string kDumpDir = "/data/vendor/audio/";
std::string g_redirect_dir;
std::vector<std::string> g_dump_opens;

}  // namespace

extern "C" FILE *fopen(const char *path, const char *mode) {
    using Fopen = FILE *(*)(const char *, const char *);
    static const auto real = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
    if (path != nullptr && std::string_view(path).starts_with(kDumpDir)) {
        g_dump_opens.emplace_back(path);
        const std::string local = g_redirect_dir + (path + kDumpDir.size());
        return real(local.c_str(), mode);
    }
    return real(path, mode);
}

namespace {

using sorn_test::Effect;
using sorn_test::LogCapture;

constexpr size_t kCall = 240;

class EffectDump : public testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = testing::TempDir() + "sorn_dump_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        g_redirect_dir = tmpl + "/";
        g_dump_opens.clear();
    }
    void TearDown() override {
        android::base::SetProperty("audio.sorn.hp.dump", "");
        std::filesystem::remove_all(g_redirect_dir);
    }
    static std::vector<char> read(const Effect &fx, const char *direction) {
        char name[128];
        std::snprintf(name, sizeof name, "sorn_hp_%p_48000_%s.pcm", static_cast<void *>(fx.h),
                      direction);
        std::ifstream f(g_redirect_dir + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
    }
};

TEST_F(EffectDump, FilesHoldEveryProcessedCallAndNothingWhileMuted) {
    android::base::SetProperty("audio.sorn.hp.dump", "1");
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);
    std::vector<int32_t> sound = sorn_test::tone(kCall), silence(2 * kCall), out(2 * kCall);
    for (int call = 0; call < 3; ++call) ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    for (int call = 1; call <= 25; ++call) {  // 20 processed (the last fading out), 5 muted
        ASSERT_EQ(fx.process(silence.data(), out.data(), kCall), -61);
    }
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);

    const std::vector<char> in_file = read(fx, "in"), out_file = read(fx, "out");
    EXPECT_EQ(in_file.size(), 24u * 1920);
    EXPECT_EQ(out_file.size(), 24u * 1920);
    ASSERT_GE(in_file.size(), 1920u);
    EXPECT_EQ(std::memcmp(in_file.data(), sound.data(), 1920), 0) << "32-bit samples as given";
    EXPECT_EQ(g_dump_opens.size(), 48u) << "opened once per processed call and direction";
}

TEST_F(EffectDump, PropertyTakesEffectAtTheNextConfiguration) {
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    std::vector<float> in(2 * kCall, 0.25f), out(2 * kCall);
    ASSERT_EQ(fx.process(in.data(), out.data(), kCall), -61);
    android::base::SetProperty("audio.sorn.hp.dump", "1");
    ASSERT_EQ(fx.process(in.data(), out.data(), kCall), -61);
    EXPECT_TRUE(g_dump_opens.empty()) << "off until configured again";

    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    ASSERT_EQ(fx.process(in.data(), out.data(), kCall), -61);
    EXPECT_EQ(read(fx, "out").size(), 1920u);
    android::base::SetProperty("audio.sorn.hp.dump", "yes");  // not a number: off
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    ASSERT_EQ(fx.process(in.data(), out.data(), kCall), -61);
    EXPECT_EQ(g_dump_opens.size(), 2u);
}

TEST(EffectStatistics, ReportEveryFiveSecondsOfProcessedAudio) {
    LogCapture log;
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);
    std::vector<int32_t> sound = sorn_test::tone(kCall), out(2 * kCall);
    const std::string usage = "sorn_hp_process CPU usage: ";
    for (int call = 0; call < 990; ++call) ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    // A muted call is not processed and does not count toward the period.
    std::vector<int32_t> silence(2 * 8192), long_out(2 * 8192);
    ASSERT_EQ(fx.process(silence.data(), long_out.data(), 8192), -61);
    for (int call = 0; call < 9; ++call) ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(log.count_containing(usage), 0);
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(log.count_containing(usage + "1000 loops take "), 1);
    EXPECT_EQ(log.count_containing(" msec & 240 frames for each loop; state 0"), 1);
    for (const auto &line : log.lines()) {
        if (line.message.starts_with("sorn_hp_process")) {
            EXPECT_EQ(line.priority, ANDROID_LOG_DEBUG);
            EXPECT_EQ(line.tag, "_O_sorn_hp_sfx");
        }
    }
    for (int call = 0; call < 1000; ++call) ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(log.count_containing(usage + "1000 loops take "), 2);

    // At 44.1 kHz the period is 220500 frames: the 1003rd call of 220 frames ends it.
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT, 44100), 0);
    for (int call = 0; call < 1002; ++call) ASSERT_EQ(fx.process(sound.data(), out.data(), 220), -61);
    EXPECT_EQ(log.count_containing(usage), 2);
    ASSERT_EQ(fx.process(sound.data(), out.data(), 220), -61);
    EXPECT_EQ(log.count_containing(usage + "1003 loops take "), 1);
}

}  // namespace
