// The control tool against the real monitor: exit statuses and what it prints.

#include <csignal>
#include <cstdio>

#include "tests/system/Applications.h"

namespace systemtest {
namespace {

class Ovardctl : public ApplicationTest {
protected:
    static ProgramResult control(const std::vector<std::string>& arguments) {
        return runProgram(controlProgram(), arguments, {"METER_ROOT"});
    }

    std::vector<std::string> startWords(const std::string& name, const std::string& options = "") {
        (void)makeStart(name, options); // installs it
        return {"start", name, "--cmd", commandOf(name, options)};
    }
};

std::vector<std::string> operator+(std::vector<std::string> words,
                                   const std::vector<std::string>& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST_F(Ovardctl, PrintsTheReplyAndEndsWith0) {
    ASSERT_TRUE(startMonitor());
    const ProgramResult start = control(startWords("one"));
    const pid_t pid = pidIn(start.output);
    EXPECT_EQ(start.ending.text(), "status 0");
    EXPECT_EQ(withoutDates(start.output),
              "one [pid=" + std::to_string(pid) + "] is started @DATE\n");
    EXPECT_EQ(start.errors, "");
    EXPECT_TRUE(runsAlone("one", pid));

    const ProgramResult restart = control({"restart", "one"});
    EXPECT_EQ(restart.ending.text(), "status 0");
    EXPECT_EQ(withoutDates(restart.output), "one is restarted @DATE\n");
    EXPECT_FALSE(isRunning(pid));

    const ProgramResult stop = control({"stop", "one"});
    EXPECT_EQ(stop.ending.text(), "status 0");
    EXPECT_EQ(withoutDates(stop.output), "one is stopped @DATE\n");
    EXPECT_TRUE(processesNamed("one").empty());
}

TEST_F(Ovardctl, ActionsOnAllPrintTheirReplies) {
    ASSERT_TRUE(startMonitor());
    (void)launch("security_server");
    const std::vector<std::pair<std::vector<std::string>, std::string>> actions = {
        {{"restart", "--all"}, "all apps were restarted @DATE\n"},
        {{"restart", "--self-restarting"}, "all apps but sec_server were restarted @DATE\n"},
        {{"restart", "--port-apps"}, "all apps on communication ports were restarted @DATE\n"},
        {{"stop", "--port-apps"}, "all apps on ports were stopped @DATE\n"},
        {{"stop", "--all-but-security"}, "all apps but sec_server were stopped @DATE\n"},
        {{"stop", "--all"}, "all apps were stopped @DATE\n"}};
    for (const auto& [arguments, message] : actions) {
        const ProgramResult result = control(arguments);
        EXPECT_EQ(result.ending.text(), "status 0") << message;
        EXPECT_EQ(withoutDates(result.output), message);
    }
}

TEST_F(Ovardctl, FailureCodeInTheReplyEndsWith1) {
    ASSERT_TRUE(startMonitor());
    const ProgramResult stop = control({"stop", "ghost"});
    EXPECT_EQ(stop.ending.text(), "status 1");
    EXPECT_EQ(stop.output, "ghost is not found\n");
    EXPECT_NE(stop.errors.find("-20"), std::string::npos) << stop.errors;
    const ProgramResult all = control({"restart", "--all"});
    EXPECT_EQ(all.ending.text(), "status 1");
    EXPECT_EQ(all.output, "no app is running. \n");
}

TEST_F(Ovardctl, WrongArgumentsEndWith2AndSendNothing) {
    ASSERT_TRUE(startMonitor());
    const LogMark mark;
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"jump"},
                                               {"start", "one"},
                                               {"stop"},
                                               {"stop", "one", "--all"},
                                               {"--timeout", "0", "stop", "one"},
                                               {"stop", std::string(64, 'n')}}) {
        const ProgramResult result = control(arguments);
        EXPECT_EQ(result.ending.text(), "status 2");
        EXPECT_EQ(result.output, "");
        EXPECT_NE(result.errors, "");
    }
    sleepMs(kSilenceMs);
    EXPECT_TRUE(mark.lines(0).empty());
}

TEST_F(Ovardctl, WithoutAMonitorEndsWith3) {
    const ProgramResult missing = control({"stop", "one"});
    EXPECT_EQ(missing.ending.text(), "status 3");
    EXPECT_EQ(missing.output, "");
    EXPECT_NE(missing.errors.find(kSocketPath), std::string::npos) << missing.errors;

    ASSERT_TRUE(startMonitor());
    monitor_.kill();
    ASSERT_TRUE(fileExists(kSocketPath)) << "nobody removed it";
    EXPECT_EQ(control({"stop", "one"}).ending.text(), "status 3");
}

TEST_F(Ovardctl, TimeOutDuringASlowStartEndsWith4) {
    ASSERT_TRUE(startMonitor());
    const ProgramResult result = control(startWords("slow", "--daemonize-after 2500") +
                                         std::vector<std::string>{"--timeout", "1"});
    EXPECT_EQ(result.ending.text(), "status 4");
    EXPECT_GE(result.ending.tookMs, 900);
    EXPECT_LT(result.ending.tookMs, 2000);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.errors, "");
    // The start goes on all the same.
    const std::string begin = "start_process: name=slow ";
    EXPECT_TRUE(eventually([&] {
        for (const std::string& text : daemonLogTexts(6)) {
            if (text.compare(0, begin.size(), begin) == 0) {
                return true;
            }
        }
        return false;
    }));
    EXPECT_EQ(processesNamed("slow").size(), 1U);
}

TEST_F(Ovardctl, FailureWithoutAReplyEndsWith4) {
    ASSERT_TRUE(startMonitor());
    launchOneThatCannotBeStopped("one");
    // A second until requests are taken again, another one for the stop itself.
    const ProgramResult result = control({"stop", "one", "--timeout", "4"});
    EXPECT_EQ(result.ending.text(), "status 4");
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(countLog(3, "one fails to stop"), 1U);
}

TEST_F(Ovardctl, WithoutWaitingNothingIsPrinted) {
    ASSERT_TRUE(startMonitor());
    const ProgramResult start = control(startWords("slow", "--daemonize-after 4500") +
                                        std::vector<std::string>{"--no-wait"});
    EXPECT_EQ(start.ending.text(), "status 0");
    EXPECT_LT(start.ending.tookMs, 4000);
    EXPECT_EQ(start.output, "");
    EXPECT_EQ(start.errors, "");
    EXPECT_TRUE(eventually([] { return !processesNamed("slow").empty(); }));
    const ProgramResult stop = control({"stop", "ghost", "--no-wait"});
    EXPECT_EQ(stop.ending.text(), "status 0") << "nobody told it of the failure";
    EXPECT_EQ(stop.output, "");
}

TEST_F(Ovardctl, ShowsTheEventsOfTheMonitor) {
    ASSERT_TRUE(startMonitor());
    EXPECT_EQ(monitor_.terminate().text(), "ended");
    const ProgramResult all = control({"events"});
    EXPECT_EQ(all.ending.text(), "status 0") << all.errors;
    EXPECT_EQ(all.output, readFile(kEventLogPath));
    EXPECT_EQ(linesOf(all.output).size(), eventLog().size());
    const ProgramResult last = control({"events", "-n", "1", "--json"});
    const EventLine stopped = eventLog().back();
    EXPECT_EQ(stopped.text, "Application Monitor Stopped.");
    std::string time = stopped.time + 'Z';
    time.replace(time.find(' '), 1, "T");
    EXPECT_EQ(last.output,
              R"({"time":")" + time + R"(","tag":"Ovard","text":")" + stopped.text + "\"}\n");
}

TEST_F(Ovardctl, FollowsTheEventsOfOneMonitorAfterTheOther) {
    Program events;
    ASSERT_TRUE(events.start(controlProgram(), {"events", "-f"}));
    ASSERT_TRUE(eventually([&] { return events.errors().find("waiting") != std::string::npos; }));
    std::string expected;
    const std::string older = std::string(kEventLogPath) + ".1";
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(startMonitor());
        EXPECT_EQ(monitor_.terminate().text(), "ended");
        expected += readFile(kEventLogPath);
        EXPECT_TRUE(eventually([&] { return events.output() == expected; })) << events.output();
        ASSERT_EQ(std::rename(kEventLogPath, older.c_str()), 0) << "as the monitor does at 1 MiB";
    }
    EXPECT_EQ(countOf(expected, "Application Monitor Stopped."), 2U);
    ASSERT_TRUE(sendSignal(events.pid(), SIGINT));
    EXPECT_EQ(events.waitForEnd(kPatienceMs).text(), "signal 2");
}

} // namespace
} // namespace systemtest
