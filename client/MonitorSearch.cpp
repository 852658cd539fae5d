// Of the ways to tell that a monitor runs this one has no false answers. A connection would keep
// the monitor waiting for a request. The pid file depends on the monitor's METER_ROOT, outlives a
// monitor that is killed, and goes when /tmp is tidied up. A process of the monitor's name may be a
// script that starts it.

#include "client/MonitorSearch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace ovard_client {
namespace {

constexpr const char* kSocketTable = "/proc/net/unix";

/// Set in the flags of a socket that takes connections.
constexpr unsigned kAcceptsConnections = 0x10000;

struct CloseFile {
    void operator()(std::FILE* file) const { (void)std::fclose(file); } // Only read from.
};

/// A line buffer as getline grows it.
struct Line {
    Line() = default;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line() { std::free(text); }

    char* text = nullptr;
    std::size_t capacity = 0;
};

constexpr int kFieldsBeforeFlags = 3;
constexpr int kFieldsBeforePath = 7;
constexpr int kHexadecimal = 16;

/// Start of the field that comes after `count` others; fields are separated by blanks.
const char* skipFields(const char* line, int count) {
    for (; count > 0; --count) {
        line += std::strspn(line, " ");
        line += std::strcspn(line, " ");
    }
    return line + std::strspn(line, " ");
}

/// True for the line of a listening socket that is bound to `socketPath`:
/// "Num: RefCount Protocol Flags Type St Inode Path".
bool isListener(const char* line, const char* socketPath) {
    const unsigned long flags =
        std::strtoul(skipFields(line, kFieldsBeforeFlags), nullptr, kHexadecimal);
    return (flags & kAcceptsConnections) != 0 &&
           std::strcmp(skipFields(line, kFieldsBeforePath), socketPath) == 0;
}

} // namespace

MonitorState findListener(const char* socketPath, const char* tablePath) noexcept {
    if (socketPath == nullptr) {
        return MonitorState::Unknown;
    }
    const std::unique_ptr<std::FILE, CloseFile> table(std::fopen(tablePath, "re"));
    if (table == nullptr) {
        return MonitorState::Unknown;
    }
    Line line;
    ssize_t length = 0;
    while ((length = ::getline(&line.text, &line.capacity, table.get())) > 0) {
        if (line.text[length - 1] == '\n') {
            line.text[length - 1] = '\0';
        }
        if (isListener(line.text, socketPath)) {
            return MonitorState::Running;
        }
    }
    return std::ferror(table.get()) != 0 ? MonitorState::Unknown : MonitorState::NotRunning;
}

MonitorState findMonitor(const char* socketPath) noexcept {
    return findListener(socketPath, kSocketTable);
}

} // namespace ovard_client
