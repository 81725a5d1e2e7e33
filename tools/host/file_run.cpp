#include "tools/host/file_run.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "tools/host/resample.h"

namespace sorn_tool {

bool file_run_open(const std::string &in_path, SampleFormat format, int rate, AudioReader &reader, int &run_rate,
                   std::vector<RunMessage> &messages, std::string &error) {
    if (!audio_reader_open(reader, in_path, format, error)) return false;
    if (reader.channels > 2) {
        error = in_path + ": " + std::to_string(reader.channels) +
                " channels; the effect processes stereo (or mono, duplicated)";
        return false;
    }
    if (reader.channels == 1)
        messages.push_back({false, in_path + " is mono: both channels of the effect get it, and the output is stereo"});
    run_rate = rate ? rate : reader.rate;
    const std::string file_rate = std::to_string(reader.rate), to = std::to_string(run_rate);
    if (run_rate != reader.rate)
        messages.push_back({false, in_path + " is at " + file_rate + " Hz: resampled to " + to +
                                       " Hz before the effect, as a device's mixer does (libsoxr, high quality); "
                                       "the output is at " + to + " Hz"});
    else if (!effect_rate_supported(reader.rate))
        messages.push_back({true, in_path + " is at " + file_rate +
                                      " Hz: THE EFFECT DOES NOT PROCESS THIS RATE (it takes 44050 to 48050 Hz); the "
                                      "output will be the input unchanged. --rate 48000 resamples it first, as a "
                                      "device's mixer would"});
    return true;
}

std::string passthrough_warning(const RunReport &report, bool bypass, const std::string &device,
                                const std::string &mode) {
    std::string why;
    if (report.status_check == 0)
        why = "the effect's processing is switched off for this stream";
    else if (bypass)
        why = "--bypass is on";
    else
        why = "the effect does not process for device " + device + " in " + mode + " mode";
    return "THE OUTPUT IS THE INPUT UNCHANGED: " + why + ".";
}

namespace {

bool stereo_or_mono(const AudioReader &reader, std::string &error) {
    if (reader.channels >= 1 && reader.channels <= 2) return true;
    error = reader.path + ": " + std::to_string(reader.channels) + " channels; the effect takes stereo or mono";
    return false;
}

/* The file's frames as a run hands them to the effect: stereo (a mono channel given to both), in
   `format`, at `rate`. Empty with `error` when the resampler cannot start. */
FrameSource run_source(AudioReader &reader, SampleFormat format, int rate, size_t chunk_frames, std::string &error) {
    const bool resample = rate != reader.rate;
    reader.format = resample ? SampleFormat::f32 : format;
    FrameSource file = [&reader, mono = std::vector<uint8_t>()](void *dst, int64_t frames,
                                                                 std::string &err) mutable -> int64_t {
        if (reader.channels == 2) return audio_reader_read(reader, dst, frames, err);
        const size_t bytes = audio_sample_bytes(reader.format);
        mono.resize(static_cast<size_t>(frames) * bytes);
        const int64_t got = audio_reader_read(reader, mono.data(), frames, err);
        auto *out = static_cast<uint8_t *>(dst);
        for (int64_t k = 0; k < got; ++k) {
            std::memcpy(out + 2 * k * bytes, mono.data() + k * bytes, bytes);
            std::memcpy(out + (2 * k + 1) * bytes, mono.data() + k * bytes, bytes);
        }
        return got;
    };
    return resample ? resampled_source(reader.rate, rate, format, std::move(file), chunk_frames, error) : file;
}

}  // namespace

bool effect_run_file(const EffectLibrary &lib, AudioReader &reader, SampleFormat format, int rate,
                     const std::string &out_path, const RunSettings &settings, RunReport &report,
                     std::string &error) {
    report = RunReport{};
    if (!stereo_or_mono(reader, error)) return false;
    FrameSource source = run_source(reader, format, rate, settings.chunk_frames, error);
    if (!source) return false;
    AudioWriter writer;
    if (!audio_writer_open(writer, out_path, rate, 2, format, error)) return false;
    FrameSink sink = [&writer](const void *src, int64_t frames, std::string &err) {
        return audio_writer_write(writer, src, frames, err);
    };
    const int64_t expected = reader.frames < 0 ? -1 : std::llround(double(reader.frames) * rate / reader.rate);
    if (!effect_run_stream(lib, rate, format, expected, source, sink, settings, report, error)) return false;
    report.source_rate = rate != reader.rate ? reader.rate : 0;
    return audio_writer_commit(writer, error);
}

bool file_run_original(AudioReader &reader, SampleFormat format, int rate, const std::string &out_path,
                       const RunSettings &settings, std::string &error) {
    if (!stereo_or_mono(reader, error)) return false;
    FrameSource source = run_source(reader, format, rate, settings.chunk_frames, error);
    if (!source) return false;
    AudioWriter writer;
    if (!audio_writer_open(writer, out_path, rate, 2, format, error)) return false;
    const auto chunk = static_cast<int64_t>(std::max<size_t>(settings.chunk_frames, 1));
    std::vector<uint8_t> buf(static_cast<size_t>(chunk) * 2 * audio_sample_bytes(format));
    for (;;) {
        if (settings.cancelled && settings.cancelled()) {
            error = "cancelled";
            return false;
        }
        const int64_t got = source(buf.data(), chunk, error);
        if (got < 0) return false;
        if (got == 0) break;
        if (!audio_writer_write(writer, buf.data(), got, error)) return false;
    }
    return audio_writer_commit(writer, error);
}

}  // namespace sorn_tool
