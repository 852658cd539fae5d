// The monitor under test, driven from outside.

#ifndef OVARD_TESTS_SYSTEM_DAEMON_H
#define OVARD_TESTS_SYSTEM_DAEMON_H

#include <string>
#include <vector>

#include "tests/system/Processes.h"

namespace systemtest {

/// One run of `ovard`. Whatever is left of it ends with the object: by SIGKILL; in instrumented
/// builds by SIGTERM, if that does, because leaks and counters are told at an orderly end only.
///
/// In the foreground it is a child of the test, so that its exit status is known and its console is
/// in files; in the background it is an orphan whose end shows in /proc and in the logs only.
class Daemon {
public:
    Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    /// Value of METER_ROOT for the next start; not set without this call.
    void setMeterRoot(const std::string& root);

    /// Starts `ovard -d ARGUMENTS` and waits until it serves: it listens, its pid file stands and
    /// its command thread waits for work.
    bool startInForeground(const std::vector<std::string>& arguments = {});

    /// Starts `ovard ARGUMENTS`, waits for the launcher's end and until the monitor serves. False
    /// also when the launcher ended with another status than 0.
    bool startInBackground(const std::vector<std::string>& arguments = {});

    /// Starts `ovard ARGUMENTS` and waits for nothing.
    bool spawn(const std::vector<std::string>& arguments);

    /// Waits until a spawned monitor serves, and learns its pid. False at once when the spawned
    /// process ends with another status than 0 before.
    bool waitUntilReady(int timeoutMs = kReadyMs);

    /// One look whether the monitor serves, whatever became of its launcher; learns its pid.
    bool followMonitor();

    /// There is a command thread, and it sleeps. A request that comes before its first wait would
    /// rightly stay in the queue until the next one.
    bool workersWait() const;

    /// It receives from a client: two descriptors of that one's connection are open, which is never
    /// so of another socket.
    bool isReceiving() const;

    /// The monitor's pid, 0 before it is known. With -d it is known at once.
    pid_t pid() const { return pid_; }

    bool alive() const { return pid_ > 0 && isRunning(pid_); }

    /// Path of its pid file.
    std::string pidFile() const;

    /// The process that was spawned: the monitor itself with -d, else the launcher.
    Program& spawned() { return spawned_; }

    /// Its console so far; with -d all of it, else what came before it went into the background.
    std::string console() const { return spawned_.output(); }
    std::string errors() const { return spawned_.errors(); }

    bool signal(int number) const { return sendSignal(pid_, number); }

    /// Waits for the end of the monitor.
    Ending waitForEnd(int timeoutMs = kPatientEndMs);

    /// SIGTERM and wait.
    Ending terminate(int timeoutMs = kPatientEndMs);

    /// SIGKILL and wait.
    void kill();

    /// Ends what is left of every Daemon object, whatever became of its test.
    static void endAll();

private:
    static constexpr int kReadyMs = 10000;
    static constexpr int kPatientEndMs = 10000;

    void end();
    bool learnPid();
    std::string pidFileBase() const;

    std::string meterRoot_;
    bool meterRootIsSet_ = false;
    bool inForeground_ = false;
    pid_t pid_ = 0;
    Program spawned_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_DAEMON_H
