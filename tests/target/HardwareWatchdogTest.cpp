// The monitor and the hardware watchdog, which resets the machine when nobody feeds it.

#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/HeldPass.h"
#include "tests/target/Cycle.h"
#include "tests/target/MachineTest.h"

namespace target {
namespace {

using systemtest::eventually;
using systemtest::readFile;

constexpr int kTimeoutSec = 5;

/// More than enough for any reset here: the budget of a main loop that is held, 25 seconds, and the
/// device's time-out.
constexpr int kPatienceSec = 60;

std::string deviceFact(const std::string& name) {
    const std::string text = readFile("/sys/class/watchdog/watchdog0/" + name);
    return text.substr(0, text.find('\n'));
}

class HardwareWatchdog : public MachineTest {
protected:
    /// Sets the device's time-out, which it keeps while it is closed.
    static void setTimeout() {
        const platform::UniqueFd device = platform::openFile("/dev/watchdog", O_WRONLY);
        int seconds = kTimeoutSec;
        ASSERT_EQ(::ioctl(device.get(), WDIOC_SETTIMEOUT, &seconds), 0);
        ASSERT_EQ(seconds, kTimeoutSec);
        ASSERT_EQ(platform::writeFully(device.get(), "V", 1), 1);
    }

    /// Starts a monitor that feeds the device every second, and waits until it does.
    void startFeeding() {
        ASSERT_NO_FATAL_FAILURE(setTimeout());
        ASSERT_EQ(deviceFact("state"), "inactive");
        ASSERT_TRUE(startMonitorInForeground({"-w", "0", "-I", "1"}));
        ASSERT_TRUE(eventually([] { return deviceFact("state") == "active"; }));
        ASSERT_EQ(deviceFact("timeout"), std::to_string(kTimeoutSec));
    }
};

TEST_F(HardwareWatchdog, TellsAColdStart) {
    EXPECT_EQ(deviceFact("bootstatus"), "0");
    EXPECT_EQ(deviceFact("identity"), "i6300ESB timer");
}

TEST_F(HardwareWatchdog, TellsThatItResetTheMachine) {
    EXPECT_EQ(deviceFact("bootstatus"), std::to_string(WDIOF_CARDRESET));
    // The monitor works as ever, and the device with it.
    ASSERT_NO_FATAL_FAILURE(startFeeding());
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_EQ(deviceFact("state"), "inactive");
}

TEST_F(HardwareWatchdog, FedForAMinuteAndDisarmedByTermination) {
    ASSERT_NO_FATAL_FAILURE(startFeeding());
    const pid_t application = launch("one"); // its process lets the device go
    systemtest::sleepMs(60000);
    EXPECT_EQ(deviceFact("state"), "active");
    EXPECT_TRUE(systemtest::isRunning(application));
    ASSERT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_EQ(deviceFact("state"), "inactive");
    systemtest::sleepMs(3 * kTimeoutSec * 1000);
}

TEST_F(HardwareWatchdog, StoppedMonitorIsReset) {
    ASSERT_NO_FATAL_FAILURE(startFeeding());
    ASSERT_TRUE(monitor_.signal(SIGSTOP));
    sayMark("stopped");
    awaitReset(kPatienceSec);
}

TEST_F(HardwareWatchdog, KilledMonitorIsReset) {
    ASSERT_NO_FATAL_FAILURE(startFeeding());
    ASSERT_TRUE(monitor_.signal(SIGKILL));
    sayMark("killed");
    awaitReset(kPatienceSec);
}

TEST_F(HardwareWatchdog, MonitorThatLeavesItArmedIsReset) {
    ASSERT_NO_FATAL_FAILURE(startFeeding());
    ASSERT_TRUE(systemtest::writeFile("/tmp/watchdog_kick", ""));
    ASSERT_EQ(monitor_.terminate().text(), "status 0");
    ASSERT_EQ(deviceFact("state"), "active");
    sayMark("left_armed");
    awaitReset(kPatienceSec);
}

class HeldMainLoop : public HardwareWatchdog {
protected:
    /// Starts a monitor that feeds the device every second, and whose main loop polls of a minute
    /// hold soon. A pass looks at the application before, which then has time: three seconds after
    /// the launch, by the start time of the application up to five.
    void startHeld() {
        constexpr int kPollSec = 60;
        ASSERT_NO_FATAL_FAILURE(setTimeout());
        std::vector<std::string> words = systemtest::wordsForPolls(kPollSec);
        words.insert(words.end(), {"-w", "0", "-I", "1", "-s", "8", "-v", "7"});
        ASSERT_TRUE(monitor_.startInForeground(words));
        (void)launch(systemtest::withoutRestart(makeStart(
            systemtest::kSilentName, systemtest::kSilentOptions, systemtest::kSilentPidFile)));
        ASSERT_TRUE(eventually([] { return deviceFact("state") == "active"; }));
        ASSERT_TRUE(eventually([this] { return looksWithTime() > 0; }));
    }

    /// The polls have begun: of each look at the application the monitor says so, and right after
    /// it, as long as it does not poll, that the application has time.
    bool isHeld() const {
        constexpr int kLookMs = 100;
        if (looks() == looksWithTime()) {
            return false;
        }
        systemtest::sleepMs(kLookMs);
        return looks() > looksWithTime();
    }

private:
    std::size_t looks() const {
        return systemtest::countOf(monitor_.console(), std::string("checkAlive() ") +
                                                           systemtest::kSilentName + " status=1 ");
    }

    std::size_t looksWithTime() const {
        return systemtest::countOf(monitor_.console(), " starting0 for ");
    }
};

/// Each turn of the main loop in which no request comes ends with a publication, and right after it
/// the feeding has its budget again, here 25 ticks of a second. Waits until the last such turn is
/// that long ago.
void waitSinceLastTurn(std::int64_t milliseconds) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t sinceTurnMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(now).count() - lastPublicationMs();
    systemtest::sleepMs(static_cast<int>(milliseconds - sinceTurnMs));
}

/// Polls for a pid file that never comes hold the main loop, which is fed for its budget only. The
/// mark is said while they do: a turn in which nobody comes polls after 2.1 seconds.
TEST_F(HeldMainLoop, IsReset) {
    constexpr std::int64_t kMarkAfterTurnMs = 5000; // tests/target/scenarios.bash counts on it
    waitForUptime(kRestSec + 1);
    ASSERT_NO_FATAL_FAILURE(startHeld());
    ASSERT_TRUE(eventually([this] { return isHeld(); }));
    waitSinceLastTurn(kMarkAfterTurnMs);
    sayMark("held");
    awaitReset(kPatienceSec);
}

TEST_F(HardwareWatchdog, MayBeMissing) {
    ASSERT_FALSE(systemtest::fileExists("/dev/watchdog"));
    ASSERT_TRUE(startMonitorInForeground({"-w", "0", "-I", "1"}));
    EXPECT_TRUE(eventually([this] {
        return systemtest::countOf(monitor_.errors(), "Error: No such file or directory\n") >= 3;
    }));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace target
