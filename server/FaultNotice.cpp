#include "server/FaultNotice.h"

#include <cstring>

#include "platform/Time.h"
#include "server/AppServer.h"

namespace {

constexpr std::int64_t kQuietMs = 60000;

} // namespace

bool FaultNews::isDue(bool isThere) {
    if (isThere == isTold_) {
        return false;
    }
    const std::int64_t nowMs = platform::monotonicMilliseconds();
    if (isThere && nowMs < quietUntilMs_) {
        return false;
    }
    if (isThere) {
        quietUntilMs_ = nowMs + kQuietMs;
    }
    isTold_ = isThere;
    return true;
}

void logWriteFault(AppServer& log, const char* path, int error) {
    char text[128];
    log.writeLog(kLogError, "%s cannot be written: %s", path,
                 ::strerror_r(error, text, sizeof text));
}

void FaultNotice::update(AppServer& log, int error) {
    const bool fails = error != 0;
    if (!news_.isDue(fails)) {
        return;
    }
    if (fails) {
        logWriteFault(log, path_, error);
    } else {
        log.writeLog(kLogInfo, "%s is written again", path_);
    }
}
