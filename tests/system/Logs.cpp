#include "tests/system/Logs.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <regex>

#include "platform/UniqueFd.h"

namespace systemtest {
namespace {

/// How long the log's queue may be full, in microseconds, and how long its reader may take to come
/// to the end of it, in milliseconds.
constexpr long kFullQueueUs = 100000;
constexpr int kLateReaderMs = 1000;

/// Sends a datagram without any bytes to the log, of which its file shows nothing.
bool sendNothing(int socket) {
    const timeval patience = {0, kFullQueueUs};
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kLogSocket, std::strlen(kLogSocket));
    return ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) == 0 &&
           ::sendto(socket, "", 0, 0, reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) == 0;
}

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

/// The lines of the daemon log from that number on. A killed process that takes its time to go is
/// hunted as a stray copy, which nothing tells from a stop that is done twice: countLog counts all,
/// where a process is gone for certain.
std::vector<LogText> linesFrom(std::size_t first) {
    const std::vector<LogLine> all = daemonLog();
    std::vector<LogText> texts;
    for (std::size_t index = first; index < all.size(); ++index) {
        const LogText line = {all[index].level, withoutDates(all[index].text)};
        const bool isStop = line.text.find("] is stopped") != std::string::npos;
        if (!isStop || texts.empty() || !(texts.back() == line)) {
            texts.push_back(line);
        }
    }
    return texts;
}

template <typename Line>
std::size_t countLines(const std::vector<Line>& lines, const Line& wanted) {
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), wanted));
}

} // namespace

void awaitDaemonLog() {
    const platform::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (sendNothing(socket.get())) {
        // The reader has written what it read before. A line that is late shows in the tests.
        (void)eventually([&] { return isAllRead(socket.get()); }, kLateReaderMs);
    }
}

std::vector<LogLine> daemonLog() {
    awaitDaemonLog();
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

std::string withoutDates(const std::string& text) {
    static const std::regex form(kDateForm);
    return std::regex_replace(text, form, "DATE");
}

bool operator==(const LogText& left, const LogText& right) {
    return left.level == right.level && left.text == right.text;
}

std::ostream& operator<<(std::ostream& stream, const LogText& line) {
    return stream << "level " << line.level << " \"" << line.text << "\"";
}

LogMark::LogMark()
    : before_(daemonLog().size()) {}

std::vector<LogText> LogMark::lines(std::size_t count, int timeoutMs) const {
    std::vector<LogText> texts;
    (void)eventually( // the caller looks at the lines
        [&] {
            texts = linesFrom(before_);
            return texts.size() >= count;
        },
        timeoutMs);
    return texts;
}

bool LogMark::has(const std::string& text) const {
    const std::vector<LogText> all = lines(0);
    return std::any_of(all.begin(), all.end(),
                       [&](const LogText& line) { return line.text == text; });
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
