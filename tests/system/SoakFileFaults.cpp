// The faults of the soak that concern files: pid files, segments, disks, logs, devices.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "tests/system/FaultSupport.h"
#include "tests/system/LogSocket.h"
#include "tests/system/SoakFaults.h"
#include "tests/system/Watchdog.h"

namespace systemtest {
namespace {

/// How long a pid file or the event log is gone, or is something else.
constexpr int kFileAbsenceMs = 3000;

constexpr const char* kLogSocketPath = "/dev/log";

/// Removes a file or an empty directory. False when there is none.
bool removeWhatever(const std::string& path) {
    return std::remove(path.c_str()) == 0;
}

bool isFilledFile(const std::string& path) {
    struct stat facts = {};
    return ::lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_size > 0;
}

/// False when something has taken the name.
bool makeDirectory(const std::string& path) {
    return ::mkdir(path.c_str(), 0755) == 0;
}

} // namespace

// --- pid files -----------------------------------------------------------------------------------

/// Path of the pid file of a random application; empty when there is none now.
std::string SoakFaults::pidFileOfAny() {
    const reqcmd& application = pickFrom(applications_);
    const std::vector<pid_t> found = processesOf(application);
    const std::string base = application.pidfile;
    const std::string numbered = found.empty() ? "" : base + "." + std::to_string(found[0]);
    for (const std::string& path : {numbered, base}) {
        if (isFilledFile(path)) {
            return path;
        }
    }
    return "";
}

/// Where somebody has written the file anew meanwhile, it is kept.
void SoakFaults::restoreLater(const std::string& path, const std::string& content) {
    later(kFileAbsenceMs, [path, content] {
        if (!isFilledFile(path)) {
            (void)removeWhatever(path); // it may be gone
            (void)writeFile(path, content);
        }
    });
}

bool SoakFaults::removePidFile() {
    const std::string path = pidFileOfAny();
    if (path.empty()) {
        return false;
    }
    restoreLater(path, readFile(path));
    return removeWhatever(path);
}

bool SoakFaults::emptyPidFile() {
    const std::string path = pidFileOfAny();
    if (path.empty()) {
        return false;
    }
    restoreLater(path, readFile(path));
    return ::truncate(path.c_str(), 0) == 0;
}

/// A link to itself, a pipe, or a directory. The latter only where the name has the pid: a launch
/// removes the others, but a program that cannot write its pid file would die at once.
bool SoakFaults::replacePidFile() {
    const std::string path = pidFileOfAny();
    if (path.empty()) {
        return false;
    }
    restoreLater(path, readFile(path));
    const bool isRemoved = removeWhatever(path); // the next launch may take the name
    const bool hasPid = path.find("/pid/") != std::string::npos;
    switch (pick(0, hasPid ? 2 : 1)) {
    case 0:
        return ::symlink(path.c_str(), path.c_str()) == 0 || isRemoved;
    case 1:
        return ::mkfifo(path.c_str(), 0644) == 0 || isRemoved;
    default:
        return makeDirectory(path) || isRemoved;
    }
}

// --- the machine ---------------------------------------------------------------------------------

bool SoakFaults::damageSegment() {
    beforeChange_();
    const char* const path = pickFrom(kSegmentPaths);
    switch (pick(0, 3)) {
    case 0:
        return removeWhatever(path);
    case 1:
        return ::truncate(path, pick(0, 4095)) == 0; // the next cycle repairs it
    case 2:
        return ::truncate(path, 1 << 20) == 0; // likewise
    default:
        (void)removeWhatever(path); // it may be gone
        return writeFile(path, std::string(kApplicationSegmentSize, '\xff'));
    }
}

bool SoakFaults::replaceSegment() {
    const std::string path = kApplicationSegmentPath;
    const bool isRemoved = removeWhatever(path); // the monitor may make it anew
    const bool isReplaced =
        pick(0, 1) == 0 ? makeDirectory(path) : ::symlink("/tmp/nothing", path.c_str()) == 0;
    later(kSoakAbsenceMs, [path] { (void)removeWhatever(path); });
    return isRemoved || isReplaced;
}

bool SoakFaults::fillFolder(const char* folder) {
    const auto full = std::make_shared<FullFolder>(folder);
    const bool isFull = full->isFull();
    later(kSoakAbsenceMs, [kept = full]() mutable { kept.reset(); });
    return isFull;
}

bool SoakFaults::fillTmp() {
    return fillFolder("/tmp");
}

/// Not while a segment is missing: a cycle that could not make it would not be seen.
bool SoakFaults::fillShm() {
    for (const char* path : kSegmentPaths) {
        if (readFile(path).size() < sizeOfSegment(path)) {
            return false;
        }
    }
    return fillFolder("/dev/shm");
}

bool SoakFaults::removeLog() {
    ++disturbances_.logFaults;
    const auto aside = std::make_shared<LogAside>();
    later(kSoakAbsenceMs, [kept = aside]() mutable { kept.reset(); });
    return !fileExists(kLogSocketPath);
}

bool SoakFaults::blockLog() {
    ++disturbances_.logFaults;
    const auto held = std::make_shared<HeldLog>();
    later(kSoakAbsenceMs, [kept = held]() mutable { kept.reset(); });
    return held->holds();
}

/// Nothing is logged in the soak, so that the monitor does not make it anew.
bool SoakFaults::removeEventLog() {
    restoreLater(kEventLogPath, readFile(kEventLogPath));
    return removeWhatever(kEventLogPath);
}

bool SoakFaults::replaceEventLog() {
    restoreLater(kEventLogPath, readFile(kEventLogPath));
    const bool isRemoved = removeWhatever(kEventLogPath);
    const bool isReplaced = makeDirectory(kEventLogPath);
    return isRemoved || isReplaced;
}

bool SoakFaults::removeWatchdog() {
    const auto aside = std::make_shared<WatchdogAside>();
    later(kSoakAbsenceMs, [kept = aside]() mutable { kept.reset(); });
    return !fileExists(kWatchdogPath);
}

/// Once for each run: nobody makes it anew.
bool SoakFaults::damageSemaphore() {
    if (!isFilledFile(kSemaphorePath)) {
        return false;
    }
    return pick(0, 1) == 0 ? removeWhatever(kSemaphorePath) : ::truncate(kSemaphorePath, 0) == 0;
}

} // namespace systemtest
