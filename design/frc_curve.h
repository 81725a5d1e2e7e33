/*
 * Compensation curve update: turns the wrapper's lc, hp and ea point tables into the 513 Q23
 * taps of both FIR filters.
 *
 * update_frc_params(wrapper) reads sample_rate, lc, hp, ea and the six point tables from the
 * record. Each group whose switch is at least 1 becomes a curve on the 512 lower bins of a
 * 1024-point FFT at the stream rate (f[k] = k * rate / 1024): a shape-preserving cubic through
 * (0 Hz, first gain), the table points, (22000 Hz, last gain), with bin 0 set to the first gain.
 * The curves are added in dB (lc, then hp, then ea), each bin is limited to -6..+7 dB, the
 * prototype low-pass is shaped by the sum (coef_transform, 1024 points), made minimum phase
 * (line2mp) and converted to Q23 by truncation. The same taps go to frc.coef_left and
 * frc.coef_right; frc.enable is left alone. With no group in use the taps are exactly the
 * default FIR table.
 *
 * Tables the interpolant cannot take as they stand. A table whose frequencies are strictly
 * increasing and strictly between 0 and 22000 Hz is used exactly as it stands. Any other table
 * (zero padding, repeated frequencies, points out of order, a point at 0 or 22000 Hz) is first
 * repaired, and one WARN line under "ORLA_SORN" names the group:
 *   - frequencies outside 0..22000 Hz (possible only when the record is filled directly; the
 *     parameter block rejects them) are clamped into that range;
 *   - the points are ordered by frequency;
 *   - points with the same frequency merge into one knot whose gain is the mean of their gains
 *     (so the result does not depend on the order in which duplicates were sent);
 *   - a point at 0 Hz or at 22000 Hz takes the place of the added end knot there; otherwise the
 *     end knots repeat the gain of the lowest and of the highest point, as for a clean table.
 * If fewer than 3 knots remain (for example every point at 0 Hz), a cubic cannot be built: the
 * group contributes 0 dB, with a second WARN line. A not-a-number never reaches the taps: a
 * bin whose sum is not a number is designed at 0 dB, and if the transforms cannot get their work
 * memory the default FIR table is written instead (WARN "design failed"), never zeros.
 *
 * clac_frc_curve evaluates one interpolant of nknots knots on the grid
 * freq_out[k] = rate * k / (2 * npoints), k < npoints. It takes the knots as given (strictly
 * increasing x expected) and does no repair; with fewer than 3 knots it writes the grid and a
 * flat 0 dB curve. Null pointers or npoints < 1: nothing is written.
 *
 * Both functions run on the command path only: they allocate (through the interpolant and the
 * minimum-phase design) and update_frc_params may log. A null wrapper is ignored. Not for the
 * audio path.
 */
#ifndef SORN_DESIGN_FRC_CURVE_H
#define SORN_DESIGN_FRC_CURVE_H

#include "platform/sorn_export.h"
#include "wrapper/sorn_hp_wrapper.h"

SORN_EXTERN_C_BEGIN

SORN_EXPORT void update_frc_params(sorn_hp_wrapper_t *wrapper);
SORN_EXPORT void clac_frc_curve(float *x, float *y, float *freq_out, float *curve_out, int nknots,
                                int npoints, int sample_rate);

SORN_EXTERN_C_END

#endif /* SORN_DESIGN_FRC_CURVE_H */
