#include "effect/sorn_hp_process.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/time.h>

#include <audio_utils/format.h>

#include "platform/sat_math.h"
#include "effect/sorn_hp_context.h"
#include "effect/sorn_hp_diag.h"
#include "platform/sorn_log.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

constexpr const char *kTag = SORN_LOG_TAG_EFFECT;
constexpr float kInt32ToFloat = 1.0f / 2147483648.0f;

enum Mute : int32_t { kSound = 0, kFadingOut = 1, kMuted = 2 };

// True when any of `count` float samples is a NaN or an infinity (all exponent bits set). The
// bits are scanned whole chunks at a time, with no early exit, so the loop vectorizes: for
// finite input this scan is the whole cost of the guard below.
bool has_non_finite(const void *raw, size_t count) {
    constexpr uint32_t kExponent = 0x7F800000u;
    const auto *bytes = static_cast<const unsigned char *>(raw);
    uint32_t found = 0;
    size_t i = 0;
    for (; i + 16 <= count; i += 16) {
        uint32_t chunk[16];
        std::memcpy(chunk, bytes + 4 * i, sizeof chunk);
        for (uint32_t b : chunk) found |= (b & kExponent) == kExponent;
    }
    for (; i < count; ++i) {
        uint32_t b;
        std::memcpy(&b, bytes + 4 * i, sizeof b);
        found |= (b & kExponent) == kExponent;
    }
    return found != 0;
}

// Input conversion into the working block. The platform's conversion has no rule for non-finite
// floats (on x86 a NaN becomes a full-scale negative sample, on arm64 silence), so float input
// holding any is first copied into the working block with each NaN made 0.0 (silence) and each
// infinity 1.0 or -1.0 (the rail of its sign), and converted there in place: the chain never
// sees a NaN as a full-scale sample, on any processor. The framework's buffer is not written.
// 8.24 input is widened here as well: Android's conversion leaves 8.24 to 32-bit unconverted
// (a silent no-op in release builds), so it is v << 8, saturating beyond +-1.0.
void convert_input(sorn_hp_context_t *ctx, const void *raw, size_t samples) {
    if (ctx->format == AUDIO_FORMAT_PCM_8_24_BIT) {
        const auto *in = static_cast<const unsigned char *>(raw);
        for (size_t i = 0; i < samples; ++i) {
            int32_t v;
            std::memcpy(&v, in + 4 * i, sizeof v);
            ctx->work_buffer[i] = sorn::sat_shl8(v);
        }
        return;
    }
    if (ctx->format != AUDIO_FORMAT_PCM_FLOAT || !has_non_finite(raw, samples)) {
        memcpy_by_audio_format(ctx->work_buffer, AUDIO_FORMAT_PCM_32_BIT, raw, ctx->format,
                               samples);
        return;
    }
    const auto *in = static_cast<const unsigned char *>(raw);
    auto *work = reinterpret_cast<unsigned char *>(ctx->work_buffer);
    for (size_t i = 0; i < samples; ++i) {
        float f;
        std::memcpy(&f, in + 4 * i, sizeof f);
        if (std::isnan(f)) f = 0.0f;
        else if (std::isinf(f)) f = f > 0.0f ? 1.0f : -1.0f;
        std::memcpy(work + 4 * i, &f, sizeof f);
    }
    memcpy_by_audio_format(ctx->work_buffer, AUDIO_FORMAT_PCM_32_BIT, ctx->work_buffer,
                           AUDIO_FORMAT_PCM_FLOAT, samples);
}

bool all_zero(const int32_t *samples, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (samples[i] != 0) return false;
    }
    return true;
}

// Advances the silence state for the converted block. Returns false when the block is muted
// and processing is skipped.
bool update_silence(sorn_hp_context_t *ctx) {
    if (!all_zero(ctx->work_buffer, size_t{ctx->frame_count} * 2)) {
        ctx->silent_frames = 0;
        ctx->mute = kSound;
        return true;
    }
    ctx->silent_frames += ctx->frame_count;
    // Unsigned on purpose: a block longer than the threshold wraps the difference and mutes
    // at once without a fade-out.
    if (ctx->mute == kSound && ctx->silent_frames >= ctx->mute_threshold - ctx->frame_count) {
        ctx->mute = kFadingOut;
        return true;
    }
    if (static_cast<int32_t>(ctx->silent_frames) >= static_cast<int32_t>(ctx->mute_threshold)) {
        ctx->mute = kMuted;
        return false;
    }
    return ctx->mute != kMuted;
}

int32_t blend(int32_t a, int32_t b, float g) {
    const int64_t sum = int64_t{sorn::sat_f2i32(static_cast<float>(a) * g)} +
                        sorn::sat_f2i32(static_cast<float>(b) * (1.0f - g));
    return sorn::sat_i32(sum);
}

// Dry/processed cross-fade over xfade_length frames, carried across calls. `now` says which
// signal the fade goes to: 1 processed, 0 dry.
void crossfade(sorn_hp_context_t *ctx, int32_t now) {
    int32_t *work = ctx->work_buffer;
    const int32_t *dry = ctx->dry_buffer;
    const size_t frames = ctx->frame_count;
    const float step = 1.0f / static_cast<float>(ctx->xfade_length);
    size_t i = 0;
    for (; i < frames && ctx->xfade_remaining > 0; ++i) {
        const float g = step * static_cast<float>(ctx->xfade_remaining);
        for (size_t c = 2 * i; c < 2 * i + 2; ++c) {
            work[c] = now != 0 ? blend(dry[c], work[c], g) : blend(work[c], dry[c], g);
        }
        ctx->xfade_remaining -= 1;
    }
    if (i < frames && ctx->active == 0) {
        std::memcpy(work + 2 * i, dry + 2 * i, (frames - i) * 2 * sizeof(int32_t));
    }
}

void write_output(const sorn_hp_context_t *ctx, const int32_t *w, void *raw, size_t samples,
                  bool accumulate) {
    switch (ctx->format) {
        case AUDIO_FORMAT_PCM_FLOAT: {
            auto *out = static_cast<float *>(raw);
            if (!accumulate) {
                for (size_t i = 0; i < samples; ++i) {
                    out[i] = static_cast<float>(w[i]) * kInt32ToFloat;
                }
                break;
            }
            for (size_t i = 0; i < samples; ++i) {
                float s = out[i] + static_cast<float>(w[i]) * kInt32ToFloat;
                if (s > 1.0f) s = 1.0f;
                else if (s < -1.0f) s = -1.0f;
                else if (s != s) s = 0.0f;
                out[i] = s;
            }
            break;
        }
        // One loop per access mode, so that each is a plain loop the vectorizer takes.
        case AUDIO_FORMAT_PCM_16_BIT: {
            auto *out = static_cast<int16_t *>(raw);
            if (!accumulate) {
                for (size_t i = 0; i < samples; ++i) out[i] = static_cast<int16_t>(w[i] >> 16);
                break;
            }
            for (size_t i = 0; i < samples; ++i) out[i] = sorn::sat_i16(out[i] + (w[i] >> 16));
            break;
        }
        case AUDIO_FORMAT_PCM_8_24_BIT: {
            auto *out = static_cast<int32_t *>(raw);
            if (!accumulate) {
                for (size_t i = 0; i < samples; ++i) out[i] = w[i] >> 8;
                break;
            }
            // A plain 32-bit sum, wrapping as the hardware does rather than overflowing.
            for (size_t i = 0; i < samples; ++i) {
                out[i] = static_cast<int32_t>(static_cast<uint32_t>(out[i]) +
                                              static_cast<uint32_t>(w[i] >> 8));
            }
            break;
        }
        case AUDIO_FORMAT_PCM_32_BIT: {
            auto *out = static_cast<int32_t *>(raw);
            if (!accumulate) {
                std::memcpy(out, w, samples * sizeof(int32_t));
                break;
            }
            for (size_t i = 0; i < samples; ++i) out[i] = sorn::sat_i32(int64_t{out[i]} + w[i]);
            break;
        }
        default:
            break;  // configure accepts no other format
    }
}

void ramp(int32_t *buf, int frames, float gain, float step, bool down) {
    if (buf == nullptr || frames < 1) return;
    for (int k = 0; k < frames; ++k) {
        if (down) gain -= step;
        buf[2 * k] = sorn::sat_f2i32(static_cast<float>(buf[2 * k]) * gain);
        buf[2 * k + 1] = sorn::sat_f2i32(static_cast<float>(buf[2 * k + 1]) * gain);
        if (!down) gain += step;
    }
}

}  // namespace

void rampdown_stereo_int32(int32_t *buf, int frames) {
    if (frames >= 1) ramp(buf, frames, 1.0f, 1.0f / static_cast<float>(frames), true);
}

void rampup_stereo_int32(int32_t *buf, int frames) {
    if (frames >= 1) ramp(buf, frames, 0.0f, 1.0f / static_cast<float>(frames), false);
}

int32_t process(effect_handle_t self, audio_buffer_t *inBuffer, audio_buffer_t *outBuffer) {
    auto *ctx = reinterpret_cast<sorn_hp_context_t *>(self);
    if (ctx == nullptr || inBuffer == nullptr || outBuffer == nullptr ||
        inBuffer->raw == nullptr || outBuffer->raw == nullptr) {
        return -22;
    }
    const size_t frames = inBuffer->frameCount;
    if (frames == 0 || outBuffer->frameCount != frames || ctx->configured != 1) return -22;

    // The buffers only grow, and only for a call longer than any before it (and than the
    // configuration announced): a stream that changes between sizes it has had costs nothing.
    if (ctx->work_buffer == nullptr || frames > ctx->buffer_frames) {
        SORN_LOGD(kTag, "%p numFrames change to %zu, accessMode %d", static_cast<void *>(ctx),
                  frames, ctx->config.outputCfg.accessMode);
        if (reserve_buffers(ctx, frames) != 0) return -22;
    }
    ctx->frame_count = static_cast<uint32_t>(frames);
    const size_t samples = size_t{ctx->frame_count} * 2;
    const size_t bytes = samples * sizeof(int32_t);
    convert_input(ctx, inBuffer->raw, samples);

    if (update_silence(ctx)) {
        struct timeval start;
        sorn_hp_stat_begin(&start);

        if (ctx->active != ctx->prev_active && ctx->xfade_remaining == 0) {
            ctx->xfade_remaining = ctx->xfade_length;
        }
        if (ctx->xfade_remaining >= 1) std::memcpy(ctx->dry_buffer, ctx->work_buffer, bytes);
        sorn_hp_dump_input(ctx);

        int32_t now = 0;
        if ((ctx->active & 1) != 0 || ctx->prev_active == 1) {
            sorn_hp_wrapper_process(ctx->wrapper, ctx->work_buffer, bytes);
            now = ctx->active;
        }
        if (ctx->xfade_remaining >= 1) crossfade(ctx, now);
        if (now != ctx->prev_active && ctx->xfade_remaining == 0) {
            ctx->prev_active = static_cast<uint8_t>(now);
        }

        const int frame_count = static_cast<int>(ctx->frame_count);
        if (ctx->mute == kFadingOut) {
            SORN_LOGD(kTag, "%p rampdown %d", static_cast<void *>(ctx), 1);
            rampdown_stereo_int32(ctx->work_buffer, frame_count);
        } else if (ctx->mute == kSound && ctx->prev_mute == kMuted) {
            SORN_LOGD(kTag, "%p rampup %d", static_cast<void *>(ctx), 0);
            rampup_stereo_int32(ctx->work_buffer, frame_count);
        }
        sorn_hp_dump_output(ctx);
        sorn_hp_stat_end(ctx, &start);
    }
    ctx->prev_mute = ctx->mute;

    const bool accumulate = ctx->config.outputCfg.accessMode == EFFECT_BUFFER_ACCESS_ACCUMULATE &&
                            inBuffer->raw != outBuffer->raw;
    write_output(ctx, ctx->work_buffer, outBuffer->raw, samples, accumulate);
    // Disabled: -61 tells the framework that it may stop calling, which it does at once, so that
    // answer waits until the fade back to the dry signal has ended (prev_active drops to 0 in
    // the call that ends it). An instance that was not heard has nothing to fade.
    if (ctx->state == 2 || ctx->prev_active == 1) return 0;
    return -61;
}
