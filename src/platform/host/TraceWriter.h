#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include <utils/Mutex.h>

namespace android::platform::host {

// Writes trace events to one Trace Event Format file (a JSON object with a "traceEvents" array,
// which the Perfetto UI opens). One writer per process; every method is thread-safe.
class TraceWriter {
public:
    static TraceWriter& instance();

    bool open(const std::string& path);
    void close();
    bool isOpen() const {
        return mOpen.load(std::memory_order_relaxed) || mListening.load(std::memory_order_relaxed);
    }
    void setListener(std::function<void(char phase, const char* name, int64_t value)> listener);

    void begin(const char* name);
    void end();
    void asyncBegin(const char* name, int32_t cookie);
    void asyncEnd(const char* name, int32_t cookie);
    void counter(const char* name, int64_t value);
    void threadName(const char* name);

private:
    TraceWriter() = default;
    // phase: one Trace Event Format phase letter; extra: pre-rendered JSON members or empty.
    void write(char phase, const char* name, const std::string& extra, int64_t value = 0);

    std::atomic<bool> mOpen{false};
    std::atomic<bool> mListening{false};
    std::function<void(char, const char*, int64_t)> mListener GUARDED_BY(mMutex);
    Mutex mMutex;
    FILE* mFile GUARDED_BY(mMutex) = nullptr;
    bool mFirst GUARDED_BY(mMutex) = true;
};

} // namespace android::platform::host
