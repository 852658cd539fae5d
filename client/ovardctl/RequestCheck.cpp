#include "client/ovardctl/RequestCheck.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "client/ovardctl/EscapedText.h"
#include "client/ovardctl/RequestKeys.h"
#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

using platform::fieldText;

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
    void checkStart(const reqcmd& record);
    void checkFirstStart(std::string_view name);
    void checkProgram(const std::string& program);
    template <std::size_t Size> void checkText(const char* key, const char (&field)[Size]);
    void checkBytes(const std::string& key, std::string_view text);
    void error(std::string text) { add(Severity::Error, std::move(text)); }
    void warn(std::string text) { add(Severity::Warning, std::move(text)); }
    void add(Severity severity, std::string text) {
        problems_.push_back({severity, record_, std::move(text)});
    }

    const ProgramExaminer& examine_;
    std::size_t record_ = 0;                                 ///< the one that is looked at
    std::map<std::string, std::size_t, std::less<>> starts_; ///< first start of each name
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
    if (record.action == APPMONCTL_Start) {
        checkStart(record);
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
    if (nameOf(record).empty()) {
        error("the name is empty, no request reaches the application by it; give it one");
    }
}

void Checker::checkStart(const reqcmd& record) {
    checkFirstStart(nameOf(record));
    checkText("version", record.version);
    checkText("cmd", record.cmd);
    checkText("pidfile", record.pidfile);
    const std::string program(programOf(fieldText(record.cmd)));
    if (program.empty()) {
        error("there is no command, so the start fails; give the absolute path of the program");
    } else {
        checkProgram(program);
    }
    for (std::string& warning : startWarnings(record)) {
        warn(std::move(warning));
    }
    if (fieldText(record.pidfile).empty()) {
        warn("the name of the pid file is empty: from 30 seconds after its own start on the "
             "monitor drops an application that has written no pid file of the conventional name; "
             "give it one");
    }
}

void Checker::checkFirstStart(std::string_view name) {
    const auto [first, isFirst] = starts_.try_emplace(std::string(name), record_);
    if (!isFirst) {
        warn("record " + std::to_string(first->second) +
             " starts an application of this name, too: the monitor stops that one and starts "
             "this one; remove one of the records");
    }
}

void Checker::checkProgram(const std::string& program) {
    if (program.front() != '/') {
        error("the program " + program + " is not found, it is no absolute path; give one");
        return;
    }
    switch (examine_(program)) {
    case ProgramState::Executable:
        break;
    case ProgramState::Missing:
        error("the program " + program +
              " is missing, so nothing runs; install it, or correct "
              "the command");
        break;
    case ProgramState::NotExecutable:
        error("the program " + program +
              " is not executable, so nothing runs; make it so with "
              "chmod +x");
        break;
    case ProgramState::NotPlain:
        error("the program " + program + " is no plain file, so nothing runs; correct the command");
        break;
    case ProgramState::Unknown:
        warn("the program " + program + " cannot be looked at; check it with more rights");
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
