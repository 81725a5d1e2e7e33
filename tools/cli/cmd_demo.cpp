/* demo: a synthesized program through the built-in tuning, with plot and report. */
#include <sstream>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"
#include "tools/cli/cli_reports.h"
#include "tools/host/demo_program.h"
#include "tools/plot/response_plot.h"

namespace sorn_tool::cli {

namespace {

std::string g_dir = "sorn-hp-demo";

int cmd_demo(const std::string &dir) {
    const std::string program = dir + "/program.wav", processed = dir + "/processed.wav",
                      plot = dir + "/response.png", tuning = dir + "/tuning.json", block = dir + "/params.bin";
    check_outputs({program, processed, plot, tuning, block}, {});
    make_dir(dir);
    const int rate = 48000;
    const sorn_hp_params_t p = builtin_params();

    LoadedLibrary l;
    open_library(l);
    AudioBuffer in = demo_program(rate), out;
    RunSettings s;
    s.params = p;
    s.progress = progress_bar("processing");
    RunReport report;
    std::string error;
    bool ok;
    {
        StdoutMuffle muffle(!g_opt.verbose);
        ok = effect_run(l.lib, in, s, out, report, error);
    }
    if (!ok) failure(error);
    if (!report.processing) failure("the effect did not process the demo: " + report.status_text);
    DesignView v = run_design(l, p, rate);

    std::string json = tuning_to_json(p);
    auto bytes = params_to_bytes(p);
    write_file(tuning, json.data(), json.size());
    write_file(block, bytes.data(), bytes.size());
    if (!audio_write(program, in, error) || !audio_write(processed, out, error)) failure(error);
    PlotResult pr;
    if (!plot_response(v, plot, plot_title("built-in example", v), find_gnuplot(), pr, error)) failure(error);

    RunArgs shown;
    std::ostringstream o;
    o << "sorn-hp demo: the built-in tuning through " << l.lib.descriptor.name << "\n\nprogram\n";
    for (const DemoSection &sec : demo_sections())
        o << fmt("  %5.1f s  %s\n", sec.start_s, sec.what.c_str());
    o << "\n" << run_report(program, processed, "built-in example (" + groups_summary(p) + ")", shown, l.lib, report);
    o << "\n" << design_summary(v, "built-in example");
    for (const std::string &w : v.warnings) o << "  warning: " << w << "\n";
    o << "\nfiles in " << dir << "\n";
    o << "  program.wav    the synthesized input\n  processed.wav  the effect's output, aligned with the input\n";
    o << (pr.rendered ? "  response.png   requested and achieved response\n"
                      : "  response.dat/.gp  plot data and script (" + pr.message + ")\n");
    o << "  tuning.json    the built-in tuning, a starting point for your own\n";
    o << "  params.bin     the same as the 292-byte parameter block a client sends\n";
    say(o.str());
    return 0;
}

}  // namespace

void add_demo_command(CLI::App &app) {
    auto *c_demo = app.add_subcommand("demo", "Synthesize a program, run it with the built-in tuning, plot, report");
    c_demo->add_option("DIR", g_dir, "Folder for the results")->capture_default_str();
    c_demo->footer("Example:\n  sorn-hp demo out/demo\n");
    c_demo->callback([] { choose_command([] { return cmd_demo(g_dir); }); });
}

}  // namespace sorn_tool::cli
