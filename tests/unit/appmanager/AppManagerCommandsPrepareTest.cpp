#include <cstddef>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "records/codes.h"
#include "tests/unit/appmanager/CommandFixture.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace commands {
namespace {

using PrepareTest = CommandTest;

TEST_F(PrepareTest, CopiesEveryFieldOfTheRequest) {
    reqcmd request = makeRequest(APPMONCTL_Start, "app", "/bin/app -x");
    requests::fillField(request.version, "1.2.3");
    requests::fillField(request.pidfile, "/tmp/pid/app");
    request.porttype = PORT_TYPE_ETH;
    request.portnum = 502;
    request.priority = -7;
    request.delay = 99;
    request.keepalive = 1;
    request.heartbeat = 1;
    request.restart_type = 1;
    request.last_runtime_life_limit = 3600;
    std::memset(&info_, 0x5A, sizeof info_);
    info_.pid = 4711;

    EXPECT_EQ(manager_.prepareAppInfo(request, info_), kNow);

    EXPECT_EQ(info_.pid, 4711);
    EXPECT_STREQ(info_.name, "app");
    EXPECT_STREQ(info_.version, "1.2.3");
    EXPECT_STREQ(info_.cmd, "/bin/app -x");
    EXPECT_STREQ(info_.pidfile, "/tmp/pid/app");
    EXPECT_EQ(info_.status, APP_STATUS_INITIALIZING);
    EXPECT_EQ(info_.start_time, kNow);
    EXPECT_EQ(info_.uptime, 0);
    EXPECT_EQ(info_.port_type, PORT_TYPE_ETH);
    EXPECT_EQ(info_.port_num, 502);
    EXPECT_EQ(info_.priority, -7);
    EXPECT_EQ(info_.check_flag, 0);
    EXPECT_NE(info_.keepalive, 0);
    EXPECT_NE(info_.heartbeat, 0);
    EXPECT_EQ(info_.restart_type, 1);
    EXPECT_EQ(info_.last_runtime_life_limit, 3600);
}

TEST_F(PrepareTest, CopiesBooleansThatAreNotSet) {
    info_.keepalive = 1;
    info_.heartbeat = 1;
    manager_.prepareAppInfo(makeRequest(APPMONCTL_Start, "app"), info_);
    EXPECT_EQ(info_.keepalive, 0);
    EXPECT_EQ(info_.heartbeat, 0);
}

TEST_F(PrepareTest, DelayHasNoEffect) {
    reqcmd request = makeRequest(APPMONCTL_Start, "app", "/bin/app");
    std::memset(&info_, 0x5A, sizeof info_);
    appinfo delayed = info_;
    manager_.prepareAppInfo(request, info_);
    request.delay = 3600;
    manager_.prepareAppInfo(request, delayed);
    EXPECT_TRUE(sameBytes(info_, delayed));
}

TEST_F(PrepareTest, DoesNotWriteTheReservedByte) {
    for (const int filling : {0x00, 0x5A, 0xFF}) {
        std::memset(&info_, filling, sizeof info_);
        manager_.prepareAppInfo(makeRequest(APPMONCTL_Start, "app", "/bin/app"), info_);
        EXPECT_EQ(info_.reserved, filling);
    }
}

class PrepareLengthTest : public CommandTest, public testing::WithParamInterface<int> {
protected:
    template <std::size_t Size> void expectCut(const char (&field)[Size], char letter) {
        const auto limit = static_cast<int>(Size);
        const int wanted = limit + GetParam();
        const int kept = wanted < limit ? wanted : limit - 1;
        EXPECT_EQ(std::string(field, ::strnlen(field, Size)),
                  std::string(static_cast<std::size_t>(kept), letter));
        EXPECT_EQ(field[Size - 1], '\0');
    }

    template <std::size_t Size> void fill(char (&field)[Size], char letter) {
        requests::fillField(
            field,
            std::string(Size, letter).substr(0, Size + static_cast<std::size_t>(GetParam())));
    }
};

TEST_P(PrepareLengthTest, CutsTextsToTheirFields) {
    reqcmd request = makeRequest(APPMONCTL_Start);
    fill(request.name, 'n');
    fill(request.version, 'v');
    fill(request.cmd, 'c');
    fill(request.pidfile, 'p');
    manager_.prepareAppInfo(request, info_);
    expectCut(info_.name, 'n');
    expectCut(info_.version, 'v');
    expectCut(info_.cmd, 'c');
    expectCut(info_.pidfile, 'p');
}

INSTANTIATE_TEST_SUITE_P(ShorterThanTheField, PrepareLengthTest, testing::Values(-2, -1, 0));

} // namespace
} // namespace commands
