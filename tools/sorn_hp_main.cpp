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
 *
 * Exit status: 0 success, 1 usage error (arguments, outputs that exist or would overwrite an
 * input), 2 processing error (unreadable or invalid inputs, library failures).
 */
#include <sys/stat.h>
#include <unistd.h>

#include <android/log.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/audio_file.h"
#include "tools/builtin_tuning.h"
#include "tools/demo_program.h"
#include "tools/design_view.h"
#include "tools/effect_host.h"
#include "tools/effect_run.h"
#include "tools/eq_fit.h"
#include "tools/eq_import.h"
#include "tools/file_run.h"
#include "tools/graphiceq.h"
#include "tools/measure/effect_system.h"
#include "tools/measure/report.h"
#include "tools/response_plot.h"
#include "tools/tuning.h"

namespace {

using namespace sorn_tool;

constexpr int kUsage = 1;
constexpr int kFailed = 2;

/* A failure that ends the command with its exit status. */
struct Exit {
    int code;
    std::string message;
};

[[noreturn]] void usage_error(const std::string &m) { throw Exit{kUsage, m}; }
[[noreturn]] void failure(const std::string &m) { throw Exit{kFailed, m}; }

struct Global {
    std::string lib;
    bool quiet = false;
    bool verbose = false;
    bool yes = false;
};
Global g_opt;

void note(const std::string &m) {
    if (!g_opt.quiet) std::fprintf(stderr, "sorn-hp: note: %s\n", m.c_str());
}
void warn(const std::string &m) {
    if (!g_opt.quiet) std::fprintf(stderr, "sorn-hp: WARNING: %s\n", m.c_str());
}
void say(const std::string &m) {
    if (!g_opt.quiet) std::fputs(m.c_str(), stdout);
}

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

std::string dbfs(double v) { return std::isfinite(v) ? fmt("%.1f dBFS", v) : std::string("-inf dBFS"); }

/* ---- files --------------------------------------------------------------------------------- */

bool same_file(const std::string &a, const std::string &b) {
    struct stat sa{}, sb{};
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return a == b;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

bool exists(const std::string &p) {
    struct stat st{};
    return stat(p.c_str(), &st) == 0;
}

/* Outputs must not be inputs, and must not exist unless -y was given. */
void check_outputs(const std::vector<std::string> &outputs, const std::vector<std::string> &inputs) {
    for (size_t i = 0; i < outputs.size(); ++i) {
        for (const std::string &in : inputs)
            if (same_file(outputs[i], in))
                usage_error(outputs[i] + " is also an input; choose another output name");
        for (size_t j = 0; j < i; ++j)
            if (outputs[i] == outputs[j]) usage_error(outputs[i] + " is named for two outputs");
        if (exists(outputs[i]) && !g_opt.yes) usage_error(outputs[i] + " exists; add -y to overwrite it");
    }
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) failure(path + ": cannot read: " + std::strerror(errno));
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const void *data, size_t size) {
    std::string tmp = path + ".partial";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out.write(static_cast<const char *>(data), static_cast<std::streamsize>(size));
        out.close();
        if (!out) {
            std::remove(tmp.c_str());
            failure(path + ": cannot write: " + std::strerror(errno));
        }
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        failure(path + ": cannot write: " + std::strerror(errno));
    }
}

void make_dir(const std::string &dir) {
    std::string partial;
    std::stringstream parts(dir);
    std::string part;
    if (!dir.empty() && dir[0] == '/') partial = "/";
    while (std::getline(parts, part, '/')) {
        if (part.empty()) continue;
        partial += part + "/";
        if (mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST)
            failure(dir + ": cannot make the folder: " + std::strerror(errno));
    }
}

/* ---- tunings and blocks -------------------------------------------------------------------- */

TuningResult load_tuning_file(const std::string &path) {
    TuningResult t = tuning_load(path);
    if (!t.ok) failure(t.error);
    for (const std::string &n : t.notes) note(n);
    return t;
}

sorn_hp_params_t load_tuning(const std::string &path) { return load_tuning_file(path).params; }

sorn_hp_params_t builtin_params() {
    TuningResult t = tuning_from_json(builtin_tuning_json(), "built-in tuning");
    if (!t.ok) failure(t.error);  // a broken build; the tests guard against it
    return t.params;
}

sorn_hp_params_t load_block(const std::string &path) {
    std::string bytes = read_file(path);
    const auto *b = reinterpret_cast<const uint8_t *>(bytes.data());
    if (bytes.size() == kParamsBytes) return params_from_bytes(b);
    // A whole SET_PARAM record as captured from a client: header, id 100, then the block.
    const size_t head = sizeof(effect_param_t) + 4;
    if (bytes.size() == head + kParamsBytes) {
        effect_param_t p{};
        int32_t id = 0;
        std::memcpy(&p, b, sizeof p);
        std::memcpy(&id, b + sizeof p, 4);
        if (p.psize == 4 && p.vsize == kParamsBytes && id == 100) {
            note(path + ": a SET_PARAM record; using its 292-byte value");
            return params_from_bytes(b + head);
        }
    }
    failure(path + ": " + std::to_string(bytes.size()) + " bytes; a parameter block is " +
            std::to_string(kParamsBytes) + " bytes");
}

std::string groups_summary(const sorn_hp_params_t &p) {
    std::string s;
    for (Group g : kGroups) s += std::string(s.empty() ? "" : ", ") + group_name(g) + (group_used(p, g) ? " on" : " off");
    return s + ", surround " + (p.ss != 0 && p.lc != 0 ? "on" : "off");
}

/* ---- library --------------------------------------------------------------------------------- */

struct LoadedLibrary {
    EffectLibrary lib;
    ~LoadedLibrary() { effect_library_close(lib); }
};

void open_library(LoadedLibrary &l) {
    std::string error;
    if (!effect_library_open(resolve_library_path(g_opt.lib), l.lib, error)) failure(error);
}

/* ---- progress ---------------------------------------------------------------------------- */

std::string clock_time(double seconds) {
    const long t = std::lround(seconds);
    return t >= 3600 ? fmt("%ld:%02ld:%02ld", t / 3600, t / 60 % 60, t % 60) : fmt("%ld:%02ld", t / 60, t % 60);
}

/* A bar with the time spent and, once it can be estimated, the time left; redrawn at most ten
   times a second. */
std::function<void(double)> progress_bar(const std::string &label) {
    if (g_opt.quiet || !isatty(STDERR_FILENO)) return {};
    const auto start = std::chrono::steady_clock::now();
    return [label, start, drawn = start - std::chrono::seconds(1)](double done) mutable {
        const auto now = std::chrono::steady_clock::now();
        if (done < 1.0 && now - drawn < std::chrono::milliseconds(100)) return;
        drawn = now;
        const int width = 40;
        int fill = static_cast<int>(done * width + 0.5);
        const double spent = std::chrono::duration<double>(now - start).count();
        std::string times = "  " + clock_time(spent) + " elapsed";
        if (done >= 0.01 && done < 1.0) times += ", " + clock_time(spent * (1.0 - done) / done) + " left   ";
        const std::string line = fmt("%s [%s%s] %3d%%%s", label.c_str(), std::string(fill, '#').c_str(),
                                     std::string(width - fill, ' ').c_str(), static_cast<int>(done * 100 + 0.5),
                                     times.c_str());
        std::fprintf(stderr, "\r%s", line.c_str());
        if (done >= 1.0) std::fprintf(stderr, "\r%*s\r", static_cast<int>(line.size()) + 16, "");
        std::fflush(stderr);
    };
}

/* ---- run ------------------------------------------------------------------------------------- */

struct RunArgs {
    std::string in, out, tuning, params, device = "wired-headphone", mode = "normal", format = "float";
    std::string rate = "input";
    size_t frames = 240;
    bool bypass = false;
};

SampleFormat parse_format(const std::string &f) {
    if (f == "float") return SampleFormat::f32;
    if (f == "16") return SampleFormat::s16;
    if (f == "32") return SampleFormat::s32;
    usage_error("--format must be float, 16 or 32, not " + f);
}

std::string run_report(const std::string &in, const std::string &out, const std::string &tuning_name,
                       const RunArgs &a, const EffectLibrary &lib, const RunReport &r) {
    const double seconds = double(r.frames) / r.rate;
    std::ostringstream o;
    o << "sorn-hp run: " << in << " -> " << out << "\n";
    o << fmt("  effect       %s (%s)\n", lib.descriptor.name, lib.descriptor.implementor);
    o << "  library      " << lib.resolved_path << "\n";
    o << "  tuning       " << tuning_name << "\n";
    const std::string resampled = r.source_rate ? fmt(" (resampled from %d Hz)", r.source_rate) : "";
    o << fmt("  stream       %d Hz%s, stereo, %s, %zu frames per call, %s, %s mode\n", r.rate, resampled.c_str(),
             sample_format_name(parse_format(a.format)), a.frames, a.device.c_str(), a.mode.c_str());
    o << fmt("  duration     %.3f s (%lld frames)\n", seconds, static_cast<long long>(r.frames));
    if (r.processing)
        o << fmt("  latency      %d frames (%.2f ms), compensated: output lines up with input\n", r.latency,
                 1000.0 * r.latency / r.rate);
    else
        o << "  latency      0 frames: the effect passed the audio through unprocessed\n";
    o << "  level in     peak " << dbfs(r.in.peak_dbfs) << ", RMS " << dbfs(r.in.rms_dbfs) << "\n";
    o << "  level out    peak " << dbfs(r.out.peak_dbfs) << ", RMS " << dbfs(r.out.rms_dbfs) << "\n";
    o << fmt("  clipped      %lld output samples at full scale\n", static_cast<long long>(r.clipped));
    if (r.clipped_in > 0)
        o << fmt("  clipped in   %lld input samples beyond full scale, clipped as the stream's conversion clips them\n",
                 static_cast<long long>(r.clipped_in));
    o << fmt("  processing   %.3f s in %lld calls: %.1fx real time\n", r.process_seconds,
             static_cast<long long>(r.calls), r.process_seconds > 0 ? seconds / r.process_seconds : 0.0);
    return o.str();
}

/* Why the effect left the audio alone, from its own status. */
void explain_passthrough(const RunReport &r, const RunArgs &a) {
    std::string why;
    if (r.status_check == 0)
        why = "the effect's processing is switched off for this stream";
    else if (a.bypass)
        why = "--bypass is on";
    else
        why = "the effect does not process for device " + a.device + " in " + a.mode + " mode";
    warn("THE OUTPUT IS THE INPUT UNCHANGED: " + why + ".");
}

int cmd_run(const RunArgs &a) {
    const SampleFormat format = parse_format(a.format);
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
    if (!audio_reader_open(reader, a.in, format, error)) failure(error);
    if (reader.channels > 2)
        failure(a.in + ": " + std::to_string(reader.channels) + " channels; the effect processes stereo (or mono, duplicated)");
    if (reader.channels == 1) note(a.in + " is mono: both channels of the effect get it, and the output is stereo");
    const int run_rate = rate ? rate : reader.rate;
    if (run_rate != reader.rate)
        note(fmt("%s is at %d Hz: resampled to %d Hz before the effect, as a device's mixer does (libsoxr, high "
                 "quality); the output is at %d Hz",
                 a.in.c_str(), reader.rate, run_rate, run_rate));
    else if (!effect_rate_supported(reader.rate))
        warn(a.in + " is at " + std::to_string(reader.rate) +
             " Hz: THE EFFECT DOES NOT PROCESS THIS RATE (it takes 44050 to 48050 Hz); the output will be "
             "the input unchanged. --rate 48000 resamples it first, as a device's mixer would");
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
    if (!report.processing && effect_rate_supported(run_rate)) explain_passthrough(report, a);
    say(run_report(a.in, a.out, tuning_name, a, l.lib, report));
    return 0;
}

/* ---- design ---------------------------------------------------------------------------------- */

struct DesignArgs {
    std::string tuning, plot, taps, csv;
    int rate = 48000;
};

std::string design_summary(const DesignView &v, const std::string &name, const TuningTarget *target = nullptr) {
    const bool shown = !v.target_db.empty();
    std::ostringstream o;
    o << "sorn-hp design: " << name << " at " << v.rate << " Hz (513 minimum-phase taps)\n";
    o << "  frequency   requested   achieved" << (shown ? "     target" : "") << "\n";
    for (double f : {31.25, 62.5, 125.0, 250.0, 500.0, 1000.0, 2000.0, 4000.0, 8000.0, 16000.0}) {
        size_t best = 0;
        for (size_t i = 0; i < v.freq_hz.size(); ++i)
            if (std::fabs(std::log(v.freq_hz[i] / f)) < std::fabs(std::log(v.freq_hz[best] / f))) best = i;
        o << fmt("  %6.0f Hz   %+6.2f dB   %+6.2f dB", v.freq_hz[best], v.requested_db[best], v.achieved_db[best]);
        o << (shown ? fmt("   %+6.2f dB", v.target_db[best]) : std::string()) << "\n";
    }
    o << fmt("  largest deviation from requested %.2f dB at %.0f Hz (20 Hz to %.0f Hz)\n", v.max_deviation_db,
             v.max_deviation_hz, v.deviation_limit_hz);
    if (shown)
        o << fmt("  achieved vs target (%s, level %+.2f dB): RMS %.2f dB (20 Hz to %.0f Hz)\n",
                 target->source.empty() ? "imported" : target->source.c_str(), target->level_offset_db,
                 v.target_rms_db, v.deviation_limit_hz);
    return o.str();
}

DesignView run_design(const LoadedLibrary &l, const sorn_hp_params_t &p, int rate,
                      const TuningTarget *target = nullptr) {
    DesignView v;
    std::string error;
    bool ok;
    {
        StdoutMuffle muffle(!g_opt.verbose);
        ok = design_view_run(l.lib, p, rate, v, error, target);
    }
    if (!ok) failure(error);
    return v;
}

std::string plot_title(const std::string &name, const DesignView &v, const TuningTarget *target = nullptr) {
    if (!v.target_db.empty())
        return fmt("%s at %d Hz: achieved vs target (level %+.2f dB) RMS %.2f dB, 20 to %.0f Hz", name.c_str(),
                   v.rate, target->level_offset_db, v.target_rms_db, v.deviation_limit_hz);
    return fmt("%s at %d Hz: largest deviation %.2f dB at %.0f Hz", name.c_str(), v.rate, v.max_deviation_db,
               v.max_deviation_hz);
}

int cmd_design(const DesignArgs &a) {
    if (!effect_rate_supported(a.rate))
        usage_error("--rate " + std::to_string(a.rate) + ": the effect designs only for 44050 to 48050 Hz");
    if (!a.plot.empty() && !plot_name_supported(a.plot)) usage_error(a.plot + ": a plot must be named .png or .svg");
    std::vector<std::string> outs;
    for (const std::string *o : {&a.plot, &a.taps, &a.csv})
        if (!o->empty()) outs.push_back(*o);
    std::vector<std::string> inputs;
    if (!a.tuning.empty()) inputs.push_back(a.tuning);
    check_outputs(outs, inputs);

    const std::string name = a.tuning.empty() ? "built-in example" : a.tuning;
    TuningResult t;
    if (a.tuning.empty()) t.params = builtin_params();
    else t = load_tuning_file(a.tuning);
    const sorn_hp_params_t &p = t.params;
    LoadedLibrary l;
    open_library(l);
    DesignView v = run_design(l, p, a.rate, &t.target);
    // An import chose its tables for what the taps achieve, fine steps included.
    int fine = 0;
    for (const std::string &w : v.warnings)
        if (t.target.points.empty() || w.find("finer than the 513-tap filter resolves") == std::string::npos) warn(w);
        else ++fine;
    if (fine)
        note(fmt("%d steps between close points are finer than the filter resolves; the import chose them for "
                 "what the taps achieve against the target", fine));
    std::string error;
    std::vector<std::string> written;
    if (!a.taps.empty()) {
        if (!write_taps(v, a.taps, error)) failure(error);
        written.push_back(a.taps);
    }
    if (!a.csv.empty()) {
        if (!write_response_csv(v, a.csv, error)) failure(error);
        written.push_back(a.csv);
    }
    std::string plot_message;
    if (!a.plot.empty()) {
        PlotResult pr;
        if (!plot_response(v, a.plot, plot_title(name, v, &t.target), find_gnuplot(), pr, error)) failure(error);
        if (pr.rendered)
            written.push_back(a.plot);
        else
            plot_message = pr.message;
    }
    std::string s = design_summary(v, name, &t.target);
    for (const std::string &w : written) s += "  wrote " + w + "\n";
    say(s);
    if (!plot_message.empty()) note(plot_message);
    return 0;
}

/* ---- params ---------------------------------------------------------------------------------- */

struct ParamsArgs {
    std::string file, out;
    bool decode = false;
};

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

/* ---- import-graphiceq ------------------------------------------------------------------------ */

struct ImportArgs {
    std::string file, out, group = "hp";
    bool surround = false;
};

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

    sorn_hp_params_t p{};
    group_switch(p, *group) = 1;
    for (int i = 0; i < count; ++i) {
        group_freq(p, *group)[i] = fit.freq[i];
        group_gain(p, *group)[i] = fit.gain[i];
    }
    p.ss = a.surround ? 1 : 0;
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

/* ---- import ------------------------------------------------------------------------------ */

void set_log_level();

struct ImportAnyArgs {
    std::string file, out;
    int rate = 48000;
    bool surround = false;
};

std::string base_name(const std::string &path) {
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int cmd_import_any(const ImportAnyArgs &a) {
    if (!effect_rate_supported(a.rate))
        usage_error("--rate " + std::to_string(a.rate) + ": the effect designs only for 44050 to 48050 Hz");
    check_outputs({a.out}, {a.file});
    ImportedCurve c = eq_import_parse(read_file(a.file), a.file);
    if (!c.ok) failure(c.error);
    for (const std::string &n : c.notes) note(n);

    LoadedLibrary l;
    open_library(l);
    Interpolant interp;
    Designer designer;
    std::string error;
    const std::vector<double> grid = fit_grid_hz(a.rate);
    const std::vector<double> target = eq_import_on_grid(c, grid, a.rate);
    const std::clock_t start = std::clock();
    FitResult fit;
    {
        StdoutMuffle muffle(!g_opt.verbose);
        if (!interpolant_from_library(l.lib, interp, error) || !designer_open(l.lib, a.rate, designer, error)) {
            designer_close(designer);
            failure(error);
        }
        // The library logs every design; thousands of trial designs would bury the one that
        // counts, so under -v only the chosen tables' design is logged.
        __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
        fit = eq_fit(designer, interp, grid, target);
        set_log_level();
        if (g_opt.verbose) {
            note(fmt("the library's log of the fit's %d trial designs is left out; the chosen tables' design follows",
                     fit.designs));
            int32_t taps[513];
            designer_taps(designer, fit.params, taps);
        }
        designer_close(designer);
    }
    const double seconds = double(std::clock() - start) / CLOCKS_PER_SEC;
    fit.params.ss = a.surround ? 1 : 0;
    TuningTarget kept{base_name(a.file), fit.level_offset_db, {}};
    for (size_t i = 0; i < grid.size(); ++i) kept.points.push_back({grid[i], target[i]});
    const std::string json = tuning_to_json(fit.params, &kept);
    // The block must come back unchanged from the file: a fit that could not would be a bug.
    TuningResult again = tuning_from_json(json, a.out);
    if (!again.ok || params_to_bytes(again.params) != params_to_bytes(fit.params))
        failure("the fitted tables do not survive their own tuning file: " + again.error);
    write_file(a.out, json.data(), json.size());

    std::ostringstream o;
    o << "sorn-hp import: " << a.file << " -> " << a.out << "\n";
    o << "  read          " << c.format << "\n";
    for (const std::string &r : c.read) o << "                " << r << "\n";
    o << fmt("  fitted        lc 12, hp 12, ea 8 points, judged by the library's own design at %d Hz\n"
             "                (%d designs, %.1f s of processor time)\n", a.rate, fit.designs, seconds);
    o << fmt("  level offset  %+.2f dB (the correction plays that much louder than published;\n"
             "                the effect's loudness stage follows the filter)\n", fit.level_offset_db);
    o << fmt("  achieved      vs target, 20 Hz to %.0f Hz: RMS %.2f dB, largest %.2f dB at %.0f Hz\n",
             grid.back(), fit.rms_db, fit.max_db, fit.max_hz);
    o << fmt("  error from    the -6..+7 dB window %.2f dB, detail finer than the filter resolves\n"
             "                (about %.0f Hz) %.2f dB, the tables (32 points, whole dB and Hz) %.2f dB\n"
             "                (RMS parts; their squares add up to the total's)\n",
             fit.window_db, a.rate / 513.0, fit.resolution_db, fit.table_db);
    say(o.str());
    return 0;
}

/* ---- info ---------------------------------------------------------------------------------- */

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

/* ---- demo ---------------------------------------------------------------------------------- */

int cmd_demo(const std::string &dir) {
    const std::string program = dir + "/program.wav", processed = dir + "/processed.wav",
                      plot = dir + "/response.png", tuning = dir + "/tuning.json", block = dir + "/params.bin";
    check_outputs({program, processed, plot, tuning, block}, {});
    make_dir(dir);
    const int rate = 48000;
    const sorn_hp_params_t p = builtin_params();

    LoadedLibrary l;
    open_library(l);
    AudioBuffer in = demo_program(rate), out;
    RunSettings s;
    s.params = p;
    s.progress = progress_bar("processing");
    RunReport report;
    std::string error;
    bool ok;
    {
        StdoutMuffle muffle(!g_opt.verbose);
        ok = effect_run(l.lib, in, s, out, report, error);
    }
    if (!ok) failure(error);
    if (!report.processing) failure("the effect did not process the demo: " + report.status_text);
    DesignView v = run_design(l, p, rate);

    std::string json = tuning_to_json(p);
    auto bytes = params_to_bytes(p);
    write_file(tuning, json.data(), json.size());
    write_file(block, bytes.data(), bytes.size());
    if (!audio_write(program, in, error) || !audio_write(processed, out, error)) failure(error);
    PlotResult pr;
    if (!plot_response(v, plot, plot_title("built-in example", v), find_gnuplot(), pr, error)) failure(error);

    RunArgs shown;
    std::ostringstream o;
    o << "sorn-hp demo: the built-in tuning through " << l.lib.descriptor.name << "\n\nprogram\n";
    for (const DemoSection &sec : demo_sections())
        o << fmt("  %5.1f s  %s\n", sec.start_s, sec.what.c_str());
    o << "\n" << run_report(program, processed, "built-in example (" + groups_summary(p) + ")", shown, l.lib, report);
    o << "\n" << design_summary(v, "built-in example");
    for (const std::string &w : v.warnings) o << "  warning: " << w << "\n";
    o << "\nfiles in " << dir << "\n";
    o << "  program.wav    the synthesized input\n  processed.wav  the effect's output, aligned with the input\n";
    o << (pr.rendered ? "  response.png   requested and achieved response\n"
                      : "  response.dat/.gp  plot data and script (" + pr.message + ")\n");
    o << "  tuning.json    the built-in tuning, a starting point for your own\n";
    o << "  params.bin     the same as the 292-byte parameter block a client sends\n";
    say(o.str());
    return 0;
}


/* ---- measure ------------------------------------------------------------------------------- */

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
    const SampleFormat format = parse_format(a.format);
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
    runs.push_back(measure_one(la.lib, pa, a.against.empty() ? "A" : "A", name_a, base, format, a.rate, ms));
    if (!a.against.empty())
        runs.push_back(measure_one(other_library ? lb.lib : la.lib, pb, "B", other_library ? name_a : name_b, base,
                                   format, a.rate, ms));
    if (runs.size() == 1) runs[0].name = base_name(name_a);
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

/* ---- command line ------------------------------------------------------------------------- */

/* The library logs through the same liblog as the tool (its minimum priority is process-wide):
   its lines reach standard error only with -v. */
void set_log_level() { __android_log_set_minimum_priority(g_opt.verbose ? ANDROID_LOG_DEBUG : ANDROID_LOG_SILENT); }

}  // namespace

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

    RunArgs run;
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

    std::string demo_dir = "sorn-hp-demo";
    auto *c_demo = app.add_subcommand("demo", "Synthesize a program, run it with the built-in tuning, plot, report");
    c_demo->add_option("DIR", demo_dir, "Folder for the results")->capture_default_str();
    c_demo->footer("Example:\n  sorn-hp demo out/demo\n");

    DesignArgs design;
    auto *c_design = app.add_subcommand("design", "Show the response the library designs for a tuning");
    c_design->add_option("FILE", design.tuning, "Tuning file (default: the built-in example)");
    c_design->add_option("--rate", design.rate, "Sample rate in Hz")->capture_default_str();
    c_design->add_option("--plot", design.plot, "Plot to write (.png or .svg)");
    c_design->add_option("--taps", design.taps, "The 513 Q23 taps as text");
    c_design->add_option("--csv", design.csv, "Requested and achieved response as CSV");
    c_design->footer("Example:\n  sorn-hp design my.json --rate 44100 --plot my.png --csv my.csv\n");

    ParamsArgs params;
    auto *c_params = app.add_subcommand("params", "Tuning file to 292-byte parameter block, or back with --decode");
    c_params->add_option("FILE", params.file, "Tuning file, or with --decode a parameter block")->required();
    c_params->add_option("-o,--output", params.out, "File to write: the block, or with --decode the tuning (stdout when omitted)");
    c_params->add_flag("--decode", params.decode, "Read a parameter block and write its tuning");
    c_params->footer("Example:\n  sorn-hp params my.json -o my.bin\n  sorn-hp params --decode captured.bin -o captured.json\n");

    ImportAnyArgs import_any;
    auto *c_import_any = app.add_subcommand(
        "import", "Fit a published correction (GraphicEQ, parametric list, EqualizerAPO config, CSV) into a tuning");
    c_import_any->add_option("FILE", import_any.file, "Correction file")->required();
    c_import_any->add_option("-o,--output", import_any.out, "Tuning file to write")->required();
    c_import_any->add_option("--rate", import_any.rate, "Sample rate the fit designs at")->capture_default_str();
    c_import_any->add_flag("--surround", import_any.surround, "Turn the stereo surround on");
    c_import_any->footer("Example:\n  sorn-hp import 'Sennheiser HD 650 ParametricEQ.txt' -o hd650.json\n"
                         "  sorn-hp design hd650.json --plot hd650.png\n");

    ImportArgs import;
    auto *c_import = app.add_subcommand("import-graphiceq", "Fit a \"GraphicEQ: f g; ...\" text into a tuning group");
    c_import->add_option("FILE", import.file, "GraphicEQ text file")->required();
    c_import->add_option("-o,--output", import.out, "Tuning file to write")->required();
    c_import->add_option("--group", import.group, "Group to fill: lc, hp or ea")->capture_default_str();
    c_import->add_flag("--surround", import.surround, "Turn the stereo surround on");
    c_import->footer("Example:\n  sorn-hp import-graphiceq headphone.txt -o headphone.json\n");

    MeasureArgs measure;
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

    auto *c_info = app.add_subcommand("info", "Show the library's descriptor and where it was loaded from");
    c_info->footer("Example:\n  sorn-hp info --lib /vendor/lib64/soundfx/libsorn_hp_sfx_aw.so\n");

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
        if (c_run->parsed()) return cmd_run(run);
        if (c_demo->parsed()) return cmd_demo(demo_dir);
        if (c_design->parsed()) return cmd_design(design);
        if (c_params->parsed()) return cmd_params(params);
        if (c_import->parsed()) return cmd_import(import);
        if (c_import_any->parsed()) return cmd_import_any(import_any);
        if (c_info->parsed()) return cmd_info();
        if (c_measure->parsed()) return cmd_measure(measure);
    } catch (const Exit &e) {
        std::fprintf(stderr, "sorn-hp: error: %s\n", e.message.c_str());
        return e.code;
    }
    return kUsage;
}
