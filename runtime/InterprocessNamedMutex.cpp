#include "runtime/InterprocessNamedMutex.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Text.h"
#include "platform/Trace.h"

namespace {

constexpr std::size_t kNameSize = 256;
constexpr int kAttempts = 3;
constexpr mode_t kMode = 0664;

/// False where the file behind the semaphore was cut off: a touch would then be the end by SIGBUS.
/// The system tells without one, it cannot read a path from there.
bool canBeTouched(const sem_t* semaphore) {
    return ::access(reinterpret_cast<const char*>(semaphore), F_OK) == 0 || errno != EFAULT;
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
    if (isUsable() && persistently([this] { return ::sem_wait(semaphore_); })) {
        return true;
    }
    platform::trace(true, "Error %d locking named mutex: %s\n", errno, name_.c_str());
    return false;
}

bool CInterprocessNamedMutex::Unlock() {
    return isUsable() && persistently([this] { return ::sem_post(semaphore_); });
}

int CInterprocessNamedMutex::tryAcquire() {
    if (!isUsable()) {
        return -1;
    }
    if (::sem_trywait(semaphore_) == 0) {
        return 1;
    }
    return errno == EAGAIN || errno == EINTR ? 0 : -1;
}

bool CInterprocessNamedMutex::isUsable() const {
    if (semaphore_ == nullptr) {
        errno = EINVAL;
        return false;
    }
    return canBeTouched(semaphore_);
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
