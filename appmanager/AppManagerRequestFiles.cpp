// Recording of requests into a file, and replay of a file at start-up.

#include <fcntl.h>
#include <sys/types.h>

#include <cerrno>

#include "appmanager/AppManager.h"
#include "appmanager/RequestFiles.h"
#include "platform/Memory.h"
#include "platform/Settings.h"
#include "platform/Thread.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/UniqueFd.h"

std::deque<reqcmd> file_request_list;

namespace {

constexpr int kOpenAttempts = 3;
constexpr mode_t kFileMode = 0660;
constexpr int kHandOverPauseMs = 1000;

/// How many records are read between two looks whether there is memory left: fewer than fit into
/// the reserve.
constexpr int kRecordsPerLook = 32;
static_assert(kRecordsPerLook * sizeof(reqcmd) < platform::kMemoryReserve);

/// Records of one file that are replayed: a source without end must not fill the memory. At two
/// seconds each they take a day and a half.
constexpr int kMostRecords = 65536;

/// Opens `path`, tried up to three times. A fifo in its place neither blocks nor starves the
/// caller.
platform::UniqueFd openPersistently(const char* path, int flags) {
    platform::UniqueFd file;
    for (int attempt = 0; attempt < kOpenAttempts && !file.valid(); ++attempt) {
        file = platform::openNamedFile(path, flags, kFileMode);
        if (!file.valid()) {
            const int error = errno;
            platform::yieldProcessor();
            errno = error;
        }
    }
    return file;
}

bool readRecord(int file, reqcmd& record) {
    return platform::readFully(file, &record, sizeof record) == static_cast<ssize_t>(sizeof record);
}

/// Whether a queue of so many records may grow, its table, which then doubles, included.
bool mayGrow(std::size_t records) {
    return platform::memoryIsLeft(records * 4 * sizeof(void*));
}

/// Sleeps one second unless the monitor is shut down; false when it is shut down by then.
bool pauseUnlessShutDown() {
    if (g_bDaemonShutdown == 0) {
        platform::sleepMilliseconds(kHandOverPauseMs);
    }
    return g_bDaemonShutdown == 0;
}

/// Shows the request about to be handed over.
void traceHandOver(AppManager& manager, int count, const reqcmd& request) {
    if (g_verbose > 6) {
        // Deliberate: the time shown is that of the epoch.
        platform::trace(true, "%s %d) file_request_list Command:\n",
                        platform::localTimeText(0).c_str(), count);
        manager.displayRequestCmd(request);
    }
}

} // namespace

int AppManager::appendAppConfigurationFile(const char* path, long /*unused*/,
                                           const reqcmd& request) {
    static std::int32_t writeConfigurationCount = 0;
    if (path == nullptr) {
        return -1;
    }
    const platform::UniqueFd file = openPersistently(path, O_WRONLY | O_CREAT | O_APPEND);
    if (!file.valid()) {
        platform::trace(true, "Error %d opening %s for appending REQUEST_CMD={action=%d,%.64s}\n",
                        errno, path, request.action, request.name);
        return -2;
    }
    ++writeConfigurationCount;
    errno = 0;
    const ssize_t written = ::write(file.get(), &request, sizeof request);
    if (written != static_cast<ssize_t>(sizeof request)) {
        platform::trace(verbose != 0, "%d) Error %d writing to %s, REQUEST_CMD={action=%d,%.64s}\n",
                        writeConfigurationCount, errno, path, request.action, request.name);
    } else {
        platform::trace(verbose > 4, "%d) writing to %s, REQUEST_CMD={action=%d,%.64s}\n",
                        writeConfigurationCount, path, request.action, request.name);
    }
    platform::yieldProcessor();
    return 0;
}

int readAppConfigurationFileList(const char* path, long /*unused*/, std::deque<reqcmd>& queue) {
    static std::int32_t readConfigurationCount = 0;
    if (path == nullptr) {
        return -1;
    }
    const platform::UniqueFd file = openPersistently(path, O_RDONLY);
    if (!file.valid()) {
        platform::trace(true, "Error %d opening %s for reading\n", errno, path);
        return -2;
    }
    reqcmd record;
    for (int count = 0; count < kMostRecords && readRecord(file.get(), record); ++count) {
        platform::admitCancellation(); // Nothing bounds the length of a file.
        if (count % kRecordsPerLook == 0 && !mayGrow(queue.size())) {
            platform::trace(true, "Error %d reading %s after %d requests\n", ENOMEM, path, count);
            break;
        }
        queue.push_back(record);
        ++readConfigurationCount;
        platform::trace(verbose > 4, "%d) reading %s REQUEST_CMD={action=%d,%.64s}\n",
                        readConfigurationCount, path, record.action, record.name);
        platform::yieldProcessor();
    }
    return 0;
}

void* startupAppConfigurationProcess(void* /*unused*/) {
    platform::disableCancellation();
    AppManager& manager = *AppManager::Instance(g_verbose);
    // A missing file leaves nothing to hand over.
    (void)readAppConfigurationFileList(pszExecuteAppConfigurationFile, 0, file_request_list);
    if (pauseUnlessShutDown()) {
        (void)pauseUnlessShutDown();
    }
    for (int count = 1; !file_request_list.empty(); ++count) {
        traceHandOver(manager, count, file_request_list.front());
        manager.processRequest(file_request_list.front());
        file_request_list.pop_front();
        if (g_bDaemonShutdown != 0) {
            break;
        }
        platform::sleepMilliseconds(kHandOverPauseMs);
        if (g_bDaemonShutdown == 0) {
            platform::sleepMilliseconds(kHandOverPauseMs);
        }
    }
    return nullptr;
}
