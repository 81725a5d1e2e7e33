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
    // Features this effect does not have, sent as the HAL sends them: a status word it does not
    // initialise (12, 18, 20), a configuration or config list to be filled (15, 16), reply size
    // 0 (17). -38 and nothing written, or the HAL would report the garbage as the answer.
    const struct { uint32_t code, cmd_size, reply_size; } unsupported[] = {
        {EFFECT_CMD_SET_CONFIG_REVERSE, sizeof c, 4}, {EFFECT_CMD_GET_CONFIG_REVERSE, 0, sizeof c},
        {EFFECT_CMD_GET_FEATURE_SUPPORTED_CONFIGS, 8, 8 + 4 * 8}, {EFFECT_CMD_GET_FEATURE_CONFIG, 4, 0},
        {EFFECT_CMD_SET_FEATURE_CONFIG, 12, 4}, {EFFECT_CMD_OFFLOAD, 8, 4}};
    for (const auto &u : unsupported) {
        std::vector<uint8_t> data(u.cmd_size), out(std::max(u.reply_size, 4u), 0xA5);
        uint32_t out_size = u.reply_size;
        EXPECT_EQ(fx.cmd(u.code, u.cmd_size, u.cmd_size != 0 ? data.data() : nullptr, &out_size, out.data()), -38) << u.code;
        EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 0xA5)) << u.code;
        EXPECT_EQ(out_size, u.reply_size) << u.code;
    }
    // Applied all the same; a word that names no audio mode is kept as AUDIO_MODE_INVALID.
    EXPECT_TRUE(has(fx.status_text(), "mode: -2  dev: 0x1000000"));
}

TEST_F(EffectCommand, ConfigurationChecks) {
    // The HAL reads the configuration with no command data and a reply of exactly one
    // effect_config_t, right after creation too: VTS sets back what it read and expects success.
    auto get_config = [&](effect_config_t *reply, uint32_t size = sizeof(effect_config_t)) {
        std::memset(reply, 0xA5, sizeof *reply);
        const int32_t r = fx.cmd(EFFECT_CMD_GET_CONFIG, 0, nullptr, &size, reply);
        EXPECT_EQ(size, r == 0 ? sizeof *reply : size);
        return r;
    };
    effect_config_t got, want, garbage;
    std::memset(&want, 0, sizeof want);  // 48 kHz stereo 32-bit, READ in, ACCUMULATE out, every mask bit
    for (buffer_config_t *b : {&want.inputCfg, &want.outputCfg})
        b->samplingRate = 48000, b->channels = AUDIO_CHANNEL_OUT_STEREO, b->format = AUDIO_FORMAT_PCM_32_BIT, b->mask = 0x1F;
    want.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ, want.outputCfg.accessMode = EFFECT_BUFFER_ACCESS_ACCUMULATE;
    std::memset(&garbage, 0xA5, sizeof garbage);
    for (uint32_t size : {0u, 4u, 111u, 113u}) {
        EXPECT_EQ(get_config(&got, size), -22) << size;
        EXPECT_EQ(std::memcmp(&got, &garbage, sizeof got), 0) << "a refusal writes nothing";
    }
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_CONFIG, 0, nullptr, nullptr, &got), -22);
    ASSERT_EQ(get_config(&got), 0);
    EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0) << "the default, every byte written";
    int32_t frame[2] = {1, 2};
    EXPECT_EQ(fx.process(frame, frame, 1), -22) << "the default does not make the instance configured";
    EXPECT_EQ(fx.configure(got), 0);
    EXPECT_EQ(fx.process(frame, frame, 1), -61);

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
    ASSERT_EQ(get_config(&got), 0);
    EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0) << "the last accepted configuration stays";

    for (uint32_t f : {1u, 3u, 4u, 5u}) EXPECT_EQ(fx.configure(f, 48000, 2), 0) << f;
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_init"), 0) << "same rate, same wrapper";
    effect_config_t rates = sorn_test::make_config(AUDIO_FORMAT_PCM_16_BIT, 44100);
    rates.outputCfg.samplingRate = 48000;
    const sorn_hp_params_t flat{};
    ASSERT_EQ(fx.set_param(100, &flat, sizeof flat), 0);
    EXPECT_EQ(fx.configure(rates), 0);
    EXPECT_EQ(log.count("configure: samplingRate configure 44100", ANDROID_LOG_INFO, kTag), 1);
    EXPECT_EQ(log.count_containing("sorn_hp_wrapper_init"), 1);
    EXPECT_TRUE(has(fx.status_text(), "check: 2")) << "the new wrapper got the stored block";
    ASSERT_EQ(get_config(&got), 0);
    EXPECT_TRUE(got.inputCfg.samplingRate == 44100 && got.outputCfg.samplingRate == 48000 &&
                got.inputCfg.format == AUDIO_FORMAT_PCM_16_BIT && got.outputCfg.accessMode == 0) << "stored whole";
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
    // one claiming 292 but bringing 84; a bypass and a block under two-word keys (psize 8, the
    // Java API's int-array form), whose values start at byte 20.
    const struct { std::vector<uint32_t> words; size_t bytes; int32_t result; } cases[] = {
        {{0, 4, 4}, 12, -22}, {{0, 4, 2, 900, 0}, 18, 0}, {{0, 4, 4, 900, 1}, 18, -22},
        {{0, 4, 291, 100}, 16 + 291, -22}, {{0, 4, 292, 100}, 100, -22},
        {{0, 8, 4, 900, 0, 1}, 24, -22}, {{0, 8, 292, 100, 0}, 20 + 292, -22}};
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

    // GET_PARAM, reply buffers filled with garbage: one too small for the header and a word
    // (-22); a command cut before the id (-22); psize 8, and an id other than 201 as an app's
    // getParameter(555, byte[4]) sends it: refused in the reply's status, the unknown id with
    // vsize 0, since a client copies vsize bytes of any reply whose status is 0.
    const struct { std::vector<uint32_t> words; uint32_t bytes, reply_size; int32_t result, status, vsize; } gets[] = {
        {{0, 4, 1024, 201}, 16, 19, -22, 0, 0}, {{0, 4, 4}, 12, 64, -22, 0, 0},
        {{0, 8, 1024, 201, 0}, 20, 64, 0, -22, 1024}, {{0, 4, 4, 555}, 16, 20, 0, -22, 0}};
    char reply[64];
    for (const auto &g : gets) {
        std::memset(reply, 0x5A, sizeof reply);
        uint32_t size = g.reply_size;
        EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, g.bytes, const_cast<uint32_t *>(g.words.data()), &size, reply), g.result) << g.words[3];
        int32_t header[3];
        std::memcpy(header, reply, sizeof header);
        if (g.result != 0) {
            EXPECT_EQ(std::string(reply, sizeof reply), std::string(sizeof reply, 0x5A)) << "refusals write nothing";
            continue;
        }
        EXPECT_EQ(header[0], g.status) << g.words[3];
        EXPECT_EQ(header[2], g.vsize) << g.words[3];
        EXPECT_EQ(size, 16u) << g.words[3];
        EXPECT_EQ(reply[16], 0x5A) << "no value";
    }
    uint32_t query[4] = {0, 4, 1024, 201}, size = 40;  // the text is cut to fit, terminated, and nothing beyond is written
    EXPECT_EQ(fx.cmd(EFFECT_CMD_GET_PARAM, 16, query, &size, reply), 0);
    EXPECT_EQ(size, 40u);
    EXPECT_EQ(std::string(reply + 16), "en: 0  bypass: 0  pmi: ");
    EXPECT_EQ(reply[40], 0x5A);
}

}  // namespace
