// Starting, signalling and leaving processes: recorded, never done.

#include <pthread.h>

#include <cstring>

#include "platform/System.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace {

bool endsProcess(const fakes::Process& process, int signal) {
    return signal == SIGKILL || (signal == SIGTERM && !process.ignoresTerm);
}

/// kill on the scripted processes: 0, or -1 with errno.
int deliver(pid_t pid, int signal) {
    fakes::Process* const target = world().process(pid);
    if (target == nullptr || !target->alive) {
        errno = ESRCH;
        return -1;
    }
    if (target->killErrno != 0) {
        errno = target->killErrno;
        return -1;
    }
    if (!target->zombie && endsProcess(*target, signal)) {
        target->alive = false;
    }
    return 0;
}

} // namespace

namespace platform {

pid_t forkProcess() {
    const Lock lock;
    static pid_t nextPid = fakes::kFirstForkedPid;
    world().record("fork");

    return static_cast<pid_t>(fakes::takeResult(world().forkResults, nextPid++));
}

int executeProgram(const char* path, char* const argv[]) {
    const Lock lock;
    fakes::Execution execution = {path, {}};
    std::string call = joined("exec", path);
    for (char* const* word = argv; *word != nullptr; ++word) {
        execution.arguments.emplace_back(*word);
        if (word != argv) {
            call += std::string(" ") + *word;
        }
    }
    world().record(call);
    world().executions.push_back(execution);
    if (world().executionErrors.empty()) {
        errno = ENOENT;
        return -1;
    }
    (void)fakes::takeError(world().executionErrors); // sets errno; this call always fails
    return -1;
}

pid_t waitForProcess(pid_t pid, int* status, int options) {
    const Lock lock;
    world().record(joined("waitpid", pid, options));
    fakes::WaitpidResult result = {pid, 0, 0};
    if (!world().waitpidResults.empty()) {
        result = world().waitpidResults.front();
        world().waitpidResults.pop_front();
    } else if (pid <= 0) {
        result = {-1, 0, ECHILD};
    }
    if (result.error != 0) {
        errno = result.error;
    }
    if (status != nullptr && result.pid > 0) {
        *status = result.status;
    }
    return result.pid;
}

int sendSignal(pid_t pid, int signal) {
    std::function<void(pid_t, int)> hook;
    int result = -1;
    int error = EINVAL;
    {
        const Lock lock;
        world().record(signal == 0 ? joined("probe", pid) : joined("kill", pid, signal));
        if (pid > 0) {
            result = deliver(pid, signal);
            error = errno;
        }
        if (signal != 0) {
            hook = world().onSignal;
        }
    }
    if (hook) {
        hook(pid, signal);
    }
    errno = error;
    return result;
}

int setProcessPriority(pid_t pid, int priority) {
    const Lock lock;
    world().record(joined("setpriority", pid, priority));
    return static_cast<int>(fakes::takeResult(world().priorityResults, 0));
}

pid_t currentProcessId() {
    const Lock lock;
    return world().ownPid;
}

void leaveProcess(int status) {
    world().record(joined("leave", status));
    if (!fakes::onMainThread()) {
        pthread_exit(nullptr);
    }
    throw fakes::LeaveProcessCalled{status};
}

void exitMonitor(int status) {
    world().record(joined("exitMonitor", status));
    if (!fakes::onMainThread()) {
        pthread_exit(nullptr);
    }
    throw fakes::ExitMonitorCalled{status};
}

void cleanLaunchedProcess(int keptFd) {
    world().record(joined("clean", keptFd));
}

void blockAllSignals(void* savedMask) {
    world().record("blockSignals");
    sigemptyset(static_cast<sigset_t*>(savedMask));
}

void restoreSignalMask(const void* /*savedMask*/) {
    world().record("restoreSignals");
}

} // namespace platform
