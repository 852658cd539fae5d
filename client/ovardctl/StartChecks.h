// What can be said of a start request before the monitor has it. Pure functions of the record, but
// for programWarning.

#ifndef OVARD_CLIENT_OVARDCTL_START_CHECKS_H
#define OVARD_CLIENT_OVARDCTL_START_CHECKS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "records/reqcmd.h"

namespace ovardctl {

/// The monitor takes so many words of a command; the rest of it is ignored.
inline constexpr std::size_t kMostCommandWords = 40;

/// The words of a command as the monitor splits it: at blanks, horizontal and vertical tabs and
/// form feeds. All of them, also beyond kMostCommandWords. They view `command`.
std::vector<std::string_view> commandWords(std::string_view command);

/// The program path of a command: its first word, empty when there is none. Views `command`.
std::string_view programOf(std::string_view command);

/// The pid-file name that a program has by convention; `program` is its path, `meterRoot` the value
/// of METER_ROOT, null where it is not set.
std::string conventionalPidFile(std::string_view program, const char* meterRoot);

/// Fills in the conventional pid-file name of the request's program. A name that does not fit
/// leaves the field empty: a warning is returned then, an empty text otherwise.
std::string fillPidFile(reqcmd& request, const char* meterRoot);

/// Where a program lies, as the monitor sees it.
enum class ProgramPlace {
    Found,    ///< the monitor finds a daemon that runs from there
    Outside,  ///< outside the directories in which the monitor looks for daemons
    Excluded, ///< in one of them, but left alone there
};

/// `program` is the path that a command names; a relative path is outside.
ProgramPlace placeOf(std::string_view program);

/// Warnings that a start request deserves, each a text without a line feed; none for a command
/// without a word.
std::vector<std::string> startWarnings(const reqcmd& request);

/// What keeps the program of a start request from running on this machine, as a warning without a
/// line feed: it is missing, not executable, no plain file, or named by no absolute path. Empty
/// where nothing does or nothing can be seen, and for all other requests. Looks into the file
/// system; for a request that is about to be sent, not for one that is written for another machine.
std::string programWarning(const reqcmd& request);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_START_CHECKS_H
