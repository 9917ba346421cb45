// Registry behaviour with no boost thread (a service without callback registration), so that
// no posted clean-up runs between the steps of a test.
#include <gtest/gtest.h>

#include "layers/LayerManager.h"
#include "platform/Properties.h"
#include "support/RegistryDriver.h"

using namespace android;
using namespace pelyx_test;

namespace {
using Registry = RegistryTest;
} // namespace

TEST_F(Registry, PeriodicCleanupRunsOnVsyncEveryOneAndAHalfSeconds) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    const int64_t t0 = clock.now();
    lm->onVsync(t0); // first vsync only starts the period
    lm->onVsync(t0 + 3'000 * kMs);
    EXPECT_FALSE(lm->getLayerStatus(1)->active);
    lm->onVsync(t0 + 4'000 * kMs); // within 1.5 s of the last check
    lm->onVsync(t0 + 4'500 * kMs); // exactly 1.5 s is not past it
    EXPECT_TRUE(tracked(1));
    lm->onVsync(t0 + 4'500 * kMs + 1);
    EXPECT_FALSE(tracked(1));
}
