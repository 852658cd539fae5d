// The C interface, laid over the C++ one.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "client/OvardClient.h"
#include "client/PublishedCopies.h"
#include "client/ovard_client.h"
#include "records/codes.h"

namespace ovard_client {
namespace {

static_assert(std::string_view(OVARD_SOCKET_PATH) == kDefaultSocketPath);
static_assert(OVARD_DEFAULT_TIMEOUT_MS == kDefaultTimeoutMs);

// A request goes out as it is, so it is the record under other names.
static_assert(sizeof(ovard_request) == sizeof(reqcmd));
static_assert(offsetof(ovard_request, name) == offsetof(reqcmd, name));
static_assert(offsetof(ovard_request, version) == offsetof(reqcmd, version));
static_assert(offsetof(ovard_request, command) == offsetof(reqcmd, cmd));
static_assert(offsetof(ovard_request, pidfile) == offsetof(reqcmd, pidfile));
static_assert(offsetof(ovard_request, port_type) == offsetof(reqcmd, porttype));
static_assert(offsetof(ovard_request, port_number) == offsetof(reqcmd, portnum));
static_assert(offsetof(ovard_request, action) == offsetof(reqcmd, action));
static_assert(offsetof(ovard_request, priority) == offsetof(reqcmd, priority));
static_assert(offsetof(ovard_request, delay) == offsetof(reqcmd, delay));
static_assert(offsetof(ovard_request, keepalive) == offsetof(reqcmd, keepalive));
static_assert(offsetof(ovard_request, no_wait) == offsetof(reqcmd, nowait));
static_assert(offsetof(ovard_request, heartbeat) == offsetof(reqcmd, heartbeat));
static_assert(offsetof(ovard_request, reserved) == offsetof(reqcmd, reserved));
static_assert(offsetof(ovard_request, restart_type) == offsetof(reqcmd, restart_type));
static_assert(offsetof(ovard_request, life_limit_sec) == offsetof(reqcmd, last_runtime_life_limit));

// The codes are compared as the numbers that travel.
constexpr bool stands(std::int32_t code, std::int32_t forCode) {
    return code == forCode;
}
static_assert(stands(OVARD_START, APPMONCTL_Start));
static_assert(stands(OVARD_STOP, APPMONCTL_Stop));
static_assert(stands(OVARD_STOP_ALL, APPMONCTL_Stop_All));
static_assert(stands(OVARD_STOP_ALL_BUT_SECURITY, APPMONCTL_Stop_All_But));
static_assert(stands(OVARD_STOP_PORT_APPS, APPMONCTL_Stop_PortApps));
static_assert(stands(OVARD_RESTART, APPMONCTL_Restart));
static_assert(stands(OVARD_RESTART_ALL, APPMONCTL_Restart_All));
static_assert(stands(OVARD_RESTART_SELF_RESTARTING, APPMONCTL_Restart_All_But));
static_assert(stands(OVARD_RESTART_PORT_APPS, APPMONCTL_Restart_PortApps));
static_assert(stands(OVARD_PORT_NONE, PORT_TYPE_NONE));
static_assert(stands(OVARD_PORT_COM, PORT_TYPE_COM));
static_assert(stands(OVARD_PORT_ETH, PORT_TYPE_ETH));
static_assert(stands(OVARD_RESTART_TYPE_SELF, RESTART_TYPE_SELF));
static_assert(stands(OVARD_RESTART_TYPE_ALL, RESTART_TYPE_ALL));

const char* pathOrDefault(const char* socketPath) {
    return socketPath != nullptr ? socketPath : kDefaultSocketPath;
}

template <std::size_t Size> bool isTerminated(const char (&field)[Size]) {
    return ::strnlen(field, Size) < Size;
}

template <std::size_t Size> ovard_result setField(char (&field)[Size], const char* text) {
    if (text == nullptr) {
        return OVARD_INVALID_ARGUMENT;
    }
    const std::size_t length = ::strnlen(text, Size);
    if (length == Size) {
        return OVARD_TOO_LONG;
    }
    std::memset(field, 0, Size);
    std::memcpy(field, text, length);
    return OVARD_OK;
}

/// The monitor would execute such a request for an application of no name, or not answer it.
bool isIncomplete(const ovard_request& request) {
    switch (request.action) {
    case OVARD_START:
        return request.name[0] == '\0' || request.command[0] == '\0';
    case OVARD_STOP:
    case OVARD_RESTART:
        return request.name[0] == '\0';
    default:
        return request.action < OVARD_START || request.action > OVARD_RESTART_PORT_APPS;
    }
}

/// Whether such a call can succeed.
ovard_result judge(const Endpoint& endpoint, const ovard_request* request,
                   const ovard_reply* reply) {
    if (endpoint.socketPath[0] == '\0' || endpoint.timeoutMs < 1 || request == nullptr ||
        (reply == nullptr && request->no_wait == 0)) {
        return OVARD_INVALID_ARGUMENT;
    }
    if (!isTerminated(request->name) || !isTerminated(request->version) ||
        !isTerminated(request->command) || !isTerminated(request->pidfile)) {
        return OVARD_TOO_LONG;
    }
    return isIncomplete(*request) ? OVARD_INVALID_ARGUMENT : OVARD_OK;
}

reqcmd toRecord(const ovard_request& request) {
    reqcmd record;
    std::memcpy(&record, &request, sizeof record);
    return record;
}

ovard_result toResult(const Outcome& outcome) {
    switch (outcome.result) {
    case Result::Ok:
        return OVARD_OK;
    case Result::NoMonitor:
        return OVARD_NO_MONITOR;
    case Result::TimedOut:
        return OVARD_TIMED_OUT;
    case Result::ConnectionClosed:
        return OVARD_CONNECTION_CLOSED;
    case Result::SystemError:
        break;
    }
    return outcome.systemError == ENAMETOOLONG ? OVARD_TOO_LONG : OVARD_SYSTEM_ERROR;
}

ovard_result toResult(const SegmentOutcome& outcome) {
    switch (outcome.result) {
    case SegmentResult::Ok:
        return OVARD_OK;
    case SegmentResult::NoSegment:
    case SegmentResult::TooShort:
        return OVARD_NOT_PUBLISHED;
    case SegmentResult::KeptChanging:
        return OVARD_KEPT_CHANGING;
    case SegmentResult::SystemError:
        break;
    }
    return OVARD_SYSTEM_ERROR;
}

ovard_result withErrno(ovard_result result, int error) {
    if (result == OVARD_SYSTEM_ERROR) {
        errno = error;
    }
    return result;
}

/// Fills in what was received; `record` is all zero where nothing was.
void fillReply(ovard_reply& reply, const response_struct& record, const Outcome& outcome) {
    reply = {};
    reply.code = record.code;
    reply.request_sent = outcome.requestSent;
    copyText(reply.message, record.message);
}

} // namespace
} // namespace ovard_client

using namespace ovard_client;

const char* ovard_result_text(ovard_result result) noexcept {
    switch (result) {
    case OVARD_OK:
        return "done";
    case OVARD_NO_MONITOR:
        return "no monitor listens";
    case OVARD_TIMED_OUT:
        return "the time was over";
    case OVARD_CONNECTION_CLOSED:
        return "the monitor closed the connection without a reply";
    case OVARD_SYSTEM_ERROR:
        return "failure of the system";
    case OVARD_INVALID_ARGUMENT:
        return "invalid argument";
    case OVARD_TOO_LONG:
        return "a text is too long";
    case OVARD_NOT_PUBLISHED:
        return "nothing is published";
    case OVARD_KEPT_CHANGING:
        return "what is published kept changing";
    }
    return "unknown result";
}

void ovard_request_init(ovard_request* request, ovard_action action) noexcept {
    if (request != nullptr) {
        *request = {};
        request->action = action;
    }
}

ovard_result ovard_request_set_name(ovard_request* request, const char* name) noexcept {
    return request == nullptr ? OVARD_INVALID_ARGUMENT : setField(request->name, name);
}

ovard_result ovard_request_set_version(ovard_request* request, const char* version) noexcept {
    return request == nullptr ? OVARD_INVALID_ARGUMENT : setField(request->version, version);
}

ovard_result ovard_request_set_command(ovard_request* request, const char* command) noexcept {
    return request == nullptr ? OVARD_INVALID_ARGUMENT : setField(request->command, command);
}

ovard_result ovard_request_set_pidfile(ovard_request* request, const char* pidfile) noexcept {
    return request == nullptr ? OVARD_INVALID_ARGUMENT : setField(request->pidfile, pidfile);
}

ovard_result ovard_send(const char* socket_path, int32_t timeout_ms, const ovard_request* request,
                        ovard_reply* reply) noexcept {
    const Endpoint endpoint{pathOrDefault(socket_path), timeout_ms};
    response_struct received = {};
    Outcome outcome = {};
    ovard_result result = judge(endpoint, request, reply);
    if (result == OVARD_OK) {
        const reqcmd record = toRecord(*request);
        outcome = sendRequest(&endpoint, &record, &received);
        result = toResult(outcome);
    }
    if (reply != nullptr) {
        fillReply(*reply, received, outcome);
    }
    return withErrno(result, outcome.systemError);
}

ovard_monitor_state ovard_find_monitor(const char* socket_path) noexcept {
    switch (findMonitor(pathOrDefault(socket_path))) {
    case MonitorState::NotRunning:
        return OVARD_MONITOR_NOT_RUNNING;
    case MonitorState::Running:
        return OVARD_MONITOR_RUNNING;
    case MonitorState::Unknown:
        break;
    }
    return OVARD_MONITOR_UNKNOWN;
}

ovard_result ovard_read_applications(ovard_application* applications, size_t capacity,
                                     ovard_overview* overview) noexcept {
    if (applications == nullptr && capacity > 0) {
        return OVARD_INVALID_ARGUMENT;
    }
    // Too large for the stack of a small thread.
    const std::unique_ptr<application_segment> segment(new (std::nothrow) application_segment);
    if (segment == nullptr) {
        return withErrno(OVARD_SYSTEM_ERROR, ENOMEM);
    }
    const SegmentOutcome outcome = readApplicationSegment(segment.get());
    if (outcome.result != SegmentResult::Ok) {
        return withErrno(toResult(outcome), outcome.systemError);
    }
    if (!holdsCycle(*segment)) {
        return OVARD_NOT_PUBLISHED;
    }
    copyApplications(*segment, applications, capacity);
    if (overview != nullptr) {
        *overview = copyOf(segment->header);
        overview->modified_ms = outcome.modifiedMs;
    }
    return OVARD_OK;
}

ovard_result ovard_read_machine(ovard_machine* machine) noexcept {
    if (machine == nullptr) {
        return OVARD_INVALID_ARGUMENT;
    }
    system_segment segment;
    const SegmentOutcome outcome = readSystemSegment(&segment);
    if (outcome.result != SegmentResult::Ok) {
        return withErrno(toResult(outcome), outcome.systemError);
    }
    if (!holdsCycle(segment)) {
        return OVARD_NOT_PUBLISHED;
    }
    *machine = copyOf(segment);
    machine->modified_ms = outcome.modifiedMs;
    return OVARD_OK;
}
