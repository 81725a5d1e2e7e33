/*
 * Processing chain: one stereo instance of the signal path. Per block, in place on two int32
 * planes on the 24-bit scale (full scale +-2^23): FIR left, FIR right, stereo surround,
 * compressor, RMS limiter. Also the default FIR table (the design's taps for a flat 0 dB
 * target) and the operation that loads it into a FIR parameter record.
 *
 * sorn_hp_effect_core_process allocates nothing and never logs; every operation but init and
 * earadapt_params_fill_bypass accepts a null chain and then does nothing. `frames` must be the
 * block length of the chain's rate class (220 at 44100 Hz, 240 at the other accepted rates).
 */
#ifndef SORN_DSP_SORN_HP_EFFECT_H
#define SORN_DSP_SORN_HP_EFFECT_H

#include <stdint.h>

#include "dsp/fir.h"
#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

/* The default FIR table: 513 Q23 taps, shared read-only by every instance. */
extern const int32_t sorn_default_fir_table[ORLA_FIR_TAPS];

typedef struct sorn_hp_effect_s sorn_hp_effect_t;

SORN_EXPORT void *sorn_hp_effect_init(unsigned int sample_rate, int chnnum);
SORN_EXPORT void sorn_hp_effect_end(void *chain);
SORN_EXPORT void sorn_hp_effect_reset(void *chain);
SORN_EXPORT void sorn_hp_effect_frc_setparameter(void *chain, orla_earadapt_params_t *params);
SORN_EXPORT void sorn_hp_effect_ss_setparameter(void *chain, int status, int frequency, int depth);
SORN_EXPORT void sorn_hp_effect_core_process(void *chain, int *left, int *right, int frames);
SORN_EXPORT void earadapt_params_fill_bypass(orla_earadapt_params_t *params);

SORN_EXTERN_C_END

#endif /* SORN_DSP_SORN_HP_EFFECT_H */
