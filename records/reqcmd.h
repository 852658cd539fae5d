// The control request, as it travels over the control socket and as it lies in request files.
//
// Plain C++17; may be included by other programs as it stands.

#ifndef OVARD_RECORDS_REQCMD_H
#define OVARD_RECORDS_REQCMD_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

/// One control request: 1216 bytes, integers in the byte order of the machine (the socket is
/// local). Texts end with a NUL inside their fields in well-formed records, but a record from
/// outside may lack it: read every text bounded by its field. The three booleans are bytes in
/// which any non-zero value is true.
struct reqcmd {
    char name[64];                        ///< application name, the key of the registry
    char version[32];                     ///< application version
    char cmd[1024];                       ///< command line that launches the application
    char pidfile[64];                     ///< path of the pid file that the application writes
    std::int32_t porttype;                ///< one of PortType
    std::int32_t portnum;                 ///< COM port number or IP port
    std::int32_t action;                  ///< one of AppmonAction
    std::int32_t priority;                ///< copied into the application's record
    std::int32_t delay;                   ///< carried along, used by no action
    std::uint8_t keepalive;               ///< carried along, supervision makes no use of it
    std::uint8_t nowait;                  ///< no reply is sent
    std::uint8_t heartbeat;               ///< the application reports heartbeats
    std::uint8_t reserved;                ///< padding, ignored
    std::int32_t restart_type;            ///< one of RestartType
    std::int32_t last_runtime_life_limit; ///< seconds; see the restart policy
};

static_assert(std::is_trivially_copyable_v<reqcmd> && std::is_standard_layout_v<reqcmd>);
static_assert(sizeof(reqcmd) == 1216);
static_assert(offsetof(reqcmd, name) == 0);
static_assert(offsetof(reqcmd, version) == 64);
static_assert(offsetof(reqcmd, cmd) == 96);
static_assert(offsetof(reqcmd, pidfile) == 1120);
static_assert(offsetof(reqcmd, porttype) == 1184);
static_assert(offsetof(reqcmd, portnum) == 1188);
static_assert(offsetof(reqcmd, action) == 1192);
static_assert(offsetof(reqcmd, priority) == 1196);
static_assert(offsetof(reqcmd, delay) == 1200);
static_assert(offsetof(reqcmd, keepalive) == 1204);
static_assert(offsetof(reqcmd, nowait) == 1205);
static_assert(offsetof(reqcmd, heartbeat) == 1206);
static_assert(offsetof(reqcmd, reserved) == 1207);
static_assert(offsetof(reqcmd, restart_type) == 1208);
static_assert(offsetof(reqcmd, last_runtime_life_limit) == 1212);

#endif // OVARD_RECORDS_REQCMD_H
