// The actions of control requests on all applications: replies, log lines and processes.

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "tests/system/ActionSupport.h"

namespace systemtest {
namespace {

using ActionsOnAll = ApplicationTest;

// --- stopping ------------------------------------------------------------------------------------

reqcmd onPort(reqcmd request, int type, int number) {
    request.porttype = type;
    request.portnum = number;
    return request;
}

reqcmd withPolicy(reqcmd request, int type) {
    request.restart_type = type;
    return request;
}

/// The names and pids of the lines "NAME[pid=N] is stopped".
std::vector<LogText> stopsIn(const std::vector<LogText>& lines) {
    std::vector<LogText> stops;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(stops), [](const LogText& line) {
        return line.text.find("] is stopped") != std::string::npos;
    });
    return stops;
}

const std::string kNoApplication = "no app is running. \n";
const std::string kAllStopped = "all apps were stopped @DATE\n";
const std::string kAllButSecurityStopped = "all apps but sec_server were stopped @DATE\n";
const std::string kPortsStopped = "all apps on ports were stopped @DATE\n";
const std::string kAllRestarted = "all apps were restarted @DATE\n";
const std::string kAllButSecurityRestarted = "all apps but sec_server were restarted @DATE\n";
const std::string kPortsRestarted = "all apps on communication ports were restarted @DATE\n";

TEST_F(ActionsOnAll, EmptyRegistryIsSaidSo) {
    ASSERT_TRUE(startMonitor());
    const std::vector<std::pair<int, std::string>> actions = {
        {APPMONCTL_Stop_All, "APPMONCTL_Stop_All"},
        {APPMONCTL_Stop_All_But, "APPMONCTL_Stop_All_But"},
        {APPMONCTL_Stop_PortApps, "APPMONCTL_Stop_PortApps"},
        {APPMONCTL_Restart_All, "APPMONCTL_Restart_All"},
        {APPMONCTL_Restart_All_But, "APPMONCTL_Restart_All_But"},
        {APPMONCTL_Restart_PortApps, "APPMONCTL_Restart_PortApps"}};
    for (const auto& [action, name] : actions) {
        const LogMark mark;
        EXPECT_EQ(askFor(makeRequest(action)), replyOf(kNotFound, kNoApplication)) << name;
        expectLines(mark, {queued(makeRequest(action)),
                           {7, "processCmd() request.action=" + name},
                           {6, "no app is running. "}});
    }
}

TEST_F(ActionsOnAll, StopAllStopsEveryOneFromTheLastToTheFirst) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    const pid_t first = launch("first");
    const pid_t second = launch("security_server");
    const pid_t third = launch("third");
    const reqcmd request = makeRequest(APPMONCTL_Stop_All);
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, kAllStopped));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Stop_All"},
                       stopped("third", third),
                       stopped("security_server", second),
                       stopped("first", first),
                       {6, "all apps were stopped @DATE"}});
    for (const pid_t pid : {first, second, third}) {
        EXPECT_FALSE(isRunning(pid));
    }
    EXPECT_EQ(askFor(request), replyOf(kNotFound, kNoApplication));
    EXPECT_EQ(countOf(monitor_.console(), "applist size before =3\n"), 1U);
    EXPECT_EQ(countOf(monitor_.console(), "applist size after 0\n"), 1U);
}

TEST_F(ActionsOnAll, StopAllForgetsWhatCouldNotBeStopped) {
    ASSERT_TRUE(startMonitor());
    launchOneThatCannotBeStopped("first");
    const pid_t second = launch("second");
    // The code is that of the last stop made, which is the first entry's.
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All)), replyOf(kStopFailed, kAllStopped));
    EXPECT_FALSE(isRunning(second));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All)), replyOf(kNotFound, kNoApplication));
    const pid_t third = launch("third");
    launchOneThatCannotBeStopped("fourth");
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All)), replyOf(0, kAllStopped));
    EXPECT_FALSE(isRunning(third));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All)), replyOf(kNotFound, kNoApplication));
}

TEST_F(ActionsOnAll, StopAllButSparesTheSecurityServer) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    const pid_t a = launch("a");
    const pid_t security = launch("security_server");
    const pid_t b = launch("security_serve");
    const reqcmd request = makeRequest(APPMONCTL_Stop_All_But);
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, kAllButSecurityStopped));
    const std::vector<LogText> lines = linesSince(mark, 5);
    EXPECT_EQ(lines,
              (std::vector<LogText>{queued(request),
                                    {7, "processCmd() request.action=APPMONCTL_Stop_All_But"},
                                    stopped("security_serve", b),
                                    stopped("a", a),
                                    {6, "all apps but sec_server were stopped @DATE"}}));
    EXPECT_FALSE(isRunning(a));
    EXPECT_FALSE(isRunning(b));
    EXPECT_TRUE(runsAlone("security_server", security));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "a")), replyOf(kNotFound, "a is not found\n"));
    // Nothing may be stopped any more, but the registry is not empty.
    EXPECT_EQ(askFor(request), replyOf(0, kAllButSecurityStopped));
    EXPECT_TRUE(isRunning(security));
    EXPECT_EQ(countOf(monitor_.console(), "applist size"), 0U);
}

TEST_F(ActionsOnAll, StopAllButKeepsWhatCouldNotBeStopped) {
    ASSERT_TRUE(startMonitor());
    launchOneThatCannotBeStopped("first");
    const pid_t second = launch("second");
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All_But)),
              replyOf(kStopFailed, kAllButSecurityStopped));
    EXPECT_FALSE(isRunning(second));
    // It is still there to fail again.
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All_But)),
              replyOf(kStopFailed, kAllButSecurityStopped));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "second")),
              replyOf(kNotFound, "second is not found\n"));
}

TEST_F(ActionsOnAll, StopPortAppsGoesByThePortType) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    const pid_t serial = launch(onPort(makeStart("serial"), PORT_TYPE_COM, 1));
    const pid_t none = launch(onPort(makeStart("none"), PORT_TYPE_NONE, 502));
    const pid_t network = launch(onPort(makeStart("network"), PORT_TYPE_ETH, 502));
    const pid_t odd = launch(onPort(makeStart("security_server"), -1, 0));
    const reqcmd request = makeRequest(APPMONCTL_Stop_PortApps);
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, kPortsStopped));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Stop_PortApps"},
                       stopped("security_server", odd),
                       stopped("network", network),
                       stopped("serial", serial),
                       {6, "all apps on ports were stopped @DATE"}});
    EXPECT_TRUE(runsAlone("none", none));
    EXPECT_EQ(countOf(monitor_.console(), "applist size before =4\n"), 1U);
    EXPECT_EQ(countOf(monitor_.console(), "applist size after 1\n"), 1U);
}

TEST_F(ActionsOnAll, StopPortAppsKeepsWhatCouldNotBeStopped) {
    ASSERT_TRUE(startMonitor());
    launchOneThatCannotBeStopped(
        onPort(makeStart("serial", "--no-pidfile", "/tmp/of_its_own.pid"), PORT_TYPE_COM, 1));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_PortApps)), replyOf(kStopFailed, kPortsStopped));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_PortApps)), replyOf(kStopFailed, kPortsStopped));
}

// --- restarting ----------------------------------------------------------------------------------

TEST_F(ActionsOnAll, RestartAllRestartsFromTheFirstToTheLast) {
    ASSERT_TRUE(startMonitor());
    const pid_t first = launch("first");
    const pid_t all = launch(withPolicy(makeStart("all"), RESTART_TYPE_ALL));
    const pid_t third = launch(withPolicy(makeStart("third"), 2));
    const reqcmd request = makeRequest(APPMONCTL_Restart_All);
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, kAllRestarted));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Restart_All"},
                       stopped("first", first),
                       launched("first"),
                       stopped("third", third),
                       launched("third"),
                       {6, "all apps were restarted @DATE"}});
    EXPECT_TRUE(runsAlone("all", all)) << "its restart is a request for later";
    EXPECT_FALSE(isRunning(first));
    EXPECT_FALSE(isRunning(third));
    EXPECT_EQ(processesNamed("first").size(), 1U);
    EXPECT_EQ(processesNamed("third").size(), 1U);
    // The entries know the new processes.
    const std::vector<LogText> expected = {stopped("third", processesNamed("third").at(0)),
                                           stopped("all", all),
                                           stopped("first", processesNamed("first").at(0))};
    const LogMark stop;
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop_All)), replyOf(0, kAllStopped));
    EXPECT_EQ(stopsIn(stop.lines(6)), expected);
}

TEST_F(ActionsOnAll, RestartAllButGoesByThePolicyNotByTheName) {
    ASSERT_TRUE(startMonitor());
    const pid_t self = launch(withPolicy(makeStart("security_server"), RESTART_TYPE_SELF));
    const pid_t all = launch(withPolicy(makeStart("all"), RESTART_TYPE_ALL));
    const pid_t other = launch(withPolicy(makeStart("other"), 2));
    const reqcmd request = makeRequest(APPMONCTL_Restart_All_But);
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, kAllButSecurityRestarted));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Restart_All_But"},
                       stopped("security_server", self),
                       launched("security_server"),
                       {6, "all apps but sec_server were restarted @DATE"}});
    EXPECT_FALSE(isRunning(self));
    EXPECT_EQ(processesNamed("security_server").size(), 1U);
    EXPECT_TRUE(runsAlone("all", all));
    EXPECT_TRUE(runsAlone("other", other));
}

TEST_F(ActionsOnAll, RestartPortAppsGoesByThePortType) {
    ASSERT_TRUE(startMonitor());
    const pid_t none = launch(onPort(makeStart("none"), PORT_TYPE_NONE, 502));
    const pid_t serial = launch(onPort(makeStart("serial"), PORT_TYPE_COM, 0));
    const pid_t network = launch(onPort(makeStart("network"), PORT_TYPE_ETH, 502));
    const reqcmd request = makeRequest(APPMONCTL_Restart_PortApps);
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, kPortsRestarted));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Restart_PortApps"},
                       stopped("serial", serial),
                       launched("serial"),
                       stopped("network", network),
                       launched("network"),
                       {6, "all apps on communication ports were restarted @DATE"}});
    EXPECT_TRUE(runsAlone("none", none));
}

TEST_F(ActionsOnAll, RestartAllEndsUnansweredAtTheFirstFailure) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    const pid_t first = launch("first");
    launchOneThatCannotBeStopped(
        onPort(makeStart("second", "--no-pidfile", "/tmp/of_its_own.pid"), PORT_TYPE_COM, 1));
    const pid_t third = launch(onPort(makeStart("third"), PORT_TYPE_COM, 2));
    for (const int action :
         {APPMONCTL_Restart_All, APPMONCTL_Restart_All_But, APPMONCTL_Restart_PortApps}) {
        Client client;
        ASSERT_TRUE(sendRequest(client, makeRequest(action)));
        // The wait for the dead process to come alive takes a second.
        EXPECT_EQ(client.receive(2500).bytes, "") << action;
    }
    expectTracedResults({"0=0", "0=0", "0=0", "6=-1", "7=-1", "8=-5"});
    EXPECT_FALSE(isRunning(first));
    EXPECT_EQ(processesNamed("first").size(), 1U);
    EXPECT_TRUE(runsAlone("third", third));
    EXPECT_TRUE(daemonLogTexts(3).empty());
}

// --- without waiting -----------------------------------------------------------------------------

TEST_F(ActionsOnAll, WithoutWaitingTheWorkIsDoneSilently) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    const pid_t first = launch(onPort(makeStart("first"), PORT_TYPE_COM, 1));
    const LogMark mark;
    for (const int action : {APPMONCTL_Restart_All, APPMONCTL_Restart_All_But,
                             APPMONCTL_Restart_PortApps, APPMONCTL_Stop_PortApps}) {
        ASSERT_TRUE(sendWithoutWaiting(makeRequest(action)));
    }
    expectTracedResults({"0=0", "6=0", "7=0", "8=0", "4=0"});
    EXPECT_FALSE(isRunning(first));
    EXPECT_TRUE(processesNamed("first").empty());
    for (const int action : {APPMONCTL_Stop_All, APPMONCTL_Stop_All_But}) {
        ASSERT_TRUE(sendWithoutWaiting(makeRequest(action)));
    }
    EXPECT_TRUE(eventually([&] { return tracedResults().size() == 7; }));
    // Three restarts of two lines each and one stop; and two lines for each of the six requests.
    EXPECT_EQ(mark.lines(0).size(), 3U * 2 + 1 + 6U * 2);
}

} // namespace
} // namespace systemtest
