#include "client/ovardctl/StartChecks.h"

#include "client/ovardctl/ProgramSearch.h"
#include "platform/InstallationDirectories.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

/// Line feed and carriage return are not among them.
constexpr const char* kCommandBlanks = " \t\v\f";

constexpr const char* kConsequence =
    "; once it has gone into the background the monitor does not recognise it, waits 30 seconds "
    "and later takes its start for failed";

std::string placeWarning(std::string_view program) {
    const std::string subject = "the program " + std::string(program) + " lies ";
    switch (placeOf(program)) {
    case ProgramPlace::Found:
        break;
    case ProgramPlace::Outside:
        return subject +
               "outside the directories in which the monitor finds daemons (root, modbus and test "
               "below /home/kelvo and /mnt/runfw/home/kelvo)" +
               kConsequence;
    case ProgramPlace::Excluded:
        return subject + "where the monitor leaves every program alone" + kConsequence;
    }
    return {};
}

/// What becomes of a program in this state, and what to do; empty where it may well run.
const char* obstacleOf(ProgramState state) {
    switch (state) {
    case ProgramState::Missing:
        return "does not exist, so nothing runs; install it, or correct the command";
    case ProgramState::NotExecutable:
        return "is not executable, so nothing runs; make it so with chmod +x";
    case ProgramState::NotPlain:
        return "is no plain file, so nothing runs; correct the command";
    case ProgramState::Executable:
    case ProgramState::Unknown:
        break;
    }
    return "";
}

std::string lengthWarning(std::size_t words) {
    if (words <= kMostCommandWords) {
        return {};
    }
    return "the command has " + std::to_string(words) + " words, of which the monitor takes the " +
           "first " + std::to_string(kMostCommandWords) + " and ignores the rest; shorten it";
}

} // namespace

std::vector<std::string_view> commandWords(std::string_view command) {
    std::vector<std::string_view> words;
    std::size_t begin = command.find_first_not_of(kCommandBlanks);
    while (begin != std::string_view::npos) {
        const std::size_t end = command.find_first_of(kCommandBlanks, begin);
        words.push_back(command.substr(begin, end - begin));
        begin = command.find_first_not_of(kCommandBlanks, end);
    }
    return words;
}

std::string_view programOf(std::string_view command) {
    const std::vector<std::string_view> words = commandWords(command);
    return words.empty() ? std::string_view() : words.front();
}

std::string conventionalPidFile(std::string_view program, const char* meterRoot) {
    std::string name = "/tmp/pid";
    if (meterRoot != nullptr) {
        name += meterRoot;
    }
    name += program;
    name += ".pid";
    return name;
}

std::string fillPidFile(reqcmd& request, const char* meterRoot) {
    const std::string name =
        conventionalPidFile(programOf(platform::fieldText(request.cmd)), meterRoot);
    if (name.size() < sizeof request.pidfile) {
        platform::copyToField(request.pidfile, name);
        return {};
    }
    platform::copyToField(request.pidfile, {});
    return "the conventional pid-file name " + name + " is longer than " +
           std::to_string(sizeof request.pidfile - 1) +
           " characters and left empty; the monitor may drop an application without a pid file, "
           "give a shorter name with --pidfile";
}

ProgramPlace placeOf(std::string_view program) {
    if (platform::isInExcludedDirectory(program)) {
        return ProgramPlace::Excluded;
    }
    return platform::isInIncludedDirectory(program) ? ProgramPlace::Found : ProgramPlace::Outside;
}

std::vector<std::string> startWarnings(const reqcmd& request) {
    std::vector<std::string> warnings;
    const std::vector<std::string_view> words = commandWords(platform::fieldText(request.cmd));
    if (words.empty()) {
        return warnings;
    }
    for (const std::string& warning : {placeWarning(words.front()), lengthWarning(words.size())}) {
        if (!warning.empty()) {
            warnings.push_back(warning);
        }
    }
    return warnings;
}

std::string programWarning(const reqcmd& request) {
    const std::string program(programOf(platform::fieldText(request.cmd)));
    if (request.action != APPMONCTL_Start || program.empty()) {
        return {};
    }
    const std::string subject = "the program " + program + " ";
    if (program.front() != '/') {
        return subject + "is named by no absolute path: the monitor looks for it in its own " +
               "working directory, not along PATH; give the absolute path";
    }
    const std::string obstacle = obstacleOf(examineProgram("", program));
    return obstacle.empty() ? obstacle : subject + obstacle;
}

} // namespace ovardctl
