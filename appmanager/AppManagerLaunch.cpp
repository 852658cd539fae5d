// Launch of an application: a double fork, so that it is never the monitor's own child.
//
// What runs between fork and exec, in the intermediate child and in the grandchild, is restricted
// to async-signal-safe calls: other threads of the monitor may have held any lock at the fork.

#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "appmanager/AppManager.h"
#include "appmanager/CommandWords.h"
#include "platform/Console.h"
#include "platform/Network.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "records/codes.h"

namespace {

/// What fork2 returns when the grandchild's pid could not be read from the pipe.
constexpr int kNoPidRead = -10;
constexpr int kForkFailed = -1;
constexpr int kWaitAttempts = 3;

/// Exit status of a launched process whose program could not be executed, as of a shell.
constexpr int kNotExecuted = 127;

void closeReported(int fd, const char* errorText) {
    if (platform::closeDescriptor(fd) != 0) {
        platform::printError(errorText);
    }
}

/// The intermediate child, once it has forked: passes the grandchild's pid on and ends.
[[noreturn]] void passOnPid(pid_t grandchild, const int (&ends)[2]) {
    const int word = grandchild;
    const bool written =
        platform::writeDescriptor(ends[1], &word, sizeof word) == static_cast<ssize_t>(sizeof word);
    if (!written) {
        platform::printError("fork2:fork child pipe[1] write error");
    }
    closeReported(ends[0], "fork2:fork child pipe[0] close error");
    closeReported(ends[1], "fork2:fork child pipe[1] close error");
    platform::leaveProcess(written ? 0 : -1);
}

void releaseMonitorResources() {
    if (g_releaseResources != nullptr) {
        g_releaseResources(false);
    }
}

/// The intermediate child: returns in the grandchild only.
void runIntermediateChild(const int (&ends)[2]) {
    // Already here, because the monitor waits for this process: a grandchild that is late must not
    // feed the watchdog after a shutdown has disarmed it.
    releaseMonitorResources();
    const pid_t grandchild = platform::forkProcess();
    if (grandchild == -1) {
        platform::leaveProcess(errno);
    }
    if (grandchild != 0) {
        passOnPid(grandchild, ends);
    }
    closeReported(ends[0], "fork2:fork child's child pipe[0] close error");
    closeReported(ends[1], "fork2:fork child's child pipe[1] close error");
    releaseMonitorResources();
}

/// A pipe at whose read end the launched process waits; -1 twice when there is none to be had, when
/// the process does not wait.
struct Gate {
    Gate() {
        int ends[2];
        if (platform::openPipe(ends) == 0) {
            readEnd.reset(ends[0]);
            writeEnd.reset(ends[1]);
        }
    }
    platform::UniqueFd readEnd;
    platform::UniqueFd writeEnd;
};

/// The grandchild: becomes the application.
[[noreturn]] void becomeApplication(const char* pidfile, int argc, char** argv, Gate& gate) {
    gate.writeEnd.reset(); // Else it would wait for itself.
    platform::cleanLaunchedProcess(gate.readEnd.get());
    if (gate.readEnd.valid()) {
        platform::waitAtGate(gate.readEnd.get());
        gate.readEnd.reset();
    }
    if (pidfile[0] != '\0') {
        (void)platform::removeFile(pidfile); // There may be none.
    }
    if (argc > 0) {
        (void)platform::executeProgram(argv[0], argv); // Returns on failure only.
    }
    platform::leaveProcess(kNotExecuted);
}

/// Blocks every signal in the calling thread for its scope, so that no handler of the monitor ever
/// runs in a launched process.
class SignalBlocker {
public:
    SignalBlocker() { platform::blockAllSignals(&saved_); }
    ~SignalBlocker() { platform::restoreSignalMask(&saved_); }
    SignalBlocker(const SignalBlocker&) = delete;
    SignalBlocker& operator=(const SignalBlocker&) = delete;

private:
    sigset_t saved_;
};

} // namespace

int AppManager::fork2() {
    int ends[2];
    if (platform::openPipe(ends) != 0) {
        errExit("fork2:pipe create error");
    }
    const pid_t child = platform::forkProcess();
    if (child == 0) {
        runIntermediateChild(ends);
        return 0;
    }
    return followIntermediateChild(child, ends);
}

/// The monitor's side of the double fork: the grandchild's pid or a negative value.
int AppManager::followIntermediateChild(pid_t child, const int (&ends)[2]) {
    closeReported(ends[1], "fork2:fork parent pipe[1] close error");
    errno = 0;
    int result = kForkFailed;
    if (child == -1) {
        // Deliberate: the error number is the one just cleared.
        logParentError(child, 0);
    } else if (awaitIntermediateChild(child)) {
        result = readGrandchildPid(ends[0]);
    }
    const int error = errno;
    closeReported(ends[0], "fork2:fork parent pipe[0] close error");
    errno = error;
    return result;
}

void AppManager::logParentError(pid_t child, int status) {
    const int error = errno;
    writeLog(kLogError, "fork2():fork parent error: mainpid=%d, status=%d, error=%d\n", child,
             status, error);
    errno = error;
}

/// True when the intermediate child ended well. Else errno tells why, for the monitor's own end.
bool AppManager::awaitIntermediateChild(pid_t child) {
    int status = 0;
    for (int attempt = 1; platform::waitForProcess(child, &status, 0) != child; ++attempt) {
        logParentError(child, status);
        if (errno != EINTR || attempt == kWaitAttempts) {
            return false;
        }
    }
    if (!WIFEXITED(status)) {
        return false;
    }
    if (WEXITSTATUS(status) != 0) {
        errno = WEXITSTATUS(status);
        writeLog(kLogError, "fork2: errno=%d\n", WEXITSTATUS(status));
        errno = EINTR;
        return false;
    }
    return true;
}

int AppManager::readGrandchildPid(int readEnd) {
    int word = kNoPidRead;
    int received = 0;
    if (platform::readDescriptor(readEnd, &received, sizeof received) ==
        static_cast<ssize_t>(sizeof received)) {
        word = received;
    } else {
        platform::printError("fork2:fork parent pipe[0] read error");
    }
    return word;
}

int AppManager::start_process_fork2(appinfo& app) {
    // Split before the fork: nothing may be allocated in the launched process.
    const CommandWords command(*this, app.cmd);
    Gate gate;
    int result = 0;
    {
        const SignalBlocker blocker;
        result = fork2();
        if (result == 0) {
            becomeApplication(app.pidfile, command.count(), command.words(), gate);
        }
    }
    if (result == kForkFailed) {
        giveUpForking(errno);
    }
    if (result < 0) {
        writeLog(kLogError, "\nFatal Error: Problem while starting child process\n");
        return result;
    }
    gate.readEnd.reset();
    app.pid = result;
    app.status = APP_STATUS_STARTING0;
    (void)waitForDaemonization(app, &gate.writeEnd); // The record tells what was found.
    return result;
}

/// A monitor that cannot fork is of no use: it ends, and the machine restarts unless somebody is
/// logged in over port 22.
void AppManager::giveUpForking(int error) {
    writeLog(kLogError, "\nFatal Error: start_process()_fork2  fork2=-1\n");
    platform::flushFileSystems();
    if (!isEstablishedTCPconnectionOnPort22(nullptr)) {
        (void)platform::restartMachine(); // Where it fails, the monitor ends all the same.
    }
    platform::leaveProcess(error);
}

int AppManager::start_process(appinfo& app) {
    if (app.cmd[0] == '\0') {
        writeLog(kLogError, "%s has no command line failure", app.name);
        app.status = APP_STATUS_START_FAILURE;
        return kResultInvalid;
    }
    app.check_flag = 0;
    app.start_time = static_cast<std::int32_t>(platform::currentTime());
    platform::trace(verbose > 5, "start_process %s status=%d before start_process_fork2\n",
                    app.name, app.status);
    const int result = start_process_fork2(app);
    platform::trace(verbose > 5, "start_process %s status=%d after start_process_fork2=%d\n",
                    app.name, app.status, result);
    writeLog(kLogInfo, "start_process: name=%s  status=%d start_process_fork2=%d\n", app.name,
             app.status, result);
    // Deliberate: a failed launch shows only in the record's status and in the log.
    return 0;
}
