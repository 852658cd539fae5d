#include "platform/System.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Settings.h"
#include "platform/UniqueFd.h"

namespace {

using namespace testsupport;

// --- processes ---

TEST(Processes, AreForkedAwaitedAndLeft) {
    const pid_t child = platform::forkProcess();
    if (child == 0) {
        platform::leaveProcess(platform::currentProcessId() == ::getpid() ? 7 : 8);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    ASSERT_EQ(platform::waitForProcess(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(platform::waitForProcess(child, &status, 0), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(Processes, LeaveWithoutTheirExitHandlers) {
    EXPECT_EQ(runInChild([]() -> int {
                  (void)std::atexit([] { ::_exit(9); });
                  platform::leaveProcess(7);
              }),
              7);
}

TEST(Processes, EndTheMonitorWithItsExitHandlers) {
    EXPECT_EQ(runInChild([]() -> int {
                  (void)std::atexit([] { ::_exit(9); });
                  platform::exitMonitor(7);
              }),
              9);
    EXPECT_EQ(runInChild([]() -> int {
                  g_exitMonitor = [](int status) { ::_exit(status + 1); };
                  platform::exitMonitor(7);
              }),
              8);
}

TEST(Processes, BecomeAnotherProgram) {
    EXPECT_EQ(runInChild([] {
                  char program[] = "/bin/sh";
                  char option[] = "-c";
                  char command[] = "exit 5";
                  char* const arguments[] = {program, option, command, nullptr};
                  return platform::executeProgram(program, arguments);
              }),
              5);
    char missing[] = "/nowhere/app";
    char* const arguments[] = {missing, nullptr};
    EXPECT_EQ(platform::executeProgram(missing, arguments), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Processes, AreSignalledOneByOneOnly) {
    for (const pid_t pid : {0, -1, -static_cast<int>(::getpid()), INT_MIN}) {
        errno = 0;
        EXPECT_EQ(platform::sendSignal(pid, 0), -1) << pid;
        EXPECT_EQ(errno, EINVAL) << pid;
    }
    EXPECT_EQ(platform::sendSignal(::getpid(), 0), 0);
    EXPECT_EQ(platform::sendSignal(INT_MAX, 0), -1);
    EXPECT_EQ(errno, ESRCH);
    const pid_t child = startChild([] {
        ::pause();
        return 0;
    });
    EXPECT_EQ(platform::sendSignal(child, SIGKILL), 0);
    EXPECT_EQ(awaitChild(child), 128 + SIGKILL);
}

TEST(Processes, HaveAPriority) {
    const ChildGuard child(startChild([] {
        ::pause();
        return 0;
    }));
    EXPECT_EQ(platform::setProcessPriority(child.pid(), 5), 0);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(child.pid())), 5);
    EXPECT_EQ(platform::setProcessPriority(INT_MAX, 5), -1);
    EXPECT_EQ(errno, ESRCH);
}

// --- descriptors ---

TEST(PipeCalls, PassBytesAndCloseOnExec) {
    int ends[2];
    ASSERT_EQ(platform::openPipe(ends), 0);
    EXPECT_EQ(::fcntl(ends[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(ends[1], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(platform::writeDescriptor(ends[1], "1234", 4), 4);
    EXPECT_EQ(platform::closeDescriptor(ends[1]), 0);
    EXPECT_EQ(platform::closeDescriptor(ends[1]), -1);
    EXPECT_EQ(errno, EBADF);
    char buffer[8];
    EXPECT_EQ(platform::readDescriptor(ends[0], buffer, sizeof buffer), 4) << "up to the end";
    EXPECT_EQ(std::string(buffer, 4), "1234");
    EXPECT_EQ(platform::readDescriptor(ends[0], buffer, sizeof buffer), 0);
    EXPECT_EQ(platform::closeDescriptor(ends[0]), 0);
    EXPECT_EQ(platform::readDescriptor(ends[0], buffer, 1), -1);
    EXPECT_EQ(platform::writeDescriptor(ends[0], buffer, 1), -1);
}

TEST(PipeCalls, ReadOnUntilAllHasCome) {
    int ends[2];
    ASSERT_EQ(platform::openPipe(ends), 0);
    const platform::UniqueFd reader(ends[0]);
    platform::UniqueFd writer(ends[1]);
    const ChildGuard child(startChild([&] {
        for (const char* part : {"12", "34"}) {
            (void)platform::writeDescriptor(writer.get(), part, 2);
            ::usleep(2000);
        }
        return 0;
    }));
    char buffer[4];
    EXPECT_EQ(platform::readDescriptor(reader.get(), buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "1234");
}

// --- files ---

TEST(FileCalls, RemoveAndLookForFiles) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("x");
    writeText(path, "");
    EXPECT_TRUE(platform::pathExists(path.c_str()));
    EXPECT_TRUE(platform::pathExists(directory.path().c_str()));
    EXPECT_EQ(platform::removeFile(path.c_str()), 0);
    EXPECT_FALSE(platform::pathExists(path.c_str()));
    EXPECT_EQ(platform::removeFile(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FileCalls, IdentityIsThatOfTheFileAndNotOfItsName) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("x");
    const std::string moved = directory.file("y");
    EXPECT_FALSE(platform::identifyFile(path.c_str()).isKnown());
    writeText(path, "");
    const platform::FileIdentity first = platform::identifyFile(path.c_str());
    EXPECT_TRUE(first.isKnown());
    ASSERT_EQ(std::rename(path.c_str(), moved.c_str()), 0);
    writeText(path, "");
    EXPECT_TRUE(platform::isSameFile(platform::identifyFile(moved.c_str()), first));
    EXPECT_FALSE(platform::isSameFile(platform::identifyFile(path.c_str()), first));
}

TEST(FileCalls, UnknownFileIsTheSameAsNoOther) {
    EXPECT_FALSE(platform::isSameFile({}, {}));
    EXPECT_FALSE(platform::isSameFile({}, {1, 2}));
    EXPECT_FALSE(platform::isSameFile({1, 2}, {}));
    EXPECT_FALSE(platform::isSameFile({1, 2}, {1, 3}));
    EXPECT_FALSE(platform::isSameFile({1, 2}, {3, 2}));
    EXPECT_TRUE(platform::isSameFile({1, 2}, {1, 2}));
}

TEST(FileCalls, IdentityOfALinkIsItsOwn) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("x");
    const std::string link = directory.file("link");
    writeText(path, "");
    ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
    const platform::FileIdentity own = platform::identifyFile(link.c_str());
    EXPECT_TRUE(own.isKnown());
    EXPECT_FALSE(platform::isSameFile(own, platform::identifyFile(path.c_str())));
}

// --- the machine ---

TEST(Machine, KnowsItsUptimeAndTickRate) {
    timespec sinceBoot = {};
    ASSERT_EQ(::clock_gettime(CLOCK_BOOTTIME, &sinceBoot), 0);
    EXPECT_GE(platform::uptimeSeconds(), static_cast<long>(sinceBoot.tv_sec));
    EXPECT_LE(platform::uptimeSeconds(), static_cast<long>(sinceBoot.tv_sec) + 60);
    EXPECT_EQ(platform::clockTicksPerSecond(), ::sysconf(_SC_CLK_TCK));
}

} // namespace
