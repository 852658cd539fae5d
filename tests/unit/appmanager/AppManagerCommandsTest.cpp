#include <pthread.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace {

using fakes::world;
using requests::Line;
using requests::Lines;
using requests::logLines;
using requests::makeApp;
using requests::makeAppWithoutCommand;
using requests::makeLostApp;
using requests::makeRequest;
using requests::registeredNames;
using requests::replies;
using requests::unanswered;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using Access = AppManagerTestAccess;

constexpr int kLevelError = 3;
constexpr int kLevelInfo = 6;
constexpr int kLevelDebug = 7;

/// The clock of a fresh world, and one second later.
constexpr std::int32_t kNow = 1700000000;
constexpr const char* kNowText = "2023-11-14 22:13:20";
constexpr const char* kNextSecondText = "2023-11-14 22:13:21";

/// Start of a daemon that is found, in ticks since the boot and in seconds since the epoch.
constexpr std::uint64_t kDaemonTicks = 12300;
constexpr std::int32_t kDaemonStart = kNow - 10000 + 123;

/// A monotonic millisecond short of the next second, so that any sleep reaches it.
constexpr int kLastMillisecond = 999;

std::string at(const std::string& text, const char* date = kNowText) {
    return text + " @" + date;
}

class AppManagerCommandsTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        world().forgetRecords();
    }

    /// The next launch makes the process `pid`, which is gone before anybody looks.
    static void scriptLaunch(int pid) { world().scriptLaunch(40000 + pid, pid); }

    /// The next launch makes the process `pid`, which leaves the daemon `daemon` behind; that has a
    /// pid file and a start time of its own.
    static void scriptLaunchOfADaemon(int pid, int daemon, const std::string& name) {
        const std::string path = "/home/kelvo/root/" + name;
        scriptLaunch(pid);
        world().addProcess(pid, "other", "/usr/bin/other");
        world().onSleep = [=](int) {
            if (world().isAlive(pid)) {
                world().process(pid)->alive = false;
                world().addProcess(daemon, name, path, kDaemonTicks).pidFilename =
                    "/tmp/pid/of_the_daemon";
            }
        };
    }

    /// `app` with something in every field that a restart could spoil.
    static appinfo everyFieldSet(appinfo app) {
        platform::copyToField(app.version, "1.2.3");
        platform::copyToField(app.pidfile, "/tmp/pid/registered");
        app.start_time = 5;
        app.uptime = 77;
        app.port_num = 9;
        app.priority = -3;
        app.check_flag = 1;
        app.keepalive = 1;
        app.heartbeat = 1;
        app.last_runtime_life_limit = 600;
        app.reserved = 0x5A;
        return app;
    }

    /// The next launch ends without a process.
    static void scriptFailedLaunch() {
        world().forkResults.push_back({49999, 0});
        world().waitpidResults.push_back({49999, 0, 0});
        world().reads.push_back({"", EIO});
    }

    static void addRunning(const appinfo& app) {
        applist.push_back(app);
        world().addProcess(app.pid, "other", "/usr/bin/other");
    }

    void expectReply(int code, const std::string& message) {
        ASSERT_THAT(replies(), SizeIs(1));
        EXPECT_EQ(replies()[0].code, code);
        EXPECT_EQ(replies()[0].completed, 1);
        EXPECT_STREQ(replies()[0].message, message.c_str());
    }

    /// The reply, and the same text as the log's last line.
    void expectAnswer(int code, const std::string& text, int level = kLevelInfo) {
        expectReply(code, text + "\n");
        ASSERT_THAT(logLines(), Not(IsEmpty()));
        EXPECT_EQ(logLines().back(), Line(level, text));
    }

    static void expectNoReply() {
        EXPECT_THAT(replies(), IsEmpty());
        EXPECT_EQ(world().count("send"), 0U);
    }

    static std::vector<std::string> signalled() {
        std::vector<std::string> pids;
        for (const std::string& call : world().callsOf("kill")) {
            if (call.find(" 15") != std::string::npos) {
                pids.push_back(call.substr(5, call.find(' ', 5) - 5));
            }
        }
        return pids;
    }

    FixtureManager manager_;
    appinfo info_ = {};
};

// --- prepareAppInfo ------------------------------------------------------------------------------

using PrepareTest = AppManagerCommandsTest;

TEST_F(PrepareTest, CopiesEveryFieldOfTheRequest) {
    reqcmd request = makeRequest(APPMONCTL_Start, "app", "/bin/app -x");
    requests::fillField(request.version, "1.2.3");
    requests::fillField(request.pidfile, "/tmp/pid/app");
    request.porttype = PORT_TYPE_ETH;
    request.portnum = 502;
    request.priority = -7;
    request.delay = 99;
    request.keepalive = 1;
    request.heartbeat = 1;
    request.restart_type = 1;
    request.last_runtime_life_limit = 3600;
    std::memset(&info_, 0x5A, sizeof info_);
    info_.pid = 4711;

    EXPECT_EQ(manager_.prepareAppInfo(request, info_), kNow);

    EXPECT_EQ(info_.pid, 4711);
    EXPECT_STREQ(info_.name, "app");
    EXPECT_STREQ(info_.version, "1.2.3");
    EXPECT_STREQ(info_.cmd, "/bin/app -x");
    EXPECT_STREQ(info_.pidfile, "/tmp/pid/app");
    EXPECT_EQ(info_.status, APP_STATUS_INITIALIZING);
    EXPECT_EQ(info_.start_time, kNow);
    EXPECT_EQ(info_.uptime, 0);
    EXPECT_EQ(info_.port_type, PORT_TYPE_ETH);
    EXPECT_EQ(info_.port_num, 502);
    EXPECT_EQ(info_.priority, -7);
    EXPECT_EQ(info_.check_flag, 0);
    EXPECT_NE(info_.keepalive, 0);
    EXPECT_NE(info_.heartbeat, 0);
    EXPECT_EQ(info_.restart_type, 1);
    EXPECT_EQ(info_.last_runtime_life_limit, 3600);
}

TEST_F(PrepareTest, CopiesBooleansThatAreNotSet) {
    info_.keepalive = 1;
    info_.heartbeat = 1;
    manager_.prepareAppInfo(makeRequest(APPMONCTL_Start, "app"), info_);
    EXPECT_EQ(info_.keepalive, 0);
    EXPECT_EQ(info_.heartbeat, 0);
}

TEST_F(PrepareTest, DelayHasNoEffect) {
    reqcmd request = makeRequest(APPMONCTL_Start, "app", "/bin/app");
    std::memset(&info_, 0x5A, sizeof info_);
    appinfo delayed = info_;
    manager_.prepareAppInfo(request, info_);
    request.delay = 3600;
    manager_.prepareAppInfo(request, delayed);
    EXPECT_EQ(std::memcmp(&info_, &delayed, sizeof info_), 0);
}

TEST_F(PrepareTest, DoesNotWriteTheReservedByte) {
    for (const int filling : {0x00, 0x5A, 0xFF}) {
        std::memset(&info_, filling, sizeof info_);
        manager_.prepareAppInfo(makeRequest(APPMONCTL_Start, "app", "/bin/app"), info_);
        EXPECT_EQ(info_.reserved, filling);
    }
}

class PrepareLengthTest : public AppManagerCommandsTest, public testing::WithParamInterface<int> {
protected:
    template <std::size_t Size> void expectCut(const char (&field)[Size], char letter) {
        const auto limit = static_cast<int>(Size);
        const int wanted = limit + GetParam();
        const int kept = wanted < limit ? wanted : limit - 1;
        EXPECT_EQ(std::string(field, ::strnlen(field, Size)),
                  std::string(static_cast<std::size_t>(kept), letter));
        EXPECT_EQ(field[Size - 1], '\0');
    }

    template <std::size_t Size> void fill(char (&field)[Size], char letter) {
        requests::fillField(
            field,
            std::string(Size, letter).substr(0, Size + static_cast<std::size_t>(GetParam())));
    }
};

TEST_P(PrepareLengthTest, CutsTextsToTheirFields) {
    reqcmd request = makeRequest(APPMONCTL_Start);
    fill(request.name, 'n');
    fill(request.version, 'v');
    fill(request.cmd, 'c');
    fill(request.pidfile, 'p');
    manager_.prepareAppInfo(request, info_);
    expectCut(info_.name, 'n');
    expectCut(info_.version, 'v');
    expectCut(info_.cmd, 'c');
    expectCut(info_.pidfile, 'p');
}

INSTANTIATE_TEST_SUITE_P(ShorterThanTheField, PrepareLengthTest, testing::Values(-2, -1, 0));

// --- startApp ------------------------------------------------------------------------------------

using StartAppTest = AppManagerCommandsTest;

TEST_F(StartAppTest, LaunchesAndAppends) {
    applist.push_back(makeApp("first", 700));
    scriptLaunch(801);
    EXPECT_EQ(manager_.startApp(makeRequest(APPMONCTL_Start, "app", "/bin/app"), info_), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("first", "app"));
    EXPECT_EQ(std::memcmp(&applist[1], &info_, sizeof info_), 0);
    EXPECT_EQ(info_.pid, 801);
    EXPECT_EQ(info_.status, APP_STATUS_STARTING0);
}

TEST_F(StartAppTest, DoesNotLookForAnEntryOfTheSameName) {
    applist.push_back(makeApp("app", 700));
    scriptLaunch(801);
    EXPECT_EQ(manager_.startApp(makeRequest(APPMONCTL_Start, "app", "/bin/app"), info_), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("app", "app"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StartAppTest, AddsNothingWithoutACommand) {
    EXPECT_EQ(manager_.startApp(makeRequest(APPMONCTL_Start, "app"), info_), -8);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(info_.status, APP_STATUS_START_FAILURE);
}

TEST_F(StartAppTest, ReportsTheFailureFromVerbosityTwoOn) {
    verbose = 2;
    manager_.startApp(makeRequest(APPMONCTL_Start, "app"), info_);
    EXPECT_EQ(world().consoleText(), "startApp failed for app\n");
}

TEST_F(StartAppTest, FailsSilentlyAtVerbosityOne) {
    verbose = 1;
    manager_.startApp(makeRequest(APPMONCTL_Start, "app"), info_);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StartAppTest, SucceedsSilently) {
    verbose = 2;
    scriptLaunch(801);
    manager_.startApp(makeRequest(APPMONCTL_Start, "app", "/bin/app"), info_);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StartAppTest, DoesNotHoldTheRegistryWhileTheLaunchWaits) {
    world().addProcess(801, "app", "/home/kelvo/root/app");
    scriptLaunch(801);
    int looks = 0;
    bool held = false;
    world().onSleep = [&](int) {
        ++looks;
        held = held || requests::isHeld(&Access::appLock(manager_));
        world().now += 31; // The launch gives up.
    };
    EXPECT_EQ(manager_.startApp(makeRequest(APPMONCTL_Start, "app", "/bin/app"), info_), 0);
    EXPECT_GE(looks, 1);
    EXPECT_FALSE(held);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_F(StartAppTest, WaitsForTheRegistryBeforeItAppends) {
    scriptLaunch(801);
    pthread_mutex_lock(&Access::appLock(manager_));
    std::thread starter([this] {
        EXPECT_EQ(manager_.startApp(makeRequest(APPMONCTL_Start, "app", "/bin/app"), info_), 0);
    });
    EXPECT_TRUE(fakes::waitUntil([] { return !world().logTexts(kLevelInfo).empty(); }));
    EXPECT_THAT(applist, IsEmpty());
    pthread_mutex_unlock(&Access::appLock(manager_));
    starter.join();
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

// --- stopApp -------------------------------------------------------------------------------------

using StopAppTest = AppManagerCommandsTest;

TEST_F(StopAppTest, WithoutAnEntryOfTheNameFindsNothing) {
    addRunning(makeApp("other", 700));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), -20);
    EXPECT_THAT(registeredNames(), ElementsAre("other"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StopAppTest, EmptyRegistryFindsNothing) {
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), -20);
}

TEST_F(StopAppTest, PreparesTheRecordInAnyCase) {
    info_.pid = 5;
    manager_.stopApp(makeRequest(APPMONCTL_Stop, "app", "/bin/app"), info_);
    EXPECT_STREQ(info_.name, "app");
    EXPECT_STREQ(info_.cmd, "/bin/app");
    EXPECT_EQ(info_.start_time, kNow);
    EXPECT_EQ(info_.pid, 5);
}

TEST_F(StopAppTest, StopsAndRemovesEveryEntryOfTheNameFrontToBack) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("app", 702));
    addRunning(makeApp("other", 703));
    addRunning(makeApp("app", 704));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("other"));
    EXPECT_THAT(signalled(), ElementsAre("701", "702", "704"));
    EXPECT_FALSE(world().isAlive(701));
    EXPECT_TRUE(world().isAlive(703));
}

TEST_F(StopAppTest, ComparesWholeNames) {
    for (const char* name : {"ap", "appl", "App", "app "}) {
        addRunning(makeApp(name, 700));
    }
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), -20);
    EXPECT_THAT(applist, SizeIs(4));
}

TEST_F(StopAppTest, FindsAnEmptyName) {
    addRunning(makeApp("", 701));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, ""), info_), 0);
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopAppTest, RemovesAnEntryWhoseStopFailed) {
    applist.push_back(makeLostApp("app", 701));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), -4);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StopAppTest, ReturnsTheLastResultWhenThatIsGood) {
    applist.push_back(makeLostApp("app", 701));
    addRunning(makeApp("app", 702));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), 0);
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopAppTest, ReturnsTheLastResultWhenThatIsBad) {
    addRunning(makeApp("app", 702));
    applist.push_back(makeLostApp("app", 701));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), -4);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_THAT(signalled(), ElementsAre("702"));
}

TEST_F(StopAppTest, ReportsEachFailureFromVerbosityTwoOn) {
    verbose = 2;
    applist = {makeLostApp("app", 701), makeLostApp("app", 702)};
    manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_);
    EXPECT_EQ(world().consoleText(), "stopApp failed for app\nstopApp failed for app\n");
}

TEST_F(StopAppTest, FailsSilentlyAtVerbosityOne) {
    verbose = 1;
    applist = {makeLostApp("app", 701)};
    manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_);
    EXPECT_EQ(world().consoleText(), "");
}

TEST_F(StopAppTest, HoldsTheRegistryDuringEveryStop) {
    applist = {makeLostApp("app", 701)};
    addRunning(makeApp("app", 702));
    int looks = 0;
    const auto look = [&] {
        ++looks;
        EXPECT_TRUE(requests::isHeld(&Access::appLock(manager_)));
    };
    world().onSleep = [&](int) { look(); };
    world().onSignal = [&](pid_t, int) { look(); };
    manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_);
    EXPECT_GE(looks, 12);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_F(StopAppTest, WorksOnACopyUntilTheStopIsOver) {
    addRunning(makeApp("app", 701));
    world().onSignal = [](pid_t, int) {
        EXPECT_THAT(applist, SizeIs(1));
        EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
    };
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, "app"), info_), 0);
}

// --- restartApp ----------------------------------------------------------------------------------

using RestartAppTest = AppManagerCommandsTest;

TEST_F(RestartAppTest, EmptyRegistryIsASuccess) {
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), 0);
    EXPECT_STREQ(info_.name, "app");
}

TEST_F(RestartAppTest, WithoutAnEntryOfTheNameIsASuccess) {
    addRunning(makeApp("other", 701));
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), 0);
    EXPECT_EQ(world().count("kill"), 0U);
    EXPECT_EQ(world().count("fork"), 0U);
}

TEST_F(RestartAppTest, RestartsEveryEntryOfTheNameInPlace) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("other", 702));
    addRunning(makeApp("app", 703));
    applist[0].check_flag = 1;
    applist[0].start_time = 5;
    applist[0].uptime = 77;
    applist[0].port_num = 9;
    const appinfo before = applist[0];
    scriptLaunch(801);
    scriptLaunch(803);

    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app", "/bin/ignored"), info_), 0);

    EXPECT_THAT(registeredNames(), ElementsAre("app", "other", "app"));
    EXPECT_THAT(signalled(), ElementsAre("701", "703"));
    EXPECT_EQ(applist[0].pid, 801);
    EXPECT_EQ(applist[2].pid, 803);
    appinfo expected = before;
    expected.pid = 801;
    expected.status = APP_STATUS_STARTING0;
    expected.start_time = kNow;
    expected.check_flag = 0;
    EXPECT_EQ(std::memcmp(&applist[0], &expected, sizeof expected), 0);
    EXPECT_EQ(applist[1].pid, 702);
    EXPECT_EQ(applist[1].status, APP_STATUS_RUNNING);
}

TEST_F(RestartAppTest, TakesNothingElseOfTheDaemonFound) {
    addRunning(everyFieldSet(makeApp("app", 701)));
    appinfo expected = applist[0];
    scriptLaunchOfADaemon(801, 802, "app");
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app", "/bin/ignored"), info_), 0);
    expected.pid = 802;
    expected.status = APP_STATUS_STARTING0;
    expected.start_time = kDaemonStart;
    expected.check_flag = 0;
    EXPECT_EQ(std::memcmp(&applist[0], &expected, sizeof expected), 0);
    EXPECT_STREQ(applist[0].pidfile, "/tmp/pid/registered");
}

TEST_F(RestartAppTest, HoldsTheRegistryDuringTheWaitsOfTheStop) {
    addRunning(makeApp("app", 701));
    world().process(701)->ignoresTerm = true;
    scriptLaunch(801);
    int looks = 0;
    world().onSleep = [&](int) {
        ++looks;
        EXPECT_TRUE(requests::isHeld(&Access::appLock(manager_)));
    };
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), 0);
    EXPECT_EQ(looks, 5);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_F(RestartAppTest, LaunchWithoutAProcessCountsAsStarted) {
    addRunning(makeApp("app", 701));
    scriptFailedLaunch();
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), 0);
    EXPECT_EQ(applist[0].pid, 701);
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_F(RestartAppTest, EntryThatAsksForAllIsLeftAloneAndTheRequestIsNoted) {
    addRunning(makeApp("app", 701));
    applist[0].restart_type = RESTART_TYPE_ALL;
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), 0);
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_TRUE(world().isAlive(701));
    EXPECT_EQ(world().count("fork"), 0U);
    EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
}

TEST_F(RestartAppTest, RestartTypeOfTheRequestDoesNotMatter) {
    addRunning(makeApp("app", 701));
    scriptLaunch(801);
    reqcmd request = makeRequest(APPMONCTL_Restart, "app");
    request.restart_type = RESTART_TYPE_ALL;
    EXPECT_EQ(manager_.restartApp(request, info_), 0);
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[0].pid, 801);
}

class RestartAppTypeTest : public AppManagerCommandsTest,
                           public testing::WithParamInterface<int> {};

TEST_P(RestartAppTypeTest, EveryOtherTypeRestartsTheApplicationItself) {
    addRunning(makeApp("app", 701));
    applist[0].restart_type = GetParam();
    scriptLaunch(801);
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), 0);
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[0].pid, 801);
}

INSTANTIATE_TEST_SUITE_P(Types, RestartAppTypeTest, testing::Values(0, 2, -1, INT_MIN, INT_MAX));

TEST_F(RestartAppTest, GoesOnAfterAFailedStopAndRemembersIt) {
    applist = {makeLostApp("app", 701)};
    addRunning(makeApp("app", 702));
    const appinfo lost = applist[0];
    scriptLaunch(802);
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), -4);
    EXPECT_EQ(std::memcmp(&applist[0], &lost, sizeof lost), 0);
    EXPECT_EQ(applist[1].pid, 802);
}

TEST_F(RestartAppTest, EndsAtTheFirstFailedStart) {
    addRunning(makeAppWithoutCommand("app", 701));
    addRunning(makeApp("app", 702));
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), -5);
    EXPECT_EQ(applist[0].status, APP_STATUS_STOPPED);
    EXPECT_EQ(applist[0].pid, 701);
    EXPECT_THAT(signalled(), ElementsAre("701"));
    EXPECT_EQ(applist[1].status, APP_STATUS_RUNNING);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_F(RestartAppTest, FailedStartOutweighsAFailedStop) {
    applist = {makeLostApp("app", 701)};
    addRunning(makeAppWithoutCommand("app", 702));
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), -5);
}

TEST_F(RestartAppTest, EntryIsStoppedWhileItIsLaunched) {
    addRunning(makeApp("app", 701));
    scriptLaunch(801);
    world().addProcess(801, "app", "/bin/app");
    int looks = 0;
    world().onSleep = [&](int) {
        ++looks;
        EXPECT_EQ(applist[0].status, APP_STATUS_STOPPED);
        EXPECT_TRUE(requests::isHeld(&Access::appLock(manager_)));
        world().now += 31; // The launch gives up.
    };
    EXPECT_EQ(manager_.restartApp(makeRequest(APPMONCTL_Restart, "app"), info_), 0);
    EXPECT_GE(looks, 1);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_F(AppManagerCommandsTest, FailuresAreLoggedOnceTheRegistryIsReleased) {
    int failures = 0;
    world().onLog = [&](int, const std::string& text) {
        if (text.find(" fails to ") != std::string::npos) {
            ++failures;
            EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_))) << text;
        }
    };
    manager_.processCmd(makeRequest(APPMONCTL_Start, "app"));
    applist = {makeLostApp("app", 701)};
    manager_.processCmd(makeRequest(APPMONCTL_Restart, "app"));
    manager_.processCmd(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_EQ(failures, 3);
}

// --- what every action has in common -------------------------------------------------------------

struct ActionCase {
    int action;
    const char* line;
};

void PrintTo(const ActionCase& tested, std::ostream* out) {
    *out << tested.action;
}

class RequestLineTest : public AppManagerCommandsTest,
                        public testing::WithParamInterface<ActionCase> {};

TEST_P(RequestLineTest, IsLoggedFirstAtDebugLevel) {
    addRunning(makeApp("app", 701));
    manager_.processCmd(makeRequest(GetParam().action, "app", "/bin/app"));
    EXPECT_EQ(logLines()[0], Line(kLevelDebug, GetParam().line));
    EXPECT_THAT(world().logTexts(kLevelDebug), SizeIs(1));
}

TEST_P(RequestLineTest, IsLoggedWithoutAReplyToo) {
    manager_.processCmd(unanswered(makeRequest(GetParam().action, "app", "/bin/app")));
    ASSERT_THAT(logLines(), Not(IsEmpty()));
    EXPECT_EQ(logLines()[0], Line(kLevelDebug, GetParam().line));
}

TEST_P(RequestLineTest, ActionReleasesTheRegistry) {
    addRunning(makeApp("app", 701));
    manager_.processCmd(makeRequest(GetParam().action, "app", "/bin/app"));
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_P(RequestLineTest, ActionAnswersOnceTheRegistryIsReleased) {
    addRunning(makeApp("app", 701));
    int sends = 0;
    world().onSend = [&](int) {
        ++sends;
        EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
    };
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam().action, "app", "/bin/app")), 0);
    EXPECT_EQ(sends, 1);
}

TEST_P(RequestLineTest, ActionLogsItsResultOnceTheRegistryIsReleased) {
    addRunning(makeApp("app", 701));
    int results = 0;
    world().onLog = [&](int, const std::string& text) {
        if (text.find(kNowText) != std::string::npos) {
            ++results;
            EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
        }
    };
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam().action, "app", "/bin/app")), 0);
    EXPECT_EQ(results, 1);
}

TEST_P(RequestLineTest, DelayMakesNothingWait) {
    addRunning(makeApp("app", 701));
    reqcmd request = makeRequest(GetParam().action, "app", "/bin/app");
    request.delay = 3600;
    EXPECT_EQ(manager_.processCmd(request), 0);
    EXPECT_EQ(world().count("sleep"), 0U);
    EXPECT_EQ(world().now, kNow);
}

TEST_P(RequestLineTest, ActionAnswersBeforeItLogsTheResult) {
    addRunning(makeApp("app", 701));
    std::size_t lines = 0;
    world().onSend = [&](int) { lines = logLines().size(); };
    manager_.processCmd(makeRequest(GetParam().action, "app", "/bin/app"));
    EXPECT_EQ(logLines().size(), lines + 1);
    EXPECT_EQ(logLines().back().second + "\n", replies()[0].message);
}

TEST_P(RequestLineTest, ActionLogsItsResultThoughTheClientIsGone) {
    addRunning(makeApp("app", 701));
    world().sendResults = {{-1, EPIPE}, {-1, EPIPE}, {-1, EPIPE}};
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam().action, "app", "/bin/app")), 0);
    EXPECT_THAT(world().logTexts(kLevelInfo).back(), HasSubstr(kNowText));
}

TEST_P(RequestLineTest, ActionWithoutAReplyLogsNoResult) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(GetParam().action, "app", "/bin/app"))),
              0);
    expectNoReply();
    EXPECT_THAT(world().logTexts(), Each(Not(HasSubstr(kNowText))));
    EXPECT_EQ(world().consoleText(), "");
}

TEST_P(RequestLineTest, AnyNonZeroByteMeansNotToWait) {
    addRunning(makeApp("app", 701));
    reqcmd request = makeRequest(GetParam().action, "app", "/bin/app");
    request.nowait = 0x80;
    EXPECT_EQ(manager_.processCmd(request), 0);
    expectNoReply();
}

INSTANTIATE_TEST_SUITE_P(
    Actions, RequestLineTest,
    testing::Values(ActionCase{0, "processCmd() request.action=APPMONCTL_Start app"},
                    ActionCase{1, "processCmd() request.action=APPMONCTL_Stop app"},
                    ActionCase{2, "processCmd() request.action=APPMONCTL_Stop_All"},
                    ActionCase{3, "processCmd() request.action=APPMONCTL_Stop_All_But"},
                    ActionCase{4, "processCmd() request.action=APPMONCTL_Stop_PortApps"},
                    ActionCase{5, "processCmd() request.action=APPMONCTL_Restart app"},
                    ActionCase{6, "processCmd() request.action=APPMONCTL_Restart_All"},
                    ActionCase{7, "processCmd() request.action=APPMONCTL_Restart_All_But"},
                    ActionCase{8, "processCmd() request.action=APPMONCTL_Restart_PortApps"}));

class EmptyRegistryTest : public AppManagerCommandsTest, public testing::WithParamInterface<int> {};

TEST_P(EmptyRegistryTest, AnswersThatNoAppIsRunning) {
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam())), 0);
    expectAnswer(-20, "no app is running. ");
    EXPECT_THAT(logLines(), SizeIs(2));
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

TEST_P(EmptyRegistryTest, IsSilentWithoutAReply) {
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(GetParam()))), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
}

TEST_P(EmptyRegistryTest, TracesNoSize) {
    verbose = 9;
    manager_.processCmd(unanswered(makeRequest(GetParam())));
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(WholeListActions, EmptyRegistryTest, testing::Values(2, 3, 4, 6, 7, 8));

class ReservedActionTest : public AppManagerCommandsTest,
                           public testing::WithParamInterface<int> {};

TEST_P(ReservedActionTest, IsAcceptedSilently) {
    verbose = 9;
    addRunning(makeApp("app", 701));
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam(), "app", "/bin/app")), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), IsEmpty());
    EXPECT_EQ(world().consoleText(), "");
    EXPECT_EQ(world().count("kill"), 0U);
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

INSTANTIATE_TEST_SUITE_P(Actions, ReservedActionTest, testing::Values(9, 10));

class UnknownActionTest : public AppManagerCommandsTest, public testing::WithParamInterface<int> {};

TEST_P(UnknownActionTest, IsLoggedAndNotAnswered) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam(), "app", "/bin/app")), -8);
    expectNoReply();
    EXPECT_THAT(logLines(), ElementsAre(Line(kLevelInfo, "request.action=UNKNOWN")));
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_P(UnknownActionTest, FailsAlikeWhenNobodyWaits) {
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(GetParam()))), -8);
    EXPECT_THAT(logLines(), ElementsAre(Line(kLevelInfo, "request.action=UNKNOWN")));
}

TEST_P(UnknownActionTest, IsShownAboveVerbosityFive) {
    verbose = 6;
    manager_.processCmd(makeRequest(GetParam()));
    EXPECT_EQ(world().consoleText(),
              "processCmd() request.action=UNKNOWN(" + std::to_string(GetParam()) + ")\n");
}

TEST_P(UnknownActionTest, IsNotShownAtVerbosityFive) {
    verbose = 5;
    manager_.processCmd(makeRequest(GetParam()));
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(Actions, UnknownActionTest,
                         testing::Values(-1, 11, 12, 255, 256, -20, INT_MIN, INT_MAX));

TEST_F(AppManagerCommandsTest, AnswersOnTheClientsConnectionAndClosesIt) {
    world().scriptReceive(makeRequest(APPMONCTL_Stop, "app"));
    world().acceptResults = {{200001, 0}};
    reqcmd request = {};
    ASSERT_EQ(manager_.recvCommand(request), static_cast<int>(sizeof request));
    EXPECT_EQ(manager_.processCmd(request), 0);
    EXPECT_EQ(world().sentTo(200001).size(), sizeof(response_struct));
    EXPECT_THAT(world().calls, Contains("closefd 200001"));
}

TEST_F(AppManagerCommandsTest, LeavesTheConnectionOpenWithoutAReply) {
    world().scriptReceive(unanswered(makeRequest(APPMONCTL_Stop, "app")));
    reqcmd request = {};
    ASSERT_EQ(manager_.recvCommand(request), static_cast<int>(sizeof request));
    EXPECT_EQ(manager_.processCmd(request), 0);
    EXPECT_EQ(world().count("closefd"), 0U);
}

// --- names of 62 characters and more -------------------------------------------------------------

class LongNameTest : public AppManagerCommandsTest, public testing::WithParamInterface<int> {
protected:
    std::string name() const { return std::string(static_cast<std::size_t>(GetParam()), 'x'); }
    std::string cutName() const { return name().substr(0, 63); }
};

TEST_P(LongNameTest, StartNamesTheCutName) {
    scriptLaunch(801);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, name(), "/bin/app")), 0);
    expectAnswer(0, at(cutName() + " [pid=801] is started"));
    EXPECT_THAT(registeredNames(), ElementsAre(cutName()));
    EXPECT_EQ(logLines()[0],
              Line(kLevelDebug, "processCmd() request.action=APPMONCTL_Start " + name()));
}

TEST_P(LongNameTest, StopOfAMissingOneNamesTheCutName) {
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop, name())), 0);
    expectAnswer(-20, cutName() + " is not found");
    EXPECT_EQ(logLines()[0],
              Line(kLevelDebug, "processCmd() request.action=APPMONCTL_Stop " + name()));
}

TEST_P(LongNameTest, RestartNamesTheCutName) {
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart, name())), 0);
    expectAnswer(0, at(cutName() + " is restarted"));
    EXPECT_EQ(logLines()[0],
              Line(kLevelDebug, "processCmd() request.action=APPMONCTL_Restart " + name()));
}

TEST_P(LongNameTest, IsFoundUnderItsCutName) {
    scriptLaunch(801);
    manager_.processCmd(makeRequest(APPMONCTL_Start, name(), "/bin/app"));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, cutName()), info_), 0);
    EXPECT_THAT(applist, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Lengths, LongNameTest, testing::Values(62, 63, 64));

TEST_F(AppManagerCommandsTest, NameThatFillsItsFieldIsNotFoundUnderItself) {
    const std::string name(64, 'x');
    scriptLaunch(801);
    scriptLaunch(802);
    manager_.processCmd(makeRequest(APPMONCTL_Start, name, "/bin/app"));
    manager_.processCmd(makeRequest(APPMONCTL_Start, name, "/bin/app"));
    EXPECT_THAT(applist, SizeIs(2));
    EXPECT_EQ(manager_.stopApp(makeRequest(APPMONCTL_Stop, name), info_), -20);
}

TEST_F(AppManagerCommandsTest, NameWithoutNulDoesNotRunIntoTheVersion) {
    reqcmd request = makeRequest(APPMONCTL_Stop, std::string(64, 'x'));
    requests::fillField(request.version, "VERSION");
    manager_.processCmd(request);
    EXPECT_THAT(world().logTexts(), Each(Not(HasSubstr("VERSION"))));
}

// --- Start ---------------------------------------------------------------------------------------

using StartTest = AppManagerCommandsTest;

TEST_F(StartTest, LaunchesRegistersAndAnswers) {
    scriptLaunch(801);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app", "/bin/app")), 0);
    expectReply(0, at("app [pid=801] is started") + "\n");
    EXPECT_EQ(logLines(),
              (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Start app"},
                     {kLevelInfo, "start_process: name=app  status=1 start_process_fork2=801"},
                     {kLevelInfo, at("app [pid=801] is started")}}));
    ASSERT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(applist[0].pid, 801);
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_F(StartTest, ReplacesTheRunningInstanceAndPutsTheNewOneAtTheEnd) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("other", 702));
    scriptLaunch(801);
    std::string order;
    world().onSignal = [&](pid_t, int) { order += world().count("fork") == 0 ? "k" : "K"; };
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app", "/bin/app")), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("other", "app"));
    EXPECT_EQ(applist[1].pid, 801);
    EXPECT_FALSE(world().isAlive(701));
    EXPECT_EQ(order, "kk"); // before the launch
    expectAnswer(0, at("app [pid=801] is started"));
}

TEST_F(StartTest, ReplacesTwoInstances) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("app", 702));
    scriptLaunch(801);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app", "/bin/app")), 0);
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_THAT(signalled(), ElementsAre("701", "702"));
}

TEST_F(StartTest, IgnoresAFailedStop) {
    applist = {makeLostApp("app", 701)};
    scriptLaunch(801);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app", "/bin/app")), 0);
    ASSERT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_F(StartTest, AnswersWithTheTimeOfTheLaunchNotOfTheRequest) {
    addRunning(makeApp("app", 701));
    world().process(701)->ignoresTerm = true;
    world().nowMs = kLastMillisecond;
    scriptLaunch(801);
    manager_.processCmd(makeRequest(APPMONCTL_Start, "app", "/bin/app"));
    expectAnswer(0, at("app [pid=801] is started", kNextSecondText));
    EXPECT_EQ(applist[0].start_time, kNow + 1);
}

TEST_F(StartTest, AnswersWithPidAndStartTimeOfTheDaemonFound) {
    scriptLaunch(801);
    world().addProcess(801, "app", "/home/kelvo/root/app -d", 1000000);
    world().onSleep = [](int) {
        if (world().isAlive(801)) {
            world().process(801)->alive = false;
            // Uptime is 10000 s; this one starts four seconds from now.
            world().addProcess(802, "app", "/home/kelvo/root/app -d", 1000400);
        }
    };
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app", "/home/kelvo/root/app -d")),
              0);
    expectAnswer(0, at("app [pid=802] is started", "2023-11-14 22:13:24"));
    EXPECT_EQ(applist[0].pid, 802);
    EXPECT_EQ(applist[0].start_time, kNow + 4);
}

TEST_F(StartTest, FailureIsLoggedAndNotAnswered) {
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app")), -3);
    expectNoReply();
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Start app"},
                                 {kLevelError, "app has no command line failure"},
                                 {kLevelError, "app fails to start"}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StartTest, FailureWithoutAReplyIsNotLogged) {
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app"))), 0);
    expectNoReply();
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("app has no command line failure"));
}

TEST_F(StartTest, FailureHasStoppedTheRunningInstanceAllTheSame) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app")), -3);
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_FALSE(world().isAlive(701));
}

TEST_F(StartTest, WithoutAReplyStillLaunches) {
    scriptLaunch(801);
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app", "/bin/app"))), 0);
    ASSERT_THAT(registeredNames(), ElementsAre("app"));
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_F(StartTest, LaunchWithoutAProcessRegistersNoPid) {
    scriptLaunch(801);
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "first", "/bin/first")));
    scriptFailedLaunch();
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Start, "app", "/bin/app")), 0);
    expectAnswer(0, at("app [pid=0] is started"));
    ASSERT_THAT(registeredNames(), ElementsAre("first", "app"));
    EXPECT_EQ(applist[1].pid, 0); // not that of the record's last use
}

// --- Stop ----------------------------------------------------------------------------------------

using StopTest = AppManagerCommandsTest;

TEST_F(StopTest, StopsRemovesAndAnswers) {
    addRunning(makeApp("app", 701));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop, "app")), 0);
    expectReply(0, at("app is stopped") + "\n");
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop app"},
                                 {kLevelInfo, "app[pid=701] is stopped"},
                                 {kLevelInfo, at("app is stopped")}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopTest, AnswersWithTheTimeOfTheRequest) {
    addRunning(makeApp("app", 701));
    world().process(701)->ignoresTerm = true;
    world().nowMs = kLastMillisecond;
    manager_.processCmd(makeRequest(APPMONCTL_Stop, "app"));
    EXPECT_EQ(world().now, kNow + 1);
    expectAnswer(0, at("app is stopped", kNowText));
}

TEST_F(StopTest, AnswersThatANameIsNotFound) {
    addRunning(makeApp("other", 701));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop, "app")), 0);
    expectReply(-20, "app is not found\n");
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop app"},
                                 {kLevelInfo, "app is not found"}}));
}

TEST_F(StopTest, NotFoundWithoutAReplyIsSilent) {
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(APPMONCTL_Stop, "app"))), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
}

TEST_F(StopTest, FailureIsLoggedAndNotAnswered) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop, "app")), -4);
    expectNoReply();
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop app"},
                                 {kLevelError, "app fails to stop"}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopTest, FailureWithoutAReplyIsNotLogged) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(APPMONCTL_Stop, "app"))), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
    EXPECT_THAT(applist, IsEmpty());
}

// --- Restart -------------------------------------------------------------------------------------

using RestartTest = AppManagerCommandsTest;

TEST_F(RestartTest, RestartsInPlaceAndAnswers) {
    addRunning(makeApp("app", 701));
    addRunning(makeApp("other", 702));
    scriptLaunch(801);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart, "app")), 0);
    expectReply(0, at("app is restarted") + "\n");
    EXPECT_EQ(logLines(),
              (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Restart app"},
                     {kLevelInfo, "app[pid=701] is stopped"},
                     {kLevelInfo, "start_process: name=app  status=1 start_process_fork2=801"},
                     {kLevelInfo, at("app is restarted")}}));
    EXPECT_THAT(registeredNames(), ElementsAre("app", "other"));
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_F(RestartTest, AnswersWithTheTimeOfThePreparation) {
    addRunning(makeApp("app", 701));
    world().process(701)->ignoresTerm = true;
    world().nowMs = kLastMillisecond;
    scriptLaunch(801);
    manager_.processCmd(makeRequest(APPMONCTL_Restart, "app"));
    expectAnswer(0, at("app is restarted", kNowText));
    EXPECT_EQ(applist[0].start_time, kNow + 1);
}

TEST_F(RestartTest, UnknownNameIsAnsweredAsRestarted) {
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart, "app")), 0);
    expectAnswer(0, at("app is restarted"));
    EXPECT_THAT(logLines(), SizeIs(2));
}

TEST_F(RestartTest, EntryThatAsksForAllIsAnsweredAsRestarted) {
    addRunning(makeApp("app", 701));
    applist[0].restart_type = RESTART_TYPE_ALL;
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart, "app")), 0);
    expectAnswer(0, at("app is restarted"));
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_TRUE(world().isAlive(701));
}

TEST_F(RestartTest, FailedStopIsAnsweredAndLoggedAsAnError) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart, "app")), -3);
    expectAnswer(-4, "app fails to restart", kLevelError);
    EXPECT_THAT(logLines(), SizeIs(2));
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

TEST_F(RestartTest, FailedStartIsAnsweredAndLoggedAsAnError) {
    addRunning(makeAppWithoutCommand("app", 701));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart, "app")), -3);
    expectAnswer(-5, "app fails to restart", kLevelError);
    EXPECT_THAT(registeredNames(), ElementsAre("app"));
}

TEST_F(RestartTest, FailureWithoutAReplyIsASuccess) {
    applist = {makeLostApp("app", 701)};
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(APPMONCTL_Restart, "app"))), 0);
    expectNoReply();
    EXPECT_THAT(logLines(), SizeIs(1));
}

// --- Stop_All, Stop_All_But, Stop_PortApps -------------------------------------------------------

class StopManyTest : public AppManagerCommandsTest {
protected:
    static appinfo onPort(appinfo app, int type = PORT_TYPE_COM) {
        app.port_type = type;
        return app;
    }
};

TEST_F(StopManyTest, StopAllStopsInReverseOrderAndEmptiesTheRegistry) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("security_server", 702));
    addRunning(onPort(makeApp("three", 703)));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop_All)), 0);
    expectReply(0, at("all apps were stopped") + "\n");
    EXPECT_EQ(logLines(), (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Stop_All"},
                                 {kLevelInfo, "three[pid=703] is stopped"},
                                 {kLevelInfo, "security_server[pid=702] is stopped"},
                                 {kLevelInfo, "one[pid=701] is stopped"},
                                 {kLevelInfo, at("all apps were stopped")}}));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, StopAllAnswersWithTheResultOfTheFirstEntry) {
    applist = {makeLostApp("one", 701)};
    addRunning(makeApp("two", 702));
    addRunning(makeApp("three", 703));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop_All)), 0);
    expectAnswer(-4, at("all apps were stopped"));
    EXPECT_THAT(signalled(), ElementsAre("703", "702"));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, StopAllForgetsOtherFailures) {
    addRunning(makeApp("one", 701));
    applist.push_back(makeLostApp("two", 702));
    applist.push_back(makeLostApp("three", 703));
    manager_.processCmd(makeRequest(APPMONCTL_Stop_All));
    expectAnswer(0, at("all apps were stopped"));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, AnswersWithTheTimeOfTheRequest) {
    addRunning(makeApp("one", 701));
    world().process(701)->ignoresTerm = true;
    world().nowMs = kLastMillisecond;
    manager_.processCmd(makeRequest(APPMONCTL_Stop_All));
    EXPECT_EQ(world().now, kNow + 1);
    expectAnswer(0, at("all apps were stopped", kNowText));
}

TEST_F(StopManyTest, StopAllButSparesTheSecurityServer) {
    addRunning(makeApp("a", 701));
    addRunning(makeApp("security_server", 702));
    addRunning(makeApp("b", 703));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop_All_But)), 0);
    expectAnswer(0, at("all apps but sec_server were stopped"));
    EXPECT_THAT(signalled(), ElementsAre("703", "701"));
    EXPECT_THAT(registeredNames(), ElementsAre("security_server"));
    EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
    EXPECT_TRUE(world().isAlive(702));
}

TEST_F(StopManyTest, StopAllButSparesExactlyThatName) {
    addRunning(makeApp("security_server2", 701));
    addRunning(makeApp("security_serve", 702));
    addRunning(makeApp("Security_server", 703));
    addRunning(makeApp("sec_server", 704));
    manager_.processCmd(makeRequest(APPMONCTL_Stop_All_But));
    EXPECT_THAT(applist, IsEmpty());
}

TEST_F(StopManyTest, StopAllButStopsWhateverTheRestartType) {
    addRunning(makeApp("a", 701));
    applist[0].restart_type = RESTART_TYPE_ALL;
    manager_.processCmd(makeRequest(APPMONCTL_Stop_All_But));
    EXPECT_THAT(applist, IsEmpty());
    EXPECT_FALSE(Access::restartAllRequested(manager_));
}

TEST_F(StopManyTest, StopAllButKeepsWhatCouldNotBeStopped) {
    applist = {makeLostApp("lost", 701)};
    addRunning(makeApp("security_server", 702));
    addRunning(makeApp("b", 703));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop_All_But)), 0);
    expectAnswer(-4, at("all apps but sec_server were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("lost", "security_server"));
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_F(StopManyTest, StopAllButAnswersWithTheLastStopMade) {
    addRunning(makeApp("a", 701));
    applist.push_back(makeLostApp("lost", 702));
    manager_.processCmd(makeRequest(APPMONCTL_Stop_All_But));
    expectAnswer(0, at("all apps but sec_server were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("lost"));
}

TEST_F(StopManyTest, StopAllButWithNothingToStopAnswersZero) {
    addRunning(makeApp("security_server", 702));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop_All_But)), 0);
    expectAnswer(0, at("all apps but sec_server were stopped"));
}

TEST_F(StopManyTest, StopPortAppsStopsWhatServesAPort) {
    addRunning(onPort(makeApp("com", 701)));
    addRunning(makeApp("none", 702));
    addRunning(onPort(makeApp("security_server", 703), PORT_TYPE_ETH));
    addRunning(onPort(makeApp("odd", 704), -1));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Stop_PortApps)), 0);
    expectAnswer(0, at("all apps on ports were stopped"));
    EXPECT_THAT(signalled(), ElementsAre("704", "703", "701"));
    EXPECT_THAT(registeredNames(), ElementsAre("none"));
}

TEST_F(StopManyTest, StopPortAppsKeepsWhatCouldNotBeStopped) {
    applist = {onPort(makeLostApp("lost", 701))};
    addRunning(onPort(makeApp("com", 702)));
    manager_.processCmd(makeRequest(APPMONCTL_Stop_PortApps));
    expectAnswer(-4, at("all apps on ports were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("lost"));
}

TEST_F(StopManyTest, StopPortAppsWithoutAnyAnswersZero) {
    addRunning(makeApp("none", 701));
    manager_.processCmd(makeRequest(APPMONCTL_Stop_PortApps));
    expectAnswer(0, at("all apps on ports were stopped"));
    EXPECT_THAT(registeredNames(), ElementsAre("none"));
    EXPECT_EQ(world().count("kill"), 0U);
}

TEST_F(StopManyTest, PortOfTheRequestDoesNotMatter) {
    addRunning(makeApp("none", 701));
    reqcmd request = makeRequest(APPMONCTL_Stop_PortApps);
    request.porttype = PORT_TYPE_COM;
    manager_.processCmd(request);
    EXPECT_THAT(applist, SizeIs(1));
}

TEST_F(StopManyTest, EntryIsMarkedStoppedBeforeTheNextOneIsStopped) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("two", 702));
    world().onSignal = [](pid_t pid, int) {
        if (pid == 701) {
            EXPECT_EQ(applist[1].status, APP_STATUS_STOPPED);
        }
    };
    manager_.processCmd(makeRequest(APPMONCTL_Stop_All));
}

TEST_F(StopManyTest, StopAllShowsTheSizesAboveVerbosityThree) {
    verbose = 4;
    addRunning(makeApp("one", 701));
    addRunning(makeApp("two", 702));
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Stop_All)));
    // The second figure is that after the loop, at the latest after the registry was emptied.
    EXPECT_THAT(world().consoleText(),
                testing::AnyOf("applist size before =2\napplist size after 0\n",
                               "applist size before =2\napplist size after 2\n"));
}

TEST_F(StopManyTest, StopPortAppsShowsTheSizesAboveVerbosityThree) {
    verbose = 4;
    addRunning(makeApp("one", 701));
    addRunning(onPort(makeApp("two", 702)));
    addRunning(onPort(makeApp("three", 703)));
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Stop_PortApps)));
    EXPECT_EQ(world().consoleText(), "applist size before =3\napplist size after 1\n");
}

TEST_F(StopManyTest, StopAllButShowsNoSizes) {
    verbose = 5;
    addRunning(makeApp("one", 701));
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Stop_All_But)));
    EXPECT_EQ(world().consoleText(), "");
}

class StopManyTraceTest : public StopManyTest, public testing::WithParamInterface<int> {};

TEST_P(StopManyTraceTest, ShowsNoSizesAtVerbosityThree) {
    verbose = 3;
    addRunning(onPort(makeApp("one", 701)));
    manager_.processCmd(unanswered(makeRequest(GetParam())));
    EXPECT_EQ(world().consoleText(), "");
}

INSTANTIATE_TEST_SUITE_P(Actions, StopManyTraceTest, testing::Values(2, 3, 4));

// --- Restart_All, Restart_All_But, Restart_PortApps ----------------------------------------------

class RestartManyTest : public AppManagerCommandsTest {
protected:
    static appinfo onPort(appinfo app, int type = PORT_TYPE_COM) {
        app.port_type = type;
        return app;
    }

    static appinfo ofType(appinfo app, int type) {
        app.restart_type = type;
        return app;
    }
};

TEST_F(RestartManyTest, RestartAllRestartsFirstToLast) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("security_server", 702));
    scriptLaunch(801);
    scriptLaunch(802);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart_All)), 0);
    expectReply(0, at("all apps were restarted") + "\n");
    EXPECT_EQ(
        logLines(),
        (Lines{{kLevelDebug, "processCmd() request.action=APPMONCTL_Restart_All"},
               {kLevelInfo, "one[pid=701] is stopped"},
               {kLevelInfo, "start_process: name=one  status=1 start_process_fork2=801"},
               {kLevelInfo, "security_server[pid=702] is stopped"},
               {kLevelInfo, "start_process: name=security_server  status=1 start_process_fork2="
                            "802"},
               {kLevelInfo, at("all apps were restarted")}}));
    EXPECT_THAT(registeredNames(), ElementsAre("one", "security_server"));
    EXPECT_EQ(applist[0].pid, 801);
    EXPECT_EQ(applist[0].start_time, kNow);
    EXPECT_EQ(applist[1].pid, 802);
}

TEST_F(RestartManyTest, RestartAllNotesEntriesThatAskForAll) {
    addRunning(ofType(makeApp("one", 701), RESTART_TYPE_ALL));
    addRunning(makeApp("two", 702));
    scriptLaunch(802);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart_All)), 0);
    expectAnswer(0, at("all apps were restarted"));
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_THAT(signalled(), ElementsAre("702"));
    EXPECT_EQ(applist[0].pid, 701);
}

TEST_F(RestartManyTest, AnswersWithTheTimeOfTheRequest) {
    addRunning(makeApp("one", 701));
    world().process(701)->ignoresTerm = true;
    world().nowMs = kLastMillisecond;
    scriptLaunch(801);
    manager_.processCmd(makeRequest(APPMONCTL_Restart_All));
    expectAnswer(0, at("all apps were restarted", kNowText));
    EXPECT_EQ(applist[0].start_time, kNow + 1);
}

TEST_F(RestartManyTest, RestartAllButSparesEveryOtherRestartType) {
    addRunning(ofType(makeApp("all", 701), RESTART_TYPE_ALL));
    addRunning(ofType(makeApp("odd", 702), 2));
    addRunning(makeApp("security_server", 703));
    addRunning(ofType(makeApp("negative", 704), -1));
    scriptLaunch(803);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart_All_But)), 0);
    expectAnswer(0, at("all apps but sec_server were restarted"));
    EXPECT_THAT(signalled(), ElementsAre("703"));
    EXPECT_FALSE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[0].status, APP_STATUS_RUNNING);
}

TEST_F(RestartManyTest, RestartPortAppsRestartsWhatServesAPort) {
    addRunning(onPort(makeApp("com", 701)));
    addRunning(makeApp("none", 702));
    addRunning(onPort(makeApp("odd", 703), -1));
    addRunning(ofType(onPort(makeApp("all", 704), PORT_TYPE_ETH), RESTART_TYPE_ALL));
    scriptLaunch(801);
    scriptLaunch(803);
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart_PortApps)), 0);
    expectAnswer(0, at("all apps on communication ports were restarted"));
    EXPECT_THAT(signalled(), ElementsAre("701", "703"));
    EXPECT_TRUE(Access::restartAllRequested(manager_));
    EXPECT_EQ(applist[1].pid, 702);
}

TEST_F(RestartManyTest, NothingToRestartIsASuccess) {
    addRunning(ofType(makeApp("all", 701), RESTART_TYPE_ALL));
    EXPECT_EQ(manager_.processCmd(makeRequest(APPMONCTL_Restart_PortApps)), 0);
    expectAnswer(0, at("all apps on communication ports were restarted"));
    EXPECT_FALSE(Access::restartAllRequested(manager_));
}

TEST_F(RestartManyTest, ShowsNoSizes) {
    verbose = 5;
    addRunning(ofType(makeApp("all", 701), RESTART_TYPE_ALL));
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Restart_All_But)));
    EXPECT_EQ(world().consoleText(), "");
}

struct RestartFailureCase {
    int action;
    int result;
};

void PrintTo(const RestartFailureCase& tested, std::ostream* out) {
    *out << tested.action;
}

class RestartManyFailureTest : public RestartManyTest,
                               public testing::WithParamInterface<RestartFailureCase> {
protected:
    void expectFailure() {
        EXPECT_EQ(manager_.processCmd(makeRequest(GetParam().action)), GetParam().result);
        expectNoReply();
        EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
        EXPECT_EQ(applist[0].pid, 801); // stays restarted
        EXPECT_EQ(applist[1].pid, 702);
        EXPECT_EQ(applist[2].pid, 703); // not touched
        EXPECT_EQ(applist[2].status, APP_STATUS_RUNNING);
        EXPECT_TRUE(world().isAlive(703));
    }
};

TEST_P(RestartManyFailureTest, FailedStopEndsTheWalkWithoutAReply) {
    addRunning(onPort(makeApp("one", 701)));
    applist.push_back(onPort(makeLostApp("lost", 702)));
    addRunning(onPort(makeApp("three", 703)));
    scriptLaunch(801);
    expectFailure();
    EXPECT_THAT(world().logTexts(kLevelError), IsEmpty());
}

TEST_P(RestartManyFailureTest, FailedStartEndsTheWalkWithoutAReply) {
    addRunning(onPort(makeApp("one", 701)));
    addRunning(onPort(makeAppWithoutCommand("two", 702)));
    addRunning(onPort(makeApp("three", 703)));
    scriptLaunch(801);
    expectFailure();
    EXPECT_THAT(world().logTexts(kLevelError), ElementsAre("two has no command line failure"));
}

TEST_P(RestartManyFailureTest, FailedEntryTakesStatusAndFlagOfTheWorkRecordToo) {
    Access::workRecord(manager_).status = APP_STATUS_START_FAILURE;
    Access::workRecord(manager_).check_flag = 1;
    applist = {onPort(makeLostApp("lost", 702))};
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam().action)), GetParam().result);
    EXPECT_EQ(applist[0].status, APP_STATUS_START_FAILURE);
    EXPECT_EQ(applist[0].check_flag, 1);
    EXPECT_EQ(applist[0].pid, 702);
}

TEST_P(RestartManyFailureTest, ComesBeforeTheQuestionWhetherSomebodyWaits) {
    applist = {onPort(makeLostApp("lost", 702))};
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(GetParam().action))), GetParam().result);
    expectNoReply();
}

TEST_P(RestartManyFailureTest, RegistryIsHeldThroughoutARestart) {
    addRunning(onPort(makeApp("one", 701)));
    addRunning(onPort(makeApp("two", 702)));
    world().process(701)->ignoresTerm = true;
    scriptLaunch(801);
    scriptLaunch(802);
    world().addProcess(801, "one", "/home/kelvo/root/one");
    int looks = 0;
    const auto look = [&] {
        ++looks;
        EXPECT_TRUE(requests::isHeld(&Access::appLock(manager_)));
    };
    world().onSignal = [&](pid_t, int) { look(); };
    world().onSleep = [&](int milliseconds) {
        look();
        if (milliseconds == 1) {
            world().now += 31; // The launch gives up.
        }
    };
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam().action)), 0);
    EXPECT_GE(looks, 10);
    EXPECT_FALSE(requests::isHeld(&Access::appLock(manager_)));
}

INSTANTIATE_TEST_SUITE_P(Actions, RestartManyFailureTest,
                         testing::Values(RestartFailureCase{6, -1}, RestartFailureCase{7, -1},
                                         RestartFailureCase{8, -5}));

class StopManyLockTest : public AppManagerCommandsTest, public testing::WithParamInterface<int> {};

TEST_P(StopManyLockTest, RegistryIsHeldThroughoutAStop) {
    addRunning(makeApp("one", 701));
    addRunning(makeApp("two", 702));
    applist[0].port_type = PORT_TYPE_COM;
    applist[1].port_type = PORT_TYPE_ETH;
    int looks = 0;
    world().onSignal = [&](pid_t, int) {
        ++looks;
        EXPECT_TRUE(requests::isHeld(&Access::appLock(manager_)));
    };
    EXPECT_EQ(manager_.processCmd(makeRequest(GetParam())), 0);
    EXPECT_EQ(looks, 4);
}

INSTANTIATE_TEST_SUITE_P(Actions, StopManyLockTest, testing::Values(2, 3, 4));

// --- the work record -----------------------------------------------------------------------------

class WorkRecordTest : public RestartManyTest, public testing::WithParamInterface<int> {
protected:
    /// Restarts one application that serves a port, whose flag is set, with action GetParam().
    void restart() {
        appinfo app = onPort(makeApp("restarted", 700));
        app.check_flag = 1;
        applist = {app};
        scriptLaunch(801);
        EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(GetParam()))), 0);
    }
};

TEST_P(WorkRecordTest, GivesZeroesBeforeAnyRequest) {
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
    EXPECT_EQ(applist[0].check_flag, 0);
    EXPECT_EQ(applist[0].pid, 801);
}

TEST_P(WorkRecordTest, GivesWhatTheLastStartLeft) {
    scriptLaunch(802);
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app", "/bin/app")));
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_STARTING0);
}

TEST_P(WorkRecordTest, GivesWhatAFailedStartLeft) {
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app")));
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_START_FAILURE);
}

TEST_P(WorkRecordTest, GivesWhatTheLastStopLeft) {
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app")));
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Stop, "app")));
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
}

TEST_P(WorkRecordTest, GivesWhatTheLastRestartLeft) {
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app")));
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Restart, "app")));
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
}

TEST_P(WorkRecordTest, IsNotFilledByWholeListActions) {
    manager_.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app")));
    for (const int action : {2, 3, 4, 6, 7, 8, 9, 10, 11}) {
        appinfo app = onPort(makeApp("other", 0));
        applist = {app};
        manager_.processCmd(unanswered(makeRequest(action, "name", "/bin/name")));
    }
    EXPECT_STREQ(Access::workRecord(manager_).name, "app");
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_START_FAILURE);
}

TEST_P(WorkRecordTest, GivesItsCheckFlag) {
    Access::workRecord(manager_).check_flag = 1;
    restart();
    EXPECT_EQ(applist[0].check_flag, 1);
}

TEST_P(WorkRecordTest, AndPidAndStartTimeAreAllThatChanges) {
    Access::workRecord(manager_).status = APP_STATUS_APP_LATE;
    Access::workRecord(manager_).check_flag = 0;
    platform::copyToField(Access::workRecord(manager_).pidfile, "/tmp/pid/work");
    addRunning(onPort(everyFieldSet(makeApp("app", 701))));
    appinfo expected = applist[0];
    scriptLaunchOfADaemon(801, 802, "app");
    EXPECT_EQ(manager_.processCmd(unanswered(makeRequest(GetParam(), "name", "/bin/name"))), 0);
    expected.pid = 802;
    expected.status = APP_STATUS_APP_LATE;
    expected.start_time = kDaemonStart;
    expected.check_flag = 0;
    EXPECT_EQ(std::memcmp(&applist[0], &expected, sizeof expected), 0);
}

TEST_P(WorkRecordTest, BelongsToItsManager) {
    AppManager other;
    other.processCmd(unanswered(makeRequest(APPMONCTL_Start, "app")));
    restart();
    EXPECT_EQ(applist[0].status, APP_STATUS_INITIALIZING);
}

INSTANTIATE_TEST_SUITE_P(Actions, WorkRecordTest, testing::Values(6, 7, 8));

} // namespace
