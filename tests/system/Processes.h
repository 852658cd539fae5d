// Processes as /proc shows them, and programs that the tests run.

#ifndef OVARD_TESTS_SYSTEM_PROCESSES_H
#define OVARD_TESTS_SYSTEM_PROCESSES_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace systemtest {

/// What /proc/PID/stat tells.
struct ProcessFacts {
    pid_t pid = 0;
    std::string name; ///< up to 15 characters
    char state = '?'; ///< 'Z' for a zombie
    pid_t parent = 0;
    pid_t group = 0;
    pid_t session = 0;
    int nice = 0;
    std::uint64_t startTicks = 0; ///< since boot
};

/// A text as a process id; 0 when it is none.
pid_t toPid(const std::string& text);

/// Facts of a process; `pid` is 0 when there is none.
ProcessFacts processFacts(pid_t pid);

/// A process of that id exists and is no zombie.
bool isRunning(pid_t pid);

/// Value of a line of /proc/PID/status, for example "SigIgn"; empty when there is none.
std::string statusValue(pid_t pid, const std::string& key);

/// True when the signal is in the hexadecimal set that a line such as "SigIgn" shows.
bool signalIsIn(pid_t pid, const std::string& key, int signal);

/// Arguments of a process joined by one blank; empty for a zombie.
std::string commandLineOf(pid_t pid);

/// Target of /proc/PID/NAME, for example "cwd".
std::string linkOf(pid_t pid, const std::string& name);

/// Open descriptors of a process with what they lead to.
std::map<int, std::string> descriptorsOf(pid_t pid);

/// Ids of the threads of a process.
std::vector<pid_t> threadsOf(pid_t pid);

/// State letter of a thread; '?' when there is none.
char threadState(pid_t pid, pid_t thread);

/// Every process, zombies too, sorted.
std::vector<pid_t> allProcesses();

/// Running processes of that name, sorted; of that exact command line.
std::vector<pid_t> processesNamed(const std::string& name);
std::vector<pid_t> processesWithCommandLine(const std::string& commandLine);

/// Sends a signal to one process; refuses ids that mean more than one, and process 1.
bool sendSignal(pid_t pid, int signal);

/// How a process ended.
struct Ending {
    bool ended = false;       ///< false: it was still there when the time was over
    bool statusKnown = false; ///< only for children of the test
    bool exited = false;      ///< by exit; then `status` holds, else `signal`
    int status = 0;
    int signal = 0;
    std::int64_t tookMs = 0; ///< from the call that waited

    /// "status 0", "signal 15", "ended" or "still running".
    std::string text() const;
};

/// Waits for the end of a child of the test.
Ending waitForChild(pid_t pid, int timeoutMs);

/// A program started by a test, with its output in files. It is killed with the object.
class Program {
public:
    Program() = default;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    /// Starts it with an empty signal mask, every signal at its default action, standard input from
    /// /dev/null and no other descriptors than the standard ones. `environment`: "NAME=value" to
    /// add, "NAME" to take away. False when that fails.
    bool start(const std::string& path, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment = {});

    pid_t pid() const { return pid_; }

    /// Waits for its end; may be called again afterwards.
    Ending waitForEnd(int timeoutMs);

    /// What it wrote to standard output and to standard error so far.
    std::string output() const;
    std::string errors() const;

private:
    pid_t pid_ = 0;
    std::string outputPath_;
    std::string errorPath_;
    Ending ending_;
};

/// A program that has ended.
struct ProgramResult {
    Ending ending;
    std::string output;
    std::string errors;
};

/// Runs a program to its end.
ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment = {}, int timeoutMs = 20000);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_PROCESSES_H
