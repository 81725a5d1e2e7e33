/*
 * Fits a target curve into the effect's three tables, judged by what the library's own design
 * achieves: the 513 taps, not the requested curve.
 *
 * Takes a target in dB on fit_grid_hz() (log-spaced, 1/48 octave, 20 Hz to 20 kHz or the
 * filter's passband edge, whichever is lower), the library's designer for one rate and its curve
 * interpolant. Returns a block with lc, hp and ea on (12, 12 and 8 points), surround off, and the
 * figures of the fit.
 *
 * The level is free: the error is achieved minus target minus the level offset that makes its
 * mean zero (the least-squares offset), on the log-frequency grid. The fit
 *   1. picks a starting offset that puts as much of the target as possible inside the -6..+7 dB
 *      window (centred when all of it fits);
 *   2. places the three groups on interleaved log grids and sets their gains by residual
 *      iteration through the design (lc takes the target, hp and ea what the taps still miss);
 *   3. searches coordinate by coordinate through the design: each point's gain by one dB, each
 *      point's frequency by 1/6, 1/12 and 1/32 octave within its neighbours, and pairs of
 *      points that trade a dB between groups, and whole groups up or down a dB, keeping a move
 *      only when the RMS error falls;
 *   4. then tries moving any one point to one of the largest peaks of the remaining error (with
 *      the gain that cancels it there; its group is re-sorted) and, when that helps, searches
 *      locally again.
 * Every candidate keeps the tables valid for the block (whole Hz strictly increasing from 1 to
 * 21999 Hz, whole dB) and the summed curve inside -6..+7 dB on every design bin, so what is
 * requested is what is designed; and no group steps by 2 dB or more between points closer than
 * one design bin (rate/1024), which would only shape the curve between the bins and so change
 * with the rate. Deterministic: the same target gives the same block. The
 * search ends after a pass that gains less than kMinGainDb, or once kMaxDesigns designs are
 * spent.
 *
 * Where the error comes from: each grid point's error is put down to the window limit (where the
 * offset target leaves -6..+7 dB), else to detail finer than the filter resolves (where
 * smoothing the clipped target over rate/513 Hz moves it by more than 0.25 dB), else to the
 * tables (32 points, whole dB, whole Hz). The three RMS parts add up in squares to the total.
 */
#ifndef SORN_TOOLS_EQ_FIT_H
#define SORN_TOOLS_EQ_FIT_H

#include <functional>
#include <vector>

#include "tools/files/tuning.h"
#include "tools/plot/design_view.h"

namespace sorn_tool {

inline constexpr int kMaxDesigns = 4000;
inline constexpr double kMinGainDb = 0.002; /* a pass that lowers the RMS error by less ends the search */

std::vector<double> fit_grid_hz(int rate);

struct FitResult {
    sorn_hp_params_t params{};
    double level_offset_db = 0.0; /* added to the target */
    double rms_db = 0.0, max_db = 0.0, max_hz = 0.0;
    double window_db = 0.0, resolution_db = 0.0, table_db = 0.0;
    int designs = 0;
    std::vector<double> achieved_db; /* on the grid */
};

/* Called after each design with the number made so far (at most kMaxDesigns); returning false
   stops the fit: it then returns soon, with a result not to be used. The callback only watches,
   so a fit that runs to its end gives the same result with or without it. */
using FitProgress = std::function<bool(int designs)>;

FitResult eq_fit(Designer &designer, const Interpolant &interp, const std::vector<double> &freq_hz,
                 const std::vector<double> &target_db, const FitProgress &progress = {});

}  // namespace sorn_tool

#endif
