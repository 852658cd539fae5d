#include "records/codes.h"

#include <iterator>

#include <gtest/gtest.h>

namespace {

struct NamedCode {
    int code;
    int expected;
    const char* text;
};

class AppStatusTest : public testing::TestWithParam<NamedCode> {};

TEST_P(AppStatusTest, HasItsCodeAndItsText) {
    EXPECT_EQ(GetParam().code, GetParam().expected);
    EXPECT_STREQ(OVARD_APP_STATUS_STR[GetParam().expected], GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Codes, AppStatusTest,
                         testing::Values(NamedCode{APP_STATUS_INITIALIZING, 0, "initializing"},
                                         NamedCode{APP_STATUS_STARTING0, 1, "starting"},
                                         NamedCode{APP_STATUS_STARTING, 2, "starting"},
                                         NamedCode{APP_STATUS_RUNNING0, 3, "started"},
                                         NamedCode{APP_STATUS_RUNNING, 4, "started"},
                                         NamedCode{APP_STATUS_STOPPED, 5, "stopped"},
                                         NamedCode{APP_STATUS_DEAD, 6, "dead"},
                                         NamedCode{APP_STATUS_STOPPING, 7, "stopping"},
                                         NamedCode{APP_STATUS_START_FAILURE, 8, "start failure"},
                                         NamedCode{APP_STATUS_APP_LATE, 9, "app late"},
                                         NamedCode{APP_STATUS_MONITOR_DIE, 10, "monitor die"}));

TEST(CodesTest, ElevenStatusTextsAndThreePortTexts) {
    EXPECT_EQ(std::size(OVARD_APP_STATUS_STR), 11U);
    EXPECT_EQ(std::size(PORT_TYPE_STR), 3U);
}

class PortTypeTest : public testing::TestWithParam<NamedCode> {};

TEST_P(PortTypeTest, HasItsCodeAndItsText) {
    EXPECT_EQ(GetParam().code, GetParam().expected);
    EXPECT_STREQ(PORT_TYPE_STR[GetParam().expected], GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Codes, PortTypeTest,
                         testing::Values(NamedCode{PORT_TYPE_NONE, 0, "None"},
                                         NamedCode{PORT_TYPE_COM, 1, "COM"},
                                         NamedCode{PORT_TYPE_ETH, 2, "Eth"}));

TEST(CodesTest, RestartTypes) {
    EXPECT_EQ(RESTART_TYPE_SELF, 0);
    EXPECT_EQ(RESTART_TYPE_ALL, 1);
}

TEST(CodesTest, Actions) {
    EXPECT_EQ(APPMONCTL_Start, 0);
    EXPECT_EQ(APPMONCTL_Stop, 1);
    EXPECT_EQ(APPMONCTL_Stop_All, 2);
    EXPECT_EQ(APPMONCTL_Stop_All_But, 3);
    EXPECT_EQ(APPMONCTL_Stop_PortApps, 4);
    EXPECT_EQ(APPMONCTL_Restart, 5);
    EXPECT_EQ(APPMONCTL_Restart_All, 6);
    EXPECT_EQ(APPMONCTL_Restart_All_But, 7);
    EXPECT_EQ(APPMONCTL_Restart_PortApps, 8);
    EXPECT_EQ(APPMONCTL_Reserved9, 9);
    EXPECT_EQ(APPMONCTL_Reserved10, 10);
}

} // namespace
