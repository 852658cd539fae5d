// Mapped memory that is taken away while it is touched. What is sent meanwhile:
// BusErrorSignalsTest.cpp.

#include "platform/BusError.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "BusErrorSupport.h"

namespace {

using namespace buserrortest;

// What the helpful handler finds and does.
std::atomic<int> g_code{0};
const Word* g_word = nullptr;

/// A handler by which a process helps itself, and that wants to know what happened.
void giveMemoryToTheWord(int, siginfo_t* info, void*) {
    ++g_handled;
    g_code = info->si_code;
    g_word->giveMemory();
}

/// The change of the action before which another thread sets one, counted from now; 0: none.
int g_changesUntilAnother = 0;

void setHelpfulAction(const Word& word) {
    g_word = &word;
    struct sigaction action = {};
    action.sa_sigaction = giveMemoryToTheWord;
    action.sa_flags = SA_SIGINFO;
    ::sigaction(SIGBUS, &action, nullptr);
}

} // namespace

// What stands between the program and the system's call.
extern "C" {

int __real_sigaction(int signal, const struct sigaction* action, struct sigaction* old);

int __wrap_sigaction(int signal, const struct sigaction* action, struct sigaction* old) {
    if (action != nullptr && g_changesUntilAnother > 0 && --g_changesUntilAnother == 0) {
        setAction(countSignal);
    }
    return __real_sigaction(signal, action, old);
}

} // extern "C"

namespace {

// --- the touch -----------------------------------------------------------------------------------

TEST(BusError, TouchIsMade) {
    const Word word(true);
    EXPECT_TRUE(word.survivesWriting(5));
    EXPECT_EQ(word.read(), 5);
}

TEST(BusError, TouchThatFailsIsLeft) {
    EXPECT_EQ(outcomeOf([] {
                  const Word word(false);
                  bool wentOn = false;
                  const bool survived = survivesBusError([&] {
                      word.write(5);
                      wentOn = true;
                  });
                  word.giveMemory();
                  return !survived && !wentOn && word.survivesWriting(6) && word.read() == 6;
              }),
              0);
}

TEST(BusError, AnyNumberOfTimesAndFromAnyThread) {
    EXPECT_EQ(outcomeOf([] {
                  const Word good(true);
                  const Word bad(false);
                  std::atomic<int> wrong{0};
                  std::vector<std::thread> threads;
                  threads.reserve(4);
                  for (int thread = 0; thread < 4; ++thread) {
                      threads.emplace_back([&] {
                          for (int round = 0; round < 500; ++round) {
                              wrong += good.survivesWriting(round) ? 0 : 1;
                              wrong += bad.survivesWriting(round) ? 1 : 0;
                          }
                      });
                  }
                  for (std::thread& thread : threads) {
                      thread.join();
                  }
                  return wrong == 0;
              }),
              0);
}

TEST(BusError, IsSurvivedWhereTheSignalIsBlockedOrIgnored) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(SIG_IGN);
                  sigset_t all;
                  sigfillset(&all);
                  pthread_sigmask(SIG_SETMASK, &all, nullptr);
                  return !Word(false).survivesWriting(1);
              }),
              0);
}

// --- what is left behind -------------------------------------------------------------------------

/// Whether the process has the action that `setAction(countSignal, flags)` sets.
bool hasAction(int flags) {
    struct sigaction action = {};
    ::sigaction(SIGBUS, nullptr, &action);
    return action.sa_handler == countSignal && (action.sa_flags & flags) == flags &&
           (action.sa_flags & SA_SIGINFO) == 0;
}

TEST(BusError, LeavesTheActionOfTheProcess) {
    EXPECT_EQ(outcomeOf([] {
                  constexpr int kFlags = SA_RESTART | static_cast<int>(SA_RESETHAND);
                  setAction(countSignal, kFlags);
                  const bool failed = !Word(false).survivesWriting(1) && hasAction(kFlags);
                  return failed && Word(true).survivesWriting(1) && hasAction(kFlags) &&
                         g_handled == 0;
              }),
              0);
}

TEST(BusError, LeavesAnActionThatIsSetMeanwhile) {
    EXPECT_EQ(
        outcomeOf([] { return duringATouch([] { setAction(countSignal); }) && hasAction(0); }), 0);
}

/// The action that the process has while it touches.
struct sigaction actionOfATouch() {
    struct sigaction found = {};
    (void)duringATouch([&] { ::sigaction(SIGBUS, nullptr, &found); });
    return found;
}

// A program may look at its action while one of its threads touches, and put that back later.
TEST(BusError, ActionOfATouchThatIsFoundAgainStandsForTheFormerOne) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(countSignal);
                  const struct sigaction ours = actionOfATouch();
                  ::sigaction(SIGBUS, &ours, nullptr);
                  ::raise(SIGBUS);
                  const bool survived = survivesBusError([] { ::raise(SIGBUS); });
                  return survived && g_handled == 2 && hasAction(0);
              }),
              0);
}

void ignoreSignal(int) {}

// Another thread sets an action between the last look at the old one and the change, which is the
// first of a touch or the last.
TEST(BusError, LeavesAnActionThatIsSetAtTheLastMoment) {
    for (const int change : {1, 2}) {
        EXPECT_EQ(outcomeOf([=] {
                      setAction(ignoreSignal);
                      g_changesUntilAnother = change;
                      const bool survived = survivesBusError([] { ::raise(SIGBUS); });
                      return survived && hasAction(0) && g_handled == (change == 1 ? 1 : 0);
                  }),
                  0);
    }
}

TEST(BusError, LeavesTheMaskAndTheCancellationOfTheThread) {
    EXPECT_EQ(outcomeOf([] {
                  sigset_t before;
                  sigset_t after;
                  sigemptyset(&before);
                  sigaddset(&before, SIGUSR2);
                  pthread_sigmask(SIG_SETMASK, &before, nullptr);
                  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
                  (void)Word(false).survivesWriting(1);
                  (void)Word(true).survivesWriting(1);
                  pthread_sigmask(SIG_SETMASK, nullptr, &after);
                  int state = -1;
                  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
                  return sigismember(&after, SIGUSR2) == 1 && sigismember(&after, SIGBUS) == 0 &&
                         sigismember(&after, SIGUSR1) == 0 && state == PTHREAD_CANCEL_DISABLE;
              }),
              0);
}

// --- bus errors of others ------------------------------------------------------------------------

TEST(BusError, OfTheProcessAfterwardsEndsIt) {
    EXPECT_EQ(outcomeOf([] {
                  const Word word(false);
                  const bool failed = !word.survivesWriting(1);
                  word.write(1);
                  return failed;
              }),
              kEndedBySigbus);
}

TEST(BusError, OfAnotherThreadMeanwhileEndsTheProcess) {
    for (void (*const action)(int) : {SIG_DFL, SIG_IGN}) {
        EXPECT_EQ(outcomeOf([=] {
                      setAction(action);
                      return duringATouch([] { Word(false).write(1); });
                  }),
                  kEndedBySigbus);
    }
}

TEST(BusError, OfAnotherThreadMeanwhileGetsTheActionOfTheProcess) {
    EXPECT_EQ(outcomeOf([] {
                  const Word word(false);
                  setHelpfulAction(word);
                  const bool survived = duringATouch([&] { word.write(7); });
                  g_word = nullptr;
                  return survived && g_handled == 1 && g_code == BUS_ADRERR && word.read() == 7;
              }),
              0);
}

// --- interruptions -------------------------------------------------------------------------------

TEST(BusError, HandlersWaitForTheEndOfATouch) {
    EXPECT_EQ(outcomeOf([] {
                  (void)std::signal(SIGUSR2, countSignal);
                  int during = -1;
                  const bool survived = survivesBusError([&] {
                      ::raise(SIGUSR2);
                      during = g_handled;
                  });
                  return survived && during == 0 && g_handled == 1;
              }),
              0);
}

/// Forks, and remembers the child; the child itself goes on as its parent does.
std::atomic<pid_t> g_child{-1};

void forkOnce(int) {
    g_child = ::fork();
}

TEST(BusError, HandlerOfTheThreadThatTouchesMayFork) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(forkOnce);
                  const bool survived = survivesBusError([] { ::raise(SIGBUS); }) &&
                                        !Word(false).survivesWriting(1) &&
                                        Word(true).survivesWriting(1);
                  if (g_child == 0) {
                      ::_exit(survived ? 0 : 1);
                  }
                  return survived && endOf(g_child) == 0 &&
                         endOf(startChild([] { return Word(true).survivesWriting(2) ? 0 : 1; })) ==
                             0;
              }),
              0);
}

/// A thread that may be cancelled at any instruction, and is within its touch.
void* touchCancelled(void* isTouching) {
    // NOLINTNEXTLINE(cert-pos47-c,concurrency-thread-canceltype-asynchronous): an application may
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    (void)survivesBusError([=] {
        *static_cast<std::atomic<bool>*>(isTouching) = true;
        ::usleep(100000); // the cancellation comes meanwhile
    });
    for (;;) {
        ::pause();
    }
}

TEST(BusError, CancelledThreadLeavesEverythingInOrder) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(countSignal);
                  std::atomic<bool> isTouching{false};
                  pthread_t thread = {};
                  if (pthread_create(&thread, nullptr, touchCancelled, &isTouching) != 0) {
                      return false;
                  }
                  while (!isTouching) {
                  }
                  pthread_cancel(thread);
                  pthread_join(thread, nullptr);
                  return hasAction(0) && Word(true).survivesWriting(1);
              }),
              0);
}

TEST(BusError, ChildOfAProcessThatTouchesMayDoSoToo) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(countSignal);
                  const Word word(true);
                  std::atomic<bool> enough{false};
                  std::thread other([&] {
                      while (!enough) {
                          (void)word.survivesWriting(1);
                      }
                  });
                  int failures = 0;
                  for (int child = 0; child < 300 && failures == 0; ++child) {
                      failures += endOf(startChild([&] {
                          ::prctl(PR_SET_PDEATHSIG, SIGKILL); // it may hang
                          return hasAction(0) && word.survivesWriting(2) && hasAction(0) ? 0 : 1;
                      }));
                  }
                  enough = true;
                  other.join();
                  return failures == 0;
              }),
              0);
}

} // namespace
