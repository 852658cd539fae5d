// Every call with consequences for other processes or for the machine.
//
// The program proper reaches the system only through these; unit tests link scripted versions
// (tests/fakes/), so no unit test can signal, start or reboot anything. Unless said otherwise each
// is the call of the same purpose in the C library, with its results and errno.

#ifndef OVARD_PLATFORM_SYSTEM_H
#define OVARD_PLATFORM_SYSTEM_H

#include <sys/types.h>

#include <cstddef>

struct utsname;

namespace platform {

// --- processes ---------------------------------------------------------------------------------

pid_t forkProcess();

/// execv: returns only on failure.
int executeProgram(const char* path, char* const argv[]);

/// waitpid. Not restarted after signals.
pid_t waitForProcess(pid_t pid, int* status, int options);

/// kill, for one process only: a pid of 0 or less fails with EINVAL and signals nobody.
int sendSignal(pid_t pid, int signal);

/// setpriority(PRIO_PROCESS).
int setProcessPriority(pid_t pid, int priority);

pid_t currentProcessId();

/// _exit: ends the process at once, without its exit handlers.
[[noreturn]] void leaveProcess(int status);

/// Ends the monitor with `status`, its exit handlers included, from whichever thread.
[[noreturn]] void exitMonitor(int status);

// --- descriptors -------------------------------------------------------------------------------

/// Pipe, both ends close-on-exec: ends[0] reads, ends[1] writes.
int openPipe(int ends[2]);
int closeDescriptor(int fd);

/// read and write, restarted after signals, until `size` bytes are through; see readFully.
ssize_t readDescriptor(int fd, void* buffer, std::size_t size);
ssize_t writeDescriptor(int fd, const void* buffer, std::size_t size);

/// Blocks until a byte or the end of file can be read from `fd`, and takes it. Between fork and
/// exec.
void waitAtGate(int fd);

/// Raises the limit on open descriptors as far as the system allows, 65536 at most: connections of
/// requests without a reply stay open. Launched processes get the limit back that was in force.
void raiseDescriptorLimit();

// --- between fork and exec ---------------------------------------------------------------------

/// Makes the calling, freshly forked process clean: every descriptor above 2 closed, `keptFd`
/// excepted (-1: none); every signal at its default action; signal mask empty.
/// Async-signal-safe.
void cleanLaunchedProcess(int keptFd);

/// Blocks every signal in the calling thread; the mask so far goes to `savedMask` (a sigset_t*).
/// Used around fork, so that no handler of the monitor ever runs in a launched process.
void blockAllSignals(void* savedMask);
void restoreSignalMask(const void* savedMask);

// --- files -------------------------------------------------------------------------------------

/// unlink. Async-signal-safe.
int removeFile(const char* path);
bool pathExists(const char* path);

/// What tells a file from all others that are there at the same time. Both 0: it is not known, or
/// there is none.
struct FileIdentity {
    dev_t device = 0;
    ino_t number = 0;

    bool isKnown() const { return device != 0 || number != 0; }
};

/// Whether both are known, and the same file.
inline bool isSameFile(const FileIdentity& left, const FileIdentity& right) {
    return left.isKnown() && left.device == right.device && left.number == right.number;
}

/// Identity of what has that name: of a symbolic link itself, not of what it leads to.
/// Async-signal-safe.
FileIdentity identifyFile(const char* path);

// On 32-bit machines both have 4 bytes by default, and calls fail with EOVERFLOW where a file's
// number or size needs more. All parts of a program, the platform's library too, have to agree.
static_assert(sizeof(ino_t) == 8 && sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");

// --- the machine -------------------------------------------------------------------------------

/// sync.
void flushFileSystems();

/// Runs `command` with /bin/sh, the monitor's signals at their default actions, and waits for its
/// end; 5 seconds at most, 1 when the monitor is asked to end, then it is killed. Returns 0 when it
/// ended with status 0; otherwise -1 with errno: why it could not run, ETIMEDOUT, or EIO when it
/// ran and failed. Main thread.
int runShellCommand(const char* command);

/// The reboot call with the restart command: does not return when it works. 0 or -1 else.
int restartMachine();

/// uname.
int identifyKernel(utsname& identity);

/// Seconds since boot, or -1 with errno.
long uptimeSeconds();

/// Clock ticks per second, the unit of process start times.
long clockTicksPerSecond();

} // namespace platform

#endif // OVARD_PLATFORM_SYSTEM_H
