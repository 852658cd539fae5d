// ovardctl: controls the applications that the monitor supervises, from the shell.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "client/CommandLine.h"
#include "client/Outcome.h"
#include "client/OvardClient.h"

namespace {

using namespace ovardctl;

void printError(const std::string& text) {
    (void)std::fputs(text.c_str(), stderr);
}

/// Writes `text` to standard output; returns `status`, or a failure when it could not be written.
int printOutput(const std::string& text, int status) {
    if (std::fputs(text.c_str(), stdout) != EOF && std::fflush(stdout) == 0) {
        return status;
    }
    printError(std::string("ovardctl: cannot write to standard output: ") + std::strerror(errno) +
               "\n");
    return kExitSystemError;
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

int run(int argc, char** argv) {
    const CommandLine commandLine = parseCommandLine(argc, argv, std::getenv("METER_ROOT"));
    switch (commandLine.verdict) {
    case Verdict::Send:
        return send(commandLine);
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
