#pragma once

// Drives LayerManager the way a compositor does: apps queue at fixed rates on a manual clock and
// each frame is latched right away unless a test says otherwise.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "PerfdControl.h"
#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

namespace pelyx_test {

constexpr const char* kTag = "Pelyx.LayerManager";
constexpr int64_t kMs = 1'000'000;
constexpr int64_t k60Hz = 16'666'666;

// One app drawing into one layer at a fixed rate; every frame is latched right away.
struct Producer {
    int32_t id;
    int64_t period;
    int32_t uid = 10'000;
    bool focused = true;
    bool visible = true;
    bool latch = true;
    int64_t next = 0;
    int32_t pid = 1000 + id;
    android::Rect bounds{0, 0, 1080, 2400};
    std::string layerName = std::string(); // empty: "com.app<id>/com.app<id>.Main#<id>"

    std::string name() const {
        if (!layerName.empty()) return layerName;
        return "com.app" + std::to_string(id) + "/com.app" + std::to_string(id) + ".Main#" +
               std::to_string(id);
    }
};

class RegistryTest : public testing::Test {
protected:
    void SetUp() override {
        perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
        lm = android::LayerManager::getInstance();
        lm->init(false, 1080, 2400);
        lm->setVsyncPeriod(k60Hz);
    }

    void queue(Producer& p) {
        lm->onBufferIncrement(p.name(), p.id, p.pid, p.uid, clock.now(), false, 0);
        if (p.latch) lm->onBufferDecrement(p.name(), p.id, 0, p.bounds, p.focused, p.visible);
    }

    // Plays the producers for `duration` on the manual clock, each frame at its exact time.
    void run(std::vector<Producer*> producers, int64_t duration) {
        const int64_t end = clock.now() + duration;
        for (Producer* p : producers) {
            if (p->next < clock.now()) p->next = clock.now();
        }
        while (true) {
            Producer* due = *std::min_element(producers.begin(), producers.end(),
                                              [](auto* a, auto* b) { return a->next < b->next; });
            if (due->next >= end) break;
            clock.set(due->next);
            queue(*due);
            due->next += due->period;
        }
        clock.set(end);
    }

    bool tracked(int32_t id) { return lm->getLayerStatus(id).has_value(); }

    // Waits until every task posted to the boost thread so far has run: a marker due 1 ms
    // later than anything already queued runs last. False without a boost thread.
    bool drainBoostThread() {
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> ran = done->get_future();
        if (android::PerfProxy::getInstance()->postTaskDelayed(1'000'000, [done] {
                done->set_value();
            }) == 0) {
            return false;
        }
        return ran.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }

    ManualClock clock;
    LogCapture logs;
    android::LayerManager* lm = nullptr;
};
} // namespace pelyx_test
