// What the random steps of the model-based test bring about, by the model alone: a comparison says
// nothing about what never happens.

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/system/ModelMonitor.h"
#include "tests/system/ModelSteps.h"

namespace systemtest {
namespace {

constexpr int kSeeds = 100;
constexpr int kStepsOfASeed = 100;

/// Of each outcome, so that a comparison of a thousand steps has one on average.
constexpr int kLeast = kSeeds * kStepsOfASeed / 1000;

const std::vector<std::string> kOutcomes = {
    "adopted",
    "not found any more",
    "erased",
    "replaced",
    "several replaced at once",
    "boot time reckoned anew",
    "given a priority",
    "code 0",
    "code -20",
    "code -4",
    "start failed",
    "restart failed",
    "stop failed",
    "restart of all failed",
    "restart of those on ports failed",
    "unknown action",
    "now of status 0",
    "now of status 1",
    "now of status 3",
    "now of status 4",
    "now of status 6",
    "now of status 8",
};

using Outcomes = std::map<std::string, int>;

void countResult(const ModelResult& result, Outcomes& outcomes) {
    static const std::map<int, std::string> kFailures = {
        {kModelRestartAllFailed, "restart of all failed"},
        {kModelStopFailed, "stop failed"},
        {kModelRestartPortAppsFailed, "restart of those on ports failed"},
        {kModelInvalid, "unknown action"}};
    if (result.result == kModelStartFailed) { // a restart that fails has a reply
        ++outcomes[result.message.empty() ? "start failed" : "restart failed"];
    }
    const auto failure = kFailures.find(result.result);
    if (failure != kFailures.end()) {
        ++outcomes[failure->second];
    }
    if (result.replied) {
        ++outcomes["code " + std::to_string(result.code)];
    }
}

void countAdoption(const ModelMonitor& before, const ModelMonitor& after, Outcomes& outcomes) {
    outcomes["adopted"] += after.entries().empty() ? 0 : 1;
    outcomes["not found any more"] += after.entries().size() < before.entries().size() ? 1 : 0;
}

/// -1: there is no entry of that name.
int statusIn(const ModelMonitor& model, const std::string& name) {
    const std::vector<ModelEntry>& entries = model.entries();
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const ModelEntry& entry) { return entry.name == name; });
    return found != entries.end() ? found->status : -1;
}

/// The statuses that entries rest at, and have not had before the step.
void countStatuses(const ModelMonitor& before, const ModelMonitor& after, Outcomes& outcomes) {
    for (const ModelEntry& entry : after.entries()) {
        const bool isNew = statusIn(before, entry.name) != entry.status;
        outcomes["now of status " + std::to_string(entry.status)] += isNew ? 1 : 0;
    }
}

int prioritiesOf(const ModelMonitor& model) {
    int count = 0;
    for (const auto& numbered : model.machine().processes()) {
        count += numbered.second.nice ? 1 : 0;
    }
    return count;
}

/// What supervision has made of the step.
void countSupervision(const ModelMonitor& before, const ModelMonitor& after, Outcomes& outcomes) {
    const int launched = after.machine().youngest() - before.machine().youngest();
    outcomes["replaced"] += launched == 1 ? 1 : 0;
    outcomes["several replaced at once"] += launched > 1 ? 1 : 0;
    outcomes["erased"] += after.entries().size() < before.entries().size() ? 1 : 0;
    outcomes["boot time reckoned anew"] +=
        after.times().bootSetting() != before.times().bootSetting() ? 1 : 0;
    outcomes["given a priority"] += prioritiesOf(after) > prioritiesOf(before) ? 1 : 0;
}

void countSteps(std::uint64_t seed, Outcomes& outcomes) {
    StepSource source(seed, true);
    ModelMonitor model;
    model.begin({});
    int age = 0;
    for (int number = 0; number < kStepsOfASeed; ++number) {
        const Step step = source.next(model, age);
        const ModelMonitor before = model;
        countResult(apply(step, model), outcomes);
        if (step.kind == StepKind::Monitor && step.options.discovers) {
            countAdoption(before, model, outcomes);
        }
        const ModelMonitor unsettled = model;
        (void)model.settle(); // how long it takes
        countSupervision(unsettled, model, outcomes);
        countStatuses(before, model, outcomes);
        age = step.kind == StepKind::Monitor ? 0 : age + 1;
    }
    EXPECT_EQ(source.lastResorts(), 0) << "seed " << seed;
}

TEST(ModelSteps, BringAboutEveryOutcome) {
    Outcomes outcomes;
    for (std::uint64_t seed = 1; seed <= kSeeds; ++seed) {
        countSteps(seed, outcomes);
    }
    for (const std::string& outcome : kOutcomes) {
        EXPECT_GE(outcomes[outcome], kLeast) << outcome;
    }
}

} // namespace
} // namespace systemtest
