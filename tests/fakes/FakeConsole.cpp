// Console, daemon log and event log: kept in memory.

#include <cerrno>
#include <cstring>

#include "platform/Console.h"
#include "platform/Log.h"
#include "platform/Time.h"
#include "tests/fakes/FakePlatform.h"

using fakes::Lock;
using fakes::world;

namespace {

/// Runs a copy of `hook`, without the world's lock.
template <typename Hook, typename... Arguments>
void runHook(const Hook& hook, const Arguments&... arguments) {
    Hook copy;
    {
        const Lock lock;
        copy = hook;
    }
    if (copy) {
        copy(arguments...);
    }
}

/// The text of a log line without its one trailing line feed.
std::string logLineText(const char* text) {
    std::string line = text != nullptr ? text : "";
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    return line;
}

} // namespace

namespace platform {

void printConsole(std::string_view text) {
    const int savedErrno = errno;
    runHook(world().onConsole, std::string(text));
    {
        const Lock lock;
        world().console += text;
    }
    errno = savedErrno;
}

void printErrorText(std::string_view text) {
    const int savedErrno = errno;
    const Lock lock;
    world().errors += text;
    errno = savedErrno;
}

void printError(const char* text) {
    const int savedErrno = errno;
    const Lock lock;
    if (text != nullptr && *text != '\0') {
        world().errors += std::string(text) + ": ";
    }
    world().errors += std::string(std::strerror(savedErrno)) + "\n";
    errno = savedErrno;
}

} // namespace platform

int open_zor_log(zor_log* handle, const char* ident, int options, int facility) {
    const Lock lock;
    if (handle == nullptr || ident == nullptr) {
        return -1;
    }
    *handle = {ident, options, facility, 1};
    world().logOpenings.push_back({ident, options, facility});
    world().logOpened = true;
    return 0;
}

int write_zor_log(const zor_log& handle, int level, const char* text, int) {
    if (handle.opened == 0) {
        return -1;
    }
    const std::string line = logLineText(text);
    runHook(world().onLog, level, line);
    const Lock lock;
    world().log.push_back({level, line});
    return 0;
}

int close_zor_log(zor_log* handle) {
    const Lock lock;
    if (handle == nullptr || handle->opened == 0) {
        return -1;
    }
    *handle = {};
    ++world().logCloses;
    world().logOpened = world().logOpenings.size() > static_cast<std::size_t>(world().logCloses);
    return 0;
}

int write_system_log(const char* tag, const zortime8b& time, const char* text) {
    runHook(world().onEvent, std::string(text));
    const Lock lock;
    if (world().eventErrno != 0) {
        errno = world().eventErrno;
        return -1;
    }
    world().eventTimes.push_back(getTimeStampFromZortime8B(time));
    world().events.push_back(std::string(tag) + ": " + text);
    return 0;
}
