// What one supervision pass over healthy applications costs: processor time and system calls. The
// calls of each application are counted one kind at a time, and none is allowed that supervision
// does not need.

#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Wait.h"
#include "records/codes.h"
#include "tests/bench/HealthyApplications.h"
#include "tests/bench/Limits.h"
#include "tests/bench/NeededCalls.h"
#include "tests/bench/SystemCalls.h"

namespace {

constexpr int kRepetitions = 5;
constexpr double kMinimumSeconds = 0.1;

/// As far as supervision is concerned no heartbeat ever grows old here.
constexpr std::int32_t kLongestExpireSec = 86400;

/// Those of a pass that finds no application: the health word that another program keeps in the
/// segment, and whether a signal asks the monitor to end.
constexpr int kCallsOfEmptyPass = 2;

/// A METER_ROOT, below whose folder of pid files the applications' own files are found, too.
constexpr const char* kMeterRoot = "/meter";
constexpr const char* kPidFileFolder = "/tmp/pid";

int neededPerApplication() {
    int total = 0;
    for (const bench::NeededCall& call : bench::kNeededCalls) {
        total += call.count;
    }
    return total;
}

/// Makes this thread what the monitor's main thread is: one that looks for signals to end it.
void watchAsTheMonitorDoes() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    platform::watchForTermination(signals);
}

/// The applications and the manager; made once, because the processes take their time.
class Scene {
public:
    /// Null when it cannot be made.
    static Scene* instance() {
        static Scene scene;
        return scene.ready_ ? &scene : nullptr;
    }

    void registerApplications(int count) { applist = applications_.entries(count); }

    void pass() { (void)manager_.checkStatus(true); } // Always 0.

    /// True when the last pass found every application in order.
    static bool allInOrder() {
        for (const appinfo& entry : applist) {
            if (entry.status != APP_STATUS_RUNNING || entry.check_flag != 1 || entry.uptime < 1) {
                return false;
            }
        }
        return true;
    }

private:
    Scene()
        : ready_(applications_.start(bench::kMostApplications) && manager_.init(false) == 0) {
        watchAsTheMonitorDoes();
    }

    bench::HealthyApplications applications_;
    AppManager manager_;
    bool ready_;
};

/// Calls of one kind for each application more.
double perApplication(const bench::SystemCall& call, const bench::SystemCallCounts& one,
                      const bench::SystemCallCounts& many, int difference) {
    const auto countIn = [&call](const bench::SystemCallCounts& counts) {
        const auto found = counts.find(call);
        return found != counts.end() ? found->second : 0;
    };
    return static_cast<double>(countIn(many) - countIn(one)) / difference;
}

void printRow(double count, const bench::SystemCall& call, const char* purpose) {
    std::printf("%6.2f  %-12s %-46s %s\n", count, call.first.c_str(), call.second.c_str(), purpose);
}

/// Prints what each application costs, kind by kind. False when there is a call more than needed.
bool printCallsPerApplication(const bench::SystemCallCounts& one,
                              const bench::SystemCallCounts& many, int difference) {
    bench::SystemCallCounts others = many;
    double total = 0;
    bool asNeeded = true;
    std::printf("\nSystem calls of a pass for each application:\n");
    for (const bench::NeededCall& needed : bench::kNeededCalls) {
        const bench::SystemCall call(needed.name, needed.file);
        const double count = perApplication(call, one, many, difference);
        printRow(count, call, count > needed.count ? "MORE THAN NEEDED" : needed.purpose);
        asNeeded = asNeeded && count <= needed.count;
        total += count;
        others.erase(call);
    }
    for (const auto& entry : others) {
        const double count = perApplication(entry.first, one, many, difference);
        if (count > 0) {
            printRow(count, entry.first, "NOT NEEDED");
            asNeeded = false;
            total += count;
        }
    }
    std::printf("%6.2f  in all, %d needed\n\n", total, neededPerApplication());
    return asNeeded;
}

bool countPass(Scene& scene, int applications, bench::SystemCallCounts& counts) {
    scene.registerApplications(applications);
    return bench::countSystemCalls([&] { scene.pass(); }, counts);
}

/// The same calls, with files below METER_ROOT under the names that they have without it.
bench::SystemCallCounts withoutMeterRoot(const bench::SystemCallCounts& counts) {
    const std::string prefix = std::string(kPidFileFolder) + kMeterRoot;
    bench::SystemCallCounts result;
    for (const auto& [call, count] : counts) {
        const bool isBelow = call.second.compare(0, prefix.size(), prefix) == 0;
        const std::string file =
            isBelow ? kPidFileFolder + call.second.substr(prefix.size()) : call.second;
        result[{call.first, file}] += count;
    }
    return result;
}

/// Sets METER_ROOT for as long as it lives, with the applications' pid files below it.
class MeterRoot {
public:
    MeterRoot() {
        ready_ = ::mkdir(root_.c_str(), 0755) == 0 &&
                 ::rename(home_.c_str(), (root_ + "/home").c_str()) == 0 &&
                 ::setenv("METER_ROOT", kMeterRoot, 1) == 0;
    }
    ~MeterRoot() {
        ::unsetenv("METER_ROOT");
        (void)::rename((root_ + "/home").c_str(), home_.c_str()); // The passes that follow tell.
    }
    MeterRoot(const MeterRoot&) = delete;
    MeterRoot& operator=(const MeterRoot&) = delete;

    bool ready() const { return ready_; }

private:
    const std::string root_ = std::string(kPidFileFolder) + kMeterRoot;
    const std::string home_ = std::string(kPidFileFolder) + "/home";
    bool ready_;
};

/// Processor time and all calls of a pass over `state.range(0)` applications.
void supervisionPass(benchmark::State& state) {
    Scene* const scene = Scene::instance();
    const auto applications = static_cast<int>(state.range(0));
    bench::SystemCallCounts counts;
    if (scene == nullptr || !countPass(*scene, applications, counts)) {
        state.SkipWithError("no applications to supervise, or no way to trace the pass");
        return;
    }
    for ([[maybe_unused]] auto iteration : state) {
        scene->pass();
    }
    if (!Scene::allInOrder()) {
        state.SkipWithError("the pass did not find every application in order");
        return;
    }
    state.counters[bench::kCalls] = bench::totalOf(counts);
    state.counters[bench::kLimitCalls] = kCallsOfEmptyPass + applications * neededPerApplication();
}

/// Judges which calls are made for each application.
void judgeCalls(benchmark::State& state) {
    Scene* const scene = Scene::instance();
    bench::SystemCallCounts one;
    bench::SystemCallCounts many;
    bool counted = false;
    for ([[maybe_unused]] auto iteration : state) {
        counted = scene != nullptr && countPass(*scene, 1, one) &&
                  countPass(*scene, bench::kMostApplications, many);
    }
    if (!counted) {
        state.SkipWithError("no applications to supervise, or no way to trace the pass");
        return;
    }
    one = withoutMeterRoot(one);
    many = withoutMeterRoot(many);
    const int difference = bench::kMostApplications - 1;
    if (!printCallsPerApplication(one, many, difference)) {
        state.SkipWithError("a call is made that supervision does not need");
        return;
    }
    state.counters[bench::kCalls] =
        static_cast<double>(bench::totalOf(many) - bench::totalOf(one)) / difference;
    state.counters[bench::kLimitCalls] = neededPerApplication();
}

void callsPerApplication(benchmark::State& state) {
    judgeCalls(state);
}

void callsPerApplicationBelowMeterRoot(benchmark::State& state) {
    const MeterRoot root;
    if (!root.ready()) {
        state.SkipWithError("no folder below METER_ROOT");
        return;
    }
    judgeCalls(state);
}

BENCHMARK(callsPerApplication)->Iterations(1);
BENCHMARK(callsPerApplicationBelowMeterRoot)->Iterations(1);
BENCHMARK(supervisionPass)
    ->Unit(benchmark::kMicrosecond)
    ->MeasureProcessCPUTime()
    ->MinTime(kMinimumSeconds)
    ->Repetitions(kRepetitions)
    ->Arg(0)
    ->Arg(1)
    ->Arg(20)
    ->Arg(bench::kMostApplications);

} // namespace

int main(int argc, char** argv) {
    verbose = g_verbose; // as the monitor has it unless told otherwise
    ::unsetenv("METER_ROOT");
    app_heartbeat_expire_interval = kLongestExpireSec;
    return bench::runBenchmarksInSandbox(argc, argv);
}
