/*
 * Published headphone corrections read as one target curve, for `import`.
 *
 * Takes the text of a file in any of the common forms:
 *   - a "GraphicEQ: f g; f g; ..." line (frequency in Hz, gain in dB);
 *   - a parametric list: "Preamp: X dB" and "Filter N: ON|OFF TYPE Fc F Hz Gain G dB Q Q" lines,
 *     TYPE one of PK (peaking), LSC or LS (low shelf), HSC or HS (high shelf); Q defaults to
 *     0.707 for a shelf given without one;
 *   - an EqualizerAPO-style configuration holding such lines, where they all add up ("#" starts
 *     a comment; lines such as "Device:" or "Channel:" do not shape the response and are
 *     ignored with a note);
 *   - a two-column CSV of frequency in Hz and gain in dB (",", ";", tab or spaces between them;
 *     one header line allowed).
 * Every gain read (point, filter, preamp) is finite and within +-60 dB (imported_gain_problem).
 * Guarantees: either a curve with a list of what was read, or one message naming the file, the
 * line and what is wrong. Disabled filters are kept out of the curve and counted. Filter types
 * that cannot be evaluated (low-pass, notch, ...) are refused rather than silently dropped.
 *
 * The curve is evaluated at any frequency: the GraphicEQ and CSV points linearly in log
 * frequency (flat beyond their ends), each filter by the audio-EQ-cookbook biquad magnitude at
 * the given sample rate, plus the preamp. Nothing here touches the effect library.
 */
#ifndef SORN_TOOLS_EQ_IMPORT_H
#define SORN_TOOLS_EQ_IMPORT_H

#include <string>
#include <vector>

#include "tools/files/tuning.h"

namespace sorn_tool {

enum class BiquadKind { peak, low_shelf, high_shelf };

struct Biquad {
    BiquadKind kind;
    double fc_hz, gain_db, q;
};

/* Magnitude in dB of one cookbook biquad at `freq_hz` for sample rate `rate`. */
double biquad_gain_db(const Biquad &b, double freq_hz, int rate);

struct ImportedCurve {
    bool ok = false;
    std::string error;
    std::string format;             /* "GraphicEQ line", "parametric list", "EqualizerAPO configuration", "CSV" */
    std::vector<std::string> read;  /* what was read, one line each */
    std::vector<std::string> notes; /* what was ignored or assumed */
    double preamp_db = 0.0;
    std::vector<std::vector<CurvePoint>> tables; /* GraphicEQ lines and CSV points */
    std::vector<Biquad> filters;                 /* enabled filters only */
};

ImportedCurve eq_import_parse(const std::string &text, const std::string &source);

/* The curve's gain in dB at `freq_hz`, filters evaluated at `rate`. */
double eq_import_gain_db(const ImportedCurve &c, double freq_hz, int rate);
std::vector<double> eq_import_on_grid(const ImportedCurve &c, const std::vector<double> &freq_hz, int rate);

}  // namespace sorn_tool

#endif
