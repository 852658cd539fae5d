// The actions of control requests on one application: replies, log lines and processes.

#include <string>
#include <vector>

#include "tests/system/ActionSupport.h"

namespace systemtest {
namespace {

using Actions = ApplicationTest;

// --- Start ---------------------------------------------------------------------------------------

TEST_F(Actions, StartRunsTheProgram) {
    ASSERT_TRUE(startMonitor());
    const reqcmd request = makeStart("one");
    const LogMark mark;
    const Reply reply = askFor(request);
    const pid_t pid = pidIn(reply.message);
    EXPECT_EQ(reply, replyOf(0, "one " + pidText(pid) + " is started @DATE\n"));
    EXPECT_TRUE(runsAlone("one", pid));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Start one"},
                       launched("one"),
                       {6, "one " + pidText(pid) + " is started @DATE"}});
}

TEST_F(Actions, StartOfARunningNameReplacesItsProcess) {
    ASSERT_TRUE(startMonitor());
    const pid_t first = launch("one", "red");
    const LogMark mark;
    const reqcmd request = makeStart("one", "blue");
    const pid_t second = launch(request);
    EXPECT_FALSE(isRunning(first));
    EXPECT_EQ(processesNamed("one"), std::vector<pid_t>{second});
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Start one"},
                       stopped("one", first),
                       launched("one"),
                       {6, "one " + pidText(second) + " is started @DATE"}});
    // One entry is left of the two: a second stop finds none.
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "one")), replyOf(0, "one is stopped @DATE\n"));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "one")), replyOf(kNotFound, "one is not found\n"));
}

TEST_F(Actions, StartOfANameWithTwoEntriesReplacesBoth) {
    ASSERT_TRUE(startMonitor());
    // A name without a NUL matches no entry, so that each of these adds one; the entries keep 63
    // characters of it.
    const std::string whole(64, 'n');
    (void)installSample("first");
    (void)installSample("second");
    const Reply first =
        askFor(makeRequestWithWholeName(APPMONCTL_Start, whole, commandOf("first")));
    const Reply second =
        askFor(makeRequestWithWholeName(APPMONCTL_Start, whole, commandOf("second")));
    ASSERT_TRUE(runsAlone("first", pidIn(first.message)));
    ASSERT_TRUE(runsAlone("second", pidIn(second.message)));

    reqcmd request = makeStart("third");
    whole.copy(request.name, 63);
    const pid_t third = launch(request);
    EXPECT_TRUE(processesNamed("first").empty());
    EXPECT_TRUE(processesNamed("second").empty());
    EXPECT_TRUE(runsAlone("third", third));
    const std::string name = whole.substr(0, 63);
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, name)), replyOf(0, name + " is stopped @DATE\n"));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, name)),
              replyOf(kNotFound, name + " is not found\n"));
}

TEST_F(Actions, StartWithoutACommandStopsWhatRanAndIsNotAnswered) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    const pid_t pid = launch("one");
    const LogMark mark;
    const reqcmd request = makeRequest(APPMONCTL_Start, "one");
    EXPECT_TRUE(staysUnanswered(request));
    EXPECT_FALSE(isRunning(pid));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Start one"},
                       stopped("one", pid),
                       {3, "one has no command line failure"},
                       {3, "one fails to start"}});
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "one")), replyOf(kNotFound, "one is not found\n"));
    expectTracedResults({"0=0", "0=-3", "1=0"});
}

TEST_F(Actions, RequestsDuringASlowStartRunAfterwardsInOrder) {
    ASSERT_TRUE(startMonitor());
    const reqcmd slow = makeStart("slow", "--daemonize-after 4000");
    const reqcmd next = makeStart("next");
    const reqcmd last = makeRequest(APPMONCTL_Stop, "slow");
    const LogMark mark;
    for (const reqcmd& request : {slow, next, last}) {
        ASSERT_TRUE(sendWithoutWaiting(request));
    }
    ASSERT_TRUE(eventually([] { return !processesNamed("slow").empty(); }));
    const std::vector<LogText> lines = linesSince(mark, 9);
    ASSERT_EQ(lines.size(), 9U);
    const std::vector<LogText> begin(lines.begin(), lines.begin() + 6);
    EXPECT_EQ(begin,
              (std::vector<LogText>{queued(slow),
                                    {7, "processCmd() request.action=APPMONCTL_Start slow"},
                                    queued(next),
                                    queued(last),
                                    launched("slow"),
                                    {7, "processCmd() request.action=APPMONCTL_Start next"}}));
    EXPECT_EQ(lines[6], launched("next"));
    EXPECT_EQ(lines[7], (LogText{7, "processCmd() request.action=APPMONCTL_Stop slow"}));
    EXPECT_EQ(lines[8], stopped("slow", pidIn(lines[8].text)));
    EXPECT_TRUE(processesNamed("slow").empty());
    EXPECT_EQ(processesNamed("next").size(), 1U);
}

// --- Stop ----------------------------------------------------------------------------------------

TEST_F(Actions, StopEndsTheProcessAndForgetsIt) {
    ASSERT_TRUE(startMonitor());
    const pid_t pid = launch("one");
    const pid_t other = launch("two");
    const reqcmd request = makeRequest(APPMONCTL_Stop, "one");
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, "one is stopped @DATE\n"));
    EXPECT_FALSE(isRunning(pid));
    EXPECT_TRUE(runsAlone("two", other));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Stop one"},
                       stopped("one", pid),
                       {6, "one is stopped @DATE"}});
    const LogMark again;
    EXPECT_EQ(askFor(request), replyOf(kNotFound, "one is not found\n"));
    expectLines(again, {queued(request),
                        {7, "processCmd() request.action=APPMONCTL_Stop one"},
                        {6, "one is not found"}});
}

TEST_F(Actions, StopThatFailsIsNotAnsweredAndForgetsAllTheSame) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    launchOneThatCannotBeStopped("one");
    const reqcmd request = makeRequest(APPMONCTL_Stop, "one");
    const LogMark mark;
    Client client;
    ASSERT_TRUE(sendRequest(client, request));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Stop one"},
                       {3, "one fails to stop"}});
    EXPECT_EQ(client.receive(kSilenceMs).bytes, "");
    EXPECT_EQ(askFor(request), replyOf(kNotFound, "one is not found\n"));
    expectTracedResults({"0=0", "1=-4", "1=0"});
    EXPECT_EQ(countOf(monitor_.console(), "stopApp failed for one\n"), 1U);
}

// --- Restart -------------------------------------------------------------------------------------

TEST_F(Actions, RestartReplacesTheProcess) {
    ASSERT_TRUE(startMonitor());
    const pid_t first = launch("one", "--daemonize-after 100");
    const pid_t other = launch("two");
    const reqcmd request = makeRequest(APPMONCTL_Restart, "one");
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, "one is restarted @DATE\n"));
    EXPECT_FALSE(isRunning(first));
    const std::vector<pid_t> now = processesNamed("one");
    ASSERT_EQ(now.size(), 1U);
    EXPECT_EQ(commandLineOf(now[0]), commandOf("one", "--daemonize-after 100"));
    EXPECT_TRUE(runsAlone("two", other));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Restart one"},
                       stopped("one", first),
                       launched("one"),
                       {6, "one is restarted @DATE"}});
    // The entry knows the new process: a stop ends it, and names it.
    const LogMark stop;
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "one")), replyOf(0, "one is stopped @DATE\n"));
    EXPECT_EQ(stop.lines(4).at(2), stopped("one", now[0]));
}

TEST_F(Actions, RestartOfAnUnknownNameSucceeds) {
    ASSERT_TRUE(startMonitor());
    const reqcmd request = makeRequest(APPMONCTL_Restart, "ghost");
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, "ghost is restarted @DATE\n")) << "nothing registered";
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Restart ghost"},
                       {6, "ghost is restarted @DATE"}});
    const pid_t pid = launch("one");
    EXPECT_EQ(askFor(request), replyOf(0, "ghost is restarted @DATE\n"));
    EXPECT_TRUE(runsAlone("one", pid));
}

TEST_F(Actions, RestartOfOneWithPolicyAllRestartsNothing) {
    ASSERT_TRUE(startMonitor());
    reqcmd start = makeStart("one");
    start.restart_type = RESTART_TYPE_ALL;
    const pid_t pid = launch(start);
    const reqcmd request = makeRequest(APPMONCTL_Restart, "one");
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(0, "one is restarted @DATE\n"));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Restart one"},
                       {6, "one is restarted @DATE"}});
    EXPECT_TRUE(runsAlone("one", pid));
}

TEST_F(Actions, RestartThatFailsIsAnswered) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    launchOneThatCannotBeStopped("one");
    const reqcmd request = makeRequest(APPMONCTL_Restart, "one");
    const LogMark mark;
    EXPECT_EQ(askFor(request), replyOf(kStopFailed, "one fails to restart\n"));
    expectLines(mark, {queued(request),
                       {7, "processCmd() request.action=APPMONCTL_Restart one"},
                       {3, "one fails to restart"}});
    EXPECT_TRUE(processesNamed("one").empty());
    expectTracedResults({"0=0", "5=-3"});
}

TEST_F(Actions, RestartOfANameWithTwoEntriesRestartsBoth) {
    ASSERT_TRUE(startMonitor());
    const std::string whole(64, 'n');
    std::vector<pid_t> before;
    for (const char* program : {"first", "second"}) {
        (void)installSample(program);
        const Reply reply =
            askFor(makeRequestWithWholeName(APPMONCTL_Start, whole, commandOf(program)));
        before.push_back(pidIn(reply.message));
    }
    const std::string name = whole.substr(0, 63);
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Restart, name)),
              replyOf(0, name + " is restarted @DATE\n"));
    EXPECT_FALSE(isRunning(before[0]));
    EXPECT_FALSE(isRunning(before[1]));
    EXPECT_EQ(processesNamed("first").size(), 1U);
    EXPECT_EQ(processesNamed("second").size(), 1U);
}

// --- other codes ---------------------------------------------------------------------------------

TEST_F(Actions, ReservedCodesDoNothing) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    const pid_t pid = launch("one");
    for (const int action : {APPMONCTL_Reserved9, APPMONCTL_Reserved10}) {
        const reqcmd request = makeRequest(action, "one");
        const LogMark mark;
        EXPECT_TRUE(staysUnanswered(request)) << action;
        EXPECT_EQ(mark.lines(1), std::vector<LogText>{queued(request)});
    }
    expectTracedResults({"0=0", "9=0", "10=0"});
    EXPECT_TRUE(runsAlone("one", pid));
    EXPECT_EQ(countLog(6, "request.action=UNKNOWN"), 0U);
}

TEST_F(Actions, UnknownCodesAreLoggedOnly) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "6"}));
    const pid_t pid = launch("one");
    for (const int action : {-1, 11}) {
        const reqcmd request = makeRequest(action, "one");
        const LogMark mark;
        Client client;
        ASSERT_TRUE(sendRequest(client, request));
        EXPECT_EQ(mark.lines(2),
                  (std::vector<LogText>{queued(request), {6, "request.action=UNKNOWN"}}));
        const Received received = client.receive(kSilenceMs);
        EXPECT_EQ(received.bytes, "") << action;
        EXPECT_FALSE(received.ended) << action;
    }
    expectTracedResults({"0=0", "-1=-8", "11=-8"});
    for (const char* action : {"-1", "11"}) {
        EXPECT_EQ(countOf(monitor_.console(),
                          std::string("processCmd() request.action=UNKNOWN(") + action + ")\n"),
                  1U);
    }
    EXPECT_TRUE(runsAlone("one", pid));
}

// --- without waiting -----------------------------------------------------------------------------

TEST_F(Actions, WithoutWaitingTheWorkIsDoneSilently) {
    ASSERT_TRUE(startMonitor());
    reqcmd start = makeStart("one");
    reqcmd restart = makeRequest(APPMONCTL_Restart, "one");
    reqcmd stop = makeRequest(APPMONCTL_Stop, "one");
    for (reqcmd* request : {&start, &restart, &stop}) {
        request->nowait = 1;
    }
    const LogMark atStart;
    EXPECT_TRUE(staysUnanswered(start));
    expectLines(
        atStart,
        {queued(start), {7, "processCmd() request.action=APPMONCTL_Start one"}, launched("one")});
    const std::vector<pid_t> first = processesNamed("one");
    ASSERT_EQ(first.size(), 1U);

    const LogMark atRestart;
    ASSERT_TRUE(sendWithoutWaiting(restart));
    expectLines(atRestart, {queued(restart),
                            {7, "processCmd() request.action=APPMONCTL_Restart one"},
                            stopped("one", first[0]),
                            launched("one")});
    const std::vector<pid_t> second = processesNamed("one");
    ASSERT_EQ(second.size(), 1U);
    EXPECT_NE(second, first);

    const LogMark atStop;
    ASSERT_TRUE(sendWithoutWaiting(stop));
    expectLines(atStop, {queued(stop),
                         {7, "processCmd() request.action=APPMONCTL_Stop one"},
                         stopped("one", second[0])});
    sleepMs(kSilenceMs);
    EXPECT_EQ(atStop.lines(0).size(), 3U) << "no result is logged";
    EXPECT_TRUE(processesNamed("one").empty());
}

TEST_F(Actions, WithoutWaitingFailuresAreNotLogged) {
    ASSERT_TRUE(startMonitorInForeground({"-v", "4"}));
    launchOneThatCannotBeStopped("one");
    for (const int action : {APPMONCTL_Restart, APPMONCTL_Stop, APPMONCTL_Start}) {
        ASSERT_TRUE(sendWithoutWaiting(makeRequest(action, "one")));
    }
    ASSERT_TRUE(sendWithoutWaiting(makeRequest(11, "one")));
    expectTracedResults({"0=0", "5=0", "1=0", "0=0", "11=-8"});
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{"one has no command line failure"});
}

// --- names ---------------------------------------------------------------------------------------

TEST_F(Actions, NamesThatFitTheirFieldAreKept) {
    ASSERT_TRUE(startMonitor());
    for (const std::size_t length : {62U, 63U}) {
        const std::string name(length, 'n');
        reqcmd request = makeStart("program");
        name.copy(request.name, sizeof request.name);
        request.name[length] = '\0';
        const pid_t pid = launch(request);
        EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, name)),
                  replyOf(0, name + " is stopped @DATE\n"));
        EXPECT_FALSE(isRunning(pid));
    }
}

TEST_F(Actions, NameThatFillsItsFieldIsCutAndThenNotFound) {
    ASSERT_TRUE(startMonitor());
    const std::string whole = std::string(60, 'n') + "WXYZ";
    const std::string cut = whole.substr(0, 63);
    (void)installSample("program");
    const Reply reply =
        askFor(makeRequestWithWholeName(APPMONCTL_Start, whole, commandOf("program")));
    const pid_t pid = pidIn(reply.message);
    EXPECT_EQ(reply, replyOf(0, cut + " " + pidText(pid) + " is started @DATE\n"));
    EXPECT_EQ(askFor(makeRequestWithWholeName(APPMONCTL_Stop, whole)),
              replyOf(kNotFound, cut + " is not found\n"));
    EXPECT_TRUE(runsAlone("program", pid));
    EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, cut)), replyOf(0, cut + " is stopped @DATE\n"));
    EXPECT_FALSE(isRunning(pid));
}

} // namespace
} // namespace systemtest
