#include "ServiceLog.h"

#include <json/json.h>

#include <algorithm>
#include <memory>

namespace pelyx_sim {

void ServiceLog::consume(const std::vector<perfd_stub::Call>& calls, double nowS) {
    for (; mSeen < calls.size(); ++mSeen) {
        const perfd_stub::Call& call = calls[mSeen];
        if (call.fn == "perf_event" && !call.ints.empty()) {
            const int id = call.ints[0];
            ++mEvents[id];
            if (id == kEventSceneReport && call.hasPkg) {
                onReport(call.pkg, nowS);
            } else if (id == kEventMaxFpsMode && call.hasPkg && call.pkg != "null" &&
                       call.args.size() >= 2) {
                mTracked.insert(call.pkg);
                noteMode(call.pkg, call.args[1], nowS);
            } else if (id == kEventBoost && call.args.size() >= 1) {
                ++mBoosts[call.hasPkg ? call.pkg : ""][call.args[0]];
            }
        } else if ((call.fn == "perf_get_feedback" || call.fn == "perf_get_feedback_extn" ||
                    call.fn == "perf_hint") &&
                   !call.ints.empty() && call.ints[0] == perfd_stub::kGameQuery && call.hasPkg &&
                   !call.pkg.empty()) {
            mTracked.insert(call.pkg);
        } else if (call.fn == "perf_lock_acq" && call.args.size() >= 2 &&
                   call.args[0] == kLowLatencyOpcode) {
            if (std::find(mLowLatencyPids.begin(), mLowLatencyPids.end(), call.args[1]) ==
                mLowLatencyPids.end()) {
                mLowLatencyPids.push_back(call.args[1]);
            }
        }
    }
}

void ServiceLog::onReport(const std::string& json, double nowS) {
    mReports.push_back({nowS, json});
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(json.data(), json.data() + json.size(), &root, &errors) ||
        !root.isObject() || !root["apps"].isArray()) {
        return;  // kept as text; nothing to learn from it
    }
    for (const Json::Value& app : root["apps"]) {
        if (!app.isObject() || !app["pkg"].isString()) continue;
        const std::string pkg = app["pkg"].asString();
        mTracked.insert(pkg);
        noteMode(pkg, app["M"].isInt() ? app["M"].asInt() : -1, nowS);
    }
}

void ServiceLog::noteMode(const std::string& pkg, int mode, double nowS) {
    std::vector<ModeChange>& modes = mModes[pkg];
    if (modes.empty() || modes.back().mode != mode) modes.push_back({nowS, mode});
}

std::vector<ModeChange> ServiceLog::modes(const std::string& pkg) const {
    auto it = mModes.find(pkg);
    return it == mModes.end() ? std::vector<ModeChange>{} : it->second;
}

std::map<int, int> ServiceLog::serviceBoosts(const std::string& pkg) const {
    auto it = mBoosts.find(pkg);
    return it == mBoosts.end() ? std::map<int, int>{} : it->second;
}

} // namespace pelyx_sim
