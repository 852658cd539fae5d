// What the check says of applications that get in each other's way.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ovardctl/RequestCheck.h"
#include "platform/Text.h"
#include "tests/unit/client/RequestCheckSupport.h"

namespace {

using namespace client_test;
using platform::copyToField;

TEST(RequestCheckRivals, PidFileOfAnotherApplicationIsAWarning) {
    reqcmd one = startOf("one");
    reqcmd two = startOf("two");
    copyToField(one.pidfile, "/var/run/x.pid");
    copyToField(two.pidfile, "/var/run/x.pid");
    expectProblem(problemsOf({startOf("zero"), one, two}),
                  "warning 3 record 2 starts another application with the same pid file",
                  "removes the file of that one");
    EXPECT_EQ(problemsOf({one, requestOf(APPMONCTL_Stop, "one"), two}), kNothing);
}

// Each process of a conventional program writes a file with its own id in the name.
TEST(RequestCheckRivals, ConventionalPidFileIsSharedWithNobody) {
    reqcmd two = startOf("two");
    copyToField(two.pidfile, startOf("one").pidfile);
    EXPECT_EQ(problemsOf({startOf("one"), two}), kNothing);
    // But here the first one is said to write what the second one's launch removes.
    expectProblem(problemsOf({two, startOf("one")}),
                  "warning 2 record 1 starts another application with the same pid file",
                  "removes the file of that one");
    reqcmd sameProgram = startOf("one");
    copyToField(sameProgram.name, "other");
    EXPECT_EQ(countOf(problemsOf({startOf("one"), sameProgram}), "pid file"), 0);
}

TEST(RequestCheckRivals, CommandOfAnotherApplicationIsAWarning) {
    reqcmd two = startOf("two");
    copyToField(two.cmd, startOf("one").cmd);
    const std::string begin = "warning 2 record 1 starts the same command under another name";
    expectAmong(problemsOf({startOf("one"), two}), begin,
                "take the process of that application for this one's");
    copyToField(two.cmd, std::string(startOf("one").cmd) + "c");
    EXPECT_EQ(countOf(problemsOf({startOf("one"), two}), begin), 0);
}

constexpr const char* kEndsTheOther =
    "have the name of this application: the monitor ends them whenever it stops or restarts this "
    "one, after a failure too; give each a program of its own";
constexpr const char* kEndedByTheOther =
    "starts: the monitor ends them whenever it stops or restarts that one, after a failure too; "
    "give each a program of its own";

TEST(RequestCheckRivals, TwoApplicationsOfOneProgramAreAWarningWhateverTheirPidFiles) {
    reqcmd other = startOf("one");
    copyToField(other.name, "other");
    copyToField(other.cmd, "/home/kelvo/root/one -c d");
    for (const std::string pidFile : {"/tmp/pid/home/kelvo/root/one.pid", "/tmp/other.pid"}) {
        copyToField(other.pidfile, pidFile);
        const std::vector<std::string> behind = problemsOf({startOf("one"), other});
        ASSERT_EQ(behind.size(), 2u) << testing::PrintToString(behind);
        expectAmong(behind, "warning 2 the application is not named as its program, one", "");
        expectAmong(behind,
                    "warning 2 the processes of its program have the name of the application that "
                    "record 1 starts",
                    kEndedByTheOther);
        const std::vector<std::string> before = problemsOf({other, startOf("one")});
        expectAmong(before, "warning 2 the processes of record 1 have the name of this application",
                    kEndsTheOther);
        EXPECT_EQ(countOf(before, kEndedByTheOther), 0);
    }
    EXPECT_EQ(countOf(problemsOf({startOf("one"), requestOf(APPMONCTL_Stop, "one"), other}),
                      "the processes of"),
              0);
}

// The system keeps 15 characters of a file name: these two end each other.
TEST(RequestCheckRivals, ApplicationsWhoseNamesBeginAlikeEndEachOther) {
    const reqcmd server = startOf("modbus_gateway_server");
    const reqcmd client = startOf("modbus_gateway_client");
    const std::vector<std::string> problems = problemsOf({server, client});
    ASSERT_EQ(problems.size(), 2u) << testing::PrintToString(problems);
    expectAmong(problems, "warning 2 the processes of record 1", kEndsTheOther);
    expectAmong(problems, "warning 2 the processes of its program", kEndedByTheOther);
    EXPECT_EQ(problemsOf({startOf("modbus_gatewayA"), startOf("modbus_gatewayB")}), kNothing);
}

TEST(RequestCheckRivals, ProcessesThatTheMonitorDoesNotFindAreEndedByNoOther) {
    reqcmd other = startOf("one");
    copyToField(other.name, "other");
    for (const char* command : {"/bin/one", "/home/kelvo/root/appmon/one"}) {
        copyToField(other.cmd, command);
        EXPECT_EQ(countOf(problemsOf({startOf("one"), other}), "the processes of"), 0) << command;
        EXPECT_EQ(countOf(problemsOf({other, startOf("one")}), "the processes of"), 0) << command;
    }
}

} // namespace
