#pragma once

// The timeline thread: plays the scenario's timed actions. As the performance service's binder
// thread it pushes configuration hints through the library's registered callback; as the
// property service it changes properties; as each app's input thread it delivers touch events,
// through the app-side smart-touch functions for layers that ask for them.

#include <atomic>
#include <cstdint>
#include <vector>

#include "BufferQueue.h"
#include "LayerRuntime.h"
#include "Scenario.h"
#include "TimelinePlan.h"
#include "platform/Thread.h"

namespace pelyx_sim {

// Sets a property where the library reads it: "debug." properties in the platform's store,
// every other one in the performance-service client's answers.
void setSimProperty(const std::string& key, const std::string& value);

class Timeline {
public:
    Timeline(const Scenario& scenario, std::vector<LayerRuntime*> layers, int64_t runStartNs);
    ~Timeline();

    void start();
    // Returns once the thread has ended; later actions are not played.
    void stop();

    // Read after stop().
    int hintsDelivered() const { return mDelivered; }
    int hintsRefused() const { return mRefused; }
    const ServiceConfig& config() const { return mConfig; }

private:
    void run();
    void play(const TimedAction& action);
    void touch(const TimedAction& action);
    LayerRuntime* layer(const std::string& label) const;

    const std::vector<TimedAction> mActions;
    const std::vector<LayerRuntime*> mLayers;
    const int64_t mRunStartNs;
    StopSignal mStop;
    ServiceConfig mConfig;
    int mDelivered = 0;
    int mRefused = 0;
    android::platform::Thread mThread;
};

} // namespace pelyx_sim
