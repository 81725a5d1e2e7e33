/*
 * The measurements as a report: DIR/report.html (self-contained: every plot drawn by gnuplot as
 * SVG and written into the page, styles inline, nothing loaded from anywhere) and
 * DIR/measurements.json (every figure with its unit and the conditions it was measured under),
 * plus the key figures as text for the terminal. With a second run (--against) both appear on
 * the same plots and the key figures get a difference column.
 */
#ifndef SORN_TOOLS_MEASURE_REPORT_H
#define SORN_TOOLS_MEASURE_REPORT_H

#include <string>
#include <vector>

#include "tools/measure/analysis.h"

namespace sorn_tool {

struct MeasuredRun {
    std::string name;    /* short label on the plots */
    std::string library; /* where the library was loaded from */
    std::string tuning;  /* what the parameter block came from */
    std::string surround;
    Measurements m;
    std::vector<double> design_db;        /* the design's achieved response at m.response.freq_hz */
    std::vector<double> side_expected_db; /* the design plus the surround's lift of the side */
    Agreement mid, side;                  /* measured against those two, filled by finish_run */
};

struct ReportConditions {
    std::string effect;  /* name and implementor */
    int rate = 48000;
    std::string format, device, mode;
    size_t frames_per_call = 240;
    MeasureSettings settings;
};

/* Compares the measured response with the expected ones (20 Hz to 20 kHz, below the filter's
   passband edge at 0.42 of the rate). */
void finish_run(MeasuredRun &run);

struct Figure {
    std::string key, label, unit;
    double value = 0;
    std::string where; /* e.g. "at 125 Hz", empty when nothing to add */
    int decimals = 2;
};
/* The figures a reader looks for first: latency, response agreement, level curve summary,
   attack and release, THD+N, dynamic range, silence. */
std::vector<Figure> key_figures(const MeasuredRun &run);

/* The key figures as aligned text (two runs: both and their difference). */
std::string figures_text(const std::vector<MeasuredRun> &runs);

bool write_measurements_json(const std::string &path, const ReportConditions &c, const std::vector<MeasuredRun> &runs,
                             std::string &error);
bool write_report_html(const std::string &path, const ReportConditions &c, const std::vector<MeasuredRun> &runs,
                       const std::string &gnuplot, std::string &error);

}  // namespace sorn_tool

#endif
