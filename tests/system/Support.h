// Time, bounded waiting, files and the places that the system tests work with.

#ifndef OVARD_TESTS_SYSTEM_SUPPORT_H
#define OVARD_TESTS_SYSTEM_SUPPORT_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace systemtest {

inline constexpr const char* kSocketPath = "/tmp/appmon_sock";
inline constexpr const char* kEventLogPath = "/var/log/meter_events.log";
inline constexpr const char* kDaemonLogPath = "/var/log/daemon.log";
inline constexpr const char* kLogSocket = "/dev/log";
inline constexpr const char* kWatchdogPath = "/dev/watchdog";
inline constexpr const char* kSemaphorePath = "/dev/shm/sem.ovard.initialization";

/// Directory in which installed applications are looked for.
inline constexpr const char* kApplicationFolder = "/home/kelvo/root";

/// Folder for what the harness itself writes; emptied with the rest of /tmp before every test.
inline constexpr const char* kScratchFolder = "/tmp/system_test";

/// How long a thing may take that takes no time by its nature, in milliseconds.
inline constexpr int kPatienceMs = 10000;

/// The programs under test and those that the tests need: from OVARD_BINARY, OVARDCTL_BINARY,
/// SAMPLE_APP_BINARY and so on in the environment, else where the build puts them.
std::string daemonProgram();
std::string controlProgram();
std::string sampleProgram();
std::string minimalProgram();
std::string forkingProgram();
std::string setSignalsProgram();
std::string clientExampleProgram();
std::string wallClockLibrary();
std::string refusedMemoryLibrary();

/// What makes a sandbox (SANDBOX_PROGRAM in the environment), and process 1 of it.
std::string sandboxProgram();
std::string sandboxInitProgram();

/// Milliseconds of a clock that nobody sets.
std::int64_t monotonicMs();

/// Waits, for a time that is itself part of a test. Signals do not shorten it.
void sleepMs(int milliseconds);

/// Asks every few milliseconds until `condition` holds; false when it does not within the time.
/// It is asked at least once.
bool eventually(const std::function<bool()>& condition, int timeoutMs = kPatienceMs);

/// The other side has read, or thrown away, all that was sent over that socket.
bool isAllRead(int socket);

bool fileExists(const std::string& path);

/// The folder that a path lies in, "." for a bare name.
std::string folderOf(const std::string& path);

/// Content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

/// Replaces a file's content, making missing directories. False when that fails.
bool writeFile(const std::string& path, const std::string& content);

/// Permission bits of a file; -1 when there is none.
int permissions(const std::string& path);

/// Creates a directory and those above it.
bool makeDirectories(const std::string& path);

/// Copies a program, executable by everybody.
bool copyProgram(const std::string& from, const std::string& to);

/// Paths in a directory, sorted, hidden ones too; empty when it cannot be read.
std::vector<std::string> entriesOf(const std::string& directory);

/// Removes what is in a directory, but neither what is mounted there nor the programs under test.
/// Throws for a directory outside the private folders of the sandbox.
void emptyDirectory(const std::string& directory);

/// Lines of a text without their ends; a last line without an end counts.
std::vector<std::string> linesOf(const std::string& text);

/// How often `part` occurs in `text`, without overlaps.
std::size_t countOf(const std::string& text, const std::string& part);

/// A number from the environment, or `fallback`.
std::uint64_t numberFromEnvironment(const char* name, std::uint64_t fallback);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SUPPORT_H
