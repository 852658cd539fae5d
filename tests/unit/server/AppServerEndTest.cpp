#include "server/AppServer.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

// --- closeCommunication and the destructor -------------------------------------------------------

using AppServerEndTest = ListeningServerTest;

TEST_F(AppServerEndTest, CloseCommunicationClosesAllAndRemovesTheFile) {
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

TEST_F(AppServerEndTest, CloseCommunicationTwiceClosesNothingTwice) {
    acceptClient();
    server_->closeCommunication();
    world().forgetRecords();
    EXPECT_EQ(server_->closeCommunication(), -1); // what closing the log again gives
    EXPECT_THAT(world().calls, ElementsAre("remove /tmp/appmon_sock"));
    EXPECT_EQ(world().logCloses, 1);
}

TEST_F(AppServerEndTest, SocketFileThatStaysAtTheEndIsShownAndLogged) {
    world().removeErrors[kSocketPath] = EBUSY;
    EXPECT_EQ(server_->closeCommunication(), 0);
    EXPECT_EQ(world().errorText(),
              "closeCommunication: remove socket path error: Device or resource busy\n");
    EXPECT_THAT(onlyLogsOf(kLevelError), ElementsAre("remove socket path error error"));
    EXPECT_EQ(world().logCloses, 1);
}

TEST_F(AppServerEndTest, LogGoesNowhereAfterItsEnd) {
    server_->closeCommunication();
    server_->writeLog(kLevelError, "late");
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerEndTest, DestructorShutsDownTheListenerAndClosesBoth) {
    acceptClient();
    server_.reset();
    EXPECT_THAT(world().calls,
                ElementsAre(onDescriptor("shutdown", kListener), onDescriptor("closefd", kListener),
                            onDescriptor("closefd", kClient)));
}

TEST_F(AppServerEndTest, DestructorAfterCloseCommunicationClosesNothing) {
    acceptClient();
    server_->closeCommunication();
    world().forgetRecords();
    server_.reset();
    EXPECT_THAT(world().calls, IsEmpty());
}

// --- the process-wide instance -------------------------------------------------------------------

/// The process-wide instance as it is, without making it. The explicit instantiation below may name
/// the private member.
AppServer* processWideInstance();

template <AppServer** Member> struct Revealed {
    friend AppServer* processWideInstance() { return *Member; }
};

template struct Revealed<&AppServer::m_pInstance>;

using AppServerInstanceTest = ListeningServerTest;

TEST_F(AppServerInstanceTest, InitCommunicationMakesTheProcessWideInstance) {
    AppServer* const instance = processWideInstance(); // the fixture has called initCommunication
    ASSERT_NE(instance, nullptr);
    EXPECT_NE(instance, server_.get());
    EXPECT_EQ(AppServer::Instance(), instance);
    server_->initCommunication();
    EXPECT_EQ(processWideInstance(), instance);
}

TEST_F(AppServerInstanceTest, DestructorForgetsTheProcessWideInstance) {
    server_.reset();
    EXPECT_EQ(processWideInstance(), nullptr);
}

TEST_F(AppServerInstanceTest, DestructorClosesAndFreesTheProcessWideInstance) {
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

TEST(AppServerConstructorTest, ConstructorMakesNoProcessWideInstance) {
    EXPECT_EQ(processWideInstance(), nullptr);
    AppServer* const instance = AppServer::Instance();
    EXPECT_NE(instance, nullptr);
    EXPECT_EQ(processWideInstance(), instance);
}

} // namespace
} // namespace serving
