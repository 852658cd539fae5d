#include "platform/linux/PidFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/Process.h"
#include "platform/UniqueFd.h"
#include "platform/linux/Files.h"
#include "platform/linux/FixedText.h"

namespace platform {
namespace {

constexpr mode_t kPidFileMode = 0644;

/// More than a pid file ever holds; what lies beyond is not looked at.
constexpr std::size_t kPidFileRead = 1024;

using Path = FixedText<PATH_MAX>;

bool isPlainFile(const char* path) {
    struct stat facts = {};
    return ::stat(path, &facts) == 0 && S_ISREG(facts.st_mode);
}

/// Takes the next line, without its end, off the front of `text`.
std::string_view takeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

/// Opens the pid file `path` to be written anew. A second name would be that of another file, put
/// here so that it is overwritten: nothing gives a pid file one.
UniqueFd openToRewrite(std::string_view path, int flags) {
    const UniqueFd folder = openFolderOf(path);
    Path name;
    name.add(path.substr(path.rfind('/') + 1));
    struct stat facts = {};
    UniqueFd file;
    if (folder.valid()) {
        file = openPlainFileAt(folder.get(), name.c_str(), (flags & ~O_TRUNC) | O_NOFOLLOW,
                               kPidFileMode, facts);
    }
    if (file.valid() && facts.st_nlink != 1) {
        file.reset();
        errno = EMLINK;
    }
    if (file.valid() &&
        (::fchmod(file.get(), kPidFileMode) != 0 || ::ftruncate(file.get(), 0) != 0)) {
        file.reset();
    }
    return file;
}

constexpr char kPidFileFolder[] = "/tmp/pid";

/// argv[0] of process `pid`, viewed in `buffer`; empty when there is none.
std::string_view programOf(pid_t pid, char (&buffer)[PATH_MAX]) {
    FixedText<32> source;
    source.add("/proc/").addNumber(pid).add("/cmdline");
    const ssize_t count = readFileOnce(source.c_str(), buffer, sizeof buffer);
    return {buffer, count > 0 ? ::strnlen(buffer, static_cast<std::size_t>(count)) : 0};
}

/// Name of the pid file below `base` and `root` of the program `program` running as `pid`.
Path pidFileName(std::string_view base, std::string_view root, std::string_view program,
                 pid_t pid) {
    Path name;
    name.add(base).add(root).add(program).add(".pid.").addNumber(pid);
    return name;
}

} // namespace

bool confirmsPidAndVersion(std::string_view text, pid_t pid, std::string_view version) {
    FixedText<16> expected;
    expected.addNumber(pid);
    const std::string_view pidLine = takeLine(text);
    const std::string_view versionLine = takeLine(text);
    return pid > 0 && pidLine == expected.view() && (version.empty() || versionLine == version);
}

int writtenPidFileName(std::string_view base, const char* root, pid_t pid, char* buffer,
                       int* length) {
    char arguments[PATH_MAX];
    const std::string_view program = programOf(pid, arguments);
    if (program.empty()) {
        return -1;
    }
    Path name = pidFileName(base, root != nullptr ? root : "", program, pid);
    bool exists = isPlainFile(name.c_str());
    if (!exists && root != nullptr) {
        name = pidFileName(base, "", program, pid);
        exists = isPlainFile(name.c_str());
    }
    const std::string_view text = name.view();
    if (!exists || name.wasCut() || static_cast<std::int64_t>(text.size()) >= *length) {
        return -1;
    }
    std::memcpy(buffer, name.c_str(), text.size() + 1);
    *length = static_cast<int>(text.size());
    return 0;
}

} // namespace platform

int get_pid_filename(const int* pid, char* buffer, int* length) {
    if (pid == nullptr || *pid <= 0 || buffer == nullptr || length == nullptr) {
        return -1;
    }
    return platform::writtenPidFileName(platform::kPidFileFolder, std::getenv("METER_ROOT"), *pid,
                                        buffer, length);
}

int read_pid_file_version(const appinfo& record, const char* path, const char* version) {
    if (path == nullptr) {
        return -1;
    }
    struct stat facts = {};
    const platform::UniqueFd file = platform::openNamedPlainFile(path, facts);
    if (!file.valid()) {
        return -1;
    }
    char content[platform::kPidFileRead];
    // One call brings a whole file of this size.
    const ssize_t count = ::read(file.get(), content, sizeof content);
    if (count <= 0) {
        return -1;
    }
    const std::string_view text(content, static_cast<std::size_t>(count));
    const char* expected = version != nullptr ? version : "";
    return platform::confirmsPidAndVersion(text, record.pid, expected) ? 0 : -1;
}

int set_pid_file_version(int* pid, const char* path, int flags, const char* version) {
    if (pid == nullptr || path == nullptr) {
        return -1;
    }
    platform::Path name;
    name.add(path).add(".").addNumber(*pid);
    platform::FixedText<platform::kPidFileRead> content;
    content.addNumber(*pid).add("\n").add(version != nullptr ? version : "").add("\n");
    if (name.wasCut() || content.wasCut()) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const platform::UniqueFd file = platform::openToRewrite(name.view(), flags);
    if (!file.valid()) {
        return -1;
    }
    const auto size = static_cast<ssize_t>(content.view().size());
    const ssize_t written =
        platform::writeFully(file.get(), content.c_str(), content.view().size());
    return written == size ? 0 : -1;
}
