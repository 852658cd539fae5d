#include "platform/linux/EventLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/System.h"
#include "platform/UniqueFd.h"
#include "platform/linux/CivilTime.h"
#include "platform/linux/Files.h"
#include "platform/linux/FixedText.h"

namespace platform {
namespace {

/// What a full log that is locked may still take, in bytes.
constexpr off_t kLockedLogReserve = 65536;

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

bool isStillInPlace(const char* path, const struct stat& log) {
    return isSameFile(identifyFile(path), {log.st_dev, log.st_ino});
}

bool renameAway(const char* path) {
    FixedText<PATH_MAX> oldPath;
    oldPath.add(path).add(".1");
    return !oldPath.wasCut() && ::rename(path, oldPath.c_str()) == 0;
}

/// Puts a fresh log in place of the full one that `log` and `facts` are of. Only who holds the lock
/// of the full one renames it, lest two writers rename twice and lose what it held. Whoever finds
/// it locked does not wait, it may be its own thread below a signal handler: the line still goes
/// into the full log. A lock that is kept until the reserve is used up is no writer's, and does not
/// count. False when there is no log to write to.
bool renewEventLog(const char* path, UniqueFd& log, struct stat& facts) {
    const bool locked = ::flock(log.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (locked && facts.st_size < kEventLogLimit + kLockedLogReserve) {
        return true;
    }
    if (isStillInPlace(path, facts) && !renameAway(path)) {
        return false;
    }
    log = openEventLog(path, facts);
    return log.valid();
}

bool hasRoomFor(const struct stat& facts, std::size_t size) {
    return facts.st_size + static_cast<off_t>(size) <= kEventLogLimit;
}

/// Takes a piece of a line back, which the next line would continue, unless another writer has
/// already done so.
void takeBack(int log, ssize_t written) {
    const off_t end = ::lseek(log, 0, SEEK_CUR);
    struct stat facts = {};
    if (end >= written && ::fstat(log, &facts) == 0 && facts.st_size == end) {
        (void)!::ftruncate(log, end - written); // where it fails, half a line stays
    }
}

} // namespace

int appendEvent(const char* path, const char* tag, const zortime8b& time, const char* text) {
    const EventLine line = eventLine(tag, time, text);
    const std::string_view content = line.view();
    struct stat facts = {};
    UniqueFd log = openEventLog(path, facts);
    if (!log.valid()) {
        return -1;
    }
    if (!hasRoomFor(facts, content.size()) && !renewEventLog(path, log, facts)) {
        return -1;
    }
    if ((facts.st_mode & 07777) != kEventLogMode) {
        (void)::fchmod(log.get(), kEventLogMode); // another owner's log is still worth a line
    }
    const ssize_t written = ::write(log.get(), content.data(), content.size());
    if (written == static_cast<ssize_t>(content.size())) {
        return 0;
    }
    if (written > 0) {
        takeBack(log.get(), written);
        errno = ENOSPC; // as where there was no room for any of it
    }
    return -1;
}

} // namespace platform

int write_system_log(const char* tag, const zortime8b& time, const char* text) {
    return platform::appendEvent(kEventLogPath, tag, time, text);
}
