#include "server/AppServer.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/ExitStatus.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

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

} // namespace
} // namespace serving
