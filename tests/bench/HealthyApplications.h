// Applications that are in order, as the registry knows them: each is a process of its own with a
// pid file and a heartbeat.

#ifndef OVARD_TESTS_BENCH_HEALTHY_APPLICATIONS_H
#define OVARD_TESTS_BENCH_HEALTHY_APPLICATIONS_H

#include <vector>

#include "records/appinfo.h"
#include "tests/bench/SleepingProcesses.h"

namespace bench {

inline constexpr const char* kApplicationVersion = "1.0.7";

/// As many as are published.
inline constexpr int kMostApplications = 127;

/// Starts the program `healthy_process`, which stands beside this program, many times over; they
/// end with the object. They beat once only: heartbeats must be allowed to be old. Only in
/// scripts/sandbox, because pid files and heartbeats are those of the machine.
class HealthyApplications {
public:
    /// Starts `count` and waits until all are in order. False when that does not come to pass.
    bool start(int count);

    /// The first `count` of them as entries of the registry: running, confirmed, started a long
    /// while ago.
    std::vector<appinfo> entries(int count) const;

private:
    SleepingProcesses processes_{"ovard_bench_healthy_process"};
};

} // namespace bench

#endif // OVARD_TESTS_BENCH_HEALTHY_APPLICATIONS_H
