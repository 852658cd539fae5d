// Codes shared by the monitor and the programs that talk to it, with their display texts.
//
// Plain C++17; may be included by other programs as it stands.

#ifndef OVARD_RECORDS_CODES_H
#define OVARD_RECORDS_CODES_H

#include <cstdint>

/// What a control request asks for (`reqcmd::action`).
enum AppmonAction : std::int32_t {
    APPMONCTL_Start = 0,
    APPMONCTL_Stop = 1,
    APPMONCTL_Stop_All = 2,
    APPMONCTL_Stop_All_But = 3,
    APPMONCTL_Stop_PortApps = 4,
    APPMONCTL_Restart = 5,
    APPMONCTL_Restart_All = 6,
    APPMONCTL_Restart_All_But = 7,
    APPMONCTL_Restart_PortApps = 8,
    APPMONCTL_Reserved9 = 9,   ///< accepted, does nothing, no reply
    APPMONCTL_Reserved10 = 10, ///< accepted, does nothing, no reply
};

/// Status of a supervised application (`appinfo::status`).
enum AppStatus : std::int32_t {
    APP_STATUS_INITIALIZING = 0,  ///< registered, not yet launched
    APP_STATUS_STARTING0 = 1,     ///< launched, pid file not yet checked
    APP_STATUS_STARTING = 2,      ///< start in progress, pid file confirmed
    APP_STATUS_RUNNING0 = 3,      ///< running, pid file not yet confirmed
    APP_STATUS_RUNNING = 4,       ///< running, pid file confirmed
    APP_STATUS_STOPPED = 5,       ///< stopped on purpose
    APP_STATUS_DEAD = 6,          ///< process vanished
    APP_STATUS_STOPPING = 7,      ///< for readers of the status; never set by this monitor
    APP_STATUS_START_FAILURE = 8, ///< could not be launched
    APP_STATUS_APP_LATE = 9,      ///< for readers of the status; never set by this monitor
    APP_STATUS_MONITOR_DIE = 10,  ///< for readers of the status; never set by this monitor
};

/// Display names, indexed by `AppStatus`.
/// Deliberate: the two phases of starting, and those of running, share one text.
inline constexpr const char* OVARD_APP_STATUS_STR[11] = {
    "initializing", "starting", "starting",      "started",  "started",     "stopped",
    "dead",         "stopping", "start failure", "app late", "monitor die",
};

/// Kind of port that an application serves (`reqcmd::porttype`, `appinfo::port_type`).
enum PortType : std::int32_t {
    PORT_TYPE_NONE = 0,
    PORT_TYPE_COM = 1,
    PORT_TYPE_ETH = 2,
};

/// Display names, indexed by `PortType`.
inline constexpr const char* PORT_TYPE_STR[3] = {"None", "COM", "Eth"};

/// Restart policy of an application (`restart_type`); every other value acts like SELF when the
/// application is restarted by itself.
enum RestartType : std::int32_t {
    RESTART_TYPE_SELF = 0, ///< restart this application alone
    RESTART_TYPE_ALL = 1,  ///< ask for a restart of all applications instead
};

#endif // OVARD_RECORDS_CODES_H
