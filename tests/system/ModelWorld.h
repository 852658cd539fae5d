// A monitor and the model of it, to which the same happens.

#ifndef OVARD_TESTS_SYSTEM_MODEL_WORLD_H
#define OVARD_TESTS_SYSTEM_MODEL_WORLD_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/system/Client.h"
#include "tests/system/ModelConsole.h"
#include "tests/system/ModelCounts.h"
#include "tests/system/ModelMonitor.h"
#include "tests/system/ModelSteps.h"
#include "tests/system/Segments.h"
#include "tests/system/Supervision.h"

namespace systemtest {

/// The test of one monitor, or of several that follow each other, on a machine of its own.
class ModelWorld : public SupervisionTest {
protected:
    /// Lets that many random steps happen to both, and compares them after every step. Fails the
    /// test at the first difference. Returns what there was.
    ModelCounts run(std::uint64_t seed, std::uint64_t steps);

private:
    Step nextStep(StepSource& source);
    void happen(const Step& step);
    void request(const Step& step);
    void startTheMonitor(const ModelOptions& how);
    bool endTheMonitor(int signal);
    static void loseHeartbeat(pid_t pid, Beat beat);

    void expectReply(Client& client, const ModelResult& expected, std::int64_t askedSec);
    void expectDate(const Reply& reply, const ModelResult& expected, std::int64_t askedSec) const;
    void expectAgreement();
    void settleModel();
    void noteEndOfFirstPhase(std::int64_t followedMs, const std::string& last);
    bool recognizeProcesses();
    void forgetProcesses();

    // What must be the same and is not, for people; empty when all is.
    std::string difference();
    std::string differentProcesses() const;
    std::string differentPriorities() const;
    std::string differentSegment();
    std::string differentUptime(std::size_t index, const PublishedApp& found) const;
    std::string differentRegistry() const;

    PublishedApp expectedRecord(std::size_t index, const PublishedApp& found) const;
    std::string expectedEntry(const ModelEntry& entry) const;
    std::string history() const;
    std::string resolved(std::string text) const;
    pid_t pidOf(ProcessNumber process) const;
    bool isKnown(pid_t pid) const;

    ModelMonitor model_;
    ModelConsole console_;
    std::size_t requests_ = 0;         ///< that the monitor has executed
    ProcessNumber launchedBefore_ = 0; ///< the last one under the monitor before
    std::size_t mostPasses_ = 0;       ///< in which it must agree after a step
    int inheritedNice_ = 0;            ///< of the monitor, and so of what it launches
    std::int64_t monitorSinceMs_ = 0;
    int age_ = 0; ///< steps that the monitor has seen
    std::map<ProcessNumber, pid_t> pids_;
    std::vector<std::string> history_;
    ModelCounts counts_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_WORLD_H
