// Linked in place of the platform's own source: a benchmark cannot restart the machine.

#include "platform/System.h"

namespace platform {

int restartMachine() {
    return -1;
}

} // namespace platform
