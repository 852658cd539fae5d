#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

using platform::readFully;
using platform::UniqueFd;
using platform::writeFully;

constexpr int kNoDescriptor = -1;

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

int openNull() {
    const int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot open /dev/null");
    }
    return fd;
}

struct Pipe {
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("cannot make a pipe");
        }
        readEnd.reset(ends[0]);
        writeEnd.reset(ends[1]);
    }
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

TEST(UniqueFdTest, OwnsNothingAtFirst) {
    const UniqueFd none;
    EXPECT_FALSE(none.valid());
    EXPECT_EQ(none.get(), kNoDescriptor);
}

TEST(UniqueFdTest, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<UniqueFd>);
    EXPECT_FALSE(std::is_copy_assignable_v<UniqueFd>);
    EXPECT_FALSE((std::is_convertible_v<int, UniqueFd>));
}

TEST(UniqueFdTest, ClosesAtTheEndOfItsScope) {
    const int fd = openNull();
    {
        const UniqueFd owner(fd);
        EXPECT_TRUE(owner.valid());
        EXPECT_EQ(owner.get(), fd);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueFdTest, DescriptorZeroIsValid) {
    UniqueFd zero(0);
    EXPECT_TRUE(zero.valid());
    EXPECT_EQ(zero.release(), 0);
}

TEST(UniqueFdTest, ResetCloses) {
    UniqueFd owner(openNull());
    const int fd = owner.get();
    owner.reset();
    EXPECT_FALSE(owner.valid());
    EXPECT_FALSE(isOpen(fd));
}

TEST(UniqueFdTest, ResetToAnotherClosesTheFirstOnly) {
    UniqueFd owner(openNull());
    const int first = owner.get();
    const int second = openNull();
    owner.reset(second);
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    EXPECT_EQ(owner.get(), second);
}

TEST(UniqueFdTest, ReleaseGivesTheDescriptorAwayOpen) {
    UniqueFd owner(openNull());
    const UniqueFd next(owner.release());
    EXPECT_FALSE(owner.valid());
    EXPECT_TRUE(isOpen(next.get()));
}

TEST(UniqueFdTest, MovingPassesTheDescriptorOn) {
    UniqueFd first(openNull());
    const int fd = first.get();
    const UniqueFd second(std::move(first));
    EXPECT_EQ(second.get(), fd);
    EXPECT_TRUE(isOpen(fd));
    EXPECT_FALSE(first.valid()); // NOLINT(bugprone-use-after-move): empty after the move
}

TEST(UniqueFdTest, MoveAssignmentClosesWhatWasOwned) {
    UniqueFd first(openNull());
    UniqueFd second(openNull());
    const int kept = first.get();
    const int closed = second.get();
    second = std::move(first);
    EXPECT_EQ(second.get(), kept);
    EXPECT_TRUE(isOpen(kept));
    EXPECT_FALSE(isOpen(closed));
}

TEST(UniqueFdTest, MoveAssignmentToItselfKeepsTheDescriptor) {
    UniqueFd owner(openNull());
    UniqueFd& same = owner;
    const int fd = owner.get();
    owner = std::move(same);
    EXPECT_EQ(owner.get(), fd);
    EXPECT_TRUE(isOpen(fd));
}

TEST(UniqueFdTest, KeepsErrno) {
    UniqueFd notOpen(100000); // closing it fails
    errno = ENOENT;
    notOpen.reset();
    EXPECT_EQ(errno, ENOENT);
}

TEST(ReadFullyTest, CollectsPartsUntilTheSizeIsReached) {
    const Pipe pipe;
    std::thread writer([&pipe] {
        for (const char letter : {'a', 'b', 'c', 'd'}) {
            if (::write(pipe.writeEnd.get(), &letter, 1) != 1) {
                return;
            }
            std::this_thread::yield();
        }
    });
    char buffer[4] = {};
    EXPECT_EQ(readFully(pipe.readEnd.get(), buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, sizeof buffer), "abcd");
    writer.join();
}

TEST(ReadFullyTest, ReturnsWhatCameBeforeTheEndOfTheFile) {
    Pipe pipe;
    ASSERT_EQ(::write(pipe.writeEnd.get(), "abc", 3), 3);
    pipe.writeEnd.reset();
    char buffer[8] = {};
    EXPECT_EQ(readFully(pipe.readEnd.get(), buffer, sizeof buffer), 3);
    EXPECT_STREQ(buffer, "abc");
}

TEST(ReadFullyTest, ReturnsZeroAtTheEndOfTheFile) {
    Pipe pipe;
    pipe.writeEnd.reset();
    char buffer[8];
    EXPECT_EQ(readFully(pipe.readEnd.get(), buffer, sizeof buffer), 0);
}

TEST(ReadFullyTest, LeavesTheRestForTheNextCall) {
    const Pipe pipe;
    ASSERT_EQ(::write(pipe.writeEnd.get(), "abcd", 4), 4);
    char buffer[2];
    EXPECT_EQ(readFully(pipe.readEnd.get(), buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "ab");
    EXPECT_EQ(readFully(pipe.readEnd.get(), buffer, 2), 2);
    EXPECT_EQ(std::string(buffer, 2), "cd");
}

TEST(ReadFullyTest, FailureOfTheFirstReadIsReported) {
    char buffer[8];
    errno = 0;
    EXPECT_EQ(readFully(kNoDescriptor, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(ReadFullyTest, FailureAfterSomeBytesReturnsThoseBytes) {
    const Pipe pipe;
    ASSERT_EQ(::fcntl(pipe.readEnd.get(), F_SETFL, O_NONBLOCK), 0);
    ASSERT_EQ(::write(pipe.writeEnd.get(), "ab", 2), 2);
    char buffer[8];
    EXPECT_EQ(readFully(pipe.readEnd.get(), buffer, sizeof buffer), 2);
}

TEST(ReadFullyTest, NothingToReadNeedsNoDescriptor) {
    EXPECT_EQ(readFully(kNoDescriptor, nullptr, 0), 0);
}

volatile std::sig_atomic_t handledSignals = 0;

/// SIGUSR2 interrupts system calls within the scope.
class InterruptingSignal {
public:
    InterruptingSignal() {
        handledSignals = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { handledSignals = handledSignals + 1; };
        ::sigaction(SIGUSR2, &action, &saved_);
    }
    ~InterruptingSignal() { ::sigaction(SIGUSR2, &saved_, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

private:
    struct sigaction saved_;
};

TEST(ReadFullyTest, GoesOnAfterSignals) {
    const InterruptingSignal signal;
    const Pipe pipe;
    const pthread_t reader = pthread_self();
    std::thread writer([&pipe, reader] {
        for (int sent = 0; sent < 20; ++sent) {
            pthread_kill(reader, SIGUSR2);
            ::usleep(500);
        }
        if (::write(pipe.writeEnd.get(), "abcd", 4) != 4) {
            std::abort();
        }
    });
    char buffer[4] = {};
    EXPECT_EQ(readFully(pipe.readEnd.get(), buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, sizeof buffer), "abcd");
    writer.join();
    EXPECT_GT(handledSignals, 0);
}

TEST(WriteFullyTest, WritesEverything) {
    const Pipe pipe;
    EXPECT_EQ(writeFully(pipe.writeEnd.get(), "abcd", 4), 4);
    char buffer[4];
    EXPECT_EQ(::read(pipe.readEnd.get(), buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, sizeof buffer), "abcd");
}

TEST(WriteFullyTest, GoesOnWhenThePipeIsFullInBetween) {
    Pipe pipe;
    const std::string data(1 << 20, 'a'); // more than a pipe holds
    std::string received;
    std::thread reader([&pipe, &received] {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(pipe.readEnd.get(), buffer, sizeof buffer)) > 0) {
            received.append(buffer, static_cast<std::size_t>(count));
        }
    });
    EXPECT_EQ(writeFully(pipe.writeEnd.get(), data.data(), data.size()),
              static_cast<ssize_t>(data.size()));
    pipe.writeEnd.reset();
    reader.join();
    EXPECT_EQ(received, data);
}

TEST(WriteFullyTest, FailureOfTheFirstWriteIsReported) {
    errno = 0;
    EXPECT_EQ(writeFully(kNoDescriptor, "a", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(WriteFullyTest, FailureAfterSomeBytesReturnsThoseBytes) {
    const Pipe pipe;
    ASSERT_EQ(::fcntl(pipe.writeEnd.get(), F_SETFL, O_NONBLOCK), 0);
    const std::string data(1 << 20, 'a');
    const ssize_t count = writeFully(pipe.writeEnd.get(), data.data(), data.size());
    EXPECT_GT(count, 0);
    EXPECT_LT(count, static_cast<ssize_t>(data.size()));
}

TEST(WriteFullyTest, NothingToWriteNeedsNoDescriptor) {
    EXPECT_EQ(writeFully(kNoDescriptor, nullptr, 0), 0);
}

} // namespace
