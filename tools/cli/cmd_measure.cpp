/* measure: what the effect does to sound, measured with generated signals through the library as
   `run` drives it, into an HTML report and a JSON file of every figure. */
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <ctime>
#include <fstream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"
#include "tools/files/audio_file.h"
#include "tools/host/effect_run.h"
#include "tools/measure/effect_system.h"
#include "tools/measure/report.h"
#include "tools/plot/design_view.h"
#include "tools/plot/response_plot.h"

namespace sorn_tool::cli {

namespace {

struct MeasureArgs {
    std::string input, dir = "sorn-hp-measure", device = "wired-headphone", mode = "normal", format = "float",
                against;
    int rate = 48000;
    size_t frames = 240;
};

bool is_library_path(const std::string &p) {
    if (p.size() > 3 && (p.substr(p.size() - 3) == ".so" || p.find(".so.") != std::string::npos)) return true;
    std::ifstream in(p, std::ios::binary);
    char magic[4] = {};
    in.read(magic, 4);
    return in && std::memcmp(magic, "\x7f" "ELF", 4) == 0;
}

/* A tuning file (.json) or a parameter block (anything else), and how the report names it. */
sorn_hp_params_t load_measured(const std::string &path, std::string &name) {
    if (path.empty()) {
        name = "built-in example";
        return builtin_params();
    }
    name = path;
    if (path.size() > 5 && path.substr(path.size() - 5) == ".json") return load_tuning(path);
    sorn_hp_params_t p = load_block(path);
    for (const std::string &f : params_findings(p)) warn(path + ": " + f);
    name += " (parameter block)";
    return p;
}

/* One line on a terminal: the run, the stage and how far the whole has come. */
MeasureProgress measure_progress(const std::string &run) {
    if (g_opt.quiet || !isatty(STDERR_FILENO)) return {};
    return [run, drawn = std::chrono::steady_clock::now() - std::chrono::seconds(1)](const std::string &stage,
                                                                                   double done) mutable {
        const auto now = std::chrono::steady_clock::now();
        if (done < 1.0 && now - drawn < std::chrono::milliseconds(100)) return;
        drawn = now;
        std::fprintf(stderr, "\r%-72s", fmt("sorn-hp measure: %s: %s %3d%%", run.c_str(), stage.c_str(),
                                            static_cast<int>(done * 100 + 0.5)).c_str());
        if (done >= 1.0) std::fprintf(stderr, "\r%72s\r", "");
        std::fflush(stderr);
    };
}

MeasuredRun measure_one(const EffectLibrary &lib, const sorn_hp_params_t &p, const std::string &name,
                        const std::string &tuning, const RunSettings &base, SampleFormat format, int rate,
                        const MeasureSettings &ms) {
    MeasuredRun run;
    run.name = name;
    run.library = lib.resolved_path;
    run.tuning = tuning;
    const bool surround = p.ss != 0 && p.lc != 0;
    run.surround = surround ? "on" : "off";
    RunSettings rs = base;
    rs.params = p;
    RunReport status;
    MeasureSettings s = ms;
    s.format = format;
    std::string error;
    bool ok;
    std::vector<int32_t> taps(513);
    {
        StdoutMuffle muffle(!g_opt.verbose);
        ok = measure_all(effect_system_factory(lib, rate, rs, &status), s, run.m, error, measure_progress(name));
        Designer d;
        if (ok && (ok = designer_open(lib, rate, d, error))) {
            designer_taps(d, p, taps.data());
            designer_close(d);
        }
    }
    if (!ok) failure(error);
    if (!status.processing)
        warn(name + ": THE EFFECT PASSED THE AUDIO THROUGH UNPROCESSED (device, mode or rate): the figures are "
                    "those of a wire");
    for (double f : run.m.response.freq_hz) {
        run.design_db.push_back(taps_response_db(taps.data(), 513, f, rate));
        run.side_expected_db.push_back(run.design_db.back() + surround_side_lift_db(f, rate, surround));
    }
    finish_run(run);
    return run;
}

int cmd_measure(const MeasureArgs &a) {
    SampleFormat format = SampleFormat::f32;
    if (!parse_sample_format(a.format, format)) usage_error("--format must be float, 16 or 32, not " + a.format);
    if (a.frames < 1 || a.frames > 65536) usage_error("--frames must be 1 to 65536");
    if (!effect_rate_supported(a.rate))
        usage_error("--rate " + std::to_string(a.rate) + ": give a rate the effect processes (44050 to 48050 Hz)");
    uint32_t device = 0, mode = 0;
    if (!parse_device(a.device, device))
        usage_error("--device " + a.device + " is unknown; use one of " + device_names() + ", or a number");
    if (!parse_audio_mode(a.mode, mode))
        usage_error("--mode " + a.mode + " is unknown; use one of " + audio_mode_names() + ", or a number");
    const std::string html = a.dir + "/report.html", json = a.dir + "/measurements.json";
    std::vector<std::string> inputs;
    if (!a.input.empty()) inputs.push_back(a.input);
    if (!a.against.empty()) inputs.push_back(a.against);
    check_outputs({html, json}, inputs);
    const std::string gnuplot = find_gnuplot();
    if (gnuplot.empty()) failure("the report's plots need gnuplot (Debian: apt-get install gnuplot-nox)");

    std::string name_a;
    const sorn_hp_params_t pa = load_measured(a.input, name_a);
    const bool other_library = !a.against.empty() && is_library_path(a.against);
    std::string name_b;
    sorn_hp_params_t pb = pa;
    if (!a.against.empty() && !other_library) pb = load_measured(a.against, name_b);
    LoadedLibrary la, lb;
    open_library(la);
    if (other_library) {
        std::string error;
        if (!effect_library_open(a.against, lb.lib, error)) failure(error);
    }
    make_dir(a.dir);
    RunSettings base;
    base.device = device;
    base.mode = mode;
    base.frames_per_call = a.frames;
    const MeasureSettings ms;
    const std::clock_t cpu0 = std::clock();
    std::vector<MeasuredRun> runs;
    const std::string label_a = a.against.empty() ? std::filesystem::path(name_a).filename().string() : "A";
    runs.push_back(measure_one(la.lib, pa, label_a, name_a, base, format, a.rate, ms));
    if (!a.against.empty())
        runs.push_back(measure_one(other_library ? lb.lib : la.lib, pb, "B", other_library ? name_a : name_b, base,
                                   format, a.rate, ms));
    ReportConditions c;
    c.effect = std::string(la.lib.descriptor.name) + " (" + la.lib.descriptor.implementor + ")";
    c.rate = a.rate;
    c.format = sample_format_name(format);
    c.device = a.device;
    c.mode = a.mode;
    c.frames_per_call = a.frames;
    c.settings = ms;
    std::string error;
    if (!write_measurements_json(json, c, runs, error) || !write_report_html(html, c, runs, gnuplot, error))
        failure(error);
    const double cpu = double(std::clock() - cpu0) / CLOCKS_PER_SEC;
    std::ostringstream o;
    o << "sorn-hp measure: " << name_a << (a.against.empty() ? "" : " against " + a.against) << "\n";
    o << fmt("  stream       %d Hz, stereo, %s, %zu frames per call, %s, %s mode\n", a.rate, c.format.c_str(), a.frames,
             a.device.c_str(), a.mode.c_str());
    o << figures_text(runs);
    o << fmt("  measured     %.1f s of audio per run in %.1f s of processor time\n", runs[0].m.audio_seconds, cpu);
    o << "  wrote        " << html << ", " << json << "\n";
    say(o.str());
    return 0;
}

MeasureArgs g_args;

}  // namespace

void add_measure_command(CLI::App &app) {
    MeasureArgs &measure = g_args;
    auto *c_measure = app.add_subcommand(
        "measure", "Measure what the effect does to sound (response, level curve, attack and release, THD+N, "
                   "dynamic range, latency, silence) into an HTML report and JSON");
    c_measure->add_option("TUNING", measure.input, "Tuning file (.json) or parameter block (default: the built-in example)");
    c_measure->add_option("-o,--output", measure.dir, "Folder for report.html and measurements.json")->capture_default_str();
    c_measure->add_option("--device", measure.device, "Output device: " + device_names() + ", or a number")->capture_default_str();
    c_measure->add_option("--format", measure.format, "Buffer format the effect is configured for: float, 16 or 32")->capture_default_str();
    c_measure->add_option("--rate", measure.rate, "Stream rate in Hz")->capture_default_str();
    c_measure->add_option("--frames", measure.frames, "Frames per process call")->capture_default_str();
    c_measure->add_option("--mode", measure.mode, "Audio mode: " + audio_mode_names() + ", or a number")->capture_default_str();
    c_measure->add_option("--against", measure.against,
                          "Another tuning (or parameter block), or another build of the library (a .so path), "
                          "measured the same way and shown on the same plots");
    c_measure->footer("Example:\n  sorn-hp measure out/demo/tuning.json -o out/measure\n"
                      "  sorn-hp measure my.json --against other.json --format 16\n");
    c_measure->callback([] { choose_command([] { return cmd_measure(g_args); }); });
}

}  // namespace sorn_tool::cli
