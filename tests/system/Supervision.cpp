#include "tests/system/Supervision.h"

#include <algorithm>
#include <csignal>
#include <cstring>

namespace systemtest {
namespace {

/// How long the monitor gets for a turn of its main loop.
constexpr int kTurnMs = 150;

bool beginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

/// A line about the launch of that application.
bool isLaunch(const std::string& line, const std::string& name) {
    return beginsWith(line, "start_process: name=" + name + "  status=1 start_process_fork2=");
}

} // namespace

const std::vector<std::string> kQuickSupervision = {"-i", "0", "-s", "1", "-p", "1", "-v", "4"};

std::string verdict(const std::string& name, pid_t pid, const std::string& text) {
    return "checkAlive: " + name + "[pid=" + std::to_string(pid) + "] " + text;
}

std::string stoppedLine(const std::string& name, pid_t pid) {
    return name + "[pid=" + std::to_string(pid) + "] is stopped";
}

bool SupervisionTest::startSupervisor(const std::vector<std::string>& options) {
    std::vector<std::string> words = kQuickSupervision;
    words.insert(words.end(), options.begin(), options.end());
    sinceStart_ = std::make_unique<LogMark>();
    return monitor_.startInForeground(words);
}

reqcmd SupervisionTest::makeSupervised(const std::string& name, int policy,
                                       const std::string& options) {
    const std::string pidfile = "/tmp/" + name + ".pid";
    reqcmd request = makeStart(
        name, "--exact-pidfile " + pidfile + (options.empty() ? "" : " " + options), pidfile);
    std::string("1.0").copy(request.version, sizeof request.version);
    request.restart_type = policy;
    return request;
}

std::string SupervisionTest::commandIn(const reqcmd& request) {
    return {request.cmd, ::strnlen(request.cmd, sizeof request.cmd)};
}

bool SupervisionTest::duringPasses(const std::function<bool()>& condition, int timeoutMs) {
    std::int64_t next = 0;
    return eventually(
        [&] {
            if (condition()) {
                return true;
            }
            // They would queue up before a monitor whose turns take longer.
            if (monotonicMs() >= next && !clientWaits()) {
                turnMainLoop();
                next = monotonicMs() + kTurnMs;
            }
            return false;
        },
        timeoutMs);
}

void SupervisionTest::letPassesGoBy(int milliseconds) {
    (void)duringPasses([] { return false; }, milliseconds); // the time is what counts
}

void SupervisionTest::whileTheMonitorStands(const std::function<void()>& action) const {
    ASSERT_TRUE(monitor_.signal(SIGSTOP));
    ASSERT_TRUE(eventually([this] { return processFacts(monitor_.pid()).state == 'T'; }));
    action();
    ASSERT_TRUE(monitor_.signal(SIGCONT));
}

std::vector<std::string> SupervisionTest::linesOn(const std::string& name) const {
    std::vector<std::string> found;
    for (const LogText& line : sinceStart_->lines(0)) {
        const bool concerns = beginsWith(line.text, "checkAlive: " + name + "[") ||
                              beginsWith(line.text, name + "[") || isLaunch(line.text, name);
        if (line.level == 6 && concerns) {
            found.push_back(line.text);
        }
    }
    return found;
}

std::vector<std::string> SupervisionTest::verdictsOn(const std::string& name) const {
    std::vector<std::string> found;
    for (const std::string& line : linesOn(name)) {
        if (beginsWith(line, "checkAlive: ")) {
            found.push_back(line);
        }
    }
    return found;
}

bool SupervisionTest::reaches(const std::string& line) const {
    return duringPasses([&] { return sinceStart_->has(line); });
}

bool SupervisionTest::getsRunning(const std::string& name, pid_t pid) const {
    return reaches(verdict(name, pid, "running, is alive"));
}

pid_t SupervisionTest::launchUntilRunning(const reqcmd& request) const {
    const pid_t pid = launch(request);
    EXPECT_TRUE(getsRunning(request.name, pid));
    settle();
    return pid;
}

pid_t SupervisionTest::launchUntilStarting(const reqcmd& request) const {
    const pid_t pid = launch(request);
    const std::string step =
        verdict(request.name, pid, "starting0 confirmed pidfile, now starting");
    EXPECT_TRUE(eventually([&] { return sinceStart_->has(step); }));
    EXPECT_EQ(verdictsOn(request.name), std::vector<std::string>{step});
    return pid;
}

void SupervisionTest::settle() {
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody")));
}

std::vector<std::string> SupervisionTest::confirmed(const std::string& name, pid_t pid) {
    return {verdict(name, pid, "starting0 confirmed pidfile, now starting"),
            verdict(name, pid, "starting confirmed pidfile, now running"),
            verdict(name, pid, "running, is alive")};
}

pid_t SupervisionTest::replacementOf(const reqcmd& request, pid_t old) const {
    const std::string name = request.name;
    pid_t found = 0;
    const bool came = duringPasses([&] {
        const std::vector<std::string> lines = linesOn(name);
        const auto stop = std::find(lines.begin(), lines.end(), stoppedLine(name, old));
        if (std::none_of(stop, lines.end(),
                         [&](const std::string& line) { return isLaunch(line, name); })) {
            return false;
        }
        const std::vector<pid_t> running = processesWithCommandLine(commandIn(request));
        found = running.size() == 1 ? running[0] : 0;
        return found != 0 && found != old;
    });
    EXPECT_TRUE(came) << "no replacement of " << old;
    return came ? found : 0;
}

void SupervisionTest::expectReplacedAfter(const std::string& name, pid_t pid,
                                          const std::string& text) const {
    const std::vector<std::string> lines = linesOn(name);
    const auto at = std::find(lines.begin(), lines.end(), verdict(name, pid, text));
    ASSERT_GE(lines.end() - at, 3) << testing::PrintToString(lines);
    EXPECT_EQ(*(at + 1), stoppedLine(name, pid));
    EXPECT_TRUE(isLaunch(*(at + 2), name)) << *(at + 2);
}

} // namespace systemtest
