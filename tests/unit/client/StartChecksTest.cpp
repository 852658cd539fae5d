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

/// A start of the program under that name.
reqcmd namedRequest(const std::string& name, const std::string& command) {
    reqcmd request = requestFor(command);
    platform::copyToField(request.name, name);
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

TEST(StartChecks, RecognisesTheConventionalPidFile) {
    const std::string program = "/home/kelvo/root/app";
    EXPECT_TRUE(isConventionalPidFile("/tmp/pid/home/kelvo/root/app.pid", program));
    EXPECT_TRUE(isConventionalPidFile("/tmp/pid/opt/x/home/kelvo/root/app.pid", program));
    for (const char* other : {"", "/tmp/pid", "/tmp/pi/home/kelvo/root/app.pid",
                              "/tmp/pid/home/kelvo/root/app", "/tmp/pid/home/kelvo/root/other.pid",
                              "/home/kelvo/root/app.pid", "/tmp/pid/home/kelvo/root/app.pid.12"}) {
        EXPECT_FALSE(isConventionalPidFile(other, program)) << other;
    }
}

TEST(StartChecks, FillsInAPidFileThatLeavesRoomForEveryProcessId) {
    // The file is called NAME.PID, in a field of 64 bytes with a NUL: "/tmp/pid", ".pid" and
    // ".4194304", the longest id of Linux, leave 43 characters for the program.
    const std::string program = '/' + std::string(42, 'p');
    reqcmd request = requestFor(program + " -x");
    EXPECT_EQ(fillPidFile(request, nullptr), "");
    EXPECT_EQ(platform::fieldText(request.pidfile), "/tmp/pid" + program + ".pid");
    EXPECT_EQ((std::string(platform::fieldText(request.pidfile)) + ".4194304").size(), 63u);

    EXPECT_EQ(fillPidFile(request, "/"),
              "the name of the pid file is left empty, so that the monitor may drop the "
              "application: the conventional name /tmp/pid/" +
                  program +
                  ".pid has more than the 55 characters that leave room for a process id of 7 "
                  "digits behind it; start the program by a shorter path, a link for instance, or "
                  "let it write a pid file without its id in the name, and give that with "
                  "--pidfile");
    EXPECT_EQ(platform::fieldText(request.pidfile), "");
}

TEST(StartChecks, WarnsOfAConventionalPidFileWithoutRoomForAProcessId) {
    const auto warningsFor = [](const std::string& program, const std::string& pidFile) {
        reqcmd request = requestFor(program);
        platform::copyToField(request.pidfile, pidFile);
        return startWarnings(request);
    };
    const std::string program = "/home/kelvo/modbus/" + std::string(24, 'p');
    const std::string pidFile = "/tmp/pid" + program + ".pid";
    ASSERT_EQ(pidFile.size(), 55u);
    EXPECT_TRUE(warningsFor(program, pidFile).empty());
    const std::vector<std::string> warnings =
        warningsFor(program + "p", "/tmp/pid" + program + "p.pid");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].find("the monitor may never confirm the application, and restart it or "
                               "the machine again and again: the conventional pid-file name "
                               "/tmp/pid" +
                               program + "p.pid has more than the 55 characters"),
              0u)
        << warnings[0];
    // METER_ROOT takes its share.
    EXPECT_EQ(warningsFor(program, "/tmp/pid/" + program + ".pid").size(), 1u);
    // A program that writes exactly the file that is named has no id in the name.
    EXPECT_TRUE(warningsFor(program, "/tmp/" + std::string(58, 'p')).empty());
}

TEST(StartChecks, WarnsOfANameThatIsNotThatOfTheProgram) {
    const std::string command = "/home/kelvo/root/prog -x";
    EXPECT_TRUE(startWarnings(namedRequest("prog", command)).empty());
    const std::vector<std::string> warnings = startWarnings(namedRequest("other", command));
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0],
              "the application is not named as its program, prog (the first 15 characters count): "
              "a monitor that is started again does not adopt it and leaves it unsupervised, and "
              "no stop ends stray copies of it; give it that name, or start a copy of the program, "
              "or a link to it, that is named as the application");
    for (const char* name : {"pro", "progs", "Prog", "/home/kelvo/root/prog"}) {
        EXPECT_EQ(startWarnings(namedRequest(name, command)).size(), 1u) << name;
    }
    EXPECT_TRUE(startWarnings(namedRequest("", command)).empty());
}

TEST(StartChecks, ComparesNamesAsFarAsTheSystemKeepsThoseOfProcesses) {
    const std::string command = "/home/kelvo/modbus/modbus_gateway_server";
    EXPECT_TRUE(startWarnings(namedRequest("modbus_gateway_server", command)).empty());
    EXPECT_TRUE(startWarnings(namedRequest("modbus_gateway_client", command)).empty());
    EXPECT_TRUE(startWarnings(namedRequest("modbus_gateway_", command)).empty());
    EXPECT_EQ(startWarnings(namedRequest("modbus_gateway", command)).size(), 1u);
    EXPECT_EQ(startWarnings(namedRequest("modbus_gatewayXserver", command)).size(), 1u);
}

TEST(StartChecks, WarnsOfANameThatIsNotPublishedWhole) {
    const std::string longest(31, 'n');
    EXPECT_TRUE(startWarnings(namedRequest(longest, "/home/kelvo/root/" + longest)).empty());
    const std::vector<std::string> warnings =
        startWarnings(namedRequest(longest + "n", "/home/kelvo/root/" + longest));
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0], "the name has 32 characters, of which the monitor publishes the first "
                           "31: a monitor that is started again knows the application by these "
                           "alone, and does not find it by its whole name; give it a shorter one");
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
