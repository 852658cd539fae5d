#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/UniqueFd.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/ExitStatus.h"
#include "tests/unit/appmanager/DataServer.h"

namespace {

using fakes::world;
using launches::kDaemon;
using launches::kNow;
using testing::ElementsAre;

// --- ovard_check_pid_alive -----------------------------------------------------------------------

class DeadPidTest : public testing::TestWithParam<int> {};

TEST_P(DeadPidTest, IsNotAliveAndNotProbed) {
    EXPECT_EQ(AppManager::ovard_check_pid_alive(GetParam()), 0);
    EXPECT_EQ(world().count("probe"), 0U);
}

INSTANTIATE_TEST_SUITE_P(Pids, DeadPidTest, testing::Values(0, -1, -2, -601, INT_MIN));

TEST(CheckPidAliveTest, MissingProcessIsNotAlive) {
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 0);
    EXPECT_EQ(world().calls, std::vector<std::string>{"probe 602"});
}

TEST(CheckPidAliveTest, LiveProcessIsAlive) {
    world().addProcess(kDaemon, "x", "/x");
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

TEST(CheckPidAliveTest, ZombieIsAlive) {
    world().addProcess(kDaemon, "x", "/x").zombie = true;
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

TEST(CheckPidAliveTest, OldErrnoDoesNotMatter) {
    world().addProcess(kDaemon, "x", "/x");
    errno = ESRCH;
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

TEST(CheckPidAliveTest, NoSuchProcessErrorMeansNotAlive) {
    world().addProcess(kDaemon, "x", "/x").killErrno = ESRCH;
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 0);
}

class FailedProbeTest : public testing::TestWithParam<int> {};

TEST_P(FailedProbeTest, MeansAlive) {
    world().addProcess(kDaemon, "x", "/x").killErrno = GetParam();
    EXPECT_EQ(AppManager::ovard_check_pid_alive(kDaemon), 1);
}

INSTANTIATE_TEST_SUITE_P(Errors, FailedProbeTest, testing::Values(EPERM, ENOENT, EINVAL, EIO));

// --- file2str ------------------------------------------------------------------------------------

class File2StrTest : public testing::Test {
protected:
    File2StrTest() {
        char path[] = "/tmp/ovard_unit_XXXXXX";
        const platform::UniqueFd file(::mkostemp(path, O_CLOEXEC));
        if (!file.valid()) {
            throw std::runtime_error("cannot make a file in /tmp");
        }
        path_ = path;
        std::memset(buffer_, 'x', sizeof buffer_);
    }

    ~File2StrTest() override { ::unlink(path_.c_str()); }

    void write(const std::string& content) {
        const platform::UniqueFd file(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(platform::writeFully(file.get(), content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
    }

    int read(int length) { return AppManager::file2str(path_.c_str(), buffer_, length); }

    std::string path_;
    char buffer_[16];
};

TEST_F(File2StrTest, ReadsAndTerminatesTheText) {
    write("abc\n");
    EXPECT_EQ(read(15), 4);
    EXPECT_STREQ(buffer_, "abc\n");
    EXPECT_EQ(buffer_[5], 'x');
}

TEST_F(File2StrTest, ReadsNoMoreThanAskedFor) {
    write("0123456789");
    EXPECT_EQ(read(4), 4);
    EXPECT_STREQ(buffer_, "0123");
}

TEST_F(File2StrTest, TerminatorStandsRightBehindTheWholeLength) {
    write("0123456789abcdefgh");
    EXPECT_EQ(read(15), 15);
    EXPECT_STREQ(buffer_, "0123456789abcde");
}

TEST_F(File2StrTest, ReadsInOneCall) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_DIRECT), 0); // Each write is read by a call of its own.
    const platform::UniqueFd readEnd(ends[0]);
    platform::UniqueFd writeEnd(ends[1]);
    ASSERT_EQ(::write(writeEnd.get(), "ab", 2), 2);
    ASSERT_EQ(::write(writeEnd.get(), "cd", 2), 2);
    writeEnd.reset();
    const std::string path = "/proc/self/fd/" + std::to_string(readEnd.get());
    EXPECT_EQ(AppManager::file2str(path.c_str(), buffer_, 15), 2);
    EXPECT_STREQ(buffer_, "ab");
    char rest[3] = {};
    EXPECT_EQ(::read(readEnd.get(), rest, 2), 2);
    EXPECT_STREQ(rest, "cd");
}

TEST_F(File2StrTest, EmptyFileGivesMinusTwo) {
    EXPECT_EQ(read(15), -2);
    EXPECT_EQ(buffer_[0], '\0');
    EXPECT_EQ(buffer_[1], 'x');
}

TEST_F(File2StrTest, MissingFileGivesMinusOne) {
    ::unlink(path_.c_str());
    EXPECT_EQ(read(15), -1);
    EXPECT_EQ(buffer_[0], '\0');
    EXPECT_EQ(buffer_[1], 'x');
}

TEST_F(File2StrTest, DirectoryGivesMinusTwo) {
    EXPECT_EQ(AppManager::file2str("/tmp", buffer_, 15), -2);
    EXPECT_EQ(buffer_[0], '\0');
}

TEST_F(File2StrTest, FifoDoesNotHoldItUp) {
    ::unlink(path_.c_str());
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(read(15), -2);
}

// --- is_uint -------------------------------------------------------------------------------------

TEST(IsUintTest, EmptyTextCountsAsANumber) {
    EXPECT_EQ(AppManager::is_uint(""), 0);
}

TEST(IsUintTest, DigitsAreANumber) {
    EXPECT_EQ(AppManager::is_uint("0"), 0);
    EXPECT_EQ(AppManager::is_uint("0123456789"), 0);
}

TEST(IsUintTest, AnythingElseIsNone) {
    EXPECT_EQ(AppManager::is_uint("self"), -1);
    EXPECT_EQ(AppManager::is_uint("-1"), -1);
    EXPECT_EQ(AppManager::is_uint("+1"), -1);
    EXPECT_EQ(AppManager::is_uint("1 "), -1);
    EXPECT_EQ(AppManager::is_uint("12a"), -1);
}

// --- updateUptime --------------------------------------------------------------------------------

TEST(UpdateUptimeTest, CountsWholeSecondsUntilNow) {
    EXPECT_EQ(AppManager::updateUptime(kNow - 3661), 3661);
    EXPECT_EQ(AppManager::updateUptime(kNow), 0);
}

TEST(UpdateUptimeTest, IsNegativeBeforeTheStart) {
    EXPECT_EQ(AppManager::updateUptime(kNow + 5), -5);
}

// --- errExit -------------------------------------------------------------------------------------

TEST(LaunchErrExitTest, ReportsTheErrorAndEndsTheMonitorWithMinusOne) {
    errno = EACCES;
    EXPECT_EQ(exitStatusOf([] { errExit("some message"); }), -1);
    EXPECT_EQ(world().errorText(), "some message: Permission denied\n");
    EXPECT_THAT(world().calls, ElementsAre("exitMonitor -1"));
}

} // namespace
