// Layer names are chosen by apps: classification must stay bounded and agree with itself on any
// bytes (no crash, no runaway time or memory in the expression engine).
#include <cstdlib>

#include "FuzzSupport.h"
#include "perf/PerfProxy.h"

using android::PerfProxy;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pelyx_fuzz::silenceLogs();
    PerfProxy::getInstance();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), size);
    PerfProxy* perf = PerfProxy::getInstance();
    const std::string pkg = perf->getPackageName(name);
    // A package is always a piece of the name (or the keyboard's fixed name).
    if (!pkg.empty() && pkg != "UnknownKeyboard" && name.find(pkg) == std::string::npos) abort();
    if (pkg.find('/') != std::string::npos) abort();
    const std::string tag = perf->getLayerSceneTag(pkg, name);
    if (!tag.empty() && tag != "minigame") abort();
    // The same name always gives the same package.
    if (perf->getPackageName(name) != pkg) abort();
    return 0;
}
