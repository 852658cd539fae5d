// The control socket: records whole and broken, clients well-behaved and not.

#include <algorithm>
#include <csignal>
#include <cstring>
#include <memory>
#include <regex>

#include "tests/system/Harness.h"

namespace systemtest {
namespace {

using SocketNowait = SystemTest;

/// How long a connection is watched on which nothing is to happen.
constexpr int kWatchMs = 1500;

/// The main loop's pause after a request.
constexpr int kServedPauseMs = 1000;

constexpr int kNotFound = -20;

class Socket : public SystemTest {
protected:
    /// Starts a monitor that shows everything.
    void start(const std::vector<std::string>& arguments = {"-v", "8"}) {
        ASSERT_TRUE(daemon_.startInForeground(arguments));
    }

    std::size_t descriptors() const { return descriptorsOf(daemon_.pid()).size(); }

    bool descriptorsBecome(std::size_t count) const {
        return eventually([&] { return descriptors() == count; });
    }

    /// The monitor serves a whole request.
    void expectServing() {
        const auto reply = ask(makeRequest(APPMONCTL_Stop, "nobody"));
        ASSERT_TRUE(reply);
        EXPECT_EQ(messageOf(*reply), "nobody is not found\n");
    }

    std::size_t consoleHas(const std::string& text) const {
        return countOf(daemon_.console(), text);
    }

    Daemon daemon_;
};

reqcmd stopRequest(const std::string& name, const std::string& cmd = "") {
    return makeRequest(APPMONCTL_Stop, name, cmd);
}

/// The connection stays open and nothing comes.
void expectSilence(Client& client, int milliseconds = kWatchMs) {
    const Received received = client.receive(milliseconds);
    EXPECT_EQ(received.bytes, "");
    EXPECT_FALSE(received.ended);
}

void expectEnd(Client& client) {
    const Received received = client.receive(kPatienceMs);
    EXPECT_EQ(received.bytes, "");
    EXPECT_TRUE(received.ended);
}

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

// --- verbosity -----------------------------------------------------------------------------------

const std::string kReplyTrace = " Error is detected with code =-20\nnobody is not found\n\n";
const std::string kBeforeTrace = "process_command_thread: processCmd(reqlist.size=0, "
                                 "request.action=1, request.name=nobody, cmd=\"/x y\")\n";
const std::string kAfterTrace = "process_command_thread: processCmd(reqlist.size=0, "
                                "request.action=1, cmd=\"/x y\")=0\n";
const std::string kThreadTrace = "start process_command_thread()\n";
const std::string kDisplay = "Request Command:\n"
                             "\tname = nobody\n"
                             "\tversion = \n"
                             "\taction = 1\n"
                             "\tcmd = \"/x y\"\n"
                             "\tpidfile = \"\"\n"
                             "\tporttype = 0\n"
                             "\tportnum = 0\n"
                             "\tdelay = 0\n"
                             "\tkeepalive = 0\n"
                             "\tnowait = 0\n"
                             "\trequest.heartbeat = 0\n"
                             "\trequest.restart_type = 0\n"
                             "\trequest.last_runtime_life_limit = 0\n";

/// The whole console after the version line, for one request; the time before "recvCommand" is
/// taken out.
std::string expectedConsole(int verbosity, pid_t pid) {
    std::string text;
    if (verbosity > 4) {
        text += "0=setpriority(PRIO_PROCESS, " + std::to_string(pid) + ", -10)\n";
    }
    if (verbosity > 3) {
        text += kThreadTrace;
    }
    if (verbosity > 6) {
        text += "TIME appmgr->recvCommand()=1216\n" + kDisplay;
    }
    if (verbosity > 7) {
        text += "processRequest(cmd=/x y)\n";
    }
    if (verbosity > 3) {
        text += kBeforeTrace;
    }
    text += kReplyTrace;
    if (verbosity > 3) {
        text += kAfterTrace;
    }
    return text;
}

TEST_F(Socket, ConsoleAtEveryVerbosity) {
    // A priority that cannot be raised is traced with its result.
    const std::regex priority("(^|\n)-1=setpriority");
    for (int verbosity = 0; verbosity <= 9; ++verbosity) {
        Daemon daemon;
        // Adoption, which -a switches off, traces too.
        ASSERT_TRUE(daemon.startInForeground({"-a", "-v", std::to_string(verbosity)}));
        const std::string expected = expectedConsole(verbosity, daemon.pid());
        ASSERT_TRUE(ask(stopRequest("nobody", "/x y")));
        std::string console;
        EXPECT_TRUE(eventually(
            [&] {
                console = daemon.console();
                console.erase(0, console.find('\n') + 1);
                console = std::regex_replace(console, priority, "$010=setpriority");
                console =
                    std::regex_replace(console, std::regex("(^|\n)[^\n]+ appmgr->recvCommand"),
                                       "$1TIME appmgr->recvCommand");
                return console == expected;
            },
            2000))
            << "verbosity " << verbosity << ", console:\n"
            << console << "expected:\n"
            << expected;
        daemon.kill();
    }
}

TEST_F(Socket, TimeOfATraceIsTheLocalTime) {
    start({"-v", "7"});
    const std::time_t before = std::time(nullptr);
    ASSERT_TRUE(ask(stopRequest("nobody")));
    const std::string console = daemon_.console();
    const std::size_t end = console.find(" appmgr->recvCommand()=");
    ASSERT_NE(end, std::string::npos);
    const std::size_t begin = console.rfind('\n', end) + 1;
    const std::string shown = console.substr(begin, end - begin);
    std::vector<std::string> possible;
    for (std::time_t time = before; time <= before + 10; ++time) {
        std::string text = std::ctime(&time);
        text.pop_back();
        possible.push_back(text);
    }
    EXPECT_NE(std::find(possible.begin(), possible.end(), shown), possible.end()) << shown;
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
    const std::size_t before = descriptors();
    ASSERT_TRUE(silent.connect());
    ASSERT_TRUE(eventually([&] { return descriptors() > before; }));
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
    const std::size_t before = descriptors();
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
    const std::size_t before = descriptors();
    constexpr std::size_t kClients = 20;
    for (std::size_t count = 0; count < kClients; ++count) {
        Client client;
        ASSERT_TRUE(client.connect());
    }
    EXPECT_TRUE(descriptorsBecome(before + kClients)) << descriptors() - before;
    EXPECT_EQ(consoleHas(" appmgr->recvCommand()=0\n"), kClients);
    expectServing();
    EXPECT_TRUE(descriptorsBecome(before + kClients));
}

// --- no reply ------------------------------------------------------------------------------------

TEST_F(Socket, NowaitRequestIsExecutedButNotAnswered) {
    start();
    const std::size_t before = descriptors();
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

TEST_F(Socket, AnyValueButZeroMeansNowait) {
    start();
    reqcmd request = stopRequest("quiet");
    request.nowait = 0x80;
    Client client;
    ASSERT_TRUE(sendRequest(client, request));
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Stop quiet"));
    expectSilence(client);
}

TEST_F(Socket, UnknownActionsAreNotAnswered) {
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

TEST_F(Socket, UnknownActionIsSilentOnTheConsoleAtVerbosity5) {
    start({"-v", "5"});
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(11)));
    ASSERT_TRUE(waitForLog(6, "request.action=UNKNOWN"));
    EXPECT_TRUE(eventually([&] { return consoleHas("cmd=\"\")=-8\n") == 1; }));
    EXPECT_EQ(consoleHas("UNKNOWN"), 0U);
}

TEST_F(Socket, ReservedActionsDoNothing) {
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
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "4"}));
    const std::size_t before = descriptorsOf(daemon.pid()).size();
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
        EXPECT_EQ(descriptorsOf(daemon.pid()).size(), before + count);
    }
    const auto reply = ask(stopRequest("nobody"));
    ASSERT_TRUE(reply);
    EXPECT_EQ(messageOf(*reply), "nobody is not found\n");
    for (const auto& client : clients) {
        expectSilence(*client, 0);
    }
    EXPECT_EQ(descriptorsOf(daemon.pid()).size(), before + kRequests);
    EXPECT_EQ(daemon.terminate().text(), "status 0");
    for (const auto& client : clients) {
        expectEnd(*client);
    }
}

// --- several at once -----------------------------------------------------------------------------

TEST_F(Socket, ClientsThatCameAtOnceAreServedInTheirOrder) {
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
    std::vector<std::string> executed;
    for (const std::string& text : daemonLogTexts(7)) {
        if (text.find("processCmd()") == 0) {
            executed.push_back(text.substr(text.rfind(' ') + 1));
        }
    }
    EXPECT_EQ(executed, (std::vector<std::string>{"app0", "app1", "app2", "app3", "app4"}));
}

TEST_F(Socket, RequestsQueuedBehindASlowOneAreExecutedInOrderAndItsReplyGoesToTheLastClient) {
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

TEST_F(Socket, RequestsOfClientsAndOfAFileAreExecutedInTheOrderOfTheirQueueing) {
    const std::vector<std::string> filed = {"filed1", "filed2", "filed3"};
    std::string requests;
    for (const std::string& name : filed) {
        requests += bytesOf(stopRequest(name));
    }
    ASSERT_TRUE(writeFile("/tmp/replayed", requests));
    start({"-x", "/tmp/replayed"});
    // It keeps the command thread busy until all the others are queued.
    const std::string command = installSample("slow") + " --daemonize-after 7000";
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
