#include "client/OvardClient.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/codes.h"
#include "tests/unit/OpenDescriptors.h"
#include "tests/unit/client/TestServer.h"
#include "tests/unit/support/Interruptions.h"

namespace {

using namespace client_test;
using namespace ovard_client;

std::int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void pauseMs(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// A request whose every byte is known.
reqcmd makeRequest() {
    reqcmd request{};
    platform::copyToField(request.name, "meter_app");
    platform::copyToField(request.cmd, "/home/kelvo/root/meter_app -x");
    request.action = APPMONCTL_Restart;
    request.portnum = 502;
    request.last_runtime_life_limit = 600;
    return request;
}

Outcome call(const std::string& path, const reqcmd& request, response_struct* reply,
             std::int32_t timeoutMs = kAmpleMs) {
    const Endpoint endpoint{path.c_str(), timeoutMs};
    return sendRequest(&endpoint, &request, reply);
}

response_struct untouchedReply() {
    response_struct reply;
    std::memset(&reply, 0x5a, sizeof reply);
    return reply;
}

bool isUntouched(const response_struct& reply) {
    const response_struct expected = untouchedReply();
    return std::memcmp(&reply, &expected, sizeof reply) == 0;
}

/// A listening socket that nobody serves and whose queue has no room left.
class FullQueue {
public:
    FullQueue()
        : listener_(bindSocket(path(), SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path().c_str(), path().size() + 1);
        int result = 0;
        while (result == 0) {
            waiting_.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            result = ::connect(waiting_.back().get(), reinterpret_cast<sockaddr*>(&address),
                               sizeof address);
        }
        EXPECT_EQ(errno, EAGAIN);
    }

    std::string path() const { return folder_.file("sock"); }

private:
    TemporaryFolder folder_;
    platform::UniqueFd listener_;
    std::vector<platform::UniqueFd> waiting_;
};

TEST(OvardClient, SendsTheWholeRequestAndReturnsTheWholeReply) {
    const reqcmd request = makeRequest();
    const response_struct sent = makeReply(-20, "meter_app is not found\n");
    reqcmd received{};
    response_struct reply = untouchedReply();
    {
        TestServer server([&](int fd) {
            received = receiveRequest(fd);
            sendBytes(fd, &sent, sizeof sent);
        });
        const Outcome outcome = call(server.path(), request, &reply);
        EXPECT_EQ(outcome.result, Result::Ok);
        EXPECT_EQ(outcome.systemError, 0);
        EXPECT_EQ(outcome.requestSent, 1);
    }
    EXPECT_EQ(std::memcmp(&received, &request, 1216), 0);
    EXPECT_EQ(std::memcmp(&reply, &sent, 1032), 0);
}

TEST(OvardClient, PutsTogetherAReplyThatComesInPieces) {
    const response_struct sent = makeReply(0, std::string(1024, 'm'));
    TestServer server([&](int fd) {
        receiveRequest(fd);
        const auto* bytes = reinterpret_cast<const char*>(&sent);
        const std::size_t ends[] = {1, 3, 8, 9, 700, 1031, 1032};
        std::size_t begin = 0;
        for (const std::size_t end : ends) {
            sendBytes(fd, bytes + begin, end - begin);
            begin = end;
            pauseMs(5);
        }
    });
    response_struct reply = untouchedReply();
    EXPECT_EQ(call(server.path(), makeRequest(), &reply).result, Result::Ok);
    EXPECT_EQ(std::memcmp(&reply, &sent, sizeof sent), 0);
}

TEST(OvardClient, DoesNotWaitForMoreThanOneReply) {
    const response_struct sent = makeReply(0, "done\n");
    TestServer server([&](int fd) {
        receiveRequest(fd);
        sendBytes(fd, &sent, sizeof sent);
        sendBytes(fd, "surplus", 7);
        waitForClose(fd);
    });
    response_struct reply = untouchedReply();
    EXPECT_EQ(call(server.path(), makeRequest(), &reply).result, Result::Ok);
    EXPECT_EQ(std::memcmp(&reply, &sent, sizeof sent), 0);
}

TEST(OvardClient, ReportsAConnectionClosedWithoutReply) {
    TestServer server([](int fd) { receiveRequest(fd); });
    response_struct reply = untouchedReply();
    const Outcome outcome = call(server.path(), makeRequest(), &reply);
    EXPECT_EQ(outcome.result, Result::ConnectionClosed);
    EXPECT_EQ(outcome.requestSent, 1);
    EXPECT_TRUE(isUntouched(reply));
}

TEST(OvardClient, ReportsAConnectionClosedOneByteBeforeTheEndOfTheReply) {
    const response_struct sent = makeReply(0, "almost\n");
    TestServer server([&](int fd) {
        receiveRequest(fd);
        sendBytes(fd, &sent, sizeof sent - 1);
    });
    response_struct reply = untouchedReply();
    const Outcome outcome = call(server.path(), makeRequest(), &reply);
    EXPECT_EQ(outcome.result, Result::ConnectionClosed);
    EXPECT_EQ(outcome.requestSent, 1);
    EXPECT_TRUE(isUntouched(reply));
}

TEST(OvardClient, SurvivesAServerThatHangsUpAtOnce) {
    TestServer server([](int) {});
    for (int round = 0; round < 100; ++round) {
        response_struct reply = untouchedReply();
        ASSERT_EQ(call(server.path(), makeRequest(), &reply).result, Result::ConnectionClosed);
        ASSERT_TRUE(isUntouched(reply));
    }
}

TEST(OvardClient, TimesOutWhenNoReplyComes) {
    TestServer server([](int fd) {
        receiveRequest(fd);
        waitForClose(fd);
    });
    response_struct reply = untouchedReply();
    const std::int64_t start = nowMs();
    const Outcome outcome = call(server.path(), makeRequest(), &reply, 150);
    const std::int64_t spent = nowMs() - start;
    EXPECT_EQ(outcome.result, Result::TimedOut);
    EXPECT_EQ(outcome.requestSent, 1);
    EXPECT_GE(spent, 149);
    EXPECT_LT(spent, 5000);
    EXPECT_TRUE(isUntouched(reply));
}

TEST(OvardClient, TimesOutOverTheWholeCallWhenTheReplyTrickles) {
    TestServer server([](int fd) {
        receiveRequest(fd);
        // Would take more than ten seconds in all, though no single wait is long.
        while (::send(fd, "x", 1, MSG_NOSIGNAL) == 1) {
            pauseMs(10);
        }
    });
    response_struct reply = untouchedReply();
    const std::int64_t start = nowMs();
    EXPECT_EQ(call(server.path(), makeRequest(), &reply, 200).result, Result::TimedOut);
    EXPECT_LT(nowMs() - start, 5000);
    EXPECT_TRUE(isUntouched(reply));
}

TEST(OvardClient, TimesOutWhenTheServersQueueIsFull) {
    const FullQueue server;
    response_struct reply = untouchedReply();
    const std::int64_t start = nowMs();
    const Outcome outcome = call(server.path(), makeRequest(), &reply, 150);
    const std::int64_t spent = nowMs() - start;
    EXPECT_EQ(outcome.result, Result::TimedOut);
    EXPECT_EQ(outcome.requestSent, 0);
    EXPECT_GE(spent, 140);
    EXPECT_LT(spent, 5000);
}

TEST(OvardClient, ReportsAMissingSocket) {
    const TemporaryFolder folder;
    response_struct reply = untouchedReply();
    const Outcome outcome = call(folder.file("none"), makeRequest(), &reply);
    EXPECT_EQ(outcome.result, Result::NoMonitor);
    EXPECT_EQ(outcome.systemError, ENOENT);
    EXPECT_EQ(outcome.requestSent, 0);
    EXPECT_TRUE(isUntouched(reply));
}

TEST(OvardClient, ReportsASocketOnWhichNobodyListens) {
    const TemporaryFolder folder;
    bindSocket(folder.file("left"), SOCK_STREAM, 8).reset();
    response_struct reply = untouchedReply();
    const Outcome outcome = call(folder.file("left"), makeRequest(), &reply);
    EXPECT_EQ(outcome.result, Result::NoMonitor);
    EXPECT_EQ(outcome.systemError, ECONNREFUSED);
}

TEST(OvardClient, KeepsTheErrorOfASocketOfAnotherKind) {
    const TemporaryFolder folder;
    const platform::UniqueFd other = bindSocket(folder.file("sock"), SOCK_DGRAM, -1);
    response_struct reply = untouchedReply();
    const Outcome outcome = call(folder.file("sock"), makeRequest(), &reply);
    EXPECT_EQ(outcome.result, Result::SystemError);
    EXPECT_EQ(outcome.systemError, EPROTOTYPE);
}

TEST(OvardClient, AwaitsNothingWhenNowaitIsSet) {
    for (const std::uint8_t nowait : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{255}}) {
        reqcmd request = makeRequest();
        request.nowait = nowait;
        reqcmd received{};
        response_struct reply = untouchedReply();
        {
            TestServer server([&](int fd) { received = receiveRequest(fd); });
            const Outcome outcome = call(server.path(), request, &reply);
            EXPECT_EQ(outcome.result, Result::Ok);
            EXPECT_EQ(outcome.requestSent, 1);
            EXPECT_EQ(call(server.path(), request, nullptr).result, Result::Ok);
        }
        EXPECT_EQ(std::memcmp(&received, &request, sizeof request), 0);
        EXPECT_TRUE(isUntouched(reply));
    }
}

TEST(OvardClient, GoesOnAfterSignals) {
    const response_struct sent = makeReply(0, "late\n");
    TestServer server([&](int fd) {
        receiveRequest(fd);
        pauseMs(100);
        sendBytes(fd, &sent, 500);
        pauseMs(100);
        sendBytes(fd, reinterpret_cast<const char*>(&sent) + 500, sizeof sent - 500);
    });
    const Interruptions interruptions(3);
    response_struct reply = untouchedReply();
    EXPECT_EQ(call(server.path(), makeRequest(), &reply).result, Result::Ok);
    EXPECT_EQ(std::memcmp(&reply, &sent, sizeof sent), 0);
    EXPECT_GT(interruptions.count(), 3);
}

TEST(OvardClient, SignalsDoNotLengthenTheWaitForAReply) {
    TestServer server([](int fd) {
        receiveRequest(fd);
        waitForClose(fd);
    });
    const Interruptions interruptions(3);
    response_struct reply = untouchedReply();
    const std::int64_t start = nowMs();
    EXPECT_EQ(call(server.path(), makeRequest(), &reply, 150).result, Result::TimedOut);
    const std::int64_t spent = nowMs() - start;
    EXPECT_GE(spent, 149);
    EXPECT_LT(spent, 5000);
    EXPECT_GT(interruptions.count(), 3);
}

TEST(OvardClient, SignalsDoNotLengthenTheWaitForTheConnection) {
    const FullQueue server;
    const Interruptions interruptions(3);
    response_struct reply = untouchedReply();
    const std::int64_t start = nowMs();
    EXPECT_EQ(call(server.path(), makeRequest(), &reply, 150).result, Result::TimedOut);
    const std::int64_t spent = nowMs() - start;
    EXPECT_GE(spent, 140);
    EXPECT_LT(spent, 5000);
    EXPECT_GT(interruptions.count(), 3);
}

TEST(OvardClient, RefusesWrongArguments) {
    const reqcmd request = makeRequest();
    response_struct reply = untouchedReply();
    const Endpoint good{"/nonexistent", 100};
    const Endpoint noPath{nullptr, 100};
    const Endpoint emptyPath{"", 100};
    const Endpoint noTime{"/nonexistent", 0};
    const Endpoint negativeTime{"/nonexistent", -1};
    const Outcome outcomes[] = {
        sendRequest(nullptr, &request, &reply),       sendRequest(&good, nullptr, &reply),
        sendRequest(&good, &request, nullptr),        sendRequest(&noPath, &request, &reply),
        sendRequest(&emptyPath, &request, &reply),    sendRequest(&noTime, &request, &reply),
        sendRequest(&negativeTime, &request, &reply),
    };
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.result, Result::SystemError);
        EXPECT_EQ(outcome.systemError, EINVAL);
        EXPECT_EQ(outcome.requestSent, 0);
    }
    EXPECT_TRUE(isUntouched(reply));
}

TEST(OvardClient, TakesSocketPathsOf107CharactersAtMost) {
    response_struct reply = untouchedReply();
    const std::string longest = "/tmp/" + std::string(102, 'n');
    EXPECT_EQ(call(longest, makeRequest(), &reply).systemError, ENOENT);
    const Outcome outcome = call(longest + "n", makeRequest(), &reply);
    EXPECT_EQ(outcome.result, Result::SystemError);
    EXPECT_EQ(outcome.systemError, ENAMETOOLONG);
}

TEST(OvardClient, LeavesNoDescriptorOpen) {
    TestServer silent([](int fd) {
        receiveRequest(fd);
        waitForClose(fd);
    });
    const TemporaryFolder folder;
    const std::size_t before = openDescriptors().size();
    for (int round = 0; round < 5; ++round) {
        response_struct reply = untouchedReply();
        call(folder.file("none"), makeRequest(), &reply);
        call(silent.path(), makeRequest(), &reply, 20);
    }
    // The server's side of the last connection closes a moment after ours.
    const std::int64_t patience = nowMs() + 5000;
    while (openDescriptors().size() > before && nowMs() < patience) {
        pauseMs(1);
    }
    EXPECT_EQ(openDescriptors().size(), before);
}

/// Sends the reply with a descriptor, as a stranger in the monitor's place could.
void sendWithDescriptor(int connection, const response_struct& reply, int descriptor) {
    response_struct content = reply;
    iovec bytes = {&content, sizeof content};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
    msghdr message = {};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    EXPECT_EQ(::sendmsg(connection, &message, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof content));
}

TEST(OvardClient, KeepsNoDescriptorThatComesWithAReply) {
    const std::vector<int> before = openDescriptors();
    {
        const TestServer server([](int fd) {
            (void)receiveRequest(fd);
            sendWithDescriptor(fd, makeReply(0, "done"), fd);
            waitForClose(fd);
        });
        response_struct reply = untouchedReply();
        EXPECT_EQ(call(server.path(), makeRequest(), &reply).result, Result::Ok);
        EXPECT_EQ(platform::fieldText(reply.message), "done");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(OvardClient, ClosesItsDescriptorOnExec) {
    const response_struct sent = makeReply(0, "done\n");
    std::vector<int> before;
    int checked = 0;
    {
        TestServer server([&](int fd) {
            receiveRequest(fd);
            for (const int descriptor : openDescriptors()) {
                const bool isNew =
                    std::find(before.begin(), before.end(), descriptor) == before.end();
                if (isNew && descriptor != fd) {
                    EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
                    ++checked;
                }
            }
            sendBytes(fd, &sent, sizeof sent);
        });
        before = openDescriptors();
        response_struct reply = untouchedReply();
        EXPECT_EQ(call(server.path(), makeRequest(), &reply).result, Result::Ok);
    }
    EXPECT_EQ(checked, 1);
}

} // namespace
