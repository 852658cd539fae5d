// What /proc/PID/stat and /proc/PID/cmdline say, as functions of their texts.

#ifndef OVARD_PLATFORM_LINUX_PROC_FACTS_H
#define OVARD_PLATFORM_LINUX_PROC_FACTS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace platform {

/// The fields of /proc/PID/stat that are used here. `comm` views the parsed text.
struct ProcStat {
    pid_t pid;
    std::string_view comm;
    char state; ///< 'R', 'S', 'Z' for a zombie, and so on
    std::uint64_t starttime;
};

/// Parses the text of a stat file. False when a field up to the start time is missing, not a number
/// or cut; `stat` is then undefined.
bool parseProcStat(std::string_view text, ProcStat& stat);

/// True when `stat` is of a process other than `self`, named `comm`, that has not ended.
bool isOtherLiveProcess(const ProcStat& stat, std::string_view comm, pid_t self);

/// Turns the `size` bytes of a cmdline file into one text: NULs at the end dropped, others replaced
/// by blanks. Returns its length; a terminating NUL is not added.
std::size_t joinArguments(char* text, std::size_t size);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_PROC_FACTS_H
