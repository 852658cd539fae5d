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
        if (--depth_ == 0) {
            setOwner(kNobody);
        }
        return pthread_mutex_unlock(&mutex_);
    }

    /// Unlocks until the calling thread does not hold it any more.
    void unlockCompletely() {
        while (unlock() == 0) {
        }
    }

    /// Waits for `condition`, which releases the mutex meanwhile; the caller holds it once. Returns
    /// the result of waiting. A cancellation point: a cancelled thread holds it again when it
    /// unwinds.
    int waitFor(pthread_cond_t& condition) {
        const Absence absence(*this);
        return pthread_cond_wait(&condition, &mutex_);
    }

    /// Once, when nobody uses it any more.
    void destroy() { pthread_mutex_destroy(&mutex_); }

private:
    static constexpr pthread_t kNobody = 0;

    /// The time in which others may hold the mutex of who waits.
    class Absence {
    public:
        explicit Absence(RecursiveMutex& mutex)
            : mutex_(mutex)
            , depth_(mutex.depth_) {
            mutex_.depth_ = 0;
            mutex_.setOwner(kNobody);
        }
        ~Absence() {
            mutex_.depth_ = depth_;
            mutex_.setOwner(pthread_self());
        }
        Absence(const Absence&) = delete;
        Absence& operator=(const Absence&) = delete;

    private:
        RecursiveMutex& mutex_;
        const int depth_;
    };

    bool isHeldByCaller() const { return owner_.load(std::memory_order_relaxed) == pthread_self(); }
    void setOwner(pthread_t owner) { owner_.store(owner, std::memory_order_relaxed); }

    int noteResult(int result) {
        if (result == 0) {
            ++depth_;
            setOwner(pthread_self());
        }
        return result;
    }

    pthread_mutex_t mutex_ = {};
    int depth_ = 0; // guarded by mutex_
    // Written by who holds mutex_. Only a thread itself ever writes its own id, so one that does
    // not hold it never reads that, in whichever order it sees the others write.
    std::atomic<pthread_t> owner_{kNobody};
};

} // namespace platform

#endif // OVARD_PLATFORM_RECURSIVE_MUTEX_H
