#pragma once

// The outcome of one run: built by the simulator once its threads have ended, written as the
// JSON summary, printed as the readable report, and compared between two runs. The report and
// the comparison read the JSON form, so that --compare can work from its two child runs' files.

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "FrameTimeline.h"
#include "ServiceLog.h"
#include "Stats.h"

namespace pelyx_sim {

constexpr const char* kSummarySchema = "pelyx-sim-summary/1";

// A layer's figures over one phase of the run.
struct PhaseResult {
    std::string name;
    double fromS = 0;
    double toS = 0;
    int64_t framesPresented = 0;
    std::vector<double> inputToPresentMs;
    std::vector<double> touchEventToPresentMs;
    FrameTimelineCounts timeline;
    int rhythmJanks = 0;
};

struct LayerResult {
    std::string label;
    std::string name;
    std::string package;
    int32_t id = 0;
    bool game = false;
    std::string loop;  // how its app starts frames
    bool promoted = false;
    std::vector<ModeChange> fpsModes;  // as reported to the service; the last one is the mode
    int64_t framesQueued = 0;
    int64_t framesPresented = 0;
    double presentedFps = 0;  // over the layer's active time
    int rhythmJanks = 0;           // presents that broke the app's own rhythm
    FrameTimelineCounts timeline;  // presents against their expected present
    std::vector<PhaseResult> phases;
    std::vector<double> holdsMs;  // time spent inside pelyxTrackBufferIncrement, when > 0.5 ms
    int quickTouchHolds = 0;      // holds while no target rate was pushed for the package
    BoostCounts boosts;           // device records, when they can be told to be this layer's
    bool boostsAttributed = false;
    int serviceBoosts = 0;        // boost events of level 4 and above sent for the package
    std::vector<double> inputToPresentMs;       // per frame that read a new touch: its newest
    std::vector<double> touchEventToPresentMs;  // per touch event, to the first frame reading it
    std::optional<double> targetFps;  // the last target pushed for the package (or all)
    double lastSecondFps = 0;         // queued frames per second over the run's last second
    bool targetFpsActive = false;
    int instantBuffers = 0;
    int movesConsumedNow = 0;
    int movesHeld = 0;
    int lateFences = 0;
    int deadlineRequests = 0;
    std::string replayFile;
    size_t replayFrames = 0;
    size_t replayed = 0;
    double replayMedianMs = 0;
    int expectedFpsMode = -1;  // rate class of min(capture rate, display rate)
    int longestFpsMode = -1;   // the fps mode in effect for the longest time of the run

    int fpsMode() const { return fpsModes.empty() ? -1 : fpsModes.back().mode; }
    // Held for headroom: a few holds while no target rate applied (one slow call is not that).
    bool quickTouch() const { return quickTouchHolds >= 3; }
};

struct TraceResult {
    std::string path;
    size_t events = 0;
    size_t simulatorSlices = 0;
    size_t librarySlices = 0;
    size_t unmatchedEnds = 0;       // slice ends on a thread with no slice open
    size_t openSlices = 0;          // slices still open on their thread at the end
    size_t unmatchedAsyncEnds = 0;  // asynchronous ends that closed nothing
    size_t openAsync = 0;           // asynchronous slices still open at the end
    bool balanced = false;
    std::vector<std::string> problems;
};

struct RunResult {
    std::string scenario;
    bool libraryEnabled = false;
    bool virtualClock = true;
    double vsyncPhase = 0;
    uint32_t seed = 0;  // of the work-time models, so a page can say how to repeat the run
    double durationS = 0;  // simulated
    double wallS = 0;      // the host's time for the run
    uint64_t handoffs = 0;  // virtual clock: turns passed from one thread to another
    int32_t width = 0;
    int32_t height = 0;
    double refreshHz = 0;
    std::vector<LayerResult> layers;
    BoostCounts boosts;
    size_t boostRecords = 0;
    std::vector<BoostRecord> boostRecordList;  // times from the run's start
    double firstActS = -1;  // the library's first hold, boost, deadline request or held input
    double gpuBaseMhz = 0;
    double gpuMaxMhz = 0;
    bool boostDeviceOpened = false;
    std::map<int, int> perfEvents;
    std::vector<SceneReport> sceneReports;
    std::vector<int> lowLatencyPids;
    bool targetFpsActive = false;  // pelyxIsTargetFpsActive() at the end
    int touchBoosts = 0;
    int hintsDelivered = 0;
    int hintsRefused = 0;
    int64_t vsyncs = 0;
    int64_t vsyncsMissed = 0;  // ticks the vsync thread woke too late for
    double vsyncLateP99Ms = 0;
    // CPU time of the library's own threads over the run (BP, PHR, BLT): what it costs a phone.
    std::map<std::string, double> libraryThreadCpuMs;
    int logErrors = 0;
    int logWarnings = 0;
    std::vector<std::string> errorLines;
    std::vector<std::string> warningLines;
    std::optional<TraceResult> trace;
    std::vector<std::string> failures;  // the run itself went wrong (threads that hung)
};

Json::Value toJson(const RunResult& result);

// The mode of `modes` that was in effect longest between its first change and `endS`; -1 when
// there is none.
int longestMode(const std::vector<ModeChange>& modes, double endS);

// Problems with a summary's shape (missing keys, wrong types); empty when it is valid.
std::vector<std::string> checkSummary(const Json::Value& summary);

void printReport(const Json::Value& summary, std::ostream& out);
// Side by side: the run with the library disabled, then enabled, per layer and for the run;
// with `otherPhases` (disabled, enabled summaries of the same scenario at other vsync phases)
// also each change's range over all of them.
void printComparison(const Json::Value& disabled, const Json::Value& enabled, std::ostream& out,
                     const std::vector<std::pair<Json::Value, Json::Value>>& otherPhases = {});

// One kind of app played in a layer's place, disabled and enabled at several vsync phases.
struct ArchetypeRuns {
    std::string name;  // for the reader
    std::string option;  // --loop's KIND[@FPS]
    std::vector<std::pair<Json::Value, Json::Value>> runs;  // (disabled, enabled), the first at phase 0
};

// Per kind of app and phase of the scenario: the layer's latency per touch event, janks and
// stuffed frames, disabled against enabled.
void printArchetypes(const std::string& layer, const std::vector<ArchetypeRuns>& kinds, std::ostream& out);

} // namespace pelyx_sim
