/* import: a published correction (GraphicEQ, parametric, EqualizerAPO, CSV) fitted into all
   three groups through the library's own design. */
#include <ctime>
#include <sstream>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"
#include "tools/fit/import_fit.h"
#include "tools/host/effect_run.h"

namespace sorn_tool::cli {

namespace {

struct ImportAnyArgs {
    std::string file, out;
    int rate = 48000;
    bool surround = false;
};
ImportAnyArgs g_args;

int cmd_import_any(const ImportAnyArgs &a) {
    if (!effect_rate_supported(a.rate))
        usage_error("--rate " + std::to_string(a.rate) + ": the effect designs only for 44050 to 48050 Hz");
    check_outputs({a.out}, {a.file});
    ImportedCurve c = eq_import_parse(read_file(a.file), a.file);
    if (!c.ok) failure(c.error);
    for (const std::string &n : c.notes) note(n);

    LoadedLibrary l;
    open_library(l);
    const std::clock_t start = std::clock();
    ImportFit r;
    std::string error;
    bool ok;
    {
        StdoutMuffle muffle(!g_opt.verbose);
        std::function<void(int)> on_fitted;
        if (g_opt.verbose)
            on_fitted = [](int designs) {
                note(fmt("the library's log of the fit's %d trial designs is left out; the chosen tables' design "
                         "follows",
                         designs));
            };
        ok = import_fit(l.lib, c, a.file, a.rate, a.surround, r, error, on_fitted);
    }
    if (!ok) failure(error);
    const double seconds = double(std::clock() - start) / CLOCKS_PER_SEC;
    write_file(a.out, r.tuning_json.data(), r.tuning_json.size());

    say(import_report(c, r, a.file, a.out, a.rate, seconds));
    return 0;
}

}  // namespace

void add_import_command(CLI::App &app) {
    ImportAnyArgs &import_any = g_args;
    auto *c_import_any = app.add_subcommand(
        "import", "Fit a published correction (GraphicEQ, parametric list, EqualizerAPO config, CSV) into a tuning");
    c_import_any->add_option("FILE", import_any.file, "Correction file")->required();
    c_import_any->add_option("-o,--output", import_any.out, "Tuning file to write")->required();
    c_import_any->add_option("--rate", import_any.rate, "Sample rate the fit designs at")->capture_default_str();
    c_import_any->add_flag("--surround", import_any.surround, "Turn the stereo surround on");
    c_import_any->footer("Example:\n  sorn-hp import 'Sennheiser HD 650 ParametricEQ.txt' -o hd650.json\n"
                         "  sorn-hp design hd650.json --plot hd650.png\n");
    c_import_any->callback([] { choose_command([] { return cmd_import_any(g_args); }); });
}

}  // namespace sorn_tool::cli
