// The times of the monitor's own lines in the event log: each that of its writing.

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/Shutdown.h"
#include "runtime/Signals.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/runtime/RuntimeSupport.h"
#include "tests/unit/runtime/ShutdownSupport.h"
#include "tests/unit/runtime/SignalsSupport.h"
#include "tests/unit/runtime/StartupSupport.h"

namespace {

using fakes::world;
using runtimetest::signalCall;
using testing::ElementsAre;
using testing::ElementsAreArray;

/// A span that no scripted pause lasts, with milliseconds.
constexpr int kPassedMs = 61234;

class StartUpEventTimesTest : public runtimetest::StartupTest {};

TEST_F(StartUpEventTimesTest, AreThoseOfTheirWriting) {
    std::vector<std::int64_t> times;
    world().onCall = [&times](const std::string& call) {
        if (call == "oom -1" || call == signalCall(SIGTERM, "handler")) {
            world().advance(kPassedMs);
            times.push_back(world().nowInMs());
        }
    };
    run({"-d"});
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Started.",
                                            "Ovard: Application Monitor Initialized."));
    EXPECT_THAT(world().eventTimes, ElementsAreArray(times));
}

class StopEventTimeTest : public runtimetest::ShutdownTest {};

TEST_F(StopEventTimeTest, IsThatOfItsWriting) {
    startEverything();
    const std::int64_t start = world().nowInMs();
    world().onCall = [](const std::string& call) {
        if (call == "heartbeat_cleanup -1") {
            world().advance(kPassedMs);
        }
    };
    ovardAtExit();
    EXPECT_THAT(world().events, ElementsAre("Ovard: Application Monitor Stopped."));
    EXPECT_THAT(world().eventTimes, ElementsAre(start + kPassedMs));
}

class CaughtEventTimeTest : public runtimetest::SignalsTest {};

TEST_F(CaughtEventTimeTest, IsThatOfTheSignal) {
    const std::int64_t start = world().nowInMs();
    mysig_handler(SIGHUP);
    world().advance(kPassedMs);
    mysig_handler(SIGHUP);
    EXPECT_THAT(world().events, ElementsAre("Ovard: Caught signal 1", "Ovard: Caught signal 1"));
    EXPECT_THAT(world().eventTimes, ElementsAre(start, start + kPassedMs));
}

} // namespace
