#include "tests/system/Logs.h"

#include <algorithm>
#include <cstdlib>
#include <regex>

namespace systemtest {
namespace {

bool parseLogLine(const std::string& line, LogLine& parsed) {
    static const std::regex form(
        R"(<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ([^\[]+)\[(\d+)\]: (.*))");
    std::smatch parts;
    if (!std::regex_match(line, parts, form)) {
        return false;
    }
    const auto priority = static_cast<int>(std::strtol(parts[1].str().c_str(), nullptr, 10));
    parsed.level = priority & 7;
    parsed.facility = priority & ~7;
    parsed.ident = parts[2];
    parsed.pid = static_cast<int>(std::strtol(parts[3].str().c_str(), nullptr, 10));
    parsed.text = parts[4];
    return true;
}

EventLine parseEventLine(const std::string& line) {
    static const std::regex form(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) ([^:]+): (.*))");
    std::smatch parts;
    if (!std::regex_match(line, parts, form)) {
        return {"", "", line};
    }
    return {parts[1], parts[2], parts[3]};
}

template <typename Line>
std::size_t countLines(const std::vector<Line>& lines, const Line& wanted) {
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), wanted));
}

} // namespace

std::vector<LogLine> daemonLog() {
    std::vector<LogLine> lines;
    for (const std::string& text : linesOf(readFile(kDaemonLogPath))) {
        LogLine line;
        if (parseLogLine(text, line)) {
            lines.push_back(line);
        }
    }
    return lines;
}

std::vector<std::string> daemonLogTexts(int level) {
    std::vector<std::string> texts;
    for (const LogLine& line : daemonLog()) {
        if (level == -1 || line.level == level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

std::size_t countLog(int level, const std::string& text) {
    return countLines(daemonLogTexts(level), text);
}

bool waitForLog(int level, const std::string& text, int timeoutMs) {
    return eventually([&] { return countLog(level, text) > 0; }, timeoutMs);
}

std::vector<EventLine> eventLog() {
    std::vector<EventLine> lines;
    for (const std::string& line : linesOf(readFile(kEventLogPath))) {
        lines.push_back(parseEventLine(line));
    }
    return lines;
}

std::vector<std::string> eventTexts() {
    std::vector<std::string> texts;
    for (const EventLine& line : eventLog()) {
        if (line.tag == "Ovard") {
            texts.push_back(line.text);
        }
    }
    return texts;
}

std::size_t countEvent(const std::string& text) {
    return countLines(eventTexts(), text);
}

bool waitForEvent(const std::string& text, int timeoutMs) {
    return eventually([&] { return countEvent(text) > 0; }, timeoutMs);
}

} // namespace systemtest
