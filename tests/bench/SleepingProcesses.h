// Children with chosen command lines that do nothing.

#ifndef OVARD_TESTS_BENCH_SLEEPING_PROCESSES_H
#define OVARD_TESTS_BENCH_SLEEPING_PROCESSES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

/// Runs a program that stands beside this one many times over, and ends exactly those processes on
/// destruction.
class SleepingProcesses {
public:
    /// `program` is the name of its file.
    explicit SleepingProcesses(const char* program = "ovard_bench_sleeping_process");
    ~SleepingProcesses();
    SleepingProcesses(const SleepingProcesses&) = delete;
    SleepingProcesses& operator=(const SleepingProcesses&) = delete;

    /// Starts one more, whose arguments (from argv[0] on) are `words`. It has them once this
    /// returns. False when it cannot be started.
    bool start(const std::vector<std::string>& words);

    std::size_t count() const { return pids_.size(); }

    /// In the order of their start.
    const std::vector<pid_t>& pids() const { return pids_; }

private:
    std::string program_;
    std::vector<pid_t> pids_;
};

} // namespace bench

#endif // OVARD_TESTS_BENCH_SLEEPING_PROCESSES_H
