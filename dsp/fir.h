/*
 * FFT FIR filter: one channel of int32 samples through up to (in_offset + 1) taps by
 * overlap-save fast convolution in single precision on Ne10's complex FFT (N = fft_size
 * points, blocks of N - in_offset samples). Also the FIR parameter record that carries the
 * taps of both channels, and the sample-rate classes.
 *
 * Taps are Q23 (8388608 = 1.0), tap 0 multiplies the newest sample. The filter adds no latency:
 * output sample i of a call is the filtered input sample i of that call. Output is truncated
 * toward zero and saturated to the int32 range (NaN gives 0). in and out of fir_process may be
 * the same buffer.
 *
 * Contract:
 *  - fir_init allocates the plan and the five arrays (all zeroed and 64-byte aligned, so an FFT
 *    backend with SIMD code can run on them directly; a filter switched on before
 *    any fir_update_param outputs silence) and leaves the filter off. If fir is NULL nothing
 *    happens. If fft_size is not a size the FFT supports (>= 1, factors 2, 3, 5 only) or any
 *    allocation fails, everything made is released and the filter stays safely off: all
 *    pointers NULL, status, fft_size and in_offset 0. Its owner detects this by
 *    fft_cfg == NULL. Such a filter (and one after fir_end) ignores every call.
 *    fir_init overwrites the record without releasing anything: call fir_end first to reuse it.
 *  - in_offset is clamped to 0..N-1 (fir_init and fir_set_sample_rate), so a block is never
 *    empty and never longer than the frame.
 *  - fir_set_param, fir_get_param, fir_update_param: n is clamped to N (taps beyond N are not
 *    read, out[N..n-1] is not written); n < 1 stores or copies nothing, and fir_update_param
 *    with n < 1 makes the spectrum all zeros (silence while on). fir_set_param returns 1 when a
 *    stored tap changed, else 0 (also for a NULL taps pointer).
 *  - fir_update_param computes the spectrum in the filter's own work buffers: it allocates
 *    nothing and cannot fail. It and fir_reset clear the history, so the next block starts from
 *    silence.
 *  - fir_process refuses (reads and writes nothing, history stays) when the filter is off,
 *    unusable, in or out is NULL, or n is outside 1..N - in_offset. The block length must stay
 *    the same from call to call. More than in_offset + 1 taps wrap around circularly.
 *  - fir_end releases the plan with ne10_fft_destroy_c2c_float32 and frees the arrays, sets
 *    every pointer to NULL and status to 0; it does not free the record. NULL is ignored.
 *  - fir_process and fir_reset allocate nothing, take no lock and never log; no operation logs.
 *    fir_set_param, fir_update_param and fir_reset must not run at the same time as
 *    fir_process on the same filter; separate filters share nothing.
 */
#ifndef SORN_DSP_FIR_H
#define SORN_DSP_FIR_H

#include <stdint.h>

#include <NE10.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

/* Sample-rate class shared by the rate-dependent blocks; every rate not listed is 48 kHz. */
typedef int SampleRateType;
enum {
    SAMPLE_RATE_TYPE_44K = 0, /* 220-frame blocks */
    SAMPLE_RATE_TYPE_48K = 1, /* 240-frame blocks */
    SAMPLE_RATE_TYPE_96K = 2, /* 480-frame blocks */
    SAMPLE_RATE_TYPE_192K = 3 /* 960-frame blocks */
};

#define ORLA_FIR_TAPS 513

typedef struct {
    int32_t status;    /* 0: off, fir_process does nothing */
    int32_t fft_size;  /* N, length of every array below but history */
    int32_t in_offset; /* where each new block is written: N - block length */
    int32_t *param;    /* N Q23 taps as last stored */
    /* 2N values holding the overlap-save frame: N values from frame_pos on, oldest first, in
       the forward transform's input layout (the transform runs on a copy in time_buf, out of
       place). Each sample is converted to float once, when it arrives
       (imaginary parts 0). The frame moves forward by a block each call and is copied back to
       the start only when it reaches the end, instead of being shifted every call. */
    ne10_fft_cpx_float32_t *history;
    ne10_fft_cfg_float32_t fft_cfg;
    /* Spectrum of the taps, split: N real parts, then N imaginary parts (N complex values of
       storage). */
    ne10_fft_cpx_float32_t *filter_spec;
    ne10_fft_cpx_float32_t *time_buf;
    ne10_fft_cpx_float32_t *freq_buf;
    int32_t frame_pos; /* start of the frame in history, 0..N */
} orla_fir_t;

/* FIR parameter record: one record serves both channels of a chain. */
typedef struct {
    int32_t enable;                   /* copied into the status of both filters */
    int32_t coef_left[ORLA_FIR_TAPS]; /* Q23 */
    int32_t coef_right[ORLA_FIR_TAPS];
} orla_earadapt_params_t;

SORN_EXPORT void fir_init(orla_fir_t *fir, int fft_size, int offset);
SORN_EXPORT void fir_end(orla_fir_t *fir);
SORN_EXPORT void fir_set_sample_rate(orla_fir_t *fir, SampleRateType rate);
SORN_EXPORT void fir_set_status(orla_fir_t *fir, int value);
SORN_EXPORT void fir_get_status(orla_fir_t *fir, int *out);
SORN_EXPORT int fir_set_param(orla_fir_t *fir, int n, int *taps);
SORN_EXPORT void fir_update_param(orla_fir_t *fir, int n);
SORN_EXPORT void fir_get_param(orla_fir_t *fir, int n, int *out);
SORN_EXPORT void fir_reset(orla_fir_t *fir);
SORN_EXPORT void fir_process(orla_fir_t *fir, int *in, int *out, int n);

SORN_EXTERN_C_END

#endif /* SORN_DSP_FIR_H */
