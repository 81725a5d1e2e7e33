#include "tools/fit/eq_import.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <complex>
#include <cstdio>
#include <map>
#include <sstream>

#include "tools/fit/graphiceq.h"

namespace sorn_tool {

namespace {

std::string trim(const std::string &s) {
    size_t a = 0, b = s.size();
    while (a < b && std::isspace(static_cast<unsigned char>(s[a]))) ++a;
    while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1]))) --b;
    return s.substr(a, b - a);
}

std::string lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool number(const std::string &s, double &v) {
    const char *end = s.data() + s.size();
    auto [p, ec] = std::from_chars(s.data(), end, v);
    return ec == std::errc() && p == end && std::isfinite(v);
}

std::vector<std::string> words(const std::string &s) {
    std::istringstream in(s);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

struct Failure {
    std::string message;
};

std::string fmt_db(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%+.1f dB", v);
    return buf;
}

std::string range_text(const std::vector<CurvePoint> &pts) {
    double lo = pts.front().gain_db, hi = lo;
    for (const CurvePoint &p : pts) lo = std::min(lo, p.gain_db), hi = std::max(hi, p.gain_db);
    char buf[96];
    std::snprintf(buf, sizeof buf, "%zu points, %g to %g Hz, %+.1f to %+.1f dB", pts.size(), pts.front().freq_hz,
                  pts.back().freq_hz, lo, hi);
    return buf;
}

void check_gain(double gain_db, const std::string &where) {
    if (const std::string problem = imported_gain_problem(gain_db); !problem.empty())
        throw Failure{where + ": " + problem};
}

/* "ON PK Fc 105 Hz Gain 6.4 dB Q 0.70" after "Filter N:"; false for a disabled filter. */
bool parse_filter(const std::string &body, const std::string &where, Biquad &b, std::string &type) {
    std::vector<std::string> w = words(body);
    if (w.size() < 2) throw Failure{where + ": expected ON or OFF, a type and Fc, Gain, Q"};
    const std::string state = lower(w[0]);
    if (state != "on" && state != "off") throw Failure{where + ": expected ON or OFF, not \"" + w[0] + "\""};
    type = w[1];
    for (char &c : type) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (type == "PK" || type == "PEQ") b.kind = BiquadKind::peak;
    else if (type == "LSC" || type == "LS") b.kind = BiquadKind::low_shelf;
    else if (type == "HSC" || type == "HS") b.kind = BiquadKind::high_shelf;
    else if (state == "off") return false;  // a disabled filter of any type shapes nothing
    else throw Failure{where + ": filter type " + w[1] + " cannot be imported (PK, LSC/LS and HSC/HS can)"};
    double fc = NAN, gain = NAN, q = b.kind == BiquadKind::peak ? NAN : std::sqrt(0.5);
    for (size_t i = 2; i < w.size(); ++i) {
        const std::string key = lower(w[i]);
        if (key == "hz" || key == "db") continue;
        double *slot = key == "fc" ? &fc : key == "gain" ? &gain : key == "q" ? &q : nullptr;
        if (!slot || i + 1 >= w.size() || !number(w[i + 1], *slot))
            throw Failure{where + ": cannot read \"" + w[i] + (i + 1 < w.size() ? " " + w[i + 1] : "") +
                          "\" (expected Fc F Hz, Gain G dB, Q Q)"};
        ++i;
    }
    if (!(fc > 0.0 && fc < 22050.0)) throw Failure{where + ": Fc must be above 0 and below 22050 Hz"};
    if (std::isnan(gain)) throw Failure{where + ": Gain missing"};
    check_gain(gain, where);
    if (!(q >= 0.01 && q <= 1000.0)) throw Failure{where + ": Q missing or outside 0.01 to 1000"};
    b.fc_hz = fc, b.gain_db = gain, b.q = q;
    return state == "on";
}

/* One CSV row: frequency and gain, or false when the row is not two numbers. */
bool csv_row(const std::string &line, CurvePoint &p, size_t &columns) {
    std::string s = line;
    for (char &c : s)
        if (c == ',' || c == ';' || c == '\t') c = ' ';
    std::vector<std::string> w = words(s);
    columns = w.size();
    return w.size() == 2 && number(w[0], p.freq_hz) && number(w[1], p.gain_db);
}

void read_csv(const std::vector<std::string> &lines, const std::string &source, ImportedCurve &c) {
    std::vector<CurvePoint> pts;
    bool header = false;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string line = trim(lines[i]);
        if (line.empty() || line[0] == '#') continue;
        const std::string where = source + ": line " + std::to_string(i + 1);
        CurvePoint p{};
        size_t columns = 0;
        if (!csv_row(line, p, columns)) {
            if (pts.empty() && !header && columns >= 1) {
                header = true;  // a header such as "frequency,gain"
                continue;
            }
            throw Failure{where + ": expected two numbers, frequency in Hz and gain in dB" +
                          (columns > 2 ? " (this row has " + std::to_string(columns) + " columns)" : "")};
        }
        if (p.freq_hz <= 0.0) throw Failure{where + ": frequency must be above 0 Hz"};
        check_gain(p.gain_db, where);
        if (!pts.empty() && p.freq_hz <= pts.back().freq_hz)
            throw Failure{where + ": frequency is not above the previous row's (rows must be in increasing frequency order)"};
        pts.push_back(p);
    }
    if (pts.empty())
        throw Failure{source + ": not a correction: no \"GraphicEQ:\", \"Preamp:\" or \"Filter:\" line and no rows "
                               "of frequency and gain"};
    if (pts.size() < 2) throw Failure{source + ": a CSV correction needs at least two rows of frequency and gain"};
    c.format = "CSV";
    c.read.push_back("CSV: " + range_text(pts) + (header ? " (header line skipped)" : ""));
    c.tables.push_back(std::move(pts));
}

}  // namespace

double biquad_gain_db(const Biquad &b, double freq_hz, int rate) {
    const double A = std::pow(10.0, b.gain_db / 40.0), w0 = 2.0 * M_PI * b.fc_hz / rate;
    const double cw = std::cos(w0), alpha = std::sin(w0) / (2.0 * b.q), sa = 2.0 * std::sqrt(A) * alpha;
    double b0, b1, b2, a0, a1, a2;
    switch (b.kind) {
    case BiquadKind::peak:
        b0 = 1 + alpha * A, b1 = -2 * cw, b2 = 1 - alpha * A;
        a0 = 1 + alpha / A, a1 = -2 * cw, a2 = 1 - alpha / A;
        break;
    case BiquadKind::low_shelf:
        b0 = A * ((A + 1) - (A - 1) * cw + sa), b1 = 2 * A * ((A - 1) - (A + 1) * cw), b2 = A * ((A + 1) - (A - 1) * cw - sa);
        a0 = (A + 1) + (A - 1) * cw + sa, a1 = -2 * ((A - 1) + (A + 1) * cw), a2 = (A + 1) + (A - 1) * cw - sa;
        break;
    default:
        b0 = A * ((A + 1) + (A - 1) * cw + sa), b1 = -2 * A * ((A - 1) + (A + 1) * cw), b2 = A * ((A + 1) + (A - 1) * cw - sa);
        a0 = (A + 1) - (A - 1) * cw + sa, a1 = 2 * ((A - 1) - (A + 1) * cw), a2 = (A + 1) - (A - 1) * cw - sa;
        break;
    }
    const std::complex<double> z1 = std::polar(1.0, -2.0 * M_PI * freq_hz / rate), z2 = z1 * z1;
    return 20.0 * std::log10(std::abs((b0 + b1 * z1 + b2 * z2) / (a0 + a1 * z1 + a2 * z2)));
}

double eq_import_gain_db(const ImportedCurve &c, double freq_hz, int rate) {
    double g = c.preamp_db;
    for (const auto &t : c.tables) g += interp_log_freq(t, freq_hz);
    for (const Biquad &b : c.filters) g += biquad_gain_db(b, freq_hz, rate);
    return g;
}

std::vector<double> eq_import_on_grid(const ImportedCurve &c, const std::vector<double> &freq_hz, int rate) {
    std::vector<double> out;
    for (double f : freq_hz) out.push_back(eq_import_gain_db(c, f, rate));
    return out;
}

ImportedCurve eq_import_parse(const std::string &text_in, const std::string &source) {
    ImportedCurve c;
    std::string text = text_in;
    if (text.rfind("\xEF\xBB\xBF", 0) == 0) text.erase(0, 3);
    std::vector<std::string> lines;
    {
        std::istringstream in(text);
        for (std::string l; std::getline(in, l);) lines.push_back(l);
    }
    try {
        // A file with no "Key:" line is a CSV.
        bool keyed = std::any_of(lines.begin(), lines.end(), [](const std::string &l) {
            std::string t = trim(l);
            size_t colon = t.find(':');
            return !t.empty() && t[0] != '#' && colon != std::string::npos && colon > 0 &&
                   std::isalpha(static_cast<unsigned char>(t[0]));
        });
        if (!keyed) {
            read_csv(lines, source, c);
            c.ok = true;
            return c;
        }
        // A GraphicEQ text alone may spread its points over several lines.
        if (lower(trim(text)).rfind("graphiceq:", 0) == 0 && std::count(text.begin(), text.end(), ':') == 1) {
            GraphicEqParse g = graphiceq_parse(text, source);
            if (!g.ok) throw Failure{g.error};
            c.notes = g.notes;
            c.format = "GraphicEQ line";
            c.read.push_back("GraphicEQ line: " + range_text(g.points));
            c.tables.push_back(std::move(g.points));
            c.ok = true;
            return c;
        }
        int graphic = 0, preamps = 0, on = 0, off = 0, other = 0;
        std::map<std::string, int> types;
        for (size_t i = 0; i < lines.size(); ++i) {
            const std::string line = trim(lines[i]);
            if (line.empty() || line[0] == '#') continue;
            const std::string where = source + ": line " + std::to_string(i + 1);
            const size_t colon = line.find(':');
            if (colon == std::string::npos)
                throw Failure{where + ": expected \"GraphicEQ:\", \"Preamp:\" or \"Filter:\" and its values"};
            const std::string key = lower(trim(line.substr(0, colon)));
            const std::string body = trim(line.substr(colon + 1));
            if (key == "graphiceq") {
                GraphicEqParse g = graphiceq_parse(line, where);
                if (!g.ok) throw Failure{g.error};
                for (const std::string &n : g.notes) c.notes.push_back(n);
                c.read.push_back("GraphicEQ line: " + range_text(g.points));
                c.tables.push_back(std::move(g.points));
                ++graphic;
            } else if (key == "preamp") {
                std::vector<std::string> w = words(body);
                double v = 0.0;
                if (w.empty() || w.size() > 2 || !number(w[0], v) || (w.size() == 2 && lower(w[1]) != "db"))
                    throw Failure{where + ": expected \"Preamp: X dB\""};
                check_gain(v, where);
                c.preamp_db += v;
                check_gain(c.preamp_db, where + " (the preamp lines added up)");
                ++preamps;
            } else if (key.rfind("filter", 0) == 0) {
                Biquad b{};
                std::string type;
                if (parse_filter(body, where, b, type)) {
                    c.filters.push_back(b);
                    ++types[type];
                    ++on;
                } else {
                    ++off;
                }
            } else {
                c.notes.push_back(where + ": \"" + trim(line.substr(0, colon)) +
                                  ":\" does not shape the response; ignored");
                ++other;
            }
        }
        if (graphic == 0 && on == 0 && off == 0)
            throw Failure{source + ": no GraphicEQ line and no filter: nothing to import"};
        if (preamps) c.read.push_back("Preamp: " + fmt_db(c.preamp_db) + (preamps > 1 ? " (lines added)" : ""));
        if (on || off) {
            std::string s = std::to_string(on) + (on == 1 ? " filter on" : " filters on");
            std::string sep = ": ";
            for (const auto &[type, n] : types) s += sep + std::to_string(n) + " " + type, sep = ", ";
            if (off) s += "; " + std::to_string(off) + " off, left out";
            c.read.push_back(s);
        }
        c.format = other || (graphic && (on || off || preamps)) || graphic > 1 ? "EqualizerAPO configuration"
                   : graphic                                       ? "GraphicEQ line"
                                                                   : "parametric list";
    } catch (const Failure &f) {
        ImportedCurve bad;
        bad.error = f.message;
        return bad;
    }
    c.ok = true;
    return c;
}

}  // namespace sorn_tool
