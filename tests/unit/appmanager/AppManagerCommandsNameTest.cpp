#include <cstddef>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/appmanager/CommandFixture.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace commands {
namespace {

// Names of 62 characters and more.

class LongNameTest : public CommandTest, public testing::WithParamInterface<int> {
protected:
    std::string name() const { return std::string(static_cast<std::size_t>(GetParam()), 'x'); }
    std::string cutName() const { return name().substr(0, 63); }
};

TEST_P(LongNameTest, StartNamesTheCutName) {
    scriptLaunch(801);
    EXPECT_EQ(process(APPMONCTL_Start, name(), "/bin/app"), 0);
    expectAnswer(0, at(cutName() + " [pid=801] is started"));
    EXPECT_THAT(registeredNames(), ElementsAre(cutName()));
    EXPECT_EQ(logLines()[0],
              Line(kLevelDebug, "processCmd() request.action=APPMONCTL_Start " + name()));
}

TEST_P(LongNameTest, StopOfAMissingOneNamesTheCutName) {
    EXPECT_EQ(process(APPMONCTL_Stop, name()), 0);
    expectAnswer(-20, cutName() + " is not found");
    EXPECT_EQ(logLines()[0],
              Line(kLevelDebug, "processCmd() request.action=APPMONCTL_Stop " + name()));
}

TEST_P(LongNameTest, RestartNamesTheCutName) {
    EXPECT_EQ(process(APPMONCTL_Restart, name()), 0);
    expectAnswer(0, at(cutName() + " is restarted"));
    EXPECT_EQ(logLines()[0],
              Line(kLevelDebug, "processCmd() request.action=APPMONCTL_Restart " + name()));
}

TEST_P(LongNameTest, IsFoundUnderItsCutName) {
    scriptLaunch(801);
    process(APPMONCTL_Start, name(), "/bin/app");
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, cutName()), info_), 0);
    EXPECT_THAT(applist, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Lengths, LongNameTest, testing::Values(62, 63, 64));

using LongestNameTest = CommandTest;

TEST_F(LongestNameTest, NameThatFillsItsFieldIsNotFoundUnderItself) {
    const std::string name(64, 'x');
    scriptLaunch(801);
    scriptLaunch(802);
    process(APPMONCTL_Start, name, "/bin/app");
    process(APPMONCTL_Start, name, "/bin/app");
    EXPECT_THAT(applist, SizeIs(2));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, name), info_), -20);
}

TEST_F(LongestNameTest, NameWithoutNulDoesNotRunIntoTheVersion) {
    reqcmd request = makeRequest(APPMONCTL_Stop, std::string(64, 'x'));
    requests::fillField(request.version, "VERSION");
    manager_.processCmd(request);
    EXPECT_THAT(world().logTexts(), Each(Not(HasSubstr("VERSION"))));
}

} // namespace
} // namespace commands
