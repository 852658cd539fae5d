#include "client/ovardctl/Outcome.h"

#include <system_error>

#include "client/ovardctl/PrintableText.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

using ovard_client::Outcome;
using ovard_client::Result;

std::string errorText(std::int32_t systemError) {
    return std::generic_category().message(systemError);
}

/// The code with which the monitor says that there is no such application, or none at all.
constexpr std::int32_t kNotFound = -20;

/// What has failed when `action` is answered with `code`.
const char* failedPart(std::int32_t action, std::int32_t code) {
    const bool isStopOfSeveral = action >= APPMONCTL_Stop_All && action <= APPMONCTL_Stop_PortApps;
    return isStopOfSeveral && code != kNotFound ? "the last stop of several" : "the action";
}

Report replied(const reqcmd& request, const response_struct& reply) {
    Report report{kExitOk, printableMessage(reply), ""};
    if (reply.code != 0) {
        report.exitStatus = kExitFailed;
        report.error = std::string("ovardctl: ") + failedPart(request.action, reply.code) +
                       " failed with code " + std::to_string(reply.code) +
                       "; the monitor's lines in the system log (Ovard) tell more\n";
    }
    return report;
}

Report noMonitor(const CommandLine& commandLine, std::int32_t systemError) {
    return {kExitNoMonitor, "",
            "ovardctl: no monitor listens on " + commandLine.socketPath + " (" +
                errorText(systemError) + "); start ovard, or name its socket with --socket\n"};
}

Report notAccepted(const std::string& what) {
    return {kExitNoReply, "",
            "ovardctl: " + what +
                " before the monitor had taken the whole request; it may be busy or ending, try "
                "again\n"};
}

Report unanswered(const std::string& what) {
    return {kExitNoReply, "",
            "ovardctl: " + what +
                "\n"
                "The request was sent. The monitor sends no reply when a stop of one application\n"
                "fails for another reason than an unknown name, when a restart of several\n"
                "applications fails, when it has no memory for a start, and when another client\n"
                "connects meanwhile. See its lines in the system log (Ovard) for the outcome. It\n"
                "may also still be at work: a longer --timeout waits for that.\n"};
}

Report noReply(const CommandLine& commandLine, const Outcome& outcome) {
    const std::string what =
        outcome.result == Result::TimedOut
            ? std::to_string(commandLine.timeoutSec) + " s passed without a reply"
            : std::string("the connection was closed without a whole reply");
    return outcome.requestSent != 0 ? unanswered(what) : notAccepted(what);
}

Report systemFailure(const CommandLine& commandLine, std::int32_t systemError) {
    return {kExitSystemError, "",
            "ovardctl: cannot talk to the monitor on " + commandLine.socketPath + ": " +
                errorText(systemError) + "; check the path and your rights on it\n"};
}

} // namespace

std::string printableMessage(const response_struct& reply) {
    std::string text = printable(platform::fieldText(reply.message), "\n");
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    return text;
}

Report interruptedReport() {
    return {
        kExitInterrupted, "",
        "ovardctl: interrupted; the monitor goes on with the request, \"ovardctl status\" shows "
        "what becomes of it\n"};
}

Report makeReport(const CommandLine& commandLine, const Outcome& outcome,
                  const response_struct& reply) {
    switch (outcome.result) {
    case Result::Ok:
        return commandLine.request.nowait != 0 ? Report{kExitOk, "", ""}
                                               : replied(commandLine.request, reply);
    case Result::NoMonitor:
        return noMonitor(commandLine, outcome.systemError);
    case Result::TimedOut:
    case Result::ConnectionClosed:
        return noReply(commandLine, outcome);
    case Result::SystemError:
        break;
    }
    return systemFailure(commandLine, outcome.systemError);
}

} // namespace ovardctl
