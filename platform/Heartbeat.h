// The instrument's heartbeat registry. Applications and the monitor link the same functions:
// heartbeat_notify, heartbeat_check and heartbeat_cleanup.

#ifndef OVARD_PLATFORM_HEARTBEAT_H
#define OVARD_PLATFORM_HEARTBEAT_H

#include "platform/ovard_application.h"

#endif // OVARD_PLATFORM_HEARTBEAT_H
