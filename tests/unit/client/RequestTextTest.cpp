#include "client/ovardctl/RequestText.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/RequestRecords.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using namespace std::string_literals;
using platform::fieldText;

/// The problems of a text, one "LINE: TEXT" a line.
std::string problemsOf(const RequestText& text) {
    std::string lines;
    for (const TextProblem& problem : text.problems) {
        lines += std::to_string(problem.line) + ": " + problem.text + '\n';
    }
    return lines;
}

/// The records of a text in which nothing is wrong.
std::vector<reqcmd> recordsOf(const std::string& text, const char* meterRoot = nullptr) {
    const RequestText read = parseRequestText(text, meterRoot);
    EXPECT_EQ(problemsOf(read), "") << text;
    return read.records;
}

/// The only record of such a text.
reqcmd recordOf(const std::string& text, const char* meterRoot = nullptr) {
    const std::vector<reqcmd> records = recordsOf(text, meterRoot);
    EXPECT_EQ(records.size(), 1u) << text;
    return records.empty() ? reqcmd{} : records.front();
}

/// There is one problem, in that line, and its text has the part.
void expectProblem(const std::string& text, std::size_t line, const std::string& part) {
    const RequestText read = parseRequestText(text, nullptr);
    ASSERT_EQ(read.problems.size(), 1u) << text << "\n" << problemsOf(read);
    EXPECT_EQ(read.problems[0].line, line) << text;
    EXPECT_NE(read.problems[0].text.find(part), std::string::npos) << problemsOf(read);
}

const std::string kStart = "[app]\ncmd = /home/kelvo/root/app\n";

TEST(RequestText, EveryKeyGoesIntoItsField) {
    const reqcmd record = recordOf("[meter]\n"
                                   "cmd = /home/kelvo/root/meter -a  b\n"
                                   "version = 2.4.1\n"
                                   "pidfile = /tmp/x.pid\n"
                                   "port = eth:502\n"
                                   "priority = -20\n"
                                   "delay = 7\n"
                                   "keepalive = yes\n"
                                   "heartbeat = yes\n"
                                   "restart = all\n"
                                   "life-limit = 600\n"
                                   "no-wait = yes\n");
    reqcmd expected = requestOf(0, "meter", "/home/kelvo/root/meter -a  b", "/tmp/x.pid");
    std::strcpy(expected.version, "2.4.1");
    expected.porttype = 2;
    expected.portnum = 502;
    expected.priority = -20;
    expected.delay = 7;
    expected.keepalive = 1;
    expected.nowait = 1;
    expected.heartbeat = 1;
    expected.restart_type = 1;
    expected.last_runtime_life_limit = 600;
    EXPECT_EQ(imageOf({record}), imageOf({expected}));
}

TEST(RequestText, EveryActionHasAWord) {
    const std::vector<std::string> words = {"start",
                                            "stop",
                                            "stop-all",
                                            "stop-all-but-security",
                                            "stop-port-apps",
                                            "restart",
                                            "restart-all",
                                            "restart-self-restarting",
                                            "restart-port-apps"};
    for (std::size_t action = 0; action < words.size(); ++action) {
        EXPECT_EQ(recordOf(kStart + "action = " + words[action] + '\n').action,
                  static_cast<std::int32_t>(action));
    }
}

TEST(RequestText, PortsAndPoliciesAreThoseOfTheStartCommand) {
    EXPECT_EQ(recordOf(kStart + "port = com:0").porttype, PORT_TYPE_COM);
    EXPECT_EQ(recordOf(kStart + "port = none").porttype, PORT_TYPE_NONE);
    EXPECT_EQ(recordOf(kStart + "restart = self").restart_type, RESTART_TYPE_SELF);
    EXPECT_EQ(recordOf(kStart + "restart = -7").restart_type, -7);
    expectProblem(kStart + "port = eth:0", 3, "1 to 65535");
    expectProblem(kStart + "port = tcp:1", 3, "none, com:N and eth:N");
    expectProblem(kStart + "restart = never", 3, "self or all");
}

TEST(RequestText, CommentsBlanksAndLineEndsDoNotCount) {
    const std::vector<reqcmd> records = recordsOf("# one\r\n"
                                                  "\r\n"
                                                  "  ; two \xc3\xa4 = [x]\r\n"
                                                  "\t[ app ] \r\n"
                                                  "  cmd=/a/b # no comment ; here  \r\n"
                                                  "\tpidfile \t=\t/p\t");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(fieldText(records[0].name), "app");
    EXPECT_EQ(fieldText(records[0].cmd), "/a/b # no comment ; here");
    EXPECT_EQ(fieldText(records[0].pidfile), "/p");
    EXPECT_TRUE(recordsOf("").empty());
    EXPECT_TRUE(recordsOf("\n\n# nothing").empty());
}

TEST(RequestText, SectionsAreRecordsInTheirOrder) {
    const std::vector<reqcmd> records =
        recordsOf("[a]\ncmd = /a\n[b]\ncmd = /b\n[a]\naction = stop\n[]\naction = restart-all\n");
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(fieldText(records[0].name), "a");
    EXPECT_EQ(fieldText(records[1].name), "b");
    EXPECT_EQ(fieldText(records[2].name), "a");
    EXPECT_EQ(records[2].action, APPMONCTL_Stop);
    EXPECT_EQ(fieldText(records[3].name), "");
}

TEST(RequestText, PidFileOfAStartIsTheConventionalOneUnlessItIsGiven) {
    EXPECT_EQ(fieldText(recordOf(kStart).pidfile), "/tmp/pid/home/kelvo/root/app.pid");
    EXPECT_EQ(fieldText(recordOf("[app]\ncmd =  /home/app -a b").pidfile), "/tmp/pid/home/app.pid");
    EXPECT_EQ(fieldText(recordOf(kStart, "/mnt/x").pidfile),
              "/tmp/pid/mnt/x/home/kelvo/root/app.pid");
    EXPECT_EQ(fieldText(recordOf(kStart + "pidfile = /p").pidfile), "/p");
    EXPECT_EQ(fieldText(recordOf(kStart + "pidfile =").pidfile), "");
    EXPECT_EQ(fieldText(recordOf(kStart + "raw.pidfile =").pidfile), "");
    EXPECT_EQ(fieldText(recordOf(kStart + "action = stop").pidfile), "");
}

TEST(RequestText, ConventionalPidFileThatIsTooLongIsRefused) {
    // "/tmp/pid", the path, ".pid", "." and a process id of 7 digits: 63 characters fit.
    const std::string fits = "/" + std::string(42, 'p');
    EXPECT_EQ(fieldText(recordOf("[app]\ncmd = " + fits).pidfile), "/tmp/pid" + fits + ".pid");
    expectProblem("[app]\ncmd = " + fits + "p", 1,
                  "the conventional name of its pid file, /tmp/pid" + fits +
                      "p.pid, has more than the 55 characters that leave room for a process id");
    (void)recordOf("[app]\npidfile = /tmp/pid" + fits + "p.pid\ncmd = " + fits + "p");
    (void)recordOf("[app]\npidfile =\ncmd = " + fits + "p");
}

TEST(RequestText, TextsMayFillTheirFieldsButForTheNul) {
    const std::vector<std::pair<std::string, std::size_t>> limits = {
        {"version", 31}, {"cmd", 1023}, {"pidfile", 63}};
    for (const auto& [key, limit] : limits) {
        const std::string head = "[stop]\naction = stop\n" + key + " = ";
        (void)recordOf(head + std::string(limit, 'x'));
        expectProblem(head + std::string(limit + 1, 'x'), 3, "at most " + std::to_string(limit));
    }
    (void)recordOf("[" + std::string(63, 'n') + "]\naction = stop");
    expectProblem("[" + std::string(64, 'n') + "]\naction = stop", 1, "at most 63");
}

TEST(RequestText, NumbersHaveLimits) {
    const std::vector<std::pair<std::string, std::string>> problems = {
        {"priority = 20", "-20 to 19"},
        {"priority = -21", "-20 to 19"},
        {"priority = 010x", "-20 to 19"},
        {"priority =", "-20 to 19"},
        {"delay = -1", "0 to 2147483647"},
        {"life-limit = 2147483648", "0 to 2147483647"},
        {"raw.delay = 2147483648", "-2147483648 to 2147483647"},
        {"raw.keepalive = 256", "0 to 255"},
        {"raw.reserved = -1", "0 to 255"}};
    for (const auto& [line, part] : problems) {
        expectProblem(kStart + line, 3, part);
    }
}

TEST(RequestText, WhatIsNotUnderstoodIsToldWithItsLineAndWhatIsAllowed) {
    expectProblem(kStart + "nonsense", 3, "neither [name] nor key = value");
    expectProblem(kStart + "colour = red", 3, "\"colour\" is not known; the keys are action, cmd");
    expectProblem(kStart + "action = jump", 3, "none of start, stop, stop-all");
    expectProblem(kStart + "keepalive = 1", 3, "neither yes nor no");
    expectProblem("cmd = /a\n" + kStart, 1, "before the first [name]");
    expectProblem("[app\ncmd = /a", 1, "]");
    expectProblem(kStart + "version = a\\n", 3, "\\xNN");
    expectProblem(kStart + "version = \x01", 3, "\\x01");
    expectProblem("[a\\q]\ncmd = /a", 1, "\\xNN");
    expectProblem(kStart + "version = a\\x00b", 3, "raw");
    expectProblem(kStart + "\x1b[2J = 1", 3, "\"\\x1b[2J\"");
}

TEST(RequestText, StartNeedsAProgramAndNamedActionsAName) {
    expectProblem("# one\n[app]\nversion = 1", 2, "no cmd");
    expectProblem("[app]\ncmd =", 2, "no program");
    expectProblem("[app]\ncmd = \\x20\\x0c", 2, "no program");
    for (const char* action : {"start", "stop", "restart"}) {
        expectProblem("\n[]\ncmd = /a\naction = "s + action, 2, "the name is empty");
    }
    (void)recordOf("[]\nraw.name =\nraw.cmd =");
    (void)recordOf("[]\naction = stop-all");
}

TEST(RequestText, NothingIsGivenTwice) {
    expectProblem(kStart + "cmd = /b", 3, "cmd is given already, by cmd in line 2");
    expectProblem(kStart + "raw.cmd = /b", 3, "given already, by cmd in line 2");
    expectProblem(kStart + "raw.portnum = 1\nport = com:1", 4, "by raw.portnum in line 3");
    expectProblem(kStart + "raw.action = 0\naction = start", 4, "by raw.action in line 3");
    // Other fields, and other sections, do not count.
    (void)recordOf(kStart + "raw.portnum = 1\nraw.porttype = 1");
    (void)recordsOf(kStart + kStart);
}

TEST(RequestText, RawKeysGiveAnyBytes) {
    const reqcmd record = recordOf("[label]\n"
                                   "raw.name = a\\x00b\n"
                                   "raw.version = " +
                                   std::string(32, 'v') +
                                   "\n"
                                   "raw.cmd =\n"
                                   "raw.pidfile = \\x00\\xff\n"
                                   "raw.porttype = -1\n"
                                   "raw.portnum = -2147483648\n"
                                   "raw.action = 77\n"
                                   "raw.priority = 2147483647\n"
                                   "raw.delay = -3\n"
                                   "raw.keepalive = 255\n"
                                   "raw.no-wait = 2\n"
                                   "raw.heartbeat = 3\n"
                                   "raw.reserved = 4\n"
                                   "raw.restart = 5\n"
                                   "raw.life-limit = -6\n");
    reqcmd expected{};
    expected.name[0] = 'a';
    expected.name[2] = 'b';
    std::memset(expected.version, 'v', sizeof expected.version);
    expected.pidfile[1] = '\xff';
    expected.porttype = -1;
    expected.portnum = -2147483647 - 1;
    expected.action = 77;
    expected.priority = 2147483647;
    expected.delay = -3;
    expected.keepalive = 255;
    expected.nowait = 2;
    expected.heartbeat = 3;
    expected.reserved = 4;
    expected.restart_type = 5;
    expected.last_runtime_life_limit = -6;
    EXPECT_EQ(imageOf({record}), imageOf({expected}));
    expectProblem(kStart + "raw.version = " + std::string(33, 'v'), 3, "at most 32");
}

TEST(RequestText, ByteOrderStandsBeforeAllSections) {
    EXPECT_EQ(parseRequestText("byte-order = big\n" + kStart, nullptr).byteOrder, ByteOrder::Big);
    EXPECT_EQ(parseRequestText("byte-order = little", nullptr).byteOrder, ByteOrder::Little);
    EXPECT_FALSE(parseRequestText(kStart, nullptr).byteOrder.has_value());
    expectProblem(kStart + "byte-order = big", 3, "before the first [name]");
    expectProblem("byte-order = big\nbyte-order = big", 2, "already");
    expectProblem("byte-order = odd", 1, "little, big and native");
}

TEST(RequestText, ProblemsAreToldUpToALimit) {
    std::string text;
    for (int line = 0; line < 30; ++line) {
        text += "nonsense\n";
    }
    EXPECT_EQ(parseRequestText(text, nullptr).problems.size(), kMostTextProblems);
    EXPECT_EQ(problemsOf(parseRequestText("x\n" + kStart + "y", nullptr)),
              "1: \"x\" is neither [name] nor key = value, nor does it begin with # or ; as a "
              "comment\n"
              "4: \"y\" is neither [name] nor key = value, nor does it begin with # or ; as a "
              "comment\n");
}

TEST(RequestText, LongLinesAreQuotedInPart) {
    const RequestText read = parseRequestText(std::string(100000, 'x'), nullptr);
    ASSERT_EQ(read.problems.size(), 1u);
    EXPECT_LT(read.problems[0].text.size(), 200u);
}

TEST(RequestText, MoreSectionsThanAFileMayHoldAreRefused) {
    std::string text;
    for (std::size_t count = 0; count < kMostRecords; ++count) {
        text += "[a]\naction=stop\n";
    }
    EXPECT_EQ(recordsOf(text).size(), kMostRecords);
    expectProblem(text + "[a]\naction=stop\n", 2 * kMostRecords + 1, "100000");
}

TEST(RequestText, UsualRecordsAreWrittenWithPlainKeys) {
    reqcmd meter = startOf("meter");
    std::strcpy(meter.version, "1.2");
    meter.porttype = PORT_TYPE_ETH;
    meter.portnum = 502;
    meter.priority = -5;
    meter.delay = 9;
    meter.keepalive = 1;
    meter.heartbeat = 1;
    meter.nowait = 1;
    meter.restart_type = RESTART_TYPE_ALL;
    meter.last_runtime_life_limit = 600;
    const std::vector<reqcmd> records = {meter, requestOf(APPMONCTL_Start, "bare", "/b"),
                                         requestOf(APPMONCTL_Stop, "meter"),
                                         requestOf(APPMONCTL_Restart_All, "")};
    const std::string order = byteOrderWord(nativeByteOrder());
    EXPECT_EQ(formatRequests(records, nativeByteOrder()),
              "# Requests for the application monitor, see ovard-requests(5).\n"
              "byte-order = " +
                  order +
                  "\n"
                  "\n"
                  "[meter]\n"
                  "cmd = /home/kelvo/root/meter -a b\n"
                  "version = 1.2\n"
                  "pidfile = /tmp/pid/home/kelvo/root/meter.pid\n"
                  "port = eth:502\n"
                  "priority = -5\n"
                  "delay = 9\n"
                  "keepalive = yes\n"
                  "heartbeat = yes\n"
                  "restart = all\n"
                  "life-limit = 600\n"
                  "no-wait = yes\n"
                  "\n"
                  "[bare]\n"
                  "cmd = /b\n"
                  "pidfile =\n"
                  "\n"
                  "[meter]\n"
                  "action = stop\n"
                  "\n"
                  "[]\n"
                  "action = restart-all\n");
}

TEST(RequestText, OddRecordsAreWrittenWithRawKeys) {
    reqcmd record = requestOf(77, "a]b\n", "/a", "/p");
    record.pidfile[5] = 'x';
    std::memset(record.version, 'v', sizeof record.version);
    record.porttype = PORT_TYPE_NONE;
    record.portnum = 5;
    record.priority = 20;
    record.keepalive = 2;
    record.reserved = 9;
    EXPECT_EQ(formatRequests({record, reqcmd{}}, nativeByteOrder()),
              "# Requests for the application monitor, see ovard-requests(5).\n"
              "byte-order = " +
                  std::string(byteOrderWord(nativeByteOrder())) +
                  "\n"
                  "\n"
                  "[a]b\\x0a]\n"
                  "cmd = /a\n"
                  "raw.action = 77\n"
                  "raw.version = vvvvvvvvvvvvvvvvvvvvvvvvvvvvvvvv\n"
                  "raw.pidfile = /p\\x00\\x00\\x00x\n"
                  "raw.portnum = 5\n"
                  "raw.priority = 20\n"
                  "raw.keepalive = 2\n"
                  "raw.reserved = 9\n"
                  "\n"
                  "[]\n"
                  "pidfile =\n"
                  "raw.name =\n"
                  "raw.cmd =\n");
}

TEST(RequestText, ByteOrderOfAnotherMachineIsSaid) {
    const ByteOrder other =
        nativeByteOrder() == ByteOrder::Little ? ByteOrder::Big : ByteOrder::Little;
    const std::string text = formatRequests({startOf("a")}, other);
    EXPECT_NE(text.find("\n# The byte order is that of another machine.\n"), std::string::npos);
    EXPECT_EQ(parseRequestText(text, nullptr).byteOrder, other);
}

} // namespace
