// The on-screen-apps report and the low-latency app.
#define LOG_TAG "Pelyx.LayerManager"

#include <json/json.h>
#include <log/log.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"

namespace android {
namespace {

constexpr int kEventOnScreenApps = 4194;
constexpr int kOnScreenAppsTag = 101;
constexpr int32_t kMaxReportedApps = 3;
constexpr size_t kReportLimit = 256;
constexpr float kFullScreenRatio = 0.85f;

int64_t area(const Rect& r) {
    return static_cast<int64_t>(r.getWidth()) * static_cast<int64_t>(r.getHeight());
}

// What the report says of one app, copied out of its representative layer.
struct ReportEntry {
    int32_t id;
    std::string packageName;
    float fps;
    int32_t fpsMode;
    bool focused;
    bool isGame;
    std::string sceneTag;
    Rect bounds;
};

// Unfocused first, then non-game, then by fps mode. Equal modes compare as "before" both ways;
// the report order depends on it, and with at most five layers std::sort only ever runs its
// guarded insertion sort, which tolerates that.
bool reportsBefore(const ReportEntry& a, const ReportEntry& b) {
    if (a.focused != b.focused) return !a.focused;
    if (a.isGame != b.isGame) return !a.isGame;
    return a.fpsMode <= b.fpsMode;
}

} // namespace

int32_t LayerManager::getWindowType(const Rect& bounds) const {
    if (mDisplayWidth < 1 || mDisplayHeight < 1 || bounds.isEmpty()) return 0;
    const float w = static_cast<float>(bounds.getWidth());
    const float h = static_cast<float>(bounds.getHeight());
    const float displayMax = static_cast<float>(std::max(mDisplayWidth, mDisplayHeight));
    const float displayMin = static_cast<float>(std::min(mDisplayWidth, mDisplayHeight));
    // Orientation is ignored on purpose: compare short side with short side.
    const bool full = std::min(w, h) / displayMin >= kFullScreenRatio &&
            std::max(w, h) / displayMax >= kFullScreenRatio;
    return full ? 0 : 2;
}

void LayerManager::checkMultiLayer(int64_t now) {
    std::vector<ReportEntry> entries;
    int32_t count;
    {
        std::vector<sp<LayerInfo>> reps;
        Mutex::Autolock lock(mLock);
        std::unordered_map<int32_t, size_t> repOfUid;
        LayerInfo* lowLatency = nullptr;
        for (const auto& [id, layer] : mLayers) {
            if (!layer->mVisible) continue;
            auto it = repOfUid.find(layer->mUid);
            if (it == repOfUid.end()) {
                repOfUid.emplace(layer->mUid, reps.size());
                reps.push_back(layer);
                if (!lowLatency && layer->mIsGame) lowLatency = layer.get();
                continue;
            }
            const sp<LayerInfo>& current = reps[it->second];
            const int64_t a = area(layer->mBounds);
            const int64_t b = area(current->mBounds);
            if (a > b || (a == b && layer->mFpsMode > current->mFpsMode)) reps[it->second] = layer;
        }
        setLowLatencyAppLocked(lowLatency);

        count = std::min<int32_t>(static_cast<int32_t>(repOfUid.size()), kMaxReportedApps);
        std::unordered_set<int32_t> uids;
        for (const auto& [uid, index] : repOfUid) uids.insert(uid);
        bool unchanged = !mSceneCheckPending.load() && count == mLastReportCount &&
                uids == mReportedUids;
        for (size_t i = 0; unchanged && i < reps.size(); i++) {
            auto bounds = mReportedBounds.find(reps[i]->mId);
            unchanged = bounds != mReportedBounds.end() && bounds->second == reps[i]->mBounds;
        }
        if (unchanged) return;
        mSceneCheckPending.store(false);
        mLastReportCount = count;
        mReportedUids = std::move(uids);
        mReportedBounds.clear();
        for (const sp<LayerInfo>& rep : reps) mReportedBounds.emplace(rep->mId, rep->mBounds);

        for (const sp<LayerInfo>& rep : reps) {
            entries.push_back(ReportEntry{rep->mId, rep->mPackageName, rep->mFps, rep->mFpsMode,
                                          rep->mFocused, rep->mIsGame, rep->mSceneTag,
                                          rep->mBounds});
        }
    }
    std::sort(entries.begin(), entries.end(), reportsBefore);

    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    Json::Value report(Json::objectValue);
    Json::Value& apps = report["apps"] = Json::Value(Json::arrayValue);
    auto appObject = [this](const ReportEntry& entry) {
        Json::Value app(Json::objectValue);
        app["pkg"] = entry.packageName;
        app["fps"] = static_cast<Json::Int>(std::lround(entry.fps * 100.0f));
        if (entry.fpsMode != -1) app["M"] = entry.fpsMode;
        if (entry.focused) app["F"] = 1;
        if (!entry.sceneTag.empty()) app["scene"] = entry.sceneTag;
        const Rect& b = entry.bounds;
        if (b.left != 0) app["l"] = b.left;
        if (b.top != 0) app["t"] = b.top;
        if (b.right != 0) app["r"] = b.right;
        if (b.bottom != 0) app["b"] = b.bottom;
        if (getWindowType(b) == 2) app["W"] = 2;
        return app;
    };

    std::string json = writer.write(report); // no app on screen is a report too
    bool limited = false;
    for (const ReportEntry& entry : entries) {
        apps.append(appObject(entry));
        json = writer.write(report);
        if (json.size() > kReportLimit) {
            limited = true;
            break;
        }
    }
    if (limited) {
        // Even when that group was the only one: the report then lists no app.
        Json::Value dropped;
        apps.removeIndex(apps.size() - 1, &dropped);
        ALOGW("JSON length limit reached, drop the last added group");
        json = writer.write(report);
    }

    int args[2] = {kOnScreenAppsTag, count};
    PerfProxy::getInstance()->perfEvent(kEventOnScreenApps, json.c_str(), 2, args);
    PerfProxy::XLOGD(LOG_TAG, "CheckMultiLayer: %d, %s", count, json.c_str());
}

} // namespace android
