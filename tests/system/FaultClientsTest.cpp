// Clients that are killed at every stage of a request, and very many at once.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr std::size_t kMany = 500;

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

class FaultClients : public FaultTest {
protected:
    /// A client is killed when its work is done; the next one is served as if nothing had been.
    void expectNoHarm(const std::string& stage, const std::function<void(Client&)>& work) {
        const std::size_t before = descriptorsOf(monitor_.pid()).size();
        ClientProcess client(work);
        ASSERT_TRUE(client.isDone()) << stage;
        client.kill();
        expectServing();
        EXPECT_TRUE(monitor_.alive()) << stage;
        // Deliberate: a connection without a reply stays open.
        EXPECT_LE(descriptorsOf(monitor_.pid()).size(), before + 1) << stage;
        EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{}) << stage;
        EXPECT_EQ(monitor_.errors(), "") << stage;
    }
};

TEST_F(FaultClients, KilledAtEveryStageOfARequest) {
    ASSERT_TRUE(startMonitorInForeground());
    const reqcmd request = makeRequest(APPMONCTL_Stop, "nobody");
    reqcmd silent = request;
    silent.nowait = 1;
    expectNoHarm("connected", [](Client& client) { client.connect(); });
    for (const std::size_t part : {1U, 64U, 600U, 1215U}) {
        expectNoHarm("with a part of its request sent: " + std::to_string(part),
                     [&](Client& client) {
                         client.connect();
                         client.send(bytesOf(request).substr(0, part));
                     });
    }
    expectNoHarm("with its request sent", [&](Client& client) { sendRequest(client, request); });
    expectNoHarm("with its request read", [&](Client& client) {
        sendRequest(client, request);
        client.waitUntilRead();
    });
    expectNoHarm("with a request that is not answered",
                 [&](Client& client) { sendRequest(client, silent); });
    expectNoHarm("with a part of its reply read", [&](Client& client) {
        sendRequest(client, request);
        (void)client.receive(kPatienceMs, 100);
    });
    expectNoHarm("with its reply read", [&](Client& client) {
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

/// Clients that ask at the same time, each in a thread of its own. They end with the monitor.
class ManyClients {
public:
    explicit ManyClients(Daemon& monitor)
        : monitor_(monitor) {
        for (std::size_t number = 0; number < kMany; ++number) {
            threads_.emplace_back([this, number] { ask(number); });
        }
    }
    ~ManyClients() { join(); }
    ManyClients(const ManyClients&) = delete;
    ManyClients& operator=(const ManyClients&) = delete;

    /// Clients that have got their own reply; those that got another one, or a part of one.
    std::size_t answered() const { return answered_; }
    std::size_t deceived() const { return deceived_; }

    /// Ends the monitor if it is still there, and waits for all of them.
    void join() {
        monitor_.kill();
        for (std::thread& thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }

private:
    static constexpr int kLongestMs = 120000;

    void ask(std::size_t number) {
        const std::string name = "client" + std::to_string(number);
        Client client;
        if (!sendRequest(client, makeRequest(APPMONCTL_Stop, name))) {
            return;
        }
        const Received received = client.receive(kLongestMs, sizeof(response_struct));
        const std::string own = name + " is not found\n";
        if (received.bytes.size() == sizeof(response_struct) &&
            textAt(received.bytes, 8, 1024) == own) {
            ++answered_;
        } else if (!received.bytes.empty()) {
            ++deceived_;
        }
    }

    Daemon& monitor_;
    std::atomic<std::size_t> answered_{0};
    std::atomic<std::size_t> deceived_{0};
    std::vector<std::thread> threads_;
};

/// The main loop serves one client a second; meanwhile it supervises, publishes, and feeds the
/// watchdog. The end does not wait for them.
TEST_F(FaultClients, FiveHundredAtOnceAreServedOneAfterTheOther) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ManyClients clients(monitor_);
    const float hours = publishedHours();
    ASSERT_TRUE(eventually([&] { return clients.answered() >= 15; }, 4 * kPatienceMs));
    EXPECT_GT(publishedHours(), hours);
    EXPECT_NEAR(publishedHours(), hoursNow(), 5.0 / 3600);
    expectUnharmed("among clients");
    expectLeftAlone("among clients");
    const Ending ending = monitor_.terminate();
    EXPECT_EQ(ending.text(), "status 0");
    EXPECT_LT(ending.tookMs, 5000);
    clients.join();
    EXPECT_EQ(clients.deceived(), 0U);
    EXPECT_LT(clients.answered(), kMany);
}

TEST_F(FaultClients, FiveHundredThatAreKilledAreSoonForgotten) {
    ASSERT_TRUE(startMonitorInForeground());
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
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nobody"), 2 * kPatienceMs).code, -20);
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
