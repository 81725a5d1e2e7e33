// Library entry: the descriptor from every source, creation and release. (Loading the library
// the way Android's effect factory does, with its checks, is what the tool tests do.)
#include "tests/support/log_capture.h"
#include "tests/test_effect_harness.h"

namespace {

using sorn_test::kSornUuid;

TEST(EffectEntry, EverySourceGivesTheSameDescriptorByteForByte) {
    // Insert, last, device and audio mode indication; 1 KB; names zero-padded.
    const effect_descriptor_t want = {kSornUuid, kSornUuid, 0x00020000u, 0x00040210u, 0, 1,
                                      "SORN HP For Ambrel", "Release 20260104_1.23"};
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

}  // namespace
