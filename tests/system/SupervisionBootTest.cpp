// Supervision rests until the system has been up for 90 seconds.

#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "tests/system/Supervision.h"

namespace systemtest {
namespace {

using SupervisionAtUptime10 = SupervisionTest;
using SupervisionBoot = SupervisionTest;
using SupervisionAtUptime91 = SupervisionTest;

constexpr std::time_t kRestSec = 90;

/// The main loop keeps entries without a pid file for that long.
constexpr int kPreloadGraceMs = 30000;

double uptime() {
    return std::strtod(readFile("/proc/uptime").c_str(), nullptr);
}

/// A start request for an application that has no pid file, by its record or otherwise.
reqcmd makeNameless(const std::string& command) {
    return makeRequest(APPMONCTL_Start, "nameless", command + " --no-pidfile");
}

TEST_F(SupervisionAtUptime10, NothingIsSupervisedNorErased) {
    ASSERT_LT(uptime(), 30);
    ASSERT_TRUE(startSupervisor());
    const std::int64_t begin = monotonicMs();
    const pid_t nameless = launch(makeNameless(installSample("nameless")));
    const pid_t mortal = launch(makeSupervised("mortal", RESTART_TYPE_SELF));
    ASSERT_TRUE(killAndWait(mortal));
    letPassesGoBy(kPreloadGraceMs + 2500 - static_cast<int>(monotonicMs() - begin));
    ASSERT_LT(uptime(), 88) << "this machine is too slow";
    EXPECT_EQ(verdictsOn("mortal"), std::vector<std::string>{});
    EXPECT_TRUE(processesNamed("mortal").empty());
    EXPECT_EQ(countOf(monitor_.console(), "erase empty"), 0U);
    EXPECT_TRUE(isRunning(nameless));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nameless")),
              replyOf(0, "nameless is stopped @DATE\n"));
}

TEST_F(SupervisionAtUptime91, SupervisionWorksAtOnce) {
    ASSERT_LT(uptime(), 100);
    ASSERT_TRUE(startSupervisor());
    const reqcmd request = makeSupervised("mortal", RESTART_TYPE_SELF);
    const pid_t pid = launchUntilRunning(request);
    ASSERT_TRUE(killAndWait(pid));
    EXPECT_NE(replacementOf(request, pid), 0);
    expectReplacedAfter("mortal", pid, "start_time=DATE running, is dead");
}

TEST_F(SupervisionAtUptime91, EntriesWithoutAPidFileAreErasedAfterThirtySeconds) {
    ASSERT_TRUE(startSupervisor());
    const std::int64_t begin = monotonicMs();
    const pid_t nameless = launch(makeNameless(installSample("nameless")));
    const pid_t named = launch(makeSupervised("named", RESTART_TYPE_SELF));
    const std::string line = "erase empty pidfile entry for nameless\n";
    ASSERT_TRUE(duringPasses([&] { return countOf(monitor_.console(), line) > 0; }, 45000));
    EXPECT_GE(monotonicMs() - begin, kPreloadGraceMs - 1500);
    EXPECT_EQ(verdictsOn("nameless"), std::vector<std::string>{}) << "it was never looked at";
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nameless")),
              replyOf(-20, "nameless is not found\n"));
    EXPECT_TRUE(isRunning(nameless)) << "it is only forgotten";
    EXPECT_EQ(verdictsOn("named"), confirmed("named", named));
    EXPECT_EQ(countOf(monitor_.console(), "erase empty"), 1U);
}

/// A time such as "Sat Nov 21 04:11:52 2026", the time zone being the monitor's; -1 for other text.
std::time_t timeAtTheBeginningOf(const char* text) {
    std::tm fields = {};
    if (::strptime(text, "%a %b %e %H:%M:%S %Y", &fields) == nullptr) {
        return -1;
    }
    fields.tm_isdst = -1;
    return std::mktime(&fields);
}

const std::string kLook = "checkAlive() mortal status=1 ";

/// The time of the first look at the application; -1 when there is none.
std::time_t firstLook(const std::vector<std::string>& console) {
    for (const std::string& line : console) {
        const std::size_t at = line.rfind(" at ");
        if (line.find(kLook) == 0 && at != std::string::npos) {
            return timeAtTheBeginningOf(line.c_str() + at + 4);
        }
    }
    return -1;
}

/// The times of the passes that came before the first look, without the one that it belongs to.
std::vector<std::time_t> emptyPasses(const std::vector<std::string>& console) {
    std::vector<std::time_t> times;
    for (const std::string& line : console) {
        if (line.find(" checkStatus(bErasePreloadApplistEntries=") != std::string::npos) {
            times.push_back(timeAtTheBeginningOf(line.c_str()));
        } else if (line.find(kLook) == 0) {
            break;
        }
    }
    if (!times.empty()) {
        times.pop_back();
    }
    return times;
}

TEST_F(SupervisionBoot, FirstPassIsThatOfSecond90) {
    ASSERT_LT(uptime(), 86) << "this machine is too slow";
    ASSERT_TRUE(startSupervisor({"-v", "8"}));
    const reqcmd request = makeSupervised("mortal", RESTART_TYPE_SELF);
    const Reply reply = askFor(request);
    const pid_t pid = pidIn(reply.message);
    // The start time is the monitor's boot time and the age of the process in ticks.
    const auto ticks = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    const std::time_t bootTime =
        timeOf(reply.date) - static_cast<std::time_t>(processFacts(pid).startTicks / ticks);
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(duringPasses([&] { return countOf(monitor_.console(), kLook) > 0; }));
    const std::vector<std::string> console = linesOf(monitor_.console());
    EXPECT_GE(firstLook(console), bootTime + kRestSec);
    const std::vector<std::time_t> times = emptyPasses(console);
    ASSERT_GE(times.size(), 10U);
    EXPECT_GE(times.back(), bootTime + kRestSec - 3) << "there were no passes shortly before";
    EXPECT_LT(times.back(), bootTime + kRestSec) << "this one did nothing";
    EXPECT_NE(replacementOf(request, pid), 0);
    expectReplacedAfter("mortal", pid, "start_time=DATE starting0 confirmed start failure");
}

} // namespace
} // namespace systemtest
