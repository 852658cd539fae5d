// Limits of descriptors and of memory that a running monitor comes to.

#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

// --- descriptors ---------------------------------------------------------------------------------

const std::string kNoPipe = "fork2:pipe create error: Too many open files\n";

class FaultDescriptors : public FaultTest {
protected:
    /// Lets the monitor have that many descriptors more than it keeps open.
    void allowMore(rlim_t count) const {
        rlim_t lowest = 0; // the lowest number that is free while the monitor waits for a client
        whileTheMonitorStands([&] {
            const auto open = descriptorsOf(monitor_.pid());
            while (open.count(static_cast<int>(lowest)) > 0) {
                ++lowest;
            }
        });
        ASSERT_TRUE(setLimit(monitor_.pid(), RLIMIT_NOFILE, lowest + count));
    }
};

TEST_F(FaultDescriptors, NoneIsLeft) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_NO_FATAL_FAILURE(allowMore(0));
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_TRUE(waitForLog(7, "recvCommand(): accept error=24"));
    sleepMs(5000);
    expectUnharmed("without descriptors");
    expectLeftAlone("without descriptors");
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_NOFILE));
    EXPECT_EQ(toReply(client.receiveReply()), replyOf(-20, "nobody is not found\n"));
    expectAllIsWell("with descriptors again");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// A client is accepted, but its request cannot be received.
TEST_F(FaultDescriptors, OneIsLeft) {
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_NO_FATAL_FAILURE(allowMore(1));
    for (int request = 0; request < 2; ++request) {
        Client client;
        ASSERT_TRUE(client.connect());
        (void)client.send(makeRequest(APPMONCTL_Stop, "nobody")); // it may be closed already
        const Received received = client.receive(kPatienceMs);
        EXPECT_TRUE(received.ended && received.bytes.empty());
    }
    EXPECT_TRUE(eventually([] { return countLog(7, "recvCommand(): accept error=24") == 2; }));
    ASSERT_TRUE(liftLimit(monitor_.pid(), RLIMIT_NOFILE));
    expectServing();
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// The stated end of a monitor that can make no pipe for a launch.
TEST_F(FaultDescriptors, NoneForALaunch) {
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_NO_FATAL_FAILURE(allowMore(2));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nobody")).code, -20) << "enough for that";
    ASSERT_TRUE(sendWithoutWaiting(makeStart("data_server")));
    EXPECT_EQ(monitor_.waitForEnd().text(), "status 255");
    EXPECT_EQ(monitor_.errors(), kNoPipe);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

TEST_F(FaultDescriptors, NoneForAReplacement) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_NO_FATAL_FAILURE(allowMore(0));
    ASSERT_TRUE(killAndWait(pid_));
    EXPECT_EQ(monitor_.waitForEnd().text(), "status 255");
    EXPECT_EQ(monitor_.errors(), kNoPipe);
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

// --- memory --------------------------------------------------------------------------------------

class FaultMemory : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
#ifdef OVARD_IS_SANITIZED
        GTEST_SKIP() << "MEMORY LIMITS NOT TESTED: a sanitizer needs more than any limit";
#endif
    }

    void startWithoutMoreMemory(__rlimit_resource resource) {
        ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
        ASSERT_TRUE(setLimit(monitorPid_, resource, 4096));
    }

    void expectEndured(const std::string& what) {
        for (int cycle = 0; cycle < 2; ++cycle) {
            expectAllIsWell(what);
        }
        expectLeftAlone(what);
    }
};

TEST_F(FaultMemory, NoMoreAddressSpace) {
    ASSERT_NO_FATAL_FAILURE(startWithoutMoreMemory(RLIMIT_AS));
    expectEndured("without address space");
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_AS));
    expectAllIsWell("with address space again");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultMemory, NoMoreData) {
    ASSERT_NO_FATAL_FAILURE(startWithoutMoreMemory(RLIMIT_DATA));
    expectEndured("without data");
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_DATA));
    expectAllIsWell("with data again");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// An application inherits the limit and cannot be executed; its replacements can, as soon as the
/// monitor's limit is lifted.
TEST_F(FaultMemory, ApplicationThatDiesMeanwhileIsReplacedAfterwards) {
    ASSERT_NO_FATAL_FAILURE(startWithoutMoreMemory(RLIMIT_AS));
    ASSERT_TRUE(killAndWait(pid_));
    ASSERT_TRUE(waitForLog(6, stoppedLine("data_server", pid_), 3 * kPatienceMs));
    EXPECT_TRUE(monitor_.alive());
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_AS));
    ASSERT_TRUE(duringPasses(
        [&] {
            const std::vector<pid_t> running = processesWithCommandLine(commandIn(request_));
            pid_ = running.size() == 1 ? running[0] : 0;
            return pid_ != 0 && publishedApp("data_server").pid == pid_ &&
                   publishedApp("data_server").status == "started";
        },
        12 * kPatienceMs));
    expectAllIsWell("with address space again");
}

/// What there is memory for is replayed, and the rest is left.
TEST_F(FaultMemory, RequestFileThatIsLargerThanTheMemory) {
    ASSERT_TRUE(
        writeFile("/mnt/requests", bytesOf(makeStart("first")) + bytesOf(makeStart("second"))));
    ASSERT_TRUE(runShell("truncate -s 60M /mnt/requests"));
    const MonitorThroughScript script("ulimit -S -v 40000\nexec \"$OVARD\" \"$@\"\n");
    ASSERT_TRUE(monitor_.startInForeground({"-x", "/mnt/requests"}));
    const std::string beginning = "Error 12 reading /mnt/requests after ";
    ASSERT_TRUE(eventually([&] { return countOf(monitor_.console(), beginning) == 1; }));
    ASSERT_TRUE(liftLimit(monitor_.pid(), RLIMIT_AS));
    EXPECT_TRUE(eventually([] { return processesNamed("second").size() == 1; }));
    EXPECT_EQ(processesNamed("first").size(), 1U);
    EXPECT_EQ(countOf(monitor_.console(), "Error"), 1U);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
