/* design: the library's own design of a tuning, requested against achieved response. */
#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"
#include "tools/cli/cli_reports.h"
#include "tools/plot/response_plot.h"

namespace sorn_tool::cli {

namespace {

struct DesignArgs {
    std::string tuning, plot, taps, csv;
    int rate = 48000;
};
DesignArgs g_args;

int cmd_design(const DesignArgs &a) {
    if (!effect_rate_supported(a.rate))
        usage_error("--rate " + std::to_string(a.rate) + ": the effect designs only for 44050 to 48050 Hz");
    if (!a.plot.empty() && !plot_name_supported(a.plot)) usage_error(a.plot + ": a plot must be named .png or .svg");
    std::vector<std::string> outs;
    for (const std::string *o : {&a.plot, &a.taps, &a.csv})
        if (!o->empty()) outs.push_back(*o);
    std::vector<std::string> inputs;
    if (!a.tuning.empty()) inputs.push_back(a.tuning);
    check_outputs(outs, inputs);

    const std::string name = a.tuning.empty() ? "built-in example" : a.tuning;
    TuningResult t;
    if (a.tuning.empty()) t.params = builtin_params();
    else t = load_tuning_file(a.tuning);
    const sorn_hp_params_t &p = t.params;
    LoadedLibrary l;
    open_library(l);
    DesignView v = run_design(l, p, a.rate, &t.target);
    int fine = 0;
    for (const std::string &w : design_warnings_shown(v, t.target, fine)) warn(w);
    if (fine)
        note(fmt("%d steps between close points are finer than the filter resolves; the import chose them for "
                 "what the taps achieve against the target", fine));
    std::string error;
    std::vector<std::string> written;
    if (!a.taps.empty()) {
        if (!write_taps(v, a.taps, error)) failure(error);
        written.push_back(a.taps);
    }
    if (!a.csv.empty()) {
        if (!write_response_csv(v, a.csv, error)) failure(error);
        written.push_back(a.csv);
    }
    std::string plot_message;
    if (!a.plot.empty()) {
        PlotResult pr;
        if (!plot_response(v, a.plot, plot_title(name, v, &t.target), find_gnuplot(), pr, error)) failure(error);
        if (pr.rendered)
            written.push_back(a.plot);
        else
            plot_message = pr.message;
    }
    std::string s = design_summary(v, name, &t.target);
    for (const std::string &w : written) s += "  wrote " + w + "\n";
    say(s);
    if (!plot_message.empty()) note(plot_message);
    return 0;
}

}  // namespace

void add_design_command(CLI::App &app) {
    DesignArgs &design = g_args;
    auto *c_design = app.add_subcommand("design", "Show the response the library designs for a tuning");
    c_design->add_option("FILE", design.tuning, "Tuning file (default: the built-in example)");
    c_design->add_option("--rate", design.rate, "Sample rate in Hz")->capture_default_str();
    c_design->add_option("--plot", design.plot, "Plot to write (.png or .svg)");
    c_design->add_option("--taps", design.taps, "The 513 Q23 taps as text");
    c_design->add_option("--csv", design.csv, "Requested and achieved response as CSV");
    c_design->footer("Example:\n  sorn-hp design my.json --rate 44100 --plot my.png --csv my.csv\n");
    c_design->callback([] { choose_command([] { return cmd_design(g_args); }); });
}

}  // namespace sorn_tool::cli
