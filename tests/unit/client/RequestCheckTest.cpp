#include "client/ovardctl/RequestCheck.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "tests/unit/client/RequestRecords.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using platform::copyToField;

ProgramState everythingIsThere(const std::string& /*program*/) {
    return ProgramState::Executable;
}

/// The problems, one "error|warning RECORD TEXT" each.
std::vector<std::string> problemsOf(const RequestFile& file,
                                    const ProgramExaminer& examine = everythingIsThere,
                                    ByteOrder target = nativeByteOrder()) {
    std::vector<std::string> lines;
    for (const Problem& problem : checkRequests(file, target, examine)) {
        lines.push_back((problem.severity == Severity::Error ? "error " : "warning ") +
                        std::to_string(problem.record) + ' ' + problem.text);
    }
    return lines;
}

std::vector<std::string> problemsOf(const std::vector<reqcmd>& records,
                                    const ProgramExaminer& examine = everythingIsThere) {
    return problemsOf(decodeRequests(imageOf(records)), examine);
}

/// There is one problem; it begins like this and has the part.
void expectProblem(const std::vector<std::string>& problems, const std::string& begin,
                   const std::string& part) {
    ASSERT_EQ(problems.size(), 1u) << testing::PrintToString(problems);
    EXPECT_EQ(problems[0].substr(0, begin.size()), begin);
    EXPECT_NE(problems[0].find(part), std::string::npos) << problems[0];
}

const std::vector<std::string> kNothing;

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
    std::vector<reqcmd> records(65536, requestOf(APPMONCTL_Stop, "one"));
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

TEST(RequestCheck, SameNameIsWhatTheMonitorTakesForIt) {
    reqcmd first = startOf("x");
    reqcmd second = first;
    std::memset(first.name, 'n', sizeof first.name);
    copyToField(second.name, std::string(63, 'n'));
    const std::vector<std::string> problems = problemsOf({first, second});
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_EQ(problems[0].substr(0, 34), "error 1 name does not end with a N");
    EXPECT_EQ(problems[1].substr(0, 26), "warning 2 record 1 starts ");
}

TEST(RequestCheck, ProgramsAreLookedFor) {
    std::vector<std::string> asked;
    const auto examine = [&asked](const std::string& program) {
        asked.push_back(program);
        return ProgramState::Missing;
    };
    expectProblem(problemsOf({startOf("one"), requestOf(APPMONCTL_Stop, "two", "/two")}, examine),
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
    EXPECT_EQ(problems[0].find("error 1 the program one is not found, it is no absolute path"), 0u)
        << problems[0];
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
        const std::vector<std::string> warnings = startWarnings(record);
        ASSERT_EQ(warnings.size(), 1u) << command;
        EXPECT_EQ(problemsOf({record}), std::vector<std::string>{"warning 1 " + warnings[0]});
    }
    reqcmd fortyWords = startOf("one");
    copyToField(fortyWords.cmd, words.substr(0, words.size() - 2));
    EXPECT_EQ(problemsOf({fortyWords}), kNothing);
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
    std::memset(record.cmd + 20, 'c', sizeof record.cmd - 20);
    expectProblem(problemsOf({record}), "error 1 cmd does not end with a NUL", "1023 characters");
    record = requestOf(APPMONCTL_Stop, "");
    std::memset(record.name, 'n', sizeof record.name);
    expectProblem(problemsOf({record}), "error 1 name does not end with a NUL", "63 characters");
}

TEST(RequestCheck, BytesThatAreNotPrintableAreWarnings) {
    reqcmd record = startOf("one");
    copyToField(record.cmd, "/home/kelvo/root/one a\nb\tc\n");
    expectProblem(problemsOf({record}),
                  "warning 1 cmd holds a byte that is not printable ASCII, \\x0a at character 23",
                  "unless that is meant");
    record = requestOf(APPMONCTL_Stop, "m\xc3\xa4");
    expectProblem(problemsOf({record}), "warning 1 name holds a byte", "\\xc3 at character 2");
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
