// The watchdog device while it is being fed: its file is removed, or the device itself goes. That
// it is missing from the beginning: OptionsTest.cpp, WatchdogTest.cpp.

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/Applications.h"
#include "tests/system/FaultSupport.h"
#include "tests/system/Watchdog.h"

namespace systemtest {
namespace {

using FaultWatchdog = ToldOnce<ApplicationTest>;

const std::vector<std::string> kFeeding = {"-w", "0", "-I", "1"};

/// While it lives, the watchdog is a device that can be pulled out: a terminal's line.
class PullableWatchdog {
public:
    PullableWatchdog()
        : line_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
        const char* name = nullptr;
        if (::grantpt(line_.get()) == 0 && ::unlockpt(line_.get()) == 0) {
            name = ::ptsname(line_.get());
        }
        termios raw = {};
        ::cfmakeraw(&raw);
        plugged_ = name != nullptr && ::tcsetattr(line_.get(), TCSANOW, &raw) == 0 &&
                   ::symlink(name, kWatchdogPath) == 0;
    }
    ~PullableWatchdog() { pull(); }
    PullableWatchdog(const PullableWatchdog&) = delete;
    PullableWatchdog& operator=(const PullableWatchdog&) = delete;

    bool plugged() const { return plugged_; }

    /// Bytes that it was fed since the last call.
    std::string fed() const {
        char bytes[256];
        const ssize_t count = ::read(line_.get(), bytes, sizeof bytes);
        return {bytes, count > 0 ? static_cast<std::size_t>(count) : 0};
    }

    void pull() {
        line_.reset();
        if (plugged_) {
            plugged_ = ::unlink(kWatchdogPath) != 0;
        }
    }

private:
    WatchdogAside real_; // put back at the end
    platform::UniqueFd line_;
    bool plugged_ = false;
};

TEST_F(FaultWatchdog, FileThatIsRemovedIsFedThroughTheOpenDescriptor) {
    ASSERT_TRUE(startMonitorInForeground(kFeeding));
    ASSERT_TRUE(eventually([] { return !watchdogBytes().empty(); }));
    const std::string aside = std::string(kWatchdogPath) + ".aside";
    {
        const WatchdogAside away;
        const std::size_t before = readFile(aside).size();
        EXPECT_TRUE(eventually([&] { return readFile(aside).size() >= before + 3; }));
        EXPECT_FALSE(fileExists(kWatchdogPath));
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
        EXPECT_EQ(readFile(aside).substr(readFile(aside).size() - 2), "wV");
    }
    EXPECT_EQ(monitor_.errors(), "");
}

/// The open descriptor is kept, as is required: a device that takes the place of the one that was
/// pulled out is not opened.
TEST_F(FaultWatchdog, DeviceThatIsPulledOutIsToldOnceAndNotReplaced) {
    {
        PullableWatchdog watchdog;
        ASSERT_TRUE(watchdog.plugged());
        ASSERT_TRUE(startMonitorInForeground(kFeeding));
        ASSERT_TRUE(eventually([&] { return watchdog.fed() == "w"; }));
        watchdog.pull();
        sleepMs(5000);
    }
    sleepMs(3000);
    EXPECT_EQ(watchdogBytes(), "") << "the one that is there now is fed";
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nobody")).code, -20);
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{faultLine(kWatchdogPath, EIO)});
    EXPECT_EQ(countLog(6, recoveryLine(kWatchdogPath)), 0U);
    EXPECT_EQ(monitor_.errors(), "");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultWatchdog, DeviceThatFailsForAWhileIsFedAgain) {
    ASSERT_TRUE(startMonitorInForeground(kFeeding));
    ASSERT_TRUE(eventually([] { return !watchdogBytes().empty(); }));
    ASSERT_TRUE(setLimit(monitor_.pid(), RLIMIT_FSIZE, 0)); // the stand-in is a file
    ASSERT_TRUE(waitForLog(3, faultLine(kWatchdogPath, EFBIG)));
    sleepMs(5000);
    const std::size_t before = watchdogBytes().size();
    ASSERT_TRUE(liftLimit(monitor_.pid(), RLIMIT_FSIZE));
    EXPECT_TRUE(eventually([&] { return watchdogBytes().size() >= before + 3; }));
    EXPECT_TRUE(waitForLog(6, recoveryLine(kWatchdogPath)));
    sleepMs(3000);
    EXPECT_EQ(faultsTold(kWatchdogPath), 1);
    EXPECT_EQ(countLog(6, recoveryLine(kWatchdogPath)), 1U);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

TEST_F(FaultWatchdog, FailedFeedingsAreShownWhereFeedingsAre) {
    PullableWatchdog watchdog;
    ASSERT_TRUE(watchdog.plugged());
    std::vector<std::string> words = kFeeding;
    words.insert(words.end(), {"-v", "6"});
    ASSERT_TRUE(startMonitorInForeground(words));
    const auto shows = [this](const std::string& result) {
        return countOf(monitor_.console(), "kicked watchdog... " + result + "\n") >= 2;
    };
    ASSERT_TRUE(eventually([&] { return shows("1"); }));
    watchdog.pull();
    EXPECT_TRUE(eventually([&] { return shows("-1"); }));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
