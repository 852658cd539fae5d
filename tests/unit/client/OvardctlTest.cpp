// The built tool against a scripted control socket: what it sends, prints and ends with.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using platform::UniqueFd;

struct ToolResult {
    int exitStatus = -1;
    std::string output;
    std::string error;
};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// A pipe: first the reading end.
std::pair<UniqueFd, UniqueFd> makePipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// Reads both streams to their ends, at the same time so that neither blocks the writer.
void drain(int outputFd, int errorFd, ToolResult& result) {
    pollfd entries[] = {{outputFd, POLLIN, 0}, {errorFd, POLLIN, 0}};
    std::string* const texts[] = {&result.output, &result.error};
    while (entries[0].fd >= 0 || entries[1].fd >= 0) {
        (void)::poll(entries, 2, -1); // what is ready shows in revents
        for (int index = 0; index < 2; ++index) {
            char buffer[4096];
            if (entries[index].fd < 0 || entries[index].revents == 0) {
                continue;
            }
            const ssize_t count = ::read(entries[index].fd, buffer, sizeof buffer);
            if (count > 0) {
                texts[index]->append(buffer, static_cast<std::size_t>(count));
            } else {
                entries[index].fd = -1;
            }
        }
    }
}

/// Runs ovardctl in an environment that holds only `environment`; standard output goes to the file
/// `outputPath` where one is named.
ToolResult runTool(std::vector<std::string> words, std::vector<std::string> environment = {},
                   const char* outputPath = nullptr) {
    words.insert(words.begin(), OVARDCTL_PATH);
    const std::vector<char*> argv = pointersTo(words);
    const std::vector<char*> envp = pointersTo(environment);
    auto [outputRead, outputWrite] = makePipe();
    auto [errorRead, errorWrite] = makePipe();
    if (outputPath != nullptr) {
        outputWrite.reset(::open(outputPath, O_WRONLY | O_CLOEXEC));
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(outputWrite.get(), 1);
        ::dup2(errorWrite.get(), 2);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    outputWrite.reset();
    errorWrite.reset();
    ToolResult result;
    drain(outputRead.get(), errorRead.get(), result);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    result.exitStatus = WEXITSTATUS(status);
    return result;
}

/// Answers every request with one reply and keeps the last request.
class AnsweringServer {
public:
    explicit AnsweringServer(const response_struct& reply)
        : server_([this, reply](int fd) {
            keep(receiveRequest(fd));
            sendBytes(fd, &reply, sizeof reply);
        }) {}

    std::string path() const { return server_.path(); }
    int requests() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return requests_;
    }
    reqcmd request() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return request_;
    }

private:
    void keep(const reqcmd& request) {
        const std::lock_guard<std::mutex> guard(mutex_);
        request_ = request;
        ++requests_;
    }

    mutable std::mutex mutex_;
    reqcmd request_{};
    int requests_ = 0;
    TestServer server_;
};

TEST(Ovardctl, EndsWith0AndPrintsTheMessage) {
    const AnsweringServer server(makeReply(0, "app [pid=12] is started @2024-01-02 03:04:05\n"));
    const ToolResult result = runTool(
        {"start", "absent", "--cmd", "/home/kelvo/root/absent -x", "--socket", server.path()},
        {"METER_ROOT=/opt/x"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "app [pid=12] is started @2024-01-02 03:04:05\n");
    // The request is sent all the same.
    EXPECT_EQ(result.error,
              "ovardctl: warning: the program /home/kelvo/root/absent does not exist, so nothing "
              "runs; install it, or correct the command\n");
    reqcmd expected{};
    std::strcpy(expected.name, "absent");
    std::strcpy(expected.cmd, "/home/kelvo/root/absent -x");
    std::strcpy(expected.pidfile, "/tmp/pid/opt/x/home/kelvo/root/absent.pid");
    const reqcmd request = server.request();
    EXPECT_EQ(std::memcmp(&request, &expected, sizeof expected), 0);
}

TEST(Ovardctl, EndsWith1OnAFailureCode) {
    const AnsweringServer server(makeReply(-20, "app is not found\n"));
    const ToolResult result = runTool({"stop", "app", "--socket", server.path()});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output, "app is not found\n");
    EXPECT_NE(result.error.find("-20"), std::string::npos);
}

TEST(Ovardctl, EndsWith2OnWrongUsageAndSendsNothing) {
    const AnsweringServer server(makeReply(0, "done\n"));
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{}, std::vector<std::string>{"stop"},
          std::vector<std::string>{"stop", std::string(64, 'n')},
          std::vector<std::string>{"start", "app", "--cmd", "/" + std::string(1023, 'c')}}) {
        std::vector<std::string> complete{"--socket", server.path()};
        complete.insert(complete.end(), words.begin(), words.end());
        const ToolResult result = runTool(complete);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error.rfind("ovardctl: ", 0), 0u) << result.error;
    }
    EXPECT_EQ(server.requests(), 0);
}

TEST(Ovardctl, EndsWith3WhenNoMonitorListens) {
    const TemporaryFolder folder;
    bindSocket(folder.file("left"), SOCK_STREAM, 8).reset();
    for (const char* name : {"none", "left"}) {
        const ToolResult result = runTool({"--socket", folder.file(name), "stop", "app"});
        EXPECT_EQ(result.exitStatus, 3);
        EXPECT_EQ(result.output, "");
        EXPECT_NE(result.error.find(folder.file(name)), std::string::npos);
    }
}

TEST(Ovardctl, EndsWith4WhenNoReplyComesInTime) {
    TestServer server([](int fd) {
        receiveRequest(fd);
        waitForClose(fd);
    });
    const ToolResult result =
        runTool({"restart", "--all", "--timeout", "1", "--socket", server.path()});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.error.find("sends no reply"), std::string::npos);
}

TEST(Ovardctl, EndsWith4WhenTheConnectionIsClosedWithoutReply) {
    TestServer server([](int fd) { receiveRequest(fd); });
    const ToolResult result = runTool({"stop", "app", "--socket", server.path()});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.output, "");
    EXPECT_NE(result.error.find("sends no reply"), std::string::npos);
}

TEST(Ovardctl, EndsWith5OnOtherErrors) {
    const TemporaryFolder folder;
    const UniqueFd other = bindSocket(folder.file("sock"), SOCK_DGRAM, -1);
    const ToolResult result = runTool({"stop", "app", "--socket", folder.file("sock")});
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_NE(result.error.find(std::strerror(EPROTOTYPE)), std::string::npos);
}

TEST(Ovardctl, EndsWith5WhenItsOutputCannotBeWritten) {
    const AnsweringServer server(makeReply(0, "done\n"));
    const ToolResult result = runTool({"stop", "app", "--socket", server.path()}, {}, "/dev/full");
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_NE(result.error.find("standard output"), std::string::npos);
}

TEST(Ovardctl, EndsWith3WhenThereIsNoMonitorToShow) {
    const TemporaryFolder folder;
    for (const char* command : {"status", "system"}) {
        const ToolResult result = runTool({command, "--socket", folder.file("none")});
        EXPECT_EQ(result.exitStatus, 3);
        EXPECT_EQ(result.output.rfind("Monitor:  not running\n", 0), 0u) << result.output;
        EXPECT_NE(result.error.find("no monitor listens on " + folder.file("none")),
                  std::string::npos);
        const ToolResult json = runTool({command, "--json", "--socket", folder.file("none")});
        EXPECT_EQ(json.exitStatus, 3);
        EXPECT_EQ(json.output.rfind("{\n  \"monitor\": \"not running\",\n", 0), 0u) << json.output;
    }
}

TEST(Ovardctl, ShowsWithoutAConnectionToTheMonitor) {
    const AnsweringServer server(makeReply(0, "done\n"));
    for (const char* command : {"status", "system"}) {
        const ToolResult result = runTool({command, "--socket", server.path()});
        EXPECT_EQ(result.output.rfind("Monitor:  running\n", 0), 0u) << result.output;
    }
    EXPECT_EQ(server.requests(), 0);
}

TEST(Ovardctl, StopsWatchingWhenItsOutputCannotBeWritten) {
    const ToolResult result = runTool({"status", "--watch"}, {}, "/dev/full");
    EXPECT_EQ(result.exitStatus, 5);
    EXPECT_NE(result.error.find("standard output"), std::string::npos);
}

TEST(Ovardctl, DoesNotWaitWithNoWait) {
    reqcmd request{};
    {
        TestServer server([&](int fd) {
            request = receiveRequest(fd);
            waitForClose(fd);
        });
        const ToolResult result = runTool({"stop", "app", "--no-wait", "--socket", server.path()});
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.output + result.error, "");
    }
    EXPECT_EQ(request.nowait, 1);
    EXPECT_EQ(request.action, 1);
}

TEST(Ovardctl, PrintsAMessageWithoutNulWholeAndHarmless) {
    const std::string message = "\x1b]0;x\x07" + std::string(1018, 'm');
    ASSERT_EQ(message.size(), sizeof(response_struct::message));
    const AnsweringServer server(makeReply(0, message));
    const ToolResult result = runTool({"stop", "--all", "--socket", server.path()});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "\\x1b]0;x\\x07" + std::string(1018, 'm') + "\n");
}

TEST(Ovardctl, WarnsOfAPidFileNameThatDoesNotFit) {
    const AnsweringServer server(makeReply(0, "done\n"));
    const ToolResult result =
        runTool({"start", "app", "--cmd", "/" + std::string(60, 'p'), "--socket", server.path()});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_NE(result.error.find("warning: the name of the pid file is left empty"),
              std::string::npos);
    const reqcmd request = server.request();
    EXPECT_EQ(platform::fieldText(request.pidfile), "");
}

TEST(Ovardctl, WarnsOfAProgramThatTheMonitorDoesNotFind) {
    const AnsweringServer server(makeReply(0, "done\n"));
    const ToolResult result =
        runTool({"start", "app", "--cmd", "/bin/\x1b[2Japp", "--socket", server.path()});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "done\n");
    EXPECT_EQ(result.error.rfind("ovardctl: warning: the program /bin/\\x1b[2Japp lies outside", 0),
              0u)
        << result.error;
    EXPECT_EQ(server.requests(), 1);
}

TEST(Ovardctl, ShowsTheEventLogThatIsNamed) {
    const TemporaryFolder folder;
    const std::string path = folder.file("log");
    EXPECT_EQ(runTool({"events", "--file", path}).exitStatus, 1);
    std::ofstream(path) << "one\ntwo\n";
    const ToolResult shown = runTool({"events", "-n1", "--file", path});
    EXPECT_EQ(shown.exitStatus, 0);
    EXPECT_EQ(shown.output, "two\n");
    const ToolResult full = runTool({"events", "-f", "--file", path}, {}, "/dev/full");
    EXPECT_EQ(full.exitStatus, 5);
    EXPECT_NE(full.error.find("standard output"), std::string::npos);
}

TEST(Ovardctl, ShowsHelpAndVersion) {
    const ToolResult version = runTool({"--version"});
    EXPECT_EQ(version.exitStatus, 0);
    EXPECT_EQ(version.output, "ovardctl " OVARDCTL_VERSION "\n");
    const ToolResult help = runTool({"stop", "--help"});
    EXPECT_EQ(help.exitStatus, 0);
    EXPECT_NE(help.output.find("--all-but-security"), std::string::npos);
    EXPECT_EQ(help.error, "");
}

TEST(Ovardctl, PutsNoRequestFileOnATerminal) {
    const UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    char terminal[64];
    ASSERT_EQ(::grantpt(master.get()), 0);
    ASSERT_EQ(::unlockpt(master.get()), 0);
    ASSERT_EQ(::ptsname_r(master.get(), terminal, sizeof terminal), 0);
    const ToolResult refused = runTool({"requests", "compile", "/dev/null"}, {}, terminal);
    EXPECT_EQ(refused.exitStatus, 2);
    EXPECT_EQ(refused.error,
              "ovardctl: a request file is nothing for a terminal; name a file with -o\n");
    EXPECT_EQ(runTool({"requests", "show", "/dev/null"}, {}, terminal).exitStatus, 5)
        << "it is no plain file, but text may go there";
}

} // namespace
