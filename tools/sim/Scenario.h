#pragma once

// What one simulator run plays: the display, the properties, the apps with their layers and work
// models, and a timeline of configuration hints, property changes and touch gestures. Plain
// values, built once by the parser (and the command-line overrides) before any thread starts.

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace pelyx_sim {

// A bad scenario: `key` is the JSON path of the offending value ("apps[0].layers[1].work.mean_ms"),
// or an option name for a command-line override.
class ScenarioError : public std::runtime_error {
public:
    ScenarioError(std::string key, std::string reason)
          : std::runtime_error(key + ": " + reason), mKey(std::move(key)), mReason(std::move(reason)) {}
    const std::string& key() const { return mKey; }
    const std::string& reason() const { return mReason; }

private:
    std::string mKey;
    std::string mReason;
};

struct Bounds {
    int32_t left = 0;
    int32_t top = 0;
    int32_t right = 0;
    int32_t bottom = 0;
};

// How long an app works on each frame. Times in ms; heavy frames come in bursts of `heavyBurst`
// consecutive frames every `heavyEveryS` seconds from `heavyFromS` on. With `replay` set, the CPU
// times come from a capture instead and the heavy-frame fields are not used.
struct WorkModel {
    double meanMs = 8.0;
    double jitterMs = 0.0;  // standard deviation of a normal spread around the mean
    double gpuMs = 0.0;     // GPU time after the queue: the buffer's fence signals then
    double heavyMs = 0.0;   // 0: no heavy frames
    double heavyGpuMs = 0.0;  // GPU time of a heavy frame; 0: the normal GPU time
    double heavyEveryS = 0.0;
    double heavyFromS = 0.0;
    int heavyBurst = 1;
    // The share of a frame's CPU work done before the app takes a buffer for it (a game samples
    // input and simulates, then dequeues when it starts to render; the dequeue blocks while every
    // other buffer is queued).
    double dequeueAt = 0.5;
    // Where the frame samples its input: at its start (the input stage runs first), or once it
    // has its buffer (a game that dequeues before it reads input).
    bool inputAfterDequeue = false;
    std::string replayFile;  // set by --replay
    std::shared_ptr<const std::vector<double>> replayMs;
};

// How an app decides when to start a frame.
enum class AppLoop {
    Choreographer,  // at the first vsync after it is ready; missed vsyncs are skipped
    Free,           // at once, as fast as its buffers allow (it blocks in dequeue)
    PresentTime,    // at once, each buffer carrying a present time a frame interval after the last
};

// "choreographer", "free", "present_time".
const char* loopName(AppLoop loop);
// The loop of that name; false for none.
bool parseLoop(const std::string& name, AppLoop* loop);

struct LayerSetup {
    std::string label;  // short name used by the timeline, --replay and the report
    std::string name;   // the compositor's layer name; the library derives the package from it
    int32_t id = 0;
    Bounds bounds;
    bool focused = false;
    bool visible = true;
    int buffers = 3;      // buffers in the layer's queue, the one on screen included
    AppLoop loop = AppLoop::Free;
    // The app's own rate: a Choreographer app's frames start at vsyncs at least this far apart,
    // a present-time app's presents are this far apart; 0: the display's rate.
    double fpsCap = 0.0;
    double startS = 0.0;
    double stopS = -1.0;  // negative: runs to the end
    bool smartTouch = false;  // the app calls the app-side smart-touch functions
    WorkModel work;
    size_t appIndex = 0;
};

struct AppSetup {
    std::string package;
    int32_t pid = 0;
    int32_t uid = 0;
    bool game = false;       // what the performance service answers when asked
    int32_t gameWeight = -1;  // -1: the service has no weight for it
    std::vector<LayerSetup> layers;
};

struct HintEvent {
    int32_t id = 0;
    std::string text;
    int32_t value = 0;
    int32_t value2 = 0;
    std::vector<int32_t> values;
};

struct PropertyEvent {
    std::string key;
    std::string value;
};

enum class Gesture { Tap, Drag };

// A tap is a down and an up `durationS` apart; a drag adds a MOVE every `intervalMs` between them.
struct TouchEvent {
    std::string layer;  // label
    Gesture gesture = Gesture::Tap;
    double durationS = 0.08;
    double intervalMs = 8.0;
};

enum class EventKind { Hint, Property, Touch };

struct TimelineEvent {
    double atS = 0.0;
    EventKind kind = EventKind::Hint;
    HintEvent hint;
    PropertyEvent property;
    TouchEvent touch;
    double repeatEveryS = 0.0;  // with count > 1: the event repeats this often
    int count = 1;
};

// The device under the apps. GPU work times in the scenario are at `gpuBaseMhz`; the GPU runs
// faster while a boost-device record or a deadline request raises its clock. Render (CPU) work
// runs faster by the given factors while the service boosts the app or holds its low-latency
// lock. The compositor latches `latchOffsetMs` before each vsync and presents what it latched
// `presentDelayVsyncs` vsyncs after the latch.
struct DeviceModel {
    double gpuBaseMhz = 250.0;
    double gpuMaxMhz = 1000.0;
    double gpuRampMs = 2.0;
    double gpuWithdrawMs = 16.0;  // a withdrawn boost lasts until the governor's next sample
    double cpuBoostFactor = 1.5;
    double cpuBoostMs = 100.0;  // a boost event holds this long unless a level-0 event ends it
    double cpuLowLatencyFactor = 1.2;
    double cpuRampMs = 5.0;
    double latchOffsetMs = -1.0;  // negative: half the display's period
    int presentDelayVsyncs = 1;
    // After a latch the buffer it replaced reaches its app this much later: the compositor's
    // composition, the release callback's binder call and the app's wake-up.
    double releaseDelayUs = 2000.0;
    // A GPU fence still unsignalled at the latch is reported at once (pelyxNotifyGpuFenceUnsignaled)
    // instead of recorded there and flushed after the latches.
    bool fenceReportNow = false;
    // The GPU's own governor: every `gpuGovernorMs` it steps the clock one of `gpuGovernorSteps`
    // even steps up when the GPU was busy at least `gpuGovernorUp` of the sample, down when
    // less than `gpuGovernorDown`; 0 ms: no governor.
    double gpuGovernorMs = 16.0;
    double gpuGovernorUp = 0.9;
    double gpuGovernorDown = 0.5;
    int gpuGovernorSteps = 4;
    // On the virtual clock only, where code takes no time: the compositor's work for each layer
    // it latches, and the scheduler's wake-up latency on every wake-up of every thread (a
    // log-normal with this median and 99th percentile; a median of 0 turns it off).
    double latchCostUs = 150.0;
    double wakeupMedianUs = 60.0;
    double wakeupP99Us = 400.0;

    double latchOffsetMsAt(double refreshHz) const {
        return latchOffsetMs >= 0 ? latchOffsetMs : 500.0 / refreshHz;
    }
};

// A stretch of the run whose figures the summary also gives on their own; it lasts until the
// next phase's start or the end of the run.
struct Phase {
    std::string name;
    double fromS = 0.0;
};

struct Scenario {
    std::string name;
    std::string description;
    double durationS = 10.0;
    uint32_t seed = 1;
    int32_t width = 1080;
    int32_t height = 2400;
    double refreshHz = 60.0;
    std::vector<std::pair<std::string, std::string>> properties;  // in file order
    std::vector<AppSetup> apps;
    std::vector<TimelineEvent> timeline;  // sorted by time
    DeviceModel device;
    // Sorted by start, the first from 0. Empty: split where the library first acts.
    std::vector<Phase> phases;
    // The vsync grid's phase against the scenario's times (hints, touches, app starts), in
    // vsyncs from 0 to 1: the ticks fall this much of a period earlier.
    double vsyncPhase = 0.0;

    // Every layer in app order; pointers stay valid while the scenario is not modified.
    std::vector<const LayerSetup*> layers() const;
    LayerSetup* findLayer(const std::string& labelOrId);
    const AppSetup& appOf(const LayerSetup& layer) const { return apps[layer.appIndex]; }
    // The value a property will have: the last setting in `properties`, or `fallback`.
    std::string property(const std::string& key, const std::string& fallback) const;
    void setProperty(const std::string& key, const std::string& value);
};

// JSON as the simulator's files are written: comments allowed, a key given twice, trailing text
// or a non-object root refused. A syntax error throws ScenarioError with key "line L, column C".
Json::Value parseStrictJson(const std::string& text);
// Two-space indented; false when the file cannot be written.
bool writeJsonFile(const std::string& path, const Json::Value& value);

// Parses a scenario file's text. Unknown keys, wrong types and values out of range throw
// ScenarioError naming the key; a JSON syntax error throws one with key "line L, column C".
Scenario parseScenario(const std::string& text);

// The built-in scenario (about 10 s; every feature of the library is exercised).
extern const char* const kDefaultScenarioJson;

// Checks what involves several parts of the scenario (unique ids and labels, timeline layers,
// one smart-touch layer at most); the parser runs it, and so must every later change.
void validateScenario(const Scenario& scenario);

} // namespace pelyx_sim
