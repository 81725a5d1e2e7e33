#include "effect/sorn_hp_command.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "effect/sorn_hp_context.h"
#include "platform/sorn_log.h"
#include "wrapper/sorn_hp_params.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

constexpr const char *kTag = SORN_LOG_TAG_EFFECT;
constexpr uint32_t kParamHeader = 12;    // status, psize, vsize
constexpr uint32_t kParamValueAt = 16;   // header plus the one-word parameter id
constexpr uint32_t kStatusValueSize = 1024;

// Byte-wise access: command and reply buffers carry no alignment promise.
uint32_t load_u32(const void *base, size_t offset) {
    uint32_t v;
    std::memcpy(&v, static_cast<const char *>(base) + offset, sizeof v);
    return v;
}

void store_i32(void *base, size_t offset, int32_t v) {
    std::memcpy(static_cast<char *>(base) + offset, &v, sizeof v);
}

// Writes the status word only where the caller gave room for it.
void reply_word(const uint32_t *replySize, void *pReplyData, int32_t value) {
    if (replySize != nullptr && pReplyData != nullptr && *replySize >= sizeof(int32_t)) {
        store_i32(pReplyData, 0, value);
    }
}

bool has_int_reply(const uint32_t *replySize, const void *pReplyData) {
    return pReplyData != nullptr && replySize != nullptr && *replySize == sizeof(int32_t);
}

// The framework's mode word as an audio_mode_t, which holds only the modes -2..6: any other
// word is no mode at all and is kept as AUDIO_MODE_INVALID (never the normal mode).
audio_mode_t mode_from_word(uint32_t word) {
    const auto v = static_cast<int32_t>(word);
    if (v < AUDIO_MODE_INVALID || v > AUDIO_MODE_COMMUNICATION_REDIRECT) return AUDIO_MODE_INVALID;
    return static_cast<audio_mode_t>(v);
}

// Re-decides whether the processed output is wanted; a wanted output starts from a clean chain.
void evaluate(sorn_hp_context_t *ctx) {
    const bool wanted = is_support_effect(ctx);
    if (wanted) sorn_hp_wrapper_reset(ctx->wrapper);
    ctx->active = wanted ? 1 : 0;
}

// Returns the status for the reply word: -22 when the command does not carry the value.
int32_t set_bypass(sorn_hp_context_t *ctx, const char *cmd, uint32_t value_bytes) {
    const uint32_t vsize = load_u32(cmd, 8);
    if (value_bytes < (vsize == 2 ? sizeof(int16_t) : sizeof(int32_t))) return -22;
    int32_t v;
    if (vsize == 2) {
        int16_t v16;
        std::memcpy(&v16, cmd + kParamValueAt, sizeof v16);
        v = v16;
    } else {
        v = static_cast<int32_t>(load_u32(cmd, kParamValueAt));
    }
    if (v == 0) {
        ctx->bypass = 0;
        evaluate(ctx);
    } else {
        ctx->bypass = 1;
        ctx->active = 0;
    }
    SORN_LOGD(kTag, "SORN_BYPASS_SETTING: %d; %d", v, ctx->active);
    return 0;
}

// Returns the status for the reply word. The block is as long as vsize says and the command
// carries, whichever is less.
int32_t set_param_block(sorn_hp_context_t *ctx, const char *cmd, uint32_t value_bytes) {
    const uint32_t vsize = std::min(load_u32(cmd, 8), value_bytes);
    if (vsize < sizeof(sorn_hp_params_t)) {
        SORN_LOGW(kTag, "%s: params size %u too small, need %zu", "command", vsize,
                  sizeof(sorn_hp_params_t));
        return -22;
    }
    if (ctx->params == nullptr) {
        auto *block = static_cast<sorn_hp_params_t *>(std::calloc(1, sizeof(sorn_hp_params_t)));
        if (block == nullptr) {
            SORN_LOGW(kTag, "%s: no memory for params", "command");
            return -22;
        }
        ctx->params = block;
        ctx->params_loaded = 1;
        SORN_LOGD(kTag, "params loaded, size %u", vsize);
    }
    std::memcpy(ctx->params, cmd + kParamValueAt, sizeof(sorn_hp_params_t));
    if (ctx->wrapper != nullptr) sorn_hp_wrapper_set_parameters(ctx->wrapper, ctx->params);
    return 0;
}

// Reads nothing beyond cmdSize: a command too short for its header and id is refused, and a
// value it does not carry is answered with -22 in the reply word.
int32_t set_param(sorn_hp_context_t *ctx, uint32_t cmdSize, const void *pCmdData,
                  uint32_t *replySize, void *pReplyData) {
    if (pCmdData == nullptr || pReplyData == nullptr || cmdSize < kParamValueAt) return -22;
    reply_word(replySize, pReplyData, 0);
    const char *cmd = static_cast<const char *>(pCmdData);
    // Every parameter here is one word; with a longer key the value would not start at byte 16.
    if (load_u32(cmd, 4) != sizeof(int32_t)) {
        reply_word(replySize, pReplyData, -22);
        return 0;
    }
    const uint32_t value_bytes = cmdSize - kParamValueAt;
    switch (load_u32(cmd, kParamHeader)) {
        case SORN_HP_PARAM_BYPASS:
            reply_word(replySize, pReplyData, set_bypass(ctx, cmd, value_bytes));
            break;
        case SORN_HP_PARAM_BLOCK:
            reply_word(replySize, pReplyData, set_param_block(ctx, cmd, value_bytes));
            break;
        default:
            break;
    }
    return 0;
}

int32_t get_param(sorn_hp_context_t *ctx, uint32_t cmdSize, const void *pCmdData,
                  uint32_t *replySize, void *pReplyData) {
    if (pCmdData == nullptr || cmdSize < kParamValueAt || pReplyData == nullptr ||
        replySize == nullptr || *replySize < kParamValueAt + sizeof(int32_t)) {
        return -22;
    }
    const uint32_t capacity = *replySize;
    char *reply = static_cast<char *>(pReplyData);
    std::memcpy(reply, pCmdData, kParamValueAt);
    store_i32(reply, 0, 0);
    *replySize = kParamValueAt;
    if (load_u32(reply, 4) != sizeof(int32_t)) {
        store_i32(reply, 0, -22);
        return 0;
    }
    if (load_u32(reply, kParamHeader) != SORN_HP_PARAM_STATUS) {
        // No value comes back, and the reply says so: a client copies vsize bytes on status 0.
        store_i32(reply, 0, -22);
        store_i32(reply, 8, 0);
        return 0;
    }

    sorn_hp_status_t status = {};
    sorn_hp_wrapper_get_parameters(ctx->wrapper, &status);
    const uint32_t value_size = std::min(kStatusValueSize, capacity - kParamValueAt);
    char *text = reply + kParamValueAt;
    std::memset(text, 0, value_size);
    std::snprintf(text, value_size,
                  "en: %d  bypass: %d  pmi: %d  mode: %d  dev: 0x%x  state: %d  mute: %d\n"
                  "lc: %d  ss: %d  ea: %d  hp: %d  check: %d  ver: %s",
                  ctx->enabled, ctx->bypass, ctx->params_loaded, static_cast<int>(ctx->mode),
                  ctx->device, ctx->active, ctx->mute, status.lc, status.ss, status.ea, status.hp,
                  status.state, SORN_HP_EFFECT_VERSION);
    store_i32(reply, 8, static_cast<int32_t>(value_size));
    *replySize += value_size;
    return 0;
}

}  // namespace

int32_t command(effect_handle_t self, uint32_t cmdCode, uint32_t cmdSize, void *pCmdData,
                uint32_t *replySize, void *pReplyData) {
    auto *ctx = reinterpret_cast<sorn_hp_context_t *>(self);
    if (ctx == nullptr || ctx->state == 0) return -22;

    switch (cmdCode) {
        case EFFECT_CMD_INIT:
            reply_word(replySize, pReplyData, 0);
            return 0;

        case EFFECT_CMD_SET_CONFIG: {
            if (cmdSize != sizeof(effect_config_t) || pCmdData == nullptr ||
                !has_int_reply(replySize, pReplyData)) {
                return -22;
            }
            // The framework's buffer may be unaligned; configure works on an aligned copy.
            effect_config_t config;
            std::memcpy(&config, pCmdData, sizeof config);
            store_i32(pReplyData, 0, configure(ctx, &config));
            return 0;
        }

        case EFFECT_CMD_ENABLE:
            if (!has_int_reply(replySize, pReplyData)) return -22;
            if (ctx->state != 1) return -38;
            ctx->state = 2;
            ctx->enabled = 1;
            evaluate(ctx);
            store_i32(pReplyData, 0, 0);
            SORN_LOGD(kTag, "EFFECT_CMD_ENABLE: %p %d; %d", static_cast<void *>(ctx),
                      ctx->enabled, ctx->active);
            return 0;

        case EFFECT_CMD_DISABLE:
            if (!has_int_reply(replySize, pReplyData)) return -22;
            if (ctx->state != 2) return -38;
            ctx->enabled = 0;
            ctx->state = 1;
            ctx->active = 0;
            store_i32(pReplyData, 0, 0);
            SORN_LOGD(kTag, "EFFECT_CMD_DISABLE: %p %d", static_cast<void *>(ctx), 0);
            return 0;

        case EFFECT_CMD_SET_PARAM:
            return set_param(ctx, cmdSize, pCmdData, replySize, pReplyData);

        case EFFECT_CMD_GET_PARAM:
            return get_param(ctx, cmdSize, pCmdData, replySize, pReplyData);

        case EFFECT_CMD_SET_DEVICE: {
            if (cmdSize != sizeof(uint32_t) || pCmdData == nullptr) return -22;
            const auto device = static_cast<audio_devices_t>(load_u32(pCmdData, 0));
            if (device == AUDIO_DEVICE_NONE || device == ctx->device) {
                SORN_LOGW(kTag, "EFFECT_CMD_SET_DEVICE invalid device");
            } else {
                ctx->device = device;
                evaluate(ctx);
                SORN_LOGD(kTag, "EFFECT_CMD_SET_DEVICE: %#x %d", device, ctx->active);
            }
            reply_word(replySize, pReplyData, 0);
            return 0;
        }

        case EFFECT_CMD_SET_AUDIO_MODE: {
            if (cmdSize != sizeof(uint32_t) || pCmdData == nullptr) return -22;
            const audio_mode_t mode = mode_from_word(load_u32(pCmdData, 0));
            if (mode != ctx->mode) {
                ctx->mode = mode;
                evaluate(ctx);
                SORN_LOGD(kTag, "EFFECT_CMD_SET_AUDIO_MODE: %d; %d", static_cast<int>(mode),
                          ctx->active);
            }
            reply_word(replySize, pReplyData, 0);
            return 0;
        }

        case EFFECT_CMD_GET_CONFIG:
            if (pReplyData == nullptr || replySize == nullptr ||
                *replySize != sizeof(effect_config_t)) {
                return -22;
            }
            std::memcpy(pReplyData, &ctx->config, sizeof(effect_config_t));
            *replySize = sizeof(effect_config_t);
            return 0;

        // Features this effect does not have: the caller must not take an unwritten reply for
        // an answer.
        case EFFECT_CMD_SET_CONFIG_REVERSE:
        case EFFECT_CMD_GET_CONFIG_REVERSE:
        case EFFECT_CMD_GET_FEATURE_SUPPORTED_CONFIGS:
        case EFFECT_CMD_GET_FEATURE_CONFIG:
        case EFFECT_CMD_SET_FEATURE_CONFIG:
        case EFFECT_CMD_OFFLOAD:
            return -38;

        default:
            return 0;
    }
}
