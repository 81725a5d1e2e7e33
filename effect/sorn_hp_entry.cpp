#include "effect/sorn_hp_entry.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "effect/sorn_hp_command.h"
#include "effect/sorn_hp_context.h"
#include "effect/sorn_hp_process.h"
#include "platform/sorn_log.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

constexpr const char *kTag = SORN_LOG_TAG_EFFECT;

constexpr effect_uuid_t kEffectUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                       {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};

constexpr effect_descriptor_t kDescriptor = {
    kEffectUuid,
    kEffectUuid,
    EFFECT_CONTROL_API_VERSION,
    EFFECT_FLAG_TYPE_INSERT | EFFECT_FLAG_INSERT_LAST | EFFECT_FLAG_DEVICE_IND |
        EFFECT_FLAG_AUDIO_MODE_IND,
    0,  // cpuLoad
    1,  // memoryUsage
    SORN_HP_EFFECT_NAME,
    SORN_HP_EFFECT_VERSION,
};
static_assert(kDescriptor.flags == 0x00040210u);

const struct effect_interface_s kInterface = {process, command, get_descriptor, nullptr};

bool is_our_uuid(const effect_uuid_t *uuid) {
    return std::memcmp(uuid, &kEffectUuid, sizeof kEffectUuid) == 0;
}

}  // namespace

audio_effect_library_t AELI = {
    AUDIO_EFFECT_LIBRARY_TAG,
    EFFECT_LIBRARY_API_VERSION,
    SORN_HP_EFFECT_NAME,
    SORN_HP_EFFECT_VERSION,
    EffectCreate,
    EffectRelease,
    EffectGetDescriptor,
    nullptr,
};

int32_t EffectCreate(const effect_uuid_t *uuid, int32_t sessionId, int32_t /*ioId*/,
                     effect_handle_t *pHandle) {
    if (uuid == nullptr || pHandle == nullptr) return -22;
    if (!is_our_uuid(uuid)) return -2;
    auto *ctx = static_cast<sorn_hp_context_t *>(std::calloc(1, sizeof(sorn_hp_context_t)));
    if (ctx == nullptr) return -ENOMEM;
    ctx->interface = &kInterface;
    ctx->state = 1;
    ctx->sample_rate = 48000;
    ctx->frame_count = 1200;
    ctx->format = AUDIO_FORMAT_PCM_32_BIT;
    ctx->mute_threshold = 5000;
    ctx->xfade_length = 2048;
    ctx->stat_interval = 240000;
    set_default_config(ctx);
    *pHandle = reinterpret_cast<effect_handle_t>(ctx);
    SORN_LOGD(kTag, "%s: %p, sid %d, version %s", "EffectCreate", static_cast<void *>(ctx),
              sessionId, SORN_HP_EFFECT_VERSION);
    return 0;
}

int32_t EffectRelease(effect_handle_t handle) {
    auto *ctx = reinterpret_cast<sorn_hp_context_t *>(handle);
    if (ctx == nullptr) return -22;
    SORN_LOGD(kTag, "%s %p", "EffectRelease", static_cast<void *>(ctx));
    ctx->state = 0;
    std::free(ctx->work_buffer);
    ctx->work_buffer = nullptr;
    std::free(ctx->dry_buffer);
    ctx->dry_buffer = nullptr;
    ctx->buffer_frames = 0;
    if (ctx->wrapper != nullptr) {
        sorn_hp_wrapper_deinit(ctx->wrapper);
        ctx->wrapper = nullptr;
    }
    std::free(ctx->params);
    ctx->params = nullptr;
    std::free(ctx);
    return 0;
}

int32_t EffectGetDescriptor(const effect_uuid_t *uuid, effect_descriptor_t *pDescriptor) {
    if (uuid == nullptr || pDescriptor == nullptr) {
        SORN_LOGW(kTag, "EffectGetDescriptor() called with NULL pointer");
        return -22;
    }
    if (!is_our_uuid(uuid)) return -22;
    *pDescriptor = kDescriptor;
    return 0;
}

int32_t get_descriptor(effect_handle_t /*self*/, effect_descriptor_t *pDescriptor) {
    if (pDescriptor == nullptr) return -22;
    *pDescriptor = kDescriptor;
    return 0;
}

int32_t EffectQueryNumberEffects(uint32_t *pNumEffects) {
    if (pNumEffects == nullptr) return -22;
    *pNumEffects = 1;
    return 0;
}

int32_t EffectQueryEffect(uint32_t index, effect_descriptor_t *pDescriptor) {
    if (index != 0 || pDescriptor == nullptr) return -22;
    *pDescriptor = kDescriptor;
    return 0;
}
