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

class FaultFork : public ApplicationTest {
protected:
    void SetUp() override {
        ApplicationTest::SetUp();
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
        EXPECT_EQ(monitor_.waitForEnd().text(), ending);
        const Received received = client.receive(kPatienceMs);
        EXPECT_TRUE(received.ended && received.bytes.empty());
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

TEST_F(FaultFork, EnoughProcessesForALaunch) {
    const MonitorThroughScript script(user_.monitorLines());
    ASSERT_TRUE(startMonitorInForeground());
    ASSERT_TRUE(allowMore(3)); // the two of the launch, and the one that goes into the background
    const pid_t pid = launch("data_server");
    EXPECT_TRUE(isRunning(pid));
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

// --- the restart of the machine ------------------------------------------------------------------

/// A monitor in a sandbox of its own; a launch is asked for under a limit of its threads and
/// `more`.
ProgramResult runAnotherMachine(const AnotherUser& user, int more) {
    const std::string script =
        "OVARD='" + daemonProgram() + "'; set -- -d -i 3600\n( " + user.monitorLines() +
        ") >/tmp/console 2>&1 &\n"
        "until [ -S /tmp/appmon_sock ] && [ -n \"$(ls /tmp/pid/home/kelvo/root 2>/dev/null)\" ]; "
        "do sleep 0.05; done; sleep 0.5\n"
        "P=$(pidof ovard); T=$(ls /proc/$P/task | wc -l)\n" +
        user.limitCommand("$P", "$((T + " + std::to_string(more) + "))") + "\n'" +
        controlProgram() +
        "' start data_server --cmd /home/kelvo/root/data_server --timeout 5\n"
        "sleep 15\n"
        "echo yes >/tmp/survived\n";
    const auto folderOf = [](const std::string& path) { return path.substr(0, path.rfind('/')); };
    return runProgram(sandboxProgram(),
                      {"--keep", "--bring", folderOf(daemonProgram()), "--bring",
                       folderOf(controlProgram()), "/bin/bash", "-c", script},
                      {"OVARD_SANDBOX_INIT=" + sandboxInitProgram()}, 40000);
}

void expectRestart(const ProgramResult& result, const std::string& reason) {
    EXPECT_EQ(result.ending.text(), "status 90") << result.errors;
    const std::string key = "sandbox: kept in ";
    const std::size_t at = result.errors.find(key);
    ASSERT_NE(at, std::string::npos) << result.errors;
    const std::string folder = linesOf(result.errors.substr(at + key.size())).at(0);
    EXPECT_EQ(readFile(folder + "/tmp/survived"), "");
    const std::string log = readFile(folder + kDaemonLogPath);
    EXPECT_EQ(countOf(log, reason + "\n"), 1U) << log;
    EXPECT_EQ(countOf(log, kFatal + "\n"), 1U) << log;
}

TEST_F(FaultFork, FirstForkThatIsRefusedRestartsTheMachine) {
    expectRestart(runAnotherMachine(user_, 0), kRefused);
}

TEST_F(FaultFork, SecondForkThatIsRefusedRestartsTheMachine) {
    expectRestart(runAnotherMachine(user_, 1), "fork2: errno=11");
}

} // namespace
} // namespace systemtest
