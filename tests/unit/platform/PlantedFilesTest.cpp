// What another user may have planted in a folder that everybody can write to: links, fifos, devices
// and second names of other files.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "PlantedFiles.h"
#include "TestSupport.h"
#include "platform/Process.h"
#include "platform/ShmUpdate.h"
#include "platform/TextFile.h"
#include "platform/UniqueFd.h"
#include "platform/linux/EventLog.h"
#include "platform/linux/Files.h"
#include "platform/linux/HeartbeatRegistry.h"

namespace {

using namespace testsupport;
using platform::openFile;
using platform::openFolderOf;

// --- links ---------------------------------------------------------------------------------------

TEST_F(Planted, LinkIsNotFollowedByAnyWayToOpenAFile) {
    if (!plantLink("victim", "link") || !plantLink("nowhere", "dangling")) {
        GTEST_SKIP() << "takes root";
    }
    for (const int flags :
         {O_RDONLY, O_WRONLY | O_CREAT | O_APPEND, O_WRONLY | O_CREAT | O_TRUNC}) {
        for (const char* name : {"link", "dangling"}) {
            errno = 0;
            EXPECT_FALSE(openFile(at(name).c_str(), flags, 0600).valid()) << name << flags;
            EXPECT_EQ(errno, ELOOP) << name << flags;
        }
    }
    EXPECT_FALSE(exists(at("nowhere")));
    std::string text;
    EXPECT_FALSE(platform::readTextFile(at("link").c_str(), text));
}

TEST_F(Planted, LinkInAFolderThatIsNotEverybodysIsFollowed) {
    if (!plantLink("victim", "link")) {
        GTEST_SKIP() << "takes root";
    }
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0775), 0);
    EXPECT_TRUE(openFile(at("link").c_str(), O_RDONLY).valid());
    const platform::UniqueFd folder = openFile(directory_.path().c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_TRUE(platform::openFileAt(folder.get(), "link", O_RDONLY).valid());
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0777), 0);
    EXPECT_FALSE(platform::openFileAt(folder.get(), "link", O_RDONLY).valid());
}

TEST_F(Planted, LinkOfOnesOwnIsFollowed) {
    ASSERT_EQ(::symlink("victim", at("link").c_str()), 0);
    ASSERT_EQ(::symlink("created", at("dangling").c_str()), 0);
    EXPECT_TRUE(openFile(at("link").c_str(), O_RDONLY).valid());
    EXPECT_FALSE(openFile(at("link").c_str(), O_RDONLY | O_NOFOLLOW).valid());
    EXPECT_TRUE(openFile(at("dangling").c_str(), kCreateForWriting, 0600).valid());
    EXPECT_TRUE(exists(at("created")));
}

/// Without fs.protected_hardlinks any user can give a link of root's another name.
TEST_F(Planted, LinkWithASecondNameIsNotFollowed) {
    ASSERT_EQ(::symlink("victim", at("link").c_str()), 0);
    ASSERT_EQ(::link(at("link").c_str(), at("second").c_str()), 0);
    for (const char* name : {"link", "second"}) {
        errno = 0;
        EXPECT_FALSE(openFile(at(name).c_str(), O_RDONLY).valid()) << name;
        EXPECT_EQ(errno, ELOOP) << name;
    }
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0775), 0);
    EXPECT_TRUE(openFile(at("second").c_str(), O_RDONLY).valid()) << "it can only be its owner's";
}

TEST_F(Planted, LinkToAFolderWithASecondNameLeadsNoPidFileElsewhere) {
    ASSERT_EQ(::mkdir(at("elsewhere").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("elsewhere", at("link").c_str()), 0);
    ASSERT_EQ(writePidFile(5, "link/app.pid"), 0);
    ASSERT_EQ(::link(at("link").c_str(), at("pid").c_str()), 0);
    EXPECT_EQ(writePidFile(6, "pid/app.pid"), -1);
    EXPECT_FALSE(exists(at("elsewhere/app.pid.6")));
}

TEST_F(Planted, LinkConfirmsNoPidFile) {
    writeText(at("real"), "77\n1\n");
    appinfo record = {};
    record.pid = 77;
    ASSERT_EQ(read_pid_file_version(record, at("real").c_str(), "1"), 0);
    if (!plantLink("real", "app.pid.77")) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_LT(read_pid_file_version(record, at("app.pid.77").c_str(), "1"), 0);
}

TEST_F(Planted, LinkToAFolderLeadsNoPidFileElsewhere) {
    ASSERT_EQ(::mkdir(at("elsewhere").c_str(), 0755), 0);
    if (!plantLink("elsewhere", "pid")) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_EQ(writePidFile(5, "pid/app.pid"), -1);
    EXPECT_EQ(writePidFile(5, "pid/home/kelvo/app.pid"), -1);
    EXPECT_FALSE(exists(at("elsewhere/app.pid.5")));
    EXPECT_FALSE(exists(at("elsewhere/home")));
}

TEST_F(Planted, LinkInAFolderOfAnotherUserLeadsNoPidFileElsewhere) {
    ASSERT_EQ(::mkdir(at("elsewhere").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(at("pid").c_str(), 0755), 0);
    if (!plantLink("../elsewhere", "pid/home") ||
        ::chown(at("pid").c_str(), kAnotherUser, kAnotherUser) != 0) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_EQ(writePidFile(5, "pid/home/app.pid"), -1);
    EXPECT_EQ(writePidFile(5, "pid/app.pid"), 0) << "the folder itself does no harm";
    EXPECT_FALSE(exists(at("elsewhere/app.pid.5")));
}

TEST_F(Planted, LinkInPlaceOfTheEventLogIsNotFollowed) {
    ASSERT_EQ(::symlink("victim", at("log").c_str()), 0);
    EXPECT_EQ(platform::appendEvent(at("log").c_str(), "Ovard", zortime8b{}, "text"), -1);
}

// --- folders -------------------------------------------------------------------------------------

TEST_F(Planted, FolderIsReachedFromTheOneThatHoldsIt) {
    const platform::UniqueFd folder = openFolderOf(at("new//deeper/./file"));
    ASSERT_TRUE(folder.valid());
    EXPECT_EQ(::fcntl(folder.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(platform::openFileAt(folder.get(), "file", kCreateForWriting, 0600).valid());
    EXPECT_TRUE(exists(at("new/deeper/file")));
    EXPECT_EQ(modeOf(at("new/deeper")), 0755U);
}

TEST_F(Planted, FolderMayLieBelowTheWorkingDirectory) {
    EXPECT_EQ(runInChild([this] {
                  if (::chdir(directory_.path().c_str()) != 0) {
                      return 1;
                  }
                  int pid = 6;
                  return set_pid_file_version(&pid, "app.pid", kCreateForWriting, "1") == 0 &&
                                 set_pid_file_version(&pid, "x/app.pid", kCreateForWriting, "1") ==
                                     0
                             ? 0
                             : 2;
              }),
              0);
    EXPECT_EQ(readText(at("app.pid.6")), "6\n1\n");
    EXPECT_EQ(readText(at("x/app.pid.6")), "6\n1\n");
}

TEST_F(Planted, FileInPlaceOfAFolderIsAnError) {
    EXPECT_FALSE(openFolderOf(at("victim/file")).valid());
    EXPECT_EQ(errno, ENOTDIR);
}

// --- fifos and devices ---------------------------------------------------------------------------

TEST_F(Planted, FifoWithAReaderTakesNoPidFile) {
    ASSERT_EQ(::mkfifo(at("app.pid.1").c_str(), 0600), 0);
    const platform::UniqueFd reader(
        ::open(at("app.pid.1").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(writePidFile(1, "app.pid"), -1);
    char byte = 0;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 0) << "nothing was written";
}

TEST_F(Planted, DeviceIsNeitherReadNorWritten) {
    if (!plantDevice("app.pid.2")) {
        GTEST_SKIP() << "takes root";
    }
    appinfo record = {};
    record.pid = 2;
    EXPECT_LT(read_pid_file_version(record, at("app.pid.2").c_str(), ""), 0);
    EXPECT_EQ(writePidFile(2, "app.pid"), -1);
    std::string text;
    EXPECT_FALSE(platform::readTextFile(at("app.pid.2").c_str(), text));
    EXPECT_EQ(platform::appendEvent(at("app.pid.2").c_str(), "Ovard", zortime8b{}, "text"), -1);
    EXPECT_EQ(modeOf(at("app.pid.2")), 0600U);
}

// --- second names --------------------------------------------------------------------------------

TEST_F(Planted, SecondNameOfAnotherFileTakesNoPidFile) {
    ASSERT_EQ(::link(victim_.c_str(), at("app.pid.3").c_str()), 0);
    EXPECT_EQ(writePidFile(3, "app.pid"), -1);
    EXPECT_EQ(errno, EMLINK);
}

// --- segments ------------------------------------------------------------------------------------

/// A segment's name of its own in /dev/shm, and a private file of another program there.
class PlantedSegment : public testing::Test {
protected:
    PlantedSegment() {
        clear();
        writeText(other_, std::string(20000, 'o'));
        ::chmod(other_.c_str(), 0600);
    }
    ~PlantedSegment() override { clear(); }

    void clear() {
        removeTree(path_);
        removeTree(other_);
    }

    const std::string name_ = "/ovard_planted_" + std::to_string(::getpid());
    const std::string path_ = "/dev/shm" + name_;
    const std::string other_ = path_ + "_other";
};

TEST_F(PlantedSegment, SecondNameOpensNoOtherFileToEverybody) {
    ASSERT_EQ(::link(other_.c_str(), path_.c_str()), 0);
    ShmUpdate segment;
    (void)segment.openShm(name_.c_str(), O_RDWR | O_CREAT, 0666, 4096); // the mode is what matters
    EXPECT_EQ(modeOf(other_), 0600U);
    platform::HeartbeatRegistry(name_.c_str()).notify();
    EXPECT_EQ(modeOf(other_), 0600U);
}

TEST_F(PlantedSegment, DeviceIsNoSegment) {
    if (::mknod(path_.c_str(), S_IFCHR | 0600, kZeroDevice) != 0) {
        GTEST_SKIP() << "takes root";
    }
    ShmUpdate segment;
    EXPECT_LT(segment.openShm(name_.c_str(), O_RDWR | O_CREAT, 0666, 4096), 0);
    platform::HeartbeatRegistry(name_.c_str()).notify();
    EXPECT_EQ(platform::HeartbeatRegistry(name_.c_str()).check(::getpid(), 30), 3);
    EXPECT_EQ(modeOf(path_), 0600U);
}

} // namespace
