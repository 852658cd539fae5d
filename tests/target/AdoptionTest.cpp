// A monitor that takes over from a killed one, and one that is asked for much.

#include <algorithm>
#include <vector>

#include "tests/system/Segments.h"
#include "tests/target/MachineTest.h"

namespace target {
namespace {

using systemtest::eventually;

constexpr int kApplications = 10;
constexpr int kRequests = 1000;

class Adoption : public MachineTest {
protected:
    /// The pids that are published, by the order of the applications.
    static std::vector<pid_t> publishedPids() {
        std::vector<pid_t> pids;
        for (const systemtest::PublishedApp& app : systemtest::publishedApps()) {
            pids.push_back(app.pid);
        }
        std::sort(pids.begin(), pids.end());
        return pids;
    }
};

TEST_F(Adoption, ApplicationsOfAKilledMonitorAreTakenOver) {
    ASSERT_TRUE(startMonitor({"-i", "1"}));
    std::vector<pid_t> pids;
    for (const reqcmd& request : makeManyRequests(kApplications)) {
        pids.push_back(launch(request));
    }
    std::sort(pids.begin(), pids.end());
    ASSERT_TRUE(eventually([&] { return publishedPids() == pids; }));
    monitor_.kill();
    systemtest::Daemon next;
    ASSERT_TRUE(next.startInBackground({"-i", "1"}));
    EXPECT_TRUE(eventually([&] { return publishedPids() == pids; }));
    for (const pid_t pid : pids) {
        EXPECT_TRUE(systemtest::isRunning(pid));
    }
    EXPECT_EQ(next.terminate().text(), "ended");
}

/// Every second request starts an application anew, the others fail by their name.
TEST_F(Adoption, ThousandRequestsLeaveNothingBehind) {
    ASSERT_TRUE(startMonitor({"-i", "5"}));
    const reqcmd start = makeBeating("one", RESTART_TYPE_SELF);
    const reqcmd stop = systemtest::makeRequest(APPMONCTL_Stop, "nobody");
    pid_t pid = launch(start);
    const std::size_t descriptors = systemtest::descriptorsOf(monitor_.pid()).size();
    for (int count = 2; count <= kRequests; ++count) {
        const bool starts = count % 2 == 0;
        const auto reply = systemtest::ask(starts ? start : stop);
        ASSERT_TRUE(reply) << count;
        ASSERT_EQ(reply->code, starts ? 0 : -20) << count;
        if (starts) {
            ASSERT_NE(systemtest::pidIn(systemtest::messageOf(*reply)), pid) << count;
            pid = systemtest::pidIn(systemtest::messageOf(*reply));
        }
    }
    EXPECT_EQ(systemtest::processesNamed("one"), std::vector<pid_t>{pid});
    EXPECT_EQ(systemtest::descriptorsOf(monitor_.pid()).size(), descriptors);
    EXPECT_EQ(monitor_.terminate().text(), "ended");
}

} // namespace
} // namespace target
