// Drives one effect instance as Android's framework does: created through a library record
// (AELI) and reached only through the interface record that its handle points to.
#ifndef SORN_TESTS_TEST_EFFECT_HARNESS_H
#define SORN_TESTS_TEST_EFFECT_HARNESS_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "effect/sorn_hp_entry.h"
#include "wrapper/sorn_hp_params.h"

namespace sorn_test {

inline constexpr effect_uuid_t kSornUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                            {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};

inline effect_config_t make_config(uint32_t format, uint32_t rate = 48000,
                                   uint8_t out_access = EFFECT_BUFFER_ACCESS_WRITE) {
    const buffer_config_t in = {.buffer = {}, .samplingRate = rate, .channels = AUDIO_CHANNEL_OUT_STEREO, .bufferProvider = {},
                                .format = static_cast<uint8_t>(format), .accessMode = EFFECT_BUFFER_ACCESS_READ, .mask = 0};
    effect_config_t c = {in, in};
    c.outputCfg.accessMode = out_access;
    return c;
}

// A steep tuning (alternating -6 / +12 dB lc points, +7 dB hp, surround on); `variant` shifts it.
inline sorn_hp_params_t steep_tuning(int variant = 0) {
    sorn_hp_params_t p{};
    p.lc = p.hp = p.ss = 1;
    for (int i = 0; i < SORN_HP_LC_POINTS; ++i) {
        p.lc_freq[i] = 40 + 1800 * i + 10 * variant;
        p.lc_gain[i] = (i + variant) % 2 ? 12 : -6;
        p.hp_freq[i] = 60 + 1700 * i;
        p.hp_gain[i] = 7 - variant % 3;
    }
    return p;
}

inline std::string ptr(const void *p) {
    char s[32];
    return std::string(s, std::snprintf(s, sizeof s, "%p", p));
}

inline bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

struct Effect {
    const audio_effect_library_t *lib;
    effect_handle_t h = nullptr;
    explicit Effect(const audio_effect_library_t *l = &AELI, const effect_uuid_t *uuid = &kSornUuid) : lib(l) {
        EXPECT_EQ(lib->create_effect(uuid, 1, 1, &h), 0);
    }
    ~Effect() { release(); }
    int32_t release() { return h != nullptr ? lib->release_effect(std::exchange(h, nullptr)) : 0; }

    int32_t cmd(uint32_t code, uint32_t size, void *data, uint32_t *reply_size, void *reply) {
        return (*h)->command(h, code, size, data, reply_size, reply);
    }
    // With a 4-byte reply: the reply word, or the result when that is not 0.
    int32_t status_cmd(uint32_t code, uint32_t size = 0, void *data = nullptr) {
        int32_t reply = 12345;
        uint32_t reply_size = 4;
        const int32_t r = cmd(code, size, data, &reply_size, &reply);
        return r != 0 ? r : reply;
    }
    int32_t configure(effect_config_t c) { return status_cmd(EFFECT_CMD_SET_CONFIG, sizeof c, &c); }
    int32_t configure(uint32_t format, uint32_t rate = 48000, uint8_t out_access = 0) {
        return configure(make_config(format, rate, out_access));
    }
    int32_t set_u32(uint32_t code, uint32_t value) { return status_cmd(code, 4, &value); }
    int32_t set_param(uint32_t id, const void *value, uint32_t vsize) {
        std::vector<uint32_t> p = {0, 4, vsize, id};
        p.resize(4 + (vsize + 3) / 4);
        std::memcpy(p.data() + 4, value, vsize);
        return status_cmd(EFFECT_CMD_SET_PARAM, 16 + vsize, p.data());
    }
    int32_t set_bypass(uint32_t value, uint32_t vsize = 4) { return set_param(900, &value, vsize); }
    std::string status_text() {
        uint32_t query[4] = {0, 4, 1024, 201}, reply_size = 1040;
        char reply[1040];
        EXPECT_EQ(cmd(EFFECT_CMD_GET_PARAM, 16, query, &reply_size, reply), 0);
        EXPECT_EQ(reply_size, 1040u);
        return reply + 16;
    }
    bool active() { return has(status_text(), "state: 1  mute"); }
    int32_t process(void *in, void *out, size_t frames) {
        audio_buffer_t ib{frames, {in}}, ob{frames, {out}};
        return (*h)->process(h, &ib, &ob);
    }
    // Configured, a parameter block loaded (flat by default), on headphones: enabling makes it
    // active, and make_active enables (with a steep tuning by default).
    void make_ready(uint32_t format = AUDIO_FORMAT_PCM_32_BIT, uint8_t out_access = 0,
                    const sorn_hp_params_t &params = {}) {
        ASSERT_EQ(configure(format, 48000, out_access), 0);
        ASSERT_EQ(set_param(100, &params, sizeof params), 0);
        ASSERT_EQ(set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_WIRED_HEADPHONE), 0);
    }
    void make_active(uint32_t format = AUDIO_FORMAT_PCM_32_BIT, uint8_t out_access = 0,
                     const sorn_hp_params_t &params = steep_tuning()) {
        make_ready(format, out_access, params);
        ASSERT_EQ(status_cmd(EFFECT_CMD_ENABLE), 0);
        ASSERT_TRUE(active()) << "the output must be processed";
    }
};

// Interleaved stereo 32-bit tone at about -12 dBFS, starting at frame `first`.
inline std::vector<int32_t> tone(size_t frames, size_t first = 0) {
    std::vector<int32_t> v(frames * 2);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = static_cast<int32_t>(5e8 * std::sin(2 * M_PI * (i % 2 ? 1000.0 : 440.0) *
                                                   (static_cast<double>(first + i / 2) / 48000.0)));
    return v;
}

}  // namespace sorn_test

#endif
