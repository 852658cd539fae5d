// The unit tests on the kind of machine that they are for: each of their programs, and the seeds of
// the fuzz targets.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/system/Processes.h"
#include "tests/system/Support.h"
#include "tests/target/Machine.h"
#include "tests/target/MachineSkips.h"
#include "tests/target/SuiteLog.h"

namespace target {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPrograms = "/opt/ovard/unit-programs";
constexpr const char* kSkips = "/opt/ovard/unit-skips";
constexpr const char* kCorpus = "/opt/ovard/corpus";
constexpr int kPatienceMs = 600000;

/// What a program printed but for the tests that were in order.
std::string withoutSuccesses(const std::string& output) {
    std::string rest;
    for (const std::string& line : systemtest::linesOf(output)) {
        const std::string beginning = line.substr(0, 12);
        if (!line.empty() && beginning != "[ RUN      ]" && beginning != "[       OK ]" &&
            beginning != "[----------]") {
            rest += line + '\n';
        }
    }
    return rest;
}

/// Runs a program of the project to its end, which has to be a good one; returns what it printed.
std::string runToSuccess(const std::string& path, const std::vector<std::string>& arguments) {
    const systemtest::ProgramResult result =
        systemtest::runProgram(path, arguments, {}, kPatienceMs);
    EXPECT_EQ(result.ending.text(), "status 0") << path << '\n'
                                                << withoutSuccesses(result.output) << result.errors;
    return result.output;
}

/// A line of the list of programs, "WHERE PROGRAM".
struct UnitProgram {
    std::string where; ///< "anywhere" or "sandbox"
    std::string name;
};

std::vector<UnitProgram> readPrograms() {
    std::vector<UnitProgram> programs;
    for (const std::string& line : systemtest::linesOf(systemtest::readFile(kPrograms))) {
        UnitProgram program;
        std::istringstream(line) >> program.where >> program.name;
        if (program.where != "#") {
            programs.push_back(program);
        }
    }
    return programs;
}

std::string runToSuccess(const UnitProgram& program, const std::string& option) {
    if (program.where == "sandbox") {
        return runToSuccess("/opt/ovard/ovard_target_sandbox",
                            {"/opt/ovard/dynamic/" + program.name, option});
    }
    return runToSuccess("/opt/ovard/" + program.name, {option});
}

void append(std::vector<std::string>& names, const std::vector<std::string>& more) {
    names.insert(names.end(), more.begin(), more.end());
}

TEST(Units, Pass) {
    const std::vector<Skip> listed = parseSkips(systemtest::readFile(kSkips));
    const std::vector<Skip> skips = applySkips(listed, hasShell());
    for (const Skip& skip : skips) {
        std::printf("UNITS %s\n", describe(skip).c_str());
    }
    const std::vector<UnitProgram> programs = readPrograms();
    ASSERT_FALSE(programs.empty());
    std::vector<std::string> tests;
    std::vector<std::string> skipped;
    for (const UnitProgram& program : programs) {
        ASSERT_THAT(program.where, testing::AnyOf("anywhere", "sandbox")) << program.name;
        ASSERT_NE(program.name, "") << program.where;
        append(tests, parseTestList(runToSuccess(program, "--gtest_list_tests")));
        const SuiteLog log = parseSuiteLog(runToSuccess(program, filterFor("*", skips)));
        EXPECT_GT(log.passed, 0) << program.name;
        std::printf("UNITS %s: %d passed\n", program.name.c_str(), log.passed);
        append(skipped, log.skipped);
    }
    EXPECT_NO_THROW(requireTests(listed, tests));
    EXPECT_THAT(skipped,
                testing::UnorderedElementsAreArray(namesOf(skips, Skip::Kind::SkipsItself)));
}

std::vector<std::string> entriesOf(const fs::path& folder) {
    std::vector<std::string> entries;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        entries.push_back(entry.path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

TEST(FuzzTargets, PassTheirSeeds) {
    const std::vector<std::string> corpora = entriesOf(kCorpus);
    ASSERT_FALSE(corpora.empty());
    for (const std::string& corpus : corpora) {
        const std::string program = "ovard_fuzz_" + fs::path(corpus).filename().string();
        const std::vector<std::string> seeds = entriesOf(corpus);
        (void)runToSuccess("/opt/ovard/" + program, seeds); // it says which seed was the last one
        std::printf("UNITS %s: %zu seeds\n", program.c_str(), seeds.size());
    }
}

} // namespace
} // namespace target
