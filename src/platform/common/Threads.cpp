// The same on a device and on a host.

#include <log/log.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "platform/Threads.h"
#include "platform/Trace.h"
#include "platform/common/Kernel.h"

namespace android::platform {

// Without the privilege both calls fail and the thread runs on unboosted.
void kernel::setLoopThreadPriority(const char* logTag) {
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
    char shortName[16]; // the kernel keeps 15 characters
    strncpy(shortName, name, sizeof(shortName) - 1);
    shortName[sizeof(shortName) - 1] = '\0';
    pthread_setname_np(pthread_self(), shortName);
    traceThreadName(name);
}

} // namespace android::platform
