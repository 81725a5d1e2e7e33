// The sorn-hp tool's effect host and run loop against the real library. (That a processed run
// lines up with its input is proven end to end in test_tool_cli.)
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "tools/effect_run.h"

namespace {

using namespace sorn_tool;

struct Library {
    EffectLibrary lib;
    Library() {
        std::string error;
        EXPECT_TRUE(effect_library_open(SORN_LIBRARY_PATH, lib, error)) << error;
    }
    ~Library() { effect_library_close(lib); }
};

TEST(ToolRun, LoadsTheLibraryAndChecksItLikeTheFactory) {
    Library l;
    ASSERT_NE(nullptr, l.lib.aeli);
    EXPECT_EQ("40050b20-6999-11e0-b0d8-0002a5d5c534", uuid_to_string(l.lib.descriptor.uuid));
    EXPECT_EQ("insert, insert last, device indication, audio mode indication",
              describe_effect_flags(l.lib.descriptor.flags));
    EffectLibrary none;
    std::string error;
    EXPECT_FALSE(effect_library_open("/nonexistent/libnothing.so", none, error));
    EXPECT_NE(std::string::npos, error.find("cannot load the effect library"));
    EXPECT_FALSE(effect_library_open("libm.so.6", none, error));  // loads, but has no AELI
    EXPECT_NE(std::string::npos, error.find("no \"AELI\" symbol"));
    EXPECT_EQ(nullptr, none.dl);
}

// When the effect does not process (a device it does not serve, bypass, a rate it refuses) the
// audio passes without delay, so nothing is removed.
TEST(ToolRun, NoCompensationWhenTheEffectPassesAudioThrough) {
    Library l;
    const struct {
        int rate;
        uint32_t device;
        bool bypass;
    } cases[] = {{48000, AUDIO_DEVICE_OUT_SPEAKER, false}, {48000, AUDIO_DEVICE_OUT_WIRED_HEADPHONE, true},
                 {32000, AUDIO_DEVICE_OUT_WIRED_HEADPHONE, false}};
    for (const auto &c : cases) {
        AudioBuffer in, out;
        audio_allocate(in, c.rate, 2, 9000, SampleFormat::f32);
        in.f32[10000] = 0.5f, in.f32[10001] = -0.5f;
        RunSettings s;
        s.device = c.device;
        s.bypass = c.bypass;
        RunReport r;
        std::string error;
        ASSERT_TRUE(effect_run(l.lib, in, s, out, r, error)) << error;
        EXPECT_FALSE(r.processing);
        EXPECT_EQ(0, r.latency);
        EXPECT_EQ(in.f32, out.f32) << c.rate << " " << c.device;
    }
}

TEST(ToolRun, ReportsLevelsAndFullScaleSamples) {
    Library l;
    AudioBuffer in, out;
    audio_allocate(in, 48000, 2, 4800, SampleFormat::s16);
    for (int64_t k = 0; k < in.frames; ++k)
        in.s16[2 * k] = in.s16[2 * k + 1] = static_cast<int16_t>(16384 * std::sin(2 * M_PI * 1000 * k / 48000.0));
    const Levels lv = measure_levels(in);
    EXPECT_NEAR(-6.02, lv.peak_dbfs, 0.01);
    EXPECT_NEAR(-9.03, lv.rms_dbfs, 0.01);
    RunSettings s;
    s.device = AUDIO_DEVICE_OUT_SPEAKER;  // passes through: the output is the input
    in.s16[100] = INT16_MIN;
    in.s16[101] = INT16_MAX;
    RunReport r;
    std::string error;
    ASSERT_TRUE(effect_run(l.lib, in, s, out, r, error)) << error;
    EXPECT_EQ(2, r.clipped);
    EXPECT_EQ(20, r.calls);
}

}  // namespace
