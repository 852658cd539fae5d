// The record that the tests of the reports show.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_REPORT_SUPPORT_H
#define OVARD_TESTS_UNIT_APPMANAGER_REPORT_SUPPORT_H

#include <cstdint>
#include <string_view>

#include "platform/Text.h"
#include "records/appinfo.h"
#include "records/codes.h"

namespace reports {

/// 2023-11-14 22:13:20 UTC.
inline constexpr std::int32_t kStartTime = 1700000000;

inline appinfo makeRecord(std::string_view name = "data_server") {
    appinfo app = {};
    platform::copyToField(app.name, name);
    platform::copyToField(app.version, "1.02");
    platform::copyToField(app.cmd, "/home/kelvo/root/data_server -p \"x\"");
    platform::copyToField(app.pidfile, "/tmp/pid/data_server.pid.700");
    app.pid = 700;
    app.status = APP_STATUS_RUNNING;
    app.port_type = PORT_TYPE_COM;
    app.port_num = 3;
    app.start_time = kStartTime;
    app.uptime = 42;
    app.priority = -5;
    app.restart_type = 1;
    app.last_runtime_life_limit = 600;
    return app;
}

inline appinfo makeRecord(std::string_view name, int status) {
    appinfo app = makeRecord(name);
    app.status = status;
    return app;
}

} // namespace reports

#endif // OVARD_TESTS_UNIT_APPMANAGER_REPORT_SUPPORT_H
