#include <fcntl.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/System.h"
#include "platform/UniqueFd.h"
#include "tests/unit/OpenDescriptors.h"

namespace {

using namespace testsupport;

/// The clean child's descriptors above 2.
std::vector<int> ownDescriptors() {
    std::vector<int> found = openDescriptors();
    found.erase(std::remove_if(found.begin(), found.end(), [](int fd) { return fd <= 2; }),
                found.end());
    return found;
}

bool standardFilesAreOpen() {
    return ::fcntl(0, F_GETFD) >= 0 && ::fcntl(1, F_GETFD) >= 0 && ::fcntl(2, F_GETFD) >= 0;
}

void allowDescriptors(rlim_t count) {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(count, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Opens `count` descriptors; how many there are.
int openMany(int count) {
    int opened = 0;
    while (opened < count && ::dup(0) >= 0) {
        ++opened;
    }
    return opened;
}

TEST(CleanLaunchedProcess, ClosesEveryDescriptorAboveStandardError) {
    EXPECT_EQ(runInChild([] {
                  if (openMany(20) != 20) {
                      return 1;
                  }
                  platform::cleanLaunchedProcess(-1);
                  return ownDescriptors().empty() && standardFilesAreOpen() ? 0 : 2;
              }),
              0);
}

TEST(CleanLaunchedProcess, ClosesMoreThanAThousand) {
    EXPECT_EQ(runInChild([] {
                  allowDescriptors(4096);
                  rlimit limit = {};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  const int wanted = limit.rlim_cur >= 4096 ? 3000 : 100;
                  if (openMany(wanted) != wanted) {
                      return 1;
                  }
                  platform::cleanLaunchedProcess(-1);
                  return ownDescriptors().empty() && standardFilesAreOpen() ? 0 : 2;
              }),
              0);
}

TEST(CleanLaunchedProcess, KeepsTheOneThatIsAskedFor) {
    for (const int kept : {3, 7, 200}) {
        EXPECT_EQ(runInChild([kept] {
                      allowDescriptors(256);
                      (void)openMany(20);
                      if (::dup2(0, kept) != kept) {
                          return 1;
                      }
                      platform::cleanLaunchedProcess(kept);
                      return ownDescriptors() == std::vector<int>{kept} ? 0 : 2;
                  }),
                  0)
            << kept;
    }
}

TEST(CleanLaunchedProcess, WorksWhenThereIsNothingToClose) {
    EXPECT_EQ(runInChild([] {
                  platform::cleanLaunchedProcess(-1);
                  platform::cleanLaunchedProcess(-1);
                  ::close(0);
                  platform::cleanLaunchedProcess(-1);
                  return ownDescriptors().empty() && ::fcntl(0, F_GETFD) < 0 ? 0 : 1;
              }),
              0);
}

TEST(CleanLaunchedProcess, WorksWhenDescriptorsHaveRunOut) {
    EXPECT_EQ(runInChild([] {
                  allowDescriptors(64);
                  (void)openMany(1000);
                  if (::dup(0) >= 0) {
                      return 1;
                  }
                  platform::cleanLaunchedProcess(5);
                  return ownDescriptors() == std::vector<int>{5} ? 0 : 2;
              }),
              0);
}

TEST(CleanLaunchedProcess, ClosesWhatLiesAboveALimitThatWasLoweredLater) {
    EXPECT_EQ(runInChild([] {
                  allowDescriptors(256);
                  if (::dup2(0, 200) != 200) {
                      return 1;
                  }
                  allowDescriptors(32);
                  (void)openMany(1000);
                  if (::dup(0) >= 0) {
                      return 2;
                  }
                  platform::cleanLaunchedProcess(-1);
                  return ownDescriptors().empty() ? 0 : 3;
              }),
              0);
}

// --- the limit on descriptors ---

constexpr rlim_t kMostDescriptors = 65536;

rlimit descriptorLimit() {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

bool operator==(const rlimit& left, const rlimit& right) {
    return left.rlim_cur == right.rlim_cur && left.rlim_max == right.rlim_max;
}

/// Gives up the right to raise hard limits; false where that fails.
bool giveUpResourceRight() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    if (::syscall(SYS_capget, &header, sets) != 0) {
        return false;
    }
    const unsigned bit = 1U << CAP_SYS_RESOURCE;
    sets[0].effective &= ~bit;
    sets[0].permitted &= ~bit;
    return ::syscall(SYS_capset, &header, sets) == 0;
}

/// Sets `found` as the limit, raises it and gives it back. 0 when it was `raised` in between.
int raiseAndGiveBack(const rlimit& found, const rlimit& raised) {
    if (::setrlimit(RLIMIT_NOFILE, &found) != 0) {
        return 1;
    }
    platform::raiseDescriptorLimit();
    if (!(descriptorLimit() == raised)) {
        return 2;
    }
    platform::cleanLaunchedProcess(-1);
    return descriptorLimit() == found ? 0 : 3;
}

TEST(DescriptorLimit, IsRaisedToTheHardLimitWithoutTheRightToMore) {
    EXPECT_EQ(runInChild([] {
                  return giveUpResourceRight() ? raiseAndGiveBack({64, 4096}, {4096, 4096}) : 100;
              }),
              0);
}

TEST(DescriptorLimit, IsRaisedBeyondTheHardLimitWhereThatIsAllowed) {
    EXPECT_EQ(runInChild([] {
                  const rlimit found = {64, 4096};
                  const rlimit more = {64, 4097};
                  ::setrlimit(RLIMIT_NOFILE, &found);
                  if (::setrlimit(RLIMIT_NOFILE, &more) != 0) {
                      return 0; // not allowed here
                  }
                  return raiseAndGiveBack(found, {kMostDescriptors, kMostDescriptors});
              }),
              0);
}

TEST(DescriptorLimit, IsRaisedTo65536AtMost) {
    EXPECT_EQ(runInChild([] {
                  const rlimit found = {64, 100000};
                  if (::setrlimit(RLIMIT_NOFILE, &found) != 0) {
                      return 0; // not allowed here
                  }
                  return raiseAndGiveBack(found, {kMostDescriptors, 100000});
              }),
              0);
}

TEST(DescriptorLimit, ThatIsHighEnoughStaysAsItIs) {
    EXPECT_EQ(runInChild([] {
                  const rlimit found = {70000, 100000};
                  if (::setrlimit(RLIMIT_NOFILE, &found) != 0) {
                      return 0; // not allowed here
                  }
                  return raiseAndGiveBack(found, found);
              }),
              0);
}

TEST(DescriptorLimit, OfTheMomentStaysWhereNothingWasRaised) {
    EXPECT_EQ(runInChild([] {
                  const rlimit limit = {64, 4096};
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  platform::cleanLaunchedProcess(-1);
                  return descriptorLimit() == limit ? 0 : 1;
              }),
              0);
}

TEST(DescriptorLimit, IsRaisedForTheProgramButNotForWhatItLaunches) {
    EXPECT_EQ(runInChild([] {
                  const rlimit found = {64, 4096};
                  if (!giveUpResourceRight() || ::setrlimit(RLIMIT_NOFILE, &found) != 0) {
                      return 100;
                  }
                  platform::raiseDescriptorLimit();
                  if (openMany(1000) != 1000) {
                      return 1;
                  }
                  return runInChild([] {
                      platform::cleanLaunchedProcess(-1);
                      ::execl("/bin/sh", "sh", "-c",
                              "test \"$(ulimit -Sn)\" = 64 && test \"$(ulimit -Hn)\" = 4096",
                              nullptr);
                      return 127;
                  });
              }),
              0);
}

// --- signals ---

/// Signals whose action a program can set.
std::vector<int> settableSignals() {
    std::vector<int> signals;
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action = {};
        if (signal != SIGKILL && signal != SIGSTOP && ::sigaction(signal, nullptr, &action) == 0) {
            signals.push_back(signal);
        }
    }
    return signals;
}

TEST(CleanLaunchedProcess, SetsEverySignalToItsDefaultActionAndUnblocksAll) {
    ASSERT_GE(settableSignals().size(), 60U);
    EXPECT_EQ(runInChild([] {
                  sigset_t mask;
                  ::sigfillset(&mask);
                  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
                  for (const int signal : settableSignals()) {
                      struct sigaction action = {};
                      action.sa_handler = signal % 2 == 0 ? SIG_IGN : [](int) {};
                      ::sigaction(signal, &action, nullptr);
                  }
                  platform::cleanLaunchedProcess(-1);
                  for (const int signal : settableSignals()) {
                      struct sigaction action = {};
                      ::sigaction(signal, nullptr, &action);
                      if (action.sa_handler != SIG_DFL) {
                          return signal;
                      }
                  }
                  ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
                  return ::sigisemptyset(&mask) == 1 ? 0 : 100;
              }),
              0);
}

TEST(CleanLaunchedProcess, PassesNothingOnToAProgram) {
    const TemporaryDirectory directory;
    EXPECT_EQ(runInChild([&] {
                  ::signal(SIGPIPE, SIG_IGN);
                  ::signal(SIGCHLD, SIG_IGN);
                  sigset_t mask;
                  ::sigfillset(&mask);
                  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
                  (void)openMany(20);
                  platform::cleanLaunchedProcess(-1);
                  const std::string command = "grep -E '^Sig(Blk|Ign)' /proc/self/status > '" +
                                              directory.file("signals") +
                                              "'; test \"$(ls /proc/self/fd | wc -l)\" = 4";
                  ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
                  return 127;
              }),
              0)
        << "more than three descriptors and the one that lists them";
    EXPECT_EQ(readText(directory.file("signals")),
              "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST(SignalMask, IsBlockedAndRestored) {
    sigset_t original;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &original);
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, SIGUSR1);
    ::pthread_sigmask(SIG_SETMASK, &one, nullptr);

    sigset_t saved;
    platform::blockAllSignals(&saved);
    sigset_t now;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &now);
    for (const int signal : settableSignals()) {
        EXPECT_EQ(::sigismember(&now, signal), 1) << signal;
    }
    platform::restoreSignalMask(&saved);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &now);
    EXPECT_EQ(::sigismember(&now, SIGUSR1), 1);
    EXPECT_EQ(::sigismember(&now, SIGTERM), 0);
    ::pthread_sigmask(SIG_SETMASK, &original, nullptr);
}

TEST(Gate, OpensForAByteAndTakesIt) {
    int ends[2];
    ASSERT_EQ(platform::openPipe(ends), 0);
    const platform::UniqueFd reader(ends[0]);
    const platform::UniqueFd writer(ends[1]);
    ASSERT_EQ(::write(writer.get(), "ab", 2), 2);
    platform::waitAtGate(reader.get());
    char byte = 0;
    ASSERT_EQ(::read(reader.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'b');
}

TEST(Gate, StaysClosedUntilTheOtherEndIsGone) {
    int ends[2];
    ASSERT_EQ(platform::openPipe(ends), 0);
    const ChildGuard child(startChild([&] {
        ::close(ends[1]);
        platform::waitAtGate(ends[0]);
        return 0;
    }));
    ::close(ends[0]);
    ::usleep(10000);
    EXPECT_EQ(::waitpid(child.pid(), nullptr, WNOHANG), 0) << "still waiting";
    ::close(ends[1]);
    siginfo_t ended = {};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ended.si_code, CLD_EXITED);
    EXPECT_EQ(ended.si_status, 0);
}

TEST(Gate, OpensForADescriptorThatIsNotOpen) {
    platform::waitAtGate(-1);
}

} // namespace
