#include "client/ovardctl/StartOptions.h"

#include "client/ovardctl/Options.h"
#include "client/ovardctl/StartChecks.h"
#include "records/codes.h"

namespace ovardctl {

StartOptions::StartOptions(CLI::App& app, reqcmd& request)
    : request_(&request) {
    addField(app, "--cmd", request.cmd, "Absolute path of the program and its arguments")
        ->required();
    // Behind the command this hides the tool's own --version.
    addField(app, "--version", request.version, "Version that its pid file has to show");
    CLI::Option* pidFile =
        addField(app, "--pidfile", request.pidfile, "Its pid file (default: the conventional name)")
            ->type_name("PATH");
    noPidFile_ = app.add_flag("--no-pidfile", "Leave the name of the pid file empty")
                     ->disable_flag_override()
                     ->excludes(pidFile);
    pidFile_ = pidFile;
    addPolicy(app);
}

void StartOptions::addPolicy(CLI::App& app) const {
    reqcmd& request = *request_;
    addText(app, "--port", "Port that it serves: none, com:N or eth:N",
            [&request](const std::string& text) { return readPort(text, request); })
        ->type_name("PORT");
    addNumber(app, "--priority", request.priority, kMinPriority, kMaxPriority,
              "Process priority, -20 to 19; 0 leaves it alone");
    addNumber(app, "--delay", request.delay, 0, kMaxInt, "Carried along; no action uses it");
    addSwitch(
        app, "--keepalive", [&request] { request.keepalive = 1; },
        "Carried along; supervision makes no use of it");
    addSwitch(
        app, "--heartbeat", [&request] { request.heartbeat = 1; }, "It reports heartbeats");
    addText(app, "--restart", "What its failure restarts: self, all, or nothing (any other number)",
            [&request](const std::string& text) { return readRestartType(text, request); })
        ->type_name("POLICY");
    addNumber(
        app, "--life-limit", request.last_runtime_life_limit, 0, kMaxInt,
        "With --restart all: having run for fewer seconds it restarts all applications, else, "
        "and when it never came up, the machine; 0: always the machine");
}

std::vector<std::string> StartOptions::complete(const char* meterRoot) const {
    request_->action = APPMONCTL_Start;
    if (programOf(platform::fieldText(request_->cmd)).empty()) {
        throw CLI::ValidationError("--cmd", "there is no program in it; give its absolute path");
    }
    std::vector<std::string> warnings = startWarnings(*request_);
    if (pidFile_->empty() && noPidFile_->empty()) {
        const std::string warning = fillPidFile(*request_, meterRoot);
        if (!warning.empty()) {
            warnings.push_back(warning);
        }
    }
    return warnings;
}

} // namespace ovardctl
