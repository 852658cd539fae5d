#include "client/ovardctl/RequestCheck.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "tests/unit/client/RequestCheckSupport.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using platform::copyToField;

TEST(RequestCheck, ThereIsNothingToSayOfUsualRequests) {
    EXPECT_EQ(problemsOf({startOf("one"), startOf("two"), requestOf(APPMONCTL_Stop, "one"),
                          requestOf(APPMONCTL_Restart, "two"), requestOf(APPMONCTL_Stop_All, ""),
                          requestOf(APPMONCTL_Restart_PortApps, "")}),
              kNothing);
    EXPECT_EQ(problemsOf(std::vector<reqcmd>{}), kNothing);
}

TEST(RequestCheck, FragmentAtTheEndIsAnError) {
    const std::string image = imageOf({startOf("one"), startOf("two")}) + "rest";
    expectProblem(problemsOf(decodeRequests(image)),
                  "error 0 the last record is cut, it has 4 of 1216 bytes",
                  "cut the file to 2432 bytes");
}

TEST(RequestCheck, ByteOrderOfAnotherMachineIsAnError) {
    reqcmd record = startOf("one");
    record.restart_type = RESTART_TYPE_ALL;
    const RequestFile big = decodeRequests(encodeRequests({record}, ByteOrder::Big));
    EXPECT_EQ(problemsOf(big, everythingIsThere, ByteOrder::Big), kNothing);
    expectProblem(problemsOf(big, everythingIsThere, ByteOrder::Little),
                  "error 0 the integers have the byte order of another machine (big-endian)",
                  "compile --byte-order");
    // A file in which it makes no difference fits every machine.
    const RequestFile either = decodeRequests(imageOf({startOf("one")}));
    EXPECT_EQ(problemsOf(either, everythingIsThere, ByteOrder::Big), kNothing);
    EXPECT_EQ(problemsOf(either, everythingIsThere, ByteOrder::Little), kNothing);
}

TEST(RequestCheck, RecordsThatAreNotReplayedAreAnError) {
    std::vector<reqcmd> records(65536, requestOf(APPMONCTL_Stop_All, ""));
    EXPECT_EQ(problemsOf(records), kNothing);
    records.push_back(requestOf(77, "not looked at"));
    expectProblem(problemsOf(records), "error 0 there are 65537 records", "first 65536");
}

TEST(RequestCheck, ActionsThatDoNothingAreTold) {
    for (const std::int32_t action : {-1, 11, 77}) {
        expectProblem(problemsOf({startOf("one"), requestOf(action, "")}),
                      "error 2 the action " + std::to_string(action) + " is unknown", "remove");
    }
    for (const std::int32_t action : {9, 10}) {
        expectProblem(problemsOf({requestOf(action, "")}),
                      "warning 1 the action " + std::to_string(action) + " is reserved", "remove");
    }
}

TEST(RequestCheck, EmptyNamesAreErrorsWhereANameIsNeeded) {
    reqcmd start = startOf("one");
    copyToField(start.name, "");
    for (const reqcmd& record :
         {start, requestOf(APPMONCTL_Stop, ""), requestOf(APPMONCTL_Restart, "")}) {
        expectProblem(problemsOf({record}), "error 1 the name is empty", "give it one");
    }
}

TEST(RequestCheck, SecondStartOfANameIsAWarning) {
    expectProblem(problemsOf({startOf("one"), startOf("two"), startOf("one")}),
                  "warning 3 record 1 starts an application of this name", "remove one");
    EXPECT_EQ(problemsOf({startOf("one"), requestOf(APPMONCTL_Restart, "one")}), kNothing);
}

TEST(RequestCheck, NameMayBeStartedAgainOnceItIsStopped) {
    for (const reqcmd& stop : {requestOf(APPMONCTL_Stop, "one"), requestOf(APPMONCTL_Stop_All, ""),
                               requestOf(APPMONCTL_Stop_All_But, "")}) {
        EXPECT_EQ(problemsOf({startOf("one"), stop, startOf("one")}), kNothing) << stop.action;
    }
    reqcmd onPort = startOf("one");
    onPort.porttype = PORT_TYPE_COM;
    EXPECT_EQ(problemsOf({onPort, requestOf(APPMONCTL_Stop_PortApps, ""), onPort}), kNothing);
    expectProblem(
        problemsOf({startOf("one"), requestOf(APPMONCTL_Stop_PortApps, ""), startOf("one")}),
        "warning 3 record 1 starts an application of this name", "remove one");
}

TEST(RequestCheck, StopAndRestartOfWhatIsNotStartedAreWarnings) {
    for (const std::int32_t action : {APPMONCTL_Stop, APPMONCTL_Restart}) {
        const reqcmd record = requestOf(action, "one");
        const std::string begin = " no earlier record starts an application of this name, or it "
                                  "is stopped by then";
        expectProblem(problemsOf({record, startOf("one")}), "warning 1" + begin, "behind");
        expectProblem(problemsOf({startOf("two"), record}), "warning 2" + begin, "correct");
        expectProblem(problemsOf({startOf("one"), requestOf(APPMONCTL_Stop_All, ""), record}),
                      "warning 3" + begin, "nothing to stop or restart");
    }
}

TEST(RequestCheck, NumbersThatTheMonitorMakesLittleOfAreWarnings) {
    const auto problemsWith = [](std::int32_t reqcmd::*member, std::int32_t value) {
        reqcmd record = startOf("one");
        record.*member = value;
        return problemsOf({record});
    };
    for (const std::int32_t policy : {-1, 2, 16777216}) {
        // A record whose order is known, so that no value is taken for another one.
        reqcmd record = startOf("one");
        record.restart_type = policy;
        record.porttype = PORT_TYPE_COM;
        expectProblem(problemsOf({record}),
                      "warning 1 the restart policy " + std::to_string(policy) + " is neither",
                      "never restarts the application after a failure");
    }
    for (const std::int32_t priority : {-21, 20}) {
        expectProblem(problemsWith(&reqcmd::priority, priority),
                      "warning 1 the priority " + std::to_string(priority) + " is outside -20",
                      "nearer end");
    }
    for (const std::int32_t type : {-1, 3}) {
        expectProblem(problemsWith(&reqcmd::porttype, type),
                      "warning 1 the port type " + std::to_string(type) + " is none of",
                      "the status shows no port");
    }
    expectProblem(problemsWith(&reqcmd::last_runtime_life_limit, -1),
                  "warning 1 the life limit -1 is negative", "every failure restarts the machine");
    for (const std::int32_t priority : {-20, 19}) {
        EXPECT_EQ(problemsWith(&reqcmd::priority, priority), kNothing);
    }
    for (const std::int32_t type : {PORT_TYPE_NONE, PORT_TYPE_COM, PORT_TYPE_ETH}) {
        EXPECT_EQ(problemsWith(&reqcmd::porttype, type), kNothing);
    }
    EXPECT_EQ(problemsWith(&reqcmd::restart_type, RESTART_TYPE_ALL), kNothing);
    EXPECT_EQ(problemsWith(&reqcmd::last_runtime_life_limit, 100000000), kNothing);
}

TEST(RequestCheck, ProgramThatCannotRunUnderPolicyAllRestartsTheMachineAgainAndAgain) {
    reqcmd record = startOf("one");
    const auto problemsIn = [&record](ProgramState state) {
        return problemsOf({record}, [state](const std::string& /*program*/) { return state; });
    };
    const std::string restarts = "the machine can restart again and again";
    for (const ProgramState state :
         {ProgramState::Missing, ProgramState::NotExecutable, ProgramState::NotPlain}) {
        record.restart_type = RESTART_TYPE_SELF;
        EXPECT_EQ(problemsIn(state).at(0).find(restarts), std::string::npos);
        record.restart_type = RESTART_TYPE_ALL;
        record.last_runtime_life_limit = 600;
        expectProblem(problemsIn(state), "error 1 the program", restarts);
    }
    EXPECT_EQ(problemsIn(ProgramState::Executable), kNothing);
    copyToField(record.cmd, "one");
    const std::string problem = problemsIn(ProgramState::Executable).at(0);
    EXPECT_NE(problem.find(restarts), std::string::npos) << problem;
}

TEST(RequestCheck, SameNameIsWhatTheMonitorTakesForIt) {
    reqcmd first = startOf("x");
    reqcmd second = first;
    std::memset(first.name, 'n', sizeof first.name);
    copyToField(second.name, std::string(63, 'n'));
    const std::vector<std::string> problems = problemsOf({first, second});
    expectAmong(problems, "error 1 name does not end with a NUL", "");
    expectAmong(problems, "warning 2 record 1 starts an application of this name", "");
}

TEST(RequestCheck, ProgramsAreLookedFor) {
    std::vector<std::string> asked;
    const auto examine = [&asked](const std::string& program) {
        asked.push_back(program);
        return ProgramState::Missing;
    };
    expectProblem(problemsOf({startOf("one"), requestOf(APPMONCTL_Stop, "one", "/two")}, examine),
                  "error 1 the program /home/kelvo/root/one is missing", "install it");
    EXPECT_EQ(asked, std::vector<std::string>{"/home/kelvo/root/one"});

    const auto state = [](ProgramState found) {
        return [found](const std::string& /*program*/) { return found; };
    };
    expectProblem(problemsOf({startOf("one")}, state(ProgramState::NotExecutable)),
                  "error 1 the program /home/kelvo/root/one is not executable", "chmod +x");
    expectProblem(problemsOf({startOf("one")}, state(ProgramState::NotPlain)),
                  "error 1 the program /home/kelvo/root/one is no plain file", "correct");
    expectProblem(problemsOf({startOf("one")}, state(ProgramState::Unknown)),
                  "warning 1 the program /home/kelvo/root/one cannot be looked at", "rights");
}

TEST(RequestCheck, CommandWithoutAProgramIsAnError) {
    for (const char* command : {"", "  ", "\t\v\f"}) {
        reqcmd record = startOf("one");
        copyToField(record.cmd, command);
        const std::vector<std::string> problems = problemsOf({record});
        EXPECT_TRUE(std::any_of(problems.begin(), problems.end(), [](const std::string& problem) {
            return problem.find("error 1 there is no command, so the start fails") == 0;
        })) << testing::PrintToString(problems);
    }
}

TEST(RequestCheck, RelativeProgramIsAnErrorAndNotLookedFor) {
    reqcmd record = startOf("one");
    copyToField(record.cmd, "one -a");
    const std::vector<std::string> problems = problemsOf({record}, [](const std::string& program) {
        ADD_FAILURE() << program;
        return ProgramState::Executable;
    });
    ASSERT_FALSE(problems.empty());
    EXPECT_EQ(problems[0].find("error 1 the program one is no absolute path"), 0u) << problems[0];
    EXPECT_NE(problems[0].find("give the absolute path"), std::string::npos) << problems[0];
}

TEST(RequestCheck, WarningsOfTheStartCommandAreTold) {
    std::string words = "/home/kelvo/root/one";
    for (int count = 1; count < 41; ++count) {
        words += " w";
    }
    for (const std::string& command :
         {std::string("/bin/one"), std::string("/home/kelvo/root/appmon/one"),
          std::string("/home/kelvo/root/actl_one"), words}) {
        reqcmd record = startOf("one");
        copyToField(record.cmd, command);
        std::vector<std::string> warnings = startWarnings(record);
        ASSERT_FALSE(warnings.empty()) << command;
        for (std::string& warning : warnings) {
            warning.insert(0, "warning 1 ");
        }
        EXPECT_EQ(problemsOf({record}), warnings);
    }
    reqcmd fortyWords = startOf("one");
    copyToField(fortyWords.cmd, words.substr(0, words.size() - 2));
    EXPECT_EQ(problemsOf({fortyWords}), kNothing);
}

TEST(RequestCheck, ConventionalPidFileWithoutRoomForAProcessIdIsAWarning) {
    const std::string name = "modbus_gateway_server";
    reqcmd record = startOf(name);
    const std::string program = "/mnt/runfw/home/kelvo/modbus/" + name;
    copyToField(record.cmd, program);
    copyToField(record.pidfile, "/tmp/pid" + program + ".pid");
    expectProblem(problemsOf({record}),
                  "warning 1 the monitor may never confirm the application, and restart it or the "
                  "machine again and again",
                  "55 characters");
}

TEST(RequestCheck, NamesThatTheMonitorLosesAreWarnings) {
    reqcmd record = startOf("prog");
    copyToField(record.name, std::string(43, 'n'));
    const std::vector<std::string> problems = problemsOf({record});
    ASSERT_EQ(problems.size(), 2u) << testing::PrintToString(problems);
    expectAmong(problems, "warning 1 the application is not named as its program, prog", "adopt");
    expectAmong(problems, "warning 1 the name has 43 characters", "first 31");
}

TEST(RequestCheck, EmptyPidFileNameIsAWarning) {
    reqcmd record = startOf("one");
    copyToField(record.pidfile, "");
    expectProblem(problemsOf({record}), "warning 1 the name of the pid file is empty",
                  "30 seconds");
}

TEST(RequestCheck, TextsWithoutANulAreErrors) {
    reqcmd record = startOf("one");
    std::memset(record.version, 'v', sizeof record.version);
    expectProblem(problemsOf({record}), "error 1 version does not end with a NUL", "31 characters");
    record = startOf("one");
    std::memset(record.pidfile, 'p', sizeof record.pidfile);
    expectProblem(problemsOf({record}), "error 1 pidfile does not end with a NUL", "63 characters");
    record = startOf("one");
    std::memset(record.cmd + 21, 'c', sizeof record.cmd - 21);
    expectProblem(problemsOf({record}), "error 1 cmd does not end with a NUL", "1023 characters");
    record = startOf("one");
    std::memset(record.name, 'n', sizeof record.name);
    expectAmong(problemsOf({record}), "error 1 name does not end with a NUL", "63 characters");
}

TEST(RequestCheck, BytesThatAreNotPrintableAreWarnings) {
    reqcmd record = startOf("one");
    copyToField(record.cmd, "/home/kelvo/root/one a\nb\tc\n");
    expectProblem(problemsOf({record}),
                  "warning 1 cmd holds a byte that is not printable ASCII, \\x0a at character 23",
                  "unless that is meant");
    record = startOf("one");
    copyToField(record.name, "m\xc3\xa4");
    expectAmong(problemsOf({record}), "warning 1 name holds a byte", "\\xc3 at character 2");
    record = startOf("one");
    copyToField(record.version, "\x7f");
    expectProblem(problemsOf({record}), "warning 1 version holds a byte", "\\x7f at character 1");
    record = startOf("one");
    record.pidfile[63] = '\1'; // behind the NUL nobody reads it
    copyToField(record.cmd, "/home/kelvo/root/one\ta");
    EXPECT_EQ(problemsOf({record}), kNothing);
}

TEST(RequestCheck, WhatARequestDoesNotUseIsNotLookedAt) {
    reqcmd record = requestOf(APPMONCTL_Stop_All, "\x01", "relative\n");
    std::memset(record.version, 'v', sizeof record.version);
    EXPECT_EQ(problemsOf({record}), kNothing);
}

} // namespace
