// Pid files that are no plain small files: an application's, and the monitor's own.

#include <cstring>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

const std::string kPidFile = "/tmp/data_server.pid";

struct Obstacle {
    const char* what;
    const char* command; ///< for the shell, with the path of the pid file in "$P"
    bool isPlainFile = false;
};

/// What can be made of the place of a pid file.
constexpr Obstacle kObstacles[] = {
    {"link", "ln -s /tmp/target $P"},
    {"link to nothing", "ln -s /tmp/nothing $P"},
    {"link to itself", "ln -s $P $P"},
    {"link to a device without end", "ln -s /dev/zero $P"},
    {"directory", "mkdir $P"},
    {"pipe", "mkfifo $P"},
    {"empty file", ": >$P", true},
    {"file of 1 GB", "truncate -s 1G $P", true},
    {"file of another process", "printf \"1\\n1.0\\n\" >$P", true},
};

/// Those that could hold up who reads them.
constexpr Obstacle kWorstObstacles[] = {kObstacles[3], kObstacles[4], kObstacles[5], kObstacles[7]};

bool put(const Obstacle& obstacle, const std::string& path) {
    return runShell("P=" + path + "; echo precious >/tmp/target; rm -f $P; " + obstacle.command);
}

/// A supervision pass that polls for the pid file takes one second of polls, not more.
constexpr int kPassMs = 5000;

/// Applications whose pid file is something else.
class FaultPidFile : public FaultTest {
protected:
    /// The time until a request is served that came while a pass was polling.
    std::int64_t timeOfARequestMs() const {
        const std::int64_t begin = monotonicMs();
        expectServing();
        return monotonicMs() - begin;
    }

    void expectEnd(const std::string& what) {
        EXPECT_EQ(readFile("/tmp/target"), "precious\n") << what;
        EXPECT_EQ(monitor_.terminate().text(), "status 0") << what;
    }
};

/// It was confirmed once and has lost its pid file since, so that each pass polls for the file: any
/// verdict but that of the file's return would replace it.
TEST_F(FaultPidFile, RunningApplicationIsLeftAlone) {
    ASSERT_TRUE(startPublisher());
    monitorPid_ = monitor_.pid();
    request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
    pid_ = launchUntilStarting(request_);
    ASSERT_TRUE(runShell("rm " + kPidFile));
    std::vector<std::string> verdicts = {
        verdict("data_server", pid_, "starting0 confirmed pidfile, now starting"),
        verdict("data_server", pid_, "starting unconfirmed pidfile, now running0")};
    ASSERT_TRUE(waitForLog(6, verdicts.back()));
    for (const Obstacle& obstacle : kObstacles) {
        ASSERT_TRUE(put(obstacle, kPidFile)) << obstacle.what;
        EXPECT_LT(timeOfARequestMs(), kPassMs) << obstacle.what;
        settle(); // a pass and a cycle lie between two requests
        expectPublished(obstacle.what);
        EXPECT_EQ(verdictsOn("data_server"), verdicts) << obstacle.what;
        ASSERT_TRUE(runShell("rm -r " + kPidFile));
    }
    ASSERT_TRUE(writeFile(kPidFile, std::to_string(pid_) + "\n1.0\n"));
    EXPECT_TRUE(getsRunning("data_server", pid_));
    verdicts.push_back(verdict("data_server", pid_, "running0 confirmed pidfile, now running"));
    verdicts.push_back(verdict("data_server", pid_, "running, is alive"));
    EXPECT_EQ(verdictsOn("data_server"), verdicts);
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
    expectEnd("at the end");
}

TEST_F(FaultPidFile, StartingApplicationIsConfirmedOnceTheFileIsRight) {
    for (const Obstacle& obstacle : kWorstObstacles) {
        ASSERT_TRUE(startSupervisor()) << obstacle.what;
        reqcmd request = makeSupervised("data_server", kNoPolicy, "--no-pidfile");
        const pid_t pid = launch(request);
        ASSERT_TRUE(put(obstacle, kPidFile)) << obstacle.what;
        const std::string unconfirmed =
            verdict("data_server", pid, "starting0 unconfirmed pidfile, now running");
        EXPECT_TRUE(waitForLog(6, unconfirmed)) << obstacle.what;
        EXPECT_LT(timeOfARequestMs(), kPassMs) << obstacle.what;
        ASSERT_TRUE(runShell("rm -r " + kPidFile));
        ASSERT_TRUE(writeFile(kPidFile, std::to_string(pid) + "\n1.0\n"));
        EXPECT_TRUE(getsRunning("data_server", pid)) << obstacle.what;
        const std::vector<std::string> expected = {
            unconfirmed, verdict("data_server", pid, "running0 confirmed pidfile, now running"),
            verdict("data_server", pid, "running, is alive")};
        EXPECT_EQ(verdictsOn("data_server"), expected) << obstacle.what;
        expectEnd(obstacle.what);
        ASSERT_TRUE(killAndWait(pid));
        ASSERT_TRUE(runShell("rm -f " + kPidFile));
    }
}

TEST_F(FaultPidFile, LinkToARightFileConfirms) {
    ASSERT_TRUE(startPublisher());
    reqcmd request = makeSupervised("data_server", RESTART_TYPE_SELF, "--no-pidfile");
    const pid_t pid = launch(request);
    ASSERT_TRUE(writeFile("/tmp/target", std::to_string(pid) + "\n1.0\n"));
    ASSERT_TRUE(runShell("ln -s /tmp/target " + kPidFile));
    EXPECT_TRUE(getsRunning("data_server", pid));
}

/// A request names a pid file below a link that another user has put into a folder of everybody.
/// In /tmp itself, whose entries are their owners', the kernel may refuse such a link by itself.
TEST_F(FaultPidFile, RightFileBehindALinkOfAnotherUserDoesNotConfirm) {
    if (!AnotherUser::possible()) {
        GTEST_SKIP() << "there are no other users here";
    }
    ASSERT_TRUE(startPublisher());
    reqcmd request = makeSupervised("data_server", kNoPolicy, "--no-pidfile");
    std::memset(request.pidfile, 0, sizeof request.pidfile);
    std::string("/tmp/open/way/data_server.pid").copy(request.pidfile, sizeof request.pidfile);
    const pid_t pid = launch(request);
    // The file comes last: until then the link is root's own for a moment.
    ASSERT_TRUE(runShell("mkdir -p /tmp/open/elsewhere && chmod 777 /tmp/open && "
                         "ln -s elsewhere /tmp/open/way && chown -h " +
                         AnotherUser().id() + " /tmp/open/way"));
    ASSERT_TRUE(writeFile("/tmp/open/elsewhere/data_server.pid", std::to_string(pid) + "\n1.0\n"));
    EXPECT_TRUE(reaches(verdict("data_server", pid, "starting0 unconfirmed pidfile, now running")));
    ASSERT_TRUE(letACycleGoBy());
    EXPECT_EQ(verdictsOn("data_server").size(), 1U);
    ASSERT_TRUE(runShell("chown -h 0 /tmp/open/way"));
    EXPECT_TRUE(getsRunning("data_server", pid));
}

/// The monitor's own place, whose name is known once its process has begun.
TEST_F(FaultPidFile, MonitorGetsItsOwnOnceTheNameIsFree) {
    for (const Obstacle& obstacle : kObstacles) {
        const MonitorThroughScript script(
            std::string("mkdir -p /tmp/pid/home/kelvo/root; echo precious >/tmp/target\n"
                        "P=/tmp/pid/home/kelvo/root/ovard.pid.$$\n") +
            obstacle.command + "\nexec \"$OVARD\" \"$@\"\n");
        Daemon daemon;
        ASSERT_TRUE(daemon.spawn({"-d", "-i", "0"})) << obstacle.what;
        ASSERT_TRUE(eventually([&] { return socketListens() && daemon.workersWait(); }));
        expectServing();
        letPassesGoBy(kPassesMs);
        const std::string what = obstacle.what;
        EXPECT_EQ(faultsTold(daemon.pidFile()), obstacle.isPlainFile ? 0 : 1) << what;
        if (!obstacle.isPlainFile) { // Such a one is overwritten.
            ASSERT_TRUE(runShell("rm -r " + daemon.pidFile()));
            EXPECT_TRUE(waitForLog(6, recoveryLine(daemon.pidFile()))) << what;
            letPassesGoBy(kPassesMs);
            EXPECT_EQ(faultsTold(daemon.pidFile()), 1) << what;
            EXPECT_EQ(countLog(6, recoveryLine(daemon.pidFile())), 1U) << what;
        }
        EXPECT_EQ(readFile(daemon.pidFile()).find(std::to_string(daemon.pid()) + "\n"), 0U);
        EXPECT_LT(readFile(daemon.pidFile()).size(), 100U) << what;
        EXPECT_EQ(readFile("/tmp/target"), "precious\n") << what;
        EXPECT_FALSE(fileExists("/tmp/nothing")) << what;
        EXPECT_EQ(daemon.terminate().text(), "status 0") << what;
        ASSERT_TRUE(runShell("rm -rf /tmp/pid"));
    }
}

} // namespace
} // namespace systemtest
