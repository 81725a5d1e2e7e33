// Command handler: the command table's checks and results, the output switch, the private
// parameters and the status text, with commands filled the way real callers fill them.
#include <android/log.h>

#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

using sorn_test::Effect;
using sorn_test::kHeadphone;
using sorn_test::LogCapture;

namespace {

constexpr int W = ANDROID_LOG_WARN;
const std::string kTag = "_O_sorn_hp_sfx";

bool is_active(Effect &fx) {
    return fx.status_text().find("state: 1  mute") != std::string::npos;
}

TEST(EffectCommand, LifecycleAndReplyChecks) {
    Effect fx;
    int32_t reply = 7;
    uint32_t size8 = 8;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_ENABLE, 0, nullptr, &size8, &reply), -22);
    EXPECT_EQ(fx.disable(), -38) << "disable before any enable";
    EXPECT_EQ(fx.enable(), 0) << "state stayed 1 after the refused enable";
    EXPECT_EQ(fx.enable(), -38);
    EXPECT_EQ(fx.disable(), 0);
    EXPECT_EQ(fx.disable(), -38);

    effect_config_t c = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT);
    EXPECT_EQ(fx.status_cmd(EFFECT_CMD_SET_CONFIG, 111, &c), -22);
    EXPECT_EQ(fx.status_cmd(EFFECT_CMD_SET_CONFIG, sizeof c, nullptr), -22);
    uint32_t size4 = 4;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_CONFIG, sizeof c, &c, &size4, nullptr), -22);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_CONFIG, sizeof c, &c, nullptr, &reply), -22);
    EXPECT_EQ(fx.configure(c), 0);
    EXPECT_EQ(fx.status_cmd(EFFECT_CMD_INIT), 0);
    EXPECT_EQ((*fx.h)->command(nullptr, EFFECT_CMD_INIT, 0, nullptr, nullptr, nullptr), -22);
}

TEST(EffectCommand, ConfigurationRefusalsReachTheReplyWord) {
    LogCapture log;
    Effect fx;
    effect_config_t mono = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT);
    mono.inputCfg.channels = AUDIO_CHANNEL_OUT_MONO;
    EXPECT_EQ(fx.configure(mono), -22);
    EXPECT_EQ(log.count("configure: channels configure error", W, kTag), 1);

    effect_config_t read_out = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT);
    read_out.outputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
    EXPECT_EQ(fx.configure(read_out), -22);
    effect_config_t write_in = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT);
    write_in.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_WRITE;
    EXPECT_EQ(fx.configure(write_in), -22);
    EXPECT_EQ(log.count("configure: accessMode configure error", W, kTag), 2);

    effect_config_t mixed = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT);
    mixed.outputCfg.format = AUDIO_FORMAT_PCM_16_BIT;
    EXPECT_EQ(fx.configure(mixed), -22);
    // No output conversion exists for these: refused so the framework falls back.
    const uint32_t unwritable[] = {AUDIO_FORMAT_PCM_8_BIT, AUDIO_FORMAT_PCM_24_BIT_PACKED, 7};
    for (uint32_t f : unwritable)
        EXPECT_EQ(fx.configure(f), -22) << f;
    EXPECT_EQ(log.count("configure: format configure error", W, kTag), 4);

    float buf[4] = {};
    EXPECT_EQ(fx.process(buf, buf, 2), -22) << "a refused configuration stops processing";
    for (uint32_t f : {AUDIO_FORMAT_PCM_16_BIT, AUDIO_FORMAT_PCM_32_BIT,
                       AUDIO_FORMAT_PCM_8_24_BIT, AUDIO_FORMAT_PCM_FLOAT}) {
        EXPECT_EQ(fx.configure(f, 48000, EFFECT_BUFFER_ACCESS_ACCUMULATE), 0) << f;
    }
    EXPECT_EQ(fx.process(buf, buf, 2), -61);

    effect_config_t rates = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT, 44100);
    rates.outputCfg.samplingRate = 48000;
    log.clear();
    EXPECT_EQ(fx.configure(rates), 0);
    EXPECT_EQ(log.count("configure: samplingRate configure 44100", ANDROID_LOG_INFO, kTag), 1);
}

TEST(EffectCommand, WrapperIsRemadeOnlyForANewRateAndGetsTheStoredBlock) {
    LogCapture log;
    Effect fx;
    ASSERT_EQ(fx.load_params(), 0) << "a block before any configuration is kept";
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_16_BIT), 0);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_init"), 1);
    EXPECT_NE(fx.status_text().find("check: 2"), std::string::npos) << "wrapper got the block";
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_16_BIT, 44100), 0);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_init"), 2);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_deinit"), 1);
    EXPECT_NE(fx.status_text().find("check: 2"), std::string::npos);
}

TEST(EffectCommand, OutputSwitchFollowsDeviceModeBypassAndEnable) {
    LogCapture log;
    Effect fx;
    fx.make_ready();
    ASSERT_EQ(fx.enable(), 0);
    EXPECT_TRUE(is_active(fx));
    EXPECT_EQ(log.count_containing("EFFECT_CMD_ENABLE: "), 1);

    log.clear();
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, kHeadphone), 0);
    EXPECT_EQ(log.count("EFFECT_CMD_SET_DEVICE invalid device", W, kTag), 1);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_reset"), 0) << "same device: no reset";
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, 0), 0);
    EXPECT_EQ(log.count("EFFECT_CMD_SET_DEVICE invalid device", W, kTag), 2);
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, 0xC), 0) << "two devices at once";
    EXPECT_FALSE(is_active(fx));
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_BLE_HEADSET), 0);
    EXPECT_TRUE(is_active(fx));
    EXPECT_EQ(log.count("EFFECT_CMD_SET_DEVICE: 0x20000000 1", ANDROID_LOG_DEBUG, kTag), 1);

    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_IN_COMMUNICATION), 0);
    EXPECT_FALSE(is_active(fx));
    log.clear();
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_IN_COMMUNICATION), 0);
    EXPECT_EQ(log.lines().size(), 0u) << "same mode: nothing at all";
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_NORMAL), 0);
    EXPECT_TRUE(is_active(fx));

    const uint32_t on_in_high_half = 0x10000;
    EXPECT_EQ(fx.set_param(900, &on_in_high_half, 2), 0);
    EXPECT_NE(fx.status_text().find("bypass: 0"), std::string::npos) << "16-bit value reads 0";
    EXPECT_EQ(fx.set_param(900, &on_in_high_half, 4), 0);
    EXPECT_NE(fx.status_text().find("bypass: 1"), std::string::npos);
    EXPECT_FALSE(is_active(fx));
    const uint32_t off = 0;
    EXPECT_EQ(fx.set_param(900, &off, 4), 0);
    EXPECT_TRUE(is_active(fx));
    EXPECT_EQ(fx.disable(), 0);
    EXPECT_FALSE(is_active(fx));
}

TEST(EffectCommand, ParameterBlockLoadedLastLeavesOutputOff) {
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    ASSERT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, kHeadphone), 0);
    ASSERT_EQ(fx.enable(), 0);
    ASSERT_EQ(fx.load_params(), 0);
    EXPECT_FALSE(is_active(fx));
}

TEST(EffectCommand, ParameterBlockIsCheckedAndStoredOnce) {
    LogCapture log;
    Effect fx;
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    std::vector<char> big(400, 0);
    EXPECT_EQ(fx.set_param(100, big.data(), 291), -22);
    EXPECT_EQ(log.count_containing("params loaded"), 0);
    EXPECT_NE(fx.status_text().find("pmi: 0"), std::string::npos) << "nothing stored";
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_set_parameters"), 0) << "nothing applied";

    EXPECT_EQ(fx.load_params(), 0);
    EXPECT_EQ(fx.set_param(100, big.data(), 400), 0) << "a longer block: its first 292 bytes";
    EXPECT_EQ(log.count("params loaded, size 292", ANDROID_LOG_DEBUG, kTag), 1);
    EXPECT_EQ(log.count_containing("params loaded"), 1);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_set_parameters"), 2);
    EXPECT_NE(fx.status_text().find("pmi: 1"), std::string::npos);
    EXPECT_EQ(fx.set_param(555, big.data(), 4), 0) << "unknown ids are accepted silently";
}

TEST(EffectCommand, StatusTextAndGetParamChecks) {
    Effect fx;
    EXPECT_EQ(fx.status_text(),
              "en: 0  bypass: 0  pmi: 0  mode: 0  dev: 0x0  state: 0  mute: 0\n"
              "lc: 0  ss: 0  ea: 0  hp: 0  check: 0  ver: Release 20260104_1.23");

    uint32_t query[4] = {0, 4, 1024, 201};
    char reply[64];
    uint32_t size = 19;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 16, query, &size, reply), -22);
    // A short reply buffer gets as much text as fits, terminated, and nothing beyond.
    std::memset(reply, 0x5A, sizeof reply);
    size = 40;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 16, query, &size, reply), 0);
    EXPECT_EQ(size, 40u);
    EXPECT_EQ(std::string(reply + 16), "en: 0  bypass: 0  pmi: ");
    for (size_t i = 40; i < sizeof reply; ++i) ASSERT_EQ(reply[i], 0x5A) << i;

    uint32_t wide[5] = {0, 8, 4, 201, 0};
    size = sizeof reply;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 20, wide, &size, reply), 0);
    int32_t header[4];
    std::memcpy(header, reply, 16);
    EXPECT_EQ(header[0], -22);
    EXPECT_EQ(size, 16u);
    uint32_t other[4] = {0, 4, 4, 77};
    size = sizeof reply;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 16, other, &size, reply), 0);
    std::memcpy(header, reply, 16);
    EXPECT_EQ(header[0], 0);
    EXPECT_EQ(header[3], 77);
    EXPECT_EQ(size, 16u);
}

// The HIDL HAL sends these with null reply pointers, its generic path with a reply size of 0.
TEST(EffectCommand, CommandsWithoutReplyBuffers) {
    Effect fx;
    uint32_t device = kHeadphone, mode = AUDIO_MODE_RINGTONE, volume[2] = {1u << 24, 1u << 24};
    for (uint32_t code : {EFFECT_CMD_INIT, EFFECT_CMD_RESET, EFFECT_CMD_SET_VOLUME,
                          EFFECT_CMD_SET_INPUT_DEVICE, EFFECT_CMD_SET_AUDIO_SOURCE,
                          EFFECT_CMD_DUMP, EFFECT_CMD_FIRST_PROPRIETARY}) {
        EXPECT_EQ(fx.cmd(code, 8, volume, nullptr, nullptr), 0) << code;
    }
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_DEVICE, 4, &device, nullptr, nullptr), 0);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_AUDIO_MODE, 4, &mode, nullptr, nullptr), 0);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_ENABLE, 0, nullptr, nullptr, nullptr), -22);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_PARAM, 20, volume, nullptr, nullptr), -22);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 16, volume, nullptr, nullptr), -22);

    int32_t untouched = 0x5A5A5A5A;
    uint32_t zero = 0;
    for (uint32_t code : {EFFECT_CMD_INIT, EFFECT_CMD_SET_VOLUME})
        EXPECT_EQ(fx.cmd(code, 8, volume, &zero, &untouched), 0);
    mode = AUDIO_MODE_NORMAL;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_SET_AUDIO_MODE, 4, &mode, &zero, &untouched), 0);
    EXPECT_EQ(untouched, 0x5A5A5A5A);
    EXPECT_EQ(zero, 0u);
    EXPECT_NE(fx.status_text().find("mode: 0  dev: 0x8"), std::string::npos);
}

}  // namespace
