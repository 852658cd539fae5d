// The command line, as far as its effects show outside.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <regex>

#include "tests/system/Harness.h"
#include "tests/system/SanitizerReports.h"

namespace systemtest {
namespace {

using Options = SystemTest;
using OptionsAtUptime300 = SystemTest;
using OptionsWatchdog = SystemTest;

constexpr const char* kVersionLine =
    R"(version: (\d{4}\.\d{4}\.\d{6}\.\d{6}) built on ([A-Z][a-z]{2} [ \d]\d \d{4} \d\d:\d\d:\d\d \(\w*\)))";

/// The first line of every run, without its end.
std::string versionLine() {
    return linesOf(runProgram(daemonProgram(), {"-?"}).output).at(0);
}

/// What a run that only shows the version prints.
std::string versionAndDate() {
    const std::string line = versionLine();
    std::smatch parts;
    if (!std::regex_match(line, parts, std::regex(kVersionLine))) {
        return "malformed version line: " + line;
    }
    return line + "\nVER_FileVersion=" + parts[1].str() + "\nVER_FileDate=" + parts[2].str() +
           "\n\n";
}

void expectNoTraceOfAMonitor() {
    EXPECT_EQ(eventTexts(), std::vector<std::string>{});
    EXPECT_EQ(daemonLogTexts(), std::vector<std::string>{});
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists("/tmp/pid"));
}

void expectVersionOnly(const std::vector<std::string>& arguments, const std::string& complaint) {
    const ProgramResult result = runProgram(daemonProgram(), arguments);
    EXPECT_EQ(result.ending.text(), "status 0") << testing::PrintToString(arguments);
    EXPECT_EQ(result.output, versionAndDate()) << testing::PrintToString(arguments);
    EXPECT_EQ(result.errors, complaint.empty() ? "" : daemonProgram() + ": " + complaint + "\n");
    expectNoTraceOfAMonitor();
}

// --- version -------------------------------------------------------------------------------------

TEST_F(Options, QuestionMarkShowsVersionAndDate) {
    expectVersionOnly({"-?"}, "");
}

TEST_F(Options, LimitOfTheFileSizeDoesNotEndIt) {
    const std::string full(65536, 'x');
    ASSERT_TRUE(writeFile("/tmp/output", full));
    const std::string command = "ulimit -f 1; exec " + daemonProgram() + " '-?' >>/tmp/output";
    EXPECT_EQ(runProgram("/bin/sh", {"-c", command}).ending.text(), "status 0");
    EXPECT_EQ(readFile("/tmp/output"), full);
}

TEST_F(Options, LimitOfTheFileSizeDoesNotEndItBeforeItsFirstLine) {
    if (kThreadsAreSanitized) {
        GTEST_SKIP() << "with such a limit the thread sanitizer does not start";
    }
    const ProgramResult result =
        runProgram("/bin/sh", {"-c", "{ ulimit -f 0; " + daemonProgram() + " '-?'; } | cat"});
    EXPECT_EQ(result.output,
              "Error 27 creating named mutex: /ovard.initialization\n" + versionAndDate());
}

TEST_F(Options, QuestionMarkEndsTheOptionsAtOnce) {
    expectVersionOnly({"-d", "-v", "8", "-?", "-t"}, "");
    expectVersionOnly({"-?d"}, "");
    expectVersionOnly({"word", "-?"}, "");
}

TEST_F(Options, UnknownOptionShowsVersionAndDate) {
    expectVersionOnly({"-z"}, "invalid option -- 'z'");
    expectVersionOnly({"-d", "-z", "-d"}, "invalid option -- 'z'");
    expectVersionOnly({"--help"}, "invalid option -- '-'");
    expectVersionOnly({"-D"}, "invalid option -- 'D'");
}

TEST_F(Options, VersionIsShownBeforeTheOptionsAreLookedAt) {
    const std::string output =
        runProgram("/bin/sh", {"-c", "exec " + daemonProgram() + " -z 2>&1"}).output;
    const std::vector<std::string> lines = linesOf(output);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], versionLine());
    EXPECT_EQ(lines[1], daemonProgram() + ": invalid option -- 'z'");
}

TEST_F(Options, MissingArgumentShowsVersionAndDate) {
    for (const char option : std::string("wvsphiIfx")) {
        expectVersionOnly({std::string("-") + option},
                          std::string("option requires an argument -- '") + option + "'");
    }
}

// --- port 22 -------------------------------------------------------------------------------------

std::string diagnosis() {
    const ProgramResult result = runProgram(daemonProgram(), {"-t"});
    EXPECT_EQ(result.ending.text(), "status 0");
    EXPECT_EQ(result.errors, "");
    expectNoTraceOfAMonitor();
    const std::string banner = versionLine() + "\n";
    EXPECT_EQ(result.output.compare(0, banner.size(), banner), 0) << result.output;
    return result.output.substr(std::min(banner.size(), result.output.size()));
}

sockaddr_in addressOf(const char* text, std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    (void)::inet_pton(AF_INET, text, &address.sin_addr); // the addresses here are well-formed
    return address;
}

/// A TCP socket bound to an address, closed with the object.
class TcpSocket {
public:
    explicit TcpSocket(int fd)
        : fd_(fd) {}
    TcpSocket(const char* address, std::uint16_t port)
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int enabled = 1;
        const sockaddr_in own = addressOf(address, port);
        bound_ = ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &enabled, sizeof enabled) == 0 &&
                 ::bind(fd_, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0;
    }
    ~TcpSocket() { (void)::close(fd_); }
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    bool bound() const { return bound_; }
    bool listen() const { return ::listen(fd_, 4) == 0; }
    int accept() const { return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC); }
    bool connect(const char* address, std::uint16_t port) const {
        const sockaddr_in peer = addressOf(address, port);
        return ::connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0;
    }

private:
    int fd_;
    bool bound_ = true;
};

constexpr std::uint16_t kPort22 = 22;
const std::string kNobody = "isEstablishedTCPconnectionOnPort22()=false\n";
const std::string kSomebody = "isEstablishedTCPconnectionOnPort22()=true\n";

TEST_F(Options, DiagnosisWithoutAnyConnection) {
    EXPECT_EQ(diagnosis(), kNobody);
}

TEST_F(Options, DiagnosisWithAListenerOnly) {
    const TcpSocket listener("127.0.0.1", kPort22);
    ASSERT_TRUE(listener.bound() && listener.listen());
    EXPECT_EQ(diagnosis(), kNobody);
}

TEST_F(Options, DiagnosisOfAConnectionOnAnotherPort) {
    const TcpSocket listener("127.0.0.1", 2222);
    const TcpSocket client("127.0.0.1", 0);
    ASSERT_TRUE(listener.bound() && listener.listen() && client.connect("127.0.0.1", 2222));
    const TcpSocket accepted(listener.accept());
    EXPECT_EQ(diagnosis(), kNobody);
}

TEST_F(Options, DiagnosisNamesThePeerWithoutALineEnd) {
    const TcpSocket listener("127.0.0.1", kPort22);
    const TcpSocket client("127.0.0.9", 0);
    ASSERT_TRUE(listener.bound() && listener.listen() && client.connect("127.0.0.1", kPort22));
    const TcpSocket accepted(listener.accept());
    EXPECT_EQ(diagnosis(), kSomebody + "127.0.0.9");
}

TEST_F(Options, DiagnosisEndsTheOptionsAtOnce) {
    const ProgramResult result = runProgram(daemonProgram(), {"-t", "-z", "-?"});
    EXPECT_EQ(result.ending.text(), "status 0");
    EXPECT_EQ(result.output, versionLine() + "\n" + kNobody);
    EXPECT_EQ(result.errors, "");
}

// --- form ----------------------------------------------------------------------------------------

TEST_F(Options, OptionsMayShareAWordAndWordsAreIgnored) {
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({"word", "-abv5", "other", "-d"}));
    ASSERT_TRUE(daemon.waitUntilReady());
    EXPECT_NE(daemon.console().find("=setpriority(PRIO_PROCESS, "), std::string::npos);
    EXPECT_TRUE(signalIsIn(daemon.pid(), "SigCgt", SIGHUP));
}

TEST_F(Options, TheLastOfSeveralCounts) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "8", "-v", "3"}));
    EXPECT_EQ(linesOf(daemon.console()).size(), 1U) << daemon.console();
}

TEST_F(Options, VerbosityThatIsNoNumberIsZero) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-v", "many"}));
    ASSERT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_EQ(linesOf(daemon.console()).size(), 4U) << daemon.console(); // version and reply
}

TEST_F(Options, NumbersOfTheTunablesAreNeverRefused) {
    for (const char* number : {"0", "-5", "1", "100", "4000", "90000", "99999999999", "text", ""}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground(
            {"-s", number, "-p", number, "-h", number, "-i", number, "-I", number}))
            << number;
        EXPECT_EQ(daemon.terminate().text(), "status 0") << number;
    }
}

// --- files ---------------------------------------------------------------------------------------

TEST_F(Options, ReceivedRequestsAreAppendedToTheNamedFile) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-f", "/tmp/recorded"}));
    const reqcmd request = makeRequest(APPMONCTL_Stop, "nobody", "/bin/none", "/tmp/none");
    ASSERT_TRUE(ask(request));
    EXPECT_EQ(readFile("/tmp/recorded"), bytesOf(request));
}

TEST_F(Options, NoRequestIsRecordedWithoutTheOption) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    const std::vector<std::string> before = entriesOf("/tmp");
    ASSERT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_EQ(entriesOf("/tmp"), before);
}

TEST_F(Options, NamedFileIsReplayed) {
    ASSERT_TRUE(writeFile("/tmp/replayed", bytesOf(makeRequest(APPMONCTL_Stop, "filed", "/x y"))));
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-x", "/tmp/replayed"}));
    EXPECT_TRUE(
        eventually([&] { return threadsOf(daemon.pid()).size() == 3U + kSanitizerThreads; }));
    EXPECT_TRUE(waitForLog(7, "processRequest: action=1 name=filed, cmd=/x y"));
}

TEST_F(Options, MissingFileToReplayIsReported) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-x", "/tmp/nowhere"}));
    EXPECT_TRUE(eventually([&] {
        return countOf(daemon.console(), "Error 2 opening /tmp/nowhere for reading\n") == 1;
    }));
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
}

// --- watchdog ------------------------------------------------------------------------------------

std::string fed() {
    return readFile(kWatchdogPath);
}

bool onlyFed(const std::string& text) {
    return text.find_first_not_of('w') == std::string::npos;
}

TEST_F(Options, WithoutWatchdogOptionNothingIsFed) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-I", "1"}));
    sleepMs(2500);
    EXPECT_EQ(fed(), "");
    EXPECT_EQ(daemon.terminate().text(), "status 0");
    EXPECT_EQ(fed(), "");
}

TEST_F(Options, WatchdogIsFedFromTheFirstTickWithoutDefer) {
    for (const char* defer : {"0", "-7", "text"}) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground({"-w", defer, "-I", "1", "-v", "6"}));
        EXPECT_TRUE(eventually([] { return fed() == "w"; }, 2500)) << defer;
        EXPECT_TRUE(eventually([] { return fed() == "ww"; }, 2500)) << defer;
        EXPECT_TRUE(
            eventually([&] { return countOf(daemon.console(), "kicked watchdog... 1\n") >= 1; }));
        EXPECT_TRUE(waitForLog(7, "kicked watchdog"));
        EXPECT_EQ(daemon.terminate().text(), "status 0");
        cleanMachine();
    }
}

TEST_F(Options, FeedingIsSilentAtVerbosity5) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-w", "0", "-I", "1", "-v", "5"}));
    ASSERT_TRUE(eventually([] { return fed() == "www"; }));
    EXPECT_EQ(countOf(daemon.console(), "kicked"), 0U);
    EXPECT_EQ(countLog(7, "kicked watchdog"), 0U);
}

TEST_F(Options, TimerPeriodBelowOneIsOneSecond) {
    for (const char* period : {"0", "-3"}) {
        Daemon daemon;
        const std::int64_t begin = monotonicMs();
        ASSERT_TRUE(daemon.startInForeground({"-w", "0", "-I", period}));
        EXPECT_TRUE(eventually([] { return fed() == "ww"; })) << period;
        const std::int64_t tookMs = monotonicMs() - begin;
        EXPECT_GE(tookMs, 1900) << period;
        EXPECT_LE(tookMs, 3500) << period;
        daemon.kill();
        cleanMachine();
    }
}

TEST_F(Options, TimerPeriodIsFiveSecondsByDefault) {
    Daemon daemon;
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(daemon.startInForeground({"-w", "0"}));
    EXPECT_TRUE(eventually([] { return !fed().empty(); }));
    const std::int64_t tookMs = monotonicMs() - begin;
    EXPECT_GE(tookMs, 4900);
    EXPECT_LE(tookMs, 6500);
    EXPECT_EQ(fed(), "w");
}

TEST_F(Options, ForeignTimerSignalsFeedNothing) {
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-w", "0", "-I", "60"}));
    for (int count = 0; count < 50; ++count) {
        ASSERT_TRUE(daemon.signal(SIGUSR1));
        sigval value = {};
        value.sival_ptr = &daemon;
        ASSERT_EQ(::sigqueue(daemon.pid(), SIGUSR1, value), 0);
    }
    ASSERT_TRUE(eventually([&] { return !signalIsIn(daemon.pid(), "ShdPnd", SIGUSR1); }));
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
    EXPECT_EQ(fed(), "");
    for (const auto& [number, target] : descriptorsOf(daemon.pid())) {
        EXPECT_NE(target, kWatchdogPath) << number;
    }
}

TEST_F(Options, MissingWatchdogIsReportedAtEveryTick) {
    const std::string aside = std::string(kWatchdogPath) + ".aside";
    ASSERT_EQ(std::rename(kWatchdogPath, aside.c_str()), 0);
    {
        Daemon daemon;
        EXPECT_TRUE(daemon.startInForeground({"-w", "0", "-I", "1"}));
        const std::string line = "Error: No such file or directory\n";
        // The main loop logs what the ticks have shown.
        EXPECT_TRUE(eventually([&] {
            const std::size_t shown = countOf(daemon.errors(), line);
            return shown >= 3 && countLog(3, " watch dog open failure, exit") == shown;
        }));
        EXPECT_EQ(daemon.terminate().text(), "status 0");
        EXPECT_EQ(daemon.errors().size(), countOf(daemon.errors(), line) * line.size())
            << daemon.errors();
        EXPECT_FALSE(fileExists(kWatchdogPath)) << "it must not be made";
    }
    EXPECT_EQ(std::rename(aside.c_str(), kWatchdogPath), 0);
}

TEST_F(OptionsWatchdog, FeedingStopsWhileTheMainLoopStands) {
    // One tick is within the budget. Deliberate: after three ticks the loop would go on.
    Daemon daemon;
    const std::int64_t begin = monotonicMs();
    ASSERT_TRUE(daemon.startInForeground({"-w", "0", "-I", "13"}));
    Client silent;
    ASSERT_TRUE(silent.connect());
    ASSERT_TRUE(eventually([&] { return daemon.isReceiving(); }));
    EXPECT_TRUE(eventually([] { return fed() == "w"; }, 14000));
    EXPECT_LT(monotonicMs() - begin, 14500);
    sleepMs(static_cast<int>(begin + 28000 - monotonicMs()));
    EXPECT_EQ(fed(), "w") << "it was fed by the second tick";
    EXPECT_TRUE(daemon.alive());
    EXPECT_EQ(daemon.terminate().text(), "status 0");
    EXPECT_EQ(fed(), "wwV");
}

/// Seconds since boot.
double uptime() {
    return std::strtod(readFile("/proc/uptime").c_str(), nullptr);
}

// Needs a machine that is not up for 300 seconds yet, so it is run on its own.
TEST_F(OptionsAtUptime300, DeferTimeIsAtMost300Seconds) {
    if (uptime() > 297) {
        GTEST_SKIP() << "the machine is up for too long: " << uptime();
    }
    ASSERT_GT(uptime(), 290);
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground({"-w", "500", "-I", "1"}));
    // The system counts a second that has begun.
    while (uptime() < 298.9) {
        ASSERT_EQ(fed(), "") << uptime();
        sleepMs(50);
    }
    EXPECT_TRUE(eventually([] { return !fed().empty(); }, 2500));
    EXPECT_TRUE(onlyFed(fed()));
}

} // namespace
} // namespace systemtest
