#pragma once

// What the library told the performance service, read back from the stand-in client's call
// record: events by id, the on-screen-apps reports, the fps modes they carry, low-latency
// locks, classification queries and boosts sent as events. Owned by one thread (the
// simulator's main thread), which feeds it the record as it grows.

#include <map>
#include <set>
#include <string>
#include <vector>

#include <PerfdControl.h>

namespace pelyx_sim {

constexpr int kEventBoost = 4186;        // a boost of level 4 or more: {level, headroom}
constexpr int kEventSceneReport = 4194;  // the on-screen-apps report (JSON text)
constexpr int kEventMaxFpsMode = 4196;   // the highest fps mode: {0, mode}
constexpr int kLowLatencyOpcode = 0x40CD0000;

struct SceneReport {
    double atS = 0;
    std::string json;
};

struct ModeChange {
    double atS = 0;
    int mode = -1;
};

class ServiceLog {
public:
    // Folds in the calls recorded after those seen before; `nowS` stamps what is new.
    void consume(const std::vector<perfd_stub::Call>& calls, double nowS);

    const std::map<int, int>& perfEvents() const { return mEvents; }
    const std::vector<SceneReport>& sceneReports() const { return mReports; }
    const std::vector<int>& lowLatencyPids() const { return mLowLatencyPids; }
    // The package was classified (asked whether it is a game) or named in a report or fps-mode
    // event: the library tracks one of its layers.
    bool tracked(const std::string& pkg) const { return mTracked.count(pkg) > 0; }
    // The package's fps modes as the service learnt them, each change once, in order.
    std::vector<ModeChange> modes(const std::string& pkg) const;
    // Boost events (level 4 and above) sent for the package, by level.
    std::map<int, int> serviceBoosts(const std::string& pkg) const;

private:
    void onReport(const std::string& json, double nowS);
    void noteMode(const std::string& pkg, int mode, double nowS);

    size_t mSeen = 0;
    std::map<int, int> mEvents;
    std::vector<SceneReport> mReports;
    std::vector<int> mLowLatencyPids;
    std::set<std::string> mTracked;
    std::map<std::string, std::vector<ModeChange>> mModes;
    std::map<std::string, std::map<int, int>> mBoosts;
};

} // namespace pelyx_sim
