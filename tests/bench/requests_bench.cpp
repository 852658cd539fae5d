// What one request costs the monitor where it need not touch a process: splitting of commands, the
// road from processRequest through the queue to the command thread, and the execution there.
//
// Executed are requests that find nothing to do. Console, log and socket cost nothing here, but
// what is written to them is formatted as ever.

#include <benchmark/benchmark.h>

#include <sched.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <string>

#include "appmanager/AppManager.h"
#include "appmanager/CommandWords.h"
#include "platform/Settings.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "tests/bench/Limits.h"

namespace {

constexpr double kMostMicroseconds = 5.0;
constexpr int kRepetitions = 5;
constexpr double kMinimumSeconds = 0.05;
constexpr int kRequestsHandedOver = 1024;
constexpr int kRegisteredApplications = 20;
constexpr int kMostWords = 40;
constexpr std::int32_t kNoSuchAction = 99;

/// After this long without the last request the command thread is woken once more: a request that
/// was announced while the thread was busy may wait for the next announcement.
constexpr long kStallNs = 20000000;
constexpr long kSecondNs = 1000000000;

const char* const kCommand = "/home/kelvo/root/modbus_server --config "
                             "/home/kelvo/conf/modbus.conf --port 502";

/// `kMostWords` words, as many as a command may have.
std::string longCommand() {
    std::string command = "/home/kelvo/root/modbus_server";
    for (int number = 1; number < kMostWords; ++number) {
        command += " --register-" + std::to_string(number);
    }
    return command;
}

void registerApplications(int count) {
    applist.clear();
    for (int number = 0; number < count; ++number) {
        appinfo app = {};
        platform::copyToField(app.name, "application_" + std::to_string(number));
        platform::copyToField(app.cmd, kCommand);
        app.status = APP_STATUS_RUNNING;
        applist.push_back(app);
    }
}

/// A request that is to be answered, for an application that is not registered.
reqcmd makeRequest(std::int32_t action) {
    reqcmd request = {};
    platform::copyToField(request.name, "application_unknown");
    platform::copyToField(request.version, "1.0.0");
    platform::copyToField(request.cmd, kCommand);
    request.action = action;
    return request;
}

void setLimit(benchmark::State& state) {
    state.counters[bench::kLimitUs] = kMostMicroseconds;
}

void parse(benchmark::State& state, const std::string& command, int expectedWords) {
    AppManager manager;
    int words = 0;
    for ([[maybe_unused]] auto iteration : state) {
        const CommandWords parsed(manager, command.c_str());
        words = parsed.count();
        benchmark::DoNotOptimize(parsed.words());
    }
    if (words != expectedWords) {
        state.SkipWithError("the command was split wrongly");
        return;
    }
    setLimit(state);
}

/// Executes a request in place.
void dispatch(benchmark::State& state, std::int32_t action, int registered, int expectedResult) {
    AppManager manager;
    registerApplications(registered);
    const reqcmd request = makeRequest(action);
    int result = 0;
    for ([[maybe_unused]] auto iteration : state) {
        result = manager.processCmd(request);
    }
    if (result != expectedResult) {
        state.SkipWithError("the request had another result");
        return;
    }
    setLimit(state);
}

/// Tells when a number of requests has been executed.
class CountingManager : public AppManager {
public:
    CountingManager() { sem_init(&allDone_, 0, 0); }
    ~CountingManager() override {
        processTermination(this); // the thread must not meet a destroyed semaphore
        sem_destroy(&allDone_);
    }
    CountingManager(const CountingManager&) = delete;
    CountingManager& operator=(const CountingManager&) = delete;

    int processCmd(const reqcmd& request) override {
        const int result = AppManager::processCmd(request);
        if (--left_ == 0) {
            sem_post(&allDone_);
        }
        return result;
    }

    /// Hands `count` requests over and waits until the command thread has executed them all.
    void execute(const reqcmd& request, int count) {
        left_ = count;
        for (int number = 0; number < count; ++number) {
            (void)processRequest(request);
        }
        while (!waitUntilDone()) {
            (void)notify();
        }
    }

private:
    /// False when nothing has come within the stall time.
    bool waitUntilDone() {
        timespec end = {};
        ::clock_gettime(CLOCK_REALTIME, &end);
        end.tv_nsec += kStallNs;
        if (end.tv_nsec >= kSecondNs) {
            end.tv_nsec -= kSecondNs;
            ++end.tv_sec;
        }
        while (sem_timedwait(&allDone_, &end) != 0) {
            if (errno == ETIMEDOUT) {
                return false;
            }
        }
        return true;
    }

    std::atomic<int> left_{0};
    sem_t allDone_;
};

/// Keeps the calling thread, and those that it creates, on one processor. Where there are two, the
/// figure would else be that of the interrupt with which one wakes the other, and not the
/// monitor's. Goes ahead of other programs where that is allowed: after each request the command
/// thread yields the processor, and would have to win it back from them each time.
class OwnProcessor {
public:
    OwnProcessor() {
        sched_getaffinity(0, sizeof previous_, &previous_);
        cpu_set_t current;
        CPU_ZERO(&current);
        CPU_SET(static_cast<std::size_t>(sched_getcpu()), &current);
        sched_setaffinity(0, sizeof current, &current);
        schedule(SCHED_FIFO, 1);
    }
    ~OwnProcessor() {
        schedule(SCHED_OTHER, 0);
        sched_setaffinity(0, sizeof previous_, &previous_);
    }
    OwnProcessor(const OwnProcessor&) = delete;
    OwnProcessor& operator=(const OwnProcessor&) = delete;

private:
    static void schedule(int policy, int priority) {
        sched_param parameters = {};
        parameters.sched_priority = priority;
        (void)sched_setscheduler(0, policy, &parameters); // for root only; it goes without, too
    }

    cpu_set_t previous_;
};

/// Hands requests over and has the command thread execute them, `state.range(0)` at a time.
void handOver(benchmark::State& state, std::int32_t action) {
    const OwnProcessor ownProcessor;
    CountingManager manager;
    registerApplications(kRegisteredApplications);
    if (manager.init(false) != 0) {
        state.SkipWithError("the manager could not be started");
        return;
    }
    const reqcmd request = makeRequest(action);
    const auto count = static_cast<int>(state.range(0));
    while (state.KeepRunningBatch(count)) {
        manager.execute(request, count);
    }
    setLimit(state);
}

void perRequest(benchmark::internal::Benchmark* benchmark) {
    benchmark->Unit(benchmark::kMicrosecond)
        ->MeasureProcessCPUTime()
        ->MinTime(kMinimumSeconds)
        ->Repetitions(kRepetitions);
}

/// Many waiting: with one at a time the figure would be mostly that of the two thread switches,
/// which is the machine's and not the monitor's. A fixed number, because a request can take a
/// thousand times as long when other programs are given the processor that it yields.
void perRequestHandedOver(benchmark::internal::Benchmark* benchmark) {
    benchmark->Unit(benchmark::kMicrosecond)
        ->MeasureProcessCPUTime()
        ->Iterations(kRequestsHandedOver)
        ->Repetitions(kRepetitions)
        ->Arg(16);
}

BENCHMARK_CAPTURE(parse, short_command, kCommand, 5)->Apply(perRequest);
BENCHMARK_CAPTURE(parse, forty_words, longCommand(), kMostWords)->Apply(perRequest);

BENCHMARK_CAPTURE(dispatch, stop_unknown_name, APPMONCTL_Stop, kRegisteredApplications, 0)
    ->Apply(perRequest);
BENCHMARK_CAPTURE(dispatch, restart_unknown_name, APPMONCTL_Restart, kRegisteredApplications, 0)
    ->Apply(perRequest);
BENCHMARK_CAPTURE(dispatch, stop_all_of_none, APPMONCTL_Stop_All, 0, 0)->Apply(perRequest);
BENCHMARK_CAPTURE(dispatch, reserved_action, APPMONCTL_Reserved9, kRegisteredApplications, 0)
    ->Apply(perRequest);
BENCHMARK_CAPTURE(dispatch, unknown_action, kNoSuchAction, kRegisteredApplications, kResultInvalid)
    ->Apply(perRequest);

BENCHMARK_CAPTURE(handOver, reserved_action, APPMONCTL_Reserved9)->Apply(perRequestHandedOver);
BENCHMARK_CAPTURE(handOver, stop_unknown_name, APPMONCTL_Stop)->Apply(perRequestHandedOver);

} // namespace

int main(int argc, char** argv) {
    verbose = g_verbose; // as the monitor has it unless told otherwise
    return bench::runBenchmarks(argc, argv);
}
