#include "tests/bench/SleepingProcesses.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>

namespace bench {
namespace {

/// A program in the directory of this one; empty when that cannot be told.
std::string besideThisProgram(const char* name) {
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    if (length < 0) {
        return {};
    }
    const std::string self(path, static_cast<std::size_t>(length));
    return self.substr(0, self.rfind('/') + 1) + name;
}

} // namespace

SleepingProcesses::SleepingProcesses(const char* program)
    : program_(besideThisProgram(program)) {}

SleepingProcesses::~SleepingProcesses() {
    for (const pid_t pid : pids_) {
        ::kill(pid, SIGKILL);
    }
    for (const pid_t pid : pids_) {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

bool SleepingProcesses::start(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str())); // not written by posix_spawn
    }
    arguments.push_back(nullptr);
    char* noEnvironment[] = {nullptr};
    pid_t pid = 0;
    if (::posix_spawn(&pid, program_.c_str(), nullptr, nullptr, arguments.data(), noEnvironment) !=
        0) {
        return false;
    }
    pids_.push_back(pid);
    return true;
}

} // namespace bench
