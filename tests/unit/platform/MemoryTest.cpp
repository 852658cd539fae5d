#include "platform/Memory.h"

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

namespace {

using Block = std::unique_ptr<void, void (*)(void*)>;

TEST(Memory, GivesABlockThatCanBeWritten) {
    const Block block(platform::allocateMemory(80), platform::releaseMemory);
    ASSERT_NE(block, nullptr);
    std::memset(block.get(), 1, 80);
}

TEST(Memory, GrowsABlockWithItsContents) {
    Block block(platform::allocateMemory(4), platform::releaseMemory);
    ASSERT_NE(block, nullptr);
    std::memcpy(block.get(), "abcd", 4);
    void* const grown = platform::reallocateMemory(block.get(), 4096);
    ASSERT_NE(grown, nullptr);
    (void)block.release();
    block.reset(grown);
    EXPECT_EQ(std::memcmp(grown, "abcd", 4), 0);
    std::memset(grown, 2, 4096);
}

TEST(Memory, CopiesAText) {
    const char text[] = "one two";
    const Block copy(platform::duplicateText(text), platform::releaseMemory);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy.get(), static_cast<const void*>(text));
    EXPECT_STREQ(static_cast<const char*>(copy.get()), "one two");
}

TEST(Memory, IsLeftForWhatFits) {
    EXPECT_TRUE(platform::memoryIsLeft(0));
    EXPECT_TRUE(platform::memoryIsLeft(1048576));
}

TEST(Memory, ReleasesNothing) {
    platform::releaseMemory(nullptr);
}

} // namespace
