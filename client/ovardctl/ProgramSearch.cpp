#include "client/ovardctl/ProgramSearch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <optional>

namespace ovardctl {
namespace {

constexpr int kMostLinks = 40;

/// Cuts the first component off `path`.
std::string takeComponent(std::string& path) {
    const std::size_t end = path.find('/');
    std::string component = path.substr(0, end);
    path.erase(0, end == std::string::npos ? end : end + 1);
    return component;
}

/// The target of a symbolic link; empty for everything else.
std::string targetOf(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

/// The path below `root` that `path` leads to when `root` is taken for the root directory, all
/// links followed. None when there are too many of them.
std::optional<std::string> resolveBelow(const std::string& root, std::string path) {
    std::string resolved;
    int links = 0;
    while (!path.empty()) {
        const std::string component = takeComponent(path);
        if (component.empty() || component == ".") {
            continue;
        }
        const std::string parent = resolved.substr(0, resolved.rfind('/'));
        if (component == "..") {
            resolved = parent;
            continue;
        }
        std::string next = resolved;
        next += '/' + component;
        const std::string target = targetOf(root + next);
        if (target.empty()) {
            resolved = next;
        } else if (++links > kMostLinks) {
            return std::nullopt;
        } else {
            resolved = target.front() == '/' ? std::string() : resolved;
            path.insert(0, target + '/');
        }
    }
    return root + resolved;
}

} // namespace

ProgramState examineProgram(const std::string& root, const std::string& program) {
    constexpr mode_t kExecutable = S_IXUSR | S_IXGRP | S_IXOTH;
    const std::optional<std::string> path = root.empty() ? program : resolveBelow(root, program);
    struct stat facts = {};
    if (!path.has_value()) {
        return ProgramState::Unknown;
    }
    if (::stat(path->c_str(), &facts) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? ProgramState::Missing : ProgramState::Unknown;
    }
    if (!S_ISREG(facts.st_mode)) {
        return ProgramState::NotPlain;
    }
    return (facts.st_mode & kExecutable) != 0 ? ProgramState::Executable
                                              : ProgramState::NotExecutable;
}

} // namespace ovardctl
