#pragma once

// Internals of the exported entry functions (pelyx.cpp): their process-wide switches, the
// smart-touch property watchers and the app-side tracker.

#include <utils/StrongPointer.h>

#include <atomic>
#include <string>

#include "touch/InGameTracker.h"

namespace android {

// The switches every entry call reads. Written under the start-up mutex (pelyxInit), by
// aPelyxAppInit or by the property watcher threads; read without a lock by compositor and app
// threads, where a value one call stale is fine. Relaxed atomics rather than plain bytes: the
// same single load/store on the device, and ThreadSanitizer stays quiet about the benign race.
struct EntryFlags {
    std::atomic<bool> initialized{false};  // pelyxInit ran with the library enabled
    std::atomic<bool> enabled{false};      // the main switch; gates every forwarding call
    std::atomic<bool> targetFps{false};
    std::atomic<bool> gpuJankDetect{false};
    std::atomic<bool> phr{false};          // quick touch or target fps: headroom wanted
    std::atomic<bool> smartTouch{false};   // "ST"
    std::atomic<bool> trace{false};        // log property changes and smart-touch calls
    std::atomic<bool> smartTouchMove{false}; // "STM"
    std::atomic<bool> appSide{false};      // "STD": aPelyxAppInit ran in this process
};
extern EntryFlags gEntryFlags;

inline bool isOn(const std::atomic<bool>& flag) {
    return flag.load(std::memory_order_relaxed);
}

using PropertyCallback = void (*)(bool);

// Starts a detached thread that sleeps in the property service until `name` reads exactly "1"
// (when it was off at this call) or "0" (when it was on), then calls callback with the new
// state and waits for the opposite text, for the life of the process. Other texts ("true", "false") are not seen until the value becomes "0"
// or "1". Throws std::system_error when the thread cannot be created.
void propertyMonitor(const std::string& name, PropertyCallback callback);

// Watcher callbacks for "debug.vendor.perf.smart_touch" and "debug.vendor.perf.smart_touch.move".
void onSTPropChanged(bool value);
// A false value never destroys the tracker: it lives until the library is unloaded.
void onSTMPropChanged(bool value);

// The app-side tracker, or null until the move switch was seen on (or its allocation failed).
// Lock-free, any thread; once created it lives until the library is unloaded.
InGameTracker* getInGameTracker();

} // namespace android
