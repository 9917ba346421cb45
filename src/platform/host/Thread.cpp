#include "platform/Thread.h"

#include <system_error>

#include "platform/Threads.h"
#include "platform/common/Kernel.h"
#include "platform/host/VirtualTime.h"

namespace android::platform {

void setLoopThreadPriority(const char* logTag) {
    // On the virtual clock the turn order is the only priority there is; asking the kernel would
    // only make the log depend on who runs the simulator.
    if (host::VirtualTime::active() == nullptr) kernel::setLoopThreadPriority(logTag);
}

bool Thread::start(const char* name, std::function<void()> body) {
    host::VirtualTime* time = host::VirtualTime::active();
    host::VirtualTime::Participant* participant = time ? time->add(name) : nullptr;
    try {
        if (participant == nullptr) {
            mThread = std::thread(std::move(body));
        } else {
            mThread = std::thread([time, participant, body = std::move(body)]() mutable {
                time->enter(participant);
                body();
                body = nullptr;  // what it holds goes while the thread still has the turn
                time->leave(participant);
            });
            time->bind(participant, mThread.get_id());
        }
    } catch (const std::system_error&) {
        if (participant) time->abandon(participant);
        return false;
    }
    return true;
}

void Thread::join() {
    if (host::VirtualTime* time = host::VirtualTime::active()) time->awaitExit(mThread.get_id());
    mThread.join();
}

} // namespace android::platform
