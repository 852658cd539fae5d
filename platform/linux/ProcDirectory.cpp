#include <dirent.h>

#include <charconv>
#include <cstring>

#include "platform/Process.h"

namespace platform {

ProcDirectory::ProcDirectory()
    : handle_(::opendir("/proc")) {}

ProcDirectory::~ProcDirectory() {
    if (handle_ != nullptr) {
        ::closedir(static_cast<DIR*>(handle_));
    }
}

bool ProcDirectory::next(Entry& entry) {
    if (handle_ == nullptr) {
        return false;
    }
    const dirent* found = ::readdir(static_cast<DIR*>(handle_));
    if (found == nullptr) {
        return false;
    }
    entry = {found->d_type, found->d_name};
    return true;
}

pid_t pidFromName(const char* name) {
    const char* end = name + std::strlen(name);
    pid_t pid = 0;
    const auto [stop, error] = std::from_chars(name, end, pid);
    return error == std::errc() && stop == end && pid > 0 ? pid : 0;
}

} // namespace platform
