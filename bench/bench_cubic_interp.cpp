// Cubic interpolation as the curve update uses it: 14 knots, 512 query frequencies.
// Build + evaluate in float (what the design runs), evaluation alone, and the double twin.

#include "design/cubic_interp.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr int kKnots = 14;
constexpr int kQueries = 512;

struct Grid {
    std::vector<float> x{0, 60, 125, 250, 500, 1000, 2000, 3000, 4000, 6000, 8000, 12000, 16000, 22000};
    std::vector<float> y{2, 2, 1.5f, 0, -1, -2, 0.5f, 3, 4, 2, -1, -3, -2, -2};
    std::vector<float> q, out;
    Grid() : q(kQueries), out(kQueries) {
        for (int k = 0; k < kQueries; ++k) q[k] = k * 48000.0f / 1024.0f;
    }
};

void BM_FloatInitAndProcess(benchmark::State &state) {
    Grid g;
    for (auto _ : state) {
        void *p = cubicinterp_init(g.x.data(), g.y.data(), kKnots);
        cubicinterp_process(p, g.q.data(), g.out.data(), kQueries);
        cubicinterp_deinit(p);
        benchmark::DoNotOptimize(g.out.data());
    }
}
BENCHMARK(BM_FloatInitAndProcess);

void BM_FloatProcessOnly(benchmark::State &state) {
    Grid g;
    void *p = cubicinterp_init(g.x.data(), g.y.data(), kKnots);
    for (auto _ : state) {
        cubicinterp_process(p, g.q.data(), g.out.data(), kQueries);
        benchmark::DoNotOptimize(g.out.data());
    }
    cubicinterp_deinit(p);
}
BENCHMARK(BM_FloatProcessOnly);

void BM_DoubleTwinInitAndProcess(benchmark::State &state) {
    Grid g;
    std::vector<double> x(g.x.begin(), g.x.end()), y(g.y.begin(), g.y.end());
    std::vector<double> q(g.q.begin(), g.q.end()), out(kQueries);
    std::vector<double> c3(kKnots), c2(kKnots), c1(kKnots), c0(kKnots), xs(kKnots);
    for (auto _ : state) {
        Poly poly = {kKnots, c3.data(), c2.data(), c1.data(), c0.data(), xs.data()};
        pchip_init(&poly, x.data(), y.data(), kKnots);
        pchip_process(&poly, q.data(), out.data(), kQueries);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_DoubleTwinInitAndProcess);

}  // namespace
