#include "client/SegmentReader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/OpenDescriptors.h"
#include "tests/unit/client/TestSegment.h"

namespace {

using namespace client_test;
using namespace ovard_client;

constexpr std::size_t kSize = 16384;
constexpr std::size_t kHalf = kSize / 2;

using Bytes = std::vector<char>;

Bytes bytesOf(char value, std::size_t size = kSize) {
    return Bytes(size, value);
}

void noPause() {}

/// What a reading leaves alone has this content.
const Bytes kUntouched = bytesOf('?');

TEST(SegmentReader, HandsOutTheWholeSegmentAndWhenItWasWritten) {
    const TestSegment segment(kSize);
    Bytes content(kSize);
    for (std::size_t index = 0; index < kSize; ++index) {
        content[index] = static_cast<char>(index * 7 % 251);
    }
    segment.write(content.data(), kSize);
    segment.setModified(1700000000, 123999999);
    Bytes copy = kUntouched;
    int pauses = 0;
    const SegmentOutcome outcome =
        readSegment(segment.name(), copy.data(), kSize, [&] { ++pauses; });
    EXPECT_EQ(outcome.result, SegmentResult::Ok);
    EXPECT_EQ(outcome.systemError, 0);
    EXPECT_EQ(outcome.modifiedMs, 1700000000123);
    EXPECT_EQ(copy, content);
    EXPECT_EQ(pauses, 1);
}

TEST(SegmentReader, CutsATimeThatNobodyCouldReckonWith) {
    using Limits = std::numeric_limits<std::time_t>;
    for (const std::time_t time : {Limits::max(), Limits::min()}) {
        const TestSegment segment(kSize);
        segment.setModified(time, 999999999);
        Bytes copy = kUntouched;
        const SegmentOutcome outcome = readSegment(segment.name(), copy.data(), kSize, noPause);
        ASSERT_EQ(outcome.result, SegmentResult::Ok);
        // It stays on its side of all times that a clock of 32 bits has.
        EXPECT_TRUE(time > 0 ? outcome.modifiedMs >= INT32_MAX * INT64_C(1000)
                             : outcome.modifiedMs <= INT32_MIN * INT64_C(1000) + 999)
            << outcome.modifiedMs;
        EXPECT_LE(std::abs(outcome.modifiedMs), INT64_MAX / 2 + 999);
    }
}

TEST(SegmentReader, TakesTheStartOfALongerSegment) {
    const TestSegment segment(kSize + 1);
    const Bytes content = bytesOf('a', kSize + 1);
    segment.write(content.data(), content.size());
    Bytes copy = kUntouched;
    EXPECT_EQ(readSegment(segment.name(), copy.data(), kSize, noPause).result, SegmentResult::Ok);
    EXPECT_EQ(copy, bytesOf('a'));
}

TEST(SegmentReader, SaysThatThereIsNoSegment) {
    Bytes copy = kUntouched;
    const SegmentOutcome outcome = readSegment(uniqueSegmentName().c_str(), copy.data(), kSize);
    EXPECT_EQ(outcome.result, SegmentResult::NoSegment);
    EXPECT_EQ(outcome.systemError, ENOENT);
    EXPECT_EQ(copy, kUntouched);
}

TEST(SegmentReader, SaysThatTheSegmentIsTooShort) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kSize - 1}) {
        const TestSegment segment(size);
        Bytes copy = kUntouched;
        const SegmentOutcome outcome = readSegment(segment.name(), copy.data(), kSize, noPause);
        EXPECT_EQ(outcome.result, SegmentResult::TooShort);
        EXPECT_EQ(outcome.modifiedMs, 0);
        EXPECT_EQ(copy, kUntouched);
    }
}

TEST(SegmentReader, SurvivesASegmentThatIsShortenedBetweenTwoCopies) {
    const TestSegment segment(kSize);
    Bytes copy = kUntouched;
    const SegmentOutcome outcome =
        readSegment(segment.name(), copy.data(), kSize, [&] { segment.resize(100); });
    EXPECT_EQ(outcome.result, SegmentResult::TooShort);
    EXPECT_EQ(copy, kUntouched);
}

TEST(SegmentReader, ReadsOnWhereTheSegmentIsRemovedBetweenTwoCopies) {
    const TestSegment segment(kSize);
    const Bytes content = bytesOf('a');
    segment.write(content.data(), kSize);
    Bytes copy = kUntouched;
    const SegmentOutcome outcome =
        readSegment(segment.name(), copy.data(), kSize, [&] { segment.remove(); });
    EXPECT_EQ(outcome.result, SegmentResult::Ok);
    EXPECT_EQ(copy, content);
    EXPECT_EQ(readSegment(segment.name(), copy.data(), kSize).result, SegmentResult::NoSegment);
}

TEST(SegmentReader, DoesNotHandOutAHalfWrittenCycle) {
    const TestSegment segment(kSize);
    const Bytes before = bytesOf('a');
    const Bytes after = bytesOf('b');
    segment.write(before.data(), kHalf);
    Bytes copy = kUntouched;
    int pauses = 0;
    // The first copy has the first half alone.
    const SegmentOutcome outcome = readSegment(segment.name(), copy.data(), kSize, [&] {
        ++pauses;
        if (pauses == 1) {
            segment.write(before.data(), kHalf, kHalf);
        } else if (pauses == 2) {
            segment.write(after.data(), kHalf);
        } else if (pauses == 3) {
            segment.write(after.data(), kHalf, kHalf);
        }
    });
    EXPECT_EQ(outcome.result, SegmentResult::Ok);
    EXPECT_EQ(copy, after);
    EXPECT_EQ(pauses, 4);
}

TEST(SegmentReader, NoticesAChangeOfTheLastByteAlone) {
    const TestSegment segment(kSize);
    Bytes copy = kUntouched;
    int pauses = 0;
    (void)readSegment(segment.name(), copy.data(), kSize, [&] {
        if (++pauses == 1) {
            segment.write("x", 1, kSize - 1);
        }
    });
    EXPECT_EQ(pauses, 2);
    EXPECT_EQ(copy.back(), 'x');
}

TEST(SegmentReader, GivesUpOnASegmentThatKeepsChanging) {
    const TestSegment segment(kSize);
    Bytes copy = kUntouched;
    int pauses = 0;
    const SegmentOutcome outcome = readSegment(segment.name(), copy.data(), kSize, [&] {
        ++pauses;
        segment.write(&pauses, sizeof pauses, kHalf);
    });
    EXPECT_EQ(outcome.result, SegmentResult::KeptChanging);
    EXPECT_EQ(outcome.systemError, 0);
    EXPECT_EQ(outcome.modifiedMs, 0);
    EXPECT_EQ(copy, kUntouched);
    EXPECT_EQ(pauses, 39);
}

TEST(SegmentReader, TakesTheLastTwoOfItsCopies) {
    const TestSegment segment(kSize);
    Bytes copy = kUntouched;
    int pauses = 0;
    const SegmentOutcome outcome = readSegment(segment.name(), copy.data(), kSize, [&] {
        if (++pauses < 39) {
            segment.write(&pauses, sizeof pauses, 0);
        }
    });
    EXPECT_EQ(outcome.result, SegmentResult::Ok);
    EXPECT_EQ(pauses, 39);
}

TEST(SegmentReader, HandsOutWholeCyclesOfAWriterThatNeverWaits) {
    const TestSegment segment(kSize);
    const Bytes first = bytesOf(0);
    segment.write(first.data(), kSize);
    std::atomic<bool> isOver{false};
    std::thread writer([&] {
        for (char value = 1; !isOver; value = static_cast<char>((value + 1) % 100)) {
            const Bytes cycle = bytesOf(value);
            segment.write(cycle.data(), kSize);
            std::this_thread::sleep_for(std::chrono::milliseconds(value % 8 == 0 ? 120 : 1));
        }
    });
    int whole = 0;
    for (int reading = 0; reading < 10; ++reading) {
        Bytes copy = kUntouched;
        // Longer than any hold-up of the writer by other programs on the machine.
        const SegmentOutcome outcome = readSegment(segment.name(), copy.data(), kSize, [] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        });
        if (outcome.result == SegmentResult::Ok) {
            ++whole;
            EXPECT_EQ(copy, bytesOf(copy.front()));
        } else {
            EXPECT_EQ(outcome.result, SegmentResult::KeptChanging);
            EXPECT_EQ(copy, kUntouched);
        }
    }
    isOver = true;
    writer.join();
    EXPECT_GT(whole, 0);
}

TEST(SegmentReader, RefusesWhatIsNoSegment) {
    char byte = '?';
    EXPECT_EQ(readSegment(nullptr, &byte, 1).systemError, EINVAL);
    EXPECT_EQ(readSegment("/x", nullptr, 1).systemError, EINVAL);
    const SegmentOutcome outcome = readSegment("/a/b", &byte, 1);
    EXPECT_EQ(outcome.result, SegmentResult::SystemError);
    EXPECT_EQ(byte, '?');
}

TEST(SegmentReader, IsNotHeldUpByAPipeNorMisledByALinkOrAFolder) {
    const std::string name = uniqueSegmentName();
    const std::string path = "/dev/shm" + name;
    char byte = '?';
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(readSegment(name.c_str(), &byte, 1).systemError, EINVAL);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::symlink("/etc/passwd", path.c_str()), 0);
    EXPECT_EQ(readSegment(name.c_str(), &byte, 1).result, SegmentResult::SystemError);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(readSegment(name.c_str(), &byte, 1).result, SegmentResult::SystemError);
    ASSERT_EQ(::rmdir(path.c_str()), 0);
    EXPECT_EQ(byte, '?');
}

TEST(SegmentReader, LeavesNoDescriptorOpen) {
    const TestSegment segment(kSize);
    const std::size_t before = openDescriptors().size();
    Bytes copy = kUntouched;
    for (const std::size_t size : {kSize, kSize + 1}) {
        copy.resize(size);
        (void)readSegment(segment.name(), copy.data(), size, noPause);
    }
    EXPECT_EQ(openDescriptors().size(), before);
}

TEST(SegmentReader, WaitsFiveMillisecondsBetweenCopies) {
    const auto start = std::chrono::steady_clock::now();
    pauseBetweenCopies();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5));
}

TEST(SegmentReader, RefusesNullRecords) {
    EXPECT_EQ(readSystemSegment(nullptr).systemError, EINVAL);
    EXPECT_EQ(readApplicationSegment(nullptr).systemError, EINVAL);
}

} // namespace
