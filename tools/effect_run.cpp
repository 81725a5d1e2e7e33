#include "tools/effect_run.h"

#include <chrono>
#include <cstring>

namespace sorn_tool {

namespace {

audio_format_t to_audio_format(SampleFormat f) {
    switch (f) {
    case SampleFormat::f32: return AUDIO_FORMAT_PCM_FLOAT;
    case SampleFormat::s16: return AUDIO_FORMAT_PCM_16_BIT;
    case SampleFormat::s32: return AUDIO_FORMAT_PCM_32_BIT;
    }
    return AUDIO_FORMAT_PCM_FLOAT;
}

/* Releases the instance on every way out. */
struct InstanceGuard {
    EffectInstance &fx;
    ~InstanceGuard() { effect_release(fx); }
};

double to_dbfs(double v) { return v > 0.0 ? 20.0 * std::log10(v) : -INFINITY; }

}  // namespace

bool effect_rate_supported(int rate) { return rate >= 44050 && rate <= 48050; }

int effect_latency_frames(int rate) {
    // One block less one frame of framing, plus the compressor's two-block look-ahead.
    const int block = rate == 44100 ? 220 : 240;
    return 3 * block - 1;
}

Levels measure_levels(const AudioBuffer &buf) {
    const size_t n = static_cast<size_t>(buf.frames) * static_cast<size_t>(buf.channels);
    double peak = 0.0, sum = 0.0;
    for (size_t i = 0; i < n; ++i) {
        double v = audio_sample(buf, i);
        peak = std::max(peak, std::fabs(v));
        sum += v * v;
    }
    Levels l;
    l.peak_dbfs = to_dbfs(peak);
    l.rms_dbfs = n ? to_dbfs(std::sqrt(sum / n)) : -INFINITY;
    return l;
}

bool effect_run(const EffectLibrary &lib, const AudioBuffer &in, const RunSettings &settings,
                AudioBuffer &out, RunReport &report, std::string &error) {
    report = RunReport{};
    report.rate = in.rate;
    report.frames = in.frames;
    if (in.channels != 2) {
        error = "the effect takes stereo; got " + std::to_string(in.channels) + " channels";
        return false;
    }
    const size_t call = settings.frames_per_call;
    if (call < 1) {
        error = "frames per call must be at least 1";
        return false;
    }

    EffectInstance fx;
    int32_t r = effect_create(lib, fx);
    if (r != 0) {
        error = "the library refused to create the effect (" + std::to_string(r) + ")";
        return false;
    }
    InstanceGuard guard{fx};
    int32_t reply = 0;
    r = effect_set_config(fx, static_cast<uint32_t>(in.rate), to_audio_format(in.format), &reply);
    if (r != 0 || reply != 0) {
        error = "the effect refused the configuration (" + std::string(sample_format_name(in.format)) +
                ", " + std::to_string(in.rate) + " Hz): " + std::to_string(r != 0 ? r : reply);
        return false;
    }
    r = effect_set_params(fx, settings.params, &reply);
    if (r != 0 || reply != 0) {
        error = "the effect refused the parameter block (" + std::to_string(r != 0 ? r : reply) + ")";
        return false;
    }
    if (settings.bypass) effect_set_bypass(fx, true, nullptr);
    effect_set_device(fx, settings.device);
    effect_set_audio_mode(fx, settings.mode);
    r = effect_enable(fx, &reply);
    if (r != 0 || reply != 0) {
        error = "the effect refused to be enabled (" + std::to_string(r != 0 ? r : reply) + ")";
        return false;
    }

    // "state" is the output switch, "check" the processing wrapper's state (0: it never processes).
    report.status_text = effect_status_text(fx);
    bool known = status_item(report.status_text, "state", report.status_state) &&
                 status_item(report.status_text, "check", report.status_check);
    report.processing = known ? report.status_state == 1 && report.status_check >= 2
                              : !settings.bypass && effect_rate_supported(in.rate);
    report.latency = report.processing ? effect_latency_frames(in.rate) : 0;

    // The recording, then `latency` frames of zeros, then zeros up to a whole number of calls.
    const int64_t fed = in.frames + report.latency;
    const int64_t calls = (fed + static_cast<int64_t>(call) - 1) / static_cast<int64_t>(call);
    AudioBuffer src, dst;
    audio_allocate(src, in.rate, 2, calls * static_cast<int64_t>(call), in.format);
    audio_allocate(dst, in.rate, 2, src.frames, in.format);
    const size_t frame_bytes = 2 * audio_sample_bytes(in.format);
    std::memcpy(audio_data(src), audio_data(in), static_cast<size_t>(in.frames) * frame_bytes);

    auto *src_bytes = static_cast<uint8_t *>(audio_data(src));
    auto *dst_bytes = static_cast<uint8_t *>(audio_data(dst));
    std::chrono::steady_clock::duration busy{};
    for (int64_t c = 0; c < calls; ++c) {
        const size_t at = static_cast<size_t>(c) * call * frame_bytes;
        auto t0 = std::chrono::steady_clock::now();
        r = effect_process(fx, src_bytes + at, dst_bytes + at, call);
        busy += std::chrono::steady_clock::now() - t0;
        if (r != 0) {
            error = "process failed at frame " + std::to_string(c * static_cast<int64_t>(call)) + " (" +
                    std::to_string(r) + ")";
            return false;
        }
        if (settings.progress && (c % 64 == 0 || c + 1 == calls)) settings.progress(double(c + 1) / calls);
    }
    report.calls = calls;
    report.process_seconds = std::chrono::duration<double>(busy).count();
    effect_disable(fx, nullptr);

    audio_allocate(out, in.rate, 2, in.frames, in.format);
    std::memcpy(audio_data(out), dst_bytes + static_cast<size_t>(report.latency) * frame_bytes,
                static_cast<size_t>(in.frames) * frame_bytes);
    report.in = measure_levels(in);
    report.out = measure_levels(out);
    const size_t n = static_cast<size_t>(out.frames) * 2;
    for (size_t i = 0; i < n; ++i) report.clipped += audio_sample_at_full_scale(out, i);
    return true;
}

}  // namespace sorn_tool
