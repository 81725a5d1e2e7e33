// Test helper: captures what the library logs through liblog, in-process.
// While a LogCapture is alive every log line (all priorities, DEBUG included) is recorded
// instead of going to standard error; the destructor restores liblog's stderr logger.
#ifndef SORN_TESTS_LOG_CAPTURE_H
#define SORN_TESTS_LOG_CAPTURE_H

#include <android/log.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace sorn_test {

struct LogLine {
    int priority;
    std::string tag, message;
};

class LogCapture {
public:
    LogCapture() {
        clear();
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger(record);
    }
    ~LogCapture() {
        __android_log_set_logger(__android_log_stderr_logger);
        __android_log_set_minimum_priority(ANDROID_LOG_INFO);
    }
    const std::vector<LogLine> &lines() const { return lines_; }
    void clear() { std::lock_guard lock(mutex_); lines_.clear(); }
    // Lines whose message equals `message` (and whose priority and tag match, when given:
    // priority < 0 or an empty tag match anything).
    int count(const std::string &message, int priority = -1, const std::string &tag = "") const {
        return count_if([&](const LogLine &l) {
            return l.message == message && (priority < 0 || l.priority == priority) && (tag.empty() || l.tag == tag);
        });
    }
    int count_containing(const std::string &fragment) const {
        return count_if([&](const LogLine &l) { return l.message.find(fragment) != std::string::npos; });
    }

private:
    static inline std::mutex mutex_;
    static inline std::vector<LogLine> lines_;

    static void record(const struct __android_logger_data *data, const char *message) {
        std::lock_guard lock(mutex_);
        lines_.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
    }
    template <typename Match>
    static int count_if(Match match) {
        std::lock_guard lock(mutex_);
        return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), match));
    }
};

}  // namespace sorn_test

#endif
