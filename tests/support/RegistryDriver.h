#pragma once

// Drives LayerManager the way a compositor does: apps queue at fixed rates on a manual clock and
// each frame is latched right away unless a test says otherwise.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "PerfdControl.h"
#include "layers/LayerManager.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

namespace pelyx_test {

// One app drawing into one layer at a fixed rate; every frame is latched right away.
struct Producer {
    int32_t id;
    int64_t period;
    int32_t uid = 10'000;
    bool focused = true;
    bool visible = true;
    bool latch = true;
    int64_t next = 0;

    std::string name() const {
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
        lm->setVsyncPeriod(16'666'666);
    }

    void queue(Producer& p) {
        lm->onBufferIncrement(p.name(), p.id, 1000 + p.id, p.uid, clock.now(), false, 0);
        if (p.latch) {
            lm->onBufferDecrement(p.name(), p.id, 0, android::Rect{0, 0, 1080, 2400}, p.focused, p.visible);
        }
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

    std::vector<std::vector<int>> fpsModeEvents() {
        std::vector<std::vector<int>> events;
        for (const auto& call : perfd_stub::calls()) {
            if (call.fn == "perf_event" && call.ints.at(0) == 4196) events.push_back(call.args);
        }
        return events;
    }

    ManualClock clock;
    LogCapture logs;
    android::LayerManager* lm = nullptr;
};
} // namespace pelyx_test
