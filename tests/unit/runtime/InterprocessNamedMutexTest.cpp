#include "runtime/InterprocessNamedMutex.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "runtime/Globals.h"
#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::world;

std::atomic<int> waits{0};

} // namespace

extern "C" {

int __real_sem_wait(sem_t* semaphore);

int __wrap_sem_wait(sem_t* semaphore) {
    ++waits;
    return __real_sem_wait(semaphore);
}

} // extern "C"

namespace {

/// Names of this process and test, removed afterwards.
class InterprocessNamedMutexTest : public testing::Test {
protected:
    ~InterprocessNamedMutexTest() override {
        ::unlink(file_.c_str());
        if (count_ != SEM_FAILED) {
            ::sem_close(count_);
        }
    }

    bool fileExists() const { return ::access(file_.c_str(), F_OK) == 0; }

    /// The value of the semaphore, through a handle of the test's own.
    int value() {
        if (count_ == SEM_FAILED) {
            count_ = ::sem_open(name_.c_str(), 0);
        }
        int found = -1;
        return count_ != SEM_FAILED && ::sem_getvalue(count_, &found) == 0 ? found : -1;
    }

    const std::string bare_ = "ovard.unit." + std::to_string(::getpid()) + "." +
                              testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::string name_ = "/" + bare_;
    const std::string file_ = "/dev/shm/sem." + bare_;
    sem_t* count_ = SEM_FAILED;
};

TEST_F(InterprocessNamedMutexTest, NameWithoutSlashGetsOne) {
    const CInterprocessNamedMutex mutex(bare_.c_str());
    EXPECT_EQ(mutex.name(), name_);
    EXPECT_TRUE(fileExists());
    EXPECT_EQ(value(), 1);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(InterprocessNamedMutexTest, NameWithSlashStays) {
    const CInterprocessNamedMutex mutex(name_.c_str());
    EXPECT_EQ(mutex.name(), name_);
    EXPECT_TRUE(fileExists());
    EXPECT_EQ(value(), 1);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(InterprocessNamedMutexTest, OthersOfTheGroupMayUseIt) {
    ::umask(0);
    const CInterprocessNamedMutex mutex(name_.c_str());
    struct stat facts = {};
    ASSERT_EQ(::stat(file_.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0664U);
}

TEST_F(InterprocessNamedMutexTest, StaleLockIsDiscarded) {
    CInterprocessNamedMutex stale(name_.c_str());
    ASSERT_TRUE(stale.Lock());
    CInterprocessNamedMutex fresh(name_.c_str());
    EXPECT_EQ(value(), 1);
    EXPECT_TRUE(fresh.Lock());
    EXPECT_EQ(stale.tryAcquire(), 0);
}

TEST_F(InterprocessNamedMutexTest, StaleFileThatIsNoSemaphoreIsDiscarded) {
    std::ofstream(file_) << "garbage";
    CInterprocessNamedMutex mutex(bare_.c_str());
    EXPECT_EQ(value(), 1);
    EXPECT_TRUE(mutex.Lock());
}

TEST_F(InterprocessNamedMutexTest, StaleSurplusIsDiscarded) {
    CInterprocessNamedMutex stale(name_.c_str());
    stale.Unlock();
    stale.Unlock();
    const CInterprocessNamedMutex fresh(name_.c_str());
    EXPECT_EQ(value(), 1);
}

TEST_F(InterprocessNamedMutexTest, LockAndUnlockMoveTheCount) {
    CInterprocessNamedMutex mutex(name_.c_str());
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(value(), 0);
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_EQ(value(), 1);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(InterprocessNamedMutexTest, PostTooManyRaisesTheCount) {
    CInterprocessNamedMutex mutex(name_.c_str());
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_EQ(value(), 2);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(value(), 0);
}

TEST_F(InterprocessNamedMutexTest, TryAcquireNeverWaits) {
    CInterprocessNamedMutex mutex(name_.c_str());
    EXPECT_EQ(mutex.tryAcquire(), 1);
    EXPECT_EQ(value(), 0);
    EXPECT_EQ(mutex.tryAcquire(), 0);
    EXPECT_EQ(value(), 0);
}

TEST_F(InterprocessNamedMutexTest, LockWaitsForTheOtherHolder) {
    CInterprocessNamedMutex mutex(name_.c_str());
    ASSERT_TRUE(mutex.Lock());
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
        (void)mutex.Lock();
        acquired = true;
    });
    ::usleep(5000);
    EXPECT_FALSE(acquired);
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_TRUE(fakes::waitUntil([&] { return acquired.load(); }));
    waiter.join();
}

TEST_F(InterprocessNamedMutexTest, DestructorPostsOnceAndLeavesTheName) {
    auto mutex = std::make_unique<CInterprocessNamedMutex>(name_.c_str());
    ASSERT_EQ(value(), 1);
    mutex.reset();
    EXPECT_EQ(value(), 2);
    EXPECT_TRUE(fileExists());
}

/// Semaphores that this process has open, whatever their names are by now.
std::ptrdiff_t openSemaphores() {
    std::ifstream maps("/proc/self/maps");
    std::ptrdiff_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find("/dev/shm/sem.") != std::string::npos ? 1 : 0;
    }
    return count;
}

TEST_F(InterprocessNamedMutexTest, DestructorClosesTheHandle) {
    const std::ptrdiff_t before = openSemaphores();
    {
        const CInterprocessNamedMutex mutex(name_.c_str());
        EXPECT_EQ(openSemaphores(), before + 1);
    }
    EXPECT_EQ(openSemaphores(), before);
}

// --- failures ------------------------------------------------------------------------------------

/// Longer than any semaphore name of the system, shorter than the buffers.
std::string longName() {
    return std::string(254, 'n');
}

TEST_F(InterprocessNamedMutexTest, FailingCreationIsShown) {
    const CInterprocessNamedMutex mutex(longName().c_str());
    EXPECT_EQ(world().consoleText(), "Error 36 creating named mutex: /" + longName() + "\n");
    EXPECT_EQ(mutex.name(), "/" + longName());
}

TEST_F(InterprocessNamedMutexTest, NamesAreCutToTheirBuffers) {
    const CInterprocessNamedMutex mutex(std::string(300, 'n').c_str());
    EXPECT_EQ(mutex.name(), "/" + std::string(254, 'n'));
}

// The semaphore's own name still fits; the path that is removed before has lost its last
// characters.
TEST_F(InterprocessNamedMutexTest, PathThatIsRemovedIsCutToItsBuffer) {
    const std::string bare = bare_ + std::string(245 - bare_.size(), 'n');
    const std::string path = "/dev/shm/sem." + bare;
    const std::string cut = path.substr(0, 255);
    std::ofstream(cut) << "x";
    ASSERT_EQ(::access(cut.c_str(), F_OK), 0);
    {
        CInterprocessNamedMutex first(bare.c_str());
        ASSERT_TRUE(first.Lock());
        EXPECT_NE(::access(cut.c_str(), F_OK), 0);
        CInterprocessNamedMutex second(bare.c_str());
        EXPECT_EQ(second.tryAcquire(), 0) << "the one that stands there was not removed";
    }
    EXPECT_EQ(::unlink(path.c_str()), 0);
}

TEST_F(InterprocessNamedMutexTest, LockWithoutHandleFailsWithEinval) {
    CInterprocessNamedMutex mutex(longName().c_str());
    world().forgetRecords();
    errno = 0;
    EXPECT_FALSE(mutex.Lock());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(world().consoleText(), "Error 22 locking named mutex: /" + longName() + "\n");
}

TEST_F(InterprocessNamedMutexTest, UnlockWithoutHandleFailsSilentlyWithEinval) {
    CInterprocessNamedMutex mutex(longName().c_str());
    world().forgetRecords();
    errno = 0;
    EXPECT_FALSE(mutex.Unlock());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(world().consoleText(), "");
}

// So many posts would take hours: the semaphore is made anew, full, where the mutex has it.
TEST_F(InterprocessNamedMutexTest, UnlockThatCannotPostFailsSilently) {
    CInterprocessNamedMutex mutex(name_.c_str());
    ASSERT_EQ(value(), 1);
    ASSERT_EQ(::sem_init(count_, 1, SEM_VALUE_MAX), 0);
    EXPECT_FALSE(mutex.Unlock());
    EXPECT_EQ(errno, EOVERFLOW);
    EXPECT_EQ(value(), SEM_VALUE_MAX);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(InterprocessNamedMutexTest, EmptiedFileFailsEveryCall) {
    auto mutex = std::make_unique<CInterprocessNamedMutex>(name_.c_str());
    ASSERT_EQ(::truncate(file_.c_str(), 0), 0);
    EXPECT_EQ(mutex->tryAcquire(), -1);
    EXPECT_FALSE(mutex->Unlock());
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_FALSE(mutex->Lock());
    EXPECT_EQ(world().consoleText(), "Error 14 locking named mutex: " + name_ + "\n");
    mutex.reset();
    EXPECT_EQ(world().consoleText(), "Error 14 locking named mutex: " + name_ + "\n");
}

TEST_F(InterprocessNamedMutexTest, FileThatIsEmptiedAllTheTimeIsSurvived) {
    CInterprocessNamedMutex mutex(name_.c_str());
    std::atomic<bool> enough{false};
    std::thread other([&] {
        while (!enough) {
            (void)!::truncate(file_.c_str(), 0);
            ::sched_yield(); // Where there is one processor, to the calls below.
            (void)!::truncate(file_.c_str(), sizeof(sem_t));
        }
    });
    int failures = 0;
    for (int round = 0; round < 20000; ++round) {
        failures += mutex.Unlock() ? 0 : 1;
        failures += mutex.tryAcquire() == -1 ? 1 : 0;
    }
    enough = true;
    other.join();
    EXPECT_GT(failures, 0) << "it was never touched while it was empty";
    EXPECT_EQ(world().consoleText(), "");
}

// A wait touches the file without a guard.
TEST_F(InterprocessNamedMutexTest, LockOfAFreeMutexDoesNotWait) {
    CInterprocessNamedMutex mutex(name_.c_str());
    const int before = waits;
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(waits, before);
    EXPECT_EQ(value(), 0);
}

TEST_F(InterprocessNamedMutexTest, TryAcquireWithoutHandleFails) {
    CInterprocessNamedMutex mutex(longName().c_str());
    EXPECT_EQ(mutex.tryAcquire(), -1);
}

// --- interruptions -------------------------------------------------------------------------------

std::atomic<int> interruptions{0};

void countInterruption(int) {
    ++interruptions;
}

/// Locks on a thread of its own, which the test interrupts only while it sleeps in the semaphore.
class InterruptedLockTest : public InterprocessNamedMutexTest {
protected:
    void SetUp() override {
        interruptions = 0;
        struct sigaction action = {};
        action.sa_handler = countInterruption;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGUSR2, &action, &savedAction_);
        ASSERT_TRUE(mutex_.Lock());
        world().forgetRecords();
        locker_ = std::thread([this] {
            threadId_ = ::gettid();
            result_ = mutex_.Lock() ? 1 : 0;
        });
    }

    ~InterruptedLockTest() override {
        mutex_.Unlock(); // lets a thread go that waits longer than it should
        if (locker_.joinable()) {
            locker_.join();
        }
        ::sigaction(SIGUSR2, &savedAction_, nullptr);
    }

    bool lockerSleeps() const {
        if (threadId_ == 0) {
            return false;
        }
        std::ifstream stat("/proc/self/task/" + std::to_string(threadId_) + "/stat");
        std::string line;
        std::getline(stat, line);
        const std::size_t end = line.rfind(") ");
        return end != std::string::npos && line[end + 2] == 'S';
    }

    bool hasReturned() const { return result_ != -1; }

    void interrupt() {
        ASSERT_TRUE(fakes::waitUntil([this] { return lockerSleeps() || hasReturned(); }));
        ASSERT_FALSE(hasReturned()) << "after " << interruptions << " interruptions";
        const int before = interruptions;
        pthread_kill(locker_.native_handle(), SIGUSR2);
        ASSERT_TRUE(fakes::waitUntil([before] { return interruptions > before; }));
    }

    CInterprocessNamedMutex mutex_{name_.c_str()};
    std::thread locker_;
    std::atomic<pid_t> threadId_{0};
    std::atomic<int> result_{-1};
    struct sigaction savedAction_ = {};
};

TEST_F(InterruptedLockTest, WaitsAgainAfterTwoInterruptions) {
    interrupt();
    interrupt();
    ASSERT_TRUE(fakes::waitUntil([this] { return lockerSleeps(); }));
    mutex_.Unlock();
    EXPECT_TRUE(fakes::waitUntil([this] { return hasReturned(); }));
    EXPECT_EQ(result_, 1);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(InterruptedLockTest, GivesUpAfterThreeWaits) {
    interrupt();
    interrupt();
    interrupt();
    EXPECT_TRUE(fakes::waitUntil([this] { return hasReturned(); }));
    EXPECT_EQ(result_, 0);
    EXPECT_EQ(world().consoleText(), "Error 4 locking named mutex: " + name_ + "\n");
}

// --- CAutoLock -----------------------------------------------------------------------------------

TEST_F(InterprocessNamedMutexTest, GuardHoldsForItsScope) {
    CInterprocessNamedMutex mutex(name_.c_str());
    {
        const CAutoLock guard(&mutex);
        EXPECT_EQ(value(), 0);
    }
    EXPECT_EQ(value(), 1);
}

TEST_F(InterprocessNamedMutexTest, GuardReleasedEarlyDoesNothingAtItsEnd) {
    CInterprocessNamedMutex mutex(name_.c_str());
    {
        CAutoLock guard(&mutex);
        guard.autoLock(nullptr);
        EXPECT_EQ(value(), 1);
    }
    EXPECT_EQ(value(), 1);
}

TEST_F(InterprocessNamedMutexTest, GuardOfNothingDoesNothing) {
    {
        CAutoLock guard(nullptr);
        guard.autoLock(nullptr);
    }
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(InterprocessNamedMutexTest, GuardOfNothingCanTakeAMutex) {
    CInterprocessNamedMutex mutex(name_.c_str());
    {
        CAutoLock guard(nullptr);
        guard.autoLock(&mutex);
        EXPECT_EQ(value(), 0);
    }
    EXPECT_EQ(value(), 1);
}

TEST_F(InterprocessNamedMutexTest, GuardPassesFromOneMutexToTheOther) {
    CInterprocessNamedMutex first(name_.c_str());
    const std::string otherName = name_ + ".other";
    CInterprocessNamedMutex other(otherName.c_str());
    {
        CAutoLock guard(&first);
        guard.autoLock(&other);
        EXPECT_EQ(value(), 1);
        EXPECT_EQ(other.tryAcquire(), 0);
    }
    EXPECT_EQ(value(), 1);
    EXPECT_EQ(other.tryAcquire(), 1);
    ::unlink(("/dev/shm/sem." + otherName.substr(1)).c_str());
}

TEST_F(InterprocessNamedMutexTest, GuardReleasesAndTakesTheSameMutexAgain) {
    CInterprocessNamedMutex mutex(name_.c_str());
    CAutoLock guard(&mutex);
    guard.autoLock(&mutex);
    EXPECT_EQ(value(), 0);
}

TEST_F(InterprocessNamedMutexTest, GuardOfABrokenMutexSaysSoOnce) {
    CInterprocessNamedMutex mutex(longName().c_str());
    world().forgetRecords();
    { const CAutoLock guard(&mutex); }
    EXPECT_EQ(world().consoleText(), "Error 22 locking named mutex: /" + longName() + "\n");
}

TEST(InitializationMutexTest, HasItsName) {
    EXPECT_STREQ(g_ovard_initialization_mutex_name, "/ovard.initialization");
    EXPECT_EQ(g_ovard_initialization_mutex.name(), "/ovard.initialization");
}

} // namespace
