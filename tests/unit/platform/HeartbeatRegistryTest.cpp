#include "platform/linux/HeartbeatRegistry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Process.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"

namespace {

using namespace testsupport;
using platform::HeartbeatRegistry;

constexpr int kFresh = 1;
constexpr int kExpired = 2;
constexpr int kNone = 3;

constexpr std::uint32_t kMagic = 0x4D484254;
constexpr std::size_t kSlots = 256;
constexpr std::size_t kWordsPerSlot = 4;
constexpr std::size_t kHeaderWords = 4;
constexpr std::size_t kWords = kHeaderWords + kSlots * kWordsPerSlot;
constexpr off_t kSegmentSize = kWords * 4;

/// One slot as it lies in the segment.
struct Slot {
    std::int32_t pid;
    std::uint32_t startTime;
    std::uint32_t lastBeat;
    std::uint32_t reserved;
};

std::uint32_t nowMs() {
    return static_cast<std::uint32_t>(platform::monotonicMilliseconds());
}

std::uint32_t startTimeOf(int pid) {
    statstruct_proc info = {};
    EXPECT_EQ(get_proc_info_by_pid(pid, &info), 0);
    return static_cast<std::uint32_t>(info.starttime);
}

/// A registry in a segment of its own, of which the tests see and write the plain bytes.
class Heartbeat : public testing::Test {
protected:
    ~Heartbeat() override { ::shm_unlink(name_.c_str()); }

    std::string file() const { return "/dev/shm" + name_; }

    std::string bytes() const { return readText(file()); }

    std::uint32_t word(std::size_t index) const {
        std::uint32_t value = 0;
        const std::string all = bytes();
        EXPECT_GE(all.size(), (index + 1) * sizeof value);
        std::memcpy(&value, all.data() + index * sizeof value, sizeof value);
        return value;
    }

    Slot slot(std::size_t index) const {
        Slot value = {};
        std::memcpy(&value, bytes().data() + 16 + index * sizeof value, sizeof value);
        return value;
    }

    void writeSlot(std::size_t index, const Slot& value) const {
        const platform::UniqueFd segment(::open(file().c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(::pwrite(segment.get(), &value, sizeof value,
                           static_cast<off_t>(16 + index * sizeof value)),
                  static_cast<ssize_t>(sizeof value));
    }

    void writeWord(std::size_t index, std::uint32_t value) const {
        const platform::UniqueFd segment(::open(file().c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(
            ::pwrite(segment.get(), &value, sizeof value, static_cast<off_t>(index * sizeof value)),
            static_cast<ssize_t>(sizeof value));
    }

    /// How many slots hold `pid`.
    int slotsOf(std::int32_t pid) const {
        int count = 0;
        for (std::size_t index = 0; index < kSlots; ++index) {
            count += slot(index).pid == pid ? 1 : 0;
        }
        return count;
    }

    /// Fills every slot with a live process (this test's own parent of all, pid 1) or `pid`.
    void fillTable(int pid, std::uint32_t startTime) const {
        for (std::size_t index = 0; index < kSlots; ++index) {
            writeSlot(index, {pid, startTime, nowMs(), 0});
        }
    }

    const int self_ = ::getpid();
    std::string name_ = "/ovard-heartbeat-test-" + std::to_string(::getpid());
    HeartbeatRegistry registry_{name_.c_str()};
};

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

TEST_F(Heartbeat, LaysTheSegmentOut) {
    const std::uint32_t before = nowMs();
    registry_.notify();
    const std::uint32_t after = nowMs();
    EXPECT_EQ(bytes().size(), static_cast<std::size_t>(kSegmentSize));
    EXPECT_EQ(word(0), kMagic);
    EXPECT_EQ(word(1), kSlots);
    EXPECT_EQ(word(2), 0U);
    EXPECT_EQ(word(3), 0U);
    EXPECT_EQ(slot(0).pid, self_);
    EXPECT_EQ(slot(0).startTime, startTimeOf(self_));
    EXPECT_LE(slot(0).lastBeat - before, after - before);
    EXPECT_EQ(slot(0).reserved, 0U);
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
    registry_.notify();
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

// --- damaged segments ---

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
