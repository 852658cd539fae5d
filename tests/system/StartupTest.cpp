// From the launch to the main loop.

#include <semaphore.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/system/Applications.h"
#include "tests/system/SanitizerReports.h"
#include "tests/system/StartupSupport.h"

namespace systemtest {
namespace {

using Startup = SystemTest;

std::size_t countValue(const std::map<int, std::string>& descriptors, const std::string& start) {
    std::size_t count = 0;
    for (const auto& [number, target] : descriptors) {
        count += target.compare(0, start.size(), start) == 0 ? 1 : 0;
    }
    return count;
}

/// Numbers of capabilities.
constexpr int kMayRaisePriority = 23;
constexpr int kMayLowerOutOfMemoryScore = 24;

bool mayDo(int capability) {
    const std::string set = statusValue(::getpid(), "CapEff");
    return (std::strtoull(set.c_str(), nullptr, 16) >> capability & 1) != 0;
}

// --- order ---------------------------------------------------------------------------------------

TEST_F(Startup, EventLogShowsStartedThenInitialized) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    EXPECT_EQ(eventTexts(), kStartEvents);
    const std::regex time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})");
    for (const EventLine& line : eventLog()) {
        EXPECT_EQ(line.tag, "Ovard");
        EXPECT_TRUE(std::regex_match(line.time, time)) << line.time;
    }
    EXPECT_EQ(permissions(kEventLogPath), 0644);
}

TEST_F(Startup, DaemonLogBeginsWithTheStartOfTheChannel) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    ASSERT_TRUE(waitForLog(6, "App monitor started"));
    const LogLine first = daemonLog().front();
    EXPECT_EQ(first.text, "App monitor started");
    EXPECT_EQ(first.level, 6);
    EXPECT_EQ(first.facility, 144);
    EXPECT_EQ(first.ident, "Ovard");
    EXPECT_EQ(first.pid, daemon.pid());
    EXPECT_EQ(readFile(kDaemonLogPath).compare(0, 5, "<150>"), 0);
}

TEST_F(Startup, LauncherReturnsOnceTheMonitorIsInitialized) {
    // Many times, since an early return would show only now and then.
    for (int round = 0; round < 20; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.spawn({}));
        const Ending launcher = daemon.spawned().waitForEnd(kPatienceMs);
        const std::vector<std::string> events = eventTexts();
        EXPECT_EQ(launcher.text(), "status 0");
        EXPECT_EQ(events, kStartEvents);
        EXPECT_TRUE(socketListens());
        ASSERT_TRUE(daemon.waitUntilReady());
        ASSERT_TRUE(daemon.terminate().ended);
        cleanMachine();
    }
}

TEST_F(Startup, LauncherPrintsTheVersionOnceAndNothingElse) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_EQ(linesOf(daemon.console()).size(), 1U) << daemon.console();
    EXPECT_EQ(daemon.console().compare(0, 9, "version: "), 0);
    EXPECT_EQ(daemon.errors(), "");
}

TEST_F(Startup, VersionIsPrintedBeforeTheFirstTrace) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "5", "-a"})); // Adoption traces too.
    ASSERT_TRUE(eventually([&] {
        return daemon.console().find("start process_command_thread()\n") != std::string::npos;
    }));
    const std::vector<std::string> lines = linesOf(daemon.console());
    ASSERT_EQ(lines.size(), 3U) << daemon.console();
    const std::regex versionLine(
        R"(version: \d{4}\.\d{4}\.\d{6}\.\d{6} built on [A-Z][a-z]{2} [ \d]\d \d{4} )"
        R"(\d\d:\d\d:\d\d \(\w*\))");
    EXPECT_TRUE(std::regex_match(lines[0], versionLine)) << lines[0];
    EXPECT_EQ(lines[1], "0=setpriority(PRIO_PROCESS, " + std::to_string(daemon.pid()) + ", -10)");
    EXPECT_EQ(lines[2], "start process_command_thread()");
}

TEST_F(Startup, NothingButTheVersionAtTheDefaultVerbosity) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    ASSERT_TRUE(ask(makeRequest(APPMONCTL_Reserved9 + 100), 0) == std::nullopt);
    ASSERT_TRUE(waitForLog(6, "request.action=UNKNOWN"));
    EXPECT_EQ(linesOf(daemon.console()).size(), 1U) << daemon.console();
}

// --- pid file ------------------------------------------------------------------------------------

TEST_F(Startup, PidFileHasPathPidAndVersion) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    const std::string path = "/tmp/pid/home/kelvo/root/ovard.pid." + std::to_string(daemon.pid());
    ASSERT_EQ(entriesOf("/tmp/pid/home/kelvo/root"), std::vector<std::string>{path});
    const std::string banner = daemon.console();
    const std::size_t begin = std::string("version: ").size();
    const std::string version = banner.substr(begin, banner.find(" built on ") - begin);
    EXPECT_EQ(version.size(), 23U) << version;
    EXPECT_EQ(readFile(path), std::to_string(daemon.pid()) + "\n" + version + "\n");
    EXPECT_EQ(permissions(path), 0644);
}

TEST_F(Startup, PidFileLiesBelowTheMeterRoot) {
    Daemon daemon;
    daemon.setMeterRoot("/opt/x");
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_EQ(entriesOf("/tmp/pid/opt/x/home/kelvo/root"),
              std::vector<std::string>{"/tmp/pid/opt/x/home/kelvo/root/ovard.pid." +
                                       std::to_string(daemon.pid())});
    EXPECT_FALSE(fileExists("/tmp/pid/home"));
}

TEST_F(Startup, EmptyMeterRootCountsAsNone) {
    Daemon daemon;
    daemon.setMeterRoot("");
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_TRUE(fileExists("/tmp/pid/home/kelvo/root/ovard.pid." + std::to_string(daemon.pid())));
}

// --- the process ---------------------------------------------------------------------------------

TEST_F(Startup, PriorityIsRaised) {
    if (!mayDo(kMayRaisePriority)) {
        GTEST_SKIP() << "no priority can be raised here";
    }
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_EQ(processFacts(daemon.pid()).nice, -10);
}

TEST_F(Startup, OutOfMemoryScoreIsLowered) {
    if (!mayDo(kMayLowerOutOfMemoryScore)) {
        GTEST_SKIP() << "no out-of-memory score can be lowered here";
    }
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    const std::string process = "/proc/" + std::to_string(daemon.pid());
    // -1 on the old scale, which ends at -17, is this on the new one, which ends at -1000.
    EXPECT_EQ(readFile(process + "/oom_score_adj"), "-58\n");
}

TEST_F(Startup, SignalDispositionsWithoutLoggingOption) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_TRUE(signalIsIn(daemon.pid(), "SigIgn", SIGPIPE));
    EXPECT_TRUE(signalIsIn(daemon.pid(), "SigCgt", SIGTERM));
    EXPECT_TRUE(signalIsIn(daemon.pid(), "SigCgt", SIGINT));
    std::vector<int> others = {SIGHUP, SIGABRT, SIGTRAP, SIGUSR1, SIGCHLD, SIGCONT};
#ifndef OVARD_IS_SANITIZED // a sanitizer handles it itself
    others.push_back(SIGSEGV);
#endif
    for (const int other : others) {
        EXPECT_FALSE(signalIsIn(daemon.pid(), "SigCgt", other)) << other;
        EXPECT_FALSE(signalIsIn(daemon.pid(), "SigIgn", other)) << other;
    }
}

TEST_F(Startup, SignalDispositionsWithLoggingOption) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground({"-b"}));
    for (const int logged : {SIGHUP, SIGINT, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE, SIGTRAP}) {
        EXPECT_TRUE(signalIsIn(daemon.pid(), "SigCgt", logged)) << logged;
    }
    EXPECT_FALSE(signalIsIn(daemon.pid(), "SigIgn", SIGPIPE));
}

TEST_F(Startup, TimerSignalIsHandledWithTheWatchdogOnly) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground({"-w", "300"}));
    EXPECT_TRUE(signalIsIn(daemon.pid(), "SigCgt", SIGUSR1));
}

TEST_F(Startup, InheritedMaskAndIgnoredSignalsDoNotDisturbIt) {
    const MonitorThroughScript script(linesThatSetSignals({SIGCHLD}, {SIGTERM, SIGUSR1}));
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-w", "0", "-I", "1"}));
    const std::string command = installSample("one") + " --heartbeat 200";
    const auto reply = ask(makeRequest(APPMONCTL_Start, "one", command));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->code, 0) << messageOf(*reply);
    EXPECT_EQ(messageOf(*reply).find("one [pid="), 0U) << messageOf(*reply);
    EXPECT_EQ(processesWithCommandLine(command).size(), 1U);
    EXPECT_TRUE(eventually([] { return readFile(kWatchdogPath).size() >= 2; })) << "it is fed";
    const Ending ending = daemon.terminate();
    EXPECT_EQ(ending.text(), "status 0");
    EXPECT_LT(ending.tookMs, 5000);
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

TEST_F(Startup, FileCreationMaskIsZero) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_EQ(statusValue(daemon.pid(), "Umask"), "0000");
    EXPECT_EQ(permissions(kSocketPath), 0777);
}

TEST_F(Startup, BackgroundProcessIsDetached) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    const ProcessFacts facts = processFacts(daemon.pid());
    EXPECT_EQ(facts.session, daemon.pid());
    EXPECT_EQ(facts.group, daemon.pid());
    EXPECT_EQ(facts.parent, 1);
    EXPECT_EQ(facts.name, "ovard");
    EXPECT_EQ(linkOf(daemon.pid(), "cwd"), "/");
    const auto descriptors = descriptorsOf(daemon.pid());
    for (const int standard : {0, 1, 2}) {
        EXPECT_EQ(descriptors.count(standard) == 1 ? descriptors.at(standard) : "closed",
                  "/dev/null");
    }
}

TEST_F(Startup, ForegroundProcessIsTheOneThatWasStarted) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    EXPECT_EQ(processesNamed("ovard"), std::vector<pid_t>{daemon.spawned().pid()});
    EXPECT_NE(processFacts(daemon.pid()).session, daemon.pid());
    EXPECT_NE(descriptorsOf(daemon.pid()).at(1), "/dev/null");
}

TEST_F(Startup, ExactlyTheExpectedDescriptorsAreOpen) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    const auto descriptors = descriptorsOf(daemon.pid());
    EXPECT_EQ(countValue(descriptors, "/dev/null"), 3U);
    EXPECT_EQ(countValue(descriptors, "anon_inode:[signalfd]"), 1U);
    EXPECT_EQ(countValue(descriptors, "anon_inode:[eventfd]"), 1U);
    EXPECT_EQ(countValue(descriptors, "socket:"), 2U); // control socket and log
    const std::size_t segments = countValue(descriptors, "/dev/shm/meter_usr");
    EXPECT_EQ(descriptors.size(), 7U + segments) << testing::PrintToString(descriptors);
    EXPECT_LE(segments, 2U);
    // Everything but the standard files is closed on exec.
    for (const auto& [number, target] : descriptors) {
        const std::string info =
            readFile("/proc/" + std::to_string(daemon.pid()) + "/fdinfo/" + std::to_string(number));
        const std::size_t at = info.find("flags:");
        ASSERT_NE(at, std::string::npos);
        unsigned long flags = 0;
        std::istringstream(info.substr(at + 6)) >> std::oct >> flags;
        EXPECT_EQ((flags & 02000000UL) != 0, number > 2) << number << " " << target;
    }
}

TEST_F(Startup, ClosedStandardFilesAreCompleted) {
    for (const char* closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        const MonitorThroughScript script(std::string("exec \"$OVARD\" \"$@\" ") + closed + "\n");
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground({"-v", "8"})) << closed;
        EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody"))) << closed;
        const auto descriptors = descriptorsOf(daemon.pid());
        for (const int standard : {0, 1, 2}) {
            ASSERT_EQ(descriptors.count(standard), 1U) << closed;
            const std::string& target = descriptors.at(standard);
            EXPECT_TRUE(target == "/dev/null" || target.find("/program") != std::string::npos)
                << closed << ": " << standard << " is " << target;
        }
        EXPECT_EQ(daemon.terminate().text(), "status 0") << closed;
        cleanMachine();
    }
}

TEST_F(Startup, VersionBlockStandsInTheProgram) {
    constexpr std::size_t kSlot = 64;
    const std::vector<std::string> keys = {
        "VersionInformation", "Company",     "Copyright",      "Product", "ProductVersion", "File",
        "FileDate",           "FileVersion", "FileDescription"};
    const std::string program = readFile(daemonProgram());
    const std::string start = "VER_VersionInformation=1.0\n";
    const std::size_t block = program.find(start);
    ASSERT_NE(block, std::string::npos);
    EXPECT_EQ(program.find(start, block + 1), std::string::npos) << "there are several";
    ASSERT_LE(block + keys.size() * kSlot, program.size());
    for (std::size_t index = 0; index < keys.size(); ++index) {
        const std::string slot = program.substr(block + index * kSlot, kSlot);
        const std::size_t end = slot.find('\n');
        ASSERT_NE(end, std::string::npos) << index;
        EXPECT_EQ(slot.substr(end + 1), std::string(kSlot - end - 1, '\0')) << index;
        const std::string begin = "VER_" + keys[index] + "=";
        EXPECT_EQ(slot.compare(0, begin.size(), begin), 0) << slot;
        EXPECT_GT(end, begin.size()) << slot;
    }
    const auto valueOf = [&](std::size_t index) {
        const std::string line = linesOf(program.substr(block + index * kSlot, kSlot)).at(0);
        return line.substr(line.find('=') + 1);
    };
    EXPECT_EQ(valueOf(4), "1.0");
    EXPECT_EQ(valueOf(5), "ovard");
    EXPECT_EQ(valueOf(8), "Application Monitor");
    const std::string shown = runProgram(daemonProgram(), {"-?"}).output;
    EXPECT_EQ(linesOf(shown).at(0), "version: " + valueOf(7) + " built on " + valueOf(6));
}

TEST_F(Startup, DescriptorsDoNotGrowWhileServing) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    serveOne();
    const std::size_t before = descriptorsOf(daemon.pid()).size();
    for (int request = 0; request < 3; ++request) {
        ASSERT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    }
    EXPECT_TRUE(eventually([&] { return descriptorsOf(daemon.pid()).size() == before; }))
        << testing::PrintToString(descriptorsOf(daemon.pid()));
}

TEST_F(Startup, OneCommandThreadBesideTheMainThread) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    EXPECT_EQ(threadsOf(daemon.pid()).size(), 2U + kSanitizerThreads);
}

TEST_F(Startup, SemaphoreFileIsNamedAfterTheMutex) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_TRUE(fileExists("/dev/shm/sem.ovard.initialization"));
    EXPECT_EQ(permissions(kSemaphorePath) & ~0664, 0);
}

/// The count of the initialization mutex; -1 when there is none.
int initializationCount() {
    sem_t* const semaphore = ::sem_open("/ovard.initialization", 0);
    int count = -1;
    if (semaphore != SEM_FAILED) {
        EXPECT_EQ(::sem_getvalue(semaphore, &count), 0);
        ::sem_close(semaphore);
    }
    return count;
}

// It is made with a count of one before anything else happens, and the last thing that happens to
// it is one more post.
TEST_F(Startup, SemaphoreIsPostedAtTheEndOfEveryRun) {
    EXPECT_EQ(runProgram(daemonProgram(), {"-?"}).ending.text(), "status 0");
    EXPECT_EQ(initializationCount(), 2);
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    EXPECT_EQ(initializationCount(), 1);
    EXPECT_EQ(daemon.terminate().text(), "status 0");
    EXPECT_EQ(initializationCount(), 3); // once for the shutdown, once for the end of the process
    Daemon first;
    ASSERT_TRUE(first.startInForeground());
    EXPECT_EQ(runProgram(daemonProgram(), {}).ending.text(), "status 246");
    EXPECT_EQ(initializationCount(), 2);
}

TEST_F(Startup, StaleSemaphoreOfAKilledMonitorDoesNotHoldTheNextOneUp) {
    // Killed while it holds the mutex: a semaphore at zero stays behind.
    for (int round = 0; round < 10; ++round) {
        Daemon killed;
        ASSERT_TRUE(killed.spawn({"-d"}));
        (void)eventually([] { return fileExists(kSemaphorePath); }); // any moment will do
        killed.kill();
        Daemon next;
        ASSERT_TRUE(next.startInBackground());
        ASSERT_TRUE(next.terminate().ended);
    }
}

} // namespace
} // namespace systemtest
