// Faults of the machine that a test brings about for the monitor alone.

#ifndef OVARD_TESTS_SYSTEM_FAULT_SUPPORT_H
#define OVARD_TESTS_SYSTEM_FAULT_SUPPORT_H

#include <sys/resource.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/system/PublishingSupport.h"

namespace systemtest {

/// While it lives, monitors are started with mounts of their own: what is mounted there is seen by
/// them and their applications, and by nobody else.
class OwnMounts {
public:
    /// `lines` of the shell prepare the mounts of every monitor that is started.
    explicit OwnMounts(const std::string& lines = "");

    /// Runs lines of the shell among the mounts of a monitor. False when they fail; the test then
    /// shows why.
    static bool change(pid_t monitor, const std::string& lines);

    /// Path of a monitor's file for who does not see what it sees.
    static std::string seenBy(pid_t monitor, const std::string& path);

private:
    MonitorThroughScript script_;
};

/// Lines for OwnMounts: the folder, with what is mounted below it, can be read only; the way back.
std::string readOnlyFolder(const std::string& folder);
std::string uncovered(const std::string& folder);

/// Lines for OwnMounts: /dev with its usual devices and the log, but without /dev/shm.
std::string devicesWithoutShm();

/// While it lives, a folder that is a memory disk has no block left; `release` gives room back, and
/// `fill` takes what is free by then.
class FullFolder {
public:
    explicit FullFolder(const std::string& folder);
    ~FullFolder();
    FullFolder(const FullFolder&) = delete;
    FullFolder& operator=(const FullFolder&) = delete;

    /// The folder is a memory disk, and it is full.
    bool isFull() const;

    void fill() const;
    void release() const;

private:
    void limitTo(const std::string& size) const;

    const std::string folder_;
    const std::string filler_;
};

/// The monitor has said, once each, that there is no initialization mutex, for want of which it
/// starts without one.
void expectMissingMutex(const Daemon& daemon, int error);

/// The lines of the daemon log that tell that a file, a segment or a device cannot be written, at
/// level 3, and that it can be again, at level 6.
inline std::string faultLine(const std::string& path, int error) {
    return path + " cannot be written: " + std::strerror(error);
}
inline std::string recoveryLine(const std::string& path) {
    return path + " is written again";
}

/// How often the log has told that `path` cannot be written, for whatever reason.
std::ptrdiff_t faultsTold(const std::string& path);

/// Names in /dev/shm, as the log has them: of the segments, and of all that the monitor writes into
/// all the time, which are the heartbeats, too.
extern const std::vector<std::string> kSegmentNames;
extern const std::vector<std::string> kSharedNames;

/// Since then the log has told once of each of `names` that it cannot be written, however often
/// that was tried, and `recoveries` times that it can be again; it has told of no other fault.
void expectTold(const LogMark& mark, const std::vector<std::string>& names, int error,
                std::size_t recoveries);

/// Errors that the daemon log tells of again and again.
class RepeatedErrors {
public:
    /// Lines that begin so are required each time.
    void allow(const std::string& beginning) { allowed_.push_back(beginning); }

    /// The test so far has seen no monitor log the same line at level 3, dates and numbers apart,
    /// more often than once, and once more for each minute.
    void expectNone() const;

private:
    bool isAllowed(const std::string& text) const;

    std::int64_t beginMs_ = monotonicMs();
    std::vector<std::string> allowed_;
};

/// Fixture for faults: whatever a test brings about, the log says what is wrong once and not in
/// every pass, which is looked at when the test is over.
template <typename Fixture> class ToldOnce : public Fixture {
protected:
    void TearDown() override {
        repeatedErrors_.expectNone();
        Fixture::TearDown();
    }

    /// For lines that are required each time, or of which the test brings about several.
    void mayRepeat(const std::string& beginning) { repeatedErrors_.allow(beginning); }

private:
    RepeatedErrors repeatedErrors_;
};

/// Sets a limit of a running process, for it and for what it starts. False when that fails.
bool setLimit(pid_t pid, __rlimit_resource resource, rlim_t limit);

/// Takes a limit of a running process back to what this process has.
bool liftLimit(pid_t pid, __rlimit_resource resource);

/// Bytes of address space that a process has.
rlim_t addressSpaceOf(pid_t pid);

/// A user that is not root and whom nobody else is, for monitors and applications.
class AnotherUser {
public:
    /// `capabilities` in the form of setpriv, for example "+sys_boot"; may be empty.
    explicit AnotherUser(const std::string& capabilities = "");

    /// There are other users than root.
    static bool possible();

    /// The user's number as a text.
    const std::string& id() const { return id_; }

    /// Beginning of a command of the shell that runs as this user.
    std::string prefix() const;

    /// Lines for MonitorThroughScript.
    std::string monitorLines() const { return "exec " + prefix() + "\"$OVARD\" \"$@\"\n"; }

    /// Sets how many processes and threads the user may have for the process `pid`.
    bool limitProcesses(pid_t pid, std::size_t count) const;

    /// The command of the shell that does so.
    std::string limitCommand(const std::string& pid, const std::string& count) const;

private:
    std::string id_;
    std::string capabilities_;
};

/// Time for several passes, where each turn of the main loop has one.
inline constexpr int kPassesMs = 1500;

/// Tests with a monitor that supervises and publishes one application, "data_server".
class FaultTest : public ToldOnce<PublishingTest> {
protected:
    /// Waits until the killed application has a replacement that is published as running. Needs no
    /// log.
    bool publishesAReplacement(int timeoutMs = 2 * kPatienceMs) {
        return duringPasses(
            [this] {
                const std::vector<pid_t> running = processesWithCommandLine(commandIn(request_));
                pid_ = running.size() == 1 ? running[0] : 0;
                const PublishedApp app = publishedApp("data_server");
                return pid_ != 0 && app.pid == pid_ && app.status == "started";
            },
            timeoutMs);
    }

    /// Serves, supervises and publishes as ever.
    void expectAllIsWell(const std::string& what) {
        expectServing();
        ASSERT_TRUE(letACycleGoBy()) << what;
        expectPublished(what);
    }

    /// The application runs, and no verdict on it was given since it counted as running.
    void expectLeftAlone(const std::string& what) const {
        EXPECT_EQ(verdictsOn("data_server"), confirmed("data_server", pid_)) << what;
    }
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_FAULT_SUPPORT_H
