/*
 * Processing chain: one stereo instance of the signal path. Per block, in place on two int32
 * planes on the 24-bit scale (full scale +-2^23): the left and right FIR filters (one stereo
 * stage, both channels through one pair of transforms), stereo surround, compressor, RMS
 * limiter. Also the default FIR table (the design's taps for a flat 0 dB
 * target) and the operation that loads it into a FIR parameter record.
 *
 * A new chain has both FIR filters and the surround off, the compressor on at unity volume with
 * a two-block look-ahead (so its first two output blocks are silent) and the limiter on.
 *
 * Contract
 *  - sorn_hp_effect_init takes the stream rate and the channel count. Fewer than 2 channels is
 *    refused with an ERROR line and a null result. If a FIR record or its buffers, or the
 *    compressor or either of its channels, cannot be made, init frees everything it made and
 *    returns null without a message. A surround or limiter whose creation returns null is kept
 *    as null: its operations skip it, so that block is simply absent from the path.
 *  - sorn_hp_effect_core_process allocates nothing, never logs, never blocks. `frames` must be
 *    the block length of the chain's rate class (220 at 44100 Hz, 240 at the other accepted
 *    rates); a null plane or frames below 1 leaves the planes and every block untouched.
 *  - sorn_hp_effect_frc_setparameter recomputes both filters' spectra (on the command path)
 *    and clears their history; reset clears every block's signal history and
 *    keeps all settings.
 *  - Every operation but init and earadapt_params_fill_bypass accepts a null chain and then
 *    does nothing; the record given to frc_setparameter and fill_bypass must be valid.
 */
#ifndef SORN_DSP_SORN_HP_EFFECT_H
#define SORN_DSP_SORN_HP_EFFECT_H

#include <stdint.h>

#include "dsp/compressor.h"
#include "dsp/fir.h"
#include "dsp/stereo_fir.h"
#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

/* The default FIR table: 513 Q23 taps, shared read-only by every instance. */
extern const int32_t sorn_default_fir_table[ORLA_FIR_TAPS];

typedef struct sorn_hp_effect_s {
    uint32_t sample_rate;             /* Hz, as given to init */
    SampleRateType sample_rate_type;  /* 0: 44100, 2: 96000, 3: 192000, 1: any other rate */
    stereo_fir_t *fir;                /* the left and the right FIR filter, owned */
    void *surround;                   /* stereo surround handle, owned */
    compressor_t *compressor;         /* owned */
    void *limiter;                    /* RMS limiter handle, owned */
} sorn_hp_effect_t;

SORN_EXPORT void *sorn_hp_effect_init(unsigned int sample_rate, int chnnum);
SORN_EXPORT void sorn_hp_effect_end(void *chain);
SORN_EXPORT void sorn_hp_effect_reset(void *chain);
SORN_EXPORT void sorn_hp_effect_frc_setparameter(void *chain, orla_earadapt_params_t *params);
SORN_EXPORT void sorn_hp_effect_ss_setparameter(void *chain, int status, int frequency, int depth);
SORN_EXPORT void sorn_hp_effect_core_process(void *chain, int *left, int *right, int frames);
SORN_EXPORT void earadapt_params_fill_bypass(orla_earadapt_params_t *params);

SORN_EXTERN_C_END

#endif /* SORN_DSP_SORN_HP_EFFECT_H */
