// Bus errors that are sent, while mapped memory is touched.

#include <unistd.h>

#include <csignal>
#include <ctime>
#include <thread>

#include <gtest/gtest.h>

#include "BusErrorSupport.h"

namespace {

using namespace buserrortest;

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
                  setAction([](int signal) { ::raise(signal); }, static_cast<int>(SA_RESETHAND));
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

} // namespace
