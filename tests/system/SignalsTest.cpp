// What signals do to the monitor, with and without option -b, beside what ShutdownTest.cpp shows.

#include <csignal>
#include <iterator>
#include <map>

#include "tests/system/Applications.h"
#include "tests/system/HeldPass.h"
#include "tests/system/SignalFlood.h"

namespace systemtest {
namespace {

constexpr int kLongestEndMs = 5000;

constexpr const char* kStopped = "Application Monitor Stopped.";

/// The signals that option -b logs.
constexpr int kLogged[] = {SIGHUP, SIGINT, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE, SIGTRAP};

class Signals : public ApplicationTest {
protected:
    /// Sends each of the logged signals, after the one before was logged.
    void sendLoggedSignals() {
        for (const int number : kLogged) {
            const std::string text = "Caught signal " + std::to_string(number);
            const std::size_t before = countEvent(text);
            ASSERT_TRUE(monitor_.signal(number));
            EXPECT_TRUE(eventually([&] { return countEvent(text) == before + 1; })) << number;
        }
    }

    /// Waits until the handlers for SIGINT and SIGTERM are gone.
    bool handlersAreGone() const {
        return eventually([this] {
            return !signalIsIn(monitor_.pid(), "SigCgt", SIGINT) &&
                   !signalIsIn(monitor_.pid(), "SigCgt", SIGTERM);
        });
    }

    void expectServing() { EXPECT_TRUE(askFor(makeRequest(APPMONCTL_Stop, "nobody")).came); }

    /// It ended without any clean-up.
    void expectNothingCleanedUp() {
        EXPECT_TRUE(fileExists(kSocketPath));
        EXPECT_TRUE(fileExists(monitor_.pidFile()));
        EXPECT_EQ(countEvent(kStopped), 0U);
    }
};

// --- without logging -----------------------------------------------------------------------------

/// What can be seen of a monitor, but for the actions of SIGINT and SIGTERM.
struct Appearance {
    explicit Appearance(const Daemon& monitor)
        : descriptors(descriptorsOf(monitor.pid()))
        , threads(threadsOf(monitor.pid()))
        , ignored(statusValue(monitor.pid(), "SigIgn"))
        , console(monitor.console())
        , errors(monitor.errors())
        , events(eventTexts())
        , log(daemonLogTexts(-1))
        , files(entriesOf("/tmp")) {
        for (int number = 1; number < SIGRTMIN; ++number) {
            if (number != SIGINT && number != SIGTERM &&
                signalIsIn(monitor.pid(), "SigCgt", number)) {
                handled.push_back(number);
            }
        }
    }

    std::map<int, std::string> descriptors;
    std::vector<pid_t> threads;
    std::string ignored;
    std::string console;
    std::string errors;
    std::vector<std::string> events;
    std::vector<std::string> log;
    std::vector<std::string> files;
    std::vector<int> handled;
};

TEST_F(Signals, FirstInterruptChangesNothingElse) {
    ASSERT_TRUE(startMonitorInForeground({"-w", "0", "-I", "60"}));
    const pid_t application = launch("one");
    const Appearance before(monitor_);
    ASSERT_TRUE(monitor_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone());
    EXPECT_FALSE(signalIsIn(monitor_.pid(), "SigIgn", SIGINT));
    EXPECT_FALSE(signalIsIn(monitor_.pid(), "SigIgn", SIGTERM));
    const Appearance after(monitor_);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.ignored, before.ignored);
    EXPECT_EQ(after.handled, before.handled);
    EXPECT_EQ(after.console, before.console);
    EXPECT_EQ(after.errors, before.errors);
    EXPECT_EQ(after.events, before.events);
    EXPECT_EQ(after.log, before.log);
    EXPECT_EQ(after.files, before.files);
    EXPECT_TRUE(isRunning(application));
    expectServing();
}

TEST_F(Signals, SecondInterruptEndsItInTheBackgroundToo) {
    ASSERT_TRUE(startMonitor());
    const pid_t application = launch("one");
    ASSERT_TRUE(monitor_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone());
    expectServing();
    ASSERT_TRUE(monitor_.signal(SIGINT));
    EXPECT_TRUE(monitor_.waitForEnd(kLongestEndMs).ended);
    expectNothingCleanedUp();
    EXPECT_TRUE(isRunning(application));
}

TEST_F(Signals, TerminationInTheBackgroundCleansUpOnceWhateverFollows) {
    ASSERT_TRUE(startMonitor());
    const pid_t application = launch("one");
    ASSERT_TRUE(monitor_.signal(SIGTERM));
    (void)monitor_.signal(SIGTERM); // it may be gone
    EXPECT_TRUE(monitor_.waitForEnd(kLongestEndMs).ended);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(monitor_.pidFile()));
    EXPECT_EQ(countEvent(kStopped), 1U);
    EXPECT_TRUE(isRunning(application));
}

TEST_F(Signals, InterruptRightAfterTerminationSparesTheCleanUp) {
    ASSERT_TRUE(startMonitorInForeground());
    // Both are there before the monitor can look: the interrupt's handler runs first.
    for (const int number : {SIGSTOP, SIGTERM, SIGINT, SIGCONT}) {
        ASSERT_TRUE(monitor_.signal(number));
    }
    EXPECT_EQ(monitor_.waitForEnd(kLongestEndMs).text(), "status 0");
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(monitor_.pidFile()));
    EXPECT_EQ(countEvent(kStopped), 1U);
}

TEST_F(Signals, OtherSignalsEndItByTheirDefaultAction) {
    std::vector<int> others = {SIGHUP, SIGQUIT, SIGUSR1, SIGALRM};
#ifndef OVARD_IS_SANITIZED // a sanitizer handles them itself
    others.insert(others.end(), {SIGSEGV, SIGABRT, SIGTRAP});
#endif
    for (const int number : others) {
        Daemon monitor;
        ASSERT_TRUE(monitor.startInForeground());
        ASSERT_TRUE(monitor.signal(number));
        EXPECT_EQ(monitor.waitForEnd(kLongestEndMs).text(), "signal " + std::to_string(number));
        EXPECT_TRUE(fileExists(kSocketPath)) << number;
        EXPECT_TRUE(fileExists(monitor.pidFile())) << number;
        EXPECT_EQ(countEvent(kStopped), 0U) << number;
        cleanMachine();
    }
}

TEST_F(Signals, BrokenPipeIsIgnored) {
    ASSERT_TRUE(startMonitorInForeground());
    const std::vector<std::string> events = eventTexts();
    for (int count = 0; count < 3; ++count) {
        ASSERT_TRUE(monitor_.signal(SIGPIPE));
        expectServing();
    }
    EXPECT_EQ(eventTexts(), events);
}

// --- with logging --------------------------------------------------------------------------------

TEST_F(Signals, LoggedSignalsDoNotEndItInTheBackground) {
    ASSERT_TRUE(startMonitor({"-b"}));
    const pid_t application = launch("one");
    ASSERT_NO_FATAL_FAILURE(sendLoggedSignals());
    EXPECT_TRUE(monitor_.alive());
    EXPECT_TRUE(isRunning(application));
    expectServing();
    EXPECT_EQ(countEvent(kStopped), 0U);
    EXPECT_TRUE(fileExists(monitor_.pidFile()));
}

TEST_F(Signals, LoggedSignalGoesIntoTheEventLogAlone) {
    ASSERT_TRUE(startMonitorInForeground({"-b"}));
    expectServing();
    const std::string console = monitor_.console();
    const std::vector<std::string> log = daemonLogTexts(-1);
    ASSERT_NO_FATAL_FAILURE(sendLoggedSignals());
    EXPECT_EQ(monitor_.console(), console);
    EXPECT_EQ(monitor_.errors(), "");
    EXPECT_EQ(daemonLogTexts(-1), log);
    const std::vector<EventLine> events = eventLog();
    ASSERT_EQ(events.size(), 2 + std::size(kLogged));
    for (std::size_t index = 0; index < std::size(kLogged); ++index) {
        EXPECT_EQ(events[2 + index].tag, "Ovard");
        EXPECT_EQ(events[2 + index].text, "Caught signal " + std::to_string(kLogged[index]));
    }
}

TEST_F(Signals, LoggedSignalsDoNotDisturbALaunch) {
    ASSERT_TRUE(startMonitorInForeground({"-b"}));
    const std::string options = "--daemonize-after 2000";
    const std::int64_t begin = monotonicMs();
    Client client;
    ASSERT_TRUE(sendRequest(client, makeStart("slow", options)));
    ASSERT_TRUE(
        eventually([&] { return !processesWithCommandLine(commandOf("slow", options)).empty(); }));
    ASSERT_NO_FATAL_FAILURE(sendLoggedSignals());
    EXPECT_LT(monotonicMs() - begin, 2000) << "it was not in the middle of the launch";
    const Reply reply = toReply(client.receiveReply());
    const pid_t pid = pidIn(reply.message);
    EXPECT_EQ(reply, replyOf(0, "slow [pid=" + std::to_string(pid) + "] is started @DATE\n"));
    EXPECT_TRUE(runsAlone("slow", pid, options));
}

TEST_F(Signals, LoggedSignalsDoNotDisturbAStop) {
    ASSERT_TRUE(startMonitorInForeground({"-b"}));
    const std::string options = "--ignore-term --fork-stray 20";
    const pid_t pid = launch("stubborn", options);
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "stubborn")));
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Stop stubborn"));
    ASSERT_NO_FATAL_FAILURE(sendLoggedSignals());
    const Reply reply = toReply(client.receiveReply());
    EXPECT_TRUE(reply.came);
    EXPECT_EQ(reply.code, 0) << reply.message;
    EXPECT_TRUE(isGone(pid));
}

TEST_F(Signals, SignalsThatAreNotLoggedEndALoggingMonitorByTheirDefaultAction) {
    for (const int number : {SIGQUIT, SIGUSR1, SIGALRM}) {
        Daemon monitor;
        ASSERT_TRUE(monitor.startInForeground({"-b"}));
        ASSERT_TRUE(monitor.signal(number));
        EXPECT_EQ(monitor.waitForEnd(kLongestEndMs).text(), "signal " + std::to_string(number));
        EXPECT_EQ(countEvent("Caught signal " + std::to_string(number)), 0U);
        cleanMachine();
    }
}

// --- while a supervision pass holds the main loop ------------------------------------------------

class SignalsHeld : public Signals {
protected:
    /// Starts a monitor and waits until its main loop is held by polls for the next half minute.
    void startHeld(const std::vector<std::string>& more = {}) {
        std::vector<std::string> words = wordsForPolls(60);
        words.insert(words.end(), more.begin(), more.end());
        ASSERT_TRUE(monitor_.startInForeground(words));
        application_ =
            launch(withoutRestart(makeStart(kSilentName, kSilentOptions, kSilentPidFile)));
        sleepMs(7000); // the grace period, and the turns until the next pass
        Client client;
        ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "nobody")));
        EXPECT_EQ(client.receive(2500).bytes, "") << "the main loop is not held";
    }

    pid_t application_ = 0;
};

TEST_F(SignalsHeld, TerminationEndsItInTime) {
    ASSERT_NO_FATAL_FAILURE(startHeld());
    const Ending ending = monitor_.terminate();
    EXPECT_EQ(ending.text(), "status 0");
    EXPECT_LT(ending.tookMs, kLongestEndMs);
    EXPECT_EQ(countEvent(kStopped), 1U);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(monitor_.pidFile()));
    EXPECT_FALSE(pollsAreOver()) << "polls that were cut short prove nothing";
    EXPECT_TRUE(isRunning(application_));
}

TEST_F(SignalsHeld, SecondTerminationDoesNotCutTheFirstShort) {
    ASSERT_NO_FATAL_FAILURE(startHeld());
    ASSERT_TRUE(monitor_.signal(SIGTERM));
    (void)monitor_.signal(SIGTERM); // it may be gone
    const std::string end = monitor_.waitForEnd(kLongestEndMs).text();
    EXPECT_TRUE(end == "status 0" || end == "signal 15") << end;
    EXPECT_EQ(countEvent(kStopped), 1U);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(monitor_.pidFile()));
}

TEST_F(SignalsHeld, FirstInterruptTakesTheHandlersAwayAndTheSecondEndsIt) {
    ASSERT_NO_FATAL_FAILURE(startHeld());
    ASSERT_TRUE(monitor_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone());
    EXPECT_TRUE(monitor_.alive());
    ASSERT_TRUE(monitor_.signal(SIGINT));
    EXPECT_EQ(monitor_.waitForEnd(kLongestEndMs).text(), "signal 2");
    expectNothingCleanedUp();
    EXPECT_TRUE(isRunning(application_));
}

TEST_F(SignalsHeld, LoggedSignalsDoNotShortenThePolls) {
    constexpr int kPollSec = 3;
    std::vector<std::string> words = wordsForPolls(kPollSec);
    words.insert(words.end(), {"-b", "-v", "6"});
    ASSERT_TRUE(monitor_.startInForeground(words));
    (void)launch(
        withoutRestart(makeStart(kSilentName, kSilentOptions, kSilentPidFile))); // it checks itself
    const SignalFlood flood(monitor_.pid(), SIGTERM);
    EXPECT_GE(durationOfPollsMs(monitor_), kPollSec * 1000 - 100);
    EXPECT_GT(flood.sent(), 500);
    EXPECT_TRUE(monitor_.alive());
}

} // namespace
} // namespace systemtest
