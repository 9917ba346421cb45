// pelyx-bench: Google Benchmark's usual output, then one summary table that puts the hot path
// against its floor and the timer queue against libutils' Looper.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Result {
    double ns = 0;                         // per iteration
    std::map<std::string, double> counters;
};

// Prints as the console reporter does and keeps every run for the table.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            Result result;
            result.ns = run.GetAdjustedRealTime() * toNs(run.time_unit);
            for (const auto& [name, counter] : run.counters) result.counters[name] = counter.value;
            mResults[run.benchmark_name()] = result;
        }
    }

    std::optional<Result> find(const std::string& prefix) const {
        for (const auto& [name, result] : mResults) {
            if (name.rfind(prefix, 0) == 0) return result;
        }
        return std::nullopt;
    }

private:
    static double toNs(benchmark::TimeUnit unit) {
        switch (unit) {
            case benchmark::kNanosecond: return 1;
            case benchmark::kMicrosecond: return 1e3;
            case benchmark::kMillisecond: return 1e6;
            case benchmark::kSecond: return 1e9;
        }
        return 1;
    }

    std::map<std::string, Result> mResults;
};

std::string fmt(const char* format, double value) {
    char text[64];
    snprintf(text, sizeof(text), format, value);
    return text;
}

void printSummary(const CollectingReporter& r) {
    printf("\n=== pelyx-bench summary ===\n");
    const auto floor = r.find("BM_Floor_LockAndHashLookup");
    const auto empty = r.find("BM_Floor_EmptyExportedCall");
    printf("\nHot path (ns per call; floor = uncontended lock + hash lookup%s)\n",
           floor ? fmt(", %.1f ns", floor->ns).c_str() : "");
    printf("  %-46s %10s %10s %10s\n", "case", "ns", "x floor", "allocs");
    const std::pair<const char*, const char*> hot[] = {
            {"queue+latch pair, 1 layer, no monitor", "BM_HotPath_QueueLatchPair/1"},
            {"queue+latch pair, 4 layers, no monitor", "BM_HotPath_QueueLatchPair/4"},
            {"queue+latch pair, 4 layers, PHR registered", "BM_HotPath_PairHeadroomRegistered/4"},
            {"queue+latch pair, 4 layers, frame rescue", "BM_HotPath_PairFrameRescueActive/4"},
            {"vsync", "BM_HotPath_Vsync"},
            {"queue of a 1 MiB package-less name", "BM_HotPath_PackagelessHugeName"},
    };
    for (const auto& [label, name] : hot) {
        const auto result = r.find(name);
        if (!result) continue;
        auto allocs = result->counters.find("allocs_per_pair");
        printf("  %-46s %10.1f %10s %10s\n", label, result->ns,
               floor ? fmt("%.1fx", result->ns / floor->ns).c_str() : "-",
               allocs != result->counters.end() ? fmt("%.2f", allocs->second).c_str() : "");
    }
    if (empty) printf("  %-46s %10.2f\n", "empty exported call", empty->ns);
    printf("\nHostile layer names: worst single exported call per stage of a layer's life (us)\n");
    printf("  %-26s %9s %9s %9s %9s %9s %9s %9s\n", "name", "first", "candid.", "promote",
           "tracked", "cleanup", "worst", "lock");
    double worstCall = 0;
    double worstLock = 0;
    double worstPreempted = 0;
    double preempted = 0;
    for (const char* mib : {"1", "16", "0"}) {
        const char* const shapes[] = {"no package", "SurfaceView[pkg/...#1", "pkg/...#1",
                                      "control: pkg/pkg.Main#1"};
        for (int shape = 0; shape < 4; shape++) {
            const auto h = r.find(std::string("BM_HotPath_HostileName/MiB:") + mib +
                                  "/shape:" + std::to_string(shape));
            if (!h) continue;
            const auto& c = h->counters;
            const std::string label =
                    shape == 3 ? shapes[shape] : std::string(mib) + " MiB " + shapes[shape];
            printf("  %-26s %9.1f %9.1f %9.1f %9.1f %9.1f %9.1f %9.1f%s\n", label.c_str(),
                   c.at("first_sight_us"), c.at("candidate_us"), c.at("promotion_us"),
                   c.at("tracked_us"), c.at("cleanup_us"), c.at("worst_call_us"),
                   c.at("lock_wait_us"), c.at("features_on") > 0 ? "  (monitors on)" : "");
            worstCall = std::max(worstCall, c.at("worst_call_us"));
            worstPreempted = std::max(worstPreempted, c.at("worst_preempted_us"));
            preempted += c.at("preempted_calls");
            worstLock = std::max(worstLock, c.at("lock_wait_us"));
        }
    }
    if (worstCall > 0) {
        printf("  worst exported call %.1f us (goal < 1000); worst registry-lock wait %.1f us\n"
               "  (%.0f calls preempted by the kernel left out, the longest %.1f us)\n",
               worstCall, worstLock, preempted, worstPreempted);
    }

    printf("\nTimer queue vs Looper: schedule + cancel (ns)\n");
    printf("  %-12s %14s %14s %10s\n", "pending", "TimerQueue", "Looper", "ratio");
    for (const char* pending : {"10", "1000", "100000"}) {
        const auto tq = r.find(std::string("BM_TimerQueue_ScheduleCancel/") + pending);
        const auto lo = r.find(std::string("BM_Looper_ScheduleCancel/") + pending);
        if (!tq || !lo) continue;
        printf("  %-12s %14.0f %14.0f %9.1fx\n", pending, tq->ns, lo->ns, lo->ns / tq->ns);
    }
    printf("\nDispatch lateness (us): TimerQueue p50/p99 vs Looper p50/p99\n");
    for (const char* delay : {"1", "5", "10", "20"}) {
        const auto tq = r.find(std::string("BM_TimerQueue_Lateness/") + delay + "/");
        const auto lo = r.find(std::string("BM_Looper_Lateness/") + delay + "/");
        if (!tq || !lo) continue;
        printf("  %3s ms   %8.1f / %-8.1f   %8.1f / %-8.1f\n", delay, tq->counters.at("p50_us"),
               tq->counters.at("p99_us"), lo->counters.at("p50_us"), lo->counters.at("p99_us"));
    }
    printf("\nHold accuracy: release lateness against the intended point (us)\n");
    const std::pair<const char*, const char*> holds[] = {
            {"PHR worker release", "BM_PHR_WorkerReleaseLateness"},
            {"target-fps pacing", "BM_PHR_TargetFpsPacingLateness"},
    };
    for (const auto& [label, name] : holds) {
        const auto result = r.find(name);
        if (!result) continue;
        printf("  %-24s p50 %8.1f   p99 %8.1f\n", label, result->counters.at("p50_us"),
               result->counters.at("p99_us"));
    }
    printf("\n");
}

// The table belongs to the console format; any other format gets the library's own reporter,
// untouched, so its tools can read the output.
bool consoleFormat(int argc, char** argv) {
    const std::string flag = "--benchmark_format=";
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        if (arg.rfind(flag, 0) == 0) return arg.substr(flag.size()) == "console";
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    const bool console = consoleFormat(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (console) {
        CollectingReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        printSummary(reporter);
    } else {
        benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    return 0;
}
