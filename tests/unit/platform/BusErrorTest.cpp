// Mapped memory that is taken away while it is touched. Every case runs in a process of its own,
// whose actions, mask and threads it may use up.

#include "platform/BusError.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/UniqueFd.h"

namespace {

using namespace testsupport;
using platform::survivesBusError;

constexpr int kEndedBySigbus = 128 + SIGBUS;

/// How many times the patience of `eventually`: the machine may be busy.
constexpr int kPatience = 6;

/// A word in a mapped file that has no length until it is given one.
class Word {
public:
    explicit Word(bool hasMemory)
        : file_(::memfd_create("word", MFD_CLOEXEC))
        , word_(static_cast<volatile int*>(
              ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0))) {
        if (hasMemory) {
            giveMemory();
        }
    }
    ~Word() { ::munmap(const_cast<int*>(word_), sizeof(int)); }
    Word(const Word&) = delete;
    Word& operator=(const Word&) = delete;

    void giveMemory() const { (void)!::ftruncate(file_.get(), sizeof(int)); }
    void write(int value) const { *word_ = value; }
    int read() const { return *word_; }

    bool survivesWriting(int value) const {
        return survivesBusError([this, value] { write(value); });
    }

private:
    platform::UniqueFd file_;
    volatile int* word_;
};

/// How a child ended: its exit status, or 128 + the signal that ended it. One that hangs is killed,
/// because it may have all else blocked.
int endOf(pid_t child) {
    siginfo_t end = {};
    bool hasEnded = false;
    for (int patience = 0; patience < kPatience && !hasEnded; ++patience) {
        hasEnded = eventually([&] {
            return ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) ==
                       0 &&
                   end.si_pid == child;
        });
    }
    if (!hasEnded) {
        ::kill(child, SIGKILL);
    }
    return awaitChild(child);
}

/// Runs `body`, which returns true when all was well, in a process of its own: 0 then, else 1 or as
/// endOf says.
template <typename Body> int outcomeOf(Body body) {
    return endOf(startChild([&] {
        (void)std::signal(SIGBUS, SIG_DFL); // a sanitizer has an action of its own
        return body() ? 0 : 1;
    }));
}

// What the handlers of these processes find and do.
std::atomic<int> g_handled{0};
std::atomic<int> g_code{0};
const Word* g_word = nullptr;

void countSignal(int) {
    ++g_handled;
}

/// A handler by which a process helps itself, and that wants to know what happened.
void giveMemoryToTheWord(int, siginfo_t* info, void*) {
    ++g_handled;
    g_code = info->si_code;
    g_word->giveMemory();
}

/// The change of the action before which another thread sets one, counted from now; 0: none.
int g_changesUntilAnother = 0;

void setAction(void (*handler)(int), int flags = 0) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    ::sigaction(SIGBUS, &action, nullptr);
}

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

/// Runs `meanwhile` while another thread is within its touch, which ends well.
template <typename Meanwhile> bool duringATouch(Meanwhile meanwhile) {
    std::atomic<bool> isTouching{false};
    std::atomic<bool> isOver{false};
    std::atomic<bool> survived{false};
    std::thread other([&] {
        survived = survivesBusError([&] {
            isTouching = true;
            while (!isOver) {
            }
        });
    });
    while (!isTouching) {
    }
    meanwhile();
    isOver = true;
    other.join();
    return survived;
}

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

TEST(BusError, SentMeanwhileGetsTheActionOfTheProcess) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(countSignal);
                  return duringATouch([] { ::raise(SIGBUS); }) && g_handled == 1;
              }),
              0);
    EXPECT_EQ(outcomeOf([] {
                  setAction(SIG_IGN);
                  return duringATouch([] { ::raise(SIGBUS); });
              }),
              0);
    EXPECT_EQ(outcomeOf([] { return duringATouch([] { ::raise(SIGBUS); }); }), kEndedBySigbus);
}

TEST(BusError, SentToTheThreadThatTouchesIsNoFault) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(countSignal);
                  return survivesBusError([] { ::raise(SIGBUS); }) && g_handled == 1;
              }),
              0);
}

TEST(BusError, SentToAHandlerThatServesOnceIsTheEndTheSecondTime) {
    EXPECT_EQ(outcomeOf([] {
                  setAction([](int signal) { ::raise(signal); }, SA_RESETHAND);
                  return survivesBusError([] { ::raise(SIGBUS); });
              }),
              kEndedBySigbus);
}

// A handler that stayed away would leave the fault that follows to the system.
TEST(BusError, SentAndIgnoredTakesNoProtectionAway) {
    EXPECT_EQ(outcomeOf([] {
                  setAction(SIG_IGN);
                  const Word word(false);
                  return !survivesBusError([&] {
                      ::raise(SIGBUS);
                      word.write(1);
                  });
              }),
              0);
}

void block(int signal) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, signal);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

/// Takes a bus error that waits for this thread; false when there is none.
bool takeBusError() {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGBUS);
    const timespec atOnce = {};
    return ::sigtimedwait(&awaited, nullptr, &atOnce) == SIGBUS;
}

bool sendToTheThread() {
    return ::raise(SIGBUS) == 0;
}

bool sendToTheProcess() {
    return ::kill(::getpid(), SIGBUS) == 0;
}

TEST(BusError, SentToWhoWaitsForItIsLeftToHim) {
    for (bool (*const send)() : {sendToTheThread, sendToTheProcess}) {
        for (void (*const action)(int) : {SIG_DFL, SIG_IGN, countSignal}) {
            EXPECT_EQ(outcomeOf([=] {
                          setAction(action);
                          block(SIGBUS);
                          const bool beforehand = send() && Word(true).survivesWriting(1) &&
                                                  takeBusError() && !takeBusError();
                          const bool meanwhile = survivesBusError([=] { (void)send(); }) &&
                                                 takeBusError() && !takeBusError();
                          return beforehand && meanwhile && g_handled == 0;
                      }),
                      0);
        }
    }
}

TEST(BusError, SentToTheProcessIsLeftToAnotherThreadThatWaitsForIt) {
    EXPECT_EQ(outcomeOf([] {
                  block(SIGBUS);
                  std::thread touches(
                      [] { (void)survivesBusError([] { (void)sendToTheProcess(); }); });
                  touches.join();
                  return takeBusError();
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
