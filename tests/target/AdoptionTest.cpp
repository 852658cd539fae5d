// A monitor that takes over from a killed one, and one that is asked for much.

#include <algorithm>
#include <string>
#include <vector>

#include "tests/bench/MemoryUse.h"
#include "tests/system/Segments.h"
#include "tests/target/MachineTest.h"

namespace target {
namespace {

using systemtest::eventually;
using systemtest::publishedApp;

constexpr int kApplications = 10;
constexpr int kRequests = 1000;

/// Requests after which the monitor has touched all the memory that they take, and what the others
/// may add: a page, or two.
constexpr int kWarmUpRequests = 20;
constexpr long kMostGrowthKb = 8;

class Adoption : public MachineTest {
protected:
    /// A start request for an application that writes its pid file by convention, where the next
    /// monitor finds it.
    reqcmd makeOrdinary(const std::string& name) {
        reqcmd request = makeStart(name);
        std::string("1.0").copy(request.version, sizeof request.version);
        return request;
    }

    /// The pids that are published, by the order of the applications.
    static std::vector<pid_t> publishedPids() {
        std::vector<pid_t> pids;
        for (const systemtest::PublishedApp& app : systemtest::publishedApps()) {
            pids.push_back(app.pid);
        }
        std::sort(pids.begin(), pids.end());
        return pids;
    }

    /// Ends an application, upon which another process has to take its place.
    static void expectReplaced(const std::string& name) {
        const pid_t first = publishedApp(name).pid;
        ASSERT_TRUE(systemtest::killAndWait(first));
        EXPECT_TRUE(eventually([&] {
            const pid_t pid = publishedApp(name).pid;
            return pid != first && systemtest::isRunning(pid);
        }));
    }

    /// What the monitor has in memory.
    long residentKb() const { return bench::totalOf(bench::readMemoryUse(monitor_.pid())).rss; }
};

TEST_F(Adoption, ApplicationsOfAKilledMonitorAreTakenOver) {
    waitForUptime(kRestSec + 1);
    ASSERT_TRUE(startMonitor({"-i", "1", "-s", "3"}));
    std::vector<pid_t> pids;
    for (int number = 1; number <= kApplications; ++number) {
        pids.push_back(launch(makeOrdinary("app_" + std::to_string(number))));
    }
    ASSERT_TRUE(areStarted(pids.size(), 60000));
    std::sort(pids.begin(), pids.end());
    ASSERT_TRUE(eventually([&] { return publishedPids() == pids; }));
    monitor_.kill();
    systemtest::Daemon next;
    ASSERT_TRUE(next.startInBackground({"-i", "1", "-s", "3"}));
    EXPECT_TRUE(eventually([&] { return publishedPids() == pids; }));
    for (const pid_t pid : pids) {
        EXPECT_TRUE(systemtest::isRunning(pid));
    }
    ASSERT_TRUE(areStarted(pids.size(), 60000));
    ASSERT_NO_FATAL_FAILURE(expectReplaced("app_1"));
    EXPECT_EQ(next.terminate().text(), "ended");
}

/// Every second request starts an application anew, the others fail by their name.
TEST_F(Adoption, ThousandRequestsLeaveNothingBehind) {
    ASSERT_TRUE(startMonitor({"-i", "5"}));
    const reqcmd start = makeBeating("one", RESTART_TYPE_SELF);
    const reqcmd stop = systemtest::makeRequest(APPMONCTL_Stop, "nobody");
    pid_t pid = launch(start);
    const std::size_t descriptors = systemtest::descriptorsOf(monitor_.pid()).size();
    long residentBeforeKb = 0;
    for (int count = 2; count <= kRequests; ++count) {
        const bool starts = count % 2 == 0;
        const auto reply = systemtest::ask(starts ? start : stop);
        ASSERT_TRUE(reply) << count;
        ASSERT_EQ(reply->code, starts ? 0 : -20) << count;
        if (starts) {
            ASSERT_NE(systemtest::pidIn(systemtest::messageOf(*reply)), pid) << count;
            pid = systemtest::pidIn(systemtest::messageOf(*reply));
        }
        if (count == kWarmUpRequests) {
            residentBeforeKb = residentKb();
        }
    }
    EXPECT_EQ(systemtest::processesNamed("one"), std::vector<pid_t>{pid});
    EXPECT_EQ(systemtest::descriptorsOf(monitor_.pid()).size(), descriptors);
    ASSERT_GT(residentBeforeKb, 0);
    EXPECT_LE(residentKb(), residentBeforeKb + kMostGrowthKb);
    EXPECT_EQ(monitor_.terminate().text(), "ended");
}

} // namespace
} // namespace target
