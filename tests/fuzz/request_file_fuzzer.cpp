// Request files: the input is the content of the file named by option -x. Its records are read,
// handed over, executed, and written again to a file like the one named by option -f.

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>

#include "appmanager/AppManager.h"
#include "appmanager/RequestFiles.h"
#include "platform/Settings.h"
#include "tests/fuzz/MonitorScene.h"
#include "tests/fuzz/PrivateFile.h"
#include "tests/fuzz/Require.h"
#include "tests/unit/appmanager/AppManagerTestAccess.h"

using fuzz::MonitorScene;
using fuzz::PrivateFile;
using fuzz::require;

namespace {

/// The records as they lie in memory.
template <typename Records> std::string imageOf(const Records& records) {
    std::string image;
    for (const reqcmd& record : records) {
        image.append(reinterpret_cast<const char*>(&record), sizeof record);
    }
    return image;
}

/// The start-up thread's work, on this thread: every record reaches the manager.
void handOver(MonitorScene& scene, const std::string& path, std::string_view wholeRecords) {
    pszExecuteAppConfigurationFile = path.c_str();
    require(startupAppConfigurationProcess(nullptr) == nullptr, "the thread returns nothing");
    pszExecuteAppConfigurationFile = nullptr;
    require(imageOf(AppManagerTestAccess::queued(scene.manager())) == wholeRecords,
            "every whole record is queued, in order");
    require(file_request_list.empty(), "nothing is left to hand over");
}

void recordAgain(MonitorScene& scene, const std::deque<reqcmd>& records,
                 std::string_view wholeRecords) {
    const PrivateFile copy;
    for (const reqcmd& record : records) {
        require(scene.manager().appendAppConfigurationFile(copy.path().c_str(), 0, record) == 0,
                "a record is appended");
    }
    require(copy.content() == wholeRecords, "what is recorded is what was read");
}

void execute(MonitorScene& scene, const std::deque<reqcmd>& records) {
    const auto answerable = std::count_if(records.begin(), records.end(),
                                          [](const reqcmd& record) { return record.nowait == 0; });
    try {
        scene.executeQueue(static_cast<std::size_t>(answerable));
    } catch (const fakes::LeaveProcessCalled&) {
        // A monitor that cannot fork restarts the machine, and ends.
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr int kAllTraces = 9;
    const std::string_view content(reinterpret_cast<const char*>(data), size);
    const std::string_view wholeRecords = content.substr(0, size - size % sizeof(reqcmd));
    MonitorScene scene(kAllTraces);
    const PrivateFile file(content);

    std::deque<reqcmd> records;
    require(readAppConfigurationFileList(file.path().c_str(), 0, records) == 0, "a file is read");
    require(imageOf(records) == wholeRecords, "every whole record is read, in order");
    handOver(scene, file.path(), wholeRecords);
    execute(scene, records);
    recordAgain(scene, records, wholeRecords);
    return 0;
}
