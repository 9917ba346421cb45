#include "platform/LoopWait.h"

#include <algorithm>
#include <mutex>

#include "platform/common/Kernel.h"
#include "platform/host/VirtualTime.h"

namespace android::platform {
namespace {

// The loop's timer and wake-up on the virtual clock.
class VirtualLoopWait : public LoopWait {
public:
    explicit VirtualLoopWait(host::VirtualTime* time) : mTime(time) {}

    int64_t now() const override { return mTime->now(); }

    void arm(int64_t when) override {
        std::lock_guard<std::mutex> lock(mMutex);
        mWhen = when;
        mTime->setDeadline(this, std::min(when, mLimit));
    }

    void disarm() override {
        std::lock_guard<std::mutex> lock(mMutex);
        mWhen = host::VirtualTime::kNever;
        mTime->setDeadline(this, mLimit);
    }

    void wake() override {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mWoken = true;
        }
        mTime->notify(this, false);
    }

    int wait(int timeoutMillis) override {
        const int64_t start = mTime->now();
        std::unique_lock<std::mutex> lock(mMutex);
        mLimit = timeoutMillis < 0 ? host::VirtualTime::kNever : start + int64_t{timeoutMillis} * 1'000'000;
        for (;;) {
            int seen = 0;
            if (mWoken) seen |= kWake;
            if (mWhen <= mTime->now()) seen |= kTimer;
            if (seen != 0) {
                mWoken = false;
                if (seen & kTimer) mWhen = host::VirtualTime::kNever;  // one-shot, as a timerfd
                return seen;
            }
            if (mLimit <= mTime->now()) return 0;
            const int64_t deadline = std::min(mWhen, mLimit);
            lock.unlock();
            mTime->wait(this, deadline, "timer-queue wait");
            lock.lock();
        }
    }

private:
    host::VirtualTime* const mTime;
    std::mutex mMutex;
    int64_t mWhen = host::VirtualTime::kNever;
    int64_t mLimit = host::VirtualTime::kNever;  // the running wait's time-out
    bool mWoken = false;
};

} // namespace

std::unique_ptr<LoopWait> LoopWait::create() {
    if (host::VirtualTime* time = host::VirtualTime::active()) return std::make_unique<VirtualLoopWait>(time);
    auto wait = std::make_unique<kernel::KernelLoopWait>();
    if (!wait->open()) return nullptr;
    return wait;
}

} // namespace android::platform
