#include "tools/files/tuning.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <hardware/audio_effect.h>
#include <nlohmann/json.hpp>

namespace sorn_tool {

using nlohmann::json;

const char *group_name(Group g) {
    switch (g) {
    case Group::lc: return "lc";
    case Group::hp: return "hp";
    case Group::ea: return "ea";
    }
    return "?";
}

int group_points(Group g) { return g == Group::ea ? SORN_HP_EA_POINTS : SORN_HP_LC_POINTS; }

int32_t &group_switch(sorn_hp_params_t &p, Group g) {
    return g == Group::lc ? p.lc : g == Group::hp ? p.hp : p.ea;
}
int32_t group_switch(const sorn_hp_params_t &p, Group g) {
    return g == Group::lc ? p.lc : g == Group::hp ? p.hp : p.ea;
}
uint32_t *group_freq(sorn_hp_params_t &p, Group g) {
    return g == Group::lc ? p.lc_freq : g == Group::hp ? p.hp_freq : p.ea_freq;
}
const uint32_t *group_freq(const sorn_hp_params_t &p, Group g) {
    return g == Group::lc ? p.lc_freq : g == Group::hp ? p.hp_freq : p.ea_freq;
}
int32_t *group_gain(sorn_hp_params_t &p, Group g) {
    return g == Group::lc ? p.lc_gain : g == Group::hp ? p.hp_gain : p.ea_gain;
}
const int32_t *group_gain(const sorn_hp_params_t &p, Group g) {
    return g == Group::lc ? p.lc_gain : g == Group::hp ? p.hp_gain : p.ea_gain;
}
bool group_used(const sorn_hp_params_t &p, Group g) { return group_switch(p, g) >= 1; }

double interp_log_freq(const std::vector<CurvePoint> &points, double freq_hz) {
    if (points.empty()) return 0.0;
    if (freq_hz <= points.front().freq_hz) return points.front().gain_db;
    if (freq_hz >= points.back().freq_hz) return points.back().gain_db;
    for (size_t i = 1; i < points.size(); ++i) {
        const CurvePoint &a = points[i - 1], &b = points[i];
        if (freq_hz > b.freq_hz) continue;
        // Points at 0 Hz have no logarithm: fall back to a linear scale on that segment.
        double t = a.freq_hz > 0.0
                       ? std::log(freq_hz / a.freq_hz) / std::log(b.freq_hz / a.freq_hz)
                       : (freq_hz - a.freq_hz) / (b.freq_hz - a.freq_hz);
        return a.gain_db + t * (b.gain_db - a.gain_db);
    }
    return points.back().gain_db;
}

std::vector<uint32_t> log_grid_hz(double lo, double hi, int count) {
    std::vector<uint32_t> grid;
    if (count < 1) return grid;
    const auto top = static_cast<double>(kMaxPointHz);
    lo = std::clamp(lo, 1.0, top);
    hi = std::clamp(hi, lo, top);
    for (int i = 0; i < count; ++i) {
        double t = count == 1 ? 0.0 : static_cast<double>(i) / (count - 1);
        double f = lo * std::pow(hi / lo, t);
        auto v = static_cast<int64_t>(std::llround(f));
        if (!grid.empty() && v <= static_cast<int64_t>(grid.back())) v = grid.back() + 1;
        grid.push_back(static_cast<uint32_t>(v));
    }
    // Too narrow a span near the top: pull the tail back under the limit.
    for (int i = count - 1; i >= 0; --i) {
        auto cap = static_cast<uint32_t>(kMaxPointHz - (count - 1 - i));
        if (grid[i] > cap) grid[i] = cap;
        if (i + 1 < count && grid[i] >= grid[i + 1]) grid[i] = grid[i + 1] - 1;
    }
    return grid;
}

namespace {

/* ---- reading ------------------------------------------------------------------------------ */

struct Failure {
    std::string message;
};

[[noreturn]] void fail(const std::string &field, const std::string &what) {
    throw Failure{field + ": " + what};
}

std::string describe(const json &v) {
    std::string s = v.dump();
    return s.size() > 40 ? s.substr(0, 37) + "..." : s;
}

/* A JSON number that holds a whole value; `unit` names it in messages. */
int64_t whole_number(const json &v, const std::string &field, const char *what, const char *unit) {
    if (v.is_number_integer()) {
        if (v.is_number_unsigned() && v.get<uint64_t>() > uint64_t{INT64_MAX})
            fail(field, std::string(what) + " " + describe(v) + " is out of range");
        return v.get<int64_t>();
    }
    if (v.is_number_float()) {
        double d = v.get<double>();
        if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 9.0e15)
            return static_cast<int64_t>(d);
        fail(field, std::string(what) + " " + describe(v) + " is not a whole " + unit);
    }
    fail(field, std::string(what) + " must be a number of " + unit + ", not " + describe(v));
}

/* A switch word: true/false or the raw integer the block carries. */
int32_t switch_word(const json &v, const std::string &field) {
    if (v.is_boolean()) return v.get<bool>() ? 1 : 0;
    if (v.is_number_integer()) {
        int64_t x = whole_number(v, field, "value", "number");
        if (x < INT32_MIN || x > INT32_MAX) fail(field, "value " + describe(v) + " does not fit 32 bits");
        return static_cast<int32_t>(x);
    }
    fail(field, "must be true or false, not " + describe(v));
}

struct RawPoint {
    int64_t freq;
    int64_t gain;
};

std::string point_label(const std::string &field, size_t i, const RawPoint &p) {
    return field + ": point " + std::to_string(i + 1) + " [" + std::to_string(p.freq) + ", " +
           std::to_string(p.gain) + "]";
}

std::vector<RawPoint> read_points(const json &v, const std::string &field) {
    if (!v.is_array()) fail(field, "must be a list of [frequency Hz, gain dB] pairs");
    std::vector<RawPoint> points;
    for (size_t i = 0; i < v.size(); ++i) {
        const json &e = v[i];
        std::string where = field + ": point " + std::to_string(i + 1);
        if (!e.is_array() || e.size() != 2)
            fail(where, "must be a pair [frequency Hz, gain dB], not " + describe(e));
        int64_t f = whole_number(e[0], where, "frequency", "Hz");
        int64_t g = whole_number(e[1], where, "gain", "dB");
        if (g < INT32_MIN || g > INT32_MAX) fail(where, "gain " + describe(e[1]) + " does not fit 32 bits");
        points.push_back({f, g});
    }
    return points;
}

/* Empty when the points form a curve the effect can use as it stands, else what is wrong. */
std::string curve_problem(const std::vector<RawPoint> &points, const std::string &field) {
    for (size_t i = 0; i < points.size(); ++i) {
        const RawPoint &p = points[i];
        if (p.freq < 0) return point_label(field, i, p) + ": frequency below 0 Hz";
        if (p.freq > kMaxPointHz)
            return point_label(field, i, p) + ": frequency " + std::to_string(p.freq) +
                   " Hz is above 22000 Hz";
        if (i > 0 && p.freq <= points[i - 1].freq)
            return point_label(field, i, p) + ": frequency " + std::to_string(p.freq) +
                   " Hz is not above the previous point's " + std::to_string(points[i - 1].freq) +
                   " Hz (points must be in increasing frequency order)";
    }
    return {};
}

void store_points(sorn_hp_params_t &p, Group g, const std::vector<RawPoint> &points) {
    for (size_t i = 0; i < points.size(); ++i) {
        group_freq(p, g)[i] = static_cast<uint32_t>(points[i].freq);
        group_gain(p, g)[i] = static_cast<int32_t>(points[i].gain);
    }
}

/* Resamples a valid curve to `count` points on a log-frequency grid over its own span. */
std::vector<RawPoint> resample(const std::vector<RawPoint> &points, int count) {
    std::vector<CurvePoint> curve;
    for (const RawPoint &p : points) curve.push_back({double(p.freq), double(p.gain)});
    double lo = points.size() == 1 ? 20.0 : std::max<double>(points.front().freq, 1.0);
    double hi = points.size() == 1 ? 20000.0 : double(points.back().freq);
    std::vector<RawPoint> out;
    for (uint32_t f : log_grid_hz(lo, hi, count))
        out.push_back({f, std::llround(interp_log_freq(curve, f))});
    return out;
}

void read_group(const json &v, Group g, const std::string &source, TuningResult &r) {
    const std::string name = group_name(g);
    const int count = group_points(g);
    if (!v.is_object()) fail(name, "must be an object with \"enabled\" and \"points\"");
    for (auto it = v.begin(); it != v.end(); ++it)
        if (it.key() != "enabled" && it.key() != "points")
            fail(name + "." + it.key(), "unknown key (a group has \"enabled\" and \"points\")");
    if (!v.contains("enabled")) fail(name + ".enabled", "missing (true or false)");
    int32_t sw = switch_word(v.at("enabled"), name + ".enabled");
    group_switch(r.params, g) = sw;
    const std::string field = name + ".points";
    if (!v.contains("points")) {
        if (sw >= 1) fail(field, "missing: an enabled group needs its points");
        return;  // a group that is off keeps zero tables
    }
    std::vector<RawPoint> points = read_points(v.at("points"), field);
    if (points.empty() && sw >= 1) fail(field, "empty: an enabled group needs at least one point");
    if (points.empty()) return;
    std::string problem = curve_problem(points, field);
    if (static_cast<int>(points.size()) == count && sw < 1) {
        // Stored as given: the effect never reads it while the group is off.
        for (size_t i = 0; i < points.size(); ++i)
            if (points[i].freq < 0 || points[i].freq > UINT32_MAX)
                fail(point_label(field, i, points[i]), "frequency does not fit 32 bits");
        if (!problem.empty())
            r.notes.push_back(source + ": " + problem + " (kept as it is because " + name +
                              " is off; it would be refused if enabled)");
        store_points(r.params, g, points);
        return;
    }
    if (!problem.empty()) throw Failure{problem};
    if (static_cast<int>(points.size()) != count) {
        std::vector<RawPoint> fitted = resample(points, count);
        r.notes.push_back(source + ": " + field + ": " + std::to_string(points.size()) +
                          (points.size() == 1 ? " point" : " points") + " resampled to the block's " +
                          std::to_string(count) + " on a log-frequency grid (" +
                          std::to_string(fitted.front().freq) + " to " +
                          std::to_string(fitted.back().freq) + " Hz)");
        points = fitted;
    }
    store_points(r.params, g, points);
}

/* Finds the first key given twice in one object (the JSON library would keep only the last). */
struct DuplicateKeyFinder {
    struct Frame {
        std::set<std::string> keys;
        std::string path;
    };
    std::vector<Frame> frames;
    std::string last_key;
    std::string duplicate;

    bool operator()(int, json::parse_event_t event, json &parsed) {
        switch (event) {
        case json::parse_event_t::object_start: {
            std::string path = frames.empty() ? "" : frames.back().path;
            if (!frames.empty() && !last_key.empty())
                path = path.empty() ? last_key : path + "." + last_key;
            frames.push_back({{}, path});
            break;
        }
        case json::parse_event_t::object_end:
            if (!frames.empty()) frames.pop_back();
            break;
        case json::parse_event_t::key: {
            last_key = parsed.get<std::string>();
            if (!frames.empty() && !frames.back().keys.insert(last_key).second && duplicate.empty())
                duplicate = frames.back().path.empty() ? last_key : frames.back().path + "." + last_key;
            break;
        }
        default:
            break;
        }
        return true;
    }
};

double real_number(const json &v, const std::string &field) {
    if (!v.is_number() || !std::isfinite(v.get<double>())) fail(field, "must be a number, not " + describe(v));
    return v.get<double>();
}

void read_target(const json &v, TuningTarget &t) {
    if (!v.is_object() || !v.contains("points") || !v.at("points").is_array())
        fail("target", "must be an object with \"points\" ([Hz, dB] pairs)");
    if (v.contains("source")) {
        if (!v.at("source").is_string()) fail("target.source", "must be a string");
        t.source = v.at("source").get<std::string>();
    }
    if (v.contains("level_offset_db")) t.level_offset_db = real_number(v.at("level_offset_db"), "target.level_offset_db");
    const json &pts = v.at("points");
    for (size_t i = 0; i < pts.size(); ++i) {
        std::string where = "target.points: point " + std::to_string(i + 1);
        if (!pts[i].is_array() || pts[i].size() != 2) fail(where, "must be a pair [frequency Hz, gain dB]");
        CurvePoint c{real_number(pts[i][0], where), real_number(pts[i][1], where)};
        if (c.freq_hz <= 0.0 || (!t.points.empty() && c.freq_hz <= t.points.back().freq_hz))
            fail(where, "frequencies must be above 0 Hz and increasing");
        t.points.push_back(c);
    }
}

void read_tuning(const json &doc, const std::string &source, TuningResult &r) {
    if (!doc.is_object())
        fail("(top level)", "a tuning is a JSON object with \"lc\", \"hp\", \"ea\" and \"surround\"");
    for (auto it = doc.begin(); it != doc.end(); ++it) {
        const std::string &k = it.key();
        if (k != "lc" && k != "hp" && k != "ea" && k != "surround" && k != "reserved" &&
            k != "description" && k != "target")
            fail(k, "unknown key (a tuning has \"lc\", \"hp\", \"ea\", \"surround\", \"reserved\", "
                    "\"description\" and \"target\")");
    }
    for (Group g : kGroups)
        if (doc.contains(group_name(g))) read_group(doc.at(group_name(g)), g, source, r);
    if (doc.contains("surround")) r.params.ss = switch_word(doc.at("surround"), "surround");
    if (doc.contains("description") && !doc.at("description").is_string())
        fail("description", "must be a string");
    if (doc.contains("target")) read_target(doc.at("target"), r.target);
    if (doc.contains("reserved")) {
        const json &v = doc.at("reserved");
        if (!v.is_array() || v.size() != 5) fail("reserved", "must be a list of 5 integers");
        for (size_t i = 0; i < 5; ++i) {
            int64_t x = whole_number(v[i], "reserved", "word", "number");
            if (x < INT32_MIN || x > INT32_MAX) fail("reserved", "word " + describe(v[i]) + " does not fit 32 bits");
            r.params.reserved[i] = static_cast<int32_t>(x);
        }
    }
}

/* ---- writing ------------------------------------------------------------------------------ */

std::string switch_text(int32_t v) {
    return v == 1 ? "true" : v == 0 ? "false" : std::to_string(v);
}

bool table_is_zero(const sorn_hp_params_t &p, Group g) {
    for (int i = 0; i < group_points(g); ++i)
        if (group_freq(p, g)[i] != 0 || group_gain(p, g)[i] != 0) return false;
    return true;
}

void write_group(std::ostringstream &o, const sorn_hp_params_t &p, Group g) {
    o << "  \"" << group_name(g) << "\": {\n    \"enabled\": " << switch_text(group_switch(p, g));
    if (group_switch(p, g) < 1 && table_is_zero(p, g)) {
        o << "\n  },\n";
        return;
    }
    o << ",\n    \"points\": [";
    for (int i = 0; i < group_points(g); ++i) {
        o << (i % 4 == 0 ? "\n      " : " ") << '[' << group_freq(p, g)[i] << ", "
          << group_gain(p, g)[i] << ']' << (i + 1 < group_points(g) ? "," : "");
    }
    o << "\n    ]\n  },\n";
}

void put_le32(uint8_t *out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t get_le32(const uint8_t *in) {
    return uint32_t{in[0]} | uint32_t{in[1]} << 8 | uint32_t{in[2]} << 16 | uint32_t{in[3]} << 24;
}

}  // namespace

TuningResult tuning_from_json(const std::string &text, const std::string &source) {
    TuningResult r;
    DuplicateKeyFinder dup;
    json doc;
    try {
        doc = json::parse(text, std::ref(dup), true, false);
    } catch (const json::parse_error &e) {
        // The parser counts the whitespace it read past the mistake; point at the last
        // character before it instead, where an editor shows the problem.
        size_t at = std::min<size_t>(e.byte, text.size());
        while (at > 1 && std::isspace(static_cast<unsigned char>(text[at - 1]))) --at;
        size_t line = 1, column = 0;
        for (size_t i = 0; i + 1 < at; ++i) column = text[i] == '\n' ? (++line, 0) : column + 1;
        std::string what = e.what();
        auto colon = what.find(": ", what.find("parse error"));
        r.error = source + ": not valid JSON near line " + std::to_string(line) + ", column " +
                  std::to_string(column + 1) + ": " + (colon == std::string::npos ? what : what.substr(colon + 2));
        return r;
    } catch (const json::out_of_range &e) {
        // A number too large for a double (1e999): the parser refuses it rather than make it
        // infinite.
        const std::string what = e.what();
        const auto bracket = what.find("] ");
        r.error = source + ": not valid JSON: " + (bracket == std::string::npos ? what : what.substr(bracket + 2));
        return r;
    }
    if (!dup.duplicate.empty()) {
        r.error = source + ": " + dup.duplicate + ": given twice";
        return r;
    }
    try {
        read_tuning(doc, source, r);
    } catch (const Failure &f) {
        r = TuningResult{};
        r.error = source + ": " + f.message;
        return r;
    }
    r.ok = true;
    return r;
}

TuningResult tuning_load(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        TuningResult r;
        r.error = path + ": cannot read: " + std::strerror(errno);
        return r;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return tuning_from_json(text.str(), path);
}

std::string tuning_to_json(const sorn_hp_params_t &p, const TuningTarget *target) {
    std::ostringstream o;
    o << "{\n";
    if (target && !target->points.empty()) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.2f", target->level_offset_db);
        o << "  \"target\": {\n    \"source\": " << json(target->source).dump() << ",\n    \"level_offset_db\": "
          << buf << ",\n    \"points\": [";
        for (size_t i = 0; i < target->points.size(); ++i) {
            std::snprintf(buf, sizeof buf, "[%.2f, %.2f]", target->points[i].freq_hz, target->points[i].gain_db);
            o << (i % 6 == 0 ? "\n      " : " ") << buf << (i + 1 < target->points.size() ? "," : "");
        }
        o << "\n    ]\n  },\n";
    }
    for (Group g : kGroups) write_group(o, p, g);
    bool reserved = std::any_of(std::begin(p.reserved), std::end(p.reserved), [](int32_t v) { return v != 0; });
    if (reserved) {
        o << "  \"reserved\": [";
        for (int i = 0; i < 5; ++i) o << (i ? ", " : "") << p.reserved[i];
        o << "],\n";
    }
    o << "  \"surround\": " << switch_text(p.ss) << "\n}\n";
    return o.str();
}

std::array<uint8_t, kParamsBytes> params_to_bytes(const sorn_hp_params_t &p) {
    static_assert(kParamsBytes % 4 == 0);
    uint32_t words[kParamsBytes / 4];
    std::memcpy(words, &p, kParamsBytes);
    std::array<uint8_t, kParamsBytes> out{};
    for (size_t i = 0; i < kParamsBytes / 4; ++i) put_le32(&out[4 * i], words[i]);
    return out;
}

sorn_hp_params_t params_from_bytes(const uint8_t *bytes) {
    uint32_t words[kParamsBytes / 4];
    for (size_t i = 0; i < kParamsBytes / 4; ++i) words[i] = get_le32(bytes + 4 * i);
    sorn_hp_params_t p;
    std::memcpy(&p, words, kParamsBytes);
    return p;
}

std::vector<std::string> params_findings(const sorn_hp_params_t &p) {
    std::vector<std::string> out;
    for (Group g : kGroups) {
        if (!group_used(p, g)) continue;
        const std::string name = group_name(g);
        std::vector<RawPoint> points;
        for (int i = 0; i < group_points(g); ++i) points.push_back({group_freq(p, g)[i], group_gain(p, g)[i]});
        for (size_t i = 0; i < points.size(); ++i)
            if (points[i].freq > kMaxPointHz)
                out.push_back(point_label(name, i, points[i]) +
                              ": frequency above 22000 Hz; the effect refuses the block and plays "
                              "without frequency compensation");
        std::string problem = curve_problem(points, name);
        if (!problem.empty() && problem.find("above 22000") == std::string::npos)
            out.push_back(problem + "; the effect sorts and merges such a table before designing");
    }
    return out;
}

bool params_block_read(const std::string &bytes, const std::string &source, sorn_hp_params_t &p,
                       std::vector<std::string> &notes, std::string &error) {
    const auto *b = reinterpret_cast<const uint8_t *>(bytes.data());
    if (bytes.size() == kParamsBytes) {
        p = params_from_bytes(b);
        return true;
    }
    const size_t head = sizeof(effect_param_t) + 4;
    if (bytes.size() == head + kParamsBytes) {
        effect_param_t rec{};
        int32_t id = 0;
        std::memcpy(&rec, b, sizeof rec);
        std::memcpy(&id, b + sizeof rec, 4);
        if (rec.psize == 4 && rec.vsize == kParamsBytes && id == 100) {
            notes.push_back(source + ": a SET_PARAM record; using its 292-byte value");
            p = params_from_bytes(b + head);
            return true;
        }
    }
    error = source + ": " + std::to_string(bytes.size()) + " bytes; a parameter block is " +
            std::to_string(kParamsBytes) + " bytes";
    return false;
}

std::string groups_summary(const sorn_hp_params_t &p) {
    std::string s;
    for (Group g : kGroups) s += std::string(s.empty() ? "" : ", ") + group_name(g) + (group_used(p, g) ? " on" : " off");
    return s + ", surround " + (p.ss != 0 && p.lc != 0 ? "on" : "off");
}

}  // namespace sorn_tool
