#include "tools/studio/studio.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tools/files/audio_file.h"
#include "tools/fit/graphiceq.h"
#include "tools/studio/studio_assets.h"
#include "tools/studio/studio_jobs.h"

namespace sorn_tool {

using nlohmann::json;

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }

bool same_text(const std::string &a, const std::string &b, bool any_case) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (any_case ? lower(a[i]) != lower(b[i]) : a[i] != b[i]) return false;
    return true;
}

/* How many times a header (name in any case) is given. */
int field_count(const Fields &fields, const std::string &name) {
    int n = 0;
    for (const auto &f : fields) n += same_text(f.first, name, true);
    return n;
}

/* One of the names this studio answers to on loopback, with its port. */
bool own_host(const std::string &host, int port) {
    const std::string p = ":" + std::to_string(port);
    for (const char *name : {"127.0.0.1", "localhost", "[::1]"})
        if (same_text(host, name + p, true)) return true;
    return false;
}

HttpResponse json_response(const json &body, int status = 200) {
    HttpResponse r;
    r.status = status;
    r.body = body.dump(-1, ' ', false, json::error_handler_t::replace);
    return r;
}

/* ---- the design of the current tuning --------------------------------------------------- */

json numbers(const std::vector<double> &v) {
    json a = json::array();
    for (double x : v) a.push_back(std::isfinite(x) ? json(std::round(x * 1000.0) / 1000.0) : json(nullptr));
    return a;
}

/* The curves a tuning's design shows; false with `error` when the library cannot design. */
bool design_curves(Studio &s, const sorn_hp_params_t &p, const TuningTarget &target, json &curve,
                   std::string &summary, std::string &error) {
    DesignView v;
    if (!design_view_run(s.lib, p, kStudioRate, v, error, &target)) return false;
    curve = json::object();
    curve["freq"] = numbers(v.freq_hz);
    curve["achieved"] = numbers(v.achieved_db);
    curve["requested"] = numbers(v.requested_db);
    json groups = json::object();
    for (Group g : kGroups) {
        const auto &c = v.group_db[static_cast<int>(g)];
        groups[group_name(g)] = c.empty() ? json(nullptr) : numbers(c);
    }
    curve["groups"] = groups;
    if (v.target_db.empty()) {
        curve["target"] = nullptr;
        curve["error"] = nullptr;
    } else {
        std::vector<double> err(v.freq_hz.size());
        for (size_t i = 0; i < err.size(); ++i) err[i] = v.achieved_db[i] - v.target_db[i];
        curve["target"] = numbers(v.target_db);
        curve["error"] = numbers(err);
    }
    curve["max_deviation_db"] = v.max_deviation_db;
    curve["max_deviation_hz"] = v.max_deviation_hz;
    curve["target_rms_db"] = v.target_db.empty() ? json(nullptr) : json(v.target_rms_db);
    int fine_steps = 0;
    curve["warnings"] = design_warnings_shown(v, target, fine_steps);
    curve["fine_steps"] = fine_steps;
    summary = design_summary(v, "the studio's tuning", &target);
    return true;
}

json limits_json() {
    json points = json::object();
    for (Group g : kGroups) points[group_name(g)] = group_points(g);
    json devices = json::array();
    const std::string names = device_names();
    for (size_t at = 0; at < names.size();) {
        const size_t comma = std::min(names.find(", ", at), names.size());
        devices.push_back(names.substr(at, comma - at));
        at = comma + 2;
    }
    return {{"freq_min", kEditMinHz},
            {"freq_max", std::min<double>(kMaxPointHz, kStudioRate / 2.0)},
            {"gain_min", -kMaxImportedGainDb},
            {"gain_max", kMaxImportedGainDb},
            {"points", points},
            {"correction_bytes", kCorrectionLimit},
            {"audio_bytes", kAudioLimit},
            {"devices", devices},
            {"formats", {"float", "16", "32"}}};
}

/* What an edit may not do beyond what any tuning file may not: more points than a table holds,
   enabled points outside 10 Hz .. Nyquist, gains beyond what the design takes, an endless
   target. Empty when the edit is within them. */
std::string edit_problem(const json &doc, const TuningResult &t) {
    for (Group g : kGroups) {
        const char *name = group_name(g);
        if (!doc.contains(name) || !doc.at(name).contains("points")) continue;
        const size_t given = doc.at(name).at("points").size();
        if (given > size_t(group_points(g)))
            return std::string(name) + ".points: " + std::to_string(given) + " points; the table holds " +
                   std::to_string(group_points(g));
    }
    const double top = std::min<double>(kMaxPointHz, kStudioRate / 2.0);
    for (Group g : kGroups) {
        if (!group_used(t.params, g)) continue;
        for (int i = 0; i < group_points(g); ++i) {
            const double f = group_freq(t.params, g)[i];
            const double gain = group_gain(t.params, g)[i];
            const std::string where = std::string(group_name(g)) + ": point " + std::to_string(i + 1) + " [" +
                                      std::to_string(group_freq(t.params, g)[i]) + ", " +
                                      std::to_string(group_gain(t.params, g)[i]) + "]";
            if (f < kEditMinHz || f > top)
                return where + ": frequency outside 10 Hz to " + std::to_string(int(top)) + " Hz";
            const std::string bad = imported_gain_problem(gain);
            if (!bad.empty()) return where + ": " + bad;
        }
    }
    if (t.target.points.size() > kMaxTargetPoints)
        return "target.points: " + std::to_string(t.target.points.size()) + " points; at most " +
               std::to_string(kMaxTargetPoints);
    for (const CurvePoint &c : t.target.points) {
        const std::string bad = imported_gain_problem(c.gain_db);
        if (!bad.empty()) return "target.points: " + bad;
    }
    return {};
}

json state_json(const Studio &s) {
    return {{"revision", s.revision}, {"rate", kStudioRate}, {"tuning", s.tuning}, {"limits", s.limits},
            {"curve", s.curve},       {"summary", s.summary}, {"notes", s.notes}};
}

/* Checks, designs and takes a tuning; a refusal leaves the studio as it was. */
HttpResponse put_tuning(Studio &s, const std::string &text) {
    if (text.size() > kStudioJsonLimit) return studio_error(413, "the tuning is larger than 1 MiB");
    TuningResult t = tuning_from_json(text, "tuning");
    if (!t.ok) return studio_error(400, t.error);
    const json doc = json::parse(text, nullptr, false);
    const std::string problem = edit_problem(doc, t);
    if (!problem.empty()) return studio_error(400, "tuning: " + problem);
    json curve;
    std::string summary, error;
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!design_curves(s, t.params, t.target, curve, summary, error)) return studio_error(500, error);
    s.params = t.params;
    s.target = t.target;
    s.tuning = doc;
    s.notes = t.notes;
    s.curve = std::move(curve);
    s.summary = std::move(summary);
    ++s.revision;
    return json_response(state_json(s));
}

/* ---- audio entries -------------------------------------------------------------------------- */

}  // namespace

void studio_scan_audio(Studio &s) {
    for (auto it = s.audio.begin(); it != s.audio.end();)
        it = it->second.uploaded ? std::next(it) : s.audio.erase(it);
    if (s.audio_dir.empty()) return;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(s.audio_dir, ec)) {
        std::error_code type_ec;
        if (!e.is_regular_file(type_ec)) continue;
        const std::string name = e.path().filename().string();
        if (!name.empty() && name[0] != '.') s.audio[name] = AudioEntry{e.path().string(), false};
    }
}

namespace {

HttpResponse list_audio(Studio &s) {
    std::lock_guard<std::mutex> lock(s.mutex);
    studio_scan_audio(s);
    json entries = json::array();
    for (const auto &[name, e] : s.audio) {
        AudioReader reader;
        std::string error;
        json item = {{"entry", name}, {"uploaded", e.uploaded}};
        if (audio_reader_open(reader, e.path, SampleFormat::f32, error)) {
            item["frames"] = reader.frames;
            item["rate"] = reader.rate;
            item["channels"] = reader.channels;
            item["seconds"] = reader.rate ? double(reader.frames) / reader.rate : 0.0;
        } else {
            item["error"] = error.substr(e.path.size() + 2);
        }
        entries.push_back(item);
    }
    return json_response({{"entries", entries}});
}

/* Takes an upload: the file the server streamed it to, or the body, into the private folder. */
HttpResponse post_audio(Studio &s, const HttpRequest &r) {
    uint64_t id;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        id = s.next_id++;
    }
    const std::string path = s.private_dir + "/upload-" + std::to_string(id);
    std::error_code ec;
    if (!r.body_file.empty()) {
        const auto size = std::filesystem::file_size(r.body_file, ec);
        if (ec || size > kAudioLimit) {
            std::filesystem::remove(r.body_file, ec);
            return studio_error(413, "the audio file is larger than the studio's limit of 512 MiB");
        }
        std::filesystem::rename(r.body_file, path, ec);
        if (ec) {
            std::filesystem::remove(r.body_file, ec);
            return studio_error(500, "cannot keep the upload: " + ec.message());
        }
    } else {
        if (r.body.size() > kAudioLimit)
            return studio_error(413, "the audio file is larger than the studio's limit of 512 MiB");
        std::ofstream out(path, std::ios::binary);
        out.write(r.body.data(), static_cast<std::streamsize>(r.body.size()));
        out.close();
        if (!out) {
            std::filesystem::remove(path, ec);
            return studio_error(500, "cannot keep the upload");
        }
    }
    AudioReader reader;
    std::string error;
    if (!audio_reader_open(reader, path, SampleFormat::f32, error)) {
        std::filesystem::remove(path, ec);
        return studio_error(400, "not an audio file the studio reads: " + error.substr(path.size() + 2));
    }
    const std::string name = "upload " + std::to_string(id) + ": " + studio_shown_name(field_value(r.query, "name", false), "audio");
    std::lock_guard<std::mutex> lock(s.mutex);
    s.audio[name] = AudioEntry{path, true};
    return json_response({{"entry", name}});
}

HttpResponse export_file(const std::string &body, const char *type, const char *name) {
    HttpResponse r;
    r.content_type = type;
    r.body = body;
    r.headers.push_back({"Content-Disposition", std::string("attachment; filename=\"") + name + "\""});
    return r;
}

HttpResponse route(Studio &s, const HttpRequest &r) {
    const std::string &m = r.method, &p = r.path;
    const bool get = m == "GET" || m == "HEAD";
    if (const StudioAsset *a = studio_asset(p)) {
        if (!get) return studio_error(405, p + " is only read");
        HttpResponse out;
        out.content_type = a->content_type;
        out.body.assign(reinterpret_cast<const char *>(a->data), a->size);
        return out;
    }
    if (p == "/api/state") {
        if (!get) return studio_error(405, "/api/state is only read; change the tuning with PUT /api/tuning");
        std::lock_guard<std::mutex> lock(s.mutex);
        return json_response(state_json(s));
    }
    if (p == "/api/tuning") {
        if (m != "PUT") return studio_error(405, "/api/tuning takes PUT with a tuning");
        return put_tuning(s, r.body);
    }
    if (p == "/api/export/params.bin" || p == "/api/export/tuning.json") {
        if (!get) return studio_error(405, p + " is only read");
        std::lock_guard<std::mutex> lock(s.mutex);
        if (p == "/api/export/tuning.json")
            return export_file(s.tuning.dump(2) + "\n", "application/json", "tuning.json");
        const auto bytes = params_to_bytes(s.params);
        return export_file(std::string(bytes.begin(), bytes.end()), "application/octet-stream", "params.bin");
    }
    if (p == "/api/audio") {
        if (get) return list_audio(s);
        if (m == "POST") return post_audio(s, r);
        return studio_error(405, "/api/audio takes GET or POST");
    }
    if (p == "/api/import") {
        if (m != "POST") return studio_error(405, "/api/import takes POST with a correction file");
        return start_import(s, r);
    }
    if (p == "/api/render") {
        if (m != "POST") return studio_error(405, "/api/render takes POST");
        return start_render(s, r);
    }
    const std::string jobs = "/api/jobs/";
    if (p.compare(0, jobs.size(), jobs) == 0) {
        const std::string id = p.substr(jobs.size());
        if (get) return job_status(s, id);
        if (m == "DELETE") return job_cancel(s, id);
        return studio_error(405, "a job is read with GET and cancelled with DELETE");
    }
    const std::string renders = "/api/renders/";
    if (p.compare(0, renders.size(), renders) == 0) {
        if (!get) return studio_error(405, "a rendering is only read");
        return render_file(s, p.substr(renders.size()));
    }
    return studio_error(404, "nothing at " + p.substr(0, 200));
}

}  // namespace

std::string studio_shown_name(const std::string &given, const char *fallback) {
    const auto slash = given.find_last_of("/\\");
    std::string clean;
    for (char c : given.substr(slash == std::string::npos ? 0 : slash + 1))
        if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f && clean.size() < 80) clean += c;
    // Names go into JSON, which takes only valid UTF-8: anything else keeps its ASCII alone.
    try {
        (void)json(clean).dump();
    } catch (const json::type_error &) {
        clean.erase(std::remove_if(clean.begin(), clean.end(), [](char c) { return c & 0x80; }), clean.end());
    }
    return clean.empty() ? fallback : clean;
}

std::string field_value(const Fields &fields, const std::string &name, bool any_case) {
    for (const auto &f : fields)
        if (same_text(f.first, name, any_case)) return f.second;
    return {};
}

HttpResponse studio_error(int status, const std::string &message) {
    return json_response({{"error", message}}, status);
}

bool studio_request_allowed(const Studio &s, const HttpRequest &r, HttpResponse &refusal) {
    if (field_count(r.headers, "Host") != 1 || !own_host(field_value(r.headers, "Host", true), s.port)) {
        refusal = studio_error(403, "refused: the Host header does not name this studio (127.0.0.1:" +
                                        std::to_string(s.port) + ")");
        return false;
    }
    if (r.method == "GET" || r.method == "HEAD") return true;
    const std::string origin = field_value(r.headers, "Origin", true);
    const std::string scheme = "http://";
    if (field_count(r.headers, "Origin") != 1 || origin.compare(0, scheme.size(), scheme) != 0 ||
        !own_host(origin.substr(scheme.size()), s.port)) {
        refusal = studio_error(403, "refused: a change must come from the studio's own page (Origin http://127.0.0.1:" +
                                        std::to_string(s.port) + ")");
        return false;
    }
    return true;
}

HttpResponse studio_handle(Studio &s, const HttpRequest &r) {
    HttpResponse out;
    if (!studio_request_allowed(s, r, out)) {
        if (!r.body_file.empty()) std::remove(r.body_file.c_str());
        return out;
    }
    out = route(s, r);
    out.headers.push_back({"Cache-Control", "no-store"});
    out.headers.push_back({"X-Content-Type-Options", "nosniff"});
    if (r.method == "HEAD") out.body.clear();
    return out;
}

namespace {

bool make_private_dir(Studio &s, std::string &error) {
    const char *tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/sorn-hp-studio-XXXXXX";
    if (!mkdtemp(tmpl.data())) {
        error = "cannot make a private temporary folder in " + tmpl.substr(0, tmpl.rfind('/')) + ": " +
                std::strerror(errno);
        return false;
    }
    s.private_dir = tmpl;  // mkdtemp makes it mode 0700
    return true;
}

bool open_common(Studio &s, const std::string &lib_path, int port, const std::string &audio_dir,
                 std::string &error) {
    s.port = port;
    s.audio_dir = audio_dir;
    s.limits = limits_json();
    if (!audio_dir.empty()) {
        struct stat st{};
        if (stat(audio_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            error = audio_dir + ": not a folder (--audio names a folder of audio files)";
            return false;
        }
    }
    if (!effect_library_open(lib_path, s.lib, error)) return false;
    if (!make_private_dir(s, error)) {
        effect_library_close(s.lib);
        return false;
    }
    return true;
}

bool take_start(Studio &s, const sorn_hp_params_t &p, const TuningTarget &target, std::string &error) {
    std::string summary;
    if (!design_curves(s, p, target, s.curve, summary, error)) {
        studio_close(s);
        return false;
    }
    s.params = p;
    s.target = target;
    s.tuning = json::parse(tuning_to_json(p, &target));
    s.summary = summary;
    s.revision = 1;
    return true;
}

}  // namespace

bool studio_open(Studio &s, const std::string &lib_path, const TuningResult &start, int port,
                 const std::string &audio_dir, std::string &error) {
    if (!open_common(s, lib_path, port, audio_dir, error)) return false;
    s.notes = start.notes;
    return take_start(s, start.params, start.target, error);
}

void studio_close(Studio &s) {
    studio_jobs_stop(s);
    if (!s.private_dir.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(s.private_dir, ec);
        s.private_dir.clear();
    }
    effect_library_close(s.lib);
}

}  // namespace sorn_tool
