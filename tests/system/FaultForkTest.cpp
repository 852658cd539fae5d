// A process limit that refuses the forks of a launch: the monitor ends, and the machine restarts
// unless somebody is logged in over port 22. Root has no such limit, so the monitor is another user
// here, with the right to restart the machine.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/AnotherMachine.h"
#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

constexpr std::uint16_t kPort22 = 22;

const std::string kFatal = "#012Fatal Error: start_process()_fork2  fork2=-1";
const std::string kRefused = "fork2():fork parent error: mainpid=-1, status=0, error=0";

/// While it lives, there is an established connection on local port 22.
class Login {
public:
    Login() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(kPort22);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const auto* const bytes = reinterpret_cast<const sockaddr*>(&address);
        stands_ = ::bind(listener_.get(), bytes, sizeof address) == 0 &&
                  ::listen(listener_.get(), 1) == 0 &&
                  ::connect(client_.get(), bytes, sizeof address) == 0;
    }

    bool stands() const { return stands_; }

private:
    static int openSocket() { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

    platform::UniqueFd listener_{openSocket()};
    platform::UniqueFd client_{openSocket()};
    bool stands_ = false;
};

/// Texts of the lines at level 3, but that of the event log, which another user cannot write in
/// every machine.
std::vector<std::string> failures() {
    EXPECT_TRUE(waitForLog(3, kFatal));
    std::vector<std::string> texts = daemonLogTexts(3);
    const std::string eventLog =
        kEventLogPath + std::string(" cannot be written: Permission denied");
    texts.erase(std::remove(texts.begin(), texts.end(), eventLog), texts.end());
    return texts;
}

class FaultFork : public FaultTest {
protected:
    void SetUp() override {
        FaultTest::SetUp();
        if (!AnotherUser::possible()) {
            GTEST_SKIP() << "there are no other users here";
        }
    }

    /// Lets the monitor's user have that many processes and threads more.
    bool allowMore(std::size_t count) {
        return user_.limitProcesses(monitor_.pid(), threadsOf(monitor_.pid()).size() + count);
    }

    /// A launch is asked for, and the monitor ends without an answer or a clean-up.
    void expectEndAtALaunch(const std::string& ending) {
        Client client;
        ASSERT_TRUE(sendRequest(client, makeStart("data_server")));
        expectEndWithoutCleanUp(ending);
        const Received received = client.receive(kPatienceMs);
        EXPECT_TRUE(received.ended && received.bytes.empty());
    }

    void expectEndWithoutCleanUp(const std::string& ending) {
        EXPECT_EQ(monitor_.waitForEnd().text(), ending);
        EXPECT_TRUE(processesNamed("data_server").empty());
        EXPECT_EQ(countOf(monitor_.console(), "ovardAtExit"), 0U);
        EXPECT_TRUE(fileExists(kSocketPath));
    }

    AnotherUser user_{"+sys_boot"};
};

TEST_F(FaultFork, FirstForkIsRefusedWhileSomebodyIsLoggedIn) {
    const Login login;
    ASSERT_TRUE(login.stands());
    const MonitorThroughScript script(user_.monitorLines());
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_TRUE(allowMore(0));
    expectEndAtALaunch("status 0"); // the error number was cleared
    EXPECT_EQ(failures(), (std::vector<std::string>{kRefused, kFatal}));
}

TEST_F(FaultFork, SecondForkIsRefusedWhileSomebodyIsLoggedIn) {
    const Login login;
    ASSERT_TRUE(login.stands());
    const MonitorThroughScript script(user_.monitorLines());
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_TRUE(allowMore(1));
    expectEndAtALaunch("status 4"); // EINTR, as is stated
    EXPECT_EQ(failures(), (std::vector<std::string>{"fork2: errno=11", kFatal}));
}

/// A replacement is launched by the main thread, in the middle of a supervision pass.
TEST_F(FaultFork, ReplacementIsRefusedWhileSomebodyIsLoggedIn) {
    const Login login;
    ASSERT_TRUE(login.stands());
    const MonitorThroughScript script(user_.monitorLines());
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(allowMore(0));
    ASSERT_TRUE(killAndWait(pid_));
    expectEndWithoutCleanUp("status 0"); // as for a launch
    EXPECT_EQ(failures(), (std::vector<std::string>{kRefused, kFatal}));
    EXPECT_EQ(countLog(6, stoppedLine("data_server", pid_)), 1U);
}

TEST_F(FaultFork, EnoughProcessesForALaunch) {
    const MonitorThroughScript script(user_.monitorLines());
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_TRUE(allowMore(3)); // the two of the launch, and the one that goes into the background
    const pid_t pid = launch("data_server");
    EXPECT_TRUE(isRunning(pid));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

// --- the restart of the machine ------------------------------------------------------------------

/// How a monitor comes to launch an application.
struct Cause {
    const char* options;     ///< of the monitor
    const char* preparation; ///< lines of the shell, with the program ovardctl in "$CONTROL"
    const char* launch;      ///< lines that have it launch the application
};

constexpr Cause kRequest = {
    "-i 3600", "", "$CONTROL start data_server --cmd /home/kelvo/root/data_server --timeout 5\n"};

constexpr Cause kDeath = {
    "-i 0 -s 2 -p 1 -v 4",
    "mkdir -p /home/kelvo/root; cp $SAMPLE /home/kelvo/root/data_server\n"
    "$CONTROL start data_server --restart self --pidfile /tmp/data_server.pid \\\n"
    "  --cmd '/home/kelvo/root/data_server --exact-pidfile /tmp/data_server.pid'\n"
    "until grep -q 'data_server.* running, is alive' /var/log/daemon.log; do sleep 0.05; done\n",
    "kill -9 $(head -n 1 /tmp/data_server.pid)\n"};

/// A monitor in a sandbox of its own; it comes to a launch under a limit of its threads and `more`.
ProgramResult runAnotherMachine(const AnotherUser& user, const Cause& cause, int more) {
    return runOnAnotherMachine(
        "set -- -d " + std::string(cause.options) + "\n( " + user.monitorLines() +
        ") >/tmp/console 2>&1 &\n"
        "until [ -S /tmp/appmon_sock ] && [ -n \"$(ls /tmp/pid/home/kelvo/root 2>/dev/null)\" ]; "
        "do sleep 0.05; done; sleep 0.5\n" +
        cause.preparation + "P=$(pidof ovard); T=$(ls /proc/$P/task | wc -l)\n" +
        user.limitCommand("$P", "$((T + " + std::to_string(more) + "))") + "\n" + cause.launch +
        "sleep 15\n"
        "echo yes >/tmp/survived\n");
}

void expectRestartFor(const std::string& reason, const ProgramResult& result) {
    expectRestart(result);
    const std::string log = Remains(result).of(kDaemonLogPath);
    EXPECT_EQ(countOf(log, reason + "\n"), 1U) << log;
    EXPECT_EQ(countOf(log, kFatal + "\n"), 1U) << log;
}

TEST_F(FaultFork, FirstForkThatIsRefusedRestartsTheMachine) {
    expectRestartFor(kRefused, runAnotherMachine(user_, kRequest, 0));
}

TEST_F(FaultFork, SecondForkThatIsRefusedRestartsTheMachine) {
    expectRestartFor("fork2: errno=11", runAnotherMachine(user_, kRequest, 1));
}

TEST_F(FaultFork, ReplacementThatIsRefusedRestartsTheMachine) {
    expectRestartFor(kRefused, runAnotherMachine(user_, kDeath, 0));
}

} // namespace
} // namespace systemtest
