#include "touch/InGameTracker.h"

namespace android {

InGameTracker::InGameTracker() = default;

} // namespace android
