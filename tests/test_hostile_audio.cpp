// Hostile input through the exported entry points: float NaN, infinities, subnormals and values
// far beyond full scale; full-scale squares and DC at the rails in every format; accumulation
// onto output already at the rails; refusals after a refused reconfiguration; and commands whose
// cmdSize is shorter than what they claim to carry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "effect/sorn_hp_entry.h"
#include "wrapper/sorn_hp_params.h"

namespace {

constexpr effect_uuid_t kUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                 {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};
constexpr size_t kCall = 480;
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

struct Fx {
    effect_handle_t h = nullptr;
    Fx() { EXPECT_EQ(AELI.create_effect(&kUuid, 1, 1, &h), 0); }
    ~Fx() { AELI.release_effect(h); }

    int32_t cmd(uint32_t code, uint32_t size, void *data) {
        int32_t reply = 12345;
        uint32_t reply_size = sizeof reply;
        const int32_t r = (*h)->command(h, code, size, data, &reply_size, &reply);
        return r != 0 ? r : reply;
    }
    int32_t configure(uint32_t format, uint8_t access = EFFECT_BUFFER_ACCESS_WRITE,
                      uint32_t channels = AUDIO_CHANNEL_OUT_STEREO) {
        effect_config_t c{};
        for (buffer_config_t *b : {&c.inputCfg, &c.outputCfg}) {
            b->samplingRate = 48000;
            b->channels = channels;
            b->format = static_cast<uint8_t>(format);
        }
        c.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
        c.outputCfg.accessMode = access;
        return cmd(EFFECT_CMD_SET_CONFIG, sizeof c, &c);
    }
    // Configured, a steep parameter block with surround, on headphones, enabled.
    void make_active(uint32_t format, uint8_t access = EFFECT_BUFFER_ACCESS_WRITE) {
        ASSERT_EQ(configure(format, access), 0);
        sorn_hp_params_t p{};
        p.lc = p.hp = p.ss = 1;
        for (int i = 0; i < SORN_HP_LC_POINTS; ++i) {
            p.lc_freq[i] = 40 + 1800 * i;
            p.lc_gain[i] = (i % 2) ? 12 : -6;
            p.hp_freq[i] = 60 + 1700 * i;
            p.hp_gain[i] = 7;
        }
        std::vector<uint8_t> c(16 + sizeof p);
        const uint32_t header[4] = {0, 4, sizeof p, 100};
        std::memcpy(c.data(), header, 16);
        std::memcpy(c.data() + 16, &p, sizeof p);
        ASSERT_EQ(cmd(EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(c.size()), c.data()), 0);
        uint32_t device = AUDIO_DEVICE_OUT_WIRED_HEADPHONE;
        ASSERT_EQ(cmd(EFFECT_CMD_SET_DEVICE, 4, &device), 0);
        ASSERT_EQ(cmd(EFFECT_CMD_ENABLE, 0, nullptr), 0);
    }
    int32_t process(void *in, void *out, size_t frames) {
        audio_buffer_t ib{frames, {in}}, ob{frames, {out}};
        return (*h)->process(h, &ib, &ob);
    }
    std::string status() {
        uint32_t query[4] = {0, 4, 1024, 201};
        std::vector<char> reply(1040);
        uint32_t size = 1040;
        EXPECT_EQ((*h)->command(h, EFFECT_CMD_GET_PARAM, 16, query, &size, reply.data()), 0);
        return reply.data() + 16;
    }
};

void expect_float_in_range(const std::vector<float> &out, const char *what) {
    for (size_t i = 0; i < out.size(); ++i) {
        ASSERT_TRUE(std::isfinite(out[i]) && out[i] >= -1.0f && out[i] <= 1.0f)
            << what << ": sample " << i << " is " << out[i];
    }
}

// A tone with every special float value mixed in, one per few frames.
std::vector<float> hostile_floats(size_t frames, size_t first) {
    static const float specials[] = {kNaN, kInf, -kInf, 1e-40f, -1e-45f, 1e30f, -1e30f,
                                     1.0000001f, -1.0000001f, -kNaN, 0.0f, -0.0f};
    std::vector<float> v(2 * frames);
    for (size_t i = 0; i < v.size(); ++i) {
        const size_t n = first * 2 + i;
        v[i] = n % 7 == 0 ? specials[(n / 7) % 12]
                          : 0.5f * std::sin(static_cast<float>(n / 2) * 0.05f + (n % 2));
    }
    return v;
}

TEST(HostileAudio, SpecialFloatsNeverReachTheOutputAndLeaveNoTrace) {
    for (const uint8_t access : {EFFECT_BUFFER_ACCESS_WRITE, EFFECT_BUFFER_ACCESS_ACCUMULATE}) {
        SCOPED_TRACE(access == EFFECT_BUFFER_ACCESS_WRITE ? "write" : "accumulate");
        Fx fx;
        fx.make_active(AUDIO_FORMAT_PCM_FLOAT, access);
        std::vector<float> out(2 * kCall);
        for (size_t call = 0; call < 40; ++call) {
            std::vector<float> in = hostile_floats(kCall, call * kCall);
            if (access == EFFECT_BUFFER_ACCESS_ACCUMULATE) out = hostile_floats(kCall, call + 3);
            ASSERT_EQ(fx.process(in.data(), out.data(), kCall), 0);
            expect_float_in_range(out, "hostile input");
        }
        // Afterwards a plain tone comes through sounding and sane: no state was poisoned.
        float peak = 0.0f;
        for (size_t call = 0; call < 40; ++call) {
            std::vector<float> in(2 * kCall);
            for (size_t i = 0; i < in.size(); ++i) in[i] = 0.3f * std::sin(static_cast<float>(i / 2) * 0.06f);
            std::fill(out.begin(), out.end(), 0.0f);
            ASSERT_EQ(fx.process(in.data(), out.data(), kCall), 0);
            expect_float_in_range(out, "tone after hostile input");
            for (float s : out) peak = std::max(peak, std::fabs(s));
        }
        EXPECT_GT(peak, 0.05f);
    }
}

TEST(HostileAudio, UnprocessedFloatPathMapsNaNToZeroAndClampsTheRest) {
    Fx fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    std::vector<float> in = {kNaN, -kNaN, kInf, -kInf, 1e30f, -1e30f, 1e-40f, -1e-45f};
    std::vector<float> out(in.size(), 0.5f);
    ASSERT_EQ(fx.process(in.data(), out.data(), in.size() / 2), -61);
    const std::vector<float> expected = {0.0f, 0.0f, 1.0f, -1.0f, 1.0f, -1.0f, 0.0f, 0.0f};
    for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(out[i], expected[i]) << "sample " << i;
}

// One 16-bit-exact hostile signal (rails, squares, DC, alternating extremes) through four active
// instances, one per format. Every format brings it to the same 32-bit working block, so each
// output must be the 32-bit instance's output narrowed exactly: any wrap, lost sign or wrong shift
// in an output path shows as a mismatch.
TEST(HostileAudio, RailsSquaresAndDcGiveTheSameOutputInEveryFormat) {
    Fx f32, f16, f824, ffl;
    f32.make_active(AUDIO_FORMAT_PCM_32_BIT);
    f16.make_active(AUDIO_FORMAT_PCM_16_BIT);
    f824.make_active(AUDIO_FORMAT_PCM_8_24_BIT);
    ffl.make_active(AUDIO_FORMAT_PCM_FLOAT);
    auto sample = [](size_t frame, int ch) -> int16_t {
        const size_t segment = frame / 4800;  // 0.1 s each
        switch (segment % 5) {
            case 0: return (frame / 50) % 2 ? INT16_MAX : INT16_MIN;        // 480 Hz square
            case 1: return ch ? INT16_MIN : INT16_MAX;                      // DC at both rails
            case 2: return frame % 2 ? INT16_MIN : INT16_MAX;               // Nyquist at full scale
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

// Loud input added onto output already at the rails: 16-bit and 32-bit sums saturate, float sums
// are limited (NaN and infinities in the output included); none flips sign.
TEST(HostileAudio, AccumulationOntoTheRailsSaturates) {
    Fx f16, f32, ffl;
    f16.make_active(AUDIO_FORMAT_PCM_16_BIT, EFFECT_BUFFER_ACCESS_ACCUMULATE);
    f32.make_active(AUDIO_FORMAT_PCM_32_BIT, EFFECT_BUFFER_ACCESS_ACCUMULATE);
    ffl.make_active(AUDIO_FORMAT_PCM_FLOAT, EFFECT_BUFFER_ACCESS_ACCUMULATE);
    for (size_t call = 0; call < 30; ++call) {
        const bool up = call % 2 == 0;
        std::vector<int16_t> in16(2 * kCall, up ? INT16_MAX : INT16_MIN), out16(2 * kCall, up ? INT16_MAX : INT16_MIN);
        std::vector<int32_t> in32(2 * kCall, up ? INT32_MAX : INT32_MIN), out32(2 * kCall, up ? INT32_MAX : INT32_MIN);
        std::vector<float> infl(2 * kCall, up ? 1.0f : -1.0f), outfl(2 * kCall);
        for (size_t i = 0; i < outfl.size(); ++i) outfl[i] = i % 3 == 0 ? kNaN : (up ? kInf : -1.0f);
        ASSERT_EQ(f16.process(in16.data(), out16.data(), kCall), 0);
        ASSERT_EQ(f32.process(in32.data(), out32.data(), kCall), 0);
        ASSERT_EQ(ffl.process(infl.data(), outfl.data(), kCall), 0);
        expect_float_in_range(outfl, "accumulated float");
        for (size_t i = 0; i < 2 * kCall; ++i) {
            // A rail plus any contribution stays on the rail's side of -1 (at worst the other
            // rail's full value added gives -1); a wrapped sum lands near the opposite rail.
            ASSERT_TRUE(up ? out16[i] >= -1 : out16[i] <= -1) << "call " << call << " sample " << i << ": " << out16[i];
            ASSERT_TRUE(up ? out32[i] >= -1 : out32[i] <= -1) << "call " << call << " sample " << i << ": " << out32[i];
        }
    }
}

// A refused reconfiguration leaves the instance unconfigured: every buffer is then refused and
// neither the input nor the output is touched, whatever they hold.
TEST(HostileAudio, RefusedCallsAfterARefusedConfigurationTouchNothing) {
    Fx fx;
    fx.make_active(AUDIO_FORMAT_PCM_FLOAT);
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT, EFFECT_BUFFER_ACCESS_WRITE, AUDIO_CHANNEL_OUT_MONO), -22);
    std::vector<float> in = hostile_floats(kCall, 0), out(2 * kCall, kNaN);
    const std::vector<float> in_before = in;
    EXPECT_EQ(fx.process(in.data(), out.data(), kCall), -22);
    EXPECT_EQ(fx.process(in.data(), in.data(), kCall), -22);
    EXPECT_EQ(std::memcmp(in.data(), in_before.data(), in.size() * sizeof(float)), 0);
    for (float v : out) ASSERT_TRUE(std::isnan(v));
}

// Commands are read only up to cmdSize. Each buffer here is exactly cmdSize bytes, so the
// sanitizer builds also see any byte read past it.
TEST(HostileCommands, NothingIsReadBeyondCmdSize) {
    Fx fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_32_BIT), 0);
    auto exact = [](const std::vector<uint32_t> &words, size_t bytes) {
        auto p = std::make_unique<uint8_t[]>(bytes);
        std::memcpy(p.get(), words.data(), std::min(bytes, words.size() * 4));
        return p;
    };
    // Header without the id: refused before anything is read.
    auto header = exact({0, 4, 4}, 12);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_PARAM, 12, header.get()), -22);
    std::vector<char> reply(1040, 'x');
    uint32_t reply_size = 1040;
    EXPECT_EQ((*fx.h)->command(fx.h, EFFECT_CMD_GET_PARAM, 12, header.get(), &reply_size, reply.data()), -22);
    EXPECT_EQ(reply_size, 1040u);
    EXPECT_EQ(reply, std::vector<char>(1040, 'x'));
    // A bypass word declared as 4 bytes with only 2 present: refused, bypass stays off.
    auto bypass = exact({0, 4, 4, 900, 1}, 18);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_PARAM, 18, bypass.get()), -22);
    // A 16-bit bypass value is whole in 18 bytes.
    auto bypass16 = exact({0, 4, 2, 900, 0}, 18);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_PARAM, 18, bypass16.get()), 0);
    // A parameter block that claims 292 bytes but brings 100: refused, nothing loaded.
    std::vector<uint32_t> block(4 + sizeof(sorn_hp_params_t) / 4, 0);
    block[1] = 4;
    block[2] = sizeof(sorn_hp_params_t);
    block[3] = 100;
    block[4] = 1;
    auto cut = exact(block, 100);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_PARAM, 100, cut.get()), -22);
    const std::string text = fx.status();
    EXPECT_NE(text.find("bypass: 0  pmi: 0"), std::string::npos) << text;
    // The whole block is taken.
    auto whole = exact(block, block.size() * 4);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(block.size() * 4), whole.get()), 0);
    EXPECT_NE(fx.status().find("pmi: 1"), std::string::npos);
}

}  // namespace
