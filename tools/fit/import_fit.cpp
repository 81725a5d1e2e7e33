#include "tools/fit/import_fit.h"

#include <android/log.h>

namespace sorn_tool {

namespace {

std::string base_name(const std::string &path) {
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool import_fit(const EffectLibrary &lib, const ImportedCurve &curve, const std::string &source, int rate,
                bool surround, ImportFit &result, std::string &error,
                const std::function<void(int designs)> &on_fitted) {
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
    result.fit = eq_fit(designer, interp, result.grid_hz, result.target_db);
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

}  // namespace sorn_tool
