#pragma once

#include <utils/LightRefBase.h>

namespace android {

// The app process's measure of its own frame interval and of the interval between touch MOVE
// events, which decides when a MOVE batch is handed to the app. One per process, created when
// the smart-touch move switch is first seen on and kept until the library is unloaded; held
// through sp<> by the entry module.
class InGameTracker : public LightRefBase<InGameTracker> {
public:
    InGameTracker();
};

} // namespace android
