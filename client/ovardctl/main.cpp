// ovardctl: controls and shows the applications that the monitor supervises, from the shell.

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "client/ovardctl/CommandLine.h"
#include "client/ovardctl/Events.h"
#include "client/ovardctl/Outcome.h"
#include "client/ovardctl/PrintableText.h"
#include "client/ovardctl/Progress.h"
#include "client/ovardctl/RequestsTool.h"
#include "client/ovardctl/Screen.h"
#include "client/ovardctl/Sending.h"
#include "client/ovardctl/StartChecks.h"
#include "client/ovardctl/Viewer.h"

namespace {

using namespace ovardctl;

/// Between two looks at an event log that is followed.
constexpr std::chrono::milliseconds kEventPause(500);

void printError(const std::string& text) {
    (void)std::fputs(text.c_str(), stderr);
}

int outputFailure() {
    printError(std::string("ovardctl: cannot write to standard output: ") + std::strerror(errno) +
               "\n");
    return kExitSystemError;
}

/// Writes `text`, which may hold any bytes, to standard output; returns `status`, or a failure when
/// it could not be written.
int printOutput(const std::string& text, int status) {
    const bool isWritten =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    return isWritten ? status : outputFailure();
}

Screen screenOf(int fd) {
    return examineScreen(fd, std::getenv("TERM"), std::getenv("NO_COLOR"));
}

Screen standardOutput() {
    return screenOf(STDOUT_FILENO);
}

/// Sends the request and waits, with a line of progress where standard error is a terminal.
Report carryOut(const CommandLine& commandLine) {
    ProgressLine progress(stderr, screenOf(STDERR_FILENO), commandLine.request);
    const Sending sending = sendWatched(
        commandLine, [&progress](std::int64_t elapsedSec) { progress.show(elapsedSec); });
    return sending.isInterrupted ? interruptedReport()
                                 : makeReport(commandLine, sending.outcome, sending.reply);
}

void printWarnings(const CommandLine& commandLine) {
    std::vector<std::string> warnings = commandLine.warnings;
    const std::string unfit = programWarning(commandLine.request);
    if (!unfit.empty()) {
        warnings.push_back(unfit);
    }
    for (const std::string& warning : warnings) {
        printError("ovardctl: warning: " + printable(warning) + "\n");
    }
}

int send(const CommandLine& commandLine) {
    printWarnings(commandLine);
    const Report report = carryOut(commandLine);
    printError(report.error);
    return printOutput(report.output, report.exitStatus);
}

/// Shows it until a signal ends the program, or until standard output takes no more.
int showRepeatedly(const CommandLine& commandLine) {
    const std::chrono::seconds span(commandLine.view.watchSec);
    (void)watch([&] { return makeView(commandLine, {}, standardOutput().colour); }, standardOutput,
                commandLine.view.json, stdout, stderr,
                [span] {
                    std::this_thread::sleep_for(span);
                    return true;
                });
    return outputFailure();
}

int show(const CommandLine& commandLine) {
    if (commandLine.view.watchSec != 0) {
        return showRepeatedly(commandLine);
    }
    const Report report = makeView(commandLine, {}, standardOutput().colour);
    const int status = printOutput(report.output, report.exitStatus);
    printError(report.error);
    return status;
}

int showEventLog(const CommandLine& commandLine) {
    const int status = showEvents(commandLine.events, stdout, stderr, [] {
        std::this_thread::sleep_for(kEventPause);
        return true;
    });
    return std::ferror(stdout) == 0 ? status : outputFailure();
}

int workOnRequests(const RequestsCommand& command, const char* meterRoot) {
    const bool isImage = command.verb == RequestsVerb::Compile && command.outputPath.empty();
    if (isImage && ::isatty(STDOUT_FILENO) == 1) {
        printError("ovardctl: a request file is nothing for a terminal; name a file with -o\n");
        return kExitUsage;
    }
    const Report report = runRequests(command, meterRoot);
    const int status = printOutput(report.output, report.exitStatus);
    printError(report.error);
    return status;
}

int run(int argc, char** argv) {
    const char* const meterRoot = std::getenv("METER_ROOT");
    const CommandLine commandLine = parseCommandLine(argc, argv, meterRoot);
    switch (commandLine.verdict) {
    case Verdict::Send:
        return send(commandLine);
    case Verdict::ShowStatus:
    case Verdict::ShowSystem:
        return show(commandLine);
    case Verdict::ShowEvents:
        return showEventLog(commandLine);
    case Verdict::Requests:
        return workOnRequests(commandLine.requests, meterRoot);
    case Verdict::ShowText:
        return printOutput(commandLine.text, kExitOk);
    case Verdict::UsageError:
        break;
    }
    printError(commandLine.text);
    return kExitUsage;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        printError(std::string("ovardctl: ") + error.what() + "\n");
        return kExitSystemError;
    }
}
