// What ends the start-up, and what does not.

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/system/Applications.h"
#include "tests/system/FaultSupport.h"
#include "tests/system/LogSocket.h"
#include "tests/system/SanitizerReports.h"
#include "tests/system/StartupSupport.h"

namespace systemtest {
namespace {

using StartupFailures = ToldOnce<SystemTest>;

TEST_F(StartupFailures, StaleSocketFileIsReplaced) {
    ASSERT_TRUE(writeFile(kSocketPath, "no socket at all"));
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    struct stat facts = {};
    ASSERT_EQ(::lstat(kSocketPath, &facts), 0);
    EXPECT_TRUE(S_ISSOCK(facts.st_mode));
    EXPECT_EQ(daemon.errors(), "");
}

/// What a monitor shows and logs when the socket's place is a directory. The last line of each is
/// from the clean-up at its end; what the start logs before the log is open goes nowhere.
const std::string kBindFailure = "remove socket path error: Is a directory\n"
                                 "bind error: Address already in use\n"
                                 "closeCommunication: remove socket path error: Is a directory\n";
const std::vector<std::string> kBindFailureLog = {"App monitor started", "bind error, exit",
                                                  "remove socket path error error"};

void blockSocketPath() {
    ASSERT_TRUE(writeFile(std::string(kSocketPath) + "/file", "in the way"));
}

TEST_F(StartupFailures, SocketPathThatCannotBeRemovedEndsTheStart) {
    ASSERT_NO_FATAL_FAILURE(blockSocketPath());
    const ProgramResult result = runProgram(daemonProgram(), {"-d"});
    EXPECT_EQ(result.ending.text(), "status 1");
    EXPECT_EQ(result.errors, kBindFailure);
    EXPECT_TRUE(waitForLog(3, kBindFailureLog.back()));
    EXPECT_EQ(daemonLogTexts(), kBindFailureLog);
    EXPECT_EQ(daemonLogTexts(3),
              (std::vector<std::string>{kBindFailureLog[1], kBindFailureLog[2]}));
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{"Application Monitor Started.",
                                                      "Application Monitor Stopped."}));
    EXPECT_NE(result.output.find("\novard ovardAtExit()\n"), std::string::npos) << result.output;
    EXPECT_FALSE(fileExists("/tmp/pid"));
    EXPECT_TRUE(fileExists(std::string(kSocketPath) + "/file"));
}

TEST_F(StartupFailures, LauncherEndsWithTheStatusOfAFailedStart) {
    ASSERT_NO_FATAL_FAILURE(blockSocketPath());
    const ProgramResult result = runProgram(daemonProgram(), {});
    EXPECT_EQ(result.ending.text(), "status 1");
    EXPECT_EQ(linesOf(result.output).size(), 1U) << result.output;
    EXPECT_TRUE(waitForLog(3, "bind error, exit"));
    EXPECT_EQ(countEvent("Application Monitor Initialized."), 0U);
    EXPECT_TRUE(waitForEvent("Application Monitor Stopped."));
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
    EXPECT_TRUE(eventually([] { return processesNamed("ovard").empty(); }));
}

TEST_F(StartupFailures, StartsWithoutASystemLog) {
    const LogAside aside;
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_EQ(daemonLogTexts(), std::vector<std::string>{});
    EXPECT_TRUE(daemon.terminate().ended);
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

TEST_F(StartupFailures, StartsWithoutAPlaceForTheEventLog) {
    // A directory of that name takes the place away; root may write anywhere else.
    ASSERT_TRUE(makeDirectories(kEventLogPath));
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_TRUE(waitForLog(6, "App monitor started"));
    EXPECT_TRUE(waitForLog(3, faultLine(kEventLogPath, EISDIR)));
    EXPECT_EQ(faultsTold(kEventLogPath), 1);
    ASSERT_TRUE(runShell(std::string("rmdir ") + kEventLogPath));
    EXPECT_TRUE(daemon.terminate().ended);
    EXPECT_EQ(eventTexts(), std::vector<std::string>{"Application Monitor Stopped."});
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(daemon.pidFile()));
}

/// A stack that the address space has no room for, in kB: not more than a limit of 32 bits can tell
/// where addresses have as many.
constexpr const char* kStackLimit = sizeof(void*) == 4 ? "4193280" : "1000000000000";

TEST_F(StartupFailures, MissingCommandThreadEndsTheStart) {
    if (kThreadsAreSanitized) {
        GTEST_SKIP() << "with such a limit the thread sanitizer does not start";
    }
    const MonitorThroughScript script(std::string("ulimit -S -s ") + kStackLimit +
                                      " || exit 99\nexec \"$OVARD\" \"$@\"\n");
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({"-d", "-v", "1"}));
    EXPECT_EQ(daemon.waitForEnd().text(), "status 255");
    const std::vector<std::string> lines = linesOf(daemon.console());
    ASSERT_EQ(lines.size(), 4U) << daemon.console();
    EXPECT_EQ(lines[1].compare(0, 31, "thread creation  failure! errno"), 0) << lines[1];
    EXPECT_EQ(lines[2], "appmgr->init() failure!");
    EXPECT_EQ(lines[3], "ovard ovardAtExit()");
    EXPECT_TRUE(waitForLog(3, " initialization failure, exit"));
    EXPECT_EQ(daemonLogTexts(3), (std::vector<std::string>{"init(): thread creation failure!",
                                                           " initialization failure, exit"}));
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{"Application Monitor Started.",
                                                      "Application Monitor Stopped."}));
    EXPECT_FALSE(fileExists(kSocketPath));
}

TEST_F(StartupFailures, StartsWithoutAPlaceForThePidFile) {
    ASSERT_TRUE(writeFile("/tmp/pid", "in the way"));
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({"-d"}));
    ASSERT_TRUE(waitForEvent("Application Monitor Initialized."));
    ASSERT_TRUE(eventually([&] { return daemon.workersWait(); }));
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_TRUE(waitForLog(3, faultLine(daemon.pidFile(), ENOTDIR)));
    ASSERT_TRUE(runShell("rm /tmp/pid"));
    EXPECT_TRUE(waitForLog(6, recoveryLine(daemon.pidFile())));
    EXPECT_EQ(readFile(daemon.pidFile()).find(std::to_string(daemon.pid()) + "\n"), 0U);
    EXPECT_EQ(faultsTold(daemon.pidFile()), 1);
    EXPECT_EQ(countLog(6, recoveryLine(daemon.pidFile())), 1U);
    EXPECT_EQ(daemon.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
