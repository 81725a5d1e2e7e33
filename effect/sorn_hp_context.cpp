#include "effect/sorn_hp_context.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <cutils/properties.h>

#include "platform/sat_math.h"
#include "platform/sorn_log.h"
#include "wrapper/sorn_hp_params.h"
#include "wrapper/sorn_hp_wrapper.h"

// The platform's C++ headers make these enumerations that no integer converts to implicitly;
// the host stand-in must do the same, or code that mixes them with integers builds here and
// fails in a device build.
static_assert(std::is_enum_v<audio_format_t> &&
              std::is_same_v<std::underlying_type_t<audio_format_t>, uint32_t>);
static_assert(std::is_enum_v<audio_devices_t> &&
              std::is_same_v<std::underlying_type_t<audio_devices_t>, uint32_t>);
static_assert(std::is_enum_v<audio_channel_mask_t> &&
              std::is_same_v<std::underlying_type_t<audio_channel_mask_t>, uint32_t>);
static_assert(std::is_enum_v<audio_mode_t> && sizeof(audio_mode_t) == sizeof(int32_t));
static_assert(!std::is_convertible_v<uint32_t, audio_format_t> &&
              !std::is_convertible_v<uint32_t, audio_devices_t> &&
              !std::is_convertible_v<uint32_t, audio_channel_mask_t> &&
              !std::is_convertible_v<int32_t, audio_mode_t>);

namespace {

constexpr const char *kTag = SORN_LOG_TAG_EFFECT;
constexpr size_t kMaxFrames = size_t{1} << 24;    // far beyond any framework buffer
constexpr size_t kDefaultFrames = 1200;           // buffers for a configuration without a size
constexpr size_t kMaxConfiguredFrames = 48000;    // what a configuration alone may reserve

// Output devices that count as headphones, compared as whole values.
constexpr audio_devices_t kSupportedDevices[] = {
    AUDIO_DEVICE_OUT_WIRED_HEADSET,  AUDIO_DEVICE_OUT_WIRED_HEADPHONE,
    AUDIO_DEVICE_OUT_BLUETOOTH_A2DP, AUDIO_DEVICE_OUT_BLUETOOTH_A2DP_HEADPHONES,
    AUDIO_DEVICE_OUT_BLUETOOTH_A2DP_SPEAKER, AUDIO_DEVICE_OUT_USB_ACCESSORY,
    AUDIO_DEVICE_OUT_USB_DEVICE,     AUDIO_DEVICE_OUT_USB_HEADSET,
    AUDIO_DEVICE_OUT_BLE_HEADSET,
};

// Formats the output stage of process can write back.
bool is_writable_format(audio_format_t format) {
    return format == AUDIO_FORMAT_PCM_16_BIT || format == AUDIO_FORMAT_PCM_32_BIT ||
           format == AUDIO_FORMAT_PCM_8_24_BIT || format == AUDIO_FORMAT_PCM_FLOAT;
}

}  // namespace

int32_t configure(sorn_hp_context_t *ctx, effect_config_t *config) {
    if (ctx == nullptr || config == nullptr) return -22;
    const buffer_config_t &in = config->inputCfg;
    const buffer_config_t &out = config->outputCfg;
    SORN_LOGD(kTag, "%s %p fmt:%d, in ch: %d, out ch %d, sr:%d, in acc:%d, out acc:%d",
              "configure", static_cast<void *>(ctx), in.format, static_cast<int>(in.channels),
              static_cast<int>(out.channels), static_cast<int>(in.samplingRate), in.accessMode,
              out.accessMode);

    const auto format = static_cast<audio_format_t>(in.format);  // the platform narrows it to 8 bits
    const char *problem = nullptr;
    if (in.channels != AUDIO_CHANNEL_OUT_STEREO || out.channels != AUDIO_CHANNEL_OUT_STEREO) {
        problem = "%s: channels configure error";
    } else if (in.accessMode != EFFECT_BUFFER_ACCESS_READ ||
               (out.accessMode != EFFECT_BUFFER_ACCESS_WRITE &&
                out.accessMode != EFFECT_BUFFER_ACCESS_ACCUMULATE)) {
        problem = "%s: accessMode configure error";
    } else if (in.format != out.format || !is_writable_format(format)) {
        problem = "%s: format configure error";
    }
    if (problem != nullptr) {
        SORN_LOGW(kTag, problem, "configure");
        ctx->configured = 0;
        return -22;
    }

    // Sized here, on the command path, so that process need not allocate for the calls the
    // framework announced.
    const size_t announced = std::max(in.buffer.frameCount, out.buffer.frameCount);
    const size_t frames = announced == 0 ? kDefaultFrames : std::min(announced, kMaxConfiguredFrames);
    if (reserve_buffers(ctx, frames) != 0) {
        SORN_LOGW(kTag, "%s: no memory for %u frames", "configure", static_cast<unsigned>(frames));
        ctx->configured = 0;
        return -22;
    }

    if (in.samplingRate != out.samplingRate || in.samplingRate != ctx->sample_rate) {
        SORN_LOGI(kTag, "%s: samplingRate configure %d", "configure",
                  static_cast<int>(in.samplingRate));
    }
    ctx->format = format;
    std::memcpy(&ctx->config, config, sizeof ctx->config);  // whole, as GET_CONFIG returns it
    ctx->configured = 1;
    return init(ctx, in.samplingRate);
}

int32_t init(sorn_hp_context_t *ctx, uint32_t sampleRate) {
    if (ctx == nullptr) return -22;
    if (ctx->wrapper == nullptr || sampleRate != ctx->sample_rate) {
        if (ctx->wrapper != nullptr) {
            sorn_hp_wrapper_deinit(ctx->wrapper);
            ctx->wrapper = nullptr;
        }
        ctx->sample_rate = sampleRate;
        ctx->wrapper = sorn_hp_wrapper_init(static_cast<int>(sampleRate), 3, 2);
        if (ctx->wrapper == nullptr) {
            SORN_LOGW(kTag, "init: no work context!");
            return -22;
        }
        if (ctx->params_loaded != 0 && ctx->params != nullptr) {
            sorn_hp_wrapper_set_parameters(ctx->wrapper, ctx->params);
        }
    }

    char value[PROPERTY_VALUE_MAX + 1] = {};
    property_get(SORN_HP_DUMP_PROPERTY, value, "0");
    ctx->dump_pcm = std::atoi(value);
    SORN_LOGD(kTag, "%s: %p dumpPCM %d", "init", static_cast<void *>(ctx), ctx->dump_pcm);

    ctx->stat_loops = 0;
    ctx->stat_frames = 0;
    ctx->stat_total_us = 0;
    ctx->stat_max_us = 0;
    ctx->stat_interval = sorn::sat_i32(5 * static_cast<int64_t>(ctx->sample_rate));
    return 0;
}

int32_t reserve_buffers(sorn_hp_context_t *ctx, size_t frames) {
    if (ctx == nullptr || frames > kMaxFrames) return -22;
    if (frames <= ctx->buffer_frames && ctx->work_buffer != nullptr && ctx->dry_buffer != nullptr) {
        return 0;
    }
    // Both are rewritten before use, so nothing is carried over.
    const size_t bytes = frames * 2 * sizeof(int32_t);
    auto *work = static_cast<int32_t *>(std::malloc(bytes));
    auto *dry = static_cast<int32_t *>(std::malloc(bytes));
    if (work == nullptr || dry == nullptr) {
        std::free(work);
        std::free(dry);
        return -22;
    }
    std::free(ctx->work_buffer);
    std::free(ctx->dry_buffer);
    ctx->work_buffer = work;
    ctx->dry_buffer = dry;
    ctx->buffer_frames = static_cast<uint32_t>(frames);
    return 0;
}

void set_default_config(sorn_hp_context_t *ctx) {
    if (ctx == nullptr) return;
    // Built on zeros, padding included: GET_CONFIG hands these bytes out whole.
    std::memset(&ctx->config, 0, sizeof ctx->config);
    for (buffer_config_t *cfg : {&ctx->config.inputCfg, &ctx->config.outputCfg}) {
        cfg->samplingRate = ctx->sample_rate;
        cfg->channels = AUDIO_CHANNEL_OUT_STEREO;
        cfg->format = static_cast<uint8_t>(ctx->format);
        cfg->mask = EFFECT_CONFIG_ALL;
    }
    ctx->config.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
    ctx->config.outputCfg.accessMode = EFFECT_BUFFER_ACCESS_ACCUMULATE;
}

bool is_support_device(audio_devices_t device) {
    for (audio_devices_t supported : kSupportedDevices) {
        if (device == supported) return true;
    }
    return false;
}

bool is_support_audiomode(audio_mode_t mode) { return mode == AUDIO_MODE_NORMAL; }

bool is_support_effect(sorn_hp_context_t *ctx) {
    if (ctx == nullptr) return false;
    return is_support_device(ctx->device) && is_support_audiomode(ctx->mode) &&
           ctx->params_loaded == 1 && ctx->enabled == 1 && (ctx->bypass & 1) == 0 &&
           (ctx->configured & 1) == 1;
}
