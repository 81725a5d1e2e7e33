// Process handler: refusals, the dry/processed cross-fade and the output stage in
// every format. (Silence gating is in test_effect_diag with the dump that shows it, special
// floats in test_hostile_audio.)
#include <limits>

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
        ASSERT_EQ(a.process(in.data(), out_a.data(), kCall), call < 12 ? 0 : -61);
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

TEST(EffectProcess, SteadyStateAllocatesNothing) {
    if (!sorn_test::AllocCounter::available()) GTEST_SKIP() << "allocator owned by a sanitizer";
    Effect fx;
    fx.make_active(AUDIO_FORMAT_PCM_16_BIT);
    std::vector<int16_t> in(2 * kCall, 3000), out(2 * kCall);
    ASSERT_EQ(fx.process(in.data(), out.data(), kCall), 0);
    sorn_test::AllocCounter allocs;
    for (int call = 0; call < 50; ++call) ASSERT_EQ(fx.process(in.data(), out.data(), kCall), 0);
    EXPECT_EQ(allocs.count(), 0);
}

}  // namespace
