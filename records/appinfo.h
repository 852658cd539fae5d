// The record of one supervised application.
//
// Plain C++17; may be included by other programs as it stands.

#ifndef OVARD_RECORDS_APPINFO_H
#define OVARD_RECORDS_APPINFO_H

#include <cstddef>
#include <cstdint>
#include <type_traits>

/// One supervised application: 1224 bytes, copied whole. Integers are in the byte order of the
/// machine; texts end with a NUL inside their arrays.
struct appinfo {
    std::int32_t pid;                     ///< process id of the running application; 0 when none
    char name[64];                        ///< the key by which requests find the record
    char version[32];                     ///< version text
    char cmd[1024];                       ///< program path and arguments separated by blanks
    char pidfile[64];                     ///< pid file that the application writes; may be empty
    std::int32_t status;                  ///< one of AppStatus
    std::int32_t start_time;              ///< seconds since the epoch: last launch or discovery
    std::int32_t uptime;                  ///< seconds the application has been running
    std::int32_t port_type;               ///< one of PortType
    std::int32_t port_num;                ///< serial port index or IP port
    std::int32_t priority;                ///< process priority asked for; 0 leaves it alone
    std::uint8_t check_flag;              ///< cleared at every launch; kept by supervision
    std::uint8_t keepalive;               ///< keep-alive choice of the request
    std::uint8_t heartbeat;               ///< heartbeat choice of the request
    std::uint8_t reserved;                ///< padding, not written
    std::int32_t restart_type;            ///< one of RestartType
    std::int32_t last_runtime_life_limit; ///< seconds; limit on the last run's lifetime
};

static_assert(std::is_trivially_copyable_v<appinfo> && std::is_standard_layout_v<appinfo>);
static_assert(sizeof(appinfo) == 1224);
static_assert(offsetof(appinfo, pid) == 0);
static_assert(offsetof(appinfo, name) == 4);
static_assert(offsetof(appinfo, version) == 68);
static_assert(offsetof(appinfo, cmd) == 100);
static_assert(offsetof(appinfo, pidfile) == 1124);
static_assert(offsetof(appinfo, status) == 1188);
static_assert(offsetof(appinfo, start_time) == 1192);
static_assert(offsetof(appinfo, uptime) == 1196);
static_assert(offsetof(appinfo, port_type) == 1200);
static_assert(offsetof(appinfo, port_num) == 1204);
static_assert(offsetof(appinfo, priority) == 1208);
static_assert(offsetof(appinfo, check_flag) == 1212);
static_assert(offsetof(appinfo, keepalive) == 1213);
static_assert(offsetof(appinfo, heartbeat) == 1214);
static_assert(offsetof(appinfo, reserved) == 1215);
static_assert(offsetof(appinfo, restart_type) == 1216);
static_assert(offsetof(appinfo, last_runtime_life_limit) == 1220);

#endif // OVARD_RECORDS_APPINFO_H
