// Library entry: the descriptor from every source, creation and release, and loading the
// library the way Android's effect factory does.
#include <dlfcn.h>

#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

namespace {

using sorn_test::Effect;
using sorn_test::kSornUuid;

TEST(EffectEntry, EverySourceGivesTheSameDescriptor) {
    effect_descriptor_t d[3];
    std::memset(d, 0xAA, sizeof d);
    Effect fx;
    ASSERT_EQ(AELI.get_descriptor(&kSornUuid, &d[0]), 0);
    ASSERT_EQ(EffectQueryEffect(0, &d[1]), 0);
    ASSERT_EQ((*fx.h)->get_descriptor(fx.h, &d[2]), 0);
    EXPECT_EQ(std::memcmp(&d[0], &d[1], sizeof d[0]), 0);
    EXPECT_EQ(std::memcmp(&d[0], &d[2], sizeof d[0]), 0);
    EXPECT_EQ(std::memcmp(&d[0].type, &kSornUuid, 16), 0);
    EXPECT_EQ(std::memcmp(&d[0].uuid, &kSornUuid, 16), 0);
    EXPECT_EQ(d[0].apiVersion, 0x00020000u);
    EXPECT_EQ(d[0].flags, 0x00040210u);
    EXPECT_EQ(d[0].memoryUsage, 1);
    EXPECT_STREQ(d[0].name, "SORN HP For Ambrel");
    EXPECT_STREQ(d[0].implementor, "Release 20260104_1.23");
    EXPECT_EQ(d[0].implementor[63], 0) << "zero-filled, not left as it was";
    uint32_t count = 0;
    EXPECT_EQ(EffectQueryNumberEffects(&count), 0);
    EXPECT_EQ(count, 1u);
}

TEST(EffectEntry, CreateAndReleaseResults) {
    sorn_test::LogCapture log;
    effect_uuid_t other = kSornUuid;
    other.node[5] ^= 1;
    effect_descriptor_t d;
    effect_handle_t h = nullptr;
    EXPECT_EQ(EffectCreate(&other, 0, 0, &h), -2);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(EffectCreate(nullptr, 0, 0, &h), -22);
    EXPECT_EQ(EffectCreate(&kSornUuid, 0, 0, nullptr), -22);
    EXPECT_EQ(EffectGetDescriptor(&other, &d), -22);
    EXPECT_EQ(EffectQueryEffect(1, &d), -22);
    EXPECT_EQ(EffectQueryEffect(0, nullptr), -22);
    EXPECT_EQ(EffectRelease(nullptr), -22);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(EffectGetDescriptor(nullptr, &d), -22);
    EXPECT_EQ(log.count("EffectGetDescriptor() called with NULL pointer", ANDROID_LOG_WARN,
                        "_O_sorn_hp_sfx"), 1);

    ASSERT_EQ(EffectCreate(&kSornUuid, 7, 3, &h), 0);
    EXPECT_EQ(log.count("EffectCreate: " + sorn_test::ptr(h) + ", sid 7, version "
                        "Release 20260104_1.23", ANDROID_LOG_DEBUG, "_O_sorn_hp_sfx"), 1);
    EXPECT_EQ((*h)->process_reverse, nullptr);
    EXPECT_EQ(EffectRelease(h), 0) << "never configured: nothing but the context to free";
}

// dlopen(RTLD_NOW), dlsym("AELI"), the factory's checks, then only the two records.
TEST(EffectEntry, LoadsAndRunsThroughAeliLikeTheFactory) {
    void *lib = dlopen(SORN_LIBRARY_PATH, RTLD_NOW);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto *aeli = static_cast<audio_effect_library_t *>(dlsym(lib, "AELI"));
    ASSERT_NE(aeli, nullptr);
    EXPECT_EQ(aeli->tag, 0x41454C54u);
    EXPECT_EQ(EFFECT_API_VERSION_MAJOR(aeli->version), 3u);
    effect_descriptor_t d;
    ASSERT_EQ(aeli->get_descriptor(&kSornUuid, &d), 0);
    EXPECT_EQ(EFFECT_API_VERSION_MAJOR(d.apiVersion), 2u);

    effect_handle_t h = nullptr;
    ASSERT_EQ(aeli->create_effect(&d.uuid, 0, 1, &h), 0);
    auto command = [&](uint32_t code, uint32_t size, void *data) {
        int32_t reply = 99;
        uint32_t reply_size = 4;
        EXPECT_EQ((*h)->command(h, code, size, data, &reply_size, &reply), 0) << code;
        return reply;
    };
    effect_config_t config = sorn_test::make_config(AUDIO_FORMAT_PCM_FLOAT);
    EXPECT_EQ(command(EFFECT_CMD_SET_CONFIG, sizeof config, &config), 0);
    uint32_t block[4 + sizeof(sorn_hp_params_t) / 4] = {0, 4, sizeof(sorn_hp_params_t), 100};
    EXPECT_EQ(command(EFFECT_CMD_SET_PARAM, sizeof block, block), 0);
    uint32_t device = AUDIO_DEVICE_OUT_BLUETOOTH_A2DP;
    command(EFFECT_CMD_SET_DEVICE, 4, &device);
    EXPECT_EQ(command(EFFECT_CMD_ENABLE, 0, nullptr), 0);

    std::vector<float> in(960, 0.25f), out(960);
    audio_buffer_t ib{480, {in.data()}}, ob{480, {out.data()}};
    for (int call = 0; call < 4; ++call) ASSERT_EQ((*h)->process(h, &ib, &ob), 0);
    EXPECT_NE(out, std::vector<float>(960, 0.0f)) << "sound leaves after the latency";
    EXPECT_EQ(aeli->release_effect(h), 0);
    dlclose(lib);
}

}  // namespace
