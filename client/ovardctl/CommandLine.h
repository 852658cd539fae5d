// The command line of ovardctl: arguments to a request record, or to what is to be shown.

#ifndef OVARD_CLIENT_OVARDCTL_COMMAND_LINE_H
#define OVARD_CLIENT_OVARDCTL_COMMAND_LINE_H

#include <cstdint>
#include <string>
#include <vector>

#include "client/OvardClient.h"
#include "client/ovardctl/RequestsCommandLine.h"
#include "records/reqcmd.h"

namespace ovardctl {

/// What the arguments ask for.
enum class Verdict {
    Send,       ///< send `request`
    ShowStatus, ///< show the published applications, see `view`
    ShowSystem, ///< show the published state of the machine, see `view`
    ShowEvents, ///< show the event log, see `events`
    Requests,   ///< work on a request file, see `requests`
    ShowText,   ///< print `text` (help or version), nothing else
    UsageError, ///< `text` says what is wrong and what to do
};

/// What published data are to be shown, and how.
struct ViewRequest {
    std::string name;          ///< the application to show; empty: all
    bool json = false;         ///< JSON, not tables
    std::int32_t watchSec = 0; ///< show it again after so many seconds, 1 to 3600; 0: once
};

/// What is to be shown of the event log.
struct EventRequest {
    std::string path = "/var/log/meter_events.log";
    std::int32_t lines = 20; ///< the last ones, 0 to 1000000
    bool follow = false;     ///< then those that come, until interrupted
    bool json = false;       ///< one JSON object a line
};

/// The arguments, understood.
struct CommandLine {
    Verdict verdict = Verdict::UsageError;
    reqcmd request{}; ///< well-formed: every text ends with a NUL
    ViewRequest view;
    EventRequest events;
    RequestsCommand requests;
    std::string socketPath = ovard_client::kDefaultSocketPath;
    std::int32_t timeoutSec = ovard_client::kDefaultTimeoutMs / 1000; ///< 1 to 86400
    std::string text;                  ///< see Verdict; ends with a line feed unless empty
    std::vector<std::string> warnings; ///< for the user; without line feeds
};

/// Reads the arguments of one call. `meterRoot` is the value of METER_ROOT, null where it is not
/// set. Texts that do not fit their field of the request are usage errors. Never throws for wrong
/// arguments; touches nothing outside.
CommandLine parseCommandLine(int argc, const char* const* argv, const char* meterRoot);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_COMMAND_LINE_H
