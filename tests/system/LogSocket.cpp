#include "tests/system/LogSocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

constexpr const char* kAside = "/dev/log.aside";

sockaddr_un logAddress() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kLogSocket, std::strlen(kLogSocket));
    return address;
}

int openDatagramSocket() {
    return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

/// Sends to the log until it takes no more. False when it refuses for another reason.
bool fillLog() {
    const int sender = openDatagramSocket();
    const sockaddr_un address = logAddress();
    ssize_t count = 0;
    while (count >= 0) {
        count = ::sendto(sender, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address),
                         sizeof address);
    }
    const bool isFull = errno == EAGAIN;
    (void)::close(sender); // what it sent stays in the queue
    return isFull;
}

} // namespace

LogAside::LogAside() {
    (void)std::rename(kLogSocket, kAside); // the tests notice when it is still there
}

LogAside::~LogAside() {
    (void)std::rename(kAside, kLogSocket); // cleanMachine tries again
}

HeldLog::HeldLog()
    : socket_(openDatagramSocket()) {
    const sockaddr_un address = logAddress();
    holds_ = ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
             fillLog();
}

HeldLog::~HeldLog() {
    (void)::close(socket_);     // nothing is buffered
    (void)::unlink(kLogSocket); // the real one is put back over it in any case
}

} // namespace systemtest
