#include "tools/studio/studio_jobs.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>

#include "tools/fit/eq_import.h"
#include "tools/fit/import_fit.h"
#include "tools/host/file_run.h"

namespace sorn_tool {

using nlohmann::json;

namespace {

constexpr int kMaxRunningJobs = 4;

HttpResponse json_ok(const json &body) {
    HttpResponse r;
    r.body = body.dump(-1, ' ', false, json::error_handler_t::replace);
    return r;
}

/* A new job in the studio's list, or null when too many are running. Call under s.mutex. */
std::shared_ptr<StudioJob> new_job(Studio &s, const std::string &kind) {
    int running = 0;
    for (const auto &[id, j] : s.jobs) {
        std::lock_guard<std::mutex> lock(j->mutex);
        running += j->state == "running";
    }
    if (running >= kMaxRunningJobs) return nullptr;
    auto job = std::make_shared<StudioJob>();
    job->id = std::to_string(s.next_id++);
    job->kind = kind;
    s.jobs[job->id] = job;
    return job;
}

/* Runs `work` on the job's thread; it returns the result or throws with the reason. */
template <typename Work>
void launch(const std::shared_ptr<StudioJob> &job, Work work) {
    job->thread = std::thread([job, work]() mutable {
        json result;
        std::string error;
        bool ok = false;
        try {
            ok = work(*job, result, error);
        } catch (const std::exception &e) {
            error = e.what();
        }
        std::lock_guard<std::mutex> lock(job->mutex);
        if (job->cancel.load()) {
            job->state = "cancelled";
        } else if (ok) {
            job->state = "done";
            job->progress = 1.0;
            job->result = std::move(result);
        } else {
            job->state = "failed";
            job->error = error;
        }
    });
}

std::shared_ptr<StudioJob> find_job(Studio &s, const std::string &id) {
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.jobs.find(id);
    return it == s.jobs.end() ? nullptr : it->second;
}

/* Processor time of the calling thread: what a fit cost, whatever else the studio does. */
double thread_seconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

std::string one_line(std::string text) {
    for (char &c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

/* Lists a finished rendering and removes the oldest beyond kKeptRenders. */
void keep_render(Studio &s, const std::string &rid) {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.renders.push_back(rid);
    while (s.renders.size() > kKeptRenders) {
        for (const char *which : {"processed.wav", "original.wav"})
            std::remove((s.private_dir + "/render-" + s.renders.front() + "-" + which).c_str());
        s.renders.erase(s.renders.begin());
    }
}

HttpResponse too_busy() {
    return studio_error(409, "too many jobs are running; wait for one to end or cancel one");
}

}  // namespace

HttpResponse start_import(Studio &s, const HttpRequest &r) {
    if (r.body.size() > kCorrectionLimit) return studio_error(413, "the correction file is larger than 1 MiB");
    const std::string name = studio_shown_name(field_value(r.query, "name", false), "correction");
    ImportedCurve curve = eq_import_parse(r.body, name);
    if (!curve.ok) return studio_error(400, one_line(curve.error));
    std::lock_guard<std::mutex> lock(s.mutex);
    const bool surround = s.params.ss != 0;
    auto job = new_job(s, "import");
    if (!job) return too_busy();
    Studio *studio = &s;
    launch(job, [studio, curve, name, surround](StudioJob &j, json &result, std::string &error) {
        const double start = thread_seconds();
        ImportFit fit;
        const FitProgress progress = [&j](int designs) {
            j.progress = std::min(0.99, double(designs) / kMaxDesigns);
            return !j.cancel.load();
        };
        if (!import_fit(studio->lib, curve, name, kStudioRate, surround, fit, error, {}, progress)) return false;
        const FitResult &f = fit.fit;
        result = {{"tuning", json::parse(fit.tuning_json)},
                  {"figures",
                   {{"rms_db", f.rms_db},
                    {"largest_db", f.max_db},
                    {"largest_hz", f.max_hz},
                    {"level_offset_db", f.level_offset_db},
                    {"designs", f.designs}}},
                  {"notes", curve.notes},
                  {"report", import_report(curve, fit, name, "the studio", kStudioRate, thread_seconds() - start)}};
        return true;
    });
    return json_ok({{"job", job->id}});
}

HttpResponse start_render(Studio &s, const HttpRequest &r) {
    if (r.body.size() > kStudioJsonLimit) return studio_error(413, "the render request is larger than 1 MiB");
    const json req = json::parse(r.body, nullptr, false);
    if (!req.is_object() || !req.contains("entry") || !req["entry"].is_string())
        return studio_error(400, "a render request is an object with \"entry\" (and \"device\", \"format\")");
    for (auto it = req.begin(); it != req.end(); ++it)
        if (it.key() != "entry" && it.key() != "device" && it.key() != "format")
            return studio_error(400, "render request: unknown key " + it.key().substr(0, 40));
    for (const char *k : {"device", "format"})
        if (req.contains(k) && !req[k].is_string()) return studio_error(400, std::string("render request: ") + k + " must be a string");
    const std::string entry = req["entry"];
    const std::string device_name = req.value("device", "wired-headphone");
    const std::string format_name = req.value("format", "float");
    RunSettings settings;
    if (!parse_device(device_name, settings.device))
        return studio_error(400, "device " + device_name.substr(0, 40) + " is unknown; use one of " + device_names());
    SampleFormat format = SampleFormat::f32;
    if (!parse_sample_format(format_name, format))
        return studio_error(400, "format must be float, 16 or 32, not " + format_name.substr(0, 40));

    std::lock_guard<std::mutex> lock(s.mutex);
    studio_scan_audio(s);
    const auto found = s.audio.find(entry);
    if (found == s.audio.end()) return studio_error(400, "no audio entry " + one_line(entry).substr(0, 100));
    const std::string path = found->second.path;
    // The file's own rate when the effect processes it (as `run` does by default), else 48 kHz
    // (as `run --rate 48000` does): the studio renders what a device would play.
    int rate = 0;
    {
        AudioReader probe;
        std::string error;
        if (!audio_reader_open(probe, path, SampleFormat::f32, error))
            return studio_error(400, one_line(entry + ": " + error.substr(std::min(error.size(), path.size() + 2))));
        if (probe.channels > 2) return studio_error(400, entry + ": more than two channels; the effect takes stereo or mono");
        if (!effect_rate_supported(probe.rate)) rate = kStudioRate;
    }
    auto job = new_job(s, "render");
    if (!job) return too_busy();
    settings.params = s.params;
    const int64_t revision = s.revision;
    const std::string rid = std::to_string(s.next_id++);
    const std::string base = s.private_dir + "/render-" + rid + "-";
    Studio *studio = &s;
    launch(job, [=](StudioJob &j, json &result, std::string &error) mutable {
        RunReport report;
        settings.cancelled = [&j] { return j.cancel.load(); };
        settings.progress = [&j](double done) { j.progress = 0.85 * done; };
        AudioReader reader, again;
        int run_rate = 0;
        std::vector<RunMessage> messages;
        if (!file_run_open(path, format, rate, reader, run_rate, messages, error) ||
            !effect_run_file(studio->lib, reader, format, run_rate, base + "processed.wav", settings, report, error))
            return false;
        settings.progress = {};
        std::vector<RunMessage> unused;
        if (!file_run_open(path, format, rate, again, run_rate, unused, error) ||
            !file_run_original(again, format, run_rate, base + "original.wav", settings, error)) {
            std::remove((base + "processed.wav").c_str());
            return false;
        }
        const double match = report.out.rms_dbfs - report.in.rms_dbfs;
        json notes = json::array();
        for (const RunMessage &m : messages) notes.push_back(one_line(m.text.substr(std::min(m.text.size(), path.size() + 1))));
        result = {{"revision", revision},
                  {"entry", entry},
                  {"device", device_name},
                  {"format", format_name},
                  {"rate", report.rate},
                  {"resampled_from", report.source_rate ? json(report.source_rate) : json(nullptr)},
                  {"frames", report.frames},
                  {"processing", report.processing},
                  {"latency_frames", report.latency},
                  {"loudness_match_db", std::isfinite(match) ? match : 0.0},
                  {"notes", notes},
                  {"processed", "/api/renders/" + rid + "/processed.wav"},
                  {"original", "/api/renders/" + rid + "/original.wav"}};
        keep_render(*studio, rid);
        return true;
    });
    return json_ok({{"job", job->id}});
}

HttpResponse job_status(Studio &s, const std::string &id) {
    auto job = find_job(s, id);
    if (!job) return studio_error(404, "no job " + id.substr(0, 40));
    std::lock_guard<std::mutex> lock(job->mutex);
    json out = {{"kind", job->kind}, {"state", job->state}, {"progress", job->progress.load()}};
    if (job->state == "failed") out["error"] = job->error;
    if (job->state == "done") out["result"] = job->result;
    return json_ok(out);
}

HttpResponse job_cancel(Studio &s, const std::string &id) {
    auto job = find_job(s, id);
    if (!job) return studio_error(404, "no job " + id.substr(0, 40));
    std::lock_guard<std::mutex> lock(job->mutex);
    if (job->state == "running") job->cancel = true;
    return json_ok({{"state", job->state == "running" ? "cancelled" : job->state}});
}

HttpResponse render_file(Studio &s, const std::string &rest) {
    const auto slash = rest.find('/');
    const std::string id = rest.substr(0, slash);
    const std::string which = slash == std::string::npos ? "" : rest.substr(slash + 1);
    if (which != "processed.wav" && which != "original.wav") return studio_error(404, "no such rendering");
    std::lock_guard<std::mutex> lock(s.mutex);
    if (std::find(s.renders.begin(), s.renders.end(), id) == s.renders.end())
        return studio_error(404, "no such rendering");
    HttpResponse out;
    out.content_type = "audio/wav";
    out.file = s.private_dir + "/render-" + id + "-" + which;
    return out;
}

void studio_jobs_stop(Studio &s) {
    std::vector<std::shared_ptr<StudioJob>> jobs;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const auto &[id, j] : s.jobs) jobs.push_back(j);
    }
    for (const auto &j : jobs) j->cancel = true;
    for (const auto &j : jobs)
        if (j->thread.joinable()) j->thread.join();
}

}  // namespace sorn_tool
