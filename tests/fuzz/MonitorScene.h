// A manager in a fresh scripted world, for one fuzz input, and what must hold of both at any time.

#ifndef OVARD_TESTS_FUZZ_MONITOR_SCENE_H
#define OVARD_TESTS_FUZZ_MONITOR_SCENE_H

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "appmanager/AppManager.h"
#include "records/reqcmd.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/fuzz/Input.h"

namespace fuzz {

/// First pid of the processes that an input makes.
inline constexpr pid_t kFirstPid = 5000;

/// How long the machine has run when a scene begins, in seconds.
inline constexpr std::int64_t kUptimeSec = 10000;

/// A pid of an input's own processes.
pid_t readPid(Input& input);

/// A request in the form: action, port type, port number, priority, restart policy, life limit (a
/// figure each), bits for keepalive, nowait, heartbeat; lines for name, command, pid file, version.
/// A text that fills its field has no NUL there.
reqcmd readRequest(Input& input);

class MonitorScene {
public:
    /// `verbosity` is that of the manager and of the publisher. Where `uptimeSec` is -1 the uptime
    /// cannot be read, and the publisher knows no boot time.
    explicit MonitorScene(int verbosity = 0, std::int64_t uptimeSec = kUptimeSec);
    ~MonitorScene();
    MonitorScene(const MonitorScene&) = delete;
    MonitorScene& operator=(const MonitorScene&) = delete;

    AppManager& manager() { return *AppManager::m_pInstance; }

    /// Adds a process: pid, bits (a zombie, ignores SIGTERM, hides its command line, hides its
    /// facts), the number of sleeps before it appears and of those until it ends (0: never), and
    /// its start in seconds after the boot (a figure each); lines for name, command line, pid file.
    void addProcess(Input& input);

    /// Executes everything that is queued, and examines the replies. `answerable`: at most so many.
    void executeQueue(std::size_t answerable);

    /// Examines the manager, and what it did since the last time, which is then forgotten.
    void examine();

private:
    /// When a process appears and ends, in sleeps from now; 0: neither.
    struct Fate {
        pid_t pid;
        int appearsAfter;
        int endsAfter;
    };

    void onSleep();
    void examineReplies(std::size_t answerable);

    std::vector<Fate> fates_;
};

/// Everything that holds of an entry of the registry.
void examineEntry(const appinfo& entry);

} // namespace fuzz

#endif // OVARD_TESTS_FUZZ_MONITOR_SCENE_H
