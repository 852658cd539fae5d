#include "server/FaultNews.h"

#include "platform/Time.h"

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
