// The restart of the machine by the monitor, and what comes after it.

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/Segments.h"
#include "tests/target/MachineTest.h"

namespace target {
namespace {

using systemtest::eventually;
using systemtest::publishedApp;

constexpr const char* kRequests = "/home/requests";

/// A monitor with two applications that are replaced when they fail, and one whose failure restarts
/// the machine.
class Restart : public MachineTest {
protected:
    void bootMonitor(const std::vector<std::string>& options = {}) {
        std::vector<reqcmd> requests = makeManyRequests(2);
        requests.push_back(makeBeating("vital", RESTART_TYPE_ALL));
        ASSERT_TRUE(writeRequests(kRequests, requests));
        std::vector<std::string> words = {"-x", kRequests, "-i", "1", "-s", "2", "-p", "2"};
        words.insert(words.end(), options.begin(), options.end());
        ASSERT_TRUE(monitor_.startInBackground(words));
        ASSERT_TRUE(areStarted(requests.size(), static_cast<int>(kRestSec * 1000) + 60000));
        ASSERT_GE(uptimeSec(), kRestSec) << "it is said to rest before";
    }

    void failAndAwaitReset() {
        ASSERT_TRUE(systemtest::killAndWait(publishedApp("vital").pid));
        sayMark("failure");
        awaitReset(60);
    }
};

TEST_F(Restart, FailureUnderPolicyOneRestartsTheMachine) {
    ASSERT_NO_FATAL_FAILURE(bootMonitor());
    ASSERT_NO_FATAL_FAILURE(failAndAwaitReset());
}

TEST_F(Restart, ApplicationsAreSupervisedAgainAfterwards) {
    EXPECT_EQ(systemtest::readFile("/sys/class/watchdog/watchdog0/bootstatus"), "0\n");
    ASSERT_NO_FATAL_FAILURE(bootMonitor());
    const pid_t first = publishedApp("app_1").pid;
    ASSERT_TRUE(systemtest::killAndWait(first));
    EXPECT_TRUE(eventually([&] { return publishedApp("app_1").pid != first; }));
    EXPECT_TRUE(areStarted(3, 30000));
    EXPECT_EQ(monitor_.terminate().text(), "ended");
}

/// The driver admits one opener, so the reboot's own command cannot write to the watchdog.
TEST_F(Restart, MonitorThatHoldsTheWatchdogRestartsTheMachineToo) {
    ASSERT_NO_FATAL_FAILURE(bootMonitor({"-w", "0"}));
    ASSERT_FALSE(platform::openFile("/dev/watchdog", O_WRONLY).valid());
    ASSERT_EQ(errno, EBUSY);
    ASSERT_NO_FATAL_FAILURE(failAndAwaitReset());
}

} // namespace
} // namespace target
