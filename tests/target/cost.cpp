// What one supervision pass and one publishing cycle cost on the test machine, by the number of
// applications: the mean of many, in processor time. Where the emulator counts instructions instead
// of time (-icount shift=N), N makes instructions of it.
//
//   ovard_target_cost N

#include <ctime>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "status/AppStatusUpdate.h"
#include "tests/bench/HealthyApplications.h"
#include "tests/target/Machine.h"

namespace {

/// Runs of each that are counted, and those before.
constexpr int kRuns = 50;
constexpr int kWarmUpRuns = 3;

/// As far as supervision is concerned no heartbeat ever grows old here.
constexpr std::int32_t kLongestExpireSec = 86400;

double processorNanoseconds() {
    timespec used{};
    (void)::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used); // cannot fail for this clock
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

/// Nanoseconds of processor time that `work` takes.
double costOf(const std::function<void()>& work) {
    for (int run = 0; run < kWarmUpRuns; ++run) {
        work();
    }
    const double begin = processorNanoseconds();
    for (int run = 0; run < kRuns; ++run) {
        work();
    }
    return (processorNanoseconds() - begin) / kRuns;
}

bool allInOrder() {
    for (const appinfo& entry : applist) {
        if (entry.status != APP_STATUS_RUNNING) {
            return false;
        }
    }
    return true;
}

int fail(const char* what) {
    (void)std::fprintf(stderr, "cost: %s\n", what);
    return EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !target::reasonToRefuse().empty()) {
        return fail("this is started on the test machine only");
    }
    const auto shift = static_cast<int>(std::strtol(argv[1], nullptr, 10));
    app_heartbeat_expire_interval = kLongestExpireSec;
    bench::HealthyApplications applications;
    AppManager manager;
    AppStatusUpdate publisher;
    std::vector<appinfo> none;
    if (!applications.start(bench::kMostApplications) || manager.init(false) != 0) {
        return fail("no applications to supervise");
    }
    (void)publisher.initUserShm(none, false); // always 0
    target::waitForUptime(target::kRestSec + 1);
    std::printf("COST | Applications | Supervision pass | Publishing cycle |\n");
    for (const int count : {0, 1, 20, bench::kMostApplications}) {
        applist = applications.entries(count);
        const double pass = costOf([&] { (void)manager.checkStatus(true); }); // always 0
        const double cycle = costOf([&] { (void)publisher.updateUserShm(applist); });
        if (!allInOrder()) {
            return fail("the pass did not find every application in order");
        }
        const double perInstruction = 1 << shift;
        std::printf("COST | %d | %.0f | %.0f |\n", count, pass / perInstruction,
                    cycle / perInstruction);
    }
    target::sayPassed();
    return EXIT_SUCCESS;
}
