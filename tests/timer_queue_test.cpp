#include "timer/TimerQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

using namespace android;

constexpr int64_t ms(int64_t v) { return v * 1000000; }

// A task's captured state may use the queue from its destructor, so the queue never releases an
// entry while it holds its own lock.
TEST(TimerQueue, AnEntryReleasedByTheQueueMayCallBackIntoIt) {
    sp<TimerQueue> queue = new TimerQueue();
    std::atomic<int> released{0};
    auto callsBack = [&] {
        TimerQueue* q = queue.get();
        return std::shared_ptr<void>(nullptr, [q, &released](void*) {
            q->cancelTask(987654321);
            q->postTaskDelayed(ms(10000), [] {});
            released++;
        });
    };
    auto body = std::async(std::launch::async, [&] {
        // The front entry: dropped at once.
        queue->cancelTask(queue->postTaskDelayed(ms(1000), [state = callsBack()] {}));
        // Behind a due entry: dropped by the poll.
        const uint64_t behind = queue->postTaskDelayed(ms(20), [state = callsBack()] {});
        queue->postTaskDelayed(ms(1), [] {});
        queue->cancelTask(behind);
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        queue->pollOnce(1000);
    });
    if (body.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        std::fputs("a release under the queue's mutex deadlocked\n", stderr);
        std::_Exit(1); // the blocked thread still holds the queue
    }
    EXPECT_EQ(2, released.load());
}
