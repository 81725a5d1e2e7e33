/*
 * FFT FIR filter: one channel of int32 samples through up to (fft_size - block + 1) taps by
 * overlap-save fast convolution, in single precision, on Ne10's complex FFT. Also the FIR
 * parameter record that carries the taps of both channels, and the sample-rate classes.
 *
 * Taps are Q23 (8388608 = 1.0), tap 0 multiplies the newest sample. The filter adds no latency.
 * fir_process allocates nothing and never logs; fir_init and fir_update_param allocate.
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
    int32_t fft_size;  /* N, length of every array below */
    int32_t in_offset; /* where each new block is written: N - block length */
    int32_t *param;    /* N Q23 taps as last stored */
    int32_t *history;  /* overlap-save frame, oldest first */
    ne10_fft_cfg_float32_t fft_cfg;
    ne10_fft_cpx_float32_t *filter_spec; /* spectrum of the taps */
    ne10_fft_cpx_float32_t *time_buf;
    ne10_fft_cpx_float32_t *freq_buf;
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
