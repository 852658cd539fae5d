// /var/log, where the event log lies, while it is full, read-only or missing; something else in the
// log's place.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

const std::string kHangUp = "Caught signal 1";
const std::string kInterrupt = "Caught signal 2";

/// Options of a monitor that logs signals and has a pass in each turn of its main loop.
const std::vector<std::string> kLoggingSignals = {"-b", "-i", "0"};

/// More than a test has logged.
constexpr std::size_t kMostSeen = 65536;

/// What may take the log's place.
struct Obstacle {
    const char* command; ///< for the shell, with the path of the log, which is free, in "$L"
    int error;           ///< why nothing can be logged there
};

/// A monitor that logs signals, so that an event comes whenever the test sends one.
class FaultEventLog : public FaultTest {
protected:
    bool start() { return monitor_.startInForeground(kLoggingSignals); }

    /// Does not wait where a pipe has the log's place.
    std::string seenLog() const {
        const std::string path = OwnMounts::seenBy(monitor_.pid(), kEventLogPath);
        const platform::UniqueFd log(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        std::string content(kMostSeen, '\0');
        const ssize_t size = ::read(log.get(), content.data(), content.size());
        return content.substr(0, size > 0 ? static_cast<std::size_t>(size) : 0);
    }

    /// Texts of the events in the log that the monitor sees.
    std::vector<std::string> seenEvents() const {
        std::vector<std::string> texts;
        for (const std::string& line : linesOf(seenLog())) {
            const std::string key = " Ovard: ";
            const std::size_t at = line.find(key);
            texts.push_back(at == 23 ? line.substr(at + key.size()) : "<no event> " + line);
        }
        return texts;
    }

    /// The log ends in this event by now.
    bool endsIn(const std::string& text) const {
        return eventually([&] {
            const std::vector<std::string> events = seenEvents();
            return !events.empty() && events.back() == text;
        });
    }

    /// Events come that cannot be logged: the monitor lives and serves, and tells once why.
    void expectLostEvents(int signal, int error) const {
        const std::string before = seenLog();
        for (int event = 0; event < 3; ++event) {
            ASSERT_TRUE(monitor_.signal(signal));
            EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
        }
        EXPECT_TRUE(monitor_.alive());
        EXPECT_EQ(seenLog(), before);
        EXPECT_TRUE(waitForLog(3, faultLine(kEventLogPath, error)));
        EXPECT_EQ(faultsTold(kEventLogPath), 1);
        EXPECT_EQ(countLog(6, recoveryLine(kEventLogPath)), 0U);
    }

    /// The next event is logged again, and that is told once.
    void expectRecovery(int signal) const {
        ASSERT_NO_FATAL_FAILURE(expectEvent(signal));
        EXPECT_TRUE(waitForLog(6, recoveryLine(kEventLogPath)));
        EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
        EXPECT_EQ(countLog(6, recoveryLine(kEventLogPath)), 1U);
        EXPECT_EQ(faultsTold(kEventLogPath), 1);
    }

    void expectEvent(int signal) const {
        ASSERT_TRUE(monitor_.signal(signal));
        EXPECT_TRUE(endsIn("Caught signal " + std::to_string(signal))) << seenLog();
    }

    /// Nothing is written to what takes the log's place, and what is logged afterwards is in a log
    /// of its own.
    void expectEndured(const Obstacle& obstacle) {
        const std::string place = std::string("L=") + kEventLogPath + "; ";
        ASSERT_TRUE(start());
        ASSERT_NO_FATAL_FAILURE(expectEvent(SIGHUP));
        ASSERT_TRUE(writeFile("/tmp/target", "precious\n"));
        ASSERT_TRUE(runShell(place + "rm $L; " + obstacle.command));
        ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, obstacle.error));
        {
            // Into a pipe that nobody reads nothing can be written anyway.
            const platform::UniqueFd reader(
                ::open(kEventLogPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, obstacle.error));
        }
        EXPECT_EQ(readFile("/tmp/target"), "precious\n");
        EXPECT_FALSE(fileExists("/tmp/nothing"));
        ASSERT_TRUE(runShell(place + "rm -r $L"));
        ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
        EXPECT_EQ(seenEvents(), std::vector<std::string>{kInterrupt});
    }

    bool change(const std::string& lines) const { return OwnMounts::change(monitor_.pid(), lines); }
};

TEST_F(FaultEventLog, FolderThatIsMissing) {
    const OwnMounts mounts("mount -t tmpfs tmpfs /var\n");
    ASSERT_TRUE(start());
    EXPECT_FALSE(fileExists(OwnMounts::seenBy(monitor_.pid(), "/var/log")));
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, ENOENT));
    ASSERT_TRUE(change("mkdir /var/log"));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
    EXPECT_EQ(seenEvents(), std::vector<std::string>{kInterrupt});
}

TEST_F(FaultEventLog, FolderThatVanishes) {
    const OwnMounts mounts("mount -t tmpfs tmpfs /var; mkdir /var/log\n");
    ASSERT_TRUE(start());
    ASSERT_NO_FATAL_FAILURE(expectEvent(SIGHUP));
    ASSERT_TRUE(change("mv /var/log /var/aside"));
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGINT, ENOENT));
    ASSERT_TRUE(change("mv /var/aside /var/log"));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
    EXPECT_EQ(seenEvents(),
              (std::vector<std::string>{"Application Monitor Started.",
                                        "Application Monitor Initialized.", kHangUp, kInterrupt}));
}

TEST_F(FaultEventLog, DiskThatIsReadOnly) {
    const OwnMounts mounts(readOnlyFolder("/var/log"));
    ASSERT_TRUE(start());
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, EROFS));
    EXPECT_EQ(eventTexts(), std::vector<std::string>{});
    ASSERT_TRUE(change(uncovered("/var/log")));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
    EXPECT_EQ(eventTexts(), std::vector<std::string>{kInterrupt});
}

TEST_F(FaultEventLog, DiskThatBecomesReadOnly) {
    const OwnMounts mounts;
    ASSERT_TRUE(start());
    ASSERT_TRUE(change(readOnlyFolder("/var/log")));
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, EROFS));
    ASSERT_TRUE(change(uncovered("/var/log")));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
}

TEST_F(FaultEventLog, ApplicationsAreSupervisedAndPublishedMeanwhile) {
    const OwnMounts mounts;
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication(kLoggingSignals));
    ASSERT_TRUE(change(readOnlyFolder("/var/log")));
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, EROFS));
    ASSERT_TRUE(killAndWait(pid_));
    ASSERT_TRUE(publishesAReplacement());
    expectAllIsWell("without the event log");
    ASSERT_TRUE(change(uncovered("/var/log")));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
    expectAllIsWell("with the event log again");
}

TEST_F(FaultEventLog, DirectoryInItsPlace) {
    expectEndured({"mkdir $L", EISDIR});
}

TEST_F(FaultEventLog, LinkInItsPlace) {
    expectEndured({"ln -s /tmp/target $L", ELOOP});
}

TEST_F(FaultEventLog, LinkToNothingInItsPlace) {
    expectEndured({"ln -s /tmp/nothing $L", ELOOP});
}

TEST_F(FaultEventLog, PipeInItsPlace) {
    expectEndured({"mkfifo $L", ENXIO});
}

TEST_F(FaultEventLog, DiskThatIsFull) {
    const OwnMounts mounts("mount -t tmpfs -o size=64k tmpfs /var/log\n"
                           "head -c 65536 /dev/zero >/var/log/filler\n");
    ASSERT_TRUE(start());
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, ENOSPC));
    EXPECT_EQ(seenEvents(), std::vector<std::string>{});
    ASSERT_TRUE(change("rm /var/log/filler"));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
    EXPECT_EQ(seenEvents(), std::vector<std::string>{kInterrupt});
}

TEST_F(FaultEventLog, DiskThatFillsUp) {
    const OwnMounts mounts("mount -t tmpfs -o size=64k tmpfs /var/log\n");
    ASSERT_TRUE(start());
    ASSERT_NO_FATAL_FAILURE(expectEvent(SIGHUP));
    // The last block of the log is used up, too: the next event needs one of its own.
    ASSERT_TRUE(change("cd /var/log; size=$(stat -c %s meter_events.log)\n"
                       "{ printf %0*d $((4095 - size)) 0; echo; } >>meter_events.log\n"
                       "head -c 65536 /dev/zero >filler || true\n"));
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGINT, ENOSPC));
    ASSERT_TRUE(change("rm /var/log/filler"));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGHUP));
}

TEST_F(FaultEventLog, LimitOfTheFileSize) {
    ASSERT_TRUE(start());
    ASSERT_TRUE(setLimit(monitor_.pid(), RLIMIT_FSIZE, 0));
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, EFBIG));
    ASSERT_TRUE(liftLimit(monitor_.pid(), RLIMIT_FSIZE));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
}

TEST_F(FaultEventLog, LineThatFitsOnlyInPartIsNotKept) {
    // The file may grow to the end of its last block, which is in the middle of a line.
    const OwnMounts mounts("mount -t tmpfs -o size=64k tmpfs /var/log\n"
                           "cd /var/log; yes 0123456 | head -c 4064 >meter_events.log\n"
                           "chmod 644 meter_events.log; head -c 65536 /dev/zero >filler || true\n");
    ASSERT_TRUE(start());
    ASSERT_NO_FATAL_FAILURE(expectLostEvents(SIGHUP, ENOSPC));
    EXPECT_EQ(seenLog().size(), 4064U) << "half a line";
    ASSERT_TRUE(change("rm /var/log/filler"));
    ASSERT_NO_FATAL_FAILURE(expectRecovery(SIGINT));
}

} // namespace
} // namespace systemtest
