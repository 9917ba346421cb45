#include "support/LogCapture.h"

#include <log/log.h>

#include <algorithm>

namespace pelyx_test {
namespace {
std::mutex gMutex;
std::vector<LogLine>* gLines = nullptr;
} // namespace

LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gLines = new std::vector<LogLine>();
    }
    // liblog's logger lock is taken outside ours: the logger itself takes ours under it.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(&LogCapture::logger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    std::lock_guard<std::mutex> lock(gMutex);
    delete gLines;
    gLines = nullptr;
}

void LogCapture::logger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (!gLines) return;
    std::string text(message ? message : "");
    gLines->push_back({data->priority, data->tag ? data->tag : "", text});
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(gMutex);
    return gLines ? *gLines : std::vector<LogLine>{};
}

size_t LogCapture::count(const std::string& tag, int priority, const std::string& message) const {
    auto all = lines();
    return std::count_if(all.begin(), all.end(), [&](const LogLine& l) {
        return l.tag == tag && l.priority == priority && l.message == message;
    });
}

size_t LogCapture::countContaining(const std::string& tag, const std::string& fragment) const {
    auto all = lines();
    return std::count_if(all.begin(), all.end(), [&](const LogLine& l) {
        return l.tag == tag && l.message.find(fragment) != std::string::npos;
    });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gLines) gLines->clear();
}

} // namespace pelyx_test
