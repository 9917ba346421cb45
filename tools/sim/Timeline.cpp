#include "Timeline.h"

#include <PerfdControl.h>

#include <string>

#include "pelyx/pelyx.h"
#include "platform/Clock.h"
#include "platform/Properties.h"
#include "platform/Threads.h"
#include "platform/Trace.h"

namespace pelyx_sim {

void setSimProperty(const std::string& key, const std::string& value) {
    if (key.compare(0, 6, "debug.") == 0) {
        android::platform::setProperty(key, value);
    } else {
        perfd_stub::setProp(key, value);
    }
}

Timeline::Timeline(const Scenario& scenario, std::vector<LayerRuntime*> layers, int64_t runStartNs)
      : mActions(planTimeline(scenario)), mLayers(std::move(layers)), mRunStartNs(runStartNs) {}

Timeline::~Timeline() {
    stop();
}

void Timeline::start() {
    mThread.start("sim timeline", [this] { run(); });
}

void Timeline::stop() {
    mStop.stop();
    if (mThread.joinable()) mThread.join();
}

void Timeline::run() {
    android::platform::setThreadName("sim timeline");
    for (const TimedAction& action : mActions) {
        if (mStop.waitUntil(mRunStartNs + action.atNs)) return;
        play(action);
    }
}

LayerRuntime* Timeline::layer(const std::string& label) const {
    for (LayerRuntime* l : mLayers) {
        if (l->setup.label == label) return l;
    }
    return nullptr;
}

void Timeline::play(const TimedAction& action) {
    switch (action.kind) {
        case EventKind::Hint: {
            const HintEvent& h = action.hint;
            if (perfd_stub::pushHint(h.id, h.text, h.value, h.value2, h.values) != 0) {
                ++mRefused;  // no callback registered: the library is off
                return;
            }
            ++mDelivered;
            mConfig.onHint(h);
            for (LayerRuntime* l : mLayers) {
                l->targetFps.store(mConfig.targetFor(l->app.package, l->app.game));
            }
            return;
        }
        case EventKind::Property:
            setSimProperty(action.property.key, action.property.value);
            return;
        case EventKind::Touch:
            touch(action);
            return;
    }
}

void Timeline::touch(const TimedAction& action) {
    LayerRuntime* l = layer(action.layer);
    if (!l) return;
    static constexpr const char* kNames[] = {"touch down", "touch up", "touch move"};
    android::platform::traceBegin(kNames[action.action]);
    bool consumeNow = true;
    if (l->setup.smartTouch) {
        aPelyxSetTouchEvent(action.action);
        if (action.action == kActionMove) {
            // Left unwritten when the library has no opinion: the app consumes at once.
            aPelyxConsumeInputNow(&consumeNow);
            ++(consumeNow ? l->movesConsumedNow : l->movesHeld);
        }
    }
    const int64_t now = android::platform::now();
    l->input.deliver(now);
    if (!consumeNow) l->noteAct(now);
    android::platform::traceEnd();
}

} // namespace pelyx_sim
