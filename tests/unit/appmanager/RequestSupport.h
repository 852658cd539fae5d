// Requests, registry entries and replies, as the tests of the manager's commands make and read
// them.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_REQUEST_SUPPORT_H
#define OVARD_TESTS_UNIT_APPMANAGER_REQUEST_SUPPORT_H

#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appmanager/AppManager.h"
#include "platform/Text.h"
#include "records/codes.h"
#include "records/reqcmd.h"
#include "records/response_struct.h"
#include "tests/fakes/FakePlatform.h"

namespace requests {

/// A level and a line without its line feed.
using Line = std::pair<int, std::string>;
using Lines = std::vector<Line>;

/// Fills a field as a sender does that needs no room for a NUL.
template <std::size_t Size> void fillField(char (&field)[Size], std::string_view text) {
    std::memset(field, 0, Size);
    text.copy(field, Size);
}

inline reqcmd makeRequest(int action, std::string_view name = {}, std::string_view cmd = {}) {
    reqcmd request = {};
    request.action = action;
    fillField(request.name, name);
    fillField(request.cmd, cmd);
    return request;
}

inline reqcmd unanswered(reqcmd request) {
    request.nowait = 1;
    return request;
}

/// An entry of a running application; its process is not made.
inline appinfo makeApp(std::string_view name, int pid) {
    appinfo app = {};
    app.pid = pid;
    app.status = APP_STATUS_RUNNING;
    platform::copyToField(app.name, name);
    platform::copyToField(app.cmd, "/home/kelvo/root/" + std::string(name));
    return app;
}

/// An entry whose stop fails: just launched, and its process never comes alive.
inline appinfo makeLostApp(std::string_view name, int pid) {
    appinfo app = makeApp(name, pid);
    app.status = APP_STATUS_STARTING0;
    platform::copyToField(app.pidfile, "/tmp/pid/lost");
    return app;
}

/// An entry whose stop works and whose start fails.
inline appinfo makeAppWithoutCommand(std::string_view name, int pid) {
    appinfo app = makeApp(name, pid);
    app.cmd[0] = '\0';
    return app;
}

/// The replies sent so far, over all connections.
inline std::vector<response_struct> replies() {
    const fakes::Lock lock;
    std::vector<response_struct> found;
    for (const fakes::Output& output : fakes::world().sent) {
        response_struct reply = {};
        std::memcpy(&reply, output.data.data(),
                    output.data.size() < sizeof reply ? output.data.size() : sizeof reply);
        found.push_back(reply);
    }
    return found;
}

inline Lines logLines() {
    const fakes::Lock lock;
    Lines lines;
    for (const fakes::LogLine& line : fakes::world().log) {
        lines.emplace_back(line.level, line.text);
    }
    return lines;
}

/// The names in the registry, in its order.
inline std::vector<std::string> registeredNames() {
    std::vector<std::string> names;
    for (const appinfo& app : applist) {
        names.emplace_back(platform::fieldText(app.name));
    }
    return names;
}

} // namespace requests

#endif // OVARD_TESTS_UNIT_APPMANAGER_REQUEST_SUPPORT_H
