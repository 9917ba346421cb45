#include "Simulator.h"

#include <PerfdControl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <random>

#include "App.h"
#include "Compositor.h"
#include "Cpu.h"
#include "FakeDevices.h"
#include "LayerRuntime.h"
#include "LogSink.h"
#include "Records.h"
#include "ServiceLog.h"
#include "Timeline.h"
#include "ThreadCpu.h"
#include "TraceCheck.h"
#include "pelyx/pelyx.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"

namespace pelyx_sim {
namespace {

constexpr const char* kDebugProperty = "vendor.perf.pelyx.debug";
constexpr int32_t kTouchPowerBoost = 110;
constexpr int64_t kPollNs = 100'000'000;
constexpr int64_t kAppStopTimeoutNs = 3'000'000'000;
// After the threads have ended: the library's own threads finish the checks and posted tasks
// that were under way before the service's record is read for the last time.
constexpr int64_t kSettleNs = 150'000'000;

using android::platform::now;

bool isTrue(const std::string& value) {
    return value == "1" || value == "y" || value == "yes" || value == "on" || value == "true";
}

void sleepNs(int64_t ns) {
    android::platform::sleepFor(ns);
}

// From here on every thread of the run takes its turn on the virtual clock. The wake-up latency
// is log-normal: the median and the 99th percentile fix its two parameters.
void startVirtualClock(const Scenario& scenario, double watchdogS) {
    android::platform::host::VirtualTimeOptions options;
    options.seed = scenario.seed;
    options.watchdogS = watchdogS;
    // For the determinism test: the host's timing disturbed at random.
    if (const char* jitter = getenv("PELYX_SIM_REAL_JITTER_US")) options.realJitterUs = atoll(jitter);
    const DeviceModel& d = scenario.device;
    if (d.wakeupMedianUs > 0) {
        constexpr double kZ99 = 2.3263478740408408;
        const double mu = std::log(d.wakeupMedianUs * 1e3);
        const double sigma = std::log(d.wakeupP99Us / d.wakeupMedianUs) / kZ99;
        options.wakeupLatencyNs = [mu, sigma](std::mt19937_64& random) {
            std::normal_distribution<double> normal(0.0, 1.0);
            return static_cast<int64_t>(std::llround(std::exp(mu + sigma * normal(random))));
        };
    }
    android::platform::host::startVirtualTime(std::move(options));
}

GpuGovernor gpuGovernor(const DeviceModel& d) {
    GpuGovernor g;
    g.sampleNs = static_cast<int64_t>(std::llround(d.gpuGovernorMs * 1e6));
    g.up = d.gpuGovernorUp;
    g.down = d.gpuGovernorDown;
    g.steps = d.gpuGovernorSteps;
    return g;
}

// The objects of one run. Left alive on purpose (leaked) when an app thread never returns from
// the library: that thread still uses them.
struct Session {
    std::vector<std::unique_ptr<LayerRuntime>> layers;
    std::unique_ptr<Compositor> compositor;
    std::unique_ptr<CpuModel> cpu;
    std::vector<std::unique_ptr<App>> apps;
    std::unique_ptr<Timeline> timeline;
    StopSignal appStop;

    ~Session() { perfd_stub::setCallListener(nullptr); }

    std::vector<LayerRuntime*> layerPointers() const {
        std::vector<LayerRuntime*> all;
        for (const auto& l : layers) all.push_back(l.get());
        return all;
    }
};

class Progress {
public:
    Progress(bool enabled, double durationS, bool untilReplaysEnd)
          : mEnabled(enabled), mTty(isatty(STDERR_FILENO)), mDurationS(durationS),
            mOpenEnded(untilReplaysEnd) {}

    void show(double t, const Session& session, const ServiceLog& service) {
        if (!mEnabled) return;
        const double every = mTty ? 0.5 : 2.0;
        if (t < mNextS) return;
        mNextS = t + every;
        char head[48];
        if (mOpenEnded) {
            snprintf(head, sizeof(head), "[%6.1f s]", t);
        } else {
            snprintf(head, sizeof(head), "[%5.1f/%.1f s]", t, mDurationS);
        }
        std::string line = head;
        for (const auto& l : session.layers) {
            const std::vector<ModeChange> modes = service.modes(l->app.package);
            char text[128];
            snprintf(text, sizeof(text), " | %s q%lld p%lld mode %d", l->setup.label.c_str(),
                     static_cast<long long>(l->framesQueued.load()),
                     static_cast<long long>(l->framesPresented.load()),
                     modes.empty() ? -1 : modes.back().mode);
            line += text;
        }
        char tail[96];
        snprintf(tail, sizeof(tail), " | boosts %zu | reports %zu | errors %d",
                 FakeDevices::instance().boostRecords().size(), service.sceneReports().size(),
                 LogSink::instance().errors());
        line += tail;
        if (mTty) {
            fprintf(stderr, "\r%s\033[K", line.c_str());
        } else {
            fprintf(stderr, "%s\n", line.c_str());
        }
        mShown = true;
    }

    void finish() {
        if (mEnabled && mTty && mShown) fprintf(stderr, "\n");
    }

private:
    const bool mEnabled;
    const bool mTty;
    const double mDurationS;
    const bool mOpenEnded;
    double mNextS = 0;
    bool mShown = false;
};

bool replaysDone(const Session& session) {
    bool any = false;
    for (const auto& l : session.layers) {
        if (!l->work.replaying()) continue;
        any = true;
        if (!l->appDone.load() || l->framesPresented.load() < l->framesQueued.load()) return false;
    }
    return any;
}

double lastSecondRate(const std::vector<int64_t>& queueTimes) {
    if (queueTimes.size() < 2) return 0;
    const int64_t end = queueTimes.back();
    auto first = std::lower_bound(queueTimes.begin(), queueTimes.end(), end - 1'000'000'000);
    const auto frames = std::distance(first, queueTimes.end()) - 1;
    if (frames < 1 || end <= *first) return 0;
    return static_cast<double>(frames) * 1e9 / static_cast<double>(end - *first);
}

// Per frame: from the newest touch the frame reflects; per event: from each touch event to the
// first frame that reflects it.
void addLatencies(const PresentRecord& p, std::vector<double>* perFrameMs, std::vector<double>* perEventMs) {
    if (p.frame.touchNs > 0) perFrameMs->push_back(static_cast<double>(p.presentNs - p.frame.touchNs) / 1e6);
    for (int64_t event : p.frame.touchEventsNs) perEventMs->push_back(static_cast<double>(p.presentNs - event) / 1e6);
}

// The phases figures are split into: the scenario's, else before and after `splitS` (none
// when the library never acted).
std::vector<Phase> phasesOf(const Scenario& s, double splitS) {
    if (!s.phases.empty()) return s.phases;
    std::vector<Phase> phases{{"before", 0.0}};
    if (splitS > 0) phases.push_back({"after", splitS});
    return phases;
}

std::vector<PhaseResult> splitByPhase(const LayerRuntime& l, const std::vector<Phase>& phases, int64_t runStart,
                                      double endS) {
    std::vector<PhaseResult> results;
    for (size_t i = 0; i < phases.size(); ++i) {
        PhaseResult r;
        r.name = phases[i].name;
        r.fromS = phases[i].fromS;
        r.toS = i + 1 < phases.size() ? phases[i + 1].fromS : std::max(endS, r.fromS);
        results.push_back(r);
    }
    for (const PresentRecord& p : l.presents) {
        const double t = static_cast<double>(p.presentNs - runStart) / 1e9;
        size_t i = results.size() - 1;
        while (i > 0 && t < results[i].fromS) --i;
        PhaseResult& r = results[i];
        ++r.framesPresented;
        addLatencies(p, &r.inputToPresentMs, &r.touchEventToPresentMs);
        r.timeline.add(p.verdict);
        r.rhythmJanks += p.rhythmLate;
    }
    return results;
}

LayerResult collectLayer(const LayerRuntime& l, const Scenario& s, const ServiceLog& service,
                         const ServiceConfig& config, bool targetActive, double endS,
                         const std::vector<Phase>& phases, int64_t runStart) {
    LayerResult r;
    r.label = l.setup.label;
    r.name = l.setup.name;
    r.package = l.app.package;
    r.id = l.setup.id;
    r.game = l.app.game;
    r.loop = loopName(l.setup.loop);
    r.promoted = service.tracked(l.app.package);
    r.fpsModes = service.modes(l.app.package);
    r.framesQueued = l.framesQueued.load();
    r.framesPresented = l.framesPresented.load();
    if (r.framesPresented > 1 && l.lastPresentNs > l.firstPresentNs) {
        r.presentedFps = static_cast<double>(r.framesPresented - 1) * 1e9 /
                static_cast<double>(l.lastPresentNs - l.firstPresentNs);
    }
    r.rhythmJanks = l.janks.janks();
    for (const PresentRecord& p : l.presents) {
        r.timeline.add(p.verdict);
        addLatencies(p, &r.inputToPresentMs, &r.touchEventToPresentMs);
    }
    r.phases = splitByPhase(l, phases, runStart, endS);
    r.holdsMs = l.holdsMs;
    r.quickTouchHolds = l.quickTouchHolds;
    for (const auto& [level, count] : service.serviceBoosts(l.app.package)) r.serviceBoosts += count;
    const double target = config.targetFor(l.app.package, l.app.game);
    if (target > 0) r.targetFps = target;
    r.lastSecondFps = lastSecondRate(l.queueTimes);
    r.targetFpsActive = targetActive && r.targetFps &&
            std::fabs(r.lastSecondFps - target) <= std::max(2.0, 0.05 * target);
    r.instantBuffers = l.instantBuffers;
    r.movesConsumedNow = l.movesConsumedNow;
    r.movesHeld = l.movesHeld;
    r.lateFences = l.lateFences;
    r.deadlineRequests = FakeDevices::instance().deadlineRequests(l.index);
    if (l.work.replaying()) {
        r.replayFile = l.setup.work.replayFile;
        r.replayFrames = l.work.replayLength();
        r.replayed = l.work.replayed();
        r.replayMedianMs = percentile(*l.setup.work.replayMs, 50);
        const double rate = r.replayMedianMs > 0 ? 1000.0 / r.replayMedianMs : 0;
        r.expectedFpsMode = rateClass(std::min(rate, s.refreshHz));
        r.longestFpsMode = longestMode(r.fpsModes, endS);
    }
    return r;
}

// The boost device's records carry no layer: they are this layer's when it is the only one
// that frame rescue can act on (a game-weighted, visible layer with tunables for its package).
void attributeBoosts(RunResult* result, const Session& session, const ServiceConfig& config,
                     const BoostCounts& counts) {
    std::vector<size_t> candidates;
    for (size_t i = 0; i < session.layers.size(); ++i) {
        const LayerRuntime& l = *session.layers[i];
        if (l.app.gameWeight >= 0 && l.setup.visible &&
            config.frameRescueFor(l.app.package, l.app.game)) {
            candidates.push_back(i);
        }
    }
    for (size_t i = 0; i < result->layers.size(); ++i) {
        const bool candidate = std::find(candidates.begin(), candidates.end(), i) != candidates.end();
        result->layers[i].boostsAttributed = !candidate || candidates.size() == 1;
        if (candidate && candidates.size() == 1) result->layers[i].boosts = counts;
    }
}

std::vector<std::pair<std::string, std::string>> effectiveProperties(const Scenario& s,
                                                                     const RunSettings& settings) {
    Scenario copy;
    copy.properties = s.properties;
    if (!settings.libraryEnabled) {
        copy.setProperty("vendor.perf.pelyx.enable", "0");
        copy.setProperty("debug.vendor.perf.smart_touch", "0");
        copy.setProperty("debug.vendor.perf.smart_touch.move", "0");
    }
    // The library writes its trace slices only with its debug switch on.
    if (!settings.tracePath.empty() && copy.property(kDebugProperty, "").empty()) {
        copy.setProperty(kDebugProperty, "1");
    }
    return copy.properties;
}

void writeFrames(const std::string& path, const Session& session, int64_t runStart, double gpuBaseMhz) {
    FILE* out = fopen(path.c_str(), "w");
    if (!out) throw std::runtime_error(path + ": cannot create the frames file");
    fprintf(out, "layer,frame,start_s,queue_s,present_s,start_to_queue_ms,queue_to_present_ms,"
                 "touch_to_present_ms,heavy,instant,late,expected_present_s,late_cause,late_vsyncs,"
                 "hold_ms,dequeue_wait_ms,gpu_ms,gpu_mhz\n");
    auto s = [runStart](int64_t t) { return static_cast<double>(t - runStart) / 1e9; };
    auto ms = [](int64_t ns) { return static_cast<double>(ns) / 1e6; };
    for (const auto& l : session.layers) {
        for (const PresentRecord& p : l->presents) {
            const Frame& f = p.frame;
            fprintf(out, "%s,%llu,%.6f,%.6f,%.6f,%.3f,%.3f,", l->setup.label.c_str(),
                    static_cast<unsigned long long>(f.number), s(f.startNs), s(f.queueNs),
                    s(p.presentNs), ms(f.queueNs - f.startNs), ms(p.presentNs - f.queueNs));
            if (f.touchNs > 0) fprintf(out, "%.3f", ms(p.presentNs - f.touchNs));
            fprintf(out, ",%d,%d,%d,%.6f,%s,%d,%.3f,%.3f,", f.heavy, f.instant, p.rhythmLate,
                    s(p.verdict.expectedPresentNs), causeName(p.verdict.cause), p.verdict.lateVsyncs,
                    ms(f.holdNs), ms(f.dequeueWaitNs));
            // The GPU's mean clock over the frame's work: its work at the base clock over the time taken.
            if (p.gpuStartNs >= 0 && p.readyNs > p.gpuStartNs) {
                fprintf(out, "%.3f,%.0f", ms(p.readyNs - p.gpuStartNs),
                        gpuBaseMhz * static_cast<double>(f.gpuWorkNs) / static_cast<double>(p.readyNs - p.gpuStartNs));
            } else {
                fputc(',', out);
            }
            fputc('\n', out);
        }
    }
    if (fclose(out) != 0) throw std::runtime_error(path + ": cannot write the frames file");
}

// Slice ends carry no name: each thread's open slices tell whose an end closes. An end with
// none open is counted as the library's, so a stray end shows.
bool isLibrarySlice(char phase, const char* name) {
    thread_local std::vector<bool> open;
    if (phase != 'E') {
        const bool library = !isSimulatorSlice(name);
        if (phase == 'B') open.push_back(library);
        return library;
    }
    if (open.empty()) return true;
    const bool library = open.back();
    open.pop_back();
    return library;
}

// The run's own outputs join the service calls and log lines gathered as they happened.
void writeRecords(const std::string& path, RecordLog* log, const Session& session,
                  const std::vector<BoostRecord>& boosts, int64_t runStart) {
    char text[160];
    for (const BoostRecord& b : boosts) {
        snprintf(text, sizeof(text), "boost level=%d headroom=%d frequency=%d", b.level, b.headroom, b.frequency);
        log->add(b.timeNs, text);
    }
    for (const DeadlineRequest& d : FakeDevices::instance().deadlineLog()) {
        log->add(d.timeNs, "fence deadline layer=" + session.layers.at(static_cast<size_t>(d.layer))->setup.label);
    }
    for (const auto& l : session.layers) {
        for (const PresentRecord& p : l->presents) {
            if (p.frame.holdNs <= 0) continue;
            snprintf(text, sizeof(text), "hold layer=%s frame=%llu ms=%.3f", l->setup.label.c_str(),
                     static_cast<unsigned long long>(p.frame.number), static_cast<double>(p.frame.holdNs) / 1e6);
            log->add(p.frame.queueNs, text);
        }
    }
    log->write(path, runStart);
}

} // namespace

RunResult runScenario(const Scenario& scenario, const RunSettings& settings) {
    const auto wallStart = std::chrono::steady_clock::now();
    if (settings.virtualClock) startVirtualClock(scenario, settings.watchdogS);
    RunResult result;
    result.virtualClock = settings.virtualClock;
    result.scenario = scenario.name;
    result.vsyncPhase = scenario.vsyncPhase;
    result.seed = scenario.seed;
    result.width = scenario.width;
    result.height = scenario.height;
    result.refreshHz = scenario.refreshHz;

    // The service and the properties are ready before the library starts: it reads them once.
    const auto properties = effectiveProperties(scenario, settings);
    std::string debug = "0";
    for (const auto& [k, v] : properties) {
        if (k == kDebugProperty) debug = v;
    }
    if (!LogSink::instance().install(isTrue(debug), settings.logPath)) {
        throw std::runtime_error(settings.logPath + ": cannot create the log file");
    }
    // Shared with the service listener, which a hung app thread may still reach after the run.
    std::shared_ptr<RecordLog> recordLog;
    if (!settings.recordsPath.empty()) recordLog = std::make_shared<RecordLog>();
    LogSink::instance().setRecords(recordLog.get());
    if (recordLog) {
        android::platform::host::setTraceListener([log = recordLog.get()](char phase, const char* name, int64_t value) {
            if (phase == 'M' || !isLibrarySlice(phase, name)) return;
            std::string text = std::string("trace ") + phase;
            if (phase != 'E') text += std::string(" ") + name;
            if (phase == 'C') text += "=" + std::to_string(value);
            log->add(android::platform::waitClockNow(), std::move(text));
        });
    }
    perfd_stub::reset();
    for (const AppSetup& app : scenario.apps) {
        perfd_stub::setGame(app.package, app.game);
        perfd_stub::setGameWeight(app.package, app.gameWeight);
    }
    for (const auto& [key, value] : properties) setSimProperty(key, value);
    const DeviceModel& device = scenario.device;
    FakeDevices::instance().install(device.gpuBaseMhz, device.gpuMaxMhz,
                                    static_cast<int64_t>(std::llround(device.gpuRampMs * 1e6)),
                                    static_cast<int64_t>(std::llround(device.gpuWithdrawMs * 1e6)),
                                    gpuGovernor(device));
    auto session = std::make_unique<Session>();
    // The apps' CPU follows what the library asks of the service, as the service would set it.
    session->cpu = std::make_unique<CpuModel>(device);
    perfd_stub::setCallListener([cpu = session->cpu.get(), recordLog](const perfd_stub::Call& call) {
        cpu->onCall(call, now());
        if (recordLog) recordLog->addCall(now(), call);
    });
    std::atomic<int> touchBoosts{0};
    // The compositor's input path: an app's touch boost arrives, and held buffers are released
    // so that the touched frame is not kept waiting.
    android::platform::host::setPowerBoostListener([&touchBoosts](int32_t boost) {
        if (boost != kTouchPowerBoost) return;
        touchBoosts.fetch_add(1);
        pelyxUnblockPendingBuffer();
    });
    if (!settings.tracePath.empty() && !android::platform::host::traceOpen(settings.tracePath)) {
        throw std::runtime_error(settings.tracePath + ": cannot create the trace file");
    }

    result.libraryEnabled = pelyxInit(scenario.width, scenario.height);
    const std::vector<const LayerSetup*> setups = scenario.layers();
    if (std::any_of(setups.begin(), setups.end(), [](const LayerSetup* l) { return l->smartTouch; })) {
        aPelyxAppInit();
    }

    for (size_t i = 0; i < setups.size(); ++i) {
        session->layers.push_back(std::make_unique<LayerRuntime>(
                *setups[i], scenario.appOf(*setups[i]), static_cast<int>(i), scenario.seed));
    }
    session->compositor = std::make_unique<Compositor>(session->layerPointers(), scenario.refreshHz, device,
                                                       settings.virtualClock);
    pelyxSetVsyncPeriod(session->compositor->periodNs());

    const int64_t runStart = now();
    for (const auto& l : session->layers) {
        session->apps.push_back(
                std::make_unique<App>(*l, *session->compositor, *session->cpu, session->appStop, runStart));
    }
    session->timeline = std::make_unique<Timeline>(scenario, session->layerPointers(), runStart);
    session->compositor->start(runStart - static_cast<int64_t>(std::llround(
                                                      scenario.vsyncPhase * static_cast<double>(session->compositor->periodNs()))));
    for (const auto& app : session->apps) app->start();
    session->timeline->start();

    ServiceLog service;
    const bool untilReplaysEnd = settings.untilReplaysEnd &&
            std::any_of(setups.begin(), setups.end(), [](const LayerSetup* l) { return l->work.replayMs != nullptr; });
    Progress progress(settings.progress, scenario.durationS, untilReplaysEnd);
    const int64_t endNs = runStart + static_cast<int64_t>(scenario.durationS * 1e9);
    for (;;) {
        const int64_t t = now();
        if (untilReplaysEnd ? replaysDone(*session) || t - runStart > 3600'000'000'000LL : t >= endNs) break;
        sleepNs(untilReplaysEnd ? kPollNs : std::min(kPollNs, endNs - t));
        const double seconds = static_cast<double>(now() - runStart) / 1e9;
        service.consume(perfd_stub::calls(), seconds);
        progress.show(seconds, *session, service);
    }
    const int64_t runEnd = now();
    progress.finish();

    // Apps first, with vsync running so that a held queue call is released and returns.
    session->timeline->stop();
    session->appStop.stop();
    for (const auto& l : session->layers) l->queue.close();
    const int64_t giveUp = now() + kAppStopTimeoutNs;
    auto allDone = [&] {
        return std::all_of(session->layers.begin(), session->layers.end(),
                           [](const auto& l) { return l->appDone.load(); });
    };
    while (!allDone() && now() < giveUp) sleepNs(10'000'000);
    bool hung = false;
    for (const auto& app : session->apps) {
        if (app->layer().appDone.load()) {
            app->join();
        } else {
            hung = true;
            result.failures.push_back("layer " + app->layer().setup.label +
                                      ": its app thread did not return from pelyxTrackBufferIncrement "
                                      "within 3 s of the stop");
        }
    }
    session->compositor->stop();
    sleepNs(kSettleNs);

    result.durationS = static_cast<double>(runEnd - runStart) / 1e9;
    result.libraryThreadCpuMs = threadCpuMs({"BP", "PHR", "BLT"});
    service.consume(perfd_stub::calls(), result.durationS);
    result.targetFpsActive = pelyxIsTargetFpsActive();
    if (!settings.tracePath.empty()) {
        android::platform::host::traceClose();
        result.trace = checkTrace(settings.tracePath);
    }
    android::platform::host::setPowerBoostListener(nullptr);

    const std::vector<BoostRecord> records = FakeDevices::instance().boostRecords();
    int64_t firstAct = FakeDevices::instance().firstDeadlineNs();
    auto earliest = [&firstAct](int64_t t) {
        if (t >= 0 && (firstAct < 0 || t < firstAct)) firstAct = t;
    };
    if (!records.empty()) earliest(records.front().timeNs);
    for (const auto& l : session->layers) earliest(l->firstActNs.load());
    result.firstActS = firstAct >= 0 ? static_cast<double>(firstAct - runStart) / 1e9 : -1;
    const std::vector<Phase> phases = phasesOf(scenario, settings.phaseSplitS.value_or(result.firstActS));

    const ServiceConfig& config = session->timeline->config();
    for (const auto& l : session->layers) {
        result.layers.push_back(collectLayer(*l, scenario, service, config, result.targetFpsActive,
                                             result.durationS, phases, runStart));
    }
    for (BoostRecord r : records) {
        r.timeNs -= runStart;
        result.boostRecordList.push_back(r);
    }
    result.gpuBaseMhz = device.gpuBaseMhz;
    result.gpuMaxMhz = device.gpuMaxMhz;
    result.boosts = tallyBoosts(records);
    result.boostRecords = records.size();
    result.boostDeviceOpened = FakeDevices::instance().boostOpens() > 0;
    attributeBoosts(&result, *session, config, result.boosts);
    result.perfEvents = service.perfEvents();
    result.sceneReports = service.sceneReports();
    result.lowLatencyPids = service.lowLatencyPids();
    result.touchBoosts = touchBoosts.load();
    result.hintsDelivered = session->timeline->hintsDelivered();
    result.hintsRefused = session->timeline->hintsRefused();
    result.vsyncs = session->compositor->ticks();
    result.vsyncsMissed = session->compositor->missed();
    result.vsyncLateP99Ms = percentile(session->compositor->latenessMs(), 99);
    const LogSink& log = LogSink::instance();
    result.logErrors = log.errors();
    result.logWarnings = log.warnings();
    result.errorLines = log.errorLines();
    result.warningLines = log.warningLines();

    if (!settings.framesPath.empty()) writeFrames(settings.framesPath, *session, runStart, device.gpuBaseMhz);
    LogSink::instance().setRecords(nullptr);
    android::platform::host::setTraceListener(nullptr);
    if (recordLog) writeRecords(settings.recordsPath, recordLog.get(), *session, records, runStart);

    result.wallS = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    result.handoffs = android::platform::host::virtualTimeHandoffs();
    if (hung) {
        (void)session.release();  // a thread still inside the library uses it
    } else {
        FakeDevices::instance().uninstall();
    }
    return result;
}

} // namespace pelyx_sim
