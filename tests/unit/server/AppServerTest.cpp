#include "server/AppServer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"

namespace {

using fakes::kFirstDescriptor;
using fakes::world;
using platform::WaitResult;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kLevelError = 3;
constexpr int kLevelInfo = 6;
constexpr int kLevelDebug = 7;

constexpr int kRequestSize = 1216;
constexpr int kReplySize = 1032;

/// What the fakes hand out: the listening socket first, then one for each client.
constexpr int kListener = kFirstDescriptor;
constexpr int kClient = kFirstDescriptor + 1;
constexpr int kNextClient = kFirstDescriptor + 2;

const char* const kSocketPath = "/tmp/appmon_sock";

/// The process-wide instance as it is, without making it. The explicit instantiation below may name
/// the private member.
AppServer* processWideInstance();

template <AppServer** Member> struct Revealed {
    friend AppServer* processWideInstance() { return *Member; }
};
template struct Revealed<&AppServer::m_pInstance>;

std::string onDescriptor(const char* call, int fd) {
    return std::string(call) + ' ' + std::to_string(fd);
}

std::string receiveCall(int size) {
    return onDescriptor("recv", kClient) + ' ' + std::to_string(size);
}

std::string sendCall(int size) {
    return onDescriptor("send", kClient) + ' ' + std::to_string(size);
}

reqcmd requestFilledWith(char byte) {
    reqcmd request;
    std::memset(&request, byte, sizeof request);
    return request;
}

std::string bytesOf(const reqcmd& request) {
    return {reinterpret_cast<const char*>(&request), sizeof request};
}

std::string bytesOf(const response_struct& reply) {
    return {reinterpret_cast<const char*>(&reply), sizeof reply};
}

response_struct replyWith(int code, const char* message) {
    response_struct reply = {};
    reply.code = code;
    reply.completed = 1;
    std::strncpy(reply.message, message, sizeof reply.message - 1);
    return reply;
}

/// The log lines of one level, after a check that there are no others.
std::vector<std::string> onlyLogsOf(int level) {
    EXPECT_EQ(world().logTexts().size(), world().logTexts(level).size());
    return world().logTexts(level);
}

/// Status with which `action` ends the monitor; -1000 when it returns.
template <typename Action> int exitStatusOf(Action action) {
    try {
        action();
    } catch (const fakes::ExitMonitorCalled& called) {
        return called.status;
    }
    return -1000;
}

// --- initCommunication ---------------------------------------------------------------------------

class AppServerSetUpTest : public testing::Test {
protected:
    AppServer server_;
};

TEST_F(AppServerSetUpTest, OpensTheSocketInItsOrder) {
    EXPECT_EQ(server_.initCommunication(), 0);
    const std::string listener = std::to_string(kListener);
    EXPECT_THAT(world().calls,
                ElementsAre("remove /tmp/appmon_sock", "socket", "nonblock " + listener,
                            "reuse " + listener, "bind " + listener + " /tmp/appmon_sock",
                            "listen " + listener + " 64"));
    EXPECT_EQ(world().errorText(), "");
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(AppServerSetUpTest, OpensTheLogAndSaysSo) {
    server_.initCommunication();
    ASSERT_EQ(world().logOpenings.size(), 1U);
    EXPECT_EQ(world().logOpenings[0].ident, "Ovard");
    EXPECT_EQ(world().logOpenings[0].options, 3);
    EXPECT_EQ(world().logOpenings[0].facility, 144);
    EXPECT_THAT(onlyLogsOf(kLevelInfo), ElementsAre("App monitor started"));
}

TEST_F(AppServerSetUpTest, FileCreationMaskBecomesZeroAndStaysSo) {
    ::umask(077);
    server_.initCommunication();
    EXPECT_EQ(::umask(0), 0U);
}

TEST_F(AppServerSetUpTest, StaleSocketFileIsRemovedBeforeBinding) {
    world().existingPaths.insert(kSocketPath);
    server_.initCommunication();
    EXPECT_EQ(world().existingPaths.count(kSocketPath), 0U);
    EXPECT_EQ(world().calls.front(), "remove /tmp/appmon_sock");
}

TEST_F(AppServerSetUpTest, SocketFileThatCannotBeRemovedIsShownAndNotLogged) {
    world().removeErrors[kSocketPath] = EACCES;
    EXPECT_EQ(server_.initCommunication(), 0);
    EXPECT_EQ(world().errorText(), "remove socket path error: Permission denied\n");
    // The log is not open yet at that point.
    EXPECT_THAT(world().logTexts(), ElementsAre("App monitor started"));
}

TEST_F(AppServerSetUpTest, SocketFileThatCannotBeRemovedIsLoggedWhenTheLogIsStillOpen) {
    server_.initCommunication();
    world().forgetRecords();
    world().removeErrors[kSocketPath] = EPERM;
    server_.initCommunication();
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("initCommunication: remove socket path error error"));
}

TEST_F(AppServerSetUpTest, SocketIsTriedAgainAfterOneFailure) {
    world().socketResults = {{-1, EMFILE}};
    EXPECT_EQ(server_.initCommunication(), 0);
    EXPECT_THAT(world().callsOf({"socket", "yield"}), ElementsAre("socket", "yield", "socket"));
}

TEST_F(AppServerSetUpTest, SocketIsTriedAgainAfterTwoFailures) {
    world().socketResults = {{-1, EMFILE}, {-1, ENOBUFS}};
    EXPECT_EQ(server_.initCommunication(), 0);
    EXPECT_THAT(world().callsOf({"socket", "yield"}),
                ElementsAre("socket", "yield", "socket", "yield", "socket"));
}

TEST_F(AppServerSetUpTest, ThirdSocketFailureEndsTheMonitor) {
    world().socketResults = {{-1, EMFILE}, {-1, EMFILE}, {-1, EMFILE}};
    EXPECT_EQ(exitStatusOf([this] { server_.initCommunication(); }), 1);
    EXPECT_EQ(world().count("socket"), 3U);
    EXPECT_EQ(world().count("yield"), 2U);
    EXPECT_EQ(world().errorText(), "");
    EXPECT_THAT(world().logTexts(kLevelError),
                ElementsAre("initCommunication() socket error, exit"));
    EXPECT_EQ(world().calls.back(), "exitMonitor 1");
}

TEST_F(AppServerSetUpTest, FailingNonBlockingFlagIsShownAndIgnored) {
    world().nonBlockingResults = {{-1, EBADF}};
    EXPECT_EQ(server_.initCommunication(), 0);
    EXPECT_EQ(world().errorText(), "fcntl: Bad file descriptor\n");
    EXPECT_THAT(world().logTexts(), ElementsAre("App monitor started"));
    EXPECT_EQ(world().count("listen"), 1U);
}

TEST_F(AppServerSetUpTest, FailingAddressReuseEndsTheMonitorAtOnce) {
    world().reuseResults = {{-1, ENOTSOCK}};
    EXPECT_EQ(exitStatusOf([this] { server_.initCommunication(); }), 1);
    EXPECT_EQ(world().errorText(), "setsockopt error: Socket operation on non-socket\n");
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("setsockopt error, exit"));
    EXPECT_EQ(world().count("reuse"), 1U);
    EXPECT_EQ(world().count("bind"), 0U);
}

TEST_F(AppServerSetUpTest, BindIsTriedAgainAfterTwoFailures) {
    world().bindResults = {{-1, EADDRINUSE}, {-1, EADDRINUSE}};
    EXPECT_EQ(server_.initCommunication(), 0);
    EXPECT_EQ(world().count("bind"), 3U);
    EXPECT_EQ(world().count("yield"), 2U);
    EXPECT_EQ(world().errorText(), "");
    EXPECT_THAT(world().logTexts(kLevelError), IsEmpty());
}

TEST_F(AppServerSetUpTest, ThirdBindFailureEndsTheMonitor) {
    world().bindResults = {{-1, EADDRINUSE}, {-1, EADDRINUSE}, {-1, EADDRINUSE}};
    EXPECT_EQ(exitStatusOf([this] { server_.initCommunication(); }), 1);
    EXPECT_EQ(world().count("bind"), 3U);
    EXPECT_EQ(world().count("yield"), 2U);
    EXPECT_EQ(world().errorText(), "bind error: Address already in use\n");
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("bind error, exit"));
    EXPECT_EQ(world().count("listen"), 0U);
}

TEST_F(AppServerSetUpTest, ListenFailureEndsTheMonitorAtOnce) {
    world().listenResults = {{-1, EOPNOTSUPP}};
    EXPECT_EQ(exitStatusOf([this] { server_.initCommunication(); }), 1);
    EXPECT_EQ(world().count("listen"), 1U);
    EXPECT_EQ(world().errorText(), "listen error: Operation not supported\n");
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("listen error, exit"));
}

TEST_F(AppServerSetUpTest, NonBlockingHelperReportsItsResult) {
    EXPECT_EQ(server_.make_socket_non_blocking(kClient), 0);
    EXPECT_EQ(world().errorText(), "");
    world().nonBlockingResults = {{-1, EBADF}};
    EXPECT_EQ(server_.make_socket_non_blocking(kClient), -1);
    EXPECT_EQ(world().errorText(), "fcntl: Bad file descriptor\n");
}

TEST_F(AppServerSetUpTest, BaseClassExecutesNothing) {
    EXPECT_EQ(server_.processCmd(requestFilledWith('x')), 0);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
}

// --- recvCommand ---------------------------------------------------------------------------------

/// Of a type of its own so that it can be deleted although the destructor is not virtual.
class DeletableServer final : public AppServer {};

/// A server that listens, and whose records are fresh.
class AppServerTest : public testing::Test {
protected:
    void SetUp() override {
        server_ = std::make_unique<DeletableServer>();
        ASSERT_EQ(server_->initCommunication(), 0);
        world().forgetRecords();
    }

    int receive() { return server_->recvCommand(request_); }

    /// A client that has sent one whole record and waits for the reply.
    void acceptClient() {
        world().scriptReceive(requestFilledWith('r'));
        ASSERT_EQ(receive(), kRequestSize);
        world().forgetRecords();
    }

    std::unique_ptr<DeletableServer> server_;
    reqcmd request_ = requestFilledWith('p');
};

TEST_F(AppServerTest, WholeRecordInOneCall) {
    const reqcmd sent = requestFilledWith('n');
    world().scriptReceive(sent);
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), bytesOf(sent));
    EXPECT_THAT(world().callsOf("recv"), ElementsAre(receiveCall(kRequestSize)));
    EXPECT_EQ(world().count("closefd"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, WholeRecordInTwoCalls) {
    world().receives = {{std::string(600, 'a'), 0}, {std::string(616, 'b'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), std::string(600, 'a') + std::string(616, 'b'));
    EXPECT_THAT(world().callsOf("recv"), ElementsAre(receiveCall(1216), receiveCall(616)));
}

TEST_F(AppServerTest, WholeRecordInThreeCalls) {
    world().receives = {
        {std::string(1, 'a'), 0}, {std::string(1214, 'b'), 0}, {std::string(1, 'c'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), "a" + std::string(1214, 'b') + "c");
    EXPECT_THAT(world().callsOf("recv"),
                ElementsAre(receiveCall(1216), receiveCall(1215), receiveCall(1)));
}

TEST_F(AppServerTest, ThreeShortCallsReturnTheirTotal) {
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

TEST_F(AppServerTest, ShortRecordKeepsTheRestOfThePreviousRequest) {
    world().receives = {{std::string(600, 'n'), 0}};
    EXPECT_EQ(receive(), 600);
    EXPECT_EQ(bytesOf(request_), std::string(600, 'n') + std::string(616, 'p'));
}

TEST_F(AppServerTest, LongRecordIsReadNoFurtherThanItsSize) {
    world().receives = {{std::string(2000, 'x'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    ASSERT_EQ(world().receives.size(), 1U);
    EXPECT_EQ(world().receives[0].data.size(), 784U);
    EXPECT_EQ(world().count("recv"), 1U);
}

TEST_F(AppServerTest, ClientThatClosesAtOnceGivesZero) {
    EXPECT_EQ(receive(), 0);
    EXPECT_THAT(world().callsOf("recv"),
                ElementsAre(receiveCall(1216), receiveCall(1216), receiveCall(1216)));
    EXPECT_EQ(bytesOf(request_), std::string(1216, 'p'));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, FirstCallInterruptedCountsAsNoBytes) {
    world().receives = {{"", EINTR}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(bytesOf(request_), std::string(1216, 'n'));
    EXPECT_THAT(world().callsOf("recv"), ElementsAre(receiveCall(1216), receiveCall(1216)));
}

TEST_F(AppServerTest, SecondCallInterruptedCountsAsNoBytes) {
    world().receives = {{std::string(1000, 'a'), 0}, {"", EINTR}, {std::string(216, 'b'), 0}};
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_THAT(world().callsOf("recv"),
                ElementsAre(receiveCall(1216), receiveCall(216), receiveCall(216)));
}

TEST_F(AppServerTest, ThirdCallInterruptedReturnsTheTotalSoFar) {
    world().receives = {{std::string(100, 'a'), 0}, {std::string(50, 'b'), 0}, {"", EINTR}};
    EXPECT_EQ(receive(), 150);
    EXPECT_EQ(world().count("recv"), 3U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, ThreeInterruptedCallsGiveZero) {
    world().receives = {{"", EINTR}, {"", EINTR}, {"", EINTR}};
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(world().count("recv"), 3U);
}

TEST_F(AppServerTest, SecondCallAtTheEndLeavesTheThirdOne) {
    world().receives = {{std::string(100, 'a'), 0}, {"", 0}, {std::string(7, 'b'), 0}};
    EXPECT_EQ(receive(), 107);
}

struct FailingCall {
    const char* name;
    std::deque<fakes::Input> script;
    unsigned calls;
};

class AppServerReceiveErrorTest : public AppServerTest,
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

TEST_F(AppServerTest, WaitsTwoSecondsForAClient) {
    world().waitResults = {WaitResult::TimedOut};
    EXPECT_EQ(receive(), -1);
    EXPECT_THAT(world().calls, ElementsAre(onDescriptor("wait", kListener) + " 2000"));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, FailingWaitGivesMinusOneAndNoLine) {
    world().waitResults = {WaitResult::Failed};
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("accept"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, InterruptedWaitGoesOnWithTheRestOfItsTime) {
    world().waitResults = {WaitResult::Interrupted, WaitResult::Interrupted, WaitResult::TimedOut};
    world().onWait = [](int, int) { world().advance(700); };
    EXPECT_EQ(receive(), -1);
    const std::string wait = onDescriptor("wait", kListener) + ' ';
    EXPECT_THAT(world().calls, ElementsAre(wait + "2000", wait + "1300", wait + "600"));
}

TEST_F(AppServerTest, InterruptedWaitWhoseTimeIsOverEnds) {
    world().waitResults = {WaitResult::Interrupted, WaitResult::TimedOut};
    world().onWait = [](int, int) { world().advance(2500); };
    EXPECT_EQ(receive(), -1);
    const std::string wait = onDescriptor("wait", kListener) + ' ';
    EXPECT_THAT(world().calls, ElementsAre(wait + "2000", wait + "0"));
}

TEST_F(AppServerTest, InterruptedWaitStillTakesTheClient) {
    world().waitResults = {WaitResult::Interrupted, WaitResult::Ready};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
}

TEST_F(AppServerTest, PendingTerminationEndsTheWaitForAClient) {
    world().terminationIsPending = true;
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("wait"), 1U);
    EXPECT_EQ(world().count("accept"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, PendingTerminationEndsTheWaitForTheRequest) {
    world().receives = {{"abc", 0}};
    world().onWait = [](int fd, int) { world().terminationIsPending = fd != kListener; };
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("recv"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, InterruptedWaitForTheRequestCountsAsNoBytes) {
    world().waitResults = {WaitResult::Ready, WaitResult::Interrupted, WaitResult::Interrupted,
                           WaitResult::Interrupted};
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(world().count("recv"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, FailingWaitForTheRequestIsLoggedAsItsReceiveCall) {
    world().waitResults = {WaitResult::Ready, WaitResult::Failed};
    world().waitErrno = ENOMEM;
    EXPECT_EQ(receive(), -1);
    EXPECT_THAT(onlyLogsOf(kLevelDebug),
                ElementsAre("recvCommand(): recvfrom error 12, /tmp/appmon_sock"));
}

TEST_F(AppServerTest, WakeUpWithoutBytesIsNoReceiveCallOfItsOwn) {
    world().receives = {{"", EAGAIN}, {"", EAGAIN}, {"", EAGAIN}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, EachReceiveCallWaitsForTheClientWithoutLimit) {
    world().receives = {{std::string(600, 'a'), 0}, {std::string(616, 'b'), 0}};
    receive();
    const std::string wait = onDescriptor("wait", kClient) + " -1";
    EXPECT_THAT(world().calls, ElementsAre(onDescriptor("wait", kListener) + " 2000",
                                           onDescriptor("accept", kListener), wait,
                                           receiveCall(1216), wait, receiveCall(616)));
}

class AppServerVanishedClientTest : public AppServerTest,
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

TEST_P(AppServerVanishedClientTest, ReplyEndsWithSuccessAtTheFirstAttempt) {
    acceptClient();
    world().sendResults = {{-1, GetParam()}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().count("send"), 1U);
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kClient)));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_P(AppServerVanishedClientTest, ReplyEndsWithSuccessAtTheLastAttempt) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, GetParam()}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().count("send"), 3U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_P(AppServerVanishedClientTest, ReplyForgetsTheConnection) {
    acceptClient();
    world().sendResults = {{-1, GetParam()}};
    response_struct reply = replyWith(0, "done\n");
    server_->sendCommand(&reply);
    world().forgetRecords();
    server_->sendCommand(&reply);
    EXPECT_THAT(world().calls, ElementsAre("send -1 1032"));
}

INSTANTIATE_TEST_SUITE_P(Errors, AppServerVanishedClientTest, testing::Values(EINVAL, ENOTCONN));

TEST_F(AppServerTest, AcceptIsTriedThreeTimesInAll) {
    world().acceptResults = {{-1, ECONNABORTED}, {-1, EMFILE}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_THAT(world().callsOf({"accept", "yield"}),
                ElementsAre(onDescriptor("accept", kListener), "yield",
                            onDescriptor("accept", kListener), "yield",
                            onDescriptor("accept", kListener)));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, ThirdAcceptFailureIsLoggedWithItsErrno) {
    world().acceptResults = {{-1, ECONNABORTED}, {-1, EMFILE}, {-1, ENFILE}};
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("accept"), 3U);
    EXPECT_EQ(world().count("yield"), 2U);
    EXPECT_THAT(onlyLogsOf(kLevelDebug), ElementsAre("recvCommand(): accept error=23"));
    EXPECT_EQ(world().count("recv"), 0U);
}

TEST_F(AppServerTest, InterruptedAcceptIsTriedAgain) {
    world().acceptResults = {{-1, EINTR}};
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
}

TEST_F(AppServerTest, UnansweredConnectionIsReplacedAndNotClosed) {
    acceptClient();
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(world().count("closefd"), 0U);
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().sentTo(kClient), "");
    EXPECT_EQ(world().sentTo(kNextClient), bytesOf(reply));
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kNextClient)));
}

TEST_F(AppServerTest, TimeOutKeepsTheConnectionForItsReply) {
    acceptClient();
    world().waitResults = {WaitResult::TimedOut};
    EXPECT_EQ(receive(), -1);
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply));
}

// --- sendCommand ---------------------------------------------------------------------------------

TEST_F(AppServerTest, ReplyIsShownSentAndTheConnectionClosed) {
    acceptClient();
    response_struct reply = replyWith(-20, "not found\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply));
    EXPECT_EQ(world().consoleText(), " Error is detected with code =-20\nnot found\n\n");
    EXPECT_THAT(world().calls, ElementsAre(sendCall(kReplySize), onDescriptor("closefd", kClient)));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, ConnectionIsClosedOnlyOnce) {
    acceptClient();
    response_struct reply = replyWith(0, "done\n");
    server_->sendCommand(&reply);
    server_->closeCommunication();
    server_.reset();
    EXPECT_THAT(world().callsOf("closefd"),
                ElementsAre(onDescriptor("closefd", kClient), onDescriptor("closefd", kListener)));
}

TEST_F(AppServerTest, PartialWriteIsCompletedByTheNextAttempt) {
    acceptClient();
    world().sendResults = {{1000, 0}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply));
    EXPECT_THAT(world().calls, ElementsAre(sendCall(1032), "yield", sendCall(32),
                                           onDescriptor("closefd", kClient)));
}

TEST_F(AppServerTest, ReplyInThreePiecesIsWhole) {
    acceptClient();
    world().sendResults = {{1, 0}, {1030, 0}, {1, 0}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, ReplyThatThreePiecesDoNotCompleteFails) {
    acceptClient();
    world().sendResults = {{1, 0}, {1, 0}, {1, 0}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), -1);
    EXPECT_EQ(world().count("send"), 3U);
    EXPECT_EQ(world().logTexts(kLevelDebug).size(), 1U);
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kClient)));
}

TEST_F(AppServerTest, BrokenConnectionIsLoggedAfterThreeAttempts) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), -1);
    EXPECT_THAT(world().calls, ElementsAre(sendCall(1032), "yield", sendCall(1032), "yield",
                                           sendCall(1032), onDescriptor("closefd", kClient)));
    EXPECT_THAT(onlyLogsOf(kLevelDebug), ElementsAre("sendCommand(): sendto error=32"));
}

TEST_F(AppServerTest, BrokenConnectionIsLoggedBeforeItIsClosed) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    std::size_t linesAtTheClose = 0;
    world().onCall = [&](const std::string& call) {
        if (call == onDescriptor("closefd", kClient)) {
            linesAtTheClose = world().log.size();
        }
    };
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), -1);
    world().onCall = nullptr;
    EXPECT_EQ(linesAtTheClose, 1U);
}

TEST_F(AppServerTest, BrokenConnectionIsForgotten) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), -1);
    world().forgetRecords();
    server_->sendCommand(&reply);
    EXPECT_THAT(world().calls, ElementsAre("send -1 1032"));
}

TEST_F(AppServerTest, AnsweredConnectionIsForgotten) {
    acceptClient();
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    world().forgetRecords();
    server_->sendCommand(&reply);
    EXPECT_THAT(world().calls, ElementsAre("send -1 1032"));
}

TEST_F(AppServerTest, ReplyIsShownBeforeItIsWritten) {
    acceptClient();
    std::string shown;
    world().onSend = [&](int) { shown = world().consoleText(); };
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(shown, "done\n\n");
}

TEST_F(AppServerTest, InterruptedWriteIsTriedAgain) {
    acceptClient();
    world().sendResults = {{-1, EINTR}, {-1, EINTR}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, ConnectionAcceptedDuringTheReplyIsKept) {
    acceptClient();
    world().onSend = [this](int) {
        world().onSend = nullptr;
        world().scriptReceive(requestFilledWith('n'));
        EXPECT_EQ(receive(), kRequestSize);
    };
    response_struct first = replyWith(0, "first\n");
    EXPECT_EQ(server_->sendCommand(&first), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(first));
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kClient)));

    response_struct second = replyWith(0, "second\n");
    EXPECT_EQ(server_->sendCommand(&second), 0);
    EXPECT_EQ(world().sentTo(kNextClient), bytesOf(second));
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kClient),
                                                        onDescriptor("closefd", kNextClient)));
}

TEST_F(AppServerTest, ReplyWithoutAConnectionFailsAndClosesNothing) {
    world().sendResults = {{-1, EBADF}, {-1, EBADF}, {-1, EBADF}};
    response_struct reply = replyWith(0, "done\n");
    EXPECT_EQ(server_->sendCommand(&reply), -1);
    EXPECT_THAT(world().logTexts(kLevelDebug), ElementsAre("sendCommand(): sendto error=9"));
    EXPECT_EQ(world().count("closefd"), 0U);
}

// --- closeCommunication, destructor, process-wide instance ---------------------------------------

TEST_F(AppServerTest, CloseCommunicationClosesAllAndRemovesTheFile) {
    acceptClient();
    world().existingPaths.insert(kSocketPath);
    EXPECT_EQ(server_->closeCommunication(), 0);
    EXPECT_THAT(world().calls,
                ElementsAre(onDescriptor("closefd", kListener), onDescriptor("closefd", kClient),
                            "remove /tmp/appmon_sock"));
    EXPECT_EQ(world().logCloses, 1);
    EXPECT_FALSE(world().logOpened);
    EXPECT_EQ(world().errorText(), "");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, CloseCommunicationTwiceClosesNothingTwice) {
    acceptClient();
    server_->closeCommunication();
    world().forgetRecords();
    EXPECT_EQ(server_->closeCommunication(), -1); // what closing the log again gives
    EXPECT_THAT(world().calls, ElementsAre("remove /tmp/appmon_sock"));
    EXPECT_EQ(world().logCloses, 1);
}

TEST_F(AppServerTest, SocketFileThatStaysAtTheEndIsShownAndLogged) {
    world().removeErrors[kSocketPath] = EBUSY;
    EXPECT_EQ(server_->closeCommunication(), 0);
    EXPECT_EQ(world().errorText(),
              "closeCommunication: remove socket path error: Device or resource busy\n");
    EXPECT_THAT(onlyLogsOf(kLevelError), ElementsAre("remove socket path error error"));
    EXPECT_EQ(world().logCloses, 1);
}

TEST_F(AppServerTest, LogGoesNowhereAfterItsEnd) {
    server_->closeCommunication();
    server_->writeLog(kLevelError, "late");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerTest, DestructorShutsDownTheListenerAndClosesBoth) {
    acceptClient();
    server_.reset();
    EXPECT_THAT(world().calls,
                ElementsAre(onDescriptor("shutdown", kListener), onDescriptor("closefd", kListener),
                            onDescriptor("closefd", kClient)));
}

TEST_F(AppServerTest, DestructorAfterCloseCommunicationClosesNothing) {
    acceptClient();
    server_->closeCommunication();
    world().forgetRecords();
    server_.reset();
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(AppServerTest, InitCommunicationMakesTheProcessWideInstance) {
    AppServer* const instance = processWideInstance(); // the fixture has called initCommunication
    ASSERT_NE(instance, nullptr);
    EXPECT_NE(instance, server_.get());
    EXPECT_EQ(AppServer::Instance(), instance);
    server_->initCommunication();
    EXPECT_EQ(processWideInstance(), instance);
}

TEST_F(AppServerSetUpTest, ConstructorMakesNoProcessWideInstance) {
    EXPECT_EQ(processWideInstance(), nullptr);
    AppServer* const instance = AppServer::Instance();
    EXPECT_NE(instance, nullptr);
    EXPECT_EQ(processWideInstance(), instance);
}

TEST_F(AppServerTest, DestructorForgetsTheProcessWideInstance) {
    server_.reset();
    EXPECT_EQ(processWideInstance(), nullptr);
}

TEST_F(AppServerTest, DestructorClosesAndFreesTheProcessWideInstance) {
    AppServer::Instance()->initCommunication();
    const int itsListener = kListener + 1;
    world().forgetRecords();
    server_.reset();
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kListener),
                                                        onDescriptor("closefd", itsListener)));
    world().forgetRecords();
    { const AppServer another; } // finds no instance that it could free again
    EXPECT_THAT(world().calls, IsEmpty());
}

// --- trace printers ------------------------------------------------------------------------------

reqcmd requestToShow() {
    reqcmd request = {};
    std::strcpy(request.name, "meter_app");
    std::strcpy(request.version, "1.2.3");
    std::strcpy(request.cmd, "/home/kelvo/root/meter_app -d");
    std::strcpy(request.pidfile, "/tmp/pid/meter_app.pid");
    request.porttype = 2;
    request.portnum = 502;
    request.action = -7;
    request.priority = 99;
    request.delay = 11;
    request.keepalive = 1;
    request.nowait = 0;
    request.heartbeat = 1;
    request.restart_type = 1;
    request.last_runtime_life_limit = 3600;
    return request;
}

TEST_F(AppServerTest, RequestIsShownFieldByField) {
    server_->displayRequestCmd(requestToShow());
    EXPECT_EQ(world().consoleText(), "Request Command:\n"
                                     "\tname = meter_app\n"
                                     "\tversion = 1.2.3\n"
                                     "\taction = -7\n"
                                     "\tcmd = \"/home/kelvo/root/meter_app -d\"\n"
                                     "\tpidfile = \"/tmp/pid/meter_app.pid\"\n"
                                     "\tporttype = 2\n"
                                     "\tportnum = 502\n"
                                     "\tdelay = 11\n"
                                     "\tkeepalive = 1\n"
                                     "\tnowait = 0\n"
                                     "\trequest.heartbeat = 1\n"
                                     "\trequest.restart_type = 1\n"
                                     "\trequest.last_runtime_life_limit = 3600\n");
}

TEST_F(AppServerTest, EmptyRequestIsShownWithEmptyTextsAndZeros) {
    server_->displayRequestCmd(reqcmd{});
    EXPECT_EQ(world().consoleText(), "Request Command:\n"
                                     "\tname = \n"
                                     "\tversion = \n"
                                     "\taction = 0\n"
                                     "\tcmd = \"\"\n"
                                     "\tpidfile = \"\"\n"
                                     "\tporttype = 0\n"
                                     "\tportnum = 0\n"
                                     "\tdelay = 0\n"
                                     "\tkeepalive = 0\n"
                                     "\tnowait = 0\n"
                                     "\trequest.heartbeat = 0\n"
                                     "\trequest.restart_type = 0\n"
                                     "\trequest.last_runtime_life_limit = 0\n");
}

TEST_F(AppServerTest, TextsWithoutNulEndWithTheirFields) {
    reqcmd request = requestToShow();
    std::memset(request.name, 'n', sizeof request.name);
    std::memset(request.version, 'v', sizeof request.version);
    std::memset(request.cmd, 'c', sizeof request.cmd);
    std::memset(request.pidfile, 'p', sizeof request.pidfile);
    request.action = 3;
    server_->displayRequestCmd(request);
    EXPECT_THAT(world().consoleText(),
                testing::StartsWith("Request Command:\n\tname = " + std::string(64, 'n') +
                                    "\n\tversion = " + std::string(32, 'v') +
                                    "\n\taction = 3\n\tcmd = \"" + std::string(1024, 'c') +
                                    "\"\n\tpidfile = \"" + std::string(64, 'p') + "\"\n"));
}

TEST_F(AppServerTest, AnyNonZeroBooleanByteIsShownAsOne) {
    reqcmd request = {};
    request.keepalive = 2;
    request.nowait = 255;
    request.heartbeat = 128;
    server_->displayRequestCmd(request);
    EXPECT_THAT(world().consoleText(),
                testing::HasSubstr("\tkeepalive = 1\n\tnowait = 1\n\trequest.heartbeat = 1\n"));
}

TEST_F(AppServerTest, ReplyOfSuccessIsShownAsItsMessage) {
    server_->displayResponseCmd(replyWith(0, "all well"));
    EXPECT_EQ(world().consoleText(), "all well\n");
}

TEST_F(AppServerTest, ReplyOfFailureIsShownWithItsCode) {
    server_->displayResponseCmd(replyWith(7, "no"));
    EXPECT_EQ(world().consoleText(), " Error is detected with code =7\nno\n");
}

TEST_F(AppServerTest, ReplyWithoutMessageIsShownAsALineEnd) {
    server_->displayResponseCmd(replyWith(0, ""));
    EXPECT_EQ(world().consoleText(), "\n");
}

TEST_F(AppServerTest, MessageWithoutNulEndsWithItsField) {
    response_struct reply = {};
    std::memset(reply.message, 'm', sizeof reply.message);
    server_->displayResponseCmd(reply);
    EXPECT_EQ(world().consoleText(), std::string(1024, 'm') + "\n");
}

TEST_F(AppServerTest, LogLineIsCutToItsBuffer) {
    server_->writeLog(kLevelInfo, "%s", std::string(3000, 'l').c_str());
    EXPECT_THAT(onlyLogsOf(kLevelInfo), ElementsAre(std::string(2047, 'l')));
}

} // namespace
