#include "platform/TextFile.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Memory.h"

namespace {

using namespace testsupport;
using platform::readTextFile;

std::string sampleOf(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t index = 0; index < size; ++index) {
        text[index] = static_cast<char>(index * 31 + index / 4096);
    }
    return text;
}

class TextFileTest : public testing::Test {
protected:
    /// The content as it is read into `text_`.
    bool readBack(const std::string& content) {
        writeText(path_, content);
        return readTextFile(path_.c_str(), text_);
    }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.file("text");
    std::string text_ = "older text";
};

TEST_F(TextFileTest, ReadsAFile) {
    EXPECT_TRUE(readBack("one\ntwo"));
    EXPECT_EQ(text_, "one\ntwo");
}

TEST_F(TextFileTest, ReadsAnEmptyFile) {
    EXPECT_TRUE(readBack(""));
    EXPECT_EQ(text_, "");
}

TEST_F(TextFileTest, ReadsFilesOfAnySizeWhole) {
    for (const std::size_t size :
         {1U, 15U, 16U, 4095U, 4096U, 4097U, 8192U, 8193U, 100000U, 524288U, 1048575U, 1048576U}) {
        EXPECT_TRUE(readBack(sampleOf(size))) << size;
        EXPECT_EQ(text_, sampleOf(size)) << size;
    }
}

TEST_F(TextFileTest, WhatIsBeyondAMebibyteIsLeftOut) {
    for (const std::size_t size : {1048577U, 1100000U, 3000000U}) {
        EXPECT_TRUE(readBack(sampleOf(size)));
        EXPECT_EQ(text_, sampleOf(size).substr(0, 1048576)) << size;
    }
}

TEST_F(TextFileTest, TheLimitHoldsWhateverMemoryTheTextHas) {
    text_.reserve(2000000);
    EXPECT_TRUE(readBack(sampleOf(3000000)));
    EXPECT_EQ(text_.size(), 1048576U);
}

TEST_F(TextFileTest, TheLimitHoldsAtTheSecondReadingToo) {
    text_.reserve(6000);
    EXPECT_TRUE(readBack(sampleOf(3000000)));
    EXPECT_EQ(text_.size(), 1048576U);
    EXPECT_TRUE(readBack(sampleOf(3000000)));
    EXPECT_EQ(text_.size(), 1048576U);
}

TEST_F(TextFileTest, AShortTextAfterALongOneHoldsNothingOfIt) {
    EXPECT_TRUE(readBack(sampleOf(100000)));
    EXPECT_TRUE(readBack("short"));
    EXPECT_EQ(text_, "short");
}

TEST_F(TextFileTest, MemoryIsReused) {
    EXPECT_TRUE(readBack(sampleOf(3000)));
    const char* const memory = text_.data();
    for (int round = 0; round < 10; ++round) {
        EXPECT_TRUE(readBack(sampleOf(3000)));
        EXPECT_EQ(text_.data(), memory);
    }
}

TEST_F(TextFileTest, ReadsTheFilesOfProc) {
    for (const char* path : {"/proc/uptime", "/proc/loadavg", "/proc/stat", "/proc/meminfo",
                             "/proc/net/dev", "/proc/self/stat"}) {
        EXPECT_TRUE(readTextFile(path, text_)) << path;
        EXPECT_FALSE(text_.empty()) << path;
        EXPECT_EQ(text_.back(), '\n') << path;
    }
}

// --- without memory ------------------------------------------------------------------------------

/// In a process that gets no more memory from now on.
class TextFileDeathTest : public TextFileTest {
protected:
    void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "a sanitizer needs more than any limit";
#endif
    }

    static void refuseMemory() {
        const rlimit nothing = {0, 0};
        (void)::setrlimit(RLIMIT_AS, &nothing); // cannot fail downwards
        while (platform::memoryIsLeft(0)) {
            (void)platform::allocateMemory(platform::kMemoryReserve); // this process ends soon
        }
    }
};

// Its beginning would pass for the whole: a lease that has run out for the one that counts.
TEST_F(TextFileDeathTest, FileThatThereIsNoRoomForCountsAsEmpty) {
    writeText(path_, sampleOf(500000));
    text_.reserve(4096);
    EXPECT_EXIT(
        {
            refuseMemory();
            std::_Exit(readTextFile(path_.c_str(), text_) && text_.empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(TextFileDeathTest, FileThatThereIsRoomForIsReadAllTheSame) {
    writeText(path_, sampleOf(4000));
    text_.reserve(4096);
    const std::string whole = sampleOf(4000);
    EXPECT_EXIT(
        {
            refuseMemory();
            const bool read = readTextFile(path_.c_str(), text_);
            std::_Exit(read && text_ == whole ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(TextFileDeathTest, WithoutRoomForAnythingItCountsAsEmpty) {
    writeText(path_, "text");
    text_ = std::string();
    EXPECT_EXIT(
        {
            refuseMemory();
            std::_Exit(readTextFile(path_.c_str(), text_) && text_.empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(TextFileTest, FollowsALink) {
    writeText(path_, "linked");
    ASSERT_EQ(::symlink("text", directory_.file("link").c_str()), 0);
    EXPECT_TRUE(readTextFile(directory_.file("link").c_str(), text_));
    EXPECT_EQ(text_, "linked");
}

TEST_F(TextFileTest, RefusesWhatIsNoFileWithoutWaiting) {
    ASSERT_EQ(::mkfifo(directory_.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("nowhere", directory_.file("dangling").c_str()), 0);
    for (const std::string& path :
         {directory_.file("missing"), directory_.file("missing/deeper"), directory_.path(),
          directory_.file("fifo"), directory_.file("dangling"), std::string("/dev/null"),
          std::string("/dev/zero"), std::string()}) {
        EXPECT_FALSE(readTextFile(path.c_str(), text_)) << path;
    }
}

TEST_F(TextFileTest, RefusesAFifoThatHasAWriter) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const platform::UniqueFd reader(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const platform::UniqueFd writer(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::write(writer.get(), "text", 4), 4);
    EXPECT_FALSE(readTextFile(path_.c_str(), text_));
}

TEST_F(TextFileTest, FileThatCannotBeReadCountsAsEmpty) {
    text_ = "of the file before";
    // Opens as a plain file, but address 0 cannot be read.
    EXPECT_TRUE(readTextFile("/proc/self/mem", text_));
    EXPECT_EQ(text_, "");
}

TEST_F(TextFileTest, DescriptorsDoNotLeak) {
    writeText(path_, "text");
    const int before = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(before);
    for (int round = 0; round < 20; ++round) {
        (void)readTextFile(path_.c_str(), text_);
        (void)readTextFile(directory_.path().c_str(), text_);
        (void)readTextFile("/proc/self/mem", text_);
    }
    const int after = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(after);
    EXPECT_EQ(after, before);
}

} // namespace
