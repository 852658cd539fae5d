// Supervision passes that hold the main loop: their polls wait for a pid file that never comes.
// They need a machine that has been up for more than 90 seconds.

#ifndef OVARD_TESTS_SYSTEM_HELD_PASS_H
#define OVARD_TESTS_SYSTEM_HELD_PASS_H

#include <cstdint>
#include <string>
#include <vector>

#include "records/reqcmd.h"
#include "tests/system/Daemon.h"

namespace systemtest {

/// The application that holds the passes: alive, but without the pid file that its request names.
inline constexpr const char* kSilentName = "silent";
inline constexpr const char* kSilentOptions = "--no-pidfile";
inline constexpr const char* kSilentPidFile = "/tmp/silent.pid";

/// The request with a restart policy by which a failed application is left as it is.
reqcmd withoutRestart(reqcmd request);

/// Words for a monitor whose first polls begin soon and last `pollSec` seconds, 1 to 60. Its
/// verbosity is 4 unless a later word says otherwise.
std::vector<std::string> wordsForPolls(int pollSec);

/// The first pass that polls has come to its end.
bool pollsAreOver();

/// Waits for the end of the first polls of a monitor with verbosity 6 or more, whose application
/// was just launched; returns how long they lasted, -1 when they did not end.
std::int64_t durationOfPollsMs(const Daemon& monitor);

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_HELD_PASS_H
