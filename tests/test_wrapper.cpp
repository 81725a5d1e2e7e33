// Processing wrapper through its public operations: creation checks, latency and framing,
// format conversions, the chain switch, the mute detector, reset, and no allocation in process.
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
    explicit Wrapper(int rate, int format = 3, int channels = 2)
        : w(static_cast<sorn_hp_wrapper_t*>(sorn_hp_wrapper_init(rate, format, channels))) {}
    ~Wrapper() { sorn_hp_wrapper_deinit(w); }
    sorn_hp_wrapper_t* operator->() const { return w; }
};

void set(const Wrapper& w, int lc, int ss) {
    sorn_hp_params_t p{};
    p.lc = lc;
    p.ss = ss;
    for (int i = 0; i < SORN_HP_LC_POINTS; ++i) p.lc_freq[i] = 1000u * (i + 1);
    sorn_hp_wrapper_set_parameters(w.w, &p);
}

Samples noise(std::size_t frames, int32_t amplitude, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int32_t> dist(-amplitude, amplitude);
    Samples s(2 * frames);
    for (auto& x : s) x = dist(rng);
    return s;
}

// Feeds the buffer through the wrapper in callbacks whose frame counts cycle through `sizes`.
template <typename T>
std::vector<T> run(const Wrapper& w, std::vector<T> buf, const std::vector<std::size_t>& sizes) {
    for (std::size_t pos = 0, k = 0; pos < buf.size() / 2; ++k) {
        const std::size_t n = std::min(sizes[k % sizes.size()], buf.size() / 2 - pos);
        sorn_hp_wrapper_process(w.w, buf.data() + 2 * pos, n * 2 * sizeof(T));
        pos += n;
    }
    return buf;
}

int32_t to_internal(int32_t x) { return static_cast<int32_t>(std::min<int64_t>(int64_t{x} + 128, INT32_MAX) >> 8); }
int32_t to_full(int32_t v) { return v > 8388607 ? INT32_MAX : v < -8388608 ? INT32_MIN : v * 256; }

struct Planes {
    Samples l, r;
};

// A chain loaded with what the wrapper record last handed to a chain.
struct RefChain {
    void* c;
    explicit RefChain(const Wrapper& w) : c(sorn_hp_effect_init(w->sample_rate, 2)) {
        orla_earadapt_params_t frc = w->frc;
        sorn_hp_effect_ss_setparameter(c, w->ss_status, w->ss_frequency, w->ss_depth);
        sorn_hp_effect_frc_setparameter(c, &frc);
    }
    ~RefChain() { sorn_hp_effect_end(c); }
    Planes block(const Samples& in, std::size_t b, int n, bool full_scale) {
        Planes p{Samples(n), Samples(n)};
        for (int i = 0; i < n; ++i) {
            p.l[i] = in[2 * (b * n + i)];
            p.r[i] = in[2 * (b * n + i) + 1];
            if (full_scale) p.l[i] = to_internal(p.l[i]), p.r[i] = to_internal(p.r[i]);
        }
        sorn_hp_effect_core_process(c, p.l.data(), p.r.data(), n);
        return p;
    }
};

// Block b leaves the wrapper block_size - 1 frames after it entered.
::testing::AssertionResult block_at(const Samples& out, std::size_t b, int n, const Planes& p,
                                    bool full_scale) {
    for (int i = 0; i < n; ++i) {
        const std::size_t f = (b + 1) * n - 1 + i;
        if (2 * f >= out.size()) break;
        const int32_t l = full_scale ? to_full(p.l[i]) : p.l[i];
        const int32_t r = full_scale ? to_full(p.r[i]) : p.r[i];
        if (out[2 * f] != l || out[2 * f + 1] != r)
            return ::testing::AssertionFailure() << "block " << b << " frame " << i << ": got "
                                                 << out[2 * f] << "," << out[2 * f + 1]
                                                 << " want " << l << "," << r;
    }
    return ::testing::AssertionSuccess();
}

TEST(WrapperInit, AcceptsTwoChannelsAt44050To48050HzOnly) {
    sorn_test::LogCapture log;
    const struct { int rate, channels, state, block; } cases[] = {
        {44050, 2, 1, 240}, {48050, 2, 1, 240}, {44100, 2, 1, 220}, {44101, 2, 1, 240},
        {48000, 2, 1, 240}, {44049, 2, 0, 240}, {48051, 2, 0, 240}, {-44100, 2, 0, 240},
        {48000, 1, 0, 240}, {48000, 3, 0, 240}};
    for (const auto& c : cases) {
        Wrapper w(c.rate, 3, c.channels);
        EXPECT_EQ(w->state, c.state) << c.rate << " Hz, " << c.channels << " channels";
        EXPECT_EQ(w->block_size, c.block) << c.rate;
    }
    const auto warn = [&](const char* m) { return log.count(m, ANDROID_LOG_WARN, "ORLA_SORN"); };
    EXPECT_EQ(warn("sorn_hp_wrapper_init: sample_rate 44049 unmatch, need bypass"), 1);
    EXPECT_EQ(warn("sorn_hp_wrapper_init: sample_rate 48051 unmatch, need bypass"), 1);
    EXPECT_EQ(warn("sorn_hp_wrapper_init: sample_rate 4294923196 unmatch, need bypass"), 1);
    EXPECT_EQ(log.count("sorn_hp_wrapper_init: chnnum 1 unsupported, need bypass",
                        ANDROID_LOG_ERROR, "ORLA_SORN"), 1);
    EXPECT_EQ(log.count_containing("unmatch"), 3);
}

TEST(WrapperProcess, PassesAudioUntouchedBeforeParametersAndInBypass) {
    const Samples in = noise(1000, INT32_MAX, 1);
    Wrapper ready(48000), bad_rate(8000), mono(48000, 3, 1);
    set(bad_rate, 1, 1);
    set(mono, 1, 1);
    for (const Wrapper* w : {&ready, &bad_rate, &mono}) EXPECT_EQ(run(*w, in, {1000, 7}), in);
    EXPECT_EQ(bad_rate->state, 0);
}

TEST(WrapperFraming, OutputIsTheChainOutputOneBlockLessOneFrameLaterForAnyCallbackSizes) {
    constexpr int n = 240;
    constexpr std::size_t blocks = 20;
    const Samples in = noise(blocks * n, 1 << 29, 2);
    std::mt19937 rng(3);
    std::vector<std::size_t> mix(40);
    for (auto& s : mix) s = rng() % 700 + 1;

    std::vector<Samples> outs;
    for (const auto& sizes : {std::vector<std::size_t>{1}, {240}, {1000}, mix}) {
        Wrapper w(48000);
        set(w, 1, 1);
        outs.push_back(run(w, in, sizes));
    }
    Wrapper cfg(48000);
    set(cfg, 1, 1);
    RefChain ref(cfg);
    EXPECT_TRUE(std::all_of(outs[0].begin(), outs[0].begin() + 2 * (n - 1), [](int32_t x) { return x == 0; }));
    for (std::size_t b = 0; b < blocks; ++b) EXPECT_TRUE(block_at(outs[0], b, n, ref.block(in, b, n, true), true));
    for (std::size_t k = 1; k < outs.size(); ++k) EXPECT_EQ(outs[k], outs[0]) << "callback pattern " << k;
}

TEST(WrapperFraming, SoundLeavesThreeBlocksLessOneFrameAfterItEnters) {
    for (const auto& [rate, delay] : {std::pair{48000, 719}, std::pair{44100, 659}}) {
        Wrapper w(rate);
        set(w, 1, 0);
        Samples in(2 * 4000, 0);
        const Samples burst = noise(3000, 1 << 30, 4);
        std::copy(burst.begin(), burst.end(), in.begin() + 2 * 1000);
        const Samples out = run(w, in, {512});
        const auto first = std::find_if(out.begin(), out.end(), [](int32_t x) { return x != 0; });
        EXPECT_EQ((first - out.begin()) / 2, 1000 + delay) << rate;
    }
}

TEST(WrapperFormats, ConvertOnEntryAndExitAndLeaveATrailingPartialFrameAlone) {
    // With the chains taken out the wrapper only frames and converts; values come out 239
    // frames later.
    const struct { int format; std::vector<int32_t> in, out; } cases[] = {
        {3, {INT32_MAX, INT32_MIN, 127, 128, -128, -129, INT32_MAX - 127, 1 << 30},
            {INT32_MAX - 255, INT32_MIN, 0, 256, 0, -256, INT32_MAX - 255, 1 << 30}},
        {2, {INT32_MAX, INT32_MIN, -1}, {INT32_MAX, INT32_MIN, -1}},
        {4, {INT32_MAX, INT32_MIN, -1}, {INT32_MAX, INT32_MIN, -1}},
        {9, {INT32_MAX, INT32_MIN, -1}, {INT32_MAX, INT32_MIN, -1}},
        {1, {32767, -32768, 1, -1, 0}, {32767, -32768, 1, -1, 0}}};
    for (const auto& c : cases) {
        Wrapper w(48000, c.format);
        void* chains[2] = {w->effect_active, w->effect_standby};
        w->effect_active = w->effect_standby = nullptr;
        set(w, 1, 0);
        const std::size_t frames = 600, count = c.in.size();
        auto check = [&](auto sample) {
            using T = decltype(sample);
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

TEST(WrapperSwitch, ThreeOldBlocksThenALinearCrossFadeThenTheNewChain) {
    constexpr int n = 240;
    const Samples in = noise(14 * n, 1 << 21, 5);
    Wrapper w(48000, 2);
    set(w, 1, 0);
    RefChain old_chain(w);
    Samples out = in;
    sorn_hp_wrapper_process(w.w, out.data(), 5 * n * 8);
    set(w, 1, 1);
    RefChain new_chain(w);
    EXPECT_EQ(w->state, 3);
    for (int b = 5; b < 14; ++b) {
        sorn_hp_wrapper_process(w.w, out.data() + 2 * n * b, n * 8);
        EXPECT_EQ(w->state, b < 8 ? 3 : 2) << "after block " << b;
    }
    for (std::size_t b = 0; b < 14; ++b) {
        Planes a = b < 9 ? old_chain.block(in, b, n, false) : Planes{};
        Planes s = b >= 5 ? new_chain.block(in, b, n, false) : Planes{};
        if (b == 8) {  // the cross-fade, with the gain stepped in single precision
            float g = 1.0f;
            for (int k = 0; k < n; ++k, g = std::max(g - 1.0f / n, 0.0f)) {
                a.l[k] = static_cast<int32_t>((1.0f - g) * static_cast<float>(s.l[k]) + g * static_cast<float>(a.l[k]));
                a.r[k] = static_cast<int32_t>((1.0f - g) * static_cast<float>(s.r[k]) + g * static_cast<float>(a.r[k]));
            }
        }
        EXPECT_TRUE(block_at(out, b, n, b <= 8 ? a : s, false));
    }
}

TEST(WrapperSwitch, ASecondChangeDuringASwitchRestartsTheCount) {
    Wrapper w(48000, 2);
    set(w, 1, 0);
    set(w, 1, 1);
    const Samples block = noise(240, 1 << 20, 6);
    for (int b = 0; b < 6; ++b) {
        if (b == 2) set(w, 0, 0);
        run(w, block, {240});
        EXPECT_EQ(w->state, b < 5 ? 3 : 2) << "after block " << b;
    }
}

// A wrapper whose active chain mutes everything: FIR on with all taps zero.
void mute_active_chain(const Wrapper& w) {
    set(w, 0, 0);
    orla_earadapt_params_t silent{};
    silent.enable = 1;
    sorn_hp_effect_frc_setparameter(w->effect_active, &silent);
}

TEST(WrapperMute, TripsAfterFifteenAudibleBlocksTurnedToSilenceThenPassesThrough) {
    sorn_test::LogCapture log;
    Wrapper w(48000, 2);
    mute_active_chain(w);
    const Samples loud = noise(240, 1 << 20, 7);
    Samples sixteen;
    for (int b = 0; b < 16; ++b) sixteen.insert(sixteen.end(), loud.begin(), loud.end());
    const Samples out = run(w, sixteen, {sixteen.size() / 2});
    // Trips in block 15; the rest of that call is still processed (block 16 leaves the rings).
    EXPECT_EQ(w->enable, 0);
    EXPECT_EQ(log.count("process cause mute, 15 15, need bypass", ANDROID_LOG_ERROR, "ORLA_SORN"), 1);
    EXPECT_NE(out, sixteen);
    EXPECT_EQ(run(w, loud, {240}), loud);
}

TEST(WrapperMute, SilentInputOrAudibleOutputRestartsTheCounts) {
    const Samples loud = noise(240, 1 << 20, 7);
    Wrapper muting(48000, 2), normal(48000, 2);
    mute_active_chain(muting);
    for (int b = 0; b < 14; ++b) run(muting, loud, {240});
    EXPECT_EQ(muting->in_active_blocks, 14);
    EXPECT_EQ(muting->out_silent_blocks, 14);
    run(muting, Samples(480, 0), {240});  // both counts restart; this block's own silence counts
    EXPECT_EQ(muting->in_active_blocks, 0);
    EXPECT_EQ(muting->out_silent_blocks, 1);

    set(normal, 1, 0);
    for (int b = 0; b < 3; ++b) run(normal, loud, {240});  // the first two outputs are silent
    EXPECT_EQ(normal->in_active_blocks, 3);
    EXPECT_EQ(normal->out_silent_blocks, 0);
}

TEST(WrapperReset, KeepsLatencyAndFramingPhase) {
    constexpr int n = 240;
    const Samples in = noise(10 * n, 1 << 29, 9);
    Wrapper w(48000);
    set(w, 1, 1);
    RefChain ref(w);
    Samples head(in.begin(), in.begin() + 2 * 1000), tail(in.begin() + 2 * 1000, in.end());
    head = run(w, head, {333});
    sorn_hp_wrapper_reset(w.w);
    tail = run(w, tail, {333});
    head.insert(head.end(), tail.begin(), tail.end());
    for (std::size_t b = 0; b < 10; ++b) {
        if (b == 4) sorn_hp_effect_reset(ref.c);  // block 4 is the first completed after the reset
        EXPECT_TRUE(block_at(head, b, n, ref.block(in, b, n, true), true));
    }
}

TEST(WrapperProcess, AllocatesNothingAfterInit) {
    if (!sorn_test::AllocCounter::available()) GTEST_SKIP() << "allocation counting unavailable";
    Wrapper w(48000);
    set(w, 1, 1);
    set(w, 1, 0);  // process runs a switch too
    Samples buf = noise(1024, 1 << 28, 10);
    std::mt19937 rng(11);
    sorn_test::AllocCounter allocations;
    for (int k = 0; k < 500; ++k) sorn_hp_wrapper_process(w.w, buf.data(), (rng() % 1024 + 1) * 8);
    EXPECT_EQ(allocations.count(), 0);
    EXPECT_EQ(w->state, 2);
}

}  // namespace
