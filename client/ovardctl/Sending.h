// The sending of a request from the command line, with a wait that can be watched and left.

#ifndef OVARD_CLIENT_OVARDCTL_SENDING_H
#define OVARD_CLIENT_OVARDCTL_SENDING_H

#include <cstdint>
#include <functional>

#include "client/OvardClient.h"
#include "client/ovardctl/CommandLine.h"
#include "records/response_struct.h"

namespace ovardctl {

/// How the sending ended.
struct Sending {
    bool isInterrupted = false; ///< by SIGINT; the rest holds only otherwise
    ovard_client::Outcome outcome{};
    response_struct reply{};
};

/// Sends the request of `commandLine` as ovard_client::sendRequest does, and calls `tick` with the
/// seconds that have passed, once a second.
///
/// SIGINT ends the wait, unless the program ignores it; the monitor goes on with the request. The
/// call runs on a thread of its own, which is then left behind and ends with the time-out at the
/// latest. Throws std::system_error when the system has no thread or descriptor for it. For
/// programs that start no other threads: SIGINT is blocked in the calling thread meanwhile.
Sending sendWatched(const CommandLine& commandLine,
                    const std::function<void(std::int64_t elapsedSec)>& tick);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_SENDING_H
