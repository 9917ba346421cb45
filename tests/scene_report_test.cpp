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

    static std::vector<std::string> packages(const Report& r) {
        std::vector<std::string> out;
        for (const auto& app : r.apps) out.push_back(app["pkg"].asString());
        return out;
    }
};
} // namespace

TEST_F(SceneReport, OneRepresentativePerUidByAreaThenMode) {
    // The largest layer stands for its app, even against a smaller one at a higher rate.
    Producer small{1, k60Hz}, big{2, 33'333'333}, other{3, 33'333'333};
    small.uid = big.uid = 10'001;
    other.uid = 10'003;
    small.bounds = Rect{0, 0, 500, 500};
    big.bounds = Rect{0, 0, 1080, 2400};
    big.layerName = "com.app1/com.app1.Big#2";
    other.bounds = Rect{100, 200, 600, 1400};
    other.focused = false;
    run({&small, &big, &other}, 2'200 * kMs);
    auto r = report();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->count, 2);
    ASSERT_EQ(r->apps.size(), 2u);
    // The unfocused app comes first.
    const Json::Value& o = r->apps[0];
    EXPECT_EQ(o["pkg"].asString(), "com.app3");
    EXPECT_NEAR(o["fps"].asInt(), 3000, 5);
    EXPECT_EQ(o["M"].asInt(), 30);
    EXPECT_FALSE(o.isMember("F"));
    EXPECT_EQ(o["l"].asInt(), 100);
    EXPECT_EQ(o["t"].asInt(), 200);
    EXPECT_EQ(o["r"].asInt(), 600);
    EXPECT_EQ(o["b"].asInt(), 1400);
    EXPECT_EQ(o["W"].asInt(), 2);
    const Json::Value& b = r->apps[1];
    EXPECT_EQ(b["pkg"].asString(), "com.app1");
    EXPECT_EQ(b["F"].asInt(), 1);
    EXPECT_FALSE(b.isMember("l") || b.isMember("t") || b.isMember("W"));
    EXPECT_EQ(b["r"].asInt(), 1080);
    EXPECT_EQ(b["b"].asInt(), 2400);
    EXPECT_EQ(b["M"].asInt(), 30);

    // Equal areas: the higher fps mode represents the app.
    small.bounds = big.bounds;
    small.period = k60Hz;
    big.period = 33'333'333;
    run({&small, &big, &other}, 3'500 * kMs);
    r = report();
    ASSERT_TRUE(r.has_value());
    ASSERT_EQ(r->apps.size(), 2u);
    EXPECT_EQ(r->apps[1]["M"].asInt(), 60);
}

TEST_F(SceneReport, SentOnlyWhenSomethingChanged) {
    Producer p{1, k60Hz};
    run({&p}, 2'200 * kMs);
    ASSERT_TRUE(report().has_value());
    perfd_stub::clearCalls();
    EXPECT_FALSE(report().has_value());
    p.bounds = Rect{0, 0, 1080, 1200};
    run({&p}, 100 * kMs);
    auto r = report();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->apps[0]["W"].asInt(), 2);
}

TEST_F(SceneReport, FullScreenVersusWindowed) {
    EXPECT_EQ(lm->getWindowType(Rect{0, 0, 1080, 2300}), 0);
    EXPECT_EQ(lm->getWindowType(Rect{0, 0, 2400, 1080}), 0) << "orientation does not matter";
    EXPECT_EQ(lm->getWindowType(Rect{0, 0, 918, 2040}), 0) << "0.85 of each side is full screen";
    EXPECT_EQ(lm->getWindowType(Rect{0, 0, 1080, 1200}), 2);
    EXPECT_EQ(lm->getWindowType(Rect{0, 0, 900, 2400}), 2);
    EXPECT_EQ(lm->getWindowType(Rect::INVALID_RECT), 0);
    // The display's size unknown, then one pixel wide or tall, which is a size.
    using Size = std::pair<int, int>;
    for (auto [w, h] : {Size{0, 2400}, Size{1080, 0}, Size{1080, 1}, Size{1, 1080}}) {
        lm->stop();
        lm->init(false, w, h);
        EXPECT_EQ(lm->getWindowType(Rect{0, 0, 500, 1}), w * h == 0 ? 0 : 2) << w << "x" << h;
    }
}

TEST_F(SceneReport, InvisibleLayerIsNeverReportedNorLowLatency) {
    perfd_stub::setGame("com.app1", true);
    perfd_stub::setGame("com.app2", true);
    Producer hidden{1, k60Hz}, shown{2, k60Hz};
    hidden.visible = false;
    shown.uid = 10'002;
    shown.pid = 1; // the lowest real pid
    run({&hidden, &shown}, 2'200 * kMs);
    auto r = report();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(packages(*r), (std::vector<std::string>{"com.app2"}));
    EXPECT_EQ(r->count, 1);
    EXPECT_EQ(lm->lowLatencyPid(), shown.pid);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "SetLowLatency true for pid=1"), 1u);

    // The game goes; nobody qualifies and the lock is released.
    shown.visible = false;
    run({&hidden, &shown}, 100 * kMs);
    report();
    EXPECT_EQ(lm->lowLatencyPid(), -1);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "SetLowLatency false for pid=1"), 1u);
}

// A layer whose name carries no package takes its uid's once that app is known, even after it
// was seen and passed over without one.
TEST_F(SceneReport, ANamelessLayerBorrowsItsUidsKnownPackage) {
    perfd_stub::setGame("com.app1", true);
    Producer app{1, k60Hz}, bare{2, k60Hz};
    app.uid = bare.uid = 1; // the lowest uid that counts
    bare.layerName = "Bare#2";
    queue(bare);
    run({&app}, 2'200 * kMs);
    ASSERT_TRUE(report().has_value()); // classified by now
    run({&app, &bare}, 2'200 * kMs);
    ASSERT_TRUE(tracked(2));
    EXPECT_EQ(lm->getLayer(2)->mPackageName, "com.app1");
    EXPECT_TRUE(lm->getLayer(2)->mIsGame) << "and what is known of the app";
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
