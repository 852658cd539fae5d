// Descriptors and files: numbers that no real descriptor has, and a set of paths.

#include <cerrno>
#include <cstring>

#include "platform/System.h"
#include "platform/Text.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace platform {

int openPipe(int ends[2]) {
    const Lock lock;
    world().record("pipe");
    if (fakes::takeError(world().pipeErrors) != 0) {
        return -1;
    }
    ends[0] = world().newDescriptor();
    ends[1] = world().newDescriptor();
    return 0;
}

int closeDescriptor(int fd) {
    const Lock lock;
    world().record(joined("closefd", fd));
    return fakes::failIfScripted(world().closeErrors, fd);
}

ssize_t readDescriptor(int fd, void* buffer, std::size_t size) {
    const Lock lock;
    world().record(joined("read", fd, size));
    return fakes::takeInput(world().reads, buffer, size);
}

ssize_t writeDescriptor(int fd, const void* buffer, std::size_t size) {
    const Lock lock;
    world().record(joined("write", fd, size));
    const std::int64_t count =
        fakes::takeResult(world().writeResults, static_cast<std::int64_t>(size));
    if (count > 0) {
        world().written.push_back(
            {fd, std::string(static_cast<const char*>(buffer), static_cast<std::size_t>(count))});
    }
    return static_cast<ssize_t>(count);
}

void waitAtGate(int fd) {
    world().record(joined("gate", fd));
}

int removeFile(const char* path) {
    const Lock lock;
    world().record(joined("remove", path));
    if (fakes::failIfScripted(world().removeErrors, path) != 0) {
        return -1;
    }
    if (world().existingPaths.erase(path) + world().pidFiles.erase(path) == 0) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

bool pathExists(const char* path) {
    constexpr std::string_view kProc = "/proc/";
    const Lock lock;
    const std::string_view text = path;
    if (text.size() > kProc.size() && text.substr(0, kProc.size()) == kProc &&
        isAllDigits(path + kProc.size())) {
        return world().isAlive(std::stoi(std::string(text.substr(kProc.size()))));
    }
    return world().existingPaths.count(path) != 0 || world().pidFiles.count(path) != 0;
}

FileIdentity identifyFile(const char* path) {
    const Lock lock;
    const auto found = world().fileNumbers.find(path);
    if (found == world().fileNumbers.end()) {
        errno = ENOENT;
        return {};
    }
    if (found->second == 0) {
        errno = EIO;
        return {};
    }
    return {1, found->second};
}

} // namespace platform
