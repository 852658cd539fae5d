#include "runtime/Startup.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "appmanager/RequestFiles.h"
#include "platform/Console.h"
#include "platform/Network.h"
#include "platform/Process.h"
#include "platform/Settings.h"
#include "platform/Signals.h"
#include "platform/System.h"
#include "platform/SystemEvent.h"
#include "platform/Thread.h"
#include "platform/Trace.h"
#include "runtime/Footprint.h"
#include "runtime/Globals.h"
#include "runtime/MainLoop.h"
#include "runtime/MonitorPidFile.h"
#include "runtime/Options.h"
#include "runtime/Shutdown.h"
#include "runtime/Signals.h"
#include "runtime/VersionInformation.h"

namespace {

constexpr int kAnotherInstance = -10;
constexpr int kInitFailure = -1;

constexpr int kMonitorPriority = -10;
constexpr int kMonitorOomAdjustment = -1;

/// Occupies the standard descriptors that the monitor was started without, so that none of its own
/// ever takes their place and receives console texts.
void completeStandardFiles() {
    int fd = 0;
    do {
        fd = ::open("/dev/null", O_RDWR); // The standard ones are for applications too.
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        ::close(fd);
    }
}

bool anotherInstanceRuns() {
    const int pid = process_comm_pid(0);
    platform::trace(
        pid > 0,
        "process \"ovard\" is running, pid = %d, please close it and then restart process\n", pid);
    return pid > 0;
}

void printVersion() {
    copyVersionValue(kSlotFileVersion, version, sizeof version);
    copyVersionValue(kSlotFileDate, buildtime, sizeof buildtime);
    g_fileVersion = version;
    g_fileDate = buildtime;
    platform::trace(true, "version: %s built on %s\n", version, buildtime);
}

/// Shows whether somebody is connected to port 22, and who.
void diagnosePort22() {
    sockaddr_in6 peer;
    if (!isEstablishedTCPconnectionOnPort22(&peer)) {
        platform::printConsole("isEstablishedTCPconnectionOnPort22()=false\n");
        return;
    }
    platform::printConsole("isEstablishedTCPconnectionOnPort22()=true\n");
    const auto* const address = reinterpret_cast<const sockaddr*>(&peer);
    char text[128] = "";
    (void)::inet_ntop(address->sa_family, get_in_addr(address), text, sizeof text);
    platform::trace(true, "%s", text); // Deliberate: no line end.
}

void settleProcess() {
    (void)platform::setSignalHandler(SIGPIPE, SIG_IGN); // Cannot fail.
    // Inherited as ignored it would take the statuses away for which the launch waits.
    (void)platform::setSignalHandler(SIGCHLD, SIG_DFL);
    (void)platform::setSignalAction(SIGCONT, nullptr, &savedSigAction_SIGCONT);
    platform::raiseDescriptorLimit();
    const int pid = platform::currentProcessId();
    const int result = platform::setProcessPriority(pid, kMonitorPriority);
    platform::trace(g_verbose > 4, "%d=setpriority(PRIO_PROCESS, %d, %d)\n", result, pid,
                    kMonitorPriority);
    (void)OOM_Killer_set_oom_adj(
        kMonitorOomAdjustment); // A monitor that may be killed still works.
}

void startManager(bool discover) {
    appmgr = AppManager::Instance(g_verbose);
    if (appmgr->init(discover) != 0) {
        platform::trace(g_verbose > 0, "appmgr->init() failure!\n");
        appmgr->writeLog(kLogError, " initialization failure, exit");
        platform::exitMonitor(kInitFailure);
    }
}

void startRequestFileReplay() {
    if (pszExecuteAppConfigurationFile == nullptr) {
        return;
    }
    pthread_t thread = kNoThread;
    if (platform::createWorkerThread(&thread, startupAppConfigurationProcess, nullptr) == 0) {
        thread_startupAppConfiguration = thread;
        return;
    }
    appmgr->writeLog(kLogError, "pthread_create startupAppConfigurationProcess error");
    platform::flushFileSystems();
    (void)platform::restartMachine(); // Where it fails, the monitor runs without its applications.
}

/// Everything from the launcher's hand-over to the main loop.
void startMonitor(const Options& options) {
    CAutoLock initialization(&g_ovard_initialization_mutex);
    if (options.daemonize) {
        daemonize_withSTDFILE_waitforInterprocessNamedMutex(&g_ovard_initialization_mutex);
    }
    (void)std::atexit(ovardAtExit); // Fails only without memory, when nothing else would work.
    g_releaseResources = free_resources;
    holdTerminationSignals();
    settleProcess();
    platform::logSystemEvent("Application Monitor Started.");
    if (initWatchDog) {
        startWatchdogTimer();
    }
    startManager(options.discover);
    if (block_signal) {
        installLoggingHandler();
    } else {
        installTerminationHandler();
    }
    platform::logSystemEvent("Application Monitor Initialized.");
    initialization.autoLock(nullptr);
}

} // namespace

int runMonitor(int argc, char** argv) {
    completeStandardFiles();
    shareOneHeap();
    if (anotherInstanceRuns()) {
        return kAnotherInstance;
    }
    printVersion();
    const Options options = parseOptions(argc, argv);
    switch (options.purpose) {
    case Options::Purpose::ShowVersion:
        (void)VI_print_FileVersion_FileDate(); // Always 0.
        return 0;
    case Options::Purpose::DiagnosePort22:
        diagnosePort22();
        return 0;
    case Options::Purpose::Monitor:
        break;
    }
    startMonitor(options);
    MonitorPidFile pidFile;
    MainLoop loop(*appmgr, pidFile, options.statusIntervalSec);
    startRequestFileReplay();
    return loop.run();
}
