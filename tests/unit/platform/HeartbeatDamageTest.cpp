// The heartbeat registry in segments that somebody has damaged, shortened or replaced.

#include "platform/linux/HeartbeatRegistry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "HeartbeatSupport.h"
#include "TestSupport.h"
#include "platform/UniqueFd.h"

namespace {

using namespace heartbeattest;
using namespace testsupport;

TEST_F(Heartbeat, SurvivesASegmentOfAnySize) {
    for (const off_t size : {0, 1, 4, 15, 16, 20, 4096, 4111, 4113, 8192, 1 << 20}) {
        registry_.notify();
        ASSERT_EQ(::truncate(file().c_str(), size), 0);
        (void)registry_.check(self_, 30);
        registry_.cleanup(self_ + 1);
        EXPECT_EQ(bytes().size(), static_cast<std::size_t>(size)) << "only a beat repairs";
        registry_.notify();
        EXPECT_GE(bytes().size(), static_cast<std::size_t>(kSegmentSize)) << size;
        EXPECT_EQ(registry_.check(self_, 30), kFresh) << size;
    }
}

TEST_F(Heartbeat, IsNoneInASegmentThatIsTooShort) {
    registry_.notify();
    ASSERT_EQ(::truncate(file().c_str(), kSegmentSize - 1), 0);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
}

TEST_F(Heartbeat, ComesBackAfterTheSegmentWasRemoved) {
    registry_.notify();
    ASSERT_EQ(::shm_unlink(name_.c_str()), 0);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    registry_.notify();
    EXPECT_EQ(registry_.check(self_, 30), kFresh);
}

TEST_F(Heartbeat, IsNoneUnderAWrongHeaderAndTheNextBeatRepairsIt) {
    registry_.notify();
    for (const std::size_t index : {std::size_t{0}, std::size_t{1}}) {
        const std::uint32_t right = word(index);
        for (const std::uint32_t wrong : {0U, 1U, 0xFFFFFFFFU, right + 1}) {
            writeWord(index, wrong);
            EXPECT_EQ(registry_.check(self_, 30), kNone) << wrong;
            registry_.cleanup(-1);
            EXPECT_EQ(word(index), wrong) << "only a beat repairs";
            registry_.notify();
            EXPECT_EQ(word(0), kMagic);
            EXPECT_EQ(word(1), kSlots);
            EXPECT_EQ(registry_.check(self_, 30), kFresh) << wrong;
        }
    }
}

TEST_F(Heartbeat, SurvivesRandomBytes) {
    std::mt19937 random(20260101);
    for (int round = 0; round < 40; ++round) {
        std::string garbage(static_cast<std::size_t>(kSegmentSize), '\0');
        for (char& byte : garbage) {
            byte = static_cast<char>(random());
        }
        if (round % 2 == 0) { // behind a right header the garbage lies in the slots
            const std::uint32_t header[] = {kMagic, kSlots};
            std::memcpy(garbage.data(), header, sizeof header);
        }
        writeText(file(), garbage);
        (void)registry_.check(self_, 30);
        registry_.cleanup(-1);
        registry_.notify();
        EXPECT_EQ(registry_.check(self_, 30), kFresh) << round;
    }
}

TEST_F(Heartbeat, SurvivesTheExtremesInEverySlot) {
    registry_.notify();
    for (const std::int32_t pid : {INT32_MIN, INT32_MAX, -1, 1 - INT32_MAX}) {
        for (std::size_t index = 0; index < kSlots; ++index) {
            writeSlot(index, {pid, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF});
        }
        (void)registry_.check(pid, 30);
        registry_.cleanup(pid == -1 ? self_ : pid);
        registry_.notify();
        if (pid != -1) { // which would be a claim of the machine's first process, which lives
            EXPECT_EQ(registry_.check(self_, 30), kFresh) << pid;
        }
    }
}

TEST_F(Heartbeat, SurvivesASegmentThatIsShortenedAllTheTime) {
    registry_.notify();
    const ChildGuard vandal(startChild([&] {
        for (;;) {
            (void)!::truncate(file().c_str(), 0);
            (void)!::truncate(file().c_str(), kSegmentSize);
        }
        return 0;
    }));
    EXPECT_EQ(runInChild([&] {
                  for (int look = 0; look < 5000; ++look) {
                      (void)registry_.check(self_, 30);
                  }
                  return 0;
              }),
              0);
}

/// A process without a slot claims one: a moment later the memory is gone.
TEST_F(Heartbeat, SurvivesASegmentThatIsShortenedWhileSlotsAreClaimedAndFreed) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer holds a lock of its own while it touches the memory";
#endif
    constexpr std::int32_t kFreed = 4711;
    constexpr std::uint32_t kMs = 2000;
    registry_.notify();
    registry_.cleanup(-1);
    writeSlot(1, {kFreed, 0, 0, 0});
    const std::string image = bytes();
    const ChildGuard vandal(startChild([&] {
        const platform::UniqueFd segment(::open(file().c_str(), O_RDWR | O_CLOEXEC));
        for (;;) {
            (void)!::ftruncate(segment.get(), 0);
            (void)!::pwrite(segment.get(), image.data(), image.size(), 0);
        }
        return 0;
    }));
    EXPECT_EQ(runInChild([&] {
                  for (const std::uint32_t begin = nowMs(); nowMs() - begin < kMs;) {
                      registry_.notify();
                      registry_.cleanup(kFreed);
                  }
                  return 0;
              }),
              0);
}

TEST_F(Heartbeat, LeavesTheActionForBusErrors) {
    EXPECT_EQ(runInChild([&] {
                  struct sigaction action = {};
                  action.sa_handler = [](int) { ::_exit(3); };
                  ::sigaction(SIGBUS, &action, nullptr);
                  registry_.notify();
                  registry_.cleanup(-1);
                  ::raise(SIGBUS);
                  return 0;
              }),
              3);
}

TEST_F(Heartbeat, KeepsOneSlotWhenOnlyTheMagicNumberWasLost) {
    registry_.notify();
    writeWord(0, 0);
    registry_.notify();
    EXPECT_EQ(slotsOf(self_), 1);
}

TEST_F(Heartbeat, NeverFollowsALink) {
    const TemporaryDirectory directory;
    writeText(directory.file("victim"), std::string(5000, 'v'));
    ASSERT_EQ(::symlink(directory.file("victim").c_str(), file().c_str()), 0);
    registry_.notify();
    registry_.cleanup(-1);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    EXPECT_EQ(readText(directory.file("victim")), std::string(5000, 'v'));
    EXPECT_NE(modeOf(directory.file("victim")), 0666U);
}

TEST_F(Heartbeat, IsNoneInWhatIsNoSegmentAndNothingWaits) {
    ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
    registry_.notify();
    registry_.cleanup(-1);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    EXPECT_EQ(modeOf(file()), 0600U) << "what is no segment is left alone";
    ASSERT_EQ(::unlink(file().c_str()), 0);
    ASSERT_EQ(::mkdir(file().c_str(), 0700), 0);
    registry_.notify();
    registry_.cleanup(-1);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    ASSERT_EQ(::rmdir(file().c_str()), 0);
}

TEST_F(Heartbeat, LeavesNoDescriptorOpen) {
    const int next = ::dup(0);
    ::close(next);
    registry_.notify();
    (void)registry_.check(self_, 30);
    registry_.cleanup(-1);
    ASSERT_EQ(::truncate(file().c_str(), 3), 0);
    (void)registry_.check(self_, 30);
    registry_.cleanup(-1);
    EXPECT_EQ(platform::UniqueFd(::dup(0)).get(), next);
}

} // namespace
