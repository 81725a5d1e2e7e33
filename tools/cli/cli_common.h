/*
 * What the commands of sorn-hp share: the global options, the one way each kind of line reaches
 * the user (notes and warnings on standard error, results on standard output, all silenced by
 * -q), the exit statuses, output files that are written whole or not at all, and the loaded
 * library.
 *
 * A command fails by throwing Exit (usage_error, failure); main prints its message as
 * "sorn-hp: error: ..." and returns its status.
 */
#ifndef SORN_TOOLS_CLI_COMMON_H
#define SORN_TOOLS_CLI_COMMON_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tools/files/text_format.h"
#include "tools/files/tuning.h"
#include "tools/host/effect_host.h"

namespace CLI {
class App;
}

namespace sorn_tool::cli {

inline constexpr int kUsage = 1;  /* arguments, outputs that exist or would overwrite an input */
inline constexpr int kFailed = 2; /* unreadable or invalid inputs, library failures */

/* A failure that ends the command with its exit status. */
struct Exit {
    int code;
    std::string message;
};

[[noreturn]] void usage_error(const std::string &m);
[[noreturn]] void failure(const std::string &m);

struct GlobalOptions {
    std::string lib;
    bool quiet = false;
    bool verbose = false;
    bool yes = false;
};
extern GlobalOptions g_opt;

void note(const std::string &m);
void warn(const std::string &m);
void say(const std::string &m);

/* Outputs must not be inputs, and must not exist unless -y was given. */
void check_outputs(const std::vector<std::string> &outputs, const std::vector<std::string> &inputs);
std::string read_file(const std::string &path);
/* Written under a temporary name and renamed into place. */
void write_file(const std::string &path, const void *data, size_t size);
void make_dir(const std::string &dir);

TuningResult load_tuning_file(const std::string &path);
sorn_hp_params_t load_tuning(const std::string &path);
sorn_hp_params_t builtin_params();
sorn_hp_params_t load_block(const std::string &path);

struct LoadedLibrary {
    EffectLibrary lib;
    ~LoadedLibrary() { effect_library_close(lib); }
};
void open_library(LoadedLibrary &l);

/* The library logs through the same liblog as the tool (its minimum priority is process-wide):
   its lines reach standard error only with -v. */
void set_log_level();

/* A progress bar on standard error when it is a terminal and -q is off; else nothing. */
std::function<void(double)> progress_bar(const std::string &label);

/* The command the arguments chose, run by main once they are all parsed. */
void choose_command(std::function<int()> command);

/* Each adds its subcommand to the app; its callback chooses the command. */
void add_run_command(CLI::App &app);
void add_demo_command(CLI::App &app);
void add_design_command(CLI::App &app);
void add_params_command(CLI::App &app);
void add_import_command(CLI::App &app);
void add_import_graphiceq_command(CLI::App &app);
void add_info_command(CLI::App &app);
void add_studio_command(CLI::App &app);

}  // namespace sorn_tool::cli

#endif
