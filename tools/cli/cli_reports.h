/*
 * The reports more than one command prints: a run's (run, demo) and a design's (design, demo).
 */
#ifndef SORN_TOOLS_CLI_REPORTS_H
#define SORN_TOOLS_CLI_REPORTS_H

#include <string>

#include "tools/cli/cli_common.h"
#include "tools/host/effect_run.h"
#include "tools/plot/design_view.h"

namespace sorn_tool::cli {

/* The run command's arguments as given; the report names the stream by them. */
struct RunArgs {
    std::string in, out, tuning, params, device = "wired-headphone", mode = "normal", format = "float";
    std::string rate = "input";
    size_t frames = 240;
    bool bypass = false;
};

std::string run_report(const std::string &in, const std::string &out, const std::string &tuning_name,
                       const RunArgs &a, const EffectLibrary &lib, const RunReport &r);

/* The library's design of `p`, its standard output hidden unless -v; fails the command when the
   library cannot design. */
DesignView run_design(const LoadedLibrary &l, const sorn_hp_params_t &p, int rate,
                      const TuningTarget *target = nullptr);

std::string plot_title(const std::string &name, const DesignView &v, const TuningTarget *target = nullptr);

}  // namespace sorn_tool::cli

#endif
