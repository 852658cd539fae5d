#include "runtime/MainLoop.h"

#include <cerrno>
#include <utility>

#include "platform/Heartbeat.h"
#include "platform/Settings.h"
#include "platform/System.h"
#include "platform/SystemEvent.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "runtime/Footprint.h"
#include "runtime/Globals.h"
#include "runtime/Signals.h"

namespace {

constexpr int kIdlePauseMs = 100;
constexpr int kServedPauseMs = 1000;
constexpr int kAfterCheckPauseMs = 10;

/// During the first seconds of the loop entries without a pid file are kept.
constexpr int kPreloadGraceSec = 30;

/// An older beat is not the one of a moment ago.
constexpr int kBeatAgeSec = 2;

} // namespace

MainLoop::MainLoop(AppManager& manager, MonitorPidFile& pidFile, std::int32_t statusIntervalSec)
    : manager_(manager)
    , pidFile_(pidFile)
    , statusIntervalSec_(statusIntervalSec)
    , start_(platform::currentTime())
    , lastCheck_(start_)
    , ownPid_(platform::currentProcessId())
    , pidFileNotice_(pidFile.name()) {
    reportFaults(); // Those of the start.
}

int MainLoop::run() {
    for (bool isFirst = true;; isFirst = false) {
        // The only line at which SIGTERM has an effect. The manager may be gone after it.
        admitTerminationSignals();
        if (g_bDaemonShutdown != 0) {
            return 0;
        }
        turn();
        if (isFirst) {
            releaseStartupMemory(); // By now every thread has begun its work.
        }
    }
}

void MainLoop::turn() {
    beat();
    serveClient();
    checkStatusWhenDue();
    pidFile_.retry();
    reportFaults();
    if (initWatchDog) {
        reportWatchdogEvents();
        thread_heartbeat_counter = 0;
    }
}

/// Deliberate: a second attempt. A beat that does not show may have met somebody who works on the
/// registry, or a standstill of this process.
void MainLoop::beat() {
    beatError_ = errorOfBeat();
    if (beatError_ != 0) {
        beatError_ = errorOfBeat();
    }
}

/// Beats, and looks whether that shows. Errno of what has failed, EIO where that is unknown; or 0.
int MainLoop::errorOfBeat() const {
    errno = 0;
    heartbeat_notify();
    const int error = std::exchange(errno, 0);
    const int seen = heartbeat_check(ownPid_, kBeatAgeSec);
    if (seen != platform::kHeartbeatExpired && seen != platform::kHeartbeatNone) {
        return 0;
    }
    const int errorOfLook = errno;
    return error != 0 ? error : errorOfLook != 0 ? errorOfLook : EIO;
}

/// Tells of what has begun to fail, and of what works again, elsewhere than in the publishing.
void MainLoop::reportFaults() {
    heartbeatNotice_.update(manager_, beatError_);
    pidFileNotice_.update(manager_, pidFile_.error());
    eventLogNotice_.update(manager_, platform::g_eventLogError);
    watchdogNotice_.update(manager_, g_watchdogError);
}

void MainLoop::serveClient() {
    const int received = manager_.recvCommand(request_);
    now_ = platform::currentTime();
    if (g_verbose > 4) {
        timestamp_ = platform::localTimeText(now_);
    }
    if (received < 0) {
        platform::sleepMilliseconds(kIdlePauseMs);
        return;
    }
    if (pszAppendToAppConfigurationFile != nullptr) {
        // Deliberate: also when nothing was received, with whatever the buffer holds. The record
        // file shows its failures itself.
        (void)manager_.appendAppConfigurationFile(pszAppendToAppConfigurationFile,
                                                  static_cast<long>(now_), request_);
    }
    if (g_verbose > 6) {
        platform::trace(true, "%s appmgr->recvCommand()=%d\n", timestamp_.c_str(), received);
        manager_.displayRequestCmd(request_);
    }
    if (received == 0) {
        platform::sleepMilliseconds(kIdlePauseMs);
        return;
    }
    manager_.processClientRequest(request_);
    platform::sleepMilliseconds(kServedPauseMs);
}

void MainLoop::checkStatusWhenDue() {
    if (!statusCheckIsDue()) {
        return;
    }
    const bool erase = mayErasePreloadedEntries();
    if (g_verbose > 7) {
        platform::trace(true, "%s checkStatus(bErasePreloadApplistEntries=%d) for heartbeats\n",
                        timestamp_.c_str(), erase ? 1 : 0);
        manager_.writeLog(kLogDebug, " checkStatus for heartbeats");
    }
    (void)manager_.checkStatus(erase); // Always 0.
    platform::sleepMilliseconds(kAfterCheckPauseMs);
    lastCheck_ = now_;
    platform::trace(g_verbose > 6, "%s updateStatus()\n", timestamp_.c_str());
    (void)manager_.updateStatus(); // The result of unlocking.
}

bool MainLoop::statusCheckIsDue() const {
    const bool clockWasSetBack = lastCheck_ > now_;
    return clockWasSetBack || std::int64_t{now_} - lastCheck_ >= statusIntervalSec_;
}

bool MainLoop::mayErasePreloadedEntries() const {
    return now_ < start_ || std::int64_t{now_} - start_ >= kPreloadGraceSec;
}
