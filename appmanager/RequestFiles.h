// Request files: plain sequences of `reqcmd` records, 1216 bytes each, as they lie in memory.
//
// The file named by option -x is replayed once at start-up; the file named by -f receives a copy of
// every request from the control socket, so that it can serve as the -x of a later run.

#ifndef OVARD_APPMANAGER_REQUEST_FILES_H
#define OVARD_APPMANAGER_REQUEST_FILES_H

#include <deque>

#include "records/reqcmd.h"

/// Requests read from the start-up file and not yet handed over. Start-up thread only.
extern std::deque<reqcmd> file_request_list;

/// Appends every whole record of the file `path` to `queue`; a trailing fragment is ignored. The
/// `long` has no effect; callers pass 0. Returns 0, also for an empty file; -1 when `path` is null,
/// -2 when the file could not be opened.
int readAppConfigurationFileList(const char* path, long unused, std::deque<reqcmd>& queue);

/// Body of the start-up thread: hands the requests of `pszExecuteAppConfigurationFile` over, one
/// every two seconds, until there are none or the monitor is shut down. Returns null.
void* startupAppConfigurationProcess(void* unused);

#endif // OVARD_APPMANAGER_REQUEST_FILES_H
