// How processes are ended: the one of the record, and stray copies beside it.

#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "tests/system/Applications.h"

namespace systemtest {
namespace {

const std::string kReportPath = "/tmp/report";

class Stop : public ApplicationTest {
protected:
    static Reply stop(const std::string& name) { return askFor(makeRequest(APPMONCTL_Stop, name)); }

    static void expectStopped(const std::string& name) {
        EXPECT_EQ(stop(name), replyOf(0, name + " is stopped @DATE\n"));
    }

    /// The path of the conventional pid file of a process of the installation folder.
    static std::string pidFileOf(const std::string& name, pid_t pid) {
        return "/tmp/pid/home/kelvo/root/" + name + ".pid." + std::to_string(pid);
    }

    /// Runs a program that goes into the background by itself, and returns its pid.
    pid_t runBesideTheMonitor(const std::string& path, const std::string& mark) {
        (void)installSampleAt(path);
        EXPECT_EQ(runProgram(path, {mark}).ending.text(), "status 0");
        const std::vector<pid_t> found = processesWithCommandLine(path + " " + mark);
        EXPECT_EQ(found.size(), 1U) << path;
        return found.empty() ? 0 : found[0];
    }
};

/// The pids in the lines "NAME[pid=N] is stopped" since the mark.
std::vector<pid_t> stopsOf(const std::string& name, const std::vector<LogText>& lines) {
    std::vector<pid_t> pids;
    for (const LogText& line : lines) {
        const pid_t pid = pidIn(line.text);
        if (line.level == 6 && line.text == name + "[pid=" + std::to_string(pid) + "] is stopped") {
            pids.push_back(pid);
        }
    }
    return pids;
}

/// The processes that a report calls stray copies.
std::vector<pid_t> straysIn(const LaunchReport& report) {
    std::vector<pid_t> pids;
    for (const auto& [key, value] : report) {
        if (key.compare(0, 6, "stray.") == 0) {
            pids.push_back(std::atoi(value.c_str()));
        }
    }
    return pids;
}

bool anyRuns(const std::vector<pid_t>& pids) {
    return std::any_of(pids.begin(), pids.end(), isRunning);
}

// --- the process of the record -------------------------------------------------------------------

TEST_F(Stop, ProcessIsAskedToEndFirst) {
    ASSERT_TRUE(startMonitor());
    const auto tidiesUp = [this] {
        const pid_t pid = launch("polite");
        const std::string pidFile = pidFileOf("polite", pid);
        EXPECT_TRUE(eventually([&] { return fileExists(pidFile); }));
        expectStopped("polite");
        EXPECT_TRUE(isGone(pid));
        return !fileExists(pidFile);
    };
    // The time that it gets may be too short for it on a busy machine.
    EXPECT_TRUE(tidiesUp() || tidiesUp() || tidiesUp()) << "it had no time to tidy up";
}

TEST_F(Stop, ProcessThatIgnoresTheRequestIsKilledWithinASecond) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch("stubborn", "--ignore-term");
    ASSERT_TRUE(eventually([&] { return fileExists(pidFileOf("stubborn", pid)); }));
    sleepMs(1100); // until the main loop takes requests again
    const std::int64_t begin = monotonicMs();
    expectStopped("stubborn");
    EXPECT_TRUE(isGone(pid));
    EXPECT_LT(monotonicMs() - begin, 1000);
    EXPECT_TRUE(fileExists(pidFileOf("stubborn", pid))) << "it was not killed";
}

TEST_F(Stop, SuspendedProcessIsKilled) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch("frozen");
    ASSERT_TRUE(sendSignal(pid, SIGSTOP));
    ASSERT_TRUE(eventually([pid] { return processFacts(pid).state == 'T'; }));
    expectStopped("frozen");
    EXPECT_TRUE(isGone(pid));
}

TEST_F(Stop, ProcessThatIsGoneCountsAsStopped) {
    ASSERT_TRUE(startMonitor());
    // Without a pid file by its record it is not waited for.
    const pid_t pid = launch("gone", "--no-pidfile");
    ASSERT_TRUE(killAndWait(pid));
    const LogMark mark;
    expectStopped("gone");
    EXPECT_EQ(stopsOf("gone", mark.lines(4)), std::vector<pid_t>{pid});
}

TEST_F(Stop, JustLaunchedProcessWithAPidFileIsWaitedForASecond) {
    ASSERT_TRUE(startMonitor());
    launchOneThatCannotBeStopped("late");
    sleepMs(1100); // until the main loop takes requests again
    const LogMark mark;
    const std::int64_t begin = monotonicMs();
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "late")));
    const std::vector<LogText> lines = mark.lines(3);
    const std::int64_t tookMs = monotonicMs() - begin;
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2], (LogText{3, "late fails to stop"}));
    EXPECT_GE(tookMs, 1000);
    EXPECT_LT(tookMs, 2000);
}

TEST_F(Stop, ProcessOfAnotherUser) {
    const std::vector<std::string> identity = {"--reuid=65534", "--regid=65534", "--clear-groups"};
    std::vector<std::string> probe = identity;
    probe.emplace_back("/bin/true");
    if (::geteuid() != 0 || runProgram("/usr/bin/setpriv", probe).ending.text() != "status 0") {
        GTEST_SKIP() << "nobody else can be had here";
    }
    ASSERT_TRUE(startMonitor());
    (void)installSample("real");
    // The sanitizers' options may name files that others cannot read.
    ASSERT_TRUE(writeScript(programPath("theirs"),
                            "unset ASAN_OPTIONS TSAN_OPTIONS UBSAN_OPTIONS\n"
                            "exec setpriv --reuid=65534 --regid=65534 --clear-groups /bin/bash -c "
                            "'exec -a \"$0\" /home/kelvo/root/real \"$@\"' \"$0\" \"$@\"\n"));
    const pid_t pid = launch("theirs", "--no-pidfile --ignore-term");
    EXPECT_EQ(statusValue(pid, "Uid"), "65534\t65534\t65534\t65534");
    expectStopped("theirs");
    EXPECT_TRUE(isGone(pid));
}

// --- stray copies --------------------------------------------------------------------------------

TEST_F(Stop, StrayCopiesAreHunted) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch("herd", "--fork-stray 3 --report " + kReportPath);
    const std::vector<pid_t> strays = straysIn(waitForReport(kReportPath));
    ASSERT_EQ(strays.size(), 3U);
    ASSERT_EQ(processesNamed("herd").size(), 4U);
    const LogMark mark;
    expectStopped("herd");
    EXPECT_TRUE(processesNamed("herd").empty());
    std::vector<pid_t> stops = stopsOf("herd", mark.lines(7));
    ASSERT_EQ(stops.size(), 4U);
    EXPECT_EQ(stops[0], pid) << "the process of the record comes first";
    std::sort(stops.begin() + 1, stops.end());
    std::vector<pid_t> expected = strays;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(std::vector<pid_t>(stops.begin() + 1, stops.end()), expected);
}

TEST_F(Stop, StubbornStrayCopiesAreKilled) {
    ASSERT_TRUE(startMonitor());
    (void)launch("herd", "--ignore-term --fork-stray 5 --report " + kReportPath);
    ASSERT_EQ(straysIn(waitForReport(kReportPath)).size(), 5U);
    expectStopped("herd");
    EXPECT_TRUE(processesNamed("herd").empty());
}

TEST_F(Stop, CopiesUnderAnotherNameAreSpared) {
    ASSERT_TRUE(startMonitor());
    reqcmd request = makeStart("herd", "--fork-stray 2 --report " + kReportPath);
    std::string("shepherd").copy(request.name, sizeof request.name);
    const pid_t pid = launch(request);
    const std::vector<pid_t> strays = straysIn(waitForReport(kReportPath));
    ASSERT_EQ(strays.size(), 2U);
    expectStopped("shepherd");
    EXPECT_FALSE(isRunning(pid));
    EXPECT_TRUE(isRunning(strays[0]) && isRunning(strays[1]));
}

TEST_F(Stop, NamesAreComparedOver15Characters) {
    ASSERT_TRUE(startMonitor());
    const pid_t alike = runBesideTheMonitor("/home/kelvo/root/fifteen_letters_or_more", "alike");
    const pid_t other = runBesideTheMonitor("/home/kelvo/root/fifteen_letter", "other");
    (void)launch("fifteen_letters");
    expectStopped("fifteen_letters");
    EXPECT_FALSE(isRunning(alike));
    EXPECT_TRUE(isRunning(other)) << "one character less";
}

TEST_F(Stop, LongNamesAreHuntedByTheirBeginning) {
    ASSERT_TRUE(startMonitor());
    (void)launch("an_application_with_a_long_name", "--fork-stray 2 --report " + kReportPath);
    const std::vector<pid_t> strays = straysIn(waitForReport(kReportPath));
    ASSERT_EQ(strays.size(), 2U);
    expectStopped("an_application_with_a_long_name");
    EXPECT_FALSE(anyRuns(strays));
}

TEST_F(Stop, CopiesAreHuntedInTheInstallationFoldersOnly) {
    ASSERT_TRUE(startMonitor());
    std::vector<pid_t> hunted;
    std::vector<pid_t> spared;
    for (const char* folder : {"/home/kelvo/root", "/home/kelvo/modbus", "/home/kelvo/test",
                               "/mnt/runfw/home/kelvo/root", "/mnt/runfw/home/kelvo/modbus",
                               "/mnt/runfw/home/kelvo/test", "/home/kelvo/root/folder"}) {
        hunted.push_back(runBesideTheMonitor(std::string(folder) + "/prey", "beside"));
    }
    for (const char* folder :
         {"/home/kelvo/root/appmon", "/home/kelvo/root/python_scripts", "/home/kelvo/root/actl",
          "/home/kelvo/root/actl_more", "/mnt/runfw/home/kelvo/root/appmon", "/home/kelvo/other",
          "/home/kelvo", "/tmp/home/kelvo/root", "/tmp"}) {
        spared.push_back(runBesideTheMonitor(std::string(folder) + "/prey", "beside"));
    }
    const pid_t pid = launch("prey");
    expectStopped("prey");
    EXPECT_FALSE(isRunning(pid));
    for (const pid_t each : hunted) {
        EXPECT_FALSE(isRunning(each)) << commandLineOf(each);
    }
    for (const pid_t each : spared) {
        EXPECT_TRUE(isRunning(each));
    }
}

TEST_F(Stop, NameWithBlanksAndParenthesesIsHunted) {
    ASSERT_TRUE(startMonitor());
    const pid_t prey = runBesideTheMonitor("/home/kelvo/root/a b) (c", "beside");
    reqcmd request = makeStart("plain");
    std::string("a b) (c").copy(request.name, sizeof request.name);
    (void)launch(request);
    expectStopped("a b) (c");
    EXPECT_FALSE(isRunning(prey));
}

TEST_F(Stop, ReplacementHuntsStrayCopiesOfThePredecessor) {
    ASSERT_TRUE(startMonitor());
    (void)launch("herd", "--fork-stray 2 --report " + kReportPath);
    ASSERT_EQ(straysIn(waitForReport(kReportPath)).size(), 2U);
    const pid_t pid = launch("herd");
    EXPECT_EQ(processesNamed("herd"), std::vector<pid_t>{pid});
}

TEST_F(Stop, NothingIsHuntedForAnUnknownName) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = runBesideTheMonitor("/home/kelvo/root/free", "beside");
    EXPECT_EQ(stop("free"), replyOf(-20, "free is not found\n"));
    EXPECT_TRUE(isRunning(pid));
}

} // namespace
} // namespace systemtest
