// Limits of descriptors and of memory that a running monitor comes to.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

// --- descriptors ---------------------------------------------------------------------------------

const std::string kNoDescriptor = "recvCommand(): accept error=24";
const std::string kNoPipe = "fork2:pipe create error: Too many open files\n";

class FaultDescriptors : public FaultTest {
protected:
    using Descriptors = std::map<int, std::string>;

    /// Lets the monitor have that many descriptors more than it keeps open. These have the lowest
    /// numbers then: a gap would be one more.
    void allowMore(rlim_t count) const {
        allow(count,
              [](const Descriptors& open) { return lowestFree(open) == rlim_t{open.size()}; });
    }

    /// Lets it have none more, nor one that it gives back: a segment is opened anew in each turn,
    /// and the number of one that cannot be becomes free.
    void allowNone() const {
        allow(0, [](const Descriptors& open) { return !segmentLiesBelow(lowestFree(open), open); });
    }

private:
    static constexpr int kMostTurns = 10;

    /// Limits the descriptors to the lowest free one, and `count` further ones, at a moment at
    /// which the open ones are as they should be.
    void allow(rlim_t count, const std::function<bool(const Descriptors&)>& isRight) const {
        bool isDone = false;
        for (int turns = 0; turns < kMostTurns && !isDone; ++turns) {
            expectServing(); // each turn moves the segments' numbers; then the main loop rests
            whileTheMonitorStands([&] {
                const Descriptors open = descriptorsOf(monitor_.pid());
                isDone = isRight(open) &&
                         setLimit(monitor_.pid(), RLIMIT_NOFILE, lowestFree(open) + count);
            });
        }
        ASSERT_TRUE(isDone);
    }

    static rlim_t lowestFree(const Descriptors& open) {
        int number = 0;
        while (open.count(number) > 0) {
            ++number;
        }
        return static_cast<rlim_t>(number);
    }

    static bool segmentLiesBelow(rlim_t number, const Descriptors& open) {
        return std::any_of(open.begin(), open.end(), [=](const auto& descriptor) {
            return static_cast<rlim_t>(descriptor.first) < number &&
                   descriptor.second.rfind("/dev/shm/meter_", 0) == 0;
        });
    }
};

TEST_F(FaultDescriptors, NoneIsLeft) {
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_NO_FATAL_FAILURE(allowNone());
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_TRUE(waitForLog(7, kNoDescriptor));
    const std::int64_t begin = monotonicMs();
    const std::size_t before = countLog(7, kNoDescriptor);
    sleepMs(5000);
    // The client stays in the queue: it is refused anew in each turn, which rests for 100 ms.
    const std::size_t lines = countLog(7, kNoDescriptor) - before;
    EXPECT_GT(lines, 0U) << "the one that waits is forgotten";
    EXPECT_LE(static_cast<std::int64_t>(lines), (monotonicMs() - begin) / 100 + 1);
    expectUnharmed("without descriptors");
    expectLeftAlone("without descriptors");
    expectTold(mark, kSharedNames, EMFILE, 0);
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_NOFILE));
    EXPECT_EQ(toReply(client.receiveReply()), replyOf(-20, "nobody is not found\n"));
    expectAllIsWell("with descriptors again");
    expectTold(mark, kSharedNames, EMFILE, 1);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// A client is accepted, but its request cannot be received. One descriptor at a time is enough for
/// passes and segments.
TEST_F(FaultDescriptors, OneIsLeft) {
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_NO_FATAL_FAILURE(allowMore(1));
    for (int request = 0; request < 2; ++request) {
        Client client;
        ASSERT_TRUE(client.connect());
        (void)client.send(makeRequest(APPMONCTL_Stop, "nobody")); // it may be closed already
        const Received received = client.receive(kPatienceMs);
        EXPECT_TRUE(received.ended && received.bytes.empty());
    }
    EXPECT_TRUE(eventually([] { return countLog(7, kNoDescriptor) == 2; }));
    const float before = publishedHours();
    EXPECT_TRUE(eventually([=] { return publishedHours() != before; }));
    expectPublished("with one descriptor");
    expectLeftAlone("with one descriptor");
    expectTold(mark, {}, 0, 0);
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_NOFILE));
    expectAllIsWell("with descriptors again");
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
    ASSERT_NO_FATAL_FAILURE(allowNone());
    ASSERT_TRUE(killAndWait(pid_));
    EXPECT_EQ(monitor_.waitForEnd().text(), "status 255");
    EXPECT_EQ(monitor_.errors(), kNoPipe);
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

// --- memory --------------------------------------------------------------------------------------

/// A launch of a program that cannot be executed, for which the search takes half a minute.
constexpr int kFailedLaunchMs = 40000;

/// Three launches of programs that stay in the foreground, and what comes before and after.
constexpr int kLaunchesMs = 120000;

std::string refusedLine(const std::string& name) {
    return "processRequest: no memory for action=1 name=" + name;
}

class FaultMemory : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
#ifdef OVARD_IS_SANITIZED
        GTEST_SKIP() << "a sanitizer needs more than any limit";
#endif
    }

    void startWithoutMoreMemory(__rlimit_resource resource) {
        ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
        ASSERT_TRUE(setLimit(monitorPid_, resource, 4096));
    }

    /// The monitor goes on, although there is no memory to execute another program.
    void expectEndured(const std::string& what) {
        expectLaunchThatComesToNothing(what);
        EXPECT_TRUE(publishes({"data_server"})) << what;
        for (int cycle = 0; cycle < 2; ++cycle) {
            expectAllIsWell(what);
        }
        expectLeftAlone(what);
        EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{}) << what;
    }

private:
    /// A start is answered like any other, and the next pass tells that there is no such process.
    void expectLaunchThatComesToNothing(const std::string& what) {
        const Reply reply = askFor(makeSupervised("late", kNoPolicy), kFailedLaunchMs);
        const pid_t pid = pidIn(reply.message);
        const std::string number = std::to_string(pid);
        EXPECT_EQ(reply, replyOf(0, "late [pid=" + number + "] is started @DATE\n")) << what;
        EXPECT_TRUE(processesNamed("late").empty()) << "there was memory";
        const std::string failure =
            verdict("late", pid, "start_time=DATE starting0 confirmed start failure");
        EXPECT_TRUE(reaches(failure)) << what;
        EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "late")),
                  replyOf(0, "late is stopped @DATE\n"))
            << what;
        const std::vector<std::string> expected = {
            "start_process: name=late  status=1 start_process_fork2=" + number, failure,
            stoppedLine("late", pid)};
        EXPECT_EQ(linesOn("late"), expected) << what;
    }
};

/// Takes two minutes, and therefore a sandbox of its own.
using FaultMemoryQueue = FaultMemory;

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
    ASSERT_TRUE(publishesAReplacement(12 * kPatienceMs));
    expectAllIsWell("with address space again");
}

/// While three launches take their time, more requests come than there is memory for. Each is
/// executed or refused, which is told.
TEST_F(FaultMemoryQueue, RequestsThatAreQueuedMeanwhile) {
    constexpr std::size_t kRequests = 80;
    mayRepeat(refusedLine("nobody"));
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    for (const char* name : {"first", "second", "third"}) {
        ASSERT_TRUE(sendWithoutWaiting(makeStart(name, "--foreground")));
    }
    ASSERT_TRUE(setLimit(monitorPid_, RLIMIT_AS, 4096));
    ASSERT_TRUE(setLimit(monitorPid_, RLIMIT_DATA, 4096));
    for (std::size_t request = 0; request < kRequests; ++request) {
        ASSERT_TRUE(sendWithoutWaiting(makeRequest(APPMONCTL_Stop, "nobody")));
    }
    const auto refused = [] { return countLog(3, refusedLine("nobody")); };
    const auto queued = [] { return countLog(7, "processRequest: action=1 name=nobody, cmd="); };
    const auto executed = [] {
        return countLog(7, "processCmd() request.action=APPMONCTL_Stop nobody");
    };
    EXPECT_TRUE(eventually([&] { return queued() + refused() == kRequests; }, kLaunchesMs));
    EXPECT_GT(queued(), 0U);
    EXPECT_GT(refused(), 0U) << "there was memory";
    EXPECT_TRUE(eventually([&] { return executed() == queued(); }, kLaunchesMs));
    EXPECT_EQ(daemonLogTexts(3).size(), refused());
    expectUnharmed("without memory");
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_AS));
    ASSERT_TRUE(liftLimit(monitorPid_, RLIMIT_DATA));
    expectServing();
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
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

// --- no memory at all ----------------------------------------------------------------------------

constexpr const char* kRefusalPath = "/mnt/refused";
constexpr const char* kNoWords = "ovard(): commandline_parser malloc errpr!";

/// Lines for MonitorThroughScript.
const std::string kWithRefusedMemory = std::string("export OVARD_TEST_MEMORY=") + kRefusalPath +
                                       " LD_PRELOAD=" + refusedMemoryLibrary() +
                                       "\nexec \"$OVARD\" \"$@\"\n";

/// A limit leaves what the heap has; here every allocation fails (programs/RefusedMemory.cpp).
class FaultRefusedMemory : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
#ifdef OVARD_IS_SANITIZED
        GTEST_SKIP() << "a sanitizer's library must be the first one";
#endif
        ASSERT_TRUE(refuse(false));
    }

    /// The file is written over, not replaced: the monitor has mapped it.
    static bool refuse(bool refused) {
        const platform::UniqueFd file(::open(kRefusalPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        const char byte = refused ? 1 : 0;
        return ::pwrite(file.get(), &byte, 1, 0) == 1;
    }

    MonitorThroughScript script_{kWithRefusedMemory};
};

TEST_F(FaultRefusedMemory, MonitorGoesOnAndRefusesRequests) {
    mayRepeat(refusedLine("nobody"));
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(refuse(true));
    for (std::size_t cycle = 1; cycle <= 3; ++cycle) {
        const float hours = publishedHours();
        ASSERT_TRUE(sendWithoutWaiting(makeRequest(APPMONCTL_Stop, "nobody")));
        EXPECT_TRUE(eventually([&] { return countLog(3, refusedLine("nobody")) == cycle; }));
        ASSERT_TRUE(letACycleGoBy());
        EXPECT_GT(publishedHours(), hours) << "nothing is published";
        expectUnharmed("without memory");
    }
    EXPECT_EQ(daemonLogTexts(3).size(), 3U);
    expectLeftAlone("without memory");
    ASSERT_TRUE(refuse(false));
    expectAllIsWell("with memory again");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// Requests that came before are executed. The first launch takes its whole time, since nothing is
/// found in /proc; the second one has no words, and so nothing to execute.
TEST_F(FaultRefusedMemory, QueuedRequestsAreExecuted) {
    mayRepeat(kNoWords);
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(sendWithoutWaiting(makeStart("slow", "--daemonize-after 8000")));
    ASSERT_TRUE(sendWithoutWaiting(makeStart("late")));
    ASSERT_TRUE(sendWithoutWaiting(makeRequest(APPMONCTL_Stop, "nobody")));
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "data_server")));
    ASSERT_TRUE(waitForLog(7, "processRequest: action=1 name=data_server, cmd="));
    ASSERT_TRUE(refuse(true));
    EXPECT_EQ(toReply(client.receiveReply(kLaunchesMs)),
              replyOf(0, "data_server is stopped @DATE\n"));
    EXPECT_TRUE(isGone(pid_));
    // Wanted for the launch and for the search of what it has left.
    EXPECT_EQ(countLog(3, kNoWords), 2U);
    EXPECT_EQ(processesNamed("late").size(), 0U);
    EXPECT_TRUE(monitor_.alive());
    ASSERT_TRUE(refuse(false));
    expectServing();
    EXPECT_TRUE(isRunning(launch("late")));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

/// Each replacement wants words twice, for the launch and for the search, and comes to nothing.
TEST_F(FaultRefusedMemory, ApplicationThatDiesMeanwhileIsReplacedAfterwards) {
    mayRepeat(kNoWords);
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(refuse(true));
    ASSERT_TRUE(killAndWait(pid_));
    ASSERT_TRUE(eventually([] { return countLog(3, kNoWords) >= 4; }));
    EXPECT_EQ(processesNamed("data_server").size(), 0U);
    EXPECT_EQ(daemonLogTexts(3).size(), countLog(3, kNoWords));
    EXPECT_TRUE(monitor_.alive());
    ASSERT_TRUE(refuse(false));
    EXPECT_TRUE(publishesAReplacement());
    expectAllIsWell("with memory again");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultRefusedMemory, MonitorEndsInOrder) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(refuse(true));
    ASSERT_TRUE(letACycleGoBy());
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_TRUE(isRunning(pid_));
}

} // namespace
} // namespace systemtest
