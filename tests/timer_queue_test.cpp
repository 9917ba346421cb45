#include "timer/TimerQueue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/LogCapture.h"

using namespace android;
using pelyx_test::LogCapture;

namespace {

constexpr const char* kTag = "Pelyx.TimerQueue";

int64_t nowNs() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}
constexpr int64_t ms(int64_t v) {
    return v * 1000000;
}
void sleepMs(int v) {
    std::this_thread::sleep_for(std::chrono::milliseconds(v));
}

struct Call {
    int what;
    int64_t at;
};

// Records every message with the time it arrived; optionally runs a hook inside handleMessage
// and reports its own destruction.
class Recorder : public MessageHandler {
public:
    explicit Recorder(std::function<void(const Message&)> hook = {},
                      std::atomic<bool>* destroyed = nullptr)
          : mHook(std::move(hook)), mDestroyed(destroyed) {}

    void handleMessage(const Message& message) override {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mCalls.push_back({message.what, nowNs()});
        }
        if (mHook) mHook(message);
    }
    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mCalls;
    }
    size_t count() const { return calls().size(); }

protected:
    ~Recorder() override {
        if (mDestroyed) *mDestroyed = true;
    }

private:
    mutable std::mutex mLock;
    std::vector<Call> mCalls;
    std::function<void(const Message&)> mHook;
    std::atomic<bool>* mDestroyed;
};

// Polls on the calling thread until `done` holds or `limitMs` of real time passed.
template <typename Done>
void pollUntil(TimerQueue& queue, Done done, int limitMs = 2000) {
    const int64_t end = nowNs() + ms(limitMs);
    while (!done() && nowNs() < end) queue.pollOnce(50);
}

// The earliest time an entry posted between `before` and its return may fire.
struct Posted {
    uint64_t id;
    int64_t earliest;
    int64_t latest;
};
Posted post(TimerQueue& queue, int64_t delay, const sp<MessageHandler>& handler, int what) {
    const int64_t before = nowNs();
    const uint64_t id = queue.sendMessageDelayed(delay, handler, Message(what));
    return {id, before + delay, nowNs() + delay};
}

// A loop thread as the owners run it: poll until the flag drops, woken to stop.
class LoopThread {
public:
    explicit LoopThread(sp<TimerQueue> queue) : mQueue(std::move(queue)) {
        mThread = std::thread([this] {
            while (mRunning.load()) mQueue->pollOnce(-1);
        });
    }
    ~LoopThread() {
        mRunning = false;
        mQueue->wake();
        mThread.join();
    }

private:
    sp<TimerQueue> mQueue;
    std::atomic<bool> mRunning{true};
    std::thread mThread;
};

// --- Time order ----------------------------------------------------------------------------

TEST(TimerQueueOrder, EntriesDueTogetherComeOutInTimeOrderWhateverThePostingOrder) {
    sp<TimerQueue> queue = new TimerQueue();
    ASSERT_TRUE(queue->isInitialized());
    sp<Recorder> handler = new Recorder();
    const int delaysMs[] = {13, 2, 19, 7, 1, 16, 11, 4, 20, 9, 3, 14, 6, 18, 10, 5, 17, 8, 12, 15};
    std::vector<Posted> posted(21);
    for (int d : delaysMs) posted[d] = post(*queue, ms(d), handler, d);

    sleepMs(60); // every entry is due before the first poll
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));

    auto calls = handler->calls();
    ASSERT_EQ(20u, calls.size());
    for (size_t i = 1; i < calls.size(); i++) {
        // Posting takes microseconds, the delays differ by a millisecond: whatever the scheduler
        // did while posting, an entry may only precede one whose time could not be earlier.
        EXPECT_LE(posted[calls[i - 1].what].earliest, posted[calls[i].what].latest)
                << "entry " << calls[i - 1].what << " came before " << calls[i].what;
    }
}

TEST(TimerQueueOrder, EachEntryFiresAtItsTimeNeverEarlier) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    std::vector<Posted> posted(6);
    for (int d : {3, 1, 5, 2, 4}) posted[d] = post(*queue, ms(d * 15), handler, d);

    std::vector<int> results;
    while (handler->count() < 5 && results.size() < 20) results.push_back(queue->pollOnce(2000));

    auto calls = handler->calls();
    ASSERT_EQ(5u, calls.size());
    for (size_t i = 0; i < calls.size(); i++) {
        EXPECT_GE(calls[i].at, posted[calls[i].what].earliest);
        if (i > 0) EXPECT_LE(posted[calls[i - 1].what].earliest, posted[calls[i].what].latest);
    }
    // The timer only fires when something is due.
    for (int r : results) EXPECT_EQ(TimerQueue::kPollCallback, r);
}

TEST(TimerQueueOrder, EntriesDueAtOnceAreAllDispatchedInOnePoll) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    queue->sendMessageDelayed(ms(10), handler, Message(1));
    queue->sendMessageDelayed(ms(10), handler, Message(2));
    sleepMs(40);
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ(2u, handler->count());
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(50));
}

TEST(TimerQueueOrder, NegativeDelayRunsOnTheNextPoll) {
    sp<TimerQueue> queue = new TimerQueue();
    bool ran = false;
    queue->postTaskDelayed(-ms(50), [&ran] { ran = true; });
    const int64_t start = nowNs();
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(5000));
    EXPECT_TRUE(ran);
    EXPECT_LT(nowNs() - start, ms(1000));
}

TEST(TimerQueueOrder, NegativeDelayCountsAsNowNotAsThePast) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    queue->sendMessage(handler, Message(1));
    sleepMs(2);
    queue->sendMessageDelayed(-ms(50), handler, Message(2));
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    auto calls = handler->calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(1, calls[0].what);
    EXPECT_EQ(2, calls[1].what);
}

TEST(TimerQueueOrder, AnEarlierEntryRearmsTheTimer) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    queue->sendMessageDelayed(ms(5000), handler, Message(1));
    Posted early = post(*queue, ms(20), handler, 2);
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    auto calls = handler->calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(2, calls[0].what);
    EXPECT_GE(calls[0].at, early.earliest);
}

TEST(TimerQueueOrder, ALaterEntryDoesNotPushTheTimerBack) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    queue->sendMessageDelayed(ms(30), handler, Message(1));
    queue->sendMessageDelayed(ms(5000), handler, Message(2));
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    auto calls = handler->calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(1, calls[0].what);
}

TEST(TimerQueueOrder, IdsStartAtOneAndAreSharedByMessagesAndTasks) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    EXPECT_EQ(1u, queue->sendMessage(handler, Message(0)));
    EXPECT_EQ(2u, queue->postTask([] {}));
    EXPECT_EQ(3u, queue->sendMessageDelayed(ms(1), handler, Message(0)));
    EXPECT_EQ(4u, queue->postTaskDelayed(ms(1), [] {}));
}

// --- Cancellation --------------------------------------------------------------------------

TEST(TimerQueueCancel, CancellingTheOnlyEntryDisarmsTheTimer) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    uint64_t id = queue->sendMessageDelayed(ms(20), handler, Message(1));
    queue->cancelTask(id);
    // A timer left armed at the cancelled entry would wake the loop for nothing (-2).
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(200));
    EXPECT_EQ(0u, handler->count());
    EXPECT_EQ(1, handler->getStrongCount());
}

TEST(TimerQueueCancel, CancellingTheFrontRearmsAtTheNextEntry) {
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
}

TEST(TimerQueueCancel, AnEntryCancelledBehindTheFrontIsNeverCalledAndIsReleased) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> first = new Recorder();
    sp<Recorder> middle = new Recorder();
    sp<Recorder> last = new Recorder();
    queue->sendMessageDelayed(ms(20), first, Message(1));
    uint64_t id = queue->sendMessageDelayed(ms(60), middle, Message(2));
    queue->sendMessageDelayed(ms(100), last, Message(3));
    queue->cancelTask(id);
    EXPECT_EQ(2, middle->getStrongCount()); // lazy: still in the heap

    pollUntil(*queue, [&] { return last->count() == 1; });
    EXPECT_EQ(1u, first->count());
    EXPECT_EQ(0u, middle->count());
    EXPECT_EQ(1u, last->count());
    EXPECT_EQ(1, middle->getStrongCount());
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(100));
}

TEST(TimerQueueCancel, ACancelledEntryDueWithLiveOnesIsSkipped) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    queue->sendMessageDelayed(ms(5), handler, Message(1));
    uint64_t id = queue->sendMessageDelayed(ms(10), handler, Message(2));
    queue->sendMessageDelayed(ms(15), handler, Message(3));
    queue->cancelTask(id);
    sleepMs(40); // all three due in the same poll
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    auto calls = handler->calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(1, calls[0].what);
    EXPECT_EQ(3, calls[1].what);
    EXPECT_EQ(1, handler->getStrongCount());
}

TEST(TimerQueueCancel, CancellationsFromAnotherThreadAreNotLost) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    std::vector<uint64_t> ids;
    for (int i = 0; i < 40; i++) {
        ids.push_back(queue->sendMessageDelayed(ms(200 + i), handler, Message(i)));
    }
    {
        LoopThread loop(queue);
        std::thread canceller([&] {
            for (int i = 0; i < 40; i += 2) queue->cancelTask(ids[i]);
        });
        canceller.join();
        const int64_t end = nowNs() + ms(3000);
        while (handler->count() < 20 && nowNs() < end) sleepMs(5);
        sleepMs(50);
    }
    auto calls = handler->calls();
    EXPECT_EQ(20u, calls.size());
    for (const Call& c : calls) EXPECT_EQ(1, c.what % 2) << "cancelled entry " << c.what << " ran";
    EXPECT_EQ(1, handler->getStrongCount());
}

TEST(TimerQueueCancel, ZeroUnknownAndStaleIdsAreHarmless) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> handler = new Recorder();
    uint64_t a = queue->sendMessageDelayed(ms(10), handler, Message(1));
    queue->cancelTask(0);
    queue->cancelTask(a + 1000);
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ(1u, handler->count());

    queue->cancelTask(a); // already fired
    queue->sendMessageDelayed(ms(10), handler, Message(2));
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ(2u, handler->count());
}

TEST(TimerQueueCancel, RemoveMessagesDropsEveryEntryOfThatHandlerOnly) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> gone = new Recorder();
    sp<Recorder> kept = new Recorder();
    queue->sendMessageDelayed(ms(10), gone, Message(1));
    queue->sendMessageDelayed(ms(15), kept, Message(1));
    queue->sendMessageDelayed(ms(20), gone, Message(2));
    queue->removeMessages(gone);

    pollUntil(*queue, [&] { return kept->count() == 1; });
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(100));
    EXPECT_EQ(0u, gone->count());
    EXPECT_EQ(1u, kept->count());
    EXPECT_EQ(1, gone->getStrongCount());
}

TEST(TimerQueueCancel, RemoveMessagesWithWhatDropsOnlyMatchingEntriesOfThatHandler) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> target = new Recorder();
    sp<Recorder> other = new Recorder();
    queue->sendMessageDelayed(ms(10), target, Message(1));
    queue->sendMessageDelayed(ms(20), target, Message(2));
    queue->sendMessageDelayed(ms(25), other, Message(1));
    queue->sendMessageDelayed(ms(30), target, Message(1));
    queue->removeMessages(target, 1);

    pollUntil(*queue, [&] { return target->count() == 1 && other->count() == 1; });
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(100));
    auto calls = target->calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(2, calls[0].what);
    ASSERT_EQ(1u, other->count());
    EXPECT_EQ(1, other->calls()[0].what);
}

// --- Handlers using their own queue --------------------------------------------------------

TEST(TimerQueueReentrancy, AHandlerMayPostOnItsOwnQueue) {
    sp<TimerQueue> queue = new TimerQueue();
    bool second = false;
    queue->postTask([&] { queue->postTaskDelayed(ms(5), [&second] { second = true; }); });
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_FALSE(second);
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_TRUE(second);
}

TEST(TimerQueueReentrancy, AHandlerMayCancelAPendingEntry) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> victim = new Recorder();
    uint64_t victimId = queue->sendMessageDelayed(ms(300), victim, Message(1));
    queue->postTaskDelayed(ms(10), [&] { queue->cancelTask(victimId); });
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(500));
    EXPECT_EQ(0u, victim->count());
}

TEST(TimerQueueReentrancy, ACancellationAfterCollectionDoesNotStopTheEntry) {
    sp<TimerQueue> queue = new TimerQueue();
    sp<Recorder> victim = new Recorder();
    uint64_t victimId = 0;
    queue->postTaskDelayed(ms(1), [&] { queue->cancelTask(victimId); });
    victimId = queue->sendMessageDelayed(ms(5), victim, Message(1));
    sleepMs(30); // both due: the poll collects both before running either
    EXPECT_EQ(TimerQueue::kPollCallback, queue->pollOnce(1000));
    EXPECT_EQ(1u, victim->count());
}

// --- Waking --------------------------------------------------------------------------------

TEST(TimerQueueWake, WakeMakesThePollReturnWoken) {
    sp<TimerQueue> queue = new TimerQueue();
    queue->wake();
    queue->wake();
    EXPECT_EQ(TimerQueue::kPollWake, queue->pollOnce(1000));
    EXPECT_EQ(TimerQueue::kPollTimeout, queue->pollOnce(50)); // the counter was drained
}

TEST(TimerQueueWake, WakeFromAnotherThreadEndsAnEndlessPoll) {
    sp<TimerQueue> queue = new TimerQueue();
    std::atomic<int> result{0};
    std::thread poller([&] { result = queue->pollOnce(-1); });
    sleepMs(20);
    queue->wake();
    poller.join();
    EXPECT_EQ(TimerQueue::kPollWake, result.load());
}

void onSignal(int) {}

TEST(TimerQueueWake, ASignalDuringThePollCountsAsAWake) {
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
    sp<TimerQueue> queue = new TimerQueue();
    std::atomic<int> result{0};
    std::thread poller([&] { result = queue->pollOnce(-1); });
    // Repeat: a signal that lands before the thread blocks is simply absorbed.
    for (int i = 0; i < 500 && result.load() == 0; i++) {
        pthread_kill(poller.native_handle(), SIGUSR1);
        sleepMs(10);
    }
    if (result.load() == 0) queue->wake();
    poller.join();
    EXPECT_EQ(TimerQueue::kPollWake, result.load());
}

// --- Lifecycle -----------------------------------------------------------------------------

TEST(TimerQueueLifecycle, DestructionReleasesPendingEntriesWithoutCallingThem) {
    std::atomic<bool> destroyed{false};
    sp<Recorder> handler = new Recorder({}, &destroyed);
    auto token = std::make_shared<int>(0);
    bool taskRan = false;
    {
        sp<TimerQueue> queue = new TimerQueue();
        queue->sendMessageDelayed(ms(10000), handler, Message(1));
        queue->sendMessageDelayed(ms(20000), handler, Message(2));
        queue->postTaskDelayed(ms(10000), [token, &taskRan] { taskRan = true; });
        EXPECT_EQ(3, handler->getStrongCount());
        EXPECT_EQ(2, token.use_count());
    }
    EXPECT_EQ(0u, handler->count());
    EXPECT_FALSE(taskRan);
    EXPECT_EQ(1, handler->getStrongCount());
    EXPECT_EQ(1, token.use_count());
    handler.clear();
    EXPECT_TRUE(destroyed.load());
}

TEST(TimerQueueLifecycle, ALoopThreadRunsTasksPostedFromSeveralThreads) {
    sp<TimerQueue> queue = new TimerQueue();
    std::atomic<int> ran{0};
    {
        LoopThread loop(queue);
        auto poster = [&](int base) {
            for (int i = 0; i < 50; i++) {
                queue->postTaskDelayed(ms((base + i) % 7), [&ran] { ran++; });
            }
        };
        std::thread a(poster, 0), b(poster, 3);
        a.join();
        b.join();
        const int64_t end = nowNs() + ms(3000);
        while (ran.load() < 100 && nowNs() < end) sleepMs(5);
    }
    EXPECT_EQ(100, ran.load());
}

// --- Construction failures -----------------------------------------------------------------

// While alive, every descriptor below a lowered RLIMIT_NOFILE (this process only) is taken except
// the `spare` highest, so a queue built meanwhile fails to open its (spare + 1)-th descriptor.
class DescriptorExhaustion {
public:
    explicit DescriptorExhaustion(int spare) {
        getrlimit(RLIMIT_NOFILE, &mSaved);
        struct rlimit lowered = mSaved;
        lowered.rlim_cur = 256;
        setrlimit(RLIMIT_NOFILE, &lowered);
        int base = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (base < 0) return;
        mFds.push_back(base);
        for (int fd; (fd = fcntl(base, F_DUPFD_CLOEXEC, 0)) >= 0;) mFds.push_back(fd);
        for (int i = 0; i < spare && mFds.size() > 1; i++) {
            mSpare.push_back(mFds.back());
            close(mFds.back());
            mFds.pop_back();
        }
    }
    ~DescriptorExhaustion() {
        for (int fd : mFds) close(fd);
        setrlimit(RLIMIT_NOFILE, &mSaved);
    }
    // The numbers left free, which the queue's descriptors then take.
    const std::vector<int>& spare() const { return mSpare; }

private:
    struct rlimit mSaved = {};
    std::vector<int> mFds;
    std::vector<int> mSpare;
};

// Runs every operation once while descriptors are plentiful: UBSan probes memory through a pipe
// the first time a check meets a type, which would misfire while the queue is being starved.
void warmUpTypeChecks() {
    sp<TimerQueue> queue = new TimerQueue();
    queue->postTask([] {});
    queue->pollOnce(0);
}

sp<TimerQueue> starvedQueue(int spare, std::vector<int>* opened = nullptr) {
    warmUpTypeChecks();
    DescriptorExhaustion exhaustion(spare);
    if (opened) *opened = exhaustion.spare();
    return new TimerQueue();
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The construction step after `spare` successful opens fails: one error line, an inert queue.
void expectInertAfterFailure(int spare, const char* step, int expectedPoll) {
    LogCapture log;
    std::vector<int> opened;
    sp<TimerQueue> queue = starvedQueue(spare, &opened);
    EXPECT_FALSE(queue->isInitialized());
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ(1u, log.count(kTag, ANDROID_LOG_ERROR,
                            std::string(step) + " failed: " + strerror(EMFILE)));
    ASSERT_EQ(static_cast<size_t>(spare), opened.size());
    for (int fd : opened) EXPECT_TRUE(isOpen(fd)) << "descriptors opened before the failure stay";

    sp<Recorder> handler = new Recorder();
    auto token = std::make_shared<int>(0);
    EXPECT_EQ(0u, queue->sendMessage(handler, Message(1)));
    EXPECT_EQ(0u, queue->sendMessageDelayed(-1, handler, Message(1)));
    EXPECT_EQ(0u, queue->postTask([token] {}));
    EXPECT_EQ(0u, queue->postTaskDelayed(ms(1), [token] {}));
    EXPECT_EQ(1, handler->getStrongCount());
    EXPECT_EQ(1, token.use_count()) << "a dropped task is released";
    queue->cancelTask(1);
    queue->removeMessages(handler);
    queue->removeMessages(handler, 1);
    queue->wake();
    EXPECT_EQ(expectedPoll, queue->pollOnce(0));
    EXPECT_EQ(0u, handler->count());

    queue.clear();
    for (int fd : opened) EXPECT_FALSE(isOpen(fd)) << "destruction closes descriptor " << fd;
}

TEST(TimerQueueInitFailure, EpollCreateFailureLeavesAnInertQueueWhosePollFails) {
    expectInertAfterFailure(0, "epoll_create1", TimerQueue::kPollError);
}

TEST(TimerQueueInitFailure, PollWithoutEpollLogsTheError) {
    LogCapture log;
    sp<TimerQueue> queue = starvedQueue(0);
    log.clear();
    EXPECT_EQ(TimerQueue::kPollError, queue->pollOnce(-1));
    EXPECT_EQ(1u, log.count(kTag, ANDROID_LOG_ERROR,
                            std::string("epoll_wait error: ") + strerror(EBADF)));
}

TEST(TimerQueueInitFailure, TimerfdCreateFailureLeavesAnInertQueue) {
    // The epoll descriptor exists but watches nothing: the poll just times out.
    expectInertAfterFailure(1, "timerfd_create", TimerQueue::kPollTimeout);
}

TEST(TimerQueueInitFailure, EventfdFailureLeavesAnInertQueue) {
    expectInertAfterFailure(2, "eventfd", TimerQueue::kPollTimeout);
}

} // namespace
