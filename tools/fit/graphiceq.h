/*
 * The widely used "GraphicEQ: f g; f g; ..." text (frequency in Hz, gain in dB, any number of
 * points) and its fit into one tuning group.
 *
 * Parsing is tolerant of spacing, line breaks, a byte-order mark, a trailing ';' and a
 * case-insensitive prefix; it refuses anything else with one message naming the file and the
 * item; gains beyond +-60 dB are refused too. Points at or above 22000 Hz are dropped with a note (the effect's tables end there).
 *
 * Fitting places the group's points on a log-frequency grid over the input's span, starts from
 * the input curve rounded to whole dB and limited to the effect's -6..+7 dB, then moves single
 * points by 1 dB while that lowers the RMS departure of the curve the effect actually draws
 * through them (its own interpolant, handed in) from the input.
 */
#ifndef SORN_TOOLS_GRAPHICEQ_H
#define SORN_TOOLS_GRAPHICEQ_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/files/tuning.h"
#include "tools/plot/design_view.h"

namespace sorn_tool {

/* The largest gain either way a correction's point, filter or preamp may hold. Published
   corrections stay within a few tens of dB; more is a broken or hostile file whose numbers would
   only wreck the fit. */
inline constexpr double kMaxImportedGainDb = 60.0;

/* Empty when `gain_db` is finite and within +-kMaxImportedGainDb; else what is wrong with it,
   e.g. "gain 1e+30 dB is beyond +-60 dB", for the caller to put after where it was read. */
std::string imported_gain_problem(double gain_db);

struct GraphicEqParse {
    bool ok = false;
    std::string error;
    std::vector<std::string> notes;
    std::vector<CurvePoint> points;
};

GraphicEqParse graphiceq_parse(const std::string &text, const std::string &source);

struct GroupFit {
    std::vector<uint32_t> freq;
    std::vector<int32_t> gain;
    double max_departure_db = 0.0; /* against the input as given */
    double max_departure_hz = 0.0;
    double rms_departure_db = 0.0;
    int limited_points = 0; /* input points beyond -6..+7 dB */
};

GroupFit graphiceq_fit(const std::vector<CurvePoint> &input, int count, const Interpolant &interp);

/* A block with only `group` on, holding the fit's table, and the surround switch as asked (the
   effect plays the surround only while lc is on). */
sorn_hp_params_t graphiceq_group_block(const GroupFit &fit, Group group, bool surround);

}  // namespace sorn_tool

#endif
