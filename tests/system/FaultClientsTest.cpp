// Clients that are killed at every stage of a request, and very many at once.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr std::size_t kMany = 500;

/// How long all of them take, one a second, on a busy machine; how long those in the queue do.
constexpr int kLongestCrowdMs = 1000000;
constexpr int kLongestQueueMs = 150000;

/// A client in a process of its own, which does its work and then waits until it is killed.
class ClientProcess {
public:
    explicit ClientProcess(const std::function<void(Client&)>& work)
        : pid_(::fork()) {
        if (pid_ == 0) {
            Client client;
            work(client);
            (void)::raise(SIGSTOP); // tells that the work is done
            for (;;) {
                (void)::pause(); // until it is killed
            }
        }
    }
    ~ClientProcess() { kill(); }
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    /// Waits until the work is done.
    bool isDone() const {
        return eventually([this] { return processFacts(pid_).state == 'T'; });
    }

    void kill() {
        if (pid_ > 0) {
            (void)sendSignal(pid_, SIGKILL); // it is there until it is waited for
            (void)::waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }

private:
    pid_t pid_;
};

// --- killed clients ------------------------------------------------------------------------------

/// What becomes of a client's connection: without a reply it stays open until the monitor ends.
enum class Connection { IsClosed, StaysOpen };

class FaultClients : public FaultTest {
protected:
    /// A monitor that has served a client, with no connection left.
    void startServing() {
        ASSERT_TRUE(startMonitorInForeground());
        serveOne();
        required_ = descriptors();
    }

    /// A client is killed when its work is done; the next one is served as if nothing had been.
    /// Then no descriptor is open but those of the beginning and of what had no reply since.
    void expectNoHarm(const std::string& stage, Connection connection,
                      const std::function<void(Client&)>& work) {
        ClientProcess client(work);
        ASSERT_TRUE(client.isDone()) << stage;
        client.kill();
        expectServing();
        EXPECT_TRUE(monitor_.alive()) << stage;
        required_ += connection == Connection::StaysOpen ? 1 : 0;
        EXPECT_TRUE(eventually([this] { return descriptors() == required_; }))
            << stage << ": " << descriptors() << " in place of " << required_;
        EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{}) << stage;
        EXPECT_EQ(monitor_.errors(), "") << stage;
    }

private:
    std::size_t descriptors() const { return descriptorsOf(monitor_.pid()).size(); }

    std::size_t required_ = 0;
};

TEST_F(FaultClients, KilledAtEveryStageOfARequest) {
    ASSERT_NO_FATAL_FAILURE(startServing());
    const reqcmd request = makeRequest(APPMONCTL_Stop, "nobody");
    reqcmd silent = request;
    silent.nowait = 1;
    expectNoHarm("connected", Connection::StaysOpen, [](Client& client) { client.connect(); });
    for (const std::size_t part : {1U, 64U, 600U, 1215U}) {
        // The rest of it is as in the request before, and so there is a reply.
        expectNoHarm("with a part of its request sent: " + std::to_string(part),
                     Connection::IsClosed, [&](Client& client) {
                         client.connect();
                         client.send(bytesOf(request).substr(0, part));
                     });
    }
    expectNoHarm("with its request sent", Connection::IsClosed,
                 [&](Client& client) { sendRequest(client, request); });
    expectNoHarm("with its request read", Connection::IsClosed, [&](Client& client) {
        sendRequest(client, request);
        client.waitUntilRead();
    });
    expectNoHarm("with a request that is not answered", Connection::StaysOpen,
                 [&](Client& client) { sendRequest(client, silent); });
    expectNoHarm("with a part of its reply read", Connection::IsClosed, [&](Client& client) {
        sendRequest(client, request);
        (void)client.receive(kPatienceMs, 100);
    });
    expectNoHarm("with its reply read", Connection::IsClosed, [&](Client& client) {
        sendRequest(client, request);
        (void)client.receiveReply();
    });
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultClients, KilledBeforeItIsAccepted) {
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_TRUE(monitor_.signal(SIGSTOP));
    ClientProcess client(
        [](Client& own) { sendRequest(own, makeRequest(APPMONCTL_Stop, "early")); });
    ASSERT_TRUE(client.isDone());
    client.kill();
    ASSERT_TRUE(monitor_.signal(SIGCONT));
    EXPECT_TRUE(waitForLog(6, "early is not found")) << "its request was whole";
    expectServing();
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultClients, KilledWhileItsRequestIsExecuted) {
    ASSERT_TRUE(startMonitorInForeground());
    const reqcmd request = makeStart("slow", "--daemonize-after 3000");
    const LogMark mark;
    ClientProcess client([&](Client& own) {
        sendRequest(own, request);
        own.waitUntilRead();
    });
    ASSERT_TRUE(client.isDone());
    ASSERT_TRUE(eventually([] { return !processesNamed("slow").empty(); }));
    client.kill();
    EXPECT_TRUE(eventually([&] { return mark.has("sendCommand(): sendto error=32"); }));
    EXPECT_EQ(processesNamed("slow").size(), 1U);
    expectServing();
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "slow")).code, 0);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultClients, KilledWhileItsRequestIsQueued) {
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_TRUE(sendWithoutWaiting(makeStart("slow", "--daemonize-after 4000")));
    ASSERT_TRUE(eventually([] { return !processesNamed("slow").empty(); }));
    ClientProcess client([](Client& own) {
        sendRequest(own, makeRequest(APPMONCTL_Stop, "queued"));
        own.waitUntilRead();
    });
    ASSERT_TRUE(client.isDone());
    client.kill();
    EXPECT_TRUE(waitForLog(7, "sendCommand(): sendto error=32"));
    EXPECT_TRUE(waitForLog(6, "queued is not found")) << "it is executed all the same";
    expectServing();
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

// --- very many -----------------------------------------------------------------------------------

/// How a client of the crowd ends.
enum Outcome { kOwnReply, kOtherReply, kNoReply };

/// Asks for something that has no other reply of this text, and waits for it as long as it takes.
Outcome askAsOneOfMany(std::size_t number) {
    const std::string name = "client" + std::to_string(number);
    Client client;
    if (!sendRequest(client, makeRequest(APPMONCTL_Stop, name))) {
        return kNoReply;
    }
    const Received received = client.receive(kLongestCrowdMs, sizeof(response_struct));
    if (received.bytes.empty()) {
        return kNoReply;
    }
    const bool isOwn = received.bytes.size() == sizeof(response_struct) &&
                       textAt(received.bytes, 8, 1024) == name + " is not found\n";
    return isOwn ? kOwnReply : kOtherReply;
}

/// Very many clients that ask at the same time, each in a process of its own. Those that are still
/// waiting are killed with it.
class Crowd {
public:
    Crowd() {
        for (std::size_t number = 0; number < kMany; ++number) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::_exit(askAsOneOfMany(number));
            }
            waiting_.insert(pid);
        }
    }
    ~Crowd() { kill(); }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    /// Clients that have ended by now in that way.
    std::size_t count(Outcome outcome) {
        for (auto pid = waiting_.begin(); pid != waiting_.end();) {
            int status = 0;
            if (::waitpid(*pid, &status, WNOHANG) != *pid) {
                ++pid;
                continue;
            }
            ++counts_[WIFEXITED(status) ? WEXITSTATUS(status) : -1];
            pid = waiting_.erase(pid);
        }
        return counts_[outcome];
    }

    void kill() {
        for (const pid_t pid : waiting_) {
            (void)sendSignal(pid, SIGKILL); // it is there until it is waited for
            (void)::waitpid(pid, nullptr, 0);
        }
        waiting_.clear();
    }

private:
    std::set<pid_t> waiting_;
    std::map<int, std::size_t> counts_;
};

class FaultCrowd : public FaultTest {
protected:
    /// Open sockets of the monitor; other files that are open, of which a cycle has some for a
    /// moment.
    std::size_t sockets() const { return countDescriptors(true); }
    std::size_t otherFiles() const { return countDescriptors(false); }

    /// Clients that were accepted and have sent nothing, by what the monitor shows of each.
    std::size_t silentClients() const {
        return countOf(monitor_.console(), " appmgr->recvCommand()=0\n");
    }

    /// Waits until so many have their own replies, and looks whether all goes on meanwhile.
    void expectServedAmongOthers(Crowd& crowd, std::uint64_t count) {
        const float hours = publishedHours();
        ASSERT_TRUE(eventually([&] { return crowd.count(kOwnReply) >= count; }, kLongestCrowdMs))
            << crowd.count(kOwnReply);
        EXPECT_TRUE(eventually([&] { return publishedHours() > hours; }));
        EXPECT_NEAR(publishedHours(), hoursNow(), 5.0 / 3600);
        expectUnharmed("among clients");
        expectLeftAlone("among clients");
        EXPECT_EQ(crowd.count(kOtherReply), 0U);
        EXPECT_EQ(crowd.count(kNoReply), 0U);
    }

    /// Whoever comes after those that wait in the queue of the socket is served.
    static void expectServingAfterTheQueue() {
        EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nobody"), kLongestQueueMs),
                  replyOf(-20, "nobody is not found\n"));
    }

    void expectAllIsWellAfterwards() {
        expectAllIsWell("after the crowd");
        expectLeftAlone("after the crowd");
        EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
    }

private:
    std::size_t countDescriptors(bool ofSockets) const {
        std::size_t count = 0;
        for (const auto& [number, target] : descriptorsOf(monitor_.pid())) {
            const bool isSocket = target.compare(0, 7, "socket:") == 0;
            count += isSocket == ofSockets ? 1 : 0;
        }
        return count;
    }
};

/// The main loop serves one client a second; meanwhile it supervises, publishes, and feeds the
/// watchdog. All of them take ten minutes: OVARD_SERVED_CLIENTS=500. The requests of those that are
/// killed while they wait in the queue of the socket are executed all the same.
TEST_F(FaultCrowd, IsServedOneAfterTheOtherAndForgotten) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    serveOne();
    const std::size_t before = sockets();
    const std::size_t silentBefore = silentClients();
    Crowd crowd;
    expectServedAmongOthers(crowd, numberFromEnvironment("OVARD_SERVED_CLIENTS", 15));
    crowd.kill();
    expectServingAfterTheQueue();
    // Deliberate: the connection of one that was killed before it sent its request stays open.
    const std::size_t silent = silentClients() - silentBefore;
    EXPECT_TRUE(eventually([&] { return sockets() == before + silent; }))
        << sockets() << " after " << before << ", silent " << silent;
    expectAllIsWellAfterwards();
}

TEST_F(FaultCrowd, DoesNotDelayTheEnd) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    Crowd crowd;
    expectServedAmongOthers(crowd, 1);
    const Ending ending = monitor_.terminate();
    EXPECT_EQ(ending.text(), "status 0");
    EXPECT_LT(ending.tookMs, 5000);
    EXPECT_TRUE(eventually([&] { return crowd.count(kNoReply) + crowd.count(kOwnReply) == kMany; }))
        << "a client still waits";
    EXPECT_EQ(crowd.count(kOtherReply), 0U);
}

TEST_F(FaultCrowd, ThatIsKilledBeforeItAsksIsSoonForgotten) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    serveOne();
    const std::size_t socketsBefore = sockets();
    const std::size_t filesBefore = otherFiles();
    const std::size_t silentBefore = silentClients();
    std::vector<std::unique_ptr<ClientProcess>> clients;
    clients.reserve(kMany);
    for (std::size_t number = 0; number < kMany; ++number) {
        clients.push_back(
            std::make_unique<ClientProcess>([](Client& client) { client.connect(); }));
    }
    sleepMs(2000);
    EXPECT_TRUE(monitor_.alive());
    clients.clear();
    // A tenth of a second for each of those that had come as far as the queue of the socket.
    expectServingAfterTheQueue();
    // Deliberate: a connection without a reply stays open. Nothing else does.
    const std::size_t silent = silentClients() - silentBefore;
    EXPECT_GT(silent, 0U);
    EXPECT_TRUE(eventually([&] { return sockets() == socketsBefore + silent; })) << sockets();
    EXPECT_TRUE(eventually([&] { return otherFiles() <= filesBefore; })) << otherFiles();
    expectAllIsWellAfterwards();
}

} // namespace
} // namespace systemtest
