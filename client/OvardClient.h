// Control requests to the application monitor, for other programs.
//
// One function, plain structs, result codes: no exception leaves it, it keeps no state between
// calls, starts no thread and changes no signal handling. It needs nothing of the monitor but the
// records, so that a C interface can be laid over it.

#ifndef OVARD_CLIENT_OVARD_CLIENT_H
#define OVARD_CLIENT_OVARD_CLIENT_H

#include <cstdint>

#include "records/reqcmd.h"
#include "records/response_struct.h"

namespace ovard_client {

/// Where the monitor listens.
inline constexpr const char* kDefaultSocketPath = "/tmp/appmon_sock";

/// Time allowed for one request by default, in milliseconds. An action on all applications can take
/// many seconds: each stop and each launch is waited for.
inline constexpr std::int32_t kDefaultTimeoutMs = 60000;

/// How a call ended.
enum class Result : std::int32_t {
    Ok = 0,               ///< the request is out and, unless `nowait` is set, the reply is here
    NoMonitor = 1,        ///< there is no socket at the path, or nobody listens on it
    TimedOut = 2,         ///< the time-out passed
    ConnectionClosed = 3, ///< the monitor closed the connection without a whole reply
    SystemError = 4,      ///< any other failure; see `Outcome::systemError`
};

/// Where to send a request and how long to wait.
struct Endpoint {
    const char* socketPath; ///< at most 107 characters; not owned, read during the call only
    std::int32_t timeoutMs; ///< for the whole call, in milliseconds; at least 1
};

/// The outcome of one call.
struct Outcome {
    Result result;
    std::int32_t systemError; ///< errno of the failure behind `result`; 0 where there is none
    std::uint8_t requestSent; ///< 1 once the monitor has the whole request, else 0
};

/// Connects to the monitor, sends `request` whole and waits for the whole reply, all within the
/// time-out (monotonic clock). With `request->nowait` set nothing is awaited.
///
/// `reply` is filled when the result is Ok and `nowait` is clear, and stays as it was otherwise; it
/// may be null when `nowait` is set. The texts in a reply may lack their NUL: read them bounded by
/// their fields. The monitor sends no reply for some failures, so TimedOut and ConnectionClosed
/// with `requestSent` set mean that the request may have been carried out, in part or wholly.
///
/// SystemError comes with EINVAL for a null pointer, an empty path or a time-out below 1, and with
/// ENAMETOOLONG for a path that does not fit a socket address.
///
/// The caller owns everything that it passes in; nothing is kept after the return. May be called
/// from any thread, and from several at once; but the monitor answers one connection at a time, and
/// a connection that is pending when another one comes in gets no reply. Signals that interrupt the
/// call do not lengthen it; SIGPIPE is never raised. The descriptor in use is closed on exec.
Outcome sendRequest(const Endpoint* endpoint, const reqcmd* request,
                    response_struct* reply) noexcept;

} // namespace ovard_client

#endif // OVARD_CLIENT_OVARD_CLIENT_H
