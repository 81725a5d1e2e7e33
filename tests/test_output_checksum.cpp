// Bit-exact output: a long synthesized program runs through the effect as the framework drives
// it: every block length, all four output formats, WRITE and ACCUMULATE, a parameter switch,
// the enable/disable cross-fades with a chain reset while the surround holds state, and the
// silence gate; then a dynamics run (seconds near full scale that push the limiter into its
// floor, sparse clicks that close the compressor's gate and let the limiter release, a middle
// level, a loud burst, and a faint tail that trips the mute guard once the activity count has
// wrapped) and a 16-bit run straight through the wrapper. A 64-bit FNV-1a checksum of every
// output byte and every return value must equal the one recorded for this build. The transforms
// round differently per FFT backend and architecture, hence one value per combination. A new
// value is recorded only with a deliberate change of the output, never to make a change pass.
#include <string_view>

#include "tests/test_effect_harness.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

using sorn_test::Effect;

// 64-bit FNV-1a over byte runs.
void fnv(uint64_t &h, const void *p, size_t n) {
    for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<const uint8_t *>(p)[i]) * 0x100000001b3ull;
}

// Integer-only synthesis (no libm, so both architectures see the same input), full scale 2^31.
// Normal runs: two square-ish waves and noise under a slow envelope that reaches full scale,
// with a silent stretch. The dynamics run (one unit of the chain's 24-bit scale is 256): 3 s
// near full scale, 2.5 s of sparse clicks, 1.5 s at a middle level, a loud burst, a faint tail.
int32_t sample(uint32_t f, int ch, uint32_t &noise, bool dyn) {
    noise = noise * 1664525u + 1013904223u;
    if (dyn) {
        const int32_t sq = ((f / (ch != 0 ? 41u : 53u)) & 1u) ? 1 : -1;
        const int32_t n = static_cast<int32_t>(noise) >> 7;  // |n| < 2^24
        if (f < 144000 || (f >= 336000 && f < 360000)) return sq * (7 << 28) + n;  // -1.2 dB
        if (f < 264000) return f % 197 == 0 ? static_cast<int32_t>((noise >> 24) + 32) << 8 : 0;
        if (f < 336000) return sq * (3 << 28) + n;  // -8.5 dB
        return f % 240 == 0 ? 256 : 0;  // one chain unit per block: audible in, silent out
    }
    if (f >= 18000 && f < 25000) return 0;
    const int32_t env = static_cast<int32_t>((f * 37u) % 65536u);  // 0..1 in Q16
    const int32_t wave = ((f / (ch != 0 ? 23u : 57u)) & 1u) ? 1 << 14 : -(1 << 14);
    const int32_t mix = wave + (static_cast<int32_t>(noise) >> 17);  // |mix| < 2^15
    return mix * env;  // |value| < 2^31
}

sorn_hp_params_t curve(bool second) {
    sorn_hp_params_t p{};
    p.lc = 1, p.hp = second, p.ea = second, p.ss = second;
    for (uint32_t i = 0; i < 12; ++i) {
        p.lc_freq[i] = p.hp_freq[i] = 30 + 1800 * i;
        p.lc_gain[i] = static_cast<int32_t>(i % 5) - 2, p.hp_gain[i] = static_cast<int32_t>(i % 3);
    }
    for (uint32_t i = 0; i < 8; ++i) p.ea_freq[i] = 100 + 2500 * i, p.ea_gain[i] = (i & 1) ? 3 : -2;
    return p;
}

// Stores a full-scale 32-bit sample at index i of a buffer in the given format.
void put(std::vector<uint8_t> &buf, size_t i, uint32_t format, int32_t s) {
    const float f = static_cast<float>(s) * (1.0f / 2147483648.0f);  // exact: a power of two
    const int16_t s16 = static_cast<int16_t>(s >> 16);
    const int32_t s32 = format == AUDIO_FORMAT_PCM_8_24_BIT ? s >> 8 : s;
    if (format == AUDIO_FORMAT_PCM_16_BIT) std::memcpy(&buf[2 * i], &s16, 2);
    else if (format == AUDIO_FORMAT_PCM_FLOAT) std::memcpy(&buf[4 * i], &f, 4);
    else std::memcpy(&buf[4 * i], &s32, 4);
}

uint64_t run_program() {
    uint64_t sum = 0xcbf29ce484222325ull;
    const uint32_t formats[] = {AUDIO_FORMAT_PCM_16_BIT, AUDIO_FORMAT_PCM_32_BIT,
                                AUDIO_FORMAT_PCM_8_24_BIT, AUDIO_FORMAT_PCM_FLOAT};
    const size_t calls[] = {240, 1, 333, 97, 480, 1024, 7, 220, 4096};
    for (int run = 0; run < 26; ++run) {  // every rate x format x output access, then two more
        const bool dyn = run == 24, raw16 = run == 25;  // raw16: int16 straight into the wrapper
        const uint32_t rate = run < 8 ? 44100 : run < 16 ? 48000 : 46000;
        const uint32_t format = dyn ? AUDIO_FORMAT_PCM_32_BIT : formats[run / 2 % 4];
        const uint8_t access = run % 2 ? EFFECT_BUFFER_ACCESS_ACCUMULATE : EFFECT_BUFFER_ACCESS_WRITE;
        Effect fx;
        void *w = raw16 ? sorn_hp_wrapper_init(static_cast<int>(rate), 1, 2) : nullptr;
        sorn_hp_params_t first = dyn ? sorn_test::steep_tuning() : curve(false), second = dyn ? sorn_hp_params_t{} : curve(true);
        auto tune = [&](sorn_hp_params_t *p) { sorn_hp_wrapper_set_parameters(w, p), fx.set_param(100, p, sizeof *p); };
        EXPECT_EQ(fx.configure(sorn_test::make_config(format, rate, access)), 0);
        tune(&first);
        EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_WIRED_HEADPHONE), 0);
        EXPECT_EQ(fx.status_cmd(EFFECT_CMD_ENABLE), 0);
        EXPECT_TRUE(fx.active());
        const size_t width = format == AUDIO_FORMAT_PCM_16_BIT ? 2 : 4;
        uint32_t noise = rate + format * 7 + access, frame = 0;
        for (size_t k = 0; frame < (dyn ? 384000u : 40000u); ++k) {
            const size_t n = calls[k % std::size(calls)];
            if (frame < 12000 && frame + n >= 12000) tune(&second);
            if (frame < 29000 && frame + n >= 29000) fx.status_cmd(EFFECT_CMD_DISABLE);
            if (frame < 33000 && frame + n >= 33000) fx.status_cmd(EFFECT_CMD_ENABLE);
            std::vector<uint8_t> in(n * 2 * width), out(n * 2 * width);
            for (size_t i = 0; i < 2 * n; ++i) {
                put(in, i, format, sample(frame + static_cast<uint32_t>(i / 2), i % 2, noise, dyn));
                put(out, i, format, static_cast<int32_t>(noise) >> 3);  // accumulate base
            }
            const int32_t r = raw16 ? (sorn_hp_wrapper_process(w, in.data(), in.size()), 0)
                                    : fx.process(in.data(), out.data(), n);
            fnv(sum, &r, sizeof r);
            fnv(sum, raw16 ? in.data() : out.data(), out.size());
            frame += static_cast<uint32_t>(n);
        }
        sorn_hp_wrapper_deinit(w);
    }
    return sum;
}

TEST(OutputChecksum, LongProgramMatchesTheRecordedOutput) {
    constexpr bool fftw = std::string_view(SORN_FFT_BACKEND_NAME) == "fftw";
#if defined(__x86_64__)
    const uint64_t expected = fftw ? 0x5601772717769658ull : 0x041fc36136cabcc5ull;
#elif defined(__aarch64__)
    const uint64_t expected = fftw ? 0xf6b0ce679f154b35ull : 0x3dadec241dd6b6c9ull;
#else
    GTEST_SKIP() << "no checksum recorded for this architecture";
#endif
    const uint64_t got = run_program();
    EXPECT_EQ(got, expected) << std::hex << "checksum 0x" << got;
}

}  // namespace
