// TimerQueue against libutils' Looper: the cost of scheduling and cancelling one message with many
// already pending, and how late a delayed message is dispatched by a dedicated polling thread.

#include <benchmark/benchmark.h>
#include <utils/Looper.h>
#include <utils/Timers.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "timer/TimerQueue.h"

using namespace android;

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kFarAway = 3600LL * 1000 * kMs; // pending entries sit an hour ahead
constexpr int64_t kSoon = 1000 * kMs;             // the benchmarked entry goes to the front

int64_t nowNs() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

class NopHandler : public MessageHandler {
public:
    void handleMessage(const Message&) override {}
};

// Filled once per size and kept for the process: filling a Looper is quadratic.
sp<TimerQueue> filledQueue(int pending) {
    static std::map<int, sp<TimerQueue>> cache;
    sp<TimerQueue>& queue = cache[pending];
    if (queue == nullptr) {
        queue = new TimerQueue();
        sp<MessageHandler> filler = new NopHandler();
        for (int i = 0; i < pending; i++) {
            queue->sendMessageDelayed(kFarAway + i, filler, Message(i));
        }
    }
    return queue;
}

sp<Looper> filledLooper(int pending) {
    static std::map<int, sp<Looper>> cache;
    sp<Looper>& looper = cache[pending];
    if (looper == nullptr) {
        looper = new Looper(false);
        sp<MessageHandler> filler = new NopHandler();
        for (int i = 0; i < pending; i++) {
            looper->sendMessageDelayed(kFarAway + i, filler, Message(i));
        }
    }
    return looper;
}

void BM_TimerQueue_ScheduleCancel(benchmark::State& state) {
    sp<TimerQueue> queue = filledQueue(static_cast<int>(state.range(0)));
    sp<MessageHandler> handler = new NopHandler();
    for (auto _ : state) {
        uint64_t id = queue->sendMessageDelayed(kSoon, handler, Message(1));
        queue->cancelTask(id);
    }
}
BENCHMARK(BM_TimerQueue_ScheduleCancel)->Arg(10)->Arg(1000)->Arg(100000);

void BM_TimerQueue_PostTaskCancel(benchmark::State& state) {
    sp<TimerQueue> queue = filledQueue(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        uint64_t id = queue->postTaskDelayed(kSoon, [] {});
        queue->cancelTask(id);
    }
}
BENCHMARK(BM_TimerQueue_PostTaskCancel)->Arg(10)->Arg(1000)->Arg(100000);

void BM_TimerQueue_ScheduleRemoveMessages(benchmark::State& state) {
    sp<TimerQueue> queue = filledQueue(static_cast<int>(state.range(0)));
    sp<MessageHandler> handler = new NopHandler();
    for (auto _ : state) {
        queue->sendMessageDelayed(kSoon, handler, Message(1));
        queue->removeMessages(handler);
    }
}
BENCHMARK(BM_TimerQueue_ScheduleRemoveMessages)->Arg(10)->Arg(1000)->Arg(100000);

void BM_Looper_ScheduleCancel(benchmark::State& state) {
    sp<Looper> looper = filledLooper(static_cast<int>(state.range(0)));
    sp<MessageHandler> handler = new NopHandler();
    for (auto _ : state) {
        looper->sendMessageDelayed(kSoon, handler, Message(1));
        looper->removeMessages(handler);
    }
}
BENCHMARK(BM_Looper_ScheduleCancel)->Arg(10)->Arg(1000)->Arg(100000);

// Records how late each message arrived against the time it was asked for.
class LatenessProbe : public MessageHandler {
public:
    void expect(int64_t requested) {
        std::lock_guard<std::mutex> lock(mLock);
        mRequested = requested;
        mArrived = false;
    }
    void handleMessage(const Message&) override {
        const int64_t at = nowNs();
        std::lock_guard<std::mutex> lock(mLock);
        mSamples.push_back(at - mRequested);
        mArrived = true;
        mCondition.notify_all();
    }
    void waitArrived() {
        std::unique_lock<std::mutex> lock(mLock);
        mCondition.wait(lock, [this] { return mArrived; });
    }
    void report(benchmark::State& state) {
        std::lock_guard<std::mutex> lock(mLock);
        if (mSamples.empty()) return;
        std::sort(mSamples.begin(), mSamples.end());
        auto percentile = [this](double p) {
            size_t index = static_cast<size_t>(p * static_cast<double>(mSamples.size() - 1) + 0.5);
            return static_cast<double>(mSamples[index]) / 1000.0;
        };
        state.counters["p50_us"] = percentile(0.50);
        state.counters["p99_us"] = percentile(0.99);
        state.counters["max_us"] = static_cast<double>(mSamples.back()) / 1000.0;
    }

private:
    std::mutex mLock;
    std::condition_variable mCondition;
    int64_t mRequested = 0;
    bool mArrived = false;
    std::vector<int64_t> mSamples;
};

// One message at a time, so each sample sees an idle loop blocked in its poll.
template <typename Poll, typename Wake, typename Send>
void runLateness(benchmark::State& state, Poll poll, Wake wake, Send send) {
    const int64_t delay = state.range(0) * kMs;
    sp<LatenessProbe> probe = new LatenessProbe();
    std::atomic<bool> running{true};
    std::thread loop([&] {
        while (running.load()) poll();
    });
    for (auto _ : state) {
        probe->expect(nowNs() + delay);
        send(delay, probe);
        probe->waitArrived();
    }
    running = false;
    wake();
    loop.join();
    probe->report(state);
}

void BM_TimerQueue_Lateness(benchmark::State& state) {
    sp<TimerQueue> queue = new TimerQueue();
    runLateness(
            state, [&] { queue->pollOnce(-1); }, [&] { queue->wake(); },
            [&](int64_t delay, const sp<MessageHandler>& h) {
                queue->sendMessageDelayed(delay, h, Message(0));
            });
}

void BM_Looper_Lateness(benchmark::State& state) {
    sp<Looper> looper = new Looper(false);
    runLateness(
            state, [&] { looper->pollOnce(-1); }, [&] { looper->wake(); },
            [&](int64_t delay, const sp<MessageHandler>& h) {
                looper->sendMessageDelayed(delay, h, Message(0));
            });
}

// About one second of samples per delay (at least 50).
void latenessArgs(benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}
BENCHMARK(BM_TimerQueue_Lateness)->Apply(latenessArgs)->Arg(1)->Iterations(1000);
BENCHMARK(BM_TimerQueue_Lateness)->Apply(latenessArgs)->Arg(5)->Iterations(200);
BENCHMARK(BM_TimerQueue_Lateness)->Apply(latenessArgs)->Arg(10)->Iterations(100);
BENCHMARK(BM_TimerQueue_Lateness)->Apply(latenessArgs)->Arg(20)->Iterations(50);
BENCHMARK(BM_Looper_Lateness)->Apply(latenessArgs)->Arg(1)->Iterations(1000);
BENCHMARK(BM_Looper_Lateness)->Apply(latenessArgs)->Arg(5)->Iterations(200);
BENCHMARK(BM_Looper_Lateness)->Apply(latenessArgs)->Arg(10)->Iterations(100);
BENCHMARK(BM_Looper_Lateness)->Apply(latenessArgs)->Arg(20)->Iterations(50);

} // namespace
