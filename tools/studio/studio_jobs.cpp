#include "tools/studio/studio_jobs.h"

#include <cstdio>
#include <exception>
#include <filesystem>

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

HttpResponse too_busy() {
    return studio_error(409, "too many jobs are running; wait for one to end or cancel one");
}

}  // namespace

HttpResponse start_import(Studio &s, const HttpRequest &r) {
    (void)s;
    (void)r;
    return studio_error(503, "import is not available yet");
}

HttpResponse start_render(Studio &s, const HttpRequest &r) {
    (void)s;
    (void)r;
    (void)launch<bool (*)(StudioJob &, json &, std::string &)>;
    (void)too_busy;
    (void)new_job;
    return studio_error(503, "render is not available yet");
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
