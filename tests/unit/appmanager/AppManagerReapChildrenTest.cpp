#include <cerrno>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::world;
using testing::ElementsAre;

TEST(ReapChildrenTest, AsksForAnyChildWithoutBlocking) {
    AppManager::reap_children();
    EXPECT_THAT(world().calls, ElementsAre("waitpid -1 1")); // WNOHANG
}

TEST(ReapChildrenTest, ReturnsThePidOfAnExitedChild) {
    world().waitpidResults = {{55, 0, 0}};
    EXPECT_EQ(AppManager::reap_children(), 55);
}

TEST(ReapChildrenTest, KeepsTheNewErrnoAfterAnExitedChild) {
    world().waitpidResults = {{55, 0, EINTR}};
    errno = ENOENT;
    EXPECT_EQ(AppManager::reap_children(), 55);
    EXPECT_EQ(errno, EINTR);
}

/// Without an exited child errno stays as it was.
void expectNothingReaped(const fakes::WaitpidResult& result, const std::string& shown) {
    world().waitpidResults = {result};
    errno = ENOENT;
    EXPECT_EQ(AppManager::reap_children(), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(world().errorText(), shown);
}

TEST(ReapChildrenTest, NoExitedChildGivesZero) {
    expectNothingReaped({0, 0, 0}, "");
}

TEST(ReapChildrenTest, NoChildAtAllIsNotReported) {
    expectNothingReaped({-1, 0, ECHILD}, "");
}

TEST(ReapChildrenTest, AnotherFailureIsReported) {
    expectNothingReaped({-1, 0, EINTR}, "waitpid: Interrupted system call\n");
}

} // namespace
