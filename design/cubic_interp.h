/*
 * Shape-preserving piecewise cubic Hermite interpolation, the curve behind the compensation
 * design: between knots x[k] and x[k+1] the curve is
 *   p(xq) = c0[k] + c1[k] s + c2[k] s^2 + c3[k] s^3,  s = xq - x[k],
 * with c0 = y and c1 = the knot slopes, chosen so the curve never overshoots the data: a
 * monotone run of points gives a monotone curve, a flat run a flat curve, and a local extreme
 * of the points stays at its knot (interior slopes are a weighted harmonic mean of the
 * neighbouring secants, 0 where they differ in sign or one is 0; end slopes come from a
 * three-point formula, zeroed or limited to three times the end secant).
 *
 * Single precision: cubicinterp_init(x, y, n) builds an interpolant and returns it as an
 * untyped handle (a cubicinterp_t); cubicinterp_process(handle, xq, yq, m) writes
 * yq[i] = p(xq[i]); cubicinterp_deinit(handle) frees it.
 * Double precision: the same curve on a caller-made Poly (pchip_init, pchip_process), with
 * the slope rules and the coefficient step also callable alone (pchipslopes, pwch).
 *
 * Knots. The caller passes x strictly increasing; it is not checked. Equal neighbours divide
 * by zero and make the coefficients of that interval infinite or not-a-number (the compensation
 * curve update repairs its tables before they get here). n >= 3 uses the full slope rules.
 * n == 2 is a straight line through both points (both slopes are the secant). n < 2 cannot be
 * built: cubicinterp_init returns null and pchip_init does nothing.
 *
 * Evaluation. A query uses the first interval whose right knot is >= xq, or the last one;
 * queries outside [x[0], x[n-1]] continue the outer cubics (nothing is clamped), and a
 * not-a-number query uses the last interval and yields not-a-number.
 *
 * Resources. cubicinterp_init allocates the record and its five arrays (zero-filled) and no
 * temporaries; if any allocation fails it frees what it got and returns null. Nothing else
 * allocates. Nothing here logs, locks or blocks. A null handle, null arrays or m < 1 make
 * process and deinit do nothing. The knots are copied: the caller's arrays may go away after
 * init. An interpolant is immutable after init, so evaluating one from several threads is safe.
 */
#ifndef SORN_DESIGN_CUBIC_INTERP_H
#define SORN_DESIGN_CUBIC_INTERP_H

#include <stdint.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

/* The single-precision interpolant behind the handle. Arrays hold n entries; the coefficient
   arrays use entries 0..n-2, one per interval. */
typedef struct {
    int32_t n;  /* knot count */
    float *c3;  /* cubic coefficients */
    float *c2;  /* quadratic coefficients */
    float *c1;  /* slopes at the knots, d[k] */
    float *c0;  /* values at the knots, y[k] */
    float *x;   /* copy of the knots */
} cubicinterp_t;

SORN_EXPORT void *cubicinterp_init(float *x, float *y, int n);
SORN_EXPORT void cubicinterp_process(void *interp, float *xq, float *yq, int m);
SORN_EXPORT void cubicinterp_deinit(void *interp);

/* The double-precision interpolant. The caller allocates the five arrays with at least `n`
   entries each and sets n to that length. */
typedef struct {
    int32_t n;
    double *c3;
    double *c2;
    double *c1;
    double *c0;
    double *x;
} Poly;

/* Builds the curve through (x[k], y[k]), k < n, into poly: copies the knots into poly->x and
   poly->c0, the slopes into poly->c1, the coefficients into poly->c2 and poly->c3, and sets
   poly->n = n. Does nothing if a pointer is null, n < 2 or n exceeds poly->n. */
SORN_EXPORT void pchip_init(Poly *poly, double *x, double *y, int n);

/* Knot slopes d[0..n-1] from the knots and the secant slopes delta[k] =
   (y[k+1] - y[k]) / (x[k+1] - x[k]), k < n - 1. y is not read. n == 2: d[0] = d[1] = delta[0];
   n < 2 or a null pointer: nothing. */
SORN_EXPORT void pchipslopes(double *x, double *y, double *delta, double *d, int n);

/* Coefficients from the slopes: poly->c0[k] = y[k] and c1[k] = d[k] for k < n, and per
   interval k < n - 1, with a = (delta[k] - d[k]) / h[k] and b = (d[k+1] - delta[k]) / h[k]:
   c2[k] = 2a - b and c3[k] = (b - a) / h[k]. h and delta may be poly->c2 and poly->c3 themselves
   (each entry is read before it is overwritten). x is not read; poly->n and poly->x are left
   alone. n < 2 or a null pointer: nothing. */
SORN_EXPORT void pwch(double *x, double *y, double *d, double *h, double *delta, int n, Poly *poly);

/* yq[i] = p(xq[i]) for i < m, exactly as cubicinterp_process evaluates, in double. Does
   nothing for a null pointer, m < 1 or poly->n < 2. */
SORN_EXPORT void pchip_process(Poly *poly, double *xq, double *yq, int m);

SORN_EXTERN_C_END

#endif /* SORN_DESIGN_CUBIC_INTERP_H */
