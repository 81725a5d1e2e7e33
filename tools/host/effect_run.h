/*
 * Runs a stereo recording through one effect instance exactly as the framework drives it:
 * create, SET_CONFIG (the buffer format in and out, stereo, the file's rate), SET_PARAM 100 with
 * the block, the bypass setting when asked, SET_DEVICE, SET_AUDIO_MODE, ENABLE, process in calls
 * of a fixed frame count, DISABLE, release.
 *
 * Latency. The processed path lags its input by 3 x block - 1 frames, where the block is the
 * effect's 5 ms framing unit (220 frames at 44100 Hz, 240 at the other rates it processes):
 * 719 frames at 48 kHz, 659 at 44.1 kHz. The effect offers no latency query, so the run
 * computes it from the rate, and takes it as 0 when the effect's status says it is not
 * processing (output not wanted, or a rate it leaves untouched). It feeds that many frames of
 * zeros after the recording and drops as many from the start, so the output lines up with the
 * input sample for sample and has its length.
 *
 * Streaming. The run pulls its input from a source and hands its output to a sink a chunk at a
 * time, so memory stays the same whatever the length. The effect sees the same calls whatever
 * the chunk size, so the output is bit for bit the same too.
 *
 * Nothing is printed; the report carries what a caller shows.
 */
#ifndef SORN_TOOLS_EFFECT_RUN_H
#define SORN_TOOLS_EFFECT_RUN_H

#include <cmath>
#include <cstdint>
#include <functional>
#include <string>

#include "tools/files/audio_file.h"
#include "tools/host/effect_host.h"

namespace sorn_tool {

/* The effect's fixed delay in frames at `rate` when it processes. */
int effect_latency_frames(int rate);
/* Whether the effect processes this rate at all. */
bool effect_rate_supported(int rate);

struct RunSettings {
    sorn_hp_params_t params{};
    bool bypass = false;
    uint32_t device = AUDIO_DEVICE_OUT_WIRED_HEADPHONE;
    uint32_t mode = AUDIO_MODE_NORMAL;
    size_t frames_per_call = 240;
    size_t chunk_frames = 16384; /* frames read, processed and written at a time (whole calls) */
    std::function<void(double done)> progress; /* 0..1, called between chunks; 1 at the end */
    std::function<bool()> cancelled;           /* asked between chunks: true ends the run with an error */
};

/* Fills `dst` with up to `frames` stereo frames of the run's format and returns how many; 0 at
   the end of the input; -1 with `error` set when the input fails. */
using FrameSource = std::function<int64_t(void *dst, int64_t frames, std::string &error)>;
/* Takes `frames` stereo frames of output; false with `error` set when it cannot. */
using FrameSink = std::function<bool(const void *src, int64_t frames, std::string &error)>;

struct Levels {
    double peak_dbfs = -INFINITY;
    double rms_dbfs = -INFINITY;
};

/* Peak, RMS and full-scale count of interleaved samples given piece by piece. */
struct LevelMeter {
    double peak = 0.0, sum = 0.0;
    int64_t samples = 0, clipped = 0;
    void add(const void *data, SampleFormat format, size_t count);
    Levels levels() const;
};

struct RunReport {
    int rate = 0;        /* the stream's rate */
    int source_rate = 0; /* the file's rate when it was resampled to `rate`, else 0 */
    int64_t frames = 0;
    int latency = 0;
    bool processing = false; /* the effect's output was wanted and its rate accepted */
    int status_state = -1;   /* the output switch the effect reports, -1 when unknown */
    int status_check = -1;   /* the wrapper state the effect reports, -1 when unknown */
    std::string status_text;
    Levels in, out;
    int64_t clipped = 0; /* output samples at full scale */
    int64_t calls = 0;
    double process_seconds = 0.0;
};

Levels measure_levels(const AudioBuffer &buf);

/* Streams stereo frames of `format` at `rate` from `source` through the effect into `sink`: the
   sink receives exactly as many frames as the source gave, lined up with them. `expected_frames`
   (-1 when unknown) scales the progress. */
bool effect_run_stream(const EffectLibrary &lib, int rate, SampleFormat format, int64_t expected_frames,
                       const FrameSource &source, const FrameSink &sink, const RunSettings &settings,
                       RunReport &report, std::string &error);

/* The same for a buffer held in memory. `in` must be stereo; `out` receives a stereo buffer of
   the same length and format. */
bool effect_run(const EffectLibrary &lib, const AudioBuffer &in, const RunSettings &settings,
                AudioBuffer &out, RunReport &report, std::string &error);

}  // namespace sorn_tool

#endif
