#include "tests/system/Applications.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>

#include <sys/stat.h>

namespace systemtest {
namespace {

constexpr const char* kDaemonVariable = "OVARD_BINARY";

std::string lastDateIn(const std::string& text) {
    static const std::regex form(kDateForm);
    std::string date;
    for (std::sregex_iterator at(text.begin(), text.end(), form); at != std::sregex_iterator();
         ++at) {
        date = at->str();
    }
    return date;
}

std::string withoutLineEnd(const std::string& text) {
    return !text.empty() && text.back() == '\n' ? text.substr(0, text.size() - 1) : text;
}

} // namespace

const std::vector<std::string> kWithoutSupervision = {"-i", "3600"};

bool operator==(const Reply& left, const Reply& right) {
    return left.came == right.came && left.code == right.code &&
           left.completed == right.completed && left.message == right.message;
}

std::ostream& operator<<(std::ostream& stream, const Reply& reply) {
    if (!reply.came) {
        return stream << "no reply";
    }
    return stream << "code " << reply.code << ", completed " << reply.completed << ", \""
                  << reply.message << "\"";
}

Reply replyOf(int code, const std::string& message) {
    Reply reply;
    reply.came = true;
    reply.code = code;
    reply.completed = 1;
    reply.message = message;
    return reply;
}

Reply toReply(const std::optional<response_struct>& received) {
    Reply reply;
    if (received) {
        reply = replyOf(received->code, withoutDates(messageOf(*received)));
        reply.completed = received->completed;
        reply.date = lastDateIn(messageOf(*received));
    }
    return reply;
}

Reply askFor(const reqcmd& request, int timeoutMs) {
    const LogMark mark;
    const Reply reply = toReply(ask(request, timeoutMs));
    if (reply.came) {
        // The result is logged after the reply was sent. A test that counts lines later must not
        // meet this one.
        (void)eventually([&] { return mark.has(withoutLineEnd(reply.message)); });
    }
    return reply;
}

bool staysUnanswered(const reqcmd& request) {
    Client client;
    const LogMark mark;
    if (!sendRequest(client, request) || mark.lines(1).empty()) {
        return false;
    }
    const Received received = client.receive(kSilenceMs);
    return received.bytes.empty() && !received.ended;
}

bool sendWithoutWaiting(reqcmd request) {
    request.nowait = 1;
    Client client;
    return sendRequest(client, request);
}

reqcmd makeRequestWithWholeName(int action, const std::string& name, const std::string& cmd) {
    reqcmd request = makeRequest(action, "", cmd);
    EXPECT_EQ(name.size(), sizeof request.name);
    std::memcpy(request.name, name.data(), std::min(name.size(), sizeof request.name));
    return request;
}

pid_t pidIn(const std::string& message) {
    static const std::regex form(R"(\[pid=(\d+)\])");
    std::smatch parts;
    return std::regex_search(message, parts, form) ? std::atoi(parts[1].str().c_str()) : 0;
}

std::time_t timeOf(const std::string& date) {
    std::tm fields = {};
    const char* const end = ::strptime(date.c_str(), "%Y-%m-%d %H:%M:%S", &fields);
    return end != nullptr && *end == '\0' ? ::timegm(&fields) : -1;
}

LaunchReport waitForReport(const std::string& path, int timeoutMs) {
    (void)eventually([&] { return fileExists(path); }, timeoutMs); // else there are no lines
    LaunchReport report;
    for (const std::string& line : linesOf(readFile(path))) {
        const std::size_t sign = line.find('=');
        if (sign != std::string::npos) {
            report[line.substr(0, sign)] = line.substr(sign + 1);
        }
    }
    return report;
}

std::vector<std::string> argumentsIn(const LaunchReport& report) {
    std::vector<std::string> arguments;
    const auto count = report.find("argc");
    if (count == report.end()) {
        return arguments;
    }
    for (int index = 0; index < std::atoi(count->second.c_str()); ++index) {
        arguments.push_back(report.at("arg." + std::to_string(index)));
    }
    return arguments;
}

bool writeScript(const std::string& path, const std::string& lines) {
    return writeFile(path, "#!/bin/bash\n" + lines) && ::chmod(path.c_str(), 0755) == 0;
}

MonitorThroughScript::MonitorThroughScript(const std::string& lines) {
    const std::string path = std::string(kScratchFolder) + "/monitor_script";
    real_ = daemonProgram();
    EXPECT_TRUE(writeScript(path, "OVARD=" + real_ + "\n" + lines));
    (void)::setenv(kDaemonVariable, path.c_str(), 1); // the tests of it would show a failure
}

MonitorThroughScript::~MonitorThroughScript() {
    (void)::setenv(kDaemonVariable, real_.c_str(), 1); // as above
}

std::string linesThatSetSignals(const std::vector<int>& ignored, const std::vector<int>& blocked) {
    const auto listed = [](const std::vector<int>& signals) {
        std::string list;
        for (const int signal : signals) {
            list += std::to_string(signal) + ",";
        }
        return "'" + list + "' ";
    };
    return "exec '" + setSignalsProgram() + "' " + listed(ignored) + listed(blocked) +
           "\"$OVARD\" \"$@\"\n";
}

void ApplicationTest::TearDown() {
    for (const pid_t pid : strangers()) {
        const ProcessFacts facts = processFacts(pid);
        EXPECT_FALSE(facts.state == 'Z' && facts.parent == monitor_.pid())
            << facts.name << " is a zombie of the monitor";
    }
    monitor_.kill();
    SystemTest::TearDown();
}

bool ApplicationTest::startMonitor(const std::vector<std::string>& options) {
    std::vector<std::string> words = kWithoutSupervision;
    words.insert(words.end(), options.begin(), options.end());
    return monitor_.startInBackground(words);
}

bool ApplicationTest::startMonitorInForeground(const std::vector<std::string>& options) {
    std::vector<std::string> words = kWithoutSupervision;
    words.insert(words.end(), options.begin(), options.end());
    return monitor_.startInForeground(words);
}

std::string ApplicationTest::programPath(const std::string& name) {
    return std::string(kApplicationFolder) + "/" + name;
}

std::string ApplicationTest::commandOf(const std::string& name, const std::string& options) {
    return programPath(name) + (options.empty() ? "" : " " + options);
}

reqcmd ApplicationTest::makeStart(const std::string& name, const std::string& options,
                                  const std::string& pidfile) {
    if (!fileExists(programPath(name))) {
        (void)installSample(name);
    }
    return makeRequest(APPMONCTL_Start, name, commandOf(name, options), pidfile);
}

pid_t ApplicationTest::launch(const reqcmd& request) {
    const Reply reply = askFor(request);
    const std::string name(request.name, ::strnlen(request.name, sizeof request.name - 1));
    const pid_t pid = pidIn(reply.message);
    EXPECT_EQ(reply, replyOf(0, name + " [pid=" + std::to_string(pid) + "] is started @DATE\n"));
    EXPECT_TRUE(isRunning(pid)) << name;
    return pid;
}

void ApplicationTest::launchOneThatCannotBeStopped(reqcmd request) {
    EXPECT_TRUE(killAndWait(launch(request)));
}

bool ApplicationTest::runsAlone(const std::string& name, pid_t pid, const std::string& options) {
    return processesWithCommandLine(commandOf(name, options)) == std::vector<pid_t>{pid};
}

std::vector<std::string> ApplicationTest::tracedResults() const {
    static const std::regex form(
        R"(process_command_thread: processCmd\(reqlist\.size=\d+, request\.action=(-?\d+), )"
        R"(cmd="[^"]*"\)=(-?\d+))");
    std::vector<std::string> results;
    for (const std::string& line : linesOf(monitor_.console())) {
        std::smatch parts;
        if (std::regex_match(line, parts, form)) {
            results.push_back(parts[1].str() + "=" + parts[2].str());
        }
    }
    return results;
}

void ApplicationTest::expectTracedResults(const std::vector<std::string>& results) const {
    (void)eventually([&] { return tracedResults() == results; });
    EXPECT_EQ(tracedResults(), results) << monitor_.console();
}

bool isGone(pid_t pid, int timeoutMs) {
    return eventually([pid] { return processFacts(pid).pid == 0; }, timeoutMs);
}

bool killAndWait(pid_t pid) {
    return sendSignal(pid, SIGKILL) && isGone(pid);
}

} // namespace systemtest
