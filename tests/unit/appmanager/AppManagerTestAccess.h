// The manager's private parts, for its tests.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_APP_MANAGER_TEST_ACCESS_H
#define OVARD_TESTS_UNIT_APPMANAGER_APP_MANAGER_TEST_ACCESS_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <vector>

#include "appmanager/AppManager.h"

class AppManagerTestAccess {
public:
    static std::atomic<bool>& shuttingDown(AppManager& manager) { return manager.shutting_down; }
    static pthread_t commandThread(const AppManager& manager) { return manager.commandThread_; }
    static void cancelCommandThread(AppManager& manager) { manager.cancelCommandThread(); }
    static RequestQueue& queue(AppManager& manager) { return manager.reqlist; }
    /// Copies of what is queued, oldest first.
    static std::vector<reqcmd> queued(AppManager& manager) {
        std::vector<reqcmd> requests;
        for (std::size_t left = manager.reqlist.size(); left > 0; --left) {
            requests.push_back(manager.reqlist.front());
            manager.reqlist.pop_front();
            (void)manager.reqlist.push_back(requests.back()); // back in its place in the end
        }
        return requests;
    }
    static platform::RecursiveMutex& queueLock(AppManager& manager) { return manager.queue_lock; }
    static platform::RecursiveMutex& appLock(AppManager& manager) { return manager.app_lock; }
    static bool drainQueue(AppManager& manager) { return manager.drainQueue(); }
    static appinfo& workRecord(AppManager& manager) { return manager.workRecord_; }
    static std::atomic<bool>& restartAllRequested(AppManager& manager) {
        return manager.restart_all_requested;
    }
    static bool& rebootRequested(AppManager& manager) { return manager.reboot_requested; }
    static std::int32_t& lastHeartbeatResult(AppManager& manager) {
        return manager.last_heartbeat_result;
    }
    static std::atomic<bool>& commandThreadAlive(AppManager& manager) {
        return manager.commandThreadAlive_;
    }
    static AppStatusUpdate& statusUpdate(AppManager& manager) { return manager.statusUpdate_; }
};

/// A manager for the member of a fixture, whose destructor must not throw.
class FixtureManager : public AppManager {
public:
    ~FixtureManager() noexcept override {}
};

#endif // OVARD_TESTS_UNIT_APPMANAGER_APP_MANAGER_TEST_ACCESS_H
