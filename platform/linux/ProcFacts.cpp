#include "platform/linux/ProcFacts.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/Process.h"
#include "platform/Text.h"
#include "platform/linux/Files.h"
#include "platform/linux/FixedText.h"

namespace platform {
namespace {

/// Holds a stat file up to its start time with room to spare: a name and 22 figures.
constexpr std::size_t kStatSize = 1024;

/// Position of a field relative to the state, which is field 3 of the file.
constexpr int kStartTimeAfterState = 22 - 3;

FixedText<32> procPath(pid_t pid, std::string_view file) {
    FixedText<32> path;
    path.add("/proc/").addNumber(pid).add(file);
    return path;
}

template <typename Number> bool parseWholeNumber(std::string_view text, Number& number) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

/// Takes the next field off the front of `rest`. False when the text ends before the field does.
bool takeField(std::string_view& rest, std::string_view& field) {
    const auto end =
        std::find_if(rest.begin(), rest.end(), [](char c) { return c == ' ' || c == '\n'; });
    if (end == rest.end()) {
        return false;
    }
    const auto length = static_cast<std::size_t>(end - rest.begin());
    field = rest.substr(0, length);
    rest.remove_prefix(length + 1);
    return true;
}

/// Where the name of a stat file's process ends. The name may hold blanks and parentheses itself,
/// so this is the last parenthesis of the file; std::string_view::npos without one. Every search of
/// /proc does this for every process, and memrchr is several times as fast as rfind.
std::size_t endOfName(std::string_view text) {
    const void* const found = ::memrchr(text.data(), ')', text.size());
    return found == nullptr
               ? std::string_view::npos
               : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

bool readProcStat(const char* path, char (&buffer)[kStatSize], ProcStat& stat) {
    const ssize_t count = readFileOnce(path, buffer, sizeof buffer);
    return count > 0 && parseProcStat({buffer, static_cast<std::size_t>(count)}, stat);
}

} // namespace

bool parseProcStat(std::string_view text, ProcStat& stat) {
    const std::size_t open = text.find(" (");
    const std::size_t close = endOfName(text);
    if (open == std::string_view::npos || close == std::string_view::npos || close < open + 2 ||
        text.substr(close, 2) != ") ") {
        return false;
    }
    if (!parseWholeNumber(text.substr(0, open), stat.pid)) {
        return false;
    }
    stat.comm = text.substr(open + 2, close - open - 2);
    std::string_view rest = text.substr(close + 2);
    std::string_view field;
    if (!takeField(rest, field) || field.size() != 1) {
        return false;
    }
    stat.state = field[0];
    for (int position = 0; position < kStartTimeAfterState; ++position) {
        if (!takeField(rest, field)) {
            return false;
        }
    }
    return parseWholeNumber(field, stat.starttime);
}

bool isOtherLiveProcess(const ProcStat& stat, std::string_view comm, pid_t self) {
    const bool hasEnded = stat.state == 'Z' || stat.state == 'X' || stat.state == 'x';
    return stat.pid != self && !hasEnded && stat.comm == comm;
}

std::size_t joinArguments(char* text, std::size_t size) {
    while (size > 0 && text[size - 1] == '\0') {
        --size;
    }
    std::replace(text, text + size, '\0', ' ');
    return size;
}

} // namespace platform

int get_proc_info_by_pid(pid_t pid, statstruct_proc* info) {
    char buffer[platform::kStatSize];
    platform::ProcStat stat = {};
    if (pid <= 0 || info == nullptr ||
        !platform::readProcStat(platform::procPath(pid, "/stat").c_str(), buffer, stat)) {
        return -1;
    }
    info->pid = stat.pid;
    platform::copyToField(info->exeName, stat.comm);
    info->starttime = stat.starttime;
    return 0;
}

int get_proc_cmdline(pid_t pid, char* buffer, int* length) {
    if (buffer == nullptr || length == nullptr || *length <= 0) {
        return -1;
    }
    const auto room = static_cast<std::size_t>(*length) - 1;
    buffer[0] = '\0';
    *length = 0;
    if (pid <= 0) {
        return -1;
    }
    const ssize_t count =
        platform::readFileOnce(platform::procPath(pid, "/cmdline").c_str(), buffer, room);
    const std::size_t size =
        count > 0 ? platform::joinArguments(buffer, static_cast<std::size_t>(count)) : 0;
    buffer[size] = '\0';
    *length = static_cast<int>(size);
    return count < 0 ? -1 : 0;
}

int process_comm_pid(int) {
    char ownBuffer[platform::kStatSize];
    platform::ProcStat own = {};
    platform::ProcDirectory directory;
    if (!platform::readProcStat("/proc/self/stat", ownBuffer, own) || !directory.isOpen()) {
        return 0;
    }
    platform::ProcDirectory::Entry entry = {};
    while (directory.next(entry)) {
        const pid_t pid = platform::pidFromName(entry.name);
        char buffer[platform::kStatSize];
        platform::ProcStat stat = {};
        if (pid > 0 &&
            platform::readProcStat(platform::procPath(pid, "/stat").c_str(), buffer, stat) &&
            platform::isOtherLiveProcess(stat, own.comm, own.pid)) {
            return pid;
        }
    }
    return 0;
}
