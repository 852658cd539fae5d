// The application that the tests of launch and identification start: the process that is launched,
// and the daemon that it leaves behind.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_DATA_SERVER_H
#define OVARD_TESTS_UNIT_APPMANAGER_DATA_SERVER_H

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string_view>

#include <gmock/gmock.h>

#include "tests/fakes/FakePlatform.h"
#include "tests/unit/LogLevels.h"

namespace launches {

// What nearly all of these tests name.
using fakes::world;
using levels::kLevelError;
using levels::kLevelInfo;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

inline constexpr pid_t kChild = 600; ///< between the monitor and the launched process
inline constexpr pid_t kLaunched = 601;
inline constexpr pid_t kDaemon = 602;

inline constexpr std::time_t kNow = 1700000000;
inline constexpr std::time_t kBoot = kNow - 10000;

inline constexpr const char* kServer = "/home/kelvo/root/data_server -p 5";

inline fakes::Process& addLaunched() {
    return world().addProcess(kLaunched, "data_server", kServer);
}

inline fakes::Process& addDaemon(std::string_view cmdline = kServer, std::uint64_t starttime = 0) {
    return world().addProcess(kDaemon, "data_server", cmdline, starttime);
}

/// Adds the launched process, which goes during sleep number `sleeps`; then its daemon is there.
inline void scriptDaemonAfter(int sleeps) {
    addLaunched();
    // The world runs copies of the hook: the count is theirs together.
    world().onSleep = [left = std::make_shared<int>(sleeps)](int) {
        if (--*left == 0) {
            world().process(kLaunched)->alive = false;
            addDaemon(kServer, 12300).pidFilename = "/tmp/new.pid.602";
        }
    };
}

/// Adds the launched process, which goes during the first sleep and leaves nothing behind.
inline void scriptNoDaemon() {
    addLaunched();
    world().onSleep = [](int) { world().process(kLaunched)->alive = false; };
}

} // namespace launches

#endif // OVARD_TESTS_UNIT_APPMANAGER_DATA_SERVER_H
