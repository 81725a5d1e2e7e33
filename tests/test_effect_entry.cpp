// Library entry: descriptor sources, instance creation and release, and loading the library the
// way Android's effect factory does.
#include <android/log.h>
#include <dlfcn.h>

#include <cmath>
#include <cstdio>

#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

using sorn_test::Effect;
using sorn_test::kSornUuid;
using sorn_test::LogCapture;

namespace {

constexpr effect_uuid_t kOtherUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                      {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x35}};

std::string pointer_text(const void *p) {
    char s[32];
    std::snprintf(s, sizeof s, "%p", p);
    return s;
}

TEST(EffectEntry, EverySourceGivesTheSameDescriptorBytes) {
    effect_descriptor_t from_library, from_query, from_instance;
    std::memset(&from_library, 0xAA, sizeof from_library);
    std::memset(&from_query, 0x55, sizeof from_query);
    std::memset(&from_instance, 0x11, sizeof from_instance);
    ASSERT_EQ(AELI.get_descriptor(&kSornUuid, &from_library), 0);
    ASSERT_EQ(EffectQueryEffect(0, &from_query), 0);
    Effect fx;
    ASSERT_EQ((*fx.h)->get_descriptor(fx.h, &from_instance), 0);
    EXPECT_EQ(std::memcmp(&from_library, &from_query, sizeof from_library), 0);
    EXPECT_EQ(std::memcmp(&from_library, &from_instance, sizeof from_library), 0);

    const effect_descriptor_t &d = from_library;
    EXPECT_EQ(std::memcmp(&d.type, &kSornUuid, 16), 0);
    EXPECT_EQ(std::memcmp(&d.uuid, &kSornUuid, 16), 0);
    EXPECT_EQ(d.apiVersion, 0x00020000u);
    EXPECT_EQ(d.flags, 0x00040210u);
    EXPECT_EQ(d.cpuLoad, 0);
    EXPECT_EQ(d.memoryUsage, 1);
    EXPECT_STREQ(d.name, "SORN HP For Ambrel");
    EXPECT_STREQ(d.implementor, "Release 20260104_1.23");
    for (size_t i = std::strlen(d.name); i < sizeof d.name; ++i) EXPECT_EQ(d.name[i], 0) << i;
    for (size_t i = std::strlen(d.implementor); i < sizeof d.implementor; ++i)
        EXPECT_EQ(d.implementor[i], 0) << i;

    uint32_t count = 0;
    EXPECT_EQ(EffectQueryNumberEffects(&count), 0);
    EXPECT_EQ(count, 1u);
}

TEST(EffectEntry, RefusesNullArgumentsAndForeignUuids) {
    LogCapture log;
    effect_descriptor_t d;
    effect_handle_t h = reinterpret_cast<effect_handle_t>(&d);
    EXPECT_EQ(EffectCreate(&kOtherUuid, 0, 0, &h), -2);
    EXPECT_EQ(h, reinterpret_cast<effect_handle_t>(&d)) << "nothing stored for a foreign uuid";
    EXPECT_EQ(EffectCreate(nullptr, 0, 0, &h), -22);
    EXPECT_EQ(EffectCreate(&kSornUuid, 0, 0, nullptr), -22);

    EXPECT_EQ(EffectGetDescriptor(&kOtherUuid, &d), -22);
    EXPECT_EQ(log.lines().size(), 0u);
    EXPECT_EQ(EffectGetDescriptor(nullptr, &d), -22);
    EXPECT_EQ(EffectGetDescriptor(&kSornUuid, nullptr), -22);
    EXPECT_EQ(log.count("EffectGetDescriptor() called with NULL pointer", ANDROID_LOG_WARN,
                        "_O_sorn_hp_sfx"),
              2);

    EXPECT_EQ(EffectQueryEffect(1, &d), -22);
    EXPECT_EQ(EffectQueryEffect(0, nullptr), -22);
    log.clear();
    EXPECT_EQ(EffectRelease(nullptr), -22);
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST(EffectEntry, CreateLogsAndReleaseFreesAnUnconfiguredInstance) {
    LogCapture log;
    effect_handle_t h = nullptr;
    ASSERT_EQ(EffectCreate(&kSornUuid, 7, 3, &h), 0);
    ASSERT_NE(h, nullptr);
    ASSERT_NE((*h)->process, nullptr) << "the handle points to the interface record";
    ASSERT_NE((*h)->command, nullptr);
    EXPECT_EQ((*h)->process_reverse, nullptr);
    const std::string ctx = pointer_text(h);
    EXPECT_EQ(log.count("EffectCreate: " + ctx + ", sid 7, version Release 20260104_1.23",
                        ANDROID_LOG_DEBUG, "_O_sorn_hp_sfx"),
              1);
    EXPECT_EQ(EffectRelease(h), 0);
    EXPECT_EQ(log.count("EffectRelease " + ctx, ANDROID_LOG_DEBUG), 1);
}

// What AudioFlinger's effect factory does: dlopen, dlsym("AELI"), check tag and versions, then
// reach every instance only through the records.
TEST(EffectEntry, LoadsAndRunsThroughAeliLikeTheFactory) {
    void *lib = dlopen(SORN_LIBRARY_PATH, RTLD_NOW);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto *aeli = static_cast<audio_effect_library_t *>(dlsym(lib, "AELI"));
    ASSERT_NE(aeli, nullptr);
    EXPECT_EQ(aeli->tag, 0x41454C54u);
    EXPECT_EQ(EFFECT_API_VERSION_MAJOR(aeli->version), 3u);
    EXPECT_STREQ(aeli->name, "SORN HP For Ambrel");
    EXPECT_EQ(aeli->create_effect_3_1, nullptr);
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
    std::vector<char> block(16 + sizeof(sorn_hp_params_t));
    const uint32_t header[4] = {0, 4, sizeof(sorn_hp_params_t), 100};
    std::memcpy(block.data(), header, sizeof header);
    EXPECT_EQ(command(EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(block.size()), block.data()), 0);
    uint32_t device = sorn_test::kHeadphone;
    command(EFFECT_CMD_SET_DEVICE, 4, &device);
    EXPECT_EQ(command(EFFECT_CMD_ENABLE, 0, nullptr), 0);

    std::vector<float> in(2 * 480), out(2 * 480);
    double energy = 0;
    for (int call = 0; call < 20; ++call) {
        for (size_t i = 0; i < in.size(); ++i) in[i] = 0.3f * std::sin(0.01f * (call * 960 + i));
        audio_buffer_t ib{480, {in.data()}}, ob{480, {out.data()}};
        ASSERT_EQ((*h)->process(h, &ib, &ob), 0);
        for (float s : out) {
            ASSERT_TRUE(std::isfinite(s));
            energy += s * s;
        }
    }
    EXPECT_GT(energy, 1.0);
    EXPECT_EQ(aeli->release_effect(h), 0);
    dlclose(lib);
}

}  // namespace
