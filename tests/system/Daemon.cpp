#include "tests/system/Daemon.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <set>

#include "tests/system/Client.h"
#include "tests/system/SanitizerReports.h"
#include "tests/system/Support.h"

namespace systemtest {
namespace {

std::set<Daemon*>& liveDaemons() {
    static std::set<Daemon*> daemons;
    return daemons;
}

} // namespace

Daemon::Daemon() {
    liveDaemons().insert(this);
}

Daemon::~Daemon() {
    end();
    liveDaemons().erase(this);
}

void Daemon::endAll() {
    for (Daemon* const daemon : liveDaemons()) {
        daemon->end();
    }
}

void Daemon::end() {
#ifdef OVARD_IS_INSTRUMENTED
    constexpr int kOrderlyEndMs = 2000; // with -b, or stopped, it does not end
    if (alive()) {
        (void)terminate(kOrderlyEndMs);
    }
#endif
    kill();
}

void Daemon::setMeterRoot(const std::string& root) {
    meterRoot_ = root;
    meterRootIsSet_ = true;
}

bool Daemon::startInForeground(const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {"-d"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return spawn(words) && waitUntilReady();
}

bool Daemon::startInBackground(const std::vector<std::string>& arguments) {
    if (!spawn(arguments)) {
        return false;
    }
    const Ending launcher = spawned_.waitForEnd(kReadyMs);
    return launcher.exited && launcher.status == 0 && waitUntilReady();
}

bool Daemon::spawn(const std::vector<std::string>& arguments) {
    inForeground_ = std::find(arguments.begin(), arguments.end(), "-d") != arguments.end();
    const std::string root = meterRootIsSet_ ? "METER_ROOT=" + meterRoot_ : "METER_ROOT";
    if (!spawned_.start(daemonProgram(), arguments, {root})) {
        return false;
    }
    pid_ = inForeground_ ? spawned_.pid() : 0;
    return true;
}

bool Daemon::waitUntilReady(int timeoutMs) {
    bool failed = false;
    const bool ready = eventually(
        [&] {
            if (followMonitor()) {
                return true;
            }
            const Ending ending = spawned_.waitForEnd(0);
            failed = ending.ended && (inForeground_ || !ending.exited || ending.status != 0);
            return failed;
        },
        timeoutMs);
    return ready && !failed;
}

bool Daemon::followMonitor() {
    return learnPid() && socketListens() && workersWait();
}

bool Daemon::workersWait() const {
    const std::vector<pid_t> threads = threadsOf(pid_);
    return threads.size() > 1 + kSanitizerThreads &&
           std::all_of(threads.begin(), threads.end(), [this](pid_t thread) {
               return thread == pid_ || threadState(pid_, thread) == 'S';
           });
}

bool Daemon::isReceiving() const {
    std::set<std::string> sockets;
    for (const auto& [number, target] : descriptorsOf(pid_)) {
        if (target.compare(0, 7, "socket:") == 0 && !sockets.insert(target).second) {
            return true;
        }
    }
    return false;
}

/// Finds the pid file, whole, and the process that it names.
bool Daemon::learnPid() {
    const std::string base = pidFileBase();
    for (const std::string& path : entriesOf(base.substr(0, base.rfind('/')))) {
        if (path.compare(0, base.size() + 1, base + ".") != 0) {
            continue;
        }
        const auto pid = toPid(path.substr(base.size() + 1));
        const std::string content = readFile(path);
        const bool isWhole = std::count(content.begin(), content.end(), '\n') == 2;
        const bool isOurs = inForeground_ ? pid == pid_ : isRunning(pid);
        if (isWhole && isOurs) {
            pid_ = pid;
            return true;
        }
    }
    return false;
}

std::string Daemon::pidFileBase() const {
    return "/tmp/pid" + meterRoot_ + "/home/kelvo/root/ovard.pid";
}

std::string Daemon::pidFile() const {
    return pidFileBase() + "." + std::to_string(pid_);
}

Ending Daemon::waitForEnd(int timeoutMs) {
    if (inForeground_) {
        return spawned_.waitForEnd(timeoutMs);
    }
    const std::int64_t begin = monotonicMs();
    Ending ending;
    // A zombie may still have threads that hold its files.
    ending.ended = eventually([&] { return processFacts(pid_).pid == 0; }, timeoutMs);
    ending.tookMs = monotonicMs() - begin;
    return ending;
}

Ending Daemon::terminate(int timeoutMs) {
    (void)signal(SIGTERM); // where it fails, the monitor is gone, which shows below
    return waitForEnd(timeoutMs);
}

void Daemon::kill() {
    if (pid_ > 0 && !waitForEnd(0).ended) {
        (void)signal(SIGKILL); // it may have ended meanwhile
        (void)waitForEnd();    // the fixture looks for what is left over
    }
}

} // namespace systemtest
