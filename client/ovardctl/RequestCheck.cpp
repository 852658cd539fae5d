#include "client/ovardctl/RequestCheck.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "client/ovardctl/EscapedText.h"
#include "client/ovardctl/RequestKeys.h"
#include "client/ovardctl/RequestReplay.h"
#include "client/ovardctl/RequestValues.h"
#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

using platform::fieldText;

/// What follows under the restart policy all when a program cannot be started.
constexpr const char* kEndlessRestarts =
    ", and the machine can restart again and again (under the restart policy all an application "
    "that never came up restarts it, whatever its life limit)";

/// How applications are kept from ending each other.
constexpr const char* kOwnProgram =
    ", after a failure too; give each a program of its own, a copy or a link for instance, that is "
    "named as the application within the first 15 characters";

std::string recordText(std::size_t number) {
    return "record " + std::to_string(number);
}

/// Collects the problems of one file.
class Checker {
public:
    explicit Checker(const ProgramExaminer& examine)
        : examine_(examine) {}

    std::vector<Problem> check(const RequestFile& file, ByteOrder target);

private:
    void checkFile(const RequestFile& file, ByteOrder target);
    void checkRecord(const reqcmd& record);
    void checkAction(std::int32_t action);
    void checkName(const reqcmd& record);
    void checkIsStarted(std::string_view name);
    void checkFirstStart(std::string_view name);
    void checkStart(const reqcmd& record);
    void checkCommand(const reqcmd& record);
    void checkProcesses(const reqcmd& record);
    void checkPidFile(const reqcmd& record);
    void checkNumbers(const reqcmd& record);
    void checkProgram(const std::string& program, const std::string& consequence);
    template <std::size_t Size> void checkText(const char* key, const char (&field)[Size]);
    void checkBytes(const std::string& key, std::string_view text);
    void error(std::string text) { add(Severity::Error, std::move(text)); }
    void warn(std::string text) { add(Severity::Warning, std::move(text)); }
    void add(Severity severity, std::string text) {
        problems_.push_back({severity, record_, std::move(text)});
    }

    const ProgramExaminer& examine_;
    std::size_t record_ = 0;      ///< the one that is looked at
    StartedApplications started_; ///< by the records before it
    std::vector<Problem> problems_;
};

std::vector<Problem> Checker::check(const RequestFile& file, ByteOrder target) {
    checkFile(file, target);
    const std::size_t count = std::min(file.records.size(), kMostReplayedRecords);
    for (const reqcmd* record = file.records.data(); record_ < count; ++record) {
        ++record_;
        checkRecord(*record);
    }
    return std::move(problems_);
}

void Checker::checkFile(const RequestFile& file, ByteOrder target) {
    const std::size_t count = file.records.size();
    if (file.isOrderKnown && file.byteOrder != target) {
        error(std::string("the integers have the byte order of another machine (") +
              byteOrderWord(file.byteOrder) +
              "-endian): the monitor takes them for other numbers; convert the file with "
              "\"ovardctl requests show\" and \"ovardctl requests compile --byte-order\"");
    }
    if (file.tailSize != 0) {
        error("the last record is cut, it has " + std::to_string(file.tailSize) + " of " +
              std::to_string(sizeof(reqcmd)) +
              " bytes: the monitor ignores it, and misreads all records that it appends behind "
              "it; cut the file to " +
              std::to_string(count * sizeof(reqcmd)) + " bytes");
    }
    if (count > kMostReplayedRecords) {
        error("there are " + std::to_string(count) + " records, of which the monitor replays the " +
              "first " + std::to_string(kMostReplayedRecords) + "; remove the others");
    }
}

void Checker::checkRecord(const reqcmd& record) {
    checkAction(record.action);
    if (needsName(record.action)) {
        checkName(record);
    }
    started_.stopFor(record);
    if (record.action == APPMONCTL_Start) {
        checkStart(record);
        started_.start(record, record_);
    }
}

void Checker::checkAction(std::int32_t action) {
    const std::string subject = "the action " + std::to_string(action);
    if (action < APPMONCTL_Start || action > APPMONCTL_Reserved10) {
        error(subject + " is unknown, the monitor does nothing for it; remove the record");
    } else if (action >= APPMONCTL_Reserved9) {
        warn(subject + " is reserved, the monitor does nothing for it; remove the record");
    }
}

void Checker::checkName(const reqcmd& record) {
    checkText("name", record.name);
    const std::string_view name = nameOf(record);
    if (name.empty()) {
        error("the name is empty, no request reaches the application by it; give it one");
    } else if (record.action == APPMONCTL_Start) {
        checkFirstStart(name);
    } else {
        checkIsStarted(name);
    }
}

void Checker::checkIsStarted(std::string_view name) {
    if (started_.withName(name) == 0) {
        warn("no earlier record starts an application of this name, or it is stopped by then: "
             "there is nothing to stop or restart; correct the name, or put the record behind "
             "the start");
    }
}

void Checker::checkFirstStart(std::string_view name) {
    const std::size_t first = started_.withName(name);
    if (first != 0) {
        warn(recordText(first) +
             " starts an application of this name, too: the monitor stops that one and starts "
             "this one; remove one of the records");
    }
}

void Checker::checkStart(const reqcmd& record) {
    checkText("version", record.version);
    checkCommand(record);
    checkProcesses(record);
    checkPidFile(record);
    checkNumbers(record);
}

void Checker::checkCommand(const reqcmd& record) {
    checkText("cmd", record.cmd);
    const std::string program(programOf(fieldText(record.cmd)));
    if (program.empty()) {
        error("there is no command, so the start fails; give the absolute path of the program");
    } else {
        checkProgram(program, record.restart_type == RESTART_TYPE_ALL ? kEndlessRestarts : "");
    }
    for (std::string& warning : startWarnings(record)) {
        warn(std::move(warning));
    }
    const std::size_t rival = started_.withCommandOf(record);
    if (rival != 0) {
        warn(recordText(rival) +
             " starts the same command under another name: the monitor may take the process of "
             "that application for this one's; remove one of the records");
    }
}

/// A stop of an application ends every process that is called as it is.
void Checker::checkProcesses(const reqcmd& record) {
    const std::size_t victim = started_.withProcessOf(nameOf(record));
    if (victim != 0) {
        warn("the processes of " + recordText(victim) +
             " have the name of this application: the monitor ends them whenever it stops or "
             "restarts this one" +
             kOwnProgram);
    }
    const std::size_t ender = started_.withNameOfProcess(record);
    if (ender != 0) {
        warn("the processes of its program have the name of the application that " +
             recordText(ender) +
             " starts: the monitor ends them whenever it stops or restarts that one" + kOwnProgram);
    }
}

void Checker::checkPidFile(const reqcmd& record) {
    checkText("pidfile", record.pidfile);
    if (fieldText(record.pidfile).empty()) {
        warn("the name of the pid file is empty: from 30 seconds after its own start on the "
             "monitor drops an application that has written no pid file of the conventional name; "
             "give it one");
    }
    const std::size_t rival = started_.withPidFileOf(record);
    if (rival != 0) {
        warn(recordText(rival) +
             " starts another application with the same pid file: the launch of this one removes "
             "the file of that one; give each application its own");
    }
}

void Checker::checkNumbers(const reqcmd& record) {
    if (record.restart_type != RESTART_TYPE_SELF && record.restart_type != RESTART_TYPE_ALL) {
        warn("the restart policy " + policyText(record) +
             " is neither 0 (self) nor 1 (all): the monitor never restarts the application after "
             "a failure; give one of these");
    }
    if (record.priority < kMinPriority || record.priority > kMaxPriority) {
        warn("the priority " + std::to_string(record.priority) +
             " is outside -20 to 19: the system takes the nearer end of this range; give a number "
             "in it");
    }
    if (record.porttype < PORT_TYPE_NONE || record.porttype > PORT_TYPE_ETH) {
        warn("the port type " + std::to_string(record.porttype) +
             " is none of 0 (none), 1 (com) and 2 (eth): the status shows no port, but requests "
             "for all applications on ports concern this one; give one of these");
    }
    if (record.last_runtime_life_limit < 0) {
        warn("the life limit " + std::to_string(record.last_runtime_life_limit) +
             " is negative, which counts as 0: under the restart policy all every failure "
             "restarts the machine; give a number from 0");
    }
}

void Checker::checkProgram(const std::string& program, const std::string& consequence) {
    const std::string subject = "the program " + program;
    if (program.front() != '/') {
        error(subject +
              " is no absolute path: it is not looked for along PATH, and not recognised "
              "should it run" +
              consequence + "; give the absolute path of the program");
        return;
    }
    const std::string nothingRuns = ", so nothing runs" + consequence;
    switch (examine_(program)) {
    case ProgramState::Executable:
        break;
    case ProgramState::Missing:
        error(subject + " is missing" + nothingRuns + "; install it, or correct the command");
        break;
    case ProgramState::NotExecutable:
        error(subject + " is not executable" + nothingRuns + "; make it so with chmod +x");
        break;
    case ProgramState::NotPlain:
        error(subject + " is no plain file" + nothingRuns + "; correct the command");
        break;
    case ProgramState::Unknown:
        warn(subject + " cannot be looked at; check it with more rights");
        break;
    }
}

template <std::size_t Size> void Checker::checkText(const char* key, const char (&field)[Size]) {
    const std::string_view text = fieldText(field);
    if (text.size() == Size) {
        error(std::string(key) + " does not end with a NUL: the monitor cuts it to " +
              std::to_string(Size - 1) + " characters; shorten it");
    }
    checkBytes(key, text);
}

void Checker::checkBytes(const std::string& key, std::string_view text) {
    // A tab is a blank between two words.
    const auto found = std::find_if(text.begin(), text.end(), [](char character) {
        return (character < ' ' || character > '~') && character != '\t';
    });
    if (found != text.end()) {
        warn(key + " holds a byte that is not printable ASCII, " + escaped({&*found, 1}) +
             " at character " + std::to_string(found - text.begin() + 1) +
             "; write it anew unless that is meant");
    }
}

} // namespace

std::vector<Problem> checkRequests(const RequestFile& file, ByteOrder target,
                                   const ProgramExaminer& examine) {
    return Checker(examine).check(file, target);
}

} // namespace ovardctl
