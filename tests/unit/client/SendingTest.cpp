#include "client/ovardctl/Sending.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using ovard_client::Result;

CommandLine commandLineFor(const std::string& socketPath) {
    CommandLine commandLine;
    commandLine.verdict = Verdict::Send;
    commandLine.socketPath = socketPath;
    commandLine.timeoutSec = 20;
    commandLine.request.action = 1;
    platform::copyToField(commandLine.request.name, "meter");
    return commandLine;
}

void ignoreTick(std::int64_t /*elapsedSec*/) {}

bool interruptIsBlocked() {
    sigset_t mask;
    EXPECT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
    return sigismember(&mask, SIGINT) == 1;
}

TEST(Sending, BringsTheReply) {
    reqcmd received{};
    Sending sending;
    {
        const response_struct reply = makeReply(-20, "meter is not found\n");
        TestServer server([&](int fd) {
            received = receiveRequest(fd);
            sendBytes(fd, &reply, sizeof reply);
        });
        sending = sendWatched(commandLineFor(server.path()), ignoreTick);
    }
    EXPECT_FALSE(sending.isInterrupted);
    EXPECT_EQ(sending.outcome.result, Result::Ok);
    EXPECT_EQ(sending.reply.code, -20);
    EXPECT_EQ(platform::fieldText(sending.reply.message), "meter is not found\n");
    const reqcmd sent = commandLineFor("").request;
    EXPECT_EQ(std::memcmp(&received, &sent, sizeof sent), 0);
    EXPECT_FALSE(interruptIsBlocked());
}

TEST(Sending, BringsTheFailure) {
    const TemporaryFolder folder;
    const Sending sending = sendWatched(commandLineFor(folder.file("none")), ignoreTick);
    EXPECT_FALSE(sending.isInterrupted);
    EXPECT_EQ(sending.outcome.result, Result::NoMonitor);
}

TEST(Sending, TicksOnceASecond) {
    const response_struct reply = makeReply(0, "");
    TestServer server([&](int fd) {
        receiveRequest(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        sendBytes(fd, &reply, sizeof reply);
    });
    std::vector<std::int64_t> ticks;
    const Sending sending =
        sendWatched(commandLineFor(server.path()),
                    [&ticks](std::int64_t elapsedSec) { ticks.push_back(elapsedSec); });
    EXPECT_EQ(sending.outcome.result, Result::Ok);
    EXPECT_EQ(ticks, (std::vector<std::int64_t>{1, 2}));
}

TEST(Sending, IsLeftOnInterrupt) {
    std::promise<void> left;
    TestServer server([&left](int fd) {
        receiveRequest(fd);
        EXPECT_EQ(::kill(::getpid(), SIGINT), 0);
        left.get_future().wait();
    });
    const Sending sending = sendWatched(commandLineFor(server.path()), ignoreTick);
    left.set_value();
    EXPECT_TRUE(sending.isInterrupted);
    EXPECT_FALSE(interruptIsBlocked());
    // It was taken, and does nothing to the program any more.
    sigset_t pending;
    ASSERT_EQ(::sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGINT), 0);
}

TEST(Sending, GoesOnWhereTheInterruptIsIgnored) {
    const auto before = std::signal(SIGINT, SIG_IGN);
    const response_struct reply = makeReply(0, "");
    {
        TestServer server([&](int fd) {
            receiveRequest(fd);
            EXPECT_EQ(::kill(::getpid(), SIGINT), 0);
            sendBytes(fd, &reply, sizeof reply);
        });
        const Sending sending = sendWatched(commandLineFor(server.path()), ignoreTick);
        EXPECT_FALSE(sending.isInterrupted);
        EXPECT_EQ(sending.outcome.result, Result::Ok);
    }
    (void)std::signal(SIGINT, before);
}

} // namespace
