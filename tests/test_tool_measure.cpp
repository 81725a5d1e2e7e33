// The measurements of `sorn-hp measure` proven on systems whose answers are known in closed
// form (a gain, a delay, a peaking filter, a widener, a hard clipper, a polynomial with known
// harmonics, a compressor with fixed ratio and time constants), each figure against its
// analytic value within a stated tolerance; and the effect as a system, driven as `run` drives it.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <functional>
#include <memory>

#include "tools/files/builtin_tuning.h"
#include "tools/measure/analysis.h"
#include "tools/measure/effect_system.h"
#include "tools/files/tuning.h"

namespace {

using namespace sorn_tool;

constexpr int kRate = 48000;

/* A system whose channels each run `step` sample by sample on their own state, after a mixing
   of the two inputs (`width`: left += w (L - R), right -= w (L - R)), and whose stream format
   quantizes its input as a device would. */
template <class State>
SystemFactory channels(std::function<double(State &, double)> step, State init, double width = 0.0) {
    return [step, init, width](SampleFormat format, System &sys, std::string &) {
        auto st = std::make_shared<std::array<State, 2>>(std::array<State, 2>{init, init});
        sys.rate = kRate;
        sys.block = 48;
        sys.process = [st, step, width, format, buf = std::vector<uint8_t>()](const float *in, float *out, int64_t frames,
                                                                             std::string &) mutable {
            buf.resize(static_cast<size_t>(frames) * 2 * 4);
            std::vector<float> q(static_cast<size_t>(frames) * 2);
            convert_from_float(in, buf.data(), format, q.size());
            convert_to_float(buf.data(), format, q.data(), q.size());
            for (int64_t i = 0; i < frames; ++i) {
                const double l = q[2 * i], r = q[2 * i + 1], s = width * (l - r);
                out[2 * i] = static_cast<float>(step((*st)[0], l + s));
                out[2 * i + 1] = static_cast<float>(step((*st)[1], r - s));
            }
            return true;
        };
        return true;
    };
}

struct None {};
SystemFactory gain(double g, double width = 0.0) {
    return channels<None>([g](None &, double x) { return g * x; }, None{}, width);
}

struct Line {
    std::vector<double> d;
    size_t at = 0;
};
SystemFactory delay(int frames) {
    return channels<Line>([](Line &l, double x) {
        const double y = l.d[l.at];
        l.d[l.at] = x, l.at = (l.at + 1) % l.d.size();
        return y;
    }, Line{std::vector<double>(static_cast<size_t>(frames), 0.0), 0});
}

/* The cookbook peaking filter: 1 kHz, Q 1, +6 dB. */
struct Biquad {
    double b0, b1, b2, a1, a2, x1 = 0, x2 = 0, y1 = 0, y2 = 0;
};
Biquad peaking() {
    const double A = std::pow(10.0, 6.0 / 40.0), w = 2 * M_PI * 1000.0 / kRate, al = std::sin(w) / 2.0;
    const double a0 = 1 + al / A;
    return {(1 + al * A) / a0, -2 * std::cos(w) / a0, (1 - al * A) / a0, -2 * std::cos(w) / a0, (1 - al / A) / a0};
}
double peaking_db(double f) {
    const Biquad b = peaking();
    const std::complex<double> z1 = std::polar(1.0, -2 * M_PI * f / kRate), z2 = z1 * z1;
    return 20 * std::log10(std::abs((b.b0 + b.b1 * z1 + b.b2 * z2) / (1.0 + b.a1 * z1 + b.a2 * z2)));
}
SystemFactory filter() {
    return channels<Biquad>([](Biquad &b, double x) {
        const double y = b.b0 * x + b.b1 * b.x1 + b.b2 * b.x2 - b.a1 * b.y1 - b.a2 * b.y2;
        b.x2 = b.x1, b.x1 = x, b.y2 = b.y1, b.y1 = y;
        return y;
    }, peaking());
}

SystemFactory clipper(double c) {
    return channels<None>([c](None &, double x) { return std::clamp(x, -c, c); }, None{});
}
SystemFactory polynomial(double a2, double a3) {
    return channels<None>([a2, a3](None &, double x) { return x + a2 * x * x + a3 * x * x * x; }, None{});
}

/* Feed-forward compressor: RMS over the last 48 samples (one cycle of the 1 kHz tests), ratio R
   above T dBFS, its gain in dB following the computed gain with one-pole time constants. */
struct Comp {
    std::vector<double> sq = std::vector<double>(48, 0.0);
    size_t at = 0;
    double sum = 0, g_db = 0;
};
constexpr double kT = -20, kR = 4, kAttack = 0.005, kRelease = 0.05;
SystemFactory compressor() {
    return channels<Comp>([](Comp &c, double x) {
        c.sum += x * x - c.sq[c.at];
        c.sq[c.at] = x * x, c.at = (c.at + 1) % c.sq.size();
        const double level = 20 * std::log10(std::max(1e-10, std::sqrt(2 * std::max(0.0, c.sum) / 48)));
        const double target = (1 / kR - 1) * std::max(0.0, level - kT);
        const double tau = target < c.g_db ? kAttack : kRelease;
        c.g_db = target + (c.g_db - target) * std::exp(-1.0 / (tau * kRate));
        return x * std::pow(10.0, c.g_db / 20);
    }, Comp{});
}

double to_db(double v) { return 20 * std::log10(v); }

/* Short settling windows; a 1 kHz tone, 48 samples a cycle, which the compressor's detector and
   the clipper's folded harmonics are written for. */
MeasureSettings quick() {
    MeasureSettings s;
    s.tone_hz = 1000;
    s.settle_window_s = 0.05;
    s.settle_max_s = 2.0;
    return s;
}

// Response per arrangement (mid, side, left only, right only) and latency from the impulse
// response: within 0.01 dB of the analytic magnitude at every analysed bin, latency exact.
TEST(MeasureKnown, ResponseAndLatency) {
    const double w = 0.25;
    const struct { const char *name; SystemFactory make; int latency; std::function<double(double)> mid, side, left; } cases[] = {
        {"gain", gain(0.5), 0, [](double) { return to_db(0.5); }, [](double) { return to_db(0.5); }, [](double) { return to_db(0.5); }},
        {"delay", delay(100), 100, [](double) { return 0.0; }, [](double) { return 0.0; }, [](double) { return 0.0; }},
        {"peaking filter", filter(), 0, peaking_db, peaking_db, peaking_db},
        {"widener", gain(1.0, w), 0, [](double) { return 0.0; }, [w](double) { return to_db(1 + 2 * w); },
         [w](double) { return to_db(1 + w); }}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ResponseResult r;
        double audio = 0;
        std::string error;
        ASSERT_TRUE(measure_response(c.make, MeasureSettings{}, r, audio, error)) << error;
        EXPECT_TRUE(c.latency == r.latency && c.latency == r.onset) << r.latency << " " << r.onset;
        ASSERT_GT(r.freq_hz.size(), 200u);
        EXPECT_NEAR(20.0, r.freq_hz.front(), 2.0);
        double worst = 0;
        std::vector<double> expected;
        for (size_t i = 0; i < r.freq_hz.size(); ++i) {
            const double f = r.freq_hz[i];
            worst = std::max({worst, std::fabs(r.mid_db[i] - c.mid(f)), std::fabs(r.side_db[i] - c.side(f)),
                              std::fabs(r.left_db[i] - c.left(f)), std::fabs(r.right_db[i] - c.left(f))});
            expected.push_back(c.mid(f) + 1.5);
        }
        EXPECT_LT(worst, 0.01);
        const Agreement a = agreement(r.freq_hz, r.mid_db, expected, 20000);
        EXPECT_NEAR(-1.5, a.flat_gain_db, 0.01);
        EXPECT_LT(a.max_deviation_db, 0.01);
    }
}

// Output level, THD+N and THD of one settled tone against closed forms: a pure gain (nothing
// but the fundamental), y = x + a2 x^2 + a3 x^3 (second and third harmonic), a hard clip of a
// full-scale sine at half scale (its Fourier series, harmonics above Nyquist folded back onto
// the bins they land on); within 0.02 dB.
TEST(MeasureKnown, ToneLevelAndDistortion) {
    const double A = 0.5, a2 = 0.02, a3 = 0.04;
    const double fund = A + 0.75 * a3 * A * A * A, h2 = a2 * A * A / 2, h3 = a3 * A * A * A / 4;
    const double poly_thd = to_db(std::hypot(h2, h3) / fund);
    // Clipped sine, amplitude 1 at clip level c = sin(alpha): odd harmonics b_n.
    const double c = 0.5, al = std::asin(c);
    auto bn = [&](int n) {
        const double first = n == 1 ? al : std::sin((n - 1) * al) / (n - 1);
        return 4 / M_PI * (0.5 * (first - std::sin((n + 1) * al) / (n + 1)) + c * std::cos(n * al) / n);
    };
    // Sampled 48 times a cycle, harmonic 48 m +- k lands on bin k (with its sign).
    auto folded = [&](int k) {
        double sum = 0;
        for (int m = 0; m < 4000; ++m) sum += (48 * m + k) % 2 ? bn(48 * m + k) - (m ? bn(48 * m - k) : 0.0) : 0.0;
        return sum;
    };
    double band = 0, low = 0;
    for (int k = 3; k <= 19; k += 2) band += folded(k) * folded(k), low += k <= 9 ? folded(k) * folded(k) : 0.0;
    const double b1 = folded(1);
    const double clip_thdn = 10 * std::log10(band / (band + b1 * b1)), clip_thd = 10 * std::log10(low / (b1 * b1));
    const struct { const char *name; SystemFactory make; double level, out, thdn, thd, tol; } cases[] = {
        {"gain", gain(0.5), -20, -26.0206, -140, -140, 0.02},
        {"polynomial", polynomial(a2, a3), to_db(A), to_db(fund), poly_thd, poly_thd, 0.02},
        {"clipper", clipper(c), 0, to_db(b1), clip_thdn, clip_thd, 0.02}};
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        MeasureSettings s = quick();
        s.curve_from_dbfs = s.curve_to_dbfs = k.level;
        std::vector<ToneAnalysis> out;
        double audio = 0;
        std::string error;
        ASSERT_TRUE(measure_curve(k.make, s, 0, out, audio, error)) << error;
        ASSERT_EQ(1u, out.size());
        EXPECT_TRUE(out[0].settled);
        EXPECT_NEAR(k.out, out[0].out_dbfs, k.tol);
        if (k.thdn <= -140) {  // a float stream's own rounding, nothing more
            EXPECT_LT(out[0].thdn_db, -140);
            EXPECT_LT(out[0].thd_db, -140);
        } else {
            EXPECT_NEAR(k.thdn, out[0].thdn_db, k.tol);
            EXPECT_NEAR(k.thd, out[0].thd_db, k.tol);
        }
    }
}

// The compressor's static curve over a staircase (out = in below T, T + (in - T) / R above),
// each step's settling time (a 4 dB step above T moves the gain 3 dB with the 5 ms attack:
// 5 ms x ln(3 / 0.05) to within 0.05 dB, measured in 10 ms pieces), and its THD staying low.
TEST(MeasureKnown, LevelCurveAndSettling) {
    MeasureSettings s = quick();
    s.settle_window_s = 0.2;
    s.curve_from_dbfs = -40, s.curve_to_dbfs = 0, s.curve_step_db = 4;
    std::vector<ToneAnalysis> out;
    double audio = 0;
    std::string error;
    ASSERT_TRUE(measure_curve(compressor(), s, 0, out, audio, error)) << error;
    ASSERT_EQ(11u, out.size());
    for (const ToneAnalysis &a : out) {
        SCOPED_TRACE(a.in_dbfs);
        const double want = a.in_dbfs <= kT ? a.in_dbfs : kT + (a.in_dbfs - kT) / kR;
        EXPECT_NEAR(want, a.out_dbfs, 0.02);
        EXPECT_TRUE(a.settled);
        if (a.in_dbfs > kT + 1)
            EXPECT_NEAR(kAttack * std::log(3.0 / 0.05) + 0.005, a.settle_s, 0.007);
        else
            EXPECT_LE(a.settle_s, 0.01);
    }
}

// Step tests: the compressor's attack and release (63 % at the time constant, within 1 dB after
// the time constant x ln(change / 1 dB)), and systems whose gain never moves (a gain, a delay
// whose latency is taken off): no 63 % time, within 1 dB at once.
TEST(MeasureKnown, AttackAndRelease) {
    const double change = (1 / kR - 1) * (-6 - kT);
    const StepTest step{"test", -30, -6, 0.2, 0.3, 0.6};
    const struct { const char *name; SystemFactory make; int latency; double change, a63, a1, r63, r1, tol; } cases[] = {
        {"compressor", compressor(), 0, change, kAttack, kAttack * std::log(-change), kRelease,
         kRelease * std::log(-change), 0.0015},
        {"gain", gain(2.0), 0, 0, NAN, 0, NAN, 0, 0.0},
        {"delay", delay(333), 333, 0, NAN, 0, NAN, 0, 0.0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        StepResult r;
        double audio = 0;
        std::string error;
        ASSERT_TRUE(measure_step(c.make, quick(), step, c.latency, r, audio, error)) << error;
        EXPECT_NEAR(c.change, r.gain_up_db - r.gain_before_db, 0.02);
        EXPECT_NEAR(r.gain_before_db, r.gain_down_db, 0.02);
        EXPECT_TRUE(r.up_settled && r.down_settled);
        for (auto [got, want] : {std::pair{r.attack_63_s, c.a63}, {r.attack_1db_s, c.a1}, {r.release_63_s, c.r63},
                                 {r.release_1db_s, c.r1}}) {
            if (std::isnan(want))
                EXPECT_TRUE(std::isnan(got));
            else
                EXPECT_NEAR(want, got, c.tol + 0.0005 + want * 0.02);
        }
    }
}

// Dynamic range per stream format of a straight wire: 16 bits give the quantizer's 6.02 x 16 +
// 1.76 dB (the 997 Hz tone's samples fall on every phase, so the error behaves as noise); 32-bit and
// float streams are far beyond any converter. And silence: a wire gives digital zero at once.
TEST(MeasureKnown, DynamicRangeAndSilence) {
    const struct { SampleFormat format; double low, high; } cases[] = {
        {SampleFormat::s16, 97.0, 99.0}, {SampleFormat::s32, 150, 1000}, {SampleFormat::f32, 150, 1000}};
    for (const auto &c : cases) {
        SCOPED_TRACE(sample_format_name(c.format));
        DynamicRange d;
        double audio = 0;
        std::string error;
        MeasureSettings s = quick();
        s.tone_hz = 997;
        ASSERT_TRUE(measure_dynamic_range(gain(1.0), s, c.format, 0, d, audio, error)) << error;
        EXPECT_TRUE(d.dynamic_range_db > c.low && d.dynamic_range_db < c.high) << d.dynamic_range_db;
        EXPECT_NEAR(-60.0, d.tone.out_dbfs, 0.05);
        EXPECT_GT(d.spectrum_hz.size(), 250u);
    }
    SilenceResult s;
    double audio = 0;
    std::string error;
    ASSERT_TRUE(measure_silence(delay(240), quick(), 240, s, audio, error)) << error;
    EXPECT_TRUE(std::isinf(s.start_peak_dbfs) && std::isinf(s.idle_rms_dbfs));
    EXPECT_EQ(0.0, s.zero_after_s);
}

// The effect as a system: started as `run` starts it, in each stream format; its response at a
// low level agrees with the surround's model of the side against the mid, and its latency is the
// framing plus the look-ahead.
TEST(MeasureEffect, DrivenAsRunDrivesIt) {
    EffectLibrary lib;
    std::string error;
    ASSERT_TRUE(effect_library_open(SORN_LIBRARY_PATH, lib, error)) << error;
    RunSettings rs;
    rs.params = tuning_from_json(builtin_tuning_json(), "built-in").params;
    RunReport status;
    StdoutMuffle muffle(true);
    const SystemFactory make = effect_system_factory(lib, kRate, rs, &status);
    ResponseResult r;
    double audio = 0;
    ASSERT_TRUE(measure_response(make, MeasureSettings{}, r, audio, error)) << error;
    EXPECT_TRUE(status.processing);
    EXPECT_EQ(719, r.onset);  // the framing and the look-ahead; the filter's peak follows a tap later
    EXPECT_EQ(720, r.latency);
    double worst = 0;
    for (size_t i = 0; i < r.freq_hz.size(); ++i)
        if (r.freq_hz[i] < 16000)
            worst = std::max(worst, std::fabs(r.side_db[i] - r.mid_db[i] - surround_side_lift_db(r.freq_hz[i], kRate, true)));
    EXPECT_LT(worst, 0.05);
    for (SampleFormat f : {SampleFormat::s16, SampleFormat::s32}) {
        DynamicRange d;
        ASSERT_TRUE(measure_dynamic_range(make, quick(), f, r.latency, d, audio, error)) << error;
        EXPECT_NEAR(-60.0, d.tone.out_dbfs, 1.0);
    }
    effect_library_close(lib);
}

}  // namespace
