#include "runtime/Options.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "platform/Settings.h"
#include "runtime/Globals.h"

namespace {

constexpr std::int32_t kLongestDeferSec = 300;
constexpr std::int32_t kLongestHeartbeatStartSec = 3600;
constexpr std::int32_t kLongestPidfileStartSec = 60;
constexpr std::int32_t kLongestHeartbeatExpireSec = 86400;

/// A number beyond 32 bits becomes the nearest one that fits, on every machine.
std::int32_t number(const char* text) {
    using Limits = std::numeric_limits<std::int32_t>;
    const long long value = std::strtoll(text, nullptr, 10);
    return static_cast<std::int32_t>(std::clamp<long long>(value, Limits::min(), Limits::max()));
}

std::int32_t clamped(std::int32_t value, std::int32_t most) {
    if (value <= 0) {
        return 1;
    }
    return value > most ? most : value;
}

void enableWatchdog(std::int32_t deferSec) {
    initWatchDog = true;
    watchdogDeferTime = deferSec > kLongestDeferSec ? kLongestDeferSec : deferSec;
}

} // namespace

Options parseOptions(int argc, char** argv) {
    Options options;
    int option = 0;
    while ((option = ::getopt(argc, argv, "?w:dbav:s:p:h:i:I:f:x:t")) != -1) {
        switch (option) {
        case 'w':
            enableWatchdog(number(optarg));
            break;
        case 'd':
            options.daemonize = false;
            break;
        case 'b':
            block_signal = true;
            break;
        case 'a':
            options.discover = false;
            break;
        case 'v':
            g_verbose = number(optarg);
            break;
        case 's':
            app_heartbeat_minimum_start_time = clamped(number(optarg), kLongestHeartbeatStartSec);
            break;
        case 'p':
            app_pidfile_minimum_start_time = clamped(number(optarg), kLongestPidfileStartSec);
            break;
        case 'h':
            app_heartbeat_expire_interval = clamped(number(optarg), kLongestHeartbeatExpireSec);
            break;
        case 'i':
            options.statusIntervalSec = number(optarg);
            break;
        case 'I':
            watchdog_timer_inteval = number(optarg);
            break;
        case 'f':
            pszAppendToAppConfigurationFile = optarg;
            options.discover = false;
            break;
        case 'x':
            pszExecuteAppConfigurationFile = optarg;
            options.discover = false;
            break;
        case 't':
            options.purpose = Options::Purpose::DiagnosePort22;
            return options;
        default: // '?', which getopt also returns for what it does not know. Deliberate.
            options.purpose = Options::Purpose::ShowVersion;
            return options;
        }
    }
    return options;
}
