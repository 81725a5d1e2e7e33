// Shape-preserving piecewise cubic Hermite interpolation in float and in double.
//
// Both precisions share one set of templates, so the float interpolant and the double twin
// run the same operations in the same order. The secants and the interval widths are kept in
// the c3 and c2 arrays until the coefficients replace them, so building needs no temporaries.

#include "design/cubic_interp.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

template <typename T>
int sign(T v) {
    return (v > T(0)) - (v < T(0));
}

// h[k] = x[k+1] - x[k], delta[k] = (y[k+1] - y[k]) / h[k], for k < n - 1.
template <typename T>
void secants(const T *x, const T *y, T *h, T *delta, int n) {
    for (int k = 0; k < n - 1; ++k) {
        h[k] = x[k + 1] - x[k];
        delta[k] = (y[k + 1] - y[k]) / h[k];
    }
}

// Slope at an end knot from a three-point formula. h0/delta0 belong to the end interval,
// h1/delta1 to its neighbour. The slope is zeroed if it points against the end secant, and
// limited to three times that secant where the data turns, so the end cubic cannot overshoot.
template <typename T>
T end_slope(T h0, T h1, T delta0, T delta1) {
    T d = (delta0 * (h1 + T(2) * h0) - h0 * delta1) / (h1 + h0);
    if (sign(d) != sign(delta0)) {
        d = T(0);
    } else if (sign(delta1) != sign(delta0) && std::fabs(d) > std::fabs(T(3) * delta0)) {
        d = T(3) * delta0;
    }
    return d;
}

template <typename T>
void slopes(const T *x, const T *delta, T *d, int n) {
    if (n == 2) {  // a straight line
        d[0] = delta[0];
        d[1] = delta[0];
        return;
    }
    for (int k = 1; k < n - 1; ++k) {
        const T a = delta[k - 1];
        const T b = delta[k];
        if (a == T(0) || b == T(0) || sign(a) != sign(b)) {
            d[k] = T(0);  // a local extreme or a flat side: no overshoot
            continue;
        }
        // Weighted harmonic mean of the two secants, the weights favouring the shorter side.
        const T h0 = x[k] - x[k - 1];
        const T h1 = x[k + 1] - x[k];
        const T hs = h0 + h1;
        const T w1 = (h0 + hs) / (T(3) * hs);
        const T w2 = (h1 + hs) / (T(3) * hs);
        const T dmax = std::fmax(std::fabs(a), std::fabs(b));
        const T dmin = std::fmin(std::fabs(a), std::fabs(b));
        d[k] = dmin / (w1 * (a / dmax) + w2 * (b / dmax));
    }
    d[0] = end_slope(x[1] - x[0], x[2] - x[1], delta[0], delta[1]);
    d[n - 1] = end_slope(x[n - 1] - x[n - 2], x[n - 2] - x[n - 3], delta[n - 2], delta[n - 3]);
}

// c0 = y and c1 = d at every knot; c2, c3 per interval. h and delta may be c2 and c3: entry k
// of both is read before entry k is written.
template <typename T>
void coefficients(const T *y, const T *d, const T *h, const T *delta, int n, T *c0, T *c1, T *c2,
                  T *c3) {
    for (int k = 0; k < n - 1; ++k) {
        const T hk = h[k];
        const T a = (delta[k] - d[k]) / hk;
        const T b = (d[k + 1] - delta[k]) / hk;
        c2[k] = T(2) * a - b;
        c3[k] = (b - a) / hk;
    }
    for (int k = 0; k < n; ++k) {
        c0[k] = y[k];
        c1[k] = d[k];
    }
}

template <typename T>
T evaluate(int n, const T *x, const T *c0, const T *c1, const T *c2, const T *c3, T xq) {
    int k = n - 2;
    for (int j = 1; j <= n - 2; ++j) {
        if (xq <= x[j]) {
            k = j - 1;
            break;
        }
    }
    const T s = xq - x[k];
    return (c0[k] + s * c1[k]) + s * (s * c2[k]) + s * (s * (s * c3[k]));
}

// Fills a record whose arrays hold at least n entries. Assumes n >= 2.
template <typename T, typename Record>
void build(Record *r, const T *x, const T *y, int n) {
    secants(x, y, r->c2, r->c3, n);
    slopes(x, r->c3, r->c1, n);
    coefficients(y, r->c1, r->c2, r->c3, n, r->c0, r->c1, r->c2, r->c3);
    if (r->x != x) std::memmove(r->x, x, sizeof(T) * static_cast<size_t>(n));
    r->n = n;
}

template <typename T, typename Record>
void evaluate_all(const Record *r, const T *xq, T *yq, int m) {
    for (int i = 0; i < m; ++i) yq[i] = evaluate(r->n, r->x, r->c0, r->c1, r->c2, r->c3, xq[i]);
}

void free_interp(cubicinterp_t *r) {
    std::free(r->c3);
    std::free(r->c2);
    std::free(r->c1);
    std::free(r->c0);
    std::free(r->x);
    std::free(r);
}

}  // namespace

extern "C" {

void *cubicinterp_init(float *x, float *y, int n) {
    if (x == nullptr || y == nullptr || n < 2) return nullptr;
    auto *r = static_cast<cubicinterp_t *>(std::calloc(1, sizeof(cubicinterp_t)));
    if (r == nullptr) return nullptr;
    const size_t count = static_cast<size_t>(n);
    r->c3 = static_cast<float *>(std::calloc(count, sizeof(float)));
    r->c2 = static_cast<float *>(std::calloc(count, sizeof(float)));
    r->c1 = static_cast<float *>(std::calloc(count, sizeof(float)));
    r->c0 = static_cast<float *>(std::calloc(count, sizeof(float)));
    r->x = static_cast<float *>(std::calloc(count, sizeof(float)));
    if (!r->c3 || !r->c2 || !r->c1 || !r->c0 || !r->x) {
        free_interp(r);
        return nullptr;
    }
    build(r, x, y, n);
    return r;
}

void cubicinterp_process(void *interp, float *xq, float *yq, int m) {
    if (interp == nullptr || xq == nullptr || yq == nullptr || m < 1) return;
    evaluate_all(static_cast<const cubicinterp_t *>(interp), xq, yq, m);
}

void cubicinterp_deinit(void *interp) {
    if (interp != nullptr) free_interp(static_cast<cubicinterp_t *>(interp));
}

void pchip_init(Poly *poly, double *x, double *y, int n) {
    if (poly == nullptr || x == nullptr || y == nullptr || n < 2 || n > poly->n) return;
    if (!poly->c3 || !poly->c2 || !poly->c1 || !poly->c0 || !poly->x) return;
    build(poly, x, y, n);
}

void pchipslopes(double *x, double * /*y*/, double *delta, double *d, int n) {
    if (x == nullptr || delta == nullptr || d == nullptr || n < 2) return;
    slopes(x, delta, d, n);
}

void pwch(double * /*x*/, double *y, double *d, double *h, double *delta, int n, Poly *poly) {
    if (y == nullptr || d == nullptr || h == nullptr || delta == nullptr || poly == nullptr ||
        n < 2)
        return;
    if (!poly->c3 || !poly->c2 || !poly->c1 || !poly->c0) return;
    coefficients(y, d, h, delta, n, poly->c0, poly->c1, poly->c2, poly->c3);
}

void pchip_process(Poly *poly, double *xq, double *yq, int m) {
    if (poly == nullptr || xq == nullptr || yq == nullptr || m < 1 || poly->n < 2) return;
    if (!poly->c3 || !poly->c2 || !poly->c1 || !poly->c0 || !poly->x) return;
    evaluate_all(poly, xq, yq, m);
}

}  // extern "C"
