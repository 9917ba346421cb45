#pragma once

// Host shape of the service side of the callback interface: what a client derives from. On a
// device the binder NDK backend generates it, with the binder object behind it.

#include <aidl/vendor/tvo/hardware/perf2/IPerfCallback.h>

namespace aidl::vendor::tvo::hardware::perf2 {

class BnPerfCallback : public IPerfCallback {};

} // namespace aidl::vendor::tvo::hardware::perf2
