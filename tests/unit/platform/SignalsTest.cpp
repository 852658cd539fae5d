#include "platform/Signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace {

using namespace testsupport;

volatile std::sig_atomic_t handled = 0;

void noteSignal(int signal) {
    handled = signal;
}

TEST(SignalActions, InstallAHandlerThatStays) {
    EXPECT_EQ(runInChild([] {
                  if (platform::setSignalHandler(SIGUSR2, noteSignal) != 0) {
                      return 1;
                  }
                  ::raise(SIGUSR2);
                  if (handled != SIGUSR2) {
                      return 2;
                  }
                  handled = 0;
                  ::raise(SIGUSR2);
                  return handled == SIGUSR2 ? 0 : 3;
              }),
              0);
}

TEST(SignalActions, InstallTheDefaultAction) {
    EXPECT_EQ(runInChild([] {
                  (void)platform::setSignalHandler(SIGUSR2, SIG_IGN);
                  ::raise(SIGUSR2);
                  (void)platform::setSignalHandler(SIGUSR2, SIG_DFL);
                  ::raise(SIGUSR2);
                  return 0;
              }),
              128 + SIGUSR2);
}

TEST(SignalActions, ReportARefusal) {
    EXPECT_EQ(platform::setSignalHandler(SIGKILL, noteSignal), -1);
    EXPECT_EQ(errno, EINVAL);
    struct sigaction action = {};
    EXPECT_EQ(platform::setSignalAction(SIGKILL, &action, nullptr), -1);
    EXPECT_EQ(platform::setSignalAction(0, nullptr, &action), -1);
}

TEST(SignalActions, HandOutThePreviousAction) {
    struct sigaction original = {};
    ASSERT_EQ(platform::setSignalAction(SIGUSR2, nullptr, &original), 0);
    struct sigaction action = {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_NODEFER;
    ASSERT_EQ(platform::setSignalAction(SIGUSR2, &action, nullptr), 0);
    struct sigaction found = {};
    ASSERT_EQ(platform::setSignalAction(SIGUSR2, &original, &found), 0);
    EXPECT_EQ(found.sa_handler, noteSignal);
    EXPECT_NE(found.sa_flags & SA_NODEFER, 0);
}

TEST(Timer, DeliversItsSignalWithItsValue) {
    EXPECT_EQ(runInChild([] {
                  sigset_t set;
                  ::sigemptyset(&set);
                  ::sigaddset(&set, SIGUSR1);
                  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
                  timer_t timer = {};
                  if (platform::createTimer(&timer, SIGUSR1, &timer) != 0) {
                      return 1;
                  }
                  if (platform::armTimer(timer, 7) != 0) {
                      return 2;
                  }
                  itimerspec times = {};
                  ::timer_gettime(timer, &times);
                  if (times.it_interval.tv_sec != 7 || times.it_interval.tv_nsec != 0 ||
                      times.it_value.tv_sec < 5 || times.it_value.tv_sec > 7) {
                      return 3;
                  }
                  itimerspec soon = {};
                  soon.it_value.tv_nsec = 1000000;
                  ::timer_settime(timer, 0, &soon, nullptr);
                  siginfo_t info = {};
                  const timespec patience = {5, 0};
                  if (::sigtimedwait(&set, &info, &patience) != SIGUSR1) {
                      return 4;
                  }
                  if (info.si_value.sival_ptr != &timer || info.si_code != SI_TIMER) {
                      return 5;
                  }
                  return platform::deleteTimer(timer) == 0 ? 0 : 6;
              }),
              0);
}

TEST(Timer, ReportsARefusal) {
    timer_t timer = {};
    EXPECT_EQ(platform::createTimer(&timer, 1000, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(platform::createTimer(&timer, SIGUSR1, nullptr), 0);
    EXPECT_EQ(platform::armTimer(timer, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(platform::deleteTimer(timer), 0);
}

TEST(Descriptors, AreFlushed) {
    const TemporaryDirectory directory;
    const platform::UniqueFd file(
        ::open(directory.file("x").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(platform::flushDescriptor(file.get()), 0);
    EXPECT_EQ(platform::flushDescriptor(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
