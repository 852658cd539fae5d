#include "appmanager/RequestQueue.h"

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Memory.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace {

using fakes::world;
using requests::makeRequest;
using testing::ElementsAre;
using testing::IsEmpty;

/// So many requests are taken with the last of the memory.
constexpr int kShortQueue = 8;

class RequestQueueTest : public testing::Test {
protected:
    bool push(const std::string& name) { return queue_.push_back(makeRequest(1, name)); }

    void fillShortQueue() {
        for (int number = 0; number < kShortQueue; ++number) {
            EXPECT_TRUE(push("early"));
        }
    }

    /// The names of what was queued, oldest first; nothing is left.
    std::vector<std::string> taken() {
        std::vector<std::string> names;
        for (; !queue_.empty(); queue_.pop_front()) {
            names.emplace_back(queue_.front().name);
        }
        return names;
    }

    RequestQueue queue_;
};

TEST_F(RequestQueueTest, IsEmptyAtFirst) {
    EXPECT_TRUE(queue_.empty());
    EXPECT_EQ(queue_.size(), 0U);
}

TEST_F(RequestQueueTest, GivesWholeRecordsInTheirOrder) {
    reqcmd odd;
    std::memset(&odd, 0xE7, sizeof odd);
    EXPECT_TRUE(push("one"));
    EXPECT_TRUE(queue_.push_back(odd));
    EXPECT_EQ(queue_.size(), 2U);
    EXPECT_STREQ(queue_.front().name, "one");
    queue_.pop_front();
    EXPECT_EQ(std::memcmp(&queue_.front(), &odd, sizeof odd), 0);
    queue_.pop_front();
    EXPECT_TRUE(queue_.empty());
    EXPECT_EQ(queue_.size(), 0U);
}

TEST_F(RequestQueueTest, GoesOnAfterItWasEmptied) {
    EXPECT_TRUE(push("one"));
    EXPECT_THAT(taken(), ElementsAre("one"));
    EXPECT_TRUE(push("two"));
    EXPECT_TRUE(push("three"));
    EXPECT_THAT(taken(), ElementsAre("two", "three"));
}

TEST_F(RequestQueueTest, GivesItsMemoryBack) {
    {
        RequestQueue other;
        EXPECT_TRUE(other.push_back(makeRequest(1, "one")));
        EXPECT_TRUE(other.push_back(makeRequest(1, "two")));
        other.pop_front();
        EXPECT_EQ(world().liveBlocks(), 1U);
    }
    EXPECT_TRUE(push("one"));
    EXPECT_TRUE(push("two"));
    queue_.clear();
    EXPECT_EQ(world().liveBlocks(), 0U);
    EXPECT_EQ(world().foreignReleases, 0);
    EXPECT_TRUE(queue_.empty());
}

TEST_F(RequestQueueTest, RefusesWithoutMemoryAndStaysAsItWas) {
    EXPECT_TRUE(push("one"));
    world().mallocs.failNext = 1;
    EXPECT_FALSE(push("two"));
    EXPECT_EQ(queue_.size(), 1U);
    EXPECT_TRUE(push("three"));
    EXPECT_THAT(taken(), ElementsAre("one", "three"));
}

TEST_F(RequestQueueTest, RefusesTheFirstWithoutMemory) {
    world().mallocs.failNext = 1;
    EXPECT_FALSE(push("one"));
    EXPECT_TRUE(queue_.empty());
    EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(RequestQueueTest, ShortOneTakesTheLastOfTheMemory) {
    fillShortQueue();
    EXPECT_EQ(world().mallocs.calls, kShortQueue) << "one block for each and nothing else";
}

TEST_F(RequestQueueTest, LongOneLeavesTheReserve) {
    fillShortQueue();
    world().mallocs.failNext = 1; // that of the look whether it is there
    EXPECT_FALSE(push("late"));
    EXPECT_EQ(world().mallocs.calls, kShortQueue + 1) << "the reserve was not looked at";
    EXPECT_TRUE(push("later"));
    EXPECT_EQ(queue_.size(), kShortQueue + 1U);
    EXPECT_EQ(world().liveBlocks(), kShortQueue + 1U);
}

} // namespace
