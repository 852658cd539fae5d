// The options that describe an application to be started.

#ifndef OVARD_CLIENT_OVARDCTL_START_OPTIONS_H
#define OVARD_CLIENT_OVARDCTL_START_OPTIONS_H

#include <string>
#include <vector>

#include "records/reqcmd.h"

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace ovardctl {

/// Adds to a command all that a start request holds but for the name of the application and
/// `nowait`: --cmd, which is required, --version, --pidfile and --no-pidfile, --port, --priority,
/// --delay, --keepalive, --heartbeat, --restart and --life-limit. The values go into `request`.
class StartOptions {
public:
    /// `app` and `request` have to outlive the parsing.
    StartOptions(CLI::App& app, reqcmd& request);

    /// Completes the request; to be called once `app` has been parsed, in its final callback. Sets
    /// the action and, unless a pid file was chosen or refused, its conventional name. `meterRoot`
    /// is the value of METER_ROOT, null where it is not set. Returns warnings for the user, without
    /// line feeds. Throws CLI::ValidationError when the command holds no program.
    std::vector<std::string> complete(const char* meterRoot) const;

private:
    void addPolicy(CLI::App& app) const;

    reqcmd* request_;
    const CLI::Option* pidFile_;
    const CLI::Option* noPidFile_;
};

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_START_OPTIONS_H
