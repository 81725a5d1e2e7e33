/* params: tuning file to 292-byte parameter block, or back with --decode. */
#include <cstdio>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"

namespace sorn_tool::cli {

namespace {

struct ParamsArgs {
    std::string file, out;
    bool decode = false;
};
ParamsArgs g_args;

int cmd_params(const ParamsArgs &a) {
    if (!a.decode && a.out.empty()) usage_error("params needs -o BLOCK.bin (or --decode BLOCK.bin)");
    if (!a.out.empty()) check_outputs({a.out}, {a.file});
    if (a.decode) {
        sorn_hp_params_t p = load_block(a.file);
        for (const std::string &f : params_findings(p)) warn(a.file + ": " + f);
        std::string json = tuning_to_json(p);
        if (a.out.empty()) {
            std::fputs(json.c_str(), stdout);  // the requested output: shown even with -q
        } else {
            write_file(a.out, json.data(), json.size());
            say("wrote " + a.out + " (" + groups_summary(p) + ")\n");
        }
        return 0;
    }
    sorn_hp_params_t p = load_tuning(a.file);
    auto bytes = params_to_bytes(p);
    write_file(a.out, bytes.data(), bytes.size());
    say("wrote " + a.out + " (" + std::to_string(bytes.size()) + " bytes: " + groups_summary(p) + ")\n");
    return 0;
}

}  // namespace

void add_params_command(CLI::App &app) {
    ParamsArgs &params = g_args;
    auto *c_params = app.add_subcommand("params", "Tuning file to 292-byte parameter block, or back with --decode");
    c_params->add_option("FILE", params.file, "Tuning file, or with --decode a parameter block")->required();
    c_params->add_option("-o,--output", params.out, "File to write: the block, or with --decode the tuning (stdout when omitted)");
    c_params->add_flag("--decode", params.decode, "Read a parameter block and write its tuning");
    c_params->footer("Example:\n  sorn-hp params my.json -o my.bin\n  sorn-hp params --decode captured.bin -o captured.json\n");
    c_params->callback([] { choose_command([] { return cmd_params(g_args); }); });
}

}  // namespace sorn_tool::cli
