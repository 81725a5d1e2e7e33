#include "tools/fit/graphiceq.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace sorn_tool {

namespace {

constexpr double kMinDb = -6.0; /* the effect limits its summed curve to these */
constexpr double kMaxDb = 7.0;

std::string trim(const std::string &s) {
    size_t a = 0, b = s.size();
    while (a < b && std::isspace(static_cast<unsigned char>(s[a]))) ++a;
    while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1]))) --b;
    return s.substr(a, b - a);
}

bool parse_double(const std::string &s, double &v) {
    const char *end = s.data() + s.size();
    auto [p, ec] = std::from_chars(s.data(), end, v);
    return ec == std::errc() && p == end && std::isfinite(v);
}

/* Mean squared and worst departure of the drawn curve from `target` at the target's frequencies. */
struct Departure {
    double mean_sq = 0.0, max_abs = 0.0, max_hz = 0.0;
};

Departure departure(const std::vector<uint32_t> &freq, const std::vector<int32_t> &gain,
                    const std::vector<CurvePoint> &target, const std::vector<double> &query,
                    const Interpolant &interp) {
    std::vector<double> drawn = effect_group_curve(freq.data(), gain.data(), static_cast<int>(freq.size()),
                                                   query, interp);
    Departure d;
    for (size_t i = 0; i < target.size(); ++i) {
        double e = drawn[i] - target[i].gain_db;
        d.mean_sq += e * e;
        if (std::fabs(e) > d.max_abs) d.max_abs = std::fabs(e), d.max_hz = target[i].freq_hz;
    }
    if (!target.empty()) d.mean_sq /= double(target.size());
    return d;
}

}  // namespace

std::string imported_gain_problem(double gain_db) {
    if (!std::isfinite(gain_db)) return "gain is not a finite number";
    if (std::fabs(gain_db) <= kMaxImportedGainDb) return {};
    char buf[64];
    std::snprintf(buf, sizeof buf, "gain %g dB is beyond +-%g dB", gain_db, kMaxImportedGainDb);
    return buf;
}

GraphicEqParse graphiceq_parse(const std::string &text, const std::string &source) {
    GraphicEqParse r;
    std::string body = text;
    if (body.rfind("\xEF\xBB\xBF", 0) == 0) body.erase(0, 3);
    body = trim(body);
    static const std::string kPrefix = "graphiceq:";
    std::string head = body.substr(0, kPrefix.size());
    std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
    if (head != kPrefix) {
        r.error = source + ": not a GraphicEQ text: it must start with \"GraphicEQ:\"";
        return r;
    }
    body.erase(0, kPrefix.size());
    size_t item = 0, dropped = 0;
    size_t start = 0;
    while (start <= body.size()) {
        size_t semi = body.find(';', start);
        std::string part = trim(body.substr(start, semi == std::string::npos ? std::string::npos : semi - start));
        start = semi == std::string::npos ? body.size() + 1 : semi + 1;
        if (part.empty()) {
            if (semi == std::string::npos) break;  // a trailing ';'
            continue;
        }
        ++item;
        std::string where = source + ": item " + std::to_string(item) + " \"" +
                            (part.size() > 30 ? part.substr(0, 27) + "..." : part) + "\"";
        size_t gap = part.find_first_of(" \t\r\n");
        double f = 0, g = 0;
        if (gap == std::string::npos || !parse_double(part.substr(0, gap), f) ||
            !parse_double(trim(part.substr(gap)), g)) {
            r.error = where + ": expected a frequency in Hz and a gain in dB";
            return r;
        }
        if (f <= 0.0) {
            r.error = where + ": frequency must be above 0 Hz";
            return r;
        }
        if (const std::string problem = imported_gain_problem(g); !problem.empty()) {
            r.error = where + ": " + problem;
            return r;
        }
        if (!r.points.empty() && f <= r.points.back().freq_hz) {
            r.error = where + ": frequency is not above the previous item's (items must be in increasing frequency order)";
            return r;
        }
        if (f >= double(kMaxPointHz)) {
            ++dropped;
            continue;
        }
        r.points.push_back({f, g});
    }
    if (dropped)
        r.notes.push_back(source + ": " + std::to_string(dropped) +
                          " points at or above 22000 Hz dropped (the effect's tables end there)");
    if (r.points.empty()) {
        r.error = source + ": no points below 22000 Hz";
        return r;
    }
    r.ok = true;
    return r;
}

GroupFit graphiceq_fit(const std::vector<CurvePoint> &input, int count, const Interpolant &interp) {
    GroupFit fit;
    if (input.empty() || count < 1) return fit;
    std::vector<CurvePoint> limited = input;
    for (CurvePoint &p : limited) {
        if (p.gain_db < kMinDb || p.gain_db > kMaxDb) ++fit.limited_points;
        p.gain_db = std::clamp(p.gain_db, kMinDb, kMaxDb);
    }
    double lo = input.size() == 1 ? 20.0 : input.front().freq_hz;
    double hi = input.size() == 1 ? 20000.0 : input.back().freq_hz;
    fit.freq = log_grid_hz(lo, hi, count);
    for (uint32_t f : fit.freq)
        fit.gain.push_back(static_cast<int32_t>(std::lround(interp_log_freq(limited, f))));

    std::vector<double> query;
    for (const CurvePoint &p : input) query.push_back(p.freq_hz);
    double best = departure(fit.freq, fit.gain, limited, query, interp).mean_sq;
    for (int pass = 0; pass < 16; ++pass) {
        bool moved = false;
        for (size_t i = 0; i < fit.gain.size(); ++i) {
            for (int step : {-1, 1}) {
                int32_t old = fit.gain[i];
                int32_t next = old + step;
                if (next < kMinDb || next > kMaxDb) continue;
                fit.gain[i] = next;
                double cost = departure(fit.freq, fit.gain, limited, query, interp).mean_sq;
                if (cost + 1e-12 < best) {
                    best = cost;
                    moved = true;
                } else {
                    fit.gain[i] = old;
                }
            }
        }
        if (!moved) break;
    }
    Departure d = departure(fit.freq, fit.gain, input, query, interp);
    fit.max_departure_db = d.max_abs;
    fit.max_departure_hz = d.max_hz;
    fit.rms_departure_db = std::sqrt(d.mean_sq);
    return fit;
}

sorn_hp_params_t graphiceq_group_block(const GroupFit &fit, Group group, bool surround) {
    sorn_hp_params_t p{};
    group_switch(p, group) = 1;
    for (size_t i = 0; i < fit.freq.size() && i < static_cast<size_t>(group_points(group)); ++i) {
        group_freq(p, group)[i] = fit.freq[i];
        group_gain(p, group)[i] = fit.gain[i];
    }
    p.ss = surround ? 1 : 0;
    return p;
}

}  // namespace sorn_tool
