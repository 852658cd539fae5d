// An application that forks without end, as another user than root, up to a limit of its own: the
// machine on which the tests run must not suffer. Its words: that user's number, the most processes
// that it may have, and the path of its pid file.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

namespace {

constexpr int kExitUsage = 2;
constexpr useconds_t kForkPauseUs = 100000;
constexpr unsigned long kMostAllowed = 200;

/// Root has no limit of processes, so that there must be another user before the first fork.
bool limitSelf(uid_t user, rlim_t most) {
    const rlimit limit = {most, most};
    return user != 0 && most <= kMostAllowed && ::setresgid(user, user, user) == 0 &&
           ::setrlimit(RLIMIT_NPROC, &limit) == 0 && ::setresuid(user, user, user) == 0 &&
           ::getuid() == user && ::geteuid() == user;
}

void writePidFile(const char* path) {
    const std::string text = std::to_string(::getpid()) + "\n1.0\n";
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    (void)!::write(fd, text.data(), text.size()); // the test would miss it
    (void)::close(fd);                            // as above
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4 || !limitSelf(static_cast<uid_t>(std::strtoul(argv[1], nullptr, 10)),
                                std::strtoul(argv[2], nullptr, 10))) {
        return kExitUsage;
    }
    if (::fork() != 0) {
        return 0; // the child is the application
    }
    (void)::setsid();                    // cannot fail in a child that has just been forked
    (void)std::signal(SIGCHLD, SIG_IGN); // no zombie takes the place of a process
    writePidFile(argv[3]);
    for (;;) {
        (void)!::fork(); // refused most of the time
        (void)::usleep(kForkPauseUs);
    }
}
