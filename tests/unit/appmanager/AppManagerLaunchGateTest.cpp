#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Text.h"
#include "platform/UniqueFd.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/LaunchFixture.h"

namespace launches {
namespace {

using platform::UniqueFd;

/// A real pipe as the gate, so that its end can be seen to be closed.
class ObservedGateTest : public LaunchTest {
protected:
    void openPipe(UniqueFd& writeEnd) {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        observer_.reset(ends[0]);
        writeEnd.reset(ends[1]);
    }

    /// True when the launched process would go on.
    bool gateIsOpen() const {
        char byte = 0;
        return ::read(observer_.get(), &byte, 1) == 0;
    }

    UniqueFd observer_;
};

// --- waitForDaemonization ------------------------------------------------------------------------

class GateTest : public ObservedGateTest {
protected:
    void SetUp() override {
        LaunchTest::SetUp();
        app_.pid = kLaunched;
        openPipe(gate_);
    }

    UniqueFd gate_;
};

TEST_F(GateTest, OpensBeforeTheProcessIsFollowed) {
    addLaunched();
    EXPECT_FALSE(gateIsOpen());
    world().onSleep = [this](int) {
        EXPECT_TRUE(gateIsOpen());
        world().terminationIsPending = true;
    };
    (void)manager_.waitForDaemonization(app_, &gate_);
    EXPECT_EQ(world().count("sleep"), 1U);
    EXPECT_FALSE(gate_.valid());
}

TEST_F(GateTest, IsClosedWhileTheFactsAreRead) {
    addLaunched();
    int looks = 0;
    world().onFacts = [&](pid_t pid) {
        ++looks;
        EXPECT_EQ(pid, kLaunched);
        EXPECT_FALSE(gateIsOpen());
    };
    world().onSleep = [](int) { world().terminationIsPending = true; };
    (void)manager_.waitForDaemonization(app_, &gate_);
    EXPECT_EQ(looks, 1);
    EXPECT_TRUE(gateIsOpen());
}

// --- start_process_fork2 -------------------------------------------------------------------------

/// The gate is at numbers that the fakes hand out.
class LaunchGateTest : public ObservedGateTest {
protected:
    static constexpr int kGateRead = 900;
    static constexpr int kGateWrite = 901;

    void SetUp() override {
        LaunchTest::SetUp();
        UniqueFd writeEnd;
        openPipe(writeEnd);
        ASSERT_EQ(::fcntl(observer_.get(), F_DUPFD_CLOEXEC, kGateRead), kGateRead);
        ASSERT_EQ(::fcntl(writeEnd.get(), F_DUPFD_CLOEXEC, kGateWrite), kGateWrite);
        world().nextDescriptor = kGateRead;
    }
};

TEST_F(LaunchGateTest, StaysClosedUntilTheFactsWereRead) {
    scriptGoodLaunch();
    int looks = 0;
    world().onFacts = [&](pid_t pid) {
        if (pid == kLaunched) {
            ++looks;
            EXPECT_FALSE(gateIsOpen());
            world().onFacts = nullptr;
        }
    };
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_EQ(looks, 1);
    EXPECT_TRUE(gateIsOpen());
}

TEST_F(LaunchGateTest, OpensWhenTheLaunchedProcessHasNoFacts) {
    world().scriptLaunch(kChild, kLaunched);
    EXPECT_FALSE(gateIsOpen());
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_TRUE(gateIsOpen());
}

TEST_F(LaunchGateTest, OpensWhenTheCommandHasNoWords) {
    platform::copyToField(app_.cmd, " \t ");
    scriptForegroundLaunch();
    EXPECT_EQ(manager_.start_process_fork2(app_), kLaunched);
    EXPECT_TRUE(gateIsOpen());
}

TEST_F(LaunchGateTest, OpensWhenThePidCouldNotBeRead) {
    world().forkResults = {{kChild, 0}};
    world().reads = {{"", EIO}};
    EXPECT_EQ(manager_.start_process_fork2(app_), -10);
    EXPECT_TRUE(gateIsOpen());
}

} // namespace
} // namespace launches
