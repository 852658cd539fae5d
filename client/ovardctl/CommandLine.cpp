#include "client/ovardctl/CommandLine.h"

#include <sys/un.h>

#include <cstddef>
#include <sstream>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "client/ovardctl/Options.h"
#include "client/ovardctl/StartOptions.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr std::int32_t kMaxTimeoutSec = 86400;
constexpr std::int32_t kMaxWatchSec = 3600;
constexpr const char* kDefaultWatchSec = "2";
constexpr std::int32_t kMaxEventLines = 1000000;

constexpr const char* kExitStatuses =
    "Exit status: 0 success, 1 the action failed, nothing of that name is there, or a file of\n"
    "requests is not in order, 2 wrong usage, 3 no monitor listens, 4 no reply or no current\n"
    "data, 5 another failure of the system, 130 interrupted while waiting for a reply.\n"
    "See ovardctl(1).";

constexpr const char* kRestartOfAll =
    "An application with policy all is not restarted alone: the reply says that it is restarted,\n"
    "but it is the next supervision pass that restarts all applications.\n\n";

/// Builds the parser over a CommandLine, and completes the request after parsing.
class Parser {
public:
    Parser(CommandLine& result, const char* meterRoot)
        : result_(result)
        , meterRoot_(meterRoot) {
        app_.set_version_flag("--version", "ovardctl " OVARDCTL_VERSION,
                              "Print the version and exit");
        app_.set_help_flag("--help", "Print this help and exit");
        app_.require_subcommand(0, 1);
        app_.fallthrough();
        addGlobalOptions();
        addStart();
        addStop();
        addRestart();
        addStatus();
        addSystem();
        addEvents();
        addRequestFiles();
        app_.footer(kExitStatuses);
        app_.final_callback([this] {
            if (app_.get_subcommands().empty()) {
                throw CLI::RequiredError(
                    "one of the commands start, stop, restart, status, system, events, "
                    "requests");
            }
        });
    }
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    void run(int argc, const char* const* argv);

private:
    /// A whole-list action's flag.
    struct ListFlag {
        const char* name;
        const char* help;
        AppmonAction action;
    };

    CLI::App& addCommand(const char* name, const char* help, const char* example);
    CLI::App& addRequest(const char* name, const char* help, const char* example);
    CLI::App& addView(const char* name, const char* help, const char* example, Verdict verdict);
    void addGlobalOptions();
    void addStart();
    void addStop();
    void addRestart();
    void addStatus();
    void addSystem();
    void addEvents();
    void addRequestFiles();
    void addSelection(CLI::App& app, AppmonAction single, const std::vector<ListFlag>& flags);

    CommandLine& result_;
    const char* meterRoot_;
    Verdict purpose_ = Verdict::Send; ///< of the command that was named
    CLI::App app_{"Controls and shows the applications that the application monitor supervises.",
                  "ovardctl"};
};

void Parser::run(int argc, const char* const* argv) {
    try {
        app_.parse(argc, argv);
        result_.verdict = purpose_;
    } catch (const CLI::ParseError& error) {
        std::ostringstream shown;
        std::ostringstream refused;
        const bool isHelp = app_.exit(error, shown, refused) == 0;
        result_.verdict = isHelp ? Verdict::ShowText : Verdict::UsageError;
        result_.text = isHelp ? shown.str() : "ovardctl: " + refused.str();
    }
}

CLI::App& Parser::addCommand(const char* name, const char* help, const char* example) {
    CLI::App& command = *app_.add_subcommand(name, help);
    command.footer(std::string("Example: ovardctl ") + example);
    return command;
}

CLI::App& Parser::addRequest(const char* name, const char* help, const char* example) {
    CLI::App& command = addCommand(name, help, example);
    addSwitch(
        command, "--no-wait", [this] { result_.request.nowait = 1; },
        "Do not wait for the outcome; the monitor sends no reply");
    return command;
}

CLI::App& Parser::addView(const char* name, const char* help, const char* example,
                          Verdict verdict) {
    CLI::App& command = addCommand(name, help, example);
    ViewRequest& view = result_.view;
    addSwitch(
        command, "--json", [&view] { view.json = true; }, "Print JSON for scripts");
    addNumber(command, "--watch", view.watchSec, 1, kMaxWatchSec,
              "Show it again every N seconds, 1 to 3600 (2 where N is left out), until interrupted")
        ->default_str(kDefaultWatchSec)
        ->expected(0, 1);
    command.final_callback([this, verdict] { purpose_ = verdict; });
    return command;
}

void Parser::addGlobalOptions() {
    addText(app_, "--socket", "Control socket of the monitor (default /tmp/appmon_sock)",
            [this](const std::string& path) {
                constexpr std::size_t kLimit = sizeof(sockaddr_un::sun_path) - 1;
                if (path.empty() || path.size() > kLimit) {
                    return "the path must have 1 to " + std::to_string(kLimit) + " characters";
                }
                result_.socketPath = path;
                return std::string();
            })
        ->type_name("PATH");
    addNumber(app_, "--timeout", result_.timeoutSec, 1, kMaxTimeoutSec,
              "Seconds to wait for the reply, 1 to 86400 (default 60)");
}

void Parser::addStart() {
    CLI::App& start = addRequest("start", "Start an application and supervise it",
                                 "start meter --cmd \"/home/kelvo/root/meter -v\" --restart self");
    addName(start, result_.request,
            "Name under which it is supervised; give that of the program's file")
        ->required();
    const StartOptions options(start, result_.request);
    start.final_callback([this, options] { result_.warnings = options.complete(meterRoot_); });
}

void Parser::addStop() {
    addSelection(addRequest("stop", "Stop one application or several", "stop meter_app"),
                 APPMONCTL_Stop,
                 {{"--all", "Stop all applications", APPMONCTL_Stop_All},
                  {"--all-but-security", "Stop all but security_server", APPMONCTL_Stop_All_But},
                  {"--port-apps", "Stop all that serve a port", APPMONCTL_Stop_PortApps}});
}

void Parser::addRestart() {
    CLI::App& restart =
        addRequest("restart", "Restart one application or several", "restart --self-restarting");
    restart.footer(kRestartOfAll + restart.get_footer());
    addSelection(restart, APPMONCTL_Restart,
                 {{"--all", "Restart all applications", APPMONCTL_Restart_All},
                  {"--self-restarting", "Restart all whose restart policy is self",
                   APPMONCTL_Restart_All_But},
                  {"--port-apps", "Restart all that serve a port", APPMONCTL_Restart_PortApps}});
}

void Parser::addStatus() {
    CLI::App& status = addView("status", "Show the supervised applications as published",
                               "status --watch 5", Verdict::ShowStatus);
    addText(status, "NAME", "Show this application alone", [this](const std::string& text) {
        if (text.empty()) {
            return std::string(kEmptyName);
        }
        result_.view.name = text;
        return std::string();
    });
}

void Parser::addSystem() {
    addView("system", "Show the state of the machine as published", "system --json",
            Verdict::ShowSystem);
}

void Parser::addEvents() {
    CLI::App& command = addCommand("events", "Show the event log", "events -n 50 -f");
    EventRequest& events = result_.events;
    addNumber(command, "-n,--lines", events.lines, 0, kMaxEventLines,
              "Show the last N lines, 0 to 1000000 (default 20)");
    addSwitch(
        command, "-f,--follow", [&events] { events.follow = true; },
        "Then show every line that comes, until interrupted");
    addText(command, "--file", "Event log (default /var/log/meter_events.log)",
            [&events](const std::string& path) {
                events.path = path;
                return std::string(path.empty() ? "it is empty; give the path of a log" : "");
            })
        ->type_name("PATH");
    addSwitch(
        command, "--json", [&events] { events.json = true; }, "Print a JSON object for each line");
    command.final_callback([this] { purpose_ = Verdict::ShowEvents; });
}

void Parser::addRequestFiles() {
    CLI::App& command = addCommand("requests", "Make, check and change a file of requests",
                                   "requests check /home/kelvo/root/requests");
    addRequestsCommands(command, result_.requests, meterRoot_,
                        [this] { purpose_ = Verdict::Requests; });
}

/// Takes one name, or one of `flags`.
void Parser::addSelection(CLI::App& app, AppmonAction single, const std::vector<ListFlag>& flags) {
    std::vector<std::pair<const CLI::Option*, AppmonAction>> choices;
    choices.emplace_back(addName(app, result_.request, "Name of one application"), single);
    std::string wanted = "exactly one of NAME";
    for (const ListFlag& flag : flags) {
        choices.emplace_back(app.add_flag(flag.name, flag.help)->disable_flag_override(),
                             flag.action);
        wanted += std::string(", ") + flag.name;
    }
    reqcmd& request = result_.request;
    app.final_callback([choices, wanted, &request] {
        int given = 0;
        for (const auto& [option, action] : choices) {
            if (!option->empty()) {
                ++given;
                request.action = action;
            }
        }
        if (given != 1) {
            throw CLI::RequiredError(wanted);
        }
    });
}

} // namespace

CommandLine parseCommandLine(int argc, const char* const* argv, const char* meterRoot) {
    CommandLine result;
    Parser(result, meterRoot).run(argc, argv);
    return result;
}

} // namespace ovardctl
