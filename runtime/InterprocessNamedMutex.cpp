#include "runtime/InterprocessNamedMutex.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/BusError.h"
#include "platform/Text.h"
#include "platform/Trace.h"

namespace {

constexpr std::size_t kNameSize = 256;
constexpr int kAttempts = 3;
constexpr mode_t kMode = 0664;

/// Result of a semaphore call that does not wait; -1 with errno, which is EINVAL where there is no
/// semaphore and EFAULT where its file was emptied.
int touch(sem_t* semaphore, int (*call)(sem_t*)) {
    if (semaphore == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int result = -1;
    if (!platform::survivesBusError([&] { result = call(semaphore); })) {
        errno = EFAULT;
    }
    return result;
}

/// Repeats a semaphore call while signals interrupt it, three times in all.
template <typename Call> bool persistently(Call call) {
    for (int attempt = 1;; ++attempt) {
        if (call() == 0) {
            return true;
        }
        if (errno != EINTR || attempt == kAttempts) {
            return false;
        }
    }
}

} // namespace

CInterprocessNamedMutex::CInterprocessNamedMutex(const char* name) {
    const char* const bareName = name[0] == '/' ? name + 1 : name;
    name_ = platform::formatText(kNameSize, "/%s", bareName);
    const std::string file = platform::formatText(kNameSize, "/dev/shm/sem.%s", bareName);
    (void)::unlink(file.c_str()); // There may be none.
    sem_t* const semaphore = ::sem_open(name_.c_str(), O_CREAT | O_RDWR, kMode, 1);
    if (semaphore == SEM_FAILED) {
        platform::trace(true, "Error %d creating named mutex: %s\n", errno, name_.c_str());
        return;
    }
    semaphore_ = semaphore;
}

CInterprocessNamedMutex::~CInterprocessNamedMutex() {
    (void)Unlock(); // A process that waits for a monitor that ends must not wait for ever.
    if (semaphore_ != nullptr) {
        ::sem_close(semaphore_);
        semaphore_ = nullptr;
    }
    name_.clear();
}

bool CInterprocessNamedMutex::Lock() {
    const int acquired = tryAcquire();
    // A wait cannot be guarded, but who empties the file meanwhile could keep it waiting as well.
    if (acquired == 1 ||
        (acquired == 0 && persistently([this] { return ::sem_wait(semaphore_); }))) {
        return true;
    }
    platform::trace(true, "Error %d locking named mutex: %s\n", errno, name_.c_str());
    return false;
}

bool CInterprocessNamedMutex::Unlock() {
    return persistently([this] { return touch(semaphore_, ::sem_post); });
}

int CInterprocessNamedMutex::tryAcquire() {
    if (touch(semaphore_, ::sem_trywait) == 0) {
        return 1;
    }
    return errno == EAGAIN || errno == EINTR ? 0 : -1;
}

CAutoLock::CAutoLock(CInterprocessNamedMutex* m)
    : mutex_(nullptr) {
    autoLock(m);
}

CAutoLock::~CAutoLock() {
    autoLock(nullptr);
}

void CAutoLock::autoLock(CInterprocessNamedMutex* m) {
    if (mutex_ != nullptr) {
        (void)mutex_->Unlock(); // Nothing to be done about a failure.
    }
    mutex_ = m;
    if (mutex_ != nullptr) {
        (void)mutex_->Lock(); // It has said so itself; the monitor starts all the same.
    }
}
