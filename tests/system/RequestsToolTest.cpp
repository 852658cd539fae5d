// Request files made and read by the tool, and replayed and recorded by the real monitor.

#include <algorithm>
#include <set>

#include "tests/system/Applications.h"

namespace systemtest {
namespace {

constexpr const char* kText = "/tmp/requests.ini";
constexpr const char* kFile = "/tmp/requests";

class RequestsTool : public ApplicationTest {
protected:
    static ProgramResult requests(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "requests");
        return runProgram(controlProgram(), arguments, {"METER_ROOT"});
    }

    /// Runs the tool, which must succeed without a word of complaint; returns its output.
    static std::string outputOf(const std::vector<std::string>& arguments) {
        const ProgramResult result = requests(arguments);
        EXPECT_EQ(result.ending.text(), "status 0") << result.output;
        EXPECT_EQ(result.errors, "");
        return result.output;
    }

    /// The check complains of a file whose byte order is `order`.
    static void expectForeign(const ProgramResult& check, const std::string& order) {
        EXPECT_EQ(check.ending.text(), "status 1");
        const std::string beginning =
            "error: the integers have the byte order of another machine (" + order + "-endian)";
        EXPECT_EQ(check.output.substr(0, beginning.size()), beginning) << check.errors;
    }

    bool replay() { return startMonitorInForeground({"-x", kFile}); }

    /// Command lines of the applications that run.
    std::multiset<std::string> applications() const { return commandLinesBeside(monitor_.pid()); }

    /// The monitor has executed the request for which it logs that text.
    static bool isLogged(const std::string& text) {
        const auto isThere = [&text] {
            const std::vector<std::string> texts = daemonLogTexts(6);
            return std::any_of(texts.begin(), texts.end(), [&text](const std::string& line) {
                return withoutDates(line) == text;
            });
        };
        return eventually(isThere, 2 * kPatienceMs); // a replay pauses before each of its requests
    }

    /// The programs of these names are installed.
    void install(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            (void)installSample(name);
        }
    }
};

TEST_F(RequestsTool, CompiledFileStartsItsApplications) {
    install({"one", "two", "three"});
    ASSERT_TRUE(writeFile(kText, "[one]\n"
                                 "cmd = /home/kelvo/root/one --version 2.1\n"
                                 "version = 2.1\n"
                                 "port = eth:502\n"
                                 "\n"
                                 "[two]\n"
                                 "cmd = /home/kelvo/root/two word --other=word\n"
                                 "\n"
                                 "[three]\n"
                                 "cmd = /home/kelvo/root/three\n"
                                 "\n"
                                 "; It was needed for the start only.\n"
                                 "[three]\n"
                                 "action = stop\n"));
    EXPECT_EQ(outputOf({"compile", kText, "-o", kFile}),
              "4 records written to " + std::string(kFile) + '\n');
    EXPECT_EQ(outputOf({"check", kFile}), "4 records, no problems\n");
    ASSERT_TRUE(replay());
    ASSERT_TRUE(isLogged("three is stopped @DATE"));
    EXPECT_EQ(applications(), (std::multiset<std::string>{commandOf("one", "--version 2.1"),
                                                          commandOf("two", "word --other=word")}));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_PortApps)).code, 0);
    EXPECT_EQ(applications(), std::multiset<std::string>{commandOf("two", "word --other=word")});
}

TEST_F(RequestsTool, FileOfTheOtherByteOrderIsRecognised) {
    const std::string native = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? "big" : "little";
    const std::string other = native == "big" ? "little" : "big";
    install({"one"});
    ASSERT_TRUE(writeFile(kText, "[one]\ncmd = /home/kelvo/root/one\nport = eth:502\n"));
    (void)outputOf({"compile", kText, "-o", kFile, "--byte-order", other});
    EXPECT_EQ(outputOf({"check", kFile, "--byte-order", other}), "1 record, no problems\n");
    expectForeign(requests({"check", kFile}), other);
    (void)outputOf({"compile", kText, "-o", kFile});
    expectForeign(requests({"check", kFile, "--byte-order", other}), native);
}

TEST_F(RequestsTool, FileMadeByHandStartsWhatIsLeftInIt) {
    install({"one", "two"});
    for (const char* name : {"one", "two"}) {
        EXPECT_EQ(linesOf(outputOf({"add", kFile, name, "--cmd", commandOf(name)})).size(), 1U);
    }
    EXPECT_EQ(requests({"add", kFile, "two", "--cmd", commandOf("two", "again")}).ending.text(),
              "status 1");
    (void)outputOf({"add", kFile, "two", "--cmd", commandOf("two", "again"), "--replace"});
    EXPECT_EQ(outputOf({"remove", kFile, "one"}),
              "1 record of one is removed from " + std::string(kFile) + '\n');
    EXPECT_EQ(permissions(kFile), 0644);
    ASSERT_TRUE(replay());
    // One that goes into the background may be missed for a moment.
    const std::multiset<std::string> started = {commandOf("two", "again")};
    EXPECT_TRUE(eventually([&] { return applications() == started; }));
}

TEST_F(RequestsTool, RecordedFileIsListedCheckedAndShown) {
    ASSERT_TRUE(startMonitorInForeground({"-f", kFile}));
    reqcmd start = makeStart("one", "--version 2.1", "/tmp/pid/home/kelvo/root/one.pid");
    start.restart_type = RESTART_TYPE_ALL;
    (void)launch(start);
    ASSERT_TRUE(askFor(makeRequest(APPMONCTL_Stop, "one")).came);
    EXPECT_TRUE(staysUnanswered(makeRequest(77, "odd")));
    ASSERT_TRUE(eventually([] { return readFile(kFile).size() == 3 * sizeof(reqcmd); }));
    const std::string recorded = readFile(kFile);

    EXPECT_EQ(outputOf({"list", kFile}),
              "NO  ACTION  NAME  VERSION  PORT  POLICY  COMMAND\n"
              " 1  start   one   -        -     all     /home/kelvo/root/one --version 2.1\n"
              " 2  stop    one   -        -     self    -\n"
              " 3  77      odd   -        -     self    -\n");
    const ProgramResult check = requests({"check", kFile});
    EXPECT_EQ(check.ending.text(), "status 1");
    EXPECT_EQ(linesOf(check.output).size(), 2U) << check.output;
    EXPECT_EQ(check.output.find("error: record 3 (odd): the action 77 is unknown"), 0U)
        << check.output;
    ASSERT_TRUE(writeFile(kText, outputOf({"show", kFile})));
    EXPECT_EQ(outputOf({"compile", kText}), recorded);
}

TEST_F(RequestsTool, ChangeOfAFileThatIsRecordedToLeavesItWhole) {
    ASSERT_TRUE(startMonitorInForeground({"-f", kFile}));
    const reqcmd before = makeRequest(APPMONCTL_Stop, "before");
    ASSERT_TRUE(askFor(before).came);
    ASSERT_EQ(permissions(kFile), 0660);
    (void)outputOf({"add", kFile, "one", "--cmd", makeStart("one").cmd});
    EXPECT_EQ(permissions(kFile), 0660);
    const reqcmd after = makeRequest(APPMONCTL_Stop, "after");
    ASSERT_TRUE(askFor(after).came);
    (void)outputOf({"remove", kFile, "one"});
    EXPECT_EQ(readFile(kFile), bytesOf(before) + bytesOf(after));
}

} // namespace
} // namespace systemtest
