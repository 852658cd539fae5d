// The requests of golden/RequestFileImage.h.

#ifndef OVARD_TESTS_RECORDS_RECORDED_REQUESTS_H
#define OVARD_TESTS_RECORDS_RECORDED_REQUESTS_H

#include <vector>

#include "platform/Text.h"
#include "records/codes.h"
#include "records/reqcmd.h"

namespace recordstest {

inline reqcmd networkServerStart() {
    reqcmd request = {};
    platform::copyToField(request.name, "data_server");
    platform::copyToField(request.version, "2.5");
    platform::copyToField(request.cmd, "/home/kelvo/root/data_server -p 5");
    platform::copyToField(request.pidfile, "/tmp/pid/home/kelvo/root/data_server.pid");
    request.porttype = PORT_TYPE_ETH;
    request.portnum = 502;
    request.action = APPMONCTL_Start;
    request.priority = -7;
    request.nowait = 1;
    request.heartbeat = 1;
    request.restart_type = RESTART_TYPE_ALL;
    request.last_runtime_life_limit = 86400;
    return request;
}

inline reqcmd serialPortStart() {
    reqcmd request = {};
    platform::copyToField(request.name, "modbus_port");
    platform::copyToField(request.cmd, "/home/kelvo/modbus/modbus_port");
    platform::copyToField(request.pidfile, "/tmp/pid/home/kelvo/modbus/modbus_port.pid");
    request.porttype = PORT_TYPE_COM;
    request.portnum = 3;
    request.action = APPMONCTL_Start;
    request.delay = 2000;
    request.keepalive = 1;
    return request;
}

inline reqcmd networkServerRestart() {
    reqcmd request = {};
    platform::copyToField(request.name, "data_server");
    request.action = APPMONCTL_Restart;
    return request;
}

inline std::vector<reqcmd> recordedRequests() {
    return {networkServerStart(), serialPortStart(), networkServerRestart()};
}

} // namespace recordstest

#endif // OVARD_TESTS_RECORDS_RECORDED_REQUESTS_H
