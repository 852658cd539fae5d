// The libraries for other programs, by their examples in C: the client against the real monitor,
// and the minimal application under its supervision.

#include <sys/utsname.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <regex>

#include "tests/system/Publication.h"

namespace systemtest {
namespace {

ProgramResult runExample(const std::vector<std::string>& arguments = {}) {
    return runProgram(clientExampleProgram(), arguments, {"METER_ROOT"});
}

/// The lines that the example shows, those figures replaced by N that change all the time.
std::vector<std::string> shownLines() {
    static const std::regex figure(R"((uptime=|load |kB, )[0-9.]+)");
    std::vector<std::string> lines = linesOf(runExample().output);
    for (std::string& line : lines) {
        line = std::regex_replace(line, figure, "$1N");
    }
    return lines;
}

/// The line that is to be shown on this machine.
std::string machineLine() {
    static const std::regex total(R"(MemTotal: +([0-9]+ kB))");
    const std::string facts = readFile("/proc/meminfo");
    std::smatch found;
    EXPECT_TRUE(std::regex_search(facts, found, total));
    utsname system = {};
    EXPECT_EQ(::uname(&system), 0);
    return std::string("machine: kernel ") + system.release + ", load N, memory " + found[1].str() +
           ", N kB free, eth0 192.0.2.1";
}

class ClientLibrary : public PublicationTest {
protected:
    /// A start request for the minimal application.
    static reqcmd makeMinimal() {
        EXPECT_TRUE(copyProgram(minimalProgram(), programPath("minimal_app")));
        reqcmd request = makeRequest(APPMONCTL_Start, "minimal_app", commandOf("minimal_app"));
        std::string("1.0").copy(request.version, sizeof request.version);
        request.heartbeat = 1;
        return request;
    }

    static std::string minimalPidFile(pid_t pid, const std::string& meterRoot = "") {
        return "/tmp/pid" + meterRoot + programPath("minimal_app") + ".pid." + std::to_string(pid);
    }
};

TEST_F(ClientLibrary, WithoutAMonitorNothingIsShown) {
    const ProgramResult result = runExample();
    EXPECT_EQ(result.ending.text(), "status 1");
    EXPECT_EQ(result.output, "monitor: not running\n");
    EXPECT_EQ(result.errors, "applications: nothing is published\nmachine: nothing is published\n");
    const ProgramResult stop = runExample({"stop", "one"});
    EXPECT_EQ(stop.ending.text(), "status 1");
    EXPECT_EQ(stop.output, "");
    EXPECT_EQ(stop.errors, "request: no monitor listens\n");
}

TEST_F(ClientLibrary, StartsShowsAndStopsAnApplication) {
    ASSERT_TRUE(startPublisher());
    EXPECT_EQ(shownLines(),
              (std::vector<std::string>{"monitor: running", "applications: 0", machineLine()}));
    (void)installSample("one");
    const std::string options = "--exact-pidfile /tmp/one";
    const ProgramResult start = runExample({"start", "one", commandOf("one", options), "/tmp/one"});
    const pid_t pid = pidIn(start.output);
    EXPECT_EQ(start.ending.text(), "status 0");
    EXPECT_EQ(withoutDates(start.output),
              "one [pid=" + std::to_string(pid) + "] is started @DATE\n");
    EXPECT_EQ(start.errors, "");
    EXPECT_TRUE(runsAlone("one", pid, options));
    ASSERT_TRUE(publishes("one", pid, "started"));
    EXPECT_EQ(shownLines(), (std::vector<std::string>{"monitor: running", "applications: 1",
                                                      "  one pid=" + std::to_string(pid) +
                                                          " status=started uptime=Ns",
                                                      machineLine()}));
    EXPECT_EQ(runExample().ending.text(), "status 0");

    const ProgramResult stop = runExample({"stop", "one"});
    EXPECT_EQ(stop.ending.text(), "status 0");
    EXPECT_EQ(withoutDates(stop.output), "one is stopped @DATE\n");
    EXPECT_TRUE(processesNamed("one").empty());
}

TEST_F(ClientLibrary, AFailureCodeInTheReplyComesThrough) {
    ASSERT_TRUE(startMonitor());
    const ProgramResult stop = runExample({"stop", "ghost"});
    EXPECT_EQ(stop.ending.text(), "status 1");
    EXPECT_EQ(stop.output, "ghost is not found\n");
    EXPECT_EQ(stop.errors, "");
}

TEST_F(ClientLibrary, WhatIsTooLongIsNotSent) {
    ASSERT_TRUE(startMonitor());
    const LogMark mark;
    const ProgramResult stop = runExample({"stop", std::string(64, 'n')});
    EXPECT_EQ(stop.ending.text(), "status 1");
    EXPECT_EQ(stop.errors, "stop: a text is too long\n");
    const ProgramResult start = runExample({"start", "one", std::string(1024, 'c'), ""});
    EXPECT_EQ(start.errors, "start: a text is too long\n");
    const ProgramResult file = runExample({"start", "one", "c", std::string(64, 'f')});
    EXPECT_EQ(file.errors, "start: a text is too long\n");
    const ProgramResult nameless = runExample({"start", "", "command", ""});
    EXPECT_EQ(nameless.errors, "request: invalid argument\n");
    sleepMs(kSilenceMs);
    EXPECT_TRUE(mark.lines(0).empty());
}

TEST_F(ClientLibrary, UnfinishedSegmentsCountAsNotPublished) {
    const std::string nothing =
        "applications: nothing is published\nmachine: nothing is published\n";
    ASSERT_TRUE(writeFile(kSystemSegmentPath, std::string(kSystemSegmentSize, '\0')));
    ASSERT_TRUE(writeFile(kApplicationSegmentPath, std::string(kApplicationSegmentSize, '\0')));
    EXPECT_EQ(runExample().errors, nothing) << "a monitor has just started";
    ASSERT_TRUE(writeFile(kSystemSegmentPath, std::string(kSystemSegmentSize - 1, 'A')));
    ASSERT_TRUE(writeFile(kApplicationSegmentPath, std::string(kApplicationSegmentSize - 1, 'A')));
    EXPECT_EQ(runExample().errors, nothing) << "somebody has shortened them";
}

TEST_F(ClientLibrary, TextsFromDamagedSegmentsEnd) {
    ASSERT_TRUE(writeFile(kSystemSegmentPath, std::string(kSystemSegmentSize, 'A')));
    ASSERT_TRUE(writeFile(kApplicationSegmentPath, std::string(kApplicationSegmentSize, 'A')));
    const ProgramResult result = runExample();
    EXPECT_EQ(result.ending.text(), "status 0");
    const std::vector<std::string> lines = linesOf(result.output);
    ASSERT_EQ(lines.size(), 2U + kMostPublished + 1U);
    EXPECT_EQ(lines[1], "applications: 127");
    EXPECT_EQ(lines[2], "  " + std::string(32, 'A') + " pid=1094795585 status=" +
                            std::string(16, 'A') + " uptime=1094795585s");
    EXPECT_EQ(lines.back().compare(0, 49, "machine: kernel " + std::string(32, 'A') + ","), 0)
        << lines.back();
}

TEST_F(ClientLibrary, AFolderInPlaceOfASegmentIsAFailureOfTheSystem) {
    ASSERT_TRUE(makeDirectories(kApplicationSegmentPath));
    const ProgramResult result = runExample();
    EXPECT_EQ(result.ending.text(), "status 1");
    EXPECT_EQ(linesOf(result.errors).at(0),
              std::string("applications: failure of the system : ") + std::strerror(EINVAL));
}

TEST_F(ClientLibrary, TheMinimalApplicationIsFoundConfirmedAndLeftAlone) {
    ASSERT_TRUE(startSupervisor({"-h", "4"}));
    const pid_t pid = launch(makeMinimal());
    ASSERT_TRUE(getsRunning("minimal_app", pid));
    EXPECT_EQ(readFile(minimalPidFile(pid)), std::to_string(pid) + "\n1.0\n");
    letPassesGoBy(5000); // more than a heartbeat lasts
    EXPECT_TRUE(runsAlone("minimal_app", pid));
    for (const std::string& line : verdictsOn("minimal_app")) {
        EXPECT_EQ(line.find("heartbeat"), std::string::npos) << line;
        EXPECT_EQ(line.find("unconfirmed"), std::string::npos) << line;
    }
}

TEST_F(ClientLibrary, ThePidFileOfTheMinimalApplicationStandsWhenItsLaunchIsOver) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "7"}));
    const pid_t pid = launch(makeMinimal());
    const std::string line = "waitForDaemonization: found pid=" + std::to_string(pid) +
                             ", pidfile=\"" + minimalPidFile(pid) + "\"\n";
    EXPECT_TRUE(eventually([&] { return monitor_.console().find(line) != std::string::npos; }))
        << "an application without a pid file is dropped";
}

TEST_F(ClientLibrary, TheMinimalApplicationIsStopped) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch(makeMinimal());
    const ProgramResult stop = runExample({"stop", "minimal_app"});
    EXPECT_EQ(withoutDates(stop.output), "minimal_app is stopped @DATE\n");
    EXPECT_TRUE(isGone(pid));
}

TEST_F(ClientLibrary, TheMinimalApplicationTidiesUpAtItsEnd) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch(makeMinimal());
    ASSERT_TRUE(eventually([&] { return fileExists(minimalPidFile(pid)); }));
    ASSERT_TRUE(sendSignal(pid, SIGTERM)); // not by the monitor, which kills what takes 50 ms
    EXPECT_TRUE(isGone(pid));
    EXPECT_FALSE(fileExists(minimalPidFile(pid)));
}

TEST_F(ClientLibrary, TheMinimalApplicationFollowsMeterRoot) {
    monitor_.setMeterRoot("/mnt/x");
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch(makeMinimal());
    EXPECT_TRUE(eventually([&] { return fileExists(minimalPidFile(pid, "/mnt/x")); }));
}

TEST_F(ClientLibrary, TheMinimalApplicationIsReplacedWhenItIsKilled) {
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeMinimal();
    const pid_t pid = launch(request);
    ASSERT_TRUE(getsRunning("minimal_app", pid));
    ASSERT_TRUE(killAndWait(pid));
    const pid_t replacement = replacementOf(request, pid);
    ASSERT_NE(replacement, 0);
    EXPECT_TRUE(getsRunning("minimal_app", replacement));
}

} // namespace
} // namespace systemtest
