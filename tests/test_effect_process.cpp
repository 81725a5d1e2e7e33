// Process handler: refusals, the dry/processed cross-fade and the output stage in
// every format. (Silence gating is in test_effect_diag with the dump that shows it, special
// floats in test_hostile_audio.)
#include <algorithm>
#include <limits>
#include <numeric>

#include "tests/support/alloc_counter.h"
#include "tests/test_effect_harness.h"

namespace {

using sorn_test::Effect;
using sorn_test::tone;
constexpr size_t kCall = 240;

TEST(EffectProcess, RefusalsTouchNothing) {
    Effect fx;
    std::vector<int32_t> in = tone(kCall), out(2 * kCall, 77);
    EXPECT_EQ(fx.process(in.data(), out.data(), kCall), -22) << "not configured";
    fx.make_ready();
    audio_buffer_t ib{kCall, {in.data()}}, ob{kCall, {out.data()}}, none{kCall, {nullptr}},
        shorter{kCall - 1, {out.data()}}, empty{0, {in.data()}}, huge{size_t{1} << 26, {in.data()}};
    const std::pair<audio_buffer_t *, audio_buffer_t *> refused[] = {
        {nullptr, &ob}, {&none, &ob}, {&ib, &none}, {&ib, &shorter}, {&empty, &empty}, {&huge, &huge}};
    EXPECT_EQ((*fx.h)->process(nullptr, &ib, &ob), -22);
    for (const auto &[i, o] : refused) EXPECT_EQ((*fx.h)->process(fx.h, i, o), -22);
    EXPECT_EQ(out, std::vector<int32_t>(2 * kCall, 77));
    EXPECT_EQ(fx.process(in.data(), out.data(), kCall), -61) << "and the buffers still work";
}

// `b` stays processed throughout and is the reference for the processed signal; `a` fades in
// at the start of the tone and out after DISABLE. A reset keeps the compressor's gain, so both
// get the same history first: silence while processing, then a reset at the same frame (a
// through the bypass switch, b through SET_DEVICE).
TEST(EffectProcess, CrossFadesOver2048FramesAfterEnableAndDisable) {
    Effect a, b;
    std::vector<int32_t> zeros(2 * kCall), out_a(2 * kCall), out_b(2 * kCall);
    a.make_active(AUDIO_FORMAT_PCM_32_BIT, 0, {});
    b.make_active(AUDIO_FORMAT_PCM_32_BIT, 0, {});
    for (int call = 0; call < 18; ++call) {
        ASSERT_EQ(call == 9 ? a.set_bypass(1) : 0, 0);  // a fades back out
        ASSERT_EQ(a.process(zeros.data(), out_a.data(), kCall), 0);
        ASSERT_EQ(b.process(zeros.data(), out_b.data(), kCall), 0);
    }
    ASSERT_EQ(a.set_bypass(0), 0);
    ASSERT_EQ(b.set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_WIRED_HEADSET), 0);

    bool processed_differs = false;
    for (int call = 0; call < 24; ++call) {  // fading in over nine calls; out after call 12
        ASSERT_EQ(call == 12 ? a.status_cmd(EFFECT_CMD_DISABLE) : 0, 0);
        std::vector<int32_t> in = tone(kCall, call * kCall);
        // Disabled, it still answers 0 while the fade out runs; call 20 ends it.
        ASSERT_EQ(a.process(in.data(), out_a.data(), kCall), call < 20 ? 0 : -61) << call;
        ASSERT_EQ(b.process(in.data(), out_b.data(), kCall), 0);
        for (size_t i = 0; i < 2 * kCall; ++i) {
            // Frame n of a fade from x to y weighs x by (2048 - n) / 2048.
            const size_t n = (call % 12) * kCall + i / 2;
            const int32_t from = call < 12 ? in[i] : out_b[i], to = call < 12 ? out_b[i] : in[i];
            const double g = n < 2048 ? (2048.0 - static_cast<double>(n)) / 2048.0 : 0.0;
            ASSERT_NEAR(out_a[i], g * from + (1.0 - g) * to, n < 2048 ? 128 : 0) << call << " " << i;
            processed_differs |= out_b[i] != in[i];
        }
    }
    EXPECT_TRUE(processed_differs) << "the reference must really be processed";
}

// Each 4-sample pattern is repeated to 36 samples, so that any vector loop and its tail both
// see every case.
template <typename T>
void expect_accumulates(Effect &fx, uint32_t format, std::vector<T> in, std::vector<T> prev, std::vector<T> sum) {
    SCOPED_TRACE(format);
    for (auto *v : {&in, &prev, &sum}) {
        for (size_t i = 4; i < 36; ++i) v->push_back((*v)[i - 4]);
    }
    ASSERT_EQ(fx.configure(format, 48000, EFFECT_BUFFER_ACCESS_ACCUMULATE), 0);
    ASSERT_EQ(fx.process(in.data(), prev.data(), in.size() / 2), -61);
    EXPECT_EQ(prev, sum);
    const std::vector<T> copy = in;
    ASSERT_EQ(fx.process(in.data(), in.data(), in.size() / 2), -61);
    EXPECT_EQ(in, copy) << "in place is overwritten, never added";
}

TEST(EffectProcess, AccumulatesInEveryOutputFormat) {
    Effect fx;
    constexpr int32_t kMax = std::numeric_limits<int32_t>::max(), kMin = -kMax - 1;
    expect_accumulates<float>(fx, AUDIO_FORMAT_PCM_FLOAT, {0.5f, -0.5f, 0.25f, 0.0f},
                              {0.75f, -0.75f, 0.125f, std::nanf("")}, {1.0f, -1.0f, 0.375f, 0.0f});
    expect_accumulates<int16_t>(fx, AUDIO_FORMAT_PCM_16_BIT, {10000, -10000, 200, -1},
                                {30000, -30000, 100, 0}, {32767, -32768, 300, -1});
    expect_accumulates<int32_t>(fx, AUDIO_FORMAT_PCM_8_24_BIT, {1 << 22, -(1 << 22), 3, 8388607},
                                {1 << 22, 5, -3, 1}, {1 << 23, 5 - (1 << 22), 0, 1 << 23});
    expect_accumulates<int32_t>(fx, AUDIO_FORMAT_PCM_32_BIT, {100, -100, 7, kMin},
                                {kMax - 5, kMin + 5, 8, 0}, {kMax, kMin, 15, kMin});
}

// AudioFlinger after DISABLE: in-place 480-frame calls until the first -61, after which it calls
// no more and the buffer passes untouched. So each call answered 0 may still be heard, and the
// call answered -61 must already be dry from `dry_from` on (to float precision, 2^-24 of full
// scale, where a fade with dry on both sides rounds).
TEST(EffectProcess, DisablePhaseLastsAsLongAsTheFadeBackToDry) {
    constexpr size_t kFlinger = 480;
    const struct { const char *what; bool bypass; int calls_before; int heard_calls; size_t dry_from; } cases[] = {
        {"heard: 2048 frames, four calls and 128 frames", false, 8, 4, 2048 - 4 * kFlinger},
        {"disabled while fading in: dry at once", false, 1, 0, 0},
        {"never heard (bypass on)", true, 8, 0, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Effect fx;
        fx.make_ready(AUDIO_FORMAT_PCM_32_BIT, 0, sorn_test::steep_tuning());
        ASSERT_EQ(fx.set_bypass(c.bypass), 0);
        ASSERT_EQ(fx.status_cmd(EFFECT_CMD_ENABLE), 0);
        size_t frame = 0;
        for (int call = 0; call < c.calls_before; ++call, frame += kFlinger) {
            std::vector<int32_t> buf = tone(kFlinger, frame);
            ASSERT_EQ(fx.process(buf.data(), buf.data(), kFlinger), 0);
        }
        ASSERT_EQ(fx.status_cmd(EFFECT_CMD_DISABLE), 0);
        for (int call = 0;; ++call, frame += kFlinger) {
            ASSERT_LE(call, c.heard_calls) << "no -61 after the fade";
            const std::vector<int32_t> in = tone(kFlinger, frame);
            std::vector<int32_t> buf = in;
            const int32_t r = fx.process(buf.data(), buf.data(), kFlinger);
            int64_t off_dry = 0;
            for (size_t i = call == c.heard_calls ? 2 * c.dry_from : 0; i < buf.size(); ++i)
                off_dry = std::max(off_dry, std::abs(int64_t{buf[i]} - in[i]));
            if (r == -61) {
                EXPECT_EQ(call, c.heard_calls) << "-61 while the processed signal was still heard";
                EXPECT_LE(off_dry, 128) << "the framework stops calling here: the output must be dry";
                break;
            }
            ASSERT_EQ(r, 0);
            EXPECT_GT(off_dry, 1 << 20) << "call " << call << " answered 0 but was no longer heard";
        }
    }
}

// Tone in the given format, exactly representable in each (the 32-bit samples narrowed).
std::vector<uint8_t> encode(const std::vector<int32_t> &v, uint32_t format) {
    const size_t width = format == AUDIO_FORMAT_PCM_16_BIT ? 2 : 4;
    std::vector<uint8_t> out(v.size() * width);
    for (size_t i = 0; i < v.size(); ++i) {
        const auto s16 = static_cast<int16_t>(v[i] >> 16);
        const int32_t s824 = v[i] >> 8;
        const float f = static_cast<float>(v[i]) * 0x1p-31f;
        const void *src = format == AUDIO_FORMAT_PCM_16_BIT ? static_cast<const void *>(&s16)
                          : format == AUDIO_FORMAT_PCM_8_24_BIT ? static_cast<const void *>(&s824)
                          : format == AUDIO_FORMAT_PCM_FLOAT ? static_cast<const void *>(&f) : &v[i];
        std::memcpy(&out[i * width], src, width);
    }
    return out;
}

// A device changes block sizes during playback. The buffers come sized from the configuration
// (buffer.frameCount, or a floor for 0) and grow once for a longer call, so a size seen before
// never allocates, nor does one the configuration announced; and the output is, byte for byte,
// the same audio's at a fixed 240 frames per call.
TEST(EffectProcess, ChangingBlockSizesAllocateNothingAndKeepTheOutput) {
    std::vector<size_t> sizes;  // 240/256/192 ten times, one longer call, 240/256/192 ten times
    for (int half = 0; half < 2; ++half) {
        for (int k = 0; k < 10; ++k) sizes.insert(sizes.end(), {240, 256, 192});
        if (half == 0) sizes.push_back(2080);
    }
    const std::vector<int32_t> audio = tone(66 * kCall);  // what the calls add up to
    const struct { uint32_t format; size_t announced; } flavours[] = {
        {AUDIO_FORMAT_PCM_FLOAT, 0}, {AUDIO_FORMAT_PCM_16_BIT, 0}, {AUDIO_FORMAT_PCM_8_24_BIT, 0},
        {AUDIO_FORMAT_PCM_32_BIT, 0}, {AUDIO_FORMAT_PCM_16_BIT, 2080}};
    for (const auto &f : flavours) {
        SCOPED_TRACE(testing::Message() << "format " << f.format << ", frameCount " << f.announced);
        const size_t frame_bytes = f.format == AUDIO_FORMAT_PCM_16_BIT ? 4 : 8;
        const std::vector<uint8_t> in = encode(audio, f.format);
        std::vector<uint8_t> varied(in.size()), fixed(in.size());
        Effect a, b;
        a.make_active(f.format);
        b.make_active(f.format);
        effect_config_t config = sorn_test::make_config(f.format);
        config.inputCfg.buffer.frameCount = config.outputCfg.buffer.frameCount = f.announced;
        ASSERT_EQ(a.configure(config), 0);
        std::vector<size_t> seen;
        for (size_t n : sizes) {
            const size_t at = (std::accumulate(seen.begin(), seen.end(), size_t{0})) * frame_bytes;
            const bool known = std::find(seen.begin(), seen.end(), n) != seen.end() || n <= f.announced;
            sorn_test::AllocCounter allocs;
            ASSERT_EQ(a.process(const_cast<uint8_t *>(in.data()) + at, varied.data() + at, n), 0);
            if (known) {
                EXPECT_EQ(allocs.count(), 0) << "a call of " << n << " frames after " << seen.size();
            }
            seen.push_back(n);
        }
        for (size_t at = 0; at < in.size(); at += kCall * frame_bytes)
            ASSERT_EQ(b.process(const_cast<uint8_t *>(in.data()) + at, fixed.data() + at, kCall), 0);
        EXPECT_TRUE(varied == fixed) << "the output depends on how the stream is cut into calls";
    }
}

}  // namespace
