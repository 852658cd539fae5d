#include "tests/bench/HealthyApplications.h"

#include <ctime>
#include <string>

#include "platform/Heartbeat.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "records/codes.h"

namespace bench {
namespace {

constexpr int kStartedAgoSec = 1000;
constexpr int kFreshSec = 3600;
constexpr int kFresh = 1; // of heartbeat_check
constexpr int kPatienceMs = 20000;
constexpr int kPollMs = 2;

std::string nameOf(int number) {
    return "application_" + std::to_string(number);
}

std::string programOf(int number) {
    return "/home/kelvo/root/" + nameOf(number);
}

appinfo entryOf(int number, pid_t pid, std::time_t now) {
    appinfo entry = {};
    entry.pid = pid;
    platform::copyToField(entry.name, nameOf(number));
    platform::copyToField(entry.version, kApplicationVersion);
    platform::copyToField(entry.cmd, programOf(number));
    platform::copyToField(entry.pidfile,
                          "/tmp/pid" + programOf(number) + ".pid." + std::to_string(pid));
    entry.status = APP_STATUS_RUNNING;
    entry.start_time = static_cast<std::int32_t>(now - kStartedAgoSec);
    entry.check_flag = 1;
    entry.heartbeat = 1;
    return entry;
}

} // namespace

bool HealthyApplications::start(int count) {
    for (int number = 0; number < count; ++number) {
        if (!processes_.start({programOf(number)})) {
            return false;
        }
    }
    const std::int64_t deadline = platform::monotonicMilliseconds() + kPatienceMs;
    for (const pid_t pid : processes_.pids()) {
        while (heartbeat_check(pid, kFreshSec) != kFresh) {
            if (platform::monotonicMilliseconds() >= deadline) {
                return false;
            }
            platform::sleepMilliseconds(kPollMs);
        }
    }
    return true;
}

std::vector<appinfo> HealthyApplications::entries(int count) const {
    const std::time_t now = platform::currentTime();
    std::vector<appinfo> result;
    for (const pid_t pid : processes_.pids()) {
        if (static_cast<int>(result.size()) == count) {
            break;
        }
        result.push_back(entryOf(static_cast<int>(result.size()), pid, now));
    }
    return result;
}

} // namespace bench
