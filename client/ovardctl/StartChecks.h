// What can be said of a start request before the monitor has it. Pure functions of the record, but
// for programWarning.

#ifndef OVARD_CLIENT_OVARDCTL_START_CHECKS_H
#define OVARD_CLIENT_OVARDCTL_START_CHECKS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "records/reqcmd.h"
#include "records/segments.h"

namespace ovardctl {

/// The monitor takes so many words of a command; the rest of it is ignored.
inline constexpr std::size_t kMostCommandWords = 40;

/// So many characters of a program's file name the system keeps as the name of its process.
inline constexpr std::size_t kProcessNameLength = 15;

/// The monitor publishes so many characters of an application's name.
inline constexpr std::size_t kPublishedNameLength = sizeof(application_record::name) - 1;

/// Most digits of a process id: Linux gives none above 4194304, on no machine. Where long is 32
/// bits wide it has at most 5, but files of requests are made for other machines too.
inline constexpr std::size_t kMostPidDigits = 7;

/// Most characters of a conventional pid-file name: behind it the file has "." and a process id,
/// and the monitor has to have room for all of it.
inline constexpr std::size_t kLongestConventionalPidFile =
    sizeof(reqcmd::pidfile) - 1 - (1 + kMostPidDigits);

/// The words of a command as the monitor splits it: at blanks, horizontal and vertical tabs and
/// form feeds. All of them, also beyond kMostCommandWords. They view `command`.
std::vector<std::string_view> commandWords(std::string_view command);

/// The program path of a command: its first word, empty when there is none. Views `command`.
std::string_view programOf(std::string_view command);

/// The name that a process of the program at this path has. Views `program`.
std::string_view processNameOf(std::string_view program);

/// The pid-file name that a program has by convention; `program` is its path, `meterRoot` the value
/// of METER_ROOT, null where it is not set.
std::string conventionalPidFile(std::string_view program, const char* meterRoot);

/// True when `pidFile` is the name that `program` has by convention, under any METER_ROOT. Each
/// process then writes a file of its own, that name with "." and its id behind it.
bool isConventionalPidFile(std::string_view pidFile, std::string_view program);

/// Why a conventional pid-file name does not serve, as the end of a sentence about it; empty for
/// one that does.
std::string conventionalPidFileProblem(std::string_view name);

/// Fills in the conventional pid-file name of the request's program. A name that does not serve
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
