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

/// How long a pid file is gone, or is something else.
constexpr int kPidFileAbsenceMs = 3000;

void removeWhatever(const std::string& path) {
    (void)std::remove(path.c_str()); // a file or an empty directory; it may be gone
}

bool isFilledFile(const std::string& path) {
    struct stat facts = {};
    return ::lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_size > 0;
}

void makeDirectory(const std::string& path) {
    (void)::mkdir(path.c_str(), 0755); // something may have taken the name
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

/// An application that was launched meanwhile has written its own; what it is then is kept.
void SoakFaults::restoreLater(const std::string& path, const std::string& content) {
    later(kPidFileAbsenceMs, [path, content] {
        if (!isFilledFile(path)) {
            removeWhatever(path);
            (void)writeFile(path, content);
        }
    });
}

void SoakFaults::removePidFile() {
    const std::string path = pidFileOfAny();
    if (!path.empty()) {
        restoreLater(path, readFile(path));
        removeWhatever(path);
    }
}

void SoakFaults::emptyPidFile() {
    const std::string path = pidFileOfAny();
    if (!path.empty()) {
        restoreLater(path, readFile(path));
        (void)!::truncate(path.c_str(), 0); // it may be gone
    }
}

/// A link to itself, a pipe, or a directory. The latter only where the name has the pid: a launch
/// removes the others, but a program that cannot write its pid file would die at once.
void SoakFaults::replacePidFile() {
    const std::string path = pidFileOfAny();
    if (path.empty()) {
        return;
    }
    restoreLater(path, readFile(path));
    removeWhatever(path);
    const bool hasPid = path.find("/pid/") != std::string::npos;
    switch (pick(0, hasPid ? 2 : 1)) {
    case 0:
        (void)!::symlink(path.c_str(), path.c_str()); // the next launch may have taken the name
        break;
    case 1:
        (void)::mkfifo(path.c_str(), 0644); // likewise
        break;
    default:
        makeDirectory(path);
    }
}

// --- the machine ---------------------------------------------------------------------------------

void SoakFaults::damageSegment() {
    beforeChange_();
    const char* const path = pickFrom(kSegmentPaths);
    switch (pick(0, 3)) {
    case 0:
        removeWhatever(path);
        break;
    case 1:
        (void)!::truncate(path, pick(0, 4095)); // the next cycle repairs it
        break;
    case 2:
        (void)!::truncate(path, 1 << 20); // likewise
        break;
    default:
        removeWhatever(path);
        (void)writeFile(path, std::string(kApplicationSegmentSize, '\xff'));
    }
}

void SoakFaults::replaceSegment() {
    const std::string path = kApplicationSegmentPath;
    removeWhatever(path);
    if (pick(0, 1) == 0) {
        makeDirectory(path);
    } else {
        (void)!::symlink("/tmp/nothing", path.c_str()); // the monitor may have made it anew
    }
    later(kSoakAbsenceMs, [path] { removeWhatever(path); });
}

void SoakFaults::fillTmp() {
    later(kSoakAbsenceMs,
          [full = std::make_shared<FullFolder>("/tmp")]() mutable { full.reset(); });
}

/// Not while a segment is missing: a cycle that could not make it would not be seen.
void SoakFaults::fillShm() {
    for (const char* path : kSegmentPaths) {
        if (readFile(path).size() < sizeOfSegment(path)) {
            return;
        }
    }
    later(kSoakAbsenceMs,
          [full = std::make_shared<FullFolder>("/dev/shm")]() mutable { full.reset(); });
}

void SoakFaults::removeLog() {
    ++disturbances_.logFaults;
    later(kSoakAbsenceMs, [aside = std::make_shared<LogAside>()]() mutable { aside.reset(); });
}

void SoakFaults::blockLog() {
    ++disturbances_.logFaults;
    later(kSoakAbsenceMs, [held = std::make_shared<HeldLog>()]() mutable { held.reset(); });
}

void SoakFaults::removeEventLog() {
    removeWhatever(kEventLogPath);
}

void SoakFaults::replaceEventLog() {
    removeWhatever(kEventLogPath);
    makeDirectory(kEventLogPath);
    later(kSoakAbsenceMs, [] { removeWhatever(kEventLogPath); });
}

void SoakFaults::removeWatchdog() {
    later(kSoakAbsenceMs, [aside = std::make_shared<WatchdogAside>()]() mutable { aside.reset(); });
}

void SoakFaults::damageSemaphore() {
    if (pick(0, 1) == 0) {
        removeWhatever(kSemaphorePath);
    } else {
        (void)!::truncate(kSemaphorePath, 0); // it may be gone
    }
}

} // namespace systemtest
