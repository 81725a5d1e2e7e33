#include "tests/support/log_capture.h"

#include <android/log.h>

#include <mutex>

namespace sorn_test {
namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;

void record(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
}

}  // namespace

LogCapture::LogCapture() {
    clear();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(record);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
}

const std::vector<LogLine>& LogCapture::lines() const { return g_lines; }

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

int LogCapture::count(const std::string& message, int priority, const std::string& tag) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    int n = 0;
    for (const auto& l : g_lines)
        if (l.message == message && (priority < 0 || l.priority == priority) &&
            (tag.empty() || l.tag == tag))
            ++n;
    return n;
}

int LogCapture::count_containing(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    int n = 0;
    for (const auto& l : g_lines)
        if (l.message.find(fragment) != std::string::npos) ++n;
    return n;
}

}  // namespace sorn_test
