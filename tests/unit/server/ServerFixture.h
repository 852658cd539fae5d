// A server that listens, its clients, and the records that pass between them.

#ifndef OVARD_TESTS_UNIT_SERVER_SERVER_FIXTURE_H
#define OVARD_TESTS_UNIT_SERVER_SERVER_FIXTURE_H

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "server/AppServer.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"

namespace serving {

// What nearly all of these tests name.
using fakes::world;
using levels::kLevelDebug;
using levels::kLevelError;
using levels::kLevelInfo;
using platform::WaitResult;
using testing::ElementsAre;
using testing::IsEmpty;

inline constexpr int kRequestSize = 1216;
inline constexpr int kReplySize = 1032;

/// What the fakes hand out: the listening socket first, then one for each client.
inline constexpr int kListener = fakes::kFirstDescriptor;
inline constexpr int kClient = fakes::kFirstDescriptor + 1;
inline constexpr int kNextClient = fakes::kFirstDescriptor + 2;

inline constexpr const char* kSocketPath = "/tmp/appmon_sock";

inline std::string onDescriptor(const char* call, int fd) {
    return std::string(call) + ' ' + std::to_string(fd);
}

inline reqcmd requestFilledWith(char byte) {
    reqcmd request;
    std::memset(&request, byte, sizeof request);
    return request;
}

inline response_struct replyWith(int code, const char* message) {
    response_struct reply = {};
    reply.code = code;
    reply.completed = 1;
    std::strncpy(reply.message, message, sizeof reply.message - 1);
    return reply;
}

template <typename Record> std::string bytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

/// The log lines of one level, after a check that there are no others.
inline std::vector<std::string> onlyLogsOf(int level) {
    EXPECT_EQ(world().logTexts().size(), world().logTexts(level).size());
    return world().logTexts(level);
}

/// Of a type of its own so that it can be deleted although the destructor is not virtual.
class DeletableServer final : public AppServer {};

/// A server that listens, and whose records are fresh.
class ListeningServerTest : public testing::Test {
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

    /// Sends `reply_`.
    int answer() { return server_->sendCommand(&reply_); }

    std::unique_ptr<DeletableServer> server_;
    reqcmd request_ = requestFilledWith('p');
    response_struct reply_ = replyWith(0, "done\n");
};

} // namespace serving

#endif // OVARD_TESTS_UNIT_SERVER_SERVER_FIXTURE_H
