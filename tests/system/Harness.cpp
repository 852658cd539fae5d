#include "tests/system/Harness.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <set>

#include "tests/system/SanitizerReports.h"

namespace systemtest {
namespace {

constexpr const char* kInitialPidNamespace = "pid:[4026531836]";
constexpr pid_t kKernelThreads = 2;

std::set<pid_t>& rememberedProcesses() {
    static std::set<pid_t> processes;
    return processes;
}

void truncateFile(const std::string& path) {
    if (fileExists(path)) {
        (void)!::truncate(path.c_str(), 0); // the next test would show a failure
    }
}

void reapChildren() {
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

void show(const char* title, const std::string& text) {
    std::cerr << "--- " << title << "\n" << text;
}

/// What one wants to see of a failed test.
void showEvidence() {
    show("event log", readFile(kEventLogPath));
    show("daemon log", readFile(kDaemonLogPath));
    for (const std::string& path : entriesOf(kScratchFolder)) {
        show(path.c_str(), readFile(path));
    }
    std::cerr << "--- end\n";
}

} // namespace

void SystemTest::SetUp() {
    ASSERT_TRUE(endStrangers()) << "processes of an earlier test cannot be ended";
    cleanMachine();
}

void SystemTest::TearDown() {
    if (HasFailure()) {
        showEvidence();
    }
    Daemon::endAll();
    EXPECT_TRUE(processesNamed("ovard").empty()) << "a monitor is left over";
    EXPECT_TRUE(endStrangers()) << "some process cannot be ended";
    const std::string reports = takeSanitizerReports();
    EXPECT_TRUE(reports.empty()) << reports;
}

std::string SystemTest::installSample(const std::string& name) {
    return installSampleAt(std::string(kApplicationFolder) + "/" + name);
}

std::string SystemTest::installSampleAt(const std::string& path) {
    EXPECT_TRUE(copyProgram(sampleProgram(), path)) << path;
    return path;
}

void SystemTest::serveOne() {
    const LogMark mark;
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_TRUE(eventually([&] { return mark.has("nobody is not found"); }));
}

std::string reasonToRefuse() {
    const char* const marker = std::getenv("OVARD_SANDBOX");
    if (marker == nullptr || std::string(marker) != "1") {
        return "OVARD_SANDBOX=1 is not set";
    }
    const std::string space = linkOf(::getpid(), "ns/pid");
    if (space.empty() || space == kInitialPidNamespace) {
        return "this is the machine's own pid namespace";
    }
    return "";
}

void rememberMachine() {
    const std::vector<pid_t> present = allProcesses();
    rememberedProcesses() = {present.begin(), present.end()};
}

std::vector<pid_t> strangers() {
    std::vector<pid_t> found;
    for (const pid_t pid : allProcesses()) {
        const ProcessFacts facts = processFacts(pid);
        const bool isKernelThread = facts.group == 0 && facts.parent == kKernelThreads;
        if (facts.pid > 0 && !isKernelThread && rememberedProcesses().count(pid) == 0) {
            found.push_back(pid);
        }
    }
    return found;
}

std::multiset<std::string> commandLinesBeside(pid_t monitor) {
    std::multiset<std::string> lines;
    for (const pid_t pid : strangers()) {
        const std::string line = commandLineOf(pid);
        if (pid != monitor && isRunning(pid) && !line.empty()) {
            lines.insert(line);
        }
    }
    return lines;
}

bool endStrangers() {
    return eventually([] {
        for (const pid_t pid : strangers()) {
            (void)sendSignal(pid, SIGKILL); // it may have ended meanwhile
        }
        reapChildren();
        return strangers().empty();
    });
}

void cleanMachine() {
    for (const char* folder : {"/tmp", "/dev/shm", "/home", "/mnt", "/var/lib/dhcp"}) {
        emptyDirectory(folder);
    }
    for (const std::string& path : entriesOf("/var/log")) {
        if (path == kDaemonLogPath) {
            awaitDaemonLog(); // nothing of an earlier test is to follow
            truncateFile(path);
        } else if (path.find("meter_events.log") != std::string::npos) {
            (void)std::remove(path.c_str()); // a test would show it
        }
    }
    truncateFile(kWatchdogPath);
    // A test that takes the log away puts it aside; should it fail, this puts it back.
    const std::string aside = std::string(kLogSocket) + ".aside";
    if (fileExists(aside)) {
        (void)std::rename(aside.c_str(), kLogSocket);
    }
}

} // namespace systemtest
