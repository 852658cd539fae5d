// What the monitor prints about a request.

#include <algorithm>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "tests/system/SocketSupport.h"

namespace systemtest {
namespace {

using SocketConsole = SocketTest;

const std::string kReplyTrace = " Error is detected with code =-20\nnobody is not found\n\n";
const std::string kBeforeTrace = "process_command_thread: processCmd(reqlist.size=0, "
                                 "request.action=1, request.name=nobody, cmd=\"/x y\")\n";
const std::string kAfterTrace = "process_command_thread: processCmd(reqlist.size=0, "
                                "request.action=1, cmd=\"/x y\")=0\n";
const std::string kThreadTrace = "start process_command_thread()\n";
const std::string kDisplay = "Request Command:\n"
                             "\tname = nobody\n"
                             "\tversion = \n"
                             "\taction = 1\n"
                             "\tcmd = \"/x y\"\n"
                             "\tpidfile = \"\"\n"
                             "\tporttype = 0\n"
                             "\tportnum = 0\n"
                             "\tdelay = 0\n"
                             "\tkeepalive = 0\n"
                             "\tnowait = 0\n"
                             "\trequest.heartbeat = 0\n"
                             "\trequest.restart_type = 0\n"
                             "\trequest.last_runtime_life_limit = 0\n";

/// The whole console after the version line, for one request; the time before "recvCommand" is
/// taken out.
std::string expectedConsole(int verbosity, pid_t pid) {
    std::string text;
    if (verbosity > 4) {
        text += "0=setpriority(PRIO_PROCESS, " + std::to_string(pid) + ", -10)\n";
    }
    if (verbosity > 3) {
        text += kThreadTrace;
    }
    if (verbosity > 6) {
        text += "TIME appmgr->recvCommand()=1216\n" + kDisplay;
    }
    if (verbosity > 7) {
        text += "processRequest(cmd=/x y)\n";
    }
    if (verbosity > 3) {
        text += kBeforeTrace;
    }
    text += kReplyTrace;
    if (verbosity > 3) {
        text += kAfterTrace;
    }
    return text;
}

TEST_F(SocketConsole, ConsoleAtEveryVerbosity) {
    // A priority that cannot be raised is traced with its result.
    const std::regex priority("(^|\n)-1=setpriority");
    for (int verbosity = 0; verbosity <= 9; ++verbosity) {
        Daemon daemon;
        // Adoption, which -a switches off, traces too.
        ASSERT_TRUE(daemon.startInForeground({"-a", "-v", std::to_string(verbosity)}));
        const std::string expected = expectedConsole(verbosity, daemon.pid());
        ASSERT_TRUE(ask(stopRequest("nobody", "/x y")));
        std::string console;
        EXPECT_TRUE(eventually(
            [&] {
                console = daemon.console();
                console.erase(0, console.find('\n') + 1);
                console = std::regex_replace(console, priority, "$010=setpriority");
                console =
                    std::regex_replace(console, std::regex("(^|\n)[^\n]+ appmgr->recvCommand"),
                                       "$1TIME appmgr->recvCommand");
                return console == expected;
            },
            2000))
            << "verbosity " << verbosity << ", console:\n"
            << console << "expected:\n"
            << expected;
        daemon.kill();
    }
}

TEST_F(SocketConsole, TimeOfATraceIsTheLocalTime) {
    start({"-v", "7"});
    const std::time_t before = std::time(nullptr);
    ASSERT_TRUE(ask(stopRequest("nobody")));
    const std::string console = daemon_.console();
    const std::size_t end = console.find(" appmgr->recvCommand()=");
    ASSERT_NE(end, std::string::npos);
    const std::size_t begin = console.rfind('\n', end) + 1;
    const std::string shown = console.substr(begin, end - begin);
    std::vector<std::string> possible;
    for (std::time_t time = before; time <= before + 10; ++time) {
        std::string text = std::ctime(&time);
        text.pop_back();
        possible.push_back(text);
    }
    EXPECT_NE(std::find(possible.begin(), possible.end(), shown), possible.end()) << shown;
}

} // namespace
} // namespace systemtest
