/*
 * Test helper: captures what the library logs through liblog, in-process.
 * While a LogCapture is alive every log line (all priorities, DEBUG included) is recorded
 * instead of going to standard error; the destructor restores liblog's stderr logger.
 */
#ifndef SORN_TESTS_LOG_CAPTURE_H
#define SORN_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace sorn_test {

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<LogLine>& lines() const;
    void clear();
    /* Number of lines whose message equals `message` exactly (and whose priority and tag match
       when given: priority < 0 or an empty tag match anything). */
    int count(const std::string& message, int priority = -1, const std::string& tag = "") const;
    /* Number of lines whose message contains `fragment`. */
    int count_containing(const std::string& fragment) const;
};

}  // namespace sorn_test

#endif
