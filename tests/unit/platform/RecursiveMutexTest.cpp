#include "platform/RecursiveMutex.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "RefusedLocks.h"
#include "tests/unit/support/LockState.h"

namespace {

using locks::isFree;
using platform::RecursiveMutex;

TEST(RecursiveMutex, IsFreeOnceItWasUnlockedAsOftenAsLocked) {
    RecursiveMutex mutex;
    EXPECT_TRUE(isFree(mutex));
    EXPECT_EQ(mutex.lock(), 0);
    EXPECT_EQ(mutex.lockIfFree(), 0);
    EXPECT_FALSE(isFree(mutex));
    EXPECT_EQ(mutex.unlock(), 0);
    EXPECT_FALSE(isFree(mutex));
    EXPECT_EQ(mutex.unlock(), 0);
    EXPECT_TRUE(isFree(mutex));
    mutex.destroy();
}

TEST(RecursiveMutex, IsNotUnlockedByWhoDoesNotHoldIt) {
    RecursiveMutex mutex;
    EXPECT_EQ(mutex.unlock(), EPERM);
    EXPECT_EQ(mutex.lock(), 0);
    std::thread([&] {
        EXPECT_EQ(mutex.unlock(), EPERM);
        mutex.unlockCompletely();
    }).join();
    EXPECT_FALSE(isFree(mutex));
    EXPECT_EQ(mutex.unlock(), 0);
    EXPECT_EQ(mutex.unlock(), EPERM);
    EXPECT_TRUE(isFree(mutex));
    mutex.destroy();
}

TEST(RecursiveMutex, IsUnlockedCompletelyHoweverOftenItIsHeld) {
    RecursiveMutex mutex;
    for (int depth = 0; depth <= 3; ++depth) {
        for (int count = 0; count < depth; ++count) {
            EXPECT_EQ(mutex.lock(), 0);
        }
        EXPECT_EQ(isFree(mutex), depth == 0);
        mutex.unlockCompletely();
        EXPECT_TRUE(isFree(mutex)) << depth;
    }
    mutex.destroy();
}

/// The ways to lock it.
constexpr int (RecursiveMutex::*kLocks[])() = {&RecursiveMutex::lock, &RecursiveMutex::lockIfFree};

/// Locks `mutex`, which the system refuses with `error`; the result.
int lockRefused(RecursiveMutex& mutex, int (RecursiveMutex::*lock)(), int error) {
    const testsupport::RefusedLocks refused(error);
    return (mutex.*lock)();
}

/// Unlocks `mutex` where the system would refuse that with `error`, if it were asked; the result.
int unlockRefused(RecursiveMutex& mutex, int error) {
    const testsupport::RefusedLocks refused(error);
    return mutex.unlock();
}

TEST(RecursiveMutex, IsNotHeldAfterALockThatIsRefused) {
    for (const auto lock : kLocks) {
        RecursiveMutex mutex;
        EXPECT_EQ(lockRefused(mutex, lock, EINVAL), EINVAL);
        EXPECT_EQ(mutex.unlock(), EPERM);
        EXPECT_TRUE(isFree(mutex));
        mutex.destroy();
    }
}

TEST(RecursiveMutex, IsHeldAsOftenAsBeforeAfterALockThatIsRefused) {
    for (const auto lock : kLocks) {
        RecursiveMutex mutex;
        EXPECT_EQ(mutex.lock(), 0);
        EXPECT_EQ(lockRefused(mutex, lock, EAGAIN), EAGAIN);
        EXPECT_FALSE(isFree(mutex));
        EXPECT_EQ(mutex.unlock(), 0);
        EXPECT_EQ(mutex.unlock(), EPERM);
        EXPECT_TRUE(isFree(mutex));
        mutex.destroy();
    }
}

TEST(RecursiveMutex, IsHeldByTheSameThreadAfterALockThatIsRefusedToAnother) {
    for (const auto lock : kLocks) {
        RecursiveMutex mutex;
        EXPECT_EQ(mutex.lock(), 0);
        std::thread([&] {
            EXPECT_EQ(lockRefused(mutex, lock, EINVAL), EINVAL);
            EXPECT_EQ(mutex.unlock(), EPERM);
        }).join();
        EXPECT_EQ(mutex.unlock(), 0);
        EXPECT_TRUE(isFree(mutex));
        mutex.destroy();
    }
}

/// A thread that waits, from a moment on at which it has released the mutex.
class Waiter {
public:
    Waiter()
        : thread_([this] { wait(); }) {
        bool waits = false;
        while (!waits) {
            const std::lock_guard lock(mutex_);
            waits = waits_; // Only the wait releases the mutex after that.
        }
    }
    ~Waiter() {
        if (thread_.joinable()) {
            end();
        }
        mutex_.destroy();
        pthread_cond_destroy(&condition_);
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    RecursiveMutex& mutex() { return mutex_; }

    void end() {
        EXPECT_EQ(mutex_.lock(), 0);
        over_ = true;
        pthread_cond_signal(&condition_);
        EXPECT_EQ(mutex_.unlock(), 0);
        thread_.join();
    }

    void cancel() {
        EXPECT_EQ(pthread_cancel(thread_.native_handle()), 0);
        thread_.join();
    }

    /// Whether it held the mutex just once after its wait.
    bool heldItOnce() const { return heldItOnce_; }

private:
    void wait() {
        EXPECT_EQ(mutex_.lock(), 0);
        waits_ = true;
        const Release release{*this};
        while (!over_) {
            EXPECT_EQ(mutex_.waitFor(condition_), 0);
        }
    }

    /// At the end of the wait, also when the thread is cancelled.
    struct Release {
        Waiter& waiter;
        ~Release() {
            const bool held = waiter.mutex_.unlock() == 0;
            waiter.heldItOnce_ = held && waiter.mutex_.unlock() == EPERM;
        }
    };

    RecursiveMutex mutex_;
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
    bool waits_ = false; // guarded by mutex_
    bool over_ = false;  // guarded by mutex_
    std::atomic<bool> heldItOnce_{false};
    std::thread thread_;
};

TEST(RecursiveMutex, IsHeldByOthersDuringAWaitAndByTheWaiterAfterIt) {
    Waiter waiter;
    EXPECT_EQ(waiter.mutex().lock(), 0);
    EXPECT_EQ(waiter.mutex().lock(), 0);
    EXPECT_EQ(waiter.mutex().unlock(), 0);
    EXPECT_FALSE(isFree(waiter.mutex()));
    EXPECT_EQ(waiter.mutex().unlock(), 0);
    EXPECT_EQ(unlockRefused(waiter.mutex(), EINVAL), EPERM);
    EXPECT_TRUE(isFree(waiter.mutex()));
    waiter.end();
    EXPECT_TRUE(waiter.heldItOnce());
    EXPECT_TRUE(isFree(waiter.mutex()));
}

TEST(RecursiveMutex, IsHeldByACancelledWaiterUntilItUnwinds) {
    Waiter waiter;
    waiter.cancel();
    EXPECT_TRUE(waiter.heldItOnce());
    EXPECT_TRUE(isFree(waiter.mutex()));
}

} // namespace
