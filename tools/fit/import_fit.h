/*
 * A published correction fitted into a whole tuning, as `import` does: the correction read by
 * eq_import is put on fit_grid_hz(rate) and fitted by eq_fit through the loaded library's own
 * design at `rate`; the result is the tuning file's text, with the correction kept as its target
 * so that `design` can show achieved against it.
 *
 * The library logs every design; the fit's thousands of trial designs run with its log silenced
 * (the process-wide minimum priority is put back afterwards). When `on_fitted` is given it is
 * called with the number of trial designs, and the chosen tables are then designed once more with
 * the log as it was, so a caller that shows the library's log shows the one design that counts.
 * Standard output is left alone (the library's "[SA6_SBS]" lines): a caller that wants them
 * hidden holds a StdoutMuffle.
 *
 * Guarantees: either a complete result whose tuning file reads back to exactly the fitted block,
 * or false with one message. Writes no file.
 */
#ifndef SORN_TOOLS_IMPORT_FIT_H
#define SORN_TOOLS_IMPORT_FIT_H

#include <functional>
#include <string>
#include <vector>

#include "tools/fit/eq_fit.h"
#include "tools/fit/eq_import.h"
#include "tools/host/effect_host.h"

namespace sorn_tool {

struct ImportFit {
    std::vector<double> grid_hz;   /* fit_grid_hz(rate) */
    std::vector<double> target_db; /* the correction on the grid */
    FitResult fit;                 /* its block has the surround switch as asked */
    TuningTarget target;           /* the correction as the tuning file keeps it */
    std::string tuning_json;
};

/* `source` names the correction in the tuning's target (its last path component is kept). */
bool import_fit(const EffectLibrary &lib, const ImportedCurve &curve, const std::string &source, int rate,
                bool surround, ImportFit &result, std::string &error,
                const std::function<void(int designs)> &on_fitted = {}, const FitProgress &progress = {});

/* The lines `import` prints for a fit of `file` written to `out` that took `seconds` of processor
   time: what was read, the level offset, the error and where it comes from. */
std::string import_report(const ImportedCurve &c, const ImportFit &r, const std::string &file, const std::string &out,
                          int rate, double seconds);

}  // namespace sorn_tool

#endif
