#include <gtest/gtest.h>
#include <json/json.h>

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "platform/CallingIdentity.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "platform/Threads.h"
#include "platform/Trace.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

using namespace android::platform;
using namespace std::chrono_literals;

TEST(Properties, ReadsWithDeviceSemantics) {
    EXPECT_EQ(getProperty("p.unset", "dflt"), "dflt");
    ASSERT_TRUE(setProperty("p.empty", ""));
    EXPECT_EQ(getProperty("p.empty", "dflt"), "dflt");

    const std::pair<const char*, int> bools[] = {{"1", 1},  {"y", 1},  {"yes", 1}, {"on", 1},
                                                 {"true", 1}, {"0", 0}, {"n", 0},  {"no", 0},
                                                 {"off", 0}, {"false", 0}, {"maybe", -1}};
    for (const auto& [text, value] : bools) {
        ASSERT_TRUE(setProperty("p.bool", text));
        EXPECT_EQ(getBoolProperty("p.bool", false), value == 1) << text;
        EXPECT_EQ(getBoolProperty("p.bool", true), value != 0) << text;
    }
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

// A value waiter wakes on its exact text only; a change waiter on every set, and is then up to date.
TEST(Properties, WaitersWakeOnTheirCondition) {
    ASSERT_TRUE(setProperty("p.wait", "true"));
    EXPECT_FALSE(waitForProperty("p.wait", "1", 10ms));
    std::thread setter([] { setProperty("p.wait", "1"); });
    EXPECT_TRUE(waitForProperty("p.wait", "1", 10s));
    setter.join();

    uint32_t serial = propertySerial("p.wait");
    EXPECT_FALSE(waitForPropertyChange("p.wait", &serial, 10ms));
    std::thread same([] { setProperty("p.wait", "1"); });
    EXPECT_TRUE(waitForPropertyChange("p.wait", &serial, 10s));
    same.join();
    EXPECT_FALSE(waitForPropertyChange("p.wait", &serial, 10ms));
}

// On the real clock a sleep to a deadline ends at it, never before and not forever.
TEST(Clock, SleepUntilEndsAtTheDeadline) {
    const int64_t deadline = now() + 2'000'000;
    sleepUntil(deadline);
    EXPECT_GE(now(), deadline);
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

// Trace Event Format: microsecond timestamps, names escaped, nothing written while no file is open.
TEST(Trace, WritesValidTraceEventJson) {
    const std::string path = testing::TempDir() + "/events.trace.json";
    traceBegin("before open");
    EXPECT_FALSE(traceGraphicsEnabled());
    ASSERT_TRUE(host::traceOpen(path));
    {
        pelyx_test::ManualClock clock(5'000'123'456);
        traceBegin("outer \"quoted\" \\ name\n");
        traceEnd();
        traceCounter("headroom", 8'333'333);
    }
    host::traceClose();
    traceBegin("after close");

    std::ifstream in(path);
    Json::Value root;
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr));
    const Json::Value& events = root["traceEvents"];
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]["name"].asString(), "outer \"quoted\" \\ name\n");
    EXPECT_DOUBLE_EQ(events[0]["ts"].asDouble(), 5'000'123.456);
    EXPECT_EQ(events[1]["ph"].asString(), "E");
    EXPECT_EQ(events[2]["args"]["value"].asInt64(), 8'333'333);
}

TEST(LoopThreads, AskForNiceMinusEightAndFifoOneAndKeepFifteenCharactersOfTheirName) {
    struct Seen { int nice = 0, policy = -1, priority = -1; char name[32] = {}; } seen;
    pelyx_test::LogCapture logs;
    std::thread loop([&seen] {
        setThreadName("Pelyx.LongerThanTheKernelKeeps");
        pthread_getname_np(pthread_self(), seen.name, sizeof(seen.name));
        setLoopThreadPriority("Pelyx.Test");
        seen.nice = getpriority(PRIO_PROCESS, 0);
        sched_param param{};
        seen.policy = sched_getscheduler(0);
        sched_getparam(0, &param);
        seen.priority = param.sched_priority;
    });
    loop.join();
    EXPECT_STREQ(seen.name, "Pelyx.LongerTha");
    EXPECT_EQ(logs.errors(), size_t{seen.nice != -8} + size_t{seen.policy != SCHED_FIFO});
    if (seen.policy != SCHED_FIFO) GTEST_SKIP() << "not privileged to raise a thread";
    EXPECT_EQ(seen.nice, -8);
    EXPECT_EQ(seen.priority, 1);
}
