/*
 * Diagnostics of the process handler: raw PCM dumps of the working block and the
 * processing-time statistics.
 *
 * raw_write(path, data, size): appends `size` bytes to `path` (opened "ab+" and closed again on
 * every call); a file that cannot be opened is skipped silently.
 * sorn_hp_dump_input / sorn_hp_dump_output: when the instance's `dump_pcm` is set, append the
 * working block (frame_count stereo int32 frames, 8 bytes each, machine byte order) to
 * "/data/vendor/audio/sorn_hp_<context>_<rate>_in.pcm" or "..._out.pcm". Otherwise nothing.
 * sorn_hp_stat_begin / sorn_hp_stat_end: time one processed call; every stat_interval frames
 * (five seconds of audio) log the number of calls, the total and longest time and the mean per
 * call at DEBUG, then start a new period.
 *
 * Called from the audio path. The statistics never allocate or block and log only at the end
 * of a period; the dump does file I/O on every processed call and is meant for diagnosis only
 * (off unless the property "audio.sorn.hp.dump" was non-zero at the last configuration).
 */
#ifndef SORN_EFFECT_SORN_HP_DIAG_H
#define SORN_EFFECT_SORN_HP_DIAG_H

#include <stddef.h>
#include <sys/time.h>

#include "effect/sorn_hp_context.h"
#include "platform/sorn_export.h"

#define SORN_HP_DUMP_DIR "/data/vendor/audio"

SORN_EXTERN_C_BEGIN

SORN_EXPORT void raw_write(const char *path, const void *data, size_t size);
SORN_EXPORT void sorn_hp_dump_input(const sorn_hp_context_t *ctx);
SORN_EXPORT void sorn_hp_dump_output(const sorn_hp_context_t *ctx);
SORN_EXPORT void sorn_hp_stat_begin(struct timeval *start);
SORN_EXPORT void sorn_hp_stat_end(sorn_hp_context_t *ctx, const struct timeval *start);

SORN_EXTERN_C_END

#endif /* SORN_EFFECT_SORN_HP_DIAG_H */
