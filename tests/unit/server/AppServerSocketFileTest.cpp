// A socket file that is removed, replaced or covered while the monitor runs.

#include <cerrno>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

constexpr int kFresh = kListener + 1;

const std::string kLost = "/tmp/appmon_sock is not the control socket any more";
const std::string kBack = "/tmp/appmon_sock is the control socket again";

class AppServerSocketFileTest : public ListeningServerTest {
protected:
    static void removeSocketFile() { world().fileNumbers.erase(kSocketPath); }

    static void removeOnceItListens(const std::string& call) {
        if (call.rfind("listen ", 0) == 0) {
            removeSocketFile();
        }
    }

    /// No client comes.
    void letTheTimePass() {
        world().waitResults = {WaitResult::TimedOut};
        EXPECT_EQ(receive(), -1);
    }

    /// A client comes, which is served, whatever becomes of the socket, and others behind it or
    /// none.
    void letAClientCome(WaitResult others = WaitResult::TimedOut) {
        world().waitResults = {WaitResult::Ready, others};
        world().scriptReceive(requestFilledWith('c'));
        EXPECT_EQ(receive(), kRequestSize);
    }

    static std::vector<std::string> socketCalls() { return world().callsWithout({"wait"}); }
};

TEST_F(AppServerSocketFileTest, IsLeftAloneWhileItIsThere) {
    letTheTimePass();
    EXPECT_THAT(socketCalls(), IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerSocketFileTest, IsMadeAnewWhereItIsMissing) {
    removeSocketFile();
    letTheTimePass();
    const std::string fresh = std::to_string(kFresh);
    EXPECT_THAT(socketCalls(),
                ElementsAre("socket", "remove /tmp/appmon_sock",
                            "bind " + fresh + " /tmp/appmon_sock", "listen " + fresh + " 64",
                            onDescriptor("closefd", kListener)));
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre(kLost));
    EXPECT_THAT(world().logTexts(kLevelInfo), ElementsAre(kBack));
    EXPECT_EQ(world().errorText(), "");
}

TEST_F(AppServerSocketFileTest, ClientsAreServedThroughTheNewOne) {
    removeSocketFile();
    letTheTimePass();
    world().forgetRecords();
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_THAT(world().callsOf("accept"), ElementsAre(onDescriptor("accept", kFresh)));
}

TEST_F(AppServerSocketFileTest, NewOneIsLeftAlone) {
    removeSocketFile();
    letTheTimePass();
    world().forgetRecords();
    letTheTimePass();
    EXPECT_THAT(socketCalls(), IsEmpty());
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerSocketFileTest, WhatHasItsNameIsReplaced) {
    world().fileNumbers[kSocketPath] = 7;
    world().existingPaths.insert(kSocketPath);
    letTheTimePass();
    EXPECT_EQ(world().existingPaths.count(kSocketPath), 0U);
    EXPECT_EQ(world().count("bind"), 1U);
}

TEST_F(AppServerSocketFileTest, OldOneStaysOpenUntilTheNewOneListens) {
    removeSocketFile();
    world().bindResults = {{-1, ENOENT}, {-1, ENOENT}, {-1, ENOENT}};
    letTheTimePass();
    world().socketResults = {{-1, EMFILE}};
    letTheTimePass();
    world().listenResults = {{-1, ENOMEM}};
    letTheTimePass();
    EXPECT_EQ(world().count("closefd"), 0U);
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost)) << "once, whatever fails";
}

TEST_F(AppServerSocketFileTest, IsTriedAgainEachTime) {
    removeSocketFile();
    world().bindResults = {{-1, EROFS}, {-1, EROFS}, {-1, EROFS}};
    letTheTimePass();
    letTheTimePass();
    EXPECT_EQ(world().count("bind"), 4U);
    EXPECT_EQ(world().callsOf("closefd").size(), 1U);
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost, kBack));
}

TEST_F(AppServerSocketFileTest, ComesBackWithItsFolder) {
    const ino_t number = world().fileNumbers[kSocketPath];
    removeSocketFile();
    world().bindResults = {{-1, ENOENT}, {-1, ENOENT}, {-1, ENOENT}};
    letTheTimePass();
    world().fileNumbers[kSocketPath] = number;
    world().forgetRecords();
    letTheTimePass();
    EXPECT_THAT(socketCalls(), IsEmpty());
    EXPECT_THAT(onlyLogsOf(kLevelInfo), ElementsAre(kBack));
}

TEST_F(AppServerSocketFileTest, IsMadeAnewWhileClientsCome) {
    removeSocketFile();
    world().advance(2000);
    letAClientCome();
    const std::string fresh = std::to_string(kFresh + 1);
    EXPECT_THAT(socketCalls(),
                ElementsAre(onDescriptor("accept", kListener), "socket", "remove /tmp/appmon_sock",
                            "bind " + fresh + " /tmp/appmon_sock", "listen " + fresh + " 64",
                            onDescriptor("closefd", kListener),
                            onDescriptor("recv", kClient) + ' ' + std::to_string(kRequestSize)));
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost, kBack));
}

TEST_F(AppServerSocketFileTest, StaysWhileClientsWaitAtIt) {
    removeSocketFile();
    world().advance(2000);
    letAClientCome(WaitResult::Ready);
    EXPECT_EQ(world().count("bind"), 0U);
    letAClientCome();
    EXPECT_EQ(world().count("bind"), 1U);
}

TEST_F(AppServerSocketFileTest, IsNotTakenForLostWhereThatCannotBeTold) {
    const ino_t number = world().fileNumbers[kSocketPath];
    world().fileNumbers[kSocketPath] = 0;
    letTheTimePass();
    EXPECT_EQ(world().count("bind"), 0U);
    EXPECT_THAT(world().log, IsEmpty());
    world().fileNumbers[kSocketPath] = number;
    letTheTimePass();
    EXPECT_EQ(world().count("bind"), 0U);
}

TEST_F(AppServerSocketFileTest, IsLookedAtEveryTwoSecondsWhileClientsCome) {
    world().advance(2000);
    letAClientCome();
    removeSocketFile();
    world().advance(1999);
    letAClientCome();
    EXPECT_EQ(world().count("bind"), 0U);
    world().advance(1);
    letAClientCome();
    EXPECT_EQ(world().count("bind"), 1U);
}

TEST_F(AppServerSocketFileTest, IsNotLookedAtWhereNobodyCouldCome) {
    removeSocketFile();
    world().waitResults = {WaitResult::Failed};
    EXPECT_EQ(receive(), -1);
    world().terminationIsPending = true;
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(world().count("socket"), 0U);
}

/// The look right after the binding finds nothing.
TEST_F(AppServerSocketFileTest, IsMadeAnewWhereTheNewOneIsLostAtOnce) {
    removeSocketFile();
    world().onCall = removeOnceItListens;
    letTheTimePass();
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost)) << "it is not there";
    EXPECT_EQ(world().count("closefd"), 0U) << "the folder of the old one may come back";
    world().onCall = nullptr;
    letTheTimePass();
    EXPECT_EQ(world().count("bind"), 2U);
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost, kBack));
    letTheTimePass();
    EXPECT_EQ(world().count("bind"), 2U);
}

TEST_F(AppServerSocketFileTest, IsMadeAnewWhereTheFirstOneIsLostAtOnce) {
    world().onCall = removeOnceItListens;
    DeletableServer server;
    ASSERT_EQ(server.initCommunication(), 0);
    world().onCall = nullptr;
    world().forgetRecords();
    world().waitResults = {WaitResult::TimedOut};
    EXPECT_EQ(server.recvCommand(request_), -1);
    EXPECT_EQ(world().count("bind"), 1U);
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost, kBack));
}

TEST_F(AppServerSocketFileTest, LossIsMendedEachTimeAndToldOnceAMinute) {
    const auto lose = [this](std::size_t times) {
        for (std::size_t time = 0; time < times; ++time) {
            removeSocketFile();
            letTheTimePass(); // two seconds
        }
    };
    lose(30);
    EXPECT_EQ(world().count("bind"), 30U);
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost, kBack));
    lose(1);
    EXPECT_EQ(world().count("bind"), 31U);
    EXPECT_THAT(world().logTexts(), ElementsAre(kLost, kBack, kLost, kBack));
}

TEST_F(AppServerSocketFileTest, EndClosesTheNewOne) {
    removeSocketFile();
    letTheTimePass();
    world().forgetRecords();
    EXPECT_EQ(server_->closeCommunication(), 0);
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kFresh)));
}

} // namespace
} // namespace serving
