// Sends each argument to /dev/log as one datagram, followed by a NUL as the C library's syslog on
// some systems does, when the argument is preceded by --nul.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int /*argc*/, char** argv) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)std::snprintf(address.sun_path, sizeof address.sun_path, "/dev/log");
    if (fd == -1 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1) {
        std::perror("/dev/log");
        return EXIT_FAILURE;
    }
    for (char** argument = argv + 1; *argument != nullptr; ++argument) {
        std::size_t extra = 0;
        if (std::strcmp(*argument, "--nul") == 0 && argument[1] != nullptr) {
            ++argument;
            extra = 1;
        }
        if (send(fd, *argument, std::strlen(*argument) + extra, 0) == -1) {
            std::perror("send");
            return EXIT_FAILURE;
        }
    }
    (void)close(fd);
    return EXIT_SUCCESS;
}
