// The sorn-hp tool's own costs: a run through the effect per second of audio (by call size),
// the design view, the GraphicEQ fit and tuning parsing.
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>

#include "tools/builtin_tuning.h"
#include "tools/demo_program.h"
#include "tools/design_view.h"
#include "tools/effect_run.h"
#include "tools/graphiceq.h"
#include "tools/tuning.h"

namespace {

using namespace sorn_tool;

struct Loaded {
    EffectLibrary lib;
    Loaded() {
        std::string error;
        if (!effect_library_open(SORN_HP_BENCH_LIB, lib, error)) std::abort();
    }
    ~Loaded() { effect_library_close(lib); }
};

Loaded &library() {
    static Loaded l;
    return l;
}

sorn_hp_params_t builtin() { return tuning_from_json(builtin_tuning_json(), "built-in").params; }

// One second of the demo program (48 kHz stereo float) through the effect; argument: frames per call.
void BM_RunOneSecond(benchmark::State &state) {
    AudioBuffer program = demo_program(48000), second, out;
    audio_allocate(second, 48000, 2, 48000, SampleFormat::f32);
    std::copy(program.f32.begin() + 2 * 48000 * 5, program.f32.begin() + 2 * 48000 * 6, second.f32.begin());
    RunSettings s;
    s.params = builtin();
    s.frames_per_call = static_cast<size_t>(state.range(0));
    RunReport r;
    std::string error;
    StdoutMuffle muffle(true);
    for (auto _ : state) {
        if (!effect_run(library().lib, second, s, out, r, error)) state.SkipWithError(error.c_str());
        benchmark::DoNotOptimize(out.f32.data());
    }
    state.SetItemsProcessed(state.iterations() * second.frames);
}
BENCHMARK(BM_RunOneSecond)->Arg(240)->Arg(1024)->Unit(benchmark::kMillisecond);

// The library's design plus the 600-point requested and achieved curves.
void BM_DesignView(benchmark::State &state) {
    sorn_hp_params_t p = builtin();
    DesignView v;
    std::string error;
    StdoutMuffle muffle(true);
    for (auto _ : state) {
        if (!design_view_run(library().lib, p, 48000, v, error)) state.SkipWithError(error.c_str());
        benchmark::DoNotOptimize(v.achieved_db.data());
    }
}
BENCHMARK(BM_DesignView)->Unit(benchmark::kMillisecond);

// A 1/12-octave GraphicEQ curve (about 120 points) fitted into 12 points.
void BM_GraphicEqFit(benchmark::State &state) {
    Interpolant interp;
    std::string error;
    interpolant_from_library(library().lib, interp, error);
    std::vector<CurvePoint> in;
    for (double f = 20.0; f <= 20000.0; f *= 1.0594630943592953)
        in.push_back({std::round(f), 4.0 * std::sin(std::log(f))});
    for (auto _ : state) benchmark::DoNotOptimize(graphiceq_fit(in, 12, interp));
}
BENCHMARK(BM_GraphicEqFit)->Unit(benchmark::kMicrosecond);

void BM_TuningParse(benchmark::State &state) {
    const std::string text = builtin_tuning_json();
    for (auto _ : state) benchmark::DoNotOptimize(tuning_from_json(text, "built-in"));
}
BENCHMARK(BM_TuningParse)->Unit(benchmark::kMicrosecond);

}  // namespace
