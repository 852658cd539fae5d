// The application monitor for other programs: control requests to it, and what it publishes.
//
// Plain functions and structs, result codes: no exception leaves them, they keep no state between
// calls, start no thread and change no signal handling. They need nothing of the monitor but the
// records, so that a C interface can be laid over them. A thread that calls them must not be
// cancelled meanwhile.

#ifndef OVARD_CLIENT_OVARD_CLIENT_H
#define OVARD_CLIENT_OVARD_CLIENT_H

#include <cstdint>

#include "records/reqcmd.h"
#include "records/response_struct.h"
#include "records/segments.h"

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

/// Whether a monitor runs, as far as can be seen.
enum class MonitorState : std::int32_t {
    NotRunning = 0,
    Running = 1,
    Unknown = 2, ///< the kernel does not tell
};

/// Looks whether a monitor listens on the socket, without a connection to it: in the kernel's table
/// of local sockets, /proc/net/unix. A monitor listens from before its first publication until it
/// ends, however it ends; a socket or pid file that it left behind counts for nothing. The path has
/// to be the one that the socket was bound to, character for character, and the caller has to be in
/// the monitor's network namespace. A null path gives Unknown. May be called from any thread.
MonitorState findMonitor(const char* socketPath) noexcept;

/// How the reading of a segment ended.
enum class SegmentResult : std::int32_t {
    Ok = 0,           ///< the whole of it is here
    NoSegment = 1,    ///< there is none of that name
    TooShort = 2,     ///< it has fewer bytes than the record
    KeptChanging = 3, ///< no two successive copies of it agreed
    SystemError = 4,  ///< any other failure; see `SegmentOutcome::systemError`
};

/// The outcome of one reading.
struct SegmentOutcome {
    SegmentResult result;
    std::int32_t systemError; ///< errno of the failure behind `result`; 0 where there is none
    std::int64_t modifiedMs;  ///< when it was last written; 0 unless the result is Ok
};

/// Reads a segment without a lock, as often as it takes until two successive copies, 5 ms apart,
/// agree; at most 40 times, which is 0.2 seconds. Half of a publishing cycle is thus not handed
/// out, unless its writer was held up in the middle of it for all of those 5 ms.
///
/// The record is filled when the result is Ok, and stays as it was otherwise. What is in it is no
/// more than what somebody has written: texts may lack their NUL, numbers have any value. A monitor
/// that starts fills the segments with zero bytes; until its first cycle is out, the application
/// header's `maximum` is 0 and `meterinfo_struct::kernel_release` empty. A monitor that ends leaves
/// the last cycle behind: see findMonitor.
///
/// The segments hold no time of their publication. `modifiedMs` stands for it: the modification
/// time of the segment in milliseconds since the epoch, by the machine's wall clock. Any write
/// moves it, that of a program that sets its health word in the application segment included. A
/// write through a mapping need not move it, which the monitor does not do. The owner of the
/// segment can set it at will; one so far from now that a difference would not fit is cut to what
/// does.
///
/// SystemError comes with EINVAL for a null pointer and for a name that is no regular file. May be
/// called from any thread. The descriptor in use is closed on exec.
SegmentOutcome readSystemSegment(system_segment* system) noexcept;
SegmentOutcome readApplicationSegment(application_segment* applications) noexcept;

} // namespace ovard_client

#endif // OVARD_CLIENT_OVARD_CLIENT_H
