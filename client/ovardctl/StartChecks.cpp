#include "client/ovardctl/StartChecks.h"

#include "client/ovardctl/ProgramSearch.h"
#include "client/ovardctl/RequestFile.h"
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

constexpr std::string_view kPidFileFolder = "/tmp/pid";
constexpr std::string_view kPidFileEnding = ".pid";

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

std::string_view fileNameOf(std::string_view program) {
    return program.substr(program.rfind('/') + 1);
}

std::string nameWarning(std::string_view name, std::string_view program) {
    const std::string_view process = processNameOf(program);
    if (name.empty() || process.empty() || name.substr(0, kProcessNameLength) == process) {
        return {};
    }
    return "the application is not named as its program, " + std::string(fileNameOf(program)) +
           " (the first " + std::to_string(kProcessNameLength) +
           " characters count): a monitor that is started again does not adopt it and leaves it "
           "unsupervised, and no stop ends stray copies of it; give it that name, or start a copy "
           "of the program, or a link to it, that is named as the application";
}

std::string nameLengthWarning(std::string_view name) {
    if (name.size() <= kPublishedNameLength) {
        return {};
    }
    return "the name has " + std::to_string(name.size()) +
           " characters, of which the monitor publishes the first " +
           std::to_string(kPublishedNameLength) +
           ": a monitor that is started again knows the application by these alone, and does not "
           "find it by its whole name; give it a shorter one";
}

std::string pidFileWarning(std::string_view pidFile, std::string_view program) {
    const std::string problem =
        isConventionalPidFile(pidFile, program) ? conventionalPidFileProblem(pidFile) : "";
    if (problem.empty()) {
        return {};
    }
    return "the monitor may never confirm the application, and restart it or the machine again and "
           "again: the conventional pid-file name " +
           std::string(pidFile) + problem;
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

std::string_view processNameOf(std::string_view program) {
    return fileNameOf(program).substr(0, kProcessNameLength);
}

std::string conventionalPidFile(std::string_view program, const char* meterRoot) {
    std::string name(kPidFileFolder);
    if (meterRoot != nullptr) {
        name += meterRoot;
    }
    name += program;
    name += kPidFileEnding;
    return name;
}

bool isConventionalPidFile(std::string_view pidFile, std::string_view program) {
    const std::string ending = conventionalPidFile(program, nullptr).substr(kPidFileFolder.size());
    return pidFile.size() >= kPidFileFolder.size() + ending.size() &&
           pidFile.substr(0, kPidFileFolder.size()) == kPidFileFolder &&
           pidFile.substr(pidFile.size() - ending.size()) == ending;
}

std::string conventionalPidFileProblem(std::string_view name) {
    if (name.size() <= kLongestConventionalPidFile) {
        return {};
    }
    return " has more than the " + std::to_string(kLongestConventionalPidFile) +
           " characters that leave room for a process id of " + std::to_string(kMostPidDigits) +
           " digits behind it; start the program by a shorter path, a link for instance, or let "
           "it write a pid file without its id in the name, and give that";
}

std::string fillPidFile(reqcmd& request, const char* meterRoot) {
    const std::string name =
        conventionalPidFile(programOf(platform::fieldText(request.cmd)), meterRoot);
    const std::string problem = conventionalPidFileProblem(name);
    platform::copyToField(request.pidfile, problem.empty() ? name : "");
    if (problem.empty()) {
        return {};
    }
    return "the name of the pid file is left empty, so that the monitor may drop the application: "
           "the conventional name " +
           name + problem + " with --pidfile";
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
    const std::string_view program = words.front();
    const std::string_view name = nameOf(request);
    for (const std::string& warning :
         {placeWarning(program), lengthWarning(words.size()), nameWarning(name, program),
          nameLengthWarning(name), pidFileWarning(platform::fieldText(request.pidfile), program)}) {
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
