#include "runtime/Globals.h"

#include "platform/Signals.h"

bool initWatchDog = false;
std::int32_t watchdog_timer_inteval = 5;
std::int32_t watchdogDeferTime = 120;
bool block_signal = false;
AppManager* appmgr = nullptr;
std::string pidfile;
char version[36] = "";
char buildtime[36] = "";
pthread_t thread_startupAppConfiguration = kNoThread;
sigset_t prevMask;
struct sigaction savedSigAction_SIGCONT;
struct sigaction saved_sa;
timer_t timerid = kNoTimer;
std::atomic<std::int32_t> wdog_fd{-1};
std::atomic<int> g_watchdogError{0};
std::atomic<std::uint32_t> thread_heartbeat_counter{0};
std::atomic<std::int32_t> detect_heartbeat{0};

namespace {

/// A file that outgrows an inherited limit is a failed write, no reason to end. Before the mutex,
/// whose making writes already.
[[maybe_unused]] const int g_fileSizeLimitIsAnError = platform::setSignalHandler(SIGXFSZ, SIG_IGN);

} // namespace

const char* const g_ovard_initialization_mutex_name = "/ovard.initialization";
CInterprocessNamedMutex g_ovard_initialization_mutex(g_ovard_initialization_mutex_name);
