// What a process does between fork and exec. Only async-signal-safe calls here: another thread may
// have held any lock, the heap's too, at the moment of the fork.

#include "platform/System.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

#include "platform/UniqueFd.h"

namespace platform {
namespace {

constexpr int kFirstOwnFd = STDERR_FILENO + 1;

/// Bound of the search for open descriptors where /proc is not mounted.
constexpr rlim_t kHighestFdTried = 65536;

/// Descriptor number of an entry of /proc/self/fd; -1 for "." and "..".
int fdFromName(const char* name) {
    int fd = 0;
    for (; *name != '\0'; ++name) {
        if (*name < '0' || *name > '9') {
            return -1;
        }
        fd = fd * 10 + (*name - '0');
    }
    return fd;
}

/// close, which releases the descriptor even where it reports another error than EBADF.
bool closeOne(int fd) {
    return ::close(fd) == 0 || errno != EBADF;
}

/// Closes what one block of directory entries names; true when it closed any.
bool closeListed(const char* block, long size, int keptFd, int directoryFd) {
    bool closedAny = false;
    for (long offset = 0; offset < size;) {
        const char* entry = block + offset;
        unsigned short entrySize = 0;
        std::memcpy(&entrySize, entry + offsetof(dirent64, d_reclen), sizeof entrySize);
        const int fd = fdFromName(entry + offsetof(dirent64, d_name));
        if (fd >= kFirstOwnFd && fd != keptFd && fd != directoryFd && closeOne(fd)) {
            closedAny = true;
        }
        offset += entrySize;
    }
    return closedAny;
}

/// Closes by the list that the system keeps. False when the list cannot be read.
bool closeByDirectory(int keptFd) {
    const UniqueFd directory(::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) {
        return false;
    }
    // Entries vanish while the list is read, so it is read again until nothing was left to close.
    for (bool closedAny = true; closedAny;) {
        closedAny = false;
        ::lseek(directory.get(), 0, SEEK_SET);
        alignas(dirent64) char block[1024];
        long size = 0;
        while ((size = ::syscall(SYS_getdents64, directory.get(), block, sizeof block)) > 0) {
            closedAny = closeListed(block, size, keptFd, directory.get()) || closedAny;
        }
        if (size < 0) {
            return false;
        }
    }
    return true;
}

/// Closes every number that a descriptor can have.
void closeByNumber(int keptFd) {
    rlimit limit = {kHighestFdTried, kHighestFdTried};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const int end =
        static_cast<int>(limit.rlim_cur < kHighestFdTried ? limit.rlim_cur : kHighestFdTried);
    for (int fd = kFirstOwnFd; fd < end; ++fd) {
        if (fd != keptFd) {
            ::close(fd);
        }
    }
}

/// The limit that was in force before the monitor raised its own.
rlimit foundLimit = {};
bool limitIsRaised = false;

void restoreDescriptorLimit() {
    if (limitIsRaised) {
        (void)::setrlimit(RLIMIT_NOFILE, &foundLimit); // lowering is always allowed
    }
}

void resetSignalActions() {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        (void)::sigaction(signal, &action,
                          nullptr); // SIGKILL and the like refuse, and need nothing
    }
}

} // namespace

void raiseDescriptorLimit() {
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kHighestFdTried) {
        return;
    }
    foundLimit = limit;
    const rlimit wanted = {kHighestFdTried, std::max(limit.rlim_max, kHighestFdTried)};
    const rlimit allowed = {std::min(limit.rlim_max, kHighestFdTried), limit.rlim_max};
    limitIsRaised =
        ::setrlimit(RLIMIT_NOFILE, &wanted) == 0 || ::setrlimit(RLIMIT_NOFILE, &allowed) == 0;
}

void waitAtGate(int fd) {
    char byte = 0;
    (void)readFully(fd, &byte, 1); // a byte, the end of the file and an error all open the gate
}

void cleanLaunchedProcess(int keptFd) {
    if (!closeByDirectory(keptFd)) {
        closeByNumber(keptFd);
        // Where descriptors had run out the list can be read now; it may name higher ones.
        (void)closeByDirectory(keptFd);
    }
    restoreDescriptorLimit();
    resetSignalActions();
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void blockAllSignals(void* savedMask) {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, static_cast<sigset_t*>(savedMask));
}

void restoreSignalMask(const void* savedMask) {
    ::pthread_sigmask(SIG_SETMASK, static_cast<const sigset_t*>(savedMask), nullptr);
}

} // namespace platform
