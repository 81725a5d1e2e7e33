/*
 * Processing wrapper: frames interleaved callbacks of any whole number of frames into 5 ms
 * blocks (220 frames at 44100 Hz, 240 at the other accepted rates, 44050..48050 Hz), converts
 * between the caller's sample format and the chain's 24-bit scale, runs the active chain (and
 * the standby chain during a parameter switch), and returns the block with a fixed latency of
 * block_size - 1 frames. Trips into permanent pass-through when the chain silences audible input.
 *
 * Takes: a sample rate, a format type (1: int16; 2 and 4: int32 on the 24-bit scale; 3: int32
 * with full scale 2^31; anything else is handled like 2 and stored as 0) and a channel count.
 * Only 2 channels and rates 44050..48050 Hz are processed; any other value leaves the wrapper
 * in state 0, where every buffer passes untouched.
 *
 * States: 0 bypass (never processes), 1 ready (no parameters yet: pass-through without
 * latency), 2 running, 3 switching (the standby chain warms up for three blocks on the same
 * input and is cross-faded in during the fourth; then the chains swap and the state is 2 again).
 *
 * Guarantees:
 *  - sorn_hp_wrapper_process allocates nothing, takes no lock, does no I/O and logs only the
 *    one-off mute trip. Everything it uses is allocated by init.
 *  - Output frame n carries processed input frame n - (block_size - 1), whatever the callback
 *    sizes; the first block_size - 1 frames after processing starts are zeros. Neither reset nor
 *    a parameter change moves this phase. The chain's own look-ahead (two blocks) comes on top.
 *  - A size that is not a whole number of frames: the whole frames are processed and the
 *    trailing bytes are left exactly as they were (also by the format conversions).
 *  - Every operation but init accepts a null handle and then does nothing. init returns null
 *    only when the record itself cannot be allocated; any other failure gives state 0.
 *  - A negative sample rate counts as outside the accepted range (compared as unsigned) and is
 *    printed as its unsigned 32-bit value in the refusal line.
 *
 * Never: runs set-parameters, reset or deinit concurrently with process on the same handle
 * (the caller serialises them); shares state between wrappers except the read-only default
 * FIR table.
 */
#ifndef SORN_WRAPPER_SORN_HP_WRAPPER_H
#define SORN_WRAPPER_SORN_HP_WRAPPER_H

#include <stdint.h>

#include "dsp/fir.h"
#include "platform/sorn_export.h"
#include "wrapper/sorn_hp_params.h"

SORN_EXTERN_C_BEGIN

/* Single-channel sample FIFO; kind 16 = int16 elements, 32 = int32, 48 = float. */
typedef struct {
    int32_t sample_bits;
    int32_t capacity;
    int32_t fill;
    int32_t read_pos;
    int32_t write_pos;
    void *data;
} sorn_ringbuf_t;

typedef struct {
    int32_t state; /* 0 bypass, 1 ready, 2 running, 3 switching */
    int32_t enable;
    int32_t chnnum;
    int32_t sample_rate;
    int32_t format_type;
    int32_t sample_bits;
    int32_t sample_bytes;
    int32_t block_size;
    sorn_ringbuf_t in_l, in_r, out_l, out_r;
    int16_t *pcm16_l, *pcm16_r;
    int32_t *work_l, *work_r;
    int32_t lc, hp, ea, ss;
    int32_t lc_freq[SORN_HP_LC_POINTS], lc_gain[SORN_HP_LC_POINTS];
    int32_t hp_freq[SORN_HP_HP_POINTS], hp_gain[SORN_HP_HP_POINTS];
    int32_t ea_freq[SORN_HP_EA_POINTS], ea_gain[SORN_HP_EA_POINTS];
    int32_t ss_status, ss_frequency, ss_depth;
    orla_earadapt_params_t frc;
    void *effect_active;
    void *effect_standby;
    int32_t *xfade_l, *xfade_r;
    int32_t switch_count;
    int32_t in_active_blocks;
    int32_t out_silent_blocks;
} sorn_hp_wrapper_t;

SORN_EXPORT void *sorn_hp_wrapper_init(int sample_rate, int format_type, int chnnum);
SORN_EXPORT void sorn_hp_wrapper_deinit(void *handle);
SORN_EXPORT void sorn_hp_wrapper_reset(void *handle);
SORN_EXPORT void sorn_hp_wrapper_process(void *handle, void *buffer, unsigned long size);

SORN_EXTERN_C_END

#endif /* SORN_WRAPPER_SORN_HP_WRAPPER_H */
