// The control tool on a terminal, against the real monitor: what it draws there and nowhere else,
// and what the keyboard does.

#include <algorithm>

#include "tests/system/Publication.h"
#include "tests/system/SanitizerReports.h"
#include "tests/system/Terminal.h"

namespace systemtest {
namespace {

constexpr const char* kInterruptKey = "\x03";

/// Longer than the monitor rests after a request.
constexpr int kServedPauseMs = 1100;

class OvardctlTerminal : public PublicationTest {
protected:
    /// Runs the tool on a terminal to its end; returns what it wrote there.
    static std::string outputOf(const std::vector<std::string>& arguments,
                                const std::vector<std::string>& environment = {}) {
        TerminalProgram tool;
        EXPECT_TRUE(tool.start(controlProgram(), arguments, environment));
        EXPECT_EQ(tool.waitForEnd(20000).text(), "status 0");
        return tool.output();
    }

    /// The words that start an application whose start takes two and a half seconds.
    std::vector<std::string> slowStart() {
        const std::string options = "--daemonize-after 2500";
        (void)makeStart("slow", options); // installs it
        return {"start", "slow", "--cmd", commandOf("slow", options)};
    }
};

TEST_F(OvardctlTerminal, TellsHowLongItWaitsAndLeavesTheReplyAlone) {
    ASSERT_TRUE(startMonitor());
    const std::string output = outputOf(slowStart());
    const std::size_t seconds = countOf(output, "s, waiting for");
    EXPECT_GE(seconds, 2U);
    std::string expected;
    for (std::size_t second = 1; second <= seconds; ++second) {
        expected += "\r" + std::to_string(second) +
                    "s, waiting for \"start slow\" (Ctrl-C ends the wait)\x1b[K";
    }
    expected += "\r\x1b[Kslow [pid=" + std::to_string(pidIn(output)) + "] is started @DATE\r\n";
    EXPECT_EQ(withoutDates(output), expected);
}

TEST_F(OvardctlTerminal, TellsNothingOfAShortWait) {
    ASSERT_TRUE(startMonitor());
    (void)launch("one");
    sleepMs(kServedPauseMs); // until then the monitor takes no further request
    EXPECT_EQ(withoutDates(outputOf({"stop", "one"})), "one is stopped @DATE\r\n");
}

TEST_F(OvardctlTerminal, TellsNothingOfTheWaitElsewhere) {
    ASSERT_TRUE(startMonitor());
    const std::string onDumbTerminal = outputOf(slowStart(), {"TERM=dumb"});
    EXPECT_EQ(withoutDates(onDumbTerminal),
              "slow [pid=" + std::to_string(pidIn(onDumbTerminal)) + "] is started @DATE\r\n");
    ASSERT_EQ(outputOf({"stop", "slow"}).find("slow is stopped"), 0U);
    const ProgramResult inPipes = runProgram(controlProgram(), slowStart(), {"TERM=xterm"});
    EXPECT_EQ(inPipes.ending.text(), "status 0");
    EXPECT_EQ(inPipes.errors, "");
}

TEST_F(OvardctlTerminal, InterruptEndsTheWaitAndNothingElse) {
    ASSERT_TRUE(startMonitor());
    TerminalProgram tool;
    ASSERT_TRUE(tool.start(controlProgram(), slowStart()));
    ASSERT_TRUE(tool.shows("\r1s, waiting"));
    tool.forget();
    ASSERT_TRUE(tool.type(kInterruptKey));
    const Ending ending = tool.waitForEnd();
    EXPECT_EQ(ending.text(), "status 130");
    // The thread sanitizer keeps a signal back until a wait ends, that is, for a second.
    EXPECT_LT(ending.tookMs, kThreadsAreSanitized ? 1900 : 900) << "at once";
    EXPECT_EQ(tool.output().substr(tool.output().find("\r\x1b[K")),
              "\r\x1b[Kovardctl: interrupted; the monitor goes on with the request, \"ovardctl "
              "status\" shows what becomes of it\r\n");

    // A request that came before the start is over would be given the start's reply.
    ASSERT_TRUE(
        eventually([] { return countOf(readFile(kDaemonLogPath), "] is started @") == 1; }));
    const ProgramResult stop = runProgram(controlProgram(), {"stop", "slow"});
    EXPECT_EQ(stop.ending.text(), "status 0") << stop.errors;
    EXPECT_EQ(withoutDates(stop.output), "slow is stopped @DATE\n") << "it was started";
}

TEST_F(OvardctlTerminal, ColoursStatusOnATerminalOnly) {
    ASSERT_TRUE(startPublisher());
    const pid_t pid = launch(makeSupervised("one", kNoPolicy));
    ASSERT_TRUE(publishes("one", pid, "started"));
    const std::string coloured = outputOf({"status"});
    EXPECT_NE(coloured.find("Monitor:  \x1b[32mrunning\x1b[0m\r\n"), std::string::npos) << coloured;
    EXPECT_NE(coloured.find("\x1b[32mstarted\x1b[0m"), std::string::npos) << coloured;
    for (const char* variable : {"NO_COLOR=1", "TERM=dumb", "TERM="}) {
        const std::string plain = outputOf({"status"}, {variable});
        EXPECT_EQ(plain.find('\x1b'), std::string::npos) << variable;
        EXPECT_NE(plain.find("Monitor:  running\r\n"), std::string::npos) << plain;
    }
    EXPECT_NE(outputOf({"status"}, {"NO_COLOR="}).find('\x1b'), std::string::npos);
    const ProgramResult piped = runProgram(controlProgram(), {"status"}, {"TERM=xterm"});
    EXPECT_EQ(piped.output.find('\x1b'), std::string::npos);
    EXPECT_NE(piped.output.find("\none   "), std::string::npos) << piped.output;
    EXPECT_EQ(outputOf({"status", "--json"}).find('\x1b'), std::string::npos);
}

/// The beginning of the line of an application, up to its status. The column is as wide as its
/// title.
std::string lineOf(const std::string& name, pid_t pid) {
    std::string number = std::to_string(pid);
    number.insert(0, 3 - std::min<std::size_t>(number.size(), 3), ' ');
    return "\r\n" + name + "   " + number + "  ";
}

TEST_F(OvardctlTerminal, WatchesAMonitorBeingKilledAndReplaced) {
    ASSERT_TRUE(startPublisher());
    const pid_t pid = launch(makeSupervised("one", kNoPolicy));
    ASSERT_TRUE(publishes("one", pid, "started"));
    TerminalProgram tool;
    ASSERT_TRUE(tool.start(controlProgram(), {"status", "--watch", "1"}));
    const std::string home = "\x1b[H";
    ASSERT_TRUE(tool.shows(home + "\x1b[2J\x1b[?7lMonitor:  \x1b[32mrunning\x1b[0m\x1b[K\r\n"));
    // From now on it is drawn in place.
    const std::string running = home + "\x1b[?7lMonitor:  \x1b[32mrunning\x1b[0m\x1b[K\r\n";
    ASSERT_TRUE(tool.shows(running));

    monitor_.kill();
    tool.forget();
    ASSERT_TRUE(tool.shows(home + "\x1b[?7lMonitor:  \x1b[31mnot running\x1b[0m\x1b[K\r\n"));
    EXPECT_TRUE(tool.shows("1 application, \x1b[31mstale\x1b[0m, "));
    EXPECT_TRUE(tool.shows(lineOf("one", pid) + "started "));
    EXPECT_TRUE(tool.shows("ovardctl: no monitor listens on /tmp/appmon_sock"));

    ASSERT_TRUE(startPublisher());
    tool.forget();
    ASSERT_TRUE(tool.shows(running));
    tool.forget();
    EXPECT_TRUE(duringPasses([&] {
        return tool.output().rfind(lineOf("one", pid) + "\x1b[32mstarted\x1b[0m") >
               tool.output().rfind(home);
    })) << tool.output();
    ASSERT_TRUE(tool.type(kInterruptKey));
    EXPECT_EQ(tool.waitForEnd().text(), "signal 2");
    EXPECT_EQ(tool.output().find("stale", tool.output().rfind(home)), std::string::npos);
    EXPECT_EQ(countOf(tool.output(), "\x1b[2J"), 1U) << "the screen is cleared once only";
}

TEST_F(OvardctlTerminal, WatchesTheSystem) {
    ASSERT_TRUE(startPublisher());
    TerminalProgram tool;
    ASSERT_TRUE(tool.start(controlProgram(), {"system", "--watch", "1"}));
    EXPECT_TRUE(tool.shows("\x1b[1mTRAFFIC\x1b[0m"));
    // Its table is longer than the screen.
    EXPECT_TRUE(tool.shows("(more lines than the screen has)\x1b[K\x1b[J\x1b[?7h\x1b[H"));
    ASSERT_TRUE(tool.type(kInterruptKey));
    EXPECT_EQ(tool.waitForEnd().text(), "signal 2");
}

} // namespace
} // namespace systemtest
