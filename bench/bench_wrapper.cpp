// Processing loop cost at 48 kHz: one chain block, whole wrapper callbacks, and the framing
// alone (chains taken out), run-based against the plain frame-by-frame order.
// Counters: s_per_block (CPU time per 240-frame block) and rt_factor (5 ms / time per block;
// the library prints it as a rate, with a "/s" that is to be ignored).
// The wrapper source is compiled in so the frame-by-frame order can be measured beside it.
#include "wrapper/sorn_hp_wrapper.cpp"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

constexpr int kBlock = 240;

std::vector<int32_t> noise(std::size_t samples, int32_t amplitude) {
    std::mt19937 rng(1);
    std::uniform_int_distribution<int32_t> dist(-amplitude, amplitude);
    std::vector<int32_t> v(samples);
    for (auto& x : v) x = dist(rng);
    return v;
}

void set_counters(benchmark::State& state, double frames_per_iteration) {
    const double blocks = frames_per_iteration / kBlock;
    state.counters["s_per_block"] = benchmark::Counter(
        blocks, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["rt_factor"] =
        benchmark::Counter(blocks * 0.005, benchmark::Counter::kIsIterationInvariantRate);
}

sorn_hp_wrapper_t* running_wrapper() {
    auto* w = static_cast<sorn_hp_wrapper_t*>(sorn_hp_wrapper_init(48000, 3, 2));
    sorn_hp_params_t p{};
    p.lc = p.ss = 1;
    for (int i = 0; i < SORN_HP_LC_POINTS; ++i) p.lc_freq[i] = 1500u * (i + 1);
    sorn_hp_wrapper_set_parameters(w, &p);
    return w;
}

void BM_ChainBlock(benchmark::State& state) {
    sorn_hp_wrapper_t* w = running_wrapper();  // a chain loaded the way the wrapper loads it
    const auto src = noise(2 * kBlock, 1 << 21);
    std::vector<int> l(kBlock), r(kBlock);
    for (auto _ : state) {
        std::copy(src.begin(), src.begin() + kBlock, l.begin());
        std::copy(src.begin() + kBlock, src.end(), r.begin());
        sorn_hp_effect_core_process(w->effect_active, l.data(), r.data(), kBlock);
        benchmark::DoNotOptimize(l.data());
    }
    set_counters(state, kBlock);
    sorn_hp_wrapper_deinit(w);
}
BENCHMARK(BM_ChainBlock);

void BM_WrapperProcess(benchmark::State& state) {
    const auto frames = static_cast<std::size_t>(state.range(0));
    sorn_hp_wrapper_t* w = running_wrapper();
    const auto src = noise(2 * frames, 1 << 29);
    std::vector<int32_t> buf(2 * frames);
    for (auto _ : state) {
        std::copy(src.begin(), src.end(), buf.begin());
        sorn_hp_wrapper_process(w, buf.data(), frames * 8);
        benchmark::DoNotOptimize(buf.data());
    }
    set_counters(state, static_cast<double>(frames));
    sorn_hp_wrapper_deinit(w);
}
BENCHMARK(BM_WrapperProcess)->Arg(240)->Arg(480)->Arg(1024);

// The wrapper with its chains taken out: ring traffic, block copies and conversions only.
template <bool kFrameByFrame>
void BM_Framing(benchmark::State& state) {
    constexpr std::size_t frames = 1024;
    sorn_hp_wrapper_t* w = running_wrapper();
    void* chains[2] = {w->effect_active, w->effect_standby};
    w->effect_active = w->effect_standby = nullptr;
    const auto src = noise(2 * frames, 1 << 29);
    std::vector<int32_t> buf(2 * frames);
    for (auto _ : state) {
        std::copy(src.begin(), src.end(), buf.begin());
        if constexpr (kFrameByFrame) {
            scale_down_31_to_23(buf.data(), 2 * frames);
            for (std::size_t f = 0; f < frames; ++f) {
                int32_t* p = buf.data() + 2 * f;
                sorn_ringbuf_write(&w->in_l, p, 1);
                sorn_ringbuf_write(&w->in_r, p + 1, 1);
                if (w->in_l.fill >= w->block_size) complete_block(w);
                sorn_ringbuf_read(&w->out_l, p, 1);
                sorn_ringbuf_read(&w->out_r, p + 1, 1);
            }
            scale_up_23_to_31(buf.data(), 2 * frames);
        } else {
            sorn_hp_wrapper_process(w, buf.data(), frames * 8);
        }
        benchmark::DoNotOptimize(buf.data());
    }
    set_counters(state, static_cast<double>(frames));
    w->effect_active = chains[0];
    w->effect_standby = chains[1];
    sorn_hp_wrapper_deinit(w);
}
BENCHMARK(BM_Framing<false>)->Name("BM_FramingRuns/1024");
BENCHMARK(BM_Framing<true>)->Name("BM_FramingFrameByFrame/1024");

}  // namespace
