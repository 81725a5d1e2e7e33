#include "tools/plot/design_view.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <sstream>

#include "tools/files/text_format.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace sorn_tool {

namespace {

constexpr double kMinDb = -6.0; /* the design limits the summed curve to these */
constexpr double kMaxDb = 7.0;
constexpr double kPassbandEdge = 0.42; /* of the rate: the prototype low-pass is flat below it */
constexpr int kPlotPoints = 600;
/* Steps below this stay within about half a dB of the request even when squeezed. */
constexpr int kSmallestStepDb = 2;

std::string hz(double f) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.0f Hz", f);
    return buf;
}

/* Frequency ranges where `over` holds, as "a to b Hz" texts. */
template <typename Pred>
std::vector<std::string> ranges(const std::vector<double> &f, Pred over) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < f.size()) {
        if (!over(i)) {
            ++i;
            continue;
        }
        size_t j = i;
        while (j + 1 < f.size() && over(j + 1)) ++j;
        out.push_back(hz(f[i]) + (j > i ? " to " + hz(f[j]) : ""));
        i = j + 1;
    }
    return out;
}

}  // namespace

bool interpolant_from_library(const EffectLibrary &lib, Interpolant &interp, std::string &error) {
    interp.init = reinterpret_cast<decltype(interp.init)>(effect_library_symbol(lib, "cubicinterp_init"));
    interp.process = reinterpret_cast<decltype(interp.process)>(effect_library_symbol(lib, "cubicinterp_process"));
    interp.deinit = reinterpret_cast<decltype(interp.deinit)>(effect_library_symbol(lib, "cubicinterp_deinit"));
    if (interp.init && interp.process && interp.deinit) return true;
    error = lib.path + ": the library does not export its curve interpolant (cubicinterp_*)";
    return false;
}

std::vector<double> effect_group_curve(const uint32_t *freq, const int32_t *gain, int n,
                                       const std::vector<double> &query_hz, const Interpolant &interp) {
    // Knots as the design builds them: the first and the last gain repeated at 0 and 22000 Hz,
    // unless a point already sits there.
    std::vector<float> x, y;
    if (n > 0 && freq[0] != 0) x.push_back(0.0f), y.push_back(float(gain[0]));
    for (int i = 0; i < n; ++i) x.push_back(float(freq[i])), y.push_back(float(gain[i]));
    if (n > 0 && freq[n - 1] != kMaxPointHz) x.push_back(float(kMaxPointHz)), y.push_back(float(gain[n - 1]));

    std::vector<float> xq(query_hz.begin(), query_hz.end()), yq(query_hz.size(), 0.0f);
    void *curve = x.size() >= 2 ? interp.init(x.data(), y.data(), static_cast<int>(x.size())) : nullptr;
    if (curve) {
        interp.process(curve, xq.data(), yq.data(), static_cast<int>(xq.size()));
        interp.deinit(curve);
    }
    return {yq.begin(), yq.end()};
}

double taps_response_db(const int32_t *taps, int n, double freq_hz, int rate) {
    const double w = -2.0 * M_PI * freq_hz / rate;
    std::complex<double> sum = 0.0;
    for (int k = 0; k < n; ++k) sum += (taps[k] / 8388608.0) * std::polar(1.0, w * k);
    return 20.0 * std::log10(std::max(std::abs(sum), 1e-12));
}

std::vector<std::string> design_warnings(const sorn_hp_params_t &p, int rate, const Interpolant &interp) {
    std::vector<std::string> out;
    const double resolution = double(rate) / ORLA_FIR_TAPS;
    char buf[320];
    for (Group g : kGroups) {
        if (!group_used(p, g)) continue;
        const uint32_t *f = group_freq(p, g);
        const int32_t *a = group_gain(p, g);
        for (int i = 0; i + 1 < group_points(g); ++i) {
            double span = double(f[i + 1]) - double(f[i]);
            int change = a[i + 1] - a[i];
            if (std::abs(change) < kSmallestStepDb || span >= resolution) continue;
            std::snprintf(buf, sizeof buf,
                          "%s points %d and %d (%u Hz, %u Hz) change by %+d dB within %.0f Hz: finer "
                          "than the 513-tap filter resolves (about %.0f Hz at %d Hz); expect a "
                          "smoothed step",
                          group_name(g), i + 1, i + 2, f[i], f[i + 1], change, span, resolution, rate);
            out.push_back(buf);
        }
    }
    // The sum before the limits, on a grid as fine as the design's bins.
    std::vector<double> grid;
    for (int k = 1; k < 512; ++k) grid.push_back(k * double(rate) / 1024.0);
    std::vector<double> sum(grid.size(), 0.0);
    for (Group g : kGroups) {
        if (!group_used(p, g)) continue;
        std::vector<double> c = effect_group_curve(group_freq(p, g), group_gain(p, g), group_points(g), grid, interp);
        for (size_t i = 0; i < grid.size(); ++i) sum[i] += c[i];
    }
    for (const std::string &r : ranges(grid, [&](size_t i) { return sum[i] > kMaxDb; }))
        out.push_back("the summed curve exceeds +7 dB at " + r + " and is limited to +7 dB there");
    for (const std::string &r : ranges(grid, [&](size_t i) { return sum[i] < kMinDb; }))
        out.push_back("the summed curve falls below -6 dB at " + r + " and is limited to -6 dB there");
    return out;
}

bool designer_open(const EffectLibrary &lib, int rate, Designer &d, std::string &error) {
    using InitFn = void *(*)(int, int, int);
    auto init = reinterpret_cast<InitFn>(effect_library_symbol(lib, "sorn_hp_wrapper_init"));
    d = Designer{};
    d.set = reinterpret_cast<decltype(d.set)>(effect_library_symbol(lib, "sorn_hp_wrapper_set_parameters"));
    d.deinit = reinterpret_cast<decltype(d.deinit)>(effect_library_symbol(lib, "sorn_hp_wrapper_deinit"));
    if (!init || !d.set || !d.deinit) {
        error = lib.path + ": the library does not export its wrapper entry points (sorn_hp_wrapper_*)";
        return false;
    }
    auto *w = static_cast<sorn_hp_wrapper_t *>(init(rate, 3, 2));
    if (!w || w->state == 0) {
        if (w) d.deinit(w);
        error = "the library's wrapper refuses " + std::to_string(rate) + " Hz";
        return false;
    }
    d.wrapper = w;
    d.rate = rate;
    return true;
}

void designer_taps(Designer &d, const sorn_hp_params_t &p, int32_t *taps) {
    auto *w = static_cast<sorn_hp_wrapper_t *>(d.wrapper);
    sorn_hp_params_t block = p;
    d.set(w, &block);
    std::copy(w->frc.coef_left, w->frc.coef_left + ORLA_FIR_TAPS, taps);
}

void designer_close(Designer &d) {
    if (d.wrapper) d.deinit(d.wrapper);
    d.wrapper = nullptr;
}

ResponseGrid response_grid(const std::vector<double> &freq_hz, int rate) {
    ResponseGrid g;
    g.freq_hz = freq_hz;
    for (double f : freq_hz) {
        const double w = -2.0 * M_PI * f / rate;
        for (int k = 0; k < ORLA_FIR_TAPS; ++k) {
            g.re.push_back(static_cast<float>(std::cos(w * k) / 8388608.0));
            g.im.push_back(static_cast<float>(std::sin(w * k) / 8388608.0));
        }
    }
    return g;
}

void response_grid_db(const ResponseGrid &g, const int32_t *taps, std::vector<double> &out_db) {
    out_db.resize(g.freq_hz.size());
    float t[ORLA_FIR_TAPS];
    for (int k = 0; k < ORLA_FIR_TAPS; ++k) t[k] = static_cast<float>(taps[k]);
    for (size_t i = 0; i < g.freq_hz.size(); ++i) {
        const float *re = &g.re[i * ORLA_FIR_TAPS], *im = &g.im[i * ORLA_FIR_TAPS];
        float a = 0.0f, b = 0.0f;
        for (int k = 0; k < ORLA_FIR_TAPS; ++k) a += t[k] * re[k], b += t[k] * im[k];
        out_db[i] = 10.0 * std::log10(std::max(double(a) * a + double(b) * b, 1e-24));
    }
}

bool design_view_run(const EffectLibrary &lib, const sorn_hp_params_t &p, int rate, DesignView &view,
                     std::string &error, const TuningTarget *target) {
    Interpolant interp;
    Designer d;
    if (!designer_open(lib, rate, d, error) || !interpolant_from_library(lib, interp, error)) {
        designer_close(d);
        return false;
    }
    view = DesignView{};
    view.rate = rate;
    view.taps.resize(ORLA_FIR_TAPS);
    designer_taps(d, p, view.taps.data());
    designer_close(d);

    const double lo = 10.0, hi = rate / 2.0;
    for (int i = 0; i < kPlotPoints; ++i)
        view.freq_hz.push_back(lo * std::pow(hi / lo, double(i) / (kPlotPoints - 1)));
    view.requested_db.assign(view.freq_hz.size(), 0.0);
    for (Group g : kGroups) {
        if (!group_used(p, g)) continue;
        auto &c = view.group_db[static_cast<int>(g)];
        c = effect_group_curve(group_freq(p, g), group_gain(p, g), group_points(g), view.freq_hz, interp);
        for (size_t i = 0; i < c.size(); ++i) view.requested_db[i] += c[i];
    }
    for (double &v : view.requested_db) v = std::clamp(v, kMinDb, kMaxDb);
    view.deviation_limit_hz = std::min(20000.0, kPassbandEdge * rate);
    for (size_t i = 0; i < view.freq_hz.size(); ++i) {
        double a = taps_response_db(view.taps.data(), ORLA_FIR_TAPS, view.freq_hz[i], rate);
        view.achieved_db.push_back(a);
        double f = view.freq_hz[i];
        double dev = std::fabs(a - view.requested_db[i]);
        if (f >= 20.0 && f <= view.deviation_limit_hz && dev > view.max_deviation_db) {
            view.max_deviation_db = dev;
            view.max_deviation_hz = f;
        }
    }
    view.warnings = design_warnings(p, rate, interp);
    if (target && !target->points.empty()) {
        double sum_sq = 0.0;
        int n = 0;
        for (size_t i = 0; i < view.freq_hz.size(); ++i) {
            double f = view.freq_hz[i];
            bool inside = f >= target->points.front().freq_hz && f <= target->points.back().freq_hz;
            double t = interp_log_freq(target->points, f) + target->level_offset_db;
            view.target_db.push_back(inside ? t : NAN);
            if (inside && f >= 20.0 && f <= view.deviation_limit_hz) sum_sq += (view.achieved_db[i] - t) * (view.achieved_db[i] - t), ++n;
        }
        view.target_rms_db = n ? std::sqrt(sum_sq / n) : 0.0;
    }
    return true;
}

std::vector<std::string> design_warnings_shown(const DesignView &view, const TuningTarget &target, int &fine_steps) {
    std::vector<std::string> shown;
    fine_steps = 0;
    for (const std::string &w : view.warnings)
        if (target.points.empty() || w.find("finer than the 513-tap filter resolves") == std::string::npos)
            shown.push_back(w);
        else
            ++fine_steps;
    return shown;
}

std::string design_summary(const DesignView &v, const std::string &name, const TuningTarget *target) {
    const bool shown = !v.target_db.empty();
    std::ostringstream o;
    o << "sorn-hp design: " << name << " at " << v.rate << " Hz (513 minimum-phase taps)\n";
    o << "  frequency   requested   achieved" << (shown ? "     target" : "") << "\n";
    for (double f : {31.25, 62.5, 125.0, 250.0, 500.0, 1000.0, 2000.0, 4000.0, 8000.0, 16000.0}) {
        size_t best = 0;
        for (size_t i = 0; i < v.freq_hz.size(); ++i)
            if (std::fabs(std::log(v.freq_hz[i] / f)) < std::fabs(std::log(v.freq_hz[best] / f))) best = i;
        o << fmt("  %6.0f Hz   %+6.2f dB   %+6.2f dB", v.freq_hz[best], v.requested_db[best], v.achieved_db[best]);
        o << (shown ? fmt("   %+6.2f dB", v.target_db[best]) : std::string()) << "\n";
    }
    o << fmt("  largest deviation from requested %.2f dB at %.0f Hz (20 Hz to %.0f Hz)\n", v.max_deviation_db,
             v.max_deviation_hz, v.deviation_limit_hz);
    if (shown)
        o << fmt("  achieved vs target (%s, level %+.2f dB): RMS %.2f dB (20 Hz to %.0f Hz)\n",
                 target->source.empty() ? "imported" : target->source.c_str(), target->level_offset_db,
                 v.target_rms_db, v.deviation_limit_hz);
    return o.str();
}

}  // namespace sorn_tool
