#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/System.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"
#include "platform/Wait.h"

namespace {

using namespace testsupport;

/// Result and error of one command.
struct Outcome {
    int result;
    int error;
};

bool operator==(const Outcome& left, const Outcome& right) {
    return left.result == right.result && left.error == right.error;
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << outcome.result << " errno " << outcome.error;
}

Outcome run(const std::string& command) {
    errno = 0;
    const int result = platform::runShellCommand(command.c_str());
    return {result, result == 0 ? 0 : errno};
}

bool hasNoChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

void blockAlarmAndWatchForIt() {
    sigset_t watched;
    ::sigemptyset(&watched);
    ::sigaddset(&watched, SIGALRM);
    ::pthread_sigmask(SIG_BLOCK, &watched, nullptr);
    platform::watchForTermination(watched);
}

TEST(ShellCommand, ThatSucceedsGivesZero) {
    EXPECT_EQ(run("exit 0"), (Outcome{0, 0}));
    EXPECT_EQ(run("true"), (Outcome{0, 0}));
    EXPECT_EQ(run(""), (Outcome{0, 0}));
}

TEST(ShellCommand, IsRunByAShell) {
    const TemporaryDirectory directory;
    EXPECT_EQ(run("x=1; /bin/echo $x > '" + directory.file("out") + "'"), (Outcome{0, 0}));
    EXPECT_EQ(readText(directory.file("out")), "1\n");
}

TEST(ShellCommand, IsWaitedFor) {
    const TemporaryDirectory directory;
    EXPECT_EQ(run("sleep 0.1; echo done > '" + directory.file("out") + "'"), (Outcome{0, 0}));
    EXPECT_EQ(readText(directory.file("out")), "done\n");
    EXPECT_EQ(runInChild([] { return run("exit 0").result == 0 && hasNoChildren() ? 0 : 1; }), 0);
}

TEST(ShellCommand, ThatExitsNonZeroIsAnInputOutputError) {
    for (const char* command : {"exit 3", "exit 1", "exit 255", "false", "exit 127"}) {
        EXPECT_EQ(run(command), (Outcome{-1, EIO})) << command;
    }
}

TEST(ShellCommand, ThatDoesNotExistIsAnInputOutputError) {
    const CapturedDescriptor errors(STDERR_FILENO); // the shell complains
    EXPECT_EQ(run("/nowhere/command"), (Outcome{-1, EIO}));
}

TEST(ShellCommand, WithoutItsDeviceIsAnInputOutputError) {
    const CapturedDescriptor errors(STDERR_FILENO);
    EXPECT_EQ(run("/bin/echo 1 > /nowhere/device"), (Outcome{-1, EIO}));
}

TEST(ShellCommand, ThatASignalEndsIsAnInputOutputError) {
    for (const char* command : {"kill -9 $$", "kill -15 $$", "kill -1 $$"}) {
        EXPECT_EQ(run(command), (Outcome{-1, EIO})) << command;
    }
}

TEST(ShellCommand, ThatCannotBeStartedTellsWhy) {
    EXPECT_EQ(runInChild([] {
                  rlimit limit = {};
                  ::getrlimit(RLIMIT_AS, &limit);
                  limit.rlim_cur = 1; // no stack for the new process
                  ::setrlimit(RLIMIT_AS, &limit);
                  const int result = platform::runShellCommand("exit 0");
                  return result == -1 ? errno : 255;
              }),
              ENOMEM);
}

TEST(ShellCommand, WithoutAShellTellsWhy) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs the right to change the root directory";
    }
    const TemporaryDirectory empty;
    EXPECT_EQ(runInChild([&] {
                  if (::chroot(empty.path().c_str()) != 0) {
                      return static_cast<int>(ENOENT); // not allowed here
                  }
                  const int result = platform::runShellCommand("exit 0");
                  return result == -1 ? errno : 255;
              }),
              ENOENT);
}

TEST(ShellCommand, InheritsTheStandardFilesOnly) {
    EXPECT_EQ(runInChild([] {
                  platform::cleanLaunchedProcess(-1); // what the test program was handed itself
                  blockAlarmAndWatchForIt();
                  int ends[2];
                  if (platform::openPipe(ends) != 0) {
                      return 1;
                  }
                  const platform::UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
                  // Beside the three there is the one that lists them.
                  return run("test \"$(ls /proc/self/fd | wc -l)\" = 4").result == 0 ? 0 : 2;
              }),
              0);
}

/// The two signals that the C library keeps for its threads; programs cannot set their actions.
constexpr std::uint64_t kLibrarySignals = std::uint64_t{3} << 31;

/// The signals of the line `label` of a process's status, one bit each.
std::uint64_t signalsOf(const std::string& status, const std::string& label) {
    const std::size_t line = status.find(label + ":\t");
    return line == std::string::npos
               ? ~std::uint64_t{0}
               : std::stoull(status.substr(line + label.size() + 2), nullptr, 16);
}

TEST(ShellCommand, HasNoSignalBlockedOrIgnored) {
    const TemporaryDirectory directory;
    EXPECT_EQ(
        runInChild([&] {
            // SIGCHLD stays: who ignores it learns nothing of its children.
            for (const int signal : {SIGPIPE, SIGHUP, SIGTERM, SIGUSR1, SIGQUIT, SIGINT, SIGXFSZ}) {
                ::signal(signal, SIG_IGN);
            }
            sigset_t all;
            ::sigfillset(&all);
            ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
            return run("exec cat /proc/self/status > '" + directory.file("status") + "'").result ==
                           0
                       ? 0
                       : 1;
        }),
        0);
    const std::string status = readText(directory.file("status"));
    EXPECT_EQ(signalsOf(status, "SigBlk"), 0U);
    EXPECT_EQ(signalsOf(status, "SigIgn") & ~kLibrarySignals, 0U);
}

TEST(ShellCommand, LeavesTheSignalMaskOfItsCaller) {
    sigset_t one;
    sigset_t original;
    ::sigemptyset(&one);
    ::sigaddset(&one, SIGUSR1);
    ::pthread_sigmask(SIG_SETMASK, &one, &original);
    EXPECT_EQ(run("exit 0"), (Outcome{0, 0}));
    sigset_t now;
    ::pthread_sigmask(SIG_SETMASK, &original, &now);
    EXPECT_EQ(::sigismember(&now, SIGUSR1), 1);
    EXPECT_EQ(::sigismember(&now, SIGTERM), 0);
}

TEST(ShellCommand, IsWaitedForAcrossHandlers) {
    EXPECT_EQ(runInChild([] {
                  struct sigaction action = {};
                  action.sa_handler = [](int) {};
                  ::sigaction(SIGALRM, &action, nullptr);
                  const itimerval often = {{0, 5000}, {0, 5000}};
                  ::setitimer(ITIMER_REAL, &often, nullptr);
                  if (run("sleep 0.1").result != 0) {
                      return 1;
                  }
                  return run("sleep 0.1; exit 3") == Outcome{-1, EIO} ? 0 : 2;
              }),
              0);
}

TEST(ShellCommand, IsKilledAfterFiveSeconds) {
    EXPECT_EQ(runInChild([] {
                  const auto begin = platform::monotonicMilliseconds();
                  // It takes no hint.
                  if (!(run("trap '' TERM INT HUP; while :; do sleep 0.2; done") ==
                        Outcome{-1, ETIMEDOUT})) {
                      return 1;
                  }
                  const auto spanMs = platform::monotonicMilliseconds() - begin;
                  if (spanMs < 5000 || spanMs > 8000) {
                      return 2;
                  }
                  return hasNoChildren() ? 0 : 3;
              }),
              0);
}

TEST(ShellCommand, EndsEarlyWhenAWatchedSignalComes) {
    const TemporaryDirectory directory;
    EXPECT_EQ(runInChild([&] {
                  blockAlarmAndWatchForIt();
                  const itimerval soon = {{0, 0}, {0, 200000}};
                  ::setitimer(ITIMER_REAL, &soon, nullptr);
                  const auto begin = platform::monotonicMilliseconds();
                  if (!(run("echo $$ > '" + directory.file("pid") + "'; exec sleep 60") ==
                        Outcome{-1, ETIMEDOUT})) {
                      return 1;
                  }
                  if (platform::monotonicMilliseconds() - begin > 3000) {
                      return 2;
                  }
                  return hasNoChildren() ? 0 : 3;
              }),
              0);
    const std::string pid = readText(directory.file("pid"));
    ASSERT_NE(pid, "");
    EXPECT_EQ(::kill(std::stoi(pid), 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(ShellCommand, IsDoneAlsoWhenAWatchedSignalIsPending) {
    EXPECT_EQ(runInChild([] {
                  blockAlarmAndWatchForIt();
                  ::raise(SIGALRM);
                  return run("sleep 0.2") == Outcome{0, 0} ? 0 : 1;
              }),
              0);
}

TEST(ShellCommand, IsWaitedForASecondAtMostWhenAWatchedSignalIsPending) {
    EXPECT_EQ(runInChild([] {
                  blockAlarmAndWatchForIt();
                  ::raise(SIGALRM);
                  const auto begin = platform::monotonicMilliseconds();
                  if (!(run("exec sleep 60") == Outcome{-1, ETIMEDOUT})) {
                      return 1;
                  }
                  if (platform::monotonicMilliseconds() - begin > 3000) {
                      return 2;
                  }
                  return hasNoChildren() ? 0 : 3;
              }),
              0);
}

TEST(ShellCommand, WhoseStatusTheSystemDiscardsHasFailed) {
    EXPECT_EQ(runInChild([] {
                  ::signal(SIGCHLD, SIG_IGN);
                  return run("exit 0") == Outcome{-1, ECHILD} ? 0 : 1;
              }),
              0);
}

} // namespace
