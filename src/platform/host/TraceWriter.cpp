#include "platform/host/TraceWriter.h"

#include <json/json.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdlib>

#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Trace.h"
#include "platform/host/VirtualTime.h"

namespace android::platform {
namespace host {

TraceWriter& TraceWriter::instance() {
    static TraceWriter* sWriter = [] {
        auto* writer = new TraceWriter(); // lives for the process; closed at exit
        atexit([] { TraceWriter::instance().close(); });
        return writer;
    }();
    return *sWriter;
}

bool TraceWriter::open(const std::string& path) {
    close();
    FILE* file = fopen(path.c_str(), "w");
    if (!file) return false;
    Mutex::Autolock lock(mMutex);
    mFile = file;
    mFirst = true;
    fputs("{\"displayTimeUnit\":\"ns\",\"traceEvents\":[", mFile);
    mOpen.store(true, std::memory_order_release);
    return true;
}

void TraceWriter::close() {
    Mutex::Autolock lock(mMutex);
    mOpen.store(false, std::memory_order_release);
    if (!mFile) return;
    fputs("\n]}\n", mFile);
    fclose(mFile);
    mFile = nullptr;
}

void TraceWriter::setListener(std::function<void(char, const char*, int64_t)> listener) {
    Mutex::Autolock lock(mMutex);
    mListening.store(listener != nullptr, std::memory_order_release);
    mListener = std::move(listener);
}

void TraceWriter::write(char phase, const char* name, const std::string& extra, int64_t value) {
    if (!isOpen()) return;
    const int64_t ns = now();
    // On virtual time a thread is its place in the turn and the process is 1, so that a run's
    // trace is the same from one run to the next.
    VirtualTime* time = VirtualTime::active();
    const long tid = time ? time->currentNumber() : syscall(SYS_gettid);
    const int pid = time ? 1 : getpid();
    // Names come from apps (layer names): jsoncpp quotes and escapes them.
    const std::string quoted = Json::valueToQuotedString(name ? name : "");
    Mutex::Autolock lock(mMutex);
    if (mListener) mListener(phase, name ? name : "", value);
    if (!mFile) return;
    fprintf(mFile, "%s\n{\"ph\":\"%c\",\"name\":%s,\"pid\":%d,\"tid\":%ld,\"ts\":%" PRId64 ".%03d%s}",
            mFirst ? "" : ",", phase, quoted.c_str(), pid, tid, ns / 1000,
            static_cast<int>(ns % 1000), extra.c_str());
    mFirst = false;
}

void TraceWriter::begin(const char* name) { write('B', name, ""); }
void TraceWriter::end() { write('E', "", ""); }

void TraceWriter::asyncBegin(const char* name, int32_t cookie) {
    write('b', name, ",\"cat\":\"pelyx\",\"id\":" + std::to_string(cookie));
}

void TraceWriter::asyncEnd(const char* name, int32_t cookie) {
    write('e', name, ",\"cat\":\"pelyx\",\"id\":" + std::to_string(cookie));
}

void TraceWriter::counter(const char* name, int64_t value) {
    write('C', name, ",\"args\":{\"value\":" + std::to_string(value) + "}", value);
}

void TraceWriter::threadName(const char* name) {
    write('M', "thread_name", ",\"args\":{\"name\":" + Json::valueToQuotedString(name) + "}");
}

bool traceOpen(const std::string& path) { return TraceWriter::instance().open(path); }
void traceClose() { TraceWriter::instance().close(); }
void setTraceListener(std::function<void(char phase, const char* name, int64_t value)> listener) {
    TraceWriter::instance().setListener(std::move(listener));
}

} // namespace host

bool traceGraphicsEnabled() { return host::TraceWriter::instance().isOpen(); }
void traceBegin(const char* name) { host::TraceWriter::instance().begin(name); }
void traceThreadName(const char* name) { host::TraceWriter::instance().threadName(name); }
void traceEnd() { host::TraceWriter::instance().end(); }
void traceAsyncBegin(const char* name, int32_t cookie) {
    host::TraceWriter::instance().asyncBegin(name, cookie);
}
void traceAsyncEnd(const char* name, int32_t cookie) {
    host::TraceWriter::instance().asyncEnd(name, cookie);
}
void traceCounter(const char* name, int64_t value) {
    host::TraceWriter::instance().counter(name, value);
}

} // namespace android::platform
