// process() per 240-frame call (5 ms) at 48 kHz, steady state, through the interface record as
// the framework calls it. "rtf" is processing time over audio time (lower is better),
// "x_realtime" its inverse. BM_EffectPassThrough is a configured instance that is not enabled:
// conversions, silence test and statistics only, the front end's own share of a call.
// "heap_KiB" is the heap an instance holds once created, tuned, enabled and run (the C library
// allocator's bytes in use, after less before).
//
// A/B in one run: with SORN_BENCH_BASELINE=/path/to/libsorn_hp_sfx_aw.so (another build of the
// library, e.g. without a change under study), BM_EffectFloat/baseline runs the same benchmark
// through that library's AELI, loaded as the framework loads it. Add
// --benchmark_enable_random_interleaving=true --benchmark_repetitions=N so that both see the
// same machine load.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <malloc.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "effect/sorn_hp_entry.h"
#include "wrapper/sorn_hp_params.h"

namespace {

constexpr effect_uuid_t kUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                 {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};
constexpr size_t kFrames = 240;
constexpr double kCallSeconds = 240.0 / 48000.0;

int32_t send(effect_handle_t h, uint32_t code, uint32_t size, void *data) {
    int32_t reply = 0;
    uint32_t reply_size = sizeof reply;
    const int32_t r = (*h)->command(h, code, size, data, &reply_size, &reply);
    return r != 0 ? r : reply;
}

// A tuned instance: lc curve with surround, on a wired headphone, optionally enabled.
effect_handle_t make_effect(const audio_effect_library_t *lib, audio_format_t format, bool enable) {
    effect_handle_t h = nullptr;
    if (lib->create_effect(&kUuid, 0, 1, &h) != 0) return nullptr;
    effect_config_t config{};
    for (buffer_config_t *b : {&config.inputCfg, &config.outputCfg}) {
        b->samplingRate = 48000;
        b->channels = AUDIO_CHANNEL_OUT_STEREO;
        b->format = static_cast<uint8_t>(format);
    }
    config.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
    config.outputCfg.accessMode = EFFECT_BUFFER_ACCESS_WRITE;
    struct {
        uint32_t header[4] = {0, 4, sizeof(sorn_hp_params_t), 100};
        sorn_hp_params_t block{};
    } param;
    param.block.lc = 1;
    param.block.ss = 1;
    const uint32_t freq[12] = {20, 60, 125, 250, 500, 1000, 2000, 4000, 8000, 12000, 16000, 20000};
    const int32_t gain[12] = {0, 1, 2, 1, 0, -1, 0, 1, 2, 1, 0, -1};
    for (int i = 0; i < 12; ++i) {
        param.block.lc_freq[i] = freq[i];
        param.block.lc_gain[i] = gain[i];
    }
    uint32_t device = AUDIO_DEVICE_OUT_WIRED_HEADPHONE;
    if (send(h, EFFECT_CMD_SET_CONFIG, sizeof config, &config) != 0 ||
        send(h, EFFECT_CMD_SET_PARAM, sizeof param, &param) != 0 ||
        send(h, EFFECT_CMD_SET_DEVICE, sizeof device, &device) != 0 ||
        (enable && send(h, EFFECT_CMD_ENABLE, 0, nullptr) != 0)) {
        lib->release_effect(h);
        return nullptr;
    }
    return h;
}

template <typename T>
std::vector<T> tone_block() {
    std::vector<T> v(2 * kFrames);
    for (size_t i = 0; i < v.size(); ++i) {
        const double s = 0.3 * std::sin(2 * M_PI * (i % 2 ? 1000.0 : 440.0) * (i / 2) / 48000.0);
        if constexpr (std::is_same_v<T, float>) v[i] = static_cast<float>(s);
        else v[i] = static_cast<T>(s * 32767.0);
    }
    return v;
}

// Bytes the C library's allocator has handed out and not taken back.
size_t heap_in_use() {
    const struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

template <typename T>
void run(benchmark::State &state, audio_format_t format, bool enable,
         const audio_effect_library_t *lib = &AELI) {
    std::vector<T> in = tone_block<T>(), out(in.size());
    audio_buffer_t ib{kFrames, {in.data()}}, ob{kFrames, {out.data()}};
    const size_t heap_before = heap_in_use();
    effect_handle_t h = make_effect(lib, format, enable);
    if (h == nullptr) {
        state.SkipWithError("effect setup failed");
        return;
    }
    for (int warm = 0; warm < 20; ++warm) (*h)->process(h, &ib, &ob);  // past the cross-fade
    state.counters["heap_KiB"] = static_cast<double>(heap_in_use() - heap_before) / 1024.0;
    for (auto _ : state) {
        (*h)->process(h, &ib, &ob);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.counters["rtf"] = benchmark::Counter(
        kCallSeconds, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["x_realtime"] =
        benchmark::Counter(kCallSeconds, benchmark::Counter::kIsIterationInvariantRate);
    lib->release_effect(h);
}

void BM_EffectFloat(benchmark::State &s) { run<float>(s, AUDIO_FORMAT_PCM_FLOAT, true); }
void BM_Effect16Bit(benchmark::State &s) { run<int16_t>(s, AUDIO_FORMAT_PCM_16_BIT, true); }
void BM_EffectPassThrough(benchmark::State &s) { run<float>(s, AUDIO_FORMAT_PCM_FLOAT, false); }

BENCHMARK(BM_EffectFloat);
BENCHMARK(BM_Effect16Bit);
BENCHMARK(BM_EffectPassThrough);

const bool kBaselineRegistered = [] {
    const char *path = std::getenv("SORN_BENCH_BASELINE");
    if (path == nullptr || *path == '\0') return false;
    void *so = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    const auto *lib = so != nullptr ? static_cast<const audio_effect_library_t *>(dlsym(so, "AELI"))
                                    : nullptr;
    if (lib == nullptr) {
        std::fprintf(stderr, "bench_effect: no AELI in %s: %s\n", path, so ? "" : dlerror());
        return false;
    }
    benchmark::RegisterBenchmark("BM_EffectFloat/baseline", [lib](benchmark::State &s) {
        run<float>(s, AUDIO_FORMAT_PCM_FLOAT, true, lib);
    });
    return true;
}();

}  // namespace
