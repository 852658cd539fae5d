#include "platform/Heartbeat.h"

#include "platform/linux/HeartbeatRegistry.h"

using platform::kHeartbeatSegmentName;

void heartbeat_notify() {
    platform::HeartbeatRegistry(kHeartbeatSegmentName).notify();
}

int heartbeat_check(int pid, int expireSeconds) {
    return platform::HeartbeatRegistry(kHeartbeatSegmentName).check(pid, expireSeconds);
}

void heartbeat_cleanup(int pid) {
    platform::HeartbeatRegistry(kHeartbeatSegmentName).cleanup(pid);
}
