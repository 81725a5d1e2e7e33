// Library entry and command handler: the descriptor from every source, creation and release;
// checks and results of the command table, the output switch, the private parameters and the
// status text, with commands filled the way real callers fill them and cut shorter than what
// they claim to carry. (Loading the library the way Android's effect factory does, with its
// checks, is what the tool tests do.)
#include <memory>

#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

namespace {

using sorn_test::Effect;
using sorn_test::has;
using sorn_test::kSornUuid;
const std::string kTag = "_O_sorn_hp_sfx";

// Every test gets an instance and the log lines from its creation on.
struct EffectCommand : testing::Test {
    sorn_test::LogCapture log;
    Effect fx;
};
using EffectEntry = EffectCommand;

TEST_F(EffectEntry, EverySourceGivesTheSameDescriptorByteForByte) {
    // Insert, last, device and audio mode indication; 1 KB; names zero-padded.
    const effect_descriptor_t want = {kSornUuid, kSornUuid, 0x00020000u, 0x00040210u, 0, 1,
                                      "SORN HP For Ambrel", "Release 20260104_1.23"};
    effect_descriptor_t d[3];
    std::memset(d, 0xAA, sizeof d);  // every byte must be written, padding of the names too
    for (int32_t r : {AELI.get_descriptor(&kSornUuid, &d[0]), EffectQueryEffect(0, &d[1]), (*fx.h)->get_descriptor(fx.h, &d[2])})
        EXPECT_EQ(r, 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(std::memcmp(&d[i], &want, sizeof want), 0) << "source " << i;
    uint32_t count = 0;
    EXPECT_EQ(EffectQueryNumberEffects(&count), 0);
    EXPECT_EQ(count, 1u);
}

TEST_F(EffectEntry, CreateAndReleaseResults) {
    log.clear();
    effect_uuid_t other = kSornUuid;
    other.node[5] ^= 1;
    effect_descriptor_t d;
    effect_handle_t h = nullptr;
    EXPECT_EQ(EffectCreate(&other, 0, 0, &h), -2);
    EXPECT_EQ(h, nullptr);
    for (int i = 0; int32_t r : {EffectCreate(nullptr, 0, 0, &h), EffectCreate(&kSornUuid, 0, 0, nullptr),
                                 EffectGetDescriptor(&other, &d), EffectQueryEffect(1, &d), EffectQueryEffect(0, nullptr),
                                 EffectRelease(nullptr)})
        EXPECT_EQ(r, -22) << "call " << i++;
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(EffectGetDescriptor(nullptr, &d), -22);
    EXPECT_EQ(log.count("EffectGetDescriptor() called with NULL pointer", ANDROID_LOG_WARN, kTag), 1);

    ASSERT_EQ(EffectCreate(&kSornUuid, 7, 3, &h), 0);
    EXPECT_EQ(log.count("EffectCreate: " + sorn_test::ptr(h) + ", sid 7, version Release 20260104_1.23",
                        ANDROID_LOG_DEBUG, kTag), 1);
    EXPECT_EQ((*h)->process_reverse, nullptr);
    EXPECT_EQ(EffectRelease(h), 0) << "never configured: nothing but the context to free";
}

TEST_F(EffectCommand, LifecycleAndBufferChecks) {
    int32_t reply = 0x5A5A5A5A;
    uint32_t size = 8, zero = 0, word[2] = {1u << 24, 1u << 24};
    effect_config_t c = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT);
    // A reply other than 4 bytes, a wrong size, no reply, no instance.
    auto no_reply = [&](uint32_t code, uint32_t size, void *data) { return fx.cmd(code, size, data, nullptr, nullptr); };
    for (int i = 0; int32_t r : {fx.cmd(EFFECT_CMD_ENABLE, 0, nullptr, &size, &reply), fx.status_cmd(EFFECT_CMD_SET_CONFIG, 111, &c),
                                 no_reply(EFFECT_CMD_SET_CONFIG, sizeof c, &c), no_reply(EFFECT_CMD_SET_PARAM, 20, word),
                                 no_reply(EFFECT_CMD_GET_PARAM, 16, word),
                                 (*fx.h)->command(nullptr, EFFECT_CMD_INIT, 0, nullptr, nullptr, nullptr)})
        EXPECT_EQ(r, -22) << "call " << i++;
    const std::pair<uint32_t, int32_t> steps[] = {{EFFECT_CMD_DISABLE, -38}, {EFFECT_CMD_ENABLE, 0}, {EFFECT_CMD_ENABLE, -38},
                                                  {EFFECT_CMD_DISABLE, 0}, {EFFECT_CMD_DISABLE, -38}};
    for (const auto &[code, result] : steps) EXPECT_EQ(fx.status_cmd(code), result) << code;
    // The HIDL HAL sends these with null reply pointers, its generic path with reply size 0.
    for (uint32_t code : {EFFECT_CMD_INIT, EFFECT_CMD_RESET, EFFECT_CMD_SET_VOLUME,
                          EFFECT_CMD_SET_INPUT_DEVICE, EFFECT_CMD_DUMP, EFFECT_CMD_SET_DEVICE,
                          EFFECT_CMD_SET_AUDIO_MODE, EFFECT_CMD_FIRST_PROPRIETARY}) {
        EXPECT_EQ(no_reply(code, 4, word), 0) << code;
        EXPECT_EQ(fx.cmd(code, 4, word, &zero, &reply), 0) << code;
    }
    EXPECT_EQ(reply, 0x5A5A5A5A);
    // Applied all the same; a word that names no audio mode is kept as AUDIO_MODE_INVALID.
    EXPECT_TRUE(has(fx.status_text(), "mode: -2  dev: 0x1000000"));
}

TEST_F(EffectCommand, ConfigurationChecks) {
    // Channels, access modes, and formats: in and out must match, and 8-bit and packed 24-bit
    // have no output conversion, so the framework must fall back.
    const struct { uint32_t channels; uint8_t in_access, out_access, in_format, out_format; const char *what; } refusals[] = {
        {AUDIO_CHANNEL_OUT_MONO, 1, 0, 5, 5, "channels"}, {AUDIO_CHANNEL_OUT_STEREO, 1, 1, 5, 5, "accessMode"},
        {AUDIO_CHANNEL_OUT_STEREO, 0, 0, 5, 5, "accessMode"}, {AUDIO_CHANNEL_OUT_STEREO, 1, 0, 5, 1, "format"},
        {AUDIO_CHANNEL_OUT_STEREO, 1, 0, 2, 2, "format"}, {AUDIO_CHANNEL_OUT_STEREO, 1, 0, 6, 6, "format"}};
    for (const auto &r : refusals) {
        effect_config_t c = sorn_test::make_config(r.in_format, 48000, r.out_access);
        c.inputCfg.channels = r.channels, c.inputCfg.accessMode = r.in_access, c.outputCfg.format = r.out_format;
        log.clear();
        EXPECT_EQ(fx.configure(c), -22) << r.what;
        EXPECT_EQ(log.count("configure: " + std::string(r.what) + " configure error", ANDROID_LOG_WARN, kTag), 1) << r.what;
    }
    int16_t buf[4] = {1, 2, 3, 4};
    EXPECT_EQ(fx.process(buf, buf + 2, 1), -22) << "a refused configuration stops processing";

    for (uint32_t f : {1u, 3u, 4u, 5u}) EXPECT_EQ(fx.configure(f, 48000, 2), 0) << f;
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_init"), 1) << "same rate, same wrapper";
    effect_config_t rates = sorn_test::make_config(AUDIO_FORMAT_PCM_16_BIT, 44100);
    rates.outputCfg.samplingRate = 48000;
    const sorn_hp_params_t flat{};
    ASSERT_EQ(fx.set_param(100, &flat, sizeof flat), 0);
    EXPECT_EQ(fx.configure(rates), 0);
    EXPECT_EQ(log.count("configure: samplingRate configure 44100", ANDROID_LOG_INFO, kTag), 1);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_init"), 2);
    EXPECT_TRUE(has(fx.status_text(), "check: 2")) << "the new wrapper got the stored block";
}

// Every event re-decides the output: only one supported device, the normal mode and bypass off.
// Re-sending the current device or mode changes nothing (no chain reset, no line for the mode).
TEST_F(EffectCommand, OutputSwitchFollowsEveryEvent) {
    fx.make_active(AUDIO_FORMAT_PCM_32_BIT, 0, {});
    log.clear();
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_WIRED_HEADPHONE), 0);
    EXPECT_EQ(fx.set_u32(EFFECT_CMD_SET_DEVICE, 0), 0);
    EXPECT_EQ(log.count("EFFECT_CMD_SET_DEVICE invalid device", ANDROID_LOG_WARN, kTag), 2);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_reset"), 0);
    const struct { uint32_t code, value; bool active; const char *what; } events[] = {
        {EFFECT_CMD_SET_DEVICE, 0xC, false, "two devices at once"},
        {EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_BLE_HEADSET, true, "BLE headset"},
        {EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_IN_COMMUNICATION, false, "call mode"},
        {EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_IN_COMMUNICATION, false, "same mode"},
        {EFFECT_CMD_SET_AUDIO_MODE, 0x100, false, "no mode at all"},
        {EFFECT_CMD_SET_AUDIO_MODE, AUDIO_MODE_NORMAL, true, "normal mode"},
        {900, 0x10000, true, "a 16-bit bypass value reads 0"}, {900, 1, false, "bypass"},
        {900, 0, true, "bypass off"}, {EFFECT_CMD_DISABLE, 0, false, "disabled"}};
    for (const auto &e : events) {
        log.clear();
        const int32_t r = e.code == 900 ? fx.set_bypass(e.value, e.value == 0x10000 ? 2 : 4)
                          : e.code == EFFECT_CMD_DISABLE ? fx.status_cmd(e.code) : fx.set_u32(e.code, e.value);
        EXPECT_EQ(r, 0) << e.what;
        EXPECT_EQ(log.lines().empty(), std::string(e.what) == "same mode") << e.what;
        EXPECT_EQ(log.count("EFFECT_CMD_SET_DEVICE: 0x20000000 1", ANDROID_LOG_DEBUG, kTag),
                  e.value == AUDIO_DEVICE_OUT_BLE_HEADSET ? 1 : 0);
        EXPECT_EQ(fx.active(), e.active) << e.what;
    }
}

TEST_F(EffectCommand, ParameterBlockAndStatusText) {
    EXPECT_EQ(fx.status_text(),
              "en: 0  bypass: 0  pmi: 0  mode: 0  dev: 0x0  state: 0  mute: 0\n"
              "lc: 0  ss: 0  ea: 0  hp: 0  check: 0  ver: Release 20260104_1.23");
    ASSERT_EQ(fx.configure(AUDIO_FORMAT_PCM_FLOAT), 0);
    // Commands are read only up to cmdSize; each buffer here is exactly cmdSize bytes, so the
    // sanitizer builds also see any byte read past it. {words, cmdSize, result}: a header without
    // the id; a whole 16-bit bypass word; a 4-byte one with 2 bytes present; a block of 291 bytes;
    // one claiming 292 but bringing 84.
    const struct { std::vector<uint32_t> words; size_t bytes; int32_t result; } cases[] = {
        {{0, 4, 4}, 12, -22}, {{0, 4, 2, 900, 0}, 18, 0}, {{0, 4, 4, 900, 1}, 18, -22},
        {{0, 4, 291, 100}, 16 + 291, -22}, {{0, 4, 292, 100}, 100, -22}};
    for (const auto &c : cases) {
        auto p = std::make_unique<uint8_t[]>(c.bytes);
        std::memcpy(p.get(), c.words.data(), std::min(c.bytes, c.words.size() * 4));
        EXPECT_EQ(fx.status_cmd(EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(c.bytes), p.get()), c.result) << c.bytes;
    }
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_set_parameters"), 0) << "nothing applied";
    EXPECT_TRUE(has(fx.status_text(), "bypass: 0  pmi: 0")) << "nothing stored";
    std::vector<char> block(400, 0);
    EXPECT_EQ(fx.set_param(100, block.data(), 292), 0);
    EXPECT_EQ(fx.set_param(100, block.data(), 400), 0) << "longer: its first 292 bytes count";
    EXPECT_EQ(log.count("params loaded, size 292", ANDROID_LOG_DEBUG, kTag), 1);
    EXPECT_EQ(log.count_containing("params loaded"), 1) << "one copy, allocated once";
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_set_parameters"), 2);
    EXPECT_EQ(fx.set_param(555, block.data(), 4), 0) << "unknown ids are accepted";

    uint32_t query[5] = {0, 4, 1024, 201, 0}, header[3] = {0, 4, 4}, size = 19;  // header: cut before the id
    char reply[64];
    std::memset(reply, 0x5A, sizeof reply);
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 16, query, &size, reply), -22);
    size = sizeof reply;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 12, header, &size, reply), -22);
    EXPECT_EQ(std::string(reply, sizeof reply), std::string(sizeof reply, 0x5A)) << "refusals write nothing";
    size = 40;  // the text is cut to fit, terminated, and nothing beyond is written
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 16, query, &size, reply), 0);
    EXPECT_EQ(size, 40u);
    EXPECT_EQ(std::string(reply + 16), "en: 0  bypass: 0  pmi: ");
    EXPECT_EQ(reply[40], 0x5A);
    query[1] = 8;  // psize other than 4: -22 in the reply's status word, no value
    size = sizeof reply;
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 20, query, &size, reply), 0);
    int32_t status;
    std::memcpy(&status, reply, 4);
    EXPECT_EQ(status, -22);
    EXPECT_EQ(size, 16u);
}

}  // namespace
