/*
 * What the effect's design makes of a tuning, for `design`, `demo` and the GraphicEQ fit.
 *
 * The taps come from the loaded library itself: a processing wrapper made for the rate is
 * handed the parameter block (sorn_hp_wrapper_set_parameters), and its FIR record holds the
 * 513 Q23 taps the effect would play. The requested curve is drawn with the library's own
 * interpolant through each used group's table (plus the end knots the design adds at 0 Hz and
 * 22000 Hz), summed and limited to -6..+7 dB, as the design does on its FFT bins; here it is
 * evaluated on a fine log-frequency grid instead. The achieved response is the taps' own
 * frequency response, computed directly.
 *
 * The largest deviation is measured from 20 Hz up to 20 kHz or the filter's passband edge
 * (0.42 of the rate, 18522 Hz at 44.1 kHz), whichever is lower: above the edge the effect's
 * low-pass is deliberate, not a design error.
 */
#ifndef SORN_TOOLS_DESIGN_VIEW_H
#define SORN_TOOLS_DESIGN_VIEW_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/files/tuning.h"
#include "tools/host/effect_host.h"

namespace sorn_tool {

/* The library's single-precision curve interpolant. */
struct Interpolant {
    void *(*init)(float *x, float *y, int n) = nullptr;
    void (*process)(void *interp, float *xq, float *yq, int m) = nullptr;
    void (*deinit)(void *interp) = nullptr;
};

bool interpolant_from_library(const EffectLibrary &lib, Interpolant &interp, std::string &error);

/* The curve (dB) the effect draws through one group's table, at the query frequencies. */
std::vector<double> effect_group_curve(const uint32_t *freq, const int32_t *gain, int n,
                                       const std::vector<double> &query_hz, const Interpolant &interp);

/* Magnitude response in dB of Q23 taps at `freq_hz`. */
double taps_response_db(const int32_t *taps, int n, double freq_hz, int rate);

/* Where the tables ask for detail the 513-tap filter cannot resolve (steps of 2 dB or more
   between neighbouring points less than about rate/513 Hz apart), and where the sum runs into the -6..+7 dB limits. */
std::vector<std::string> design_warnings(const sorn_hp_params_t &p, int rate, const Interpolant &interp);

struct DesignView {
    int rate = 0;
    std::vector<int32_t> taps;
    std::vector<double> freq_hz;      /* log grid from 10 Hz to rate / 2 */
    std::vector<double> requested_db; /* summed and limited */
    std::vector<double> achieved_db;
    std::vector<double> group_db[3]; /* per group, empty when the group is off */
    double max_deviation_db = 0.0;
    double max_deviation_hz = 0.0;
    double deviation_limit_hz = 0.0;
    std::vector<std::string> warnings;
    /* From an imported tuning: the correction it was fitted to, moved by the level offset, on
       the same grid (empty otherwise), and the RMS of achieved minus it over the same range as
       the largest deviation. */
    std::vector<double> target_db;
    double target_rms_db = 0.0;
};

/* The library's own design of a block, kept open for repeated use (the fit designs thousands of
   candidates): one processing wrapper made for the rate, handed each block through
   sorn_hp_wrapper_set_parameters; its FIR record then holds the 513 Q23 taps the effect would
   play. This is the only place the tool reaches the design. */
struct Designer {
    void *wrapper = nullptr;
    void (*set)(void *, void *) = nullptr;
    void (*deinit)(void *) = nullptr;
    int rate = 0;
};

/* False with `error` when the library lacks the entry points or refuses the rate. */
bool designer_open(const EffectLibrary &lib, int rate, Designer &d, std::string &error);
/* Writes the 513 taps the library designs for `p`. */
void designer_taps(Designer &d, const sorn_hp_params_t &p, int32_t *taps);
void designer_close(Designer &d);

/* Magnitude response in dB of 513 Q23 taps on a fixed frequency grid, with the complex
   exponentials computed once: the fit evaluates thousands of tap sets on the same grid. */
struct ResponseGrid {
    std::vector<double> freq_hz;
    std::vector<float> re, im; /* cos and -sin of the tap phase, tap-major per frequency */
};
ResponseGrid response_grid(const std::vector<double> &freq_hz, int rate);
void response_grid_db(const ResponseGrid &g, const int32_t *taps, std::vector<double> &out_db);

/* The view's warnings worth showing for a tuning with `target`: an import chose its tables for
   what the taps achieve, fine steps included, so for an imported tuning the warnings about steps
   finer than the filter resolves are only counted, in `fine_steps`. */
std::vector<std::string> design_warnings_shown(const DesignView &view, const TuningTarget &target, int &fine_steps);

/* Runs the library's design; false with `error` when the library lacks the entry points. */
bool design_view_run(const EffectLibrary &lib, const sorn_hp_params_t &p, int rate, DesignView &view,
                     std::string &error, const TuningTarget *target = nullptr);

/* The lines `design` prints for a view: requested, achieved (and target) at ten octave points,
   the largest deviation and, with a target, the RMS error against it. */
std::string design_summary(const DesignView &v, const std::string &name, const TuningTarget *target = nullptr);

}  // namespace sorn_tool

#endif
