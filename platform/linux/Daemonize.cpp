#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "platform/Process.h"
#include "platform/linux/Clock.h"

namespace {

constexpr int kLauncherPollMs = 5;
constexpr int kLooksAfterRelease = 20;

/// The daemon's side: out of the launcher's session, off its terminal and out of its directory.
void becomeDaemon() {
    ::setsid();
    const int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
        for (int standardFd = STDIN_FILENO; standardFd <= STDERR_FILENO; ++standardFd) {
            ::dup2(null, standardFd);
        }
        if (null > STDERR_FILENO) {
            ::close(null);
        }
    }
    (void)!::chdir("/"); // cannot fail on a machine that started this program
}

/// Status with which the launcher ends for a daemon that is gone, by its wait status.
int launcherStatus(int waitStatus) {
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

/// The launcher's status once the mutex is released, or cannot be had at all. A daemon that fails
/// releases it too, as it ends: a short look tells that from one that is ready.
int statusAfterRelease(pid_t daemon, const timespec& pause) {
    for (int look = 0; look < kLooksAfterRelease; ++look) {
        int waitStatus = 0;
        if (::waitpid(daemon, &waitStatus, WNOHANG) == daemon) {
            return launcherStatus(waitStatus);
        }
        ::nanosleep(&pause, nullptr);
    }
    return EXIT_SUCCESS;
}

/// The launcher's side: stays until the daemon is ready or gone. Ends with _exit, because the exit
/// handlers and buffers belong to the daemon.
[[noreturn]] void waitForDaemon(pid_t daemon, InterprocessWaitable& mutex) {
    const timespec pause =
        platform::toTimespec(kLauncherPollMs * platform::kNanosecondsPerMillisecond);
    for (;;) {
        if (mutex.tryAcquire() != 0) {
            ::_exit(statusAfterRelease(daemon, pause));
        }
        int waitStatus = 0;
        const pid_t ended = ::waitpid(daemon, &waitStatus, WNOHANG);
        if (ended != 0) {
            ::_exit(ended == daemon ? launcherStatus(waitStatus) : EXIT_FAILURE);
        }
        ::nanosleep(&pause, nullptr);
    }
}

} // namespace

void daemonize_withSTDFILE_waitforInterprocessNamedMutex(InterprocessWaitable* mutex) {
    // While SIGCHLD is ignored the system discards exit statuses: the daemon's own, which may be
    // gone at once.
    struct sigaction childAction = {};
    struct sigaction defaultAction = {};
    defaultAction.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &defaultAction, &childAction);
    const pid_t daemon = ::fork();
    if (daemon > 0) {
        waitForDaemon(daemon, *mutex);
    }
    ::sigaction(SIGCHLD, &childAction, nullptr);
    if (daemon == 0) {
        becomeDaemon();
    }
}
