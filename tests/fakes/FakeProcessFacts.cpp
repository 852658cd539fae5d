// The scripted /proc, pid files, and what a process does to itself at start-up.

#include <charconv>
#include <cstring>

#include "platform/Process.h"
#include "platform/Text.h"
#include "tests/fakes/FakePlatform.h"

using fakes::joined;
using fakes::Lock;
using fakes::world;

namespace {

/// One walk through /proc: what it listed when it was opened.
struct ProcListing {
    std::vector<fakes::ProcEntry> entries;
    std::size_t next = 0;
};

ProcListing listProc() {
    ProcListing listing;
    listing.entries = world().otherProcEntries;
    for (const fakes::Process& process : world().processes) {
        if (process.alive) {
            const std::string name =
                process.direntName.empty() ? std::to_string(process.pid) : process.direntName;
            listing.entries.push_back({name, process.direntType});
        }
    }
    return listing;
}

/// The process `pid` when it is alive, else null.
const fakes::Process* liveProcess(pid_t pid) {
    const fakes::Process* const found = world().process(pid);
    return found != nullptr && found->alive ? found : nullptr;
}

std::string takeLine(std::string& text) {
    const std::size_t end = text.find('\n');
    std::string line = text.substr(0, end);
    text.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

} // namespace

int get_proc_info_by_pid(pid_t pid, statstruct_proc* info) {
    std::function<void(pid_t)> hook;
    {
        const Lock lock;
        hook = world().onFacts;
    }
    if (hook) {
        hook(pid);
    }
    const Lock lock;
    const fakes::Process* const found = liveProcess(pid);
    if (found == nullptr || !found->factsAvailable || info == nullptr) {
        return -1;
    }
    info->pid = found->pid;
    platform::copyToField(info->exeName, found->exeName);
    info->starttime = found->starttime;
    return 0;
}

int get_proc_cmdline(pid_t pid, char* buffer, int* length) {
    const Lock lock;
    if (buffer == nullptr || length == nullptr || *length <= 0) {
        return -1;
    }
    const auto room = static_cast<std::size_t>(*length) - 1;
    const fakes::Process* const found = liveProcess(pid);
    const bool available = found != nullptr && found->cmdlineAvailable;
    const std::string text =
        available && !found->zombie ? found->cmdline.substr(0, room) : std::string();
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    *length = static_cast<int>(text.size());
    return available ? 0 : -1;
}

int get_pid_filename(const int* pid, char* buffer, int* length) {
    const Lock lock;
    if (pid == nullptr || buffer == nullptr || length == nullptr) {
        return -1;
    }
    const fakes::Process* const found = liveProcess(*pid);
    if (found == nullptr || found->pidFilename.empty() ||
        static_cast<std::int64_t>(found->pidFilename.size()) >= *length) {
        return -1;
    }
    std::memcpy(buffer, found->pidFilename.c_str(), found->pidFilename.size() + 1);
    *length = static_cast<int>(found->pidFilename.size());
    return 0;
}

int read_pid_file_version(const appinfo& record, const char* path, const char* version) {
    std::function<void(const char*, const char*)> hook;
    {
        const Lock lock;
        hook = world().onPidFileRead;
    }
    if (hook) {
        hook(path, version);
    }
    const Lock lock;
    if (path == nullptr || world().pidFiles.count(path) == 0) {
        return world().pidFileRefusal;
    }
    std::string content = world().pidFiles[path];
    const std::string pidLine = takeLine(content);
    const std::string versionLine = takeLine(content);
    const std::string expected = version != nullptr ? version : "";
    const bool confirmed = record.pid > 0 && pidLine == std::to_string(record.pid) &&
                           (expected.empty() || versionLine == expected);
    return confirmed ? 0 : world().pidFileRefusal;
}

int set_pid_file_version(int* pid, const char* path, int flags, const char* version) {
    const Lock lock;
    if (pid == nullptr || path == nullptr) {
        return -1;
    }
    const std::string text = version != nullptr ? version : "";
    world().record(joined("pidfile", *pid, path, flags, text));
    if (world().setPidFileErrno != 0) {
        errno = world().setPidFileErrno;
        return -1;
    }
    if (world().pidReadBack != 0) {
        *pid = world().pidReadBack;
    }
    const std::string name = std::string(path) + "." + std::to_string(*pid);
    world().pidFiles[name] = std::to_string(*pid) + "\n" + text + "\n";
    return 0;
}

int process_comm_pid(int) {
    const Lock lock;
    return world().otherInstancePid;
}

int OOM_Killer_set_oom_adj(int adjustment) {
    const Lock lock;
    world().record(joined("oom", adjustment));
    return world().oomResult;
}

void daemonize_withSTDFILE_waitforInterprocessNamedMutex(InterprocessWaitable* mutex) {
    const Lock lock;
    world().record("daemonize");
    world().daemonizedWith = mutex;
}

namespace platform {

ProcDirectory::ProcDirectory()
    : handle_(nullptr) {
    const Lock lock;
    ++world().procScans;
    if (world().procCanBeOpened) {
        handle_ = new ProcListing(listProc());
    } else {
        errno = EMFILE;
    }
}

ProcDirectory::~ProcDirectory() {
    delete static_cast<ProcListing*>(handle_);
}

bool ProcDirectory::next(Entry& entry) {
    auto* const listing = static_cast<ProcListing*>(handle_);
    if (listing == nullptr || listing->next == listing->entries.size()) {
        return false;
    }
    const fakes::ProcEntry& found = listing->entries[listing->next++];
    entry = {found.type, found.name.c_str()};
    return true;
}

pid_t pidFromName(const char* name) {
    const char* const end = name + std::strlen(name);
    pid_t pid = 0;
    const auto [stop, error] = std::from_chars(name, end, pid);
    return error == std::errc() && stop == end && pid > 0 ? pid : 0;
}

} // namespace platform
