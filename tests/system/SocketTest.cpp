// The control socket: records whole and broken, clients well-behaved and not.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/system/SocketSupport.h"

namespace systemtest {
namespace {

using Socket = SocketTest;

constexpr int kNotFound = -20;

// --- whole records -------------------------------------------------------------------------------

TEST_F(Socket, WholeRecordIsAnsweredWithOneReplyAndTheEnd) {
    start();
    Client client;
    ASSERT_TRUE(sendRequest(client, stopRequest("nobody")));
    const Received received = client.receive(kPatienceMs);
    ASSERT_EQ(received.bytes.size(), 1032U);
    EXPECT_TRUE(received.ended);
    EXPECT_FALSE(received.reset);
    std::int32_t code = 0;
    std::int32_t completed = 0;
    std::memcpy(&code, received.bytes.data(), sizeof code);
    std::memcpy(&completed, received.bytes.data() + 4, sizeof completed);
    EXPECT_EQ(code, kNotFound);
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(received.bytes.substr(8).c_str(), std::string("nobody is not found\n"));
}

TEST_F(Socket, RequestIsLoggedAtLevel7AndItsResultAtLevel6) {
    start({});
    ASSERT_TRUE(ask(stopRequest("nobody", "/x  y")));
    ASSERT_TRUE(waitForLog(6, "nobody is not found"));
    EXPECT_EQ(daemonLogTexts(),
              (std::vector<std::string>{
                  "App monitor started", "processRequest: action=1 name=nobody, cmd=/x  y",
                  "processCmd() request.action=APPMONCTL_Stop nobody", "nobody is not found"}));
    EXPECT_EQ(daemonLogTexts(7).size(), 2U);
    for (const LogLine& line : daemonLog()) {
        EXPECT_EQ(line.facility, 144);
        EXPECT_EQ(line.ident, "Ovard");
        EXPECT_EQ(line.pid, daemon_.pid());
    }
}

TEST_F(Socket, TextsWithoutTheirEndAreReadWithinTheirFields) {
    start();
    reqcmd request = stopRequest("");
    std::memset(request.name, 'n', sizeof request.name);
    std::memset(request.version, 'v', sizeof request.version);
    std::memset(request.cmd, 'c', sizeof request.cmd);
    std::memset(request.pidfile, 'p', sizeof request.pidfile);
    request.porttype = -1;
    const auto reply = ask(request);
    ASSERT_TRUE(reply);
    EXPECT_EQ(messageOf(*reply), std::string(63, 'n') + " is not found\n");
    EXPECT_TRUE(waitForLog(7, "processRequest: action=1 name=" + std::string(64, 'n') +
                                  ", cmd=" + std::string(1024, 'c')));
    EXPECT_EQ(consoleHas("\tversion = " + std::string(32, 'v') + "\n"), 1U);
    EXPECT_EQ(consoleHas("\tpidfile = \"" + std::string(64, 'p') + "\"\n"), 1U);
}

TEST_F(Socket, EveryFieldOfTheRequestIsDisplayed) {
    start({"-v", "7"});
    reqcmd request = makeRequest(APPMONCTL_Stop, "the name", "/a b  c", "/tmp/p");
    std::memcpy(request.version, "1.2", 3);
    request.porttype = PORT_TYPE_COM;
    request.portnum = -3;
    request.priority = 77;
    request.delay = 12;
    request.keepalive = 1;
    request.heartbeat = 2; // any value but 0 is true
    request.restart_type = 1;
    request.last_runtime_life_limit = 2147483647;
    ASSERT_TRUE(ask(request));
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()=1216\n"
                         "Request Command:\n"
                         "\tname = the name\n"
                         "\tversion = 1.2\n"
                         "\taction = 1\n"
                         "\tcmd = \"/a b  c\"\n"
                         "\tpidfile = \"/tmp/p\"\n"
                         "\tporttype = 1\n"
                         "\tportnum = -3\n"
                         "\tdelay = 12\n"
                         "\tkeepalive = 1\n"
                         "\tnowait = 0\n"
                         "\trequest.heartbeat = 1\n"
                         "\trequest.restart_type = 1\n"
                         "\trequest.last_runtime_life_limit = 2147483647\n"),
              1U)
        << daemon_.console();
}

// --- pieces --------------------------------------------------------------------------------------

/// Sends a record in pieces of the given sizes, each once the one before has been read.
void sendInPieces(Client& client, const reqcmd& request, const std::vector<std::size_t>& sizes) {
    const std::string bytes = bytesOf(request);
    std::size_t begin = 0;
    for (const std::size_t size : sizes) {
        ASSERT_TRUE(client.send(bytes.substr(begin, size)));
        ASSERT_TRUE(client.waitUntilRead());
        begin += size;
    }
}

TEST_F(Socket, RecordInTwoOrThreePiecesIsPutTogether) {
    start();
    const std::vector<std::vector<std::size_t>> divisions = {
        {1, 1215}, {600, 616}, {1215, 1}, {400, 400, 416}, {1, 1, 1214}, {1214, 1, 1}};
    int number = 0;
    for (const auto& sizes : divisions) {
        const std::string name = "app" + std::to_string(++number);
        Client client;
        ASSERT_TRUE(client.connect());
        ASSERT_NO_FATAL_FAILURE(sendInPieces(client, stopRequest(name, "/x"), sizes));
        const auto reply = client.receiveReply();
        ASSERT_TRUE(reply) << testing::PrintToString(sizes);
        EXPECT_EQ(messageOf(*reply), name + " is not found\n");
    }
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()=1216\n"), divisions.size());
}

TEST_F(Socket, RecordInFourPiecesIsCutToThree) {
    start();
    ASSERT_TRUE(ask(stopRequest("first", "/first")));
    // The fourth piece carries the action; the previous request's action holds instead.
    reqcmd request = makeRequest(APPMONCTL_Reserved9, "second", "/second");
    Client client;
    ASSERT_TRUE(client.connect());
    ASSERT_NO_FATAL_FAILURE(sendInPieces(client, request, {300, 300, 300}));
    (void)client.send(bytesOf(request).substr(900)); // it may be too late already
    const auto reply = client.receiveReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(messageOf(*reply), "second is not found\n");
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()=900\n"), 1U);
    EXPECT_TRUE(waitForLog(7, "processRequest: action=1 name=second, cmd=/second"));
    expectServing();
}

// --- short and long ------------------------------------------------------------------------------

TEST_F(Socket, ShortRecordKeepsThePreviousValuesBeyondItsEnd) {
    start();
    const std::string longCommand = "/" + std::string(800, 'a') + " previous";
    reqcmd previous = makeRequest(APPMONCTL_Stop, "previous", longCommand, "/tmp/previous");
    previous.portnum = 44;
    ASSERT_TRUE(ask(previous));

    reqcmd next = makeRequest(APPMONCTL_Reserved10, "next", "", "/tmp/next");
    std::memset(next.cmd, 'b', sizeof next.cmd);
    constexpr std::size_t kSent = 600;
    constexpr std::size_t kSentOfCmd = kSent - offsetof(reqcmd, cmd);
    Client client;
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(client.send(bytesOf(next).substr(0, kSent)));
    client.endSending();
    const auto reply = client.receiveReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(messageOf(*reply), "next is not found\n");

    const std::string mixed = std::string(kSentOfCmd, 'b') + longCommand.substr(kSentOfCmd);
    EXPECT_TRUE(waitForLog(7, "processRequest: action=1 name=next, cmd=" + mixed));
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()=600\n"
                         "Request Command:\n"
                         "\tname = next\n"
                         "\tversion = \n"
                         "\taction = 1\n"
                         "\tcmd = \"" +
                         mixed +
                         "\"\n"
                         "\tpidfile = \"/tmp/previous\"\n"
                         "\tporttype = 0\n"
                         "\tportnum = 44\n"),
              1U);
}

TEST_F(Socket, ShortRecordOfAClientThatClosedIsProcessed) {
    start();
    ASSERT_TRUE(ask(stopRequest("previous", "/previous")));
    {
        Client client;
        ASSERT_TRUE(client.connect());
        ASSERT_TRUE(client.send(std::string("x\0", 2)));
    }
    EXPECT_TRUE(waitForLog(7, "processRequest: action=1 name=x, cmd=/previous"));
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()=2\n"), 1U);
    expectServing();
}

TEST_F(Socket, LongRecordIsReadUpToItsSize) {
    start();
    Client client;
    ASSERT_TRUE(client.connect());
    const std::string rest = bytesOf(stopRequest("rest")).substr(0, 784);
    ASSERT_TRUE(client.send(bytesOf(stopRequest("long")) + rest));
    const Received received = client.receive(kPatienceMs);
    ASSERT_EQ(received.bytes.size(), sizeof(response_struct));
    EXPECT_TRUE(received.ended);
    EXPECT_TRUE(received.reset) << "the rest was read";
    EXPECT_EQ(received.bytes.substr(8).c_str(), std::string("long is not found\n"));
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()="), 1U);
    expectServing();
    EXPECT_EQ(countLog(7, "processRequest: action=1 name=rest, cmd="), 0U);
}

// --- ill-behaved clients -------------------------------------------------------------------------

TEST_F(Socket, SilentClientHoldsTheReceivingSideUntilItCloses) {
    start();
    Client silent;
    ASSERT_TRUE(silent.connect());
    Client waiting;
    ASSERT_TRUE(sendRequest(waiting, stopRequest("waiting")));
    expectSilence(waiting, 4000); // longer than any wait of the main loop's own
    expectSilence(silent, 0);
    silent.close();
    const auto reply = waiting.receiveReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(messageOf(*reply), "waiting is not found\n");
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()=0\n"), 1U);
}

TEST_F(Socket, ThreeTicksOfTheTimerEndTheWaitForASilentClient) {
    // Deliberate: each of the three receive calls counts as one without bytes when it is
    // interrupted.
    start({"-w", "0", "-I", "2"});
    Client silent;
    ASSERT_TRUE(silent.connect());
    ASSERT_TRUE(eventually([&] { return daemon_.isReceiving(); }));
    const std::int64_t begin = monotonicMs();
    expectServing();
    EXPECT_GE(monotonicMs() - begin, 3900) << "it was not waited for";
    EXPECT_LE(monotonicMs() - begin, 8000);
    expectSilence(silent, 0);
}

TEST_F(Socket, ClientThatStopsInTheMiddleHoldsTheReceivingSide) {
    start();
    Client slow;
    ASSERT_TRUE(slow.connect());
    ASSERT_TRUE(slow.send(bytesOf(stopRequest("slow")).substr(0, 1000)));
    Client waiting;
    ASSERT_TRUE(sendRequest(waiting, stopRequest("waiting")));
    expectSilence(waiting, 3000);
    ASSERT_TRUE(slow.send(bytesOf(stopRequest("slow")).substr(1000)));
    const auto first = slow.receiveReply();
    ASSERT_TRUE(first);
    EXPECT_EQ(messageOf(*first), "slow is not found\n");
    const auto second = waiting.receiveReply();
    ASSERT_TRUE(second);
    EXPECT_EQ(messageOf(*second), "waiting is not found\n");
}

TEST_F(Socket, ClientThatVanishesBeforeTheReplyDoesNoHarm) {
    start();
    const std::size_t before = descriptorsAtRest();
    for (int count = 0; count < 3; ++count) {
        Client client;
        ASSERT_TRUE(sendRequest(client, stopRequest("vanished")));
    }
    expectServing();
    EXPECT_EQ(countLog(6, "vanished is not found"), 3U);
    EXPECT_TRUE(descriptorsBecome(before));
}

TEST_F(Socket, ClientThatVanishesDoesNoHarmWithLoggedSignals) {
    start({"-b"});
    for (int count = 0; count < 2; ++count) {
        Client client;
        ASSERT_TRUE(sendRequest(client, stopRequest("vanished")));
    }
    expectServing();
}

TEST_F(Socket, ClientsThatCloseAtOnceLeaveTheirConnectionOpenInTheMonitor) {
    // Nothing is processed, so nothing is answered, and only an answer closes.
    start();
    const std::size_t before = descriptorsAtRest();
    constexpr std::size_t kClients = 20;
    for (std::size_t count = 0; count < kClients; ++count) {
        Client client;
        ASSERT_TRUE(client.connect());
    }
    // While one is received there are two descriptors of its connection.
    EXPECT_TRUE(eventually([&] { return consoleHas(" appmgr->recvCommand()=0\n") == kClients; }));
    EXPECT_TRUE(descriptorsBecome(before + kClients)) << descriptors() - before;
    expectServing();
    EXPECT_TRUE(descriptorsBecome(before + kClients));
}

} // namespace
} // namespace systemtest
