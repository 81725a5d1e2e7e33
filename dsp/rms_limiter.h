/*
 * RMS limiter and the float dynamic processor behind it.
 *
 * The dynamic processor (sa6_dynamic_processor_*) is a block-based dynamics unit on float
 * samples (full scale 1.0). Per block it measures the peak or RMS level, smooths it with one
 * attack or release coefficient per block, computes a gain in dB on a soft-knee curve, limits
 * it, adds make-up gain and moves the applied gain linearly toward the target, holding after
 * every change of direction. Kinds (`type`): 0 peak limiter, 1 RMS expander, 2 peak expander,
 * 3 RMS compressor, 4 peak compressor, anything else a peak limiter. Times count 48 samples
 * per millisecond whatever the stream rate.
 *
 * The RMS limiter is the chain's last stage: two independent processors, one per int32 plane
 * (full scale +-2^23), set as an RMS compressor at -13 dB, ratio 10, at most 9 dB of reduction,
 * 2000 ms detector times, 1000 ms gain ramps with 100 ms holds and a 0.2 knee. It has no bypass.
 *
 * Contract
 *  - rms_limiter_init is the only operation that allocates (calloc). rms_limiter_process,
 *    sa6_dynamic_processor_process_f and process_stereo_f allocate nothing, never log, never
 *    print and never block. set_param_f, set_param_acdb_f and setstatus_f print their
 *    "[SA6_SBS]" status lines on standard output (not the platform log).
 *  - Every operation accepts a null state or handle and then does nothing; getters then leave
 *    their output alone. The processors work on caller-allocated records.
 *  - `in` may equal `out` (and in1/in2 may equal out1/out2).
 *  - enable_flag is stored and reported; it never stops processing.
 *  - rms_limiter_process maps a chain sample x to x * 2^-23 and back by y * (2^23 - 1), so at
 *    unity gain every sample with 0 < |x| <= 2^23 moves one step toward zero. Conversions to
 *    int32 truncate toward zero and saturate.
 *
 * Decisions on points the algorithm leaves open
 *  - Block lengths need not be a multiple of 4: detection and gain loops cover exactly
 *    `frames` samples and never touch memory past the block. The level sum runs in sample
 *    order. A block of 0 samples (or a negative count, taken as 0) is detected as silence and
 *    still advances the detector, the gain target and the hold, like any other block.
 *  - Divisors. A `ratio` of 0 or below, or NaN, has no meaning: set_param_f and
 *    set_param_acdb_f refuse the whole record, log a WARN line ("%s: ratio %f unsupported,
 *    parameters unchanged") and keep every previous setting; nothing is printed. Zero or
 *    negative times have a natural meaning and are clamped instead. A gain ramp shorter than
 *    one sample (gain_attack or gain_release below 1/48 ms, 0, negative and NaN included)
 *    jumps to the target at the first sample after the hold. A knee width that would come out
 *    negative or NaN (knee <= 0) is stored as 0, a hard knee: the knee region is then empty
 *    and never divides. A detector time of 0 or below (or NaN) gives a coefficient of 1: the
 *    detector follows each block at once. The times themselves are stored as given.
 *  - A NaN level (NaN samples given to the float operations) is detected as silence (1e-6),
 *    so it cannot poison the detector state. A gain target that comes out NaN leaves the gain
 *    where it is.
 *  - Failed allocations: rms_limiter_init frees whatever it had made and returns null,
 *    without a log line (as for the wrapper record itself); the chain then passes audio
 *    through. Its processing never allocates, so nothing can fail later.
 */
#ifndef SORN_DSP_RMS_LIMITER_H
#define SORN_DSP_RMS_LIMITER_H

#include <stdint.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

/* Parameters of one dynamic processor. Times in ms, levels and gains in dB. */
typedef struct {
    int32_t enable_flag;
    int32_t type;
    float threshold;         /* dB relative to a full scale of 1.0 */
    float ratio;
    float det_attack;        /* detector time for a rising level */
    float det_release;       /* detector time for a falling level */
    float gain_attack;       /* ramp time for a falling gain */
    float gain_hold_attack;  /* hold before a falling gain moves */
    float gain_release;      /* ramp time for a rising gain */
    float gain_hold_release; /* hold before a rising gain moves */
    float gain_min;
    float gain_max;
    float gain_makeup;       /* added after the limits */
    float knee;              /* knee width as a fraction of 2 |threshold| */
} sa6_dynamic_processor_param_t;

/* State of one dynamic processor. */
typedef struct {
    int32_t enable_flag;
    int32_t type;
    float volume; /* the detected level is divided by this unless it is 0 */
    float threshold;
    float ratio;
    float det_attack;
    float det_release;
    float det_attack_coef;  /* derived from det_attack */
    float det_release_coef; /* derived from det_release */
    float gain_attack;
    float gain_hold_attack;
    float gain_release;
    float gain_hold_release;
    float gain_min;
    float gain_max;
    float gain_makeup;
    float knee;
    float knee_width;   /* derived: 2 |threshold| knee, dB, never below 0 */
    float det_level;    /* smoothed detector level, linear */
    float gain_current; /* gain at the end of the last block, linear */
    int32_t hold_count; /* samples left in which the gain is held */
    int32_t ramp_state; /* 0 none, 1 falling (attack), 2 rising (release) */
} sa6_dynamic_processor_t;

/* The stereo limiter: one processor and its parameter record per plane. */
typedef struct {
    sa6_dynamic_processor_t *proc_left;
    sa6_dynamic_processor_param_t *param_left;
    sa6_dynamic_processor_t *proc_right;
    sa6_dynamic_processor_param_t *param_right;
} rms_limiter_t;

/* Returns a new limiter, or null when channels < 2 (logged) or an allocation fails. The rate
   is accepted but changes no time constant. */
SORN_EXPORT void *rms_limiter_init(int sample_rate, int channels);
SORN_EXPORT void rms_limiter_reset(void *handle);
SORN_EXPORT void rms_limiter_process(void *handle, int *left, int *right, int frames);
SORN_EXPORT void rms_limiter_deinit(void *handle);

SORN_EXPORT void sa6_dynamic_processor_init_f(sa6_dynamic_processor_t *state);
SORN_EXPORT void sa6_dynamic_processor_set_param_f(sa6_dynamic_processor_t *state,
                                                   sa6_dynamic_processor_param_t *param);
SORN_EXPORT void sa6_dynamic_processor_get_param_f(sa6_dynamic_processor_t *state,
                                                   sa6_dynamic_processor_param_t *param);
SORN_EXPORT void sa6_dynamic_processor_reset_f(sa6_dynamic_processor_t *state);
SORN_EXPORT void sa6_dynamic_processor_end_f(sa6_dynamic_processor_t *state);
SORN_EXPORT void sa6_dynamic_processor_setstatus_f(sa6_dynamic_processor_t *state, int status);
SORN_EXPORT void sa6_dynamic_processor_getstatus_f(sa6_dynamic_processor_t *state, int *status);
SORN_EXPORT void sa6_dynamic_processor_set_volume_f(sa6_dynamic_processor_t *state, float volume);
SORN_EXPORT void sa6_dynamic_processor_get_volume_f(sa6_dynamic_processor_t *state,
                                                    float *volume);
SORN_EXPORT void sa6_dynamic_processor_process_f(sa6_dynamic_processor_t *state, float *in,
                                                 float *out, int frames);
/* Peak and RMS of a block, each clamped to [1e-6, 20]; 1e-6 for an empty block. */
SORN_EXPORT void sa6_dynamic_processor_find_current_max_f(float *samples, float *peak,
                                                          float *rms, int frames);
/* Stereo-linked processing: detection on the mid signal, one gain for both channels. */
SORN_EXPORT void sa6_dynamic_processor_process_stereo_f(sa6_dynamic_processor_t *state,
                                                        float *in1, float *in2, float *out1,
                                                        float *out2, int frames);
SORN_EXPORT void sa6_dynamic_processor_find_current_max_stereo_f(float *in1, float *in2,
                                                                 float *peak, float *rms,
                                                                 int frames);
/* Fixed-point configuration, fields in parameter-record order: enable_flag and type as they
   are; threshold, ratio, the detector and gain times and knee Q15; gain_min, gain_max and
   gain_makeup Q13. */
SORN_EXPORT void sa6_dynamic_processor_set_param_acdb_f(sa6_dynamic_processor_t *state,
                                                        int32_t *params);
SORN_EXPORT void sa6_dynamic_processor_get_param_acdb_f(sa6_dynamic_processor_t *state,
                                                        int32_t *params);

SORN_EXTERN_C_END

#endif /* SORN_DSP_RMS_LIMITER_H */
