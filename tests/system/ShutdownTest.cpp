// The end of the monitor by signals, at rest and in the middle of its work.

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tests/system/Applications.h"
#include "tests/system/Harness.h"
#include "tests/system/LogSocket.h"

namespace systemtest {
namespace {

/// Every end that SIGTERM brings about.
constexpr int kLongestEndMs = 5000;

constexpr const char* kStarted = "Application Monitor Started.";
constexpr const char* kInitialized = "Application Monitor Initialized.";
constexpr const char* kStopped = "Application Monitor Stopped.";

class Shutdown : public SystemTest {
protected:
    void start(const std::vector<std::string>& arguments = {}) {
        ASSERT_TRUE(daemon_.startInForeground(arguments));
    }

    /// SIGTERM, and everything that must be so afterwards.
    void expectCleanEnd() {
        const Ending ending = daemon_.terminate();
        EXPECT_EQ(ending.text(), "status 0");
        EXPECT_LT(ending.tookMs, kLongestEndMs);
        expectCleanedUp();
    }

    void expectCleanedUp() {
        EXPECT_FALSE(fileExists(kSocketPath));
        EXPECT_FALSE(fileExists(daemon_.pidFile()));
        EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}));
        EXPECT_EQ(countOf(daemon_.console(), "ovard ovardAtExit()\n"), 1U);
        EXPECT_EQ(daemon_.errors(), "");
    }

    /// Connects a client that says nothing, and waits until the monitor waits for it.
    void holdReceivingSide(Client& silent) {
        const std::size_t before = descriptorsOf(daemon_.pid()).size();
        ASSERT_TRUE(silent.connect());
        ASSERT_TRUE(eventually([&] { return descriptorsOf(daemon_.pid()).size() > before; }));
    }

    /// The monitor serves a whole request.
    void expectServing() { EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody"))); }

    Daemon daemon_;
};

/// The only process with that command line, 0 when there is none or several.
pid_t applicationOf(const std::string& command) {
    const std::vector<pid_t> found = processesWithCommandLine(command);
    return found.size() == 1 ? found[0] : 0;
}

// --- at rest -------------------------------------------------------------------------------------

TEST_F(Shutdown, TerminationEndsAnIdleMonitor) {
    start();
    expectCleanEnd();
}

TEST_F(Shutdown, TerminationEndsAnIdleMonitorInTheBackground) {
    ASSERT_TRUE(daemon_.startInBackground());
    const Ending ending = daemon_.terminate();
    EXPECT_TRUE(ending.ended);
    EXPECT_LT(ending.tookMs, kLongestEndMs);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(daemon_.pidFile()));
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}));
}

TEST_F(Shutdown, ConsoleEndsWithTheLineOfTheShutdown) {
    start();
    const std::string before = daemon_.console();
    expectCleanEnd();
    EXPECT_EQ(daemon_.console(), before + "ovard ovardAtExit()\n");
}

TEST_F(Shutdown, TerminationEndsAMonitorAfterManyTurns) {
    start({"-i", "0"});
    ASSERT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    sleepMs(3000);
    expectCleanEnd();
}

TEST_F(Shutdown, PidFileBelowTheMeterRootIsRemoved) {
    daemon_.setMeterRoot("/opt/x");
    start();
    ASSERT_TRUE(fileExists(daemon_.pidFile()));
    expectCleanEnd();
    EXPECT_EQ(entriesOf("/tmp/pid/opt/x/home/kelvo/root"), std::vector<std::string>{});
}

TEST_F(Shutdown, MissingFilesDoNotDisturbIt) {
    start();
    ASSERT_EQ(::unlink(kSocketPath), 0);
    ASSERT_EQ(::unlink(daemon_.pidFile().c_str()), 0);
    expectCleanEnd();
}

TEST_F(Shutdown, RefusedSocketRemovalIsReported) {
    start();
    ASSERT_EQ(::unlink(kSocketPath), 0);
    ASSERT_TRUE(writeFile(std::string(kSocketPath) + "/file", "in the way"));
    EXPECT_EQ(daemon_.terminate().text(), "status 0");
    EXPECT_EQ(daemon_.errors(), "closeCommunication: remove socket path error: Is a directory\n");
    EXPECT_TRUE(waitForLog(3, "remove socket path error error"));
    EXPECT_EQ(countEvent(kStopped), 1U);
    EXPECT_FALSE(fileExists(daemon_.pidFile()));
}

/// What changes in the places that a shutdown touches, in the order in which it happens.
class Observer {
public:
    Observer()
        : fd_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}
    ~Observer() { (void)::close(fd_); }
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    bool watch(const std::string& path, std::uint32_t events) {
        return ::inotify_add_watch(fd_, path.c_str(), events) >= 0;
    }

    /// One word for each change: the name of an entry of a directory, "written" for a file.
    std::vector<std::string> changes() const {
        std::vector<std::string> names;
        alignas(inotify_event) char buffer[16384];
        for (ssize_t count = 0; (count = ::read(fd_, buffer, sizeof buffer)) > 0;) {
            for (const char* at = buffer; at < buffer + count;) {
                inotify_event event = {};
                std::memcpy(&event, at, sizeof event);
                names.emplace_back(event.len > 0 ? at + sizeof event : "written");
                at += sizeof event + event.len;
            }
        }
        return names;
    }

private:
    int fd_;
};

TEST_F(Shutdown, FilesGoBeforeTheLastLineOfTheEventLog) {
    start();
    const std::string pidFile = daemon_.pidFile();
    const std::size_t slash = pidFile.rfind('/');
    Observer observer;
    ASSERT_TRUE(observer.watch("/tmp", IN_DELETE));
    ASSERT_TRUE(observer.watch(pidFile.substr(0, slash), IN_DELETE));
    ASSERT_TRUE(observer.watch(kEventLogPath, IN_MODIFY));
    expectCleanEnd();
    EXPECT_EQ(observer.changes(),
              (std::vector<std::string>{"appmon_sock", pidFile.substr(slash + 1), "written"}));
}

/// Slots of the heartbeat registry that belong to a process.
std::size_t heartbeatSlotsOf(pid_t pid) {
    constexpr std::size_t kHeader = 16;
    constexpr std::size_t kSlot = 16;
    const std::string registry = readFile("/dev/shm/meter_heartbeat.shared");
    std::size_t count = 0;
    for (std::size_t at = kHeader; at + kSlot <= registry.size(); at += kSlot) {
        std::int32_t owner = 0;
        std::memcpy(&owner, registry.data() + at, sizeof owner);
        count += owner == pid ? 1U : 0U;
    }
    return count;
}

TEST_F(Shutdown, OwnHeartbeatIsTakenBack) {
    start();
    EXPECT_TRUE(eventually([&] { return heartbeatSlotsOf(daemon_.pid()) == 1; }));
    expectCleanEnd();
    EXPECT_EQ(heartbeatSlotsOf(daemon_.pid()), 0U);
}

TEST_F(Shutdown, WatchdogIsDisarmed) {
    start({"-w", "0", "-I", "1"});
    ASSERT_TRUE(eventually([] { return readFile(kWatchdogPath) == "w"; }));
    expectCleanEnd();
    EXPECT_EQ(readFile(kWatchdogPath), "wwV");
}

TEST_F(Shutdown, WatchdogStaysArmedWhereSomebodyElseFeedsIt) {
    ASSERT_TRUE(writeFile("/tmp/watchdog_kick", ""));
    start({"-w", "0", "-I", "1"});
    ASSERT_TRUE(eventually([] { return readFile(kWatchdogPath) == "w"; }));
    expectCleanEnd();
    EXPECT_EQ(readFile(kWatchdogPath), "ww");
    EXPECT_TRUE(fileExists("/tmp/watchdog_kick"));
}

TEST_F(Shutdown, WatchdogThatWasNeverOpenedIsLeftAlone) {
    start({"-w", "0", "-I", "60"});
    expectCleanEnd();
    EXPECT_EQ(readFile(kWatchdogPath), "");
}

// --- with clients --------------------------------------------------------------------------------

TEST_F(Shutdown, SilentClientDoesNotHoldItUp) {
    start();
    Client silent;
    ASSERT_NO_FATAL_FAILURE(holdReceivingSide(silent));
    expectCleanEnd();
    EXPECT_TRUE(silent.receive(kPatienceMs).ended);
}

TEST_F(Shutdown, ClientInTheMiddleOfItsRequestDoesNotHoldItUp) {
    start();
    Client slow;
    ASSERT_TRUE(slow.connect());
    ASSERT_TRUE(slow.send(std::string(700, 'x')));
    ASSERT_TRUE(slow.waitUntilRead());
    expectCleanEnd();
    EXPECT_TRUE(slow.receive(kPatienceMs).ended);
}

TEST_F(Shutdown, ClientsThatStillWaitAreLetGo) {
    start();
    std::vector<std::unique_ptr<Client>> clients;
    for (int count = 0; count < 8; ++count) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(sendRequest(*clients.back(), makeRequest(APPMONCTL_Stop, "nobody")));
    }
    ASSERT_TRUE(clients.front()->receiveReply());
    expectCleanEnd();
    for (const auto& client : clients) {
        EXPECT_TRUE(client->receive(kPatienceMs).ended);
    }
}

// --- with applications ---------------------------------------------------------------------------

TEST_F(Shutdown, ApplicationsLiveOn) {
    start();
    std::vector<pid_t> applications;
    for (const char* name : {"one", "two"}) {
        const std::string command = installSample(name) + " --heartbeat 200";
        ASSERT_TRUE(ask(makeRequest(APPMONCTL_Start, name, command)));
        applications.push_back(applicationOf(command));
        ASSERT_NE(applications.back(), 0);
    }
    expectCleanEnd();
    sleepMs(500);
    for (const pid_t application : applications) {
        EXPECT_TRUE(isRunning(application));
    }
}

TEST_F(Shutdown, LaunchOfAForegroundApplicationDoesNotHoldItUp) {
    start();
    const std::string command = installSample("front") + " --foreground";
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Start, "front", command)));
    ASSERT_TRUE(eventually([&] { return applicationOf(command) != 0; }));
    const pid_t application = applicationOf(command);
    expectCleanEnd();
    EXPECT_TRUE(isRunning(application));
    EXPECT_TRUE(client.receive(kPatienceMs).ended);
}

TEST_F(Shutdown, SearchForALaunchedApplicationDoesNotHoldItUp) {
    // It ends at once and leaves nothing that could be found, so it is looked for for 30 seconds.
    start({"-v", "8"});
    const std::string command = installSample("gone") + " --foreground --exit-after 0";
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Start, "gone", command)));
    ASSERT_TRUE(
        eventually([&] { return countOf(daemon_.console(), "daemon not found for pid=") > 0; }));
    expectCleanEnd();
}

TEST_F(Shutdown, StopOfManyStubbornProcessesDoesNotHoldItUp) {
    start();
    const std::string command = installSample("stubborn") + " --ignore-term --fork-stray 60";
    ASSERT_TRUE(ask(makeRequest(APPMONCTL_Start, "stubborn", command)));
    ASSERT_TRUE(eventually([&] { return processesWithCommandLine(command).size() == 61; }));
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "stubborn")));
    ASSERT_TRUE(eventually([&] { return processesWithCommandLine(command).size() < 58; }));
    expectCleanEnd();
}

TEST_F(Shutdown, RestartsOfAllDoNotHoldItUp) {
    start();
    for (const char* name : {"one", "two", "three"}) {
        const std::string command = installSample(name) + " --ignore-term --daemonize-after 400";
        ASSERT_TRUE(ask(makeRequest(APPMONCTL_Start, name, command)));
    }
    Client client;
    ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Restart_All)));
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Restart_All"));
    sleepMs(700); // somewhere within
    expectCleanEnd();
}

TEST_F(Shutdown, QueuedRequestsAreDiscarded) {
    start();
    const std::string command = installSample("front") + " --foreground";
    std::vector<std::unique_ptr<Client>> clients;
    const std::vector<reqcmd> requests = {makeRequest(APPMONCTL_Start, "front", command),
                                          makeRequest(APPMONCTL_Stop, "queued"),
                                          makeRequest(APPMONCTL_Stop, "alsoqueued")};
    for (const reqcmd& request : requests) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(sendRequest(*clients.back(), request));
    }
    ASSERT_TRUE(waitForLog(7, "processRequest: action=1 name=alsoqueued, cmd="));
    expectCleanEnd();
    EXPECT_EQ(countLog(7, "processCmd() request.action=APPMONCTL_Stop queued"), 0U);
    for (const auto& client : clients) {
        const Received received = client->receive(kPatienceMs);
        EXPECT_TRUE(received.ended);
        EXPECT_EQ(received.bytes, "");
    }
}

TEST_F(Shutdown, ReplayOfARequestFileDoesNotHoldItUp) {
    std::string requests;
    for (int count = 0; count < 30; ++count) {
        requests += bytesOf(makeRequest(APPMONCTL_Stop, "filed" + std::to_string(count)));
    }
    ASSERT_TRUE(writeFile("/tmp/replayed", requests));
    for (const int delayMs : {0, 500, 1500, 2500}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground({"-x", "/tmp/replayed"}));
        sleepMs(delayMs);
        const Ending ending = daemon.terminate();
        EXPECT_EQ(ending.text(), "status 0") << delayMs;
        EXPECT_LT(ending.tookMs, kLongestEndMs) << delayMs;
    }
    EXPECT_EQ(countEvent(kStopped), 4U);
}

/// A file of that many requests for what is not there.
bool writeManyRequests(const std::string& path, int count) {
    std::string requests;
    requests.reserve(static_cast<std::size_t>(count) * sizeof(reqcmd));
    for (int index = 0; index < count; ++index) {
        requests += bytesOf(makeRequest(APPMONCTL_Stop, "filed" + std::to_string(index)));
    }
    return writeFile(path, requests);
}

/// Where the monitor stands in the file that it reads; -1 when it has none open.
std::int64_t positionIn(pid_t pid, const std::string& path) {
    for (const auto& [number, target] : descriptorsOf(pid)) {
        if (target == path) {
            const std::string info =
                readFile("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(number));
            const std::size_t at = info.find("pos:");
            return at == std::string::npos ? -1 : std::atoll(info.c_str() + at + 4);
        }
    }
    return -1;
}

TEST_F(Shutdown, ReadingOfALargeRequestFileDoesNotHoldItUp) {
    // So many that they cannot be read in time. Without a hole they would not fit; all are empty.
    constexpr off_t kRecords = 4000000;
    constexpr off_t kSize = kRecords * off_t{sizeof(reqcmd)};
    ASSERT_TRUE(writeFile("/tmp/large", ""));
    ASSERT_EQ(::truncate("/tmp/large", kSize), 0);
    const MonitorThroughScript script("exec \"$OVARD\" \"$@\" >/dev/null\n");
    ASSERT_TRUE(daemon_.spawn({"-d", "-v", "8", "-x", "/tmp/large"}));
    std::int64_t position = 0;
    ASSERT_TRUE(eventually([&] {
        position = positionIn(daemon_.pid(), "/tmp/large");
        return position > 0;
    }));
    const Ending ending = daemon_.terminate();
    EXPECT_LT(position, kSize / 8) << "it was not at its beginning";
    EXPECT_EQ(ending.text(), "status 0");
    EXPECT_LT(ending.tookMs, kLongestEndMs);
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(daemon_.pidFile()));
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}));
}

TEST_F(Shutdown, ReplayOfALargeRequestFileDoesNotHoldItUp) {
    ASSERT_TRUE(writeManyRequests("/tmp/large", 60000));
    start({"-x", "/tmp/large"});
    ASSERT_TRUE(waitForLog(7, "processCmd() request.action=APPMONCTL_Stop filed1"));
    expectCleanEnd();
    EXPECT_EQ(countLog(7, "processCmd() request.action=APPMONCTL_Stop filed3"), 0U);
}

// --- SIGTERM at odd moments ----------------------------------------------------------------------

TEST_F(Shutdown, TwoTerminationsCleanUpOnce) {
    for (int round = 0; round < 20; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground());
        ASSERT_TRUE(daemon.signal(SIGTERM));
        ::usleep(static_cast<useconds_t>(round) * 50);
        (void)daemon.signal(SIGTERM); // it may be gone
        const std::string end = daemon.waitForEnd().text();
        EXPECT_TRUE(end == "status 0" || end == "signal 15") << end;
        EXPECT_EQ(countEvent(kStopped), 1U) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(kSocketPath)) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(daemon.pidFile())) << "round " << round << ", " << end;
        cleanMachine();
    }
}

TEST_F(Shutdown, BurstOfTerminationsNeverCrashesIt) {
    for (int round = 0; round < 30; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground());
        Ending ending;
        for (int count = 0; count < 20000 && !ending.ended; ++count) {
            (void)daemon.signal(SIGTERM); // it may be gone
            ending = daemon.waitForEnd(0);
        }
        const std::string end = daemon.waitForEnd().text();
        EXPECT_TRUE(end == "status 0" || end == "signal 15") << end;
        EXPECT_EQ(countEvent(kStopped), 1U) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(kSocketPath)) << "round " << round << ", " << end;
        EXPECT_FALSE(fileExists(daemon.pidFile())) << "round " << round << ", " << end;
        cleanMachine();
    }
}

TEST_F(Shutdown, TerminationDuringTheStart) {
    // Before it has taken charge of the signal the default action holds, and nothing is to be
    // cleaned up; from then on every end is an orderly one.
    int orderly = 0;
    int early = 0;
    constexpr int kRounds = 150;
    constexpr int kLatestUs = 20000;
    for (int round = 0; round < kRounds; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.spawn({"-d"}));
        ::usleep(static_cast<useconds_t>(round * round * (kLatestUs / kRounds) / kRounds));
        ASSERT_TRUE(daemon.signal(SIGTERM));
        const Ending ending = daemon.waitForEnd();
        const std::string end = ending.text();
        EXPECT_LT(ending.tookMs, kLongestEndMs);
        if (end == "signal 15") {
            ++early;
            EXPECT_EQ(eventTexts(), std::vector<std::string>{}) << "round " << round;
        } else {
            ++orderly;
            EXPECT_EQ(end, "status 0") << "round " << round;
            EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}))
                << "round " << round;
        }
        EXPECT_FALSE(fileExists(kSocketPath)) << "round " << round;
        EXPECT_EQ(entriesOf("/tmp/pid/home/kelvo/root"), std::vector<std::string>{});
        cleanMachine();
    }
    EXPECT_GT(early, 0) << "never early enough";
    EXPECT_GT(orderly, 0) << "never late enough";
}

TEST_F(Shutdown, TerminationWhileTheStartWaitsIsObeyedAfterIt) {
    HeldLog log;
    ASSERT_TRUE(log.holds());
    ASSERT_TRUE(daemon_.spawn({"-d"}));
    ASSERT_TRUE(waitForEvent(kStarted));
    ASSERT_TRUE(daemon_.signal(SIGTERM));
    EXPECT_FALSE(daemon_.waitForEnd(300).ended);
    log.release();
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "status 0");
    expectCleanedUp();
}

// --- with a console that takes nothing -----------------------------------------------------------

/// A full pipe or terminal that nobody reads.
class StoppedConsole {
public:
    enum class Kind { Pipe, Terminal };

    explicit StoppedConsole(Kind kind) {
        if (kind == Kind::Pipe) {
            openPipe();
        } else {
            openTerminal();
        }
        fill();
    }
    ~StoppedConsole() {
        (void)::close(writer_);
        (void)::close(terminal_);
    }
    StoppedConsole(const StoppedConsole&) = delete;
    StoppedConsole& operator=(const StoppedConsole&) = delete;

    /// Nothing can be written to it, and nobody has read what was.
    bool isFull() const { return writer_ >= 0 && writesNothing(); }

    const std::string& path() const { return path_; }

private:
    void openPipe() {
        path_ = "/tmp/console";
        if (::mkfifo(path_.c_str(), 0600) == 0) {
            writer_ = ::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        }
    }

    void openTerminal() {
        terminal_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[64] = "";
        if (::grantpt(terminal_) == 0 && ::unlockpt(terminal_) == 0 &&
            ::ptsname_r(terminal_, name, sizeof name) == 0) {
            path_ = name;
            writer_ = ::open(name, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        }
    }

    /// A terminal passes its text on a moment later and then takes more.
    void fill() const {
        constexpr int kRoundsWithoutRoom = 10;
        for (int quiet = 0; writer_ >= 0 && quiet < kRoundsWithoutRoom; ++quiet) {
            const std::string text(4096, 'x');
            while (::write(writer_, text.data(), text.size()) > 0) {
                quiet = 0;
            }
            while (!writesNothing()) {
                quiet = 0;
            }
            sleepMs(5);
        }
    }

    bool writesNothing() const { return ::write(writer_, "x", 1) < 0 && errno == EAGAIN; }

    std::string path_;
    int writer_ = -1;
    int terminal_ = -1;
};

class ShutdownConsole : public Shutdown {
protected:
    void TearDown() override {
        takeWatchdog(false);
        Shutdown::TearDown();
    }

    static void takeWatchdog(bool away) {
        const std::string aside = std::string(kWatchdogPath) + ".aside";
        const std::string from = away ? kWatchdogPath : aside;
        if (fileExists(from)) {
            ASSERT_EQ(std::rename(from.c_str(), (away ? aside : kWatchdogPath).c_str()), 0);
        }
    }

    /// Starts a monitor that shows everything on a console of that kind.
    void startShowingAll(StoppedConsole::Kind kind, std::vector<std::string> arguments = {}) {
        console_ = std::make_unique<StoppedConsole>(kind);
        ASSERT_TRUE(console_->isFull());
        const MonitorThroughScript script("exec \"$OVARD\" \"$@\" >" + console_->path() +
                                          " 2>&1\n");
        arguments.insert(arguments.end(), {"-v", "8", "-i", "1"});
        start(arguments);
        ASSERT_EQ(linkOf(daemon_.pid(), "fd/1"), console_->path());
        ASSERT_EQ(linkOf(daemon_.pid(), "fd/2"), console_->path());
    }

    void expectEnd() {
        const Ending ending = daemon_.terminate();
        EXPECT_EQ(ending.text(), "status 0");
        EXPECT_LT(ending.tookMs, kLongestEndMs);
        EXPECT_FALSE(fileExists(kSocketPath));
        EXPECT_FALSE(fileExists(daemon_.pidFile()));
        EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}));
        EXPECT_TRUE(console_->isFull()) << "it was no stopped console";
    }

    void terminationEndsIt(StoppedConsole::Kind kind) {
        ASSERT_NO_FATAL_FAILURE(startShowingAll(kind));
        expectServing();
        expectEnd();
    }

    void terminationEndsItBetweenTicks(StoppedConsole::Kind kind) {
        takeWatchdog(true);
        ASSERT_NO_FATAL_FAILURE(startShowingAll(kind, {"-w", "0", "-I", "1"}));
        ASSERT_TRUE(waitForLog(3, " watch dog open failure, exit"));
        expectServing();
        expectEnd();
    }

    void loggedSignalsDoNotKeepItFromServing(StoppedConsole::Kind kind) {
        ASSERT_NO_FATAL_FAILURE(startShowingAll(kind, {"-b"}));
        std::size_t sent = 0;
        for (int round = 0; round < 3; ++round) {
            Client client;
            ASSERT_TRUE(sendRequest(client, makeRequest(APPMONCTL_Stop, "nobody")));
            for (int signal = 0; signal < 20; ++signal) {
                ASSERT_TRUE(daemon_.signal(SIGTERM));
                ++sent;
                ASSERT_TRUE(eventually([&] { return countEvent("Caught signal 15") == sent; }));
            }
            ASSERT_TRUE(client.receiveReply()) << round;
        }
        EXPECT_TRUE(daemon_.alive());
        EXPECT_TRUE(console_->isFull()) << "it was no stopped console";
        daemon_.kill();
    }

private:
    std::unique_ptr<StoppedConsole> console_;
};

TEST_F(ShutdownConsole, TerminationEndsItBeforeAFullPipe) {
    terminationEndsIt(StoppedConsole::Kind::Pipe);
}

TEST_F(ShutdownConsole, TerminationEndsItBeforeAStoppedTerminal) {
    terminationEndsIt(StoppedConsole::Kind::Terminal);
}

TEST_F(ShutdownConsole, TicksWithoutAWatchdogDoNotHoldItUpBeforeAFullPipe) {
    terminationEndsItBetweenTicks(StoppedConsole::Kind::Pipe);
}

TEST_F(ShutdownConsole, TicksWithoutAWatchdogDoNotHoldItUpBeforeAStoppedTerminal) {
    terminationEndsItBetweenTicks(StoppedConsole::Kind::Terminal);
}

TEST_F(ShutdownConsole, LoggedSignalsDoNotDisturbItBeforeAFullPipe) {
    loggedSignalsDoNotKeepItFromServing(StoppedConsole::Kind::Pipe);
}

TEST_F(ShutdownConsole, LoggedSignalsDoNotDisturbItBeforeAStoppedTerminal) {
    loggedSignalsDoNotKeepItFromServing(StoppedConsole::Kind::Terminal);
}

// --- SIGINT --------------------------------------------------------------------------------------

/// Waits until the monitor no longer handles the signals that end it.
bool handlersAreGone(pid_t pid) {
    return eventually(
        [&] { return !signalIsIn(pid, "SigCgt", SIGINT) && !signalIsIn(pid, "SigCgt", SIGTERM); });
}

TEST_F(Shutdown, FirstInterruptOnlyTakesTheHandlersAway) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    expectServing();
    EXPECT_TRUE(daemon_.alive());
    EXPECT_EQ(countEvent(kStopped), 0U);
    EXPECT_EQ(countOf(daemon_.console(), "ovardAtExit"), 0U);
}

TEST_F(Shutdown, SecondInterruptEndsItWithoutCleaningUp) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    expectServing();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 2");
    EXPECT_EQ(countEvent(kStopped), 0U);
    EXPECT_TRUE(fileExists(kSocketPath));
    EXPECT_TRUE(fileExists(daemon_.pidFile()));
}

TEST_F(Shutdown, TerminationAfterAnInterruptEndsItWithoutCleaningUp) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    ASSERT_TRUE(daemon_.signal(SIGTERM));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 15");
    EXPECT_EQ(countEvent(kStopped), 0U);
    EXPECT_TRUE(fileExists(kSocketPath));
}

TEST_F(Shutdown, InterruptWhileASilentClientHoldsTheReceivingSide) {
    start();
    Client silent;
    ASSERT_NO_FATAL_FAILURE(holdReceivingSide(silent));
    ASSERT_TRUE(daemon_.signal(SIGINT));
    ASSERT_TRUE(handlersAreGone(daemon_.pid()));
    silent.close();
    expectServing();
    ASSERT_TRUE(daemon_.signal(SIGINT));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 2");
}

TEST_F(Shutdown, HangUpEndsItByTheDefaultAction) {
    start();
    ASSERT_TRUE(daemon_.signal(SIGHUP));
    EXPECT_EQ(daemon_.waitForEnd(kLongestEndMs).text(), "signal 1");
}

// --- logged signals ------------------------------------------------------------------------------

TEST_F(Shutdown, LoggedSignalsDoNotEndIt) {
    start({"-b"});
    std::vector<std::string> expected = {kStarted, kInitialized};
    for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGSEGV, SIGABRT, SIGPIPE, SIGTRAP}) {
        for (int twice = 0; twice < 2; ++twice) {
            ASSERT_TRUE(daemon_.signal(number));
            expected.push_back("Caught signal " + std::to_string(number));
            ASSERT_TRUE(eventually([&] { return eventTexts().size() == expected.size(); }))
                << number;
            EXPECT_EQ(eventTexts(), expected);
        }
    }
    expectServing();
    EXPECT_TRUE(daemon_.alive());
    EXPECT_TRUE(fileExists(daemon_.pidFile()));
    EXPECT_EQ(countOf(daemon_.console(), "ovardAtExit"), 0U);
}

TEST_F(Shutdown, LoggedSignalsDoNotEndItWhileItServes) {
    start({"-b"});
    for (int round = 0; round < 4; ++round) {
        Client client;
        ASSERT_TRUE(client.connect());
        // Each may use up one of the three receive calls, so one must be left for the request.
        for (const int number : {SIGTERM, round % 2 == 0 ? SIGSEGV : SIGINT}) {
            ASSERT_TRUE(daemon_.signal(number));
        }
        ASSERT_TRUE(client.send(makeRequest(APPMONCTL_Stop, "nobody")));
        ASSERT_TRUE(client.receiveReply()) << round;
    }
}

TEST_F(Shutdown, LoggedSignalIsLoggedWhileASilentClientHoldsTheReceivingSide) {
    start({"-b"});
    Client silent;
    ASSERT_NO_FATAL_FAILURE(holdReceivingSide(silent));
    ASSERT_TRUE(daemon_.signal(SIGTERM));
    EXPECT_TRUE(waitForEvent("Caught signal 15"));
    silent.close();
    expectServing();
}

} // namespace
} // namespace systemtest
