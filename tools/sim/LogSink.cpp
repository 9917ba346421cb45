#include "LogSink.h"

#include "Records.h"

#include <android/log.h>

#include "platform/Clock.h"

namespace pelyx_sim {
namespace {

void logger(const struct __android_logger_data* data, const char* message) {
    LogSink::instance().write(data ? data->priority : ANDROID_LOG_INFO, data ? data->tag : nullptr,
                              message);
}

char priorityLetter(int priority) {
    switch (priority) {
        case ANDROID_LOG_VERBOSE: return 'V';
        case ANDROID_LOG_DEBUG: return 'D';
        case ANDROID_LOG_INFO: return 'I';
        case ANDROID_LOG_WARN: return 'W';
        case ANDROID_LOG_ERROR: return 'E';
        case ANDROID_LOG_FATAL: return 'F';
        default: return '?';
    }
}

} // namespace

LogSink& LogSink::instance() {
    static LogSink* sSink = new LogSink();  // library threads may log until the process ends
    return *sSink;
}

bool LogSink::install(bool verbose, const std::string& path) {
    {
        android::Mutex::Autolock lock(mLock);
        if (!path.empty()) {
            mFile = fopen(path.c_str(), "w");
            if (!mFile) return false;
        }
    }
    if (verbose) __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(&logger);
    return true;
}

void LogSink::uninstall() {
    __android_log_set_logger(__android_log_stderr_logger);
    android::Mutex::Autolock lock(mLock);
    if (mFile) fclose(mFile);
    mFile = nullptr;
}

void LogSink::write(int priority, const char* tag, const char* message) {
    const std::string line = std::string(tag ? tag : "") + ": " + (message ? message : "");
    android::Mutex::Autolock lock(mLock);
    ++mLines;
    if (priority >= ANDROID_LOG_ERROR) {
        ++mErrors;
        if (mErrorLines.size() < kKeptLines) mErrorLines.push_back(line);
    } else if (priority == ANDROID_LOG_WARN) {
        ++mWarnings;
        if (mWarningLines.size() < kKeptLines) mWarningLines.push_back(line);
    }
    if (!mFile && !mRecords) return;
    // The run's clock: the virtual one makes the log the same from one run to the next.
    const int64_t ns = android::platform::waitClockNow();
    if (mFile) {
        fprintf(mFile, "%lld.%06lld %c %s\n", static_cast<long long>(ns / 1'000'000'000),
                static_cast<long long>(ns % 1'000'000'000 / 1000), priorityLetter(priority), line.c_str());
    }
    if (mRecords) mRecords->add(ns, std::string("log ") + priorityLetter(priority) + " " + line);
}

void LogSink::setRecords(RecordLog* records) {
    android::Mutex::Autolock lock(mLock);
    mRecords = records;
}

int LogSink::errors() const {
    android::Mutex::Autolock lock(mLock);
    return mErrors;
}

int LogSink::warnings() const {
    android::Mutex::Autolock lock(mLock);
    return mWarnings;
}

int LogSink::lines() const {
    android::Mutex::Autolock lock(mLock);
    return mLines;
}

std::vector<std::string> LogSink::errorLines() const {
    android::Mutex::Autolock lock(mLock);
    return mErrorLines;
}

std::vector<std::string> LogSink::warningLines() const {
    android::Mutex::Autolock lock(mLock);
    return mWarningLines;
}

} // namespace pelyx_sim
