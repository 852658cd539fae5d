#include "platform/Socket.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/UniqueFd.h"

namespace {

using namespace testsupport;
using platform::UniqueFd;

/// A listening socket and one accepted connection.
class Channel : public testing::Test {
protected:
    void SetUp() override {
        address_.sun_family = AF_UNIX;
        const std::string path = directory_.file("socket");
        std::memcpy(address_.sun_path, path.c_str(), path.size() + 1);
        listener_.reset(platform::openUnixStreamSocket());
        ASSERT_TRUE(listener_.valid());
        ASSERT_EQ(platform::bindSocket(listener_.get(), address_), 0);
        ASSERT_EQ(platform::listenOnSocket(listener_.get(), 64), 0);
    }

    void connectAndAccept() {
        client_.reset(platform::openUnixStreamSocket());
        ASSERT_EQ(
            ::connect(client_.get(), reinterpret_cast<const sockaddr*>(&address_), sizeof address_),
            0);
        sockaddr_un peer = {};
        connection_.reset(platform::acceptConnection(listener_.get(), peer));
        ASSERT_TRUE(connection_.valid());
        EXPECT_EQ(peer.sun_family, AF_UNIX);
    }

    TemporaryDirectory directory_;
    sockaddr_un address_ = {};
    UniqueFd listener_;
    UniqueFd client_;
    UniqueFd connection_;
};

TEST_F(Channel, SocketIsNonBlockingAndCloseOnExec) {
    EXPECT_NE(::fcntl(listener_.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(listener_.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Channel, AcceptedConnectionIsBlockingAndCloseOnExec) {
    connectAndAccept();
    EXPECT_EQ(::fcntl(connection_.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(connection_.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Channel, NobodyIsAcceptedWhenNobodyCame) {
    sockaddr_un peer = {};
    EXPECT_EQ(platform::acceptConnection(listener_.get(), peer), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Channel, BytesGoBothWays) {
    connectAndAccept();
    EXPECT_EQ(platform::sendBytes(client_.get(), "request", 7), 7);
    char buffer[16] = "";
    EXPECT_EQ(platform::receiveBytes(connection_.get(), buffer, sizeof buffer), 7);
    EXPECT_STREQ(buffer, "request");
    EXPECT_EQ(platform::sendBytes(connection_.get(), "reply", 5), 5);
    EXPECT_EQ(platform::receiveBytes(client_.get(), buffer, 2), 2);
}

TEST_F(Channel, SendingToAClosedConnectionFailsWithoutASignal) {
    connectAndAccept();
    client_.reset();
    EXPECT_EQ(platform::sendBytes(connection_.get(), "reply", 5), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(Channel, ShuttingDownEndsTheStream) {
    connectAndAccept();
    platform::shutDownWriting(connection_.get());
    char byte = 0;
    EXPECT_EQ(platform::receiveBytes(client_.get(), &byte, 1), 0);
    platform::shutDownWriting(listener_.get()); // never connected
    platform::shutDownWriting(-1);
}

TEST_F(Channel, DuplicateReceivesOnTheSameConnectionAndIsCloseOnExec) {
    connectAndAccept();
    const UniqueFd twin(platform::duplicateConnection(connection_.get()));
    ASSERT_TRUE(twin.valid());
    EXPECT_NE(twin.get(), connection_.get());
    EXPECT_EQ(::fcntl(twin.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    ASSERT_EQ(platform::sendBytes(client_.get(), "ab", 2), 2);
    char received[2] = {};
    EXPECT_EQ(platform::receiveBytes(twin.get(), received, sizeof received), 2);
}

TEST_F(Channel, DuplicateGoesOnReceivingWhenTheConnectionIsClosed) {
    connectAndAccept();
    const UniqueFd twin(platform::duplicateConnection(connection_.get()));
    ASSERT_EQ(platform::sendBytes(connection_.get(), "reply", 5), 5);
    connection_.reset();
    char received[8] = {};
    EXPECT_EQ(platform::receiveBytes(client_.get(), received, sizeof received), 5);
    ASSERT_EQ(platform::sendBytes(client_.get(), "request", 7), 7);
    EXPECT_EQ(platform::receiveBytes(twin.get(), received, sizeof received), 7);
}

TEST_F(Channel, AddressCanBeReused) {
    EXPECT_EQ(platform::allowAddressReuse(listener_.get()), 0);
    int enabled = 0;
    socklen_t size = sizeof enabled;
    ASSERT_EQ(::getsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &enabled, &size), 0);
    EXPECT_NE(enabled, 0);
}

TEST_F(Channel, ASecondSocketCannotTakeTheSamePath) {
    const UniqueFd second(platform::openUnixStreamSocket());
    EXPECT_EQ(platform::bindSocket(second.get(), address_), -1);
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SocketCalls, AddTheNonBlockingFlagToTheOthers) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd reader(ends[0]);
    const UniqueFd writer(ends[1]);
    ASSERT_EQ(::fcntl(writer.get(), F_SETFL, O_APPEND), 0);
    EXPECT_EQ(platform::addNonBlockingFlag(writer.get()), 0);
    EXPECT_EQ(::fcntl(writer.get(), F_GETFL), O_WRONLY | O_APPEND | O_NONBLOCK);
}

TEST(SocketCalls, ReportADescriptorThatIsNotOpen) {
    sockaddr_un address = {};
    char byte = 0;
    const auto expectBadDescriptor = [](long result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, EBADF);
        errno = 0;
    };
    expectBadDescriptor(platform::addNonBlockingFlag(-1));
    expectBadDescriptor(platform::allowAddressReuse(-1));
    expectBadDescriptor(platform::bindSocket(-1, address));
    expectBadDescriptor(platform::listenOnSocket(-1, 64));
    expectBadDescriptor(platform::acceptConnection(-1, address));
    expectBadDescriptor(platform::receiveBytes(-1, &byte, 1));
    expectBadDescriptor(platform::sendBytes(-1, &byte, 1));
}

} // namespace
