// The monitor's two logs as parsed lines.

#ifndef OVARD_TESTS_SYSTEM_LOGS_H
#define OVARD_TESTS_SYSTEM_LOGS_H

#include <ostream>
#include <string>
#include <vector>

#include "tests/system/Support.h"

namespace systemtest {

/// One line of the daemon log, "<PRI>Mon DD HH:MM:SS IDENT[PID]: TEXT".
struct LogLine {
    int level = -1;    ///< syslog priority, 0 to 7
    int facility = -1; ///< times 8, as in the calls: 144 is local2
    std::string ident;
    int pid = 0;
    std::string text;
};

/// One line of the event log, "YYYY-MM-DD HH:MM:SS.mmm TAG: TEXT".
struct EventLine {
    std::string time;
    std::string tag;
    std::string text;
};

/// Waits until what was sent to the daemon log so far is in its file. It is not waited for while
/// there is no log, or one that nobody reads.
void awaitDaemonLog();

/// All lines of the daemon log that have its form, those included that were just sent.
std::vector<LogLine> daemonLog();

/// Texts of the daemon log of one level, or of all with -1.
std::vector<std::string> daemonLogTexts(int level = -1);

/// How often the daemon log has that line.
std::size_t countLog(int level, const std::string& text);

/// Waits until the daemon log has that line.
bool waitForLog(int level, const std::string& text, int timeoutMs = kPatienceMs);

/// A date as the monitor writes it, "YYYY-MM-DD HH:MM:SS", as a regular expression.
inline constexpr const char* kDateForm = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)";

/// Every date in the text replaced by "DATE".
std::string withoutDates(const std::string& text);

/// A line of the daemon log without what differs from run to run, the dates included.
struct LogText {
    int level = -1;
    std::string text;
};

bool operator==(const LogText& left, const LogText& right);
std::ostream& operator<<(std::ostream& stream, const LogText& line);

/// The lines that the daemon log gets from now on.
class LogMark {
public:
    LogMark();

    /// Waits until there are that many lines and returns all, a stop told twice in a row only once.
    std::vector<LogText> lines(std::size_t count, int timeoutMs = kPatienceMs) const;

    /// There is a line with that text by now.
    bool has(const std::string& text) const;

private:
    std::size_t before_;
};

/// All lines of the event log; one without the right form has an empty tag and the whole line as
/// its text.
std::vector<EventLine> eventLog();

/// Texts of the lines of tag "Ovard".
std::vector<std::string> eventTexts();

/// How often the event log has that text.
std::size_t countEvent(const std::string& text);

/// Waits until the event log has that text.
bool waitForEvent(const std::string& text, int timeoutMs = kPatienceMs);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_LOGS_H
