#include "tests/system/HeldStart.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace systemtest {
namespace {

constexpr const char* kTimeZone = "TZ";
constexpr const char* kFifo = "/tmp/held_time_zone";

} // namespace

HeldStart::HeldStart()
    : holds_(::mkfifo(kFifo, 0600) == 0 && ::setenv(kTimeZone, kFifo, 1) == 0) {}

HeldStart::~HeldStart() {
    release();
}

void HeldStart::release() {
    if (!holds_) {
        return;
    }
    holds_ = false;
    (void)::unsetenv(kTimeZone); // of the processes that come later
    // Opened for writing it lets every reader in, closed again it ends.
    const int fifo = ::open(kFifo, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    (void)::unlink(kFifo);
    (void)::close(fifo);
}

} // namespace systemtest
