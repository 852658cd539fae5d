#include "platform/linux/HeartbeatRegistry.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HeartbeatSupport.h"
#include "TestSupport.h"
#include "tests/unit/records/GoldenImage.h"

namespace {

using namespace heartbeattest;
using namespace testsupport;

TEST_F(Heartbeat, IsNoneBeforeTheFirstBeat) {
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    EXPECT_FALSE(exists(file())) << "a check creates nothing";
    registry_.cleanup(-1);
    EXPECT_FALSE(exists(file()));
}

TEST_F(Heartbeat, IsFreshAfterABeat) {
    registry_.notify();
    EXPECT_EQ(registry_.check(self_, 30), kFresh);
    EXPECT_EQ(registry_.check(self_ + 1, 30), kNone);
}

constexpr const char* kHeader = R"image(
       0 number    4  4D 48 42 54   # magic
       4 number    4  00 00 01 00   # slots: 256
       8 number    4  00 00 00 00   # reserved
      12 number    4  00 00 00 00   # reserved
)image";

/// A number in such an image.
std::string imageLine(std::size_t offset, std::uint32_t number) {
    char line[64];
    (void)std::snprintf(line, sizeof line, "%zu number 4 %02X %02X %02X %02X\n", offset,
                        number >> 24, number >> 16 & 0xff, number >> 8 & 0xff, number & 0xff);
    return line;
}

TEST_F(Heartbeat, LaysTheSegmentOut) {
    const std::uint32_t before = nowMs();
    registry_.notify();
    const std::uint32_t after = nowMs();
    EXPECT_EQ(bytes().size(), static_cast<std::size_t>(kSegmentSize));
    const std::uint32_t beat = slot(0).lastBeat;
    EXPECT_LE(beat - before, after - before);
    const std::string firstSlot = imageLine(16, static_cast<std::uint32_t>(self_)) +
                                  imageLine(20, startTimeOf(self_)) + imageLine(24, beat) +
                                  imageLine(28, 0);
    EXPECT_EQ(bytes().substr(0, 32), recordstest::goldenImage(kHeader + firstSlot));
    EXPECT_EQ(bytes().substr(32), std::string(kSegmentSize - 32, '\0'));
}

TEST_F(Heartbeat, SegmentIsForEverybodyUnderAnyMask) {
    const UmaskGuard mask(077);
    registry_.notify();
    EXPECT_EQ(modeOf(file()), 0666U);
    ASSERT_EQ(::chmod(file().c_str(), 0600), 0);
    registry_.notify();
    EXPECT_EQ(modeOf(file()), 0666U);
}

TEST_F(Heartbeat, RefreshesItsOwnSlot) {
    registry_.notify();
    Slot old = slot(0);
    old.lastBeat = nowMs() - 10000;
    writeSlot(0, old);
    EXPECT_EQ(registry_.check(self_, 5), kExpired);
    registry_.notify();
    EXPECT_EQ(registry_.check(self_, 5), kFresh);
    EXPECT_EQ(slotsOf(self_), 1);
}

TEST_F(Heartbeat, ExpiresAfterItsTime) {
    registry_.notify();
    const Slot mine = slot(0);
    const auto checkAt = [&](std::uint32_t ageMs, int expireSeconds) {
        writeSlot(0, {mine.pid, mine.startTime, nowMs() - ageMs, 0});
        return registry_.check(self_, expireSeconds);
    };
    EXPECT_EQ(checkAt(29000, 30), kFresh);
    EXPECT_EQ(checkAt(30001, 30), kExpired);
    EXPECT_EQ(checkAt(86400U * 1000 + 1, 86400), kExpired);
    EXPECT_EQ(checkAt(86400U * 1000 - 5000, 86400), kFresh);
    EXPECT_EQ(checkAt(0xFFFF0000, 30), kExpired) << "almost all of the clock's range";
    EXPECT_EQ(checkAt(0xFFFF0000, 2147483647), kFresh) << "no overflow";
    EXPECT_EQ(checkAt(10, 0), kExpired);
    EXPECT_EQ(checkAt(10, -1), kExpired);
}

TEST_F(Heartbeat, OfAnEarlierProcessWithTheSamePidIsNone) {
    registry_.notify();
    Slot earlier = slot(0);
    ++earlier.startTime;
    writeSlot(0, earlier);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    registry_.notify();
    EXPECT_EQ(registry_.check(self_, 30), kFresh) << "the slot is taken over";
    EXPECT_EQ(slotsOf(self_), 1);
}

TEST_F(Heartbeat, OfAnUnknownStartTimeCounts) {
    registry_.notify();
    Slot unknown = slot(0);
    unknown.startTime = 0;
    writeSlot(0, unknown);
    EXPECT_EQ(registry_.check(self_, 30), kFresh);
}

TEST_F(Heartbeat, IsNoneForWhatIsNoProcess) {
    registry_.notify();
    writeSlot(1, {0, 0, nowMs(), 0});
    writeSlot(2, {-7, 0, nowMs(), 0});
    for (const int pid : {0, -1, -7}) {
        EXPECT_EQ(registry_.check(pid, 30), kNone) << pid;
    }
}

TEST_F(Heartbeat, OfASlotThatIsBeingClaimedIsNone) {
    registry_.notify();
    writeSlot(0, {-self_, 0, nowMs(), 0});
    EXPECT_EQ(registry_.check(self_, 30), kNone);
}

TEST_F(Heartbeat, IsDroppedByItsOwner) {
    registry_.notify();
    registry_.cleanup(-1);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    EXPECT_EQ(slotsOf(self_), 0);
    registry_.cleanup(-1);
    registry_.notify();
    EXPECT_EQ(registry_.check(self_, 30), kFresh);
}

TEST_F(Heartbeat, IsDroppedForAnother) {
    registry_.notify();
    writeSlot(1, {4711, 1, nowMs(), 0});
    writeSlot(9, {4711, 2, nowMs(), 0});
    registry_.cleanup(4711);
    EXPECT_EQ(slotsOf(4711), 0);
    EXPECT_EQ(slotsOf(self_), 1);
    writeSlot(1, {-2, 1, nowMs(), 0});
    registry_.cleanup(0);
    registry_.cleanup(-2);
    EXPECT_EQ(slotsOf(-2), 1) << "no process has such a pid";
}

TEST_F(Heartbeat, OfAChildIsItsOwn) {
    registry_.notify();
    const ChildGuard child(startChild([&] {
        registry_.notify();
        ::pause();
        return 0;
    }));
    ASSERT_TRUE(eventually([&] { return registry_.check(child.pid(), 30) == kFresh; }));
    EXPECT_EQ(registry_.check(self_, 30), kFresh);
    EXPECT_EQ(slotsOf(self_), 1);
    EXPECT_EQ(slotsOf(child.pid()), 1);
}

// --- a full table ---

TEST_F(Heartbeat, TakesTheSlotOfADeadProcessWhenTheTableIsFull) {
    registry_.notify();
    registry_.cleanup(-1);
    const pid_t dead = startChild([] { return 0; });
    ASSERT_EQ(awaitChild(dead), 0);
    const ChildGuard alive(startChild([] {
        ::pause();
        return 0;
    }));
    fillTable(alive.pid(), startTimeOf(alive.pid()));
    writeSlot(200, {dead, 5, nowMs(), 0});
    registry_.notify();
    EXPECT_EQ(slot(200).pid, self_);
    EXPECT_EQ(slot(200).startTime, startTimeOf(self_));
    EXPECT_EQ(registry_.check(self_, 30), kFresh);
    EXPECT_EQ(slotsOf(alive.pid()), static_cast<int>(kSlots) - 1);
}

TEST_F(Heartbeat, TakesTheSlotOfAnEarlierProcessWhosePidLivesOn) {
    registry_.notify();
    registry_.cleanup(-1);
    const ChildGuard alive(startChild([] {
        ::pause();
        return 0;
    }));
    fillTable(alive.pid(), startTimeOf(alive.pid()));
    writeSlot(17, {alive.pid(), startTimeOf(alive.pid()) + 1, nowMs(), 0});
    registry_.notify();
    EXPECT_EQ(slot(17).pid, self_);
}

TEST_F(Heartbeat, TakesTheSlotOfAProcessThatDiedInTheMiddleOfAClaim) {
    registry_.notify();
    registry_.cleanup(-1);
    const pid_t dead = startChild([] { return 0; });
    ASSERT_EQ(awaitChild(dead), 0);
    const ChildGuard alive(startChild([] {
        ::pause();
        return 0;
    }));
    fillTable(alive.pid(), startTimeOf(alive.pid()));
    writeSlot(3, {-alive.pid(), 0, 0, 0});
    writeSlot(99, {-dead, 0, 0, 0});
    registry_.notify();
    EXPECT_EQ(slot(3).pid, -alive.pid()) << "a live process may be in the middle of its claim";
    EXPECT_EQ(slot(99).pid, self_);
}

TEST_F(Heartbeat, TakesNothingFromTheLiving) {
    registry_.notify();
    registry_.cleanup(-1);
    const ChildGuard alive(startChild([] {
        ::pause();
        return 0;
    }));
    fillTable(alive.pid(), startTimeOf(alive.pid()));
    errno = 0;
    registry_.notify();
    EXPECT_EQ(errno, EUSERS);
    EXPECT_EQ(registry_.check(self_, 30), kNone);
    EXPECT_EQ(slotsOf(alive.pid()), static_cast<int>(kSlots));
}

TEST_F(Heartbeat, PrefersAFreeSlotToThatOfADeadProcess) {
    registry_.notify();
    registry_.cleanup(-1);
    const pid_t dead = startChild([] { return 0; });
    ASSERT_EQ(awaitChild(dead), 0);
    writeSlot(0, {dead, 5, nowMs(), 0});
    registry_.notify();
    EXPECT_EQ(slot(0).pid, dead);
    EXPECT_EQ(slot(1).pid, self_);
}

TEST_F(Heartbeat, OfManyProcessesAtOnceEachGetsOneSlot) {
    constexpr int kProcesses = 24;
    const Shared<std::atomic<int>> ready;
    std::vector<pid_t> children;
    for (int index = 0; index < kProcesses; ++index) {
        children.push_back(startChild([&] {
            ++*ready;
            (void)eventually([&] { return *ready >= kProcesses; });
            for (int beat = 0; beat < 20; ++beat) {
                registry_.notify();
            }
            ++*ready;
            ::pause();
            return 0;
        }));
    }
    EXPECT_TRUE(eventually([&] { return *ready == 2 * kProcesses; }));
    for (const pid_t child : children) {
        EXPECT_EQ(registry_.check(child, 30), kFresh);
        EXPECT_EQ(slotsOf(child), 1);
        ChildGuard(child).end();
    }
}

} // namespace
