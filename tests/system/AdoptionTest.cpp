// Applications that a monitor takes over from an earlier one, and those that it does not.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tests/system/AdoptionSupport.h"

namespace systemtest {
namespace {

using Adoption = AdoptionTest;
using AdoptionOfTwenty = AdoptionTest;
using AdoptionOfMany = AdoptionTest;

/// How long the first passes of the largest registry may take.
constexpr int kFirstPassesMs = 60000;

// --- those that are taken over -------------------------------------------------------------------

TEST_F(Adoption, OneApplication) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    reqcmd request = makeOrdinary("data_server", "--ignore-term some words");
    request.porttype = PORT_TYPE_ETH;
    request.portnum = 502;
    request.priority = -3;
    request.last_runtime_life_limit = 77;
    const pid_t pid = launchAndPublish(request);
    ASSERT_NO_FATAL_FAILURE(replaceMonitor(kShortGrace));
    ASSERT_EQ(publishedNames(), std::vector<std::string>{"data_server"});
    EXPECT_EQ(publishedApp("data_server").portType, "Eth");
    expectSupervised(request, pid);
}

TEST_F(Adoption, AfterAnOrderlyEnd) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    const pid_t pid = launchAndPublish(makeOrdinary("data_server"));
    ASSERT_EQ(monitor_.terminate().text(), "status 0");
    ASSERT_TRUE(startPublisher(kShortGrace));
    EXPECT_EQ(publishedApp("data_server").pid, pid);
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "data_server")),
              replyOf(0, "data_server is stopped @DATE\n"));
    EXPECT_TRUE(isGone(pid));
}

TEST_F(Adoption, ApplicationThatIsStillStarting) {
    ASSERT_TRUE(startPublisher(kLongGrace));
    reqcmd request = makeOrdinary("slow");
    request.restart_type = RESTART_TYPE_ALL;
    const pid_t pid = launch(request);
    ASSERT_TRUE(publishes("slow", pid, "starting"));
    ASSERT_NO_FATAL_FAILURE(replaceMonitor(kLongGrace));
    EXPECT_EQ(publishedApp("slow").status, "starting");
    EXPECT_EQ(publishedApp("slow").restartType, 1);
    ASSERT_NO_FATAL_FAILURE(replaceMonitor(kLongGrace));
}

TEST_F(Adoption, NameThatTheKernelCuts) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    const reqcmd request = makeOrdinary("longer_than_fifteen_characters");
    const pid_t pid = launchAndPublish(request);
    ASSERT_NO_FATAL_FAILURE(replaceMonitor(kShortGrace));
    expectSupervised(request, pid);
}

TEST_F(Adoption, ProgramFileThatWasRenamedMeanwhile) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    (void)launchAndPublish(makeOrdinary("updated"));
    ASSERT_EQ(std::rename(programPath("updated").c_str(), "/home/kelvo/root/updated.old"), 0);
    ASSERT_NO_FATAL_FAILURE(replaceMonitor(kShortGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{"updated"});
}

TEST_F(Adoption, ProgramOutsideTheInstallationFolders) {
    const std::string path = "/home/other/foreign";
    const pid_t pid = runApplication(path);
    const PublishedApp app = recordOf("foreign", pid);
    ASSERT_NO_FATAL_FAILURE(leaveSegment({app}));
    ASSERT_TRUE(startPublisher(kLongGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{"foreign"});
    EXPECT_EQ(publishedApp("foreign").pid, pid);
    // Under another pid it is no longer found.
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    ASSERT_NO_FATAL_FAILURE(endAndWait(pid, app.startMs));
    const pid_t next = runApplication(path);
    ASSERT_TRUE(startPublisher(kLongGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{});
    EXPECT_TRUE(isRunning(next));
}

TEST_F(Adoption, ApplicationThatStartedAnewByItself) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    const reqcmd request = makeOrdinary("revenant");
    const pid_t pid = launchAndPublish(request);
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    const PublishedApp before = publishedApp("revenant");
    ASSERT_NO_FATAL_FAILURE(endAndWait(pid, before.startMs));
    const pid_t next = runApplication(programPath("revenant"));
    ASSERT_NE(next, pid);
    ASSERT_TRUE(startPublisher(kShortGrace));
    ASSERT_TRUE(publishes("revenant", next, "started"));
    EXPECT_GE(publishedApp("revenant").startMs, before.startMs + 2000);
    expectSupervised(request, next);
}

// --- those that are not --------------------------------------------------------------------------

TEST_F(Adoption, ApplicationThatIsGoneIsNotStarted) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    const pid_t first = launchAndPublish(makeOrdinary("first"));
    const pid_t second = launchAndPublish(makeOrdinary("second"));
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    ASSERT_TRUE(killAndWait(first));
    ASSERT_TRUE(startPublisher(kShortGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{"second"});
    EXPECT_EQ(publishedApp("second").pid, second);
    letPassesGoBy(kSilenceMs);
    EXPECT_TRUE(processesNamed("first").empty());
}

TEST_F(Adoption, PidThatAnotherProgramHasNow) {
    if (::access(kLastPid, W_OK) != 0) {
        GTEST_SKIP() << "this kernel does not let process ids be chosen";
    }
    ASSERT_TRUE(startPublisher(kShortGrace));
    const pid_t pid = launchAndPublish(makeOrdinary("victim"));
    const std::string other = installSample("other");
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    ASSERT_NO_FATAL_FAILURE(endAndWait(pid, publishedApp("victim").startMs));
    Program program;
    ASSERT_NO_FATAL_FAILURE(startAs(pid, program, other));
    ASSERT_TRUE(startPublisher(kShortGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{});
    letPassesGoBy(kSilenceMs);
    EXPECT_TRUE(isRunning(pid));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{});
}

TEST_F(Adoption, PidThatALaterRunOfTheSameProgramHasNow) {
    if (::access(kLastPid, W_OK) != 0) {
        GTEST_SKIP() << "this kernel does not let process ids be chosen";
    }
    ASSERT_TRUE(startPublisher(kShortGrace));
    const pid_t pid = launchAndPublish(makeOrdinary("victim"));
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    const PublishedApp before = publishedApp("victim");
    ASSERT_NO_FATAL_FAILURE(endAndWait(pid, before.startMs));
    Program program;
    ASSERT_NO_FATAL_FAILURE(startAs(pid, program, programPath("victim")));
    const std::int64_t startMs = startSecOf(pid) * 1000;
    ASSERT_TRUE(startPublisher(kShortGrace));
    ASSERT_EQ(publishedNames(), std::vector<std::string>{"victim"});
    EXPECT_EQ(publishedApp("victim").pid, pid);
    EXPECT_LE(std::abs(publishedApp("victim").startMs - startMs), 1000) << "not the old one";
}

TEST_F(Adoption, ProcessThatBecameAnotherProgram) {
    (void)installSample("other");
    ASSERT_TRUE(writeScript(programPath("changing"),
                            "while [ ! -e /tmp/now ]; do sleep 0.05; done\n"
                            "exec /home/kelvo/root/other --foreground\n"));
    Program program;
    ASSERT_TRUE(program.start(programPath("changing"), {}));
    const pid_t pid = program.pid();
    ASSERT_TRUE(eventually([&] { return processFacts(pid).name == "changing"; }));
    ASSERT_NO_FATAL_FAILURE(leaveSegment({recordOf("changing", pid)}));
    ASSERT_TRUE(startPublisher(kLongGrace));
    ASSERT_EQ(publishedApp("changing").pid, pid);
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    const std::uint64_t ticks = processFacts(pid).startTicks;
    ASSERT_TRUE(writeFile("/tmp/now", ""));
    ASSERT_TRUE(eventually([&] { return processFacts(pid).name == "other"; }));
    ASSERT_EQ(processFacts(pid).startTicks, ticks);
    ASSERT_TRUE(startPublisher(kLongGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{});
    EXPECT_TRUE(isRunning(pid));
}

TEST_F(Adoption, ProgramsInExcludedFolders) {
    std::vector<PublishedApp> apps;
    for (const std::string path :
         {"/home/kelvo/root/appmon/tool", "/home/kelvo/root/appmon/deep/down",
          "/home/kelvo/root/python_scripts/script", "/home/kelvo/root/actl",
          "/home/kelvo/root/actl_more", "/mnt/runfw/home/kelvo/root/appmon/tool2",
          "/mnt/runfw/home/kelvo/root/python_scripts/script2", "/mnt/runfw/home/kelvo/root/actl3",
          "/home/kelvo/root/ordinary", "/mnt/runfw/home/kelvo/root/ordinary2"}) {
        apps.push_back(recordOf(path.substr(path.rfind('/') + 1), runApplication(path)));
    }
    ASSERT_NO_FATAL_FAILURE(leaveSegment(apps));
    ASSERT_TRUE(startPublisher(kLongGrace));
    EXPECT_EQ(publishedNames(), (std::vector<std::string>{"ordinary", "ordinary2"}));
    for (const PublishedApp& app : apps) {
        EXPECT_TRUE(isRunning(app.pid)) << app;
    }
}

TEST_F(Adoption, OptionsThatSwitchItOff) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    const pid_t pid = launchAndPublish(makeOrdinary("data_server"));
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    const std::string left = applicationSegment();
    ASSERT_TRUE(writeFile("/tmp/empty", ""));
    const std::vector<std::vector<std::string>> choices = {
        {"-a"}, {"-f", "/tmp/recorded"}, {"-x", "/tmp/empty"}};
    for (const std::vector<std::string>& options : choices) {
        ASSERT_TRUE(startPublisher(options));
        EXPECT_EQ(publishedNames(), std::vector<std::string>{}) << options[0];
        EXPECT_EQ(numberAt<std::int32_t>(applicationSegment(), 0), 0) << options[0];
        EXPECT_EQ(recordIn(applicationSegment(), 1).name, "") << options[0];
        EXPECT_TRUE(isRunning(pid)) << options[0];
        monitor_.kill();
        ASSERT_TRUE(writeFile(kApplicationSegmentPath, left));
    }
    ASSERT_TRUE(startPublisher(kShortGrace));
    EXPECT_EQ(publishedApp("data_server").pid, pid);
}

// --- many ----------------------------------------------------------------------------------------

TEST_F(AdoptionOfTwenty, AllAreTakenOverAndSupervised) {
    ASSERT_TRUE(startPublisher(kShortGrace));
    std::vector<reqcmd> requests;
    std::vector<std::string> names;
    for (int number = 1; number <= 20; ++number) {
        names.push_back("app" + std::to_string(number));
        requests.push_back(makeOrdinary(names.back(), "--number " + std::to_string(number)));
        requests.back().portnum = number;
        (void)launch(requests.back());
    }
    ASSERT_TRUE(publishes(names));
    ASSERT_TRUE(publishes("app20", publishedApp("app20").pid, "started"));
    ASSERT_NO_FATAL_FAILURE(replaceMonitor(kShortGrace));
    ASSERT_EQ(publishedNames(), names);
    const auto before = published();
    expectSupervised(requests[12], publishedApp("app13").pid);
    const auto after = published();
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t index = 0; index < before.size(); ++index) {
        EXPECT_EQ(after[index] == before[index], index != 12) << index;
    }
}

/// Launches take a second each, so the first monitor gets its applications from a segment, too.
TEST_F(AdoptionOfMany, AllThatCanBePublished) {
    const char* const kPortTypes[] = {"None", "COM", "Eth"};
    const std::string original = installSample("original");
    std::vector<PublishedApp> records;
    std::vector<std::string> names;
    for (int number = 1; number <= static_cast<int>(kMostPublished); ++number) {
        names.push_back("app" + std::to_string(number));
        const std::string path = programPath(names.back());
        ASSERT_EQ(::link(original.c_str(), path.c_str()), 0);
        records.push_back(recordOf(names.back(), runApplication(path)));
        records.back().lifeLimit = number;
        records.back().portNumber = 1000 + number;
        records.back().portType = kPortTypes[number % 3];
        records.back().status = number % 16 == 15 ? "starting" : "started";
    }
    ASSERT_TRUE(writeFile(kApplicationSegmentPath, segmentOf(records, kMostPublished)));
    ASSERT_TRUE(startPublisher(kLongGrace));
    ASSERT_EQ(publishedNames(), names);
    EXPECT_EQ(publishedApp("app127").status, "starting");
    ASSERT_NO_FATAL_FAILURE(replaceMonitor(kLongGrace));
    ASSERT_EQ(publishedNames(), names);
    ASSERT_NO_FATAL_FAILURE(killMonitor());
    const auto processes = published();
    ASSERT_TRUE(startSupervisor({"-v", "8", "-s", "6"}));
    // The first pass takes a tenth of a second for each. Who talks to the monitor meanwhile has to
    // be served later.
    ASSERT_TRUE(eventually(
        [&] {
            return countLog(6, verdict("app127", processes.back().first, "running, is alive")) == 1;
        },
        kFirstPassesMs));
    EXPECT_EQ(published(), processes);
    const PublishedApp victim = publishedApp("app126");
    expectSupervised(makeOrdinary("app126"), victim.pid);

    // One more is launched, but then the segment keeps what it has.
    ASSERT_TRUE(letACycleGoBy());
    const pid_t last = launch(makeOrdinary("one_too_many"));
    const std::string before = applicationSegment();
    const auto hours = numberAt<float>(systemSegment(), 256 + 16);
    ASSERT_TRUE(letACycleGoBy());
    EXPECT_TRUE(isRunning(last));
    EXPECT_EQ(applicationSegment(), before);
    EXPECT_EQ(publishedNames(), names);
    EXPECT_GT(numberAt<float>(systemSegment(), 256 + 16), hours);
}

} // namespace
} // namespace systemtest
