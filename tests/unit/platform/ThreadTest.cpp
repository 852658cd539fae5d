#include "platform/Thread.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace {

void* noteMask(void* mask) {
    ::pthread_sigmask(SIG_BLOCK, nullptr, static_cast<sigset_t*>(mask));
    return mask;
}

bool isFault(int signal) {
    return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL ||
           signal == SIGTRAP || signal == SIGABRT;
}

TEST(Thread, RunsWithAllSignalsBlockedButFaults) {
    sigset_t before;
    sigset_t inside;
    sigset_t after;
    ::sigemptyset(&inside);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &before);
    pthread_t thread = {};
    ASSERT_EQ(platform::createWorkerThread(&thread, noteMask, &inside), 0);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &inside) << "the argument goes in and the result comes out";
    for (int signal = 1; signal < NSIG; ++signal) {
        // SIGKILL and SIGSTOP cannot be blocked; 32 and 33 belong to the thread library.
        const bool mayBlock =
            signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal > 33);
        if (mayBlock) {
            EXPECT_EQ(::sigismember(&inside, signal), isFault(signal) ? 0 : 1) << signal;
        }
        EXPECT_EQ(::sigismember(&after, signal), ::sigismember(&before, signal)) << signal;
    }
}

struct WindowCourse {
    std::atomic<bool> windowClosed{false};
    std::atomic<bool> cancelSent{false};
    std::atomic<bool> outsideWindow{false};
    std::atomic<bool> passed{false};
    int stateInside = PTHREAD_CANCEL_DISABLE;
};

void* waitInWindow(void* argument) {
    WindowCourse& course = *static_cast<WindowCourse*>(argument);
    platform::disableCancellation();
    {
        const platform::CancellationWindow window;
        ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &course.stateInside);
    }
    course.windowClosed = true;
    while (!course.cancelSent) {
        ::usleep(100);
    }
    ::usleep(100);
    course.outsideWindow = true;
    const platform::CancellationWindow window;
    ::usleep(100);
    course.passed = true;
    return nullptr;
}

TEST(Thread, CanBeCancelledOnlyInItsWindows) {
    WindowCourse course;
    pthread_t thread = {};
    ASSERT_EQ(platform::createWorkerThread(&thread, waitInWindow, &course), 0);
    ASSERT_TRUE(testsupport::eventually([&] { return course.windowClosed.load(); }));
    ASSERT_EQ(::pthread_cancel(thread), 0);
    course.cancelSent = true;
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    EXPECT_EQ(course.stateInside, PTHREAD_CANCEL_ENABLE);
    EXPECT_TRUE(course.outsideWindow);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_FALSE(course.passed);
}

} // namespace
