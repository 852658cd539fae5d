// Life of the manager: creation, start, termination, destruction.

#include "appmanager/AppManager.h"

#include <cerrno>

#include "platform/Console.h"
#include "platform/MutexGuard.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "records/segments.h"

std::vector<appinfo> applist;
std::int32_t ovard_start_time = 0;
bool bFirstDataServerAfterSystemBoot = false;
AppManager* AppManager::m_pInstance = nullptr;

namespace {

/// How long the end of the command thread is waited for. It ends at its next wait, so this is only
/// reached when the system holds it.
constexpr int kThreadLeaveMs = 3000;
constexpr int kThreadLeavePollMs = 1;

/// Room of the registry from the start: growing it bit by bit would leave its former places in the
/// heap. More than are ever published.
constexpr std::size_t kUsualApplications = 128;
static_assert(kUsualApplications > std::size_t{kMostPublishedApplications},
              "what is adopted leaves room for one more: registryHasRoom_ begins with true");

} // namespace

void errExit(const char* message) {
    platform::printError(message);
    platform::exitMonitor(-1);
}

AppManager* AppManager::Instance(int verbosity) {
    if (m_pInstance == nullptr) {
        m_pInstance = new AppManager;
        m_pInstance->shutting_down = false;
        verbose = verbosity;
        ovard_start_time = static_cast<std::int32_t>(platform::currentTime());
    }
    return m_pInstance;
}

AppManager::AppManager() {
    applist.reserve(kUsualApplications);
    pthread_cond_init(&queue_cond, nullptr);
}

AppManager::~AppManager() noexcept(false) {
    processTermination(this);
    if (m_pInstance != nullptr && m_pInstance != this) {
        processTermination(m_pInstance);
        delete m_pInstance;
    }
    m_pInstance = nullptr;
}

int AppManager::init(bool discover) {
    try {
        const platform::PatientGuard lock(app_lock);
        if (lock.held()) {
            (void)statusUpdate_.initUserShm(applist, discover); // Always 0.
        }
    } catch (...) {
        // A monitor without shared memory still starts and watches applications.
    }
    if (initCommunication() != 0) {
        platform::trace(verbose > 0, "communication initialization failure!\n");
        writeLog(kLogError, "init(): communication initialization failure!");
        return -1;
    }
    cancelCommandThread();
    (void)waitUntilCommandThreadLeft(); // Its notice must not be taken for that of the next one.
    commandThreadAlive_ = true;
    pthread_t thread = 0;
    const int error = platform::createWorkerThread(&thread, cmd_process_thread, this);
    if (error != 0) {
        commandThreadAlive_ = false;
        platform::trace(verbose > 0, "thread creation  failure! errno=%d\n", error);
        writeLog(kLogError, "init(): thread creation failure!");
        return -2;
    }
    commandThread_ = thread;
    return 0;
}

void AppManager::processTermination(AppManager* manager) {
    manager->shutting_down = true;
    manager->cancelCommandThread();
    manager->destroyLocks();
    if (manager->commandThreadHasLeft()) {
        manager->reqlist.clear();
    }
}

/// Cancels the command thread, if there is one, and forgets it.
/// Deliberate: it is joined only when the cancel call fails.
void AppManager::cancelCommandThread() {
    const pthread_t thread = commandThread_.exchange(0);
    if (thread == 0) {
        return;
    }
    if (pthread_cancel(thread) != 0) {
        pthread_join(thread, nullptr);
    } else {
        pthread_detach(thread);
    }
}

/// Releases and destroys the locks once the command thread cannot touch them any more.
void AppManager::destroyLocks() {
    if (locksDestroyed_) {
        return;
    }
    pthread_cond_signal(&queue_cond);
    app_lock.unlockCompletely();
    queue_lock.unlockCompletely();
    if (!waitUntilCommandThreadLeft()) {
        return; // A thread that is still there keeps its locks; the process is about to end.
    }
    app_lock.destroy();
    queue_lock.destroy();
    pthread_cond_destroy(&queue_cond);
    locksDestroyed_ = true;
}

bool AppManager::waitUntilCommandThreadLeft() {
    const std::int64_t deadline = platform::monotonicMilliseconds() + kThreadLeaveMs;
    while (commandThreadAlive_ && platform::monotonicMilliseconds() < deadline) {
        platform::sleepMilliseconds(kThreadLeavePollMs);
    }
    return commandThreadHasLeft();
}
