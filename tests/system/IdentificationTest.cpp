// Which process the monitor takes for the application that it has launched.

#include <csignal>
#include <ctime>

#include "tests/system/Applications.h"

namespace systemtest {
namespace {

class Identification : public ApplicationTest {
protected:
    /// Runs a program that goes into the background by itself; its pids by its command line.
    std::vector<pid_t> runBeside(const std::string& path, const std::vector<std::string>& words) {
        if (!fileExists(path)) {
            (void)installSampleAt(path);
        }
        EXPECT_EQ(runProgram(path, words).ending.text(), "status 0") << path;
        std::string command = path;
        for (const std::string& word : words) {
            command += " " + word;
        }
        return processesWithCommandLine(command);
    }

    /// Launches a program whose process must be refused with this word, and leaves it at that: the
    /// search for another one would go on for half a minute.
    void expectRefused(const std::string& path, const std::string& verdict) {
        SCOPED_TRACE(path);
        (void)installSampleAt(path);
        ASSERT_TRUE(startMonitorInForeground({"-v", "8"}));
        Client client;
        ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Start, "app", path)));
        ASSERT_TRUE(eventually([&] { return refusals(path, verdict) >= 2; })) << monitor_.console();
        EXPECT_EQ(countOf(monitor_.console(), "findDaemon: found daemon"), 0U);
        EXPECT_EQ(client.receive(0).bytes, "");
        monitor_.kill();
        ASSERT_TRUE(endStrangers());
        cleanMachine();
    }

private:
    /// How often a process was refused so: "findDaemon: VERDICT pid=N, starttime=N, cmdline=...".
    std::size_t refusals(const std::string& commandLine, const std::string& verdict) const {
        const std::string begin = "findDaemon: " + verdict + " pid=";
        const std::string end = ", cmdline=\"" + commandLine + "\"";
        std::size_t count = 0;
        for (const std::string& line : linesOf(monitor_.console())) {
            const bool fits = line.size() > begin.size() + end.size();
            if (fits && line.compare(0, begin.size(), begin) == 0 &&
                line.compare(line.size() - end.size(), end.size(), end) == 0) {
                ++count;
            }
        }
        return count;
    }
};

// --- the daemon behind the launched process ------------------------------------------------------

/// It is known as soon as its parent has ended, and makes its session a moment later.
bool getsItsOwnSession(pid_t pid) {
    return eventually([pid] { return processFacts(pid).session == pid; });
}

TEST_F(Identification, DaemonThatGoesIntoTheBackgroundAtOnce) {
    ASSERT_TRUE(startMonitor());
    const Reply reply = askFor(makeStart("quick"));
    EXPECT_TRUE(runsAlone("quick", pidIn(reply.message))) << reply;
    EXPECT_TRUE(getsItsOwnSession(pidIn(reply.message)));
    EXPECT_NEAR(static_cast<double>(timeOf(reply.date)), static_cast<double>(std::time(nullptr)), 2)
        << reply.date;
}

TEST_F(Identification, DaemonThatTakesASecond) {
    ASSERT_TRUE(startMonitor());
    const reqcmd request = makeStart("slow", "--daemonize-after 1000");
    const std::int64_t begin = monotonicMs();
    const Reply reply = askFor(request);
    const std::int64_t tookMs = monotonicMs() - begin;
    EXPECT_TRUE(runsAlone("slow", pidIn(reply.message), "--daemonize-after 1000")) << reply;
    EXPECT_TRUE(getsItsOwnSession(pidIn(reply.message)));
    EXPECT_GE(tookMs, 1000);
    EXPECT_LT(tookMs, 2000);
    EXPECT_NEAR(static_cast<double>(timeOf(reply.date)), static_cast<double>(std::time(nullptr)), 2)
        << reply.date;
}

TEST_F(Identification, ProgramInTheForegroundIsTakenAfterHalfAMinute) {
    ASSERT_TRUE(startMonitor());
    const reqcmd request = makeStart("front", "--foreground");
    const std::int64_t begin = monotonicMs();
    Client client;
    ASSERT_TRUE(sendRequest(client, request));
    ASSERT_TRUE(eventually([] { return !processesNamed("front").empty(); }));
    const pid_t launched = processesNamed("front").at(0);
    const Reply reply = toReply(client.receiveReply(40000));
    const std::int64_t tookMs = monotonicMs() - begin;
    EXPECT_EQ(reply, replyOf(0, "front [pid=" + std::to_string(launched) + "] is started @DATE\n"));
    EXPECT_TRUE(runsAlone("front", launched, "--foreground"));
    EXPECT_GE(tookMs, 29000);
    EXPECT_LE(tookMs, 36000); // each of its many looks takes a moment
}

// --- folders -------------------------------------------------------------------------------------

TEST_F(Identification, EveryInstallationFolderCounts) {
    ASSERT_TRUE(startMonitor());
    for (const char* folder : {"/home/kelvo/root", "/home/kelvo/modbus", "/home/kelvo/test",
                               "/mnt/runfw/home/kelvo/root", "/mnt/runfw/home/kelvo/modbus",
                               "/mnt/runfw/home/kelvo/test", "/home/kelvo/root/folder"}) {
        const std::string path = std::string(folder) + "/app";
        (void)installSampleAt(path);
        const pid_t pid = launch(makeRequest(APPMONCTL_Start, folder, path));
        EXPECT_EQ(processesWithCommandLine(path), std::vector<pid_t>{pid}) << path;
    }
}

TEST_F(Identification, OtherFoldersDoNot) {
    for (const char* path : {"/tmp/home/kelvo/root/app", "/home/kelvo/app", "/home/kelvo/rooted",
                             "/home/kelvo/modbus2/app", "/mnt/runfw/home/kelvo/app"}) {
        expectRefused(path, "not included");
    }
}

TEST_F(Identification, ExcludedFoldersDoNot) {
    for (const char* path :
         {"/home/kelvo/root/appmon/app", "/home/kelvo/root/python_scripts/app",
          "/home/kelvo/root/actl", "/home/kelvo/root/actl_x", "/home/kelvo/root/actlfolder/app",
          "/mnt/runfw/home/kelvo/root/appmon/app", "/mnt/runfw/home/kelvo/root/python_scripts/app",
          "/mnt/runfw/home/kelvo/root/actl_x"}) {
        expectRefused(path, "excluded");
    }
}

TEST_F(Identification, NamesThatOnlyResembleTheExcludedOnesCount) {
    ASSERT_TRUE(startMonitor());
    for (const char* name : {"appmon", "appmon2", "python_scripts2", "act"}) {
        EXPECT_TRUE(runsAlone(name, launch(name))) << name;
    }
}

// --- arguments -----------------------------------------------------------------------------------

TEST_F(Identification, OtherArgumentsAreNotTaken) {
    ASSERT_TRUE(startMonitor());
    // They are there first, so that the search meets them first.
    const std::string path = programPath("app");
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"one", "two", "three"}, {"one"}, {}, {"one", "twofold"}, {"one", "tw"}}) {
        ASSERT_EQ(runBeside(path, words).size(), 1U);
    }
    const pid_t pid = launch("app", "one two");
    EXPECT_TRUE(runsAlone("app", pid, "one two"));
}

TEST_F(Identification, FirstOfTwoWithTheSameArgumentsIsTaken) {
    ASSERT_TRUE(startMonitor());
    const std::vector<pid_t> before = runBeside(programPath("app"), {"one"});
    ASSERT_EQ(before.size(), 1U);
    const std::time_t begin = std::time(nullptr);
    sleepMs(3000);
    const Reply reply = askFor(makeStart("app", "one"));
    EXPECT_EQ(pidIn(reply.message), before[0]) << reply;
    EXPECT_EQ(processesNamed("app").size(), 2U);
    // The start time is that of the process which was found.
    EXPECT_NEAR(static_cast<double>(timeOf(reply.date)), static_cast<double>(begin), 2)
        << reply.date;
}

TEST_F(Identification, OddNamesOfOtherProcessesDoNotDisturb) {
    ASSERT_TRUE(startMonitor());
    for (const char* name : {"a b) (c", ") S 1 1 1 (", "quick) ("}) {
        ASSERT_FALSE(runBeside(programPath(name), {}).empty()) << name;
    }
    EXPECT_TRUE(runsAlone("quick", launch("quick")));
    const pid_t again = launch("quick");
    EXPECT_TRUE(runsAlone("quick", again));
    EXPECT_EQ(processesNamed("a b) (c").size(), 1U);
}

} // namespace
} // namespace systemtest
