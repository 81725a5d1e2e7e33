// Library entry: the descriptor from every source, creation and release, and loading the
// library the way Android's effect factory does.
#include <dlfcn.h>

#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

namespace {

using sorn_test::kSornUuid;

TEST(EffectEntry, EverySourceGivesTheSameDescriptorByteForByte) {
    effect_descriptor_t want;
    std::memset(&want, 0, sizeof want);
    want.type = want.uuid = kSornUuid;
    want.apiVersion = 0x00020000u;
    want.flags = 0x00040210u;  // insert, last, device and audio mode indication
    want.memoryUsage = 1;
    std::strcpy(want.name, "SORN HP For Ambrel");
    std::strcpy(want.implementor, "Release 20260104_1.23");
    sorn_test::Effect fx;
    for (int source = 0; source < 3; ++source) {
        effect_descriptor_t d;
        std::memset(&d, 0xAA, sizeof d);  // every byte must be written, padding of the names too
        ASSERT_EQ(source == 0   ? AELI.get_descriptor(&kSornUuid, &d)
                  : source == 1 ? EffectQueryEffect(0, &d)
                                : (*fx.h)->get_descriptor(fx.h, &d), 0);
        EXPECT_EQ(std::memcmp(&d, &want, sizeof d), 0) << "source " << source;
    }
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
    EXPECT_EQ(log.count("EffectGetDescriptor() called with NULL pointer", ANDROID_LOG_WARN, "_O_sorn_hp_sfx"), 1);

    ASSERT_EQ(EffectCreate(&kSornUuid, 7, 3, &h), 0);
    EXPECT_EQ(log.count("EffectCreate: " + sorn_test::ptr(h) + ", sid 7, version Release 20260104_1.23",
                        ANDROID_LOG_DEBUG, "_O_sorn_hp_sfx"), 1);
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
    sorn_test::Effect fx(aeli, &d.uuid);
    fx.make_ready(AUDIO_FORMAT_PCM_FLOAT);
    ASSERT_EQ(fx.status_cmd(EFFECT_CMD_ENABLE), 0);
    std::vector<float> in(960, 0.25f), out(960);
    for (int call = 0; call < 4; ++call) ASSERT_EQ(fx.process(in.data(), out.data(), 480), 0);
    EXPECT_NE(out, std::vector<float>(960, 0.0f)) << "sound leaves after the latency";
    EXPECT_EQ(fx.release(), 0);
    dlclose(lib);
}

}  // namespace
