// What another user may have planted in a folder that everybody can write to: links, fifos, devices
// and second names of other files.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

#include <cerrno>
#include <cstdarg>
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

/// A folder with the pid file of a process, to which links may lead.
class PlantedPidFile : public Planted {
protected:
    PlantedPidFile() {
        ::mkdir(at("elsewhere").c_str(), 0755);
        writeText(at("elsewhere/app.pid"), "77\n1\n");
    }

    bool confirms(const std::string& name) const {
        appinfo record = {};
        record.pid = 77;
        return read_pid_file_version(record, at(name).c_str(), "1") == 0;
    }
};

TEST_F(PlantedPidFile, IsNotReachedByALinkInItsPlace) {
    ASSERT_TRUE(confirms("elsewhere/app.pid"));
    if (!plantLink("elsewhere/app.pid", "app.pid")) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_FALSE(confirms("app.pid"));
}

TEST_F(PlantedPidFile, IsNotReachedByALinkOnTheWay) {
    if (!plantLink("elsewhere", "way")) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_FALSE(confirms("way/app.pid"));
    EXPECT_FALSE(confirms("elsewhere/../way/app.pid"));
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0775), 0);
    EXPECT_TRUE(confirms("way/app.pid"));
}

TEST_F(PlantedPidFile, IsReachedByLinksOfOnesOwn) {
    ASSERT_EQ(::symlink("elsewhere", at("way").c_str()), 0);
    ASSERT_EQ(::symlink("way/app.pid", at("app.pid").c_str()), 0);
    EXPECT_TRUE(confirms("way/app.pid"));
    EXPECT_TRUE(confirms("app.pid"));
    ASSERT_EQ(::link(at("way").c_str(), at("second").c_str()), 0);
    EXPECT_FALSE(confirms("second/app.pid")) << "anybody may have given it that name";
}

TEST_F(PlantedPidFile, IsReachedByNoLinkInAFolderOfAnotherUser) {
    ASSERT_EQ(::mkdir(at("theirs").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("../elsewhere", at("theirs/way").c_str()), 0);
    ASSERT_EQ(::symlink("../elsewhere/app.pid", at("theirs/link").c_str()), 0);
    writeText(at("theirs/app.pid"), "77\n1\n");
    if (::chown(at("theirs").c_str(), kAnotherUser, kAnotherUser) != 0) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_FALSE(confirms("theirs/way/app.pid"));
    EXPECT_FALSE(confirms("theirs/link"));
    EXPECT_TRUE(confirms("theirs/app.pid")) << "applications of that user write there";
}

// --- without openat2 -----------------------------------------------------------------------------

#if defined(RESOLVE_NO_SYMLINKS) && defined(SYS_openat2)
constexpr long kOpenat2 = SYS_openat2;
#else
constexpr long kOpenat2 = -1; // nobody asks for it, and no call has this number
#endif

/// The error with which openat2 is refused to this process; 0: it is not.
int g_refusal = 0;
int g_refusedCalls = 0;

} // namespace

// What stands between the program and the system's call.
extern "C" {

long __real_syscall(long number, ...);

long __wrap_syscall(long number, ...) {
    if (number == kOpenat2 && g_refusal != 0) {
        ++g_refusedCalls;
        errno = g_refusal;
        return -1;
    }
    long arguments[6] = {}; // as many as a call can have
    va_list list;
    va_start(list, number);
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                          arguments[4], arguments[5]);
}

} // extern "C"

namespace {

/// A process to which openat2 is refused: kernels before 5.6 do not know it (ENOSYS), and there are
/// containers whose filters forbid what they do not know (EPERM).
class PlantedPidFileWithoutOpenat2 : public PlantedPidFile,
                                     public testing::WithParamInterface<int> {
protected:
    enum Outcome { kConfirmed, kNotConfirmed, kNotRefused };

    /// What such a process makes of the pid file.
    int outcome(const std::string& name) const {
        return runInChild([&] {
            g_refusal = GetParam();
            const bool isConfirmed = confirms(name);
            if (kOpenat2 != -1 && g_refusedCalls == 0) {
                return kNotRefused;
            }
            return isConfirmed ? kConfirmed : kNotConfirmed;
        });
    }
};

TEST_P(PlantedPidFileWithoutOpenat2, IsReachedWhereNoLinkIsOnTheWay) {
    writeText(at("app.pid"), "77\n1\n");
    EXPECT_EQ(outcome("app.pid"), kConfirmed);
    EXPECT_EQ(outcome("elsewhere/app.pid"), kConfirmed);
    writeText(at("app.pid"), "78\n1\n");
    EXPECT_EQ(outcome("app.pid"), kNotConfirmed);
}

TEST_P(PlantedPidFileWithoutOpenat2, IsReachedByLinksOfOnesOwn) {
    ASSERT_EQ(::symlink("elsewhere", at("way").c_str()), 0);
    ASSERT_EQ(::symlink("way/app.pid", at("app.pid").c_str()), 0);
    EXPECT_EQ(outcome("way/app.pid"), kConfirmed);
    EXPECT_EQ(outcome("app.pid"), kConfirmed);
}

TEST_P(PlantedPidFileWithoutOpenat2, IsNotReachedByALinkOfAnotherUser) {
    if (!plantLink("elsewhere", "way") || !plantLink("elsewhere/app.pid", "app.pid")) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_EQ(outcome("app.pid"), kNotConfirmed);
    EXPECT_EQ(outcome("way/app.pid"), kNotConfirmed);
    EXPECT_EQ(outcome("elsewhere/../way/app.pid"), kNotConfirmed);
}

TEST_P(PlantedPidFileWithoutOpenat2, IsNoFifoOrDevice) {
    ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
    EXPECT_EQ(outcome("fifo"), kNotConfirmed);
    if (!plantDevice("device")) {
        GTEST_SKIP() << "takes root";
    }
    EXPECT_EQ(outcome("device"), kNotConfirmed);
}

INSTANTIATE_TEST_SUITE_P(Refusals, PlantedPidFileWithoutOpenat2, testing::Values(ENOSYS, EPERM));

// --- pid files that are written ------------------------------------------------------------------

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
