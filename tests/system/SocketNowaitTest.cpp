// Requests that are not answered.

#include <memory>
#include <string>
#include <vector>

#include "tests/system/SocketSupport.h"

namespace systemtest {
namespace {

using SocketNowait = SocketTest;

TEST_F(SocketNowait, NowaitRequestIsExecutedButNotAnswered) {
    start();
    const std::size_t before = descriptorsAtRest();
    reqcmd request = stopRequest("quiet");
    request.nowait = 1;
    Client client;
    ASSERT_TRUE(sendRequest(client, request));
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Stop quiet"));
    expectSilence(client);
    EXPECT_EQ(countLog(6, "quiet is not found"), 0U);
    expectServing(); // another connection takes its place ...
    expectSilence(client);
    EXPECT_TRUE(descriptorsBecome(before + 1)); // ... and it is still open
    EXPECT_EQ(daemon_.terminate().text(), "status 0");
    expectEnd(client);
}

TEST_F(SocketNowait, AnyValueButZeroMeansNowait) {
    start();
    reqcmd request = stopRequest("quiet");
    request.nowait = 0x80;
    Client client;
    ASSERT_TRUE(sendRequest(client, request));
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Stop quiet"));
    expectSilence(client);
}

TEST_F(SocketNowait, UnknownActionsAreNotAnswered) {
    start();
    std::size_t count = 0;
    for (const int action : {11, -1, 2147483647}) {
        Client client;
        ASSERT_TRUE(sendRequest(client, makeRequest(action, "odd", "/odd")));
        ++count;
        ASSERT_TRUE(eventually([&] { return countLog(6, "request.action=UNKNOWN") == count; }));
        expectSilence(client, 200);
        const std::string number = std::to_string(action);
        EXPECT_TRUE(waitForLog(7, "processRequest: action=" + number + " name=odd, cmd=/odd"));
        EXPECT_TRUE(eventually([&] {
            return consoleHas("processCmd() request.action=UNKNOWN(" + number + ")\n") == 1;
        }));
        EXPECT_TRUE(eventually(
            [&] { return consoleHas("request.action=" + number + ", cmd=\"/odd\")=-8\n") == 1; }));
    }
    expectServing();
}

TEST_F(SocketNowait, UnknownActionIsSilentOnTheConsoleAtVerbosity5) {
    start({"-v", "5"});
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(11)));
    ASSERT_TRUE(waitForLog(6, "request.action=UNKNOWN"));
    EXPECT_TRUE(eventually([&] { return consoleHas("cmd=\"\")=-8\n") == 1; }));
    EXPECT_EQ(consoleHas("UNKNOWN"), 0U);
}

TEST_F(SocketNowait, ReservedActionsDoNothing) {
    start();
    std::vector<std::string> expected = daemonLogTexts();
    for (const int action : {APPMONCTL_Reserved9, APPMONCTL_Reserved10}) {
        Client client;
        ASSERT_TRUE(sendRequest(client, makeRequest(action, "idle")));
        const std::string number = std::to_string(action);
        ASSERT_TRUE(eventually(
            [&] { return consoleHas("request.action=" + number + ", cmd=\"\")=0\n") == 1; }));
        expectSilence(client, 200);
        expected.push_back("processRequest: action=" + number + " name=idle, cmd=");
    }
    EXPECT_EQ(daemonLogTexts(), expected);
    expectServing();
}

// Each request takes the main loop a second.
TEST_F(SocketNowait, FiftyInARowLeaveFiftyConnections) {
    start({"-v", "4"});
    const std::size_t before = descriptorsAtRest();
    constexpr std::size_t kRequests = 50;
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t count = 1; count <= kRequests; ++count) {
        reqcmd request = stopRequest("quiet" + std::to_string(count));
        request.nowait = 1;
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(sendRequest(*clients.back(), request));
    }
    for (std::size_t count = 1; count <= kRequests; ++count) {
        const std::string line =
            "processCmd() request.action=APPMONCTL_Stop quiet" + std::to_string(count);
        ASSERT_TRUE(waitForLog(7, line)) << line;
        EXPECT_TRUE(eventually([&] { return descriptors() >= before + count; })) << count;
    }
    expectServing();
    for (const auto& client : clients) {
        expectSilence(*client, 0);
    }
    EXPECT_TRUE(descriptorsBecome(before + kRequests));
    EXPECT_EQ(daemon_.terminate().text(), "status 0");
    for (const auto& client : clients) {
        expectEnd(*client);
    }
}

} // namespace
} // namespace systemtest
