// Runs the system tests within the test machine, each suite in a sandbox of its own:
//
//   ovard_target_suites JOBS [SUITE]...
//
// So many suites at a time; without suites, all of them. Says what machine-skips leaves out, then
// how each suite ended. Status 0 when all pass.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/SettableClock.h"
#include "tests/system/Support.h"
#include "tests/target/Machine.h"
#include "tests/target/MachineSkips.h"
#include "tests/target/SuiteLog.h"

namespace {

using target::Skip;

/// Where everything is that it reads and runs.
constexpr const char* kFolder = "/opt/ovard";
constexpr const char* kSandbox = "./ovard_target_sandbox";
constexpr const char* kTests = "./ovard_system_tests";

constexpr const char* kLogs = "/tmp/suites/";
constexpr unsigned kPatienceSec = 400;
constexpr int kNotStarted = 127;

/// The threads of a test with 500 clients would else take 4 GiB of addresses for their stacks.
constexpr rlim_t kStackBytes = 524288;

struct Suite {
    std::string name;
    std::vector<std::string> options; ///< of its sandbox
};

struct Run {
    Suite suite;
    double beginSec;
};

void require(bool succeeded, const std::string& what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

std::size_t parseJobs(const char* text) {
    char* end = nullptr;
    const long jobs = text == nullptr ? 0 : std::strtol(text, &end, 10);
    if (jobs < 1 || *end != '\0') {
        throw std::invalid_argument("how many at a time?");
    }
    return static_cast<std::size_t>(jobs);
}

// --- what is run ---

Suite parseSuite(const std::string& line) {
    std::istringstream words(line);
    Suite suite;
    words >> suite.name;
    for (std::string word; words >> word;) {
        suite.options.push_back(word);
    }
    return suite;
}

std::vector<Suite> allSuites() {
    std::vector<Suite> suites;
    for (const std::string& line : systemtest::linesOf(systemtest::readFile("system-suites"))) {
        suites.push_back(parseSuite(line));
    }
    if (suites.empty()) {
        throw std::invalid_argument("there are no suites");
    }
    return suites;
}

/// Those with these names, or all of them. The names end with a null pointer.
std::vector<Suite> chooseSuites(const char* const* names) {
    std::vector<Suite> all = allSuites();
    if (*names == nullptr) {
        return all;
    }
    std::vector<Suite> chosen;
    for (; *names != nullptr; ++names) {
        const auto found = std::find_if(all.begin(), all.end(),
                                        [&](const Suite& suite) { return suite.name == *names; });
        if (found == all.end()) {
            throw std::invalid_argument(std::string("there is no suite ") + *names);
        }
        chosen.push_back(*found);
    }
    return chosen;
}

// --- how it is run ---

/// Suites that have the monitor load a library first, which one without shared libraries does not.
bool preloads(const std::string& suite) {
    const bool setsClock = suite == "FaultClock" || suite == "Model";
    return suite == "FaultRefusedMemory" ||
           (setsClock && !systemtest::SettableClock::isMachineWide());
}

void useSharedPrograms() {
    constexpr std::array<std::pair<const char*, const char*>, 3> kPrograms = {
        {{"OVARD_BINARY", "/opt/ovard/dynamic/ovard"},
         {"OVARDCTL_BINARY", "/opt/ovard/dynamic/ovardctl"},
         {"SAMPLE_APP_BINARY", "/opt/ovard/dynamic/sample_app"}}};
    for (const auto& [name, path] : kPrograms) {
        require(::setenv(name, path, 1) == 0, name);
    }
}

std::string logOf(const std::string& suite) {
    return kLogs + suite;
}

void writeTo(const std::string& path) {
    const platform::UniqueFd file =
        platform::openFile(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    require(::dup2(file.get(), STDOUT_FILENO) != -1 && ::dup2(file.get(), STDERR_FILENO) != -1,
            path);
}

/// In the child. The sandbox ends with all that is in it when its time is over.
[[noreturn]] void becomeSandbox(const Suite& suite, const std::string& option) {
    try {
        std::vector<std::string> words = {kSandbox};
        words.insert(words.end(), suite.options.begin(), suite.options.end());
        words.insert(words.end(), {kTests, option});
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        if (preloads(suite.name)) {
            useSharedPrograms();
        }
        writeTo(logOf(suite.name));
        (void)::alarm(kPatienceSec);
        ::execv(kSandbox, arguments.data());
        require(false, kSandbox);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "suites: %s\n", error.what());
    }
    ::_exit(kNotStarted);
}

/// Starts the program of the tests with one option, in the sandbox of a suite.
pid_t startSandbox(const Suite& suite, const std::string& option) {
    (void)std::fflush(stdout); // else the child had it as well
    const pid_t child = ::fork();
    require(child != -1, "fork");
    if (child == 0) {
        becomeSandbox(suite, option);
    }
    return child;
}

std::vector<std::string> listTests() {
    const Suite all = {"all", {}};
    const pid_t child = startSandbox(all, "--gtest_list_tests");
    int status = 0;
    require(::waitpid(child, &status, 0) == child, "list of tests");
    return target::parseTestList(systemtest::readFile(logOf(all.name)));
}

// --- how it went ---

std::string describe(int status) {
    if (WIFEXITED(status)) {
        return "status " + std::to_string(WEXITSTATUS(status));
    }
    return WTERMSIG(status) == SIGALRM ? "no end" : "signal " + std::to_string(WTERMSIG(status));
}

/// Says how a suite ended. False when it failed.
bool tellResult(const Run& run, int status, const std::vector<Skip>& skips) {
    const char* const name = run.suite.name.c_str();
    const double tookSec = target::uptimeSec() - run.beginSec;
    const std::string text = systemtest::readFile(logOf(run.suite.name));
    const target::SuiteLog log = target::parseSuiteLog(text);
    std::vector<std::string> faults;
    if (status == 0) {
        faults = target::findFaults(run.suite.name, log,
                                    target::namesOf(skips, Skip::Kind::SkipsItself));
    }
    if (status != 0 || !faults.empty()) {
        for (const std::string& fault : faults) {
            std::printf("SUITE %s: %s\n", name, fault.c_str());
        }
        std::printf("SUITE %s: FAILED with %s after %.0f s\n%s", name, describe(status).c_str(),
                    tookSec, text.c_str());
        return false;
    }
    std::printf("SUITE %s: passed %d after %.0f s\n", name, log.passed, tookSec);
    for (const std::string& test : log.skipped) {
        std::printf("SUITE %s: skipped itself: %s\n", name, test.c_str());
    }
    return true;
}

/// Runs these suites, so many at a time. True when all pass.
bool runSuites(const std::vector<Suite>& suites, const std::vector<Skip>& skips, std::size_t jobs) {
    std::map<pid_t, Run> running;
    bool allPass = true;
    for (auto next = suites.begin(); next != suites.end() || !running.empty();) {
        if (next != suites.end() && running.size() < jobs) {
            const pid_t child = startSandbox(*next, target::filterFor(next->name + ".*", skips));
            running[child] = {*next, target::uptimeSec()};
            ++next;
            continue;
        }
        int status = 0;
        const pid_t ended = ::wait(&status);
        require(ended != -1, "wait");
        const auto run = running.find(ended);
        allPass = tellResult(run->second, status, skips) && allPass;
        running.erase(run);
    }
    return allPass;
}

/// Takes away the suites of which nothing is run, and says so.
void takeAwayLeftOut(std::vector<Suite>& suites, const std::vector<Skip>& skips) {
    const std::vector<std::string> leftOut = target::namesOf(skips, Skip::Kind::LeftOut);
    const auto isLeftOut = [&](const Suite& suite) {
        return std::find(leftOut.begin(), leftOut.end(), suite.name + ".*") != leftOut.end();
    };
    for (const Suite& suite : suites) {
        if (isLeftOut(suite)) {
            std::printf("SUITE %s: left out\n", suite.name.c_str());
        }
    }
    suites.erase(std::remove_if(suites.begin(), suites.end(), isLeftOut), suites.end());
}

int run(const char* const* arguments) {
    const std::size_t jobs = parseJobs(arguments[1]);
    require(::chdir(kFolder) == 0, kFolder);
    require(systemtest::makeDirectories(kLogs), kLogs);
    rlimit stack{};
    require(::getrlimit(RLIMIT_STACK, &stack) == 0, "stack");
    stack.rlim_cur = kStackBytes;
    require(::setrlimit(RLIMIT_STACK, &stack) == 0, "stack");
    const std::vector<Skip> listed = target::parseSkips(systemtest::readFile("machine-skips"));
    target::requireTests(listed, listTests());
    const std::vector<Skip> skips = target::applySkips(listed, target::hasShell());
    std::vector<Suite> suites = chooseSuites(arguments + 2);
    for (const Skip& skip : skips) {
        std::printf("SUITE %s\n", target::describe(skip).c_str());
    }
    takeAwayLeftOut(suites, skips);
    if (!runSuites(suites, skips, jobs)) {
        return EXIT_FAILURE;
    }
    target::sayPassed();
    return EXIT_SUCCESS;
}

} // namespace

int main(int /*argc*/, char** argv) {
    try {
        const std::string reason = target::reasonToRefuse();
        if (!reason.empty()) {
            throw std::runtime_error(reason);
        }
        return run(argv);
    } catch (const std::exception& error) {
        std::printf("suites: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
