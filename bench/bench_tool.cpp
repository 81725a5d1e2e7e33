// The sorn-hp tool's own costs: a run through the effect per second of audio (by call size),
// the design view, the GraphicEQ fit and tuning parsing.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <random>
#include <string>

#include "tools/files/builtin_tuning.h"
#include "tools/files/tuning.h"
#include "tools/fit/eq_fit.h"
#include "tools/fit/eq_import.h"
#include "tools/fit/graphiceq.h"
#include "tools/fit/import_fit.h"
#include "tools/host/demo_program.h"
#include "tools/host/effect_run.h"
#include "tools/plot/design_view.h"

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

// The import fit of a published correction at 48 kHz, judged on what the taps achieve:
// counters rms_db, max_db (achieved vs target after the level offset), offset_db, designs; the
// same tables played at 44.1 kHz; import-graphiceq's one-group fit of the same curve.
const char *const kCorrections[] = {"Sennheiser HD 650 GraphicEQ.txt", "Sennheiser HD 650 ParametricEQ.txt",
                                    "Sony WH-1000XM4 GraphicEQ.txt", "Sony WH-1000XM4 ParametricEQ.txt"};

FitResult fit_curve(const ImportedCurve &c) {
    ImportFit r;
    std::string error;
    StdoutMuffle muffle(true);
    if (!import_fit(library().lib, c, "bench", 48000, false, r, error)) std::abort();
    return r.fit;
}

// RMS of what the library designs for `p` at `rate` against the correction, after the best
// level offset, from 20 Hz to 20 kHz (or the passband edge).
double rms_of(const ImportedCurve &c, const sorn_hp_params_t &p, int rate) {
    Designer d;
    std::string error;
    StdoutMuffle muffle(true);
    if (!designer_open(library().lib, rate, d, error)) std::abort();
    const std::vector<double> grid = fit_grid_hz(rate), target = eq_import_on_grid(c, grid, rate);
    int32_t taps[513];
    designer_taps(d, p, taps);
    designer_close(d);
    std::vector<double> a;
    response_grid_db(response_grid(grid, rate), taps, a);
    double m = 0.0, s2 = 0.0;
    for (size_t i = 0; i < grid.size(); ++i) m += (a[i] - target[i]) / double(grid.size());
    for (size_t i = 0; i < grid.size(); ++i) s2 += (a[i] - target[i] - m) * (a[i] - target[i] - m);
    return std::sqrt(s2 / double(grid.size()));
}

// What import-graphiceq makes of the same curve (12 hp points on a log grid, clamped, level
// unchanged), for comparison.
double rms_one_group(const ImportedCurve &c) {
    Interpolant interp;
    std::string error;
    interpolant_from_library(library().lib, interp, error);
    std::vector<CurvePoint> points;
    for (double f : fit_grid_hz(48000)) points.push_back({f, eq_import_gain_db(c, f, 48000)});
    const GroupFit g = graphiceq_fit(points, 12, interp);
    sorn_hp_params_t p{};
    p.hp = 1;
    std::copy(g.freq.begin(), g.freq.end(), p.hp_freq);
    std::copy(g.gain.begin(), g.gain.end(), p.hp_gain);
    return rms_of(c, p, 48000);
}

void BM_ImportFit(benchmark::State &state) {
    std::ifstream in(std::string(SORN_HP_CORRECTIONS "/") + kCorrections[state.range(0)]);
    const ImportedCurve c = eq_import_parse({std::istreambuf_iterator<char>(in), {}}, "correction");
    if (!c.ok) state.SkipWithError(c.error.c_str());
    state.SetLabel(kCorrections[state.range(0)]);
    FitResult r;
    for (auto _ : state) r = fit_curve(c);
    state.counters["rms_db"] = r.rms_db;
    state.counters["max_db"] = r.max_db;
    state.counters["offset_db"] = r.level_offset_db;
    state.counters["designs"] = r.designs;
    state.counters["rms_44k1_db"] = rms_of(c, r.params, 44100);  // the same tables at 44.1 kHz
    state.counters["one_group_rms_db"] = rms_one_group(c);
}
BENCHMARK(BM_ImportFit)->DenseRange(0, 3)->Iterations(1)->Unit(benchmark::kMillisecond);

// Generated corrections of the published kinds (a bass shelf, peaks and dips of Q 0.7 to 4, a
// treble shelf, a roll-off above 15 kHz, a negative level), fixed seed; argument: how many.
// Counters: median and 90th percentile of the RMS error, the worst, and import-graphiceq's.
void BM_ImportFitGenerated(benchmark::State &state) {
    std::mt19937 rng(2024);
    auto uni = [&](double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng); };
    std::vector<ImportedCurve> cases(static_cast<size_t>(state.range(0)));
    for (ImportedCurve &c : cases) {
        c.preamp_db = -uni(2.0, 9.0);
        c.filters.push_back({BiquadKind::low_shelf, uni(60, 250), uni(-8, 8), 0.7});
        for (int n = 2 + static_cast<int>(rng() % 4); n > 0; --n)
            c.filters.push_back({BiquadKind::peak, 100.0 * std::pow(100.0, uni(0, 1)), uni(-6, 6), uni(0.7, 4.0)});
        c.filters.push_back({BiquadKind::high_shelf, uni(3000, 10000), uni(-5, 5), 0.7});
        c.filters.push_back({BiquadKind::high_shelf, uni(15000, 19000), -uni(2, 10), 0.7});
    }
    std::vector<double> rms, one;
    for (auto _ : state) {
        rms.clear();
        for (const ImportedCurve &c : cases) rms.push_back(fit_curve(c).rms_db);
    }
    for (const ImportedCurve &c : cases) one.push_back(rms_one_group(c));
    for (auto *v : {&rms, &one}) std::sort(v->begin(), v->end());
    const size_t mid = rms.size() / 2, p90 = std::min(rms.size() - 1, rms.size() * 9 / 10);
    state.counters["median_db"] = rms[mid];
    state.counters["p90_db"] = rms[p90];
    state.counters["worst_db"] = rms.back();
    state.counters["one_group_median_db"] = one[mid];
    state.counters["one_group_p90_db"] = one[p90];
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ImportFitGenerated)->Arg(40)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
