// Compressor cost per 240-frame stereo block at 48 kHz, as the processing chain runs it.
#include "dsp/compressor.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

constexpr int kBlock = 240;

struct Setup {
    compressor_t comp{};
    std::vector<int> left, right, in;
    explicit Setup(double amplitude) : left(kBlock), right(kBlock), in(kBlock) {
        compressor_init(&comp, 8192, 2);
        compressor_set_sample_rate(&comp, 1);
        compressor_set_volume(&comp, 8192);
        compressor_setstatus(&comp, 1);
        for (int i = 0; i < kBlock; ++i)
            in[i] = static_cast<int>(amplitude * std::sin(2 * M_PI * 1000.0 * i / 48000.0));
    }
    ~Setup() { compressor_end(&comp); }
    void block() {
        left = in;
        right = in;
        compressor_process(&comp, left.data(), right.data(), left.data(), right.data(), kBlock);
        benchmark::DoNotOptimize(left.data());
        benchmark::DoNotOptimize(right.data());
    }
};

// arg: 0 = quiet tone (no reduction), 1 = near full scale (reduction active), 2 = silence (gate)
void BM_CompressorProcess(benchmark::State& state) {
    const double amplitude[] = {838860.0, 8304721.0, 0.0};
    Setup s(amplitude[state.range(0)]);
    for (int i = 0; i < 100; ++i) s.block(); /* past the start-up fade */
    for (auto _ : state) s.block();
    state.SetItemsProcessed(state.iterations() * kBlock);
}
BENCHMARK(BM_CompressorProcess)->Arg(0)->Arg(1)->Arg(2);

// The copy of the input into the planes alone, to subtract from the figures above.
void BM_PlaneCopyOnly(benchmark::State& state) {
    Setup s(838860.0);
    for (auto _ : state) {
        s.left = s.in;
        s.right = s.in;
        benchmark::DoNotOptimize(s.left.data());
        benchmark::DoNotOptimize(s.right.data());
    }
}
BENCHMARK(BM_PlaneCopyOnly);

}  // namespace
