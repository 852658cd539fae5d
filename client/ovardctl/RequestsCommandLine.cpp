#include "client/ovardctl/RequestsCommandLine.h"

#include <cstddef>
#include <utility>

#include "client/ovardctl/Options.h"
#include "client/ovardctl/StartOptions.h"

namespace ovardctl {
namespace {

/// A sub-command.
struct Verb {
    RequestsVerb verb;
    const char* name;
    const char* help;
    const char* example; ///< arguments behind the name
};

constexpr Verb kList = {RequestsVerb::List, "list", "Show the requests in one table", "boot.req"};
constexpr Verb kCheck = {RequestsVerb::Check, "check", "Tell what would go wrong in a replay",
                         "boot.req --root /mnt/image"};
constexpr Verb kAdd = {RequestsVerb::Add, "add", "Add a start of an application",
                       "boot.req meter_app --cmd /home/kelvo/root/meter_app"};
constexpr Verb kRemove = {RequestsVerb::Remove, "remove", "Remove all requests of a name",
                          "boot.req meter_app"};
constexpr Verb kCompile = {RequestsVerb::Compile, "compile",
                           "Make a request file from a text, see ovard-requests(5)",
                           "boot.ini -o boot.req --byte-order big"};
constexpr Verb kShow = {RequestsVerb::Show, "show", "Print the text that compiles to the same file",
                        "boot.req > boot.ini"};

CLI::Option* addPath(CLI::App& app, const std::string& name, std::string& path,
                     const std::string& help) {
    return addText(app, name, help, [&path](const std::string& text) {
        path = text;
        return std::string(text.empty() ? "it is empty; give a path" : "");
    });
}

void addByteOrder(CLI::App& app, RequestsCommand& command, const std::string& help) {
    addText(app, "--byte-order", help, [&command](const std::string& text) {
        return readByteOrder(text, command.byteOrder.emplace());
    })->type_name("ORDER");
}

/// Lays the sub-commands over a parser.
class Commands {
public:
    Commands(CLI::App& requests, RequestsCommand& command, std::function<void()> chosen)
        : requests_(requests)
        , command_(command)
        , chosen_(std::move(chosen)) {}

    void addAll(const char* meterRoot) const {
        addList();
        addCheck();
        addAdd(meterRoot);
        addRemove();
        addCompile();
        add(kShow, "FILE", "Request file");
    }

private:
    CLI::App& add(const Verb& verb, const char* pathName, const char* pathHelp) const;
    void addList() const;
    void addCheck() const;
    void addAdd(const char* meterRoot) const;
    void addRemove() const;
    void addCompile() const;

    CLI::App& requests_;
    RequestsCommand& command_;
    std::function<void()> chosen_;
};

/// Adds a sub-command that works on a file.
CLI::App& Commands::add(const Verb& verb, const char* pathName, const char* pathHelp) const {
    CLI::App& app = *requests_.add_subcommand(verb.name, verb.help);
    app.footer(std::string("Example: ovardctl requests ") + verb.name + ' ' + verb.example);
    addPath(app, pathName, command_.path, pathHelp)->required()->type_name("");
    // Called as soon as the name is met: what the options say comes after it.
    app.preparse_callback(
        [&command = command_, chosen = chosen_, chosenVerb = verb.verb](std::size_t /*remaining*/) {
            command.verb = chosenVerb;
            chosen();
        });
    return app;
}

void Commands::addList() const {
    CLI::App& app = add(kList, "FILE", "Request file");
    addSwitch(
        app, "--json", [&command = command_] { command.json = true; }, "Print JSON for scripts");
}

void Commands::addCheck() const {
    CLI::App& app = add(kCheck, "FILE", "Request file");
    addPath(app, "--root", command_.root,
            "Look for the programs below this directory, an image of the instrument's file system")
        ->type_name("DIR");
    addByteOrder(app, command_,
                 "Byte order of the machine that replays it: little, big or native (default)");
}

void Commands::addAdd(const char* meterRoot) const {
    RequestsCommand& command = command_;
    CLI::App& app = add(kAdd, "FILE", "Request file; made where it is missing");
    addName(app, command.request,
            "Name under which it is supervised; give that of the program's file")
        ->required();
    const StartOptions options(app, command.request);
    addSwitch(
        app, "--no-wait", [&command] { command.request.nowait = 1; },
        "Mark the request as one without a reply");
    addSwitch(
        app, "--replace", [&command] { command.replace = true; },
        "Take the place of a start of that name");
    app.final_callback(
        [&command, options, meterRoot] { command.warnings = options.complete(meterRoot); });
}

void Commands::addRemove() const {
    CLI::App& app = add(kRemove, "FILE", "Request file");
    addName(app, command_.request, "Name in the requests")->required();
}

void Commands::addCompile() const {
    CLI::App& app = add(kCompile, "TEXT", "The text");
    addPath(app, "-o,--output", command_.outputPath,
            "Request file to be written (default: standard output)")
        ->type_name("FILE");
    addByteOrder(app, command_,
                 "Byte order of the machine that it is for: little, big or native (default: the "
                 "one in the text, else native)");
}

} // namespace

void addRequestsCommands(CLI::App& requests, RequestsCommand& command, const char* meterRoot,
                         std::function<void()> chosen) {
    requests.require_subcommand(0, 1);
    requests.final_callback([&requests] {
        if (requests.get_subcommands().empty()) {
            throw CLI::RequiredError("one of the commands list, check, add, remove, compile, show");
        }
    });
    Commands(requests, command, std::move(chosen)).addAll(meterRoot);
}

} // namespace ovardctl
