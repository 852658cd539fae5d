#include "TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace testsupport {

TemporaryDirectory::TemporaryDirectory()
    : path_("/tmp/ovard-platform-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) {
        std::abort();
    }
}

TemporaryDirectory::~TemporaryDirectory() {
    removeTree(path_);
}

void removeTree(const std::string& path) {
    if (::unlink(path.c_str()) == 0) {
        return;
    }
    DIR* const directory = ::opendir(path.c_str());
    if (directory == nullptr) {
        return;
    }
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            removeTree(path + "/" + name);
        }
    }
    ::closedir(directory);
    ::rmdir(path.c_str());
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string readText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

bool exists(const std::string& path) {
    struct stat facts = {};
    return ::lstat(path.c_str(), &facts) == 0;
}

mode_t modeOf(const std::string& path) {
    struct stat facts = {};
    return ::lstat(path.c_str(), &facts) == 0 ? facts.st_mode & 07777 : 0;
}

EnvironmentGuard::EnvironmentGuard(const char* name, const char* value)
    : name_(name)
    , wasSet_(std::getenv(name) != nullptr)
    , previous_(wasSet_ ? std::getenv(name) : "") {
    if (value != nullptr) {
        ::setenv(name, value, 1);
    } else {
        ::unsetenv(name);
    }
}

EnvironmentGuard::~EnvironmentGuard() {
    if (wasSet_) {
        ::setenv(name_.c_str(), previous_.c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

CapturedDescriptor::CapturedDescriptor(int fd)
    : fd_(fd)
    , saved_(::fcntl(fd, F_DUPFD_CLOEXEC, 3)) {
    const platform::UniqueFd file(::open(directory_.file("captured").c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    ::dup2(file.get(), fd_);
}

CapturedDescriptor::~CapturedDescriptor() {
    ::dup2(saved_.get(), fd_);
}

int awaitChild(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) != child) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void ChildGuard::end() {
    if (child_ > 0) {
        ::kill(child_, SIGKILL);
        (void)awaitChild(child_);
        child_ = -1;
    }
}

namespace {

constexpr char kSleeper[] = "OVARD_TEST_SLEEPER";

/// Started as a sleeper this program does nothing else. Other programs that sleep may look at
/// argv[0], as busybox does.
__attribute__((constructor)) void sleepIfStartedAsSleeper() {
    while (std::getenv(kSleeper) != nullptr) {
        ::pause();
    }
}

} // namespace

pid_t startSleeper(const std::string& program, const char* seconds) {
    char self[PATH_MAX] = "";
    (void)!::readlink("/proc/self/exe", self, sizeof self - 1);
    const pid_t child = startChild([&] {
        ::setenv(kSleeper, "", 1);
        ::execl(self, program.c_str(), seconds, nullptr);
        ::execl("/bin/sleep", program.c_str(), seconds, nullptr); // in the emulation of a process
        return 127;
    });
    const std::string nul(1, '\0');
    const std::string commandLine = program + nul + seconds + nul;
    // The kernel shows it a moment after the exec has closed the descriptors.
    EXPECT_TRUE(eventually(
        [&] { return readText("/proc/" + std::to_string(child) + "/cmdline") == commandLine; }));
    return child;
}

} // namespace testsupport
