// The events of the model-based test, and a random choice of them.

#ifndef OVARD_TESTS_SYSTEM_MODEL_STEPS_H
#define OVARD_TESTS_SYSTEM_MODEL_STEPS_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "records/reqcmd.h"
#include "tests/system/ModelMachine.h"
#include "tests/system/ModelMonitor.h"

namespace systemtest {

enum class StepKind {
    /// `bytes` come over the socket; with `crashes`, the process that it registered is killed
    Request,
    Crash,         ///< `process` is killed
    LostHeartbeat, ///< `process` stands still, and its last beat is what `beat` says
    LatePidFile,   ///< the pid file of the entry `entry` is written
    FirstPhaseEnd, ///< the monitor's first half minute goes by
    Clock,         ///< the wall clock is set `setting` seconds away from the true time
    Monitor,       ///< the monitor is ended with `signal`, and another one begins
};

/// One event.
struct Step {
    StepKind kind = StepKind::Request;
    std::string bytes;
    bool crashes = false;
    ProcessNumber process = 0;
    Beat beat = Beat::Fresh;
    std::size_t entry = 0;
    std::int64_t setting = 0;
    int signal = 0;
    ModelOptions options; ///< of the other monitor
};

/// Steps of that kind, in words.
const char* nameOf(StepKind kind);

/// One line for people.
std::string textOf(const Step& step);

/// The programs that the steps use, as paths.
std::vector<std::string> programsOfSteps();

/// Lets a step happen to the model, without the supervision that follows it. What a request has
/// come to is the result.
ModelResult apply(const Step& step, ModelMonitor& model);

/// A random sequence of steps whose outcome the model knows.
class StepSource {
public:
    /// Without `setsClock` the wall clock is left alone.
    StepSource(std::uint64_t seed, bool setsClock);

    /// The next step for a monitor that the model describes, and that has seen `age` steps.
    Step next(const ModelMonitor& model, int age);

    /// How often it has found none but the monitor's end.
    int lastResorts() const { return lastResorts_; }

private:
    Step candidate(const ModelMonitor& model, int age);
    Step requestStep(const ModelMonitor& model);
    reqcmd anyRequest();
    reqcmd startRequest();
    reqcmd namedRequest();
    std::string command(const std::string& program, const std::string& pidFileOption,
                        const std::string& pidFile);
    Step monitorStep();
    Step clockStep(const ModelMonitor& model);
    Step processStep(const ModelMonitor& model);

    bool oneIn(int count) { return pick(1, count) == 1; }
    int pick(int least, int most) {
        return std::uniform_int_distribution<int>(least, most)(random_);
    }
    template <typename Things> typename Things::value_type pickFrom(const Things& things) {
        return things[static_cast<std::size_t>(pick(0, static_cast<int>(things.size()) - 1))];
    }

    std::mt19937_64 random_;
    bool setsClock_;
    int lastResorts_ = 0;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_MODEL_STEPS_H
