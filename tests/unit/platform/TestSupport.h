// What the tests of the platform share: private directories, child processes, captured output.

#ifndef OVARD_TESTS_PLATFORM_TEST_SUPPORT_H
#define OVARD_TESTS_PLATFORM_TEST_SUPPORT_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include "platform/UniqueFd.h"

namespace testsupport {

/// Flags of an open that makes a file.
inline constexpr int kCreateForWriting = O_WRONLY | O_CREAT;

/// A directory of its own below /tmp, removed with all it holds.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

/// Removes `path` and everything below it; links are not followed.
void removeTree(const std::string& path);

void writeText(const std::string& path, const std::string& text);
std::string readText(const std::string& path);
bool exists(const std::string& path);

/// Permission bits of `path`, which is not followed.
mode_t modeOf(const std::string& path);

/// Sets the file-creation mask for the scope.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask)
        : previous_(::umask(mask)) {}
    ~UmaskGuard() { ::umask(previous_); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t previous_;
};

/// Sets (null: removes) an environment variable for the scope.
class EnvironmentGuard {
public:
    EnvironmentGuard(const char* name, const char* value);
    ~EnvironmentGuard();
    EnvironmentGuard(const EnvironmentGuard&) = delete;
    EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;

private:
    std::string name_;
    bool wasSet_;
    std::string previous_;
};

/// Sends what is written to the descriptor `fd` to a file for the scope.
class CapturedDescriptor {
public:
    explicit CapturedDescriptor(int fd);
    ~CapturedDescriptor();
    CapturedDescriptor(const CapturedDescriptor&) = delete;
    CapturedDescriptor& operator=(const CapturedDescriptor&) = delete;

    std::string text() const { return readText(directory_.file("captured")); }

private:
    TemporaryDirectory directory_;
    int fd_;
    platform::UniqueFd saved_;
};

/// An object in memory that forked processes share.
template <typename Content> class Shared {
public:
    Shared()
        : content_(new (::mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Content()) {}
    ~Shared() { ::munmap(content_, sizeof(Content)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    Content* operator->() const { return content_; }
    Content& operator*() const { return *content_; }

private:
    Content* content_;
};

/// Forks; the child runs `body` and ends with its result, without exit handlers.
template <typename Body> pid_t startChild(Body body) {
    (void)std::fflush(stdout); // or the child writes it, too
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(body());
    }
    return child;
}

/// Waits for a child: its exit status, 128 + signal for one that a signal ended, -1 when there is
/// no such child.
int awaitChild(pid_t child);

template <typename Body> int runInChild(Body body) {
    return awaitChild(startChild(std::move(body)));
}

/// Kills and reaps a child at the end of the scope.
class ChildGuard {
public:
    explicit ChildGuard(pid_t child)
        : child_(child) {}
    ~ChildGuard() { end(); }
    ChildGuard(const ChildGuard&) = delete;
    ChildGuard& operator=(const ChildGuard&) = delete;

    pid_t pid() const { return child_; }
    void end();

private:
    pid_t child_;
};

/// Starts a program that has the given argv[0] and argument and sleeps until it is killed, and
/// waits for its command line to be there to read.
pid_t startSleeper(const std::string& program, const char* seconds);

/// Looks every millisecond until `condition` holds; false when it does not within 5 seconds.
template <typename Condition> bool eventually(Condition condition) {
    for (int look = 0; look < 5000; ++look) {
        if (condition()) {
            return true;
        }
        ::usleep(1000);
    }
    return condition();
}

} // namespace testsupport

#endif // OVARD_TESTS_PLATFORM_TEST_SUPPORT_H
