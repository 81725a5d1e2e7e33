#include "tools/fit/eq_fit.h"

#include <algorithm>
#include <cmath>

#include "dsp/fir.h"

namespace sorn_tool {

namespace {

constexpr double kMinDb = -6.0; /* the design limits the summed curve to these */
constexpr double kMaxDb = 7.0;
constexpr int kKnots = 32;                 /* lc 12, hp 12, ea 8 */
constexpr int kStart[] = {0, 12, 24, 32}; /* first knot of each group */
constexpr uint32_t kTopHz = 21999;         /* 22000 would meet the design's own end knot */
constexpr size_t kRelocationPeaks = 3;     /* error peaks a relocation round tries */

struct Tables {
    uint32_t f[kKnots];
    int32_t g[kKnots];
};

int group_of(int j) { return j < 12 ? 0 : j < 24 ? 1 : 2; }

sorn_hp_params_t to_params(const Tables &t) {
    sorn_hp_params_t p{};
    p.lc = p.hp = p.ea = 1;
    for (int j = 0; j < kKnots; ++j) {
        Group g = kGroups[group_of(j)];
        group_freq(p, g)[j - kStart[group_of(j)]] = t.f[j];
        group_gain(p, g)[j - kStart[group_of(j)]] = t.g[j];
    }
    return p;
}

double mean(const std::vector<double> &v) {
    double s = 0.0;
    for (double x : v) s += x;
    return v.empty() ? 0.0 : s / double(v.size());
}

struct Fitter {
    Designer &designer;
    const Interpolant &interp;
    const std::vector<double> &freq, &target;
    ResponseGrid grid;
    std::vector<double> bins; /* the design's FFT bins */
    std::vector<double> achieved;
    int designs = 0;
    const FitProgress *progress = nullptr;
    bool stopped = false; /* the caller asked to stop: every candidate is refused from then on */

    /* RMS of achieved minus target after the best offset; +inf when the sum leaves the window. */
    double cost(const Tables &t) {
        if (stopped) return INFINITY;
        const sorn_hp_params_t p = to_params(t);
        std::vector<double> sum(bins.size(), 0.0);
        for (Group g : kGroups) {
            std::vector<double> c = effect_group_curve(group_freq(p, g), group_gain(p, g), group_points(g), bins, interp);
            for (size_t i = 0; i < c.size(); ++i) sum[i] += c[i];
        }
        for (double s : sum)
            if (s > kMaxDb + 1e-4 || s < kMinDb - 1e-4) return INFINITY;
        // Steps of 2 dB or more between points of a group closer than the design's bin spacing
        // would only shape the curve between the bins: fragile (the bins move with the rate)
        // and far from what the requested curve shows.
        const double bin = designer.rate / 1024.0;
        for (int j = 0; j + 1 < kKnots; ++j)
            if (group_of(j) == group_of(j + 1) && double(t.f[j + 1]) - t.f[j] < bin && std::abs(t.g[j + 1] - t.g[j]) >= 2)
                return INFINITY;
        int32_t taps[ORLA_FIR_TAPS];
        designer_taps(designer, p, taps);
        ++designs;
        if (progress && *progress && !(*progress)(designs)) stopped = true;
        response_grid_db(grid, taps, achieved);
        double m = 0.0, s2 = 0.0;
        for (size_t i = 0; i < freq.size(); ++i) m += achieved[i] - target[i];
        m /= double(freq.size());
        for (size_t i = 0; i < freq.size(); ++i) s2 += (achieved[i] - target[i] - m) * (achieved[i] - target[i] - m);
        return std::sqrt(s2 / double(freq.size()));
    }
};

/* Offset that keeps the most of the target inside the window; the middle of the best ones. */
double window_offset(const std::vector<double> &target) {
    const auto [low, high] = std::minmax_element(target.begin(), target.end());
    const double centre = std::round(50.0 - 50.0 * (*low + *high)) / 100.0;  // puts the middle at +0.5 dB
    double best = INFINITY, lo = 0.0, hi = 0.0;
    for (int k = -3000; k <= 3000; ++k) {
        const double o = centre + k * 0.01;
        double loss = 0.0;
        for (double t : target) {
            double v = t + o;
            double c = std::clamp(v, kMinDb, kMaxDb) - v;
            loss += c * c;
        }
        if (loss < best - 1e-9) best = loss, lo = hi = o;
        else if (loss <= best + 1e-9) hi = o;
    }
    return 0.5 * (lo + hi);
}

std::vector<CurvePoint> as_curve(const std::vector<double> &f, const std::vector<double> &v) {
    std::vector<CurvePoint> c;
    for (size_t i = 0; i < f.size(); ++i) c.push_back({f[i], v[i]});
    return c;
}

/* `n` whole-Hz points log-spaced from lo to hi. */
void place(Tables &t, int first, int n, double lo, double hi) {
    for (int i = 0; i < n; ++i) t.f[first + i] = static_cast<uint32_t>(std::lround(lo * std::pow(hi / lo, double(i) / (n - 1))));
}

}  // namespace

std::vector<double> fit_grid_hz(int rate) {
    const double top = std::min(20000.0, 0.42 * rate);
    std::vector<double> f;
    for (int i = 0; 20.0 * std::pow(2.0, i / 48.0) < top; ++i) f.push_back(20.0 * std::pow(2.0, i / 48.0));
    f.push_back(top);
    return f;
}

FitResult eq_fit(Designer &designer, const Interpolant &interp, const std::vector<double> &freq_hz,
                 const std::vector<double> &target_db, const FitProgress &progress) {
    Fitter fit{designer, interp, freq_hz, target_db, response_grid(freq_hz, designer.rate), {}, {}, 0, &progress};
    for (int k = 0; k < 512; ++k) fit.bins.push_back(double(static_cast<float>(k) * static_cast<float>(designer.rate) * 0.0009765625f));

    // 1. The window: the target moved to fit -6..+7 dB as well as it can.
    const double offset0 = window_offset(target_db);
    std::vector<double> wanted;
    for (double t : target_db) wanted.push_back(std::clamp(t + offset0, kMinDb, kMaxDb));

    // 2. Interleaved log grids, then residual iteration through the design.
    Tables t{};
    place(t, 0, 12, 30.0, 16000.0);
    place(t, 12, 12, 40.0, 19000.0);
    place(t, 24, 8, 70.0, 12000.0);
    std::vector<double> residual = wanted;
    double best = INFINITY;
    for (int round = 0; round < 6; ++round) {
        const int g = round % 3;
        Tables next = t;
        const std::vector<CurvePoint> r = as_curve(freq_hz, residual);
        for (int j = kStart[g]; j < kStart[g + 1]; ++j)
            next.g[j] = static_cast<int32_t>(std::clamp<long>(next.g[j] + std::lround(interp_log_freq(r, next.f[j])), -6, 7));
        double c = fit.cost(next);
        for (int shrink = 0; std::isinf(c) && shrink < 8; ++shrink) {  // over the window: pull back to t
            for (int j = kStart[g]; j < kStart[g + 1]; ++j) next.g[j] += next.g[j] > t.g[j] ? -1 : next.g[j] < t.g[j] ? 1 : 0;
            c = fit.cost(next);
        }
        if (c >= best) continue;
        best = c;
        t = next;
        const double m = mean(fit.achieved) - mean(wanted);
        for (size_t i = 0; i < residual.size(); ++i) residual[i] = wanted[i] - (fit.achieved[i] - m);
    }

    // 3. Coordinate search on gains, frequencies and pairs of gains across groups.
    auto try_move = [&](Tables &cand) {
        double c = fit.cost(cand);
        if (c < best - 1e-6) best = c, t = cand;
    };
    static const double kRatios[] = {1.122462048309373, 0.890898718140339, 1.059463094359295,
                                     0.943874312681693, 1.021897148654117, 0.978572062087700};
    auto local_search = [&] {
        for (double before = INFINITY; before - best > kMinGainDb && fit.designs < kMaxDesigns;) {
            before = best;
            // The level of a whole group, up or down a dB.
            for (int g = 0; g < 3; ++g)
                for (int step : {1, -1}) {
                    Tables cand = t;
                    for (int j = kStart[g]; j < kStart[g + 1]; ++j) cand.g[j] += step;
                    try_move(cand);
                }
            for (int j = 0; j < kKnots; ++j) {
                for (int step : {1, -1}) {
                    Tables cand = t;
                    cand.g[j] += step;
                    try_move(cand);
                }
                const int g = group_of(j);
                for (double ratio : kRatios) {
                    const uint32_t lo = j > kStart[g] ? t.f[j - 1] + 1 : 1;
                    const uint32_t hi = j + 1 < kStart[g + 1] ? t.f[j + 1] - 1 : kTopHz;
                    const auto f = static_cast<uint32_t>(std::clamp<double>(std::lround(t.f[j] * ratio), lo, hi));
                    if (f == t.f[j]) continue;
                    Tables cand = t;
                    cand.f[j] = f;
                    try_move(cand);
                }
                // Trade a dB with the nearest point of each other group: moves the sum by less
                // than a whole dB somewhere between them.
                for (int other = 0; other < 3; ++other) {
                    if (other == g) continue;
                    int near = kStart[other];
                    for (int k = kStart[other]; k < kStart[other + 1]; ++k)
                        if (std::fabs(std::log(double(t.f[k]) / t.f[j])) < std::fabs(std::log(double(t.f[near]) / t.f[j]))) near = k;
                    for (int step : {1, -1}) {
                        Tables cand = t;
                        cand.g[j] += step;
                        cand.g[near] -= step;
                        try_move(cand);
                    }
                }
            }
        }
    };

    // 4. Points that sit where they help least move to where the error is largest (a group's
    //    points are re-sorted), each followed by a new local search while that pays.
    std::vector<double> best_achieved;
    auto relocate = [&] {
        fit.cost(t);
        best_achieved = fit.achieved;
        const double m = mean(best_achieved) - mean(target_db);
        std::vector<double> e(freq_hz.size());
        for (size_t i = 0; i < e.size(); ++i) e[i] = best_achieved[i] - target_db[i] - m;
        std::vector<size_t> peaks;
        for (size_t i = 0; i < e.size(); ++i)
            if ((i == 0 || std::fabs(e[i]) >= std::fabs(e[i - 1])) && (i + 1 == e.size() || std::fabs(e[i]) > std::fabs(e[i + 1])))
                peaks.push_back(i);
        std::stable_sort(peaks.begin(), peaks.end(), [&](size_t x, size_t y) { return std::fabs(e[x]) > std::fabs(e[y]); });
        peaks.resize(std::min<size_t>(peaks.size(), kRelocationPeaks));
        const double start = best;
        for (size_t i : peaks) {
            for (int j = 0; j < kKnots; ++j) {
                const int g = group_of(j);
                const auto f = static_cast<uint32_t>(std::clamp<long>(std::lround(freq_hz[i]), 1, kTopHz));
                if (std::find(t.f + kStart[g], t.f + kStart[g + 1], f) != t.f + kStart[g + 1]) continue;
                const sorn_hp_params_t p = to_params(t);
                const double here = effect_group_curve(group_freq(p, kGroups[g]), group_gain(p, kGroups[g]),
                                                       group_points(kGroups[g]), {double(f)}, interp)[0];
                Tables cand = t;
                cand.f[j] = f;
                cand.g[j] = static_cast<int32_t>(std::lround(here - e[i]));
                std::vector<std::pair<uint32_t, int32_t>> pts;
                for (int k = kStart[g]; k < kStart[g + 1]; ++k) pts.push_back({cand.f[k], cand.g[k]});
                std::sort(pts.begin(), pts.end());
                for (int k = kStart[g]; k < kStart[g + 1]; ++k) cand.f[k] = pts[k - kStart[g]].first, cand.g[k] = pts[k - kStart[g]].second;
                try_move(cand);
            }
            if (best < start) return true;
        }
        return false;
    };
    local_search();
    while (fit.designs < kMaxDesigns && relocate()) local_search();

    FitResult r;
    r.params = to_params(t);
    fit.cost(t);
    r.designs = fit.designs;
    r.achieved_db = fit.achieved;
    r.level_offset_db = mean(fit.achieved) - mean(target_db);
    // Each grid point's error is put down to one cause: the window where the offset target
    // leaves -6..+7 dB, the filter's resolution where the clipped target holds detail that a
    // smoothing over rate/513 Hz takes away, the tables everywhere else. The three parts add
    // up (in squares) to the total.
    const double width = designer.rate / double(ORLA_FIR_TAPS);
    std::vector<double> clipped;
    for (double v : target_db) clipped.push_back(std::clamp(v + r.level_offset_db, kMinDb, kMaxDb));
    const std::vector<CurvePoint> clipped_curve = as_curve(freq_hz, clipped);
    double part[3] = {0.0, 0.0, 0.0};
    for (size_t i = 0; i < freq_hz.size(); ++i) {
        const double e = fit.achieved[i] - target_db[i] - r.level_offset_db;
        if (std::fabs(e) > r.max_db) r.max_db = std::fabs(e), r.max_hz = freq_hz[i];
        double acc = 0.0, norm = 0.0;
        for (int k = -16; k <= 16; ++k) {
            const double f = freq_hz[i] + width * k / 16.0, h = 0.5 + 0.5 * std::cos(M_PI * k / 16.0);
            if (f > 0.0) acc += h * interp_log_freq(clipped_curve, f), norm += h;
        }
        const int cause = std::fabs(clipped[i] - target_db[i] - r.level_offset_db) > 0.05 ? 0
                          : std::fabs(acc / norm - clipped[i]) > 0.25                   ? 1
                                                                                        : 2;
        part[cause] += e * e;
    }
    const double n = double(freq_hz.size());
    r.rms_db = std::sqrt((part[0] + part[1] + part[2]) / n);
    r.window_db = std::sqrt(part[0] / n);
    r.resolution_db = std::sqrt(part[1] / n);
    r.table_db = std::sqrt(part[2] / n);
    return r;
}

}  // namespace sorn_tool
