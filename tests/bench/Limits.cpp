#include "tests/bench/Limits.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace bench {
namespace {

constexpr double kMicrosecondsPerSecond = 1e6;

/// The best figure of a benchmark so far.
struct Verdict {
    double figure;
    double limit;
    const char* unit;

    bool kept() const { return figure <= limit; }
};

/// Without the options of the run, such as repetitions.
std::string shortName(const benchmark::BenchmarkName& name) {
    return name.args.empty() ? name.function_name : name.function_name + '/' + name.args;
}

/// Shows each repetition and collects the figures that are judged.
class LimitReporter : public benchmark::ConsoleReporter {
public:
    LimitReporter()
        : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> repetitions;
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration) { // means and the like hide the best
                judge(run);
                repetitions.push_back(run);
            }
        }
        ConsoleReporter::ReportRuns(repetitions);
    }

    /// Prints the verdicts; true when all limits were kept.
    bool conclude() const {
        bool allKept = !verdicts_.empty() && !hasUnlimited_;
        std::printf("\n");
        for (const auto& [name, verdict] : verdicts_) {
            std::printf("%-8s %-32s %7.3f%s, limit %.2f%s\n", verdict.kept() ? "kept" : "EXCEEDED",
                        name.c_str(), verdict.figure, verdict.unit, verdict.limit, verdict.unit);
            allKept = allKept && verdict.kept();
        }
        if (!allKept) {
            std::printf("FAILED: a limit was exceeded, or a benchmark failed or did not run\n");
        }
        return allKept;
    }

private:
    void judge(const Run& run) {
        const auto limitUs = run.counters.find(kLimitUs);
        const auto limitRatio = run.counters.find(kLimitRatio);
        const auto limitCalls = run.counters.find(kLimitCalls);
        if (limitUs != run.counters.end()) {
            const double seconds = run.cpu_accumulated_time / static_cast<double>(run.iterations);
            keepBest(run, {seconds * kMicrosecondsPerSecond, limitUs->second.value, " us"});
        } else if (limitRatio != run.counters.end()) {
            keepBest(run, {run.counters.at(kRatio).value, limitRatio->second.value, ""});
        } else if (limitCalls != run.counters.end()) {
            keepBest(run, {run.counters.at(kCalls).value, limitCalls->second.value, " calls"});
        } else {
            hasUnlimited_ = true;
        }
    }

    void keepBest(const Run& run, const Verdict& verdict) {
        Verdict& best = verdicts_.emplace(shortName(run.run_name), verdict).first->second;
        best.figure = std::min(best.figure, verdict.figure);
    }

    std::map<std::string, Verdict> verdicts_;
    bool hasUnlimited_ = false;
};

} // namespace

int runBenchmarks(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    LimitReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.conclude() ? EXIT_SUCCESS : EXIT_FAILURE;
}

bool isInSandbox() {
    const char* const marked = std::getenv("OVARD_SANDBOX");
    char pidNamespace[64];
    const ssize_t length = ::readlink("/proc/self/ns/pid", pidNamespace, sizeof pidNamespace);
    return marked != nullptr && std::string_view(marked) == "1" && length > 0 &&
           std::string_view(pidNamespace, static_cast<std::size_t>(length)) != "pid:[4026531836]";
}

int runBenchmarksInSandbox(int argc, char** argv) {
    if (!isInSandbox()) {
        std::fprintf(stderr, "%s: run this in scripts/sandbox\n", argv[0]);
        return EXIT_FAILURE;
    }
    return runBenchmarks(argc, argv);
}

} // namespace bench
