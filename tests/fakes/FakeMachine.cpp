// The machine, its network and its heartbeats.

#include <cstdio>
#include <cstring>

#include "platform/Heartbeat.h"
#include "platform/Network.h"
#include "platform/System.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace platform {

void flushFileSystems() {
    world().record("sync");
}

void raiseDescriptorLimit() {
    world().record("raiseDescriptorLimit");
}

int runShellCommand(const char* command) {
    const Lock lock;
    world().record(joined("shell", command));
    return static_cast<int>(fakes::takeResult(world().shellResults, 0));
}

int restartMachine() {
    const Lock lock;
    world().record("restart");
    return static_cast<int>(fakes::takeResult(world().restartResults, 0));
}

int identifyKernel(utsname& identity) {
    const Lock lock;
    identity = world().kernel;
    return 0;
}

long uptimeSeconds() {
    const Lock lock;
    if (world().uptimeSec < 0) {
        errno = world().uptimeErrno;
        return -1;
    }
    return static_cast<long>(world().uptimeSec);
}

long clockTicksPerSecond() {
    const Lock lock;
    return world().clockTicksPerSecond;
}

} // namespace platform

bool isEstablishedTCPconnectionOnPort22(sockaddr_in6* peer) {
    const Lock lock;
    world().record("port22");
    if (world().remoteShellConnected && peer != nullptr) {
        *peer = world().remotePeer;
    }
    return world().remoteShellConnected;
}

int getIpAddress(const char* interface, int family, char* text, int length, int reserved1,
                 int reserved2) {
    const Lock lock;
    world().record(joined("getIpAddress", interface, family, length, reserved1, reserved2));
    const auto found = world().ipAddresses.find({interface, family});
    const std::string address = found != world().ipAddresses.end() ? found->second : "";
    const auto room = static_cast<std::size_t>(length);
    (void)std::snprintf(text, room, "%s", address.c_str());
    if (world().addressesLackNul && address.size() >= room) {
        std::memcpy(text, address.data(), room);
    }
    return address.empty() ? -1 : 0;
}

const void* get_in_addr(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        return &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    }
    return &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
}

void heartbeat_notify() {
    const Lock lock;
    world().record("heartbeat_notify");
    if (world().beatErrno == 0) {
        world().heartbeats[world().ownPid] = platform::kHeartbeatFresh;
    } else {
        errno = world().beatErrno;
    }
}

int heartbeat_check(int pid, int expireSeconds) {
    const Lock lock;
    world().record(joined("heartbeat_check", pid, expireSeconds));
    const auto found = world().heartbeats.find(pid);
    return found != world().heartbeats.end() ? found->second : platform::kHeartbeatNone;
}

void heartbeat_cleanup(int pid) {
    const Lock lock;
    world().record(joined("heartbeat_cleanup", pid));
    world().heartbeats.erase(pid);
}
