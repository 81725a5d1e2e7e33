/*
 * The client parameter block and the status record, and the wrapper operations that take and
 * report them.
 *
 * sorn_hp_params_t: 73 little-endian 32-bit words (292 bytes): the lc/hp/ea switches, the
 * surround switch, 5 reserved words, then the lc (12), hp (12) and ea (8) frequency and gain
 * tables. sorn_hp_status_t: lc, hp, ea, the effective surround switch and the wrapper state.
 *
 * sorn_hp_wrapper_set_parameters reads all 292 bytes at `params` (any alignment; a null block
 * or handle, or a wrapper in state 0, is ignored). It runs on the command path: it designs FIR
 * taps, allocates and logs there, and never runs inside process. get_parameters writes the 20
 * bytes of the status record to `out` unless the handle or `out` is null or the state is 0.
 */
#ifndef SORN_WRAPPER_SORN_HP_PARAMS_H
#define SORN_WRAPPER_SORN_HP_PARAMS_H

#include <stdint.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

#define SORN_HP_LC_POINTS 12
#define SORN_HP_HP_POINTS 12
#define SORN_HP_EA_POINTS 8

typedef struct {
    int32_t lc;
    int32_t hp;
    int32_t ea;
    int32_t ss;
    int32_t reserved[5];
    uint32_t lc_freq[SORN_HP_LC_POINTS];
    int32_t lc_gain[SORN_HP_LC_POINTS];
    uint32_t hp_freq[SORN_HP_HP_POINTS];
    int32_t hp_gain[SORN_HP_HP_POINTS];
    uint32_t ea_freq[SORN_HP_EA_POINTS];
    int32_t ea_gain[SORN_HP_EA_POINTS];
} sorn_hp_params_t;

typedef struct {
    int32_t lc;
    int32_t hp;
    int32_t ea;
    int32_t ss;
    int32_t state;
} sorn_hp_status_t;

SORN_EXPORT void sorn_hp_wrapper_set_parameters(void *handle, void *params);
SORN_EXPORT void sorn_hp_wrapper_get_parameters(void *handle, void *out);

SORN_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(sorn_hp_params_t) == 292, "the parameter block is 292 bytes");
static_assert(sizeof(sorn_hp_status_t) == 20, "the status record is 20 bytes");
#endif

#endif /* SORN_WRAPPER_SORN_HP_PARAMS_H */
