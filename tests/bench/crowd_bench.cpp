// What 2,000 other processes cost the monitor: nothing in a supervision pass and a publishing cycle
// while all is well, and no search of /proc in the adoption of applications whose pids are known.

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "appmanager/AppManager.h"
#include "platform/Process.h"
#include "platform/Settings.h"
#include "platform/ShmUpdate.h"
#include "records/segments.h"
#include "status/AppStatusUpdate.h"
#include "tests/bench/BareFileLoop.h"
#include "tests/bench/HealthyApplications.h"
#include "tests/bench/Limits.h"
#include "tests/bench/ProcessorTime.h"
#include "tests/bench/SystemCalls.h"

namespace {

constexpr int kFewOthers = 100;
constexpr int kManyOthers = 2000;

constexpr double kMostTimesAmongFew = 1.05;
constexpr double kMostTimesTheBareLoop = 1.5;

/// Times that the crowd comes and goes, and runs that are timed each time.
constexpr int kVisits = 3;
constexpr int kRunsEachVisit = 201;
constexpr int kWarmUpRuns = 5;
constexpr int kRepetitions = 2;

constexpr int kAdoptionRounds = 201;

/// As far as supervision is concerned no heartbeat ever grows old here.
constexpr std::int32_t kLongestExpireSec = 86400;

/// Bytes that the adoption asks for of each file.
constexpr std::size_t kStatBytes = 1024;
constexpr std::size_t kCmdlineBytes = 1023;
constexpr std::size_t kPathBytes = PATH_MAX;

/// Processes without meaning for the monitor.
std::unique_ptr<bench::SleepingProcesses> startOthers(int count) {
    auto others = std::make_unique<bench::SleepingProcesses>();
    for (int number = 0; number < count; ++number) {
        if (!others->start({"/usr/sbin/other", std::to_string(number)})) {
            return nullptr;
        }
    }
    return others;
}

/// A pass and a cycle as the main loop makes them when they are due.
class Monitor {
public:
    explicit Monitor(const bench::HealthyApplications& applications)
        : ready_(manager_.init(false) == 0) {
        applist = applications.entries(bench::kMostApplications);
    }
    ~Monitor() { applist.clear(); }
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    bool ready() const { return ready_; }

    void passAndCycle() {
        (void)manager_.checkStatus(true); // Always 0.
        (void)manager_.updateStatus();    // The result of unlocking.
    }

    bool allInOrder() const {
        std::size_t inOrder = 0;
        for (const appinfo& entry : applist) {
            inOrder += entry.check_flag == 1 && entry.uptime > 0 ? 1 : 0;
        }
        return inOrder == std::size_t{bench::kMostApplications};
    }

private:
    AppManager manager_;
    bool ready_;
};

/// What passes and cycles cost among a number of others.
struct Costs {
    std::vector<double> seconds;
    bench::SystemCallCounts calls;
};

bool measure(Monitor& monitor, Costs& costs) {
    const auto work = [&] { monitor.passAndCycle(); };
    for (int run = 0; run < kWarmUpRuns; ++run) {
        work();
    }
    for (int run = 0; run < kRunsEachVisit; ++run) {
        costs.seconds.push_back(bench::processorSecondsOf(work));
    }
    return monitor.allInOrder() && bench::countSystemCalls(work, costs.calls);
}

void passAndCycleAmongOthers(benchmark::State& state) {
    bench::HealthyApplications applications;
    const auto few = startOthers(kFewOthers);
    if (few == nullptr || !applications.start(bench::kMostApplications)) {
        state.SkipWithError("the processes could not be started");
        return;
    }
    Monitor monitor(applications);
    Costs amongFew;
    Costs amongMany;
    bool measured = monitor.ready();
    for ([[maybe_unused]] auto iteration : state) {
        for (int visit = 0; measured && visit < kVisits; ++visit) {
            measured = measure(monitor, amongFew);
            const auto crowd = startOthers(kManyOthers - kFewOthers);
            measured = measured && crowd != nullptr && measure(monitor, amongMany);
        }
    }
    if (!measured || amongFew.calls != amongMany.calls) {
        state.SkipWithError(measured ? "the others cause system calls"
                                     : "pass and cycle could not be measured");
        return;
    }
    constexpr double kMicrosecondsPerSecond = 1e6;
    const double fewSeconds = bench::median(amongFew.seconds);
    const double manySeconds = bench::median(amongMany.seconds);
    state.counters["few_us"] = fewSeconds * kMicrosecondsPerSecond;
    state.counters["many_us"] = manySeconds * kMicrosecondsPerSecond;
    state.counters[bench::kCalls] = bench::totalOf(amongMany.calls);
    state.counters[bench::kRatio] = manySeconds / fewSeconds;
    state.counters[bench::kLimitRatio] = kMostTimesAmongFew;
}
BENCHMARK(passAndCycleAmongOthers)
    ->Iterations(1)
    ->Repetitions(kRepetitions)
    ->Unit(benchmark::kMillisecond);

/// A monitor that is started while the applications of an earlier one run.
class Adoption {
public:
    /// Publishes the applications as the earlier monitor has left them.
    explicit Adoption(const bench::HealthyApplications& applications) {
        (void)successor_.initUserShm(adopted_, false); // Always 0, as all calls below.
        AppStatusUpdate predecessor;
        (void)predecessor.initUserShm(adopted_, false);
        published_ = applications.entries(bench::kMostApplications);
        for (appinfo& entry : published_) {
            statstruct_proc facts = {};
            (void)get_proc_info_by_pid(entry.pid, &facts); // Shows when nothing is adopted.
            entry.start_time = predecessor.startTimeOf(facts);
        }
        (void)predecessor.updateUserShm(published_);
    }

    void run() {
        adopted_.clear();
        (void)successor_.initAppInfoWithoutPidFile(adopted_);
    }

    /// True when the last run has taken over every application.
    bool isComplete() const {
        if (adopted_.size() != published_.size()) {
            return false;
        }
        for (std::size_t index = 0; index < adopted_.size(); ++index) {
            if (adopted_[index].pid != published_[index].pid ||
                std::string(adopted_[index].pidfile) != published_[index].pidfile) {
                return false;
            }
        }
        return true;
    }

    const std::vector<appinfo>& published() const { return published_; }

private:
    AppStatusUpdate successor_;
    std::vector<appinfo> published_;
    std::vector<appinfo> adopted_;
};

/// The same calls: the segment, and for each application whether it is the monitor itself, its
/// facts, its pid file and its words.
class BareAdoption {
public:
    explicit BareAdoption(const std::vector<appinfo>& published) {
        (void)segment_.openShm(kApplicationSegmentName, O_RDWR, 0666, sizeof image_);
        for (const appinfo& entry : published) {
            const std::string directory = "/proc/" + std::to_string(entry.pid);
            bench::BareFileLoop files;
            files.add(directory + "/stat", kStatBytes);
            files.add(directory + "/cmdline", kPathBytes);
            files.add(directory + "/cmdline", kCmdlineBytes);
            applications_.push_back({files, entry.pidfile});
        }
    }

    void run() {
        (void)segment_.loadData(&image_, sizeof image_); // Its contents are not looked at.
        for (const Application& application : applications_) {
            struct stat facts = {};
            benchmark::DoNotOptimize(::getpid());
            benchmark::DoNotOptimize(application.files.run());
            benchmark::DoNotOptimize(::stat(application.pidFile.c_str(), &facts));
        }
    }

private:
    struct Application {
        bench::BareFileLoop files;
        std::string pidFile;
    };

    ShmUpdate segment_;
    application_segment image_ = {};
    std::vector<Application> applications_;
};

void adoptionAmongOthers(benchmark::State& state) {
    bench::HealthyApplications applications;
    const auto others = startOthers(kManyOthers);
    if (others == nullptr || !applications.start(bench::kMostApplications)) {
        state.SkipWithError("the processes could not be started");
        return;
    }
    Adoption adoption(applications);
    BareAdoption bareLoop(adoption.published());
    const auto work = [&] { adoption.run(); };
    const auto bare = [&] { bareLoop.run(); };
    int calls = 0;
    if (!bench::makeTheSameCalls(work, bare, calls)) {
        state.SkipWithError("adoption and bare loop cannot be compared");
        return;
    }
    bench::compareWithBareLoop(state, work, bare);
    if (!adoption.isComplete()) {
        state.SkipWithError("not every application was adopted");
        return;
    }
    state.counters[bench::kCalls] = calls;
    state.counters[bench::kLimitRatio] = kMostTimesTheBareLoop;
}
BENCHMARK(adoptionAmongOthers)
    ->Iterations(kAdoptionRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    verbose = g_verbose; // as the monitor has it unless told otherwise
    ::unsetenv("METER_ROOT");
    app_heartbeat_expire_interval = kLongestExpireSec;
    return bench::runBenchmarksInSandbox(argc, argv);
}
