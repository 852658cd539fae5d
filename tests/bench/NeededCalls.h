// The system calls that supervision needs for one healthy application in each pass.

#ifndef OVARD_TESTS_BENCH_NEEDED_CALLS_H
#define OVARD_TESTS_BENCH_NEEDED_CALLS_H

namespace bench {

/// One kind of call, as SystemCalls.h names it, and what it is for.
struct NeededCall {
    const char* name;
    const char* file;
    int count;
    const char* purpose;
};

inline constexpr const char* kHeartbeats = "/dev/shm/meter_heartbeat.shared";
inline constexpr const char* kStatFile = "/proc/N/stat";
inline constexpr const char* kCmdlineFile = "/proc/N/cmdline";
inline constexpr const char* kPidFile = "/tmp/pid/home/kelvo/root/application_N.pid.N";

inline constexpr NeededCall kNeededCalls[] = {
    {"sched_yield", "", 1, "the sleep of zero seconds before each entry"},
    {"kill", "", 1, "checkAlive: ovard_check_pid_alive"},
    {"open", kHeartbeats, 1, "checkAlive: heartbeat_check, the registry may be a new one"},
    {"pread", kHeartbeats, 1, "checkAlive: heartbeat_check, age of the beat"},
    {"close", kHeartbeats, 1, "checkAlive: heartbeat_check"},
    {"open", kStatFile, 1, "checkAlive: heartbeat_check, is it the process that has beaten?"},
    {"read", kStatFile, 1, "checkAlive: heartbeat_check, its start time"},
    {"close", kStatFile, 1, "checkAlive: heartbeat_check"},
    {"open", kCmdlineFile, 1, "get_pid_filename: the program's path"},
    {"read", kCmdlineFile, 1, "get_pid_filename"},
    {"close", kCmdlineFile, 1, "get_pid_filename"},
    {"stat", kPidFile, 1, "get_pid_filename: is it there?"},
    {"open", kPidFile, 1, "read_pid_file_version"},
    {"fstat", kPidFile, 1, "read_pid_file_version: a plain file, none that blocks?"},
    {"read", kPidFile, 1, "read_pid_file_version: pid and version"},
    {"close", kPidFile, 1, "read_pid_file_version"},
};

} // namespace bench

#endif // OVARD_TESTS_BENCH_NEEDED_CALLS_H
