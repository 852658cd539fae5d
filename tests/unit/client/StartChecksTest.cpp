#include "client/ovardctl/StartChecks.h"

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/codes.h"
#include "tests/unit/client/RequestRecords.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace ovardctl;

using Words = std::vector<std::string_view>;

reqcmd requestFor(const std::string& command) {
    reqcmd request{};
    platform::copyToField(request.cmd, command);
    return request;
}

std::string commandOf(const std::string& program, int words) {
    std::string command = program;
    for (int count = 1; count < words; ++count) {
        command += " x";
    }
    return command;
}

TEST(StartChecks, SplitsACommandAsTheMonitorDoes) {
    EXPECT_EQ(commandWords("/a"), Words({"/a"}));
    EXPECT_EQ(commandWords("/a  b\tc\vd\fe"), Words({"/a", "b", "c", "d", "e"}));
    EXPECT_EQ(commandWords(" \t/a b \v\f"), Words({"/a", "b"}));
    // Line ends and quotes are characters like any other.
    EXPECT_EQ(commandWords("/a\nb\r 'c d'"), Words({"/a\nb\r", "'c", "d'"}));
    EXPECT_EQ(commandWords(""), Words());
    EXPECT_EQ(commandWords(" \t\v\f"), Words());
    EXPECT_EQ(commandWords(commandOf("/a", 500)).size(), 500u);
}

TEST(StartChecks, TakesTheFirstWordForTheProgram) {
    EXPECT_EQ(programOf("\t/home/kelvo/root/app\v-x"), "/home/kelvo/root/app");
    EXPECT_EQ(programOf(" "), "");
}

TEST(StartChecks, NamesTheConventionalPidFile) {
    EXPECT_EQ(conventionalPidFile("/home/kelvo/root/app", nullptr),
              "/tmp/pid/home/kelvo/root/app.pid");
    EXPECT_EQ(conventionalPidFile("/home/kelvo/root/app", "/opt/x"),
              "/tmp/pid/opt/x/home/kelvo/root/app.pid");
    EXPECT_EQ(conventionalPidFile("/app", ""), "/tmp/pid/app.pid");
}

TEST(StartChecks, FillsInThePidFileAsFarAsItFits) {
    reqcmd request = requestFor("/" + std::string(50, 'p') + " -x");
    EXPECT_EQ(fillPidFile(request, nullptr), "");
    EXPECT_EQ(platform::fieldText(request.pidfile), "/tmp/pid/" + std::string(50, 'p') + ".pid");
    EXPECT_NE(fillPidFile(request, "/"), "");
    EXPECT_EQ(platform::fieldText(request.pidfile), "");
}

TEST(StartChecks, KnowsWhereTheMonitorFindsDaemons) {
    for (const char* folder : {"/mnt/runfw/home/kelvo/root/", "/mnt/runfw/home/kelvo/modbus/",
                               "/mnt/runfw/home/kelvo/test/", "/home/kelvo/root/",
                               "/home/kelvo/modbus/", "/home/kelvo/test/"}) {
        EXPECT_EQ(placeOf(std::string(folder) + "app"), ProgramPlace::Found) << folder;
        EXPECT_EQ(startWarnings(requestFor("  " + std::string(folder) + "app -v")).size(), 0u);
    }
    for (const char* program : {"/bin/app", "/home/kelvo/app", "/home/kelvo/rootapp", "app",
                                "./home/kelvo/root/app", "home/kelvo/root/app", "/"}) {
        EXPECT_EQ(placeOf(program), ProgramPlace::Outside) << program;
    }
    for (const char* program :
         {"/home/kelvo/root/appmon/app", "/home/kelvo/root/actl", "/home/kelvo/root/actlas",
          "/home/kelvo/root/python_scripts/app", "/mnt/runfw/home/kelvo/root/appmon/app"}) {
        EXPECT_EQ(placeOf(program), ProgramPlace::Excluded) << program;
    }
}

TEST(StartChecks, WarnsOfAProgramThatIsNotFound) {
    const std::vector<std::string> outside = startWarnings(requestFor(" /bin/app -v"));
    ASSERT_EQ(outside.size(), 1u);
    EXPECT_EQ(
        outside[0],
        "the program /bin/app lies outside the directories in which the monitor finds "
        "daemons (root, modbus and test below /home/kelvo and /mnt/runfw/home/kelvo); once it "
        "has gone into the background the monitor does not recognise it, waits 30 seconds "
        "and later takes its start for failed");
    const std::vector<std::string> excluded =
        startWarnings(requestFor("/home/kelvo/root/appmon/app"));
    ASSERT_EQ(excluded.size(), 1u);
    EXPECT_EQ(excluded[0].find("the program /home/kelvo/root/appmon/app lies where the monitor "
                               "leaves every program alone"),
              0u);
    // An argument does not count.
    EXPECT_EQ(startWarnings(requestFor("/home/kelvo/root/app /bin/x")).size(), 0u);
}

TEST(StartChecks, WarnsOfMoreWordsThanTheMonitorTakes) {
    EXPECT_EQ(startWarnings(requestFor(commandOf("/home/kelvo/root/app", 40))).size(), 0u);
    const std::vector<std::string> warnings =
        startWarnings(requestFor(commandOf("/home/kelvo/root/app", 41)));
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0], "the command has 41 words, of which the monitor takes the first 40 and "
                           "ignores the rest; shorten it");
}

TEST(StartChecks, HasNoWarningsForACommandWithoutWords) {
    EXPECT_TRUE(startWarnings(requestFor("")).empty());
    EXPECT_TRUE(startWarnings(requestFor(" \t")).empty());
}

TEST(StartChecks, TellsWhatKeepsAProgramFromRunningHere) {
    const client_test::TemporaryFolder folder;
    const std::string program = folder.file("app");
    const auto warning = [](const std::string& command) {
        return programWarning(requestFor(command));
    };
    EXPECT_EQ(warning(program + " -x"), "the program " + program +
                                            " does not exist, so nothing runs; install it, or "
                                            "correct the command");
    client_test::writeContent(program, "program");
    ASSERT_EQ(::chmod(program.c_str(), 0644), 0);
    EXPECT_EQ(warning(program), "the program " + program +
                                    " is not executable, so nothing runs; make it so with "
                                    "chmod +x");
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    EXPECT_EQ(warning(" " + program + " -x"), "");
    EXPECT_EQ(warning("/tmp"), "the program /tmp is no plain file, so nothing runs; correct the "
                               "command");
    // It would be found from here, which tells nothing of the monitor's directory.
    EXPECT_EQ(warning("sh -c x"),
              "the program sh is named by no absolute path: the monitor looks for it in its own "
              "working directory, not along PATH; give the absolute path");
}

TEST(StartChecks, LooksForTheProgramsOfStartsOnly) {
    reqcmd request = requestFor("/nowhere/app");
    ASSERT_NE(programWarning(request), "");
    request.action = APPMONCTL_Restart;
    EXPECT_EQ(programWarning(request), "");
    EXPECT_EQ(programWarning(requestFor(" ")), "");
}

TEST(StartChecks, ReadsACommandThatFillsItsField) {
    reqcmd request{};
    for (char& character : request.cmd) {
        character = 'c';
    }
    EXPECT_EQ(startWarnings(request).size(), 1u);
}

} // namespace
