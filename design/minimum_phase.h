/*
 * Minimum-phase FIR synthesis, in double precision.
 *
 *  - qelFft: in-place radix-2 complex FFT on interleaved doubles (re at 2m, im at 2m + 1),
 *    unscaled in both directions; sign -1 is the forward transform, +1 the backward one.
 *  - coef_transform: shapes the fixed 513-tap linear-phase prototype low-pass (symmetric,
 *    centred on tap 256 = 0.85, taps summing to 0.999954) by a gain curve in dB, one gain per
 *    bin 0..n/2-1; bin n-1-k takes the gain of bin k.
 *  - minimum_phase_get_prototype: copies the first min(n, 513) prototype taps to out.
 *  - line2mp: the minimum-phase equivalent of a filter (same magnitude on 8192 bins, energy at
 *    the start) by the real cepstrum.
 * The taps are reproducible to the last bit: the twiddles come from one cos/sin pair per stage
 * and a running product, and every step keeps its order of operations.
 *
 * Bounds and failures (nothing is ever read or written out of bounds):
 *  - qelFft refuses (does nothing) when buf is NULL or n is not a positive power of two.
 *  - coef_transform refuses when gain_db or out is NULL or n is not a power of two of at
 *    least 513 (so 1024 or more); it writes min(nout, n) outputs and leaves any further
 *    entries of out as they were.
 *  - minimum_phase_get_prototype does nothing for a NULL out or n < 1.
 *  - line2mp refuses when in or out is NULL; it uses at most 8192 input taps and writes at most
 *    8192 outputs (nin and nout are clamped), leaving out[8192..nout-1] as they were.
 *  - If work memory cannot be allocated, coef_transform and line2mp refuse: out is untouched.
 * Non-finite inputs propagate (a NaN gain makes every output NaN; a spectral zero gives
 * non-finite taps). The design allocates its work memory on the heap (about 256 KiB for
 * line2mp): it runs on the command path, never on the audio path. Nothing logs; there is no
 * shared mutable state, so calls may run on any thread.
 */
#ifndef SORN_DESIGN_MINIMUM_PHASE_H
#define SORN_DESIGN_MINIMUM_PHASE_H

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

#define SORN_PROTOTYPE_TAPS 513
#define SORN_LINE2MP_POINTS 8192

SORN_EXPORT void qelFft(double *buf, int n, int sign);
SORN_EXPORT void coef_transform(float *gain_db, int n, double *out, int nout);
SORN_EXPORT void line2mp(const double *in, int nin, double *out, int nout);
SORN_EXPORT void minimum_phase_get_prototype(double *out, int n);

SORN_EXTERN_C_END

#endif /* SORN_DESIGN_MINIMUM_PHASE_H */
