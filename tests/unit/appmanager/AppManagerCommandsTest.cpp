#include <cerrno>
#include <climits>
#include <cstddef>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/CommandFixture.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace commands {
namespace {

// --- what every action has in common -------------------------------------------------------------

struct ActionCase {
    int action;
    const char* line;
};

void PrintTo(const ActionCase& tested, std::ostream* out) {
    *out << tested.action;
}

class RequestLineTest : public CommandTest, public testing::WithParamInterface<ActionCase> {};

TEST_P(RequestLineTest, IsLoggedFirstAtDebugLevel) {
    addRunning(makeApp("app", 701));
    process(GetParam().action, "app", "/bin/app");
    EXPECT_EQ(logLines()[0], Line(kLevelDebug, GetParam().line));
    EXPECT_THAT(world().logTexts(kLevelDebug), SizeIs(1));
}

TEST_P(RequestLineTest, IsLoggedWithoutAReplyToo) {
    processUnanswered(GetParam().action, "app", "/bin/app");
    ASSERT_THAT(logLines(), Not(IsEmpty()));
    EXPECT_EQ(logLines()[0], Line(kLevelDebug, GetParam().line));
}

TEST_P(RequestLineTest, ActionReleasesTheRegistry) {
    addRunning(makeApp("app", 701));
    process(GetParam().action, "app", "/bin/app");
    EXPECT_FALSE(registryIsHeld());
}

TEST_P(RequestLineTest, ActionAnswersOnceTheRegistryIsReleased) {
    addRunning(makeApp("app", 701));
    int sends = 0;
    world().onSend = [&](int) {
        ++sends;
        EXPECT_FALSE(registryIsHeld());
    };
    EXPECT_EQ(process(GetParam().action, "app", "/bin/app"), 0);
    EXPECT_EQ(sends, 1);
}

TEST_P(RequestLineTest, ActionLogsItsResultOnceTheRegistryIsReleased) {
    addRunning(makeApp("app", 701));
    int results = 0;
    world().onLog = [&](int, const std::string& text) {
        if (text.find(kNowText) != std::string::npos) {
            ++results;
            EXPECT_FALSE(registryIsHeld());
        }
    };
    EXPECT_EQ(process(GetParam().action, "app", "/bin/app"), 0);
    EXPECT_EQ(results, 1);
}

TEST_P(RequestLineTest, DelayMakesNothingWait) {
    addRunning(makeApp("app", 701));
    reqcmd request = makeRequest(GetParam().action, "app", "/bin/app");
    request.delay = 3600;
    EXPECT_EQ(manager_.processCmd(request), 0);
    EXPECT_EQ(world().count("sleep"), 0U);
    EXPECT_EQ(world().now, kNow);
}

TEST_P(RequestLineTest, ActionAnswersBeforeItLogsTheResult) {
    addRunning(makeApp("app", 701));
    std::size_t lines = 0;
    world().onSend = [&](int) { lines = logLines().size(); };
    process(GetParam().action, "app", "/bin/app");
    EXPECT_EQ(logLines().size(), lines + 1);
    EXPECT_EQ(logLines().back().second + "\n", replies()[0].message);
}

TEST_P(RequestLineTest, ActionLogsItsResultThoughTheClientIsGone) {
    addRunning(makeApp("app", 701));
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    EXPECT_EQ(process(GetParam().action, "app", "/bin/app"), 0);
    EXPECT_THAT(world().logTexts(kLevelInfo).back(), HasSubstr(kNowText));
}

TEST_P(RequestLineTest, ActionWithoutAReplyLogsNoResult) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(processUnanswered(GetParam().action, "app", "/bin/app"), 0);
    expectNoReply();
    EXPECT_THAT(world().logTexts(), Each(Not(HasSubstr(kNowText))));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_P(RequestLineTest, AnyNonZeroByteMeansNotToWait) {
    addRunning(makeApp("app", 701));
    reqcmd request = makeRequest(GetParam().action, "app", "/bin/app");
    request.nowait = 0x80;
    EXPECT_EQ(manager_.processCmd(request), 0);
    expectNoReply();
}

INSTANTIATE_TEST_SUITE_P(
    Actions, RequestLineTest,
    testing::Values(ActionCase{0, "processCmd() request.action=APPMONCTL_Start app"},
                    ActionCase{1, "processCmd() request.action=APPMONCTL_Stop app"},
                    ActionCase{2, "processCmd() request.action=APPMONCTL_Stop_All"},
                    ActionCase{3, "processCmd() request.action=APPMONCTL_Stop_All_But"},
                    ActionCase{4, "processCmd() request.action=APPMONCTL_Stop_PortApps"},
                    ActionCase{5, "processCmd() request.action=APPMONCTL_Restart app"},
                    ActionCase{6, "processCmd() request.action=APPMONCTL_Restart_All"},
                    ActionCase{7, "processCmd() request.action=APPMONCTL_Restart_All_But"},
                    ActionCase{8, "processCmd() request.action=APPMONCTL_Restart_PortApps"}));

using AppManagerCommandsTest = CommandTest;

TEST_F(AppManagerCommandsTest, AnswersOnTheClientsConnectionAndClosesIt) {
    world().scriptReceive(makeRequest(APPMONCTL_Stop, "app"));
    world().acceptResults = {{200001, 0}};
    reqcmd request = {};
    ASSERT_EQ(manager_.recvCommand(request), static_cast<int>(sizeof request));
    EXPECT_EQ(manager_.processCmd(request), 0);
    EXPECT_EQ(world().sentTo(200001).size(), sizeof(response_struct));
    EXPECT_THAT(world().calls, Contains("closefd 200001"));
}

TEST_F(AppManagerCommandsTest, LeavesTheConnectionOpenWithoutAReply) {
    world().scriptReceive(unanswered(makeRequest(APPMONCTL_Stop, "app")));
    reqcmd request = {};
    ASSERT_EQ(manager_.recvCommand(request), static_cast<int>(sizeof request));
    EXPECT_EQ(manager_.processCmd(request), 0);
    EXPECT_EQ(world().count("closefd"), 0U);
}

TEST_F(AppManagerCommandsTest, FailuresAreLoggedOnceTheRegistryIsReleased) {
    int failures = 0;
    world().onLog = [&](int, const std::string& text) {
        if (text.find(" fails to ") != std::string::npos) {
            ++failures;
            EXPECT_FALSE(registryIsHeld()) << text;
        }
    };
    process(APPMONCTL_Start, "app");
    applist = {makeLostApp("app", 701)};
    process(APPMONCTL_Restart, "app");
    process(APPMONCTL_Stop, "app");
    EXPECT_EQ(failures, 3);
}

// --- whole-list actions without any application --------------------------------------------------

class EmptyRegistryTest : public CommandTest, public testing::WithParamInterface<int> {};

TEST_P(EmptyRegistryTest, AnswersThatNoAppIsRunning) {
    EXPECT_EQ(process(GetParam()), 0);
    expectAnswer(-20, "no app is running. ");
    EXPECT_THAT(logLines(), SizeIs(2));
    EXPECT_FALSE(registryIsHeld());
}

TEST_P(EmptyRegistryTest, IsSilentWithoutAReply) {
    EXPECT_EQ(processUnanswered(GetParam()), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
}

TEST_P(EmptyRegistryTest, TracesNoSize) {
    verbose = 9;
    processUnanswered(GetParam());
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(WholeListActions, EmptyRegistryTest, testing::Values(2, 3, 4, 6, 7, 8));

// --- actions that do nothing ---------------------------------------------------------------------

class ReservedActionTest : public CommandTest, public testing::WithParamInterface<int> {};

TEST_P(ReservedActionTest, IsAcceptedSilently) {
    verbose = 9;
    addRunning(makeApp("app", 701));
    EXPECT_EQ(process(GetParam(), "app", "/bin/app"), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().count("kill"), 0U);
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

INSTANTIATE_TEST_SUITE_P(Actions, ReservedActionTest, testing::Values(9, 10));

class UnknownActionTest : public CommandTest, public testing::WithParamInterface<int> {};

TEST_P(UnknownActionTest, IsLoggedAndNotAnswered) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(process(GetParam(), "app", "/bin/app"), -8);
    expectNoReply();
    EXPECT_THAT(logLines(), ElementsAre(Line(kLevelInfo, "request.action=UNKNOWN")));
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_P(UnknownActionTest, FailsAlikeWhenNobodyWaits) {
    EXPECT_EQ(processUnanswered(GetParam()), -8);
    EXPECT_THAT(logLines(), ElementsAre(Line(kLevelInfo, "request.action=UNKNOWN")));
}

TEST_P(UnknownActionTest, IsShownAboveVerbosityFive) {
    verbose = 6;
    process(GetParam());
    EXPECT_EQ(world().consoleText(),
              "processCmd() request.action=UNKNOWN(" + std::to_string(GetParam()) + ")\n");
}

TEST_P(UnknownActionTest, IsNotShownAtVerbosityFive) {
    verbose = 5;
    process(GetParam());
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(Actions, UnknownActionTest,
                         testing::Values(-1, 11, 12, 255, 256, -20, INT_MIN, INT_MAX));

} // namespace
} // namespace commands
