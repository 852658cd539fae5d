// The event log on standard output: its last lines, and those that come.

#ifndef OVARD_CLIENT_OVARDCTL_EVENTS_H
#define OVARD_CLIENT_OVARDCTL_EVENTS_H

#include <cstdio>
#include <functional>

#include "client/ovardctl/CommandLine.h"

namespace ovardctl {

/// Shows what `request` asks for. Where the log has fewer lines than are wanted, the older ones
/// come from the file that it was renamed to, the path and ".1".
///
/// Following, it looks for new lines after each `pause`, until that says no or `output` takes no
/// more. A log that is renamed and begun again, or cut short, is followed to its new lines; one
/// that does not exist is waited for. Errors go to `errors`, one that stays as it is only once.
///
/// Returns the exit status: kExitOk, kExitFailed when there is no log, or kExitSystemError when it
/// cannot be read or shown.
int showEvents(const EventRequest& request, std::FILE* output, std::FILE* errors,
               const std::function<bool()>& pause);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_EVENTS_H
