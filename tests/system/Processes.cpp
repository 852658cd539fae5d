#include "tests/system/Processes.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

std::string procPath(pid_t pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

bool isNumber(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char character) {
        return std::isdigit(character) != 0;
    });
}

/// Numeric names in a directory of /proc.
std::vector<pid_t> numbersIn(const std::string& directory) {
    std::vector<pid_t> numbers;
    for (const std::string& path : entriesOf(directory)) {
        const std::string name = path.substr(directory.size() + 1);
        if (isNumber(name)) {
            numbers.push_back(toPid(name));
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

ProcessFacts parseStat(pid_t pid, const std::string& text) {
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) {
        return {};
    }
    ProcessFacts facts;
    facts.pid = pid;
    facts.name = text.substr(open + 1, close - open - 1);
    std::istringstream fields(text.substr(close + 1));
    fields >> facts.state >> facts.parent >> facts.group >> facts.session;
    std::string skipped;
    for (int field = 7; field <= 18; ++field) {
        fields >> skipped;
    }
    fields >> facts.nice >> skipped >> skipped >> facts.startTicks;
    return facts;
}

template <typename Predicate> std::vector<pid_t> processesThat(Predicate predicate) {
    std::vector<pid_t> found;
    for (const pid_t pid : allProcesses()) {
        if (isRunning(pid) && predicate(pid)) {
            found.push_back(pid);
        }
    }
    return found;
}

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& changes) {
    std::vector<std::string> merged;
    const auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const bool isChanged =
            std::any_of(changes.begin(), changes.end(), [&](const std::string& change) {
                return nameOf(change) == nameOf(*entry);
            });
        if (!isChanged) {
            merged.emplace_back(*entry);
        }
    }
    std::copy_if(changes.begin(), changes.end(), std::back_inserter(merged),
                 [](const std::string& change) { return change.find('=') != std::string::npos; });
    return merged;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

void redirect(int from, int to) {
    if (from < 0 || ::dup2(from, to) < 0) {
        ::_exit(126);
    }
}

/// The child's side of a start: only async-signal-safe calls.
[[noreturn]] void becomeProgram(const char* outputPath, const char* errorPath, char* const* argv,
                                char* const* environment, int highestDescriptor) {
    for (int signal = 1; signal < NSIG; ++signal) {
        (void)::signal(signal, SIG_DFL); // refused for two of them
    }
    sigset_t none;
    sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
    redirect(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
    redirect(::open(outputPath, flags, 0644), STDOUT_FILENO);
    redirect(::open(errorPath, flags, 0644), STDERR_FILENO);
    for (int inherited = STDERR_FILENO + 1; inherited <= highestDescriptor; ++inherited) {
        (void)::close(inherited); // most are not open
    }
    ::execve(argv[0], argv, environment);
    ::_exit(127);
}

} // namespace

pid_t toPid(const std::string& text) {
    return static_cast<pid_t>(std::strtol(text.c_str(), nullptr, 10));
}

ProcessFacts processFacts(pid_t pid) {
    return parseStat(pid, readFile(procPath(pid, "stat")));
}

char threadState(pid_t pid, pid_t thread) {
    return parseStat(thread, readFile(procPath(pid, "task/" + std::to_string(thread) + "/stat")))
        .state;
}
bool isRunning(pid_t pid) {
    const ProcessFacts facts = processFacts(pid);
    return facts.pid > 0 && facts.state != 'Z' && facts.state != 'X';
}

std::string statusValue(pid_t pid, const std::string& key) {
    const std::string start = key + ":";
    for (const std::string& line : linesOf(readFile(procPath(pid, "status")))) {
        if (line.compare(0, start.size(), start) == 0) {
            const std::size_t value = line.find_first_not_of(" \t", start.size());
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return "";
}

bool signalIsIn(pid_t pid, const std::string& key, int signal) {
    const std::uint64_t set = std::strtoull(statusValue(pid, key).c_str(), nullptr, 16);
    return (set >> (signal - 1) & 1) != 0;
}

std::string commandLineOf(pid_t pid) {
    std::string text = readFile(procPath(pid, "cmdline"));
    while (!text.empty() && text.back() == '\0') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\0', ' ');
    return text;
}

std::string linkOf(pid_t pid, const std::string& name) {
    char target[PATH_MAX];
    const ssize_t length = ::readlink(procPath(pid, name).c_str(), target, sizeof target);
    return length < 0 ? "" : std::string(target, static_cast<std::size_t>(length));
}

std::map<int, std::string> descriptorsOf(pid_t pid) {
    std::map<int, std::string> descriptors;
    for (const pid_t number : numbersIn(procPath(pid, "fd"))) {
        const std::string target = linkOf(pid, "fd/" + std::to_string(number));
        if (!target.empty()) {
            descriptors[number] = target;
        }
    }
    return descriptors;
}

std::vector<pid_t> threadsOf(pid_t pid) {
    return numbersIn(procPath(pid, "task"));
}

std::vector<pid_t> allProcesses() {
    return numbersIn("/proc");
}

std::vector<pid_t> processesNamed(const std::string& name) {
    return processesThat([&](pid_t pid) { return processFacts(pid).name == name; });
}

std::vector<pid_t> processesWithCommandLine(const std::string& commandLine) {
    return processesThat([&](pid_t pid) { return commandLineOf(pid) == commandLine; });
}

bool sendSignal(pid_t pid, int signal) {
    return pid > 1 && pid != ::getpid() && ::kill(pid, signal) == 0;
}

std::string Ending::text() const {
    if (!ended) {
        return "still running";
    }
    if (!statusKnown) {
        return "ended";
    }
    return exited ? "status " + std::to_string(status) : "signal " + std::to_string(signal);
}

Ending waitForChild(pid_t pid, int timeoutMs) {
    const std::int64_t begin = monotonicMs();
    int status = 0;
    pid_t waited = 0;
    Ending result;
    result.ended =
        eventually([&] { return (waited = ::waitpid(pid, &status, WNOHANG)) != 0; }, timeoutMs);
    result.tookMs = monotonicMs() - begin;
    result.statusKnown = waited == pid;
    result.exited = result.statusKnown && WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : 0;
    result.signal = result.statusKnown && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}

Program::~Program() {
    if (pid_ > 0 && !ending_.ended) {
        (void)sendSignal(pid_, SIGKILL); // it may have ended meanwhile
        (void)waitForEnd(kPatienceMs);   // nothing more can be done
    }
}

bool Program::start(const std::string& path, const std::vector<std::string>& arguments,
                    const std::vector<std::string>& environment) {
    static std::atomic<int> counter{0};
    const std::string base = std::string(kScratchFolder) + "/program" + std::to_string(++counter);
    outputPath_ = base + ".out";
    errorPath_ = base + ".err";
    std::vector<std::string> words = {path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables = mergedEnvironment(environment);
    const std::vector<char*> argv = pointersTo(words);
    const std::vector<char*> envp = pointersTo(variables);
    if (!makeDirectories(kScratchFolder)) {
        return false;
    }
    const int highestDescriptor = descriptorsOf(::getpid()).rbegin()->first;
    ending_ = {};
    pid_ = ::fork();
    if (pid_ == 0) {
        becomeProgram(outputPath_.c_str(), errorPath_.c_str(), argv.data(), envp.data(),
                      highestDescriptor);
    }
    return pid_ > 0;
}

Ending Program::waitForEnd(int timeoutMs) {
    if (pid_ <= 0 || ending_.ended) {
        return ending_;
    }
    const Ending result = waitForChild(pid_, timeoutMs);
    if (result.ended) {
        ending_ = result;
    }
    return result;
}

std::string Program::output() const {
    return readFile(outputPath_);
}

std::string Program::errors() const {
    return readFile(errorPath_);
}

ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment, int timeoutMs) {
    Program program;
    ProgramResult result;
    if (program.start(path, arguments, environment)) {
        result.ending = program.waitForEnd(timeoutMs);
        result.output = program.output();
        result.errors = program.errors();
    }
    return result;
}

} // namespace systemtest
