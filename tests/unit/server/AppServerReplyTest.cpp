#include "server/AppServer.h"

#include <cerrno>
#include <cstddef>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"
#include "tests/unit/server/ServerFixture.h"

namespace serving {
namespace {

std::string sendCall(int size) {
    return onDescriptor("send", kClient) + ' ' + std::to_string(size);
}

class AppServerReplyTest : public ListeningServerTest {
protected:
    /// The connection is not used, and not closed, once more.
    void expectForgottenConnection() {
        world().forgetRecords();
        answer();
        EXPECT_THAT(world().calls, ElementsAre("send -1 1032"));
    }
};

TEST_F(AppServerReplyTest, ReplyIsShownSentAndTheConnectionClosed) {
    acceptClient();
    reply_ = replyWith(-20, "not found\n");
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply_));
    EXPECT_EQ(world().consoleText(), " Error is detected with code =-20\nnot found\n\n");
    EXPECT_THAT(world().calls, ElementsAre(sendCall(kReplySize), onDescriptor("closefd", kClient)));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReplyTest, ConnectionIsClosedOnlyOnce) {
    acceptClient();
    answer();
    server_->closeCommunication();
    server_.reset();
    EXPECT_THAT(world().callsOf("closefd"),
                ElementsAre(onDescriptor("closefd", kClient), onDescriptor("closefd", kListener)));
}

TEST_F(AppServerReplyTest, PartialWriteIsCompletedByTheNextAttempt) {
    acceptClient();
    world().sendResults = {{1000, 0}};
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply_));
    EXPECT_THAT(world().calls, ElementsAre(sendCall(1032), "yield", sendCall(32),
                                           onDescriptor("closefd", kClient)));
}

TEST_F(AppServerReplyTest, ReplyInThreePiecesIsWhole) {
    acceptClient();
    world().sendResults = {{1, 0}, {1030, 0}, {1, 0}};
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply_));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReplyTest, ReplyThatThreePiecesDoNotCompleteFails) {
    acceptClient();
    world().sendResults = {{1, 0}, {1, 0}, {1, 0}};
    EXPECT_EQ(answer(), -1);
    EXPECT_EQ(world().count("send"), 3U);
    EXPECT_EQ(world().logTexts(kLevelDebug).size(), 1U);
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kClient)));
}

TEST_F(AppServerReplyTest, BrokenConnectionIsLoggedAfterThreeAttempts) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    EXPECT_EQ(answer(), -1);
    EXPECT_THAT(world().calls, ElementsAre(sendCall(1032), "yield", sendCall(1032), "yield",
                                           sendCall(1032), onDescriptor("closefd", kClient)));
    EXPECT_THAT(onlyLogsOf(kLevelDebug), ElementsAre("sendCommand(): sendto error=32"));
}

TEST_F(AppServerReplyTest, BrokenConnectionIsLoggedBeforeItIsClosed) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    std::size_t linesAtTheClose = 0;
    world().onCall = [&](const std::string& call) {
        if (call == onDescriptor("closefd", kClient)) {
            linesAtTheClose = world().log.size();
        }
    };
    EXPECT_EQ(answer(), -1);
    world().onCall = nullptr;
    EXPECT_EQ(linesAtTheClose, 1U);
}

TEST_F(AppServerReplyTest, BrokenConnectionIsForgotten) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    EXPECT_EQ(answer(), -1);
    expectForgottenConnection();
}

TEST_F(AppServerReplyTest, AnsweredConnectionIsForgotten) {
    acceptClient();
    EXPECT_EQ(answer(), 0);
    expectForgottenConnection();
}

TEST_F(AppServerReplyTest, ReplyIsShownBeforeItIsWritten) {
    acceptClient();
    std::string shown;
    world().onSend = [&](int) { shown = world().consoleText(); };
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(shown, "done\n\n");
}

TEST_F(AppServerReplyTest, InterruptedWriteIsTriedAgain) {
    acceptClient();
    world().sendResults = {{-1, EINTR}, {-1, EINTR}};
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply_));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_F(AppServerReplyTest, ConnectionAcceptedDuringTheReplyIsKept) {
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

TEST_F(AppServerReplyTest, DroppedClientGetsNothing) {
    acceptClient();
    server_->dropClient();
    EXPECT_THAT(world().calls, ElementsAre(onDescriptor("closefd", kClient)));
    expectForgottenConnection();
}

TEST_F(AppServerReplyTest, WithoutAConnectionNothingIsDropped) {
    server_->dropClient();
    EXPECT_THAT(world().calls, IsEmpty());
}

TEST_F(AppServerReplyTest, ConnectionThatIsBeingAnsweredIsNotDropped) {
    acceptClient();
    world().onSend = [this](int) { server_->dropClient(); };
    EXPECT_EQ(answer(), 0);
    EXPECT_THAT(world().calls, ElementsAre(sendCall(kReplySize), onDescriptor("closefd", kClient)));
}

TEST_F(AppServerReplyTest, ReplyWithoutAConnectionFailsAndClosesNothing) {
    world().sendResults = {{-1, EBADF}, {-1, EBADF}, {-1, EBADF}};
    EXPECT_EQ(answer(), -1);
    EXPECT_THAT(world().logTexts(kLevelDebug), ElementsAre("sendCommand(): sendto error=9"));
    EXPECT_EQ(world().count("closefd"), 0U);
}

TEST_F(AppServerReplyTest, UnansweredConnectionIsReplacedAndNotClosed) {
    acceptClient();
    world().scriptReceive(requestFilledWith('n'));
    EXPECT_EQ(receive(), kRequestSize);
    EXPECT_EQ(world().count("closefd"), 0U);
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().sentTo(kClient), "");
    EXPECT_EQ(world().sentTo(kNextClient), bytesOf(reply_));
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kNextClient)));
}

TEST_F(AppServerReplyTest, TimeOutKeepsTheConnectionForItsReply) {
    acceptClient();
    world().waitResults = {WaitResult::TimedOut};
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().sentTo(kClient), bytesOf(reply_));
}

class AppServerVanishedReaderTest : public AppServerReplyTest,
                                    public testing::WithParamInterface<int> {};

TEST_P(AppServerVanishedReaderTest, ReplyEndsWithSuccessAtTheFirstAttempt) {
    acceptClient();
    world().sendResults = {{-1, GetParam()}};
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().count("send"), 1U);
    EXPECT_THAT(world().callsOf("closefd"), ElementsAre(onDescriptor("closefd", kClient)));
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_P(AppServerVanishedReaderTest, ReplyEndsWithSuccessAtTheLastAttempt) {
    acceptClient();
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, GetParam()}};
    EXPECT_EQ(answer(), 0);
    EXPECT_EQ(world().count("send"), 3U);
    EXPECT_THAT(world().log, IsEmpty());
}

TEST_P(AppServerVanishedReaderTest, ReplyForgetsTheConnection) {
    acceptClient();
    world().sendResults = {{-1, GetParam()}};
    answer();
    expectForgottenConnection();
}

INSTANTIATE_TEST_SUITE_P(Errors, AppServerVanishedReaderTest, testing::Values(EINVAL, ENOTCONN));

} // namespace
} // namespace serving
