// Shape-preserving cubic interpolation: the worked cases, knots and extrapolation, the n < 3
// choices, the float curve against the double twin, and both against an independent
// Fritsch-Butland reference evaluated on the Hermite basis.

#include "design/cubic_interp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

struct Interp {
    void *handle;
    Interp(std::vector<float> x, std::vector<float> y)
        : handle(cubicinterp_init(x.data(), y.data(), static_cast<int>(x.size()))) {}
    ~Interp() { cubicinterp_deinit(handle); }
    const cubicinterp_t &rec() const { return *static_cast<const cubicinterp_t *>(handle); }
    float at(float q) const {
        float out = NAN;
        cubicinterp_process(handle, &q, &out, 1);
        return out;
    }
};

// The knots are passed by temporaries: the interpolant must have copied them. Queries on
// interior knots use the interval to their left and must land on the knot's value.
TEST(CubicInterp, WorkedCases) {
    const struct {
        const char *name;
        std::vector<float> x, y, slopes;
        std::vector<std::pair<float, float>> points;  // query, value
    } cases[] = {
        {"flat", {0, 100, 200}, {5, 5, 5}, {0, 0, 0},
         {{-1000, 5}, {0, 5}, {37, 5}, {100, 5}, {150, 5}, {200, 5}, {1e4f, 5}}},
        {"monotone", {0, 1, 2, 3}, {0, 1, 4, 9}, {}, {{0, 0}, {1, 1}, {2, 4}, {3, 9}}},
        {"peak", {0, 1, 2}, {0, 1, 0}, {2, 0, -2},
         {{0.5f, 0.75f}, {1, 1}, {1.5f, 0.75f}, {-1, -3}, {3, -3}}},
        {"end slope limited", {0, 1, 2}, {0, 1, -5}, {3, 0, -9.5f}, {{0.5f, 0.875f}, {1.5f, -0.8125f}}},
        {"end slope zeroed", {0, 1, 2}, {0, 1, 10}, {0, 1.8f, 13}, {{0.5f, 0.275f}}},
        {"two knots: a line", {1, 3}, {2, 6}, {2, 2}, {{-1, -2}, {2, 4}, {3, 6}, {10, 20}}},
    };
    for (const auto &c : cases) {
        Interp f(c.x, c.y);
        ASSERT_NE(f.handle, nullptr) << c.name;
        for (size_t k = 0; k < c.slopes.size(); ++k)
            EXPECT_NEAR(f.rec().c1[k], c.slopes[k], 1e-6f) << c.name << " slope " << k;
        for (const auto &[q, want] : c.points)
            EXPECT_NEAR(f.at(q), want, 2e-6f * std::max(1.0f, std::fabs(want))) << c.name << " at " << q;
    }
}

TEST(CubicInterp, RefusedKnotsAndNullArguments) {
    float x1[] = {1}, y1[] = {2};
    EXPECT_EQ(cubicinterp_init(x1, y1, 1), nullptr);
    EXPECT_EQ(cubicinterp_init(nullptr, y1, 3), nullptr);
    Interp line({1, 3}, {2, 6});
    float q = 1.0f, out = -7.0f;
    cubicinterp_process(nullptr, &q, &out, 1);
    cubicinterp_process(line.handle, &q, &out, 0);
    cubicinterp_process(line.handle, nullptr, &out, 1);
    EXPECT_EQ(out, -7.0f);
    cubicinterp_deinit(nullptr);

    double x[] = {0, 1, 2}, y[] = {0, 1, 0}, c3[3], c2[3], c1[3], c0[3] = {42}, xs[3];
    Poly small = {2, c3, c2, c1, c0, xs};  // a record too small for the knots is left alone
    pchip_init(&small, x, y, 3);
    EXPECT_EQ(c0[0], 42);
}

struct Table {
    std::vector<double> x, y;
};

// Knots representable in float, so the float and double curves see one table.
Table random_table(std::mt19937 &rng, bool monotone) {
    std::uniform_real_distribution<double> gap(1.0, 3000.0), gain(-12.0, 12.0);
    Table t;
    double x = gap(rng) / 10.0, y = gain(rng);
    for (int k = 0, n = 3 + int(rng() % 14); k < n; ++k) {
        t.x.push_back(static_cast<float>(x));
        t.y.push_back(static_cast<float>(y));
        x += gap(rng);
        y = monotone ? y + std::fabs(gain(rng)) / 4 : gain(rng);
    }
    return t;
}

// Fritsch-Butland slopes (weighted harmonic mean of the secants, three-point end slopes with
// the shape limits) and Hermite basis evaluation, written independently in double.
double reference(const Table &t, double q) {
    const size_t n = t.x.size();
    std::vector<double> h(n - 1), del(n - 1), d(n, 0.0);
    for (size_t k = 0; k + 1 < n; ++k) {
        h[k] = t.x[k + 1] - t.x[k];
        del[k] = (t.y[k + 1] - t.y[k]) / h[k];
    }
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
    while (k + 2 < n && q > t.x[k + 1]) ++k;
    const double hk = h[k], s = (q - t.x[k]) / hk;
    const double h00 = (1 + 2 * s) * (1 - s) * (1 - s), h10 = s * (1 - s) * (1 - s);
    const double h01 = s * s * (3 - 2 * s), h11 = s * s * (s - 1);
    return h00 * t.y[k] + h10 * hk * d[k] + h01 * t.y[k + 1] + h11 * hk * d[k + 1];
}

TEST(CubicInterp, FloatDoubleAndReferenceAgreeAndNeverOvershoot) {
    std::mt19937 rng(20240611);
    for (int trial = 0; trial < 200; ++trial) {
        const Table t = random_table(rng, trial % 4 == 0);  // every fourth monotone
        const int n = static_cast<int>(t.x.size());
        Interp f(std::vector<float>(t.x.begin(), t.x.end()), std::vector<float>(t.y.begin(), t.y.end()));
        std::vector<double> c3(n), c2(n), c1(n), c0(n), xs(n), xd = t.x, yd = t.y;
        Poly poly = {n, c3.data(), c2.data(), c1.data(), c0.data(), xs.data()};
        pchip_init(&poly, xd.data(), yd.data(), n);

        // Queries across the knots and one interval beyond each end.
        const double lo = 2 * t.x[0] - t.x[1], hi = 2 * t.x[n - 1] - t.x[n - 2];
        std::vector<double> q(401), outd(q.size());
        for (size_t i = 0; i < q.size(); ++i) q[i] = static_cast<float>(lo + (hi - lo) * i / 400);
        std::vector<float> qf(q.begin(), q.end()), outf(q.size());
        cubicinterp_process(f.handle, qf.data(), outf.data(), static_cast<int>(q.size()));
        pchip_process(&poly, q.data(), outd.data(), static_cast<int>(q.size()));

        for (size_t i = 0; i < q.size(); ++i) {
            const double want = reference(t, q[i]);
            ASSERT_NEAR(outd[i], want, 1e-9 * (1 + std::fabs(want))) << "trial " << trial << " q " << q[i];
            ASSERT_NEAR(outf[i], outd[i], 3e-5 * (1 + std::fabs(want))) << "trial " << trial << " q " << q[i];
            if (q[i] < t.x[0] || q[i] > t.x[n - 1]) continue;
            size_t k = 0;
            while (k + 2 < t.x.size() && q[i] > t.x[k + 1]) ++k;
            ASSERT_LE(outd[i], std::max(t.y[k], t.y[k + 1]) + 1e-9) << "trial " << trial;
            ASSERT_GE(outd[i], std::min(t.y[k], t.y[k + 1]) - 1e-9) << "trial " << trial;
        }
    }
}

}  // namespace
