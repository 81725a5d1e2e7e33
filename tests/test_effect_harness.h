/*
 * Drives one effect instance the way Android's framework does: created through AELI and reached
 * only through the interface record that the handle points to.
 */
#ifndef SORN_TESTS_TEST_EFFECT_HARNESS_H
#define SORN_TESTS_TEST_EFFECT_HARNESS_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "effect/sorn_hp_entry.h"
#include "wrapper/sorn_hp_params.h"

namespace sorn_test {

inline constexpr effect_uuid_t kSornUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                            {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};
inline constexpr uint32_t kHeadphone = AUDIO_DEVICE_OUT_WIRED_HEADPHONE;

inline effect_config_t make_config(uint32_t format, uint32_t rate = 48000,
                                   uint8_t out_access = EFFECT_BUFFER_ACCESS_WRITE) {
    effect_config_t c{};
    c.inputCfg.samplingRate = c.outputCfg.samplingRate = rate;
    c.inputCfg.channels = c.outputCfg.channels = AUDIO_CHANNEL_OUT_STEREO;
    c.inputCfg.format = c.outputCfg.format = static_cast<uint8_t>(format);
    c.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
    c.outputCfg.accessMode = out_access;
    c.inputCfg.mask = c.outputCfg.mask = EFFECT_CONFIG_ALL;
    return c;
}

/* A valid parameter block: every group and the surround off (filters flat). */
inline sorn_hp_params_t flat_params() { return sorn_hp_params_t{}; }

struct Effect {
    effect_handle_t h = nullptr;

    Effect() { EXPECT_EQ(AELI.create_effect(&kSornUuid, 1, 1, &h), 0); }
    ~Effect() {
        if (h != nullptr) AELI.release_effect(h);
    }
    Effect(const Effect &) = delete;
    Effect &operator=(const Effect &) = delete;

    int32_t cmd(uint32_t code, uint32_t size, void *data, uint32_t *reply_size, void *reply) {
        return (*h)->command(h, code, size, data, reply_size, reply);
    }
    /* Sends a command with a 4-byte reply; returns the reply word, or the result if not 0. */
    int32_t status_cmd(uint32_t code, uint32_t size = 0, void *data = nullptr) {
        int32_t reply = 12345;
        uint32_t reply_size = sizeof reply;
        const int32_t r = cmd(code, size, data, &reply_size, &reply);
        return r != 0 ? r : reply;
    }
    int32_t configure(const effect_config_t &config) {
        effect_config_t c = config;
        return status_cmd(EFFECT_CMD_SET_CONFIG, sizeof c, &c);
    }
    int32_t configure(uint32_t format, uint32_t rate = 48000,
                      uint8_t out_access = EFFECT_BUFFER_ACCESS_WRITE) {
        return configure(make_config(format, rate, out_access));
    }
    int32_t enable() { return status_cmd(EFFECT_CMD_ENABLE); }
    int32_t disable() { return status_cmd(EFFECT_CMD_DISABLE); }
    int32_t set_u32(uint32_t code, uint32_t value) { return status_cmd(code, 4, &value); }
    int32_t set_param(uint32_t id, const void *value, uint32_t vsize) {
        std::vector<char> p(16 + vsize);
        const uint32_t header[4] = {0, 4, vsize, id};
        std::memcpy(p.data(), header, sizeof header);
        std::memcpy(p.data() + 16, value, vsize);
        return status_cmd(EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(p.size()), p.data());
    }
    int32_t load_params(const sorn_hp_params_t &params = flat_params()) {
        return set_param(100, &params, sizeof params);
    }
    /* Status text of parameter 201. */
    std::string status_text() {
        uint32_t query[4] = {0, 4, 1024, 201};
        std::vector<char> reply(1040);
        uint32_t reply_size = 1040;
        EXPECT_EQ(cmd(EFFECT_CMD_GET_PARAM, sizeof query, query, &reply_size, reply.data()), 0);
        EXPECT_EQ(reply_size, 1040u);
        return std::string(reply.data() + 16);
    }
    int32_t process(void *in, void *out, size_t frames) {
        audio_buffer_t ib{}, ob{};
        ib.frameCount = ob.frameCount = frames;
        ib.raw = in;
        ob.raw = out;
        return (*h)->process(h, &ib, &ob);
    }
    /* Configured (32-bit, 48 kHz), parameters loaded, on headphones: enable makes it active. */
    void make_ready(uint32_t format = AUDIO_FORMAT_PCM_32_BIT, uint32_t rate = 48000) {
        ASSERT_EQ(configure(format, rate), 0);
        ASSERT_EQ(load_params(), 0);
        ASSERT_EQ(set_u32(EFFECT_CMD_SET_DEVICE, kHeadphone), 0);
    }
};

/* Interleaved stereo 32-bit test tone: two sines at about -12 dBFS, frames from `first`. */
inline std::vector<int32_t> tone(size_t frames, size_t first = 0) {
    std::vector<int32_t> v(frames * 2);
    for (size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(first + i) / 48000.0;
        v[2 * i] = static_cast<int32_t>(5.0e8 * std::sin(2 * M_PI * 440.0 * t));
        v[2 * i + 1] = static_cast<int32_t>(5.0e8 * std::sin(2 * M_PI * 1000.0 * t + 0.5));
    }
    return v;
}

}  // namespace sorn_test

#endif
