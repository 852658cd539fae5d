// The names and the contents of pid files.

#ifndef OVARD_PLATFORM_LINUX_PID_FILE_H
#define OVARD_PLATFORM_LINUX_PID_FILE_H

#include <sys/types.h>

#include <string_view>

namespace platform {

/// True when the first line of `text` is exactly `pid`, which is positive, and the second one
/// exactly `version`; an empty `version` accepts any. The end of the text ends a line too.
bool confirmsPidAndVersion(std::string_view text, pid_t pid, std::string_view version);

/// get_pid_filename with the folder `base` in place of "/tmp/pid" and `root`, null when unset, in
/// place of METER_ROOT.
int writtenPidFileName(std::string_view base, const char* root, pid_t pid, char* buffer,
                       int* length);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_PID_FILE_H
