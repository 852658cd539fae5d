#include "client/ovardctl/Outcome.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/client/TestServer.h"

namespace {

using namespace ovardctl;
using client_test::makeReply;
using ovard_client::Outcome;
using ovard_client::Result;

Report reportOf(Result result, std::int32_t systemError = 0, std::uint8_t requestSent = 0) {
    CommandLine commandLine;
    commandLine.socketPath = "/tmp/some_sock";
    commandLine.timeoutSec = 42;
    return makeReport(commandLine, Outcome{result, systemError, requestSent}, makeReply(0, "x"));
}

TEST(PrintableMessage, KeepsPrintableTextAndLineFeeds) {
    EXPECT_EQ(printableMessage(makeReply(0, "app [pid=7] is started\n")),
              "app [pid=7] is started\n");
    EXPECT_EQ(printableMessage(makeReply(0, "a\nb ~\n")), "a\nb ~\n");
}

TEST(PrintableMessage, EndsWithALineFeedUnlessEmpty) {
    EXPECT_EQ(printableMessage(makeReply(0, "no end")), "no end\n");
    EXPECT_EQ(printableMessage(makeReply(0, "")), "");
}

TEST(PrintableMessage, MakesOtherBytesHarmless) {
    EXPECT_EQ(printableMessage(makeReply(0, "\x1b[2J\r\t\x07\x7f\x9b\xff\n")),
              "\\x1b[2J\\x0d\\x09\\x07\\x7f\\x9b\\xff\n");
}

TEST(PrintableMessage, StopsAtTheNulAndAtTheEndOfTheField) {
    response_struct reply = makeReply(0, "short");
    std::memcpy(reply.message + 6, "hidden", 6);
    EXPECT_EQ(printableMessage(reply), "short\n");
    EXPECT_EQ(printableMessage(makeReply(0, std::string(1024, 'm'))),
              std::string(1024, 'm') + "\n");
}

TEST(MakeReport, PrintsTheMessageOfASuccess) {
    const Report report =
        makeReport(CommandLine{}, Outcome{Result::Ok, 0, 1}, makeReply(0, "done\n"));
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(report.output, "done\n");
    EXPECT_EQ(report.error, "");
}

TEST(MakeReport, FailsOnEveryOtherCode) {
    for (const std::int32_t code : {-20, -5, -1, 1, 256}) {
        const Report report =
            makeReport(CommandLine{}, Outcome{Result::Ok, 0, 1}, makeReply(code, "bad\n"));
        EXPECT_EQ(report.exitStatus, 1);
        EXPECT_EQ(report.output, "bad\n");
        EXPECT_NE(report.error.find("code " + std::to_string(code)), std::string::npos);
    }
}

TEST(MakeReport, SaysThatACodeIsThatOfTheLastOfSeveralStops) {
    const auto errorOf = [](std::int32_t action, std::int32_t code) {
        CommandLine commandLine;
        commandLine.request.action = action;
        return makeReport(commandLine, Outcome{Result::Ok, 0, 1}, makeReply(code, "x\n")).error;
    };
    const std::string one = "ovardctl: the action failed with code ";
    const std::string several = "ovardctl: the last stop of several failed with code ";
    for (std::int32_t action = 0; action <= 8; ++action) {
        const bool isStopOfSeveral = action >= 2 && action <= 4;
        EXPECT_EQ(errorOf(action, -4).rfind((isStopOfSeveral ? several : one) + "-4;", 0), 0u);
        // There was none to stop.
        EXPECT_EQ(errorOf(action, -20).rfind(one + "-20;", 0), 0u);
    }
}

TEST(MakeReport, PrintsNothingWhenNothingWasAwaited) {
    CommandLine commandLine;
    commandLine.request.nowait = 1;
    const Report report = makeReport(commandLine, Outcome{Result::Ok, 0, 1}, makeReply(-1, "x"));
    EXPECT_EQ(report.exitStatus, 0);
    EXPECT_EQ(report.output + report.error, "");
}

TEST(MakeReport, TellsThatNoMonitorListens) {
    const Report report = reportOf(Result::NoMonitor, ECONNREFUSED);
    EXPECT_EQ(report.exitStatus, 3);
    EXPECT_EQ(report.output, "");
    EXPECT_NE(report.error.find("/tmp/some_sock"), std::string::npos);
    EXPECT_NE(report.error.find("start ovard"), std::string::npos);
}

TEST(MakeReport, ExplainsAMissingReply) {
    const Report timedOut = reportOf(Result::TimedOut, 0, 1);
    EXPECT_EQ(timedOut.exitStatus, 4);
    EXPECT_EQ(timedOut.output, "");
    EXPECT_NE(timedOut.error.find("42 s"), std::string::npos);
    EXPECT_NE(timedOut.error.find("sends no reply"), std::string::npos);
    // Any other start is answered before it has failed.
    EXPECT_NE(timedOut.error.find("it has no memory for a start,"), std::string::npos);
    EXPECT_NE(timedOut.error.find("system log"), std::string::npos);

    const Report closed = reportOf(Result::ConnectionClosed, 0, 1);
    EXPECT_EQ(closed.exitStatus, 4);
    EXPECT_NE(closed.error.find("closed"), std::string::npos);
    EXPECT_NE(closed.error.find("sends no reply"), std::string::npos);
}

TEST(MakeReport, TellsARequestThatWasNotTakenFromOneThatWas) {
    for (const Result result : {Result::TimedOut, Result::ConnectionClosed}) {
        const Report report = reportOf(result, 0, 0);
        EXPECT_EQ(report.exitStatus, 4);
        EXPECT_NE(report.error.find("try again"), std::string::npos);
        EXPECT_EQ(report.error.find("was sent"), std::string::npos);
    }
}

TEST(MakeReport, NamesOtherErrors) {
    const Report report = reportOf(Result::SystemError, EACCES);
    EXPECT_EQ(report.exitStatus, 5);
    EXPECT_EQ(report.output, "");
    EXPECT_NE(report.error.find("/tmp/some_sock"), std::string::npos);
    EXPECT_NE(report.error.find(std::strerror(EACCES)), std::string::npos);
}

TEST(InterruptedReport, SaysInOneLineThatTheMonitorGoesOn) {
    const Report report = interruptedReport();
    EXPECT_EQ(report.exitStatus, 130);
    EXPECT_EQ(report.output, "");
    EXPECT_NE(report.error.find("the monitor goes on with the request"), std::string::npos);
    EXPECT_EQ(report.error.find('\n'), report.error.size() - 1);
}

} // namespace
