// The application monitor for other programs: control requests to it, and what it publishes.
//
// For C (C99) and C++ programs; link libovard_client (pkg-config: ovard_client). A whole program is
// examples/client_example.c, installed with the documentation of libovard-dev.
//
// - No call keeps anything between calls, starts a thread, changes signal handling, raises SIGPIPE,
//   throws, or leaves a descriptor open. Descriptors in use are closed on exec.
// - The caller owns every struct; the calls only read and fill them. No pointer is kept.
// - Every call may be made from any thread, and several at once with structs of their own; none
//   from a signal handler. A thread must not be cancelled in one.
// - Every call is bounded in time: ovard_send by its time-out, reading by 0.2 seconds, all others
//   wait for nothing. Signals do not lengthen them.
// - Texts that a call fills in always end with a NUL. Their content is no more than what somebody
//   has sent or published: it may hold any other byte.
// - errno is changed. After OVARD_SYSTEM_ERROR it tells the cause.

#ifndef OVARD_CLIENT_H
#define OVARD_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define OVARD_NOEXCEPT noexcept
extern "C" {
#else
#define OVARD_NOEXCEPT
#endif

/// Where the monitor listens. A null socket path in a call stands for it.
#define OVARD_SOCKET_PATH "/tmp/appmon_sock"

/// Time allowed for one request as a rule, in milliseconds. An action on all applications can take
/// many seconds: each stop and each launch is waited for.
#define OVARD_DEFAULT_TIMEOUT_MS 60000

/// Most applications that the monitor publishes.
#define OVARD_MOST_APPLICATIONS 127

/// How a call ended.
typedef enum ovard_result {
    OVARD_OK = 0,
    OVARD_NO_MONITOR = 1,        ///< there is no socket at the path, or nobody listens on it
    OVARD_TIMED_OUT = 2,         ///< the time-out passed
    OVARD_CONNECTION_CLOSED = 3, ///< the monitor closed the connection without a whole reply
    OVARD_SYSTEM_ERROR = 4,      ///< any other failure of the system; see errno
    OVARD_INVALID_ARGUMENT = 5,  ///< the call could never succeed like this; nothing was done
    OVARD_TOO_LONG = 6,          ///< a text does not fit its field; nothing was done
    OVARD_NOT_PUBLISHED = 7,     ///< nothing whole is published, or not yet
    OVARD_KEPT_CHANGING = 8      ///< it was written again and again while it was read
} ovard_result;

/// A few words of English on a result, without a line feed. Never null; the text is static.
const char* ovard_result_text(ovard_result result) OVARD_NOEXCEPT;

/// What a request asks for.
typedef enum ovard_action {
    OVARD_START = 0, ///< stop those of that name, then start it anew; the reply comes before it is
                     ///< known whether the program runs
    OVARD_STOP = 1,
    OVARD_STOP_ALL = 2,
    OVARD_STOP_ALL_BUT_SECURITY = 3, ///< all but the one named security_server
    OVARD_STOP_PORT_APPS = 4,        ///< all that serve a port
    OVARD_RESTART = 5, ///< with OVARD_RESTART_TYPE_ALL it is all applications that are restarted,
                       ///< in the next supervision pass, after the reply; an unknown name is no
                       ///< failure, nothing is done then
    OVARD_RESTART_ALL = 6,
    OVARD_RESTART_SELF_RESTARTING = 7, ///< all whose restart policy is OVARD_RESTART_TYPE_SELF
    OVARD_RESTART_PORT_APPS = 8        ///< all that serve a port
} ovard_action;

/// The kind of port that an application serves.
typedef enum ovard_port_type {
    OVARD_PORT_NONE = 0,
    OVARD_PORT_COM = 1,
    OVARD_PORT_ETH = 2
} ovard_port_type;

/// What happens when an application fails; with any other number it stays as it is.
typedef enum ovard_restart_type {
    OVARD_RESTART_TYPE_SELF = 0, ///< it is restarted alone
    OVARD_RESTART_TYPE_ALL = 1   ///< all applications are restarted, or the machine
} ovard_restart_type;

/// A request. Stop and restart of one application need the name alone, actions on several not even
/// that; what follows it counts for a start only.
typedef struct ovard_request {
    char name[64];          ///< under which the application is supervised
    char version[32];       ///< expected in its pid file; empty: any
    char command[1024];     ///< program path and arguments, separated by blanks
    char pidfile[64];       ///< that the application writes, removed before it is started; with an
                            ///< empty one it has to be written before the launch is over
    int32_t port_type;      ///< one of ovard_port_type
    int32_t port_number;    ///< COM port number or IP port
    int32_t action;         ///< one of ovard_action
    int32_t priority;       ///< of its process, as setpriority takes it; 0 leaves it alone
    int32_t delay;          ///< carried along; no action uses it
    uint8_t keepalive;      ///< carried along; supervision makes no use of it
    uint8_t no_wait;        ///< no reply is sent, nor waited for
    uint8_t heartbeat;      ///< the application reports heartbeats, which are required then
    uint8_t reserved;       ///< 0
    int32_t restart_type;   ///< one of ovard_restart_type
    int32_t life_limit_sec; ///< with OVARD_RESTART_TYPE_ALL: a failure of an application that had
                            ///< run for less than this restarts all applications, every other one
                            ///< the machine, also when it never came up
} ovard_request;

/// A request for `action` with everything else zero. A null request is left alone.
void ovard_request_init(ovard_request* request, ovard_action action) OVARD_NOEXCEPT;

/// Set a text. OVARD_TOO_LONG: it does not fit its field with its NUL; the field stays as it was.
/// OVARD_INVALID_ARGUMENT: a null pointer.
ovard_result ovard_request_set_name(ovard_request* request, const char* name) OVARD_NOEXCEPT;
ovard_result ovard_request_set_version(ovard_request* request, const char* version) OVARD_NOEXCEPT;
ovard_result ovard_request_set_command(ovard_request* request, const char* command) OVARD_NOEXCEPT;
ovard_result ovard_request_set_pidfile(ovard_request* request, const char* pidfile) OVARD_NOEXCEPT;

/// What the monitor replied.
typedef struct ovard_reply {
    int32_t code;         ///< 0 success, else the failing action's result, -20 for "not found",
                          ///< which a restart of an unknown name is not; of several stops that of
                          ///< the last one
    int32_t request_sent; ///< 1 once the monitor has the whole request, else 0
    char message[1025];   ///< for people, usually with a line feed at its end
} ovard_reply;

/// Connects to the monitor, sends the request and waits for the reply, all within `timeout_ms`
/// milliseconds, 1 at least. With `no_wait` set nothing is awaited, and `reply` may be null.
///
/// OVARD_OK: the request is out and, unless `no_wait` is set, the reply is there: look at its code.
/// Else the reply has code 0, an empty message, and `request_sent` as it came to be. The monitor
/// sends no reply for some failures (a stop of one application, a restart of several, a start for
/// which it has no memory), so OVARD_TIMED_OUT and OVARD_CONNECTION_CLOSED with `request_sent` set
/// mean that the request may have been carried out, in part or wholly. It answers one connection at
/// a time: when another one comes in while a request is carried out, the newer one can get the
/// reply to the older request, and the older one none. So let one program of the machine send at a
/// time, or look whether the message begins with the application's name.
///
/// Code 0 for a start tells that a process was made. Whether the program runs shows later: its
/// published status is "started" then, and a failure is told in the system log.
///
/// OVARD_INVALID_ARGUMENT: a null pointer, an empty path, no time, an action that is none, or a
/// name or, for a start, a command that is missing. OVARD_TOO_LONG: a text of the request lacks its
/// NUL, or the path has more than 107 characters.
ovard_result ovard_send(const char* socket_path, int32_t timeout_ms, const ovard_request* request,
                        ovard_reply* reply) OVARD_NOEXCEPT;

/// Whether a monitor runs, as far as can be seen.
typedef enum ovard_monitor_state {
    OVARD_MONITOR_NOT_RUNNING = 0,
    OVARD_MONITOR_RUNNING = 1,
    OVARD_MONITOR_UNKNOWN = 2 ///< the kernel does not tell
} ovard_monitor_state;

/// Looks whether a monitor listens on the socket, in the kernel's table of local sockets, without a
/// connection to it. The path has to be the one that the socket was bound to, and the caller has to
/// be in the monitor's network namespace.
ovard_monitor_state ovard_find_monitor(const char* socket_path) OVARD_NOEXCEPT;

/// One published application.
typedef struct ovard_application {
    char name[33]; ///< the first 31 characters of it
    char version[33];
    char status[17];       ///< "starting", "started" or "stopped"; no other status is published, it
                           ///< leaves the text of before
    char port_type[17];    ///< "None", "COM" or "Eth"
    int64_t start_time_ms; ///< milliseconds since the epoch
    uint32_t uptime_sec;
    int32_t pid;
    int32_t priority;
    int32_t restart_type; ///< as in ovard_request, like the next two
    int32_t life_limit_sec;
    int32_t port_number;
} ovard_application;

/// What is published beside the applications.
typedef struct ovard_overview {
    int64_t modified_ms;      ///< when it was written, by the wall clock, since the epoch
    int32_t registered;       ///< applications that the monitor supervises
    int32_t published;        ///< those that are published, OVARD_MOST_APPLICATIONS at most
    char monitor_version[33]; ///< of the monitor's program
    char monitor_date[33];    ///< its build
    uint32_t iec61850_health; ///< set by another program
    uint16_t sys_health;      ///< 0 after each supervision pass, and no health: 0x4000 only tells
                              ///< that a monitor without adoption waits for the boot to be over
} ovard_overview;

/// Reads what is published on the applications: as many as are published, at most `capacity`, into
/// `applications`, and the rest into `overview`. Either may be null, `applications` with capacity
/// 0. With room for OVARD_MOST_APPLICATIONS none is left out; `overview->published` tells how many
/// of the array's entries are filled then.
///
/// OVARD_NOT_PUBLISHED: there is nothing to read, or a monitor has only just started. A monitor
/// that has ended leaves the last state behind: see ovard_find_monitor and `modified_ms`. So does
/// one that supervises more than OVARD_MOST_APPLICATIONS: it goes on, but publishes none of them,
/// which the age of `modified_ms` alone shows. Nothing is filled in unless the result is OVARD_OK.
/// Takes 48 kB of memory for the time of the call.
ovard_result ovard_read_applications(ovard_application* applications, size_t capacity,
                                     ovard_overview* overview) OVARD_NOEXCEPT;

/// The addresses, counters and leases of one network interface.
typedef struct ovard_interface {
    char ipv4[33]; ///< empty: none
    char ipv6[65]; ///< empty: none
    int64_t rx_bytes;
    int64_t rx_packets;
    int64_t tx_bytes;
    int64_t tx_packets;
    int32_t rx_errors;
    int32_t rx_drops;
    int32_t rx_frame_errors;
    int32_t rx_fifo_errors;
    int32_t tx_errors;
    int32_t tx_drops;
    int32_t tx_fifo_errors;
    int32_t tx_collisions;
    float rx_rate_kb; ///< kilobytes per second, like the next one
    float tx_rate_kb;
    char dhcp_status[37]; ///< "Disabled" without a lease file, else when the lease expires
    char dhcp_renewal[21];
    char dhcp_server[21];
    char dhcp_address[21];
    char dhcp_netmask[21];
    char dhcp_router[21];
    char dhcp_dns_server[21];
    char dhcp_smtp_server[21];
    char dhcp_sntp_server[21];
    char dhcpv6_status[37]; ///< "Disabled" without a lease file, else the maximal life time
    char dhcpv6_renewal[21];
    char dhcpv6_address[69];
} ovard_interface;

/// The published state of the machine.
typedef struct ovard_machine {
    int64_t modified_ms; ///< when it was written, by the wall clock, since the epoch
    char kernel_release[33];
    char kernel_version[33];
    int64_t boot_time_ms; ///< milliseconds since the epoch
    int64_t context_switches;
    int64_t interrupts;
    float uptime_hours;
    float idle_percent; ///< of the uptime; above 100 with several processors
    float load_1min;
    float load_5min;
    float load_15min;
    float cpu_user_percent; ///< of the last interval, like those that follow
    float cpu_sys_percent;
    float cpu_nice_percent;
    float cpu_idle_percent;
    float cpu_iowait_percent;
    float cpu_irq_percent;
    float cpu_softirq_percent;
    int32_t memory_total_kb;
    int32_t memory_used_kb; ///< buffers and cache count as used
    int32_t memory_free_kb;
    int32_t memory_buffers_kb;
    int32_t memory_cached_kb;
    int32_t memory_active_kb;
    int32_t memory_inactive_kb;
    int32_t memory_shared_kb;
    ovard_interface eth0;
    ovard_interface eth1;
} ovard_machine;

/// Reads what is published on the machine; as ovard_read_applications for the rest.
ovard_result ovard_read_machine(ovard_machine* machine) OVARD_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif // OVARD_CLIENT_H
