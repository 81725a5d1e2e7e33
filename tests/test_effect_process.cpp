// Process handler: refusals, pass-through, the dry/processed cross-fade, silence gating and the
// output stage in every format, driven through the interface record.
#include <android/log.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "tests/support/alloc_counter.h"
#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

using sorn_test::Effect;
using sorn_test::LogCapture;
using sorn_test::tone;

namespace {

constexpr size_t kCall = 240;

std::string pointer_text(const void *p) {
    char s[32];
    std::snprintf(s, sizeof s, "%p", p);
    return s;
}

TEST(EffectProcess, RefusedCallsTouchNothing) {
    Effect fx;
    std::vector<int32_t> in = tone(kCall), out(2 * kCall, 77);
    EXPECT_EQ(fx.process(in.data(), out.data(), kCall), -22) << "not configured";
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);

    audio_buffer_t ib{kCall, {in.data()}}, ob{kCall, {out.data()}};
    EXPECT_EQ((*fx.h)->process(nullptr, &ib, &ob), -22);
    EXPECT_EQ((*fx.h)->process(fx.h, nullptr, &ob), -22);
    EXPECT_EQ((*fx.h)->process(fx.h, &ib, nullptr), -22);
    audio_buffer_t no_raw{kCall, {nullptr}};
    EXPECT_EQ((*fx.h)->process(fx.h, &no_raw, &ob), -22);
    EXPECT_EQ((*fx.h)->process(fx.h, &ib, &no_raw), -22);
    audio_buffer_t shorter{kCall - 1, {out.data()}};
    EXPECT_EQ((*fx.h)->process(fx.h, &ib, &shorter), -22);
    EXPECT_EQ(fx.process(in.data(), out.data(), 0), -22);
    // Buffers for this many frames cannot be had: refused, and the old ones stay usable.
    EXPECT_EQ(fx.process(in.data(), out.data(), size_t{1} << 26), -22);
    EXPECT_EQ(out, std::vector<int32_t>(2 * kCall, 77));
    EXPECT_EQ(fx.process(in.data(), out.data(), kCall), -61);
    EXPECT_EQ(fx.process(in.data(), out.data(), size_t{1} << 26), -22);
    EXPECT_EQ(fx.process(in.data(), out.data(), kCall), -61);
    EXPECT_EQ(out, in);
}

TEST(EffectProcess, NotEnabledPassesTheInputThrough) {
    Effect fx;
    fx.make_ready();
    std::vector<int32_t> in = tone(1000), out(2000);
    EXPECT_EQ(fx.process(in.data(), out.data(), 1000), -61);
    EXPECT_EQ(out, in);

    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_16_BIT), 0);
    std::vector<int16_t> in16(2 * 333), out16(2 * 333);
    for (size_t i = 0; i < in16.size(); ++i) in16[i] = static_cast<int16_t>(i * 97 - 32768);
    EXPECT_EQ(fx.process(in16.data(), out16.data(), 333), -61);
    EXPECT_EQ(out16, in16);
}

// Instance `b` runs processed the whole time and serves as the reference for the processed
// signal; `a` fades in at the start of the tone and is disabled later. The compressor keeps its
// gain across a reset, so both chains see the same history before the tone: silence while
// processed, then a reset at the same frame.
TEST(EffectProcess, CrossFadesOver2048FramesAfterEnableAndDisable) {
    Effect a, b;
    a.make_ready();
    b.make_ready();
    ASSERT_EQ(a.enable(), 0);
    ASSERT_EQ(b.enable(), 0);
    std::vector<int32_t> zeros(2 * kCall), out_a(2 * kCall), out_b(2 * kCall);
    auto silence = [&](int calls) {
        for (int call = 0; call < calls; ++call) {
            ASSERT_EQ(a.process(zeros.data(), out_a.data(), kCall), 0);
            ASSERT_EQ(b.process(zeros.data(), out_b.data(), kCall), 0);
        }
    };
    silence(9);  // both fade in
    const uint32_t bypass_on = 1, bypass_off = 0;
    ASSERT_EQ(a.set_param(900, &bypass_on, 4), 0);
    silence(9);  // a fades out, still running its chain
    ASSERT_EQ(a.set_param(900, &bypass_off, 4), 0);
    ASSERT_EQ(b.set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_WIRED_HEADSET), 0);

    auto run = [&](size_t first_frame, int32_t expected_a, auto check) {
        std::vector<int32_t> in = tone(kCall, first_frame);
        ASSERT_EQ(a.process(in.data(), out_a.data(), kCall), expected_a);
        ASSERT_EQ(b.process(in.data(), out_b.data(), kCall), 0);
        for (size_t i = 0; i < 2 * kCall; ++i) check(first_frame + i / 2, in[i], out_a[i], out_b[i]);
    };
    // A fade from x to y at frame n of the fade weighs x by (2048 - n) / 2048; the products go
    // through single precision, hence the tolerance.
    auto faded = [](size_t n, int32_t from, int32_t to) {
        const double g = (2048.0 - static_cast<double>(n)) / 2048.0;
        return g * from + (1.0 - g) * to;
    };
    bool processed_differs = false;
    for (int call = 0; call < 12; ++call) {  // fade in: nine calls, the ninth ends at frame 128
        run(call * kCall, 0, [&](size_t n, int32_t dry, int32_t got, int32_t processed) {
            if (n < 2048) ASSERT_NEAR(got, faded(n, dry, processed), 128) << n;
            else ASSERT_EQ(got, processed) << n;
            processed_differs |= processed != dry;
        });
    }
    EXPECT_TRUE(processed_differs) << "the reference must really be processed";

    ASSERT_EQ(a.disable(), 0);
    const size_t off = 12 * kCall;
    for (int call = 12; call < 24; ++call) {  // fade out: starts all processed, ends dry
        run(call * kCall, -61, [&](size_t n, int32_t dry, int32_t got, int32_t processed) {
            if (n - off < 2048) ASSERT_NEAR(got, faded(n - off, processed, dry), 128) << n;
            else ASSERT_EQ(got, dry) << n;
        });
    }
}

TEST(EffectProcess, LongSilenceFadesOutMutesAndFadesBackIn) {
    LogCapture log;
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);
    const std::string rampdown = pointer_text(fx.h) + " rampdown 1";
    const std::string rampup = pointer_text(fx.h) + " rampup 0";
    std::vector<int32_t> sound(2 * kCall, 1000), silence(2 * kCall), out(2 * kCall);
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    for (int call = 1; call <= 25; ++call) {
        ASSERT_EQ(fx.process(silence.data(), out.data(), kCall), -61);
        EXPECT_EQ(log.count(rampdown, ANDROID_LOG_DEBUG), call >= 20 ? 1 : 0) << call;
    }
    EXPECT_EQ(log.count_containing("rampup"), 0);

    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(log.count(rampup, ANDROID_LOG_DEBUG), 1);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], 0);
    for (size_t k = 1; k < kCall; ++k) {
        ASSERT_NEAR(out[2 * k], 1000.0 * k / kCall, 1.0) << k;
        ASSERT_EQ(out[2 * k + 1], out[2 * k]);
    }
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(out, sound) << "only the first sounding call is faded in";

    // One silent call longer than the threshold mutes at once, without a fade-out.
    std::vector<int32_t> long_silence(2 * 8192), long_out(2 * 8192);
    ASSERT_EQ(fx.process(long_silence.data(), long_out.data(), 8192), -61);
    EXPECT_EQ(log.count(rampdown), 1);
    ASSERT_EQ(fx.process(sound.data(), out.data(), kCall), -61);
    EXPECT_EQ(log.count(rampup), 2);
}

TEST(EffectProcess, AccumulatesInEveryOutputFormat) {
    Effect fx;
    constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
    constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
    auto check = [&](uint32_t format, auto in, auto prev, auto expected) {
        SCOPED_TRACE(format);
        ASSERT_EQ(fx.configure(format, 48000, EFFECT_BUFFER_ACCESS_ACCUMULATE), 0);
        auto out = prev;
        ASSERT_EQ(fx.process(in.data(), out.data(), in.size() / 2), -61);
        EXPECT_EQ(out, expected);
        ASSERT_EQ(fx.process(in.data(), in.data(), in.size() / 2), -61);
        auto copy = in;
        ASSERT_EQ(fx.process(in.data(), in.data(), in.size() / 2), -61);
        EXPECT_EQ(in, copy) << "in place is overwritten, never added";
    };
    check(AUDIO_FORMAT_PCM_FLOAT, std::vector<float>{0.5f, -0.5f, 0.25f, 0.0f},
          std::vector<float>{0.75f, -0.75f, 0.125f, std::nanf("")},
          std::vector<float>{1.0f, -1.0f, 0.375f, 0.0f});
    check(AUDIO_FORMAT_PCM_16_BIT, std::vector<int16_t>{10000, -10000, 200, -1},
          std::vector<int16_t>{30000, -30000, 100, 0}, std::vector<int16_t>{32767, -32768, 300, -1});
    check(AUDIO_FORMAT_PCM_8_24_BIT, std::vector<int32_t>{1 << 22, -(1 << 22), 3, 8388607},
          std::vector<int32_t>{1 << 22, 5, -3, 1}, std::vector<int32_t>{1 << 23, 5 - (1 << 22), 0, 1 << 23});
    check(AUDIO_FORMAT_PCM_32_BIT, std::vector<int32_t>{100, -100, 7, kMin},
          std::vector<int32_t>{kMax - 5, kMin + 5, 8, 0}, std::vector<int32_t>{kMax, kMin, 15, kMin});
}

TEST(EffectProcess, NonFiniteFloatInputNeverReachesTheOutput) {
    Effect fx;
    fx.make_ready(AUDIO_FORMAT_PCM_FLOAT);
    const float inf = std::numeric_limits<float>::infinity();
    std::vector<float> in{std::nanf(""), -std::nanf(""), inf, -inf, 2.0f, 0.25f}, out(6);
    ASSERT_EQ(fx.process(in.data(), out.data(), 3), -61);
    EXPECT_EQ(out, (std::vector<float>{0.0f, 0.0f, 1.0f, -1.0f, 1.0f, 0.25f}));

    ASSERT_EQ(fx.enable(), 0);
    std::vector<float> block(2 * kCall), result(2 * kCall);
    for (int call = 0; call < 30; ++call) {
        for (size_t i = 0; i < block.size(); ++i) {
            block[i] = (i % 7 == 0) ? in[i % in.size()] : 0.4f * std::sin(0.05f * i);
        }
        ASSERT_EQ(fx.process(block.data(), result.data(), kCall), 0);
        for (float s : result) ASSERT_TRUE(std::isfinite(s) && std::fabs(s) <= 1.0f) << call;
    }
}

TEST(EffectProcess, SteadyStateAllocatesNothing) {
    if (!sorn_test::AllocCounter::available()) GTEST_SKIP() << "allocator owned by a sanitizer";
    Effect fx;
    fx.make_ready(AUDIO_FORMAT_PCM_16_BIT);
    ASSERT_EQ(fx.enable(), 0);
    std::vector<int16_t> in(2 * kCall), out(2 * kCall);
    for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<int16_t>(8000 * std::sin(0.03 * i));
    ASSERT_EQ(fx.process(in.data(), out.data(), kCall), 0);
    sorn_test::AllocCounter allocs;
    for (int call = 0; call < 50; ++call) ASSERT_EQ(fx.process(in.data(), out.data(), kCall), 0);
    EXPECT_EQ(allocs.count(), 0);
}

}  // namespace
