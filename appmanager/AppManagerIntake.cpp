// Requests on their way from their producers to the command thread, and that thread.

#include <pthread.h>

#include <cstddef>
#include <mutex>

#include "appmanager/AppManager.h"
#include "platform/Settings.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "platform/Trace.h"

namespace {

constexpr int kSignalAttempts = 3;

/// Tells the manager, at the end of its scope, that the command thread has left.
class LeaveNotice {
public:
    explicit LeaveNotice(std::atomic<bool>& alive)
        : alive_(alive) {}
    ~LeaveNotice() { alive_ = false; }
    LeaveNotice(const LeaveNotice&) = delete;
    LeaveNotice& operator=(const LeaveNotice&) = delete;

private:
    std::atomic<bool>& alive_;
};

} // namespace

int AppManager::processRequest(const reqcmd& request) {
    (void)queueRequest(request); // It logs its own failure.
    return 0;
}

void AppManager::processClientRequest(const reqcmd& request) {
    if (!queueRequest(request)) {
        dropClient(); // It would wait in vain.
    }
}

/// Queues, logs and announces a copy of `request`. False when there is no memory for it.
bool AppManager::queueRequest(const reqcmd& request) {
    bool isQueued = false;
    {
        const std::lock_guard lock(queue_lock);
        isQueued = reqlist.push_back(request);
        platform::trace(isQueued && verbose > 7, "processRequest(cmd=%.1024s)\n", request.cmd);
    }
    if (isQueued) {
        writeLog(kLogDebug, "processRequest: action=%d name=%.64s, cmd=%.1024s\n", request.action,
                 request.name, request.cmd);
    } else {
        writeLog(kLogError, "processRequest: no memory for action=%d name=%.64s\n", request.action,
                 request.name);
    }
    (void)notify(); // A request that could not be announced waits for the next one.
    return isQueued;
}

int AppManager::notify() {
    (void)queue_lock.lock(); // If it was refused, so is the unlock.
    for (int attempt = 0; attempt < kSignalAttempts; ++attempt) {
        if (pthread_cond_signal(&queue_cond) == 0) {
            break;
        }
        platform::yieldProcessor();
    }
    return queue_lock.unlock();
}

void* AppManager::cmd_process_thread(void* manager) {
    platform::disableCancellation();
    auto* const self = static_cast<AppManager*>(manager);
    const LeaveNotice notice(self->commandThreadAlive_);
    self->process_command_thread(0);
}

void AppManager::process_command_thread(int /*unused*/) {
    platform::trace(verbose > 3, "start process_command_thread()\n");
    for (;;) {
        const int waited = waitForWork();
        if (shutting_down) {
            break;
        }
        if (waited != 0) {
            continue;
        }
        if (!drainQueue()) {
            break;
        }
    }
    detachCommandThread();
    pthread_exit(nullptr);
}

/// One wait for a signal. Deliberate: the queue is not looked at first, so a request that was
/// signalled while the thread was busy may wait for the next one.
int AppManager::waitForWork() {
    const std::lock_guard lock(queue_lock);
    const platform::CancellationWindow window;
    return queue_lock.waitFor(queue_cond);
}

/// Executes queued requests until there are none; false when the manager is shut down.
bool AppManager::drainQueue() {
    reqcmd request;
    std::size_t stillQueued = 0;
    while (takeRequest(request, stillQueued)) {
        platform::trace(verbose > 3,
                        "process_command_thread: processCmd(reqlist.size=%zu, request.action=%d, "
                        "request.name=%.64s, cmd=\"%.1024s\")\n",
                        stillQueued, request.action, request.name, request.cmd);
        const int result = processCmd(request);
        // Deliberate: this line carries no name.
        platform::trace(verbose > 3,
                        "process_command_thread: processCmd(reqlist.size=%zu, request.action=%d, "
                        "cmd=\"%.1024s\")=%d\n",
                        stillQueued, request.action, request.cmd, result);
        platform::yieldProcessor();
        if (shutting_down) {
            return false;
        }
    }
    return true;
}

bool AppManager::takeRequest(reqcmd& request, std::size_t& stillQueued) {
    const std::lock_guard lock(queue_lock);
    if (reqlist.empty()) {
        return false;
    }
    request = reqlist.front();
    reqlist.pop_front();
    stillQueued = reqlist.size();
    return true;
}

/// The thread is about to end by itself: nobody will join it.
void AppManager::detachCommandThread() {
    const pthread_t thread = commandThread_.exchange(0);
    if (thread != 0) {
        pthread_detach(thread);
    }
}
