// The sub-commands of `ovardctl requests`.

#ifndef OVARD_CLIENT_OVARDCTL_REQUESTS_COMMAND_LINE_H
#define OVARD_CLIENT_OVARDCTL_REQUESTS_COMMAND_LINE_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/ovardctl/RequestFile.h"
#include "records/reqcmd.h"

namespace CLI {
class App;
} // namespace CLI

namespace ovardctl {

/// What is to be done with a request file.
enum class RequestsVerb { List, Check, Add, Remove, Compile, Show };

/// The arguments of `ovardctl requests`, understood.
struct RequestsCommand {
    RequestsVerb verb = RequestsVerb::List;
    std::string path;                   ///< the request file; with Compile the text
    std::string outputPath;             ///< Compile: the file to be written; empty: standard output
    std::string root;                   ///< Check: where programs are looked for; empty: everywhere
    std::optional<ByteOrder> byteOrder; ///< Check, Compile: of the machine that the file is for
    bool json = false;                  ///< List
    bool replace = false;               ///< Add: take the place of a record of that name
    reqcmd request{};                   ///< Add: the record; Remove: its name; well-formed
    std::vector<std::string> warnings;  ///< Add: for the user; without line feeds
};

/// Adds the sub-commands to `requests`. Whichever is given calls `chosen` and fills in
/// `command`. `meterRoot` is the value of METER_ROOT, null where it is not set. All of them have to
/// outlive the parsing. What is wrong leaves the parser as CLI::ParseError.
void addRequestsCommands(CLI::App& requests, RequestsCommand& command, const char* meterRoot,
                         std::function<void()> chosen);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUESTS_COMMAND_LINE_H
