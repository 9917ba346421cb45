#pragma once

#include "timer/TimerQueue.h"

namespace android {

class TimerQueueTestPeer {
public:
    // Entries are then timed on `now`; the timer descriptor still runs on CLOCK_MONOTONIC.
    static void setClock(TimerQueue& queue, int64_t (*now)()) { queue.mNow = now; }
    static int epollFd(const TimerQueue& queue) { return queue.mEpollFd; }
};

} // namespace android
