#include "tests/target/Furnishing.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <list>
#include <system_error>

#include "platform/UniqueFd.h"
#include "tests/target/Network.h"

namespace target {
namespace {

struct PrivateFolder {
    const char* path;
    mode_t mode;
};

constexpr PrivateFolder kPrivateFolders[] = {{"/tmp", 01777},    {"/dev/shm", 01777},
                                             {"/home", 0755},    {"/mnt", 0755},
                                             {"/var/log", 0755}, {"/var/lib/dhcp", 0755}};

void require(bool succeeded, const std::string& what) {
    if (!succeeded) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

bool isDirectory(const std::string& path) {
    struct stat facts = {};
    return ::stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

/// Creates a directory and those above it.
void makeDirectory(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        (void)::mkdir(path.substr(0, slash).c_str(), 0755); // the last one tells
    }
    require(::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST, path);
}

void makeFile(const std::string& path) {
    require(platform::openFile(path.c_str(), O_WRONLY | O_CREAT, 0644).valid(), path);
}

void makeLink(const char* target, const std::string& path) {
    require(::symlink(target, path.c_str()) == 0, path);
}

void mountMemory(const std::string& folder, const std::string& options) {
    require(::mount("tmpfs", folder.c_str(), "tmpfs", MS_NOSUID, options.c_str()) == 0, folder);
}

void bind(const std::string& from, const std::string& to) {
    require(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, to);
}

/// A file or directory that stays good however often its path is mounted over.
class Held {
public:
    explicit Held(const std::string& path)
        : path_(path)
        , fd_(::open(path.c_str(), O_PATH | O_CLOEXEC)) {
        require(fd_.valid(), path);
    }

    const std::string& path() const { return path_; }

    /// A path that leads to it.
    std::string wayIn() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

    /// Has it at its own path again.
    void putBack() const {
        if (isDirectory(wayIn())) {
            makeDirectory(path_);
        } else {
            makeDirectory(path_.substr(0, path_.rfind('/')));
            makeFile(path_);
        }
        bind(wayIn(), path_);
    }

private:
    std::string path_;
    platform::UniqueFd fd_;
};

/// Whether a private folder is going to hide what lies there.
bool isGoingToBeHidden(const std::string& path) {
    return std::any_of(std::begin(kPrivateFolders), std::end(kPrivateFolders),
                       [&](const PrivateFolder& folder) {
                           const std::string inside = std::string(folder.path) + "/";
                           return path.compare(0, inside.size(), inside) == 0;
                       });
}

void makeDevices() {
    const Held devices("/dev");
    mountMemory("/dev", "mode=755");
    makeDirectory("/dev/pts");
    makeDirectory("/dev/shm");
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const std::string path = std::string("/dev/") + name;
        makeFile(path);
        bind(devices.wayIn() + "/" + name, path);
    }
    makeLink("/proc/self/fd", "/dev/fd");
    makeLink("/proc/self/fd/0", "/dev/stdin");
    makeLink("/proc/self/fd/1", "/dev/stdout");
    makeLink("/proc/self/fd/2", "/dev/stderr");
    require(::mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666,mode=620") == 0,
            "/dev/pts");
    makeLink("pts/ptmx", "/dev/ptmx");
    makeFile("/dev/watchdog");
}

/// Puts a private folder, which is kept in `kept` unless that is null, over the machine's.
void cover(const PrivateFolder& folder, const Held* kept) {
    makeDirectory(folder.path);
    if (kept == nullptr) {
        const char* const mode = folder.mode == 0755 ? "mode=755" : "mode=1777";
        mountMemory(folder.path, mode);
        return;
    }
    const std::string place = kept->wayIn() + folder.path;
    makeDirectory(place);
    require(::chmod(place.c_str(), folder.mode) == 0, place);
    bind(place, folder.path);
}

/// Has what the watchdog is fed kept like a private folder.
void keepWatchdog(const Held& kept) {
    makeDirectory(kept.wayIn() + "/dev");
    const std::string place = kept.wayIn() + "/dev/watchdog";
    makeFile(place);
    bind(place, "/dev/watchdog");
}

} // namespace

void furnishSandbox(const Furniture& furniture) {
    require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "/");
    require(::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
            "/proc");
    std::list<Held> kept;
    if (!furniture.keptFolder.empty()) {
        kept.emplace_back(furniture.keptFolder);
    }
    std::list<Held> brought;
    for (const std::string& path : furniture.brought) {
        if (isGoingToBeHidden(path)) {
            brought.emplace_back(path);
        }
    }
    makeDevices();
    for (const PrivateFolder& folder : kPrivateFolders) {
        cover(folder, kept.empty() ? nullptr : &kept.front());
    }
    if (!kept.empty()) {
        keepWatchdog(kept.front());
    }
    for (const Held& one : brought) {
        one.putBack();
    }
    require(bringUp("lo", nullptr) && makeInterfacePair() && bringUp("eth0", "192.0.2.1") &&
                bringUp("eth1", "198.51.100.1"),
            "interfaces");
}

} // namespace target
