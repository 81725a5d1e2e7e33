/*
 * Process handler: slot 1 of the effect interface record.
 *
 * process(self, in, out) converts the framework's interleaved stereo buffer to 32-bit samples
 * (full scale 2^31), runs it through the processing wrapper while the processed output is
 * wanted, cross-fades over 2048 frames whenever that changes, stops processing after
 * 5000 frames of digital silence (fading the last processed block out and the first sounding
 * one in) and writes or accumulates the result into `out` in the configured format.
 * Results: 0 when enabled; after DISABLE 0 as long as the fade back to the dry signal runs
 * and -61 from the call in which it ends (at once when the processed output was not being
 * heard); the buffer is processed and written either way. -22 for a refused call (null
 * pointers, frame count 0 or differing, not configured, or working buffers that cannot be
 * grown), which touches nothing, output included.
 *
 * Output stage: float w * 2^-31 (accumulated sums limited to [-1, 1], a NaN already in the
 * output becomes 0); 16-bit w >> 16 (accumulated sums saturated); 8.24 w >> 8 (accumulated
 * sums wrap as plain 32-bit integers); 32-bit w (accumulated sums saturated). Accumulation
 * applies only to separate input and output buffers; in place is always overwritten.
 * Float input that is NaN or infinite never reaches the chain or the output as such, on any
 * processor: a NaN counts as silence (0) and an infinity as the rail of its sign; other floats
 * beyond full scale are clamped by the conversion. Finite float input costs one vectorized scan.
 * 8.24 input, which the platform's conversion leaves unconverted, is widened here (v << 8,
 * saturating); the other formats go through the platform's memcpy_by_audio_format.
 *
 * The working buffers, sized by the configuration, grow only for a call longer than any before
 * it (at most 2^24 frames per call), once per new largest size, and never shrink; on failure the
 * old buffers stay and the call is refused. Otherwise process never allocates, locks or blocks,
 * whatever sizes the calls alternate between, and logs only when its buffers grow, at the
 * silence fades and at the end of each statistics period. The dump (diagnosis only) writes
 * files.
 *
 * rampdown_stereo_int32 / rampup_stereo_int32(buf, frames): linear fade of interleaved stereo
 * int32 frames in place over the whole block (down: frame k gets 1 - (k+1)/frames; up: k/frames),
 * the gain stepped in single precision; products truncate toward zero, saturating. Nothing for
 * frames below 1 or a null buffer.
 */
#ifndef SORN_EFFECT_SORN_HP_PROCESS_H
#define SORN_EFFECT_SORN_HP_PROCESS_H

#include <stdint.h>

#include <hardware/audio_effect.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

SORN_EXPORT int32_t process(effect_handle_t self, audio_buffer_t *inBuffer,
                            audio_buffer_t *outBuffer);
SORN_EXPORT void rampdown_stereo_int32(int32_t *buf, int frames);
SORN_EXPORT void rampup_stereo_int32(int32_t *buf, int frames);

SORN_EXTERN_C_END

#endif /* SORN_EFFECT_SORN_HP_PROCESS_H */
