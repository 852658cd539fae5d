// A scripted world in place of the instrument, for unit tests of the monitor's own code.
//
// A test scripts what the world answers (queues, flags, processes), runs the code, and then looks
// at what was recorded. Queues hold the answers of the next calls, in order; an empty queue answers
// with success, except where said otherwise. A queued failure is {-1, ERRNO}.
//
// Recorded calls (`World::calls`), one text each, numbers in decimal:
//   fork | exec PATH WORD... | waitpid PID OPTIONS | kill PID SIGNAL | probe PID (signal 0) |
//   setpriority PID PRIORITY | leave STATUS | exitMonitor STATUS | daemonize |
//   pipe | closefd FD | read FD SIZE | write FD SIZE | gate FD | clean FD | blockSignals |
//   restoreSignals | remove PATH | sync | shell COMMAND | restart | port22 |
//   sleep MS | yield | wait FD TIMEOUT_MS | watch | unwatch | thread |
//   socket | nonblock FD | reuse FD | bind FD PATH | listen FD BACKLOG | accept FD |
//   recv FD SIZE | send FD SIZE | shutdown FD |
//   signal NUMBER default|ignore|handler | sigaction NUMBER | createTimer SIGNAL | armTimer SECONDS
//   | deleteTimer | watchdog | fsync FD | heartbeat_notify | heartbeat_check PID SECONDS |
//   openShm NAME FLAGS MODE SIZE | clearData NAME | remapShm NAME | writeShm NAME LENGTH SIZE
//   OFFSET | loadShm NAME LENGTH SIZE OFFSET | closeShm NAME (NAME is "-" on a handle never opened)
//   | readTextFile PATH | getIpAddress INTERFACE FAMILY LENGTH 0 0 | heartbeat_cleanup PID | oom
//   ADJUSTMENT | pidfile PID PATH FLAGS VERSION
//
// Threads: every fake and every member function of World takes the world's lock; hooks run without
// it. A test that looks at or changes plain members while another thread runs holds a `Lock`. The
// thread that called resetWorld counts as the main thread.

#ifndef OVARD_TESTS_FAKES_FAKE_PLATFORM_H
#define OVARD_TESTS_FAKES_FAKE_PLATFORM_H

#include <dirent.h>
#include <netinet/in.h>
#include <sys/types.h>
#include <sys/utsname.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Process.h"
#include "platform/Wait.h"

namespace fakes {

/// First descriptor that the fakes hand out. UniqueFd closes for real, so these numbers must never
/// belong to the test program.
inline constexpr int kFirstDescriptor = 100000;

/// First pid that an unscripted fork returns.
inline constexpr pid_t kFirstForkedPid = 50000;

/// Recorded calls after which the main thread is taken to be in an endless loop.
inline constexpr std::size_t kMostCalls = 200000;

/// Thrown by leaveProcess and exitMonitor on the main thread; another thread just ends.
struct LeaveProcessCalled {
    int status;
};
struct ExitMonitorCalled {
    int status;
};

/// Thrown on the main thread by code that goes on for ever.
struct EndlessLoop : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Result of one scripted call; `error` becomes errno when it is not 0.
struct Result {
    std::int64_t value = 0;
    int error = 0;
};

/// Result of one scripted waitpid.
struct WaitpidResult {
    pid_t pid = 0;
    int status = 0;
    int error = 0;
};

/// Bytes that one scripted read or receive delivers; a call with less room leaves the rest to the
/// next one. With `error` the call fails instead. Empty: end of file.
struct Input {
    std::string data;
    int error = 0;
};

/// Bytes that one write or send took.
struct Output {
    int fd;
    std::string data;
};

struct LogLine {
    int level;
    std::string text; ///< without its one trailing line feed
};

struct LogOpening {
    std::string ident;
    int options;
    int facility;
};

struct Execution {
    std::string path;
    std::vector<std::string> arguments;
};

struct ProcEntry {
    std::string name;
    unsigned char type = DT_DIR;
};

/// One process of the scripted /proc.
struct Process {
    pid_t pid = 0;
    std::string exeName; ///< cut to 15 characters where it is handed out
    std::string cmdline; ///< arguments joined by blanks
    std::uint64_t starttime = 0;
    std::string pidFilename; ///< what get_pid_filename finds; empty: nothing
    bool alive = true;       ///< false: gone from /proc, signals fail with ESRCH
    bool zombie = false;     ///< still there, with an empty command line; signals change nothing
    bool ignoresTerm = false;
    bool factsAvailable = true;
    bool cmdlineAvailable = true;
    int killErrno = 0; ///< not 0: every signal fails with it, signal 0 too
    unsigned char direntType = DT_DIR;
    std::string direntName = {}; ///< empty: the pid in decimal
};

/// Failures of one kind of allocation.
struct AllocationScript {
    int failNext = 0;        ///< so many of the next calls fail
    std::set<int> failCalls; ///< and these, counted from 1
    int calls = 0;
};

/// Everything that a test can script and look at. See the top of the file.
class World {
public:
    // --- what was written -------------------------------------------------------------------
    std::string console;      ///< standard output
    std::string errors;       ///< standard error
    std::vector<LogLine> log; ///< lines written through an opened handle
    std::function<void(const std::string& text)> onConsole; ///< runs before the text is taken
    std::function<void(int level, const std::string& text)> onLog; ///< before the line is taken
    std::function<void(const std::string& text)> onEvent;          ///< before the event is taken
    std::vector<LogOpening> logOpenings;
    bool logOpened = false; ///< opened more often than closed
    int logCloses = 0;
    std::vector<std::string> events;      ///< "TAG: TEXT"
    int eventErrno = 0;                   ///< not 0: events cannot be logged
    std::vector<std::int64_t> eventTimes; ///< of each event, milliseconds since the epoch
    std::vector<std::string> calls;       ///< see the top of the file
    /// Runs after each recorded call, any thread, with the world's lock held; may throw.
    std::function<void(const std::string& call)> onCall;

    // --- clocks -----------------------------------------------------------------------------
    std::time_t now = 1700000000;      ///< wall clock; a test may make it jump
    int nowMs = 0;                     ///< milliseconds within `now`
    std::int64_t monotonicMs = 500000; ///< monotonic clock
    std::int64_t uptimeSec = 10000;    ///< goes on with sleeps; -1: the call fails
    int uptimeErrno = EFAULT;
    long clockTicksPerSecond = 100;
    /// Real duration of each sleep in microseconds. While worker threads live a sleep lasts at
    /// least 100, so that they get on.
    unsigned realSleepMicros = 0;
    std::function<void(int ms)> onSleep; ///< runs after the clocks moved on; any thread

    // --- processes --------------------------------------------------------------------------
    std::vector<Process> processes;          ///< in the order in which /proc lists them
    std::vector<ProcEntry> otherProcEntries; ///< listed before the processes
    bool procCanBeOpened = true;
    int procScans = 0;                      ///< how often /proc was opened
    std::function<void(pid_t pid)> onFacts; ///< runs before the facts of a process are read
    std::function<void(pid_t pid, int signal)>
        onSignal; ///< after the signal took effect; not for 0
    pid_t ownPid = 4321;
    pid_t otherInstancePid = 0;               ///< what process_comm_pid finds
    std::deque<Result> forkResults;           ///< empty: a fresh pid each time
    std::deque<WaitpidResult> waitpidResults; ///< empty: the pid waited for, status 0
    std::deque<int> executionErrors;          ///< errno of execv; empty: ENOENT
    std::vector<Execution> executions;
    std::deque<Result> priorityResults;
    std::map<std::string, std::string> pidFiles; ///< path to content, for read_pid_file_version
    /// Runs before read_pid_file_version looks at the file.
    std::function<void(const char* path, const char* version)> onPidFileRead;
    int pidFileRefusal = -1; ///< result of read_pid_file_version for a file that does not confirm
    int setPidFileErrno = 0;
    int pidReadBack = 0; ///< what set_pid_file_version puts into the int; 0: it stays
    InterprocessWaitable* daemonizedWith = nullptr;
    int oomResult = 0;

    // --- descriptors and files --------------------------------------------------------------
    int nextDescriptor = kFirstDescriptor;
    std::deque<int> pipeErrors;      ///< 0: success; the ends are the next two descriptors
    std::deque<Input> reads;         ///< empty: end of file
    std::deque<Result> writeResults; ///< empty: all bytes
    std::vector<Output> written;
    std::map<int, int> closeErrors;      ///< descriptor to errno
    std::set<std::string> existingPaths; ///< beside /proc/PID; removeFile takes them away
    /// For identifyFile, which fails at 0; bindSocket gives a new one.
    std::map<std::string, ino_t> fileNumbers;
    std::map<std::string, int> removeErrors; ///< path to errno; a missing path fails with ENOENT

    // --- memory -----------------------------------------------------------------------------
    AllocationScript mallocs;
    AllocationScript reallocs;
    AllocationScript strdups;
    std::map<void*, std::size_t> blocks; ///< live blocks and their sizes
    int foreignReleases = 0;             ///< releases of what is no live block

    // --- sockets and waits ------------------------------------------------------------------
    std::deque<Result> socketResults; ///< empty: the next descriptor
    std::deque<Result> nonBlockingResults;
    std::deque<Result> reuseResults;
    std::deque<Result> bindResults;
    std::deque<Result> listenResults;
    std::deque<Result> acceptResults;    ///< empty: the next descriptor
    std::deque<Result> duplicateResults; ///< empty: the connection's own number
    std::deque<Input> receives;          ///< empty: end of file
    std::deque<Result> sendResults;      ///< empty: all bytes
    std::vector<Output> sent;
    std::function<void(int fd)> onSend;           ///< runs before the bytes are taken; any thread
    std::deque<platform::WaitResult> waitResults; ///< empty: Ready; TimedOut moves the clocks on
    int waitErrno = EBADF;                        ///< errno of a scripted WaitResult::Failed
    std::function<void(int fd, int timeoutMs)> onWait; ///< runs before the wait ends
    bool terminationIsPending = false; ///< main thread: waits end, sleeps last no time, no lock
    bool watching = true;              ///< false after stopWatchingForTermination
    sigset_t watchedSignals;

    // --- signals, timer, watchdog -----------------------------------------------------------
    std::map<int, int> signalErrors;         ///< signal to errno, for setSignalHandler
    std::map<int, int> sigactionErrors;      ///< signal to errno, for setSignalAction
    std::map<int, struct sigaction> actions; ///< actions in force; missing: default
    std::deque<int> createTimerErrors;
    std::deque<int> armTimerErrors;
    std::deque<int> deleteTimerErrors;
    int timerSignal = 0;
    void* timerValue = nullptr;
    std::deque<Result> watchdogResults; ///< empty: the next descriptor
    std::deque<Result> flushResults;
    std::deque<int> threadErrors; ///< error numbers of createWorkerThread; 0: success

    // --- the machine ------------------------------------------------------------------------
    std::deque<Result> shellResults;
    std::deque<Result> restartResults;
    bool remoteShellConnected = false;
    sockaddr_in6 remotePeer = {};
    std::map<int, int> heartbeats; ///< pid to the result of heartbeat_check; missing: 3
    int beatErrno = 0;             ///< of the own beat, which is lost then; 0: it counts as fresh

    utsname kernel = {};
    /// Interface and family to address; missing: none.
    std::map<std::pair<std::string, int>, std::string> ipAddresses;
    bool addressesLackNul = false; ///< an address that fills its whole field has no NUL there

    // --- segments and text files --------------------------------------------------------------
    std::map<std::string, std::string> segments;  ///< name to content
    std::set<std::string> segmentErrors;          ///< names that cannot be opened
    int segmentErrno = EACCES;                    ///< and why; 0: errno stays as it is
    std::map<std::string, std::string> textFiles; ///< path to content; missing: cannot be opened

    // --- helpers, all of them locked ----------------------------------------------------------
    World();

    /// Adds a live process and returns it; the reference holds until the next one is added.
    Process& addProcess(pid_t pid, std::string_view exeName, std::string_view cmdline,
                        std::uint64_t starttime = 0);
    /// The process `pid`, live or not; null when there is none.
    Process* process(pid_t pid);
    bool isAlive(pid_t pid);

    /// Scripts one good double fork: the intermediate child, its status 0, the pid in the pipe.
    void scriptLaunch(pid_t child, pid_t grandchild);

    /// Scripts one receive call per whole record.
    template <typename Record> void scriptReceive(const Record& record) {
        const std::lock_guard<std::recursive_mutex> lock(mutex());
        receives.push_back({std::string(reinterpret_cast<const char*>(&record), sizeof record), 0});
    }

    /// The calls whose first word is one of `words`, in order.
    std::vector<std::string> callsOf(std::initializer_list<std::string_view> words);
    std::vector<std::string> callsOf(std::string_view word) { return callsOf({word}); }
    std::size_t count(std::string_view word) { return callsOf(word).size(); }
    /// All calls but those whose first word is one of `words`.
    std::vector<std::string> callsWithout(std::initializer_list<std::string_view> words);

    /// Texts of the log, of one level or of all.
    std::vector<std::string> logTexts(int level);
    std::vector<std::string> logTexts();
    std::string consoleText();
    std::string errorText();
    /// Bytes sent or written to `fd`, all calls joined.
    std::string sentTo(int fd);
    std::string writtenTo(int fd);
    std::size_t liveBlocks();

    /// Forgets what was recorded and written; scripts, clocks and processes stay.
    void forgetRecords();
    /// The wall clock in milliseconds since the epoch.
    std::int64_t nowInMs();
    /// Moves all clocks on.
    void advance(std::int64_t milliseconds);

    // --- for the fakes ------------------------------------------------------------------------
    static std::recursive_mutex& mutex();
    void record(const std::string& call);
    int newDescriptor() { return nextDescriptor++; }
};

/// The world of the running test.
World& world();

/// Gives a fresh world, and makes the calling thread the main one.
void resetWorld();

bool onMainThread();

/// Threads made by createWorkerThread that have not ended yet.
int liveWorkers();

/// Waits, for real, until `condition` holds; it is called without the lock. False after five
/// seconds.
bool waitUntil(const std::function<bool()>& condition);

/// Waits, for real, until no worker thread is left. False after five seconds.
bool waitForWorkersToEnd();

/// Holds the world's lock.
class Lock {
public:
    Lock()
        : lock_(World::mutex()) {}

private:
    std::lock_guard<std::recursive_mutex> lock_;
};

/// Takes the next scripted result, or `unscripted`; sets errno when it has an error.
std::int64_t takeResult(std::deque<Result>& script, std::int64_t unscripted);

/// Takes the next scripted error number: 0, or -1 with errno.
int takeError(std::deque<int>& script);

/// Takes the next scripted bytes as read and receive do.
ssize_t takeInput(std::deque<Input>& script, void* buffer, std::size_t size);

/// 0, or -1 with the errno that `errors` holds for `key`.
template <typename Key, typename Map> int failIfScripted(const Map& errors, const Key& key) {
    const auto found = errors.find(key);
    if (found == errors.end()) {
        return 0;
    }
    errno = found->second;
    return -1;
}

/// Joins words and numbers with blanks, for `World::record`.
template <typename... Parts> std::string joined(const Parts&... parts) {
    std::ostringstream text;
    const char* separator = "";
    ((text << separator << parts, separator = " "), ...);
    return text.str();
}

} // namespace fakes

#endif // OVARD_TESTS_FAKES_FAKE_PLATFORM_H
