// Process 1 of the test machine: furnishes it and runs what it is told to.
//
// Over the second serial line it says "READY", reads a line, runs the command in it (words
// separated by blanks), says "RESULT STATUS" and begins anew. "off" switches the machine off, and
// so does the end of that line. A command that restarts the machine gets no result, but another
// "READY".

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/sandbox/LogCapture.h"
#include "tests/target/Machine.h"
#include "tests/target/Network.h"

namespace {

constexpr int kSignalBase = 128;
constexpr int kNotStarted = 127;

void complain(const char* what) {
    const int error = errno;
    (void)std::fprintf(stderr, "init: %s: %s\n", what, std::strerror(error));
}

struct Mount {
    const char* type;
    const char* folder;
    const char* options;
};

constexpr Mount kMounts[] = {
    {"proc", "/proc", ""},
    {"sysfs", "/sys", ""},
    {"devtmpfs", "/dev", ""},
    {"devpts", "/dev/pts", "ptmxmode=0666,mode=620"},
    {"tmpfs", "/dev/shm", "mode=1777"},
};

void mountFolders() {
    for (const Mount& one : kMounts) {
        (void)::mkdir(one.folder, 0755); // most are there
        if (::mount(one.type, one.folder, one.type, 0, one.options) == -1) {
            complain(one.folder);
        }
    }
    for (const auto& [target, link] :
         {std::pair("/proc/self/fd", "/dev/fd"), std::pair("/proc/self/fd/0", "/dev/stdin"),
          std::pair("/proc/self/fd/1", "/dev/stdout"),
          std::pair("/proc/self/fd/2", "/dev/stderr")}) {
        if (::symlink(target, link) == -1) {
            complain(link);
        }
    }
}

void openConsole() {
    const int console =
        ::open("/dev/console", O_RDWR); // the standard descriptors stay open on exec
    for (int number = 0; number <= 2; ++number) {
        (void)::dup2(console, number); // without a console nothing can be told
    }
    if (console > 2) {
        (void)::close(console);
    }
}

/// The machine has no clock of its own; `now` comes from the kernel's command line.
void setClock() {
    const char* const now = std::getenv("now");
    timespec time{};
    time.tv_sec = now == nullptr ? 0 : static_cast<time_t>(std::strtoll(now, nullptr, 10));
    if (time.tv_sec == 0 || ::clock_settime(CLOCK_REALTIME, &time) == -1) {
        complain("clock");
    }
}

void setNetworkUp() {
    if (!target::bringUp("lo", "127.0.0.1")) {
        complain("lo");
    }
    for (const auto& [interface, address] :
         {std::pair("eth0", target::kAddressOfEth0), std::pair("eth1", target::kAddressOfEth1)}) {
        // Some machines have none.
        if (!target::bringUp(interface, address) && errno != ENODEV) {
            complain(interface);
        }
    }
}

[[noreturn]] void keepLog(int socket, int file) {
    for (pollfd source{socket, POLLIN, 0};;) {
        if (::poll(&source, 1, -1) == 1 && !sandbox::captureLog(socket, file)) {
            complain(sandbox::kLogFile);
        }
    }
}

/// Has a process of its own keep the system log, as long as the machine runs.
void startLog() {
    const platform::UniqueFd socket(sandbox::makeLogSocket());
    if (!socket.valid() || !sandbox::bindLogSocket(socket.get())) {
        complain(sandbox::kLogSocket);
        return;
    }
    const platform::UniqueFd file(sandbox::openLogFile());
    if (!file.valid()) {
        complain(sandbox::kLogFile);
        return;
    }
    const pid_t keeper = ::fork();
    if (keeper == 0) {
        keepLog(socket.get(), file.get());
    }
    if (keeper == -1) {
        complain("fork: system log");
    }
}

/// Has the shell's program appear under the names of all its tools, where the machine has it.
void installTools() {
    using target::kShellProgram;
    const pid_t child = target::hasShell() ? ::fork() : -1;
    if (child == 0) {
        (void)::execl(kShellProgram, kShellProgram, "--install", "-s", "/bin", nullptr);
        complain(kShellProgram);
        ::_exit(kNotStarted);
    }
    if (child > 0) {
        (void)::waitpid(child, nullptr, 0); // tests that need a tool tell when it is missing
    }
}

void setEnvironment() {
    constexpr std::pair<const char*, const char*> kVariables[] = {
        {"PATH", "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin"},
        {"HOME", "/"},
        {"GTEST_COLOR", "no"},
        {"CLIENT_EXAMPLE_BINARY", "/opt/ovard/client_example"},
        {"FORKING_APP_BINARY", "/opt/ovard/ovard_forking_app"},
        {"MINIMAL_APP_BINARY", "/opt/ovard/minimal_app"},
        {"OVARDCTL_BINARY", "/opt/ovard/ovardctl"},
        {"OVARD_BINARY", "/opt/ovard/ovard"},
        {"REFUSED_MEMORY_LIBRARY", "/opt/ovard/dynamic/libovard_refused_memory.so"},
        {"SAMPLE_APP_BINARY", "/opt/ovard/sample_app"},
        {"SANDBOX_INIT_BINARY", "/opt/ovard/ovard_sandbox_init"},
        {"SANDBOX_PROGRAM", "/opt/ovard/ovard_target_sandbox"},
        {"SET_SIGNALS_BINARY", "/opt/ovard/ovard_set_signals"},
        {"WALL_CLOCK_LIBRARY", "/opt/ovard/dynamic/libovard_wall_clock.so"},
    };
    for (const auto& [name, value] : kVariables) {
        (void)::setenv(name, value, 1); // no memory: the command will not start either
    }
}

/// What scenarios do less of than the tests do natively.
struct Reduction {
    const char* scenario;
    const char* what;
    const char* variable; ///< of the environment
    const char* value;
    const char* natively;
};

constexpr Reduction kReductions[] = {
    {"units", "random requests", "OVARD_HOSTILE_COUNT", "50000", "1000000"}, // a minute here
    {"suites", "steps of Model", "OVARD_MODEL_STEPS", "20", "1000"},
    {"suites", "monitors of Model", "OVARD_MODEL_WORLDS", "1", "16"},
    {"suites", "seconds of Soak", "OVARD_SOAK_SECONDS", "20", "60"},
};

/// Tells on the console what the scenario does less of.
void reduceWork() {
    const char* const scenario = std::getenv("scenario"); // from the kernel's command line
    for (const Reduction& one : kReductions) {
        if (scenario != nullptr && std::strcmp(one.scenario, scenario) == 0) {
            (void)::setenv(one.variable, one.value, 1); // no memory: nothing will start either
            std::printf("REDUCED %s: %s instead of %s\n", one.what, one.value, one.natively);
        }
    }
    (void)std::fflush(stdout);
}

/// Opened so that bytes pass as they are.
platform::UniqueFd openControlLine() {
    platform::UniqueFd line(::open(target::kControlLine, O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    if (!line.valid() || ::tcgetattr(line.get(), &settings) == -1) {
        complain(target::kControlLine);
        return line;
    }
    ::cfmakeraw(&settings);
    (void)::cfsetspeed(&settings, B115200); // emulated, so any speed is right
    if (::tcsetattr(line.get(), TCSANOW, &settings) == -1) {
        complain(target::kControlLine);
    }
    return line;
}

void say(const platform::UniqueFd& line, const std::string& text) {
    const std::string whole = text + '\n';
    if (platform::writeFully(line.get(), whole.data(), whole.size()) == -1) {
        complain(target::kControlLine);
    }
}

/// The command on the kernel's command line; empty when there is none.
std::string firstCommand() {
    const char* const words = std::getenv("run");
    std::string command = words != nullptr ? words : "";
    std::replace(command.begin(), command.end(), ',', ' ');
    return command;
}

/// A line without its end; "off" when none comes any more.
std::string readLine(const platform::UniqueFd& line) {
    std::string text;
    for (char letter = '\0'; platform::readFully(line.get(), &letter, 1) == 1;) {
        if (letter == '\n') {
            return text;
        }
        text += letter;
    }
    return "off";
}

[[noreturn]] void becomeCommand(const std::string& command) {
    (void)::setsid(); // it is the leader of none
    std::istringstream stream(command);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    complain(arguments[0]);
    ::_exit(kNotStarted);
}

/// Runs a command to its end, reaping whatever else ends meanwhile. Returns its exit status.
int run(const std::string& command) {
    const pid_t child = ::fork();
    if (child == -1) {
        complain("fork");
        return kNotStarted;
    }
    if (child == 0) {
        becomeCommand(command);
    }
    int status = 0;
    for (pid_t ended = 0; ended != child;) {
        ended = ::wait(&status);
    }
    return WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace

int main() {
    if (::getpid() != 1) {
        (void)std::fputs("init: this is for the test machine only\n", stderr);
        return EXIT_FAILURE;
    }
    mountFolders();
    openConsole();
    (void)::umask(022);
    setClock();
    setNetworkUp();
    setEnvironment();
    reduceWork();
    startLog();
    installTools();
    const platform::UniqueFd line = openControlLine();
    std::string command = firstCommand();
    while (line.valid()) {
        say(line, "READY");
        if (command.empty()) {
            command = readLine(line);
        }
        if (command == "off") {
            break;
        }
        say(line, "RESULT " + std::to_string(run(command)));
        command.clear();
    }
    ::sync();
    (void)::reboot(static_cast<int>(RB_POWER_OFF));
    complain("power-off");
    return EXIT_FAILURE;
}
