// The same random events for the monitor and for a model of it; after each of them both must agree.
//
// Most of the time is spent in waiting for the monitor, so several pairs run at the same time, each
// on a machine of its own. The seed is printed. OVARD_MODEL_SEED, OVARD_MODEL_STEPS and
// OVARD_MODEL_WORLDS change the seed, the number of all steps and that of the pairs; the first pair
// has the seed itself, each further one the next number.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <list>
#include <random>
#include <string>

#include "tests/system/ModelWorld.h"

namespace systemtest {
namespace {

constexpr std::uint64_t kDefaultSteps = 1000;
constexpr std::uint64_t kDefaultWorlds = 16;

/// How long a step may take on average, and the rest.
constexpr std::uint64_t kStepMs = 6000;
constexpr std::uint64_t kRestMs = 60000;

/// Of the machines: no setting of the clock leads near their boot.
constexpr int kUptimeSec = 100000;

using Model = ModelWorld;

std::string variable(const char* name, std::uint64_t value) {
    return std::string(name) + "=" + std::to_string(value);
}

/// Starts this program anew, in a sandbox of its own, for one pair.
bool startWorld(Program& program, std::uint64_t seed, std::uint64_t steps) {
    const std::string self = linkOf(::getpid(), "exe");
    std::vector<std::string> words = {"--uptime", std::to_string(kUptimeSec)};
    for (const std::string& needed : {self, daemonProgram(), sampleProgram(), wallClockLibrary()}) {
        words.insert(words.end(), {"--bring", folderOf(needed)});
    }
    words.insert(words.end(), {self, "--gtest_filter=Model.*"});
    return program.start(sandboxProgram(), words,
                         {variable("OVARD_MODEL_SEED", seed), variable("OVARD_MODEL_STEPS", steps),
                          variable("OVARD_MODEL_WORLDS", 1),
                          "OVARD_SANDBOX_INIT=" + sandboxInitProgram()});
}

/// Runs the pairs side by side; shows what those write that fail. Returns what there was in all.
ModelCounts runWorlds(std::uint64_t seed, std::uint64_t steps, std::uint64_t worlds) {
    ModelCounts counts;
    const std::uint64_t share = (steps + worlds - 1) / worlds;
    std::list<Program> programs;
    for (std::uint64_t world = 0; world < worlds; ++world) {
        programs.emplace_back();
        EXPECT_TRUE(startWorld(programs.back(), seed + world, share));
    }
    const std::int64_t end = monotonicMs() + static_cast<std::int64_t>(share * kStepMs + kRestMs);
    for (Program& program : programs) {
        const std::int64_t leftMs = std::max<std::int64_t>(end - monotonicMs(), 0);
        const Ending ending = program.waitForEnd(static_cast<int>(leftMs));
        EXPECT_EQ(ending.text(), "status 0"); // the fixture shows the outputs of a failed test
        for (const std::string& line : linesOf(program.output())) {
            const std::size_t colon = line.find(": ");
            if (line.find("seed ") == 0 && colon != std::string::npos) {
                std::cout << line << "\n"; // what this pair did
                counts.addText(line.substr(colon + 1));
            }
        }
    }
    return counts;
}

TEST_F(Model, MonitorAgreesWithIt) {
    const std::uint64_t seed = numberFromEnvironment("OVARD_MODEL_SEED", std::random_device{}());
    const std::uint64_t steps = numberFromEnvironment("OVARD_MODEL_STEPS", kDefaultSteps);
    const std::uint64_t worlds = numberFromEnvironment("OVARD_MODEL_WORLDS", kDefaultWorlds);
    std::cout << "seed " << seed << ", " << steps << " steps, " << worlds << " pairs" << std::endl;
    const ModelCounts counts = worlds > 1 ? runWorlds(seed, steps, worlds) : run(seed, steps);
    const bool isLong = steps >= kDefaultSteps && steps * kDefaultWorlds >= worlds * kDefaultSteps;
    if (isLong && !HasFailure()) {
        expectAllKinds(counts, steps);
    }
}

} // namespace
} // namespace systemtest
