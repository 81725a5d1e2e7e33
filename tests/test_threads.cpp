// Several instances driven from several threads at once: creation, configuration, parameter
// blocks (and so the filter design), device and mode changes, processing and release. Instances
// share nothing but constant data, so every thread must get exactly the output it gets when the
// same script runs alone. The hardening script also runs this under ThreadSanitizer.
#include <audio_utils/format.h>

#include <thread>

#include "tests/test_effect_harness.h"

namespace {

using sorn_test::Effect;
constexpr int kThreads = 4;
constexpr size_t kCall = 480;

void mix(uint64_t &hash, const void *data, size_t bytes) {  // FNV-1a
    for (size_t i = 0; i < bytes; ++i) hash = (hash ^ static_cast<const uint8_t *>(data)[i]) * 0x100000001b3ull;
}

// One thread's life: three instances in turn, each with a format, a rate and a tuning of its
// own, fed a tone across parameter, mode and device changes, and the library's descriptor read
// meanwhile (constant data every thread reads). Returns a hash of all it got.
uint64_t run_script(int id) {
    static constexpr audio_format_t kFormats[] = {AUDIO_FORMAT_PCM_FLOAT, AUDIO_FORMAT_PCM_16_BIT,
                                                  AUDIO_FORMAT_PCM_32_BIT, AUDIO_FORMAT_PCM_8_24_BIT};
    uint64_t hash = 0xcbf29ce484222325ull;
    for (int round = 0; round < 3; ++round) {
        const audio_format_t format = kFormats[(id + round) % 4];
        Effect fx;
        const sorn_hp_params_t first = sorn_test::steep_tuning(id + round), next = sorn_test::steep_tuning(id + round + 1);
        EXPECT_EQ(fx.configure(format, (id + round) % 2 ? 44100 : 48000), 0);
        EXPECT_EQ(fx.set_param(100, &first, sizeof first), 0);
        EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_BLUETOOTH_A2DP), 0);
        EXPECT_EQ(fx.status_cmd(EFFECT_CMD_ENABLE), 0);
        for (int call = 0; call < 24; ++call) {
            const int32_t r = call == 8    ? fx.set_param(100, &next, sizeof next)
                              : call == 12 ? fx.set_u32(EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_IN_CALL)
                              : call == 16 ? fx.set_u32(EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_NORMAL)
                              : call == 20 ? fx.set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_USB_HEADSET) : 0;
            EXPECT_EQ(r, 0) << call;
            std::vector<int32_t> in = sorn_test::tone(kCall, call * kCall * (id + 1)), out(in.size());
            memcpy_by_audio_format(in.data(), AUDIO_FORMAT_PCM_FLOAT, in.data(), AUDIO_FORMAT_PCM_32_BIT, in.size());
            memcpy_by_audio_format(in.data(), format, in.data(), AUDIO_FORMAT_PCM_FLOAT, in.size());
            EXPECT_EQ(fx.process(in.data(), out.data(), kCall), 0);
            mix(hash, out.data(), in.size() * audio_bytes_per_sample(format));
            effect_descriptor_t d;
            EXPECT_EQ(AELI.get_descriptor(&sorn_test::kSornUuid, &d), 0);
            mix(hash, &d, sizeof d);
        }
        EXPECT_EQ(fx.status_cmd(EFFECT_CMD_DISABLE), 0);
        EXPECT_EQ(fx.release(), 0);
    }
    return hash;
}

TEST(Threads, InstancesOnSeveralThreadsGetWhatTheyGetAlone) {
    std::vector<uint64_t> alone(kThreads), together(kThreads);
    for (int id = 0; id < kThreads; ++id) alone[id] = run_script(id);

    std::vector<std::thread> workers;
    for (int id = 0; id < kThreads; ++id) workers.emplace_back([&, id] { together[id] = run_script(id); });
    for (auto &w : workers) w.join();

    EXPECT_EQ(together, alone) << "a thread heard something else than alone";
}

}  // namespace
