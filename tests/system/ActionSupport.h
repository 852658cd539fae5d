// Actions of control requests: the codes of their replies and the lines of the log.

#ifndef OVARD_TESTS_SYSTEM_ACTION_SUPPORT_H
#define OVARD_TESTS_SYSTEM_ACTION_SUPPORT_H

#include <algorithm>
#include <string>
#include <vector>

#include "tests/system/Applications.h"

namespace systemtest {

inline constexpr int kNotFound = -20;
inline constexpr int kStopFailed = -4;

inline std::string pidText(pid_t pid) {
    return "[pid=" + std::to_string(pid) + "]";
}

/// The line of an intake.
inline LogText queued(const reqcmd& request) {
    return {7, "processRequest: action=" + std::to_string(request.action) +
                   " name=" + request.name + ", cmd=" + request.cmd};
}

inline LogText stopped(const std::string& name, pid_t pid) {
    return {6, name + pidText(pid) + " is stopped"};
}

/// The line of a launch without the launched pid, which nothing outside tells.
inline LogText withoutLaunchedPid(LogText line) {
    const std::string sign = "start_process_fork2=";
    const std::size_t at = line.text.find(sign);
    if (at != std::string::npos) {
        line.text = line.text.substr(0, at + sign.size()) + "PID";
    }
    return line;
}

inline LogText launched(const std::string& name) {
    return {6, "start_process: name=" + name + "  status=1 start_process_fork2=PID"};
}

/// The lines since the mark in the form of the functions above.
inline std::vector<LogText> linesSince(const LogMark& mark, std::size_t count) {
    std::vector<LogText> lines = mark.lines(count);
    std::transform(lines.begin(), lines.end(), lines.begin(), withoutLaunchedPid);
    return lines;
}

inline void expectLines(const LogMark& mark, const std::vector<LogText>& expected) {
    EXPECT_EQ(linesSince(mark, expected.size()), expected);
}

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_ACTION_SUPPORT_H
