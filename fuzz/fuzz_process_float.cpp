// Float audio of any bit pattern through an enabled instance: NaN, infinities, subnormals,
// values far beyond full scale, in callbacks of any size, in place or not, written or
// accumulated onto output that may itself hold any pattern.
//
// Input: byte 0 picks the mode (accumulate, in place, which parameters, the sample rate, a
// disable/enable toggle half-way), then per call a size selector and the samples.
//
// Checked on every call: the result is 0; every output sample is finite and within [-1, 1];
// nothing beyond the exact-size buffers is touched; an out-of-place input stays as it was.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>

#include "fuzz/fuzz_common.h"
#include "wrapper/sorn_hp_params.h"

namespace {

using sorn_fuzz::ExactBuffer;

constexpr int kMaxCalls = 24;
constexpr size_t kMaxFrames = 12000;

int32_t send(effect_handle_t h, uint32_t code, std::vector<uint8_t> payload) {
    int32_t reply = -1;
    uint32_t reply_size = sizeof reply;
    const int32_t r = (*h)->command(h, code, static_cast<uint32_t>(payload.size()),
                                    payload.empty() ? nullptr : payload.data(), &reply_size, &reply);
    return r != 0 ? r : reply;
}

std::vector<uint8_t> bytes_of(const void *p, size_t n) {
    const auto *b = static_cast<const uint8_t *>(p);
    return std::vector<uint8_t>(b, b + n);
}

std::vector<uint8_t> param_command(uint32_t id, const void *value, uint32_t vsize) {
    std::vector<uint8_t> v(16 + vsize);
    const uint32_t header[4] = {0, 4, vsize, id};
    std::memcpy(v.data(), header, 16);
    std::memcpy(v.data() + 16, value, vsize);
    return v;
}

// 0: flat tables; 1: a steep curve at the +7 dB limit with surround; 2: an invalid frequency
// (default taps, FIR off) with surround; 3: no block at all (the output stays dry).
sorn_hp_params_t params_for(int kind) {
    sorn_hp_params_t p{};
    if (kind == 0) {
        p.lc = 1;
        for (int i = 0; i < SORN_HP_LC_POINTS; ++i) p.lc_freq[i] = 100 + 1500 * i;
    } else {
        p.lc = 1;
        p.hp = 1;
        p.ss = 1;
        for (int i = 0; i < SORN_HP_LC_POINTS; ++i) {
            p.lc_freq[i] = 40 + 1800 * i;
            p.lc_gain[i] = (i % 2) ? 12 : -12;
            p.hp_freq[i] = 60 + 1700 * i;
            p.hp_gain[i] = 9;
        }
        if (kind == 2) p.lc_freq[5] = 30000;
    }
    return p;
}

size_t callback_frames(FuzzedDataProvider &fdp) {
    switch (fdp.ConsumeIntegralInRange(0, 3)) {
        case 0: return fdp.ConsumeIntegralInRange<size_t>(1, 2048);
        default:
            return std::array<size_t, 8>{240, 480, 192, 960, 1, 1024, 441, 256}
                [fdp.ConsumeIntegralInRange<size_t>(0, 7)];
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sorn_fuzz::quiet_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    FuzzedDataProvider fdp(data + 1, size - 1);
    const bool accumulate = mode & 1;
    const bool in_place = mode & 2;
    const int params_kind = (mode >> 2) & 3;
    const uint32_t rate = (mode & 16) ? 44100 : 48000;
    const bool toggle = mode & 32;

    effect_handle_t h = nullptr;
    FUZZ_CHECK(AELI.create_effect(&sorn_fuzz::kUuid, 0, 0, &h) == 0, "create failed");
    effect_config_t c{};
    for (buffer_config_t *b : {&c.inputCfg, &c.outputCfg}) {
        b->samplingRate = rate;
        b->channels = AUDIO_CHANNEL_OUT_STEREO;
        b->format = AUDIO_FORMAT_PCM_FLOAT;
    }
    c.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
    c.outputCfg.accessMode = accumulate ? EFFECT_BUFFER_ACCESS_ACCUMULATE : EFFECT_BUFFER_ACCESS_WRITE;
    FUZZ_CHECK(send(h, EFFECT_CMD_SET_CONFIG, bytes_of(&c, sizeof c)) == 0, "config refused");
    if (params_kind != 3) {
        const sorn_hp_params_t p = params_for(params_kind);
        FUZZ_CHECK(send(h, EFFECT_CMD_SET_PARAM, param_command(100, &p, sizeof p)) == 0,
                   "parameter block refused");
    }
    const uint32_t device = AUDIO_DEVICE_OUT_WIRED_HEADPHONE;
    FUZZ_CHECK(send(h, EFFECT_CMD_SET_DEVICE, bytes_of(&device, 4)) == 0, "device refused");
    FUZZ_CHECK(send(h, EFFECT_CMD_ENABLE, {}) == 0, "enable refused");

    size_t total = 0;
    for (int call = 0; call < kMaxCalls && fdp.remaining_bytes() > 0 && total < kMaxFrames; ++call) {
        if (toggle && call == kMaxCalls / 2) {
            FUZZ_CHECK(send(h, EFFECT_CMD_DISABLE, {}) == 0, "disable refused");
            FUZZ_CHECK(send(h, EFFECT_CMD_ENABLE, {}) == 0, "enable refused");
        }
        const size_t frames = callback_frames(fdp);
        total += frames;
        const size_t bytes = frames * 2 * sizeof(float);
        ExactBuffer in(bytes);
        ExactBuffer out(in_place ? 0 : bytes);
        // Samples from the input; when it runs short, the block repeats what it got (or stays
        // silent), so long silences and long loud stretches both occur.
        const auto samples = fdp.ConsumeBytes<uint8_t>(bytes);
        for (size_t i = 0; i < bytes; ++i) in.data()[i] = samples.empty() ? 0 : samples[i % samples.size()];
        if (!in_place) {
            const auto prior = fdp.ConsumeBytes<uint8_t>(accumulate ? bytes : 0);
            for (size_t i = 0; i < bytes; ++i) out.data()[i] = prior.empty() ? 0 : prior[i % prior.size()];
        }
        const auto in_before = in.snapshot();
        ExactBuffer &target = in_place ? in : out;
        audio_buffer_t ib{frames, {in.data()}}, ob{frames, {target.data()}};
        const int32_t r = (*h)->process(h, &ib, &ob);
        FUZZ_CHECK(r == 0, "process returned %d", r);
        if (!in_place) FUZZ_CHECK(in.equals(in_before), "process wrote into its input");
        sorn_fuzz::check_output(AUDIO_FORMAT_PCM_FLOAT, accumulate, nullptr, target.data(), frames * 2);
    }
    FUZZ_CHECK(AELI.release_effect(h) == 0, "release failed");
    return 0;
}
