#include "platform/System.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "platform/Settings.h"
#include "platform/UniqueFd.h"

namespace platform {

pid_t forkProcess() {
    return ::fork();
}

int executeProgram(const char* path, char* const argv[]) {
    return ::execv(path, argv);
}

pid_t waitForProcess(pid_t pid, int* status, int options) {
    return ::waitpid(pid, status, options);
}

int sendSignal(pid_t pid, int signal) {
    if (pid <= 0) {
        errno = EINVAL;
        return -1;
    }
    return ::kill(pid, signal);
}

int setProcessPriority(pid_t pid, int priority) {
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(pid), priority);
}

pid_t currentProcessId() {
    return ::getpid();
}

void leaveProcess(int status) {
    ::_exit(status);
}

void exitMonitor(int status) {
    if (g_exitMonitor != nullptr) {
        g_exitMonitor(status);
    }
    std::exit(status);
}

int openPipe(int ends[2]) {
    return ::pipe2(ends, O_CLOEXEC);
}

int closeDescriptor(int fd) {
    return ::close(fd);
}

ssize_t readDescriptor(int fd, void* buffer, std::size_t size) {
    return readFully(fd, buffer, size);
}

ssize_t writeDescriptor(int fd, const void* buffer, std::size_t size) {
    return writeFully(fd, buffer, size);
}

int removeFile(const char* path) {
    return ::unlink(path);
}

bool pathExists(const char* path) {
    return ::access(path, F_OK) == 0;
}

FileIdentity identifyFile(const char* path) {
    struct stat facts = {};
    if (::lstat(path, &facts) != 0) {
        return {};
    }
    return {facts.st_dev, facts.st_ino};
}

void flushFileSystems() {
    ::sync();
}

int identifyKernel(utsname& identity) {
    return ::uname(&identity);
}

long uptimeSeconds() {
    struct sysinfo facts = {};
    return ::sysinfo(&facts) == 0 ? facts.uptime : -1;
}

long clockTicksPerSecond() {
    return ::sysconf(_SC_CLK_TCK);
}

} // namespace platform
