#include "client/ovardctl/RequestsTool.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "client/ovardctl/PlainFile.h"
#include "client/ovardctl/PrintableText.h"
#include "client/ovardctl/ProgramSearch.h"
#include "client/ovardctl/RequestCheck.h"
#include "client/ovardctl/RequestList.h"
#include "client/ovardctl/RequestText.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr std::size_t kLargestImage = kMostRecords * sizeof(reqcmd);

/// Room for a text in which every byte of so many records is an escape.
constexpr std::size_t kLargestText = 5 * kLargestImage;

std::string toolLine(const std::string& text) {
    return "ovardctl: " + printable(text) + '\n';
}

Report failed(const std::string& text) {
    return {kExitFailed, "", toolLine(text)};
}

Report systemFailure(const std::string& text) {
    return {kExitSystemError, "", toolLine(text)};
}

std::string counted(std::size_t count, const std::string& thing) {
    return std::to_string(count) + ' ' + thing + (count == 1 ? "" : "s");
}

std::string readRequestFile(const std::string& path, RequestFile& file,
                            ByteOrder presumed = nativeByteOrder()) {
    std::string image;
    std::string problem = readPlainFile(path, kLargestImage, image);
    if (problem.empty()) {
        file = decodeRequests(image, presumed);
    }
    return problem;
}

/// Reads the file and shows it with `format`.
template <typename Format> Report present(const RequestsCommand& command, Format format) {
    RequestFile file;
    const std::string problem = readRequestFile(command.path, file);
    if (!problem.empty()) {
        return systemFailure(problem);
    }
    Report report{kExitOk, format(file), ""};
    if (file.tailSize != 0) {
        report.exitStatus = kExitFailed;
        report.error = toolLine("the file ends with " + counted(file.tailSize, "byte") +
                                " of a cut record, which is not shown");
    }
    return report;
}

Report list(const RequestsCommand& command) {
    return present(command, command.json ? requestJson : requestTable);
}

Report show(const RequestsCommand& command) {
    return present(command, [](const RequestFile& file) {
        return formatRequests(file.records, file.byteOrder);
    });
}

// --- check ---------------------------------------------------------------------------------------

std::string problemLine(const Problem& problem, const RequestFile& file) {
    std::string line = problem.severity == Severity::Error ? "error: " : "warning: ";
    if (problem.record != 0) {
        const std::string_view name = nameOf(file.records[problem.record - 1]);
        line += "record " + std::to_string(problem.record) +
                (name.empty() ? "" : " (" + std::string(name) + ')') + ": ";
    }
    return printable(line + problem.text) + '\n';
}

Report reportOf(const std::vector<Problem>& problems, const RequestFile& file) {
    Report report{kExitFailed, "", ""};
    std::size_t errors = 0;
    for (const Problem& problem : problems) {
        report.output += problemLine(problem, file);
        errors += problem.severity == Severity::Error ? 1 : 0;
    }
    const std::string records = counted(file.records.size(), "record");
    if (problems.empty()) {
        report.exitStatus = kExitOk;
        report.output = records + ", no problems\n";
    } else {
        report.output += records + ", " + counted(errors, "error") + ", " +
                         counted(problems.size() - errors, "warning") + '\n';
    }
    return report;
}

Report check(const RequestsCommand& command) {
    const ByteOrder target = command.byteOrder.value_or(nativeByteOrder());
    RequestFile file;
    const std::string problem = readRequestFile(command.path, file, target);
    if (!problem.empty()) {
        // The monitor goes on without a file that it cannot read.
        return {kExitFailed, "error: " + printable(problem) + "; the monitor would start nothing\n",
                ""};
    }
    const auto examine = [&command](const std::string& program) {
        return examineProgram(command.root, program);
    };
    return reportOf(checkRequests(file, target, examine), file);
}

// --- add, remove ---------------------------------------------------------------------------------

/// Why the file must not be changed; empty when it may be.
std::string reasonToRefuse(const RequestFile& file) {
    if (file.tailSize != 0) {
        return "it ends with " + counted(file.tailSize, "byte") +
               " of a cut record; see \"ovardctl requests check\"";
    }
    if (file.isOrderKnown && file.byteOrder != nativeByteOrder()) {
        return "its integers have the byte order of another machine; see \"ovardctl requests "
               "check\"";
    }
    return {};
}

/// Changes the file as `edit` says, which takes the records and reports; they are written when it
/// reports success.
template <typename Edit> Report change(const RequestsCommand& command, bool mayCreate, Edit edit) {
    FileReplacement replacement(command.path);
    std::string problem = replacement.begin();
    std::string image;
    if (problem.empty() && (replacement.hasOriginal() || !mayCreate)) {
        problem = replacement.readOriginal(kLargestImage, image);
    }
    if (!problem.empty()) {
        return systemFailure(problem);
    }
    RequestFile file = decodeRequests(image, nativeByteOrder());
    problem = reasonToRefuse(file);
    if (!problem.empty()) {
        return failed(command.path + " is not changed: " + problem);
    }
    Report report = edit(file.records);
    if (report.exitStatus == kExitOk) {
        problem = replacement.commit(encodeRequests(file.records, nativeByteOrder()));
    }
    return problem.empty() ? report : systemFailure(problem);
}

bool isStartOf(const reqcmd& record, std::string_view name) {
    return record.action == APPMONCTL_Start && nameOf(record) == name;
}

/// Appends the request, or puts it in the place of the first start of its name and removes others.
Report addTo(std::vector<reqcmd>& records, const RequestsCommand& command) {
    const std::string name(nameOf(command.request));
    const auto isRival = [&name](const reqcmd& record) { return isStartOf(record, name); };
    const auto first = std::find_if(records.begin(), records.end(), isRival);
    const auto number = std::to_string(first - records.begin() + 1);
    const std::string place = " as record " + number + " of " + printable(command.path) + '\n';
    if (first == records.end()) {
        if (records.size() >= kMostReplayedRecords) {
            return failed("the monitor replays " + std::to_string(kMostReplayedRecords) +
                          " records of a file, which " + command.path + " has already");
        }
        records.push_back(command.request);
        return {kExitOk, printable(name) + " is added" + place, ""};
    }
    if (!command.replace) {
        return failed("record " + number + " of " + command.path + " starts " + name +
                      " already; remove it, or add this one with --replace");
    }
    *first = command.request;
    records.erase(std::remove_if(first + 1, records.end(), isRival), records.end());
    return {kExitOk, printable(name) + " is replaced" + place, ""};
}

Report add(const RequestsCommand& command) {
    Report report = change(command, true, [&command](std::vector<reqcmd>& records) {
        return addTo(records, command);
    });
    std::string warnings;
    for (const std::string& warning : command.warnings) {
        warnings += toolLine("warning: " + warning);
    }
    report.error.insert(0, warnings);
    return report;
}

Report removeFrom(std::vector<reqcmd>& records, const RequestsCommand& command) {
    const std::string name(nameOf(command.request));
    const auto end = std::remove_if(records.begin(), records.end(), [&name](const reqcmd& record) {
        return nameOf(record) == name;
    });
    const auto count = static_cast<std::size_t>(records.end() - end);
    if (count == 0) {
        return failed("no record of " + command.path + " has the name " + name +
                      "; \"ovardctl requests list\" shows them");
    }
    records.erase(end, records.end());
    return {kExitOk,
            counted(count, "record") + " of " + printable(name) + (count == 1 ? " is" : " are") +
                " removed from " + printable(command.path) + '\n',
            ""};
}

Report remove(const RequestsCommand& command) {
    return change(command, false, [&command](std::vector<reqcmd>& records) {
        return removeFrom(records, command);
    });
}

// --- compile -------------------------------------------------------------------------------------

Report badText(const std::string& path, const RequestText& text) {
    Report report{kExitFailed, "", ""};
    for (const TextProblem& problem : text.problems) {
        report.error +=
            printable(path) + ':' + std::to_string(problem.line) + ": " + problem.text + '\n';
    }
    if (text.problems.size() == kMostTextProblems) {
        report.error += toolLine("there may be more problems in " + path);
    }
    return report;
}

Report writeImage(const std::string& path, const std::string& image, std::size_t count) {
    FileReplacement replacement(path);
    std::string problem = replacement.begin();
    if (problem.empty()) {
        problem = replacement.commit(image);
    }
    if (!problem.empty()) {
        return systemFailure(problem);
    }
    return {kExitOk, counted(count, "record") + " written to " + printable(path) + '\n', ""};
}

Report compile(const RequestsCommand& command, const char* meterRoot) {
    if (!command.outputPath.empty() && areSameFile(command.path, command.outputPath)) {
        return failed(command.outputPath + " is the text itself, which would be lost; give "
                                           "another file with -o");
    }
    std::string content;
    const std::string problem = readPlainFile(command.path, kLargestText, content);
    if (!problem.empty()) {
        return systemFailure(problem);
    }
    const RequestText text = parseRequestText(content, meterRoot);
    if (!text.problems.empty()) {
        return badText(command.path, text);
    }
    const ByteOrder order = command.byteOrder.value_or(text.byteOrder.value_or(nativeByteOrder()));
    const std::string image = encodeRequests(text.records, order);
    return command.outputPath.empty() ? Report{kExitOk, image, ""}
                                      : writeImage(command.outputPath, image, text.records.size());
}

} // namespace

Report runRequests(const RequestsCommand& command, const char* meterRoot) {
    switch (command.verb) {
    case RequestsVerb::List:
        return list(command);
    case RequestsVerb::Check:
        return check(command);
    case RequestsVerb::Add:
        return add(command);
    case RequestsVerb::Remove:
        return remove(command);
    case RequestsVerb::Compile:
        return compile(command, meterRoot);
    case RequestsVerb::Show:
        break;
    }
    return show(command);
}

} // namespace ovardctl
