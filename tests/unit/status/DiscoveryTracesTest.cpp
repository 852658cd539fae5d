// What the discovery prints.

#include <string>

#include "tests/unit/status/DiscoveryFixture.h"

namespace discovery {
namespace {

TEST_F(DiscoveryTest, TracesTheFiguresOfTheClock) {
    expectTracedFrom(4,
                     "initAppInfo: boot_time_t = 1699990000\ninitAppInfo: jiffiesPerSec = 100\n");
}

TEST_F(DiscoveryTest, TracesEachRecord) {
    publishOne();
    expectTracedFrom(4, "initAppInfo: checking 'data_server' start_time=1699991234\n");
}

TEST_F(DiscoveryTest, TracesThePidMinusOne) {
    Published published;
    published.pid = -1;
    publishOne(published);
    expectTracedFrom(5, "initAppInfo: 'data_server' process info not found for pid=-1\n");
}

TEST_F(DiscoveryTest, TracesAProcessThatIsGone) {
    publishOne();
    expectTracedFrom(5, "initAppInfo: 'data_server' process info not found for pid=777\n");
}

TEST_F(DiscoveryTest, TracesAnotherStartTime) {
    Published published;
    published.startMs -= 2000;
    publishOne(published);
    runServer();
    expectTracedFrom(5, "initAppInfo: proc_info.starttime =123456\n"
                        "initAppInfo: 'data_server' pid=777 start_time_t=1699991234 mismatch "
                        "previous start_time_t=1699991232\n");
}

TEST_F(DiscoveryTest, TracesTicksOf64Bits) {
    publishOne();
    runServer(kPid, 5000000000ULL);
    EXPECT_THAT(tracesAt(5), HasSubstr("initAppInfo: proc_info.starttime =5000000000\n"));
}

TEST_F(DiscoveryTest, TracesAnotherName) {
    publishOne();
    world().addProcess(kPid, "other", "/home/kelvo/root/other", kStartTicks);
    // The search that follows says the same of the same process.
    const std::string line =
        "findDaemonName: pid=777, exeName=other mismatched daemon exeName=\"data_server\"\n";
    EXPECT_EQ(occurrences(tracesAt(8), line), 2U);
    EXPECT_EQ(occurrences(tracesAt(7), line), 0U);
}

TEST_F(DiscoveryTest, TracesAFruitlessSearch) {
    publishOne();
    expectTracedFrom(5, "initAppInfo: findDaemonName('data_server') process not found\n");
}

TEST_F(DiscoveryTest, TracesWhatItAdds) {
    publishOne();
    runServer().pidFilename = "/tmp/pid/ds.pid.777";
    expectTracedFrom(4, "initAppInfo: 'data_server' added to applist for pid=777, "
                        "pidfile=/tmp/pid/ds.pid.777, cmd=/home/kelvo/root/data_server -p 5\n");
}

TEST_F(DiscoveryTest, TracesWhatTheSearchAdds) {
    publishOne();
    runServer(kOtherPid);
    EXPECT_THAT(tracesAt(4), HasSubstr("initAppInfo: 'data_server' added to applist for pid=888, "
                                       "pidfile=, cmd=/home/kelvo/root/data_server -p 5\n"));
}

TEST_F(DiscoveryTest, IsSilentAtThree) {
    publishCount(3);
    publish(1, {});
    publish(2, {"gone"});
    runServer();
    EXPECT_EQ(tracesAt(3), "");
}

TEST_F(DiscoveryTest, TracesInOrder) {
    world().textFiles["/proc/stat"] = "";
    publishCount(3);
    Published moved;
    moved.startMs += 2000;
    publish(1, moved);
    Published stopped;
    stopped.name = "stopped";
    stopped.pid = -1;
    publish(2, stopped);
    Published gone;
    gone.name = "gone";
    gone.pid = 5;
    publish(3, gone);
    runServer();
    EXPECT_EQ(tracesAt(5),
              "initAppInfo: boot_time_t = 1699990000\n"
              "initAppInfo: jiffiesPerSec = 100\n"
              "initAppInfo: checking 'data_server' start_time=1699991236\n"
              "initAppInfo: proc_info.starttime =123456\n"
              "initAppInfo: 'data_server' pid=777 start_time_t=1699991234 mismatch previous "
              "start_time_t=1699991236\n"
              "initAppInfo: 'data_server' added to applist for pid=777, pidfile=, "
              "cmd=/home/kelvo/root/data_server -p 5\n"
              "initAppInfo: checking 'stopped' start_time=1699991234\n"
              "initAppInfo: 'stopped' process info not found for pid=-1\n"
              "initAppInfo: checking 'gone' start_time=1699991234\n"
              "initAppInfo: 'gone' process info not found for pid=5\n"
              "initAppInfo: findDaemonName('gone') process not found\n");
}

} // namespace
} // namespace discovery
