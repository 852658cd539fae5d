#include "platform/ShmUpdate.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "tests/unit/OpenDescriptors.h"

namespace {

using namespace std::string_literals;
using namespace testsupport;

constexpr int kFlags = 66; // read-write and create
constexpr int kMode = 438; // read and write for everybody
constexpr std::size_t kSize = 4096;

/// A segment with a name of its own, removed with whatever stands in its place.
class ShmUpdateTest : public testing::Test {
protected:
    ShmUpdateTest() { removeTree(path_); }
    ~ShmUpdateTest() override {
        removeTree(path_);
        removeTree(path_ + "_target");
    }

    int open(std::size_t size = kSize) {
        return segment_.openShm(name_.c_str(), kFlags, kMode, size);
    }

    off_t fileSize() const {
        struct stat facts = {};
        return ::stat(path_.c_str(), &facts) == 0 ? facts.st_size : -1;
    }

    /// Every transfer fails, and none changes its destination.
    void expectUnreachable() {
        char bytes[8] = "-------";
        EXPECT_LT(segment_.writeData("1234567", 8), 0);
        EXPECT_LT(segment_.writeOffsetData("1234567", 8, kSize, 16), 0);
        EXPECT_LT(segment_.clearData(), 0);
        EXPECT_LT(segment_.loadData(bytes, 8), 0);
        EXPECT_LT(segment_.loadOffsetData(bytes, 8, kSize, 16), 0);
        EXPECT_STREQ(bytes, "-------");
    }

    /// Publishing works, and reaches the file that bears the name.
    void expectPublishes() {
        const std::string image(kSize, 'P');
        EXPECT_EQ(segment_.remapShm(), 0);
        EXPECT_EQ(segment_.writeData(image.data(), image.size()), 0);
        EXPECT_EQ(readText(path_), image);
        EXPECT_EQ(modeOf(path_), 0666U);
    }

    const std::string name_ = "/ovard_test_" + std::to_string(::getpid()) + "_segment";
    const std::string path_ = "/dev/shm" + name_;
    ShmUpdate segment_;
};

// --- not open ------------------------------------------------------------------------------------

TEST_F(ShmUpdateTest, NotOpenEveryCallIsNegativeAndChangesNothing) {
    expectUnreachable();
    EXPECT_LT(segment_.remapShm(), 0);
    EXPECT_LT(segment_.closeShm(), 0);
    EXPECT_FALSE(exists(path_));
}

TEST_F(ShmUpdateTest, AfterTheCloseItIsNotOpen) {
    open();
    EXPECT_EQ(segment_.closeShm(), 0);
    expectUnreachable();
    EXPECT_LT(segment_.remapShm(), 0);
    EXPECT_LT(segment_.closeShm(), 0);
    EXPECT_EQ(readText(path_), std::string(kSize, '\0'));
}

// --- opening -------------------------------------------------------------------------------------

TEST_F(ShmUpdateTest, CreatesTheSegmentInItsSizeFullOfZeros) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(readText(path_), std::string(4096, '\0'));
}

TEST_F(ShmUpdateTest, CreatesTheLargerSegmentToo) {
    EXPECT_EQ(open(16384), 0);
    EXPECT_EQ(fileSize(), 16384);
}

TEST_F(ShmUpdateTest, ModeHoldsWhateverTheUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        const UmaskGuard guard(mask);
        EXPECT_EQ(open(), 0);
        EXPECT_EQ(modeOf(path_), 0666U) << mask;
        segment_.closeShm();
        removeTree(path_);
    }
}

TEST_F(ShmUpdateTest, OpeningLeavesTheUmask) {
    const UmaskGuard guard(0027);
    open();
    EXPECT_EQ(::umask(0027), 0027U);
}

TEST_F(ShmUpdateTest, AnExistingSegmentKeepsItsContentAndGetsTheMode) {
    const std::string content(kSize, 'k');
    writeText(path_, content);
    ::chmod(path_.c_str(), 0600);
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(readText(path_), content);
    EXPECT_EQ(modeOf(path_), 0666U);
}

TEST_F(ShmUpdateTest, AShorterSegmentGrowsAndALongerOneStays) {
    writeText(path_, "short");
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(readText(path_), "short" + std::string(4091, '\0'));
    writeText(path_, std::string(5000, 'l'));
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(readText(path_), std::string(5000, 'l'));
}

TEST_F(ShmUpdateTest, WithoutTheCreateFlagNothingIsCreated) {
    EXPECT_LT(segment_.openShm(name_.c_str(), O_RDWR, kMode, kSize), 0);
    EXPECT_FALSE(exists(path_));
    expectUnreachable();
}

TEST_F(ShmUpdateTest, ClosesOnExec) {
    const std::vector<int> before = openDescriptors();
    open();
    int added = 0;
    for (const int fd : openDescriptors()) {
        if (std::find(before.begin(), before.end(), fd) == before.end()) {
            EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
            ++added;
        }
    }
    EXPECT_LE(added, 1);
}

// --- transfers -----------------------------------------------------------------------------------

TEST_F(ShmUpdateTest, WritesAWholeImage) {
    std::string image;
    for (std::size_t index = 0; index < kSize; ++index) {
        image += static_cast<char>(index * 7);
    }
    open();
    EXPECT_EQ(segment_.writeData(image.data(), image.size()), 0);
    EXPECT_EQ(readText(path_), image);
    std::string loaded(kSize, '-');
    EXPECT_EQ(segment_.loadData(loaded.data(), loaded.size()), 0);
    EXPECT_EQ(loaded, image);
}

TEST_F(ShmUpdateTest, WritesAndLoadsAtAnOffset) {
    open(16384);
    EXPECT_EQ(segment_.writeOffsetData("abcd", 4, 16384, 112), 0);
    EXPECT_EQ(readText(path_).substr(110, 8), "\0\0abcd\0\0"s);
    char bytes[8] = "-------";
    EXPECT_EQ(segment_.loadOffsetData(bytes, 4, 16384, 112), 0);
    EXPECT_STREQ(bytes, "abcd---");
    EXPECT_EQ(segment_.writeOffsetData("xy", 2, 16384, 16382), 0);
    EXPECT_EQ(fileSize(), 16384);
}

TEST_F(ShmUpdateTest, SeesWhatOthersWrite) {
    open();
    writeText(path_, std::string(kSize, 'o'));
    char bytes[4] = {};
    EXPECT_EQ(segment_.loadData(bytes, 3), 0);
    EXPECT_STREQ(bytes, "ooo");
}

TEST_F(ShmUpdateTest, RangesOutsideTheSegmentAreRefused) {
    open();
    char bytes[8] = "-------";
    for (const std::size_t offset : {std::size_t{4093}, kSize, kSize + 1, std::size_t{SIZE_MAX}}) {
        EXPECT_LT(segment_.writeOffsetData("abcd", 4, kSize, offset), 0) << offset;
        EXPECT_LT(segment_.loadOffsetData(bytes, 4, kSize, offset), 0) << offset;
    }
    EXPECT_LT(segment_.loadOffsetData(bytes, SIZE_MAX, kSize, 4), 0);
    EXPECT_STREQ(bytes, "-------");
    EXPECT_EQ(readText(path_), std::string(kSize, '\0'));
}

TEST_F(ShmUpdateTest, ClearsTheWholeSegment) {
    writeText(path_, std::string(kSize, 'x'));
    open();
    EXPECT_EQ(segment_.clearData(), 0);
    EXPECT_EQ(readText(path_), std::string(kSize, '\0'));
}

// --- other programs ------------------------------------------------------------------------------

TEST_F(ShmUpdateTest, LoadsBeyondAShortenedEndLeaveTheDestination) {
    open();
    ASSERT_EQ(::truncate(path_.c_str(), 100), 0);
    std::string image(kSize, '-');
    EXPECT_LT(segment_.loadData(image.data(), image.size()), 0);
    EXPECT_EQ(image, std::string(kSize, '-'));
    char bytes[8] = "-------";
    EXPECT_LT(segment_.loadOffsetData(bytes, 4, kSize, 98), 0); // half of it is there
    EXPECT_LT(segment_.loadOffsetData(bytes, 4, kSize, 100), 0);
    EXPECT_LT(segment_.loadOffsetData(bytes, 4, kSize, 2000), 0);
    EXPECT_STREQ(bytes, "-------");
    EXPECT_EQ(segment_.loadOffsetData(bytes, 4, kSize, 96), 0);
}

TEST_F(ShmUpdateTest, AShortenedSegmentGrowsAgain) {
    open();
    ASSERT_EQ(::truncate(path_.c_str(), 0), 0);
    EXPECT_EQ(segment_.remapShm(), 0);
    EXPECT_EQ(fileSize(), 4096);
    ASSERT_EQ(::truncate(path_.c_str(), 1000), 0);
    expectPublishes();
}

TEST_F(ShmUpdateTest, ClearingAShortenedSegmentHarmsNobody) {
    open();
    ASSERT_EQ(::truncate(path_.c_str(), 10), 0);
    (void)segment_.clearData();
    expectPublishes();
}

TEST_F(ShmUpdateTest, ARemovedSegmentIsCreatedAgain) {
    open();
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    const UmaskGuard guard(0077);
    expectPublishes();
}

TEST_F(ShmUpdateTest, AReplacedSegmentIsFollowed) {
    open();
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    writeText(path_, "new file");
    ::chmod(path_.c_str(), 0600);
    EXPECT_EQ(segment_.remapShm(), 0);
    char bytes[9] = {};
    EXPECT_EQ(segment_.loadData(bytes, 8), 0);
    EXPECT_STREQ(bytes, "new file");
    expectPublishes();
}

TEST_F(ShmUpdateTest, ADirectoryInItsPlaceFailsUntilItIsGone) {
    open();
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
    EXPECT_LT(segment_.remapShm(), 0);
    EXPECT_EQ(errno, EINVAL);
    expectUnreachable();
    EXPECT_LT(segment_.remapShm(), 0);
    ASSERT_EQ(::rmdir(path_.c_str()), 0);
    expectPublishes();
}

TEST_F(ShmUpdateTest, ALinkInItsPlaceFailsAndItsTargetIsSafe) {
    open();
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    const std::string target = path_ + "_target";
    writeText(target, "precious");
    ::chmod(target.c_str(), 0600);
    ASSERT_EQ(::symlink(target.c_str(), path_.c_str()), 0);
    EXPECT_LT(segment_.remapShm(), 0);
    expectUnreachable();
    EXPECT_EQ(readText(target), "precious");
    EXPECT_EQ(modeOf(target), 0600U);
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    expectPublishes();
}

TEST_F(ShmUpdateTest, AFifoInItsPlaceFailsWithoutWaiting) {
    open();
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_LT(segment_.remapShm(), 0);
    EXPECT_EQ(errno, EINVAL);
    expectUnreachable();
    EXPECT_EQ(modeOf(path_), 0600U);
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    expectPublishes();
}

TEST_F(ShmUpdateTest, AFailedOpenIsMadeUpForByRemapping) {
    ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
    EXPECT_LT(open(), 0);
    expectUnreachable();
    ASSERT_EQ(::rmdir(path_.c_str()), 0);
    expectPublishes();
}

// --- descriptors ---------------------------------------------------------------------------------

TEST_F(ShmUpdateTest, DescriptorsDoNotLeak) {
    const std::size_t before = openDescriptors().size();
    {
        ShmUpdate segment;
        for (int round = 0; round < 50; ++round) {
            segment.openShm(name_.c_str(), kFlags, kMode, kSize);
            segment.remapShm();
            segment.clearData();
            EXPECT_LE(openDescriptors().size(), before + 1);
        }
        removeTree(path_);
        ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
        for (int round = 0; round < 50; ++round) {
            segment.remapShm();
        }
        ASSERT_EQ(::rmdir(path_.c_str()), 0);
        ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
        for (int round = 0; round < 50; ++round) {
            segment.remapShm();
        }
        EXPECT_EQ(openDescriptors().size(), before);
        removeTree(path_);
        segment.remapShm();
    }
    EXPECT_EQ(openDescriptors().size(), before);
}

TEST_F(ShmUpdateTest, OpeningAgainGoesToTheOtherSegment) {
    open();
    const std::string other = name_ + "_target";
    EXPECT_EQ(segment_.openShm(other.c_str(), kFlags, kMode, 16384), 0);
    EXPECT_EQ(segment_.writeData("other", 5), 0);
    EXPECT_EQ(readText(path_ + "_target").substr(0, 5), "other");
    EXPECT_EQ(readText(path_), std::string(kSize, '\0'));
}

TEST_F(ShmUpdateTest, ClosingLeavesTheSegment) {
    open();
    segment_.writeData("stays", 5);
    segment_.closeShm();
    EXPECT_EQ(readText(path_).substr(0, 5), "stays");
    {
        ShmUpdate another;
        EXPECT_EQ(another.openShm(name_.c_str(), kFlags, kMode, kSize), 0);
    }
    EXPECT_EQ(readText(path_).substr(0, 5), "stays");
}

TEST_F(ShmUpdateTest, TwoHandlesShareTheSegment) {
    open();
    ShmUpdate reader;
    EXPECT_EQ(reader.openShm(name_.c_str(), O_RDWR, kMode, kSize), 0);
    segment_.writeOffsetData("shared", 6, kSize, 100);
    char bytes[7] = {};
    EXPECT_EQ(reader.loadOffsetData(bytes, 6, kSize, 100), 0);
    EXPECT_STREQ(bytes, "shared");
}

} // namespace
