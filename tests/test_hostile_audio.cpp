// Hostile audio through the exported entry points: NaN and infinities inside music, full-scale
// squares and DC at the rails in every format. (Commands cut shorter than what they claim to
// carry are in test_effect_command; accumulation onto any output is also covered by the fuzz
// replays.)
#include <algorithm>
#include <bit>
#include <limits>

#include "tests/test_effect_harness.h"

namespace {

using sorn_test::Effect;
constexpr size_t kCall = 480;
constexpr float kInf = std::numeric_limits<float>::infinity(), kNaN = std::numeric_limits<float>::quiet_NaN();

// A NaN counts as silence and an infinity as the rail of its sign, whatever the processor's
// float conversion does with them (x86 makes a NaN a full-scale negative sample). Checked
// exactly on the unprocessed path, then on music through a tuned instance: the hostile stream
// must give, bit for bit, what the stream with those values replaced gives.
TEST(HostileAudio, NaNIsSilenceAndInfinitiesAreTheRails) {
    Effect plain;
    ASSERT_EQ(plain.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    std::vector<float> in = {kNaN, -kNaN, kInf, -kInf, 1e30f, -1e30f, 1e-40f, std::bit_cast<float>(0x7F800001u)};
    std::vector<float> out(in.size(), 0.5f);
    ASSERT_EQ(plain.process(in.data(), out.data(), in.size() / 2), -61);
    EXPECT_EQ(out, std::vector<float>({0.0f, 0.0f, 1.0f, -1.0f, 1.0f, -1.0f, 0.0f, 0.0f}));

    Effect hostile, clean;
    hostile.make_active(AUDIO_FORMAT_PCM_FLOAT);
    clean.make_active(AUDIO_FORMAT_PCM_FLOAT);
    const float nans[] = {kNaN, -kNaN, std::bit_cast<float>(0x7F800001u), std::bit_cast<float>(0xFFFFFFFFu)};
    float peak = 0.0f;
    for (size_t call = 0; call < 48; ++call) {  // NaNs only, then infinities too, then music
        std::vector<float> h(2 * kCall), c(2 * kCall), out_h(2 * kCall), out_c(2 * kCall);
        for (size_t i = 0; i < h.size(); ++i) {
            const size_t n = call * h.size() + i;
            c[i] = h[i] = 0.1f * std::sin(static_cast<float>(n / 2) * (n % 2 ? 0.13f : 0.057f));
            if (n % 7 == 0 && call < 32) h[i] = nans[n / 7 % 4], c[i] = 0.0f;
            if (n % 11 == 0 && call >= 16 && call < 32) h[i] = c[i] = n % 2 ? kInf : -kInf;
        }
        for (float &v : c) v = std::isinf(v) ? std::copysign(1.0f, v) : v;
        ASSERT_EQ(hostile.process(h.data(), out_h.data(), kCall), 0);
        ASSERT_EQ(clean.process(c.data(), out_c.data(), kCall), 0);
        ASSERT_EQ(std::memcmp(out_h.data(), out_c.data(), out_h.size() * sizeof(float)), 0) << call;
        for (float v : out_h) {
            ASSERT_TRUE(std::isfinite(v) && std::fabs(v) <= 1.0f) << call << ": " << v;
            peak = std::max(peak, std::fabs(v));
        }
    }
    EXPECT_GT(peak, 0.05f) << "the music comes through";
}

// One 16-bit-exact hostile signal (rails, squares, DC, alternating extremes) through four active
// instances, one per format. Every format brings it to the same 32-bit working block, so each
// output must be the 32-bit instance's output narrowed exactly: any wrap, lost sign or wrong shift
// in an output path shows as a mismatch.
TEST(HostileAudio, RailsSquaresAndDcGiveTheSameOutputInEveryFormat) {
    Effect f32, f16, f824, ffl;
    f32.make_active(AUDIO_FORMAT_PCM_32_BIT);
    f16.make_active(AUDIO_FORMAT_PCM_16_BIT);
    f824.make_active(AUDIO_FORMAT_PCM_8_24_BIT);
    ffl.make_active(AUDIO_FORMAT_PCM_FLOAT);
    auto sample = [](size_t frame, int ch) -> int16_t {
        switch (frame / 4800 % 5) {  // 0.1 s each
            case 0: return (frame / 50) % 2 ? INT16_MAX : INT16_MIN;  // 480 Hz square
            case 1: return ch ? INT16_MIN : INT16_MAX;                // DC at both rails
            case 2: return frame % 2 ? INT16_MIN : INT16_MAX;         // Nyquist at full scale
            case 3: return (frame / 7) % 2 ? INT16_MAX : static_cast<int16_t>(-1);
            default: return static_cast<int16_t>(ch ? INT16_MAX : INT16_MIN);
        }
    };
    bool saw_rail = false;
    for (size_t call = 0; call < 60; ++call) {
        std::vector<int16_t> s16(2 * kCall), o16(2 * kCall);
        std::vector<int32_t> s32(2 * kCall), s824(2 * kCall), o32(2 * kCall), o824(2 * kCall);
        std::vector<float> sfl(2 * kCall), ofl(2 * kCall);
        for (size_t i = 0; i < 2 * kCall; ++i) {
            const int16_t v = sample(call * kCall + i / 2, static_cast<int>(i % 2));
            s16[i] = v;
            s32[i] = static_cast<int32_t>(static_cast<uint32_t>(v) << 16);
            s824[i] = v * 256;
            sfl[i] = static_cast<float>(v) / 32768.0f;
        }
        ASSERT_EQ(f32.process(s32.data(), o32.data(), kCall), 0);
        ASSERT_EQ(f16.process(s16.data(), o16.data(), kCall), 0);
        ASSERT_EQ(f824.process(s824.data(), o824.data(), kCall), 0);
        ASSERT_EQ(ffl.process(sfl.data(), ofl.data(), kCall), 0);
        for (size_t i = 0; i < 2 * kCall; ++i) {
            ASSERT_EQ(o16[i], o32[i] >> 16) << "call " << call << " sample " << i;
            ASSERT_EQ(o824[i], o32[i] >> 8) << "call " << call << " sample " << i;
            ASSERT_EQ(ofl[i], static_cast<float>(o32[i]) * 0x1p-31f) << "call " << call << " sample " << i;
            saw_rail |= std::abs(static_cast<int64_t>(o32[i])) > (int64_t{1} << 29);
        }
    }
    EXPECT_TRUE(saw_rail) << "the processed signal should come near full scale";
}

}  // namespace
