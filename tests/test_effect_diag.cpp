// Silence gating of the process handler with the PCM dump that shows which calls were
// processed, and the processing-time statistics. The shipped library dumps under
// /data/vendor/audio; this executable interposes fopen and sends exactly those paths into a
// temporary folder, so the file names are tested as shipped.
#include <android-base/properties.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <filesystem>
#include <string_view>

#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

namespace {
const std::string kDumpDir = "/data/vendor/audio/";
std::string g_redirect;
int g_dump_opens = 0;
}  // namespace

extern "C" FILE *fopen(const char *path, const char *mode) {
    static const auto real = reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "fopen"));
    if (path == nullptr || !std::string_view(path).starts_with(kDumpDir)) return real(path, mode);
    ++g_dump_opens;
    return real((g_redirect + (path + kDumpDir.size())).c_str(), mode);
}

namespace {

using sorn_test::Effect;
constexpr size_t kCall = 240;

class EffectDump : public testing::Test {
protected:
    void SetUp() override {
        std::string dir = testing::TempDir() + "sorn_dump_XXXXXX";
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
        g_redirect = dir + "/";
    }
    void TearDown() override {
        android::base::SetProperty("audio.sorn.hp.dump", "");
        std::filesystem::remove_all(g_redirect);
    }
    static uintmax_t size_of(const Effect &fx, const char *direction) {
        std::error_code missing;  // gives -1
        return std::filesystem::file_size(g_redirect + "sorn_hp_" + sorn_test::ptr(fx.h) + "_48000_" + direction + ".pcm", missing);
    }
};

// After sound, the 20th silent 240-frame call is faded out and the 21st muted; the first
// sounding call after that is faded in. A silent call longer than the threshold mutes at once.
TEST_F(EffectDump, LongSilenceFadesOutMutesAndFadesBackInAndOnlyProcessedCallsAreDumped) {
    sorn_test::LogCapture log;
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);
    std::vector<int32_t> sound(2 * kCall, 1000), silence(2 * 8192), out(2 * 8192);
    android::base::SetProperty("audio.sorn.hp.dump", "1");
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(g_dump_opens, 0) << "the property counts from the next configuration on";
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);
    const std::string down = sorn_test::ptr(fx.h) + " rampdown 1", up = sorn_test::ptr(fx.h) + " rampup 0";
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    for (int call = 1; call <= 25; ++call) {
        ASSERT_EQ(fx.process(silence.data(), out.data(), kCall), -61);
        EXPECT_EQ(log.count(down, ANDROID_LOG_DEBUG), call >= 20 ? 1 : 0) << call;
    }
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(log.count(up, ANDROID_LOG_DEBUG), 1) << "one fade-in, none during the silence";
    for (size_t k = 0; k < kCall; ++k) {
        ASSERT_NEAR(out[2 * k], 1000.0 * k / kCall, 1.0) << k;
        ASSERT_EQ(out[2 * k + 1], out[2 * k]);
    }
    // 1920 bytes in and out for each processed call: 1 + 20 + 1 of them.
    EXPECT_EQ(size_of(fx, "in"), 22u * 1920);
    EXPECT_EQ(size_of(fx, "out"), 22u * 1920);
    EXPECT_EQ(g_dump_opens, 44);
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(out[0], 1000) << "only the first sounding call is faded in";

    ASSERT_EQ(fx.process(silence.data(), out.data(), 8192), -61);
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(log.count(down), 1);
    EXPECT_EQ(log.count(up), 2);
}


TEST(EffectStatistics, ReportEveryFiveSecondsOfProcessedAudio) {
    sorn_test::LogCapture log;
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);
    std::vector<int32_t> sound = sorn_test::tone(kCall), silence(2 * 8192), out(2 * 8192);
    auto calls = [&](int n) {
        for (int i = 0; i < n; ++i) ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    };
    const std::string usage = "sorn_hp_process CPU usage: 1000 loops take ";
    calls(990);
    ASSERT_EQ(fx.process(silence.data(), out.data(), 8192), -61);  // muted: does not count
    calls(9);
    EXPECT_EQ(log.count_containing("sorn_hp_process"), 0);
    calls(1);
    EXPECT_EQ(log.count_containing(usage), 1);
    EXPECT_EQ(log.count_containing(" msec & 240 frames for each loop; state 0"), 1);
    calls(1000);
    EXPECT_EQ(log.count_containing(usage), 2);
}

}  // namespace
