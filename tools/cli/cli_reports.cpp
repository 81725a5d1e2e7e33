#include "tools/cli/cli_reports.h"

#include <cmath>
#include <sstream>

namespace sorn_tool::cli {

namespace {

std::string dbfs(double v) { return std::isfinite(v) ? fmt("%.1f dBFS", v) : std::string("-inf dBFS"); }

}  // namespace

std::string run_report(const std::string &in, const std::string &out, const std::string &tuning_name,
                       const RunArgs &a, const EffectLibrary &lib, const RunReport &r) {
    const double seconds = double(r.frames) / r.rate;
    SampleFormat format = SampleFormat::f32;
    parse_sample_format(a.format, format);
    std::ostringstream o;
    o << "sorn-hp run: " << in << " -> " << out << "\n";
    o << fmt("  effect       %s (%s)\n", lib.descriptor.name, lib.descriptor.implementor);
    o << "  library      " << lib.resolved_path << "\n";
    o << "  tuning       " << tuning_name << "\n";
    const std::string resampled = r.source_rate ? fmt(" (resampled from %d Hz)", r.source_rate) : "";
    o << fmt("  stream       %d Hz%s, stereo, %s, %zu frames per call, %s, %s mode\n", r.rate, resampled.c_str(),
             sample_format_name(format), a.frames, a.device.c_str(), a.mode.c_str());
    o << fmt("  duration     %.3f s (%lld frames)\n", seconds, static_cast<long long>(r.frames));
    if (r.processing)
        o << fmt("  latency      %d frames (%.2f ms), compensated: output lines up with input\n", r.latency,
                 1000.0 * r.latency / r.rate);
    else
        o << "  latency      0 frames: the effect passed the audio through unprocessed\n";
    o << "  level in     peak " << dbfs(r.in.peak_dbfs) << ", RMS " << dbfs(r.in.rms_dbfs) << "\n";
    o << "  level out    peak " << dbfs(r.out.peak_dbfs) << ", RMS " << dbfs(r.out.rms_dbfs) << "\n";
    o << fmt("  clipped      %lld output samples at full scale\n", static_cast<long long>(r.clipped));
    o << fmt("  processing   %.3f s in %lld calls: %.1fx real time\n", r.process_seconds,
             static_cast<long long>(r.calls), r.process_seconds > 0 ? seconds / r.process_seconds : 0.0);
    return o.str();
}

DesignView run_design(const LoadedLibrary &l, const sorn_hp_params_t &p, int rate, const TuningTarget *target) {
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

std::string plot_title(const std::string &name, const DesignView &v, const TuningTarget *target) {
    if (!v.target_db.empty())
        return fmt("%s at %d Hz: achieved vs target (level %+.2f dB) RMS %.2f dB, 20 to %.0f Hz", name.c_str(),
                   v.rate, target->level_offset_db, v.target_rms_db, v.deviation_limit_hz);
    return fmt("%s at %d Hz: largest deviation %.2f dB at %.0f Hz", name.c_str(), v.rate, v.max_deviation_db,
               v.max_deviation_hz);
}

}  // namespace sorn_tool::cli
