#pragma once

#include "platform/common/Kernel.h"
#include "timer/TimerQueue.h"

namespace android {

class TimerQueueTestPeer {
public:
    // Entries are then timed on `now`; the timer itself still runs on its own clock.
    static void setClock(TimerQueue& queue, int64_t (*now)()) { queue.mNow = now; }
    // Freed nodes of the cancelled set kept for reuse.
    static size_t keptNodes(const TimerQueue& queue) { return queue.mCancelledNodes.kept(); }
    // The queue's epoll descriptor (a queue made on real time).
    static int epollFd(const TimerQueue& queue) {
        return static_cast<const platform::kernel::KernelLoopWait&>(*queue.mWait).epollFd();
    }
};

} // namespace android
