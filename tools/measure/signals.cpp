#include "tools/measure/signals.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>

namespace sorn_tool {

double db_to_amplitude(double db) { return std::pow(10.0, db / 20.0); }

double amplitude_to_db(double a) { return a > 0.0 ? 20.0 * std::log10(a) : -INFINITY; }

void tone_fill(Tone &t, int64_t frames, std::vector<float> &out) {
    const double step = 2.0 * M_PI * t.freq_hz / t.rate;
    for (int64_t i = 0; i < frames; ++i) {
        const auto v = static_cast<float>(t.amplitude * std::sin(t.phase));
        out.push_back(v);
        out.push_back(v);
        t.phase = std::fmod(t.phase + step, 2.0 * M_PI);
    }
}

double coherent_frequency(double freq_hz, int rate, int64_t frames) {
    const double bin = double(rate) / double(frames);
    const double k = std::clamp(std::round(freq_hz / bin), 1.0, std::floor((double(frames) - 1.0) / 2.0));
    return k * bin;
}

double tone_amplitude(const float *x, int64_t n, int stride, double freq_hz, int rate) {
    // Normal equations of x ~ a cos + b sin.
    // The sine and cosine come from a rotating phasor (drift far below float resolution over
    // the windows used here).
    const double w = 2.0 * M_PI * freq_hz / rate, rc = std::cos(w), rs = std::sin(w);
    double c = 1.0, s = 0.0, cc = 0, ss = 0, cs = 0, xc = 0, xs = 0;
    for (int64_t i = 0; i < n; ++i) {
        const double v = x[i * stride];
        cc += c * c, ss += s * s, cs += c * s, xc += v * c, xs += v * s;
        const double c2 = c * rc - s * rs;
        s = s * rc + c * rs, c = c2;
    }
    const double det = cc * ss - cs * cs;
    if (det <= 0.0) return 0.0;
    const double a = (xc * ss - xs * cs) / det, b = (xs * cc - xc * cs) / det;
    return std::hypot(a, b);
}

std::vector<std::complex<double>> real_spectrum(const double *x, int n) {
    std::vector<double> in(x, x + n);
    std::vector<std::complex<double>> out(static_cast<size_t>(n / 2 + 1));
    fftw_plan p = fftw_plan_dft_r2c_1d(n, in.data(), reinterpret_cast<fftw_complex *>(out.data()), FFTW_ESTIMATE);
    fftw_execute(p);
    fftw_destroy_plan(p);
    return out;
}

std::vector<double> real_inverse(const std::vector<std::complex<double>> &bins, int n) {
    std::vector<std::complex<double>> in(bins);
    in.resize(static_cast<size_t>(n / 2 + 1));
    std::vector<double> out(static_cast<size_t>(n));
    fftw_plan p = fftw_plan_dft_c2r_1d(n, reinterpret_cast<fftw_complex *>(in.data()), out.data(), FFTW_ESTIMATE);
    fftw_execute(p);
    fftw_destroy_plan(p);
    for (double &v : out) v /= n;
    return out;
}

std::vector<double> multisine(int period, double rms, std::vector<std::complex<double>> &spectrum) {
    const int half = period / 2, tones = half - 1;
    std::vector<std::complex<double>> bins(static_cast<size_t>(half + 1));
    for (int k = 1; k < half; ++k) bins[k] = std::polar(1.0, M_PI * double(k - 1) * double(k - 1) / tones);
    std::vector<double> x = real_inverse(bins, period);
    double sum = 0;
    for (double v : x) sum += v * v;
    const double scale = rms / std::sqrt(sum / period);
    for (double &v : x) v *= scale;
    spectrum = real_spectrum(x.data(), period);
    return x;
}

}  // namespace sorn_tool
