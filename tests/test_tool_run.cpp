// The sorn-hp tool's effect host and run loop against the real library.
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

AudioBuffer clicks(int rate, int64_t frames, int64_t at, float level) {
    AudioBuffer b;
    audio_allocate(b, rate, 2, frames, SampleFormat::f32);
    b.f32[2 * at] = level;
    b.f32[2 * at + 1] = -level;
    return b;
}

int64_t loudest_frame(const AudioBuffer &b, int channel) {
    int64_t best = 0;
    for (int64_t k = 0; k < b.frames; ++k)
        if (std::fabs(b.f32[2 * k + channel]) > std::fabs(b.f32[2 * best + channel])) best = k;
    return best;
}

TEST(ToolRun, LoadsTheLibraryAndChecksItLikeTheFactory) {
    Library l;
    ASSERT_NE(nullptr, l.lib.aeli);
    EXPECT_STREQ("SORN HP For Ambrel", l.lib.descriptor.name);
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

// The run removes exactly the effect's delay: a click comes out where it went in (the
// minimum-phase filter puts its energy in its first taps), at both rate families and
// whatever the call size; the length is kept.
TEST(ToolRun, OutputLinesUpWithInputSampleForSample) {
    Library l;
    struct Case {
        int rate;
        size_t frames_per_call;
        int latency;
    };
    for (Case c : {Case{48000, 240, 719}, Case{44100, 240, 659}, Case{48000, 97, 719}}) {
        AudioBuffer in = clicks(c.rate, 12000, 6000, 0.25f), out;
        RunSettings s;  // all groups off: the flat default filter
        s.frames_per_call = c.frames_per_call;
        RunReport r;
        std::string error;
        ASSERT_TRUE(effect_run(l.lib, in, s, out, r, error)) << error;
        EXPECT_TRUE(r.processing) << r.status_text;
        EXPECT_EQ(c.latency, r.latency);
        EXPECT_EQ(in.frames, out.frames);
        EXPECT_NEAR(6000, loudest_frame(out, 0), 2) << c.rate;
        EXPECT_NEAR(6000, loudest_frame(out, 1), 2) << c.rate;
        EXPECT_GT(std::fabs(out.f32[2 * loudest_frame(out, 0)]), 0.05f);
    }
}

// When the effect does not process (device it does not serve, bypass, a rate it refuses) the
// audio passes without delay, so nothing is removed.
TEST(ToolRun, NoCompensationWhenTheEffectPassesAudioThrough) {
    Library l;
    struct Case {
        int rate;
        uint32_t device;
        bool bypass;
    };
    for (Case c : {Case{48000, AUDIO_DEVICE_OUT_SPEAKER, false}, Case{48000, AUDIO_DEVICE_OUT_WIRED_HEADPHONE, true},
                   Case{32000, AUDIO_DEVICE_OUT_WIRED_HEADPHONE, false}}) {
        AudioBuffer in = clicks(c.rate, 9000, 5000, 0.5f), out;
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
    AudioBuffer in;
    audio_allocate(in, 48000, 2, 4800, SampleFormat::s16);
    for (int64_t k = 0; k < in.frames; ++k)
        in.s16[2 * k] = in.s16[2 * k + 1] = static_cast<int16_t>(16384 * std::sin(2 * M_PI * 1000 * k / 48000.0));
    Levels lv = measure_levels(in);
    EXPECT_NEAR(-6.02, lv.peak_dbfs, 0.01);
    EXPECT_NEAR(-9.03, lv.rms_dbfs, 0.01);

    AudioBuffer out;
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
