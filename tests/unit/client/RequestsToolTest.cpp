#include "client/ovardctl/RequestsTool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/RequestRecords.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using platform::copyToField;

/// A record in which the byte order shows.
reqcmd portStartOf(const std::string& name) {
    reqcmd record = startOf(name);
    record.porttype = PORT_TYPE_ETH;
    record.portnum = 502;
    return record;
}

class RequestsTool : public testing::Test {
protected:
    RequestsCommand commandOf(RequestsVerb verb) const {
        RequestsCommand command;
        command.verb = verb;
        command.path = path_;
        return command;
    }

    Report run(RequestsVerb verb) const { return runRequests(commandOf(verb), nullptr); }

    Report add(const reqcmd& record, bool replace = false) const {
        RequestsCommand command = commandOf(RequestsVerb::Add);
        command.request = record;
        command.replace = replace;
        return runRequests(command, nullptr);
    }

    Report remove(const std::string& name) const {
        RequestsCommand command = commandOf(RequestsVerb::Remove);
        copyToField(command.request.name, name);
        return runRequests(command, nullptr);
    }

    Report compile(const std::string& text, const std::string& output = "",
                   std::optional<ByteOrder> order = std::nullopt) const {
        writeContent(path_, text);
        RequestsCommand command = commandOf(RequestsVerb::Compile);
        command.outputPath = output;
        command.byteOrder = order;
        return runRequests(command, "/mnt/x");
    }

    bool exists(const std::string& path) const { return ::access(path.c_str(), F_OK) == 0; }

    const TemporaryFolder folder_;
    const std::string path_ = folder_.file("requests");
    const std::string output_ = folder_.file("output");
};

TEST_F(RequestsTool, ListShowsATableOrJson) {
    writeContent(path_, imageOf({startOf("one")}));
    const Report table = run(RequestsVerb::List);
    EXPECT_EQ(table.exitStatus, kExitOk);
    EXPECT_EQ(table.output, "NO  ACTION  NAME  VERSION  PORT  POLICY  COMMAND\n"
                            " 1  start   one   -        -     self    /home/kelvo/root/one -a b\n");
    EXPECT_EQ(table.error, "");
    RequestsCommand command = commandOf(RequestsVerb::List);
    command.json = true;
    EXPECT_NE(runRequests(command, nullptr).output.find("\"name\": \"one\""), std::string::npos);
}

TEST_F(RequestsTool, FragmentIsToldWhereItIsNotShown) {
    writeContent(path_, imageOf({startOf("one")}) + "x");
    for (const RequestsVerb verb : {RequestsVerb::List, RequestsVerb::Show}) {
        const Report report = run(verb);
        EXPECT_EQ(report.exitStatus, kExitFailed);
        EXPECT_NE(report.output.find("one"), std::string::npos);
        EXPECT_EQ(report.error,
                  "ovardctl: the file ends with 1 byte of a cut record, which is not shown\n");
    }
}

TEST_F(RequestsTool, FileThatCannotBeReadIsTold) {
    for (const RequestsVerb verb :
         {RequestsVerb::List, RequestsVerb::Show, RequestsVerb::Compile}) {
        const Report report = run(verb);
        EXPECT_EQ(report.exitStatus, kExitSystemError);
        EXPECT_EQ(report.output, "");
        EXPECT_EQ(report.error, "ovardctl: cannot open " + path_ + ": No such file or directory\n");
    }
}

TEST_F(RequestsTool, CheckOfAFileInOrderEndsWith0) {
    writeContent(path_, imageOf({requestOf(APPMONCTL_Stop_All, "one")}));
    const Report report = run(RequestsVerb::Check);
    EXPECT_EQ(report.exitStatus, kExitOk);
    EXPECT_EQ(report.output, "1 record, no problems\n");
    EXPECT_EQ(report.error, "");
}

TEST_F(RequestsTool, CheckHasALineForEachProblemAndEndsWith1) {
    reqcmd record = requestOf(APPMONCTL_Start, "o\nne", "", "/p");
    writeContent(path_,
                 imageOf({requestOf(APPMONCTL_Stop_All, ""), requestOf(77, ""), record}) + "tail");
    const Report report = run(RequestsVerb::Check);
    EXPECT_EQ(report.exitStatus, kExitFailed);
    const std::vector<std::string> begins = {
        "error: the last record is cut",
        "error: record 2: the action 77 is unknown",
        "warning: record 3 (o\\x0ane): name holds a byte",
        "error: record 3 (o\\x0ane): there is no command",
        "3 records, 3 errors, 1 warning\n",
    };
    std::size_t begin = 0;
    for (const std::string& line : begins) {
        EXPECT_EQ(report.output.substr(begin, line.size()), line) << report.output;
        begin = report.output.find('\n', begin) + 1;
    }
    EXPECT_EQ(begin, report.output.size());
    EXPECT_EQ(report.error, "");
}

TEST_F(RequestsTool, CheckOfWarningsAloneEndsWith1) {
    writeContent(path_, imageOf({requestOf(APPMONCTL_Reserved9, "")}));
    const Report report = run(RequestsVerb::Check);
    EXPECT_EQ(report.exitStatus, kExitFailed);
    EXPECT_NE(report.output.find("1 record, 0 errors, 1 warning\n"), std::string::npos);
}

TEST_F(RequestsTool, CheckOfWhatTheMonitorCannotReadEndsWith1) {
    EXPECT_EQ(run(RequestsVerb::Check).output,
              "error: cannot open " + path_ +
                  ": No such file or directory; the monitor would start nothing\n");
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const Report report = run(RequestsVerb::Check);
    EXPECT_EQ(report.exitStatus, kExitFailed);
    EXPECT_EQ(report.output,
              "error: " + path_ + " is no plain file; the monitor would start nothing\n");
}

TEST_F(RequestsTool, CheckLooksForProgramsBelowTheRoot) {
    const reqcmd record = requestOf(APPMONCTL_Start, "one", "/program", "/p");
    writeContent(path_, imageOf({record}));
    writeContent(folder_.file("program"), "program");
    RequestsCommand command = commandOf(RequestsVerb::Check);
    command.root = path_.substr(0, path_.rfind('/'));
    EXPECT_NE(runRequests(command, nullptr).output.find("/program is not executable"),
              std::string::npos);
    ASSERT_EQ(::chmod(folder_.file("program").c_str(), 0755), 0);
    EXPECT_NE(runRequests(command, nullptr).output.find(" 0 errors"), std::string::npos);
    EXPECT_NE(run(RequestsVerb::Check).output.find("/program is missing"), std::string::npos);
}

TEST_F(RequestsTool, CheckKnowsTheByteOrderOfTheTarget) {
    reqcmd record = requestOf(APPMONCTL_Stop_PortApps, "");
    writeContent(path_, encodeRequests({record}, kOther));
    EXPECT_EQ(run(RequestsVerb::Check).exitStatus, kExitFailed);
    RequestsCommand command = commandOf(RequestsVerb::Check);
    command.byteOrder = kOther;
    EXPECT_EQ(runRequests(command, nullptr).output, "1 record, no problems\n");
}

TEST_F(RequestsTool, AddMakesTheFileAndAppends) {
    const Report first = add(startOf("one"));
    EXPECT_EQ(first.exitStatus, kExitOk);
    EXPECT_EQ(first.output, "one is added as record 1 of " + path_ + '\n');
    EXPECT_EQ(first.error, "");
    struct stat facts = {};
    ASSERT_EQ(::stat(path_.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0644u);
    EXPECT_EQ(add(portStartOf("two")).output, "two is added as record 2 of " + path_ + '\n');
    EXPECT_EQ(contentOf(path_), imageOf({startOf("one"), portStartOf("two")}));
}

TEST_F(RequestsTool, AddRefusesASecondStartOfAName) {
    // A stop of that name is none.
    const std::string image = imageOf({requestOf(APPMONCTL_Stop, "one"), startOf("one")});
    writeContent(path_, image);
    const Report report = add(portStartOf("one"));
    EXPECT_EQ(report.exitStatus, kExitFailed);
    EXPECT_EQ(report.output, "");
    EXPECT_EQ(report.error, "ovardctl: record 2 of " + path_ +
                                " starts one already; remove it, or add this one with --replace\n");
    EXPECT_EQ(contentOf(path_), image);
}

TEST_F(RequestsTool, AddReplacesOnRequest) {
    writeContent(path_, imageOf({startOf("a"), startOf("one"), requestOf(APPMONCTL_Stop, "one"),
                                 startOf("one"), startOf("b")}));
    const Report report = add(portStartOf("one"), true);
    EXPECT_EQ(report.exitStatus, kExitOk);
    EXPECT_EQ(report.output, "one is replaced as record 2 of " + path_ + '\n');
    EXPECT_EQ(contentOf(path_), imageOf({startOf("a"), portStartOf("one"),
                                         requestOf(APPMONCTL_Stop, "one"), startOf("b")}));
    EXPECT_EQ(add(startOf("new"), true).output, "new is added as record 5 of " + path_ + '\n');
}

TEST_F(RequestsTool, AddTellsItsWarnings) {
    RequestsCommand command = commandOf(RequestsVerb::Add);
    command.request = startOf("one");
    command.warnings = {"mind\nthe gap", "second"};
    const Report report = runRequests(command, nullptr);
    EXPECT_EQ(report.exitStatus, kExitOk);
    EXPECT_EQ(report.error, "ovardctl: warning: mind\\x0athe gap\novardctl: warning: second\n");
}

TEST_F(RequestsTool, AddKeepsToWhatTheMonitorReplays) {
    writeContent(path_, "");
    ASSERT_EQ(::truncate(path_.c_str(), 65536 * sizeof(reqcmd)), 0);
    const Report report = add(startOf("one"));
    EXPECT_EQ(report.exitStatus, kExitFailed);
    EXPECT_NE(report.error.find("65536"), std::string::npos) << report.error;
}

TEST_F(RequestsTool, RemoveTakesAllRecordsOfTheName) {
    writeContent(path_, imageOf({startOf("one"), startOf("two"), requestOf(APPMONCTL_Stop, "one"),
                                 startOf("one2")}));
    const Report report = remove("one");
    EXPECT_EQ(report.exitStatus, kExitOk);
    EXPECT_EQ(report.output, "2 records of one are removed from " + path_ + '\n');
    EXPECT_EQ(contentOf(path_), imageOf({startOf("two"), startOf("one2")}));
    EXPECT_EQ(remove("two").output, "1 record of two is removed from " + path_ + '\n');
    EXPECT_EQ(remove("one2").exitStatus, kExitOk);
    EXPECT_EQ(contentOf(path_), "");
}

TEST_F(RequestsTool, RemoveOfAnUnknownNameFails) {
    const std::string image = imageOf({startOf("one")});
    writeContent(path_, image);
    const Report report = remove("two");
    EXPECT_EQ(report.exitStatus, kExitFailed);
    EXPECT_EQ(report.output, "");
    EXPECT_NE(report.error.find("no record of " + path_ + " has the name two"), std::string::npos);
    EXPECT_EQ(contentOf(path_), image);
}

TEST_F(RequestsTool, RemoveMakesNoFile) {
    EXPECT_EQ(remove("one").exitStatus, kExitSystemError);
    EXPECT_FALSE(exists(path_));
    EXPECT_FALSE(exists(path_ + ".new"));
}

TEST_F(RequestsTool, FilesThatAreNotUnderstoodAreNotChanged) {
    for (const std::string& image :
         {imageOf({portStartOf("one")}) + "tail", encodeRequests({portStartOf("one")}, kOther)}) {
        writeContent(path_, image);
        for (const Report& report :
             {add(startOf("two")), add(startOf("one"), true), remove("one")}) {
            EXPECT_EQ(report.exitStatus, kExitFailed);
            EXPECT_EQ(report.output, "");
            EXPECT_EQ(report.error.find("ovardctl: " + path_ + " is not changed: "), 0u)
                << report.error;
        }
        EXPECT_EQ(contentOf(path_), image);
        EXPECT_FALSE(exists(path_ + ".new"));
    }
}

TEST_F(RequestsTool, CompileWritesToStandardOutputOrAFile) {
    const std::string text = "[one]\ncmd = /home/kelvo/root/one -a b\n";
    const reqcmd record = requestOf(APPMONCTL_Start, "one", "/home/kelvo/root/one -a b",
                                    "/tmp/pid/mnt/x/home/kelvo/root/one.pid");
    const Report printed = compile(text);
    EXPECT_EQ(printed.exitStatus, kExitOk);
    EXPECT_EQ(printed.output, imageOf({record}));
    EXPECT_EQ(printed.error, "");
    const Report written = compile(text, output_);
    EXPECT_EQ(written.exitStatus, kExitOk);
    EXPECT_EQ(written.output, "1 record written to " + output_ + '\n');
    EXPECT_EQ(contentOf(output_), imageOf({record}));
}

TEST_F(RequestsTool, CompileDoesNotReplaceItsOwnText) {
    const std::string text = "[one]\ncmd = /home/kelvo/root/one\n";
    writeContent(path_, text);
    ASSERT_EQ(::symlink(path_.c_str(), output_.c_str()), 0);
    const std::string hardLink = folder_.file("link");
    ASSERT_EQ(::link(path_.c_str(), hardLink.c_str()), 0);
    for (const std::string& output : {path_, folder_.file(".") + "/requests", output_, hardLink}) {
        const Report report = compile(text, output);
        EXPECT_EQ(report.exitStatus, kExitFailed) << output;
        EXPECT_EQ(report.output, "") << output;
        EXPECT_EQ(report.error.find("ovardctl: " + output + " is the text itself"), 0u)
            << report.error;
        EXPECT_EQ(contentOf(path_), text) << output;
        EXPECT_EQ(contentOf(hardLink), text) << output;
    }
    EXPECT_EQ(compile(text, folder_.file("copy")).exitStatus, kExitOk);
}

TEST_F(RequestsTool, LargeNumbersOfATextAreNoOtherByteOrder) {
    for (const std::string policy : {"self", "all"}) {
        const std::string text = "[one]\ncmd = /home/kelvo/root/one\nport = com:100000000\n"
                                 "delay = 33554432\nrestart = " +
                                 policy + "\nlife-limit = 100000000\n";
        ASSERT_EQ(compile(text, output_).exitStatus, kExitOk);
        RequestsCommand command = commandOf(RequestsVerb::Show);
        command.path = output_;
        const std::string shown = runRequests(command, nullptr).output;
        for (const char* line :
             {"port = com:100000000\n", "delay = 33554432\n", "life-limit = 100000000\n"}) {
            EXPECT_NE(shown.find(line), std::string::npos) << shown;
        }
        command.verb = RequestsVerb::Check;
        EXPECT_EQ(runRequests(command, nullptr).output.find("byte order"), std::string::npos);
        command.verb = RequestsVerb::Add;
        command.request = startOf("two");
        EXPECT_EQ(runRequests(command, nullptr).exitStatus, kExitOk);
        ASSERT_EQ(::unlink(output_.c_str()), 0);
    }
}

TEST_F(RequestsTool, CheckPresumesTheByteOrderThatTheFileIsFor) {
    reqcmd record = requestOf(APPMONCTL_Start, "one", "/bin/sh", "/tmp/one.pid");
    record.last_runtime_life_limit = 255; // negative when swapped
    writeContent(path_, encodeRequests({record}, kOther));
    RequestsCommand command = commandOf(RequestsVerb::Check);
    command.byteOrder = kOther;
    const Report report = runRequests(command, nullptr);
    EXPECT_EQ(report.output.find("life limit"), std::string::npos) << report.output;
}

TEST_F(RequestsTool, CompileTakesTheByteOrderOfTheOptionThenOfTheText) {
    const std::string text = "[]\naction = stop-all\n";
    const std::vector<reqcmd> records = {requestOf(APPMONCTL_Stop_All, "")};
    const std::string word = byteOrderWord(kOther);
    EXPECT_EQ(compile(text).output, imageOf(records));
    EXPECT_EQ(compile("byte-order = " + word + '\n' + text).output,
              encodeRequests(records, kOther));
    EXPECT_EQ(compile("byte-order = " + word + '\n' + text, "", nativeByteOrder()).output,
              imageOf(records));
    EXPECT_EQ(compile(text, "", kOther).output, encodeRequests(records, kOther));
}

TEST_F(RequestsTool, CompileTellsEveryBadLineAndWritesNothing) {
    const Report report = compile("[one]\ncmd = /a\npriority = 99\n\ncolour = red\n", output_);
    EXPECT_EQ(report.exitStatus, kExitFailed);
    EXPECT_EQ(report.output, "");
    EXPECT_EQ(report.error.find(path_ + ":3: priority: \"99\" is not a number from -20 to 19\n" +
                                path_ + ":5: the key \"colour\" is not known"),
              0u)
        << report.error;
    EXPECT_FALSE(exists(output_));
    std::string nonsense;
    for (int count = 0; count < 100; ++count) {
        nonsense += "x\n";
    }
    EXPECT_NE(compile(nonsense).error.find("more problems"), std::string::npos);
}

TEST_F(RequestsTool, ShowIsTheTextThatCompilesToTheSame) {
    const std::string image = encodeRequests({portStartOf("one"), requestOf(77, "x")}, kOther);
    writeContent(output_, image);
    RequestsCommand command = commandOf(RequestsVerb::Show);
    command.path = output_;
    const Report report = runRequests(command, nullptr);
    EXPECT_EQ(report.exitStatus, kExitOk);
    EXPECT_EQ(report.error, "");
    EXPECT_EQ(compile(report.output).output, image);
}

} // namespace
