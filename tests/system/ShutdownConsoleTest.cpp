// The end of a monitor whose console takes nothing.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/Applications.h"
#include "tests/system/ShutdownSupport.h"

namespace systemtest {
namespace {

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

    /// A terminal passes its text on a moment later, by a thread of the kernel's, and then takes
    /// more.
    void fill() const {
        constexpr int kRoundsWithoutRoom = 60;
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

class ShutdownConsole : public ShutdownTest {
protected:
    void TearDown() override {
        takeWatchdog(false);
        ShutdownTest::TearDown();
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

} // namespace
} // namespace systemtest
