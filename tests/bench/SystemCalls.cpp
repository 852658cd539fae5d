#include "tests/bench/SystemCalls.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace bench {
namespace {

constexpr int kNoArgument = -1;
constexpr int kSystemCallStop = SIGTRAP | 0x80; // as PTRACE_O_TRACESYSGOOD marks it

/// A call by its number, and which of its arguments name a file or are a descriptor.
struct KnownCall {
    long number;
    const char* name;
    int pathArgument;
    int fdArgument;
};

/// Those with several numbers for one purpose share a name. Others go by their numbers.
constexpr KnownCall kKnownCalls[] = {
#ifdef SYS_open
    {SYS_open, "open", 0, kNoArgument},
#endif
#ifdef SYS_stat
    {SYS_stat, "stat", 0, kNoArgument},
    {SYS_lstat, "lstat", 0, kNoArgument},
#endif
#ifdef SYS_access
    {SYS_access, "access", 0, kNoArgument},
#endif
#ifdef SYS_readlink
    {SYS_readlink, "readlink", 0, kNoArgument},
#endif
#ifdef SYS_newfstatat
    {SYS_newfstatat, "stat", 1, 0},
#endif
#ifdef SYS_poll
    {SYS_poll, "poll", kNoArgument, kNoArgument},
#endif
#ifdef SYS_openat2
    {SYS_openat2, "open", 1, kNoArgument},
#endif
    {SYS_openat, "open", 1, kNoArgument},
    {SYS_faccessat, "access", 1, kNoArgument},
    {SYS_readlinkat, "readlink", 1, kNoArgument},
    {SYS_fstat, "fstat", kNoArgument, 0},
    {SYS_read, "read", kNoArgument, 0},
    {SYS_pread64, "pread", kNoArgument, 0},
    {SYS_write, "write", kNoArgument, 0},
    {SYS_pwrite64, "pwrite", kNoArgument, 0},
    {SYS_lseek, "lseek", kNoArgument, 0},
    {SYS_getdents64, "getdents", kNoArgument, 0},
    {SYS_fcntl, "fcntl", kNoArgument, 0},
    {SYS_ftruncate, "ftruncate", kNoArgument, 0},
    {SYS_fchmod, "fchmod", kNoArgument, 0},
    {SYS_close, "close", kNoArgument, 0},
    {SYS_socket, "socket", kNoArgument, kNoArgument},
    {SYS_bind, "bind", kNoArgument, 0},
    {SYS_getsockname, "getsockname", kNoArgument, 0},
    {SYS_sendto, "sendto", kNoArgument, 0},
    {SYS_recvfrom, "recvfrom", kNoArgument, 0},
    {SYS_recvmsg, "recvmsg", kNoArgument, 0},
    {SYS_kill, "kill", kNoArgument, kNoArgument},
    {SYS_sched_yield, "sched_yield", kNoArgument, kNoArgument},
    {SYS_rt_sigaction, "sigaction", kNoArgument, kNoArgument},
    {SYS_rt_sigprocmask, "sigprocmask", kNoArgument, kNoArgument},
    {SYS_rt_sigtimedwait, "sigtimedwait", kNoArgument, kNoArgument},
    {SYS_rt_sigpending, "sigpending", kNoArgument, kNoArgument},
    {SYS_ppoll, "ppoll", kNoArgument, kNoArgument},
    {SYS_clock_gettime, "clock_gettime", kNoArgument, kNoArgument},
    {SYS_clock_nanosleep, "clock_nanosleep", kNoArgument, kNoArgument},
    {SYS_futex, "futex", kNoArgument, kNoArgument},
    {SYS_brk, "brk", kNoArgument, kNoArgument},
    {SYS_mmap, "mmap", kNoArgument, kNoArgument},
    {SYS_munmap, "munmap", kNoArgument, kNoArgument},
    {SYS_uname, "uname", kNoArgument, kNoArgument},
    {SYS_sysinfo, "sysinfo", kNoArgument, kNoArgument},
    {SYS_getpid, "getpid", kNoArgument, kNoArgument},
};

const KnownCall* findCall(std::uint64_t number) {
    const auto* const found =
        std::find_if(std::begin(kKnownCalls), std::end(kKnownCalls), [&](const KnownCall& call) {
            return static_cast<std::uint64_t>(call.number) == number;
        });
    return found != std::end(kKnownCalls) ? found : nullptr;
}

/// With "N" for every number.
std::string withoutNumbers(const std::string& text) {
    std::string result;
    bool wasDigit = false;
    for (const char character : text) {
        const bool isDigit = std::isdigit(static_cast<unsigned char>(character)) != 0;
        if (!isDigit) {
            result += character;
        } else if (!wasDigit) {
            result += 'N';
        }
        wasDigit = isDigit;
    }
    return result;
}

/// Runs the work and marks where the second time begins and ends. Never returns.
[[noreturn]] void runTraced(const std::function<void()>& work) {
    const pid_t self = ::getpid();
    const auto mark = [self] { ::syscall(SYS_kill, self, SIGSTOP); };
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
        ::_exit(1);
    }
    mark(); // The parent settles the options.
    work();
    mark();
    work();
    mark();
    ::_exit(0);
}

/// A stopped thread of another process, and what it stopped for.
class Tracee {
public:
    explicit Tracee(pid_t pid)
        : pid_(pid) {}

    /// Waits for the next stop. False when the thread has ended instead.
    bool waitForStop() {
        pid_t result = 0;
        do {
            result = ::waitpid(pid_, &status_, __WALL);
        } while (result < 0 && errno == EINTR);
        return result == pid_ && WIFSTOPPED(status_);
    }

    bool stoppedFor(int signal) const { return WSTOPSIG(status_) == signal; }

    /// The signal that it stopped for and is to get; 0 where the stop is one of tracing or a mark.
    int pendingSignal() const {
        const bool isEvent = status_ >> 16 != 0;
        const bool isOurs = stoppedFor(kSystemCallStop) || stoppedFor(SIGSTOP);
        return isEvent || isOurs ? 0 : WSTOPSIG(status_);
    }

    bool goOn(__ptrace_request how, int signal) const {
        return ::ptrace(how, pid_, nullptr, static_cast<long>(signal)) == 0;
    }

    /// Goes on to the beginning of the next system call. False when it does not come to that.
    bool goOnToCall() {
        while (goOn(PTRACE_SYSCALL, pendingSignal()) && waitForStop()) {
            if (stoppedFor(kSystemCallStop) &&
                ::ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof info_, &info_) > 0 &&
                info_.op == PTRACE_SYSCALL_INFO_ENTRY) {
                return true;
            }
        }
        return false;
    }

    /// True when the call that begins is the mark of a child that counts its calls.
    bool isMark() const {
        return info_.entry.nr == SYS_kill && info_.entry.args[0] == static_cast<unsigned>(pid_) &&
               info_.entry.args[1] == SIGSTOP;
    }

    /// The call that begins.
    SystemCall call() const {
        const KnownCall* const known = findCall(info_.entry.nr);
        if (known == nullptr) {
            return {"call " + std::to_string(info_.entry.nr), ""};
        }
        const bool mayHavePath = known->pathArgument != kNoArgument;
        const std::string path =
            mayHavePath ? textAt(info_.entry.args[known->pathArgument]) : std::string();
        if (!path.empty()) {
            return {known->name, withoutNumbers(path)};
        }
        if (known->fdArgument == kNoArgument) {
            return {known->name, ""};
        }
        // An empty path stands for the descriptor itself.
        return {mayHavePath ? "fstat" : known->name,
                fileOf(static_cast<int>(info_.entry.args[known->fdArgument]))};
    }

private:
    std::string fileOf(int fd) const {
        const std::string link = "/proc/" + std::to_string(pid_) + "/fd/" + std::to_string(fd);
        char target[PATH_MAX];
        const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
        return length > 0 ? withoutNumbers({target, static_cast<std::size_t>(length)}) : "";
    }

    std::string textAt(std::uint64_t address) const {
        std::string text;
        for (;;) {
            errno = 0;
            const long word = ::ptrace(PTRACE_PEEKDATA, pid_,
                                       reinterpret_cast<void*>(address + text.size()), nullptr);
            if (errno != 0) {
                return text;
            }
            char bytes[sizeof word];
            std::memcpy(bytes, &word, sizeof word);
            const std::size_t length = ::strnlen(bytes, sizeof bytes);
            text.append(bytes, length);
            if (length < sizeof bytes) {
                return text;
            }
        }
    }

    pid_t pid_;
    int status_ = 0;
    __ptrace_syscall_info info_ = {};
};

/// A forked child that is killed and collected with the object.
class Child {
public:
    explicit Child(pid_t pid)
        : pid_(pid) {}
    ~Child() {
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

private:
    pid_t pid_;
};

/// Counts the calls of a child that runs runTraced.
bool countCalls(pid_t pid, SystemCallCounts& counts) {
    Tracee tracee(pid);
    const auto options = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
    if (!tracee.waitForStop() || ::ptrace(PTRACE_SETOPTIONS, pid, nullptr, options) != 0 ||
        !tracee.goOn(PTRACE_CONT, 0) || !tracee.waitForStop() || !tracee.stoppedFor(SIGSTOP)) {
        return false;
    }
    while (tracee.goOnToCall()) {
        if (tracee.isMark()) {
            return true;
        }
        ++counts[tracee.call()];
    }
    return false;
}

void printDifferences(const SystemCallCounts& work, const SystemCallCounts& bare) {
    SystemCallCounts difference = work;
    for (const auto& [call, count] : bare) {
        difference[call] -= count;
    }
    for (const auto& [call, count] : difference) {
        if (count != 0) {
            std::printf("%+5d  %-12s %s\n", count, call.first.c_str(), call.second.c_str());
        }
    }
}

} // namespace

bool countSystemCalls(const std::function<void()>& work, SystemCallCounts& counts) {
    counts.clear();
    const pid_t pid = ::fork();
    if (pid < 0) {
        return false;
    }
    if (pid == 0) {
        runTraced(work);
    }
    const Child child(pid);
    return countCalls(pid, counts);
}

bool traceThread(pid_t thread, const std::function<bool(const SystemCall&)>& take) {
    Tracee tracee(thread);
    if (::ptrace(PTRACE_SEIZE, thread, nullptr, PTRACE_O_TRACESYSGOOD) != 0 ||
        ::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) != 0 || !tracee.waitForStop()) {
        return false;
    }
    while (tracee.goOnToCall()) {
        if (!take(tracee.call())) {
            return tracee.goOn(PTRACE_DETACH, 0);
        }
    }
    return false;
}

int totalOf(const SystemCallCounts& counts) {
    int total = 0;
    for (const auto& entry : counts) {
        total += entry.second;
    }
    return total;
}

bool makeTheSameCalls(const std::function<void()>& work, const std::function<void()>& bare,
                      int& total) {
    SystemCallCounts ofWork;
    SystemCallCounts ofBare;
    if (!countSystemCalls(work, ofWork) || !countSystemCalls(bare, ofBare)) {
        return false;
    }
    total = totalOf(ofWork);
    if (ofWork != ofBare) {
        std::printf("\nCalls made more often (+) or less often (-) than by the bare loop:\n");
        printDifferences(ofWork, ofBare);
        return false;
    }
    return true;
}

} // namespace bench
