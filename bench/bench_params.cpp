// Cost of a parameter block on the command path: the whole set-parameters call with all three
// groups in use, and its parts (the wrapper's design entry, the design on plain inputs alone,
// the minimum-phase step alone).
#include <benchmark/benchmark.h>

#include <vector>

#include "design/frc_curve.h"
#include "design/minimum_phase.h"
#include "wrapper/sorn_hp_frc.h"
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

void BM_FrcDesign(benchmark::State &state) {
    const auto p = all_groups();
    frc_design_input_t in{48000, p.lc, p.hp, p.ea, {}, {}, {}, {}, {}, {}};
    for (int i = 0; i < 12; ++i) {
        in.lc_freq[i] = int32_t(p.lc_freq[i]), in.lc_gain[i] = p.lc_gain[i];
        in.hp_freq[i] = int32_t(p.hp_freq[i]), in.hp_gain[i] = p.hp_gain[i];
    }
    for (int i = 0; i < 8; ++i) in.ea_freq[i] = int32_t(p.ea_freq[i]), in.ea_gain[i] = p.ea_gain[i];
    std::vector<int32_t> taps(FRC_DESIGN_TAPS);
    for (auto _ : state) {
        frc_design(&in, taps.data(), nullptr);
        benchmark::DoNotOptimize(taps.data());
    }
}
BENCHMARK(BM_FrcDesign)->Unit(benchmark::kMicrosecond);

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
