// App-side smart touch: instant buffers after a touch down or up, and MOVE batches held until
// the app's next frame is near. Called on an app's input and render threads: no locks, no
// allocation; state is process-wide relaxed atomics, so a read may lag one event behind.
#define LOG_TAG "Pelyx"

#include <log/log.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>

#include "api/Pelyx.h"
#include "pelyx/pelyx.h"
#include "platform/Clock.h"
#include "platform/PowerBoost.h"
#include "platform/Trace.h"

namespace android {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr int32_t kActionDown = 0;
constexpr int32_t kActionUp = 1;
constexpr int32_t kActionMove = 2;
constexpr int32_t kActionPointerDown = 5;
constexpr int32_t kActionPointerUp = 6;
constexpr int32_t kActionHoverMove = 7;
constexpr int64_t kTouchPauseNs = 300'000'000;
constexpr int64_t kMinQueueHeadroomNs = 1'000'000;
constexpr int64_t kInstantPresentAgoNs = 5'000'000;
constexpr int64_t kMoveMarginNs = 500'000;
constexpr uint32_t kFlagBit5 = 0x20;
constexpr int32_t kTouchPowerBoost = 110;

struct TouchState {
    std::atomic<int32_t> lastAction{-1};
    std::atomic<int64_t> lastDownUpTime{0};
    std::atomic<bool> touchPending{false};
    std::atomic<int64_t> lastPreQueueTime{0};
    std::atomic<bool> enoughHeadroom{false};
    std::atomic<int64_t> lastQueueTime{0};
    std::atomic<int64_t> vsyncTime{0};
    std::atomic<int64_t> lastInputDecisionTime{0};
    std::atomic<int32_t> pendCount{0};
    std::atomic<int64_t> pendStartTime{0};
    std::atomic<int64_t> lastVsyncConsumeTime{0};
};
TouchState gTouch;

bool smartTouchOrMove() {
    return isOn(gEntryFlags.smartTouch) || isOn(gEntryFlags.smartTouchMove);
}

// A trace slice for the enclosing scope, only with the smart-touch trace switch on.
class TouchTrace {
public:
    explicit TouchTrace(const char* name)
          : mOn(isOn(gEntryFlags.trace) && platform::traceGraphicsEnabled()) {
        if (mOn) platform::traceBegin(name);
    }
    ~TouchTrace() {
        if (mOn) platform::traceEnd();
    }
    bool on() const { return mOn; }

private:
    const bool mOn;
};

void emit(const char* name) {
    TouchTrace slice(name);
}

} // namespace

} // namespace android

using namespace android;

extern "C" {

bool aPelyxSmartTouchActive(void) {
    return isOn(gEntryFlags.appSide);
}

void aPelyxQueueBuffer(bool preQueue) {
    if (!smartTouchOrMove()) return;
    TouchTrace slice("aPelyxQueueBuffer");
    const int64_t now = platform::now();
    if (preQueue) {
        gTouch.lastPreQueueTime.store(now, kRelaxed);
        return;
    }
    gTouch.enoughHeadroom.store(now - gTouch.lastPreQueueTime.load(kRelaxed) > kMinQueueHeadroomNs,
                                kRelaxed);
    gTouch.lastQueueTime.store(now, kRelaxed);
    if (isOn(gEntryFlags.smartTouchMove)) {
        if (InGameTracker* tracker = getInGameTracker()) tracker->queueBuffer(now);
    }
}

void aPelyxSetTouchEvent(int action) {
    if (!isOn(gEntryFlags.appSide) || !smartTouchOrMove()) return;
    gTouch.lastAction.store(action, kRelaxed);
    const int64_t now = platform::now();
    switch (action) {
        case kActionDown:
        case kActionPointerDown:
        case kActionUp:
        case kActionPointerUp: {
            // A down or up within 300 ms of the previous one is part of the same gesture.
            if (now - gTouch.lastDownUpTime.load(kRelaxed) > kTouchPauseNs) {
                gTouch.touchPending.store(true, kRelaxed);
                platform::notifyPowerBoost(kTouchPowerBoost);
            }
            gTouch.lastDownUpTime.store(now, kRelaxed);
            const bool down = action == kActionDown || action == kActionPointerDown;
            if (gTouch.touchPending.load(kRelaxed)) {
                emit(down ? "EVENT_ACTION_DOWN" : "EVENT_ACTION_UP");
            } else {
                emit(down ? "skip this DOWN event." : "skip this UP event.");
            }
            break;
        }
        case kActionMove:
        case kActionHoverMove:
            emit("EVENT_ACTION_MOVE");
            if (InGameTracker* tracker = getInGameTracker()) tracker->trackMoveEvent(now);
            break;
        default:
            emit("Unknown");
            break;
    }
}

void aPelyxSetVsyncTime(int64_t vsyncTime) {
    gTouch.vsyncTime.store(vsyncTime, kRelaxed);
}

void aPelyxFilterBuffer(bool* isAutoTimestamp, int64_t* desiredPresentTime, uint32_t* flags) {
    if (!isOn(gEntryFlags.appSide) || !isAutoTimestamp || !desiredPresentTime || !flags) return;
    if (!*isAutoTimestamp) {
        emit("game sets desiredPresentTime itself");
        return;
    }
    *flags &= ~kFlagBit5;
    if (!isOn(gEntryFlags.smartTouch)) return;
    if (gTouch.touchPending.exchange(false, kRelaxed)) {
        if (gTouch.enoughHeadroom.load(kRelaxed)) {
            // A present time in the past: the compositor shows it at the next vsync.
            *isAutoTimestamp = false;
            *desiredPresentTime = platform::now() - kInstantPresentAgoNs;
            TouchTrace slice("aPelyxInstantBuffer true");
            if (isOn(gEntryFlags.trace)) {
                ALOGD("SurfaceFlinger: Smart touch debug: set desiredPresentTime for this frame.");
            }
            return;
        }
        emit("Found touch down/up, but no enough headroom.");
    }
    *isAutoTimestamp = true;
    emit("aPelyxInstantBuffer false");
}

void aPelyxConsumeInputNow(bool* consumeNow) {
    if (!consumeNow || !isOn(gEntryFlags.appSide) || !isOn(gEntryFlags.smartTouchMove)) return;
    InGameTracker* tracker = getInGameTracker();
    const int32_t action = gTouch.lastAction.load(kRelaxed);
    if (!tracker || (action != kActionMove && action != kActionHoverMove)) return;

    const int64_t now = platform::now();
    const int64_t frame = tracker->getFrameInterval();
    const int64_t touch = tracker->getTouchInterval();
    const int64_t lead = frame - (touch + kMoveMarginNs);
    const int64_t vsync = gTouch.vsyncTime.load(kRelaxed);

    TouchTrace slice("aPelyxConsumeInputNow");
    if (slice.on()) {
        char text[64];
        snprintf(text, sizeof(text), "vsync: %" PRId64 ", vsyncTs: %" PRId64 ", touch: %" PRId64,
                 frame, vsync, touch);
        emit(text);
    }

    if (now - gTouch.lastInputDecisionTime.load(kRelaxed) > 2 * frame) {
        emit("consume first MOVE");
        *consumeNow = true;
        gTouch.lastInputDecisionTime.store(now, kRelaxed);
        return;
    }
    if (gTouch.enoughHeadroom.load(kRelaxed)) {
        // Queue path: hold the batch until the next frame is about one MOVE interval away.
        const int32_t pends = gTouch.pendCount.load(kRelaxed);
        if (now - gTouch.lastQueueTime.load(kRelaxed) > lead ||
            (pends > 0 && now - gTouch.pendStartTime.load(kRelaxed) > frame)) {
            emit("consume input now");
            gTouch.pendCount.store(0, kRelaxed);
            *consumeNow = true;
        } else {
            emit("Pre queue buffer: pend input");
            if (pends == 0) gTouch.pendStartTime.store(now, kRelaxed);
            gTouch.pendCount.store(pends + 1, kRelaxed);
            *consumeNow = false;
        }
        gTouch.lastInputDecisionTime.store(now, kRelaxed);
        return;
    }
    // Vsync path.
    if (vsync == 0) return;
    if (now - gTouch.lastVsyncConsumeTime.load(kRelaxed) <= frame && now - vsync <= lead) {
        emit("Pre Vsync: pend input");
        *consumeNow = false;
    } else {
        emit("consume input now");
        *consumeNow = true;
        gTouch.lastVsyncConsumeTime.store(now, kRelaxed);
    }
    gTouch.lastInputDecisionTime.store(now, kRelaxed);
}

} // extern "C"
