#include "client/CommandLine.h"

#include <sys/un.h>

#include <charconv>
#include <cstddef>
#include <functional>
#include <limits>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr std::int32_t kMaxTimeoutSec = 86400;
constexpr std::int32_t kMaxWatchSec = 3600;
constexpr const char* kDefaultWatchSec = "2";
constexpr std::int32_t kMaxInt = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMinInt = std::numeric_limits<std::int32_t>::min();

/// Blanks between the words of a command, as the monitor splits it.
constexpr const char* kCommandBlanks = " \t\v\f";

/// A decimal number within limits. Other notations are refused: a leading zero is no octal here.
std::int32_t toNumber(const std::string& option, std::string_view text, std::int32_t low,
                      std::int32_t high) {
    std::int32_t number = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number < low || number > high) {
        throw CLI::ValidationError(option, "\"" + std::string(text) + "\" is not a number from " +
                                               std::to_string(low) + " to " + std::to_string(high));
    }
    return number;
}

/// Copies a text into its field of the request, or refuses one that would be cut.
template <std::size_t Size>
void setField(const std::string& option, char (&field)[Size], std::string_view text) {
    if (text.size() >= Size) {
        throw CLI::ValidationError(option, std::to_string(text.size()) +
                                               " characters are too long for a request, at most " +
                                               std::to_string(Size - 1) + " fit; shorten it");
    }
    platform::copyToField(field, text);
}

void setPort(const std::string& option, reqcmd& request, std::string_view text) {
    const std::string_view kind = text.substr(0, 4);
    if (text == "none") {
        request.porttype = PORT_TYPE_NONE;
        request.portnum = 0;
    } else if (kind == "com:") {
        request.porttype = PORT_TYPE_COM;
        request.portnum = toNumber(option, text.substr(4), 0, kMaxInt);
    } else if (kind == "eth:") {
        request.porttype = PORT_TYPE_ETH;
        request.portnum = toNumber(option, text.substr(4), 1, 65535);
    } else {
        throw CLI::ValidationError(option, "\"" + std::string(text) +
                                               "\" is none of none, com:N and eth:N");
    }
}

void setRestartType(const std::string& option, reqcmd& request, const std::string& text) {
    if (text == "self") {
        request.restart_type = RESTART_TYPE_SELF;
    } else if (text == "all") {
        request.restart_type = RESTART_TYPE_ALL;
    } else {
        request.restart_type = toNumber(option, text, kMinInt, kMaxInt);
    }
}

/// The pid-file name that a program has by convention; `program` is its path.
std::string conventionalPidFile(std::string_view program, const char* meterRoot) {
    std::string name = "/tmp/pid";
    if (meterRoot != nullptr) {
        name += meterRoot;
    }
    name += program;
    name += ".pid";
    return name;
}

/// The program path of a command: its first word, empty when there is none.
std::string_view programOf(std::string_view command) {
    const std::size_t begin = command.find_first_not_of(kCommandBlanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    const std::size_t end = command.find_first_of(kCommandBlanks, begin);
    return command.substr(begin, end == std::string_view::npos ? end : end - begin);
}

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
        app_.final_callback([this] {
            if (app_.get_subcommands().empty()) {
                throw CLI::RequiredError(
                    "one of the commands start, stop, restart, status, system");
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

    CLI::App* addRequest(const char* name, const char* help);
    CLI::App* addView(const char* name, const char* help, Verdict verdict);
    CLI::Option* addText(CLI::App* app, const std::string& name, const std::string& help,
                         const std::function<void(const std::string&)>& store);
    template <std::size_t Size>
    CLI::Option* addField(CLI::App* app, const std::string& name, char (&field)[Size],
                          const std::string& help);
    CLI::Option* addName(CLI::App* app, const std::string& help);
    CLI::Option* addNumber(CLI::App* app, const std::string& name, std::int32_t& field,
                           std::int32_t low, std::int32_t high, const std::string& help);
    void addSwitch(CLI::App* app, const std::string& name, std::uint8_t& field,
                   const std::string& help);
    void addGlobalOptions();
    void addStart();
    void addStartPolicy(CLI::App* start);
    void addStop();
    void addRestart();
    void addStatus();
    void addSystem();
    void addSelection(CLI::App* app, AppmonAction single, const std::vector<ListFlag>& flags);
    void completeStart(bool wantsConventionalPidFile);
    void fillPidFile(std::string_view program);

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

CLI::App* Parser::addRequest(const char* name, const char* help) {
    CLI::App* command = app_.add_subcommand(name, help);
    addSwitch(command, "--no-wait", result_.request.nowait,
              "Do not wait for the outcome; the monitor sends no reply");
    return command;
}

CLI::App* Parser::addView(const char* name, const char* help, Verdict verdict) {
    CLI::App* command = app_.add_subcommand(name, help);
    ViewRequest& view = result_.view;
    command
        ->add_flag_callback(
            "--json", [&view] { view.json = true; }, "Print JSON for scripts")
        ->disable_flag_override();
    addNumber(command, "--watch", view.watchSec, 1, kMaxWatchSec,
              "Show it again every N seconds, 1 to 3600 (2 where N is left out), until interrupted")
        ->default_str(kDefaultWatchSec)
        ->expected(0, 1);
    command->final_callback([this, verdict] { purpose_ = verdict; });
    return command;
}

CLI::Option* Parser::addText(CLI::App* app, const std::string& name, const std::string& help,
                             const std::function<void(const std::string&)>& store) {
    return app->add_option_function<std::string>(name, store, help);
}

template <std::size_t Size>
CLI::Option* Parser::addField(CLI::App* app, const std::string& name, char (&field)[Size],
                              const std::string& help) {
    return addText(app, name, help,
                   [name, &field](const std::string& text) { setField(name, field, text); });
}

CLI::Option* Parser::addName(CLI::App* app, const std::string& help) {
    return addText(app, "NAME", help, [this](const std::string& text) {
        if (text.empty()) {
            throw CLI::ValidationError("NAME", "it is empty; give the name of an application");
        }
        setField("NAME", result_.request.name, text);
    });
}

CLI::Option* Parser::addNumber(CLI::App* app, const std::string& name, std::int32_t& field,
                               std::int32_t low, std::int32_t high, const std::string& help) {
    return addText(app, name, help,
                   [name, &field, low, high](const std::string& text) {
                       field = toNumber(name, text, low, high);
                   })
        ->type_name("N");
}

void Parser::addSwitch(CLI::App* app, const std::string& name, std::uint8_t& field,
                       const std::string& help) {
    app->add_flag_callback(
           name, [&field] { field = 1; }, help)
        ->disable_flag_override();
}

void Parser::addGlobalOptions() {
    addText(&app_, "--socket", "Control socket of the monitor (default /tmp/appmon_sock)",
            [this](const std::string& path) {
                constexpr std::size_t kLimit = sizeof(sockaddr_un::sun_path) - 1;
                if (path.empty() || path.size() > kLimit) {
                    throw CLI::ValidationError("--socket", "the path must have 1 to " +
                                                               std::to_string(kLimit) +
                                                               " characters");
                }
                result_.socketPath = path;
            })
        ->type_name("PATH");
    addNumber(&app_, "--timeout", result_.timeoutSec, 1, kMaxTimeoutSec,
              "Seconds to wait for the reply, 1 to 86400 (default 60)");
}

void Parser::addStart() {
    reqcmd& request = result_.request;
    CLI::App* start = addRequest("start", "Start an application and supervise it");
    addName(start, "Name under which it is supervised")->required();
    addField(start, "--cmd", request.cmd, "Absolute path of the program and its arguments")
        ->required();
    // Behind the command this hides the tool's own --version.
    addField(start, "--version", request.version, "Version that its pid file has to show");
    CLI::Option* pidFile = addField(start, "--pidfile", request.pidfile,
                                    "Its pid file (default: the conventional name)");
    CLI::Option* noPidFile = start->add_flag("--no-pidfile", "Leave the name of the pid file empty")
                                 ->disable_flag_override()
                                 ->excludes(pidFile);
    addStartPolicy(start);
    start->final_callback(
        [this, pidFile, noPidFile] { completeStart(pidFile->empty() && noPidFile->empty()); });
}

void Parser::addStartPolicy(CLI::App* start) {
    reqcmd& request = result_.request;
    addText(start, "--port", "Port that it serves: none, com:N or eth:N",
            [&request](const std::string& text) { setPort("--port", request, text); });
    addNumber(start, "--priority", request.priority, -20, 19,
              "Process priority, -20 to 19; 0 leaves it alone");
    addNumber(start, "--delay", request.delay, 0, kMaxInt, "Carried along; no action uses it");
    addSwitch(start, "--keepalive", request.keepalive, "Mark it as to be kept alive");
    addSwitch(start, "--heartbeat", request.heartbeat, "It reports heartbeats");
    addText(start, "--restart", "When it fails, restart: self, all or another policy number",
            [&request](const std::string& text) { setRestartType("--restart", request, text); });
    addNumber(start, "--life-limit", request.last_runtime_life_limit, 0, kMaxInt,
              "With --restart all: seconds of uptime below which a failure restarts all "
              "applications rather than the machine; 0 means never");
}

void Parser::addStop() {
    addSelection(addRequest("stop", "Stop one application or several"), APPMONCTL_Stop,
                 {{"--all", "Stop all applications", APPMONCTL_Stop_All},
                  {"--all-but-security", "Stop all but security_server", APPMONCTL_Stop_All_But},
                  {"--port-apps", "Stop all that serve a port", APPMONCTL_Stop_PortApps}});
}

void Parser::addRestart() {
    addSelection(addRequest("restart", "Restart one application or several"), APPMONCTL_Restart,
                 {{"--all", "Restart all applications", APPMONCTL_Restart_All},
                  {"--self-restarting", "Restart all whose restart policy is self",
                   APPMONCTL_Restart_All_But},
                  {"--port-apps", "Restart all that serve a port", APPMONCTL_Restart_PortApps}});
}

void Parser::addStatus() {
    CLI::App* status =
        addView("status", "Show the supervised applications as published", Verdict::ShowStatus);
    addText(status, "NAME", "Show this application alone", [this](const std::string& text) {
        if (text.empty()) {
            throw CLI::ValidationError("NAME", "it is empty; give the name of an application");
        }
        result_.view.name = text;
    });
}

void Parser::addSystem() {
    addView("system", "Show the state of the machine as published", Verdict::ShowSystem);
}

/// Takes one name, or one of `flags`.
void Parser::addSelection(CLI::App* app, AppmonAction single, const std::vector<ListFlag>& flags) {
    std::vector<std::pair<const CLI::Option*, AppmonAction>> choices;
    choices.emplace_back(addName(app, "Name of one application"), single);
    std::string wanted = "exactly one of NAME";
    for (const ListFlag& flag : flags) {
        choices.emplace_back(app->add_flag(flag.name, flag.help)->disable_flag_override(),
                             flag.action);
        wanted += std::string(", ") + flag.name;
    }
    reqcmd& request = result_.request;
    app->final_callback([choices, wanted, &request] {
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

void Parser::completeStart(bool wantsConventionalPidFile) {
    result_.request.action = APPMONCTL_Start;
    const std::string_view program = programOf(platform::fieldText(result_.request.cmd));
    if (program.empty()) {
        throw CLI::ValidationError("--cmd", "there is no program in it; give its absolute path");
    }
    if (wantsConventionalPidFile) {
        fillPidFile(program);
    }
}

void Parser::fillPidFile(std::string_view program) {
    const std::string name = conventionalPidFile(program, meterRoot_);
    if (name.size() < sizeof result_.request.pidfile) {
        platform::copyToField(result_.request.pidfile, name);
        return;
    }
    result_.warnings.push_back(
        "the conventional pid-file name " + name + " is longer than " +
        std::to_string(sizeof result_.request.pidfile - 1) +
        " characters and left empty; the monitor may drop an application without a pid file, "
        "give a shorter name with --pidfile");
}

} // namespace

CommandLine parseCommandLine(int argc, const char* const* argv, const char* meterRoot) {
    CommandLine result;
    Parser(result, meterRoot).run(argc, argv);
    return result;
}

} // namespace ovardctl
