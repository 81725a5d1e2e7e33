/*
 * The wrapper's entry into the compensation curve design.
 *
 * update_frc_params(wrapper) reads sample_rate, lc, hp, ea and the six point tables from the
 * record, designs the taps (frc_design) and writes the same 513 Q23 taps to frc.coef_left and
 * frc.coef_right; frc.enable is left alone. For each group whose table had to be repaired it
 * logs one WARN line under "ORLA_SORN" naming the group and the knot count, and a second one
 * when too few knots remained (the group then adds 0 dB). If the design cannot get its work
 * memory, both tap sets get the default FIR table (WARN "design failed"), never zeros.
 *
 * A null wrapper is ignored. Runs on the command path only (it allocates and may log); never
 * on the audio path.
 */
#ifndef SORN_WRAPPER_SORN_HP_FRC_H
#define SORN_WRAPPER_SORN_HP_FRC_H

#include "platform/sorn_export.h"
#include "wrapper/sorn_hp_wrapper.h"

SORN_EXTERN_C_BEGIN

SORN_EXPORT void update_frc_params(sorn_hp_wrapper_t *wrapper);

SORN_EXTERN_C_END

#endif /* SORN_WRAPPER_SORN_HP_FRC_H */
