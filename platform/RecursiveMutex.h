// The manager's locks: recursive mutexes that know who holds them, and how often.

#ifndef OVARD_PLATFORM_RECURSIVE_MUTEX_H
#define OVARD_PLATFORM_RECURSIVE_MUTEX_H

#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace platform {

/// A recursive mutex that can be released however often it is held, also by who does not hold it:
/// the system is only asked to unlock what the calling thread has locked. Any thread.
class RecursiveMutex {
public:
    RecursiveMutex() {
        pthread_mutexattr_t recursive;
        pthread_mutexattr_init(&recursive);
        pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex_, &recursive);
        pthread_mutexattr_destroy(&recursive);
    }
    /// Destroys nothing: a thread that cannot be stopped may outlive the object's owner.
    ~RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    /// 0, or the error with which the system refuses it.
    int lock() { return noteResult(pthread_mutex_lock(&mutex_)); }

    /// As `lock`, but EBUSY while another thread holds it.
    int lockIfFree() { return noteResult(pthread_mutex_trylock(&mutex_)); }

    /// Unlocks once. 0, or EPERM where the calling thread does not hold it.
    int unlock() {
        if (!isHeldByCaller()) {
            return EPERM;
        }
        noteUnlocked();
        return pthread_mutex_unlock(&mutex_);
    }

    /// Unlocks until the calling thread does not hold it any more.
    void unlockCompletely() {
        while (unlock() == 0) {
        }
    }

    /// Waits for `condition`, which unlocks the mutex once meanwhile; the caller holds it just
    /// once, or nobody else could lock it. Returns the result of waiting. A cancellation point: a
    /// cancelled thread holds it again when it unwinds.
    int waitFor(pthread_cond_t& condition) {
        const Absence absence(*this);
        return pthread_cond_wait(&condition, &mutex_);
    }

    /// Once, when nobody uses it any more.
    void destroy() { pthread_mutex_destroy(&mutex_); }

private:
    static constexpr pthread_t kNobody = 0;

    /// The time in which the system has unlocked the mutex once for who waits.
    class Absence {
    public:
        explicit Absence(RecursiveMutex& mutex)
            : mutex_(mutex) {
            mutex_.noteUnlocked();
        }
        ~Absence() { mutex_.noteLocked(); }
        Absence(const Absence&) = delete;
        Absence& operator=(const Absence&) = delete;

    private:
        RecursiveMutex& mutex_;
    };

    bool isHeldByCaller() const { return owner_.load(std::memory_order_relaxed) == pthread_self(); }
    void setOwner(pthread_t owner) { owner_.store(owner, std::memory_order_relaxed); }

    int noteResult(int result) {
        if (result == 0) {
            noteLocked();
        }
        return result;
    }

    void noteLocked() {
        ++depth_;
        setOwner(pthread_self());
    }

    /// Before the system unlocks it once.
    void noteUnlocked() {
        if (--depth_ == 0) {
            setOwner(kNobody);
        }
    }

    pthread_mutex_t mutex_ = {};
    int depth_ = 0; // guarded by mutex_
    // Written by who holds mutex_. Only a thread itself ever writes its own id, so one that does
    // not hold it never reads that, in whichever order it sees the others write. No thread may end
    // while it holds mutex_: a later one can get the same id.
    std::atomic<pthread_t> owner_{kNobody};
};

} // namespace platform

#endif // OVARD_PLATFORM_RECURSIVE_MUTEX_H
