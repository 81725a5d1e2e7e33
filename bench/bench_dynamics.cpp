// Stereo surround and RMS limiter on one 240-frame stereo block at 48 kHz (chain scale +-2^23).
//
// Each iteration copies a fresh block into the working planes (both blocks work in place and
// the surround would otherwise keep widening its own output); BM_CopyOnly is that copy alone.
// The *Silence benchmarks feed loud audio, then enough silence for the filter state to settle,
// and then time blocks of silence: they show whether the float state decays into subnormal
// numbers and stays there. Compare each with its *Steady counterpart in the same run.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "dsp/rms_limiter.h"
#include "dsp/stereo_surround.h"

namespace {

constexpr int kRate = 48000;
constexpr int kFrames = 240;

struct Block {
    std::vector<int> left = std::vector<int>(kFrames);
    std::vector<int> right = std::vector<int>(kFrames);
};

// Two unrelated tones at about -10 dBFS, so the side signal is never zero.
Block loud_block() {
    Block b;
    for (int i = 0; i < kFrames; ++i) {
        b.left[i] = static_cast<int>(2600000.0 * std::sin(2.0 * M_PI * 1000.0 * i / kRate));
        b.right[i] = static_cast<int>(2600000.0 * std::sin(2.0 * M_PI * 1400.0 * i / kRate + 1.0));
    }
    return b;
}

Block silent_block() { return Block{}; }

void copy_into(const Block &src, Block &dst) {
    std::memcpy(dst.left.data(), src.left.data(), kFrames * sizeof(int));
    std::memcpy(dst.right.data(), src.right.data(), kFrames * sizeof(int));
}

void *make_surround(int frequency) {
    void *ss = stereo_surround_init(kRate, 2);
    stereo_surround_set_status(ss, 1);
    stereo_surround_set_parameters(ss, frequency, 20);
    return ss;
}

void run_surround(benchmark::State &state, bool silence_after_loud) {
    void *ss = make_surround(static_cast<int>(state.range(0)));
    const Block loud = loud_block();
    const Block quiet = silent_block();
    Block work;
    for (int i = 0; i < 50; ++i) {
        copy_into(loud, work);
        stereo_surround_process(ss, work.left.data(), work.right.data(), kFrames);
    }
    const Block &timed = silence_after_loud ? quiet : loud;
    // Let the filter tail run out (about 40000 samples) before timing.
    for (int i = 0; i < 200; ++i) {
        copy_into(timed, work);
        stereo_surround_process(ss, work.left.data(), work.right.data(), kFrames);
    }
    for (auto _ : state) {
        copy_into(timed, work);
        stereo_surround_process(ss, work.left.data(), work.right.data(), kFrames);
        benchmark::DoNotOptimize(work.left.data());
        benchmark::ClobberMemory();
    }
    stereo_surround_deinit(ss);
}

void run_limiter(benchmark::State &state, bool silence_after_loud) {
    void *lim = rms_limiter_init(kRate, 2);
    const Block loud = loud_block();
    const Block quiet = silent_block();
    Block work;
    for (int i = 0; i < 2000; ++i) {  // 10 s: detector and gain well into reduction
        copy_into(loud, work);
        rms_limiter_process(lim, work.left.data(), work.right.data(), kFrames);
    }
    const Block &timed = silence_after_loud ? quiet : loud;
    for (int i = 0; i < 200; ++i) {
        copy_into(timed, work);
        rms_limiter_process(lim, work.left.data(), work.right.data(), kFrames);
    }
    for (auto _ : state) {
        copy_into(timed, work);
        rms_limiter_process(lim, work.left.data(), work.right.data(), kFrames);
        benchmark::DoNotOptimize(work.left.data());
        benchmark::ClobberMemory();
    }
    rms_limiter_deinit(lim);
}

void BM_CopyOnly(benchmark::State &state) {
    const Block loud = loud_block();
    Block work;
    for (auto _ : state) {
        copy_into(loud, work);
        benchmark::DoNotOptimize(work.left.data());
        benchmark::ClobberMemory();
    }
}

void BM_SurroundSteady(benchmark::State &state) { run_surround(state, false); }
void BM_SurroundSilence(benchmark::State &state) { run_surround(state, true); }
void BM_LimiterSteady(benchmark::State &state) { run_limiter(state, false); }
void BM_LimiterSilence(benchmark::State &state) { run_limiter(state, true); }

}  // namespace

BENCHMARK(BM_CopyOnly);
// 5000 Hz is what the chain uses; 100 Hz puts the pole close to 1, where a decaying tail
// would otherwise settle on a subnormal value.
BENCHMARK(BM_SurroundSteady)->Arg(5000)->Arg(100);
BENCHMARK(BM_SurroundSilence)->Arg(5000)->Arg(100);
BENCHMARK(BM_LimiterSteady);
BENCHMARK(BM_LimiterSilence);
