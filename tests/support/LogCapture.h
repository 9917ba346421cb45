#pragma once

#include <android/log.h>

#include <mutex>
#include <string>
#include <vector>

namespace pelyx_test {

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

// Captures every liblog line of the process while alive (debug lines included) through
// __android_log_set_logger. One instance at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    std::vector<LogLine> lines() const;
    // Number of lines with exactly this tag, priority and message.
    size_t count(const std::string& tag, int priority, const std::string& message) const;
    // Number of lines with this tag whose message contains `fragment`.
    size_t countContaining(const std::string& tag, const std::string& fragment) const;
    void clear();

private:
    static void logger(const struct __android_logger_data* data, const char* message);
};

} // namespace pelyx_test
