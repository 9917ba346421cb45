// The host's virtual clock: the turn order, the clock's jumps, the seams that wait on it, the
// wake-up latency's generators, and the two ways a run ends instead of hanging. Each case starts
// the clock in its own process (the clock lasts as long as the process).

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Condition.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "platform/Thread.h"
#include "timer/TimerQueue.h"

using namespace android;
using VThread = platform::Thread;

namespace {

constexpr int64_t kMs = 1'000'000;

// What happened, in the order it happened, with the virtual time since the start.
class Journal {
public:
    Journal() : mStart(platform::waitClockNow()) {}
    void note(const std::string& what) {
        std::lock_guard<std::mutex> lock(mMutex);
        mEntries.push_back(what + "@" + std::to_string((platform::waitClockNow() - mStart) / 1000) + "us");
    }
    std::vector<std::string> entries() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEntries;
    }

private:
    const int64_t mStart;
    std::mutex mMutex;
    std::vector<std::string> mEntries;
};

void startClock(double watchdogS = 10) {
    platform::host::VirtualTimeOptions options;
    options.watchdogS = watchdogS;
    platform::host::startVirtualTime(std::move(options));
}

TEST(VirtualTime, ThreadsTakeTurnsByWakeTimeThenStartOrderAndTheClockJumpsToTheNextDeadline) {
    startClock();
    Journal journal;
    VThread a, b, c;
    a.start("a", [&] { journal.note("a runs"); platform::sleepFor(5 * kMs); journal.note("a wakes"); });
    b.start("b", [&] { journal.note("b runs"); platform::sleepUntil(platform::waitClockNow() + 5 * kMs); journal.note("b wakes"); });
    c.start("c", [&] { journal.note("c runs"); platform::sleepFor(2 * kMs); journal.note("c wakes"); });
    journal.note("main starts them");
    c.join();
    journal.note("main joined c");
    a.join();
    b.join();
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{
            "main starts them@0us", "a runs@0us", "b runs@0us", "c runs@0us", "c wakes@2000us",
            "main joined c@2000us", "a wakes@5000us", "b wakes@5000us"}));
}

TEST(VirtualTime, ASignalWakesTheLongestWaiterAndATimedWaitEndsOnItsDeadline) {
    startClock();
    Journal journal;
    Mutex mutex;
    platform::Condition condition;
    auto waiter = [&](const char* name, int64_t timeout) {
        return [&, name, timeout] {
            Mutex::Autolock lock(mutex);
            if (timeout > 0) {
                condition.waitRelative(mutex, timeout);
            } else {
                condition.wait(mutex);
            }
            journal.note(name);
        };
    };
    VThread first, second, timed;
    first.start("first", waiter("first", 0));
    second.start("second", waiter("second", 0));
    timed.start("timed", waiter("timed", 3 * kMs));
    platform::sleepFor(1 * kMs);
    condition.signal();
    platform::sleepFor(4 * kMs);
    {
        Mutex::Autolock lock(mutex);
        condition.broadcast();
    }
    first.join();
    second.join();
    timed.join();
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"first@1000us", "timed@3000us", "second@5000us"}));
}

TEST(VirtualTime, TheTimerQueueDispatchesEachEntryAtItsTimeWhoeverArmsIt) {
    startClock();
    Journal journal;
    sp<TimerQueue> queue = new TimerQueue();
    std::atomic<bool> stop{false};
    VThread loop;
    loop.start("loop", [&] {
        while (!stop.load()) queue->pollOnce(-1);
    });
    queue->postTaskDelayed(3 * kMs, [&] { journal.note("3 ms"); });
    queue->postTaskDelayed(1 * kMs, [&] {
        journal.note("1 ms");
        queue->postTaskDelayed(5 * kMs, [&] { journal.note("1+5 ms"); });
    });
    platform::sleepFor(2 * kMs);
    // The loop now waits for the 3 ms entry: an earlier one from another thread moves its wait.
    queue->postTaskDelayed(kMs / 2, [&] { journal.note("2.5 ms"); });
    platform::sleepFor(10 * kMs);
    stop.store(true);
    queue->wake();
    loop.join();
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"1 ms@1000us", "2.5 ms@2500us", "3 ms@3000us",
                                                          "1+5 ms@6000us"}));
}

TEST(VirtualTime, APropertyWaitEndsOnASetOrOnItsTimeOut) {
    startClock();
    Journal journal;
    VThread timed, forever;
    timed.start("timed", [&] {
        uint32_t serial = platform::propertySerial("debug.test.p");
        const bool changed = platform::waitForPropertyChange("debug.test.p", &serial, std::chrono::milliseconds(4));
        journal.note(changed ? "changed" : "timed out");
    });
    forever.start("forever", [&] {
        platform::waitForProperty("debug.test.p", "1");
        journal.note("set to 1");
    });
    platform::sleepFor(7 * kMs);
    platform::setProperty("debug.test.p", "1");
    timed.join();
    forever.join();
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"timed out@4000us", "set to 1@7000us"}));
}

// A thread's wake times in a child process: `withOther` adds a thread, started after it, that
// wakes at other times. The latency is drawn with each thread's own generator.
std::vector<int64_t> wakeTimes(bool withOther) {
    int fds[2];
    if (pipe(fds) != 0) return {};
    const pid_t pid = fork();
    if (pid == 0) {
        platform::host::VirtualTimeOptions options;
        options.seed = 7;
        options.wakeupLatencyNs = [](std::mt19937_64& random) { return static_cast<int64_t>(random() % 500'000); };
        platform::host::startVirtualTime(std::move(options));
        std::vector<int64_t> times;
        VThread measured, other;
        measured.start("measured", [&] {
            for (int i = 0; i < 10; i++) {
                platform::sleepFor(kMs);
                times.push_back(platform::waitClockNow());
            }
        });
        if (withOther) other.start("other", [] { for (int i = 0; i < 25; i++) platform::sleepFor(kMs / 3); });
        measured.join();
        if (withOther) other.join();
        (void)!write(fds[1], times.data(), times.size() * sizeof(int64_t));
        _exit(0);
    }
    close(fds[1]);
    std::vector<int64_t> times(10);
    const ssize_t n = read(fds[0], times.data(), times.size() * sizeof(int64_t));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    times.resize(n > 0 ? static_cast<size_t>(n) / sizeof(int64_t) : 0);
    return times;
}

TEST(VirtualTime, EachThreadDrawsItsWakeUpLatencyFromItsOwnGenerator) {
    const std::vector<int64_t> alone = wakeTimes(false);
    ASSERT_EQ(alone.size(), 10u);
    EXPECT_EQ(alone, wakeTimes(true)) << "another thread shifted this one's draws";
    // Each wake-up came late by a latency of its own.
    EXPECT_GT(alone[9] - alone[0], 9 * kMs);
    EXPECT_NE(alone[1] - alone[0], alone[2] - alone[1]);
}

TEST(VirtualTimeDeathTest, EveryThreadWaitingWithoutADeadlineEndsTheRun) {
    EXPECT_EXIT(
            {
                startClock();
                Mutex mutex;
                platform::Condition condition;
                VThread idle;
                idle.start("idle", [&] { platform::waitForProperty("debug.test.never", "1"); });
                Mutex::Autolock lock(mutex);
                condition.wait(mutex);
            },
            testing::ExitedWithCode(1),
            "virtual time: every thread waits and none has a deadline: \"main\" at condition wait, "
            "\"idle\" at property wait");
}

TEST(VirtualTimeDeathTest, AThreadBlockedOutsideTheSeamsEndsTheRunWithTheWatchdogsLine) {
    EXPECT_EXIT(
            {
                startClock(0.3);
                std::mutex lock;
                lock.lock();
                VThread blocker;
                blocker.start("blocker", [&] {
                    platform::sleepFor(kMs);
                    lock.lock();  // held by main, which waits on the clock meanwhile
                });
                platform::sleepFor(2 * kMs);
            },
            testing::ExitedWithCode(1),
            "virtual time: watchdog: thread \"blocker\" has held the turn for 0.3 s of real time "
            "without reaching a wait of the virtual clock: it is blocked in the kernel at .* since its "
            "last wait at sleep");
}

} // namespace
