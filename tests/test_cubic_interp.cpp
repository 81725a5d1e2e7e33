// Shape-preserving cubic interpolation: the float curve and its double twin against an
// independent Fritsch-Butland reference evaluated on the Hermite basis (which decides the
// documented worked cases), two knots, and the refusals.

#include "design/cubic_interp.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

// Two knots (the reference below needs three) give a line, continued both ways; the
// interpolant keeps its own copy of the knots. Fewer knots, null arguments and a record too
// small for its knots are refused.
TEST(CubicInterp, TwoKnotsAndRefusals) {
    float x[] = {1, 3}, y[] = {2, 6}, q[] = {-1, 2, 3, 10}, out[4] = {}, x1[] = {1}, y1[] = {2};
    void *line = cubicinterp_init(x, y, 2);
    x[1] = y[1] = 0;
    cubicinterp_process(line, q, out, 4);
    for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(out[i], 2 * q[i]) << q[i];
    EXPECT_TRUE(cubicinterp_init(x1, y1, 1) == nullptr && cubicinterp_init(nullptr, y1, 3) == nullptr);
    out[0] = -7.0f;
    cubicinterp_process(nullptr, q, out, 1);
    cubicinterp_process(line, q, out, 0);
    cubicinterp_process(line, nullptr, out, 1);
    EXPECT_EQ(out[0], -7.0f);
    cubicinterp_deinit(line);
    cubicinterp_deinit(nullptr);
    double xd[] = {0, 1, 2}, yd[] = {0, 1, 0}, c3[3], c2[3], c1[3], c0[3] = {42}, xs[3];
    Poly small = {2, c3, c2, c1, c0, xs};  // too small for three knots
    pchip_init(&small, xd, yd, 3);
    EXPECT_EQ(c0[0], 42);
}

// Fritsch-Butland slopes (weighted harmonic mean of the secants, three-point end slopes with
// the shape limits) and Hermite basis evaluation, written independently in double.
double reference(const std::vector<double> &x, const std::vector<double> &y, double q) {
    const size_t n = x.size();
    std::vector<double> h(n - 1), del(n - 1), d(n, 0.0);
    for (size_t k = 0; k + 1 < n; ++k) h[k] = x[k + 1] - x[k], del[k] = (y[k + 1] - y[k]) / h[k];
    for (size_t k = 1; k + 1 < n; ++k) {
        const double w1 = 2 * h[k] + h[k - 1], w2 = h[k] + 2 * h[k - 1];
        if (del[k - 1] * del[k] > 0) d[k] = (w1 + w2) / (w1 / del[k - 1] + w2 / del[k]);
    }
    auto end = [](double h0, double h1, double d0, double d1) {
        double s = ((2 * h0 + h1) * d0 - h0 * d1) / (h0 + h1);
        if (s * d0 <= 0) return 0.0;  // against the end secant, or a flat end
        const bool turns = (d0 > 0) != (d1 > 0) || (d0 < 0) != (d1 < 0);
        return turns && std::fabs(s) > std::fabs(3 * d0) ? 3 * d0 : s;
    };
    d[0] = end(h[0], h[1], del[0], del[1]);
    d[n - 1] = end(h[n - 2], h[n - 3], del[n - 2], del[n - 3]);
    size_t k = 0;
    while (k + 2 < n && q > x[k + 1]) ++k;
    const double hk = h[k], s = (q - x[k]) / hk;
    const double h00 = (1 + 2 * s) * (1 - s) * (1 - s), h10 = s * (1 - s) * (1 - s);
    const double h01 = s * s * (3 - 2 * s), h11 = s * s * (s - 1);
    return h00 * y[k] + h10 * hk * d[k] + h01 * y[k + 1] + h11 * hk * d[k + 1];
}

// Random tables (every fourth monotone) of knots representable in float, so the float and
// double curves see one table; queries across the knots and one interval beyond each end.
// (Agreement with the reference also means no overshoot between the knots.)
TEST(CubicInterp, FloatDoubleAndReferenceAgree) {
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<double> gap(1.0, 3000.0), gain(-12.0, 12.0);
    for (int trial = 0; trial < 200; ++trial) {
        std::vector<double> x{float(gap(rng) / 10.0)}, y{float(gain(rng))};
        for (int k = 1, n = 3 + int(rng() % 14); k < n; ++k)
            x.push_back(float(x.back() + gap(rng))), y.push_back(float(trial % 4 ? gain(rng) : y.back() + std::fabs(gain(rng)) / 4));
        const int n = int(x.size());
        std::vector<float> xf(x.begin(), x.end()), yf(y.begin(), y.end());
        void *f = cubicinterp_init(xf.data(), yf.data(), n);
        std::vector<double> c3(n), c2(n), c1(n), c0(n), xs(n), xd = x, yd = y;
        Poly poly = {n, c3.data(), c2.data(), c1.data(), c0.data(), xs.data()};
        pchip_init(&poly, xd.data(), yd.data(), n);
        const double lo = 2 * x[0] - x[1], hi = 2 * x[n - 1] - x[n - 2];
        std::vector<double> q(401), outd(q.size());
        for (size_t i = 0; i < q.size(); ++i) q[i] = float(lo + (hi - lo) * i / 400);
        std::vector<float> qf(q.begin(), q.end()), outf(q.size());
        cubicinterp_process(f, qf.data(), outf.data(), int(q.size()));
        cubicinterp_deinit(f);
        pchip_process(&poly, q.data(), outd.data(), int(q.size()));
        for (size_t i = 0; i < q.size(); ++i) {
            const double want = reference(x, y, q[i]);
            ASSERT_NEAR(outd[i], want, 1e-9 * (1 + std::fabs(want))) << "trial " << trial << " q " << q[i];
            ASSERT_NEAR(outf[i], outd[i], 3e-5 * (1 + std::fabs(want))) << "trial " << trial << " q " << q[i];
        }
    }
}

}  // namespace
