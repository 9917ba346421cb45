#include <gtest/gtest.h>
#include <json/json.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <thread>

#include "platform/CallingIdentity.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "platform/Trace.h"
#include "support/ManualClock.h"

using namespace android::platform;
using namespace std::chrono_literals;

TEST(Properties, ReadsWithDeviceSemantics) {
    EXPECT_EQ(getProperty("p.unset", "dflt"), "dflt");
    ASSERT_TRUE(setProperty("p.empty", ""));
    EXPECT_EQ(getProperty("p.empty", "dflt"), "dflt");

    for (const char* v : {"1", "y", "yes", "on", "true"}) {
        ASSERT_TRUE(setProperty("p.bool", v));
        EXPECT_TRUE(getBoolProperty("p.bool", false)) << v;
    }
    for (const char* v : {"0", "n", "no", "off", "false"}) {
        ASSERT_TRUE(setProperty("p.bool", v));
        EXPECT_FALSE(getBoolProperty("p.bool", true)) << v;
    }
    ASSERT_TRUE(setProperty("p.bool", "maybe"));
    EXPECT_TRUE(getBoolProperty("p.bool", true));
    EXPECT_FALSE(getBoolProperty("p.bool", false));

    ASSERT_TRUE(setProperty("p.int", "-42"));
    EXPECT_EQ(getIntProperty("p.int", 7), -42);
    EXPECT_EQ(getIntProperty("p.int", 7, 0, 100), 7);
    ASSERT_TRUE(setProperty("p.int", "12x"));
    EXPECT_EQ(getIntProperty("p.int", 7), 7);
}

TEST(Properties, EnforcesValueLimitAndReadOnly) {
    EXPECT_TRUE(setProperty("p.long", std::string(kPropValueMax - 1, 'a')));
    EXPECT_FALSE(setProperty("p.long", std::string(kPropValueMax, 'a')));
    EXPECT_EQ(getProperty("p.long", "").size(), kPropValueMax - 1);

    EXPECT_TRUE(setProperty("ro.p", "first"));
    EXPECT_FALSE(setProperty("ro.p", "second"));
    EXPECT_EQ(getProperty("ro.p", ""), "first");
}

TEST(Properties, SetWakesExactValueWaiter) {
    std::atomic<bool> woke{false};
    std::thread waiter([&] {
        woke = waitForProperty("p.wait", "1", 10s);
    });
    std::this_thread::sleep_for(20ms);
    ASSERT_TRUE(setProperty("p.wait", "true")); // not the exact text: keeps waiting
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(woke.load());
    ASSERT_TRUE(setProperty("p.wait", "1"));
    waiter.join();
    EXPECT_TRUE(woke.load());
    EXPECT_FALSE(waitForProperty("p.wait", "0", 10ms));
}

TEST(Properties, SetWakesChangeWaiterEvenWithSameValue) {
    ASSERT_TRUE(setProperty("p.serial", "5"));
    uint32_t serial = propertySerial("p.serial");
    EXPECT_FALSE(waitForPropertyChange("p.serial", &serial, 10ms));

    std::thread setter([] {
        std::this_thread::sleep_for(20ms);
        setProperty("p.serial", "5");
    });
    const uint32_t before = serial;
    EXPECT_TRUE(waitForPropertyChange("p.serial", &serial, 10s));
    EXPECT_NE(serial, before);
    setter.join();
}

TEST(CallingIdentity, DefaultsToSelfAndIsPerThread) {
    EXPECT_EQ(getCallingPid(), getpid());
    host::setCallingIdentity(1234, 10123);
    EXPECT_EQ(getCallingPid(), 1234);
    EXPECT_EQ(getCallingUid(), 10123u);
    std::thread other([] { EXPECT_EQ(getCallingPid(), getpid()); });
    other.join();
    host::clearCallingIdentity();
    EXPECT_EQ(getCallingUid(), getuid());
}

TEST(Clock, ManualClockReplacesNow) {
    {
        pelyx_test::ManualClock clock(5'000);
        EXPECT_EQ(now(), 5'000);
        clock.advance(16'666'666);
        EXPECT_EQ(now(), 16'671'666);
    }
    EXPECT_GT(now(), 16'671'666); // back on the monotonic clock
}

TEST(Trace, OffUntilAFileIsOpen) {
    EXPECT_FALSE(traceGraphicsEnabled());
    traceBegin("ignored");
    traceEnd();
    const std::string path = testing::TempDir() + "/closed.trace.json";
    ASSERT_TRUE(host::traceOpen(path));
    EXPECT_TRUE(traceGraphicsEnabled());
    host::traceClose();
    EXPECT_FALSE(traceGraphicsEnabled());
    traceBegin("after close");

    std::ifstream in(path);
    Json::Value root;
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr));
    EXPECT_EQ(root["traceEvents"].size(), 0u);
}

TEST(Trace, WritesValidTraceEventJson) {
    const std::string path = testing::TempDir() + "/events.trace.json";
    ASSERT_TRUE(host::traceOpen(path));
    traceBegin("outer \"quoted\" \\ name\n");
    traceBegin("inner");
    traceEnd();
    traceEnd();
    traceCounter("headroom", 8'333'333);
    traceAsyncBegin("queue 7", 42);
    std::thread other([] {
        traceBegin("on other thread");
        traceEnd();
        traceAsyncEnd("queue 7", 42);
    });
    other.join();
    host::traceClose();

    std::ifstream in(path);
    Json::Value root;
    std::string errors;
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << errors;
    const Json::Value& events = root["traceEvents"];
    ASSERT_EQ(events.size(), 9u);

    // Begin/end pairs balance per thread; every event carries pid, tid and a timestamp.
    std::map<int, int> depth;
    std::vector<std::string> names;
    double lastTs = 0;
    for (const Json::Value& e : events) {
        ASSERT_TRUE(e.isMember("pid") && e.isMember("tid") && e.isMember("ts"));
        EXPECT_GE(e["ts"].asDouble(), lastTs);
        lastTs = e["ts"].asDouble();
        const std::string ph = e["ph"].asString();
        if (ph == "B") {
            depth[e["tid"].asInt()]++;
            names.push_back(e["name"].asString());
        } else if (ph == "E") {
            ASSERT_GT(depth[e["tid"].asInt()]--, 0);
        }
    }
    for (auto& [tid, d] : depth) EXPECT_EQ(d, 0) << tid;
    EXPECT_EQ(names[0], "outer \"quoted\" \\ name\n");
    EXPECT_EQ(names[1], "inner");

    EXPECT_EQ(events[4]["ph"].asString(), "C");
    EXPECT_EQ(events[4]["name"].asString(), "headroom");
    EXPECT_EQ(events[4]["args"]["value"].asInt64(), 8'333'333);

    EXPECT_EQ(events[5]["ph"].asString(), "b");
    EXPECT_EQ(events[8]["ph"].asString(), "e");
    EXPECT_EQ(events[5]["id"], events[8]["id"]);
    EXPECT_EQ(events[5]["name"], events[8]["name"]);
    EXPECT_EQ(events[5]["cat"], events[8]["cat"]);
    EXPECT_NE(events[5]["tid"], events[8]["tid"]);
}
