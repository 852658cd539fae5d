// What an application calls so that the monitor can supervise it: heartbeats and its pid file.
//
// For C (C99) and C++ programs; link libovard_application (pkg-config: ovard_application). How the
// calls belong together is told in docs/applications.md, and a whole program is
// examples/minimal_app.c; both are installed with the documentation of libovard-dev.
//
// None of these calls waits for another process, throws, starts a thread, leaves a descriptor open
// or changes signal handling but for a moment: while a heartbeat is registered or dropped, SIGBUS
// has another action, which hands on to that of the process what is not its own, and other threads
// that do the same, or fork, wait. Each may be called from any thread, none from a signal handler.

#ifndef OVARD_APPLICATION_H
#define OVARD_APPLICATION_H

#ifdef __cplusplus
extern "C" {
#endif

/// Refreshes the calling process's heartbeat; the first call registers the process. Never blocks. A
/// failure is silent, but for its reason in errno: EUSERS where all places are taken. A child made
/// by fork is another process: it has no heartbeat until it calls this itself.
void heartbeat_notify(void);

/// The heartbeat of `pid`: 1 fresh, 2 older than `expireSeconds` seconds, 3 none. What an earlier
/// process with the same pid left behind counts as none.
int heartbeat_check(int pid, int expireSeconds);

/// Drops the heartbeat registration of `pid`; -1 means the calling process.
void heartbeat_cleanup(int pid);

/// Writes PATH.PID with the content "PID\nVERSION\n", truncated first, mode 0644 whatever the
/// umask, with missing directories (0755). Never through a symbolic link in the last component, one
/// above it that another user may have planted, or a file that has another name too. `flags` are
/// open's, O_WRONLY | O_CREAT as a rule; a null `version` is an empty one. Returns 0 or -1; leaves
/// `*pid` as it is.
int set_pid_file_version(int* pid, const char* path, int flags, const char* version);

/// Name of the pid file that process `*pid` has really written: "/tmp/pid" + METER_ROOT (when set)
/// + its argv[0] + ".pid." + pid, or, where METER_ROOT is set and that is missing, the same without
/// METER_ROOT. When the file exists and its name fits the `*length` bytes of `buffer`: fills the
/// buffer, sets `*length` to the length of the name, returns 0. Otherwise a negative value, and
/// buffer and length stay as they were.
int get_pid_filename(const int* pid, char* buffer, int* length);

#ifdef __cplusplus
}
#endif

#endif // OVARD_APPLICATION_H
