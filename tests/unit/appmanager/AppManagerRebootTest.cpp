// The end of the supervision pass: restarts of all applications and of the machine.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "records/codes.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/SupervisionFixture.h"

namespace supervision {
namespace {

/// Everything a pass does, in its order: calls, but for those that only look; and the lines it
/// writes, by the place where they go.
class Course {
public:
    Course() {
        world().onCall = [this](const std::string& call) {
            if (call.rfind("probe", 0) != 0 && call != "yield" &&
                call.rfind("heartbeat_check", 0) != 0) {
                note(call);
            }
        };
        world().onConsole = [this](const std::string& text) { note("console " + text); };
        world().onLog = [this](int level, const std::string& text) {
            note("log " + std::to_string(level) + " " + text);
        };
    }
    ~Course() {
        world().onCall = nullptr;
        world().onConsole = nullptr;
        world().onLog = nullptr;
    }
    Course(const Course&) = delete;
    Course& operator=(const Course&) = delete;

    const Texts& steps() const { return steps_; }

private:
    /// Event lines come before what follows them.
    void note(const std::string& step) {
        for (; eventsSeen_ < world().events.size(); ++eventsSeen_) {
            steps_.push_back("event " + world().events[eventsSeen_]);
        }
        steps_.push_back(step);
    }

    Texts steps_;
    std::size_t eventsSeen_ = 0;
};

const Texts kLaunchWords = {"pipe",    "blockSignals", "fork", "closefd",
                            "waitpid", "read",         "gate", "restoreSignals"};

class RebootTest : public SupervisionFixture {
protected:
    /// Runs a pass; what it does.
    Texts runPass() {
        const Course course;
        EXPECT_EQ(manager_.checkStatus(true), 0);
        return withoutDetails(course.steps());
    }

    /// The steps but for the inner ones of a launch and the reading of the health word.
    static Texts withoutDetails(const Texts& steps) {
        Texts kept;
        for (const std::string& step : steps) {
            const std::string word = step.substr(0, step.find(' '));
            if (word == "loadShm") {
                continue;
            }
            if (word == "fork" ||
                std::find(kLaunchWords.begin(), kLaunchWords.end(), word) == kLaunchWords.end()) {
                kept.push_back(step);
            }
        }
        return kept;
    }

    void requestReboot() { Access::rebootRequested(manager_) = true; }
    void requestRestartOfAll() { Access::restartAllRequested(manager_) = true; }

    bool rebootIsRequested() { return Access::rebootRequested(manager_); }
    bool restartOfAllIsRequested() { return Access::restartAllRequested(manager_); }

    /// An entry that start_allprocess cannot start; in a pass that erases nothing it stays.
    static void addUnstartable() { addRunning().cmd[0] = '\0'; }
};

// --- the reboot ----------------------------------------------------------------------------------

TEST_F(RebootTest, HasItsStepsInOrder) {
    addRunning();
    addRunning();
    requestReboot();
    EXPECT_THAT(runPass(),
                ElementsAre("kill 702 15", "kill 702 9", "log 6 app2[pid=702] is stopped",
                            "log 6 Appmon reboot system", "console REBOOTING...\n",
                            "event Ovard: reboot system", "sleep 2000", "sync",
                            "shell /bin/echo 1 > /dev/watchdog", "sync", "restart"));
}

TEST_F(RebootTest, OfAnEmptyRegistryIsDoneToo) {
    requestReboot();
    EXPECT_THAT(runPass(), ElementsAre("log 6 Appmon reboot system", "console REBOOTING...\n",
                                       "event Ovard: reboot system", "sleep 2000", "sync",
                                       "shell /bin/echo 1 > /dev/watchdog", "sync", "restart"));
}

TEST_F(RebootTest, IsForgottenOnceItIsActedOn) {
    requestReboot();
    bool requested = true;
    world().onConsole = [&](const std::string&) { requested = rebootIsRequested(); };
    manager_.checkStatus(true);
    world().onConsole = nullptr;
    EXPECT_FALSE(requested);
    EXPECT_FALSE(rebootIsRequested());
    world().forgetRecords();
    manager_.checkStatus(true);
    EXPECT_THAT(world().callsWithout({"loadShm"}), IsEmpty());
    EXPECT_THAT(world().events, IsEmpty());
}

TEST_F(RebootTest, RequestIsForgottenBeforeTheApplicationsAreStopped) {
    addRunning();
    addRunning();
    requestReboot();
    bool requested = true;
    onceCalled("kill 702 15", [&] { requested = rebootIsRequested(); });
    manager_.checkStatus(true);
    EXPECT_FALSE(requested);
}

TEST_F(RebootTest, HoldsTheRegistryForTheStopOnly) {
    addRunning();
    addRunning();
    requestReboot();
    Texts held;
    world().onCall = [&](const std::string& call) {
        if (registryIsHeld()) {
            held.push_back(call);
        }
    };
    manager_.checkStatus(true);
    world().onCall = nullptr;
    EXPECT_THAT(held, Contains("kill 702 9"));
    for (const char* call :
         {"sleep 2000", "sync", "shell /bin/echo 1 > /dev/watchdog", "restart"}) {
        EXPECT_THAT(world().calls, Contains(call));
        EXPECT_THAT(held, Not(Contains(call)));
    }
}

TEST_F(RebootTest, PausesForTwoSeconds) {
    requestReboot();
    const std::int64_t begin = world().monotonicMs;
    manager_.checkStatus(true);
    EXPECT_EQ(world().monotonicMs - begin, 2000);
}

TEST_F(RebootTest, SpeaksAtEveryVerbosity) {
    verbose = 0;
    requestReboot();
    manager_.checkStatus(true);
    EXPECT_EQ(world().consoleText(), "REBOOTING...\n");
    EXPECT_THAT(logLines(), ElementsAre(Line(kLevelInfo, "Appmon reboot system")));
}

TEST_F(RebootTest, GoesOnWithoutTheWatchdogAndTellsTheError) {
    for (const int error : {EIO, ETIMEDOUT, ENOENT}) {
        world().forgetRecords();
        world().shellResults = {{-1, error}};
        requestReboot();
        EXPECT_THAT(runPass(), ElementsAre("log 6 Appmon reboot system", "console REBOOTING...\n",
                                           "event Ovard: reboot system", "sleep 2000", "sync",
                                           "shell /bin/echo 1 > /dev/watchdog",
                                           "console error=" + std::to_string(error) +
                                               " enabling watchdog for reboot\n",
                                           "sync", "restart"));
    }
}

TEST_F(RebootTest, CommandThatExitsNonZeroIsAFailureToo) {
    world().shellResults = {{1, EIO}};
    requestReboot();
    manager_.checkStatus(true);
    EXPECT_EQ(world().consoleText(), "REBOOTING...\nerror=5 enabling watchdog for reboot\n");
}

TEST_F(RebootTest, ThatReturnsWithSuccessStartsNothing) {
    addRunning();
    addRunning();
    requestReboot();
    manager_.checkStatus(true);
    EXPECT_EQ(world().count("fork"), 0U);
    EXPECT_EQ(entry(2).status, APP_STATUS_STOPPED);
}

class FailedRebootTest : public RebootTest, public testing::WithParamInterface<int> {};

TEST_P(FailedRebootTest, StartsTheApplicationsAgain) {
    addRunning();
    addRunning();
    requestReboot();
    world().restartResults = {{GetParam(), EPERM}};
    scriptLaunches(2);
    const Texts steps = runPass();
    ASSERT_GE(steps.size(), 3U);
    const auto restart = std::find(steps.begin(), steps.end(), "restart");
    EXPECT_THAT(Texts(restart, steps.end()),
                ElementsAre("restart", "fork",
                            "log 6 start_process: name=app1  status=1 start_process_fork2=601",
                            "fork",
                            "log 6 start_process: name=app2  status=1 start_process_fork2=611"));
    EXPECT_EQ(entry(1).pid, 601);
    EXPECT_EQ(entry(2).pid, 611);
    EXPECT_EQ(world().consoleText(), "REBOOTING...\n");
}

TEST_P(FailedRebootTest, IsNotTriedAgainWhateverBecomesOfTheStart) {
    addRunning();
    addUnstartable();
    requestReboot();
    world().restartResults = {{GetParam(), EPERM}};
    scriptLaunches(1);
    EXPECT_EQ(manager_.checkStatus(false), 0);
    EXPECT_EQ(world().count("restart"), 1U);
    EXPECT_EQ(world().count("fork"), 1U);
}

INSTANTIATE_TEST_SUITE_P(Results, FailedRebootTest, testing::Values(-1, 1, 0x80));

TEST_F(RebootTest, FailedOneOfAnEmptyRegistryIsOver) {
    requestReboot();
    world().restartResults = {{-1, EPERM}};
    EXPECT_EQ(manager_.checkStatus(true), 0);
    EXPECT_EQ(world().calls.back(), "restart");
}

// --- the restart of all --------------------------------------------------------------------------

TEST_F(RebootTest, RestartOfAllHasItsStepsInOrder) {
    addRunning();
    addRunning();
    requestRestartOfAll();
    scriptLaunches(2);
    EXPECT_THAT(runPass(),
                ElementsAre("console RESTART ALL...\n", "event Ovard: restart all", "kill 702 15",
                            "kill 702 9", "log 6 app2[pid=702] is stopped", "sleep 2000", "fork",
                            "log 6 start_process: name=app1  status=1 start_process_fork2=601",
                            "fork",
                            "log 6 start_process: name=app2  status=1 start_process_fork2=611"));
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all"));
}

TEST_F(RebootTest, RestartOfAllIsForgottenFirst) {
    addRunning();
    requestRestartOfAll();
    scriptLaunches(1);
    bool requested = true;
    world().onConsole = [&](const std::string&) { requested = restartOfAllIsRequested(); };
    manager_.checkStatus(true);
    world().onConsole = nullptr;
    EXPECT_FALSE(requested);
    world().forgetRecords();
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, IsEmpty());
    EXPECT_EQ(world().count("fork"), 0U);
}

TEST_F(RebootTest, RestartOfAllHoldsTheRegistryForStopAndStartOnly) {
    addRunning();
    addRunning();
    requestRestartOfAll();
    scriptLaunches(2);
    Texts held;
    bool heldAtTheText = true;
    world().onConsole = [&](const std::string&) { heldAtTheText = registryIsHeld(); };
    world().onCall = [&](const std::string& call) {
        if (registryIsHeld()) {
            held.push_back(call);
        }
    };
    manager_.checkStatus(true);
    world().onCall = nullptr;
    world().onConsole = nullptr;
    EXPECT_FALSE(heldAtTheText);
    EXPECT_THAT(held, Contains("kill 702 15"));
    EXPECT_THAT(held, Contains("fork"));
    EXPECT_THAT(held, Not(Contains("sleep 2000")));
}

TEST_F(RebootTest, RestartOfAllInAnEmptyRegistryIsOverWithoutAReboot) {
    requestRestartOfAll();
    EXPECT_THAT(runPass(),
                ElementsAre("console RESTART ALL...\n", "event Ovard: restart all", "sleep 2000"));
    EXPECT_FALSE(restartOfAllIsRequested());
}

TEST_F(RebootTest, RestartOfAllThatFailsReboots) {
    addUnstartable();
    addRunning();
    requestRestartOfAll();
    scriptLaunches(1);
    const Course course;
    EXPECT_EQ(manager_.checkStatus(false), 0);
    const Texts steps = withoutDetails(course.steps());
    const auto reboot = std::find(steps.begin(), steps.end(), "log 6 Appmon reboot system");
    EXPECT_THAT(Texts(reboot, steps.end()),
                ElementsAre("log 6 Appmon reboot system", "console REBOOTING...\n",
                            "event Ovard: reboot system", "sleep 2000", "sync",
                            "shell /bin/echo 1 > /dev/watchdog", "sync", "restart"));
    EXPECT_THAT(Texts(steps.begin(), reboot),
                ElementsAre("console RESTART ALL...\n", "event Ovard: restart all", "kill 702 15",
                            "kill 702 9", "log 6 app2[pid=702] is stopped", "sleep 2000",
                            "log 3 app1 has no command line failure", "fork",
                            "log 6 start_process: name=app2  status=1 start_process_fork2=601",
                            // and once more, now for the reboot: it has just been launched,
                            // and is not there
                            "sleep 100", "sleep 100", "sleep 100", "sleep 100", "sleep 100",
                            "sleep 100", "sleep 100", "sleep 100", "sleep 100", "sleep 100"));
    EXPECT_FALSE(restartOfAllIsRequested());
}

TEST_F(RebootTest, RestartOfAllDuringWhichARebootIsAskedForEndsInIt) {
    addRunning();
    requestRestartOfAll();
    scriptLaunches(1);
    onceCalled("sleep 2000", [this] { requestReboot(); });
    manager_.checkStatus(true);
    world().onCall = nullptr;
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all", "Ovard: reboot system"));
    EXPECT_EQ(world().count("restart"), 1U);
}

TEST_F(RebootTest, LaunchThatFailedIsNoReasonForAReboot) {
    addRunning();
    requestRestartOfAll();
    world().forkResults = {{600, 0}}; // no pid comes through the pipe
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all"));
    EXPECT_EQ(world().count("restart"), 0U);
}

TEST_F(RebootTest, StopThatFailedIsNoReasonForAReboot) {
    addRunning();
    addEntry(APP_STATUS_STARTING0).start_time = static_cast<std::int32_t>(world().now); // in grace
    requestRestartOfAll();
    scriptLaunches(2);
    manager_.checkStatus(true);
    EXPECT_EQ(world().count("kill"), 0U); // never came alive
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all"));
    EXPECT_EQ(entry(2).pid, 611);
}

// The console's line comes right before the event.
TEST_F(RebootTest, EventsCarryTheTimesOfTheirWriting) {
    addUnstartable(); // so that the restart of all ends in a reboot
    requestRestartOfAll();
    std::vector<std::int64_t> times;
    world().onConsole = [&times](const std::string&) {
        world().advance(61234);
        times.push_back(world().nowInMs());
    };
    manager_.checkStatus(false);
    world().onConsole = nullptr;
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all", "Ovard: reboot system"));
    EXPECT_THAT(world().eventTimes, testing::ElementsAreArray(times));
}

// --- who asks for it -----------------------------------------------------------------------------

TEST_F(RebootTest, RequestOfACommandIsActedOnAtTheNextPass) {
    addRunning().restart_type = RESTART_TYPE_ALL;
    appinfo info = {};
    EXPECT_EQ(manager_.restartApp(requests::makeRequest(APPMONCTL_Restart, "app1"), info), 0);
    EXPECT_TRUE(restartOfAllIsRequested());
    EXPECT_THAT(world().events, IsEmpty());
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all"));
    EXPECT_FALSE(restartOfAllIsRequested());
    EXPECT_EQ(entry(1).pid, 601);
}

TEST_F(RebootTest, RebootWinsOverTheRestartOfAllWhichStaysRequested) {
    addRunning();
    requestReboot();
    requestRestartOfAll();
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, ElementsAre("Ovard: reboot system"));
    EXPECT_TRUE(restartOfAllIsRequested());
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, ElementsAre("Ovard: reboot system", "Ovard: restart all"));
}

TEST_F(RebootTest, RebootAskedForByOneWinsOverTheRestartOfAllAskedForByAnother) {
    addDied(RESTART_TYPE_ALL).last_runtime_life_limit = 600;
    addDied(RESTART_TYPE_ALL);
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, ElementsAre("Ovard: reboot system"));
}

TEST_F(RebootTest, RequestsOutliveAPassInTheBootPeriod) {
    addRunning();
    requestRestartOfAll();
    const std::int64_t uptime = world().uptimeSec;
    world().uptimeSec = 50;
    Access::statusUpdate(manager_).initBootTimeVars();
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, IsEmpty());
    world().uptimeSec = uptime;
    Access::statusUpdate(manager_).initBootTimeVars();
    scriptLaunches(1);
    manager_.checkStatus(true);
    EXPECT_THAT(world().events, ElementsAre("Ovard: restart all"));
}

} // namespace
} // namespace supervision
