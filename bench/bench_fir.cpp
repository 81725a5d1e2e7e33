// Cost of one 240-sample block through the 513-tap FFT FIR, against a direct time-domain
// convolution of the same block and against one raw 1024-point transform of the FFT backend.
// The single-channel filter runs a forward and an inverse transform per channel; the stereo
// filter, which the chain uses, runs one of each for both channels of a block. So two raw
// transforms bound what a stereo block can reach.
#include <benchmark/benchmark.h>

#include <NE10.h>

#include <random>
#include <vector>

#include "dsp/fir.h"
#include "dsp/sorn_hp_effect.h"
#include "dsp/stereo_fir.h"

namespace {

constexpr int kBlock = 240;
constexpr int kTaps = ORLA_FIR_TAPS;

std::vector<int> noise(int n) {
    std::mt19937 gen(1);
    std::uniform_int_distribution<int> d(-(1 << 23), 1 << 23);
    std::vector<int> v(n);
    for (int &s : v) s = d(gen);
    return v;
}

std::vector<int> default_taps() {
    static orla_earadapt_params_t params{};
    earadapt_params_fill_bypass(&params);
    return std::vector<int>(params.coef_left, params.coef_left + kTaps);
}

void BM_FirProcess(benchmark::State &state) {
    std::vector<int> taps = default_taps();
    orla_fir_t fir{};
    fir_init(&fir, 1024, 784);
    fir_set_sample_rate(&fir, SAMPLE_RATE_TYPE_48K);
    fir_set_param(&fir, kTaps, taps.data());
    fir_update_param(&fir, kTaps);
    fir_set_status(&fir, 1);
    const std::vector<int> input = noise(kBlock);
    std::vector<int> block(kBlock);
    for (auto _ : state) {
        block = input;
        fir_process(&fir, block.data(), block.data(), kBlock);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetItemsProcessed(state.iterations() * kBlock);
    fir_end(&fir);
}

// Both channels of a block, the same taps on each (the chain's usual case).
void BM_StereoFirProcess(benchmark::State &state) {
    std::vector<int> taps = default_taps();
    stereo_fir_t fir{};
    stereo_fir_init(&fir, 1024, 784);
    stereo_fir_set_sample_rate(&fir, SAMPLE_RATE_TYPE_48K);
    stereo_fir_set_taps(&fir, kTaps, taps.data(), taps.data());
    fir.status = 1;
    const std::vector<int> input = noise(kBlock);
    std::vector<int> left(kBlock), right(kBlock);
    for (auto _ : state) {
        left = input;
        right = input;
        stereo_fir_process(&fir, left.data(), right.data(), kBlock);
        benchmark::DoNotOptimize(left.data());
        benchmark::DoNotOptimize(right.data());
    }
    state.SetItemsProcessed(state.iterations() * kBlock);
    stereo_fir_end(&fir);
}

// The same filter computed directly: 513 float multiply-adds per output sample over a float
// history of the last 512 inputs followed by the block. The loop runs over outputs innermost,
// so it vectorises without reordering any sum.
void BM_DirectConvolution(benchmark::State &state) {
    std::vector<float> h(kTaps);
    const std::vector<int> taps = default_taps();
    for (int k = 0; k < kTaps; ++k) h[k] = static_cast<float>(taps[k]) * 1.1920929e-7f;
    const std::vector<int> input = noise(kBlock);
    std::vector<float> frame(kTaps - 1 + kBlock, 0.0f);
    std::vector<float> acc(kBlock);
    std::vector<int> block(kBlock);
    for (auto _ : state) {
        std::copy(frame.end() - (kTaps - 1), frame.end(), frame.begin());
        for (int i = 0; i < kBlock; ++i) frame[kTaps - 1 + i] = static_cast<float>(input[i]);
        std::fill(acc.begin(), acc.end(), 0.0f);
        for (int k = 0; k < kTaps; ++k) {
            const float *x = &frame[kTaps - 1 - k];
            for (int i = 0; i < kBlock; ++i) acc[i] += h[k] * x[i];
        }
        for (int i = 0; i < kBlock; ++i) block[i] = static_cast<int>(acc[i]);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetItemsProcessed(state.iterations() * kBlock);
}

void BM_RawFft1024(benchmark::State &state) {
    ne10_fft_cfg_float32_t cfg = ne10_fft_alloc_c2c_float32_neon(1024);
    std::vector<ne10_fft_cpx_float32_t> in(1024), out(1024);
    const std::vector<int> input = noise(1024);
    for (int t = 0; t < 1024; ++t) in[t] = {static_cast<float>(input[t]), 0.0f};
    for (auto _ : state) {
        ne10_fft_c2c_1d_float32_neon(out.data(), in.data(), cfg, 0);
        benchmark::DoNotOptimize(out.data());
    }
    ne10_fft_destroy_c2c_float32(cfg);
}

}  // namespace

BENCHMARK(BM_FirProcess);
BENCHMARK(BM_StereoFirProcess);
BENCHMARK(BM_DirectConvolution);
BENCHMARK(BM_RawFft1024);
