/*
 * Compressor: a stereo look-ahead peak limiter with a volume control and a gate for digital
 * silence, in integers. One dynamic range control (DRC) per channel, no linking between them.
 * Each DRC measures the peak and mean magnitude of a block, derives one target gain for it,
 * delays the audio by `lookahead_blocks` blocks and applies a per-sample smoothed gain to the
 * delayed audio, so a loud block's reduction is in place before the block leaves the delay.
 *
 * Scales: samples int32 (chain full scale +-2^23); volume Q13 (8192 = 1.0); gains Q17
 * (131072 = 1.0); peak levels in units of 256 sample steps (a full-scale chain sample is 32767).
 *
 * Contract
 *  - compressor_process, dynamic_range_control_process, find_current_max_drc and
 *    audio_delay_process allocate nothing, never log, never block. Only the *_init functions
 *    allocate (calloc); *_end release everything they own and clear the pointers.
 *  - Every operation accepts a null record and then does nothing (getters leave *out alone).
 *  - in and out may be the same plane.
 *  - Products are formed in 64 bits, shifts are arithmetic, results saturate to int32, and a
 *    sample product that shifts to exactly -1 is written as 0.
 *
 * Decisions on points the algorithm leaves open
 *  - Failed initialisation. dynamic_range_control_init frees whatever it made and leaves
 *    gain_history and delay null; audio_delay_init leaves buffer null and capacity/length 0
 *    (pass-through). compressor_init frees both DRC records and leaves drc_left and drc_right
 *    null when either DRC could not be made, so callers detect a failed compressor by a null
 *    drc_left. A sizing product that does not fit in int32 (look-ahead x frames) counts as a
 *    failed allocation. compressor_process writes nothing unless both DRCs are complete, and
 *    dynamic_range_control_process writes nothing for a DRC whose init failed.
 *  - Negative look-ahead, frame counts and delay lengths act as 0 (no look-ahead, pass-through).
 *  - compressor_set_sample_rate treats an index outside 0..3 as 48 kHz (240 frames), like the
 *    rest of the library does for unlisted rates.
 *  - Attack and release orders are stored as given; when used, a negative order acts as 0 and
 *    an order above 63 as 63, which on the 64-bit envelope difference is the same result any
 *    larger shift would give. No order is undefined behaviour.
 *  - The gate's avg_env x 8192 product and its division are done in 64 bits, so no
 *    denoise_threshold overflows it. A denoise_threshold of 0 or below (reachable only by
 *    writing the field directly) turns the gate off instead of dividing by zero.
 *  - A negative threshold acts as 0 in the gain computation, so the division by the peak
 *    envelope never sees 0.
 *  - The mean magnitude of a block made only of -2147483648 is 2^31, one more than int32 holds;
 *    it saturates to 2147483647 instead of wrapping to a negative mean.
 */
#ifndef SORN_DSP_COMPRESSOR_H
#define SORN_DSP_COMPRESSOR_H

#include <stdint.h>

#include "dsp/fir.h" /* SampleRateType */
#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

/* Circular sample delay. */
typedef struct audio_delay {
    int32_t *buffer;  /* capacity samples, owned */
    int32_t capacity; /* largest possible delay in samples */
    int32_t length;   /* current delay, 0..capacity; 0 passes samples straight through */
    int32_t position; /* slot read and then overwritten next */
} audio_delay;

/* One channel of dynamic range control. */
typedef struct {
    int32_t threshold;         /* level above which the gain is reduced */
    int32_t attack_order;      /* right shift for a rising peak envelope; 0 = at once */
    int32_t release_order;     /* right shift for a falling peak envelope */
    int32_t volume;            /* Q13 */
    int32_t gain;              /* Q17, smoothed per sample toward the block target */
    int32_t peak_env;          /* level units */
    int32_t gate_gain;         /* Q17, smoothed gain of the silence gate */
    int32_t avg_env;           /* envelope of the block mean magnitude, sample units */
    int32_t denoise_threshold; /* mean magnitude below which the gate attenuates */
    int32_t lookahead_blocks;  /* L */
    int32_t *gain_history;     /* L + 1 block targets (Q17), oldest first, owned */
    audio_delay *delay;        /* look-ahead delay line, owned */
} dynamic_range_control_t;

/* The stereo compressor; the caller owns the record, compressor_init fills it. */
typedef struct {
    int32_t status; /* 0: compressor_process does nothing */
    int32_t volume; /* Q13, as last given */
    dynamic_range_control_t *drc_left;
    dynamic_range_control_t *drc_right;
} compressor_t;

SORN_EXPORT void compressor_init(compressor_t *comp, int volume, int lookahead_blocks);
SORN_EXPORT void compressor_set_sample_rate(compressor_t *comp, SampleRateType rate);
SORN_EXPORT void compressor_setstatus(compressor_t *comp, int status);
SORN_EXPORT void compressor_getstatus(compressor_t *comp, int *out);
SORN_EXPORT void compressor_set_volume(compressor_t *comp, int volume);
SORN_EXPORT void compressor_get_volume(compressor_t *comp, int *out);
SORN_EXPORT void compressor_reset(compressor_t *comp);
SORN_EXPORT void compressor_end(compressor_t *comp);
SORN_EXPORT void compressor_process(compressor_t *comp, int *in1, int *in2, int *out1, int *out2,
                                    int frames);

SORN_EXPORT void dynamic_range_control_init(dynamic_range_control_t *drc, int lookahead_blocks,
                                            int max_frames);
SORN_EXPORT void dynamic_range_control_reinit(dynamic_range_control_t *drc, int frames);
SORN_EXPORT void dynamic_range_control_reset(dynamic_range_control_t *drc);
SORN_EXPORT void dynamic_range_control_end(dynamic_range_control_t *drc);
SORN_EXPORT void dynamic_range_control_process(dynamic_range_control_t *drc, int *in, int *out,
                                               int frames);
/* Peak level (largest magnitude >> 8) of a block; writes its mean magnitude to *average. */
SORN_EXPORT int find_current_max_drc(int *samples, int *average, int frames);

SORN_EXPORT void dynamic_range_control_set_threshold(dynamic_range_control_t *drc, int value);
SORN_EXPORT void dynamic_range_control_get_threshold(dynamic_range_control_t *drc, int *out);
/* Stores max(value, 2) and clears avg_env. */
SORN_EXPORT void dynamic_range_control_set_denoise_threshold(dynamic_range_control_t *drc,
                                                             int value);
SORN_EXPORT void dynamic_range_control_get_denoise_threshold(dynamic_range_control_t *drc,
                                                             int *out);
/* Stores the volume and moves gain to volume x 8 (saturated): 8192 gives gain 65536. */
SORN_EXPORT void dynamic_range_control_set_volume(dynamic_range_control_t *drc, int value);
SORN_EXPORT void dynamic_range_control_get_volume(dynamic_range_control_t *drc, int *out);
SORN_EXPORT void dynamic_range_control_set_attact_order(dynamic_range_control_t *drc, int value);
SORN_EXPORT void dynamic_range_control_get_attact_order(dynamic_range_control_t *drc, int *out);
SORN_EXPORT void dynamic_range_control_set_release_order(dynamic_range_control_t *drc, int value);
SORN_EXPORT void dynamic_range_control_get_release_order(dynamic_range_control_t *drc, int *out);

SORN_EXPORT void audio_delay_init(audio_delay *delay, int capacity);
SORN_EXPORT void audio_delay_reinit(audio_delay *delay, int length);
SORN_EXPORT void audio_delay_reset(audio_delay *delay);
SORN_EXPORT void audio_delay_end(audio_delay *delay);
SORN_EXPORT void audio_delay_set_delay(audio_delay *delay, int length);
SORN_EXPORT void audio_delay_get_delay(audio_delay *delay, int *out);
/* Returns the sample delayed by `length` (or the sample itself when length is 0). */
SORN_EXPORT int audio_delay_process(audio_delay *delay, int sample);

SORN_EXTERN_C_END

#endif /* SORN_DSP_COMPRESSOR_H */
