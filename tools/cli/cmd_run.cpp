/* run: an audio file through the effect, exactly as Android drives it. */
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "tools/cli/cli_common.h"
#include "tools/cli/cli_reports.h"
#include "tools/host/file_run.h"

namespace sorn_tool::cli {

namespace {

RunArgs g_args;

int cmd_run(const RunArgs &a) {
    SampleFormat format = SampleFormat::f32;
    if (!parse_sample_format(a.format, format)) usage_error("--format must be float, 16 or 32, not " + a.format);
    if (a.frames < 1 || a.frames > 65536) usage_error("--frames must be 1 to 65536");
    uint32_t device = 0, mode = 0;
    if (!parse_device(a.device, device))
        usage_error("--device " + a.device + " is unknown; use one of " + device_names() + ", or a number");
    if (!parse_audio_mode(a.mode, mode))
        usage_error("--mode " + a.mode + " is unknown; use one of " + audio_mode_names() + ", or a number");
    if (!a.tuning.empty() && !a.params.empty()) usage_error("give --tuning or --params, not both");
    int rate = 0;  // 0: the file's own
    if (a.rate != "input") {
        char *end = nullptr;
        rate = static_cast<int>(std::strtol(a.rate.c_str(), &end, 10));
        if (*end != '\0' || !effect_rate_supported(rate))
            usage_error("--rate " + a.rate + ": give a rate the effect processes (44050 to 48050 Hz), or input");
    }
    std::vector<std::string> inputs{a.in};
    if (!a.tuning.empty()) inputs.push_back(a.tuning);
    if (!a.params.empty()) inputs.push_back(a.params);
    check_outputs({a.out}, inputs);
    int sf_format = 0;
    std::string out_note, error;
    if (!audio_output_format(a.out, format, sf_format, out_note, error)) usage_error(error);

    RunSettings s;
    std::string tuning_name = "built-in example";
    if (!a.tuning.empty()) {
        s.params = load_tuning(a.tuning);
        tuning_name = a.tuning;
    } else if (!a.params.empty()) {
        s.params = load_block(a.params);
        tuning_name = a.params + " (parameter block)";
        for (const std::string &f : params_findings(s.params)) warn(a.params + ": " + f);
    } else {
        s.params = builtin_params();
    }
    s.device = device;
    s.mode = mode;
    s.bypass = a.bypass;
    s.frames_per_call = a.frames;

    AudioReader reader;
    int run_rate = 0;
    std::vector<RunMessage> messages;
    if (!file_run_open(a.in, format, rate, reader, run_rate, messages, error)) failure(error);
    for (const RunMessage &m : messages) m.warning ? warn(m.text) : note(m.text);
    if (!out_note.empty()) note(out_note);

    LoadedLibrary l;
    open_library(l);
    RunReport report;
    s.progress = progress_bar("processing");
    bool ok;
    {
        StdoutMuffle muffle(!g_opt.verbose);
        ok = effect_run_file(l.lib, reader, format, run_rate, a.out, s, report, error);
    }
    if (!ok) failure(error);
    if (!report.processing && effect_rate_supported(run_rate))
        warn(passthrough_warning(report, a.bypass, a.device, a.mode));
    say(run_report(a.in, a.out, tuning_name, a, l.lib, report));
    return 0;
}

}  // namespace

void add_run_command(CLI::App &app) {
    RunArgs &run = g_args;
    auto *c_run = app.add_subcommand("run", "Run an audio file through the effect as Android does");
    c_run->add_option("IN", run.in, "Input audio (WAV, FLAC or anything libsndfile reads)")->required();
    c_run->add_option("OUT", run.out, "Output audio; its extension picks the container")->required();
    c_run->add_option("--tuning", run.tuning, "Tuning file (default: the built-in example)");
    c_run->add_option("--params", run.params, "A 292-byte parameter block instead of a tuning");
    c_run->add_option("--device", run.device, "Output device: " + device_names() + ", or a number")->capture_default_str();
    c_run->add_option("--format", run.format, "Buffer format the effect is configured for: float, 16 or 32")->capture_default_str();
    c_run->add_option("--frames", run.frames, "Frames per process call")->capture_default_str();
    c_run->add_option("--mode", run.mode, "Audio mode: " + audio_mode_names() + ", or a number")->capture_default_str();
    c_run->add_option("--rate", run.rate,
                      "The device's output rate in Hz: a file at another rate is resampled to it before the effect, "
                      "as a device's mixer does, and written at it. input: the file's own rate (one the effect does "
                      "not process passes through unchanged, with a warning)")
        ->capture_default_str();
    c_run->add_flag("--bypass", run.bypass, "Send the client's bypass setting");
    c_run->footer("Example:\n  sorn-hp run song.flac song-hp.wav --tuning my.json --device bt-a2dp\n"
                  "  sorn-hp run master-96k.wav master-hp.wav --rate 48000\n");
    c_run->callback([] { choose_command([] { return cmd_run(g_args); }); });
}

}  // namespace sorn_tool::cli
