#include "server/AppServer.h"

#include <cerrno>
#include <deque>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

std::string receiveCall(int size) {
    return onDescriptor("recv", kClient) + ' ' + std::to_string(size);
}

using AppServerReceiveTest = ListeningServerTest;

// --- the bytes of a request ----------------------------------------------------------------------

TEST_F(AppServerReceiveTest, WholeRecordInOneCall) {
    const reqcmd sent = requestFilledWith('n');
    world().scriptReceive(sent);
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), bytesOf(sent));
    EXPECT_THAT(world().callsOf("recv"), ElementsAre(receiveCall(kRequestSize)));
    EXPECT_EQ(world().count("closefd"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, WholeRecordInTwoCalls) {
    world().receives = {{std::string(600, 'a'), 0}, {std::string(616, 'b'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), std::string(600, 'a') + std::string(616, 'b'));
    EXPECT_THAT(world().callsOf("recv"), ElementsAre(receiveCall(1216), receiveCall(616)));
}

TEST_F(AppServerReceiveTest, WholeRecordInThreeCalls) {
    world().receives = {
        {std::string(1, 'a'), 0}, {std::string(1214, 'b'), 0}, {std::string(1, 'c'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), "a" + std::string(1214, 'b') + "c");
    EXPECT_THAT(world().callsOf("recv"),
                ElementsAre(receiveCall(1216), receiveCall(1215), receiveCall(1)));
}

TEST_F(AppServerReceiveTest, ThreeShortCallsReturnTheirTotal) {
    world().receives = {{std::string(10, 'a'), 0},
                        {std::string(20, 'b'), 0},
                        {std::string(30, 'c'), 0},
                        {std::string(40, 'd'), 0}};
    EXPECT_EQ(receive(), 60);
    EXPECT_EQ(bytesOf(request_), std::string(10, 'a') + std::string(20, 'b') +
                                     std::string(30, 'c') + std::string(1216 - 60, 'p'));
    EXPECT_EQ(world().count("recv"), 3U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, ShortRecordKeepsTheRestOfThePreviousRequest) {
    world().receives = {{std::string(600, 'n'), 0}};
    EXPECT_EQ(receive(), 600);
    EXPECT_EQ(bytesOf(request_), std::string(600, 'n') + std::string(616, 'p'));
}

TEST_F(AppServerReceiveTest, LongRecordIsReadNoFurtherThanItsSize) {
    world().receives = {{std::string(2000, 'x'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    ASSERT_EQ(world().receives.size(), 1U);
    EXPECT_EQ(world().receives[0].data.size(), 784U);
    EXPECT_EQ(world().count("recv"), 1U);
}

TEST_F(AppServerReceiveTest, ClientThatClosesAtOnceGivesZero) {
    EXPECT_EQ(receive(), 0);
    EXPECT_THAT(world().callsOf("recv"),
                ElementsAre(receiveCall(1216), receiveCall(1216), receiveCall(1216)));
    EXPECT_EQ(bytesOf(request_), std::string(1216, 'p'));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, FirstCallInterruptedCountsAsNoBytes) {
    world().receives = {{"", EINTR}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), std::string(1216, 'n'));
    EXPECT_THAT(world().callsOf("recv"), ElementsAre(receiveCall(1216), receiveCall(1216)));
}

TEST_F(AppServerReceiveTest, SecondCallInterruptedCountsAsNoBytes) {
    world().receives = {{std::string(1000, 'a'), 0}, {"", EINTR}, {std::string(216, 'b'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_THAT(world().callsOf("recv"),
                ElementsAre(receiveCall(1216), receiveCall(216), receiveCall(216)));
}

TEST_F(AppServerReceiveTest, ThirdCallInterruptedReturnsTheTotalSoFar) {
    world().receives = {{std::string(100, 'a'), 0}, {std::string(50, 'b'), 0}, {"", EINTR}};
    EXPECT_EQ(receive(), 150);
    EXPECT_EQ(world().count("recv"), 3U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, ThreeInterruptedCallsGiveZero) {
    world().receives = {{"", EINTR}, {"", EINTR}, {"", EINTR}};
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(world().count("recv"), 3U);
}

TEST_F(AppServerReceiveTest, SecondCallAtTheEndLeavesTheThirdOne) {
    world().receives = {{std::string(100, 'a'), 0}, {"", 0}, {std::string(7, 'b'), 0}};
    EXPECT_EQ(receive(), 107);
}

struct FailingCall {
    const char* name;
    std::deque<fakes::Input> script;
    unsigned calls;
};

class AppServerReceiveErrorTest : public AppServerReceiveTest,
                                  public testing::WithParamInterface<FailingCall> {};

TEST_P(AppServerReceiveErrorTest, IsLoggedWithTheSocketPath) {
    world().receives = GetParam().script;
    EXPECT_EQ(receive(), -1);
    EXPECT_THAT(onlyLogsOf(kLevelDebug),
                ElementsAre("recvCommand(): recvfrom error 104, /tmp/appmon_sock"));
    EXPECT_EQ(world().count("recv"), GetParam().calls);
    EXPECT_EQ(world().count("closefd"), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Calls, AppServerReceiveErrorTest,
    testing::Values(FailingCall{"First", {{"", ECONNRESET}}, 1},
                    FailingCall{"Second", {{"abc", 0}, {"", ECONNRESET}}, 2},
                    FailingCall{"SecondAfterAnInterruption", {{"", EINTR}, {"", ECONNRESET}}, 2},
                    FailingCall{"Third", {{"abc", 0}, {"def", 0}, {"", ECONNRESET}}, 3}),
    [](const auto& test) { return std::string(test.param.name); });

// --- waiting -------------------------------------------------------------------------------------

TEST_F(AppServerReceiveTest, WaitsTwoSecondsForAClient) {
    world().waitResults = {WaitResult::TimedOut};
    EXPECT_EQ(receive(), -1);
    EXPECT_THAT(world().calls, ElementsAre(onDescriptor("wait", kListener) + " 2000"));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, FailingWaitGivesMinusOneAndNoLine) {
    world().waitResults = {WaitResult::Failed};
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("accept"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, InterruptedWaitGoesOnWithTheRestOfItsTime) {
    world().waitResults = {WaitResult::Interrupted, WaitResult::Interrupted, WaitResult::TimedOut};
    world().onWait = [](int, int) { world().advance(700); };
    EXPECT_EQ(receive(), -1);
    const std::string wait = onDescriptor("wait", kListener) + ' ';
    EXPECT_THAT(world().calls, ElementsAre(wait + "2000", wait + "1300", wait + "600"));
}

TEST_F(AppServerReceiveTest, InterruptedWaitWhoseTimeIsOverEnds) {
    world().waitResults = {WaitResult::Interrupted, WaitResult::TimedOut};
    world().onWait = [](int, int) { world().advance(2500); };
    EXPECT_EQ(receive(), -1);
    const std::string wait = onDescriptor("wait", kListener) + ' ';
    EXPECT_THAT(world().calls, ElementsAre(wait + "2000", wait + "0"));
}

TEST_F(AppServerReceiveTest, InterruptedWaitStillTakesTheClient) {
    world().waitResults = {WaitResult::Interrupted, WaitResult::Ready};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
}

TEST_F(AppServerReceiveTest, PendingTerminationEndsTheWaitForAClient) {
    world().terminationIsPending = true;
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("wait"), 1U);
    EXPECT_EQ(world().count("accept"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, PendingTerminationEndsTheWaitForTheRequest) {
    world().receives = {{"abc", 0}};
    world().onWait = [](int fd, int) { world().terminationIsPending = fd != kListener; };
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("recv"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, InterruptedWaitForTheRequestCountsAsNoBytes) {
    world().waitResults = {WaitResult::Ready, WaitResult::Interrupted, WaitResult::Interrupted,
                           WaitResult::Interrupted};
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(world().count("recv"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, FailingWaitForTheRequestIsLoggedAsItsReceiveCall) {
    world().waitResults = {WaitResult::Ready, WaitResult::Failed};
    world().waitErrno = ENOMEM;
    EXPECT_EQ(receive(), -1);
    EXPECT_THAT(onlyLogsOf(kLevelDebug),
                ElementsAre("recvCommand(): recvfrom error 12, /tmp/appmon_sock"));
}

TEST_F(AppServerReceiveTest, WakeUpWithoutBytesIsNoReceiveCallOfItsOwn) {
    world().receives = {{"", EAGAIN}, {"", EAGAIN}, {"", EAGAIN}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, EachReceiveCallWaitsForTheClientWithoutLimit) {
    world().receives = {{std::string(600, 'a'), 0}, {std::string(616, 'b'), 0}};
    receive();
    const std::string wait = onDescriptor("wait", kClient) + " -1";
    EXPECT_THAT(world().calls, ElementsAre(onDescriptor("wait", kListener) + " 2000",
                                           onDescriptor("accept", kListener), wait,
                                           receiveCall(1216), wait, receiveCall(616)));
}

// --- accepting -----------------------------------------------------------------------------------

class AppServerVanishedClientTest : public AppServerReceiveTest,
                                    public testing::WithParamInterface<int> {};

TEST_P(AppServerVanishedClientTest, FirstAcceptGivesZeroAtOnce) {
    world().acceptResults = {{-1, GetParam()}};
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(world().count("accept"), 1U);
    EXPECT_EQ(world().count("yield"), 0U);
    EXPECT_EQ(world().count("recv"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_P(AppServerVanishedClientTest, LaterAcceptGivesZeroAtOnce) {
    world().acceptResults = {{-1, EMFILE}, {-1, GetParam()}};
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(world().count("accept"), 2U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_P(AppServerVanishedClientTest, LastAcceptGivesZeroWithoutALine) {
    world().acceptResults = {{-1, EMFILE}, {-1, EMFILE}, {-1, GetParam()}};
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(world().count("accept"), 3U);
    EXPECT_THAT(world().log, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Errors, AppServerVanishedClientTest, testing::Values(EINVAL, ENOTCONN));

TEST_F(AppServerReceiveTest, AcceptIsTriedThreeTimesInAll) {
    world().acceptResults = {{-1, ECONNABORTED}, {-1, EMFILE}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_THAT(world().callsOf({"accept", "yield"}),
                ElementsAre(onDescriptor("accept", kListener), "yield",
                            onDescriptor("accept", kListener), "yield",
                            onDescriptor("accept", kListener)));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReceiveTest, ThirdAcceptFailureIsLoggedWithItsErrno) {
    world().acceptResults = {{-1, ECONNABORTED}, {-1, EMFILE}, {-1, ENFILE}};
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("accept"), 3U);
    EXPECT_EQ(world().count("yield"), 2U);
    EXPECT_THAT(onlyLogsOf(kLevelDebug), ElementsAre("recvCommand(): accept error=23"));
    EXPECT_EQ(world().count("recv"), 0U);
}

TEST_F(AppServerReceiveTest, InterruptedAcceptIsTriedAgain) {
    world().acceptResults = {{-1, EINTR}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
}

} // namespace
} // namespace serving
