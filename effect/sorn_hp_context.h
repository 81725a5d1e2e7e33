/*
 * Effect instance context and configuration.
 *
 * sorn_hp_context_t is one effect instance; the framework's effect handle points to it, so its
 * first field is the interface record. The context owns its working and dry buffers, its copy of
 * the client parameter block and the processing wrapper made for the configured sample rate.
 *
 * configure(ctx, config): takes the framework's stream configuration. Accepted only with stereo
 * in and out, input access READ, output access WRITE or ACCUMULATE, and equal input and output
 * formats that the output stage can write (16-bit, 32-bit, 8.24, float). Anything else is
 * refused with -22, a WARN line naming the failed check, `configured` cleared and nothing else
 * changed (the old wrapper, format and config stay). 8-bit, packed 24-bit and unknown formats
 * are refused so that the framework falls back to float or 16-bit. A differing rate is only a
 * notice; the input rate is used.
 * An accepted configuration also gives the working buffers room for the larger of the two
 * buffer.frameCount values (1200 frames when both are 0, at most one second of audio, 48000
 * frames; process grows them for a longer call), so that process allocates nothing for calls
 * of the size the framework announced; the buffers never shrink. A configuration whose buffers
 * cannot be allocated is refused like an invalid one ("configure: no memory for %u frames").
 * init(ctx, rate): keeps the wrapper for an unchanged rate, otherwise makes a new one and hands
 * it the stored parameter block; re-reads the dump property "audio.sorn.hp.dump" and restarts
 * the statistics period (5 x rate frames). -22 when the wrapper cannot be made.
 * reserve_buffers(ctx, frames): gives both working buffers room for at least `frames` stereo
 * frames, growing them only (up to 2^24 frames); -22 with the old buffers kept when that cannot
 * be done. Allocates only when it grows them.
 * set_default_config(ctx): stores the configuration a new instance reports before any
 * SET_CONFIG: the context's rate and format (48 kHz, 32-bit at creation), stereo, input READ,
 * output ACCUMULATE, every mask bit, no buffer. configure accepts it unchanged; storing it
 * does not count as configured.
 * is_support_effect: the output is wanted only for one supported headphone-type device (exact
 * value, not a bit test), normal mode, parameters loaded, enabled, bypass off and configured.
 *
 * device, mode and format hold the platform's enumeration types; the framework's integers
 * (the SET_DEVICE and SET_AUDIO_MODE words, the configuration's 8-bit format) are converted
 * once where they are read, so the library builds against the platform's C++ headers. A mode
 * word that names no mode (outside -2..6) is kept as AUDIO_MODE_INVALID.
 *
 * configure and init run on the command path: they may allocate, log and design filters (via
 * the wrapper). The predicates are pure. Nothing here locks; the framework never runs command
 * and process of one instance at the same time.
 */
#ifndef SORN_EFFECT_SORN_HP_CONTEXT_H
#define SORN_EFFECT_SORN_HP_CONTEXT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <hardware/audio_effect.h>
#include <system/audio.h>
#include <system/audio_effect.h>

#include "platform/sorn_export.h"
#include "wrapper/sorn_hp_params.h"

#define SORN_HP_EFFECT_NAME "SORN HP For Ambrel"
#define SORN_HP_EFFECT_VERSION "Release 20260104_1.23"
#define SORN_HP_DUMP_PROPERTY "audio.sorn.hp.dump"

SORN_EXTERN_C_BEGIN

typedef struct sorn_hp_context_s {
    const struct effect_interface_s *interface; /* must stay first: the handle points here */
    effect_config_t config;                     /* last accepted configuration */
    int32_t state;                              /* 0 released, 1 initialised, 2 enabled */
    uint8_t enabled;
    uint8_t bypass;
    uint8_t configured;
    audio_devices_t device;                     /* last SET_DEVICE value, as sent */
    audio_mode_t mode;                          /* last SET_AUDIO_MODE value */
    uint32_t sample_rate;                       /* rate the wrapper was made for */
    uint32_t frame_count;                       /* frames of the current process call */
    audio_format_t format;                      /* format of the framework's buffers */
    int32_t mute;                               /* 0 sound, 1 fading out, 2 muted */
    int32_t prev_mute;
    uint32_t silent_frames;
    uint32_t mute_threshold;
    uint8_t active;                             /* processed output wanted */
    uint8_t prev_active;                        /* what the output currently is */
    int32_t xfade_length;
    int32_t xfade_remaining;
    int32_t *dry_buffer;                        /* buffer_frames stereo int32 frames */
    int32_t *work_buffer;                       /* buffer_frames stereo int32 frames */
    uint32_t buffer_frames;                     /* room in each buffer; never shrinks */
    void *wrapper;
    sorn_hp_params_t *params;                   /* exactly one parameter block once loaded */
    int32_t params_loaded;
    int32_t dump_pcm;
    int32_t stat_loops;
    int32_t stat_frames;
    int32_t stat_interval;
    int64_t stat_total_us;
    int64_t stat_max_us;
} sorn_hp_context_t;

SORN_EXPORT int32_t configure(sorn_hp_context_t *ctx, effect_config_t *config);
SORN_EXPORT int32_t init(sorn_hp_context_t *ctx, uint32_t sampleRate);
SORN_EXPORT int32_t reserve_buffers(sorn_hp_context_t *ctx, size_t frames);
SORN_EXPORT void set_default_config(sorn_hp_context_t *ctx);
SORN_EXPORT bool is_support_effect(sorn_hp_context_t *ctx);
SORN_EXPORT bool is_support_device(audio_devices_t device);
SORN_EXPORT bool is_support_audiomode(audio_mode_t mode);

SORN_EXTERN_C_END

#endif /* SORN_EFFECT_SORN_HP_CONTEXT_H */
