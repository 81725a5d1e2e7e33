#include "tools/fit/import_fit.h"

#include <android/log.h>

#include <sstream>

#include "tools/files/text_format.h"

namespace sorn_tool {

namespace {

std::string base_name(const std::string &path) {
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool import_fit(const EffectLibrary &lib, const ImportedCurve &curve, const std::string &source, int rate,
                bool surround, ImportFit &result, std::string &error,
                const std::function<void(int designs)> &on_fitted, const FitProgress &progress) {
    result = ImportFit{};
    Interpolant interp;
    Designer designer;
    if (!interpolant_from_library(lib, interp, error) || !designer_open(lib, rate, designer, error)) {
        designer_close(designer);
        return false;
    }
    result.grid_hz = fit_grid_hz(rate);
    result.target_db = eq_import_on_grid(curve, result.grid_hz, rate);
    const int log_priority = __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    result.fit = eq_fit(designer, interp, result.grid_hz, result.target_db, progress);
    __android_log_set_minimum_priority(log_priority);
    if (on_fitted) {
        on_fitted(result.fit.designs);
        int32_t taps[513];
        designer_taps(designer, result.fit.params, taps);
    }
    designer_close(designer);

    result.fit.params.ss = surround ? 1 : 0;
    result.target = TuningTarget{base_name(source), result.fit.level_offset_db, {}};
    for (size_t i = 0; i < result.grid_hz.size(); ++i)
        result.target.points.push_back({result.grid_hz[i], result.target_db[i]});
    result.tuning_json = tuning_to_json(result.fit.params, &result.target);
    // The block must come back unchanged from the file: a fit that could not would be a bug.
    TuningResult again = tuning_from_json(result.tuning_json, base_name(source));
    if (!again.ok || params_to_bytes(again.params) != params_to_bytes(result.fit.params)) {
        error = "the fitted tables do not survive their own tuning file: " + again.error;
        return false;
    }
    return true;
}

std::string import_report(const ImportedCurve &c, const ImportFit &r, const std::string &file, const std::string &out,
                          int rate, double seconds) {
    const FitResult &fit = r.fit;
    std::ostringstream o;
    o << "sorn-hp import: " << file << " -> " << out << "\n";
    o << "  read          " << c.format << "\n";
    for (const std::string &line : c.read) o << "                " << line << "\n";
    o << fmt("  fitted        lc 12, hp 12, ea 8 points, judged by the library's own design at %d Hz\n"
             "                (%d designs, %.1f s of processor time)\n", rate, fit.designs, seconds);
    o << fmt("  level offset  %+.2f dB (the correction plays that much louder than published;\n"
             "                the effect's loudness stage follows the filter)\n", fit.level_offset_db);
    o << fmt("  achieved      vs target, 20 Hz to %.0f Hz: RMS %.2f dB, largest %.2f dB at %.0f Hz\n",
             r.grid_hz.back(), fit.rms_db, fit.max_db, fit.max_hz);
    o << fmt("  error from    the -6..+7 dB window %.2f dB, detail finer than the filter resolves\n"
             "                (about %.0f Hz) %.2f dB, the tables (32 points, whole dB and Hz) %.2f dB\n"
             "                (RMS parts; their squares add up to the total's)\n",
             fit.window_db, rate / 513.0, fit.resolution_db, fit.table_db);
    return o.str();
}

}  // namespace sorn_tool
