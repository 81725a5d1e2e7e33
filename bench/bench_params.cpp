// Cost of a parameter block on the command path: the whole set-parameters call with all three
// groups in use, and its parts (the tap design alone, the minimum-phase step alone).
#include <benchmark/benchmark.h>

#include <vector>

#include "design/frc_curve.h"
#include "design/minimum_phase.h"
#include "wrapper/sorn_hp_params.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

sorn_hp_params_t all_groups() {
    sorn_hp_params_t p{};
    p.lc = p.hp = p.ea = p.ss = 1;
    for (int i = 0; i < 12; ++i) {
        p.lc_freq[i] = 60u + 1700u * i, p.lc_gain[i] = i % 5 - 2;
        p.hp_freq[i] = 90u + 1650u * i, p.hp_gain[i] = 3 - i % 4;
    }
    for (int i = 0; i < 8; ++i) p.ea_freq[i] = 150u + 2600u * i, p.ea_gain[i] = i % 3 - 1;
    return p;
}

void BM_SetParameters(benchmark::State &state) {
    void *w = sorn_hp_wrapper_init(48000, 3, 2);
    auto p = all_groups();
    for (auto _ : state) {
        sorn_hp_wrapper_set_parameters(w, &p);
        benchmark::ClobberMemory();
    }
    sorn_hp_wrapper_deinit(w);
}
BENCHMARK(BM_SetParameters)->Unit(benchmark::kMicrosecond);

void BM_UpdateFrcParams(benchmark::State &state) {
    auto *w = static_cast<sorn_hp_wrapper_t *>(sorn_hp_wrapper_init(48000, 3, 2));
    auto p = all_groups();
    sorn_hp_wrapper_set_parameters(w, &p);
    for (auto _ : state) {
        update_frc_params(w);
        benchmark::ClobberMemory();
    }
    sorn_hp_wrapper_deinit(w);
}
BENCHMARK(BM_UpdateFrcParams)->Unit(benchmark::kMicrosecond);

void BM_Line2mp(benchmark::State &state) {
    std::vector<double> in(513), out(513);
    minimum_phase_get_prototype(in.data(), 513);
    for (auto _ : state) {
        line2mp(in.data(), 513, out.data(), 513);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_Line2mp)->Unit(benchmark::kMicrosecond);

}  // namespace
