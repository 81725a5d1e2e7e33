/* studio: the browser workbench, served on a loopback port until Ctrl-C. */
#include <unistd.h>

#include <cstdio>
#include <optional>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"
#include "tools/studio/studio_server.h"

namespace sorn_tool::cli {

namespace {

struct StudioArgs {
    std::string file, audio;
    int port = 8765;
};
StudioArgs g_args;

bool ends_with(const std::string &s, const std::string &tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

int cmd_studio(const StudioArgs &a) {
    if (a.port < 0 || a.port > 65535) usage_error("--port must be 0 to 65535 (0: any free port)");
    StudioServeOptions o;
    o.lib_path = resolve_library_path(g_opt.lib);
    o.port = a.port;
    o.audio_dir = a.audio;
    if (a.file.empty()) {
        o.start.ok = true;
        o.start.params = builtin_params();
    } else if (ends_with(a.file, ".bin")) {
        o.start.ok = true;
        o.start.params = load_block(a.file);
        for (const std::string &f : params_findings(o.start.params)) warn(a.file + ": " + f);
    } else {
        o.start = load_tuning_file(a.file);
    }
    // The library's own lines on standard output are hidden unless -v; the address is the
    // command's output and always shown.
    std::optional<StdoutMuffle> muffle;
    if (!g_opt.verbose) muffle.emplace(true);
    std::string error;
    const bool ok = studio_serve(o, [&](const std::string &url) {
        const std::string line = url + "\n";
        if (muffle && muffle->saved_fd >= 0) {
            if (write(muffle->saved_fd, line.data(), line.size()) < 0) note("cannot print the address: " + url);
        } else {
            std::fputs(line.c_str(), stdout);
            std::fflush(stdout);
        }
        note("serving the studio until Ctrl-C");
    }, error);
    muffle.reset();
    if (!ok) failure(error);
    note("stopped; the studio's temporary files are removed");
    return 0;
}

}  // namespace

void add_studio_command(CLI::App &app) {
    StudioArgs &a = g_args;
    auto *c = app.add_subcommand("studio", "Tune in the browser: live design, import, listen and export");
    c->add_option("FILE", a.file, "Tuning file or .bin parameter block to start from (default: the built-in example)");
    c->add_option("--port", a.port, "Port on 127.0.0.1 (0: any free port)")->capture_default_str();
    c->add_option("--audio", a.audio, "Folder of audio files the page may render (listed by name)");
    c->footer("Example:\n  sorn-hp studio hd650.json --audio ~/Music\n  sorn-hp studio --port 0\n");
    c->callback([] { choose_command([] { return cmd_studio(g_args); }); });
}

}  // namespace sorn_tool::cli
