// Hints arrive from another process through the registered callback: every id, text, value and
// vector must be taken or refused without a crash, and the tables must stay bounded.
#include <cstdlib>

#include "FuzzSupport.h"
#include "PerfdControl.h"
#include "config/FeatureManager.h"
#include "perf/PerfProxy.h"
#include "perf/TFPSCallback.h"

using namespace android;

namespace {
constexpr int kHintIds[] = {4171, 4187, 4189, 4192};
const char* const kPackages[] = {"", "com.a", "com.b", "com.c", "com.d", "com.e",
                                 "vn-core-thermalCallbackHandler"};
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pelyx_fuzz::silenceLogs();
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
    FeatureManager::getInstance();
    PerfProxy::getInstance()->perfCallbackRegister(
            ndk::SharedRefBase::make<aidl::vendor::tvo::hardware::perf2::TFPSCallback>(), 4);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    pelyx_fuzz::Input in(data, size);
    while (true) {
        const uint8_t selector = in.take<uint8_t>();
        const int hintId = selector < 200 ? kHintIds[selector % 4] : in.take<int>();
        std::string text = in.takeString();
        // Often use a known package so that tables fill up and evict.
        if (selector & 0x10) text = kPackages[selector % 7] + text.substr(0, text.size() % 3);
        const int value = in.take<int>();
        const int value2 = in.take<int>();
        const std::vector<int> values = in.takeInts(64);
        perfd_stub::pushHint(hintId, text, value, value2, values);
        perfd_stub::clearCalls(); // keep the stand-in's call log from growing across runs
        if (in.take<uint8_t>() == 0) break;
    }
    FeatureManager* fm = FeatureManager::getInstance();
    // Tables never hold more than four entries; probe them through the lookups.
    int found = 0;
    for (const char* pkg : kPackages) found += fm->getTfpsConfig(pkg, false).has_value();
    if (found > 4) abort();
    return 0;
}
