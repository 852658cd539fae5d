// Monitors that come after another one, whose applications still run.

#ifndef OVARD_TESTS_SYSTEM_ADOPTION_SUPPORT_H
#define OVARD_TESTS_SYSTEM_ADOPTION_SUPPORT_H

#include <sys/sysinfo.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "tests/system/Publication.h"

namespace systemtest {

inline constexpr const char* kLastPid = "/proc/sys/kernel/ns_last_pid";

/// Long enough for a pass between a launch and the end of the grace, in which the monitor learns
/// the new name of the pid file.
inline const std::vector<std::string> kShortGrace = {"-s", "3"};

/// Keeps every state as it is after a launch or an adoption.
inline const std::vector<std::string> kLongGrace = {"-s", "3600"};

/// When a process was started, in seconds since the epoch, to the second or so.
inline std::int64_t startSecOf(pid_t pid) {
    struct sysinfo machine = {};
    EXPECT_EQ(::sysinfo(&machine), 0);
    const auto ticks = static_cast<std::int64_t>(processFacts(pid).startTicks);
    return std::time(nullptr) - machine.uptime + ticks / ::sysconf(_SC_CLK_TCK);
}

class AdoptionTest : public PublicationTest {
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
        const pid_t pid = found.empty() ? 0 : found[0];
        // One that is adopted without it is not looked at during the first half minute.
        EXPECT_TRUE(eventually([&] {
            return fileExists("/tmp/pid" + path + ".pid." + std::to_string(pid));
        })) << path;
        return pid;
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

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_ADOPTION_SUPPORT_H
