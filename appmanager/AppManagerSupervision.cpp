// The supervision pass and publication.

#include "appmanager/AppManager.h"
#include "platform/MutexGuard.h"

int AppManager::checkStatus(bool /*bErasePreloadApplistEntries*/) {
    return 0;
}

int AppManager::updateStatus() {
    platform::PatientGuard lock(app_lock);
    if (lock.held()) {
        (void)statusUpdate_.updateUserShm(applist); // Always 0.
    }
    return lock.release();
}
