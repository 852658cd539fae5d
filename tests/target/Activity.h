// What tests do so that the machine has something to say of itself.

#ifndef OVARD_TESTS_TARGET_ACTIVITY_H
#define OVARD_TESTS_TARGET_ACTIVITY_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace target {

/// While it lives, the processor has work of several kinds and is idle for the rest of its time:
/// for programs, for programs of low priority, for the kernel and for its soft interrupts.
class Load {
public:
    Load();
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    void add(int sharePercent, int nice, const std::function<void()>& work);

    std::atomic<bool> isOver_{false};
    std::vector<std::thread> threads_;
};

/// While it lives, a file lies in memory that does not count as shared, as that of a disk would.
/// The files of the machine itself do count.
class PageCache {
public:
    PageCache();
    ~PageCache();
    PageCache(const PageCache&) = delete;
    PageCache& operator=(const PageCache&) = delete;
};

/// What has gone over an interface, in bytes with all headers.
struct Traffic {
    std::int64_t sent = 0;
    std::int64_t received = 0;
};

/// Has the machine of that address send back so many packets, and sends it so many others that it
/// does not answer; returns when all that has happened. Fails the test when an answer is missing.
Traffic talkTo(const std::string& address, int answered, int unanswered);

} // namespace target

#endif // OVARD_TESTS_TARGET_ACTIVITY_H
