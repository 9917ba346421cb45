#pragma once

// Receives every log line of the process through __android_log_set_logger: counts lines by
// priority, keeps the first error and warning texts, and optionally writes all lines to a file.
// Thread-safe: the library logs from any thread. One sink per process.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <cstdio>
#include <string>
#include <vector>

namespace pelyx_sim {

class RecordLog;

class LogSink {
public:
    static constexpr size_t kKeptLines = 20;

    static LogSink& instance();

    // Routes liblog here; `verbose` lowers the minimum priority so debug lines arrive too.
    // `path` (may be empty) receives every line. Returns false when the file cannot be opened.
    bool install(bool verbose, const std::string& path) EXCLUDES(mLock);
    // Back to liblog's stderr logger; closes the file.
    void uninstall() EXCLUDES(mLock);

    int errors() const EXCLUDES(mLock);
    int warnings() const EXCLUDES(mLock);
    int lines() const EXCLUDES(mLock);
    // "tag: message" of the first kKeptLines errors / warnings.
    std::vector<std::string> errorLines() const EXCLUDES(mLock);
    std::vector<std::string> warningLines() const EXCLUDES(mLock);

    // Also hands every line, with its time, to `records` (null: none).
    void setRecords(RecordLog* records) EXCLUDES(mLock);

    // The logger entry; public so that tests can feed lines.
    void write(int priority, const char* tag, const char* message) EXCLUDES(mLock);

private:
    LogSink() = default;

    mutable android::Mutex mLock;
    FILE* mFile GUARDED_BY(mLock) = nullptr;
    RecordLog* mRecords GUARDED_BY(mLock) = nullptr;
    int mErrors GUARDED_BY(mLock) = 0;
    int mWarnings GUARDED_BY(mLock) = 0;
    int mLines GUARDED_BY(mLock) = 0;
    std::vector<std::string> mErrorLines GUARDED_BY(mLock);
    std::vector<std::string> mWarningLines GUARDED_BY(mLock);
};

} // namespace pelyx_sim
