// Float audio of any bit pattern through an enabled instance: NaN, infinities, subnormals,
// values far beyond full scale, in callbacks of any size, in place or not, written or
// accumulated onto output that may itself hold any pattern.
//
// Input: byte 0 picks the mode (bit 0 accumulate, bit 1 in place, bits 2-3 the parameter block:
// flat, steep with surround, invalid frequency, none; bit 4 44.1 kHz; bit 5 a disable/enable
// toggle half-way), then per call a size selector and the samples.
//
// Checked on every call: the result is 0; every output sample is finite and within [-1, 1];
// nothing beyond the exact-size buffers is touched; an out-of-place input stays as it was.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>

#include "fuzz/fuzz_common.h"

using sorn_fuzz::ExactBuffer;

SORN_FUZZ_INITIALIZE

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr int kMaxCalls = 24;
    constexpr size_t kMaxFrames = 12000;
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    FuzzedDataProvider fdp(data + 1, size - 1);
    const bool accumulate = mode & 1, in_place = mode & 2, toggle = mode & 32;
    const int kind = (mode >> 2) & 3;

    effect_handle_t h = nullptr;
    FUZZ_CHECK(AELI.create_effect(&sorn_fuzz::kUuid, 0, 0, &h) == 0, "create failed");
    const effect_config_t c = sorn_fuzz::stereo_config((mode & 16) ? 44100 : 48000, AUDIO_FORMAT_PCM_FLOAT, accumulate);
    FUZZ_CHECK(sorn_fuzz::start_stream(h, c, kind == 3 ? -1 : kind, AUDIO_DEVICE_OUT_WIRED_HEADPHONE, true),
               "stream set-up refused");
    size_t total = 0;
    for (int call = 0; call < kMaxCalls && fdp.remaining_bytes() > 0 && total < kMaxFrames; ++call) {
        if (toggle && call == kMaxCalls / 2)
            FUZZ_CHECK(sorn_fuzz::send(h, EFFECT_CMD_DISABLE) == 0 && sorn_fuzz::send(h, EFFECT_CMD_ENABLE) == 0,
                       "disable or enable refused");
        const size_t frames = fdp.ConsumeIntegralInRange(0, 3) == 0
                                  ? fdp.ConsumeIntegralInRange<size_t>(1, 2048)
                                  : std::array<size_t, 8>{240, 480, 192, 960, 1, 1024, 441, 256}
                                        [fdp.ConsumeIntegralInRange<size_t>(0, 7)];
        total += frames;
        const size_t bytes = frames * 2 * sizeof(float);
        ExactBuffer in(bytes), out(in_place ? 0 : bytes);
        // Samples from the input; when it runs short, the block repeats what it got (or stays
        // silent), so long silences and long loud stretches both occur.
        auto fill = [&](ExactBuffer &b, size_t n) {
            const auto got = fdp.ConsumeBytes<uint8_t>(n);
            for (size_t i = 0; i < bytes; ++i) b.data()[i] = got.empty() ? 0 : got[i % got.size()];
        };
        fill(in, bytes);
        if (!in_place) fill(out, accumulate ? bytes : 0);
        const auto in_before = in.snapshot();
        ExactBuffer &target = in_place ? in : out;
        audio_buffer_t ib{frames, {in.data()}}, ob{frames, {target.data()}};
        const int32_t r = (*h)->process(h, &ib, &ob);
        FUZZ_CHECK(r == 0, "process returned %d", r);
        if (!in_place) FUZZ_CHECK(in.snapshot() == in_before, "process wrote into its input");
        const long bad = sorn_fuzz::bad_output(AUDIO_FORMAT_PCM_FLOAT, accumulate, nullptr, target.data(), frames * 2);
        FUZZ_CHECK(bad < 0, "float output sample %ld not finite or beyond [-1, 1]", bad);
    }
    FUZZ_CHECK(AELI.release_effect(h) == 0, "release failed");
    return 0;
}
