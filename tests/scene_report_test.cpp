// The on-screen-apps report: when it is sent and what it holds.
#include <gtest/gtest.h>
#include <json/json.h>

#include "config/FeatureManager.h"
#include "layers/LayerManager.h"
#include "support/RegistryDriver.h"

using namespace android;
using namespace pelyx_test;

namespace {

struct Report {
    int count = -1;
    Json::Value apps;
    std::string text;
};

class SceneReport : public RegistryTest {
protected:
    // Settles the boost thread, then asks for a report. The newest one sent, if any.
    std::optional<Report> report() {
        EXPECT_TRUE(drainBoostThread());
        lm->checkMultiLayer(clock.now());
        std::optional<Report> last;
        for (const auto& call : perfd_stub::calls()) {
            if (call.fn != "perf_event" || call.ints.at(0) != 4194) continue;
            Report r;
            r.text = call.pkg;
            EXPECT_EQ(call.args.size(), 2u);
            EXPECT_EQ(call.args.at(0), 101);
            r.count = call.args.at(1);
            Json::Value root;
            std::string errors;
            std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
            EXPECT_TRUE(reader->parse(r.text.data(), r.text.data() + r.text.size(), &root, &errors))
                    << errors << " in " << r.text;
            EXPECT_LE(r.text.size(), 256u);
            r.apps = root["apps"];
            last = r;
        }
        return last;
    }
};
} // namespace

TEST_F(SceneReport, AFocusMovingToAnotherAppIsReported) {
    Producer a{1, k60Hz}, b{2, k60Hz};
    b.uid = 10'002;
    b.focused = false;
    b.bounds = Rect{0, 0, 1080, 1200};
    run({&a, &b}, 2'200 * kMs);
    ASSERT_TRUE(report().has_value());
    const size_t sent = perfd_stub::countCalls("perf_event");
    a.focused = false;
    b.focused = true;
    run({&a, &b}, 100 * kMs);
    auto r = report();
    EXPECT_GT(perfd_stub::countCalls("perf_event"), sent);
    ASSERT_TRUE(r.has_value());
    for (const auto& app : r->apps) {
        EXPECT_EQ(app.isMember("F"), app["pkg"].asString() == "com.app2") << r->text;
    }
}

TEST_F(SceneReport, AConcurrencyEventReportsOnlyAChangedScene) {
    Producer game{1, k60Hz};
    run({&game}, 2'200 * kMs);
    ASSERT_TRUE(report().has_value());
    const size_t sent = perfd_stub::countCalls("perf_event");
    android::FeatureManager::getInstance()->setCallbackHintValue(4192, "com.app1", 1, 0, {});
    EXPECT_TRUE(lm->hasConcurrencyEvent());
    report(); // the same scene: nothing to send
    EXPECT_EQ(perfd_stub::countCalls("perf_event"), sent);
}

TEST_F(SceneReport, HostileNamesStayValidAndBounded) {
    Producer quotes{1, k60Hz};
    quotes.layerName = std::string("com.\"evil\\\x01\n\x7f\xc3\xa9/x#1");
    run({&quotes}, 2'200 * kMs);
    auto r = report();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->apps[0]["pkg"].asString(), std::string("com.\"evil\\\x01\n\x7f\xc3\xa9"));

    // One app whose entry alone passes the limit is dropped like any last-added group.
    Producer huge{2, k60Hz};
    huge.uid = 10'002;
    huge.layerName = std::string(400, '"') + "\xc3\xa9/x#2";
    quotes.visible = false;
    run({&quotes, &huge}, 2'200 * kMs);
    r = report();
    ASSERT_TRUE(r.has_value());
    EXPECT_TRUE(r->apps.empty());
    EXPECT_GE(logs.count(kTag, ANDROID_LOG_WARN, "JSON length limit reached, drop the last added group"),
              1u);
}
