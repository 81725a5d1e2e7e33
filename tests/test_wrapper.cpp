// Processing wrapper through its public operations: creation checks, latency and format
// conversions, the chain switch's count, the mute detector, and no allocation in process. (What
// the chains make of the audio, framing across any callback sizes and resets included, is
// decided by the output checksum.)
#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "dsp/sorn_hp_effect.h"
#include "tests/support/alloc_counter.h"
#include "tests/support/log_capture.h"
#include "wrapper/sorn_hp_params.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

using Samples = std::vector<int32_t>;  // interleaved stereo frames

struct Wrapper {
    sorn_hp_wrapper_t* w;
    // Format 2 (the chain's own 24-bit scale) unless a test is about the conversions.
    explicit Wrapper(int rate = 48000, int format = 2, int channels = 2)
        : w(static_cast<sorn_hp_wrapper_t*>(sorn_hp_wrapper_init(rate, format, channels))) {}
    ~Wrapper() { sorn_hp_wrapper_deinit(w); }
    sorn_hp_wrapper_t* operator->() const { return w; }
    void set(int lc, int ss) const {
        sorn_hp_params_t p{};
        p.lc = lc, p.ss = ss;
        for (int i = 0; i < SORN_HP_LC_POINTS; ++i) p.lc_freq[i] = 1000u * (i + 1);
        sorn_hp_wrapper_set_parameters(w, &p);
    }
    // Feeds the buffer through in callbacks whose frame counts cycle through `sizes`.
    template <typename T>
    std::vector<T> run(std::vector<T> buf, const std::vector<std::size_t>& sizes) const {
        for (std::size_t pos = 0, k = 0; pos < buf.size() / 2; ++k) {
            const std::size_t n = std::min(sizes[k % sizes.size()], buf.size() / 2 - pos);
            sorn_hp_wrapper_process(w, buf.data() + 2 * pos, n * 2 * sizeof(T));
            pos += n;
        }
        return buf;
    }
};

Samples noise(std::size_t frames, int32_t amplitude, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int32_t> dist(-amplitude, amplitude);
    Samples s(2 * frames);
    for (auto& x : s) x = dist(rng);
    return s;
}

// Refused rates and channel counts give state 0 and a log line; audio passes untouched there
// and before the first parameters.
TEST(WrapperInit, AcceptsTwoChannelsAt44050To48050HzOnlyAndPassesAudioOtherwise) {
    sorn_test::LogCapture log;
    const struct { int rate, channels, state, block; } cases[] = {
        {44050, 2, 1, 240}, {48050, 2, 1, 240}, {44100, 2, 1, 220}, {44101, 2, 1, 240},
        {48000, 2, 1, 240}, {44049, 2, 0, 240}, {48051, 2, 0, 240}, {-44100, 2, 0, 240},
        {48000, 1, 0, 240}, {48000, 3, 0, 240}};
    const Samples in = noise(1000, INT32_MAX, 1);
    for (const auto& c : cases) {
        Wrapper w(c.rate, 3, c.channels);
        EXPECT_EQ(w->state, c.state) << c.rate << " Hz, " << c.channels << " channels";
        EXPECT_EQ(w->block_size, c.block) << c.rate;
        if (c.state == 0) w.set(1, 1);
        EXPECT_EQ(w.run(in, {1000, 7}), in) << c.rate;
    }
    for (const char* rate : {"44049", "48051", "4294923196"})
        EXPECT_EQ(log.count("sorn_hp_wrapper_init: sample_rate " + std::string(rate) + " unmatch, need bypass",
                            ANDROID_LOG_WARN, "ORLA_SORN"), 1) << rate;
    EXPECT_EQ(log.count("sorn_hp_wrapper_init: chnnum 1 unsupported, need bypass", ANDROID_LOG_ERROR, "ORLA_SORN"), 1);
}

TEST(WrapperFormats, ConvertOnEntryAndExitAndLeaveATrailingPartialFrameAlone) {
    // With the chains taken out the wrapper only frames and converts; values come out 239
    // frames later. Format 3 rounds to the 24-bit scale and saturates at the top.
    const struct { int format; std::vector<int32_t> in, out; } cases[] = {
        {3, {INT32_MAX, INT32_MIN, 127, 128, -128, -129, 1 << 30}, {INT32_MAX - 255, INT32_MIN, 0, 256, 0, -256, 1 << 30}},
        {2, {INT32_MAX, INT32_MIN, -1}, {INT32_MAX, INT32_MIN, -1}},
        {4, {INT32_MAX, INT32_MIN, -1}, {INT32_MAX, INT32_MIN, -1}},
        {9, {INT32_MAX, INT32_MIN, -1}, {INT32_MAX, INT32_MIN, -1}},
        {1, {32767, -32768, 1, -1, 0}, {32767, -32768, 1, -1, 0}}};
    for (const auto& c : cases) {
        Wrapper w(48000, c.format);
        void* chains[2] = {w->effect_active, w->effect_standby};
        w->effect_active = w->effect_standby = nullptr;
        w.set(1, 0);
        auto check = [&](auto sample) {
            using T = decltype(sample);
            const std::size_t frames = 600, count = c.in.size();
            std::vector<T> buf(2 * frames + 1, 0x55);
            for (std::size_t i = 0; i < 2 * frames; ++i) buf[i] = static_cast<T>(c.in[i % count]);
            sorn_hp_wrapper_process(w.w, buf.data(), buf.size() * sizeof(T));
            for (std::size_t i = 2 * 239; i < 2 * frames; ++i)
                ASSERT_EQ(buf[i], static_cast<T>(c.out[(i - 2 * 239) % count])) << "format " << c.format << " sample " << i;
            EXPECT_EQ(buf.back(), 0x55) << "format " << c.format;
        };
        if (c.format == 1) check(int16_t{}); else check(int32_t{});
        w->effect_active = chains[0];
        w->effect_standby = chains[1];
    }
}

// A parameter change starts a switch of four blocks (what is heard then is decided by the output
// checksum); a second change during a switch starts the count again.
TEST(WrapperSwitch, ASecondChangeDuringASwitchStartsTheCountAgain) {
    Wrapper w;
    w.set(1, 0);  // the first parameters go straight into the active chain
    EXPECT_EQ(w->state, 2);
    w.set(1, 1);
    for (int b = 0; b < 6; ++b) {
        if (b == 2) w.set(0, 0);
        w.run(Samples(2 * 240, 1000), {240});
        EXPECT_EQ(w->state, b < 5 ? 3 : 2) << "after block " << b;
    }
}

// The active chain mutes everything (FIR on with all taps zero). A silent input block starts
// both counts over, so the trip comes with the 15th audible block after it; from the next call
// on, audio passes untouched. An audible output block restarts the silent-output count.
TEST(WrapperMute, TripsAfterFifteenAudibleBlocksTurnedToSilenceThenPassesThrough) {
    sorn_test::LogCapture log;
    Wrapper w, normal;
    w.set(0, 0);
    orla_earadapt_params_t silent{};
    silent.enable = 1;
    sorn_hp_effect_frc_setparameter(w->effect_active, &silent);
    const Samples loud = noise(240, 1 << 20, 7);
    for (int b = 0; b < 14; ++b) w.run(loud, {240});
    w.run(Samples(2 * 240, 0), {240});
    for (int b = 0; b < 14; ++b) w.run(loud, {240});
    EXPECT_EQ(w->enable, 1);
    w.run(loud, {240});
    EXPECT_EQ(w->enable, 0);
    EXPECT_EQ(log.count("process cause mute, 15 16, need bypass", ANDROID_LOG_ERROR, "ORLA_SORN"), 1);
    EXPECT_EQ(log.count_containing("mute"), 1);
    EXPECT_EQ(w.run(loud, {240}), loud);
    normal.set(1, 0);
    for (int b = 0; b < 3; ++b) normal.run(loud, {240});  // the first two outputs are silent
    EXPECT_EQ(normal->out_silent_blocks, 0);
}

TEST(WrapperProcess, AllocatesNothingAfterInit) {
    if (!sorn_test::AllocCounter::available()) GTEST_SKIP() << "allocation counting unavailable";
    Wrapper w(48000, 3);
    w.set(1, 1);
    w.set(1, 0);  // process runs a switch too
    Samples buf = noise(1024, 1 << 28, 10);
    std::mt19937 rng(11);
    sorn_test::AllocCounter allocations;
    for (int k = 0; k < 500; ++k) sorn_hp_wrapper_process(w.w, buf.data(), (rng() % 1024 + 1) * 8);
    EXPECT_EQ(allocations.count(), 0);
    EXPECT_EQ(w->state, 2);
}

}  // namespace
