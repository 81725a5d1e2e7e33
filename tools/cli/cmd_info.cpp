/* info: the library's descriptor and where it was loaded from. */
#include <cstdio>
#include <cstring>
#include <sstream>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"

namespace sorn_tool::cli {

namespace {

int cmd_info() {
    LoadedLibrary l;
    open_library(l);
    const audio_effect_library_t &a = *l.lib.aeli;
    const effect_descriptor_t &d = l.lib.descriptor;
    std::ostringstream o;
    o << "library        " << l.lib.resolved_path << "\n";
    o << fmt("  record       AELI, tag 'AELT', library API %s\n", describe_api_version(a.version).c_str());
    o << "  name         " << (a.name ? a.name : "(none)") << "\n";
    o << "  implementor  " << (a.implementor ? a.implementor : "(none)") << "\n";
    o << "effect         " << std::string(d.name, strnlen(d.name, sizeof d.name)) << "\n";
    o << "  implementor  " << std::string(d.implementor, strnlen(d.implementor, sizeof d.implementor)) << "\n";
    o << "  uuid         " << uuid_to_string(d.uuid) << "\n";
    o << "  type         " << uuid_to_string(d.type) << "\n";
    o << "  control API  " << describe_api_version(d.apiVersion) << "\n";
    o << fmt("  flags        0x%08X: ", d.flags) << describe_effect_flags(d.flags) << "\n";
    o << fmt("  cpu load     %u (0.1 MIPS)\n  memory       %u KB\n", d.cpuLoad, d.memoryUsage);
    std::fputs(o.str().c_str(), stdout);  // the requested output: shown even with -q
    return 0;
}

}  // namespace

void add_info_command(CLI::App &app) {
    auto *c_info = app.add_subcommand("info", "Show the library's descriptor and where it was loaded from");
    c_info->footer("Example:\n  sorn-hp info --lib /vendor/lib64/soundfx/libsorn_hp_sfx_aw.so\n");
    c_info->callback([] { choose_command(cmd_info); });
}

}  // namespace sorn_tool::cli
