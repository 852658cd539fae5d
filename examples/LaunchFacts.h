// What a process was started with, for tests that check what the monitor hands over.

#ifndef OVARD_EXAMPLES_LAUNCH_FACTS_H
#define OVARD_EXAMPLES_LAUNCH_FACTS_H

#include <string>

namespace sample {

/// The state in which this process was started, one line "KEY=VALUE" per fact: launch_pid,
/// launch_ppid, launch_sid, cwd, umask (octal), fds (open descriptors in ascending order), fd.N
/// (what each refers to), SigBlk, SigIgn and SigCgt (hexadecimal masks), nice, oom_score_adj, argc,
/// arg.N. What cannot be read is "unknown"; a line feed in a value is shown as "\n". To be called
/// first thing in main, before anything is opened or changed.
std::string describeLaunch(int argc, const char* const* argv);

/// Writes `text` to the file `path` by way of `path`.tmp, mode 0644, so that readers never meet
/// half of it. False with errno on failure.
bool writeReport(const std::string& path, const std::string& text);

} // namespace sample

#endif // OVARD_EXAMPLES_LAUNCH_FACTS_H
