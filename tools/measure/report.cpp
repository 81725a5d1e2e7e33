#include "tools/measure/report.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "tools/plot/response_plot.h"

namespace sorn_tool {

namespace {

std::string num(double v, int decimals = 2) {
    if (!std::isfinite(v)) return v < 0 ? "-inf" : (std::isnan(v) ? "-" : "inf");
    char b[48];
    std::snprintf(b, sizeof b, "%.*f", decimals, v);
    return b;
}

/* A number for gnuplot's data: NaN is skipped there, silence sits at the plot's floor. */
std::string gp_num(double v) {
    if (std::isnan(v)) return "NaN";
    if (!std::isfinite(v)) return v < 0 ? "-200" : "NaN";
    char b[48];
    std::snprintf(b, sizeof b, "%.6g", v);
    return b;
}

std::string html_escape(const std::string &s) {
    std::string o;
    for (char ch : s) {
        switch (ch) {
        case '&': o += "&amp;"; break;
        case '<': o += "&lt;"; break;
        case '>': o += "&gt;"; break;
        case '"': o += "&quot;"; break;
        default: o += ch;
        }
    }
    return o;
}

std::string gp_string(const std::string &s) {
    std::string o = "'";
    for (char ch : s) o += ch == '\'' ? std::string("''") : std::string(1, ch);
    return o + "'";
}

/* A gnuplot data block of equally long columns. */
std::string block(const std::string &name, const std::vector<const std::vector<double> *> &cols) {
    std::ostringstream o;
    o << "$" << name << " << EOD\n";
    const size_t n = cols.empty() ? 0 : cols[0]->size();
    for (size_t i = 0; i < n; ++i) {
        for (size_t c = 0; c < cols.size(); ++c) o << (c ? " " : "") << gp_num(i < cols[c]->size() ? (*cols[c])[i] : NAN);
        o << "\n";
    }
    return o.str() + "EOD\n";
}

const char *const kColors[2][4] = {{"#1f77b4", "#d62728", "#2ca02c", "#9467bd"},
                                   {"#7fb3e0", "#f08a8a", "#98d98e", "#c5b0d5"}};

double value_at(const std::vector<ToneAnalysis> &curve, double in_dbfs, double ToneAnalysis::*field) {
    for (const ToneAnalysis &a : curve)
        if (std::fabs(a.in_dbfs - in_dbfs) < 0.01) return a.*field;
    return NAN;
}

}  // namespace

void finish_run(MeasuredRun &run) {
    const double top = std::min(20000.0, 0.42 * run.m.rate);
    const ResponseResult &r = run.m.response;
    run.mid = agreement(r.freq_hz, r.mid_db, run.design_db, top);
    run.side = agreement(r.freq_hz, r.side_db, run.side_expected_db, top);
}

std::vector<Figure> key_figures(const MeasuredRun &run) {
    const Measurements &m = run.m;
    std::vector<Figure> f;
    f.push_back({"latency_frames", "latency (measured)", "frames", double(m.response.latency), "", 0});
    f.push_back({"latency_ms", "latency (measured)", "ms", 1000.0 * m.response.latency / m.rate, ""});
    f.push_back({"latency_onset_frames", "impulse response onset", "frames", double(m.response.onset), "", 0});
    f.push_back({"response_flat_gain_db", "mid response vs design: flat gain", "dB", run.mid.flat_gain_db, "", 4});
    f.push_back({"response_mid_deviation_db", "mid response vs design: largest departure", "dB",
                 run.mid.max_deviation_db, "at " + num(run.mid.at_hz, 0) + " Hz", 4});
    f.push_back({"response_side_deviation_db", "side vs design and surround: largest departure", "dB",
                 run.side.max_deviation_db, "at " + num(run.side.at_hz, 0) + " Hz", 4});
    // Level curve: the gain at low level, where it has fallen by 1 dB, and a few outputs.
    double low = 0;
    int n = 0;
    for (const ToneAnalysis &a : m.curve)
        if (a.in_dbfs <= -40.0 && a.in_dbfs >= -70.0) low += a.out_dbfs - a.in_dbfs, ++n;
    low = n ? low / n : NAN;
    f.push_back({"curve_low_level_gain_db", "gain at low level (-70..-40 dBFS)", "dB", low, ""});
    double knee = NAN, longest = 0, longest_at = NAN;
    for (const ToneAnalysis &a : m.curve) {
        if (std::isnan(knee) && a.in_dbfs > -40.0 && a.out_dbfs - a.in_dbfs < low - 1.0) knee = a.in_dbfs;
        if (a.settle_s > longest) longest = a.settle_s, longest_at = a.in_dbfs;
    }
    f.push_back({"curve_1db_compression_dbfs", "gain 1 dB below the low-level gain from", "dBFS in", knee, ""});
    for (double in : {-20.0, -10.0, -6.0, -3.0, 0.0})
        f.push_back({"curve_out_at_" + num(-in, 0), "output for " + num(in, 0) + " dBFS in", "dBFS",
                     value_at(m.curve, in, &ToneAnalysis::out_dbfs), ""});
    f.push_back({"curve_longest_settle_s", "longest settling time", "s", longest, "at " + num(longest_at, 0) + " dBFS in"});
    int unsettled = 0;
    for (const ToneAnalysis &a : m.curve) unsettled += !a.settled;
    f.push_back({"curve_unsettled_steps", "level steps that did not settle", "steps", double(unsettled), "", 0});
    for (size_t i = 0; i < m.steps.size(); ++i) {
        const StepResult &s = m.steps[i];
        const std::string k = "step" + std::to_string(i + 1) + "_", name = s.test.name;
        f.push_back({k + "gain_change_db", name + ": gain change", "dB", s.gain_up_db - s.gain_before_db, ""});
        f.push_back({k + "attack_63_ms", name + ": attack, 63 %", "ms", 1000 * s.attack_63_s, "", 0});
        f.push_back({k + "attack_1db_ms", name + ": attack, to within 1 dB", "ms", 1000 * s.attack_1db_s, "", 0});
        f.push_back({k + "release_63_ms", name + ": release, 63 %", "ms", 1000 * s.release_63_s, "", 0});
        f.push_back({k + "release_1db_ms", name + ": release, to within 1 dB", "ms", 1000 * s.release_1db_s, "", 0});
    }
    const std::string tone = m.curve.empty() ? std::string() : ", " + num(m.curve[0].freq_hz, 0) + " Hz";
    for (double in : {-20.0, 0.0}) {
        f.push_back({"thdn_db_at_" + num(-in, 0), "THD+N at " + num(in, 0) + " dBFS" + tone, "dB",
                     value_at(m.curve, in, &ToneAnalysis::thdn_db), ""});
        f.push_back({"thd_db_at_" + num(-in, 0), "THD at " + num(in, 0) + " dBFS" + tone, "dB",
                     value_at(m.curve, in, &ToneAnalysis::thd_db), ""});
    }
    double worst = -INFINITY, worst_at = NAN;
    for (const ToneAnalysis &a : m.sweep)
        if (a.thdn_db > worst) worst = a.thdn_db, worst_at = a.freq_hz;
    f.push_back({"sweep_worst_thdn_db", "worst THD+N at -20 dBFS, 20 Hz - 20 kHz", "dB", worst,
                 "at " + num(worst_at, 0) + " Hz"});
    for (const DynamicRange &d : m.dynamic_range)
        f.push_back({std::string("dynamic_range_db_") + sample_format_name(d.format),
                     std::string("dynamic range, ") + sample_format_name(d.format) + " stream", "dB",
                     d.dynamic_range_db, ""});
    f.push_back({"silence_start_peak_dbfs", "output for digital silence (peak)", "dBFS", m.silence.start_peak_dbfs, ""});
    f.push_back({"silence_zero_after_ms", "after a tone stops: output digital zero after", "ms",
                 1000 * m.silence.zero_after_s, "", 1});
    f.push_back({"silence_idle_rms_dbfs", "idle output, last second of silence (RMS)", "dBFS",
                 m.silence.idle_rms_dbfs, ""});
    return f;
}

std::string figures_text(const std::vector<MeasuredRun> &runs) {
    std::vector<std::vector<Figure>> figs;
    for (const MeasuredRun &r : runs) figs.push_back(key_figures(r));
    std::ostringstream o;
    char line[256];
    if (runs.size() > 1) {
        std::snprintf(line, sizeof line, "  %-52s %12s %12s %10s\n", "", runs[0].name.substr(0, 12).c_str(),
                      runs[1].name.substr(0, 12).c_str(), "difference");
        o << line;
    }
    for (size_t i = 0; i < figs[0].size(); ++i) {
        const Figure &a = figs[0][i];
        const std::string label = a.label + " (" + a.unit + ")";
        if (runs.size() > 1) {
            const Figure &b = figs[1][i];
            std::snprintf(line, sizeof line, "  %-52s %12s %12s %10s\n", label.c_str(), num(a.value, a.decimals).c_str(),
                          num(b.value, a.decimals).c_str(), num(b.value - a.value, a.decimals).c_str());
        } else {
            std::snprintf(line, sizeof line, "  %-52s %10s %s\n", label.c_str(), num(a.value, a.decimals).c_str(),
                          a.where.c_str());
        }
        o << line;
    }
    return o.str();
}

namespace {

nlohmann::json finite(double v) { return std::isfinite(v) ? nlohmann::json(v) : nlohmann::json(nullptr); }

nlohmann::json tones_json(const std::vector<ToneAnalysis> &v) {
    nlohmann::json a = nlohmann::json::array();
    for (const ToneAnalysis &t : v)
        a.push_back({{"frequency_hz", t.freq_hz}, {"in_dbfs", finite(t.in_dbfs)}, {"out_dbfs", finite(t.out_dbfs)},
                     {"thdn_db", finite(t.thdn_db)}, {"thd_db", finite(t.thd_db)}, {"settle_s", t.settle_s},
                     {"settled", t.settled}});
    return a;
}

/* The test tone as analysed: on the analysis window's grid. */
std::string tone_name(const MeasureSettings &s, int rate) {
    return num(coherent_frequency(s.tone_hz, rate, std::llround(s.analysis_s * rate)), 0) + " Hz";
}

std::string conditions_line(const ReportConditions &c) {
    return std::to_string(c.rate) + " Hz, stereo, " + c.format + " stream, " + std::to_string(c.frames_per_call) +
           " frames per call, device " + c.device + ", " + c.mode + " mode";
}

}  // namespace

bool write_measurements_json(const std::string &path, const ReportConditions &c, const std::vector<MeasuredRun> &runs,
                             std::string &error) {
    using nlohmann::json;
    const MeasureSettings &s = c.settings;
    json j;
    j["conditions"] = {{"effect", c.effect}, {"rate_hz", c.rate}, {"format", c.format}, {"device", c.device},
                       {"mode", c.mode}, {"frames_per_call", c.frames_per_call},
                       {"level_convention", "dBFS: a sine's peak against full scale (AES17)"}};
    j["runs"] = json::array();
    for (const MeasuredRun &r : runs) {
        const Measurements &m = r.m;
        json run = {{"name", r.name}, {"library", r.library}, {"tuning", r.tuning}, {"surround", r.surround},
                    {"audio_processed_s", m.audio_seconds}};
        json figs = json::object();
        for (const Figure &f : key_figures(r)) figs[f.key] = {{"label", f.label}, {"value", finite(f.value)}, {"unit", f.unit}, {"where", f.where}};
        run["key_figures"] = figs;
        const ResponseResult &rr = m.response;
        run["response"] = {
            {"conditions", "periodic multisine, every bin of a " + std::to_string(s.response_period) +
                               "-sample period, " + num(s.response_rms_dbfs, 0) +
                               " dBFS RMS per channel; mid: both channels alike, side: opposite, left/right: one "
                               "channel driven; analysed after the system forgot the previous arrangement"},
            {"unit", "dB (output against input)"}, {"frequency_hz", rr.freq_hz}, {"mid_db", rr.mid_db},
            {"side_db", rr.side_db}, {"left_db", rr.left_db}, {"right_db", rr.right_db},
            {"design_db", r.design_db}, {"side_expected_db", r.side_expected_db},
            {"mid_vs_design", {{"flat_gain_db", r.mid.flat_gain_db}, {"largest_departure_db", r.mid.max_deviation_db},
                               {"at_hz", r.mid.at_hz}}},
            {"side_vs_expected", {{"flat_gain_db", r.side.flat_gain_db}, {"largest_departure_db", r.side.max_deviation_db},
                                  {"at_hz", r.side.at_hz}}},
            {"latency", {{"frames", rr.latency}, {"ms", 1000.0 * rr.latency / m.rate}, {"onset_frames", rr.onset},
                         {"method", "peak of the mid impulse response (inverse FFT of the measured transfer function)"}}}};
        run["level_curve"] = {{"conditions", tone_name(s, c.rate) + " tone, both channels, " + num(s.curve_from_dbfs, 0) +
                                                 " to " + num(s.curve_to_dbfs, 0) + " dBFS in " + num(s.curve_step_db, 0) +
                                                 " dB steps, each analysed once settled (" + num(s.settle_tolerance_db) +
                                                 " dB over " + num(s.settle_window_s, 1) + " s); settle time to within " +
                                                 num(s.settled_within_db) + " dB, latency removed"},
                              {"units", {{"in_dbfs", "dBFS"}, {"out_dbfs", "dBFS"}, {"thdn_db", "dB"}, {"thd_db", "dB"},
                                         {"settle_s", "s"}}},
                              {"points", tones_json(m.curve)}};
        run["thd_vs_frequency"] = {{"conditions", "tone at " + num(s.sweep_level_dbfs, 0) +
                                                      " dBFS, third-octave frequencies on the 5 Hz grid, each once settled; "
                                                      "AES17: 20 Hz - 20 kHz, harmonics 2-10 for THD"},
                                   {"points", tones_json(m.sweep)}};
        json steps = json::array();
        for (const StepResult &st : m.steps)
            steps.push_back({{"name", st.test.name}, {"low_dbfs", st.test.low_dbfs}, {"high_dbfs", st.test.high_dbfs},
                             {"up_s", st.test.up_s}, {"down_s", st.test.down_s},
                             {"gain_before_db", finite(st.gain_before_db)}, {"gain_up_db", finite(st.gain_up_db)},
                             {"gain_down_db", finite(st.gain_down_db)}, {"attack_63_s", finite(st.attack_63_s)},
                             {"attack_1db_s", finite(st.attack_1db_s)}, {"release_63_s", finite(st.release_63_s)},
                             {"release_1db_s", finite(st.release_1db_s)}, {"up_settled", st.up_settled},
                             {"down_settled", st.down_settled}});
        run["attack_release"] = {{"conditions", tone_name(s, c.rate) + " tone stepping up by 24 dB and back; gain from "
                                                  "2-cycle windows every 1 ms, latency removed; times from the step"},
                                 {"steps", steps}};
        json dr = json::array();
        for (const DynamicRange &d : m.dynamic_range)
            dr.push_back({{"format", sample_format_name(d.format)}, {"thdn_db", finite(d.tone.thdn_db)},
                          {"dynamic_range_db", finite(d.dynamic_range_db)}, {"out_dbfs", finite(d.tone.out_dbfs)}});
        run["dynamic_range"] = {{"conditions", "AES17: THD+N of a -60 dBFS " + tone_name(s, c.rate) + " tone, negated, plus 60 dB; unweighted, "
                                               "20 Hz - 20 kHz; each stream format in its own instance"},
                                {"unit", "dB"}, {"formats", dr}};
        const SilenceResult &si = m.silence;
        run["silence"] = {{"conditions", "1 s of digital silence from the start; then a -20 dBFS " + tone_name(s, c.rate) + " tone for " +
                                             num(s.silence_tone_s, 1) + " s followed by " + num(s.silence_after_s, 1) +
                                             " s of digital silence"},
                          {"start_peak_dbfs", finite(si.start_peak_dbfs)}, {"zero_after_s", finite(si.zero_after_s)},
                          {"idle_rms_dbfs", finite(si.idle_rms_dbfs)}, {"idle_peak_dbfs", finite(si.idle_peak_dbfs)}};
        j["runs"].push_back(run);
    }
    std::ofstream out(path, std::ios::trunc);
    out << j.dump(1) << "\n";
    out.close();
    if (!out) {
        error = path + ": cannot write: " + std::strerror(errno);
        return false;
    }
    return true;
}

namespace {

/* Element ids made unique per picture: several SVGs share one page. */
std::string inline_svg(const std::string &svg, int n) {
    std::string s = svg.substr(std::min(svg.size(), svg.find("<svg")));
    const std::string p = "p" + std::to_string(n) + "_";
    for (const std::string &key : {std::string("id='"), std::string("id=\""), std::string("url(#"),
                                   std::string("href='#"), std::string("href=\"#")}) {
        for (size_t at = s.find(key); at != std::string::npos; at = s.find(key, at + key.size() + p.size()))
            s.insert(at + key.size(), p);
    }
    return s;
}

std::string axis_hz(double lo, double hi) {
    std::ostringstream o;
    o << "set logscale x\nset xrange [" << lo << ":" << hi << "]\nset xlabel 'Frequency (Hz)'\n"
      << "set xtics ('20' 20, '50' 50, '100' 100, '200' 200, '500' 500, '1k' 1000, '2k' 2000, '5k' 5000, "
         "'10k' 10000, '20k' 20000)\nset grid xtics mxtics ytics\n";
    return o.str();
}

/* The data of one run's THD+N and THD against `x`, and its two plot lines. */
std::string thd_lines(std::ostringstream &script, const std::string &prefix, size_t i, const std::string &tag,
                      const std::vector<ToneAnalysis> &tones, double ToneAnalysis::*x, const std::string &band) {
    std::vector<double> xs, thdn, thd;
    for (const ToneAnalysis &a : tones) xs.push_back(a.*x), thdn.push_back(a.thdn_db), thd.push_back(a.thd_db);
    const std::string b = prefix + std::to_string(i);
    script << block(b, {&xs, &thdn, &thd});
    return std::string(i ? ", " : "") + "$" + b + " using 1:2 with linespoints pt 7 ps 0.5 lw 2 lc rgb '" +
           kColors[i][0] + "' title " + gp_string(tag + "THD+N") + ", $" + b +
           " using 1:3 with linespoints pt 5 ps 0.5 lw 2 lc rgb '" + kColors[i][1] + "' title " +
           gp_string(tag + "THD (harmonics 2-10" + band + ")");
}

struct Page {
    std::ostringstream html;
    std::string gnuplot;
    int plots = 0;
    std::string error;
    bool ok = true;
    void figure(const std::string &title, const std::string &conditions, const std::string &script, int h = 430) {
        html << "<section><h2>" << html_escape(title) << "</h2>\n<p class='cond'>" << html_escape(conditions) << "</p>\n";
        std::string svg, err;
        if (!ok) return;
        if (!gnuplot_svg(gnuplot, script, 1100, h, svg, err)) {
            ok = false, error = title + ": " + err;
            return;
        }
        html << "<div class='plot'>" << inline_svg(svg, ++plots) << "</div>\n";
    }
    void end_section() { html << "</section>\n"; }
};

}  // namespace

bool write_report_html(const std::string &path, const ReportConditions &c, const std::vector<MeasuredRun> &runs,
                       const std::string &gnuplot, std::string &error) {
    if (gnuplot.empty()) {
        error = "the report's plots need gnuplot (Debian: apt-get install gnuplot-nox)";
        return false;
    }
    const MeasureSettings &s = c.settings;
    Page pg;
    pg.gnuplot = gnuplot;
    std::ostringstream &h = pg.html;
    const bool two = runs.size() > 1;
    char date[64];
    const std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    h << "<!DOCTYPE html>\n<html lang='en'><head><meta charset='utf-8'><title>sorn-hp measure: "
      << html_escape(runs[0].name) << "</title>\n<style>"
      << "body{font-family:sans-serif;margin:24px auto;max-width:1140px;color:#222}"
      << "h1{font-size:22px;margin:0 0 6px}h2{font-size:17px;margin:26px 0 4px;border-top:1px solid #ccc;padding-top:10px}"
      << "p.cond{margin:2px 0 6px;color:#444;font-size:13px}table{border-collapse:collapse;font-size:12px}"
      << "td,th{border:1px solid #ccc;padding:1px 6px;text-align:left}td.n{text-align:right;font-variant-numeric:tabular-nums}.figs{display:flex;gap:14px;align-items:flex-start}"
      << ".plot svg{max-width:100%;height:auto}dl{display:grid;grid-template-columns:max-content auto;gap:1px 14px;font-size:13px;margin:6px 0}"
      << "dt{color:#555}dd{margin:0}</style></head><body>\n";
    h << "<h1>sorn-hp measure: what " << html_escape(c.effect) << " does to sound</h1>\n<dl>";
    for (size_t i = 0; i < runs.size(); ++i)
        h << "<dt>" << (two ? (i ? "against (B)" : "measured (A)") : "measured") << "</dt><dd>"
          << html_escape(runs[i].name + ": tuning " + runs[i].tuning + ", surround " + runs[i].surround + "; library " +
                         runs[i].library) << "</dd>";
    h << "<dt>stream</dt><dd>" << html_escape(conditions_line(c)) << ", driven exactly as <code>sorn-hp run</code> drives it</dd>"
      << "<dt>levels</dt><dd>dBFS: a sine's peak against full scale (AES17); THD+N and THD 20 Hz - 20 kHz unweighted</dd>"
      << "<dt>audio processed</dt><dd>" << num(runs[0].m.audio_seconds, 1) << " s per run</dd>"
      << "<dt>made</dt><dd>" << date << "</dd></dl>\n";

    // Key figures (with a second run: both and the difference).
    std::vector<std::vector<Figure>> figs;
    for (const MeasuredRun &r : runs) figs.push_back(key_figures(r));
    h << "<h2>Key figures</h2><div class='figs'>";
    const size_t half = (figs[0].size() + 1) / 2;
    for (size_t from : {size_t(0), half}) {
        h << "<table><tr><th>figure</th><th>unit</th>";
        for (const MeasuredRun &r : runs) h << "<th>" << html_escape(two ? r.name : "value") << "</th>";
        h << (two ? "<th>B - A</th>" : "<th></th>") << "</tr>\n";
        for (size_t i = from; i < std::min(figs[0].size(), from + half); ++i) {
            const int d = figs[0][i].decimals;
            h << "<tr><td>" << html_escape(figs[0][i].label) << "</td><td>" << html_escape(figs[0][i].unit) << "</td>";
            for (const auto &f : figs) h << "<td class='n'>" << num(f[i].value, d) << "</td>";
            h << "<td class='n'>" << html_escape(two ? num(figs[1][i].value - figs[0][i].value, d) : figs[0][i].where)
              << "</td></tr>\n";
        }
        h << "</table>";
    }
    h << "</div>\n";

    // Response.
    {
        std::ostringstream sc;
        sc << axis_hz(20, 20000) << "set ylabel 'Gain (dB)'\nset key bottom left opaque box\nset yrange [-15:15]\n";
        std::string plot = "plot ";
        for (size_t i = 0; i < runs.size(); ++i) {
            const ResponseResult &r = runs[i].m.response;
            std::vector<double> design_shifted;
            for (double d : runs[i].design_db) design_shifted.push_back(d + runs[i].mid.flat_gain_db);
            const std::string b = "r" + std::to_string(i);
            sc << block(b, {&r.freq_hz, &r.mid_db, &r.side_db, &r.left_db, &r.right_db, &design_shifted});
            const std::string tag = two ? runs[i].name + ": " : "";
            const char *const *col = kColors[i];
            plot += std::string(i ? ", " : "") + "$" + b + " using 1:6 with lines lw 4 lc rgb '#bbbbbb' title " +
                    gp_string(tag + "design (achieved taps) + flat gain") + ", $" + b +
                    " using 1:2 with lines lw 2 lc rgb '" + col[0] + "' title " + gp_string(tag + "mid (L = R)") +
                    ", $" + b + " using 1:3 with lines lw 2 lc rgb '" + col[1] + "' title " +
                    gp_string(tag + "side (L = -R)") + ", $" + b + " using 1:4 with lines lc rgb '" + col[2] +
                    "' title " + gp_string(tag + "left only") + ", $" + b + " using 1:5 with lines dt 2 lc rgb '" +
                    col[3] + "' title " + gp_string(tag + "right only");
        }
        const MeasuredRun &a = runs[0];
        pg.figure("Response through the effect",
                  "Periodic multisine on every bin of a " + std::to_string(s.response_period) + "-sample period, " +
                      num(s.response_rms_dbfs, 0) + " dBFS RMS per channel (the dynamics hold still), " +
                      conditions_line(c) + ". Mid agrees with the design's achieved response within " +
                      num(a.mid.max_deviation_db, 4) + " dB after a flat gain of " + num(a.mid.flat_gain_db, 4) +
                      " dB (20 Hz to " + num(std::min(20000.0, 0.42 * c.rate), 0) + " Hz); the side differs by the stereo surround's lift (" +
                      a.surround + "), matched within " + num(a.side.max_deviation_db, 4) + " dB.",
                  sc.str() + plot + "\n");
        std::ostringstream dc;
        dc << axis_hz(20, 20000) << "set ylabel 'Departure (dB)'\nset yrange [-0.3:0.3]\nset key top left opaque box\n";
        plot = "plot ";
        for (size_t i = 0; i < runs.size(); ++i) {
            const MeasuredRun &r = runs[i];
            std::vector<double> dm, ds;
            for (size_t k = 0; k < r.m.response.freq_hz.size(); ++k) {
                dm.push_back(r.m.response.mid_db[k] - r.design_db[k] - r.mid.flat_gain_db);
                ds.push_back(r.m.response.side_db[k] - r.side_expected_db[k] - r.side.flat_gain_db);
            }
            const std::string b = "d" + std::to_string(i), tag = two ? r.name + ": " : "";
            dc << block(b, {&r.m.response.freq_hz, &dm, &ds});
            plot += std::string(i ? ", " : "") + "$" + b + " using 1:2 with lines lw 2 lc rgb '" + kColors[i][0] +
                    "' title " + gp_string(tag + "mid - design - flat gain") + ", $" + b +
                    " using 1:3 with lines lw 2 lc rgb '" + kColors[i][1] + "' title " +
                    gp_string(tag + "side - (design + surround lift) - flat gain");
        }
        pg.figure("Response against the design",
                  "The same measurement, minus the design's achieved response (and, for the side, the surround's "
                  "first-order lift of the side signal); the dashed band is the 0.1 dB agreement asked of the mid.",
                  dc.str() + "set arrow from 20,0.1 to 20000,0.1 nohead dt 2 lc rgb '#888888'\n"
                             "set arrow from 20,-0.1 to 20000,-0.1 nohead dt 2 lc rgb '#888888'\n" + plot + "\n", 330);
        pg.end_section();
    }
    // Latency.
    {
        std::ostringstream sc;
        sc << "set xlabel 'Time after the input (ms)'\nset ylabel 'Amplitude (full scale = 1)'\nset grid\nset key top right\n";
        std::string plot = "plot ";
        for (size_t i = 0; i < runs.size(); ++i) {
            const std::string b = "h" + std::to_string(i);
            sc << block(b, {&runs[i].m.response.impulse_ms, &runs[i].m.response.impulse});
            plot += std::string(i ? ", " : "") + "$" + b + " using 1:2 with lines lw 2 lc rgb '" + kColors[i][0] +
                    "' title " + gp_string((two ? runs[i].name + ": " : "") + "mid impulse response, peak at " +
                                           std::to_string(runs[i].m.response.latency) + " frames");
        }
        pg.figure("Latency",
                  "The mid impulse response (inverse FFT of the measured transfer function), before any compensation: "
                  "its peak is the latency, " + std::to_string(runs[0].m.response.latency) + " frames (" +
                      num(1000.0 * runs[0].m.response.latency / c.rate, 2) + " ms at " + std::to_string(c.rate) +
                      " Hz); it starts (a tenth of the peak) at " + std::to_string(runs[0].m.response.onset) + " frames.",
                  sc.str() + plot + "\n", 330);
        pg.end_section();
    }
    // Level curve and settling.
    {
        std::ostringstream sc, st;
        sc << "set xlabel 'Input level (dBFS)'\nset ylabel 'Output level (dBFS)'\nset grid\nset key top left opaque box\n"
           << "set xrange [" << s.curve_from_dbfs << ":" << s.curve_to_dbfs << "]\n";
        st << "set xlabel 'Input level (dBFS)'\nset ylabel 'Settling time (s)'\nset grid\nset key top left opaque box\n"
           << "set xrange [" << s.curve_from_dbfs << ":" << s.curve_to_dbfs << "]\n";
        std::string plot = "plot x with lines dt 2 lc rgb '#999999' title 'output = input'", plot2 = "plot ";
        for (size_t i = 0; i < runs.size(); ++i) {
            std::vector<double> in, out, settle;
            for (const ToneAnalysis &a : runs[i].m.curve)
                in.push_back(a.in_dbfs), out.push_back(a.out_dbfs), settle.push_back(a.settle_s);
            const std::string b = "c" + std::to_string(i), tag = two ? runs[i].name + ": " : "";
            sc << block(b, {&in, &out});
            st << block(b, {&in, &settle});
            plot += ", $" + b + " using 1:2 with linespoints pt 7 ps 0.5 lw 2 lc rgb '" + kColors[i][0] + "' title " +
                    gp_string(tag + "output level of the tone");
            plot2 += std::string(i ? ", " : "") + "$" + b + " using 1:2 with impulses lw 3 lc rgb '" + kColors[i][1] +
                     "' title " + gp_string(tag + "time to settle within " + num(s.settled_within_db) + " dB");
        }
        const std::string cond = tone_name(s, c.rate) + " tone in both channels, " + num(s.curve_from_dbfs, 0) + " to " +
                                 num(s.curve_to_dbfs, 0) + " dBFS in " + num(s.curve_step_db, 0) +
                                 " dB steps, one continuous stream; each step analysed once its output moved less than " +
                                 num(s.settle_tolerance_db) + " dB over " + num(s.settle_window_s, 1) + " s (at most " +
                                 num(s.settle_max_s, 0) + " s); " + conditions_line(c) + ".";
        pg.figure("Level curve", cond, sc.str() + plot + "\n");
        pg.figure("Settling time per level step",
                  "The same steps: time from when the 1 dB step reaches the output until the output level stays within " +
                      num(s.settled_within_db) + " dB of its settled value.",
                  st.str() + plot2 + "\n", 300);
        pg.end_section();
    }
    // Step response.
    for (size_t k = 0; k < runs[0].m.steps.size(); ++k) {
        const StepResult &a = runs[0].m.steps[k];
        std::ostringstream sc;
        sc << "set xlabel 'Time from the step up (s)'\nset ylabel 'Gain (dB)'\nset grid\nset key below\n"
           << "set xrange [-0.1:" << a.test.up_s + a.test.down_s << "]\n"
           << "set arrow from " << a.test.up_s << ", graph 0 to " << a.test.up_s << ", graph 1 nohead dt 2 lc rgb '#999999'\n";
        std::string plot = "plot ";
        for (size_t i = 0; i < runs.size(); ++i) {
            if (k >= runs[i].m.steps.size()) continue;
            const StepResult &r = runs[i].m.steps[k];
            const std::string b = "s" + std::to_string(i);
            sc << block(b, {&r.t_s, &r.gain_db});
            plot += std::string(i ? ", " : "") + "$" + b + " using 1:2 with lines lw 2 lc rgb '" + kColors[i][0] +
                    "' title " + gp_string((two ? runs[i].name + ": " : "") + "gain, output against input");
        }
        pg.figure("Attack and release: " + a.test.name,
                  tone_name(s, c.rate) + " tone at " + num(a.test.low_dbfs, 0) + " dBFS for " + num(a.test.before_s, 1) +
                      " s, " + num(a.test.high_dbfs, 0) + " dBFS for " + num(a.test.up_s, 2) + " s, then " +
                      num(a.test.low_dbfs, 0) + " dBFS for " + num(a.test.down_s, 2) +
                      " s; gain from 2-cycle windows every 1 ms, latency removed. Attack: 63 % in " +
                      num(1000 * a.attack_63_s, 1) + " ms, within 1 dB after " + num(1000 * a.attack_1db_s, 1) +
                      " ms; release: 63 % in " + num(1000 * a.release_63_s, 1) + " ms, within 1 dB after " +
                      num(1000 * a.release_1db_s, 1) + " ms (gain change " + num(a.gain_up_db - a.gain_before_db) +
                      " dB" + (a.up_settled && a.down_settled ? "" : "; NOT SETTLED by the end of a segment") + ").",
                  sc.str() + plot + "\n", 360);
        pg.end_section();
    }
    // THD+N and THD.
    {
        std::ostringstream sc;
        sc << "set xlabel 'Input level (dBFS)'\nset ylabel 'Ratio to the signal (dB)'\nset grid\nset key below\n"
           << "set xrange [" << s.thd_from_dbfs << ":" << s.curve_to_dbfs << "]\n";
        std::string plot = "plot ";
        for (size_t i = 0; i < runs.size(); ++i) {
            std::vector<ToneAnalysis> shown;
            for (const ToneAnalysis &a : runs[i].m.curve)
                if (a.in_dbfs >= s.thd_from_dbfs - 1e-9) shown.push_back(a);
            plot += thd_lines(sc, "t", i, two ? runs[i].name + ": " : "", shown, &ToneAnalysis::in_dbfs, "");
        }
        pg.figure("THD+N and THD against level",
                  tone_name(s, c.rate) + " tone, the level curve's steps from " + num(s.thd_from_dbfs, 0) +
                      " dBFS up, each once settled; AES17: 20 Hz - 20 kHz, fundamental removed, " + num(s.analysis_s, 1) +
                      " s with a whole number of cycles; " + conditions_line(c) + ".",
                  sc.str() + plot + "\n", 360);
        std::ostringstream sf;
        sf << axis_hz(18, 22000) << "set ylabel 'Ratio to the signal (dB)'\nset key below\n";
        plot = "plot ";
        for (size_t i = 0; i < runs.size(); ++i)
            plot += thd_lines(sf, "f", i, two ? runs[i].name + ": " : "", runs[i].m.sweep, &ToneAnalysis::freq_hz,
                              " below 20 kHz");
        pg.figure("THD+N and THD against frequency",
                  "Tone at " + num(s.sweep_level_dbfs, 0) +
                      " dBFS at third-octave frequencies from 20 Hz to 20 kHz (on the 5 Hz grid), one continuous "
                      "stream, each once settled; AES17 band and harmonics as above; " + conditions_line(c) + ".",
                  sf.str() + plot + "\n", 360);
        pg.end_section();
    }
    // Dynamic range.
    {
        std::ostringstream sc;
        sc << axis_hz(20, 20000) << "set ylabel 'Level per FFT bin (dBFS)'\nset yrange [-200:-40]\nset key below\n";
        std::string plot = "plot ", said;
        int line = 0;
        for (size_t i = 0; i < runs.size(); ++i)
            for (size_t k = 0; k < runs[i].m.dynamic_range.size(); ++k) {
                const DynamicRange &d = runs[i].m.dynamic_range[k];
                const std::string b = "g" + std::to_string(i) + "_" + std::to_string(k);
                sc << block(b, {&d.spectrum_hz, &d.spectrum_dbfs});
                plot += std::string(line ? ", " : "") + "$" + b + " using 1:2 with lines lw " + (i ? "1" : "2") +
                        " lc rgb '" + kColors[i][k % 4] + "' title " +
                        gp_string((two ? runs[i].name + ": " : "") + sample_format_name(d.format) + ": dynamic range " +
                                  num(d.dynamic_range_db, 1) + " dB");
                ++line;
                if (i == 0) said += std::string(said.empty() ? "" : ", ") + sample_format_name(d.format) + " " + num(d.dynamic_range_db, 1) + " dB";
            }
        pg.figure("Dynamic range per stream format",
                  "AES17: THD+N of a -60 dBFS " + tone_name(s, c.rate) + " tone, negated, plus 60 dB (unweighted, 20 Hz - 20 kHz); each format "
                  "in its own instance, the tone converted into the stream as a device converts float. Spectra: the "
                  "largest FFT bin (5 Hz bins) in each of 400 bands. " + said + ".",
                  sc.str() + plot + "\n", 380);
        pg.end_section();
    }
    // Silence.
    {
        const SilenceResult &a = runs[0].m.silence;
        std::ostringstream sc;
        sc << "set xlabel 'Time after the tone stops, at the output (s)'\nset ylabel 'Output RMS per 10 ms (dBFS)'\n"
           << "set yrange [-210:0]\nset grid\nset key top right opaque box\n";
        std::string plot = "plot ";
        for (size_t i = 0; i < runs.size(); ++i) {
            const std::string b = "z" + std::to_string(i);
            sc << block(b, {&runs[i].m.silence.t_s, &runs[i].m.silence.level_dbfs});
            plot += std::string(i ? ", " : "") + "$" + b + " using 1:2 with steps lw 2 lc rgb '" + kColors[i][0] +
                    "' title " + gp_string((two ? runs[i].name + ": " : "") + "output (digital zero drawn at -200)");
        }
        pg.figure("Silence and idle noise",
                  "1 s of digital silence from the start: output peak " + num(a.start_peak_dbfs, 1) +
                      " dBFS. Then a -20 dBFS " + tone_name(s, c.rate) + " tone for " + num(s.silence_tone_s, 1) + " s and " +
                      num(s.silence_after_s, 1) + " s of digital silence: output digital zero " +
                      (std::isnan(a.zero_after_s) ? std::string("never within the test")
                                                  : "after " + num(1000 * a.zero_after_s, 1) + " ms") +
                      "; idle output over the last second RMS " + num(a.idle_rms_dbfs, 1) + " dBFS, peak " +
                      num(a.idle_peak_dbfs, 1) + " dBFS.",
                  sc.str() + plot + "\n", 300);
        pg.end_section();
    }
    h << "</body></html>\n";
    if (!pg.ok) {
        error = pg.error;
        return false;
    }
    std::ofstream out(path, std::ios::trunc);
    out << h.str();
    out.close();
    if (!out) {
        error = path + ": cannot write: " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace sorn_tool
