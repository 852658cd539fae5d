#include "tests/system/HeldPass.h"

#include <algorithm>

#include "tests/system/Logs.h"
#include "tests/system/Support.h"

namespace systemtest {
namespace {

constexpr int kLongestMs = 70000;

} // namespace

reqcmd withoutRestart(reqcmd request) {
    constexpr std::int32_t kNeitherSelfNorAll = 2;
    request.restart_type = kNeitherSelfNorAll;
    return request;
}

std::vector<std::string> wordsForPolls(int pollSec) {
    return {"-p", std::to_string(pollSec), "-s", "2", "-i", "1", "-v", "4"};
}

bool pollsAreOver() {
    const std::vector<std::string> texts = daemonLogTexts(6);
    return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
        return text.find(" starting0 unconfirmed pidfile, now running") != std::string::npos;
    });
}

std::int64_t durationOfPollsMs(const Daemon& monitor) {
    // A look within the grace period takes no time; the last one before the result polls.
    const std::string look = std::string("checkAlive() ") + kSilentName + " status=1 ";
    std::size_t looks = 0;
    std::int64_t lastLook = 0;
    const auto isOver = [&] {
        const std::size_t count = countOf(monitor.console(), look);
        if (count > looks) {
            looks = count;
            lastLook = monotonicMs();
        }
        return pollsAreOver();
    };
    return eventually(isOver, kLongestMs) && looks > 0 ? monotonicMs() - lastLook : -1;
}

} // namespace systemtest
