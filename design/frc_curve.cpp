#include "design/frc_curve.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "design/cubic_interp.h"
#include "design/minimum_phase.h"
#include "platform/sat_math.h"

namespace {

constexpr int kBins = 512;      // lower half of the design transform
constexpr int kFftSize = 1024;  // design transform length
constexpr int32_t kTopHz = 22000;
constexpr int kMaxPoints = 12;
constexpr int kMaxKnots = kMaxPoints + 2;  // the table plus the two end knots
constexpr int kMinKnots = 3;               // the interpolant's end slopes need three knots
static_assert(FRC_DESIGN_LC_POINTS <= kMaxPoints && FRC_DESIGN_HP_POINTS <= kMaxPoints &&
              FRC_DESIGN_EA_POINTS <= kMaxPoints);

struct Table {
    const int32_t *freq;
    const int32_t *gain;
    int points;
};

struct Knots {
    std::array<float, kMaxKnots> x{};
    std::array<float, kMaxKnots> y{};
    int n = 0;
};

using Curve = std::array<float, kBins>;

// A table the interpolant takes as it stands: strictly increasing inside (0, 22000) Hz, so no
// two knots coincide, including the added end knots.
bool is_clean(const Table &t) {
    for (int i = 0; i < t.points; ++i) {
        if (t.freq[i] <= 0 || t.freq[i] >= kTopHz) return false;
        if (i > 0 && t.freq[i] <= t.freq[i - 1]) return false;
    }
    return true;
}

// End knots at 0 and 22000 Hz repeating the first and the last gain, the table in between.
Knots knots_as_given(const Table &t) {
    Knots k;
    k.x[0] = 0.0f;
    k.y[0] = static_cast<float>(t.gain[0]);
    for (int i = 0; i < t.points; ++i) {
        k.x[i + 1] = static_cast<float>(t.freq[i]);
        k.y[i + 1] = static_cast<float>(t.gain[i]);
    }
    k.x[t.points + 1] = static_cast<float>(kTopHz);
    k.y[t.points + 1] = static_cast<float>(t.gain[t.points - 1]);
    k.n = t.points + 2;
    return k;
}

// Ordered by frequency, coincident points merged (mean gain), end knots added only where the
// table has no point of its own. Every x is a distinct whole number of Hz in 0..22000, exact in
// float, so the knots are strictly increasing.
Knots knots_repaired(const Table &t) {
    struct Point {
        int32_t freq;
        int32_t gain;
    };
    std::array<Point, kMaxPoints> pts{};
    for (int i = 0; i < t.points; ++i) {
        pts[i] = {std::clamp<int32_t>(t.freq[i], 0, kTopHz), t.gain[i]};
    }
    std::stable_sort(pts.begin(), pts.begin() + t.points,
                     [](const Point &a, const Point &b) { return a.freq < b.freq; });

    std::array<int32_t, kMaxPoints> mf{};
    std::array<float, kMaxPoints> mg{};
    int m = 0;
    for (int i = 0; i < t.points;) {
        int j = i;
        double sum = 0.0;
        while (j < t.points && pts[j].freq == pts[i].freq) sum += pts[j++].gain;
        mf[m] = pts[i].freq;
        mg[m] = static_cast<float>(sum / (j - i));
        ++m;
        i = j;
    }

    Knots k;
    if (mf[0] > 0) {
        k.x[k.n] = 0.0f;
        k.y[k.n++] = mg[0];
    }
    for (int i = 0; i < m; ++i) {
        k.x[k.n] = static_cast<float>(mf[i]);
        k.y[k.n++] = mg[i];
    }
    if (mf[m - 1] < kTopHz) {
        k.x[k.n] = static_cast<float>(kTopHz);
        k.y[k.n++] = mg[m - 1];
    }
    return k;
}

void interpolate(const Knots &k, const float *grid, float *out, int m) {
    void *interp =
        cubicinterp_init(const_cast<float *>(k.x.data()), const_cast<float *>(k.y.data()), k.n);
    cubicinterp_process(interp, const_cast<float *>(grid), out, m);
    cubicinterp_deinit(interp);
}

// One group's curve in dB on the design grid; notes in the report how it was built.
void group_curve(const Table &t, const float *grid, Curve &curve, int group,
                 frc_design_report_t &report) {
    const bool clean = is_clean(t);
    const Knots k = clean ? knots_as_given(t) : knots_repaired(t);
    report.knots[group] = k.n;
    report.repaired[group] = clean ? 0 : 1;
    if (k.n < kMinKnots) {
        curve.fill(0.0f);
        return;
    }
    interpolate(k, grid, curve.data(), kBins);
    curve[0] = k.y[0];
}

}  // namespace

extern "C" int frc_design(const frc_design_input_t *in, int32_t *taps,
                          frc_design_report_t *report) {
    frc_design_report_t r{};
    if (report != nullptr) *report = r;
    if (in == nullptr || taps == nullptr) return 0;

    Curve grid, total, lc_curve{}, hp_curve{}, ea_curve{};
    const float rate = static_cast<float>(in->sample_rate);
    for (int k = 0; k < kBins; ++k) grid[k] = (static_cast<float>(k) * rate) * 0.0009765625f;

    const bool use_lc = in->lc >= 1, use_hp = in->hp >= 1, use_ea = in->ea >= 1;
    if (use_lc)
        group_curve({in->lc_freq, in->lc_gain, FRC_DESIGN_LC_POINTS}, grid.data(), lc_curve,
                    FRC_GROUP_LC, r);
    if (use_hp)
        group_curve({in->hp_freq, in->hp_gain, FRC_DESIGN_HP_POINTS}, grid.data(), hp_curve,
                    FRC_GROUP_HP, r);
    if (use_ea)
        group_curve({in->ea_freq, in->ea_gain, FRC_DESIGN_EA_POINTS}, grid.data(), ea_curve,
                    FRC_GROUP_EA, r);
    if (report != nullptr) *report = r;

    for (int k = 0; k < kBins; ++k) {
        float t = 0.0f;
        if (use_lc) t = lc_curve[k] + t;
        if (use_hp) t += hp_curve[k];
        if (use_ea) t += ea_curve[k];
        if (t > 7.0f) {
            t = 7.0f;
        } else if (t < -6.0f) {
            t = -6.0f;
        } else if (t != t) {
            t = 0.0f;  // a not-a-number bin would spread into every tap
        }
        total[k] = t;
    }

    // The transforms leave their output untouched when they cannot get work memory; the
    // not-a-number fill makes that visible, and the caller's taps are left as they were.
    std::array<double, FRC_DESIGN_TAPS> linear, minimum;
    linear.fill(std::numeric_limits<double>::quiet_NaN());
    minimum.fill(std::numeric_limits<double>::quiet_NaN());
    coef_transform(total.data(), kFftSize, linear.data(), FRC_DESIGN_TAPS);
    line2mp(linear.data(), FRC_DESIGN_TAPS, minimum.data(), FRC_DESIGN_TAPS);
    if (!std::all_of(minimum.begin(), minimum.end(), [](double v) { return std::isfinite(v); }))
        return 0;
    for (int k = 0; k < FRC_DESIGN_TAPS; ++k) taps[k] = sorn::sat_f2i32(minimum[k] * 8388608.0);
    return 1;
}

extern "C" void clac_frc_curve(float *x, float *y, float *freq_out, float *curve_out, int nknots,
                               int npoints, int sample_rate) {
    if (freq_out == nullptr || curve_out == nullptr || npoints < 1) return;
    const float rate = static_cast<float>(sample_rate);
    const float span = static_cast<float>(2 * npoints);
    for (int k = 0; k < npoints; ++k) freq_out[k] = (rate * static_cast<float>(k)) / span;
    if (x == nullptr || y == nullptr || nknots < kMinKnots) {
        std::fill(curve_out, curve_out + npoints, 0.0f);
        return;
    }
    void *interp = cubicinterp_init(x, y, nknots);
    cubicinterp_process(interp, freq_out, curve_out, npoints);
    cubicinterp_deinit(interp);
}
