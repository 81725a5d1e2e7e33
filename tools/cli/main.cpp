/*
 * sorn-hp: the workstation tool for the SORN HP headphone effect.
 *
 *   run               audio file through the effect, exactly as Android drives it
 *   demo              synthesized program through the built-in tuning, with plot and report
 *   design            the library's own design of a tuning: requested vs achieved response
 *   params            tuning file <-> 292-byte parameter block
 *   import            a published correction (GraphicEQ, parametric, EqualizerAPO, CSV) fitted
 *                     into all three groups through the library's own design
 *   import-graphiceq  "GraphicEQ: f g; ..." text into one tuning group
 *   info              the library's descriptor
 *   studio            the browser workbench: live design, import, listen and export
 *
 * Exit status: 0 success, 1 usage error (arguments, outputs that exist or would overwrite an
 * input), 2 processing error (unreadable or invalid inputs, library failures).
 */
#include <cstdio>
#include <functional>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"

namespace sorn_tool::cli {

namespace {

std::function<int()> g_command;

}  // namespace

void choose_command(std::function<int()> command) { g_command = std::move(command); }

}  // namespace sorn_tool::cli

using namespace sorn_tool::cli;

int main(int argc, char **argv) {
    // Whole lines on standard output, so that it never interleaves with standard error mid-line
    // when both go to one file or pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    CLI::App app{"sorn-hp: run, design and tune the SORN HP headphone effect on a workstation"};
    app.fallthrough();
    app.require_subcommand(1);
    app.add_option("--lib", g_opt.lib, "Effect library to load (default: $SORN_HP_LIB, else the built one)");
    app.add_flag("-q,--quiet", g_opt.quiet, "Print nothing but errors");
    app.add_flag("-v,--verbose", g_opt.verbose, "Also show the library's own log and diagnostic lines");
    app.add_flag("-y,--yes", g_opt.yes, "Overwrite outputs that exist");
    app.footer("Exit status: 0 success, 1 usage error, 2 processing error.\n"
               "Example:\n  sorn-hp demo out/demo\n  sorn-hp run song.flac song-hp.wav --tuning my.json\n");

    add_run_command(app);
    add_demo_command(app);
    add_design_command(app);
    add_params_command(app);
    add_import_command(app);
    add_import_graphiceq_command(app);
    add_info_command(app);
    add_studio_command(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        app.exit(e);
        return kUsage;
    }
    if (g_opt.quiet && g_opt.verbose) {
        std::fprintf(stderr, "sorn-hp: error: -q and -v contradict each other\n");
        return kUsage;
    }
    set_log_level();
    try {
        if (g_command) return g_command();
    } catch (const Exit &e) {
        std::fprintf(stderr, "sorn-hp: error: %s\n", e.message.c_str());
        return e.code;
    }
    return kUsage;
}
