#include "client/ovardctl/RequestsCommandLine.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ovardctl/CommandLine.h"
#include "tests/unit/client/RequestRecords.h"

namespace {

using namespace client_test;
using namespace ovardctl;

CommandLine parse(std::vector<std::string> words, const char* meterRoot = nullptr) {
    words.insert(words.begin(), {"ovardctl", "requests"});
    std::vector<const char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    return parseCommandLine(static_cast<int>(words.size()), argv.data(), meterRoot);
}

/// The command that is understood.
RequestsCommand commandOf(const std::vector<std::string>& words, const char* meterRoot = nullptr) {
    const CommandLine commandLine = parse(words, meterRoot);
    EXPECT_EQ(commandLine.verdict, Verdict::Requests) << commandLine.text;
    return commandLine.requests;
}

void expectUsageError(const std::vector<std::string>& words, const std::string& part) {
    const CommandLine commandLine = parse(words);
    EXPECT_EQ(commandLine.verdict, Verdict::UsageError) << testing::PrintToString(words);
    EXPECT_NE(commandLine.text.find(part), std::string::npos) << commandLine.text;
}

TEST(RequestsCommandLine, EveryVerbIsUnderstood) {
    EXPECT_EQ(commandOf({"list", "f"}).verb, RequestsVerb::List);
    EXPECT_EQ(commandOf({"check", "f"}).verb, RequestsVerb::Check);
    EXPECT_EQ(commandOf({"add", "f", "n", "--cmd", "/c"}).verb, RequestsVerb::Add);
    EXPECT_EQ(commandOf({"remove", "f", "n"}).verb, RequestsVerb::Remove);
    EXPECT_EQ(commandOf({"compile", "f"}).verb, RequestsVerb::Compile);
    EXPECT_EQ(commandOf({"show", "f"}).verb, RequestsVerb::Show);
    EXPECT_EQ(commandOf({"show", "f"}).path, "f");
}

TEST(RequestsCommandLine, OptionsAreUnderstood) {
    EXPECT_FALSE(commandOf({"list", "f"}).json);
    EXPECT_TRUE(commandOf({"list", "f", "--json"}).json);
    const RequestsCommand check =
        commandOf({"check", "--root", "/mnt", "--byte-order", "big", "f"});
    EXPECT_EQ(check.root, "/mnt");
    EXPECT_EQ(check.byteOrder, ByteOrder::Big);
    EXPECT_EQ(check.path, "f");
    EXPECT_FALSE(commandOf({"check", "f"}).byteOrder.has_value());
    const RequestsCommand compile =
        commandOf({"compile", "t", "-o", "f", "--byte-order", "native"});
    EXPECT_EQ(compile.path, "t");
    EXPECT_EQ(compile.outputPath, "f");
    EXPECT_EQ(compile.byteOrder, nativeByteOrder());
    EXPECT_EQ(commandOf({"compile", "t", "--output", "f"}).outputPath, "f");
    EXPECT_EQ(commandOf({"compile", "t"}).outputPath, "");
}

TEST(RequestsCommandLine, AddTakesWhatStartTakes) {
    const RequestsCommand command =
        commandOf({"add", "f", "one", "--cmd", "/home/kelvo/root/one", "--version", "1.2", "--port",
                   "eth:502", "--no-wait", "--restart", "all", "--replace"},
                  "/mnt/x");
    reqcmd expected = requestOf(APPMONCTL_Start, "one", "/home/kelvo/root/one",
                                "/tmp/pid/mnt/x/home/kelvo/root/one.pid");
    expected.version[0] = '1';
    expected.version[1] = '.';
    expected.version[2] = '2';
    expected.porttype = PORT_TYPE_ETH;
    expected.portnum = 502;
    expected.restart_type = RESTART_TYPE_ALL;
    expected.nowait = 1;
    EXPECT_EQ(imageOf({command.request}), imageOf({expected}));
    EXPECT_TRUE(command.replace);
    EXPECT_TRUE(command.warnings.empty());
    EXPECT_FALSE(commandOf({"add", "f", "one", "--cmd", "/bin/one"}).replace);
    EXPECT_EQ(commandOf({"add", "f", "one", "--cmd", "/bin/one"}).warnings.size(), 1u);
    EXPECT_STREQ(commandOf({"add", "f", "n", "--cmd", "/c", "--no-pidfile"}).request.pidfile, "");
}

TEST(RequestsCommandLine, RemoveTakesAName) {
    EXPECT_STREQ(commandOf({"remove", "f", "one"}).request.name, "one");
}

TEST(RequestsCommandLine, WrongArgumentsAreUsageErrors) {
    expectUsageError({}, "list, check, add, remove, compile, show");
    expectUsageError({"frob"}, "frob");
    expectUsageError({"list"}, "FILE");
    expectUsageError({"list", ""}, "empty");
    expectUsageError({"list", "f", "g"}, "g");
    expectUsageError({"compile"}, "TEXT");
    expectUsageError({"compile", "t", "-o", ""}, "empty");
    expectUsageError({"check", "f", "--byte-order", "odd"}, "little, big and native");
    expectUsageError({"add", "f", "one"}, "--cmd");
    expectUsageError({"add", "f", "--cmd", "/c"}, "NAME");
    expectUsageError({"add", "f", "one", "--cmd", " "}, "--cmd");
    expectUsageError({"add", "f", std::string(64, 'n'), "--cmd", "/c"}, "63");
    expectUsageError({"remove", "f"}, "NAME");
    expectUsageError({"remove", "f", ""}, "NAME");
}

} // namespace
