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

#include "client/CommandLine.h"
#include "client/Outcome.h"
#include "client/OvardClient.h"
#include "client/Viewer.h"

namespace {

using namespace ovardctl;

void printError(const std::string& text) {
    (void)std::fputs(text.c_str(), stderr);
}

int outputFailure() {
    printError(std::string("ovardctl: cannot write to standard output: ") + std::strerror(errno) +
               "\n");
    return kExitSystemError;
}

/// Writes `text` to standard output; returns `status`, or a failure when it could not be written.
int printOutput(const std::string& text, int status) {
    const bool isWritten = std::fputs(text.c_str(), stdout) != EOF && std::fflush(stdout) == 0;
    return isWritten ? status : outputFailure();
}

int send(const CommandLine& commandLine) {
    for (const std::string& warning : commandLine.warnings) {
        printError("ovardctl: warning: " + warning + "\n");
    }
    const ovard_client::Endpoint endpoint{commandLine.socketPath.c_str(),
                                          commandLine.timeoutSec * 1000};
    response_struct reply{};
    const ovard_client::Outcome outcome =
        ovard_client::sendRequest(&endpoint, &commandLine.request, &reply);
    const Report report = makeReport(commandLine, outcome, reply);
    printError(report.error);
    return printOutput(report.output, report.exitStatus);
}

Screen standardOutput() {
    return examineScreen(STDOUT_FILENO, std::getenv("TERM"), std::getenv("NO_COLOR"));
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

int run(int argc, char** argv) {
    const CommandLine commandLine = parseCommandLine(argc, argv, std::getenv("METER_ROOT"));
    switch (commandLine.verdict) {
    case Verdict::Send:
        return send(commandLine);
    case Verdict::ShowStatus:
    case Verdict::ShowSystem:
        return show(commandLine);
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
