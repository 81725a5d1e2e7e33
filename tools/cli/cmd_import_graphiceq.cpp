/* import-graphiceq: "GraphicEQ: f g; ..." text into one tuning group. */
#include <optional>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"
#include "tools/fit/graphiceq.h"

namespace sorn_tool::cli {

namespace {

struct ImportArgs {
    std::string file, out, group = "hp";
    bool surround = false;
};
ImportArgs g_args;

int cmd_import(const ImportArgs &a) {
    std::optional<Group> group;
    for (Group g : kGroups)
        if (a.group == group_name(g)) group = g;
    if (!group) usage_error("--group must be lc, hp or ea, not " + a.group);
    if (a.out.empty()) usage_error("import-graphiceq needs -o TUNING.json");
    check_outputs({a.out}, {a.file});

    GraphicEqParse parsed = graphiceq_parse(read_file(a.file), a.file);
    if (!parsed.ok) failure(parsed.error);
    for (const std::string &n : parsed.notes) note(n);

    LoadedLibrary l;
    open_library(l);
    Interpolant interp;
    std::string error;
    if (!interpolant_from_library(l.lib, interp, error)) failure(error);
    const int count = group_points(*group);
    GroupFit fit = graphiceq_fit(parsed.points, count, interp);

    const sorn_hp_params_t p = graphiceq_group_block(fit, *group, a.surround);
    if (a.surround && *group != Group::lc)
        note("the effect turns surround on only while the lc group is on; it stays off with this tuning");
    std::string json = tuning_to_json(p);
    write_file(a.out, json.data(), json.size());
    if (fit.limited_points)
        warn(fmt("%d of %zu input points lie outside the effect's -6..+7 dB and were limited", fit.limited_points,
                 parsed.points.size()));
    say(fmt("sorn-hp import-graphiceq: %s -> %s\n", a.file.c_str(), a.out.c_str()) +
        fmt("  fitted the %zu input points into %s (%d points, %u to %u Hz on a log grid)\n", parsed.points.size(),
            a.group.c_str(), count, fit.freq.front(), fit.freq.back()) +
        fmt("  departure from the input: largest %.2f dB at %.0f Hz, RMS %.2f dB\n", fit.max_departure_db,
            fit.max_departure_hz, fit.rms_departure_db));
    return 0;
}

}  // namespace

void add_import_graphiceq_command(CLI::App &app) {
    ImportArgs &import = g_args;
    auto *c_import = app.add_subcommand("import-graphiceq", "Fit a \"GraphicEQ: f g; ...\" text into a tuning group");
    c_import->add_option("FILE", import.file, "GraphicEQ text file")->required();
    c_import->add_option("-o,--output", import.out, "Tuning file to write")->required();
    c_import->add_option("--group", import.group, "Group to fill: lc, hp or ea")->capture_default_str();
    c_import->add_flag("--surround", import.surround, "Turn the stereo surround on");
    c_import->footer("Example:\n  sorn-hp import-graphiceq headphone.txt -o headphone.json\n");
    c_import->callback([] { choose_command([] { return cmd_import(g_args); }); });
}

}  // namespace sorn_tool::cli
