#include "tools/host/effect_run.h"

#include <chrono>
#include <cstring>
#include <vector>

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

void LevelMeter::add(const void *data, SampleFormat format, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const double v = sample_value(data, format, i);
        peak = std::max(peak, std::fabs(v));
        sum += v * v;
        clipped += sample_at_full_scale(data, format, i);
    }
    samples += static_cast<int64_t>(count);
}

Levels LevelMeter::levels() const {
    Levels l;
    l.peak_dbfs = to_dbfs(peak);
    l.rms_dbfs = samples ? to_dbfs(std::sqrt(sum / static_cast<double>(samples))) : -INFINITY;
    return l;
}

Levels measure_levels(const AudioBuffer &buf) {
    LevelMeter m;
    m.add(audio_data(buf), buf.format, static_cast<size_t>(buf.frames) * static_cast<size_t>(buf.channels));
    return m.levels();
}

namespace {

/* Creates and configures the instance as the framework does and reads back whether it processes. */
bool start_effect(const EffectLibrary &lib, int rate, SampleFormat format, const RunSettings &settings,
                  EffectInstance &fx, RunReport &report, std::string &error) {
    int32_t r = effect_create(lib, fx);
    if (r != 0) {
        error = "the library refused to create the effect (" + std::to_string(r) + ")";
        return false;
    }
    int32_t reply = 0;
    r = effect_set_config(fx, static_cast<uint32_t>(rate), to_audio_format(format), &reply);
    if (r != 0 || reply != 0) {
        error = "the effect refused the configuration (" + std::string(sample_format_name(format)) + ", " +
                std::to_string(rate) + " Hz): " + std::to_string(r != 0 ? r : reply);
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
                              : !settings.bypass && effect_rate_supported(rate);
    report.latency = report.processing ? effect_latency_frames(rate) : 0;
    return true;
}

}  // namespace

bool effect_run_stream(const EffectLibrary &lib, int rate, SampleFormat format, int64_t expected_frames,
                       const FrameSource &source, const FrameSink &sink, const RunSettings &settings,
                       RunReport &report, std::string &error) {
    report = RunReport{};
    report.rate = rate;
    const auto call = static_cast<int64_t>(settings.frames_per_call);
    if (call < 1) {
        error = "frames per call must be at least 1";
        return false;
    }
    EffectInstance fx;
    InstanceGuard guard{fx};
    if (!start_effect(lib, rate, format, settings, fx, report, error)) return false;
    const int64_t latency = report.latency;

    // The effect is fed the input, then `latency` frames of zeros, then zeros up to a whole
    // number of calls; output frame p is input frame p - latency.
    const size_t frame_bytes = 2 * audio_sample_bytes(format);
    const int64_t chunk = std::max<int64_t>(1, static_cast<int64_t>(settings.chunk_frames) / call) * call;
    std::vector<uint8_t> src(static_cast<size_t>(chunk) * frame_bytes), dst(src.size());
    LevelMeter in_meter, out_meter;
    int64_t read = 0, fed = 0;
    bool ended = false;
    std::chrono::steady_clock::duration busy{};
    while (!ended || fed < read + latency) {
        if (settings.cancelled && settings.cancelled()) {
            error = "cancelled";
            return false;
        }
        int64_t have = 0;
        while (!ended && have < chunk) {
            const int64_t got = source(src.data() + have * frame_bytes, chunk - have, error);
            if (got < 0) return false;
            ended = got == 0;
            have += got;
        }
        in_meter.add(src.data(), format, static_cast<size_t>(have) * 2);
        read += have;
        std::memset(src.data() + have * frame_bytes, 0, static_cast<size_t>(chunk - have) * frame_bytes);
        const int64_t frames = ended ? std::min(chunk, (read + latency - fed + call - 1) / call * call) : chunk;
        for (int64_t at = 0; at < frames; at += call) {
            auto t0 = std::chrono::steady_clock::now();
            const int32_t r = effect_process(fx, src.data() + at * frame_bytes, dst.data() + at * frame_bytes,
                                             static_cast<size_t>(call));
            busy += std::chrono::steady_clock::now() - t0;
            if (r != 0) {
                error = "process failed at frame " + std::to_string(fed + at) + " (" + std::to_string(r) + ")";
                return false;
            }
            ++report.calls;
        }
        const int64_t from = std::max(fed, latency), to = std::min(fed + frames, read + latency);
        if (to > from) {
            const uint8_t *out = dst.data() + (from - fed) * frame_bytes;
            out_meter.add(out, format, static_cast<size_t>(to - from) * 2);
            if (!sink(out, to - from, error)) return false;
        }
        fed += frames;
        if (settings.progress && expected_frames > 0)
            settings.progress(std::min(0.999, double(fed) / double(expected_frames + latency)));
    }
    if (settings.progress) settings.progress(1.0);
    effect_disable(fx, nullptr);
    report.frames = read;
    report.process_seconds = std::chrono::duration<double>(busy).count();
    report.in = in_meter.levels();
    report.out = out_meter.levels();
    report.clipped = out_meter.clipped;
    return true;
}

bool effect_run(const EffectLibrary &lib, const AudioBuffer &in, const RunSettings &settings,
                AudioBuffer &out, RunReport &report, std::string &error) {
    if (in.channels != 2) {
        report = RunReport{};
        error = "the effect takes stereo; got " + std::to_string(in.channels) + " channels";
        return false;
    }
    const size_t frame_bytes = 2 * audio_sample_bytes(in.format);
    audio_allocate(out, in.rate, 2, in.frames, in.format);
    const auto *from = static_cast<const uint8_t *>(audio_data(in));
    auto *to = static_cast<uint8_t *>(audio_data(out));
    int64_t given = 0, taken = 0;
    FrameSource source = [&](void *dst, int64_t frames, std::string &) {
        const int64_t n = std::min(frames, in.frames - given);
        std::memcpy(dst, from + given * frame_bytes, static_cast<size_t>(n) * frame_bytes);
        given += n;
        return n;
    };
    FrameSink sink = [&](const void *src, int64_t frames, std::string &) {
        std::memcpy(to + taken * frame_bytes, src, static_cast<size_t>(frames) * frame_bytes);
        taken += frames;
        return true;
    };
    return effect_run_stream(lib, in.rate, in.format, in.frames, source, sink, settings, report, error);
}

}  // namespace sorn_tool
