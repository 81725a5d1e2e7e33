#include "tools/measure/analysis.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace sorn_tool {

namespace {

int64_t whole(int64_t frames, int block) { return (frames + block - 1) / block * block; }

/* Runs stereo frames through the system, in calls of at most about a second. */
bool feed(System &sys, const std::vector<float> &in, std::vector<float> &out, double &audio_s, std::string &error) {
    out.resize(in.size());
    const int64_t frames = static_cast<int64_t>(in.size() / 2);
    const int64_t most = whole(sys.rate, sys.block);
    for (int64_t at = 0; at < frames; at += most) {
        const int64_t n = std::min(most, frames - at);
        if (!sys.process(in.data() + 2 * at, out.data() + 2 * at, n, error)) return false;
    }
    audio_s += double(frames) / sys.rate;
    return true;
}

bool fresh(const SystemFactory &make, SampleFormat format, System &sys, std::string &error) {
    if (!make(format, sys, error)) return false;
    if (sys.rate < 8000 || sys.block < 1 || !sys.process) {
        error = "the system under test is not usable (rate " + std::to_string(sys.rate) + ")";
        return false;
    }
    return true;
}

/* Levels are compared as numbers: silence counts as -400 dB. */
double finite_db(double db) { return std::isfinite(db) ? db : -400.0; }

/* The noise of the last `n` piece levels, from the median of their successive differences (a
   transient or a slow drift moves few of them): the standard deviation of one level. */
double level_noise(const std::vector<double> &levels, size_t n) {
    std::vector<double> d;
    for (size_t i = levels.size() - n + 1; i < levels.size(); ++i) d.push_back(std::fabs(levels[i] - levels[i - 1]));
    if (d.empty()) return 0.0;
    std::nth_element(d.begin(), d.begin() + static_cast<long>(d.size() / 2), d.end());
    return d[d.size() / 2] / (0.6745 * std::sqrt(2.0));
}

/* Feeds `t` until its output settles, then analyses the next analysis_s of output. */
bool settle_and_analyse(System &sys, Tone &t, const MeasureSettings &s, int latency, ToneAnalysis &a,
                        double &audio_s, std::string &error, std::vector<double> *spectrum_db = nullptr) {
    const int rate = sys.rate;
    const int64_t piece = whole(std::max<int64_t>(1, std::llround(0.01 * rate)), sys.block);
    const auto window = static_cast<size_t>(std::max(2.0, std::ceil(s.settle_window_s * rate / piece)));
    const auto most = static_cast<size_t>(std::max(double(window), std::ceil(s.settle_max_s * rate / piece)));
    std::vector<double> levels;
    std::vector<float> in, out;
    bool settled = false;
    while (!settled && levels.size() < most) {
        in.clear();
        tone_fill(t, piece, in);
        if (!feed(sys, in, out, audio_s, error)) return false;
        levels.push_back(finite_db(amplitude_to_db(tone_amplitude(out.data(), piece, 2, t.freq_hz, rate))));
        if (levels.size() >= window) {
            // The mean of the window's second half against its first: noise averages out, drift does
            // not. The margin grows to three standard deviations of that difference when the level's
            // own noise (from successive pieces, which slow drift hardly moves) is that large.
            const auto mid = levels.end() - static_cast<long>(window / 2), from = levels.end() - static_cast<long>(window);
            const double first = std::accumulate(from, mid, 0.0) / double(mid - from),
                         second = std::accumulate(mid, levels.end(), 0.0) / double(levels.end() - mid);
            const double noise = level_noise(levels, window);
            settled = std::fabs(second - first) <= std::max(s.settle_tolerance_db, 6.0 * noise / std::sqrt(double(window)));
        }
    }
    const size_t tail = std::min(window, levels.size());
    const double final_db = std::accumulate(levels.end() - static_cast<long>(tail), levels.end(), 0.0) / double(tail);
    // Within the stated margin, or three times the level's own noise when that is larger.
    const double within = std::max(s.settled_within_db, 3.0 * level_noise(levels, tail));
    size_t after = 0;
    for (size_t i = levels.size(); i-- > 0;)
        if (std::fabs(levels[i] - final_db) > within) {
            after = i + 1;
            break;
        }
    const int64_t n = std::llround(s.analysis_s * rate);
    std::vector<float> capture;
    while (static_cast<int64_t>(capture.size() / 2) < n) {
        in.clear();
        tone_fill(t, piece, in);
        if (!feed(sys, in, out, audio_s, error)) return false;
        capture.insert(capture.end(), out.begin(), out.end());
    }
    a = analyse_tone(capture.data(), n, 2, t.freq_hz, rate, spectrum_db);
    a.in_dbfs = amplitude_to_db(t.amplitude);
    a.settle_s = std::max(0.0, double(int64_t(after) * piece - latency) / rate);
    a.settled = settled;
    return true;
}

double mean_between(const std::vector<double> &t, const std::vector<double> &v, double from, double to) {
    double sum = 0;
    int n = 0;
    for (size_t i = 0; i < t.size(); ++i)
        if (t[i] >= from && t[i] <= to) sum += v[i], ++n;
    return n ? sum / n : NAN;
}

double range_between(const std::vector<double> &t, const std::vector<double> &v, double from, double to) {
    double lo = INFINITY, hi = -INFINITY;
    for (size_t i = 0; i < t.size(); ++i)
        if (t[i] >= from && t[i] <= to) lo = std::min(lo, v[i]), hi = std::max(hi, v[i]);
    return hi - lo;
}

/* Times of a gain change that starts at `at` (a little earlier is looked at too, for a system
   that looks ahead): to 63 % of the change, and until it stays within 1 dB of `final_db`. */
void change_times(const std::vector<double> &t, const std::vector<double> &g, double at, double end,
                  double start_db, double final_db, double &t63, double &t1db) {
    t63 = t1db = NAN;
    const double from = at - 0.05;
    if (std::fabs(final_db - start_db) >= 0.1) {
        for (size_t i = 0; i < t.size(); ++i)
            if (t[i] >= from && t[i] < end && (g[i] - start_db) / (final_db - start_db) >= 0.632) {
                t63 = t[i] - at;
                break;
            }
    }
    double last_out = -INFINITY;
    for (size_t i = 0; i < t.size(); ++i)
        if (t[i] >= from && t[i] < end && std::fabs(g[i] - final_db) > 1.0) last_out = t[i];
    if (!std::isfinite(last_out)) {
        t1db = 0.0;
        return;
    }
    for (size_t i = 0; i < t.size(); ++i)
        if (t[i] > last_out) {
            t1db = std::max(0.0, t[i] - at);
            break;
        }
}

}  // namespace

std::vector<StepTest> default_steps() {
    return {StepTest{"slow: -30 to -6 dBFS", -30, -6, 1.0, 8.0, 8.0},
            StepTest{"fast: -24 to 0 dBFS", -24, 0, 1.0, 0.15, 0.35}};
}

std::vector<double> third_octave_hz() {
    std::vector<double> f;
    for (int i = -17; i <= 13; ++i) f.push_back(1000.0 * std::pow(10.0, i / 10.0));
    return f;
}

ToneAnalysis analyse_tone(const float *x, int64_t n, int stride, double freq_hz, int rate,
                          std::vector<double> *spectrum_db) {
    std::vector<double> v(static_cast<size_t>(n));
    for (int64_t i = 0; i < n; ++i) v[i] = x[i * stride];
    const auto bins = real_spectrum(v.data(), static_cast<int>(n));
    const int64_t half = n / 2;
    std::vector<double> p(bins.size());
    for (size_t k = 0; k < bins.size(); ++k) p[k] = std::norm(bins[k]);
    const double bin_hz = double(rate) / double(n);
    const auto k0 = static_cast<int64_t>(std::llround(freq_hz / bin_hz));
    const auto lo = static_cast<int64_t>(std::ceil(20.0 / bin_hz)),
               hi = std::min<int64_t>(half, static_cast<int64_t>(std::floor(20000.0 / bin_hz)));
    auto near = [&](int64_t k, int64_t c) { return k >= c - 1 && k <= c + 1; };
    double fund = 0, rest = 0, harm = 0;
    int harmonics = 0;
    for (int64_t k = std::max<int64_t>(lo, 1); k <= hi; ++k) (near(k, k0) ? fund : rest) += p[k];
    for (int h = 2; h <= 10; ++h)
        if (h * k0 + 1 <= hi) {
            ++harmonics;
            for (int64_t k = h * k0 - 1; k <= h * k0 + 1; ++k) harm += p[k];
        }
    ToneAnalysis a;
    a.freq_hz = freq_hz;
    a.out_dbfs = amplitude_to_db(2.0 * std::sqrt(fund) / double(n));
    a.thdn_db = fund + rest > 0 ? 10.0 * std::log10(rest / (fund + rest)) : NAN;
    a.thd_db = fund > 0 && harmonics ? 10.0 * std::log10(harm / fund) : NAN; /* none in the band: not measured */
    if (spectrum_db) {
        spectrum_db->resize(p.size());
        for (size_t k = 0; k < p.size(); ++k)
            (*spectrum_db)[k] = amplitude_to_db((k == 0 || int64_t(k) == half ? 1.0 : 2.0) * std::sqrt(p[k]) / double(n));
    }
    return a;
}

Agreement agreement(const std::vector<double> &freq_hz, const std::vector<double> &measured,
                    const std::vector<double> &expected, double upto_hz) {
    Agreement a;
    std::vector<size_t> used;
    for (size_t i = 0; i < freq_hz.size(); ++i)
        if (freq_hz[i] >= 20.0 && freq_hz[i] <= upto_hz && std::isfinite(measured[i] - expected[i])) used.push_back(i);
    if (used.empty()) return a;
    for (size_t i : used) a.flat_gain_db += measured[i] - expected[i];
    a.flat_gain_db /= double(used.size());
    for (size_t i : used) {
        const double d = std::fabs(measured[i] - expected[i] - a.flat_gain_db);
        if (d > a.max_deviation_db) a.max_deviation_db = d, a.at_hz = freq_hz[i];
    }
    return a;
}

bool measure_response(const SystemFactory &make, const MeasureSettings &s, ResponseResult &r, double &audio_s,
                      std::string &error) {
    System sys;
    if (!fresh(make, s.format, sys, error)) return false;
    const int P = s.response_period, rate = sys.rate;
    std::vector<std::complex<double>> X;
    const std::vector<double> x = multisine(P, db_to_amplitude(s.response_rms_dbfs), X);
    // Two periods of the mid signal to warm up, then two periods of each arrangement; the second
    // period of each is analysed, when the system has forgotten the change.
    const Stereo order[] = {Stereo::mid, Stereo::side, Stereo::left, Stereo::right};
    const int64_t frames = int64_t(10) * P;
    std::vector<float> in(static_cast<size_t>(2 * whole(frames, sys.block)), 0.0f), out;
    for (int64_t i = 0; i < frames; ++i) {
        const int64_t c = i < 2 * P ? 0 : (i - 2 * P) / (2 * P);
        const auto v = static_cast<float>(x[static_cast<size_t>(i % P)]);
        const Stereo st = order[c];
        in[2 * i] = st == Stereo::right ? 0.0f : v;
        in[2 * i + 1] = st == Stereo::left ? 0.0f : st == Stereo::side ? -v : v;
    }
    if (!feed(sys, in, out, audio_s, error)) return false;
    std::vector<std::vector<std::complex<double>>> H(4);
    for (int c = 0; c < 4; ++c) {
        std::vector<double> y(static_cast<size_t>(P));
        const int64_t start = int64_t(2 + 2 * c + 1) * P;
        for (int i = 0; i < P; ++i) {
            const double L = out[2 * (start + i)], R = out[2 * (start + i) + 1];
            y[i] = order[c] == Stereo::mid ? (L + R) / 2 : order[c] == Stereo::side ? (L - R) / 2
                 : order[c] == Stereo::left ? L : R;
        }
        const auto Y = real_spectrum(y.data(), P);
        H[c].assign(Y.size(), 0.0);
        for (int k = 1; k < P / 2; ++k) H[c][k] = Y[k] / X[k];
    }
    r = ResponseResult{};
    const double top = std::min(20000.0, 0.499 * rate);
    int64_t last = -1;
    for (int i = 0; i < 300; ++i) {
        const double f = 20.0 * std::pow(top / 20.0, i / 299.0);
        const int64_t k = std::clamp<int64_t>(std::llround(f * P / rate), 1, P / 2 - 1);
        if (k == last) continue;
        last = k;
        r.freq_hz.push_back(double(k) * rate / P);
        r.mid_db.push_back(amplitude_to_db(std::abs(H[0][k])));
        r.side_db.push_back(amplitude_to_db(std::abs(H[1][k])));
        r.left_db.push_back(amplitude_to_db(std::abs(H[2][k])));
        r.right_db.push_back(amplitude_to_db(std::abs(H[3][k])));
    }
    const std::vector<double> h = real_inverse(H[0], P);
    r.latency = static_cast<int>(std::max_element(h.begin(), h.end(), [](double a, double b) {
                                     return std::fabs(a) < std::fabs(b);
                                 }) - h.begin());
    r.onset = r.latency;
    for (int n = 0; n < r.latency; ++n)
        if (std::fabs(h[static_cast<size_t>(n)]) >= 0.1 * std::fabs(h[static_cast<size_t>(r.latency)])) {
            r.onset = n;
            break;
        }
    for (int i = -32; i < 480; ++i) {
        const int n = ((r.latency + i) % P + P) % P;
        r.impulse_ms.push_back(1000.0 * (r.latency + i) / rate);
        r.impulse.push_back(h[static_cast<size_t>(n)]);
    }
    return true;
}

namespace {

bool tone_series(const SystemFactory &make, const MeasureSettings &s, int latency,
                 const std::vector<std::pair<double, double>> &steps, std::vector<ToneAnalysis> &out,
                 double &audio_s, std::string &error, const std::function<void(double)> &progress) {
    System sys;
    if (!fresh(make, s.format, sys, error)) return false;
    const int64_t n = std::llround(s.analysis_s * sys.rate);
    Tone t{sys.rate, 0, 0, 0};
    out.clear();
    for (size_t i = 0; i < steps.size(); ++i) {
        t.freq_hz = coherent_frequency(steps[i].first, sys.rate, n);
        t.amplitude = db_to_amplitude(steps[i].second);
        ToneAnalysis a;
        if (!settle_and_analyse(sys, t, s, latency, a, audio_s, error)) return false;
        out.push_back(a);
        if (progress) progress(double(i + 1) / double(steps.size()));
    }
    return true;
}

}  // namespace

bool measure_curve(const SystemFactory &make, const MeasureSettings &s, int latency, std::vector<ToneAnalysis> &out,
                   double &audio_s, std::string &error, const std::function<void(double)> &progress) {
    std::vector<std::pair<double, double>> steps;
    for (double l = s.curve_from_dbfs; l <= s.curve_to_dbfs + 1e-9; l += s.curve_step_db) steps.emplace_back(s.tone_hz, l);
    return tone_series(make, s, latency, steps, out, audio_s, error, progress);
}

bool measure_sweep(const SystemFactory &make, const MeasureSettings &s, int latency, std::vector<ToneAnalysis> &out,
                   double &audio_s, std::string &error, const std::function<void(double)> &progress) {
    std::vector<std::pair<double, double>> steps;
    for (double f : s.sweep_hz.empty() ? third_octave_hz() : s.sweep_hz) steps.emplace_back(f, s.sweep_level_dbfs);
    return tone_series(make, s, latency, steps, out, audio_s, error, progress);
}

bool measure_step(const SystemFactory &make, const MeasureSettings &s, const StepTest &st, int latency,
                  StepResult &r, double &audio_s, std::string &error) {
    System sys;
    if (!fresh(make, s.format, sys, error)) return false;
    const int rate = sys.rate;
    const int64_t n = std::llround(s.analysis_s * rate);
    Tone t{rate, coherent_frequency(s.tone_hz, rate, n), 0, 0};
    std::vector<float> in, out;
    const int64_t before = std::llround(st.before_s * rate), up = std::llround(st.up_s * rate),
                  down = std::llround(st.down_s * rate);
    t.amplitude = db_to_amplitude(st.low_dbfs);
    tone_fill(t, before, in);
    t.amplitude = db_to_amplitude(st.high_dbfs);
    tone_fill(t, up, in);
    t.amplitude = db_to_amplitude(st.low_dbfs);
    tone_fill(t, whole(before + up + down + latency, sys.block) - before - up, in);
    if (!feed(sys, in, out, audio_s, error)) return false;
    r = StepResult{};
    r.test = st;
    const int64_t hop = std::max<int64_t>(1, rate / 1000), w = std::max<int64_t>(2, std::llround(2.0 * rate / t.freq_hz));
    // Windows that reach across a step (with 2 ms to spare for the system's dispersion) mix two
    // input levels and are left out.
    const int64_t spare = rate / 500;
    auto across = [&](int64_t i, int64_t edge) { return i + w + spare > edge && i < edge + spare; };
    for (int64_t i = before - rate / 10; i + w <= before + up + down; i += hop) {
        if (across(i, before) || across(i, before + up)) continue;
        const double a_in = tone_amplitude(in.data() + 2 * i, w, 2, t.freq_hz, rate);
        const double a_out = tone_amplitude(out.data() + 2 * (i + latency), w, 2, t.freq_hz, rate);
        r.t_s.push_back(double(i + w / 2 - before) / rate);
        r.gain_db.push_back(finite_db(amplitude_to_db(a_out / a_in)));
    }
    const double u = st.up_s, d = st.down_s, wt = double(w) / rate;
    r.gain_before_db = mean_between(r.t_s, r.gain_db, -0.1, -0.03);
    r.gain_up_db = mean_between(r.t_s, r.gain_db, 0.9 * u, u - wt);
    r.gain_down_db = mean_between(r.t_s, r.gain_db, u + 0.9 * d, u + d - wt);
    r.up_settled = range_between(r.t_s, r.gain_db, 0.9 * u, u - wt) < 0.1;
    r.down_settled = range_between(r.t_s, r.gain_db, u + 0.9 * d, u + d - wt) < 0.1;
    change_times(r.t_s, r.gain_db, 0.0, u - wt, r.gain_before_db, r.gain_up_db, r.attack_63_s, r.attack_1db_s);
    change_times(r.t_s, r.gain_db, u, u + d, r.gain_up_db, r.gain_down_db, r.release_63_s, r.release_1db_s);
    return true;
}

bool measure_dynamic_range(const SystemFactory &make, const MeasureSettings &s, SampleFormat format, int latency,
                           DynamicRange &r, double &audio_s, std::string &error) {
    System sys;
    if (!fresh(make, format, sys, error)) return false;
    const int64_t n = std::llround(s.analysis_s * sys.rate);
    Tone t{sys.rate, coherent_frequency(s.tone_hz, sys.rate, n), db_to_amplitude(-60.0), 0};
    std::vector<double> spectrum;
    r = DynamicRange{};
    r.format = format;
    if (!settle_and_analyse(sys, t, s, latency, r.tone, audio_s, error, &spectrum)) return false;
    r.dynamic_range_db = 60.0 - r.tone.thdn_db;
    // The largest bin in each of 400 log-spaced bands from 20 Hz to 20 kHz.
    const double bin_hz = double(sys.rate) / double(n);
    for (int b = 0; b < 400; ++b) {
        const double f0 = 20.0 * std::pow(1000.0, b / 400.0), f1 = 20.0 * std::pow(1000.0, (b + 1) / 400.0);
        double best = -INFINITY, at = 0;
        for (auto k = static_cast<int64_t>(std::ceil(f0 / bin_hz)); k * bin_hz < f1 && k < int64_t(spectrum.size()); ++k)
            if (spectrum[k] > best) best = spectrum[k], at = k * bin_hz;
        if (at > 0) r.spectrum_hz.push_back(at), r.spectrum_dbfs.push_back(std::max(best, -200.0));
    }
    return true;
}

bool measure_silence(const SystemFactory &make, const MeasureSettings &s, int latency, SilenceResult &r,
                     double &audio_s, std::string &error) {
    System sys;
    if (!fresh(make, s.format, sys, error)) return false;
    const int rate = sys.rate;
    r = SilenceResult{};
    std::vector<float> in(static_cast<size_t>(2 * whole(rate, sys.block)), 0.0f), out;
    if (!feed(sys, in, out, audio_s, error)) return false;
    float peak = 0;
    for (float v : out) peak = std::max(peak, std::fabs(v));
    r.start_peak_dbfs = amplitude_to_db(peak);
    in.clear();
    Tone t{rate, coherent_frequency(s.tone_hz, rate, std::llround(s.analysis_s * rate)), db_to_amplitude(-20.0), 0};
    const int64_t tone = std::llround(s.silence_tone_s * rate), after = std::llround(s.silence_after_s * rate);
    tone_fill(t, tone, in);
    in.resize(static_cast<size_t>(2 * whole(tone + after, sys.block)), 0.0f);
    if (!feed(sys, in, out, audio_s, error)) return false;
    const int64_t end = tone + latency, frames = static_cast<int64_t>(out.size() / 2);
    int64_t last = end - 1;
    for (int64_t i = end; i < frames; ++i)
        if (out[2 * i] != 0.0f || out[2 * i + 1] != 0.0f) last = i;
    r.zero_after_s = last + 1 < frames ? double(last + 1 - end) / rate : NAN;
    const int64_t piece = rate / 100;
    for (int64_t i = end; i + piece <= frames; i += piece) {
        double sum = 0;
        for (int64_t j = 2 * i; j < 2 * (i + piece); ++j) sum += double(out[j]) * out[j];
        r.t_s.push_back(double(i - end) / rate);
        r.level_dbfs.push_back(std::max(-200.0, amplitude_to_db(std::sqrt(2.0 * sum / double(2 * piece)))));
    }
    double sum = 0;
    peak = 0;
    const int64_t from = std::max(end, frames - rate);
    for (int64_t j = 2 * from; j < 2 * frames; ++j) sum += double(out[j]) * out[j], peak = std::max(peak, std::fabs(out[j]));
    r.idle_rms_dbfs = amplitude_to_db(std::sqrt(2.0 * sum / double(2 * (frames - from))));
    r.idle_peak_dbfs = amplitude_to_db(peak);
    return true;
}

bool measure_all(const SystemFactory &make, const MeasureSettings &s, Measurements &m, std::string &error,
                 const MeasureProgress &progress) {
    m = Measurements{};
    auto at = [&](const std::string &stage, double from, double share) {
        return std::function<void(double)>([&progress, stage, from, share](double d) {
            if (progress) progress(stage, from + share * d);
        });
    };
    at("response and latency", 0.0, 0.0)(0.0);
    if (!measure_response(make, s, m.response, m.audio_seconds, error)) return false;
    const int latency = m.response.latency;
    if (!measure_curve(make, s, latency, m.curve, m.audio_seconds, error, at("level curve", 0.05, 0.5))) return false;
    if (!measure_sweep(make, s, latency, m.sweep, m.audio_seconds, error, at("THD against frequency", 0.55, 0.2)))
        return false;
    const std::vector<StepTest> steps = s.steps.empty() ? default_steps() : s.steps;
    for (size_t i = 0; i < steps.size(); ++i) {
        at("attack and release", 0.75 + 0.1 * double(i) / double(steps.size()), 0.0)(0.0);
        m.steps.emplace_back();
        if (!measure_step(make, s, steps[i], latency, m.steps.back(), m.audio_seconds, error)) return false;
    }
    for (size_t i = 0; i < s.formats.size(); ++i) {
        at("dynamic range", 0.85 + 0.1 * double(i) / double(s.formats.size()), 0.0)(0.0);
        m.dynamic_range.emplace_back();
        if (!measure_dynamic_range(make, s, s.formats[i], latency, m.dynamic_range.back(), m.audio_seconds, error))
            return false;
    }
    at("silence", 0.95, 0.0)(0.0);
    if (!measure_silence(make, s, latency, m.silence, m.audio_seconds, error)) return false;
    System sys;
    if (!fresh(make, s.format, sys, error)) return false;
    m.rate = sys.rate;
    if (progress) progress("done", 1.0);
    return true;
}

}  // namespace sorn_tool
