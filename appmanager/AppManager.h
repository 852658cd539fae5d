// The application manager: the registry of supervised applications and everything done to them.
//
// States of an application (appinfo::status) and who moves it on:
//
//     request                launch                 supervision
//     INITIALIZING ------->  STARTING0  -------->   STARTING / RUNNING0 --> RUNNING
//         |                     |                        |                     |
//         | empty command       | never came alive       | died                | died
//         v                     v                        v                     v
//     START_FAILURE         START_FAILURE          START_FAILURE/DEAD         DEAD
//
//     any of them -- stop --> STOPPED
//
// Threads. The main thread receives requests and queues them (`processRequest`), runs the
// supervision pass (`checkStatus`, `updateStatus`), and creates and destroys the manager. The
// command thread alone executes requests (`processCmd`), one at a time, in arrival order. The
// start-up thread replays a request file through `processRequest`.
//
// Locks. `queue_lock` guards the queue and is held only around one queue operation; it is always
// released before `app_lock` is taken. `app_lock` guards `applist`; it is held for whole
// multi-application actions, including their waits. Both are recursive.
//
// One source file per concern: AppManager.cpp (life of the manager), and AppManager*.cpp for
// intake, commands, launch, identification, stop, supervision, liveness, reports and request files.

#ifndef OVARD_APPMANAGER_APP_MANAGER_H
#define OVARD_APPMANAGER_APP_MANAGER_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <vector>

#include "appmanager/RequestQueue.h"
#include "platform/Process.h"
#include "platform/ProcessScan.h"
#include "platform/RecursiveMutex.h"
#include "platform/UniqueFd.h"
#include "records/appinfo.h"
#include "records/reqcmd.h"
#include "server/AppServer.h"
#include "server/FaultNotice.h"
#include "status/AppStatusUpdate.h"

/// The registry, in registration order. Guarded by `AppManager::app_lock`.
extern std::vector<appinfo> applist;

/// When the manager was created, seconds since the epoch.
extern std::int32_t ovard_start_time;

/// True once "data_server" has been seen to start after the boot of the system. Main thread only.
extern bool bFirstDataServerAfterSystemBoot;

/// Result codes of the manager's operations, beside 0 for success.
enum AppManagerResult : int {
    kResultRestartAllFailed = -1, ///< a restart during Restart_All or Restart_All_But failed
    kResultStartFailed = -3,      ///< start or restart of one application failed
    kResultStopFailed = -4,       ///< stop of one application failed
    kResultRestartFailed = -5,    ///< a start or restart in a whole-list action failed
    kResultInvalid = -8,          ///< empty command line, or unknown action
    kResultNotFound = -20,        ///< nothing to do, or no such application
};

/// Prints `message` as perror does and ends the monitor with status -1.
[[noreturn]] void errExit(const char* message);

/// The single manager. Created by `Instance`, deleted at shutdown, never copied.
class AppManager : public AppServer {
public:
    /// The single manager, created on the first call: then `verbosity` becomes `verbose` and
    /// `ovard_start_time` is set. Later calls ignore the argument.
    static AppManager* Instance(int verbosity);

    AppManager();
    /// Whoever deletes the manager catches what its tear-down throws.
    virtual ~AppManager() noexcept(false);

    /// Opens shared memory and control socket and starts the command thread. Main thread.
    /// `discover` asks for applications that already run. Returns 0; -1 when the control socket
    /// failed, -2 when the thread could not be created.
    int init(bool discover);

    /// Stops the command thread of `manager` and empties its queue. Main thread. Safe to call when
    /// the manager is already stopped.
    void processTermination(AppManager* manager);

    /// True when no command thread can touch this object any more, so that it may be destroyed.
    bool commandThreadHasLeft() const { return !commandThreadAlive_; }

    // --- intake: requests on their way to the command thread (AppManagerIntake.cpp) ------------

    /// Queues a copy of `request` and wakes the command thread; where there is no memory for it, it
    /// is logged and dropped. Any thread. Returns 0.
    int processRequest(const reqcmd& request);

    /// As processRequest, for the request that has just been received: the client of one that is
    /// dropped is dropped too. Main thread.
    void processClientRequest(const reqcmd& request);

    /// Wakes the command thread. Returns the result of unlocking `queue_lock`.
    int notify();

    /// Thread entry: runs `process_command_thread` of the manager handed in. Never returns.
    static void* cmd_process_thread(void* manager);

    /// Body of the command thread: executes queued requests until the manager is shut down. The
    /// argument is not used. Never returns; ends the thread.
    [[noreturn]] void process_command_thread(int unused);

    // --- commands: execution of requests (AppManagerCommands.cpp), command thread only ----------

    /// Executes one request and, unless it asks not to wait, answers it. Returns 0 when handled,
    /// also when the reply reports a failure; -1, -3, -4, -5 or -8 (see AppManagerResult) else.
    int processCmd(const reqcmd& request) override;

    /// Fills `info` from `request`, texts cut to their fields; `pid` stays. Returns the current
    /// time in seconds.
    int prepareAppInfo(const reqcmd& request, appinfo& info);

    /// Prepares `info`, launches it and appends it to the registry. Returns the launch result, -3
    /// when there is no memory to register it, when nothing is launched; nothing is added unless
    /// that is 0. Takes `app_lock` for the append only, and before the launch where the registry
    /// was full.
    int startApp(const reqcmd& request, appinfo& info);

    /// Prepares `info`, then stops and removes every entry of the request's name. Returns the last
    /// stop result, -20 when there is none. Holds `app_lock` throughout.
    int stopApp(const reqcmd& request, appinfo& info);

    /// Prepares `info`, then restarts every entry of the request's name in place. Returns 0, the
    /// last stop result, or -5 when a launch failed. Holds `app_lock` throughout.
    int restartApp(const reqcmd& request, appinfo& info);

    // --- launch (AppManagerLaunch.cpp, CommandlineParser.cpp) -----------------------------------

    /// Splits `text` on blanks, tabs, vertical tabs and form feeds into at most 40 words; the rest
    /// is ignored. `argv` becomes an array that ends with a null pointer, whose entry 0 also owns
    /// the words; release both with `commandline_parser_cleanup`, also after a result of 0.
    /// Returns the number of words; 0 when there is none or no memory (then `argv` is null).
    int commandline_parser(const char* text, char**& argv);

    /// Releases what `commandline_parser` made and sets `argv` to null. Null is fine.
    void commandline_parser_cleanup(int argc, char**& argv);

    /// Double fork. Returns the grandchild's pid in the monitor, 0 in the grandchild, which has
    /// released the monitor's resources; a negative value on failure. The caller blocks signals, so
    /// that no handler of the monitor runs in the grandchild.
    int fork2();

    /// Launches `app` and follows it until it has put itself into the background. Returns the pid
    /// of the launched process and sets `pid` and `status`, or a negative value. Caller holds
    /// `app_lock` when `app` is an entry of the registry. A monitor that cannot fork ends, and
    /// restarts the machine unless somebody is connected to port 22.
    int start_process_fork2(appinfo& app);

    /// Launches `app`. Returns 0 once a launch was attempted, whatever came of it; -8 without a
    /// command line.
    int start_process(appinfo& app);

    // --- identification (AppManagerIdentification.cpp) ------------------------------------------

    /// Searches /proc for the daemon that runs with the words `argv`, within the installation
    /// directories. The first one in directory order is taken: `pid`, `start_time` and `pidfile` of
    /// `app` are filled. `info` names the launched process in messages; `argv0_only` compares the
    /// program path alone. Returns its pid, or why the last process examined was refused: -2 no
    /// facts, -3 no command line, -5 word count, -6 words, -7 not in an included directory, -8 in
    /// an excluded one; -1 when /proc cannot be opened.
    int findDaemon(appinfo& app, const statstruct_proc* info, int argc, char** argv,
                   bool argv0_only);

    /// Follows the freshly launched `app.pid` until it has exited and its daemon is found; at most
    /// 30 seconds. `gate`, the write end at which the launched process waits, is closed once
    /// the facts of that process have been read; null when nothing waits. Returns the daemon's pid;
    /// -1 no pid, -2 no process, -3 no command line, -4 time is over, -5 boot time unknown. Caller
    /// holds `app_lock` as for the launch.
    int waitForDaemonization(appinfo& app, platform::UniqueFd* gate = nullptr);

    /// 1 when a process with this pid exists (zombies and other users' included), 0 when not.
    static int ovard_check_pid_alive(int pid);

    /// Reads at most `length` bytes of a small file in one call and terminates them: `buffer` holds
    /// `length` + 1 bytes. Returns the bytes read; -1 cannot open; -2 nothing read.
    static int file2str(const char* path, char* buffer, int length);

    /// 0 when `text` is all decimal digits (also when empty), -1 otherwise.
    static int is_uint(const char* text);

    /// Whole seconds from `start` (seconds since the epoch) to now.
    static int updateUptime(std::time_t start);

    // --- stop and restart (AppManagerStop.cpp) ---------------------------------------------------

    /// Ends the application's process and every stray copy of it. Returns 0; -4 when it was just
    /// launched and never came alive: nothing is signalled then. Caller holds `app_lock` when `app`
    /// is an entry of the registry.
    int stop_process(appinfo& app);

    /// Restarts `app` by its policy: stop and start, or, for RESTART_TYPE_ALL, only a request to
    /// restart all. Returns 0 or the failing result. Locks as stop_process.
    int restart_process(appinfo& app);

    /// Stops all entries but the first, last to first. Returns the last result; -20 when the
    /// registry is empty. Takes `app_lock`.
    int stop_allprocess();

    /// Starts all entries. Returns 0; -5 when any start failed; -20 when the registry is empty.
    /// Takes `app_lock`.
    int start_allprocess();

    /// Restarts all entries up to the first failure. Returns 0; -5; -20 when the registry is empty.
    /// Takes `app_lock`.
    int restart_allprocess();

    /// Collects one exited child without blocking. Returns its pid, or 0. Called nowhere: it would
    /// steal the status of the launch's own child.
    static int reap_children();

    // --- supervision (AppManagerSupervision.cpp), main thread only -------------------------------

    /// One supervision pass: checks every entry, restarts what failed by its policy, and carries
    /// out a requested restart of all applications or of the machine. Does nothing in the first 90
    /// seconds after the boot of the system. `bErasePreloadApplistEntries` also drops entries
    /// without pid file or command line; while it is clear the former are not checked. Holds
    /// `app_lock` for the walk, its waits included. Returns 0.
    int checkStatus(bool bErasePreloadApplistEntries);

    /// Publishes the registry, and logs when that begins to fail and when it works again. Returns
    /// the result of unlocking `app_lock`.
    int updateStatus();

    // --- liveness of one application (AppManagerLiveness.cpp), main thread only ------------------

    /// One step of the state machine for one entry of the registry. Returns 1 when the entry is in
    /// order, 0 when it needs attention. Caller holds `app_lock`. An entry whose grace is over may
    /// be polled for up to 2 x `app_pidfile_minimum_start_time` seconds.
    int checkAlive(std::vector<appinfo>::iterator entry);

    // --- reports (AppManagerReports.cpp); callers of the dumps hold `app_lock`
    // --------------------

    /// Rewrites the JSON status file `path`, in place. Nothing happens when it cannot be opened.
    /// Takes `app_lock`. For programs that want such a file; the monitor itself writes none.
    void updateJsonFile(const char* path);

    /// Dumps one record to the console.
    void displayAppInfo(const appinfo& app);

    /// Dumps every record of `applications`, first to last.
    void displayAppList(const std::vector<appinfo>& applications);

    /// Same as displayAppInfo; `buffer` is not touched.
    void writeAppInfo(char* buffer, const appinfo& app);

    /// Writes a one-line summary into `buffer` (1024 bytes). An unknown port type leaves the
    /// buffer as it was.
    void displayAppItem(const appinfo& app, char* buffer);

    /// Writes one line about the monitor itself into `buffer` (1024 bytes). Returns 0; -1 when
    /// `buffer` is null.
    int displayMonitorInfo(char* buffer);

    /// Does nothing.
    void displayAppListHtml();

    // --- request files (AppManagerRequestFiles.cpp) ----------------------------------------------

    /// Appends `request` to the file `path`; the `long` is ignored. Main thread. Returns 0 once the
    /// file was opened, -1 when `path` is null, -2 when the file could not be opened.
    int appendAppConfigurationFile(const char* path, long unused, const reqcmd& request);

    static AppManager* m_pInstance;

private:
    friend class AppManagerTestAccess;

    void cancelCommandThread();
    bool waitUntilCommandThreadLeft();
    void destroyLocks();

    bool queueRequest(const reqcmd& request);
    int waitForWork();
    bool drainQueue();
    bool takeRequest(reqcmd& request, std::size_t& stillQueued);
    void detachCommandThread();

    struct StopMany;
    struct RestartMany;
    static const StopMany kStopAll;
    static const StopMany kStopAllBut;
    static const StopMany kStopPortApps;
    static const RestartMany kRestartAll;
    static const RestartMany kRestartAllBut;
    static const RestartMany kRestartPortApps;

    bool makeRoomInRegistry();
    int executeStart(const reqcmd& request);
    int executeStop(const reqcmd& request, std::time_t now);
    int executeRestart(const reqcmd& request);
    int executeOnAll(const reqcmd& request, const StopMany& what, std::time_t now);
    int executeOnAll(const reqcmd& request, const RestartMany& what, std::time_t now);
    bool stopMany(const StopMany& what, int& result);
    bool restartMany(const RestartMany& what, bool& restarted);
    int replyNoAppRunning(const reqcmd& request);
    [[gnu::format(printf, 5, 6)]] int reply(const reqcmd& request, int code, int level,
                                            const char* format, ...);

    int splitWords(char**& argv);

    int followIntermediateChild(pid_t child, const int (&ends)[2]);
    bool awaitIntermediateChild(pid_t child);
    void logParentError(pid_t child, int status);
    int readGrandchildPid(int readEnd);
    [[noreturn]] void giveUpForking(int error);

    struct Wanted;
    int examineCandidate(pid_t pid, const Wanted& wanted, platform::Candidate& candidate);
    int compareWords(const Wanted& wanted, const platform::Candidate& candidate);
    void adoptDaemon(const platform::Candidate& candidate, appinfo& app);
    int awaitDaemon(appinfo& app, statstruct_proc& facts, int argc, char** argv);
    int searchDaemon(appinfo& app, statstruct_proc& facts, int argc, char** argv,
                     std::time_t termination);

    static bool comesAlive(int pid);
    static void endProcess(int pid);
    void huntStrayCopies(const appinfo& app);

    bool systemIsBooting() const;
    void checkEntries(bool eraseUnusable, std::int16_t& health);
    static bool isUnusable(const appinfo& entry);
    static void updateRunningEntry(appinfo& entry);
    void handleFailure(appinfo& entry, std::int16_t& health);
    void requestRestartOfAll(const appinfo& entry);
    void restartAll();
    void rebootSystem();

    struct Confirmation;
    int checkStarting0(appinfo& entry, std::time_t now);
    int checkStarting(appinfo& entry, std::time_t now);
    int checkRunning0(appinfo& entry, std::time_t now);
    int checkRunning(appinfo& entry, std::time_t now);
    int checkHeartbeat(appinfo& entry);
    int checkFailed(appinfo& entry, const char* condition);
    int checkUnsupervised(appinfo& entry);
    static bool pollUntilAlive(int pid);
    static Confirmation pollConfirmation(const appinfo& entry);
    void noteDataServer(const appinfo& entry);
    void warn(const appinfo& entry, const char* condition);
    /// Logs one line of supervision when `logged`, and then shows it when `shown`.
    [[gnu::format(printf, 4, 5)]] void report(bool logged, bool shown, const char* format, ...);

    std::atomic<bool> shutting_down{false};
    std::atomic<pthread_t> commandThread_{0}; // 0: none
    RequestQueue reqlist;                     // guarded by queue_lock
    pthread_cond_t queue_cond;                // paired with queue_lock
    platform::RecursiveMutex queue_lock;
    platform::RecursiveMutex app_lock;
    std::atomic<bool> restart_all_requested{false};
    bool reboot_requested = false;          // main thread only
    std::int32_t last_heartbeat_result = 3; // main thread only
    AppStatusUpdate statusUpdate_;
    FaultNotice systemSegmentNotice_{kSystemSegmentName};           // main thread only
    FaultNotice applicationSegmentNotice_{kApplicationSegmentName}; // main thread only

    /// Filled by Start, Stop and Restart, and read by the whole-list restarts. Command thread only.
    /// Deliberate: one record for all requests, so those copy what the last single request left.
    appinfo workRecord_{};

    /// The registry takes one more entry without growing. Command thread only; others only take
    /// entries away, and what is adopted at the start leaves room.
    bool registryHasRoom_ = true;

    std::atomic<bool> commandThreadAlive_{false};
    bool locksDestroyed_ = false; // main thread only
};

#endif // OVARD_APPMANAGER_APP_MANAGER_H
