// What `ovardctl requests` does with request files.

#ifndef OVARD_CLIENT_OVARDCTL_REQUESTS_TOOL_H
#define OVARD_CLIENT_OVARDCTL_REQUESTS_TOOL_H

#include "client/ovardctl/Outcome.h"
#include "client/ovardctl/RequestsCommandLine.h"

namespace ovardctl {

/// Carries out `command`. The exit status is kExitOk; kExitFailed where the file or the text has
/// problems, or the name is none that can be added or removed; kExitSystemError where a file cannot
/// be read or written. The output of Compile may hold any bytes. `meterRoot` is the value of
/// METER_ROOT, null where it is not set.
Report runRequests(const RequestsCommand& command, const char* meterRoot);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUESTS_TOOL_H
