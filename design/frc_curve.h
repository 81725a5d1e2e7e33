/*
 * Compensation curve design: turns the lc, hp and ea point tables into the 513 Q23 taps of
 * the FIR filters. Works on plain inputs only; the wrapper's update_frc_params is its entry
 * from a wrapper record.
 *
 * frc_design(in, taps, report) takes the stream rate, the three group switches and their point
 * tables. Each group whose switch is at least 1 becomes a curve on the 512 lower bins of a
 * 1024-point FFT at that rate (f[k] = k * rate / 1024): a shape-preserving cubic through
 * (0 Hz, first gain), the table points, (22000 Hz, last gain), with bin 0 set to the first gain.
 * The curves are added in dB (lc, then hp, then ea), each bin is limited to -6..+7 dB, the
 * prototype low-pass is shaped by the sum (coef_transform, 1024 points), made minimum phase
 * (line2mp) and converted to Q23 by truncation into taps[0..512]. With no group in use the
 * taps are exactly the default FIR table.
 *
 * Tables the interpolant cannot take as they stand. A table whose frequencies are strictly
 * increasing and strictly between 0 and 22000 Hz is used exactly as it stands. Any other table
 * (zero padding, repeated frequencies, points out of order, a point at 0 or 22000 Hz) is first
 * repaired, and the report says so for that group:
 *   - frequencies outside 0..22000 Hz are clamped into that range;
 *   - the points are ordered by frequency;
 *   - points with the same frequency merge into one knot whose gain is the mean of their gains
 *     (so the result does not depend on the order in which duplicates were sent);
 *   - a point at 0 Hz or at 22000 Hz takes the place of the added end knot there; otherwise the
 *     end knots repeat the gain of the lowest and of the highest point, as for a clean table.
 * If fewer than 3 knots remain (for example every point at 0 Hz), a cubic cannot be built: the
 * group contributes 0 dB (its report shows fewer than 3 knots). A not-a-number never reaches
 * the taps: a bin whose sum is not a number is designed at 0 dB.
 *
 * Returns 1 with all 513 taps written, or 0 and taps untouched when `in` or `taps` is null or
 * the transforms cannot get their work memory. `report` may be null; when given, it is filled
 * in either case.
 *
 * clac_frc_curve evaluates one interpolant of nknots knots on the grid
 * freq_out[k] = rate * k / (2 * npoints), k < npoints. It takes the knots as given (strictly
 * increasing x expected) and does no repair; with fewer than 3 knots it writes the grid and a
 * flat 0 dB curve. Null pointers or npoints < 1: nothing is written.
 *
 * Both run on the command path only: they allocate (through the interpolant and the
 * minimum-phase design). Neither logs; no shared mutable state, so calls may run on any thread.
 */
#ifndef SORN_DESIGN_FRC_CURVE_H
#define SORN_DESIGN_FRC_CURVE_H

#include <stdint.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

#define FRC_DESIGN_TAPS 513
#define FRC_DESIGN_LC_POINTS 12
#define FRC_DESIGN_HP_POINTS 12
#define FRC_DESIGN_EA_POINTS 8

/* Group order in the report: lc, hp, ea. */
enum { FRC_GROUP_LC = 0, FRC_GROUP_HP = 1, FRC_GROUP_EA = 2, FRC_GROUPS = 3 };

typedef struct {
    int32_t sample_rate; /* Hz: spacing of the design grid */
    int32_t lc, hp, ea;  /* a group is used when its switch is at least 1 */
    int32_t lc_freq[FRC_DESIGN_LC_POINTS], lc_gain[FRC_DESIGN_LC_POINTS]; /* Hz, whole dB */
    int32_t hp_freq[FRC_DESIGN_HP_POINTS], hp_gain[FRC_DESIGN_HP_POINTS];
    int32_t ea_freq[FRC_DESIGN_EA_POINTS], ea_gain[FRC_DESIGN_EA_POINTS];
} frc_design_input_t;

typedef struct {
    int32_t knots[FRC_GROUPS];    /* knots the group's curve came from; 0 for a group not used */
    int32_t repaired[FRC_GROUPS]; /* 1 when the group's table was repaired first */
} frc_design_report_t;

SORN_EXPORT int frc_design(const frc_design_input_t *in, int32_t *taps,
                           frc_design_report_t *report);
SORN_EXPORT void clac_frc_curve(float *x, float *y, float *freq_out, float *curve_out, int nknots,
                                int npoints, int sample_rate);

SORN_EXTERN_C_END

#endif /* SORN_DESIGN_FRC_CURVE_H */
