// The end of the monitor by SIGTERM while requests are executed.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/Applications.h"
#include "tests/system/ShutdownSupport.h"

namespace systemtest {
namespace {

using ShutdownAtWork = ShutdownTest;

/// The only process with that command line, 0 when there is none or several.
pid_t applicationOf(const std::string& command) {
    const std::vector<pid_t> found = processesWithCommandLine(command);
    return found.size() == 1 ? found[0] : 0;
}

TEST_F(ShutdownAtWork, ApplicationsLiveOn) {
    start();
    std::vector<pid_t> applications;
    for (const char* name : {"one", "two"}) {
        const std::string command = installSample(name) + " --heartbeat 200";
        ASSERT_TRUE(ask(makeRequest(APPMONCTL_Start, name, command)));
        applications.push_back(applicationOf(command));
        ASSERT_NE(applications.back(), 0);
    }
    expectCleanEnd();
    sleepMs(500);
    for (const pid_t application : applications) {
        EXPECT_TRUE(isRunning(application));
    }
}

TEST_F(ShutdownAtWork, LaunchOfAForegroundApplicationDoesNotHoldItUp) {
    start();
    const std::string command = installSample("front") + " --foreground";
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Start, "front", command)));
    ASSERT_TRUE(eventually([&] { return applicationOf(command) != 0; }));
    const pid_t application = applicationOf(command);
    expectCleanEnd();
    EXPECT_TRUE(isRunning(application));
    EXPECT_TRUE(client.receive(kPatienceMs).ended);
}

TEST_F(ShutdownAtWork, SearchForALaunchedApplicationDoesNotHoldItUp) {
    // It ends at once and leaves nothing that could be found, so it is looked for for 30 seconds.
    start({"-v", "8"});
    const std::string command = installSample("gone") + " --foreground --exit-after 0";
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Start, "gone", command)));
    ASSERT_TRUE(
        eventually([&] { return countOf(daemon_.console(), "daemon not found for pid=") > 0; }));
    expectCleanEnd();
}

TEST_F(ShutdownAtWork, StopOfManyStubbornProcessesDoesNotHoldItUp) {
    start();
    const std::string command = installSample("stubborn") + " --ignore-term --fork-stray 60";
    ASSERT_TRUE(ask(makeRequest(APPMONCTL_Start, "stubborn", command)));
    ASSERT_TRUE(eventually([&] { return processesWithCommandLine(command).size() == 61; }));
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "stubborn")));
    ASSERT_TRUE(eventually([&] { return processesWithCommandLine(command).size() < 58; }));
    expectCleanEnd();
}

TEST_F(ShutdownAtWork, RestartsOfAllDoNotHoldItUp) {
    start();
    for (const char* name : {"one", "two", "three"}) {
        const std::string command = installSample(name) + " --ignore-term --daemonize-after 400";
        ASSERT_TRUE(ask(makeRequest(APPMONCTL_Start, name, command)));
    }
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Restart_All)));
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Restart_All"));
    sleepMs(700); // somewhere within
    expectCleanEnd();
}

TEST_F(ShutdownAtWork, QueuedRequestsAreDiscarded) {
    start();
    const std::string command = installSample("front") + " --foreground";
    std::vector<std::unique_ptr<Client>> clients;
    const std::vector<reqcmd> requests = {makeRequest(APPMONCTL_Start, "front", command),
                                          makeRequest(APPMONCTL_Stop, "queued"),
                                          makeRequest(APPMONCTL_Stop, "alsoqueued")};
    for (const reqcmd& request : requests) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(sendRequest(*clients.back(), request));
    }
    ASSERT_TRUE(waitForLog(7, "processRequest: action=1 name=alsoqueued, cmd="));
    expectCleanEnd();
    EXPECT_EQ(countLog(7, "processCmd() request.action=APPMONCTL_Stop queued"), 0U);
    for (const auto& client : clients) {
        const Received received = client->receive(kPatienceMs);
        EXPECT_TRUE(received.ended);
        EXPECT_EQ(received.bytes, "");
    }
}

TEST_F(ShutdownAtWork, ReplayOfARequestFileDoesNotHoldItUp) {
    std::string requests;
    for (int count = 0; count < 30; ++count) {
        requests += bytesOf(makeRequest(APPMONCTL_Stop, "filed" + std::to_string(count)));
    }
    ASSERT_TRUE(writeFile("/tmp/replayed", requests));
    for (const int delayMs : {0, 500, 1500, 2500}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground({"-x", "/tmp/replayed"}));
        sleepMs(delayMs);
        const Ending ending = daemon.terminate();
        EXPECT_EQ(ending.text(), "status 0") << delayMs;
        EXPECT_LT(ending.tookMs, kLongestEndMs) << delayMs;
    }
    EXPECT_EQ(countEvent(kStopped), 4U);
}

/// A file of that many requests for what is not there.
bool writeManyRequests(const std::string& path, int count) {
    std::string requests;
    requests.reserve(static_cast<std::size_t>(count) * sizeof(reqcmd));
    for (int index = 0; index < count; ++index) {
        requests += bytesOf(makeRequest(APPMONCTL_Stop, "filed" + std::to_string(index)));
    }
    return writeFile(path, requests);
}

/// Where the monitor stands in the file that it reads; -1 when it has none open.
std::int64_t positionIn(pid_t pid, const std::string& path) {
    for (const auto& [number, target] : descriptorsOf(pid)) {
        if (target == path) {
            const std::string info =
                readFile("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(number));
            const std::size_t at = info.find("pos:");
            return at == std::string::npos ? -1 : std::atoll(info.c_str() + at + 4);
        }
    }
    return -1;
}

TEST_F(ShutdownAtWork, ReadingOfALargeRequestFileDoesNotHoldItUp) {
    // So many that they cannot be read in time. Without a hole they would not fit; all are empty.
    constexpr off_t kRecords = 4000000;
    constexpr off_t kSize = kRecords * off_t{sizeof(reqcmd)};
    ASSERT_TRUE(writeFile("/tmp/large", ""));
    ASSERT_EQ(::truncate("/tmp/large", kSize), 0);
    const MonitorThroughScript script("exec \"$OVARD\" \"$@\" >/dev/null\n");
    ASSERT_TRUE(daemon_.spawn({"-d", "-v", "8", "-x", "/tmp/large"}));
    std::int64_t position = 0;
    ASSERT_TRUE(eventually([&] {
        position = positionIn(daemon_.pid(), "/tmp/large");
        return position > 0;
    }));
    const Ending ending = daemon_.terminate();
    EXPECT_LT(position, kSize / 8) << "it was not at its beginning";
    EXPECT_EQ(ending.text(), "status 0");
    EXPECT_LT(ending.tookMs, kLongestEndMs);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(daemon_.pidFile()));
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}));
}

TEST_F(ShutdownAtWork, ReplayOfALargeRequestFileDoesNotHoldItUp) {
    ASSERT_TRUE(writeManyRequests("/tmp/large", 60000));
    ASSERT_TRUE(daemon_.spawn({"-d", "-x", "/tmp/large"})); // reading it takes longer than a start
    ASSERT_TRUE(
        waitForLog(7, "processCmd() request.action=APPMONCTL_Stop filed1", 3 * kPatienceMs));
    expectCleanEnd();
    EXPECT_EQ(countLog(7, "processCmd() request.action=APPMONCTL_Stop filed3"), 0U);
}

} // namespace
} // namespace systemtest
