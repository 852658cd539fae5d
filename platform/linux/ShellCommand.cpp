#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

#include "platform/System.h"
#include "platform/Time.h"
#include "platform/Wait.h"

namespace platform {
namespace {

constexpr int kLimitMs = 5000;
constexpr int kLimitWhenEndingMs = 1000;
constexpr int kPollMs = 10;
constexpr int kCollectPolls = 50;

/// Attributes of a spawned process: no signal blocked, none ignored that the monitor ignores.
class SpawnAttributes {
public:
    SpawnAttributes() {
        ::posix_spawnattr_init(&attributes_);
        sigset_t signals;
        ::sigemptyset(&signals);
        ::posix_spawnattr_setsigmask(&attributes_, &signals);
        // Those that the monitor may ignore, by name: old C libraries give the command up when the
        // set holds a signal that cannot be changed.
        for (const int signal :
             {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGPIPE, SIGTERM, SIGCHLD, SIGXFSZ}) {
            ::sigaddset(&signals, signal);
        }
        ::posix_spawnattr_setsigdefault(&attributes_, &signals);
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

/// Collects a killed child; one that a driver holds is left behind.
void collectKilled(pid_t child) {
    for (int poll = 0; poll < kCollectPolls && ::waitpid(child, nullptr, WNOHANG) != child;
         ++poll) {
        sleepRegardless(kPollMs);
    }
}

/// True when `child` ended in time, its status in `status`; else false with errno. One that takes
/// longer is killed and collected.
bool awaitChild(pid_t child, int& status) {
    const std::int64_t begin = monotonicMilliseconds();
    pid_t ended = 0;
    while ((ended = ::waitpid(child, &status, WNOHANG)) == 0 || (ended == -1 && errno == EINTR)) {
        const int limitMs = terminationPending() ? kLimitWhenEndingMs : kLimitMs;
        if (monotonicMilliseconds() - begin >= limitMs) {
            ::kill(child, SIGKILL);
            collectKilled(child);
            errno = ETIMEDOUT;
            return false;
        }
        sleepRegardless(kPollMs);
    }
    return ended == child;
}

} // namespace

int runShellCommand(const char* command) {
    const SpawnAttributes attributes;
    const char* const words[] = {"sh", "-c", command, nullptr};
    pid_t child = 0;
    const int error = ::posix_spawn(&child, "/bin/sh", nullptr, attributes.get(),
                                    const_cast<char* const*>(words), environ);
    if (error != 0) {
        errno = error;
        return -1;
    }
    int status = 0;
    if (!awaitChild(child, status)) {
        return -1;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        errno = EIO;
        return -1;
    }
    return 0;
}

} // namespace platform
