// Input conversion of one 240-frame stereo buffer (480 samples) to 32-bit, as the process
// handler does each callback, against a plain copy of the same bytes.

#include <audio_utils/format.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr size_t kSamples = 480;

void BM_FloatTo32(benchmark::State &state) {
    std::vector<float> in(kSamples);
    std::vector<int32_t> out(kSamples);
    for (size_t i = 0; i < kSamples; ++i) in[i] = static_cast<float>(i % 97) / 50.0f - 0.97f;
    for (auto _ : state) {
        memcpy_by_audio_format(out.data(), AUDIO_FORMAT_PCM_32_BIT, in.data(), AUDIO_FORMAT_PCM_FLOAT, kSamples);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_FloatTo32);

void BM_16To32InPlace(benchmark::State &state) {
    std::vector<int32_t> buf(kSamples);
    for (auto _ : state) {
        memcpy_by_audio_format(buf.data(), AUDIO_FORMAT_PCM_32_BIT, buf.data(), AUDIO_FORMAT_PCM_16_BIT, kSamples);
        benchmark::DoNotOptimize(buf.data());
    }
}
BENCHMARK(BM_16To32InPlace);

void BM_32ToFloat(benchmark::State &state) {
    std::vector<int32_t> in(kSamples, 123456789);
    std::vector<float> out(kSamples);
    for (auto _ : state) {
        memcpy_by_audio_format(out.data(), AUDIO_FORMAT_PCM_FLOAT, in.data(), AUDIO_FORMAT_PCM_32_BIT, kSamples);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_32ToFloat);

void BM_PlainCopy(benchmark::State &state) {
    std::vector<int32_t> in(kSamples, 7), out(kSamples);
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), kSamples * sizeof(int32_t));
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_PlainCopy);

}  // namespace
