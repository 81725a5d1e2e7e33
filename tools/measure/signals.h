/*
 * Test signals for `measure`, generated piece by piece so a measurement can decide what to feed
 * next from what came out: a sine that keeps its phase across pieces while its level or
 * frequency changes, and a periodic multisine with a flat spectrum on every FFT bin of its period.
 *
 * Signals are stereo interleaved float at full scale +-1.0; a level in dBFS is a sine's peak
 * (0 dBFS is a full-scale sine), as AES17 counts it.
 */
#ifndef SORN_TOOLS_MEASURE_SIGNALS_H
#define SORN_TOOLS_MEASURE_SIGNALS_H

#include <complex>
#include <cstdint>
#include <vector>

namespace sorn_tool {

double db_to_amplitude(double db);
/* 20 log10 of a magnitude; -inf for 0. */
double amplitude_to_db(double a);

/* Which channels carry a signal: both alike (mid), opposite (side), or one. */
enum class Stereo { mid, side, left, right };

/* A sine at `freq_hz` and peak `amplitude` whose phase runs on across calls. */
struct Tone {
    int rate = 48000;
    double freq_hz = 1000.0;
    double amplitude = 0.0;
    double phase = 0.0; /* radians, of the next sample */
};
/* Appends `frames` stereo frames (both channels alike) to `out`. */
void tone_fill(Tone &t, int64_t frames, std::vector<float> &out);

/* The frequency nearest `freq_hz` with a whole number of cycles in `frames` samples at `rate`
   (so its spectrum has no leakage), never 0 and below rate / 2. */
double coherent_frequency(double freq_hz, int rate, int64_t frames);

/* Peak amplitude of the sine at `freq_hz` in `x[0], x[stride], ...` (n samples), by least squares
   on a sine and a cosine: exact for a pure tone over any length, little moved by other content. */
double tone_amplitude(const float *x, int64_t n, int stride, double freq_hz, int rate);

/* One period of `period` samples whose spectrum has equal magnitude on bins 1 .. period/2 - 1
   (Newman's phases, crest factor about 1.7) and nothing on 0 and period/2, scaled to the RMS
   `rms`. `spectrum` receives its FFT (bins 0 .. period/2) for the transfer function. */
std::vector<double> multisine(int period, double rms, std::vector<std::complex<double>> &spectrum);

/* FFT of real samples: bins 0 .. n/2 (FFTW, any n). */
std::vector<std::complex<double>> real_spectrum(const double *x, int n);
/* The inverse: n real samples from bins 0 .. n/2, scaled by 1/n. */
std::vector<double> real_inverse(const std::vector<std::complex<double>> &bins, int n);

}  // namespace sorn_tool

#endif
