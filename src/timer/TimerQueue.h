#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Looper.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_set>

#include <vector>

#include "platform/LoopWait.h"
#include "timer/NodeRecycler.h"

namespace android {

// A delayed message and task loop: a min-heap of timed entries and one timer (platform::LoopWait,
// the kernel's timerfd on a device) always armed at the earliest live entry, plus a wake-up.
//
// Threading: any thread may schedule, cancel or wake; exactly one owning thread calls pollOnce.
// Handlers run on that thread with no lock held, so they may schedule or cancel on this queue.
// Cancellation is lazy: a cancelled entry is dropped when it reaches the front of the heap.
// Entries still pending at destruction are released without being called.
class TimerQueue : public RefBase {
public:
    using Task = std::function<void()>;

    // Poll results, the same values as Looper's.
    static constexpr int kPollWake = -1;
    static constexpr int kPollCallback = -2;
    static constexpr int kPollTimeout = -3;
    static constexpr int kPollError = -4;

    // Opens and registers the descriptors; a failure is logged and leaves the queue
    // uninitialised (see isInitialized).
    TimerQueue();
    // Wakes the loop, closes its wait and releases pending entries without calling them.
    // The owning thread must no longer be inside pollOnce once the last reference goes.
    ~TimerQueue() override;

    // False when a descriptor could not be opened; such a queue accepts calls without effect.
    bool isInitialized() const { return mInitialized; }

    // Makes a pending pollOnce return kPollWake. Takes no lock.
    void wake();

    // Blocks up to timeoutMillis (-1: no limit) and dispatches due entries. Owning thread only.
    // Returns one of the kPoll* codes: for several ready descriptors, that of the last handled.
    int pollOnce(int timeoutMillis) EXCLUDES(mMutex);

    // Return the entry's id (never 0), or 0 when the queue is not initialised. A negative delay
    // counts as 0. The queue holds a strong reference to the handler until the entry is
    // dispatched or dropped. Never blocks beyond the queue's own lock; never wakes the loop (the
    // timer does).
    uint64_t sendMessage(const sp<MessageHandler>& handler, const Message& message)
            EXCLUDES(mMutex);
    uint64_t sendMessageDelayed(int64_t delayNs, const sp<MessageHandler>& handler,
                                const Message& message) EXCLUDES(mMutex);
    // The task runs on the loop thread through a FuncHandler with message what 0; on an
    // uninitialised queue it is dropped unrun.
    uint64_t postTask(Task task) EXCLUDES(mMutex);
    uint64_t postTaskDelayed(int64_t delayNs, Task task) EXCLUDES(mMutex);

    // Cancel every pending entry of the handler (of that what); each costs a copy of the heap.
    void removeMessages(const sp<MessageHandler>& handler) EXCLUDES(mMutex);
    void removeMessages(const sp<MessageHandler>& handler, int what) EXCLUDES(mMutex);
    // Cancels one entry; 0 and unknown ids are harmless. An entry the loop has already collected
    // for dispatch still runs.
    void cancelTask(uint64_t id) EXCLUDES(mMutex);

private:
    friend class TimerQueueTestPeer;

    struct TimerEntry {
        int64_t when;
        sp<MessageHandler> handler;
        Message message;
        uint64_t id;
    };

    // Handlers taken out of the heap under the mutex and released after it, since a handler's
    // destructor may call back into this queue. A few fit inline, so the per-frame cancel of a
    // check allocates nothing.
    class Released {
    public:
        void add(sp<MessageHandler>&& handler);

    private:
        static constexpr size_t kInline = 4;
        sp<MessageHandler> mInline[kInline];
        size_t mCount = 0;
        std::vector<sp<MessageHandler>> mMore;
    };

    void armTimerLocked(int64_t when) REQUIRES(mMutex);
    void disarmTimerLocked() REQUIRES(mMutex);
    void rearmFromHeapLocked(Released& released) REQUIRES(mMutex);
    // Removes the front entry; its handler goes to `released` unless moved out before.
    void popFrontLocked(Released& released) REQUIRES(mMutex);
    template <typename Pred>
    void cancelMatchingLocked(Pred matches, Released& released) REQUIRES(mMutex);

    // Min-heap on when alone: no tie-break, equal times leave in whatever order the heap yields.
    static bool later(const TimerEntry& a, const TimerEntry& b) { return a.when > b.when; }

    // The timer's own clock unless a test stands in one it sets.
    int64_t now() const { return mNow ? mNow() : mWait->now(); }

    int64_t (*mNow)() = nullptr;
    std::unique_ptr<platform::LoopWait> mWait;
    bool mInitialized = false;

    Mutex mMutex;
    std::vector<TimerEntry> mHeap GUARDED_BY(mMutex);
    // Declared first so that it outlives the set whose nodes it keeps.
    NodeRecycler mCancelledNodes;
    // Cancelling and purging one id per frame would otherwise allocate a node per frame.
    std::unordered_set<uint64_t, std::hash<uint64_t>, std::equal_to<uint64_t>,
                       RecyclingAllocator<uint64_t>>
            mCancelled GUARDED_BY(mMutex){0, std::hash<uint64_t>(), std::equal_to<uint64_t>(),
                                          RecyclingAllocator<uint64_t>(&mCancelledNodes)};
    uint64_t mNextId GUARDED_BY(mMutex) = 1;
};

// The loop of the thread that owns `queue`: polls without a time-out while keepRunning() holds.
// A failed wait is logged under `tag` and the loop goes on, since the next one may succeed.
void runTimerLoop(TimerQueue& queue, const char* tag, const std::function<bool()>& keepRunning);

} // namespace android
