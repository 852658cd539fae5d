// Requests of several clients at once.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/SocketSupport.h"

namespace systemtest {
namespace {

using SocketQueue = SocketTest;

/// The main loop's pause after a request.
constexpr int kServedPauseMs = 1000;

TEST_F(SocketQueue, ClientsThatCameAtOnceAreServedInTheirOrder) {
    start();
    constexpr int kClients = 5;
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < kClients; ++count) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(sendRequest(*clients.back(), stopRequest("app" + std::to_string(count))));
    }
    const std::int64_t begin = monotonicMs();
    for (int count = 0; count < kClients; ++count) {
        const auto reply = clients[static_cast<std::size_t>(count)]->receiveReply();
        ASSERT_TRUE(reply) << count;
        EXPECT_EQ(messageOf(*reply), "app" + std::to_string(count) + " is not found\n");
    }
    // A served request holds up the next one for a second.
    EXPECT_GE(monotonicMs() - begin, (kClients - 1) * kServedPauseMs - 100);
    EXPECT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Stop app4")); // collected late
    std::vector<std::string> executed;
    for (const std::string& text : daemonLogTexts(7)) {
        if (text.find("processCmd()") == 0) {
            executed.push_back(text.substr(text.rfind(' ') + 1));
        }
    }
    EXPECT_EQ(executed, (std::vector<std::string>{"app0", "app1", "app2", "app3", "app4"}));
}

TEST_F(SocketQueue, RequestsQueuedBehindASlowOneAreExecutedInOrderAndItsReplyGoesToTheLastClient) {
    start({"-v", "4"});
    const std::string program = installSample("slow");
    const std::string command = program + " --daemonize-after 4500";
    Client slow;
    ASSERT_TRUE(sendRequest(slow, makeRequest(APPMONCTL_Start, "slow", command)));
    Client second;
    ASSERT_TRUE(sendRequest(second, stopRequest("second")));
    Client third;
    ASSERT_TRUE(sendRequest(third, stopRequest("third")));

    // The connection is one word: the last one accepted gets the reply that is pending.
    const auto reply = third.receiveReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(messageOf(*reply).find("slow [pid="), 0U) << messageOf(*reply);
    expectEnd(third);
    expectSilence(slow, 500);
    expectSilence(second, 0);
    EXPECT_TRUE(eventually([] { return countLog(7, "sendCommand(): sendto error=9") == 2; }));
    EXPECT_EQ(consoleHas("processCmd(reqlist.size=0, request.action=0, request.name=slow, cmd=\"" +
                         command + "\")\n"),
              1U);
    const std::size_t ofSecond =
        daemon_.console().find("processCmd(reqlist.size=1, request.action=1, request.name=second");
    const std::size_t ofThird =
        daemon_.console().find("processCmd(reqlist.size=0, request.action=1, request.name=third");
    ASSERT_NE(ofSecond, std::string::npos) << daemon_.console();
    ASSERT_NE(ofThird, std::string::npos) << daemon_.console();
    EXPECT_LT(ofSecond, ofThird);
    EXPECT_TRUE(waitForLog(6, "third is not found"));
}

/// Last words of the log's lines that begin so, up to a comma, in their order.
std::vector<std::string> namesInLog(const std::string& start) {
    std::vector<std::string> names;
    for (const std::string& text : daemonLogTexts(7)) {
        if (text.compare(0, start.size(), start) == 0) {
            names.push_back(text.substr(start.size(), text.find(',') - start.size()));
        }
    }
    return names;
}

TEST_F(SocketQueue, RequestsOfClientsAndOfAFileAreExecutedInTheOrderOfTheirQueueing) {
    const std::vector<std::string> filed = {"filed1", "filed2", "filed3"};
    std::string requests;
    for (const std::string& name : filed) {
        requests += bytesOf(stopRequest(name));
    }
    ASSERT_TRUE(writeFile("/tmp/replayed", requests));
    start({"-x", "/tmp/replayed"});
    // It keeps the command thread busy until all the others are queued.
    const std::string command = installSample("slow") + " --daemonize-after 9000";
    Client slow;
    ASSERT_TRUE(sendRequest(slow, makeRequest(APPMONCTL_Start, "slow", command)));
    std::vector<std::unique_ptr<Client>> clients;
    for (int number = 1; number <= 6; ++number) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(sendRequest(*clients.back(), stopRequest("sent" + std::to_string(number))));
    }
    const std::string queueing = "processRequest: action=1 name=";
    const std::string execution = "processCmd() request.action=APPMONCTL_Stop ";
    ASSERT_TRUE(eventually([&] { return namesInLog(queueing).size() == 9; }));
    EXPECT_TRUE(namesInLog(execution).empty()) << "the command thread was not busy";
    ASSERT_TRUE(eventually([&] { return namesInLog(execution).size() == 9; }, 2 * kPatienceMs));
    const std::vector<std::string> queued = namesInLog(queueing);
    EXPECT_EQ(namesInLog(execution), queued);
    // They were mixed: requests of clients stand between those of the file.
    const auto first = std::find(queued.begin(), queued.end(), "filed1");
    const auto last = std::find(queued.begin(), queued.end(), "filed3");
    EXPECT_GT(last - first, 2) << testing::PrintToString(queued);
}

} // namespace
} // namespace systemtest
