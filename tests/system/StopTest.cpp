// How processes are ended: the one of the record, and stray copies beside it.

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

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

/// While it lives, processes of a name that lose their parent become children of the test, which
/// learns how they end.
class Guardian {
public:
    explicit Guardian(std::string name)
        : name_(std::move(name))
        , reaper_([this] {
            while (!enough_) {
                reap();
                sleepMs(1);
            }
        }) {
        EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    }
    ~Guardian() {
        enough_ = true;
        reaper_.join();
        EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
    }
    Guardian(const Guardian&) = delete;
    Guardian& operator=(const Guardian&) = delete;

    /// Waits for the end of one of them.
    Ending endOf(pid_t pid) {
        const auto ending = [&] {
            const std::lock_guard<std::mutex> guard(lock_);
            return endings_[pid];
        };
        (void)eventually([&] { return ending().ended; }); // the caller sees what it is
        return ending();
    }

private:
    void reap() {
        for (const pid_t pid : allProcesses()) {
            const ProcessFacts facts = processFacts(pid);
            const bool isOwn = facts.name == name_ && facts.parent == ::getpid();
            // The monitor waits until nothing is left of the process that it has launched.
            const Ending ending = isOwn ? waitForChild(pid, 0) : Ending();
            if (ending.ended) {
                const std::lock_guard<std::mutex> guard(lock_);
                endings_[pid] = ending;
            }
        }
    }

    const std::string name_;
    std::mutex lock_;
    std::map<pid_t, Ending> endings_; // guarded by lock_
    std::atomic<bool> enough_{false};
    std::thread reaper_;
};

// A process that neither blocks nor handles SIGTERM counts as ended by it from the moment at which
// it is sent, however late it gets the time to go: a SIGKILL that follows changes nothing.
TEST_F(Stop, ProcessIsAskedToEndFirst) {
    Guardian guardian("polite");
    ASSERT_TRUE(startMonitorInForeground());
    const pid_t pid = launch("polite", "--die-of-term");
    expectStopped("polite");
    EXPECT_EQ(guardian.endOf(pid).text(), "signal 15");
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
    EXPECT_EQ(countLog(6, "gone[pid=" + std::to_string(pid) + "] is stopped"), 1U);
}

// The log tells more often of one that takes its time to go, which is hunted as a stray copy.
TEST_F(Stop, EveryProcessIsStoppedOnce) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "6"}));
    std::vector<pid_t> pids = {launch("one"), launch("one")};
    for (const int action : {APPMONCTL_Restart, APPMONCTL_Restart_All}) {
        EXPECT_EQ(askFor(makeRequest(action, "one")).code, 0) << action;
        const std::vector<pid_t> running = processesNamed("one");
        ASSERT_EQ(running.size(), 1U) << action;
        pids.push_back(running[0]);
    }
    expectStopped("one");
    for (const pid_t pid : pids) {
        const std::string trace = "stop_process one pid=" + std::to_string(pid) + "\n";
        EXPECT_EQ(countOf(monitor_.console(), trace), 1U) << trace;
    }
    EXPECT_EQ(countOf(monitor_.console(), "stop_process one "), pids.size());
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
