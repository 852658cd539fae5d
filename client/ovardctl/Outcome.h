// What ovardctl tells, and how it ends. For a request: the reply's message, an explanation where
// something went wrong, and the exit status.

#ifndef OVARD_CLIENT_OVARDCTL_OUTCOME_H
#define OVARD_CLIENT_OVARDCTL_OUTCOME_H

#include <string>

#include "client/OvardClient.h"
#include "client/ovardctl/CommandLine.h"
#include "records/response_struct.h"

namespace ovardctl {

/// Exit statuses of ovardctl.
enum ExitStatus : int {
    kExitOk = 0,            ///< code 0, or sent without waiting; shown
    kExitFailed = 1,        ///< the reply carries a failure code; no such application is published;
                            ///< there is no event log; a request file is not in order
    kExitUsage = 2,         ///< wrong arguments
    kExitNoMonitor = 3,     ///< no monitor listens; what was shown is stale
    kExitNoReply = 4,       ///< no whole reply came in time; no whole or no current data are there
    kExitSystemError = 5,   ///< any other failure of the system; it hides whether a monitor runs
    kExitInterrupted = 130, ///< SIGINT ended the wait for the reply
};

/// What to print and how to end.
struct Report {
    int exitStatus;
    std::string output; ///< for standard output; empty or ends with a line feed
    std::string error;  ///< for standard error; empty or ends with a line feed
};

/// The message of a reply as printable text: bounded by its field, every byte other than a line
/// feed and printable ASCII shown as \xNN, with a line feed at the end unless it is empty.
std::string printableMessage(const response_struct& reply);

/// What is said when SIGINT ended the wait.
Report interruptedReport();

/// Judges the outcome of the request in `commandLine`; `reply` counts only when one was received.
/// Code 0 tells less than success of a start, which is answered before the program is known to run,
/// of a stop of several applications, where it is that of the last stop alone, and of a restart of
/// one with policy `all`, which is done with the next pass.
Report makeReport(const CommandLine& commandLine, const ovard_client::Outcome& outcome,
                  const response_struct& reply);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_OUTCOME_H
