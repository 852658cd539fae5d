// A folder in which another user may have planted something, for the tests of what opens files
// there. Giving a file away and making a device take root.

#ifndef OVARD_TESTS_PLATFORM_PLANTED_FILES_H
#define OVARD_TESTS_PLATFORM_PLANTED_FILES_H

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Process.h"

namespace testsupport {

inline constexpr uid_t kAnotherUser = 65534;
inline const dev_t kZeroDevice = makedev(1, 5);

/// A folder that everybody may write to, and a file worth protecting.
class Planted : public testing::Test {
protected:
    Planted() {
        writeText(victim_, "precious");
        ::chmod(victim_.c_str(), 0600);
        ::chmod(directory_.path().c_str(), 0777);
    }

    void TearDown() override {
        EXPECT_EQ(readText(victim_), "precious");
        EXPECT_EQ(modeOf(victim_), 0600U);
    }

    std::string at(const std::string& name) const { return directory_.file(name); }

    /// A link to `target` that belongs to another user; false without the right to make it.
    bool plantLink(const std::string& target, const std::string& name) const {
        return ::symlink(target.c_str(), at(name).c_str()) == 0 &&
               ::lchown(at(name).c_str(), kAnotherUser, kAnotherUser) == 0;
    }

    /// A device without end; false without the right to make it or to open it there.
    bool plantDevice(const std::string& name) const {
        return ::mknod(at(name).c_str(), S_IFCHR | 0600, kZeroDevice) == 0 &&
               platform::UniqueFd(::open(at(name).c_str(), O_RDWR | O_CLOEXEC)).valid();
    }

    int writePidFile(int pid, const std::string& name) const {
        return set_pid_file_version(&pid, at(name).c_str(), kCreateForWriting, "1");
    }

    const TemporaryDirectory directory_;
    const std::string victim_ = at("victim");
};

} // namespace testsupport

#endif // OVARD_TESTS_PLATFORM_PLANTED_FILES_H
