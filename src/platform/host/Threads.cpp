#include "platform/Threads.h"

#include <log/log.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "platform/host/TraceWriter.h"

namespace android::platform {

void setLoopThreadPriority(const char* logTag) {
    if (setpriority(PRIO_PROCESS, 0, -8) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, logTag, "setpriority(-8) failed: %s",
                            strerror(errno));
    }
    sched_param param{};
    param.sched_priority = 1;
    if (sched_setscheduler(0, SCHED_FIFO, &param) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, logTag, "sched_setscheduler(SCHED_FIFO, 1) failed: %s",
                            strerror(errno));
    }
}

void setThreadName(const char* name) {
    char shortName[16];
    strncpy(shortName, name, sizeof(shortName) - 1);
    shortName[sizeof(shortName) - 1] = '\0';
    pthread_setname_np(pthread_self(), shortName);
    host::TraceWriter::instance().threadName(name);
}

} // namespace android::platform
