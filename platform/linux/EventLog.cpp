#include "platform/linux/EventLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/UniqueFd.h"
#include "platform/linux/CivilTime.h"
#include "platform/linux/Files.h"
#include "platform/linux/FixedText.h"

namespace platform {
namespace {

constexpr char kEventLogPath[] = "/var/log/meter_events.log";
constexpr mode_t kEventLogMode = 0644;

/// Date, tag, text and what stands between them.
constexpr std::size_t kLineSize = 64 + kLongestEventTag + kLongestEventText;
using EventLine = FixedText<kLineSize>;

std::string_view boundedText(const char* text, std::size_t limit) {
    return text != nullptr ? std::string_view(text, ::strnlen(text, limit)) : std::string_view();
}

EventLine eventLine(const char* tag, const zortime8b& time, const char* text) {
    const auto [seconds, milliseconds] = divideRoundingDown(getTimeStampFromZortime8B(time), 1000);
    EventLine line;
    line.add(dateTimeText(seconds).view());
    line.add(".").addPadded(static_cast<std::uint64_t>(milliseconds), 3);
    line.add(" ").add(boundedText(tag, kLongestEventTag));
    line.add(": ").add(boundedText(text, kLongestEventText)).add("\n");
    return line;
}

UniqueFd openEventLog(const char* path, struct stat& facts) {
    return openPlainFile(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, kEventLogMode, facts);
}

/// Renames the full log `full` away. When another process has done that already, its fresh file
/// stays where it is. False when the log is still in its place.
bool retireEventLog(const char* path, const struct stat& full) {
    struct stat present = {};
    if (::lstat(path, &present) != 0 || present.st_dev != full.st_dev ||
        present.st_ino != full.st_ino) {
        return true;
    }
    FixedText<PATH_MAX> oldPath;
    oldPath.add(path).add(".1");
    return !oldPath.wasCut() && ::rename(path, oldPath.c_str()) == 0;
}

bool hasRoomFor(const struct stat& facts, std::size_t size) {
    return facts.st_size + static_cast<off_t>(size) <= kEventLogLimit;
}

} // namespace

int appendEvent(const char* path, const char* tag, const zortime8b& time, const char* text) {
    const EventLine line = eventLine(tag, time, text);
    const std::string_view content = line.view();
    struct stat facts = {};
    UniqueFd log = openEventLog(path, facts);
    if (log.valid() && !hasRoomFor(facts, content.size())) {
        if (!retireEventLog(path, facts)) {
            return -1;
        }
        log = openEventLog(path, facts);
    }
    if (!log.valid()) {
        return -1;
    }
    if ((facts.st_mode & 07777) != kEventLogMode) {
        (void)::fchmod(log.get(), kEventLogMode); // another owner's log is still worth a line
    }
    const ssize_t written = ::write(log.get(), content.data(), content.size());
    return written == static_cast<ssize_t>(content.size()) ? 0 : -1;
}

} // namespace platform

int write_system_log(const char* tag, const zortime8b& time, const char* text) {
    return platform::appendEvent(platform::kEventLogPath, tag, time, text);
}
