// What a launched application finds, and launches that come to nothing.

#include <sys/stat.h>

#include <algorithm>
#include <csignal>

#include "tests/system/Applications.h"

namespace systemtest {
namespace {

const std::string kReportPath = "/tmp/report";
const std::string kNoSignals(16, '0');

class Launch : public ApplicationTest {
protected:
    /// Launches a program that reports, and returns its report.
    LaunchReport launchReporting(const std::string& name, const std::string& options = "") {
        (void)launch(name, "--report " + kReportPath + (options.empty() ? "" : " " + options));
        LaunchReport report = waitForReport(kReportPath);
        EXPECT_FALSE(report.empty());
        return report;
    }

    /// Launches "words" with this command line and expects it to find these words.
    void expectWords(const std::string& command, const std::vector<std::string>& words) {
        if (!fileExists(programPath("words"))) {
            (void)installSample("words");
        }
        (void)std::remove(kReportPath.c_str()); // there is none at first
        (void)launch(makeRequest(APPMONCTL_Start, "words", command));
        EXPECT_EQ(argumentsIn(waitForReport(kReportPath)), words) << command;
    }
};

using LaunchDescriptors = Launch;

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

/// The words of a command for "words" that reports, `count` in all.
std::vector<std::string> wordsOf(std::size_t count) {
    std::vector<std::string> words = {"/home/kelvo/root/words", "--report", kReportPath};
    while (words.size() < count) {
        words.push_back("w" + std::to_string(words.size() + 1));
    }
    return words;
}

std::string environmentOf(pid_t pid) {
    std::string text = readFile("/proc/" + std::to_string(pid) + "/environ");
    std::replace(text.begin(), text.end(), '\0', '\n');
    return "\n" + text;
}

// --- what it finds -------------------------------------------------------------------------------

TEST_F(Launch, OnlyTheStandardDescriptorsAreOpen) {
    const MonitorThroughScript script("exec 5</dev/zero 9</dev/zero 300</dev/zero\n"
                                      "exec \"$OVARD\" \"$@\"\n");
    ASSERT_TRUE(startMonitor({"-w", "0", "-I", "1"}));
    const auto holds = [this](const std::string& path) {
        const auto open = descriptorsOf(monitor_.pid());
        return std::any_of(open.begin(), open.end(),
                           [&](const auto& entry) { return entry.second == path; });
    };
    ASSERT_TRUE(eventually([&] { return holds(kWatchdogPath); })) << "it is fed after a second";
    EXPECT_TRUE(holds("/dev/zero")) << "there is nothing to hand down";
    // A connection that stays open in the monitor.
    EXPECT_TRUE(staysUnanswered(makeRequest(APPMONCTL_Reserved9)));

    LaunchReport report = launchReporting("one");
    EXPECT_EQ(report["fds"], "0 1 2");
    for (const char* standard : {"fd.0", "fd.1", "fd.2"}) {
        EXPECT_EQ(report[standard], "/dev/null");
    }
}

TEST_F(Launch, StandardFilesAreThoseOfAMonitorInTheForeground) {
    ASSERT_TRUE(startMonitorInForeground());
    LaunchReport report = launchReporting("one");
    EXPECT_EQ(report["fds"], "0 1 2");
    const auto standard = descriptorsOf(monitor_.pid());
    EXPECT_EQ(report["fd.0"], standard.at(0));
    EXPECT_EQ(report["fd.1"], standard.at(1));
    EXPECT_EQ(report["fd.2"], standard.at(2));
    EXPECT_EQ(report["cwd"], linkOf(monitor_.pid(), "cwd"));
}

TEST_F(Launch, StandardFilesAreOpenUnderAMonitorThatWasStartedWithoutThem) {
    const MonitorThroughScript script("exec \"$OVARD\" \"$@\" <&- >&- 2>&-\n");
    ASSERT_TRUE(startMonitorInForeground({"-v", "8"}));
    LaunchReport report = launchReporting("one");
    EXPECT_EQ(report["fds"], "0 1 2");
    for (const char* standard : {"fd.0", "fd.1", "fd.2"}) {
        EXPECT_EQ(report[standard], "/dev/null");
    }
}

TEST_F(Launch, NoSignalIsBlockedOrIgnored) {
    ASSERT_TRUE(startMonitor());
    ASSERT_TRUE(signalIsIn(monitor_.pid(), "SigIgn", SIGPIPE)) << "there is nothing to hand down";
    LaunchReport report = launchReporting("one");
    EXPECT_EQ(report["SigBlk"], kNoSignals);
    EXPECT_EQ(report["SigIgn"], kNoSignals);
}

TEST_F(Launch, WhatTheMonitorWasStartedWithIsNotHandedDown) {
    const MonitorThroughScript script(
        linesThatSetSignals({SIGHUP, SIGUSR2, SIGCHLD, SIGALRM}, {SIGUSR2, SIGWINCH}));
    ASSERT_TRUE(startMonitor());
    ASSERT_TRUE(signalIsIn(monitor_.pid(), "SigIgn", SIGALRM)) << "there is nothing to hand down";
    LaunchReport report = launchReporting("one");
    EXPECT_EQ(report["SigBlk"], kNoSignals);
    EXPECT_EQ(report["SigIgn"], kNoSignals);
}

TEST_F(Launch, PriorityScoreMaskAndFolderAreInherited) {
    ASSERT_TRUE(startMonitor());
    LaunchReport report = launchReporting("one");
    const std::string monitor = "/proc/" + std::to_string(monitor_.pid());
    EXPECT_EQ(report["nice"], std::to_string(processFacts(monitor_.pid()).nice));
    EXPECT_EQ(report["oom_score_adj"] + "\n", readFile(monitor + "/oom_score_adj"));
    EXPECT_EQ(report["umask"], "000");
    EXPECT_EQ(report["cwd"], "/");
}

TEST_F(Launch, RaisedPriorityIsHandedDown) {
    ASSERT_TRUE(startMonitor());
    if (processFacts(monitor_.pid()).nice != -10) {
        GTEST_SKIP() << "no priority can be raised here";
    }
    EXPECT_EQ(launchReporting("one")["nice"], "-10");
}

TEST_F(Launch, OutOfMemoryScoreIsHandedDown) {
    // Raised, which needs no privilege; where the monitor may lower it, it does so afterwards.
    const MonitorThroughScript script("echo 300 >/proc/$$/oom_score_adj\n"
                                      "exec \"$OVARD\" \"$@\"\n");
    ASSERT_TRUE(startMonitor());
    const std::string monitor = "/proc/" + std::to_string(monitor_.pid());
    const std::string score = readFile(monitor + "/oom_score_adj");
    ASSERT_NE(score, "0\n") << "there is nothing to hand down";
    EXPECT_EQ(launchReporting("one")["oom_score_adj"] + "\n", score);
}

TEST_F(Launch, ApplicationIsNoChildOfTheMonitor) {
    ASSERT_TRUE(startMonitor());
    // One second, in which the launched process can be looked at from outside.
    const std::string options = "--report " + kReportPath + " --daemonize-after 1000";
    const reqcmd request = makeStart("one", options);
    const LogMark mark;
    Client client;
    ASSERT_TRUE(sendRequest(client, request));
    ASSERT_TRUE(eventually([] { return !processesNamed("one").empty(); }));
    const pid_t launched = processesNamed("one").at(0);
    EXPECT_EQ(processFacts(launched).parent, 1);
    for (const pid_t pid : allProcesses()) {
        EXPECT_NE(processFacts(pid).parent, monitor_.pid()) << processFacts(pid).name;
    }
    const Reply reply = toReply(client.receiveReply());
    LaunchReport report = waitForReport(kReportPath);
    EXPECT_EQ(report["launch_pid"], std::to_string(launched));
    EXPECT_EQ(report["launch_ppid"], "1");
    EXPECT_EQ(report["pid"], std::to_string(pidIn(reply.message)));
    // The reply names the daemon, the line of the launch the process that was launched.
    EXPECT_EQ(mark.lines(4).at(2), (LogText{6, "start_process: name=one  status=1 "
                                               "start_process_fork2=" +
                                                   std::to_string(launched)}));
}

TEST_F(Launch, EnvironmentIsInherited) {
    monitor_.setMeterRoot("/tmp/x");
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch("one");
    EXPECT_NE(environmentOf(pid).find("\nMETER_ROOT=/tmp/x\n"), std::string::npos)
        << environmentOf(pid);
    EXPECT_TRUE(eventually([pid] {
        return fileExists("/tmp/pid/tmp/x/home/kelvo/root/one.pid." + std::to_string(pid));
    }));
}

// --- words ---------------------------------------------------------------------------------------

TEST_F(Launch, OneWord) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch("one");
    EXPECT_EQ(readFile("/proc/" + std::to_string(pid) + "/cmdline"),
              std::string("/home/kelvo/root/one") + '\0');
}

TEST_F(Launch, AnyNumberOfWordsUpTo40) {
    ASSERT_TRUE(startMonitor());
    for (const std::size_t count : {19U, 20U, 21U, 39U, 40U}) {
        expectWords(joined(wordsOf(count)), wordsOf(count));
    }
}

TEST_F(Launch, WordsAfterThe40thAreDropped) {
    ASSERT_TRUE(startMonitor());
    expectWords(joined(wordsOf(41)), wordsOf(40));
    expectWords(joined(wordsOf(100)), wordsOf(40));
}

TEST_F(Launch, WordsAreParted) {
    ASSERT_TRUE(startMonitor());
    expectWords(" \t/home/kelvo/root/words  --report\t" + kReportPath + "\vthree\f \t four  \t",
                {"/home/kelvo/root/words", "--report", kReportPath, "three", "four"});
    // Neither quotes nor backslashes nor the ends of lines part words or keep them together.
    expectWords("/home/kelvo/root/words --report " + kReportPath + " \"a b\" c\\ d $HOME * e\nf",
                {"/home/kelvo/root/words", "--report", kReportPath, "\"a", "b\"", "c\\", "d",
                 "$HOME", "*", "e\\nf"}); // the report shows the line feed so
}

TEST_F(Launch, LongestCommandIsRunWhole) {
    ASSERT_TRUE(startMonitor());
    std::vector<std::string> words = wordsOf(3);
    words.emplace_back(1023 - joined(words).size() - 1, 'x');
    ASSERT_EQ(joined(words).size(), 1023U);
    expectWords(joined(words), words);
}

// --- pid file ------------------------------------------------------------------------------------

/// A script for the installation folder that tells whether there is a file, then becomes the
/// program "real" under its own name.
std::string scriptThatLooksFor(const std::string& path) {
    return "[ -e " + path +
           " ] && echo present >>/tmp/seen || echo absent >>/tmp/seen\n"
           "exec -a \"$0\" /home/kelvo/root/real \"$@\"\n";
}

TEST_F(Launch, NamedPidFileIsDeletedBeforeTheProgramRuns) {
    ASSERT_TRUE(startMonitor());
    (void)installSample("real");
    ASSERT_TRUE(writeScript(programPath("looks"), scriptThatLooksFor("/tmp/stale.pid")));
    ASSERT_TRUE(writeFile("/tmp/stale.pid", "1\n1.0\n"));
    ASSERT_TRUE(writeFile("/tmp/other.pid", "1\n1.0\n"));
    const reqcmd request = makeStart("looks", "--no-pidfile", "/tmp/stale.pid");
    (void)launch(request);
    EXPECT_EQ(readFile("/tmp/seen"), "absent\n");
    EXPECT_FALSE(fileExists("/tmp/stale.pid"));
    EXPECT_TRUE(fileExists("/tmp/other.pid"));

    ASSERT_TRUE(writeFile("/tmp/stale.pid", "1\n1.0\n"));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Restart, "looks")),
              replyOf(0, "looks is restarted @DATE\n"));
    EXPECT_EQ(readFile("/tmp/seen"), "absent\nabsent\n") << "the entry kept the name";
}

TEST_F(Launch, WithoutANamedPidFileNothingIsDeleted) {
    ASSERT_TRUE(startMonitor());
    (void)installSample("real");
    ASSERT_TRUE(writeScript(programPath("looks"), scriptThatLooksFor("/tmp/stale.pid")));
    ASSERT_TRUE(writeFile("/tmp/stale.pid", "1\n1.0\n"));
    (void)launch("looks");
    EXPECT_EQ(readFile("/tmp/seen"), "present\n");
}

// --- programs ------------------------------------------------------------------------------------

TEST_F(Launch, ScriptIsRunByItsInterpreter) {
    ASSERT_TRUE(startMonitor());
    const std::string real = installSample("real");
    ASSERT_TRUE(writeScript(programPath("script"), "exec -a \"$0\" " + real + " \"$@\"\n"));
    const pid_t pid = launch("script", "--daemonize-after 50");
    EXPECT_EQ(linkOf(pid, "exe"), real);
    EXPECT_TRUE(runsAlone("script", pid, "--daemonize-after 50"));
}

TEST_F(Launch, PathIsNotSearched) {
    // Found by PATH it would leave a mark; the monitor is not waited for.
    const MonitorThroughScript script("export PATH=/tmp/path:$PATH\nexec \"$OVARD\" \"$@\"\n");
    ASSERT_TRUE(writeScript("/tmp/path/found", "echo >/tmp/was_run\n"));
    ASSERT_TRUE(startMonitorInForeground({"-v", "8"}));
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Start, "found", "found")));
    ASSERT_TRUE(eventually([this] {
        return monitor_.console().find("termination time_t=") != std::string::npos;
    })) << "the launched process ends";
    EXPECT_FALSE(fileExists("/tmp/was_run"));
}

TEST_F(Launch, MissingProgramIsAnsweredAsStarted) {
    ASSERT_TRUE(startMonitor());
    const reqcmd request = makeRequest(APPMONCTL_Start, "ghost", commandOf("ghost"));
    const auto descriptors = descriptorsOf(monitor_.pid());
    const LogMark mark;
    const std::int64_t begin = monotonicMs();
    const Reply reply = askFor(request, 40000);
    const std::int64_t tookMs = monotonicMs() - begin;
    const std::string pid = std::to_string(pidIn(reply.message));
    EXPECT_EQ(reply, replyOf(0, "ghost [pid=" + pid + "] is started @DATE\n"));
    EXPECT_EQ(mark.lines(4).at(2),
              (LogText{6, "start_process: name=ghost  status=1 start_process_fork2=" + pid}));
    EXPECT_EQ(processFacts(pidIn(reply.message)).pid, 0) << "neither process nor zombie is left";
    EXPECT_GE(tookMs, 29000) << "the search goes on to the deadline";
    EXPECT_LE(tookMs, 33000);
    EXPECT_TRUE(daemonLogTexts(3).empty());
    EXPECT_TRUE(eventually([&] { return descriptorsOf(monitor_.pid()) == descriptors; }));
}

TEST_F(LaunchDescriptors, DoNotGrowOverLaunchesStopsAndFailures) {
    ASSERT_TRUE(startMonitor());
    const std::string real = installSample("real");
    (void)launch("one"); // what the first launch opens may stay
    const auto before = descriptorsOf(monitor_.pid());
    ASSERT_FALSE(before.empty());
    constexpr int kRounds = 8;
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(askFor(makeRequest(APPMONCTL_Stop, "one")).code, 0) << round;
        ASSERT_GT(launch("one"), 0) << round;
        ASSERT_EQ(askFor(makeRequest(APPMONCTL_Restart, "one")).code, 0) << round;
        // There is no such program, but the search for what it launched finds this process at once.
        const std::string ghost = commandOf("ghost" + std::to_string(round));
        (void)runProgram("/bin/bash", {"-c", "exec -a " + ghost + " " + real});
        ASSERT_EQ(processesWithCommandLine(ghost).size(), 1U);
        (void)launch(makeRequest(APPMONCTL_Start, "ghost" + std::to_string(round), ghost));
    }
    EXPECT_TRUE(eventually([&] { return descriptorsOf(monitor_.pid()) == before; }))
        << testing::PrintToString(before) << "\n"
        << testing::PrintToString(descriptorsOf(monitor_.pid()));
}

TEST_F(Launch, ProgramThatMayNotBeExecuted) {
    ASSERT_TRUE(startMonitor());
    const std::string real = installSample("real");
    const std::string locked = installSample("locked");
    ASSERT_EQ(::chmod(locked.c_str(), 0644), 0);
    // A process of that command line that is there already, so that nothing has to be waited for.
    const ProgramResult other = runProgram("/bin/bash", {"-c", "exec -a " + locked + " " + real});
    ASSERT_EQ(other.ending.text(), "status 0");
    const std::vector<pid_t> present = processesWithCommandLine(locked);
    ASSERT_EQ(present.size(), 1U);

    const LogMark mark;
    EXPECT_EQ(launch(makeRequest(APPMONCTL_Start, "locked", locked)), present[0]);
    const std::string line = mark.lines(4).at(2).text;
    const std::string begin = "start_process: name=locked  status=1 start_process_fork2=";
    ASSERT_EQ(line.compare(0, begin.size(), begin), 0) << line;
    const pid_t launched = std::atoi(line.c_str() + begin.size());
    EXPECT_NE(launched, present[0]);
    EXPECT_GT(launched, 1);
    EXPECT_EQ(processFacts(launched).pid, 0) << "neither process nor zombie is left";
}

} // namespace
} // namespace systemtest
