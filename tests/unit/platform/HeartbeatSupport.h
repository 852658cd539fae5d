// What the tests of the heartbeat registry share.

#ifndef OVARD_TESTS_PLATFORM_HEARTBEAT_SUPPORT_H
#define OVARD_TESTS_PLATFORM_HEARTBEAT_SUPPORT_H

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Process.h"
#include "platform/Time.h"
#include "platform/UniqueFd.h"
#include "platform/linux/HeartbeatRegistry.h"

namespace heartbeattest {

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

inline std::uint32_t nowMs() {
    return static_cast<std::uint32_t>(platform::monotonicMilliseconds());
}

inline std::uint32_t startTimeOf(int pid) {
    statstruct_proc info = {};
    EXPECT_EQ(get_proc_info_by_pid(pid, &info), 0);
    return static_cast<std::uint32_t>(info.starttime);
}

/// A registry in a segment of its own, of which the tests see and write the plain bytes.
class Heartbeat : public testing::Test {
protected:
    ~Heartbeat() override { ::shm_unlink(name_.c_str()); }

    std::string file() const { return "/dev/shm" + name_; }

    std::string bytes() const { return testsupport::readText(file()); }

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
    platform::HeartbeatRegistry registry_{name_.c_str()};
};

} // namespace heartbeattest

#endif // OVARD_TESTS_PLATFORM_HEARTBEAT_SUPPORT_H
