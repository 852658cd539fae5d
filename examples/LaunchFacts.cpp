#include "examples/LaunchFacts.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>

#include "platform/UniqueFd.h"

namespace sample {
namespace {

const char kUnknown[] = "unknown";

void addFact(std::string& facts, const std::string& key, const std::string& value) {
    facts += key + "=";
    for (const char character : value) {
        if (character == '\n') {
            facts += "\\n";
        } else {
            facts += character;
        }
    }
    facts += "\n";
}

/// The open descriptors, without the one that lists them.
std::set<int> openDescriptors() {
    std::set<int> descriptors;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/fd"), &::closedir);
    if (folder == nullptr) {
        return descriptors;
    }
    while (const dirent* entry = ::readdir(folder.get())) {
        if (entry->d_name[0] != '.') {
            descriptors.insert(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
        }
    }
    descriptors.erase(::dirfd(folder.get()));
    return descriptors;
}

std::string linkTarget(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    return length < 0 ? kUnknown : std::string(target, static_cast<std::size_t>(length));
}

void addDescriptors(std::string& facts) {
    std::string list;
    std::string targets;
    for (const int descriptor : openDescriptors()) {
        const std::string number = std::to_string(descriptor);
        list += (list.empty() ? "" : " ") + number;
        addFact(targets, "fd." + number, linkTarget("/proc/self/fd/" + number));
    }
    addFact(facts, "fds", list);
    facts += targets;
}

/// The value of a line "KEY:\tVALUE" of /proc/self/status.
std::string statusValue(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        const std::string start = key + ":\t";
        if (line.compare(0, start.size(), start) == 0) {
            return line.substr(start.size());
        }
    }
    return kUnknown;
}

std::string workingDirectory() {
    char path[PATH_MAX];
    return ::getcwd(path, sizeof path) != nullptr ? path : kUnknown;
}

std::string creationMask() {
    const mode_t mask = ::umask(0);
    (void)::umask(mask); // put back
    char text[8];
    (void)std::snprintf(text, sizeof text, "%03o", static_cast<unsigned>(mask) & 0777u);
    return text;
}

std::string niceValue() {
    errno = 0;
    const int value = ::getpriority(PRIO_PROCESS, 0);
    return value == -1 && errno != 0 ? kUnknown : std::to_string(value);
}

std::string firstLine(const char* path) {
    std::ifstream file(path);
    std::string line;
    return std::getline(file, line) ? line : kUnknown;
}

} // namespace

std::string describeLaunch(int argc, const char* const* argv) {
    std::string facts;
    addDescriptors(facts);
    addFact(facts, "launch_pid", std::to_string(::getpid()));
    addFact(facts, "launch_ppid", std::to_string(::getppid()));
    addFact(facts, "launch_sid", std::to_string(::getsid(0)));
    addFact(facts, "cwd", workingDirectory());
    addFact(facts, "umask", creationMask());
    for (const char* key : {"SigBlk", "SigIgn", "SigCgt"}) {
        addFact(facts, key, statusValue(key));
    }
    addFact(facts, "nice", niceValue());
    addFact(facts, "oom_score_adj", firstLine("/proc/self/oom_score_adj"));
    addFact(facts, "argc", std::to_string(argc));
    for (int index = 0; index < argc; ++index) {
        addFact(facts, "arg." + std::to_string(index), argv[index]);
    }
    return facts;
}

bool writeReport(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".tmp";
    (void)::unlink(temporary.c_str()); // Left over, or planted: only a new file is written.
    {
        const platform::UniqueFd file(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (!file.valid() || platform::writeFully(file.get(), text.data(), text.size()) !=
                                 static_cast<ssize_t>(text.size())) {
            return false;
        }
    }
    return ::rename(temporary.c_str(), path.c_str()) == 0;
}

} // namespace sample
