// The descriptors of the running test.

#ifndef OVARD_TESTS_UNIT_OPEN_DESCRIPTORS_H
#define OVARD_TESTS_UNIT_OPEN_DESCRIPTORS_H

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

/// Descriptors that are open in this process, in order, but for the one that lists them.
inline std::vector<int> openDescriptors() {
    std::vector<int> found;
    DIR* const directory = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(directory)) {
        const int fd = entry->d_name[0] == '.' ? -1 : std::atoi(entry->d_name);
        if (fd >= 0 && fd != ::dirfd(directory)) {
            found.push_back(fd);
        }
    }
    ::closedir(directory);
    std::sort(found.begin(), found.end());
    return found;
}

#endif // OVARD_TESTS_UNIT_OPEN_DESCRIPTORS_H
