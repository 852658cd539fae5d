// The instrument's heartbeat registry. Applications and the monitor link the same functions:
// heartbeat_notify, heartbeat_check and heartbeat_cleanup.

#ifndef OVARD_PLATFORM_HEARTBEAT_H
#define OVARD_PLATFORM_HEARTBEAT_H

#include "platform/ovard_application.h"

namespace platform {

/// Name of the registry's segment.
inline constexpr char kHeartbeatSegmentName[] = "/meter_heartbeat.shared";

/// Results of heartbeat_check; every other one is a fresh heartbeat, too.
inline constexpr int kHeartbeatFresh = 1;
inline constexpr int kHeartbeatExpired = 2;
inline constexpr int kHeartbeatNone = 3;

} // namespace platform

#endif // OVARD_PLATFORM_HEARTBEAT_H
