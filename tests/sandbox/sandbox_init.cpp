// Process 1 of a sandbox: runs one command, reaps whatever else ends, and keeps the log.
//
//   ovard_sandbox_init --status-fd N --control-fd N --program-fd N [--log-fd N] [--foreground]
//                      -- COMMAND...
//   ovard_sandbox_init --take-terminal
//   ovard_sandbox_init --hold-log N FILE -- COMMAND...
//
// It is started by tests/sandbox/inside, which has furnished the sandbox before. The control
// channel brings one letter for each signal that the command is to get; its end means that the
// sandbox is to end. The status channel gets "begun\n" replaced by the command's exit status, so
// whoever reads "begun" afterwards knows that the kernel ended the sandbox. Ending process 1 ends
// all processes. The log's socket may come from outside: who holds it there, too, can read what the
// kernel left process 1 no time for. Run outside, --hold-log does so around the command that makes
// the sandbox, which inherits the socket as descriptor N.

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "LogCapture.h" // beside this file: scripts/sandbox compiles it without the build's folders

namespace {

constexpr int kSetupFailed = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;
constexpr int kSignalBase = 128;

struct Options {
    int statusFd = -1;
    int controlFd = -1;
    int programFd = -1;
    int logFd = -1; ///< -1: it makes one itself
    bool foreground = false;
    char** command = nullptr;
};

/// Says what is wrong, as process 1 or as who runs outside, and ends this process.
[[noreturn]] void giveUp(const std::string& message) {
    const char* const speaker = getpid() == 1 ? "sandbox: process 1" : "sandbox";
    (void)std::fprintf(stderr, "%s: %s\n", speaker, message.c_str());
    _exit(kSetupFailed);
}

[[noreturn]] void fail(const char* what) {
    const char* const reason = std::strerror(errno);
    giveUp(std::string(what) + ": " + reason);
}

[[noreturn]] void failUsage() {
    giveUp("this is started by scripts/sandbox only");
}

int parseDescriptor(const char* text) {
    char* end = nullptr;
    const long value = text == nullptr ? -1 : std::strtol(text, &end, 10);
    if (value <= STDERR_FILENO || value > 1023 || *end != '\0') {
        failUsage();
    }
    return static_cast<int>(value);
}

Options parseOptions(char** argv) {
    Options options;
    char** argument = argv + 1;
    for (; *argument != nullptr && std::strcmp(*argument, "--") != 0; ++argument) {
        if (std::strcmp(*argument, "--status-fd") == 0) {
            options.statusFd = parseDescriptor(*++argument);
        } else if (std::strcmp(*argument, "--control-fd") == 0) {
            options.controlFd = parseDescriptor(*++argument);
        } else if (std::strcmp(*argument, "--program-fd") == 0) {
            options.programFd = parseDescriptor(*++argument);
        } else if (std::strcmp(*argument, "--log-fd") == 0) {
            options.logFd = parseDescriptor(*++argument);
        } else if (std::strcmp(*argument, "--foreground") == 0) {
            options.foreground = true;
        } else {
            failUsage();
        }
    }
    if (*argument == nullptr || argument[1] == nullptr || options.statusFd == -1 ||
        options.controlFd == -1 || options.programFd == -1) {
        failUsage();
    }
    options.command = argument + 1;
    return options;
}

void hideFromCommand(int fd) {
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) == -1) {
        fail("descriptor");
    }
}

/// Replaces what the status channel says by one line.
void reportStatus(int fd, const std::string& text) {
    const std::string line = text + '\n';
    if (pwrite(fd, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size()) ||
        ftruncate(fd, static_cast<off_t>(line.size())) == -1) {
        fail("status");
    }
}

int openLogSocketOrFail(const Options& options) {
    const int fd = options.logFd != -1 ? options.logFd : sandbox::makeLogSocket();
    if (fd == -1 || !sandbox::bindLogSocket(fd)) {
        fail(sandbox::kLogSocket);
    }
    hideFromCommand(fd);
    return fd;
}

int openLogFileOrFail() {
    const int fd = sandbox::openLogFile();
    if (fd == -1) {
        fail(sandbox::kLogFile);
    }
    return fd;
}

void captureLog(int socketFd, int fileFd) {
    if (!sandbox::captureLog(socketFd, fileFd)) {
        fail(sandbox::kLogFile);
    }
}

sigset_t handledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP, SIGTTOU}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

/// In the child: becomes the command. A process group of its own keeps a kill(0) inside from
/// reaching the processes that started the sandbox.
[[noreturn]] void becomeCommand(const Options& options) {
    (void)setpgid(0, 0);
    if (options.foreground) {
        (void)tcsetpgrp(STDIN_FILENO, getpgrp()); // SIGTTOU is blocked
    }
    // Ignored by the shell around, which had this run in the background.
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP}) {
        (void)std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(options.command[0], options.command);
    const int error = errno;
    (void)std::fprintf(stderr, "sandbox: %s: %s\n", options.command[0], std::strerror(error));
    _exit(error == ENOENT ? kNotFound : kNotExecutable);
}

/// How a process ended, as a shell gives it.
int exitStatus(int status) {
    return WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Reaps all that has ended. Returns the command's exit status, or -1 while it runs.
int reapProcesses(pid_t command) {
    int result = -1;
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG | WUNTRACED)) > 0;) {
        if (pid != command) {
            continue;
        }
        if (WIFSTOPPED(status)) {
            // Nobody in here could ever continue it.
            (void)kill(-command, SIGCONT);
        } else {
            result = exitStatus(status);
        }
    }
    return result;
}

void handleSignals(int fd, pid_t command) {
    signalfd_siginfo info{};
    while (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        const int signal = static_cast<int>(info.ssi_signo);
        if (signal != SIGCHLD && signal != SIGTTOU) {
            (void)kill(command, signal);
        }
    }
}

/// Hands on the signals that the control channel brings. False at its end.
bool handleControl(int fd, pid_t command) {
    char letter = '\0';
    const ssize_t size = read(fd, &letter, 1);
    if (size == 0) {
        return false;
    }
    if (size == 1) {
        const int signal = letter == 'T' ? SIGTERM : letter == 'I' ? SIGINT : SIGHUP;
        (void)kill(command, signal);
    }
    return true;
}

/// Serves signals, log and control channel until the command has ended; returns its exit status.
int serve(const Options& options, int signalFd, int logSocket, int logFile, pid_t command) {
    std::array<pollfd, 3> sources{
        {{signalFd, POLLIN, 0}, {logSocket, POLLIN, 0}, {options.controlFd, POLLIN, 0}}};
    for (;;) {
        if (poll(sources.data(), sources.size(), -1) == -1 && errno != EINTR) {
            fail("poll");
        }
        captureLog(logSocket, logFile);
        if (sources[0].revents != 0) {
            handleSignals(signalFd, command);
            const int result = reapProcesses(command);
            if (result != -1) {
                // What was sent before the end has arrived: datagrams are queued by the sender.
                captureLog(logSocket, logFile);
                return result;
            }
        }
        if (sources[2].revents != 0 && !handleControl(options.controlFd, command)) {
            return kSignalBase + SIGKILL;
        }
    }
}

int runSandbox(const Options& options) {
    if (getpid() != 1) {
        giveUp("this is not a new pid namespace");
    }
    (void)prctl(PR_SET_NAME, "sandbox_init"); // started by descriptor, it would be called a number
    (void)close(options.programFd);
    hideFromCommand(options.statusFd);
    hideFromCommand(options.controlFd);
    (void)setpgid(0, 0); // keys pressed outside are handed on, not felt directly

    const sigset_t signals = handledSignals();
    (void)sigprocmask(SIG_SETMASK, &signals, nullptr);
    const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalFd == -1) {
        fail("signalfd");
    }
    const int logSocket = openLogSocketOrFail(options);
    const int logFile = openLogFileOrFail();
    reportStatus(options.statusFd, "begun");

    const pid_t command = fork();
    if (command == -1) {
        fail("fork");
    }
    if (command == 0) {
        becomeCommand(options);
    }
    const int result = serve(options, signalFd, logSocket, logFile, command);
    reportStatus(options.statusFd, std::to_string(result));
    return result;
}

/// Makes the caller's process group the foreground one again.
int takeTerminal() {
    (void)std::signal(SIGTTOU, SIG_IGN);
    return tcsetpgrp(STDIN_FILENO, getpgrp()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/// Starts a command that leads inside. A signal to the whole group, as timeout(1) sends it, does
/// not end the caller from then on, nor unshare, which blocks the same ones: the script hands it
/// on, and then waits for both. Where SIGCHLD is ignored neither would learn how its child ended.
pid_t startHeldCommand(char** command) {
    (void)std::signal(SIGCHLD, SIG_DFL);
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    (void)sigprocmask(SIG_BLOCK, &signals, &before);
    const pid_t child = fork();
    if (child == 0) {
        (void)sigprocmask(SIG_SETMASK, &before, nullptr);
        execvp(command[0], command);
    }
    if (child <= 0) {
        fail(command[0]);
    }
    return child;
}

/// Waits for a child to end; returns its exit status.
int awaitChild(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) == -1) {
        if (errno != EINTR) {
            fail("wait");
        }
    }
    return exitStatus(status);
}

/// Runs a command that leads inside. What it leaves in the log's socket is appended to the file,
/// which is missing when no sandbox could be made.
int holdLog(char** words) {
    const int inherited = parseDescriptor(words[0]);
    const int socket = sandbox::makeLogSocket();
    if (socket == -1 || dup2(socket, inherited) == -1) {
        fail(sandbox::kLogSocket);
    }
    const int result = awaitChild(startHeldCommand(words + 3));
    const int file = open(words[1], O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file != -1) {
        captureLog(socket, file);
    }
    return result;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--take-terminal") == 0) {
        return takeTerminal();
    }
    if (argc > 5 && std::strcmp(argv[1], "--hold-log") == 0 && std::strcmp(argv[4], "--") == 0) {
        return holdLog(argv + 2);
    }
    return runSandbox(parseOptions(argv));
}
