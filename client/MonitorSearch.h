// Whether a monitor runs, told from the kernel's table of local sockets.

#ifndef OVARD_CLIENT_MONITOR_SEARCH_H
#define OVARD_CLIENT_MONITOR_SEARCH_H

#include "client/OvardClient.h"

namespace ovard_client {

/// As findMonitor, with the table read from the file `tablePath`, in the format of /proc/net/unix.
/// Unknown when the file cannot be read.
MonitorState findListener(const char* socketPath, const char* tablePath) noexcept;

} // namespace ovard_client

#endif // OVARD_CLIENT_MONITOR_SEARCH_H
