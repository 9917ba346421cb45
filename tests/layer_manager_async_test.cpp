// Registry behaviour that goes through the boost thread: posted clean-ups, service hints.
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "layers/LayerManager.h"
#include "platform/Properties.h"
#include "support/RegistryDriver.h"

using namespace android;
using namespace pelyx_test;

namespace {
using Registry = RegistryTest;
} // namespace

TEST_F(Registry, FpsModeChangeRunsTheCleanupsOnTheBoostThread) {
    Producer stale{9, k60Hz};
    queue(stale); // a candidate that goes quiet
    clock.advance(2'100 * kMs);
    Producer p{1, k60Hz};
    run({&p}, 2'500 * kMs); // mode 60 at about 1.5 s posts the clean-up task
    ASSERT_EQ(lm->getLayerStatus(1)->fpsMode, 60);
    for (int i = 0; i < 500 && lm->candidateCount() != 0; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(lm->candidateCount(), 0u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Remove candidate layer [9]"), 1u);
}

class BigJank : public RegistryTest {
protected:
    void SetUp() override {
        platform::setProperty("debug.perf.enable_big_jank_detect", "1");
        platform::setProperty("debug.perf.cpu_big_jank_threshold_ms", "50");
        RegistryTest::SetUp();
    }
    size_t hints() {
        size_t n = 0;
        for (const auto& call : perfd_stub::calls()) {
            if (call.fn == "perf_event" && call.ints.at(0) == 4186) n++;
        }
        return n;
    }
};

TEST_F(BigJank, LongFrameOfAModedLayerSendsAHint) {
    EXPECT_EQ(lm->cpuBigJankThresholdMs(), 50);
    Producer p{1, k60Hz};
    run({&p}, 2'000 * kMs);
    ASSERT_EQ(lm->getLayerStatus(1)->fpsMode, 60);
    clock.set(p.next - p.period + 49 * kMs); // 49 ms after the last frame
    queue(p);
    EXPECT_EQ(lm->getLayerStatus(1)->frameInterval, 49 * kMs);
    clock.advance(50 * kMs);
    queue(p);
    // Level 5 goes to the service from the boost thread.
    for (int i = 0; i < 500 && hints() == 0; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(hints(), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_INFO, "Send CPU big jank [com.app1/com.app1.Main#1]."), 1u);
}

TEST_F(BigJank, NoHintWithoutModeOrBelowThirty) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    ASSERT_EQ(lm->getLayerStatus(1)->fpsMode, -1);
    clock.advance(200 * kMs);
    queue(p);
    p.period = 66'666'666; // 15 fps once tracked
    run({&p}, 4'000 * kMs);
    ASSERT_EQ(lm->getLayerStatus(1)->fpsMode, 15);
    clock.advance(200 * kMs);
    queue(p);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(hints(), 0u);
}

