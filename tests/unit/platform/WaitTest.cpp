#include "platform/Wait.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include "RefusedLocks.h"
#include "TestSupport.h"
#include "platform/MutexGuard.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"
#include "platform/linux/Watch.h"

namespace {

using namespace testsupport;
using platform::monotonicMilliseconds;
using platform::waitReadable;
using platform::WaitResult;

struct Pipe {
    Pipe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
    platform::UniqueFd reader;
    platform::UniqueFd writer;
};

sigset_t setOf(int signal) {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, signal);
    return set;
}

/// Sends SIGALRM to the whole process once, after `milliseconds`.
void sendAlarmIn(int milliseconds) {
    const itimerval once = {{0, 0}, {0, milliseconds * 1000L}};
    ::setitimer(ITIMER_REAL, &once, nullptr);
}

void handleAlarmWithoutRestart() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, nullptr);
}

/// Runs `body` in a child whose only thread watches for SIGALRM, which is blocked. The child ends
/// with the number of the check that failed, 0 for none.
template <typename Body> int runWatching(Body body) {
    return runInChild([&] {
        const sigset_t watched = setOf(SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &watched, nullptr);
        platform::watchForTermination(watched);
        return body();
    });
}

/// Milliseconds that `wait` takes.
template <typename Wait> std::int64_t spanOf(Wait wait) {
    const std::int64_t start = monotonicMilliseconds();
    wait();
    return monotonicMilliseconds() - start;
}

// Far beyond any delay of a busy machine: a wait that should have ended early has not.
constexpr int kLong = 20000;
constexpr int kEarly = 10000;

// --- waitReadable ---

TEST(WaitReadable, IsReadyForDataAndAtTheEnd) {
    Pipe pipe;
    ASSERT_EQ(::write(pipe.writer.get(), "x", 1), 1);
    EXPECT_EQ(waitReadable(pipe.reader.get(), 0), WaitResult::Ready);
    EXPECT_EQ(waitReadable(pipe.reader.get(), -1), WaitResult::Ready);
    char byte = 0;
    ASSERT_EQ(::read(pipe.reader.get(), &byte, 1), 1);
    pipe.writer.reset();
    EXPECT_EQ(waitReadable(pipe.reader.get(), -1), WaitResult::Ready);
}

TEST(WaitReadable, WaitsForData) {
    const Pipe pipe;
    std::thread writer([&] {
        ::usleep(10000);
        EXPECT_EQ(::write(pipe.writer.get(), "x", 1), 1);
    });
    EXPECT_EQ(waitReadable(pipe.reader.get(), kLong), WaitResult::Ready);
    writer.join();
}

TEST(WaitReadable, TimesOut) {
    const Pipe pipe;
    WaitResult result = WaitResult::Failed;
    EXPECT_GE(spanOf([&] { result = waitReadable(pipe.reader.get(), 30); }), 29);
    EXPECT_EQ(result, WaitResult::TimedOut);
    EXPECT_EQ(waitReadable(pipe.reader.get(), 0), WaitResult::TimedOut);
}

TEST(WaitReadable, FailsForWhatIsNotOpen) {
    int closed = -1;
    {
        const Pipe pipe;
        closed = pipe.reader.get();
    }
    for (const int fd : {-1, -2, closed, 1 << 20}) {
        errno = 0;
        EXPECT_EQ(waitReadable(fd, 0), WaitResult::Failed) << fd;
        EXPECT_EQ(errno, EBADF) << fd;
    }
}

TEST(WaitReadable, IsInterruptedByAHandler) {
    EXPECT_EQ(runInChild([] {
                  const Pipe pipe;
                  handleAlarmWithoutRestart();
                  sendAlarmIn(10);
                  return waitReadable(pipe.reader.get(), kLong) == WaitResult::Interrupted ? 0 : 1;
              }),
              0);
}

TEST(WaitReadable, EndsWhenAWatchedSignalIsPending) {
    EXPECT_EQ(runWatching([] {
                  const Pipe pipe;
                  if (platform::terminationPending()) {
                      return 1;
                  }
                  sendAlarmIn(10);
                  if (waitReadable(pipe.reader.get(), -1) != WaitResult::Terminating) {
                      return 2;
                  }
                  if (!platform::terminationPending()) {
                      return 3;
                  }
                  // It stays pending, also beside data.
                  (void)!::write(pipe.writer.get(), "x", 1);
                  return waitReadable(pipe.reader.get(), kLong) == WaitResult::Terminating ? 0 : 4;
              }),
              0);
}

TEST(WaitReadable, LastsAgainWhenTheWatchHasStopped) {
    EXPECT_EQ(runWatching([] {
                  const Pipe pipe;
                  ::raise(SIGALRM);
                  platform::stopWatchingForTermination();
                  if (platform::terminationPending()) {
                      return 1;
                  }
                  if (waitReadable(pipe.reader.get(), 10) != WaitResult::TimedOut) {
                      return 2;
                  }
                  return spanOf([] { platform::sleepMilliseconds(20); }) >= 19 ? 0 : 3;
              }),
              0);
}

TEST(WaitReadable, TakesDescriptorsOfAnySize) {
    EXPECT_EQ(runInChild([] {
                  const Pipe pipe;
                  rlimit limit = {};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  limit.rlim_cur = limit.rlim_max;
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  const int high = ::fcntl(pipe.reader.get(), F_DUPFD, 1500);
                  if (high < 0) {
                      return limit.rlim_max <= 1500 ? 0 : 1;
                  }
                  (void)!::write(pipe.writer.get(), "x", 1);
                  return waitReadable(high, 0) == WaitResult::Ready ? 0 : 2;
              }),
              0);
}

// --- watching ---

TEST(Watching, EndsASleepOfTheWatchingThread) {
    EXPECT_EQ(runWatching([] {
                  if (spanOf([] { platform::sleepMilliseconds(20); }) < 19) {
                      return 1;
                  }
                  sendAlarmIn(10);
                  return spanOf([] { platform::sleepMilliseconds(kLong); }) < kEarly ? 0 : 2;
              }),
              0);
}

TEST(Watching, DoesNotEndASleepRegardless) {
    EXPECT_EQ(runWatching([] {
                  ::raise(SIGALRM);
                  if (!platform::terminationPending()) {
                      return 1;
                  }
                  if (spanOf([] { platform::sleepRegardless(60); }) < 59) {
                      return 2;
                  }
                  return spanOf([] { platform::sleepMilliseconds(kLong); }) < kEarly ? 0 : 3;
              }),
              0);
}

TEST(Watching, DoesNotEndASleepRegardlessInItsMiddle) {
    EXPECT_EQ(runWatching([] {
                  sendAlarmIn(10);
                  return spanOf([] { platform::sleepRegardless(60); }) >= 59 ? 0 : 1;
              }),
              0);
}

TEST(Watching, DoesNotEndASleepForAnotherPendingSignal) {
    EXPECT_EQ(runWatching([] {
                  const sigset_t other = setOf(SIGUSR1);
                  ::pthread_sigmask(SIG_BLOCK, &other, nullptr);
                  ::raise(SIGUSR1);
                  return spanOf([] { platform::sleepMilliseconds(20); }) >= 19 ? 0 : 1;
              }),
              0);
}

TEST(Watching, DoesNotEndASleepForAHandler) {
    EXPECT_EQ(runInChild([] {
                  platform::watchForTermination(setOf(SIGUSR1));
                  handleAlarmWithoutRestart();
                  sendAlarmIn(5);
                  return spanOf([] { platform::sleepMilliseconds(30); }) >= 29 ? 0 : 1;
              }),
              0);
}

TEST(Watching, ConcernsTheWatchingThreadOnly) {
    const sigset_t watched = setOf(SIGUSR2);
    sigset_t previous;
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &watched, &previous), 0);
    std::atomic<bool> watching{false};
    std::atomic<bool> sawPending{false};
    std::int64_t watchersSpan = 0;
    std::thread watcher([&] {
        platform::watchForTermination(watched);
        watching = true;
        watchersSpan = spanOf([] { platform::sleepMilliseconds(kLong); });
        sawPending = platform::terminationPending();
        platform::stopWatchingForTermination();
    });
    ASSERT_TRUE(eventually([&] { return watching.load(); }));
    ASSERT_EQ(::kill(::getpid(), SIGUSR2), 0); // pending for the whole process
    watcher.join();
    EXPECT_LT(watchersSpan, kEarly);
    EXPECT_TRUE(sawPending);
    std::thread bystander([&] {
        EXPECT_FALSE(platform::terminationPending());
        EXPECT_GE(spanOf([] { platform::sleepMilliseconds(30); }), 29);
        const Pipe pipe;
        EXPECT_EQ(waitReadable(pipe.reader.get(), 10), WaitResult::TimedOut);
    });
    bystander.join();
    EXPECT_FALSE(platform::isWatchingThread());
    EXPECT_EQ(::sigwaitinfo(&watched, nullptr), SIGUSR2) << "watching does not consume it";
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

TEST(Watching, WorksWithoutADescriptor) {
    EXPECT_EQ(runInChild([] {
                  const Pipe pipe;
                  const sigset_t watched = setOf(SIGALRM);
                  ::pthread_sigmask(SIG_BLOCK, &watched, nullptr);
                  rlimit limit = {};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  const rlimit none = {0, limit.rlim_max};
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  if (::dup(0) >= 0) {
                      return 1;
                  }
                  platform::watchForTermination(watched);
                  // ppoll refuses more entries than descriptors are allowed.
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  if (waitReadable(pipe.reader.get(), 120) != WaitResult::TimedOut) {
                      return 2;
                  }
                  sendAlarmIn(5);
                  if (spanOf([] { platform::sleepMilliseconds(kLong); }) >= kEarly) {
                      return 3;
                  }
                  return waitReadable(pipe.reader.get(), -1) == WaitResult::Terminating ? 0 : 4;
              }),
              0);
}

TEST(Watching, HoldsTwoDescriptorsWhileItLasts) {
    EXPECT_EQ(runInChild([] {
                  const int before = ::dup(0);
                  ::close(before);
                  const sigset_t watched = setOf(SIGALRM);
                  for (int round = 0; round < 3; ++round) {
                      platform::watchForTermination(watched);
                  }
                  if (::fcntl(before, F_GETFD) != FD_CLOEXEC ||
                      ::fcntl(before + 1, F_GETFD) != FD_CLOEXEC ||
                      ::fcntl(before + 2, F_GETFD) >= 0) {
                      return 1;
                  }
                  platform::stopWatchingForTermination();
                  platform::stopWatchingForTermination();
                  return ::fcntl(before, F_GETFD) >= 0 || ::fcntl(before + 1, F_GETFD) >= 0 ? 2 : 0;
              }),
              0);
}

// --- ending the waits ---

/// Ends the waits of the watching thread from another one, after 5 ms.
class EndFromAThread {
public:
    EndFromAThread()
        : thread_([] {
            ::usleep(5000);
            platform::endWatchedWaits();
        }) {}
    ~EndFromAThread() { thread_.join(); }
    EndFromAThread(const EndFromAThread&) = delete;
    EndFromAThread& operator=(const EndFromAThread&) = delete;

private:
    std::thread thread_;
};

TEST(EndWatchedWaits, EndsAllWaitsFromThenOn) {
    EXPECT_EQ(runWatching([] {
                  const Pipe pipe;
                  if (platform::terminationPending()) {
                      return 1;
                  }
                  const EndFromAThread ending;
                  if (waitReadable(pipe.reader.get(), kLong) != WaitResult::Terminating ||
                      !platform::terminationPending()) {
                      return 2;
                  }
                  return spanOf([] { platform::sleepMilliseconds(kLong); }) < kEarly ? 0 : 3;
              }),
              0);
}

TEST(EndWatchedWaits, WorksWithoutADescriptor) {
    EXPECT_EQ(runInChild([] {
                  rlimit limit = {};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  const rlimit none = {0, limit.rlim_max};
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  platform::watchForTermination(setOf(SIGALRM));
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  const EndFromAThread ending;
                  return spanOf([] { platform::sleepMilliseconds(kLong); }) < kEarly ? 0 : 1;
              }),
              0);
}

TEST(EndWatchedWaits, DoesNotOutliveTheWatching) {
    EXPECT_EQ(runWatching([] {
                  platform::endWatchedWaits();
                  platform::stopWatchingForTermination();
                  if (platform::terminationPending() ||
                      spanOf([] { platform::sleepMilliseconds(20); }) < 19) {
                      return 1;
                  }
                  platform::endWatchedWaits(); // nobody watches
                  platform::watchForTermination(setOf(SIGALRM));
                  return platform::terminationPending() ? 2 : 0;
              }),
              0);
}

// --- locks ---

TEST(LockUnlessTerminating, IsAPlainLockOnOtherThreads) {
    platform::RecursiveMutex mutex;
    EXPECT_EQ(mutex.lock(), 0);
    std::atomic<bool> locked{false};
    std::thread other([&] {
        EXPECT_TRUE(platform::lockUnlessTerminating(mutex));
        locked = true;
        EXPECT_EQ(mutex.unlock(), 0);
    });
    ::usleep(10000);
    EXPECT_FALSE(locked);
    EXPECT_EQ(mutex.unlock(), 0);
    other.join();
    EXPECT_TRUE(locked);
}

TEST(LockUnlessTerminating, WaitsOnTheWatchingThreadToo) {
    platform::RecursiveMutex mutex;
    EXPECT_EQ(mutex.lock(), 0);
    std::atomic<bool> locked{false};
    std::thread watcher([&] {
        platform::watchForTermination(setOf(SIGUSR2));
        const platform::PatientGuard guard(mutex);
        locked = guard.held();
        platform::stopWatchingForTermination();
    });
    ::usleep(15000);
    EXPECT_FALSE(locked);
    EXPECT_EQ(mutex.unlock(), 0);
    watcher.join();
    EXPECT_TRUE(locked);
    ASSERT_EQ(mutex.lockIfFree(), 0) << "the guard released it";
    EXPECT_EQ(mutex.unlock(), 0);
}

TEST(LockUnlessTerminating, GivesUpWhenAWatchedSignalIsPending) {
    const sigset_t watched = setOf(SIGUSR2);
    platform::RecursiveMutex mutex;
    EXPECT_EQ(mutex.lock(), 0);
    std::atomic<bool> watching{false};
    bool held = true;
    std::thread watcher([&] {
        ::pthread_sigmask(SIG_BLOCK, &watched, nullptr);
        platform::watchForTermination(watched);
        watching = true;
        platform::PatientGuard guard(mutex);
        held = guard.held();
        EXPECT_EQ(guard.release(), 0) << "nothing is held, nothing is unlocked";
        platform::stopWatchingForTermination();
    });
    ASSERT_TRUE(eventually([&] { return watching.load(); }));
    ::usleep(5000);
    ASSERT_EQ(::pthread_kill(watcher.native_handle(), SIGUSR2), 0);
    watcher.join();
    EXPECT_FALSE(held);
    EXPECT_EQ(mutex.unlock(), 0);
}

/// lockUnlessTerminating's result where the system refuses the lock.
bool lockUnlessRefused(platform::RecursiveMutex& mutex) {
    const RefusedLocks refused(EINVAL);
    return platform::lockUnlessTerminating(mutex);
}

TEST(LockUnlessTerminating, TellsOfALockThatIsRefused) {
    platform::RecursiveMutex mutex;
    EXPECT_FALSE(lockUnlessRefused(mutex));
    EXPECT_EQ(mutex.unlock(), EPERM);
}

TEST(LockUnlessTerminating, TellsOfALockThatIsRefusedToTheWatchingThread) {
    platform::RecursiveMutex mutex;
    std::thread([&] {
        platform::watchForTermination(setOf(SIGUSR2));
        EXPECT_FALSE(lockUnlessRefused(mutex));
        EXPECT_EQ(mutex.unlock(), EPERM);
        platform::stopWatchingForTermination();
    }).join();
}

TEST(LockUnlessTerminating, TakesAFreeLockAlsoWhenASignalIsPending) {
    EXPECT_EQ(runWatching([] {
                  platform::RecursiveMutex mutex;
                  ::raise(SIGALRM);
                  if (!platform::lockUnlessTerminating(mutex)) {
                      return 1;
                  }
                  return mutex.unlock();
              }),
              0);
}

} // namespace
