#pragma once

#include <android/log.h>

#include <algorithm>
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
    LogCapture() {
        {
            std::lock_guard<std::mutex> lock(sMutex);
            sLines = new std::vector<LogLine>();
        }
        // liblog's logger lock is taken outside ours: the logger itself takes ours under it.
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        __android_log_set_logger([](const __android_logger_data* data, const char* message) {
            std::lock_guard<std::mutex> lock(sMutex);
            if (sLines) sLines->push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
        });
    }
    ~LogCapture() {
        __android_log_set_logger(__android_log_stderr_logger);
        std::lock_guard<std::mutex> lock(sMutex);
        delete sLines;
        sLines = nullptr;
    }

    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> lock(sMutex);
        return sLines ? *sLines : std::vector<LogLine>{};
    }
    // Number of lines with exactly this tag, priority and message.
    size_t count(const std::string& tag, int priority, const std::string& message) const {
        return countIf([&](const LogLine& l) { return l.tag == tag && l.priority == priority && l.message == message; });
    }
    // Number of lines with this tag whose message contains `fragment`.
    size_t countContaining(const std::string& tag, const std::string& fragment) const {
        return countIf([&](const LogLine& l) { return l.tag == tag && l.message.find(fragment) != std::string::npos; });
    }
    // Number of lines logged as errors or worse, whatever their tag.
    size_t errors() const {
        return countIf([](const LogLine& l) { return l.priority >= ANDROID_LOG_ERROR; });
    }
    void clear() {
        std::lock_guard<std::mutex> lock(sMutex);
        if (sLines) sLines->clear();
    }

private:
    template <typename Pred>
    size_t countIf(Pred pred) const {
        const auto all = lines();
        return std::count_if(all.begin(), all.end(), pred);
    }
    static inline std::mutex sMutex;
    static inline std::vector<LogLine>* sLines = nullptr;
};

} // namespace pelyx_test
