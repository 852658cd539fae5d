#include "server/FaultNews.h"

#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::world;

constexpr bool kIsThere = true;
constexpr bool kIsOver = false;

constexpr int kMinuteMs = 60000;

TEST(FaultNews, NothingIsDueWhileAllIsWell) {
    FaultNews news;
    EXPECT_FALSE(news.isDue(kIsOver));
    EXPECT_FALSE(news.isDue(kIsOver));
}

TEST(FaultNews, BeginningAndEndAreDueOnce) {
    FaultNews news;
    EXPECT_TRUE(news.isDue(kIsThere));
    EXPECT_FALSE(news.isDue(kIsThere));
    world().advance(kMinuteMs);
    EXPECT_FALSE(news.isDue(kIsThere)) << "it was told";
    EXPECT_TRUE(news.isDue(kIsOver));
    EXPECT_FALSE(news.isDue(kIsOver));
}

TEST(FaultNews, NextFaultIsDueAfterAMinute) {
    FaultNews news;
    EXPECT_TRUE(news.isDue(kIsThere));
    EXPECT_TRUE(news.isDue(kIsOver));
    world().advance(kMinuteMs - 1);
    EXPECT_FALSE(news.isDue(kIsThere));
    EXPECT_FALSE(news.isDue(kIsOver)) << "its beginning was not told";
    world().advance(1);
    EXPECT_TRUE(news.isDue(kIsThere));
}

TEST(FaultNews, FaultThatComesAndGoesIsDueOnceAMinute) {
    FaultNews news;
    int told = 0;
    for (int second = 0; second < 60; ++second) {
        told += news.isDue(kIsThere) ? 1 : 0;
        told += news.isDue(kIsOver) ? 1 : 0;
        world().advance(1000);
    }
    EXPECT_EQ(told, 2);
    EXPECT_TRUE(news.isDue(kIsThere));
    EXPECT_TRUE(news.isDue(kIsOver));
}

TEST(FaultNews, UntoldFaultThatLastsIsDueAfterTheMinute) {
    FaultNews news;
    EXPECT_TRUE(news.isDue(kIsThere));
    EXPECT_TRUE(news.isDue(kIsOver));
    world().advance(kMinuteMs - 1);
    EXPECT_FALSE(news.isDue(kIsThere));
    world().advance(1);
    EXPECT_TRUE(news.isDue(kIsThere));
}

TEST(FaultNews, EndOfAToldFaultIsDueAtOnce) {
    FaultNews news;
    EXPECT_TRUE(news.isDue(kIsThere));
    EXPECT_TRUE(news.isDue(kIsOver));
    world().advance(kMinuteMs);
    EXPECT_TRUE(news.isDue(kIsThere));
    EXPECT_TRUE(news.isDue(kIsOver));
}

} // namespace
