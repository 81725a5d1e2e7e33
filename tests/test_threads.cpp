// Several instances driven from several threads at once: creation, configuration, parameter
// blocks (and so the filter design), device and mode changes, processing and release. Instances
// share nothing but constant data, so every thread must get exactly the output it gets when the
// same script runs alone. The hardening script also runs this under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "effect/sorn_hp_entry.h"
#include "tests/test_effect_harness.h"
#include "wrapper/sorn_hp_params.h"

namespace {

constexpr const effect_uuid_t &kUuid = sorn_test::kSornUuid;
constexpr int kThreads = 4;
constexpr size_t kCall = 480;

int32_t status_cmd(effect_handle_t h, uint32_t code, uint32_t size, void *data) {
    int32_t reply = -1;
    uint32_t reply_size = sizeof reply;
    const int32_t r = (*h)->command(h, code, size, data, &reply_size, &reply);
    return r != 0 ? r : reply;
}

int32_t send_block(effect_handle_t h, int variant) {
    sorn_hp_params_t p{};
    p.lc = 1;
    p.hp = variant % 2;
    p.ss = variant % 3 == 0;
    for (int i = 0; i < SORN_HP_LC_POINTS; ++i) {
        p.lc_freq[i] = 50 + 1700 * i + 10 * variant;
        p.lc_gain[i] = (i + variant) % 7 - 3;
        p.hp_freq[i] = 80 + 1600 * i;
        p.hp_gain[i] = variant - 2;
    }
    std::vector<uint8_t> cmd(16 + sizeof p);
    const uint32_t header[4] = {0, 4, sizeof p, 100};
    std::memcpy(cmd.data(), header, 16);
    std::memcpy(cmd.data() + 16, &p, sizeof p);
    return status_cmd(h, EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(cmd.size()), cmd.data());
}

int32_t configure(effect_handle_t h, uint32_t format, uint32_t rate) {
    effect_config_t c = sorn_test::make_config(format, rate);
    return status_cmd(h, EFFECT_CMD_SET_CONFIG, sizeof c, &c);
}

// FNV-1a over the bytes of every output buffer.
void mix(uint64_t &hash, const void *data, size_t bytes) {
    const auto *p = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < bytes; ++i) hash = (hash ^ p[i]) * 0x100000001b3ull;
}

// One thread's life: three instances in turn, each configured for a format and a rate of its
// own, loaded with a block, enabled, fed a tone across device, mode and parameter changes, then
// released. Returns a hash of all output and a count of failed checks.
struct Result {
    uint64_t hash = 0xcbf29ce484222325ull;
    int failures = 0;
};

Result run_script(int id) {
    static constexpr uint32_t kFormats[] = {AUDIO_FORMAT_PCM_FLOAT, AUDIO_FORMAT_PCM_16_BIT,
                                            AUDIO_FORMAT_PCM_32_BIT, AUDIO_FORMAT_PCM_8_24_BIT};
    Result res;
    auto check = [&](bool ok) { res.failures += ok ? 0 : 1; };
    for (int round = 0; round < 3; ++round) {
        const uint32_t format = kFormats[(id + round) % 4];
        const uint32_t rate = (id + round) % 2 ? 44100 : 48000;
        effect_handle_t h = nullptr;
        check(AELI.create_effect(&kUuid, id, round, &h) == 0);
        if (h == nullptr) continue;
        check(configure(h, format, rate) == 0);
        check(send_block(h, id + round) == 0);
        uint32_t device = AUDIO_DEVICE_OUT_BLUETOOTH_A2DP;
        check(status_cmd(h, EFFECT_CMD_SET_DEVICE, 4, &device) == 0);
        check(status_cmd(h, EFFECT_CMD_ENABLE, 0, nullptr) == 0);

        const size_t bytes = format == AUDIO_FORMAT_PCM_16_BIT ? 2 : 4;
        std::vector<uint8_t> in(2 * kCall * bytes), out(in.size());
        for (int call = 0; call < 24; ++call) {
            if (call == 8) check(send_block(h, id + round + 1) == 0);
            if (call == 12) {
                uint32_t mode = AUDIO_MODE_IN_CALL;
                check(status_cmd(h, EFFECT_CMD_SET_AUDIO_MODE, 4, &mode) == 0);
            }
            if (call == 16) {
                uint32_t mode = AUDIO_MODE_NORMAL;
                check(status_cmd(h, EFFECT_CMD_SET_AUDIO_MODE, 4, &mode) == 0);
            }
            for (size_t i = 0; i < 2 * kCall; ++i) {
                const double t = static_cast<double>(call * kCall + i / 2) / rate;
                const double v = 0.4 * std::sin(2 * M_PI * (200.0 + 150.0 * id) * t + (i % 2));
                if (format == AUDIO_FORMAT_PCM_FLOAT) {
                    const float f = static_cast<float>(v);
                    std::memcpy(&in[4 * i], &f, 4);
                } else if (format == AUDIO_FORMAT_PCM_16_BIT) {
                    const auto s = static_cast<int16_t>(v * 32767);
                    std::memcpy(&in[2 * i], &s, 2);
                } else {
                    const auto s = static_cast<int32_t>(v * (format == AUDIO_FORMAT_PCM_32_BIT ? 2147483647.0 : 8388607.0));
                    std::memcpy(&in[4 * i], &s, 4);
                }
            }
            audio_buffer_t ib{kCall, {in.data()}}, ob{kCall, {out.data()}};
            check((*h)->process(h, &ib, &ob) == 0);
            mix(res.hash, out.data(), out.size());
        }
        uint32_t query[4] = {0, 4, 1024, 201};
        std::vector<char> reply(1040);
        uint32_t reply_size = 1040;
        check((*h)->command(h, EFFECT_CMD_GET_PARAM, 16, query, &reply_size, reply.data()) == 0);
        check(status_cmd(h, EFFECT_CMD_DISABLE, 0, nullptr) == 0);
        check(AELI.release_effect(h) == 0);
    }
    return res;
}

TEST(Threads, InstancesOnSeveralThreadsGetWhatTheyGetAlone) {
    std::vector<Result> alone(kThreads), together(kThreads);
    for (int id = 0; id < kThreads; ++id) alone[id] = run_script(id);

    std::atomic<bool> stop{false};
    std::atomic<int> bad_descriptors{0};
    // Meanwhile another thread keeps reading the constant descriptor the instances share.
    std::thread reader([&] {
        effect_descriptor_t first{};
        EffectQueryEffect(0, &first);
        while (!stop.load()) {
            effect_descriptor_t d{};
            if (AELI.get_descriptor(&kUuid, &d) != 0 || std::memcmp(&d, &first, sizeof d) != 0) ++bad_descriptors;
        }
    });
    std::vector<std::thread> workers;
    for (int id = 0; id < kThreads; ++id) workers.emplace_back([&, id] { together[id] = run_script(id); });
    for (auto &w : workers) w.join();
    stop = true;
    reader.join();

    EXPECT_EQ(bad_descriptors.load(), 0);
    for (int id = 0; id < kThreads; ++id) {
        EXPECT_EQ(alone[id].failures, 0) << "thread " << id;
        EXPECT_EQ(together[id].failures, 0) << "thread " << id;
        EXPECT_EQ(together[id].hash, alone[id].hash) << "thread " << id << " heard something else";
    }
}

// The framework's split: commands from a control thread, buffers from an audio thread, never at
// the same time (the framework holds its effect lock around each call). The instance must not
// care which thread calls it.
TEST(Threads, CommandAndAudioThreadsTakeTurnsOnOneInstance) {
    effect_handle_t h = nullptr;
    ASSERT_EQ(AELI.create_effect(&kUuid, 0, 0, &h), 0);
    ASSERT_EQ(configure(h, AUDIO_FORMAT_PCM_FLOAT, 48000), 0);
    std::mutex effect_lock;
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};

    std::thread audio([&] {
        std::vector<float> in(2 * kCall), out(2 * kCall);
        for (int call = 0; !stop.load() || call < 50; ++call) {
            for (size_t i = 0; i < in.size(); ++i) in[i] = 0.5f * std::sin(static_cast<float>(call * kCall + i / 2) * 0.03f);
            audio_buffer_t ib{kCall, {in.data()}}, ob{kCall, {out.data()}};
            std::lock_guard<std::mutex> hold(effect_lock);
            const int32_t r = (*h)->process(h, &ib, &ob);
            if (r != 0 && r != -61) ++bad;
            for (float v : out) {
                if (!std::isfinite(v) || std::fabs(v) > 1.0f) ++bad;
            }
        }
    });
    for (int step = 0; step < 40; ++step) {
        std::lock_guard<std::mutex> hold(effect_lock);
        switch (step % 5) {
            case 0: if (send_block(h, step) != 0) ++bad; break;
            case 1: {
                uint32_t d = step % 2 ? AUDIO_DEVICE_OUT_WIRED_HEADSET : AUDIO_DEVICE_OUT_USB_HEADSET;
                if (status_cmd(h, EFFECT_CMD_SET_DEVICE, 4, &d) != 0) ++bad;
                break;
            }
            case 2: {  // -38: already in the state asked for
                const int32_t r = status_cmd(h, step % 4 ? EFFECT_CMD_ENABLE : EFFECT_CMD_DISABLE, 0, nullptr);
                if (r != 0 && r != -38) ++bad;
                break;
            }
            case 3: {
                uint32_t bypass[5] = {0, 4, 4, 900, static_cast<uint32_t>(step % 2)};
                if (status_cmd(h, EFFECT_CMD_SET_PARAM, sizeof bypass, bypass) != 0) ++bad;
                break;
            }
            default: if (configure(h, AUDIO_FORMAT_PCM_FLOAT, step % 3 ? 48000 : 44100) != 0) ++bad; break;
        }
    }
    stop = true;
    audio.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(AELI.release_effect(h), 0);
}

}  // namespace
