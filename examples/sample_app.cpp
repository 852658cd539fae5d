// An application for the monitor to supervise: goes into the background, writes a pid file, reports
// heartbeats, and misbehaves as its arguments ask. Its arguments stay as they are, because the
// monitor knows a running application by its command line.

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "examples/LaunchFacts.h"
#include "examples/SampleOptions.h"
#include "platform/Heartbeat.h"
#include "platform/Process.h"
#include "platform/UniqueFd.h"

namespace {

using sample::Options;

constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();

/// Exit status for wrong arguments, and for what the system refused.
constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;

std::int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::int64_t pointAfter(std::int64_t start, int delayMs) {
    return delayMs == sample::kNever ? kForever : start + delayMs;
}

/// The signals that end the application.
sigset_t endingSignals(bool obeysTerm) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    if (obeysTerm) {
        sigaddset(&set, SIGTERM);
    }
    return set;
}

/// From here on the ending signals are only taken by waitUntil.
void prepareSignals(const Options& options) {
    const sigset_t ending = endingSignals(options.obeysTerm());
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    if (options.ignoreTerm) {
        (void)::signal(SIGTERM, SIG_IGN); // cannot fail for this signal
    }
}

/// Waits until the given point in time; true when an ending signal came first.
bool waitUntil(std::int64_t pointMs, bool obeysTerm) {
    constexpr std::int64_t kLongestWaitMs = 3600000;
    const sigset_t ending = endingSignals(obeysTerm);
    for (std::int64_t now = nowMs(); now < pointMs; now = nowMs()) {
        const std::int64_t spanMs = std::min(pointMs - now, kLongestWaitMs);
        timespec span{};
        span.tv_sec = static_cast<time_t>(spanMs / 1000);
        span.tv_nsec = static_cast<long>(spanMs % 1000) * 1000000L;
        if (sigtimedwait(&ending, nullptr, &span) > 0) {
            return true;
        }
    }
    return false;
}

void redirectStandardFiles() {
    const platform::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null.valid()) {
        for (int descriptor = 0; descriptor <= 2; ++descriptor) {
            (void)::dup2(null.get(), descriptor); // no better place for output if it fails
        }
    }
}

/// Goes on in a child that leads a session of its own. False when there is no child.
bool goIntoBackground() {
    const pid_t child = ::fork();
    if (child < 0) {
        return false;
    }
    if (child > 0) {
        ::_exit(0);
    }
    (void)::setsid(); // cannot fail in a child that has just been forked
    redirectStandardFiles();
    return true;
}

/// Leaves copies of this process running beside it; each ends by a signal only.
std::vector<pid_t> forkStrays(const Options& options) {
    std::vector<pid_t> strays;
    if (options.strays > 0) {
        (void)::signal(SIGCHLD, SIG_IGN); // nobody waits for them
    }
    for (int count = 0; count < options.strays; ++count) {
        const pid_t child = ::fork();
        if (child == 0) {
            (void)waitUntil(kForever, options.obeysTerm()); // only a signal ends it
            ::_exit(0);
        }
        if (child > 0) {
            strays.push_back(child);
        }
    }
    return strays;
}

std::string describeSelf(const std::vector<pid_t>& strays) {
    std::string text = "pid=" + std::to_string(::getpid()) + "\n" +
                       "ppid=" + std::to_string(::getppid()) + "\n" +
                       "sid=" + std::to_string(::getsid(0)) + "\n" +
                       "strays=" + std::to_string(strays.size()) + "\n";
    for (std::size_t index = 0; index < strays.size(); ++index) {
        text += "stray." + std::to_string(index) + "=" + std::to_string(strays[index]) + "\n";
    }
    return text;
}

/// The pid file of this process; removes what it has written.
class PidFile {
public:
    PidFile() = default;
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;
    ~PidFile() {
        if (!path_.empty()) {
            ::unlink(path_.c_str());
        }
    }

    bool write(const Options& options) {
        int pid = ::getpid();
        if (!options.exactPidFile.empty()) {
            path_ = options.exactPidFile;
            return sample::writeReport(path_, std::to_string(pid) + "\n" + options.version + "\n");
        }
        if (set_pid_file_version(&pid, options.pidFile.c_str(), O_WRONLY | O_CREAT,
                                 options.version.c_str()) != 0) {
            return false;
        }
        path_ = options.pidFile + "." + std::to_string(pid);
        return true;
    }

private:
    std::string path_;
};

/// Leaves a process behind that becomes this application anew after a while.
void leaveSuccessor(const Options& options, char* const* argv) {
    if (options.comeBackAfterMs == sample::kNever || ::fork() != 0) {
        return;
    }
    if (!waitUntil(nowMs() + options.comeBackAfterMs, options.obeysTerm())) {
        (void)::execv(argv[0], argv); // nothing is left to do where it fails
    }
    ::_exit(kExitFailure);
}

/// Ends the process by a signal, leaving everything behind but a core file.
[[noreturn]] void crash(const Options& options, char* const* argv) {
    leaveSuccessor(options, argv);
    const rlimit none{0, 0};
    (void)::setrlimit(RLIMIT_CORE, &none); // a core file is unwelcome, not harmful
    std::abort();
}

/// When the heartbeat is due that follows one at the point `now`.
std::int64_t nextBeat(const Options& options, std::int64_t start, std::int64_t now) {
    const std::int64_t hangAt = pointAfter(start, options.hangAfterMs);
    const std::int64_t resumeAt =
        hangAt == kForever ? kForever : pointAfter(hangAt, options.hangForMs);
    const std::int64_t next = now + options.heartbeatMs;
    return next >= hangAt && next < resumeAt ? resumeAt : next;
}

/// Does what is due until the end; returns the exit status.
int serve(const Options& options, char* const* argv) {
    const std::int64_t start = nowMs();
    const std::int64_t crashAt = pointAfter(start, options.crashAfterMs);
    const std::int64_t exitAt = pointAfter(start, options.exitAfterMs);
    std::int64_t pidFileAt = options.writePidFile ? start + options.pidFileAfterMs : kForever;
    std::int64_t beatAt = options.heartbeatMs == sample::kNever ? kForever : start;
    PidFile pidFile;
    for (;;) {
        const std::int64_t now = nowMs();
        if (now >= crashAt) {
            crash(options, argv);
        }
        if (now >= exitAt) {
            return options.exitStatus;
        }
        if (now >= pidFileAt) {
            if (!pidFile.write(options)) {
                return kExitFailure;
            }
            pidFileAt = kForever;
        }
        if (now >= beatAt) {
            heartbeat_notify();
            beatAt = nextBeat(options, start, now);
        }
        if (waitUntil(std::min({crashAt, exitAt, pidFileAt, beatAt}), options.obeysTerm())) {
            return 0;
        }
    }
}

int run(const Options& options, const std::string& launchFacts, char* const* argv) {
    if (!options.foreground) {
        if (waitUntil(nowMs() + options.daemonizeAfterMs, options.obeysTerm())) {
            return 0;
        }
        if (!goIntoBackground()) {
            std::perror("sample_app: fork");
            return kExitFailure;
        }
    }
    const std::vector<pid_t> strays = forkStrays(options);
    if (!options.report.empty() &&
        !sample::writeReport(options.report, describeSelf(strays) + launchFacts)) {
        std::perror("sample_app: report");
        return kExitFailure;
    }
    const int status = serve(options, argv);
    if (options.heartbeatMs != sample::kNever) {
        heartbeat_cleanup(-1);
    }
    return status;
}

} // namespace

int main(int argc, char** argv) {
    const std::string launchFacts = sample::describeLaunch(argc, argv);
    Options options;
    std::string error;
    if (!sample::parseOptions(argc, argv, options, error)) {
        (void)std::fprintf(stderr, "sample_app: %s\n%s", error.c_str(), sample::kUsage);
        return kExitUsage;
    }
    if (options.help) {
        return std::fputs(sample::kUsage, stdout) == EOF ? kExitFailure : 0;
    }
    prepareSignals(options);
    return run(options, launchFacts, argv);
}
