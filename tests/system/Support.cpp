#include "tests/system/Support.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace systemtest {
namespace {

constexpr int kPollMs = 3;

std::string fromEnvironment(const char* name, const char* fallback) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

std::string resolved(const std::string& path) {
    char buffer[PATH_MAX];
    return ::realpath(path.c_str(), buffer) != nullptr ? buffer : path;
}

/// Mount points, the folders of the programs and the current directory: never to be removed.
std::vector<std::string> protectedPaths() {
    std::vector<std::string> paths = {resolved("."), folderOf(resolved("/proc/self/exe"))};
    for (const std::string& program : {daemonProgram(), controlProgram(), sampleProgram()}) {
        paths.push_back(folderOf(resolved(program)));
    }
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string skipped;
        std::string mountPoint;
        fields >> skipped >> skipped >> skipped >> skipped >> mountPoint;
        paths.push_back(mountPoint);
    }
    return paths;
}

bool isBelow(const std::string& path, const std::string& folder) {
    return path.compare(0, folder.size() + 1, folder + "/") == 0;
}

enum class Removal { Whole, PartsOnly, None };

/// What may be done to an entry of a directory that is being emptied.
Removal removalOf(const std::string& path, const std::vector<std::string>& kept) {
    Removal removal = Removal::Whole;
    for (const std::string& keep : kept) {
        if (path == keep) {
            return Removal::None;
        }
        if (isBelow(keep, path)) {
            removal = Removal::PartsOnly;
        }
    }
    return removal;
}

void emptyDirectoryBut(const std::string& directory, const std::vector<std::string>& kept) {
    for (const std::string& path : entriesOf(directory)) {
        const Removal removal = removalOf(path, kept);
        struct stat facts = {};
        if (removal == Removal::None || ::lstat(path.c_str(), &facts) != 0) {
            continue;
        }
        const bool isDirectory = S_ISDIR(facts.st_mode);
        if (isDirectory) {
            emptyDirectoryBut(path, kept);
        }
        if (removal == Removal::Whole) {
            (void)(isDirectory ? ::rmdir(path.c_str()) : ::unlink(path.c_str()));
        }
    }
}

} // namespace

std::string daemonProgram() {
    return fromEnvironment("OVARD_BINARY", OVARD_BINARY);
}

std::string controlProgram() {
    return fromEnvironment("OVARDCTL_BINARY", OVARDCTL_BINARY);
}

std::string sampleProgram() {
    return fromEnvironment("SAMPLE_APP_BINARY", SAMPLE_APP_BINARY);
}

std::string minimalProgram() {
    return fromEnvironment("MINIMAL_APP_BINARY", MINIMAL_APP_BINARY);
}

std::string forkingProgram() {
    return fromEnvironment("FORKING_APP_BINARY", FORKING_APP_BINARY);
}

std::string setSignalsProgram() {
    return fromEnvironment("SET_SIGNALS_BINARY", SET_SIGNALS_BINARY);
}

std::string clientExampleProgram() {
    return fromEnvironment("CLIENT_EXAMPLE_BINARY", CLIENT_EXAMPLE_BINARY);
}

std::string wallClockLibrary() {
    return fromEnvironment("WALL_CLOCK_LIBRARY", WALL_CLOCK_LIBRARY);
}

std::string refusedMemoryLibrary() {
    return fromEnvironment("REFUSED_MEMORY_LIBRARY", REFUSED_MEMORY_LIBRARY);
}

std::string sandboxProgram() {
    return fromEnvironment("SANDBOX_PROGRAM", SANDBOX_PROGRAM);
}

std::string sandboxInitProgram() {
    return fromEnvironment("SANDBOX_INIT_BINARY", SANDBOX_INIT_BINARY);
}

std::int64_t monotonicMs() {
    timespec now = {};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail for this clock
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void sleepMs(int milliseconds) {
    const std::int64_t end = monotonicMs() + milliseconds;
    for (std::int64_t left = milliseconds; left > 0; left = end - monotonicMs()) {
        timespec span = {};
        span.tv_sec = static_cast<time_t>(left / 1000);
        span.tv_nsec = static_cast<long>(left % 1000 * 1000000);
        (void)::nanosleep(&span, nullptr); // the loop looks at the clock
    }
}

bool eventually(const std::function<bool()>& condition, int timeoutMs) {
    const std::int64_t deadline = monotonicMs() + timeoutMs;
    while (!condition()) {
        if (monotonicMs() >= deadline) {
            return condition();
        }
        sleepMs(kPollMs);
    }
    return true;
}

bool isAllRead(int socket) {
    int unread = -1;
    return ::ioctl(socket, SIOCOUTQ, &unread) == 0 && unread == 0;
}

bool fileExists(const std::string& path) {
    struct stat facts = {};
    return ::lstat(path.c_str(), &facts) == 0;
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool writeFile(const std::string& path, const std::string& content) {
    if (!makeDirectories(folderOf(path))) {
        return false;
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    return file.good();
}

int permissions(const std::string& path) {
    struct stat facts = {};
    return ::lstat(path.c_str(), &facts) == 0 ? static_cast<int>(facts.st_mode & 07777) : -1;
}

bool makeDirectories(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        (void)::mkdir(path.substr(0, slash).c_str(), 0755); // the last one tells
    }
    return ::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

bool copyProgram(const std::string& from, const std::string& to) {
    const std::string content = readFile(from);
    return !content.empty() && writeFile(to, content) && ::chmod(to.c_str(), 0755) == 0;
}

std::vector<std::string> entriesOf(const std::string& directory) {
    std::vector<std::string> paths;
    const std::string start = directory + "/";
    DIR* const stream = ::opendir(directory.c_str());
    if (stream == nullptr) {
        return paths;
    }
    while (const dirent* const entry = ::readdir(stream)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            paths.push_back(start + name);
        }
    }
    (void)::closedir(stream);
    std::sort(paths.begin(), paths.end());
    return paths;
}

void emptyDirectory(const std::string& directory) {
    // Everything else belongs to the real machine.
    constexpr const char* kPrivateFolders[] = {"/tmp", "/dev/shm", "/home",
                                               "/mnt", "/var/log", "/var/lib/dhcp"};
    const bool isPrivate = std::any_of(std::begin(kPrivateFolders), std::end(kPrivateFolders),
                                       [&](const std::string& folder) {
                                           return directory == folder || isBelow(directory, folder);
                                       });
    if (!isPrivate) {
        throw std::invalid_argument("not a private folder of the sandbox: " + directory);
    }
    emptyDirectoryBut(directory, protectedPaths());
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

std::uint64_t numberFromEnvironment(const char* name, std::uint64_t fallback) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::strtoull(value, nullptr, 10) : fallback;
}

} // namespace systemtest
