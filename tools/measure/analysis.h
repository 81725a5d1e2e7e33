/*
 * What a stereo system does to sound, measured from outside with generated signals: the
 * response and latency, the level curve with its settling times, the step response of its
 * dynamics, THD+N and THD against level and frequency, the dynamic range per stream format and
 * its output for silence. The system is any callback (the effect through the framework's calls,
 * or a system with known answers in the tests); nothing here knows what is inside it.
 *
 * Conventions (AES17): a level in dBFS is a sine's peak against full scale (+-1.0); THD+N is the
 * RMS of everything from 20 Hz to 20 kHz except the fundamental (its FFT bin and the two beside
 * it), against the RMS of the whole signal in that band; THD is the harmonics 2 to 10 that fall
 * inside the band, against the fundamental; tones are analysed over 0.2 s with a whole number
 * of cycles (rectangular window, frequencies on the 5 Hz grid), once the output has settled.
 * Dynamic range is the THD+N of a -60 dBFS 1 kHz tone, negated, plus 60 dB.
 *
 * Settling: a tone's output level (least squares at its frequency, over 10 ms pieces) counts as
 * settled when the mean of the last `settle_window_s`'s second half differs from that of its
 * first half by no more than `settle_tolerance_db`, or three standard deviations of that
 * difference when the stream's noise makes them larger (noise averages out, drift does not); the
 * settle time is when it last left that window's mean by more than `settled_within_db` (or three
 * times the level's own spread there, when the stream's noise is larger), counted from when the
 * change reaches the output (the measured latency taken off).
 *
 * Measurement costs audio time, not wall time: everything runs as fast as the system does.
 */
#ifndef SORN_TOOLS_MEASURE_ANALYSIS_H
#define SORN_TOOLS_MEASURE_ANALYSIS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/files/audio_file.h"
#include "tools/measure/signals.h"

namespace sorn_tool {

/* A system under test: stereo interleaved float frames in and out (full scale +-1.0), its state
   kept between calls. `process` is given whole multiples of `block` frames and returns false
   with `error` set when it fails. */
struct System {
    int rate = 48000;
    int block = 1;
    std::function<bool(const float *in, float *out, int64_t frames, std::string &error)> process;
};

/* Makes a fresh system for a stream format (a system that has no formats ignores it). */
using SystemFactory = std::function<bool(SampleFormat format, System &sys, std::string &error)>;

struct StepTest {
    std::string name;
    double low_dbfs = -30, high_dbfs = -6;
    double before_s = 1.0, up_s = 8.0, down_s = 8.0;
};

struct MeasureSettings {
    /* AES17's 997 Hz (995 Hz on the 5 Hz analysis grid): its period is no whole number of samples,
       so a quantizer's error spreads as noise instead of folding onto a few harmonics. */
    double tone_hz = 997.0;
    double response_rms_dbfs = -30.0; /* multisine RMS per channel: low enough that dynamics hold still */
    int response_period = 16384;
    double curve_from_dbfs = -80, curve_to_dbfs = 0, curve_step_db = 1;
    double thd_from_dbfs = -60;          /* the level curve's steps from here up are analysed for THD */
    double sweep_level_dbfs = -20;
    std::vector<double> sweep_hz;        /* empty: third-octave centres from 20 Hz to 20 kHz */
    double settle_window_s = 1.0, settle_tolerance_db = 0.01, settled_within_db = 0.05, settle_max_s = 20.0;
    double analysis_s = 0.2;
    std::vector<StepTest> steps;         /* empty: the two defaults of default_steps() */
    double silence_tone_s = 1.0, silence_after_s = 4.0;
    std::vector<SampleFormat> formats{SampleFormat::f32, SampleFormat::s16, SampleFormat::s32};
    SampleFormat format = SampleFormat::f32; /* for everything but the dynamic range */
};

/* A slow step below where peaks are touched (-30 to -6 dBFS) and a fast one up to full scale
   (-24 to 0 dBFS, short enough that anything slow has not yet moved). */
std::vector<StepTest> default_steps();
std::vector<double> third_octave_hz();

struct ToneAnalysis {
    double freq_hz = 0;
    double in_dbfs = 0;       /* the tone fed */
    double out_dbfs = 0;      /* the fundamental that came out */
    double thdn_db = 0;       /* THD+N ratio in dB (negative); -inf for a pure tone */
    double thd_db = 0;        /* THD ratio in dB */
    double settle_s = 0;
    bool settled = false;
};

/* THD+N and THD of one channel's `n` samples holding a tone at `freq_hz` (a whole number of
   cycles in n). `spectrum_db` (when given) receives each bin's level in dBFS, bins 0 .. n/2. */
ToneAnalysis analyse_tone(const float *x, int64_t n, int stride, double freq_hz, int rate,
                          std::vector<double> *spectrum_db = nullptr);

struct ResponseResult {
    std::vector<double> freq_hz; /* bins of the multisine's period on a log grid, 20 Hz - 20 kHz */
    std::vector<double> left_db, right_db, mid_db, side_db;
    int latency = 0;              /* frames: the peak of the mid impulse response */
    int onset = 0;                /* frames: its first sample of a tenth of the peak or more */
    std::vector<double> impulse_ms, impulse; /* the mid impulse response around its peak */
};

struct StepResult {
    StepTest test;
    std::vector<double> t_s, gain_db; /* gain against time from the step up, latency removed */
    double gain_before_db = 0, gain_up_db = 0, gain_down_db = 0;
    double attack_1db_s = NAN, attack_63_s = NAN, release_1db_s = NAN, release_63_s = NAN;
    bool up_settled = false, down_settled = false;
};

struct DynamicRange {
    SampleFormat format = SampleFormat::f32;
    ToneAnalysis tone;
    double dynamic_range_db = 0;
    std::vector<double> spectrum_hz, spectrum_dbfs; /* decimated for the plot: the largest bin per step */
};

struct SilenceResult {
    double start_peak_dbfs = -INFINITY;   /* output for digital silence from the start */
    double zero_after_s = NAN;            /* after a tone stops: until the output is digital zero */
    double idle_rms_dbfs = -INFINITY;     /* RMS over the last second of silence */
    double idle_peak_dbfs = -INFINITY;
    std::vector<double> t_s, level_dbfs;  /* output RMS per 10 ms from the tone's end */
};

struct Measurements {
    int rate = 0;
    ResponseResult response;
    std::vector<ToneAnalysis> curve;   /* the level curve, each step once settled */
    std::vector<ToneAnalysis> sweep;   /* THD against frequency */
    std::vector<StepResult> steps;
    std::vector<DynamicRange> dynamic_range;
    SilenceResult silence;
    double audio_seconds = 0;          /* audio the system processed */
};

/* A measured curve against an expected one on the same frequencies, 20 Hz to `upto_hz`: the
   flat gain (mean difference) and the largest departure from it. */
struct Agreement {
    double flat_gain_db = 0, max_deviation_db = 0, at_hz = 0;
};
Agreement agreement(const std::vector<double> &freq_hz, const std::vector<double> &measured,
                    const std::vector<double> &expected, double upto_hz);

/* Progress: the stage under way and the share of the whole done (0..1). */
using MeasureProgress = std::function<void(const std::string &stage, double done)>;

bool measure_response(const SystemFactory &make, const MeasureSettings &s, ResponseResult &r, double &audio_s,
                      std::string &error);
/* Level curve (and its THD), from curve_from_dbfs up; `latency` in frames. */
bool measure_curve(const SystemFactory &make, const MeasureSettings &s, int latency, std::vector<ToneAnalysis> &out,
                   double &audio_s, std::string &error, const std::function<void(double)> &progress = {});
bool measure_sweep(const SystemFactory &make, const MeasureSettings &s, int latency, std::vector<ToneAnalysis> &out,
                   double &audio_s, std::string &error, const std::function<void(double)> &progress = {});
bool measure_step(const SystemFactory &make, const MeasureSettings &s, const StepTest &t, int latency,
                  StepResult &r, double &audio_s, std::string &error);
bool measure_dynamic_range(const SystemFactory &make, const MeasureSettings &s, SampleFormat format, int latency,
                           DynamicRange &r, double &audio_s, std::string &error);
bool measure_silence(const SystemFactory &make, const MeasureSettings &s, int latency, SilenceResult &r,
                     double &audio_s, std::string &error);

/* Everything above, in that order. */
bool measure_all(const SystemFactory &make, const MeasureSettings &s, Measurements &m, std::string &error,
                 const MeasureProgress &progress = {});

}  // namespace sorn_tool

#endif
