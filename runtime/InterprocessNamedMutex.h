// A mutex that processes share by name, and a scope guard for it.

#ifndef OVARD_RUNTIME_INTERPROCESS_NAMED_MUTEX_H
#define OVARD_RUNTIME_INTERPROCESS_NAMED_MUTEX_H

#include <semaphore.h>

#include <string>

#include "platform/Process.h"

/// A POSIX named semaphore with an initial count of 1, created afresh by every construction, which
/// thereby discards whatever an earlier process left behind. Shared between processes; the object
/// itself is not guarded between threads. When somebody empties its file, calls on it fail.
class CInterprocessNamedMutex final : public InterprocessWaitable {
public:
    /// `name` with or without its leading "/". A failure is shown on the console; the object then
    /// holds no handle and every call on it fails.
    explicit CInterprocessNamedMutex(const char* name);

    /// Unlocks and closes. The name stays in the system for other processes.
    ~CInterprocessNamedMutex();
    CInterprocessNamedMutex(const CInterprocessNamedMutex&) = delete;
    CInterprocessNamedMutex& operator=(const CInterprocessNamedMutex&) = delete;

    /// Waits for the mutex, up to three waits where signals interrupt it. False, with a line on the
    /// console, when it was not acquired.
    bool Lock();

    /// Releases the mutex, whoever holds it: a post too many raises the count. False with errno
    /// on failure; EINVAL without a handle, EFAULT with an emptied file.
    bool Unlock();

    int tryAcquire() override;

    /// Name of the semaphore; always begins with "/".
    const std::string& name() const { return name_; }

private:
    std::string name_;
    sem_t* semaphore_ = nullptr; // null: creation failed, or destroyed
};

/// Holds a mutex for a scope, or until told otherwise.
class CAutoLock {
public:
    /// Locks `m` unless it is null.
    explicit CAutoLock(CInterprocessNamedMutex* m);
    ~CAutoLock();
    CAutoLock(const CAutoLock&) = delete;
    CAutoLock& operator=(const CAutoLock&) = delete;

    /// Unlocks what is held, then locks `m` unless it is null.
    void autoLock(CInterprocessNamedMutex* m);

private:
    CInterprocessNamedMutex* mutex_;
};

#endif // OVARD_RUNTIME_INTERPROCESS_NAMED_MUTEX_H
