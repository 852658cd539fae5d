#include "tests/system/ModelCounts.h"

#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "tests/system/ModelSteps.h"

namespace systemtest {
namespace {

struct LeastCount {
    std::string name;
    std::uint64_t inAThousand;
};

/// A half of what StepSource brings about on average, or less where that varies more: not one run
/// in a million has so few of anything by chance.
const std::vector<LeastCount> kLeastCounts = {
    {nameOf(StepKind::Request), 300},   {kReplies, 200},
    {nameOf(StepKind::Crash), 100},     {nameOf(StepKind::LostHeartbeat), 8},
    {nameOf(StepKind::LatePidFile), 2}, {nameOf(StepKind::FirstPhaseEnd), 8},
    {nameOf(StepKind::Clock), 12},      {nameOf(StepKind::Monitor), 30},
};

} // namespace

void ModelCounts::addText(const std::string& text) {
    std::istringstream words(text);
    std::uint64_t number = 0;
    std::string name;
    while (words >> number && std::getline(words >> std::ws, name, ',')) {
        add(name, number);
    }
}

std::string ModelCounts::text() const {
    std::string text;
    for (const auto& [name, number] : counts_) {
        text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + name;
    }
    return text;
}

std::uint64_t ModelCounts::of(const std::string& name) const {
    const auto found = counts_.find(name);
    return found != counts_.end() ? found->second : 0;
}

void expectAllKinds(const ModelCounts& counts, std::uint64_t steps) {
    for (const LeastCount& least : kLeastCounts) {
        if (least.name != nameOf(StepKind::Clock) || counts.of(kClocks) > 0) {
            EXPECT_GE(counts.of(least.name), least.inAThousand * steps / 1000) << least.name;
        }
    }
}

} // namespace systemtest
