#include "platform/Thread.h"

#include <system_error>

#include "platform/Threads.h"
#include "platform/common/Kernel.h"

namespace android::platform {

void setLoopThreadPriority(const char* logTag) {
    kernel::setLoopThreadPriority(logTag);
}

bool Thread::start(const char* /*name*/, std::function<void()> body) {
    try {
        mThread = std::thread(std::move(body));
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void Thread::join() {
    mThread.join();
}

} // namespace android::platform
