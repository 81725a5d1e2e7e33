/*
 * Pictures and tables of a design: the requested and the achieved response (and each used
 * group, and the target of an imported tuning) on a log-frequency axis, rendered by gnuplot to PNG or SVG; the same data as CSV; the
 * 513 taps as text.
 *
 * When gnuplot is not installed the data and the script are written beside the requested
 * picture (NAME.dat, NAME.gp) and the result says how to render them. Files are written only
 * when everything they need is known; a failed render leaves no picture behind.
 */
#ifndef SORN_TOOLS_RESPONSE_PLOT_H
#define SORN_TOOLS_RESPONSE_PLOT_H

#include <string>

#include "tools/plot/design_view.h"

namespace sorn_tool {

/* gnuplot's path from $PATH, or empty. */
std::string find_gnuplot();

/* True for the picture names plot_response can render (.png, .svg). */
bool plot_name_supported(const std::string &path);

struct PlotResult {
    bool rendered = false;
    std::string message; /* what was written, or how to render it */
};

/* `gnuplot` is the program to run, or empty when there is none. */
bool plot_response(const DesignView &view, const std::string &out_path, const std::string &title,
                   const std::string &gnuplot, PlotResult &result, std::string &error);

bool write_response_csv(const DesignView &view, const std::string &path, std::string &error);
bool write_taps(const DesignView &view, const std::string &path, std::string &error);

}  // namespace sorn_tool

#endif
