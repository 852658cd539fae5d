#include "platform/Heartbeat.h"

#include "platform/linux/HeartbeatRegistry.h"

namespace {

constexpr char kSegmentName[] = "/meter_heartbeat.shared";

} // namespace

void heartbeat_notify() {
    platform::HeartbeatRegistry(kSegmentName).notify();
}

int heartbeat_check(int pid, int expireSeconds) {
    return platform::HeartbeatRegistry(kSegmentName).check(pid, expireSeconds);
}

void heartbeat_cleanup(int pid) {
    platform::HeartbeatRegistry(kSegmentName).cleanup(pid);
}
