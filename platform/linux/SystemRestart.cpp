#include "platform/System.h"

#include <sys/reboot.h>

namespace platform {

int restartMachine() {
    return ::reboot(RB_AUTOBOOT);
}

} // namespace platform
