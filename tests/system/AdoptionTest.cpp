// Monitors that come after another one, whose applications still run.

#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <random>

#include "tests/system/Publication.h"

namespace systemtest {
namespace {

constexpr const char* kLastPid = "/proc/sys/kernel/ns_last_pid";

/// Long enough for a pass between a launch and the end of the grace, in which the monitor learns
/// the new name of the pid file.
const std::vector<std::string> kShortGrace = {"-s", "3"};

/// How long the first passes of the largest registry may take.
constexpr int kFirstPassesMs = 60000;

/// Keeps every state as it is after a launch or an adoption.
const std::vector<std::string> kLongGrace = {"-s", "3600"};

/// When a process was started, in seconds since the epoch, to the second or so.
std::int64_t startSecOf(pid_t pid) {
    struct sysinfo machine = {};
    EXPECT_EQ(::sysinfo(&machine), 0);
    const auto ticks = static_cast<std::int64_t>(processFacts(pid).startTicks);
    return std::time(nullptr) - machine.uptime + ticks / ::sysconf(_SC_CLK_TCK);
}

class Adoption : public PublicationTest {
protected:
    /// A start request for an application that writes a pid file by convention, as a monitor can
    /// find it again.
    reqcmd makeOrdinary(const std::string& name, const std::string& options = "") {
        reqcmd request = makeStart(name, options);
        std::string("1.0").copy(request.version, sizeof request.version);
        return request;
    }

    /// Launches an application and waits until it is published as running.
    pid_t launchAndPublish(const reqcmd& request) {
        const pid_t pid = launch(request);
        EXPECT_TRUE(publishes(request.name, pid, "started"));
        return pid;
    }

    /// Kills the monitor; what it published last stays.
    void killMonitor() {
        ASSERT_TRUE(letACycleGoBy());
        monitor_.kill();
        ASSERT_FALSE(monitor_.alive());
    }

    /// The processes of what is published, with their start times.
    static std::vector<std::pair<pid_t, std::uint64_t>> published() {
        std::vector<std::pair<pid_t, std::uint64_t>> processes;
        for (const PublishedApp& app : publishedApps()) {
            EXPECT_TRUE(isRunning(app.pid)) << app;
            processes.emplace_back(app.pid, processFacts(app.pid).startTicks);
        }
        return processes;
    }

    /// Kills the monitor and starts another one, which must publish the same as the one before,
    /// without having started anything.
    void replaceMonitor(const std::vector<std::string>& options) {
        ASSERT_NO_FATAL_FAILURE(killMonitor());
        const std::vector<PublishedApp> before = publishedApps();
        const auto processes = published();
        const LogMark mark;
        ASSERT_TRUE(startPublisher(options));
        EXPECT_EQ(publishedApps(), before);
        EXPECT_EQ(published(), processes);
        for (const LogText& line : mark.lines(0)) {
            EXPECT_EQ(line.text.find("start_process:"), std::string::npos) << line;
            EXPECT_EQ(line.text.find("is stopped"), std::string::npos) << line;
        }
    }

    /// The monitor supervises an application that it adopted.
    void expectSupervised(const reqcmd& request, pid_t pid) {
        ASSERT_TRUE(reaches(verdict(request.name, pid, "running0 confirmed pidfile, now running")));
        ASSERT_TRUE(killAndWait(pid));
        const pid_t next = replacementOf(request, pid);
        ASSERT_NE(next, 0);
        expectReplacedAfter(request.name, pid, "start_time=DATE running, is dead");
        EXPECT_TRUE(publishes(request.name, next, "started"));
    }

    /// Leaves a segment as a monitor would that had these applications.
    static void leaveSegment(const std::vector<PublishedApp>& apps) {
        ASSERT_TRUE(writeFile(kApplicationSegmentPath,
                              segmentOf(apps, static_cast<std::int32_t>(apps.size()))));
    }

    /// Starts a program beside the monitor, which goes into the background by itself.
    pid_t runApplication(const std::string& path) {
        if (!fileExists(path)) {
            (void)installSampleAt(path);
        }
        EXPECT_EQ(runProgram(path, {}).ending.text(), "status 0") << path;
        const std::vector<pid_t> found = processesWithCommandLine(path);
        EXPECT_EQ(found.size(), 1U) << path;
        return found.empty() ? 0 : found[0];
    }

    /// What a monitor publishes about such a process.
    static PublishedApp recordOf(const std::string& name, pid_t pid) {
        PublishedApp app;
        app.name = name;
        app.version = "1.0";
        app.startMs = startSecOf(pid) * 1000;
        app.pid = pid;
        app.status = "started";
        app.portType = "None";
        return app;
    }

    /// Starts a program that stays in the foreground as the process of that id, which is free.
    static void startAs(pid_t pid, Program& program, const std::string& path) {
        ASSERT_EQ(processFacts(pid).pid, 0);
        for (int attempt = 0; attempt < 20 && program.pid() != pid; ++attempt) {
            if (attempt > 0) {
                ASSERT_TRUE(killAndReap(program));
            }
            ASSERT_TRUE(writeFile(kLastPid, std::to_string(pid - 1)));
            ASSERT_TRUE(program.start(path, {"--foreground"}));
        }
        ASSERT_EQ(program.pid(), pid);
        ASSERT_TRUE(eventually([&] { return commandLineOf(pid) == path + " --foreground"; }));
    }

    static bool killAndReap(Program& program) {
        return sendSignal(program.pid(), SIGKILL) && program.waitForEnd(kPatienceMs).ended;
    }

    /// Ends one published application and waits until nothing else can be taken for it.
    static void endAndWait(pid_t pid, std::int64_t startMs) {
        ASSERT_TRUE(killAndWait(pid));
        ASSERT_TRUE(eventually([&] { return std::time(nullptr) >= startMs / 1000 + 3; }));
    }
};

using AdoptionOfTwenty = Adoption;
using AdoptionOfMany = Adoption;

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

// --- segments of any content ---------------------------------------------------------------------

TEST_F(Adoption, NumberOfApplicationsThatIsNone) {
    constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
    const PublishedApp first = recordOf("first", runApplication(programPath("first")));
    const PublishedApp last = recordOf("last", runApplication(programPath("last")));
    std::vector<PublishedApp> records(kMostPublished);
    records.front() = first;
    records.back() = last;
    struct Case {
        std::int32_t count;
        std::vector<std::string> names;
    };
    const Case cases[] = {{-5, {}},
                          {std::numeric_limits<std::int32_t>::min(), {}},
                          {0, {}},
                          {1, {"first"}},
                          {126, {"first"}},
                          {127, {"first", "last"}},
                          {200, {"first", "last"}},
                          {kMost, {"first", "last"}}};
    for (const Case& each : cases) {
        ASSERT_TRUE(writeFile(kApplicationSegmentPath, segmentOf(records, each.count)));
        ASSERT_TRUE(startPublisher(kLongGrace)) << each.count;
        EXPECT_EQ(publishedNames(), each.names) << each.count;
        EXPECT_EQ(publishedCount(), static_cast<std::int32_t>(each.names.size())) << each.count;
        monitor_.kill();
    }
    EXPECT_TRUE(isRunning(first.pid) && isRunning(last.pid));
}

TEST_F(Adoption, SegmentOfRandomBytes) {
    const pid_t bystander = runApplication(programPath("bystander"));
    for (unsigned seed = 1; seed <= 8; ++seed) {
        std::mt19937 generator(seed);
        std::string bytes(kApplicationSegmentSize, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
        if (seed % 2 == 0) {
            putNumber<std::int32_t>(bytes, 0, kMostPublished);
        }
        ASSERT_TRUE(writeFile(kApplicationSegmentPath, bytes));
        ASSERT_TRUE(startPublisher(kShortGrace)) << seed;
        EXPECT_EQ(publishedCount(), 0) << seed;
        EXPECT_TRUE(isRunning(bystander)) << seed;
        monitor_.kill();
    }
}

TEST_F(Adoption, RecordsThatFitNoProcess) {
    const pid_t pid = runApplication(programPath("bystander"));
    const PublishedApp good = recordOf("bystander", pid);
    std::vector<PublishedApp> records(7, recordOf("nobody", pid));
    records[0].pid = 0;
    records[1].pid = -1;
    records[2].pid = -2;
    records[3].pid = std::numeric_limits<std::int32_t>::min();
    records[4].pid = std::numeric_limits<std::int32_t>::max();
    records[5].startMs = std::numeric_limits<std::int64_t>::max();
    records.push_back(good);
    records.back().pid = -1; // deliberately not searched for
    records.push_back(good);
    records.back().name = std::string(32, 'n'); // no NUL
    records.back().version = std::string(32, 'v');
    records.back().status = std::string(16, 's');
    records.back().portType = std::string(16, 'p');
    ASSERT_NO_FATAL_FAILURE(leaveSegment(records));
    ASSERT_TRUE(startPublisher(kShortGrace));
    EXPECT_EQ(publishedNames(), std::vector<std::string>{});
    EXPECT_TRUE(isRunning(pid));
    monitor_.kill();
}

TEST_F(Adoption, TextsThatNobodyKnows) {
    const pid_t pid = runApplication(programPath("strange"));
    PublishedApp app = recordOf("strange", pid);
    app.status = "something else";
    app.portType = "Something";
    ASSERT_NO_FATAL_FAILURE(leaveSegment({app}));
    ASSERT_TRUE(startPublisher(kLongGrace));
    EXPECT_EQ(publishedApp("strange").pid, pid);
    EXPECT_EQ(publishedApp("strange").portType, "None");
    const std::string trace = "checkAlive() strange status=0 pid=" + std::to_string(pid) + " at ";
    EXPECT_GE(countOf(monitor_.console(), trace), 1U);
}

TEST_F(Adoption, SegmentOfAnotherSize) {
    const pid_t bystander = runApplication(programPath("bystander"));
    std::string bytes = segmentOf({recordOf("bystander", bystander)}, 1);
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, std::size_t{100}}) {
        ASSERT_TRUE(writeFile(kApplicationSegmentPath, bytes.substr(0, size)));
        ASSERT_TRUE(startPublisher(kShortGrace)) << size;
        EXPECT_EQ(publishedNames(), std::vector<std::string>{}) << size;
        monitor_.kill();
    }
    ASSERT_TRUE(writeFile(kApplicationSegmentPath, bytes + std::string(50000, 'x')));
    ASSERT_TRUE(startPublisher(kShortGrace));
    const std::string longer = readFile(kApplicationSegmentPath);
    EXPECT_EQ(numberAt<std::int32_t>(longer, 0), 1);
    EXPECT_EQ(recordIn(longer, 1).pid, bystander);
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
    ASSERT_TRUE(startSupervisor({"-v", "8", "-s", "3"}));
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
