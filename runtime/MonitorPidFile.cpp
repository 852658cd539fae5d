#include "runtime/MonitorPidFile.h"

#include <cstdlib>

#include "platform/ErrorOf.h"
#include "platform/Process.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "runtime/Globals.h"

namespace {

/// Write-only and create, in the flags of open.
constexpr int kFlags = 0x41;

constexpr std::size_t kPidTextSize = 32;

std::string pathWithoutPid() {
    const char* const root = std::getenv("METER_ROOT");
    return std::string("/tmp/pid") + (root == nullptr ? "" : root) + "/home/kelvo/root/ovard.pid";
}

} // namespace

MonitorPidFile::MonitorPidFile()
    : path_(pathWithoutPid()) {
    int pid = platform::currentProcessId();
    write(pid);
    name_ = path_ + '.' + platform::formatText(kPidTextSize, "%d", pid);
    pidfile = name_;
}

void MonitorPidFile::retry() {
    if (error_ != 0) {
        int pid = platform::currentProcessId();
        write(pid);
    }
}

/// The platform may change `pid` to the number by which it names the file, the same each time.
void MonitorPidFile::write(int& pid) {
    error_ = platform::errorOf(
        [&] { return set_pid_file_version(&pid, path_.c_str(), kFlags, version) == 0; });
}
