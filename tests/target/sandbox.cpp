// scripts/sandbox for the test machine, which has neither its tools nor its shell: the same private
// folders, devices, interfaces and exit statuses.
//
//   ovard_target_sandbox [--uptime SECONDS] [--keep] [--bring PATH]... [--] COMMAND...
//
// Its other options are missing. What it does not do either is protect the machine around it, which
// is there for nothing else, so that everything stays visible at its own path but what a private
// folder hides.

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/sandbox/LogCapture.h"
#include "tests/target/Furnishing.h"

namespace {

constexpr int kFailed = 125;
constexpr int kRestarted = 90;
constexpr int kHalted = 91;
constexpr const char* kDefaultInit = "/opt/ovard/ovard_sandbox_init";

/// What process 1 tells while the command runs.
constexpr const char* kBegun = "begun\n";

/// Not in every C library.
constexpr int kNewTimeNamespace = 0x00000080;

struct Options {
    long uptimeSec = -1; ///< -1: as outside
    bool keep = false;
    target::Furniture furniture;
    char** command = nullptr;
};

/// Three channels lead inside: signals go in as letters, the command's status comes out, and so do
/// the last words of the log.
struct Channels {
    platform::UniqueFd controlOutside;
    platform::UniqueFd controlInside;
    platform::UniqueFd status;
    platform::UniqueFd log;
};

/// Where the handler of signals writes to.
volatile sig_atomic_t controlFd = -1;

void require(bool succeeded, const char* what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

std::string realPath(const char* path) {
    std::array<char, PATH_MAX> buffer{};
    require(::realpath(path, buffer.data()) != nullptr, path);
    return buffer.data();
}

Options parseOptions(char** argv) {
    Options options;
    char** word = argv + 1;
    for (; *word != nullptr && **word == '-' && std::strcmp(*word, "--") != 0; ++word) {
        const std::string option = *word;
        if (option == "--keep") {
            options.keep = true;
            continue;
        }
        const char* const value = *++word;
        if (value == nullptr || (option != "--uptime" && option != "--bring")) {
            throw std::invalid_argument("not understood: " + option);
        }
        if (option == "--uptime") {
            options.uptimeSec = std::strtol(value, nullptr, 10);
        } else {
            options.furniture.brought.push_back(realPath(value));
        }
    }
    options.command = *word != nullptr && std::strcmp(*word, "--") == 0 ? word + 1 : word;
    if (*options.command == nullptr) {
        throw std::invalid_argument("no command given");
    }
    return options;
}

std::string makeKeptFolder() {
    std::string name = "/tmp/ovard-sandbox.XXXXXX";
    require(::mkdtemp(name.data()) != nullptr, name.c_str());
    return name;
}

Channels openChannels() {
    std::array<int, 2> control{};
    require(::pipe2(control.data(), O_CLOEXEC) == 0, "control channel");
    Channels channels;
    channels.controlInside.reset(control[0]);
    channels.controlOutside.reset(control[1]);
    std::string name = "/tmp/ovard-sandbox-status.XXXXXX";
    channels.status.reset(::mkostemp(name.data(), O_CLOEXEC));
    require(channels.status.valid() && ::unlink(name.c_str()) == 0, name.c_str());
    channels.log.reset(sandbox::makeLogSocket());
    require(channels.log.valid(), sandbox::kLogSocket);
    return channels;
}

/// The time namespace that children are born into starts its clock since boot there.
void shiftClock(long uptimeSec) {
    timespec now{};
    require(::clock_gettime(CLOCK_BOOTTIME, &now) == 0, "clock");
    const std::string text = "boottime " + std::to_string(uptimeSec - now.tv_sec) + " 0\n";
    const platform::UniqueFd offsets = platform::openFile("/proc/self/timens_offsets", O_WRONLY);
    require(platform::writeFully(offsets.get(), text.data(), text.size()) != -1, "timens_offsets");
}

void enterNamespaces(const Options& options) {
    require(::unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS |
                      kNewTimeNamespace) == 0,
            "namespaces");
    if (options.uptimeSec >= 0) {
        shiftClock(options.uptimeSec);
    }
}

/// A descriptor that stays open, as a word.
std::string inherited(int fd) {
    require(::fcntl(fd, F_SETFD, 0) == 0, "descriptor");
    return std::to_string(fd);
}

[[noreturn]] void becomeInit(const Options& options, const Channels& channels) {
    const char* const given = std::getenv("SANDBOX_INIT_BINARY");
    const char* const program = given != nullptr ? given : kDefaultInit;
    const platform::UniqueFd itself = platform::openFile(program, O_RDONLY);
    require(itself.valid(), program);
    std::vector<std::string> words = {"ovard_sandbox_init",
                                      "--status-fd",
                                      inherited(channels.status.get()),
                                      "--control-fd",
                                      inherited(channels.controlInside.get()),
                                      "--program-fd",
                                      inherited(itself.get()),
                                      "--log-fd",
                                      inherited(channels.log.get()),
                                      "--"};
    std::vector<char*> arguments;
    arguments.reserve(words.size());
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    for (char** word = options.command; *word != nullptr; ++word) {
        arguments.push_back(*word);
    }
    arguments.push_back(nullptr);
    (void)::unsetenv("TMPDIR");
    (void)::setenv("OVARD_SANDBOX", "1", 1); // no memory: exec will not succeed either
    ::execv(program, arguments.data());
    throw std::system_error(errno, std::generic_category(), program);
}

/// In the child: process 1 of the new namespaces.
[[noreturn]] void runInside(const Options& options, const Channels& channels) {
    try {
        (void)::prctl(PR_SET_PDEATHSIG, SIGKILL); // the end of the control channel is noticed, too
        target::furnishSandbox(options.furniture);
        becomeInit(options, channels);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "sandbox: %s\n", error.what());
    }
    ::_exit(kFailed);
}

void handOn(int signal) {
    const char letter = signal == SIGTERM ? 'T' : signal == SIGINT ? 'I' : 'H';
    const int savedErrno = errno;
    (void)!::write(controlFd, &letter, 1); // it is gone, or will be told to go once more
    errno = savedErrno;
}

void handSignalsOn(int fd) {
    controlFd = fd;
    struct sigaction action {};
    action.sa_handler = handOn;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        require(::sigaction(signal, &action, nullptr) == 0, "signals");
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
}

/// What process 1 has told about its command.
std::string readStatus(int fd) {
    std::array<char, 16> told{};
    const ssize_t size = ::pread(fd, told.data(), told.size(), 0);
    return {told.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

/// Writes what was logged when process 1 could not any more. Out here its folders can be seen.
void completeLog(int socket) {
    const platform::UniqueFd file(sandbox::openLogFile());
    require(file.valid() && sandbox::captureLog(socket, file.get()), sandbox::kLogFile);
}

/// The kernel reports a restart inside as process 1 killed by SIGHUP, a halt as killed by SIGINT.
int conclude(const std::string& told, int status) {
    if (told.find_first_not_of("0123456789\n") == std::string::npos && !told.empty()) {
        return std::stoi(told);
    }
    if (told == kBegun && WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP) {
        (void)std::fputs("sandbox: the machine inside was restarted\n", stderr);
        return kRestarted;
    }
    if (told == kBegun && WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) {
        (void)std::fputs("sandbox: the machine inside was halted\n", stderr);
        return kHalted;
    }
    (void)std::fputs("sandbox: it could not be set up, or was ended from outside\n", stderr);
    return kFailed;
}

int run(Options options) {
    Channels channels = openChannels();
    if (options.keep) {
        options.furniture.keptFolder = makeKeptFolder();
        (void)std::fprintf(stderr, "sandbox: kept in %s\n", options.furniture.keptFolder.c_str());
    }
    enterNamespaces(options);
    const pid_t child = ::fork();
    require(child != -1, "fork");
    if (child == 0) {
        channels.controlOutside.reset();
        runInside(options, channels);
    }
    channels.controlInside.reset();
    handSignalsOn(channels.controlOutside.get());
    int status = 0;
    while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    const std::string told = readStatus(channels.status.get());
    if (told == kBegun) {
        completeLog(channels.log.get());
    }
    return conclude(told, status);
}

} // namespace

int main(int /*argc*/, char** argv) {
    try {
        return run(parseOptions(argv));
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "sandbox: %s\n", error.what());
        return kFailed;
    }
}
