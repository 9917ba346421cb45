#include "timer/TimerQueue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/Threads.h"
#include "support/TimerQueuePeer.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::entriesIn;

namespace {


int64_t nowNs() { return systemTime(SYSTEM_TIME_MONOTONIC); }
constexpr int64_t ms(int64_t v) { return v * 1000000; }
void sleepMs(int v) { std::this_thread::sleep_for(std::chrono::milliseconds(v)); }

struct Call {
    int what;
    int64_t at;
};

class Recorder : public MessageHandler {
public:
    void handleMessage(const Message& message) override {
        std::lock_guard<std::mutex> lock(mLock);
        mCalls.push_back({message.what, nowNs()});
    }
    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mCalls;
    }
    std::vector<int> whats() const {
        std::vector<int> out;
        for (const Call& c : calls()) out.push_back(c.what);
        return out;
    }

private:
    mutable std::mutex mLock;
    std::vector<Call> mCalls;
};

// An entry's id and the window its due time lies in.
struct Posted {
    uint64_t id;
    int64_t earliest, latest;
};
Posted post(TimerQueue& queue, int64_t delay, const sp<MessageHandler>& handler, int what) {
    const int64_t before = nowNs();
    const uint64_t id = queue.sendMessageDelayed(delay, handler, Message(what));
    return {id, before + delay, nowNs() + delay};
}

// A clock the test sets, at or behind the real one: every poll finds the timer fired.
std::atomic<int64_t> gNow{0};
int64_t testNow() { return gNow.load(); }

TEST(TimerQueue, AnEntryIsDueAtItsTimeAndACancelAfterCollectionComesTooLate) {
    sp<TimerQueue> queue = new TimerQueue();
    gNow = nowNs();
    TimerQueueTestPeer::setClock(*queue, testNow);
    sp<Recorder> handler = new Recorder();
    queue->sendMessage(handler, Message(1));
    queue->sendMessage(handler, Message(1));  // the same time
    const uint64_t late = queue->sendMessageDelayed(1, handler, Message(2));
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ((std::vector<int>{1, 1}), handler->whats()) << "due together at the time read, not a nanosecond early";
    // Collected together, in time order: the task's cancel comes after the message was taken.
    queue->postTask([&] { queue->cancelTask(late); });
    gNow += 1;
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ((std::vector<int>{1, 1, 2}), handler->whats());
}

TEST(TimerQueue, TimerFollowsTheEarliestEntryAndNeverFiresEarly) {
    LogCapture logs;
    errno = 0; // a read that succeeds leaves a stale errno alone: it is no error
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    Posted late = post(*queue, ms(5000), handler, 1);
    Posted early = post(*queue, ms(20), handler, 2); // must re-arm earlier
    Posted next = post(*queue, ms(60), handler, 3);  // must not push the timer back
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ(std::vector<int>{2}, handler->whats());
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    auto calls = handler->calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_GE(calls[0].at, early.earliest);
    EXPECT_EQ(3, calls[1].what);
    EXPECT_GE(calls[1].at, next.earliest);
    EXPECT_EQ(1u, late.id); // ids count from 1, messages and tasks alike
    EXPECT_EQ(4u, queue->postTask([] {}));
    EXPECT_EQ(logs.errors(), 0u);
}

TEST(TimerQueue, CancellingTheFrontRearmsOrDisarmsTheTimer) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    Posted front = post(*queue, ms(20), handler, 1);
    Posted next = post(*queue, ms(150), handler, 2);
    queue->cancelTask(front.id);
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(2000));
    auto calls = handler->calls();
    ASSERT_EQ(1u, calls.size()) << "the first wake-up must be the next entry's";
    EXPECT_EQ(2, calls[0].what);
    EXPECT_GE(calls[0].at, next.earliest);

    // A timer left armed at the cancelled only entry would make the poll report a callback.
    queue->cancelTask(queue->sendMessageDelayed(ms(20), handler, Message(3)));
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(200));
    EXPECT_EQ(1u, handler->calls().size());
    EXPECT_EQ(1, handler->getStrongCount());
}

TEST(TimerQueue, CancelledEntriesAreSkippedAndReleased) {
    const size_t fds = entriesIn("/proc/self/fd");
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder(), gone = new Recorder(), other = new Recorder();
    queue->sendMessageDelayed(ms(5), handler, Message(1));
    const uint64_t id = queue->sendMessageDelayed(ms(10), handler, Message(2));
    queue->sendMessageDelayed(ms(15), handler, Message(1));
    queue->sendMessageDelayed(ms(20), handler, Message(3));
    queue->sendMessageDelayed(ms(8), gone, Message(1));
    queue->sendMessageDelayed(ms(25), gone, Message(2));
    queue->sendMessageDelayed(ms(12), other, Message(1));
    queue->cancelTask(id);
    queue->cancelTask(0);
    queue->cancelTask(id + 1000);
    queue->removeMessages(handler, 1);
    queue->removeMessages(gone);
    sleepMs(40);
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ(std::vector<int>{3}, handler->whats());
    EXPECT_EQ(std::vector<int>{1}, other->whats());
    EXPECT_TRUE(gone->whats().empty());
    EXPECT_EQ(1, handler->getStrongCount());
    EXPECT_EQ(1, gone->getStrongCount());
    EXPECT_GT(TimerQueueTestPeer::keptNodes(*queue), 0u) << "the collected ids' nodes are kept for reuse";
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(50));
    queue.clear();
    EXPECT_EQ(fds, entriesIn("/proc/self/fd")) << "a destroyed queue closes its descriptors";
}

// Runs `body` on its own thread; false if it is still blocked after 5 s (then it is left behind
// with its queue, so that nothing is destroyed under it).
bool finishesInTime(const sp<TimerQueue>& queue, std::function<void()> body) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([done, body] {
        body();
        done->store(true);
    });
    for (int i = 0; i < 500 && !done->load(); i++) sleepMs(10);
    if (done->load()) {
        thread.join();
        return true;
    }
    queue->incStrong(nullptr);
    thread.detach();
    return false;
}

TEST(TimerQueue, AnEntryReleasedByTheQueueMayCallBackIntoIt) {
    sp<TimerQueue> queue = new TimerQueue();
    std::atomic<int> released{0};
    // Captured state whose destructor uses the queue, as a task holding an object may.
    auto callsBack = [&] {
        TimerQueue* q = queue.get();
        return std::shared_ptr<void>(nullptr, [q, &released](void*) {
            q->cancelTask(987654321);
            q->postTaskDelayed(ms(10000), [] {});
            released++;
        });
    };
    ASSERT_TRUE(finishesInTime(queue, [&] {
        // The front entry: dropped at once.
        queue->cancelTask(queue->postTaskDelayed(ms(1000), [state = callsBack()] {}));
        // Behind a due entry, more than fit inline: dropped by the poll.
        queue->postTaskDelayed(ms(1), [] {});
        for (int i = 0; i < 5; i++)
            queue->cancelTask(queue->postTaskDelayed(ms(20), [state = callsBack()] {}));
        sleepMs(40);
        queue->pollOnce(1000); // runs the due task, drops the cancelled ones behind it
    })) << "a release under the queue's mutex deadlocked";
    EXPECT_EQ(6, released.load());
}

void onSignal(int) {}

// A process may have closed stdin: descriptor 0 is then the loop's like any other.
TEST(TimerQueue, DescriptorZeroWorksLikeAnyOther) {
    close(0);
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    queue->sendMessage(handler, Message(1));
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    queue.clear();
    EXPECT_EQ(fcntl(0, F_GETFD), -1) << "closed with the queue";
}

TEST(TimerQueue, WakeAndSignalsEndThePollAsWoken) {
    LogCapture logs;
    errno = 0;
    sp<TimerQueue> queue = new TimerQueue();
    queue->wake();
    queue->wake();
    EXPECT_EQ(TimerQueue::kPollWake, queue->pollOnce(1000));
    EXPECT_EQ(logs.errors(), 0u);
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(50)); // the counter was drained

    struct sigaction action = {};
    action.sa_handler = onSignal;
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
    std::atomic<int> result{0};
    std::thread poller([&] { result = queue->pollOnce(-1); });
    // A signal that lands before the thread blocks is absorbed: repeat.
    for (int i = 0; i < 500 && result.load() == 0; i++) {
        pthread_kill(poller.native_handle(), SIGUSR1);
        sleepMs(10);
    }
    if (result.load() == 0) queue->wake();
    poller.join();
    EXPECT_EQ(TimerQueue::kPollWake, result.load());
}

} // namespace
